// Suit renaming: the canonical board naming, masks and pairs under a map, and
// the translation of per-pair arrays between real and canonical suits,
// checked against brute-force references over all suit permutations.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "cards/cards.h"

namespace {

struct Isomorphism : ::testing::Test {
  static void SetUpTestSuite() {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
  }
};

std::vector<SuitMap> all_suit_maps() {
  std::vector<SuitMap> maps;
  std::array<uint8_t, 4> p = {0, 1, 2, 3};
  do maps.push_back(SuitMap{{p[0], p[1], p[2], p[3]}});
  while (std::next_permutation(p.begin(), p.end()));
  return maps;
}

// Reference: the image card by card.
CardMask map_by_cards(CardMask m, const SuitMap& map) {
  CardMask out = 0;
  for (int c = 0; c < 52; c++)
    if (m & CardBit(c)) out |= CardBit(MakeCard(RankOf(Card(c)), map.to[SuitOf(Card(c))]));
  return out;
}

int pair_of_mask(CardMask m) { return PairIndexOf(63 - __builtin_clzll(m), __builtin_ctzll(m)); }

int suits_of(CardMask m) {
  int used = 0;
  for (int c = 0; c < 52; c++)
    if (m & CardBit(c)) used |= 1 << SuitOf(Card(c));
  return used;
}

bool is_permutation(const SuitMap& map) {
  int seen = 0;
  for (int s = 0; s < 4; s++) seen |= 1 << map.to[s];
  return seen == 15;
}

// Flop suits by their card counts, then by the flop's cards in ascending
// number; the turn and the river take the next free suits. The map is
// written as the new suit of clubs, diamonds, hearts and spades.
TEST_F(Isomorphism, BoardNamingFollowsSuitCounts) {
  struct Case {
    const char *flop, *turn, *river, *want_flop, *want_turn, *want_river, *map;
  };
  const Case cases[] = {
      {"QsJh2h", "", "", "2cJcQd", "", "", "2301"},  // hearts (two cards) first, spades second
      {"9h7h2h", "", "", "9c7c2c", "", "", "1203"},  // one suit; the others follow in suit order
      {"2sKh9d", "", "", "9cKd2h", "", "", "3012"},  // rainbow
      {"AsKs2s", "5d", "7c", "AcKc2c", "5d", "7h", "2130"},
      {"AsKs2d", "5s", "7h", "AcKc2d", "5c", "7h", "3120"},  // a turn of a flop suit leaves the free suits
  };
  for (const Case& c : cases) {
    CardMask flop = parse_cards(c.flop), turn = parse_cards(c.turn), river = parse_cards(c.river);
    SuitMap map = canonicalise_board(flop, turn, river);
    std::string to;
    for (int s = 0; s < 4; s++) to += char('0' + map.to[s]);
    EXPECT_EQ(mask_text(flop) + " " + mask_text(turn) + " " + mask_text(river) + " " + to,
              mask_text(parse_cards(c.want_flop)) + " " + mask_text(parse_cards(c.want_turn)) + " " +
                  mask_text(parse_cards(c.want_river)) + " " + c.map)
        << c.flop;
  }
}

TEST_F(Isomorphism, CanonicalBoardsUseTheLowestSuitsForEveryBoard) {
  // Every flop, with a random turn and river: the map is a permutation, the
  // masks are the images of the originals, and the suits in use are 0 .. u-1
  // after the flop, after the turn and after the river.
  std::mt19937 rng(7);
  int flops = 0;
  for (int a = 0; a < 52; a++)
    for (int b = a + 1; b < 52; b++)
      for (int c = b + 1; c < 52; c++) {
        CardMask flop0 = CardBit(a) | CardBit(b) | CardBit(c);
        int t = 0, r = 0;
        do t = int(rng() % 52); while (flop0 & CardBit(t));
        do r = int(rng() % 52); while ((flop0 | CardBit(t)) & CardBit(r));
        CardMask flop = flop0, turn = CardBit(t), river = CardBit(r);
        SuitMap map = canonicalise_board(flop, turn, river);
        ASSERT_TRUE(is_permutation(map));
        ASSERT_EQ(flop, map_by_cards(flop0, map));
        ASSERT_EQ(turn, map_by_cards(CardBit(t), map));
        ASSERT_EQ(river, map_by_cards(CardBit(r), map));
        for (CardMask m : {flop, flop | turn, flop | turn | river}) {
          int used = suits_of(m);
          ASSERT_EQ(used & (used + 1), 0) << mask_text(flop0);  // a prefix 0 .. u-1
        }
        flops++;
      }
  EXPECT_EQ(flops, 22100);
}

TEST_F(Isomorphism, CanonicalFlopIsTheSameForRenamedFlopsOfOneOrTwoSuits) {
  for (const char* text : {"9h7h2h", "QsJh2h", "AcAd5c", "KdKc2d"}) {
    CardMask reference = parse_cards(text), t = 0, r = 0;
    canonicalise_board(reference, t, r);
    for (const SuitMap& m : all_suit_maps()) {
      CardMask flop = map_by_cards(parse_cards(text), m);
      canonicalise_board(flop, t, r);
      EXPECT_EQ(flop, reference) << text;
    }
  }
}

TEST_F(Isomorphism, MasksPairsAndSwapsAgreeWithCardByCardImages) {
  std::mt19937_64 rng(11);
  for (const SuitMap& map : all_suit_maps()) {
    for (int i = 0; i < 200; i++) {
      CardMask m = rng() & ((CardMask(1) << 52) - 1);
      ASSERT_EQ(apply_suit_map(m, map), map_by_cards(m, map));
      ASSERT_EQ(apply_suit_map(apply_suit_map(m, map), inverse_suit_map(map)), m);
    }
    for (int p = 0; p < 1326; p++)
      ASSERT_EQ(apply_suit_map_to_pair(p, map), pair_of_mask(map_by_cards(PairMasks[p], map)));
    for (int c = 0; c < 52; c++)
      ASSERT_EQ(CardBit(apply_suit_map(Card(c), map)), map_by_cards(CardBit(c), map));
  }
  for (int a = 0; a < 4; a++)
    for (int b = 0; b < 4; b++) {
      SuitMap swap = IdentitySuitMap;
      swap.to[a] = uint8_t(b);
      swap.to[b] = uint8_t(a);
      for (int i = 0; i < 100; i++) {
        CardMask m = rng() & ((CardMask(1) << 52) - 1);
        ASSERT_EQ(swap_suits(m, a, b), map_by_cards(m, swap));
      }
    }
}

TEST_F(Isomorphism, RangeMappingMovesEachWeightToItsImage) {
  std::mt19937 rng(3);
  std::vector<double> in(1326), out(1326), back(1326);
  for (auto& w : in) w = double(rng() % 1000) / 999.0;
  for (const SuitMap& map : all_suit_maps()) {
    map_range_to_canonical(in.data(), out.data(), map);
    for (int p = 0; p < 1326; p++) ASSERT_EQ(out[size_t(pair_of_mask(map_by_cards(PairMasks[p], map)))], in[size_t(p)]);
    // Undoing the map brings every pair back to its own weight.
    undo_suit_map(out.data(), map, back.data());
    ASSERT_EQ(back, in);
  }
}

}  // namespace
