// The equity kernel against a plain enumeration of every opponent hand and
// every run-out, on river, turn and flop boards: ties, card removal and hands
// on the board included.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "analysis/analysis.h"

namespace {

struct Tables : ::testing::Environment {
  void SetUp() override {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
  }
};
const auto* const Registered = ::testing::AddGlobalTestEnvironment(new Tables);

// Average outcome (+1 win, -1 loss, 0 tie) of `mine` against each opponent
// hand over all run-outs, weighted; returns the weight met.
double brute_force(CardMask board, CardMask mine, const std::vector<double>& opp, double& advantage) {
  advantage = 0;
  double met = 0;
  for (int p = 0; p < 1326; p++) {
    CardMask o = HandMasks[PairToHand[p]];
    if (opp[p] <= 0 || (o & (board | mine))) continue;
    met += opp[p];
    std::vector<int> deck;
    for (int c = 0; c < 52; c++)
      if (!((board | mine | o) & CardBit(Card(c)))) deck.push_back(c);
    double sum = 0, n = 0;
    auto showdown = [&](CardMask b) {
      HandValue a = evaluate_mask(b | mine), v = evaluate_mask(b | o);
      sum += a > v ? 1 : a < v ? -1 : 0;
      n++;
    };
    int open = 5 - __builtin_popcountll(board);
    if (open == 0) showdown(board);
    for (size_t i = 0; open >= 1 && i < deck.size(); i++) {
      if (open == 1) {
        showdown(board | CardBit(Card(deck[i])));
        continue;
      }
      for (size_t j = i + 1; j < deck.size(); j++) showdown(board | CardBit(Card(deck[i])) | CardBit(Card(deck[j])));
    }
    advantage += opp[p] * sum / n;
  }
  return met;
}

}  // namespace

TEST(Equity, KernelMatchesEnumeration) {
  struct Case {
    const char* board;
    int opponents;  // hands with weight in the opponent's range
    int checked;    // own hands compared
  } cases[] = {{"Ah Kd 7c 7s 2d", 400, 200}, {"Ts 9s 8s 3h", 120, 60}, {"Qs Jh 2h", 12, 12}};
  std::mt19937 rng(11);
  for (const Case& c : cases) {
    const CardMask board = parse_cards(c.board);
    std::vector<double> opp(1326, 0.0);
    for (int i = 0; i < c.opponents; i++) opp[rng() % 1326] = (rng() % 4 + 1) * 0.25;
    std::vector<double> adv(1326), match(1326);
    equity_kernel(board, opp.data(), adv.data(), match.data());
    // A hand holding a board card meets nobody.
    for (int p = 0; p < 1326; p++) {
      if (HandMasks[PairToHand[p]] & board) { EXPECT_EQ(match[p], 0.0) << c.board; }
    }
    for (int k = 0; k < c.checked; k++) {
      int p = int(rng() % 1326);
      CardMask mine = HandMasks[PairToHand[p]];
      if (mine & board) continue;
      double expected_adv;
      double met = brute_force(board, mine, opp, expected_adv);
      EXPECT_NEAR(match[p], met, 1e-9) << c.board << " " << pair_text(p);
      EXPECT_NEAR(adv[p], expected_adv, 1e-9) << c.board << " " << pair_text(p);
    }
  }
}

TEST(Equity, StrengthOrderAndNoMatchups) {
  const CardMask board = parse_cards("Ah Kd 7c 7s 2d");
  std::vector<double> opp(1326, 1.0);
  std::vector<int32_t> order = hand_strength_order(board, opp.data());
  // Every hand off the board is listed once; quad sevens lead.
  EXPECT_EQ(order.size(), size_t(47 * 46 / 2));
  EXPECT_EQ(HandMasks[order[0]], parse_cards("7h 7d"));
  EXPECT_TRUE(std::isnan(equity_of(0.0, 0.0)));
  EXPECT_EQ(equity_of(0.0, 3.0), 0.5);
}
