// The line walk: children order, the betting state, automatic answers,
// forced lines, removal, failures that keep what they made, and flattening.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tree/tree.h"

namespace {

using Keys = std::vector<double>;

struct Lines : ::testing::Test {
  void SetUp() override {
    reset_core_state(); reset_card_settings();
    reset_tree_state();
    OutputBuffer.clear();
  }
  void TearDown() override {
    reset_tree_state();
    OutputBuffer.clear();
  }

  // Runs one command handler as the loop would; returns its answer or its
  // error text.
  static std::string run(void (*handler)(const Tokens&), const std::string& line) {
    OutputBuffer.clear();
    CurrentCommand = tokenize_line(line)[0];
    try {
      handler(tokenize_line(line));
    } catch (const std::invalid_argument&) {
      OutputBuffer += "ERROR: Invalid value\n";
    } catch (const std::runtime_error& e) {
      OutputBuffer += e.what();
    }
    std::string out = OutputBuffer;
    OutputBuffer.clear();
    return out;
  }
  static std::string add(const std::string& levels) { return run(cmd_add_line, "add_line " + levels); }
  static std::string force(const std::string& levels) { return run(cmd_force_line, "force_line " + levels); }
  static std::string remove(const std::string& levels) { return run(cmd_remove_line, "remove_line " + levels); }

  static Keys keys(const SchematicNode* node) {
    Keys k;
    for (const auto& entry : node->children) k.push_back(entry.first);
    return k;
  }
  // The node reached by following exact keys from the root; null if absent.
  static SchematicNode* at(const Keys& path) {
    SchematicNode* node = SchematicRoot.get();
    for (double key : path) {
      auto it = node->children.find(key);
      if (it == node->children.end()) return nullptr;
      node = it->second.get();
    }
    return node;
  }
  static int count_nodes_below(const SchematicNode* node) {
    int n = 1;
    for (const auto& entry : node->children) n += count_nodes_below(entry.second.get());
    return n;
  }
};

}  // namespace

// ---- The examples of the line notation ---------------------------------------

TEST_F(Lines, SixChecksMakeTwoChecksOnEachOfThreeStreets) {
  EXPECT_EQ(add("0 0 0 0 0 0"), "add_line ok!\n");
  // One node per action: a first check brings exactly the check behind, which
  // the next token walks; nothing else appears.
  EXPECT_EQ(count_nodes_below(SchematicRoot.get()), 7);
  const int streets[6] = {0, 1, 1, 2, 2, 3};
  const int players[6] = {1, 0, 1, 0, 1, 0};
  Keys path;
  for (int i = 0; i < 6; i++) {
    path.push_back(0);
    SchematicNode* n = at(path);
    ASSERT_NE(n, nullptr) << i;
    EXPECT_EQ(n->street, streets[i]) << i;
    EXPECT_EQ(n->player, players[i]) << i;
    EXPECT_EQ(n->raises, 0) << i;
    EXPECT_EQ(keys(n), i < 5 ? Keys{0} : Keys{}) << i;
  }
}

TEST_F(Lines, FallingLevelIsRefusedAndKeepsTheStartOfTheLine) {
  EXPECT_EQ(add("30 30 0"), "ERROR: add_line incorrect or missing argument\n");
  ASSERT_NE(at({30, 30}), nullptr);
  EXPECT_EQ(at({30, 30})->street, 1);
  EXPECT_EQ(keys(at({30, 30})), Keys{});
}

TEST_F(Lines, BetCallThenChecksDownReachesTheRiver) {
  EXPECT_EQ(add("30 30 30 30 30 30"), "add_line ok!\n");
  SchematicNode* river_end = at({30, 30, 30, 30, 30, 30});
  ASSERT_NE(river_end, nullptr);
  EXPECT_EQ(river_end->street, 3);
  EXPECT_EQ(at({30, 30})->street, 1);
  EXPECT_EQ(at({30, 30})->player, 0);
  EXPECT_EQ(keys(at({30})), (Keys{30, -1}));
  EXPECT_EQ(at({30, 30})->invested[0], 30);
  EXPECT_EQ(at({30, 30})->invested[1], 30);
}

