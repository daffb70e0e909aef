// calc_ev answers from what an earlier walk kept, or from the evaluation's
// street records, must read exactly as a fresh walk of the tree as it is now:
// after every command that changes strategies, values or the tree.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "analysis/analysis.h"
#include "shell/shell.h"
#include "shell_support.h"
#include "solver/solver.h"
#include "tree/tree.h"

namespace {

const char* const Lines[] = {"0 0 0 0 0 0", "0 0 0 0 0 8 8",   "0 0 0 8 8 8 8", "0 0 8 8 8 8",
                             "0 0 8 8 8 20 20", "0 5 5 5 5 5 5", "5 5 5 5 5 5"};
// The root, a flop node, turn and river nodes, and a chance node's cards.
const char* const Paths[] = {"r:0",          "r:0:c",         "r:0:b5",         "r:0:c:c:Ks",
                             "r:0:c:c:Ks:b8", "r:0:b5:c:Ad",   "r:0:c:c:Ks:c:c:3d", "r:0:c:c:Ks:c:c:3d:c",
                             "r:0:c:c:Ks:b8:c:3d:c", "r:0:c:c:Ks:b8:c:4s:c", "r:0:c:c:2c", "r:0:c:c:9h"};

struct EvCacheTest : FreshGameTest {
  void SetUp() override {
    FreshGameTest::SetUp();
    // One thread: the turn cards merge in one order, so answers compare bit for bit.
    omp_set_num_threads(1);
    // Weights by ranks and suitedness only, as isomorphic boards need.
    for (int p = 0; p < 2; p++) {
      Ranges[p].assign(HandCount, 0.0);
      for (int hi = 1; hi < 52; hi++)
        for (int lo = 0; lo < hi; lo++) {
          const int r1 = RankOf(Card(hi)), r2 = RankOf(Card(lo)), suited = SuitOf(Card(hi)) == SuitOf(Card(lo));
          const int a = std::max(r1, r2), b = std::min(r1, r2);
          const bool live = (a == b && a >= 4) || b >= 8 + p || (suited && a >= 11);
          const int x = (a * (5 + p) + b * 3 + suited) % 7;
          Ranges[p][size_t(PairIndexOf(hi, lo))] = !live || x < 1 ? 0.0 : x < 4 ? 0.5 : 1.0;
        }
    }
    run("set_board Qs Jh 2h");
    run("set_pot 0 0 10");
    for (const char* l : Lines) run(std::string("add_line ") + l);
    ASSERT_EQ(run("build_tree"), "build_tree ok!\n");
    run("set_threads 1");
    solve(64);  // the average strategies are played from here on
  }
  static void solve(int steps) {
    run("go " + std::to_string(steps) + " steps");
    run("wait_for_solver");
  }
  // Both players' calc_ev at every path, as printed.
  static std::vector<std::string> answers() {
    std::vector<std::string> out;
    for (const char* path : Paths)
      for (const char* player : {"OOP", "IP"}) out.push_back(run(std::string("calc_ev ") + player + " " + path));
    return out;
  }
  // The same from a walk of the whole tree, with nothing kept before.
  static std::vector<std::string> fresh() {
    clear_ev_cache();
    Evaluation.records[0] = Evaluation.records[1] = RecordsStamp();
    return answers();
  }
  static void expect_fresh(const std::vector<std::string>& got) {
    const std::vector<std::string> want = fresh();
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); i++) EXPECT_EQ(got[i], want[i]) << Paths[i / 2] << " player " << i % 2;
  }
  static std::string row(double v) {
    std::string s;
    for (int h = 0; h < HandCount; h++) s += v == 1.0 ? " 1" : " 0";
    return s;
  }
};

}  // namespace

