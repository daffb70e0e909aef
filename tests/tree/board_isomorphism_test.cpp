// Hole sets under suit isomorphism against the same board built card by
// card: every real turn and river, renamed onto its representative, must
// have the same hands with the same strengths, and the parent mappings of
// the variants must lead back to the same root hands.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "core/core.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

namespace {

int pair_of(CardMask m) { return PairIndexOf(63 - __builtin_clzll(m), __builtin_ctzll(m)); }

// Weights equal within each starting-hand shape, so symmetric in all suits;
// about one shape in six left out.
std::vector<double> symmetric_range(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<double> r(1326, 0.0);
  for (const auto& bucket : ShapeBuckets) {
    double w = rng() % 6 == 0 ? 0.0 : double(rng() % 1000 + 1) / 1000.0;
    for (uint16_t p : bucket) r[p] = w;
  }
  return r;
}

std::unique_ptr<BoardTree> build(CardMask flop, const std::vector<double>& r0, const std::vector<double>& r1,
                                 bool iso) {
  BoardSetup setup;
  setup.flop = flop;
  setup.ranges[0] = r0.data();
  setup.ranges[1] = r1.data();
  setup.use_isomorphism = iso;
  setup.action_max = 2;
  return build_board_tree(setup);
}

// The record of `card` among the children of a canonical board with `used`
// suits, and the suit exchange that maps the real card onto it.
struct Representative {
  const BoardRecord* record;
  int variant;
  int suit_a, suit_b;  // exchanged suits (equal: none)
};

Representative find_representative(const std::vector<BoardRecord>& children, const uint16_t card_child[52],
                                   int card) {
  if (card_child[card] != NoPosition) return {&children[card_child[card]], 0, 0, 0};
  int used = 0;
  CardMask board = children.front().board & ~CardBit(children.front().card);
  for (int s = 0; s < 4; s++)
    if ((board >> (13 * s)) & 0x1FFF) used = s + 1;
  int rep = MakeCard(RankOf(Card(card)), used);
  EXPECT_NE(card_child[rep], NoPosition) << card_text(Card(card));
  return {&children[card_child[rep]], SuitOf(Card(card)) - used, used, SuitOf(Card(card))};
}

struct IsomorphicBoards : ::testing::TestWithParam<const char*> {
  static void SetUpTestSuite() {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings();
  }
};

TEST_P(IsomorphicBoards, EveryRealCardAgreesWithItsRepresentative) {
  std::vector<double> r0 = symmetric_range(17), r1 = symmetric_range(29);
  auto iso = build(parse_cards(GetParam()), r0, r1, true);
  ASSERT_TRUE(iso->isomorphic);
  // Built card by card on the canonical flop; the ranges need no renaming.
  auto plain = build(iso->board, r0, r1, false);
  ASSERT_EQ(iso->holes, plain->holes);

  // Variants add up to the real cards.
  int turn_cards = 0;
  for (const BoardRecord& t : iso->children) {
    turn_cards += t.variants;
    int river_cards = 0;
    for (const BoardRecord& r : t.children) river_cards += r.variants;
    EXPECT_EQ(river_cards, 48);
  }
  EXPECT_EQ(turn_cards, 49);
  // One record for each card of the flop's suits and for each rank of the
  // first free suit, which stands for the free suits.
  int used = 0;
  for (int s = 0; s < 4; s++) used += (iso->board >> (13 * s) & 0x1FFF) != 0;
  EXPECT_EQ(iso->children.size(), size_t(13 * used - 3 + (used < 4 ? 13 : 0)));

  int rivers_checked = 0;
  for (const BoardRecord& real_turn : plain->children) {
    Representative t = find_representative(iso->children, iso->cardChild, real_turn.card);
    const BoardRecord& rep_turn = *t.record;
    ASSERT_LT(t.variant, rep_turn.variants);
    auto turn_swap = [&](CardMask m) { return swap_suits(m, t.suit_a, t.suit_b); };
    ASSERT_EQ(rep_turn.board, turn_swap(real_turn.board));

    // The same hands with the same strengths, and variant t.variant of each
    // representative hand leads to the real hand in the root list.
    ASSERT_EQ(rep_turn.holes.size(), real_turn.holes.size());
    for (size_t j = 0; j < real_turn.holes.size(); j++) {
      CardMask h = real_turn.holes[j];
      uint16_t pos = rep_turn.pairPosition[size_t(pair_of(turn_swap(h)))];
      ASSERT_NE(pos, NoPosition);
      ASSERT_EQ(rep_turn.strength[pos], real_turn.strength[j]);
      ASSERT_EQ(iso->holes[rep_turn.parentPosition[size_t(t.variant)][pos]], h);
      ASSERT_EQ(plain->holes[real_turn.parentPosition[0][j]], h);
    }

    for (const BoardRecord& real_river : real_turn.children) {
      // Rename the river onto the representative turn, then onto its own
      // representative there.
      int renamed = __builtin_ctzll(turn_swap(CardBit(real_river.card)));
      Representative r = find_representative(rep_turn.children, rep_turn.cardChild, renamed);
      const BoardRecord& rep_river = *r.record;
      ASSERT_LT(r.variant, rep_river.variants);
      auto river_swap = [&](CardMask m) { return swap_suits(turn_swap(m), r.suit_a, r.suit_b); };
      ASSERT_EQ(rep_river.board, river_swap(real_river.board));
      ASSERT_EQ(rep_river.holes.size(), real_river.holes.size());
      const std::vector<uint16_t> positions = pair_positions(rep_river.holes);
      for (size_t j = 0; j < real_river.holes.size(); j++) {
        CardMask h = real_river.holes[j];
        uint16_t pos = positions[size_t(pair_of(river_swap(h)))];
        ASSERT_NE(pos, NoPosition);
        ASSERT_EQ(rep_river.strength[pos], real_river.strength[j]);
        // River variant, then turn variant, lead back to the real hand.
        uint16_t in_turn = rep_river.parentPosition[size_t(r.variant)][pos];
        ASSERT_EQ(rep_turn.holes[in_turn], turn_swap(h));
        ASSERT_EQ(iso->holes[rep_turn.parentPosition[size_t(t.variant)][in_turn]], h);
        uint16_t plain_turn = real_river.parentPosition[0][j];
        ASSERT_EQ(plain->holes[real_turn.parentPosition[0][plain_turn]], h);
      }
      // Runs of equal strength are the same on both boards.
      ASSERT_EQ(rep_river.groups, real_river.groups);
      rivers_checked++;
    }
  }
  EXPECT_EQ(rivers_checked, 49 * 48);
}

// One suit, two suits, three suits, a paired flop of two suits and trips.
INSTANTIATE_TEST_SUITE_P(Flops, IsomorphicBoards,
                         ::testing::Values("9h7h2h", "QsJh2h", "Ks8d3c", "7c7d2c", "8s8d8c"));

struct IsomorphicCardLists : ::testing::Test {
  static void SetUpTestSuite() {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings();
  }
};

HandValue value_on(CardMask board, CardMask hand) {
  Card cards[7];
  int n = 0;
  for (CardMask m = board | hand; m; m &= m - 1) cards[n++] = Card(__builtin_ctzll(m));
  return evaluate_cards(cards, n);
}

TEST_F(IsomorphicCardLists, QueriesInRealCardsFindTheirBoardAndExpandBack) {
  // The user's flop in its own naming; every real turn, and the rivers below
  // every third one, are found through the query's renaming, and a per-hand
  // list of the board expanded back gives each real pair its real value.
  std::vector<double> r0 = symmetric_range(41), r1 = symmetric_range(43);
  const CardMask flop = parse_cards("QsJh2h");
  auto tree = build(flop, r0, r1, true);
  std::vector<double> strength, expanded(1326);
  auto check = [&](const BoardRecord& rec, CardMask real_board, const SuitMap& map) {
    ASSERT_EQ(rec.board, apply_suit_map(real_board, map));
    strength.assign(rec.strength.begin(), rec.strength.end());
    const std::vector<uint16_t> positions = rec.pairPosition.empty() ? pair_positions(rec.holes) : rec.pairPosition;
    expand_board_list(strength.data(), positions.data(), map, -1.0, expanded.data());
    for (int p = 0; p < 1326; p++) {
      bool live = !(PairMasks[p] & real_board) && (r0[size_t(p)] > 0 || r1[size_t(p)] > 0);
      double expected = live ? double(value_on(real_board, PairMasks[p])) : -1.0;
      ASSERT_EQ(expanded[size_t(p)], expected) << pair_text(p);
    }
  };
  for (int turn = 0; turn < 52; turn++) {
    if (flop & CardBit(turn)) continue;
    CanonicalCards q = canonicalise_query(flop, turn, -1, true);
    int32_t turn_cell, river_cell;
    ASSERT_TRUE(find_board_cells(*tree, q.turn, q.river, turn_cell, river_cell));
    ASSERT_EQ(river_cell, -1);
    check(tree->children[size_t(turn_cell)], flop | CardBit(turn), q.map);
    if (HasFatalFailure() || turn % 3) continue;
    for (int river = 0; river < 52; river++) {
      if ((flop | CardBit(turn)) & CardBit(river)) continue;
      q = canonicalise_query(flop, turn, river, true);
      ASSERT_TRUE(find_board_cells(*tree, q.turn, q.river, turn_cell, river_cell));
      BoardView view = board_view(*tree, turn_cell, river_cell);
      ASSERT_NE(view.record, nullptr);
      check(*view.record, flop | CardBit(turn) | CardBit(river), q.map);
      if (HasFatalFailure()) return;
    }
  }
  // Board cards have no record.
  int32_t t, r;
  CanonicalCards q = canonicalise_query(flop, __builtin_ctzll(parse_cards("Qs")), -1, true);
  EXPECT_FALSE(find_board_cells(*tree, q.turn, q.river, t, r));
}

}  // namespace