TEST_F(Lines, RaiseAndCallEndsTheLineAtTheCall) {
  add("30 90 90");
  EXPECT_EQ(keys(at({30})), (Keys{90, 30, -1}));
  EXPECT_EQ(keys(at({30, 90})), (Keys{90, -1}));
  SchematicNode* call = at({30, 90, 90});
  EXPECT_EQ(keys(call), Keys{});
  EXPECT_EQ(call->street, 1);
  EXPECT_EQ(call->player, 0);
  EXPECT_EQ(at({30, 90})->raises, 2);
  EXPECT_EQ(at({30, 90})->player, 0);
}

TEST_F(Lines, CheckThenThreeBetsAndCall) {
  add("0 30 90 270 270");
  EXPECT_EQ(at({0})->raises, 0);
  EXPECT_EQ(at({0, 30})->raises, 1);
  EXPECT_EQ(at({0, 30})->player, 0);  // IP bet, OOP to act
  EXPECT_EQ(at({0, 30, 90})->raises, 2);
  EXPECT_EQ(at({0, 30, 90, 270})->raises, 3);
  EXPECT_EQ(at({0, 30, 90, 270})->player, 0);
  EXPECT_EQ(at({0, 30, 90, 270, 270})->street, 1);
  // The first check got its check behind; the bet after it is a sibling.
  EXPECT_EQ(keys(at({0})), (Keys{30, 0}));
}

TEST_F(Lines, LevelsCarryOverStreets) {
  add("0 0 50 50 150 150");
  EXPECT_EQ(at({0, 0})->street, 1);
  EXPECT_EQ(at({0, 0, 50})->street, 1);
  EXPECT_EQ(at({0, 0, 50, 50})->street, 2);
  SchematicNode* river_bet = at({0, 0, 50, 50, 150});
  EXPECT_EQ(river_bet->street, 2);
  EXPECT_EQ(river_bet->invested[0], 150);
  EXPECT_EQ(river_bet->invested[1], 50);
  EXPECT_EQ(keys(river_bet), (Keys{150, -1}));
  EXPECT_EQ(at({0, 0, 50, 50, 150, 150})->street, 3);
}

// ---- Edge cases ----------------------------------------------------------------

TEST_F(Lines, EmptyLineChangesNothing) {
  EXPECT_EQ(add(""), "add_line ok!\n");
  EXPECT_TRUE(SchematicRoot->children.empty());
}

TEST_F(Lines, OneBetBringsCallThenFold) {
  add("30");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{30});
  EXPECT_EQ(keys(at({30})), (Keys{30, -1}));
}

TEST_F(Lines, LargerAmountsComeFirst) {
  add("30");
  add("90");
  EXPECT_EQ(keys(SchematicRoot.get()), (Keys{90, 30}));
  add("30 90");
  add("30 60");
  EXPECT_EQ(keys(at({30})), (Keys{90, 60, 30, -1}));
}

TEST_F(Lines, AutomaticAnswersCarryAmountsAndInvestments) {
  add("30 90");
  SchematicNode* call30 = at({30, 30});
  EXPECT_EQ(call30->amount, 30);
  EXPECT_EQ(call30->invested[0], 30);
  EXPECT_EQ(call30->invested[1], 30);
  EXPECT_EQ(call30->street, 0);  // not walked: stays on the bet's street
  EXPECT_EQ(call30->player, 0);
  // The fold of the bet goes back to the level before it: IP folds with 0 in.
  SchematicNode* fold30 = at({30, -1});
  EXPECT_EQ(fold30->amount, 0);
  EXPECT_EQ(fold30->invested[1], 0);
  EXPECT_EQ(fold30->invested[0], 30);
  // After the raise OOP folds with the 30 bet in, IP has 90.
  SchematicNode* fold90 = at({30, 90, -1});
  EXPECT_EQ(fold90->amount, 30);
  EXPECT_EQ(fold90->invested[0], 30);
  EXPECT_EQ(fold90->invested[1], 90);
  SchematicNode* raise = at({30, 90});
  EXPECT_EQ(raise->invested[0], 30);
  EXPECT_EQ(raise->invested[1], 90);
}

TEST_F(Lines, WalkingThroughAnAnswerSetsItsState) {
  add("30");
  EXPECT_EQ(at({30, 30})->street, 0);
  add("30 30");
  EXPECT_EQ(at({30, 30})->street, 1);
  EXPECT_EQ(at({30, 30})->player, 0);
  // The call closed the street, so no answers were added below it.
  EXPECT_EQ(keys(at({30, 30})), Keys{});
  // A line through an existing bet adds no second fold and keeps the order.
  EXPECT_EQ(keys(at({30})), (Keys{30, -1}));
}

