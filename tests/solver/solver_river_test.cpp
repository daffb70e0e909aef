// River games with a closed-form value: a polarised range (nuts and air)
// against bluff-catchers with one pot-sized bet. The bettor bets all nuts and
// half as many bluffs, the caller calls half the time; the nuts win 100 per
// matchup and the air loses 50, so with as much air as nuts the value for
// the bettor is +25 chips from the middle of a pot of 100.
#include <cmath>

#include "platform/platform.h"
#include "solver/walk.h"
#include "solver_support.h"

namespace {

GameSpec polarised_game() {
  GameSpec g;
  g.board = "KsQd7h4c2s";
  g.oop = {"KcKh", "KcKd", "KhKd", "6c5c", "6d5d", "6h5h"};
  g.ip = {"QcJc", "QhJh", "QsJs", "QhJc", "QsJd", "QcJh"};
  g.lines = {"100 100", "0 0"};
  return g;
}

// Both players with the same sixteen classes: rows of well over a hundred hands.
GameSpec wide_game(const std::string& board, std::vector<std::string> lines) {
  GameSpec g;
  g.board = board;
  g.oop = {"AA", "JJ", "TT", "99", "88", "66", "55", "33", "AJ", "AT", "A9", "JT", "T9", "98", "86", "65"};
  g.ip = g.oop;
  g.lines = std::move(lines);
  return g;
}

}  // namespace

TEST_F(SolverTest, PolarisedRiverConvergesToItsValue) {
  Tree& t = build(polarised_game());
  ASSERT_EQ(t.nodes[0].street, 3);
  solve(t, scaled(2000));
  SolverResults r = results_now(t);
  const double tol = UnderSanitizer ? 0.5 : 0.1;  // 0.1% of the pot
  EXPECT_NEAR(r.ev0, 25.0, tol);
  EXPECT_NEAR(r.ev1, -25.0, tol);
  EXPECT_LT(r.exploitable, tol);
  EXPECT_GE(r.exploitable, -1e-3);
  EXPECT_GE(r.mes0 - r.ev0, -1e-3);
  EXPECT_GE(r.mes1 - r.ev1, -1e-3);
  EXPECT_EQ(r.iteration, t.iteration);
  EXPECT_FALSE(t.flags & NEW_TREE);
  EXPECT_EQ(RegretIteration, t.iteration);
}

TEST_F(SolverTest, BatchAndPlainRecursionAgree) {
  GameSpec g = polarised_game();
  // A second bet size and a raise give the batch own nodes and other nodes
  // below each other.
  g.lines = {"100 100", "50 150 150", "50 50", "0 0", "0 60 60"};
  SimdLevel = 8;
  Tree& a = build(g);
  solve(a, scaled(300));
  SolverResults ra = evaluate(a);
  SimdLevel = 1;
  Tree& b = build(g);
  solve(b, scaled(300));
  SolverResults rb = evaluate(b);
  // Same sums up to the order of float additions.
  EXPECT_NEAR(ra.ev0, rb.ev0, 1e-2);
  EXPECT_NEAR(ra.mes0, rb.mes0, 1e-2);
  EXPECT_NEAR(ra.mes1, rb.mes1, 1e-2);
}

TEST_F(SolverTest, EvaluationBeforeTheAverageUsesCurrentStrategy) {
  Tree& t = build(polarised_game());
  // Nothing trained: regrets are zero and evaluation plays uniformly.
  SolverResults r0 = evaluate(t);
  // Uniform: the nuts bet half the time (worth 100 or 50), the air too.
  // IP calls half, so a bet is worth 100 with nuts and -50 with air; a check
  // 50 and -50. Nuts 75, air -50: value 12.5.
  EXPECT_NEAR(r0.ev0, 12.5, 1e-4);
  EXPECT_NEAR(r0.ev1, -12.5, 1e-4);
  solve(t, 60);
  // Up to iteration 60 no sum changes.
  for (const Node& n : t.nodes) {
    if (n.kind != NODE_DECISION || !n.strategyStore) continue;
    HandVector rows[2];
    float zeros[2] = {0, 0};
    int32_t tc = t.boards->turn_child, rc = t.boards->river_child;
    n.strategyStore->read_strategy(rows, tc, rc, zeros);
    for (size_t a = 0; a < n.children.size(); a++)
      for (int32_t i = 0; i < rows[a].count; i++) EXPECT_EQ(rows[a].data[i], 0.0f);
  }
  SolverResults r60 = results_now(t);
  solve(t, 1);
  SolverResults r61 = results_now(t);
  EXPECT_EQ(r61.iteration, 61);
  // Both are valid evaluations.
  EXPECT_GE(r60.exploitable, -1e-4);
  EXPECT_GE(r61.exploitable, -1e-4);
}

