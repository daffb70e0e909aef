// One game, many ways to solve it: the team size, the river batch, suit
// isomorphism and every compression level change how the numbers are held
// and summed, never the game's value. Each solution brackets the value
// between -mes1 and mes0, so the brackets of two solutions must overlap.
#include "solver_support.h"

namespace {

GameSpec turn_game() {
  GameSpec g;
  g.board = "KsQs7h4h";
  g.oop = {"AA", "77", "JTs", "65s", "AKs"};
  g.ip = {"AK", "QJ", "44", "A5s"};
  g.lines = {"0 0 0 0", "0 0 0 50 50", "0 0 50 50", "0 0 50 150 150", "50 50 50 50", "50 50 150 150"};
  return g;
}

// Two suits on the flop leave two free suits: the isomorphic build deals
// their cards once, with variants 2.
GameSpec flop_game() {
  GameSpec g;
  g.board = "KsQs7h";
  g.oop = {"AA", "KQ", "JTs", "A5s"};
  g.ip = {"AK", "QJs", "T9s", "77"};
  g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50", "0 0 0 0 0 50 50", "0 0 50 50 50 50", "50 50 50 50 50 50",
             "50 50 50 50 150 150"};
  return g;
}

}  // namespace

struct SolverConfigs : SolverTest {
  SolverResults run(const GameSpec& g, int32_t iterations) {
    Tree& t = build(g);
    solve(t, iterations);
    SolverResults out = evaluate(t);
    free_active_tree();
    return out;
  }
};

TEST_F(SolverConfigs, TurnGameSameValueWithTeamsBatchAndIsomorphism) {
  const int32_t n = scaled(300, 3);
  const double bound = UnderSanitizer ? 0.5 : 0.1;  // chips of a pot of 100
  SolverResults base = run(turn_game(), n);
  EXPECT_LT(base.exploitable, bound);

  omp_set_num_threads(1);
  ThreadCount = 1;
  SolverResults one = run(turn_game(), n);
  omp_set_num_threads(2);
  ThreadCount = 2;
  // Only the order of float additions at the merge differs, which regret
  // matching carries on a little while the strategies still move.
  const double order = 1e-3 + 0.1 * base.exploitable;
  EXPECT_NEAR(one.ev0, base.ev0, order);
  EXPECT_NEAR(one.mes0, base.mes0, order);
  EXPECT_NEAR(one.mes1, base.mes1, order);

  SimdLevel = 1;
  SolverResults plain = run(turn_game(), n);
  SimdLevel = 8;
  EXPECT_NEAR(plain.ev0, base.ev0, 10 * order);
  expect_same_value(plain, base, 1e-3, "simd 1");

  IsomorphismTurn = true;
  SolverResults iso = run(turn_game(), n);
  IsomorphismTurn = false;
  EXPECT_LT(iso.exploitable, bound);
  expect_same_value(iso, base, 1e-3, "isomorphism");
  EXPECT_NEAR(iso.ev0, base.ev0, 2 * (iso.exploitable + base.exploitable) + 1e-3);
}

TEST_F(SolverConfigs, FlopGameSameValueAtEveryCompressionLevel) {
  const int32_t n = scaled(120, 3);
  const double bound = UnderSanitizer ? 1.0 : 0.5;
  SolverResults base{};
  for (int32_t level = 0; level <= 5; level++) {
    CompressionSetting = level;
    SolverResults s = run(flop_game(), n);
    EXPECT_LT(s.exploitable, bound) << "level " << level;
    EXPECT_GE(s.exploitable, -1e-3) << "level " << level;
    if (level == 0)
      base = s;
    else
      expect_same_value(s, base, 1e-3, compression_word(level));
  }
}

TEST_F(SolverConfigs, FlopGameSameValueWithIsomorphism) {
  const int32_t n = scaled(120, 3);
  SolverResults plain = run(flop_game(), n);
  IsomorphismFlop = true;
  SolverResults iso = run(flop_game(), n);
  IsomorphismFlop = false;
  ASSERT_TRUE(plain.exploitable < 0.5 || UnderSanitizer);
  expect_same_value(iso, plain, 1e-3, "isomorphism");
  EXPECT_NEAR(iso.ev0, plain.ev0, 2 * (iso.exploitable + plain.exploitable) + 1e-3);
}

// Scaling one range by a constant leaves the game as it was. The river's
// 16-bit regrets are scaled by the largest weight of the other player's
// range, whose reach the traverser's values carry; a range of weights
// 1/1024 puts the two players' scales three orders apart.
TEST_F(SolverConfigs, FlopGameSameValueWithOneRangeScaledDown) {
  const int32_t n = scaled(120, 3);
  const double bound = UnderSanitizer ? 1.0 : 0.5;
  GameSpec g = flop_game();
  SolverResults base = run(g, n);
  for (int p = 0; p < 2; p++) {
    GameSpec scaled_down = g;
    scaled_down.weight[p] = 1.0 / 1024;
    SolverResults s = run(scaled_down, n);
    EXPECT_LT(s.exploitable, bound) << "player " << p;
    // The same regrets up to rounding: the same strategies, the same value.
    EXPECT_NEAR(s.ev0, base.ev0, 1e-3 + 0.1 * base.exploitable) << "player " << p;
    expect_same_value(s, base, 1e-3, p == 0 ? "OOP scaled" : "IP scaled");
  }
}