TEST_F(Lines, FirstCheckBringsOnlyTheCheckBehind) {
  add("0");
  EXPECT_EQ(keys(at({0})), Keys{0});
  EXPECT_EQ(at({0})->player, 1);
  EXPECT_EQ(at({0, 0})->amount, 0);
}

TEST_F(Lines, KeysAreExactDoubles) {
  add("30");
  add("30.0");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{30});
  add("30.0000001");
  EXPECT_EQ(keys(SchematicRoot.get()), (Keys{30.0000001, 30}));
}

TEST_F(Lines, FailingLineKeepsWhatItMade) {
  EXPECT_EQ(add("10 5"), "ERROR: add_line incorrect or missing argument\n");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{10});
  EXPECT_EQ(keys(at({10})), (Keys{10, -1}));
}

TEST_F(Lines, UnreadableNumberFailsAfterTheNodesBeforeIt) {
  EXPECT_EQ(add("30 abc"), "ERROR: Invalid value\n");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{30});
  // NaN is a number to the reader but no level.
  EXPECT_EQ(add("nan"), "ERROR: add_line incorrect or missing argument\n");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{30});
}

// ---- Forced lines ----------------------------------------------------------------

TEST_F(Lines, ForcedLineDropsTheFold) {
  EXPECT_EQ(force("30 30"), "force_line ok!\n");
  EXPECT_EQ(keys(at({30})), Keys{30});
}

TEST_F(Lines, ForcedLineDeletesAlternativesOnItsWayOnly) {
  add("30 90");
  add("0 0");
  force("0");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{0});
  // The last node keeps its children: nothing is forced below it.
  EXPECT_EQ(keys(at({0})), Keys{0});
  // Lines added later bring alternatives back.
  add("30");
  EXPECT_EQ(keys(SchematicRoot.get()), (Keys{30, 0}));
}

TEST_F(Lines, ForcedLineKeepsAnswersOfItsNewLastNode) {
  force("50");
  EXPECT_EQ(keys(at({50})), (Keys{50, -1}));
  add("50 150");
  force("50 150");
  EXPECT_EQ(keys(at({50})), Keys{150});
  EXPECT_EQ(keys(at({50, 150})), (Keys{150, -1}));
}

TEST_F(Lines, ForcedLineStillRefusesFallingLevels) {
  add("30");
  add("60");
  EXPECT_EQ(force("60 20"), "ERROR: force_line incorrect or missing argument\n");
  // The first token was forced before the second failed.
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{60});
  EXPECT_EQ(keys(at({60})), (Keys{60, -1}));
}

// ---- Removal --------------------------------------------------------------------

TEST_F(Lines, ZeroAfterABetNamesTheFold) {
  add("30 30");
  EXPECT_EQ(remove("30 0"), "remove_line ok!\n");
  EXPECT_EQ(keys(at({30})), Keys{30});
}

TEST_F(Lines, ZeroAfterZeroIsTheCheck) {
  add("0 0 0");
  add("0 30");
  remove("0 0");
  EXPECT_EQ(keys(at({0})), Keys{30});
}

TEST_F(Lines, RemovingAMissingLineSucceeds) {
  add("30");
  EXPECT_EQ(remove("99"), "remove_line ok!\n");
  EXPECT_EQ(remove("30 30 30 30"), "remove_line ok!\n");
  EXPECT_EQ(remove(""), "remove_line ok!\n");
  // The walk stops at the missing child before it reads a bad number.
  EXPECT_EQ(remove("99 abc"), "remove_line ok!\n");
  EXPECT_EQ(remove("nan"), "remove_line ok!\n");
  EXPECT_EQ(keys(at({30})), (Keys{30, -1}));
}

TEST_F(Lines, RemovingABetTakesItsSubtree) {
  add("30 90 90");
  add("60");
  remove("30");
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{60});
}

TEST_F(Lines, RemoveDoesNotFoldTheFirstToken) {
  add("0");
  // A lone "0" is the check: there is nothing above 0 before it.
  remove("0");
  EXPECT_TRUE(SchematicRoot->children.empty());
}