// The weight of the average: nothing through iteration 60, then (t - 60)^e,
// e = 4 with no cap on a river root, 1.5 capped at 262143 above it.
TEST_F(SolverTest, AverageWeightStartsAfterIteration60) {
  Tree& t = build(polarised_game());
  WalkState walk;
  walk.mode = MODE_TRAIN;
  auto weight = [&](Tree& tree, int32_t iteration, int32_t street) {
    tree.iteration = iteration;
    return average_weight(tree, walk, street);
  };
  EXPECT_EQ(weight(t, 0, 3), 0.0f);
  EXPECT_EQ(weight(t, 59, 3), 0.0f);
  EXPECT_EQ(weight(t, 60, 3), 0.0f);
  EXPECT_EQ(weight(t, 61, 3), 1.0f);
  EXPECT_EQ(weight(t, 62, 3), 16.0f);
  EXPECT_EQ(weight(t, 64, 3), 256.0f);
  EXPECT_EQ(weight(t, 60 + 5000, 3), float(std::pow(5000.0, 4.0)));
  walk.river_average_now = false;
  EXPECT_EQ(weight(t, 64, 3), 0.0f);
  walk.river_average_now = true;
  t.average_policy = 2;  // sums from the start, all alike
  EXPECT_EQ(weight(t, 0, 3), 1.0f);
  EXPECT_EQ(weight(t, 64, 3), 1.0f);
  t.average_policy = 0;
  EXPECT_EQ(weight(t, 64, 3), 0.0f);
  free_active_tree();

  GameSpec g = polarised_game();
  g.board = "KsQd7h4c";
  g.lines = {"0 0 100 100"};
  Tree& turn = build(g);
  EXPECT_EQ(weight(turn, 60, 2), 0.0f);
  EXPECT_EQ(weight(turn, 61, 2), 1.0f);
  EXPECT_EQ(weight(turn, 62, 2), float(std::pow(2.0, 1.5)));
  EXPECT_EQ(weight(turn, 64, 2), 8.0f);
  EXPECT_EQ(weight(turn, 60 + 4095, 2), float(std::pow(4095.0, 1.5)));
  EXPECT_EQ(weight(turn, 60 + 4096, 2), 262143.0f);
  EXPECT_EQ(weight(turn, 60 + 9000, 2), 262143.0f);
}

// The root's average against one summed here from the strategies it played:
// the root's reach is the same every iteration, so the sums over the
// iterations are the strategies weighted by the schedule alone.
TEST_F(SolverTest, RootAverageFollowsTheWeightSchedule) {
  Tree& t = build(polarised_game());
  Node& root = t.nodes[0];
  const int32_t tc = t.boards->turn_child, rc = t.boards->river_child;
  const int32_t n = int32_t(root.children.size());
  const int32_t hands = root.regretStore->row_length(tc, rc);
  float skewed[MaxNodeActions];
  default_strategy(root, skewed);
  std::vector<double> sums(size_t(n * hands), 0.0);
  double total = 0;
  for (int32_t it = 0; it < 72; it++) {
    const double w = it <= 60 ? 0.0 : std::pow(double(it - 60), 4.0);
    HandVector played[MaxNodeActions];
    root.regretStore->read_strategy(played, tc, rc, skewed);
    for (int32_t a = 0; a < n; a++)
      for (int32_t h = 0; h < hands; h++) sums[size_t(a * hands + h)] += w * double(played[a].data[h]);
    total += w;
    run_iteration(t);
  }
  HandVector average[MaxNodeActions];
  played_strategy(t, root, tc, rc, average, WalkAverageFrom);
  int32_t checked = 0;
  for (int32_t h = 0; h < hands; h++) {
    if (t.reach_weights[0][size_t(h)] == 0.0f) continue;
    checked++;
    for (int32_t a = 0; a < n; a++)
      EXPECT_NEAR(average[a].data[h], sums[size_t(a * hands + h)] / total, 1e-6) << "hand " << h << " action " << a;
  }
  EXPECT_EQ(checked, 6);
}

