// Hand evaluator: the rank tables against direct counts, every five-card hand
// against a naive reference and the known category counts, six and seven cards
// against the best five-card subset, and the commands' exact lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include "cards/cards.h"
#include "core/core.h"

namespace {

// ---- Reference: a naive evaluator for up to five cards ---------------------

// Ranks grouped by count, larger groups first, higher ranks first within a
// count; the category follows from the group sizes, the fields from the order.
HandValue reference_value(const Card* cards, int n) {
  int count[13] = {};
  bool flush = n == 5;
  for (int i = 0; i < n; i++) {
    count[RankOf(cards[i])]++;
    if (SuitOf(cards[i]) != SuitOf(cards[0])) flush = false;
  }
  int group_rank[5], group_size[5], groups = 0;
  for (int size = 4; size >= 1; size--)
    for (int r = 12; r >= 0; r--)
      if (count[r] == size) group_rank[groups] = r, group_size[groups++] = size;
  bool straight = false;
  int top = 0;
  if (groups == 5) {
    if (group_rank[0] - group_rank[4] == 4) straight = true, top = group_rank[0];
    if (group_rank[0] == 12 && group_rank[1] == 3) straight = true, top = 3;  // ace to five
  }
  int category;
  if (straight && flush) category = CAT_STRAIGHTFLUSH;
  else if (group_size[0] == 4) category = CAT_QUADS;
  else if (group_size[0] == 3 && groups > 1 && group_size[1] == 2) category = CAT_FULLHOUSE;
  else if (flush) category = CAT_FLUSH;
  else if (straight) category = CAT_STRAIGHT;
  else if (group_size[0] == 3) category = CAT_TRIPS;
  else if (group_size[0] == 2 && groups > 1 && group_size[1] == 2) category = CAT_TWOPAIR;
  else if (group_size[0] == 2) category = CAT_PAIR;
  else category = CAT_HIGHCARD;
  HandValue v = HandValue(category) << 24;
  if (straight) return v | HandValue(top) << 16;
  for (int i = 0; i < groups; i++) v |= HandValue(group_rank[i]) << (16 - 4 * i);
  return v;
}

// Best value over all five-card subsets, by the evaluator's own five-card
// routine (which the exhaustive test checks against the reference).
HandValue best_five_of(const Card* cards, int n) {
  HandValue best = 0;
  Card five[5];
  for (int a = 0; a < n; a++)
    for (int b = a + 1; b < n; b++)
      for (int c = b + 1; c < n; c++)
        for (int d = c + 1; d < n; d++)
          for (int e = d + 1; e < n; e++) {
            five[0] = cards[a], five[1] = cards[b], five[2] = cards[c], five[3] = cards[d], five[4] = cards[e];
            best = std::max(best, evaluate_cards(five, 5));
          }
  return best;
}

std::vector<Card> cards_of(const std::string& text) {
  std::vector<Card> out;
  for (CardMask m = parse_cards(text); m; m &= m - 1) out.push_back(Card(__builtin_ctzll(m)));
  return out;
}

HandValue value_of(const std::string& text) {
  std::vector<Card> c = cards_of(text);
  return evaluate_cards(c.data(), int(c.size()));
}

// Draws n different cards from `deck`.
std::vector<Card> draw(std::mt19937_64& rng, std::vector<Card> deck, int n) {
  for (int i = 0; i < n; i++) {
    size_t j = i + rng() % (deck.size() - i);
    std::swap(deck[i], deck[j]);
  }
  deck.resize(n);
  return deck;
}

std::vector<Card> full_deck() {
  std::vector<Card> deck;
  for (int c = 0; c < 52; c++) deck.push_back(Card(c));
  return deck;
}

// Every settings global of the evaluator back to its start value, and the
// output buffer empty.
struct EvaluatorTest : ::testing::Test {
  static void reset() {
    reset_hand_type_order();
    LowCardIndex = 0;
    MustUseHoleCards = 0;
    SuppressOk = false;
    OutputBuffer.clear();
  }
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static std::string run(void (*handler)(const Tokens&), const Tokens& t) {
    OutputBuffer.clear();
    handler(t);
    std::string out = OutputBuffer;
    OutputBuffer.clear();
    return out;
  }
  static std::string error_of(void (*handler)(const Tokens&), const Tokens& t) {
    try {
      handler(t);
    } catch (const std::runtime_error& e) {
      OutputBuffer.clear();
      return e.what();
    }
    OutputBuffer.clear();
    return "no error";
  }
  static std::string eval_line(const std::string& cards) { return run(cmd_eval_hand, {"eval_hand", cards}); }
};

// ---- Rank tables ------------------------------------------------------------

TEST(RankTables, EveryEntryMatchesADirectCount) {
  EXPECT_EQ(RankCount[0] | TopRank[0] | TopFive[0] | StraightValue[0], 0u);
  for (uint32_t m = 1; m < uint32_t(RankTableSize); m++) {
    std::vector<uint32_t> ranks;  // high first
    for (int r = 12; r >= 0; r--)
      if (m >> r & 1) ranks.push_back(r);
    ASSERT_EQ(RankCount[m], ranks.size()) << m;
    ASSERT_EQ(TopRank[m], ranks[0]) << m;
    uint32_t five = 0;
    for (size_t i = 0; i < ranks.size() && i < 5; i++) five = five << 4 | ranks[i];
    ASSERT_EQ(TopFive[m], five) << m;
    if (ranks.size() > 7) continue;  // no hand has more than seven ranks
    uint32_t straight = 0;
    for (int top = 12; top >= 4 && !straight; top--)
      if ((m >> (top - 4) & 0x1F) == 0x1F) straight = 0x04000000 | uint32_t(top) << 16;
    if (!straight && (m & 0x100F) == 0x100F) straight = 0x04030000;
    ASSERT_EQ(StraightValue[m], straight) << m;
  }
}

// ---- Three, four and five cards ---------------------------------------------

TEST(FiveCards, AllHandsGiveTheKnownCategoryCounts) {
  uint64_t per_category[CATEGORY_NB] = {};
  std::set<HandValue> distinct;
  uint64_t total = 0, mismatches = 0;
  Card c[5];
  for (c[0] = 0; c[0] < 52; c[0]++)
    for (c[1] = c[0] + 1; c[1] < 52; c[1]++)
      for (c[2] = c[1] + 1; c[2] < 52; c[2]++)
        for (c[3] = c[2] + 1; c[3] < 52; c[3]++)
          for (c[4] = c[3] + 1; c[4] < 52; c[4]++) {
            HandValue v = evaluate_cards(c, 5);
            if (v != reference_value(c, 5) && mismatches++ < 5)
              ADD_FAILURE() << mask_text(CardBit(c[0]) | CardBit(c[1]) | CardBit(c[2]) | CardBit(c[3]) |
                                         CardBit(c[4]))
                            << std::hex << " " << v << " want " << reference_value(c, 5);
            per_category[v >> 24]++;
            distinct.insert(v);
            total++;
          }
  EXPECT_EQ(total, 2598960u);
  EXPECT_EQ(mismatches, 0u);
  const uint64_t known[CATEGORY_NB] = {1302540, 1098240, 123552, 54912, 10200, 5108, 3744, 624, 40};
  for (int k = 0; k < CATEGORY_NB; k++) EXPECT_EQ(per_category[k], known[k]) << HandTypeNames[k];
  EXPECT_EQ(distinct.size(), 7462u);
}

TEST(FiveCards, ThreeAndFourCardHandsMatchTheReference) {
  Card c[4];
  uint64_t checked = 0;
  for (c[0] = 0; c[0] < 52; c[0]++)
    for (c[1] = c[0] + 1; c[1] < 52; c[1]++)
      for (c[2] = c[1] + 1; c[2] < 52; c[2]++) {
        ASSERT_EQ(evaluate_cards(c, 3), reference_value(c, 3)) << mask_text(CardBit(c[0]) | CardBit(c[1]) | CardBit(c[2]));
        for (c[3] = c[2] + 1; c[3] < 52; c[3]++, checked++)
          ASSERT_EQ(evaluate_cards(c, 4), reference_value(c, 4))
              << mask_text(CardBit(c[0]) | CardBit(c[1]) | CardBit(c[2]) | CardBit(c[3]));
      }
  EXPECT_EQ(checked, 270725u);
  EXPECT_EQ(value_of("AsAhAdAc"), 0x070C0000u);  // quads of four cards: no kicker field
  EXPECT_EQ(value_of("AsKh9d"), 0x000CB700u);    // fields fill from F1 down
}

TEST(FiveCards, OtherCountsGiveZero) {
  Card c[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(evaluate_cards(c, 2), 0u);
  EXPECT_EQ(evaluate_cards(c, 8), 0u);
  EXPECT_EQ(evaluate_cards(c, 0), 0u);
  EXPECT_EQ(evaluate_mask(0), 0u);
}

// ---- Six and seven cards ----------------------------------------------------

// Every rank pattern of five to seven cards, with random suits, and hands from
// two suits for flushes, against the best five-card subset; the mask entry
// points agree.
TEST(SevenCards, EveryRankPatternEqualsTheBestFiveCardSubset) {
  std::mt19937_64 rng(77);
  for (int n = 5; n <= 7; n++) {
    int patterns = 0;
    std::vector<int> ranks(n, 0);
    std::function<void(int, int)> walk = [&](int pos, int from) {
      if (pos == n) {
        patterns++;
        for (int repeat = 0; repeat < 2; repeat++) {
          std::vector<Card> c;
          for (int i = 0; i < n;) {
            int j = i;
            while (j < n && ranks[j] == ranks[i]) j++;
            int suits[4] = {0, 1, 2, 3};
            std::shuffle(suits, suits + 4, rng);
            for (int k = i; k < j; k++) c.push_back(MakeCard(ranks[i], suits[k - i]));
            i = j;
          }
          HandValue v = evaluate_cards(c.data(), n);
          ASSERT_EQ(v, best_five_of(c.data(), n));
          CardMask m = 0;
          for (Card x : c) m |= CardBit(x);
          ASSERT_EQ(evaluate_mask(m), v);
        }
        return;
      }
      for (int r = from; r < 13; r++) {
        if (pos >= 4 && ranks[pos - 4] == r) continue;  // at most four of a rank
        ranks[pos] = r;
        walk(pos + 1, r);
      }
    };
    walk(0, 0);
    EXPECT_GT(patterns, 0);
  }
  std::vector<Card> two_suits;
  for (int r = 0; r < 13; r++) two_suits.push_back(MakeCard(r, 2)), two_suits.push_back(MakeCard(r, 3));
  int flushes = 0, straight_flushes = 0;
  for (int n = 5; n <= 7; n++)
    for (int i = 0; i < 50000; i++) {
      std::vector<Card> c = draw(rng, two_suits, n);
      HandValue v = evaluate_cards(c.data(), n);
      ASSERT_EQ(v, best_five_of(c.data(), n));
      CardMask m = 0;
      for (Card x : c) m |= CardBit(x);
      ASSERT_EQ(evaluate_mask(m), v);
      ASSERT_EQ(evaluate_mask_plain(m), v);
      flushes += (v >> 24) == CAT_FLUSH;
      straight_flushes += (v >> 24) == CAT_STRAIGHTFLUSH;
    }
  EXPECT_GT(flushes, 10000);
  EXPECT_GT(straight_flushes, 100);
}

// Shapes the walks above reach rarely; eval_hand's lines below hold more.
TEST(SevenCards, ShapeEdgeCases) {
  EXPECT_EQ(value_of("AcAdAhAsKcKdKh"), 0x070CB000u);  // quads and trips
  EXPECT_EQ(value_of("2c2d2h2s3c3dKh"), 0x0700B000u);  // quads, kicker above the pair
  EXPECT_EQ(value_of("QcQdQh5c5d3c3d"), 0x060A3000u);  // trips and two pairs
  EXPECT_EQ(value_of("Ah2h3h4h5h6h7h"), 0x08050000u);  // seven of a suit, straight flush to the seven
  EXPECT_EQ(value_of("AhKh9h5h3h2hKc"), 0x050CB731u);  // six of a suit: top five
}

// ---- Reduced deck and category order -----------------------------------------

TEST_F(EvaluatorTest, ReducedDeckLowStraight) {
  LowCardIndex = 4;  // ranks six to ace
  EXPECT_EQ(value_of("9c8d7h6sAc"), 0x04030000u);
  EXPECT_EQ(value_of("9h8h7h6hAh"), 0x08030000u);
  EXPECT_EQ(value_of("9c8d7h6sAcTc"), 0x04080000u);  // ten present: the ordinary straight
  EXPECT_EQ(value_of("9c9d9h8s7c6dAh"), 0x04030000u);  // beats trips
  EXPECT_EQ(value_of("9c9d9h8s8c6dAh"), 0x06076000u);  // no low straight (7 missing): full house
  EXPECT_EQ(value_of("9h8h7hKh2h6cAc"), 0x050B7650u);  // flush in another suit stays a flush
  EXPECT_EQ(value_of("9h8h7h6hAhKc"), 0x08030000u);
  // Plain values know nothing of the reduced deck.
  EXPECT_EQ(evaluate_cards_plain(cards_of("9c8d7h6sAc").data(), 5), 0x000C7654u);
  // Above trips in the order only: with trips placed over straights, trips stay.
  run(cmd_set_hand_type_order,
      {"set_hand_type_order", "highcard", "pair", "twopair", "straight", "trips", "flush", "fullhouse", "quads",
       "straightflush"});
  EXPECT_EQ(value_of("9c9d9h8s7c6dAh"), 0x0407C600u);  // trips of nines at position 4
}

TEST_F(EvaluatorTest, CategoryOrderMovesTheTopByteOnly) {
  EXPECT_EQ(run(cmd_set_hand_type_order, {"set_hand_type_order", "highcard", "pair", "twopair", "trips", "straight",
                                          "fullhouse", "flush", "quads", "straightflush"}),
            "set_hand_type_order ok!\n");
  EXPECT_EQ(value_of("AhKh9h5h3h"), 0x060CB731u);
  EXPECT_EQ(value_of("AhAdAcKsKd"), 0x050CB000u);
  EXPECT_GT(value_of("2h3h4h5h7h"), value_of("AhAdAcKsKd"));
  EXPECT_EQ(eval_line("AhKh9h5h3h"), "AhKh9h5h3h | 5 cards | 060cb731 |         flush | ace king nine five trey \n");
  EXPECT_EQ(eval_line("AhAdAcKsKd"), "AhAdAcKsKd | 5 cards | 050cb000 |     fullhouse | aces over kings\n");
  // Any other count is value 0, category 0, which the order then places.
  run(cmd_set_hand_type_order, {"set_hand_type_order", "pair", "highcard", "twopair", "trips", "straight", "flush",
                                "fullhouse", "quads", "straightflush"});
  Card c[2] = {0, 1};
  EXPECT_EQ(evaluate_cards(c, 2), 0x01000000u);
  reset_hand_type_order();
  EXPECT_TRUE(HandTypeOrderIsDefault);
  EXPECT_EQ(value_of("AhKh9h5h3h"), 0x050CB731u);
}

TEST_F(EvaluatorTest, SetHandTypeOrderErrors) {
  EXPECT_EQ(error_of(cmd_set_hand_type_order, {"set_hand_type_order", "pair", "highcard", "Twopair", "trips",
                                               "straight", "flush", "fullhouse", "quads", "straightflush"}),
            "ERROR: set_hand_type_order incorrect or missing argument\n");
  // The positions before the bad name stay written.
  EXPECT_EQ(HandTypeOrder[0], CAT_PAIR);
  EXPECT_EQ(HandTypeOrder[1], CAT_HIGHCARD);
  EXPECT_EQ(HandTypePosition[CAT_PAIR], 0);
  EXPECT_FALSE(HandTypeOrderIsDefault);
  // A name may repeat.
  EXPECT_EQ(run(cmd_set_hand_type_order, {"set_hand_type_order", "pair", "pair", "twopair", "trips", "straight",
                                          "flush", "fullhouse", "quads", "straightflush"}),
            "set_hand_type_order ok!\n");
  EXPECT_EQ(HandTypePosition[CAT_PAIR], 1);
}

TEST_F(EvaluatorTest, LoadHandTypeOrder) {
  const uint8_t swapped[9] = {0, 1, 2, 3, 4, 6, 5, 7, 8};
  EXPECT_TRUE(load_hand_type_order(swapped));
  EXPECT_FALSE(HandTypeOrderIsDefault);
  EXPECT_EQ(HandTypePosition[CAT_FLUSH], 6);
  const uint8_t natural[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_TRUE(load_hand_type_order(natural));
  EXPECT_TRUE(HandTypeOrderIsDefault);
  const uint8_t bad[9] = {0, 1, 2, 3, 4, 5, 6, 7, 9};
  EXPECT_FALSE(load_hand_type_order(bad));
  EXPECT_TRUE(HandTypeOrderIsDefault);
}

// ---- eval_hand ----------------------------------------------------------------

TEST_F(EvaluatorTest, EvalHandLines) {
  EXPECT_EQ(eval_line("Ac2d3h4s5cKdQh"), "Ac2d3h4s5cKdQh | 7 cards | 04030000 |      straight | five four trey deuce ace\n");
  EXPECT_EQ(eval_line("AhKhQhJhTh2c3c"),
            "AhKhQhJhTh2c3c | 7 cards | 080c0000 | straightflush | ace king queen jack ten \n");
  EXPECT_EQ(eval_line("7c7d8c8d9c9dKh"), "7c7d8c8d9c9dKh | 7 cards | 02076b00 |       twopair | nines and eights, king kicker\n");
  EXPECT_EQ(eval_line("7c7d8c8d9c9d2h"), "7c7d8c8d9c9d2h | 7 cards | 02076500 |       twopair | nines and eights, seven kicker\n");
  EXPECT_EQ(eval_line("AcAdAhKcKdKhQc"), "AcAdAhKcKdKhQc | 7 cards | 060cb000 |     fullhouse | aces over kings\n");
  EXPECT_EQ(eval_line("AhKd9c5s3h"), "AhKd9c5s3h | 5 cards | 000cb731 |      highcard | ace king nine five trey \n");
  EXPECT_EQ(eval_line("AhAdKc9s5h"), "AhAdKc9s5h | 5 cards | 010cb730 |          pair | aces, king nine five kicker\n");
  EXPECT_EQ(eval_line("AhAdAcKc9s"), "AhAdAcKc9s | 5 cards | 030cb700 |         trips | aces, king nine kicker\n");
  EXPECT_EQ(eval_line("AhAdAcAsKc"), "AhAdAcAsKc | 5 cards | 070cb000 |         quads | aces, king kicker\n");
  EXPECT_EQ(eval_line("as kd qh jc ts 2c"), "as kd qh jc ts 2c | 6 cards | 040c0000 |      straight | ace king queen jack ten \n");
}

TEST_F(EvaluatorTest, EvalHandCardCounts) {
  const std::string bad = "ERROR: eval_hand incorrect or missing argument\n";
  EXPECT_EQ(error_of(cmd_eval_hand, {"eval_hand", "AsKsQsJs"}), bad);
  EXPECT_EQ(error_of(cmd_eval_hand, {"eval_hand", "AsKsQsJsTs9s8s7s"}), bad);
  EXPECT_EQ(error_of(cmd_eval_hand, {"eval_hand", ""}), bad);
  EXPECT_EQ(error_of(cmd_eval_hand, {"eval_hand", "AsKsQsJsXs"}), "ERROR: invalid card\n");
  EXPECT_EQ(error_of(cmd_eval_hand, {"eval_hand", "AsKsQsJsAs"}), "ERROR: invalid card\n");
  EXPECT_EQ(eval_line("AsKsQsJs9s"), "AsKsQsJs9s | 5 cards | 050cba97 |         flush | ace king queen jack nine \n");
}

TEST_F(EvaluatorTest, EvalHandReducedDeckWords) {
  // set_low_card is the way users reach it; eval_hand knows no hole cards.
  EXPECT_EQ(run(cmd_set_low_card, {"set_low_card", "6"}), "set_low_card ok!\n");
  MustUseHoleCards = 2;
  EXPECT_EQ(eval_line("9c8d7h6sAc"), "9c8d7h6sAc | 5 cards | 04030000 |      straight | nine eight seven six ace\n");
  EXPECT_EQ(eval_line("9h8h7h6hAh"), "9h8h7h6hAh | 5 cards | 08030000 | straightflush | nine eight seven six ace\n");
}

// ---- Hole cards on a board -------------------------------------------------------

// Best five-card value over the subsets that use exactly `use` hole cards.
HandValue reference_must_use(CardMask board, CardMask hole, int use) {
  std::vector<Card> all = cards_of(mask_text(board | hole));
  HandValue best = 0;
  int n = int(all.size());
  for (int bits = 0; bits < 1 << n; bits++) {
    if (__builtin_popcount(bits) != 5) continue;
    CardMask m = 0;
    for (int i = 0; i < n; i++)
      if (bits >> i & 1) m |= CardBit(all[i]);
    if (card_count(m & hole) == use) best = std::max(best, evaluate_mask(m));
  }
  return best;
}

TEST_F(EvaluatorTest, BoardHolesFollowTheHoleCardRule) {
  std::mt19937_64 rng(5);
  std::vector<Card> deck = full_deck();
  std::vector<CardMask> holes(HandCount);
  std::vector<HandValue> out(HandCount);
  for (int mode = 0; mode <= 2; mode++)
    for (int k = 3; k <= 5; k++)
      for (int trial = 0; trial < 3; trial++) {
        MustUseHoleCards = mode;
        CardMask board = 0;
        for (Card c : draw(rng, deck, k)) board |= CardBit(c);
        for (int p = 0; p < HandCount; p++) holes[p] = PairMasks[p] & board ? 0 : PairMasks[p];
        evaluate_board_holes(holes.data(), HandCount, board, out.data());
        for (int p = 0; p < HandCount; p++) {
          HandValue want;
          if (!holes[p]) want = 0xFFFFFFFF;
          else if (mode == 0) want = evaluate_mask(board | holes[p]);
          else if (mode == 1) want = k < 4 ? 0 : reference_must_use(board, holes[p], 1);
          else want = reference_must_use(board, holes[p], 2);
          ASSERT_EQ(out[p], want) << mode << " " << mask_text(board) << " " << pair_text(p);
        }
      }
}

TEST_F(EvaluatorTest, SetMustUseHoleCards) {
  CardMask board = parse_cards("2h5h9hKh7c");
  CardMask holes[1] = {parse_cards("Ah3c")};
  HandValue out[1];
  EXPECT_EQ(run(cmd_set_must_use_hole_cards, {"set_must_use_hole_cards", "2"}), "set_must_use_hole_cards ok!\n");
  evaluate_board_holes(holes, 1, board, out);
  EXPECT_EQ(out[0], 0x000CB751u);  // ace king nine seven trey: no flush
  const std::string bad = "ERROR: set_must_use_hole_cards incorrect or missing argument\n";
  EXPECT_EQ(error_of(cmd_set_must_use_hole_cards, {"set_must_use_hole_cards", "3"}), bad);
  EXPECT_EQ(error_of(cmd_set_must_use_hole_cards, {"set_must_use_hole_cards", "-1"}), bad);
  EXPECT_EQ(MustUseHoleCards, 2);
  EXPECT_THROW(cmd_set_must_use_hole_cards({"set_must_use_hole_cards", "x"}), std::invalid_argument);
  EXPECT_THROW(cmd_set_must_use_hole_cards({"set_must_use_hole_cards", "99999999999"}), std::out_of_range);
  SuppressOk = true;
  EXPECT_EQ(run(cmd_set_must_use_hole_cards, {"set_must_use_hole_cards", "1"}), "");
  EXPECT_EQ(MustUseHoleCards, 1);
}

}  // namespace
