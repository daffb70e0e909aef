// Per-board hole sets of a flop tree without isomorphism: which pairs each
// board holds, their order, the mappings to the parent lists, the runs of equal
// strength and the weights, each against a brute-force reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "core/core.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

namespace {

std::vector<double> random_range(uint32_t seed, int zero_in_ten) {
  std::mt19937 rng(seed);
  std::vector<double> r(1326);
  for (auto& w : r) w = int(rng() % 10) < zero_in_ten ? 0.0 : double(rng() % 1000 + 1) / 1000.0;
  return r;
}

HandValue reference_value(CardMask board, CardMask hand) {
  Card cards[7];
  int n = 0;
  for (CardMask m = board | hand; m; m &= m - 1) cards[n++] = Card(__builtin_ctzll(m));
  return evaluate_cards(cards, n);
}

int pair_of(CardMask m) { return PairIndexOf(63 - __builtin_clzll(m), __builtin_ctzll(m)); }

std::unique_ptr<BoardTree> build(const std::string& flop, const std::vector<double>& r0,
                                 const std::vector<double>& r1, int turn = -1, int river = -1,
                                 bool iso = false, int action_max = 3) {
  BoardSetup setup;
  setup.flop = parse_cards(flop);
  setup.turn = turn;
  setup.river = river;
  setup.ranges[0] = r0.data();
  setup.ranges[1] = r1.data();
  setup.use_isomorphism = iso;
  setup.action_max = action_max;
  return build_board_tree(setup);
}

// Checks one record against its parent list.
void check_record(const BoardRecord& rec, CardMask parent_board, const std::vector<CardMask>& parent_holes) {
  ASSERT_EQ(rec.board, parent_board | CardBit(rec.card));
  // The parent's pairs off the dealt card, no more, no less.
  std::set<CardMask> expected, got(rec.holes.begin(), rec.holes.end());
  for (CardMask h : parent_holes)
    if (!(h & CardBit(rec.card))) expected.insert(h);
  ASSERT_EQ(got, expected);
  ASSERT_EQ(got.size(), rec.holes.size());
  ASSERT_EQ(rec.parentPosition.size(), size_t(rec.variants));
  ASSERT_EQ(rec.strength.size(), rec.holes.size());
  ASSERT_EQ(rec.packed.size(), rec.holes.size());
  // A river board keeps no table of its own; the one made on demand must agree.
  const bool on_river = card_count(rec.board) == 5;
  ASSERT_EQ(rec.pairPosition.size(), on_river ? 0u : 1326u);
  const std::vector<uint16_t> positions = on_river ? pair_positions(rec.holes) : rec.pairPosition;
  size_t listed = 0;
  for (int p = 0; p < 1326; p++) {
    uint16_t pos = positions[size_t(p)];
    if (pos == NoPosition) continue;
    listed++;
    ASSERT_EQ(pair_of(rec.holes[pos]), p);
  }
  ASSERT_EQ(listed, rec.holes.size());
  const bool river = card_count(rec.board) == 5;
  for (size_t j = 0; j < rec.holes.size(); j++) {
    CardMask h = rec.holes[j];
    ASSERT_FALSE(h & rec.board);
    ASSERT_EQ(unpack_pair(rec.packed[j]), h);
    ASSERT_LT(rec.packed[j] & 0xFF, rec.packed[j] >> 8);
    ASSERT_EQ(parent_holes[rec.parentPosition[0][j]], h);
    ASSERT_EQ(rec.strength[j], reference_value(rec.board, h));
    if (j == 0) continue;
    // Ascending strength; ties by BlockerKey on rivers, then by parent position.
    auto key = [&](size_t i) {
      return std::make_tuple(rec.strength[i], river ? BlockerKey(rec.board, rec.holes[i]) : 0u,
                             rec.parentPosition[0][i]);
    };
    ASSERT_LT(key(j - 1), key(j));
  }
}

struct FlopTree : ::testing::Test {
  static inline std::vector<double> r0, r1;
  static inline std::unique_ptr<BoardTree> tree;