// From the records of an evaluation of the present strategies, from one walk
// that keeps every turn card, and with neither.
TEST_F(EvCacheTest, KeptAnswersReadAsFreshWalks) {
  run("calc_results");
  ASSERT_TRUE(records_current(*ActiveTree, 0) && records_current(*ActiveTree, 1));
  expect_fresh(answers());
  // A step on: the records are of the strategies before it.
  run("calc_results");
  run("go 1 steps");
  run("wait_for_solver");
  ASSERT_FALSE(records_current(*ActiveTree, 0) || records_current(*ActiveTree, 1));
  // The walk behind the first turn card kept the others.
  run("calc_ev IP r:0:c:c:Ks");
  const size_t kept = EvValues.players[1].contexts.size();
  EXPECT_GT(kept, 40u);
  EXPECT_GT(ev_cache_bytes(), 0);
  expect_fresh(answers());
}

TEST_F(EvCacheTest, AnotherRunMovesThem) {
  const std::vector<std::string> before = answers();
  solve(3);
  // Deep nodes first: their walks see only the chance nodes below their entry.
  for (int i = int(std::size(Paths)); i-- > 0;) run(std::string("calc_ev IP ") + Paths[i]);
  const std::vector<std::string> after = answers();
  EXPECT_NE(after[0], before[0]);
  expect_fresh(after);
}

TEST_F(EvCacheTest, StrategySetByHandMovesThem) {
  run("calc_results");
  const std::vector<std::string> before = answers();
  ASSERT_NE(run("set_strategy r:0:c:c:Ks 0" + row(0.0)).find("ok"), std::string::npos);
  run("set_strategy r:0:c:c:Ks 1" + row(1.0));
  const std::vector<std::string> after = answers();
  EXPECT_NE(after[6], before[6]);  // the turn node itself
  EXPECT_NE(after[0], before[0]);  // and the root above it
  expect_fresh(after);
}

// A lock freezes training, not the strategy played; the run after it moves.
TEST_F(EvCacheTest, LocksAndTheRunAfterThem) {
  answers();
  run("lock_node r:0:c:c:Ks");
  run("combo_lock_node r:0:b5" + row(1.0).substr(0, 2 * 600) + row(0.0).substr(0, 2 * 726));
  expect_fresh(answers());
  solve(3);
  expect_fresh(answers());
  run("unlock_node r:0:c:c:Ks");
  solve(2);
  expect_fresh(answers());
}

// Switching the river averages off plays the river's current strategies.
TEST_F(EvCacheTest, RiverStrategySwitchMovesThem) {
  run("calc_results");
  const std::vector<std::string> before = answers();
  run("enable_river_strategy 0");
  const std::vector<std::string> after = answers();
  EXPECT_NE(after[12], before[12]);  // a river node
  expect_fresh(after);
}

TEST_F(EvCacheTest, ForgetAndRebuild) {
  run("calc_results");
  answers();
  ASSERT_EQ(run("forget rivers"), "forget ok!\n");
  expect_fresh(answers());
  run("rebuild_forgotten_streets");
  ASSERT_TRUE(tree_is_complete());
  expect_fresh(answers());
  run("solve_all_splits rivers");
  expect_fresh(answers());
}

// A tree loaded from a file at the same iteration count, with other strategies.
TEST_F(EvCacheTest, LoadedTreeMovesThem) {
  const std::string file = testing::TempDir() + "ev_cache_tree.cvt";
  ASSERT_NE(run("dump_tree \"" + file + "\"").find("ok"), std::string::npos);
  run("set_strategy r:0 0" + row(1.0));
  run("calc_results");
  const std::vector<std::string> before = answers();
  ASSERT_NE(run("load_tree \"" + file + "\"").find("ok"), std::string::npos);
  const std::vector<std::string> after = answers();
  EXPECT_NE(after[0], before[0]);
  expect_fresh(after);
  std::remove(file.c_str());
}

// Past the budget a walk keeps only the node asked, and answers the same.
TEST_F(EvCacheTest, BudgetKeepsTheAskedNodeOnly) {
  const std::vector<std::string> full = answers();
  clear_ev_cache();
  EvCacheBudget = 0;
  const std::vector<std::string> lean = answers();
  EXPECT_EQ(lean, full);
  EXPECT_LE(EvValues.players[0].contexts.size(), std::size(Paths));
}