TEST_F(Lines, ClearingGivesAnEmptyRoot) {
  add("30 90 90");
  EXPECT_EQ(run(cmd_clear_lines, "clear_lines"), "clear_lines ok!\n");
  EXPECT_TRUE(SchematicRoot->children.empty());
  add("30");
  EXPECT_EQ(run(cmd_clear_lines, "free_schematic_tree"), "free_schematic_tree ok!\n");
  EXPECT_TRUE(SchematicRoot->children.empty());
}

TEST_F(Lines, SuppressedOkStillChangesTheTree) {
  SuppressOk = true;
  EXPECT_EQ(add("30"), "");
  SuppressOk = false;
  EXPECT_EQ(keys(SchematicRoot.get()), Keys{30});
}

// ---- Flattening ------------------------------------------------------------------

TEST_F(Lines, FlatRecordsArePreOrderWithPayoffs) {
  StartPot = 100;
  StartStreet = 1;
  add("30 90 90");
  std::vector<LineRecord> r = flatten_lines(SchematicRoot.get());
  // root, bet 30, raise 90, call 90, fold to 90, call 30, fold to 30
  ASSERT_EQ(r.size(), 7u);
  const int kinds[7] = {NODE_DECISION, NODE_DECISION, NODE_DECISION, NODE_SHOWDOWN, NODE_FOLD,
                        NODE_SHOWDOWN, NODE_FOLD};
  const int parents[7] = {-1, 0, 1, 2, 2, 1, 1};
  const double values[7] = {0, 0, 0, 140, 80, 80, 50};
  for (int i = 0; i < 7; i++) {
    EXPECT_EQ(r[i].kind, kinds[i]) << i;
    EXPECT_EQ(r[i].parent_index, parents[i]) << i;
    EXPECT_EQ(r[i].value, values[i]) << i;
  }
  EXPECT_EQ(r[0].player, 0);
  EXPECT_EQ(r[1].player, 1);
  EXPECT_EQ(r[2].player, 0);
  EXPECT_EQ(r[2].street, 1);
  EXPECT_EQ(r[3].player, -1);
  EXPECT_EQ(r[3].street, -1);
  // The index fields point back at the records.
  EXPECT_EQ(SchematicRoot->index, 0);
  EXPECT_EQ(at({30, 90, -1})->index, 4);
  EXPECT_EQ(at({30, -1})->index, 6);
}

TEST_F(Lines, RecordStreetsStartAtTheGamesFirstStreet) {
  StartStreet = 2;
  add("0 0 0");
  std::vector<LineRecord> r = flatten_lines(SchematicRoot.get());
  ASSERT_EQ(r.size(), 5u);  // root, check, check, check, its check behind
  EXPECT_EQ(r[0].street, 2);
  EXPECT_EQ(r[2].street, 3);
  EXPECT_EQ(r[3].street, 3);
  EXPECT_EQ(r[4].kind, NODE_SHOWDOWN);
}

// Lines have no length limit: a very deep line must not exhaust the stack in
// flattening, counting or freeing.
TEST_F(Lines, DeepLineIsWalkedFlattenedAndFreed) {
  Tokens t{"add_line"};
  const int depth = 100000;
  for (int i = 1; i <= depth; i++) t.push_back(std::to_string(i));
  walk_line(t, 1, false);
  std::vector<LineRecord> r = flatten_lines(SchematicRoot.get());
  // Every bet brings a call and a fold; the last bet's pair ends the line.
  ASSERT_EQ(r.size(), size_t(1 + 3 * depth));
  EXPECT_EQ(r[depth].kind, NODE_DECISION);
  EXPECT_EQ(r[depth + 1].kind, NODE_SHOWDOWN);
  EXPECT_EQ(r.back().kind, NODE_FOLD);
  EXPECT_EQ(r.back().parent_index, 1);
  NodeCounts c = count_nodes(*SchematicRoot, 1);
  EXPECT_EQ(c.decisions[0][0] + c.decisions[1][0], depth + 1);
  EXPECT_EQ(c.ends[1], 2 * depth);
  remove_line(Tokens{"remove_line", "1"}, 1);
  EXPECT_TRUE(SchematicRoot->children.empty());
  walk_line(t, 1, false);
  clear_schematic_tree();
  EXPECT_TRUE(SchematicRoot->children.empty());
}