  static void SetUpTestSuite() {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings();
    r0 = random_range(1, 2);
    r1 = random_range(2, 3);
    tree = build("Th9h4c", r0, r1);
  }
  static void TearDownTestSuite() { tree.reset(); }
};

TEST_F(FlopTree, RootListHoldsLivePairsInPairOrder) {
  const BoardTree& t = *tree;
  EXPECT_EQ(t.board, parse_cards("Th9h4c"));
  EXPECT_FALSE(t.isomorphic);
  std::vector<CardMask> expected;
  for (int p = 0; p < 1326; p++)
    if (!(PairMasks[p] & t.board) && (r0[size_t(p)] > 0 || r1[size_t(p)] > 0)) expected.push_back(PairMasks[p]);
  ASSERT_EQ(t.holes, expected);
  ASSERT_EQ(t.packed.size(), t.holes.size());
  for (size_t i = 0; i < t.holes.size(); i++) {
    ASSERT_EQ(unpack_pair(t.packed[i]), t.holes[i]);
    ASSERT_EQ(t.pairPosition[size_t(pair_of(t.holes[i]))], i);
  }
  for (int p = 0; p < 1326; p++)
    if ((PairMasks[p] & t.board) || (r0[size_t(p)] == 0 && r1[size_t(p)] == 0))
      ASSERT_EQ(t.pairPosition[size_t(p)], NoPosition);
}

TEST_F(FlopTree, EveryBoardIsListedOnceWithItsCard) {
  const BoardTree& t = *tree;
  ASSERT_EQ(t.children.size(), 49u);
  int previous = -1;
  for (size_t i = 0; i < t.children.size(); i++) {
    const BoardRecord& turn = t.children[i];
    ASSERT_GT(turn.card, previous);  // suit-major: ascending card numbers
    previous = turn.card;
    ASSERT_EQ(turn.variants, 1);
    ASSERT_EQ(t.cardChild[turn.card], i);
    ASSERT_EQ(turn.children.size(), 48u);
    std::set<int> cards;
    for (size_t j = 0; j < turn.children.size(); j++) {
      const BoardRecord& river = turn.children[j];
      ASSERT_EQ(turn.cardChild[river.card], j);
      ASSERT_FALSE(turn.board & CardBit(river.card));
      ASSERT_TRUE(river.children.empty());
      cards.insert(river.card);
    }
    ASSERT_EQ(cards.size(), 48u);
  }
  for (int c = 0; c < 52; c++)
    if (t.board & CardBit(c)) ASSERT_EQ(t.cardChild[c], NoPosition);
}

TEST_F(FlopTree, RiverCardsComeOffTheMainSuitFirstThenByRank) {
  // Turn 5h on Th9h4c: hearts hold three cards, so they come last.
  const BoardRecord& turn = tree->children[tree->cardChild[__builtin_ctzll(parse_cards("5h"))]];
  std::vector<std::string> first, last;
  for (size_t j = 0; j < 4; j++) first.push_back(card_text(Card(turn.children[j].card)));
  for (size_t j = turn.children.size() - 3; j < turn.children.size(); j++)
    last.push_back(card_text(Card(turn.children[j].card)));
  EXPECT_EQ(first, (std::vector<std::string>{"2c", "2d", "2s", "3c"}));
  EXPECT_EQ(last, (std::vector<std::string>{"Qh", "Kh", "Ah"}));
  // Turn 7d: clubs, diamonds and hearts have at most two cards, hearts two:
  // hearts go last.
  const BoardRecord& turn2 = tree->children[tree->cardChild[__builtin_ctzll(parse_cards("7d"))]];
  EXPECT_EQ(card_text(Card(turn2.children[0].card)), "2c");
  EXPECT_EQ(card_text(Card(turn2.children[36].card)), "As");
  EXPECT_EQ(card_text(Card(turn2.children[37].card)), "2h");
  // A board with no suit of two cards has no main suit: rank, then suit.
  std::vector<double> all(1326, 1.0);
  auto rainbow = build("Th9d4c", all, all, __builtin_ctzll(parse_cards("5s")));
  const BoardRecord& flat = rainbow->children[0];
  for (size_t j = 1; j < flat.children.size(); j++) {
    Card a = Card(flat.children[j - 1].card), b = Card(flat.children[j].card);
    ASSERT_LT(std::make_pair(RankOf(a), SuitOf(a)), std::make_pair(RankOf(b), SuitOf(b)));
  }
}

TEST_F(FlopTree, TurnAndRiverListsFollowTheirParents) {
  const BoardTree& t = *tree;
  for (const BoardRecord& turn : t.children) {
    check_record(turn, t.board, t.holes);
    if (HasFatalFailure()) return;
    for (const BoardRecord& river : turn.children) {
      check_record(river, turn.board, turn.holes);
      if (HasFatalFailure()) return;
    }
  }
}

// River lists carry their runs of equal strength (the turn lists none).
TEST_F(FlopTree, RiverGroupsAreTheRunsOfEqualStrength) {
  for (const BoardRecord& turn : tree->children) {
    ASSERT_TRUE(turn.groups.empty());
    for (const BoardRecord& river : turn.children) {
      std::vector<int16_t> runs;
      for (size_t j = 0; j < river.strength.size(); j++) {
        if (j == 0 || river.strength[j] != river.strength[j - 1]) runs.push_back(0);
        runs.back()++;
      }
      ASSERT_EQ(river.groups, runs);
    }
  }
}

TEST_F(FlopTree, WeightsAndMatchupsAgreeWithADoubleSum) {
  const BoardTree& t = *tree;
  const std::vector<double>* ranges[2] = {&r0, &r1};
  for (int p = 0; p < 2; p++) {
    const std::vector<double>& own = *ranges[p];
    const std::vector<double>& other = *ranges[1 - p];
    double sum = 0;
    for (CardMask a : t.holes) {
      double inner = 0;
      for (CardMask b : t.holes)
        if (!(a & b)) inner += other[size_t(pair_of(b))];
      sum += own[size_t(pair_of(a))] * inner;
    }
    EXPECT_NEAR(t.Matchups[p], sum, sum * 1e-12);
    EXPECT_EQ(t.max_range_weight[p], *std::max_element(own.begin(), own.end()));
    ASSERT_EQ(t.reach_weights[p].size(), t.holes.size());
    ASSERT_EQ(t.norm_weights[p].size(), t.holes.size());
    for (size_t i = 0; i < t.holes.size(); i++) {
      double w = own[size_t(pair_of(t.holes[i]))];
      ASSERT_EQ(t.reach_weights[p][i], float(w));
      ASSERT_EQ(t.norm_weights[p][i], float(w / t.Matchups[p]));
    }
  }
}

struct BoardRules : ::testing::Test {
  static void SetUpTestSuite() {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
  }
  void SetUp() override { reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings(); }
  void TearDown() override { reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings(); }
};

TEST_F(BoardRules, BlockerKeyOrdersSuitedHandsNextToEachOther) {
  CardMask board = parse_cards("2c7d9hJsQc");
  EXPECT_EQ(BlockerKey(board, parse_cards("AhKh")), uint32_t((12 * 13 + 11) << 8 | 64 | 6));
  EXPECT_EQ(BlockerKey(parse_cards("2c7d9cJcQc"), parse_cards("AhKh")), uint32_t((12 * 13 + 11) << 8 | 64));
  EXPECT_EQ(BlockerKey(board, parse_cards("KdAs")), uint32_t((12 * 13 + 11) << 8 | (3 * 8 + 32) | (1 + 4)));
  EXPECT_EQ(BlockerKey(parse_cards("2c7c9cJcQc"), parse_cards("AhAd")), uint32_t((12 * 13 + 12) << 8));
}

TEST_F(BoardRules, EqualBlockerKeysMeanRenamingsThatKeepTheBoard) {
  // Reference: two hands are alike when a suit permutation fixing every
  // board suit maps one onto the other. Equal keys always mean alike; for
  // hands of two ranks the converse holds too.
  std::vector<std::array<int, 4>> perms;
  std::array<int, 4> p = {0, 1, 2, 3};
  do perms.push_back(p);
  while (std::next_permutation(p.begin(), p.end()));
  for (const char* text : {"2c7d9hJsQc", "2c7c9hJhQc", "2c7c9cJcQc", "AcAdAhKsKc"}) {
    CardMask board = parse_cards(text);
    int used = 0;
    for (int c = 0; c < 52; c++)
      if (board & CardBit(c)) used |= 1 << SuitOf(Card(c));
    std::vector<CardMask> hands;
    for (int q = 0; q < 1326; q++)
      if (!(PairMasks[q] & board)) hands.push_back(PairMasks[q]);
    for (CardMask a : hands)
      for (CardMask b : hands) {
        auto ranks = [](CardMask m) {
          int x = RankOf(Card(__builtin_ctzll(m))), y = RankOf(Card(63 - __builtin_clzll(m)));
          return std::make_pair(std::min(x, y), std::max(x, y));
        };
        if (ranks(a) != ranks(b)) {
          ASSERT_NE(BlockerKey(board, a), BlockerKey(board, b));
          continue;
        }
        bool alike = false;
        for (const auto& perm : perms) {
          bool keeps = true;
          for (int s = 0; s < 4; s++)
            if ((used >> s & 1) && perm[size_t(s)] != s) keeps = false;
          if (!keeps) continue;
          CardMask image = 0;
          for (int c = 0; c < 52; c++)
            if (a & CardBit(c)) image |= CardBit(MakeCard(RankOf(Card(c)), perm[size_t(SuitOf(Card(c)))]));
          if (image == b) alike = true;
        }
        bool equal = BlockerKey(board, a) == BlockerKey(board, b);
        if (equal) ASSERT_TRUE(alike) << text << " " << mask_text(a) << " " << mask_text(b);
        if (alike && ranks(a).first != ranks(a).second) ASSERT_TRUE(equal) << text << " " << mask_text(a) << " " << mask_text(b);
      }
  }
}

TEST_F(BoardRules, FixedTurnAndRiverMakeOneBoardEach) {
  std::vector<double> r0 = random_range(5, 2), r1 = random_range(6, 2);
  int turn = __builtin_ctzll(parse_cards("2d")), river = __builtin_ctzll(parse_cards("Kc"));

  auto turn_root = build("AsKs7h", r0, r1, turn, -1);
  ASSERT_EQ(turn_root->children.size(), 1u);
  EXPECT_EQ(turn_root->turn_child, 0);
  EXPECT_EQ(turn_root->river_child, -1);
  EXPECT_EQ(turn_root->cardChild[turn], 0);
  EXPECT_EQ(turn_root->children[0].children.size(), 48u);
  const BoardRecord& t = turn_root->children[0];
  check_record(t, turn_root->board, turn_root->holes);
  for (const BoardRecord& r : t.children) check_record(r, t.board, t.holes);
  // The weights belong to the turn board's list.
  ASSERT_EQ(turn_root->reach_weights[0].size(), t.holes.size());
  for (size_t i = 0; i < t.holes.size(); i++)
    ASSERT_EQ(turn_root->reach_weights[1][i], float(r1[size_t(pair_of(t.holes[i]))]));

  auto river_root = build("AsKs7h", r0, r1, turn, river, true);
  EXPECT_FALSE(river_root->isomorphic);  // never on a river root
  ASSERT_EQ(river_root->children.size(), 1u);
  ASSERT_EQ(river_root->children[0].children.size(), 1u);
  EXPECT_EQ(river_root->river_child, 0);
  const BoardRecord& r = river_root->children[0].children[0];
  EXPECT_EQ(r.board, parse_cards("AsKs7h2dKc"));
  check_record(r, river_root->children[0].board, river_root->children[0].holes);
  double sum = 0;
  for (CardMask a : r.holes)
    for (CardMask b : r.holes)
      if (!(a & b)) sum += r0[size_t(pair_of(a))] * r1[size_t(pair_of(b))];
  EXPECT_NEAR(river_root->Matchups[0], sum, sum * 1e-12);
  EXPECT_EQ(river_root->reach_weights[0].size(), r.holes.size());

  // A river without a turn is ignored: a flop tree.
  auto flop_root = build("AsKs7h", r0, r1, -1, river);
  EXPECT_EQ(flop_root->children.size(), 49u);
}

TEST_F(BoardRules, LowCardIndexSkipsLowRanks) {
  LowCardIndex = 4;
  std::vector<double> r(1326, 0.0);
  for (int p = 0; p < 1326; p++)
    if (RankOf(PairHi[p]) >= 4 && RankOf(PairLo[p]) >= 4) r[size_t(p)] = 1.0;
  for (bool iso : {false, true}) {
    auto t = build("AsKs7h", r, r, -1, -1, iso);
    size_t expected_turns = iso ? 9 * 2 - 3 + 9 : 36 - 3;
    EXPECT_EQ(t->children.size(), expected_turns);
    for (const BoardRecord& turn : t->children) {
      ASSERT_GE(RankOf(Card(turn.card)), 4);
      for (const BoardRecord& river : turn.children) ASSERT_GE(RankOf(Card(river.card)), 4);
    }
  }
}

TEST_F(BoardRules, AsymmetricRangesReportIsomorphErrors) {
  // 5d4d has weight and 5h4h has none, though both suits are free: the
  // variant swap maps one onto the other, which is not in the list.
  std::vector<double> r(1326, 1.0);
  r[size_t(pair_of(parse_cards("5h4h")))] = 0.0;
  BoardSetup setup;
  setup.flop = parse_cards("AsKs7c");  // spades -> 0, clubs -> 1; diamonds, hearts free
  setup.ranges[0] = r.data();
  setup.ranges[1] = r.data();
  setup.use_isomorphism = true;
  setup.last_street = 2;
  testing::internal::CaptureStderr();
  auto t = build_board_tree(setup);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("isomorph error: "), std::string::npos);
  EXPECT_NE(err.find(" | "), std::string::npos);
  // The canonical map keeps diamonds and hearts as suits 2 and 3.
  ASSERT_EQ(t->suit_map.to[1], 2);
  ASSERT_EQ(t->suit_map.to[2], 3);
  int lonely = apply_suit_map_to_pair(pair_of(parse_cards("5d4d")), t->suit_map);
  size_t holes = 0;
  for (const BoardRecord& turn : t->children) {
    ASSERT_TRUE(turn.children.empty());  // no river below the last street
    if (turn.variants < 2) continue;
    // Under variant 1 the 5d4d of this turn maps to the absent 5h4h, so it
    // stays on its own parent position: every position is a real one.
    uint16_t pos = turn.pairPosition[size_t(lonely)];
    if (pos == NoPosition) continue;
    EXPECT_EQ(turn.parentPosition[1][pos], turn.parentPosition[0][pos]);
    holes++;
  }
  EXPECT_GT(holes, 0u);
  // Each line: the board's cards, the hand, the swapped hand, each card
  // followed by a blank.
  std::regex line("isomorph error: (.. ){4} \\| (.. ){2} \\| (.. ){2}");
  size_t lines = 0;
  for (size_t at = 0, end; (end = err.find('\n', at)) != std::string::npos; at = end + 1, lines++)
    ASSERT_TRUE(std::regex_match(err.substr(at, end - at), line)) << err.substr(at, end - at);
  EXPECT_GT(lines, 0u);
  EXPECT_NE(err.find(" | 4h 5h  | 4s 5s \n"), std::string::npos) << err;
}

}  // namespace
