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

struct Solved {
  SolverResults r;
  double seconds;
  int32_t iterations;
};

}  // namespace

struct SolverConfigs : SolverTest {
  Solved run(const GameSpec& g, int32_t iterations) {
    Tree& t = build(g);
    double s = solve(t, iterations);
    Solved out{evaluate(t), s, t.iteration};
    free_active_tree();
    return out;
  }
};

TEST_F(SolverConfigs, TurnGameSameValueWithTeamsBatchAndIsomorphism) {
  const int32_t n = scaled(300, 3);
  const double bound = UnderSanitizer ? 0.5 : 0.1;  // chips of a pot of 100
  Solved base = run(turn_game(), n);
  if (!UnderSanitizer)
    std::printf("[turn game: %d iterations in %.3f s, %.0f it/s, exploitable %.5f, value %.4f]\n",
                base.iterations, base.seconds, base.iterations / base.seconds, base.r.exploitable,
                base.r.ev0);
  EXPECT_LT(base.r.exploitable, bound);

  omp_set_num_threads(1);
  ThreadCount = 1;
  Solved one = run(turn_game(), n);
  omp_set_num_threads(2);
  ThreadCount = 2;
  // Only the order of float additions at the merge differs, which regret
  // matching carries on a little while the strategies still move.
  const double order = 1e-3 + 0.1 * base.r.exploitable;
  EXPECT_NEAR(one.r.ev0, base.r.ev0, order);
  EXPECT_NEAR(one.r.mes0, base.r.mes0, order);
  EXPECT_NEAR(one.r.mes1, base.r.mes1, order);

  SimdLevel = 1;
  Solved plain = run(turn_game(), n);
  SimdLevel = 8;
  EXPECT_NEAR(plain.r.ev0, base.r.ev0, 10 * order);
  expect_same_value(plain.r, base.r, 1e-3, "simd 1");

  IsomorphismTurn = true;
  Solved iso = run(turn_game(), n);
  IsomorphismTurn = false;
  EXPECT_LT(iso.r.exploitable, bound);
  expect_same_value(iso.r, base.r, 1e-3, "isomorphism");
  EXPECT_NEAR(iso.r.ev0, base.r.ev0, 2 * (iso.r.exploitable + base.r.exploitable) + 1e-3);
}

TEST_F(SolverConfigs, FlopGameSameValueAtEveryCompressionLevel) {
  const int32_t n = scaled(120, 3);
  const double bound = UnderSanitizer ? 1.0 : 0.5;
  Solved base{};
  for (int32_t level = 0; level <= 5; level++) {
    CompressionSetting = level;
    Solved s = run(flop_game(), n);
    if (!UnderSanitizer)
      std::printf("[flop game, level %d: %d iterations in %.3f s, %.0f it/s, exploitable %.5f, value %.4f]\n",
                  level, s.iterations, s.seconds, s.iterations / s.seconds, s.r.exploitable, s.r.ev0);
    EXPECT_LT(s.r.exploitable, bound) << "level " << level;
    EXPECT_GE(s.r.exploitable, -1e-3) << "level " << level;
    if (level == 0)
      base = s;
    else
      expect_same_value(s.r, base.r, 1e-3, compression_word(level));
  }
}

TEST_F(SolverConfigs, FlopGameSameValueWithIsomorphism) {
  const int32_t n = scaled(120, 3);
  Solved plain = run(flop_game(), n);
  IsomorphismFlop = true;
  Solved iso = run(flop_game(), n);
  IsomorphismFlop = false;
  ASSERT_TRUE(plain.r.exploitable < 0.5 || UnderSanitizer);
  expect_same_value(iso.r, plain.r, 1e-3, "isomorphism");
  EXPECT_NEAR(iso.r.ev0, plain.r.ev0, 2 * (iso.r.exploitable + plain.r.exploitable) + 1e-3);
}