TEST_F(SolverTest, ResultsAreCachedOnlyForIncompleteTrees) {
  Tree& t = build(polarised_game());
  solve(t, 30);
  SolverResults a = results_now(t);
  EXPECT_EQ(results_cache().results_iteration, 30);
  // A complete tree recomputes; the numbers stay the same.
  SolverResults b = results_now(t);
  EXPECT_DOUBLE_EQ(a.ev0, b.ev0);
  EXPECT_DOUBLE_EQ(a.exploitable, b.exploitable);
  // An incomplete tree answers from the cache while the iteration is the same.
  results_cache().ev[0] = 1234.0;
  t.flags |= INCOMPLETE_TREE;
  EXPECT_DOUBLE_EQ(results_now(t).ev0, 1234.0);
  t.flags &= ~uint32_t(INCOMPLETE_TREE);
  EXPECT_DOUBLE_EQ(results_now(t).ev0, a.ev0);
}

TEST_F(SolverTest, FullyLockedPlayerHasNoGainAtItsNode) {
  Tree& t = build(polarised_game());
  // Lock the bettor's root cell on a strategy that always checks.
  Node& root = t.nodes[0];
  int32_t tc = t.boards->turn_child, rc = t.boards->river_child;
  int32_t n = root.regretStore->row_length(tc, rc);
  std::vector<float> zero(size_t(n), 0.0f), one(size_t(n), 1000.0f);
  root.regretStore->write_row(tc, rc, 0, zero.data());  // bet 100
  root.regretStore->write_row(tc, rc, 1, one.data());   // check
  root.regretStore->cell_lock_to_set(tc, rc)->flags |= CELL_LOCKED;
  solve(t, scaled(400));
  SolverResults r = evaluate(t);
  // Checking everything: showdown, nuts +50, air -50 -> value 0; the locked
  // player's best response keeps the lock, so its mes equals its ev.
  EXPECT_NEAR(r.ev0, 0.0, 1e-3);
  EXPECT_NEAR(r.mes0, r.ev0, 1e-3);
  EXPECT_NEAR(r.mes1, r.ev1, 1e-3);
  // Its regrets stayed as written.
  HandVector rows[2];
  float defaults[2] = {0.5f, 0.5f};
  root.regretStore->read_strategy(rows, tc, rc, defaults);
  for (int32_t i = 0; i < n; i++) EXPECT_EQ(rows[1].data[i], 1.0f);
}

TEST_F(SolverTest, DefaultStrategyIsSkewedToTheFirstAction) {
  Node n;
  float out[20];
  n.children = {1};
  default_strategy(n, out);
  EXPECT_EQ(out[0], 1.0f);
  n.children = {1, 2};
  default_strategy(n, out);
  EXPECT_EQ(out[0], 0.9f);
  EXPECT_FLOAT_EQ(out[1], 0.1f);
  n.children.assign(20, 1);
  default_strategy(n, out);
  EXPECT_EQ(out[0], 0.9f);
  EXPECT_FLOAT_EQ(out[19], float(0.1 / 19));
}

TEST_F(SolverTest, WalkReusesItsRowsOnceWarm) {
  // One thread: every row of the walk comes from this thread's pool, so
  // after a warm-up the number of blocks it owns stays the same.
  omp_set_num_threads(1);
  // A turn game: river subgames, chance nodes and the batch all take part.
  GameSpec g;
  g.board = "KsQs7h4h";
  g.oop = {"AA", "77", "JTs"};
  g.ip = {"AK", "QJ", "44"};
  g.lines = {"0 0 0 0", "0 0 0 50 50", "0 0 50 50", "50 50 50 50", "50 50 150 150"};
  Tree& t = build(g);
  solve(t, 70);
  evaluate(t);
  RowPool* pool = ensure_thread_row_pool(int64_t(4) * int64_t(t.boards->holes.size()));
  set_current_row_pool(nullptr);
  int64_t warm = row_pool_idle_blocks(*pool);
  EXPECT_GT(warm, 0);
  solve(t, 50);
  evaluate(t);
  EXPECT_EQ(row_pool_idle_blocks(*pool), warm);
}

