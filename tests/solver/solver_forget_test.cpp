// Forgetting the rivers of a turn game: what the entries keep, and the state
// the tree goes through until its rivers are solved again.
#include <cmath>

#include "solver_support.h"

TEST_F(SolverTest, ForgetKeepsNormalisedReachesUntilSolvedAgain) {
  GameSpec g;
  g.board = "QsJh2h7c";
  g.oop = {"AA", "KK", "QJ", "T9s", "65s", "A5s"};
  g.ip = {"QQ", "JJ", "AK", "KQ", "98s", "A4s"};
  g.lines = {"0 0 0 0", "0 0 50 50", "0 50 50 50 50", "0 50 50 100 100", "50 50 50 50", "50 50 100 100"};
  Tree& t = build(g);
  solve(t, scaled(40));
  const SolverResults before = results_now(t);
  ASSERT_TRUE(forget_street(t, 3));
  EXPECT_TRUE(t.flags & INCOMPLETE_TREE);
  EXPECT_EQ(t.forgotten_street, 3);
  const int32_t tc = t.boards->turn_child;
  int entries = 0, active = 0;
  for (const Node& n : t.nodes) {
    if (n.street == 3) EXPECT_EQ(n.regretStore, nullptr);
    if (n.kind != NODE_DECISION || n.street != 3 || n.parent->street == 3) continue;
    const SubgameResults& r = n.street_records[tc];
    entries++;
    EXPECT_TRUE(r.frozen);
    if (!r.active) continue;
    active++;
    for (int p = 0; p < 2; p++) {
      float sum = 0;
      for (int32_t i = 0; i < r.reach[p].count; i++) sum += r.reach[p].data[i];
      EXPECT_NEAR(sum, 200.0f, 0.01f) << p;
    }
  }
  EXPECT_EQ(entries, 3);  // after check-check, check-bet-call, bet-call
  EXPECT_GE(active, 2);
  // The values kept at the entries stand in for the rivers.
  const SolverResults kept = evaluate(t);
  EXPECT_NEAR(kept.ev0, before.ev0, 1e-4);
  EXPECT_NEAR(kept.mes1, before.mes1, 1e-4);

  EXPECT_FALSE(SolveSubgames(t, 3));  // no stores yet
  ASSERT_TRUE(rebuild_streets(t));
  EXPECT_FALSE(t.flags & INCOMPLETE_TREE);
  ASSERT_TRUE(SolveSubgames(t, 3));
  EXPECT_EQ(t.forgotten_street, -1);
  EXPECT_EQ(t.iteration, scaled(40));
  for (const Node& n : t.nodes)
    for (int32_t k = 0; k < n.street_record_count; k++) EXPECT_FALSE(n.street_records[k].frozen);
  EXPECT_NEAR(evaluate(t).ev0, before.ev0, 0.02 * g.pot);

  // A river root has nothing above its river to keep.
  free_active_tree();
  GameSpec river = g;
  river.board = "QsJh2h7c4d";
  river.lines = {"0 0", "50 50"};
  EXPECT_FALSE(forget_street(build(river), 3));
}