// The average a walk plays: the sums normalised, and the current strategy for
// hands without sums, wherever they fall among the blocks the read goes by
// (first, last of a block, the next, the tail).
TEST_F(SolverTest, HandsWithoutSumsPlayTheCurrentStrategy) {
  Tree& t = build(wide_game("KsQd7h4c2s", {"100 100", "0 0"}));
  Node& root = t.nodes[0];
  const int32_t tc = t.boards->turn_child, rc = t.boards->river_child;
  const int32_t n = int32_t(root.children.size());
  const int32_t hands = root.regretStore->row_length(tc, rc);
  ASSERT_GT(hands, 130);
  solve(t, 64);
  // Sums of some hands set to nothing.
  const std::vector<int32_t> cleared = {0, 63, 64, 65, 127, hands - 1};
  HandVector sums[MaxNodeActions];
  static const float Zeros[MaxNodeActions] = {};
  root.strategyStore->read_strategy(sums, tc, rc, Zeros);
  std::vector<std::vector<float>> raw(static_cast<size_t>(n));
  for (int32_t a = 0; a < n; a++) {
    // read_strategy normalises; the rows written back are the normalised sums,
    // which leaves the average of the other hands as it was.
    raw[size_t(a)].assign(sums[a].data, sums[a].data + hands);
    for (int32_t h : cleared) raw[size_t(a)][size_t(h)] = 0.0f;
    root.strategyStore->write_row(tc, rc, a, raw[size_t(a)].data());
  }
  float uniform[MaxNodeActions];
  for (int32_t a = 0; a < n; a++) uniform[a] = 1.0f / float(n);
  HandVector current[MaxNodeActions], played[MaxNodeActions];
  root.regretStore->read_strategy(current, tc, rc, uniform);
  played_strategy(t, root, tc, rc, played, WalkAverageFrom);
  int32_t without = 0;
  for (int32_t h = 0; h < hands; h++) {
    float total = 0.0f;
    for (int32_t a = 0; a < n; a++) total += raw[size_t(a)][size_t(h)];
    without += total == 0.0f;
    for (int32_t a = 0; a < n; a++) {
      if (total == 0.0f)
        EXPECT_EQ(played[a].data[h], current[a].data[h]) << "hand " << h << " action " << a;
      else  // normalised twice
        EXPECT_NEAR(played[a].data[h], sums[a].data[h], 1e-6) << "hand " << h << " action " << a;
    }
  }
  EXPECT_GE(without, int32_t(cleared.size()));
  EXPECT_LT(without, hands / 2);

  // At the other player's node only hands with reach need a strategy: one
  // cleared hand with reach gets the current one, the others may stay at 0.
  std::vector<float> reach(size_t(hands), 0.0f);
  for (int32_t h = 0; h < hands; h++)
    for (int32_t a = 0; a < n; a++)
      if (raw[size_t(a)][size_t(h)] != 0.0f) reach[size_t(h)] = 1.0f;
  reach[64] = 0.5f;
  HandVector other[MaxNodeActions];
  played_strategy(t, root, tc, rc, other, WalkAverageFrom, reach.data());
  for (int32_t a = 0; a < n; a++) {
    EXPECT_EQ(other[a].data[64], current[a].data[64]) << "action " << a;
    EXPECT_EQ(other[a].data[1], played[a].data[1]) << "action " << a;
  }
  reach[64] = 0.0f;
  played_strategy(t, root, tc, rc, other, WalkAverageFrom, reach.data());
  for (int32_t a = 0; a < n; a++) EXPECT_EQ(other[a].data[64], 0.0f) << "left at 0 without reach, action " << a;
}

// Flat stores get their pages written before the walk first reads them (else
// each page is read as the zero page and copied on its first write): the
// regrets when the stores are made, the sums only when averaging starts, so
// a short solve doesn't hold memory it never uses.
TEST_F(SolverTest, FlatStorePagesComeWhenFirstNeeded) {
  Tree& t = build(wide_game("KsQd7h4c", {"0 0 100 100", "0 0 0 0"}));
  auto resident = [&](bool sums) {
    std::vector<PageBlock> blocks;
    for (Node& node : t.nodes) add_flat_pages(sums ? node.strategyStore : node.regretStore, blocks);
    size_t in = 0, all = 0;
    for (const PageBlock& b : blocks) {
      in += resident_bytes_in(b.data, b.bytes);
      all += b.bytes;
    }
    EXPECT_GT(all, size_t(4) << 12) << "a game too small to tell pages apart";
    return all ? double(in) / double(all) : 0.0;
  };
  EXPECT_EQ(resident(false), 1.0);
  EXPECT_EQ(resident(true), 0.0);
  t.iteration = WalkAverageFrom - 1;
  run_iteration(t);
  EXPECT_EQ(resident(true), 0.0);  // nothing summed yet
  run_iteration(t);
  EXPECT_EQ(resident(true), 1.0);
}
