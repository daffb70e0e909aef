// The built tree's records, their extras at street starts, destruction, the
// node statistics against counts derived by hand, and the report commands.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <stdexcept>
#include <string>
#include <vector>

#include "tree/tree.h"

namespace {

int QueueEmptied = 0;
void count_queue_emptying() { QueueEmptied++; }

struct TreeModel : ::testing::Test {
  static void SetUpTestSuite() {
    build_rank_tables();
    build_card_tables();
  }
  void SetUp() override {
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings();
    reset_tree_state();
    OutputBuffer.clear();
    QueueEmptied = 0;
  }
  void TearDown() override {
    SolverHooks.empty_subgame_queue = [] {};
    reset_tree_state();
    OutputBuffer.clear();
  }

  static std::string run(void (*handler)(const Tokens&), const std::string& line) {
    OutputBuffer.clear();
    CurrentCommand = tokenize_line(line)[0];
    try {
      handler(tokenize_line(line));
    } catch (const std::runtime_error& e) {
      OutputBuffer += e.what();
    }
    std::string out = OutputBuffer;
    OutputBuffer.clear();
    return out;
  }
  static void add(const std::string& levels) {
    walk_line(tokenize_line("add_line " + levels), 1, false);
  }
  // Flattens the lines and makes the tree as the build driver does.
  static Tree& build(int start_street) {
    StartStreet = start_street;
    const Card flop[3] = {MakeCard(10, 3), MakeCard(9, 2), MakeCard(0, 2)};  // Qs Jh 2h
    Range ranges[2] = {Range(HandCount, 1.0), Range(HandCount, 0.5)};
    make_tree(flatten_lines(SchematicRoot.get()), flop, start_street >= 2 ? MakeCard(5, 0) : -1,
              start_street == 3 ? MakeCard(12, 1) : -1, ranges, false);
    TreePresent = true;
    OutputBuffer.clear();
    return *ActiveTree;
  }
};

}  // namespace

// ---- Records ---------------------------------------------------------------------

TEST_F(TreeModel, SixChecksMakeSevenNodesWithStreetExtras) {
  add("0 0 0 0 0 0");
  Tree& t = build(1);
  ASSERT_EQ(t.nodes.size(), 7u);
  // root, check, (turn) check, check, (river) check, check, showdown
  const int streets[7] = {1, 1, 2, 2, 3, 3, 3};
  const int players[7] = {0, 1, 0, 1, 0, 1, 1};
  for (int i = 0; i < 7; i++) {
    const Node& n = t.nodes[i];
    EXPECT_EQ(n.street, streets[i]) << i;
    EXPECT_EQ(n.player, players[i]) << i;
    EXPECT_EQ(n.parent_index, i - 1) << i;
    EXPECT_EQ(n.parent, i ? &t.nodes[i - 1] : nullptr) << i;
    EXPECT_EQ(n.children, i < 6 ? std::vector<int32_t>{i + 1} : std::vector<int32_t>{}) << i;
    EXPECT_EQ(n.cell_mark[0] & n.cell_mark[1], -1) << i;  // both unset
    // Only the first node of the turn locks per turn card.
    EXPECT_EQ(n.turn_locks != nullptr, i == 2) << i;
  }
  EXPECT_EQ(t.nodes[6].kind, NODE_SHOWDOWN);
  EXPECT_EQ(t.nodes[6].value, 50);
  EXPECT_EQ(t.nodes[2].street_record_count, 1);
  EXPECT_EQ(t.nodes[4].street_record_count, 49);
  for (int i : {0, 1, 3, 5, 6}) EXPECT_EQ(t.nodes[i].street_records, nullptr) << i;
  EXPECT_EQ(t.action_max, 1);
  EXPECT_EQ(t.action_average, 1.0);
  EXPECT_EQ(t.max_payoff, 50);
}

TEST_F(TreeModel, NewTreeStartsWithItsFixedState) {
  add("30 90 90");
  Precision = 1.0;
  Tree& t = build(1);
  // The hole sets replace the start value 1.0 by each range's largest weight.
  for (int p = 0; p < 2; p++)
    EXPECT_EQ(t.max_range_weight[p], *std::max_element(t.ranges[p], t.ranges[p] + HandCount));
  EXPECT_EQ(t.flop_board, CardBit(MakeCard(10, 3)) | CardBit(MakeCard(9, 2)) | CardBit(MakeCard(0, 2)));
  EXPECT_EQ(t.board, t.flop_board);
  // Terminals: call 90 (140), fold to 90 (80), call 30 (80), fold to 30 (50).
  EXPECT_EQ(t.max_payoff, 140);
  EXPECT_DOUBLE_EQ(t.regret_scale, 2.0 * 125.0 / 140.0);
  EXPECT_EQ(t.action_max, 3);
  EXPECT_EQ(t.action_average, 2.0);
}

TEST_F(TreeModel, TerminalsTakeStreetAndPlayerFromTheirRules) {
  add("30 30");
  Tree& t = build(1);
  // root, bet 30, call (walked: a showdown), fold
  ASSERT_EQ(t.nodes.size(), 4u);
  EXPECT_EQ(t.nodes[2].kind, NODE_SHOWDOWN);
  EXPECT_EQ(t.nodes[2].street, 3);
  EXPECT_EQ(t.nodes[2].player, 1);
  EXPECT_EQ(t.nodes[2].value, 80);
  EXPECT_EQ(t.nodes[3].kind, NODE_FOLD);
  EXPECT_EQ(t.nodes[3].street, 1);
  EXPECT_EQ(t.nodes[3].player, 1);
  EXPECT_EQ(t.nodes[3].value, 50);
  // A flop showdown is no start of the turn or the river.
  for (const Node& n : t.nodes) {
    EXPECT_EQ(n.turn_locks, nullptr);
    EXPECT_EQ(n.street_records, nullptr);
  }
}

TEST_F(TreeModel, TurnRootLocksAndKeepsOneRecord) {
  add("0 0 0 0");
  Tree& t = build(2);
  EXPECT_NE(t.nodes[0].turn_locks, nullptr);
  EXPECT_EQ(t.nodes[0].street_record_count, 1);
  EXPECT_EQ(t.nodes[2].street, 3);
  EXPECT_EQ(t.nodes[2].street_record_count, 49);
  EXPECT_EQ(t.board, t.flop_board | CardBit(MakeCard(5, 0)));
  EXPECT_EQ(ActiveTree->params.strategy_exponent, 1.5);
}

// ---- Lifetime ----------------------------------------------------------------------

TEST_F(TreeModel, RebuildAndFreeReleaseEverything) {
  SolverHooks.empty_subgame_queue = count_queue_emptying;
  add("0 0 0 0 0 0");
  Tree& first = build(1);
  // Street records own their vectors; freeing the tree must give them back.
  first.nodes[4].street_records[7].reach[0].resize(100, false);
  first.nodes[2].street_records[0].value[1].resize(50, false);
  int before = QueueEmptied;
  build(1);
  EXPECT_EQ(QueueEmptied, before + 1);
  EXPECT_NE(ActiveTree, nullptr);
  free_active_tree();
  EXPECT_EQ(ActiveTree, nullptr);
  EXPECT_FALSE(TreePresent);
  EXPECT_EQ(QueueEmptied, before + 2);
}

TEST_F(TreeModel, FreeTreeCommand) {
  add("30");
  EXPECT_EQ(run(cmd_node_count, "node_count"), "ERROR: node_count missing/incorrect tree\n");
  build(1);
  SolverRunning = true;
  EXPECT_EQ(run(cmd_free_tree, "free_tree"), "ERROR: free_tree Can't do that when solver is running\n");
  SolverRunning = false;
  EXPECT_TRUE(TreePresent);
  // Clearing the lines leaves the built tree.
  run(cmd_clear_lines, "clear_lines");
  EXPECT_EQ(ActiveTree->nodes.size(), 4u);
  EXPECT_EQ(run(cmd_is_tree_present, "is_tree_present"), "true\n");
  EXPECT_EQ(run(cmd_free_tree, "free_tree"), "free_tree ok!\n");
  EXPECT_EQ(ActiveTree, nullptr);
  EXPECT_EQ(run(cmd_is_tree_present, "is_tree_present"), "false\n");
  // With no tree it succeeds too.
  EXPECT_EQ(run(cmd_free_tree, "free_tree"), "free_tree ok!\n");
}

// ---- node_count ----------------------------------------------------------------------

// node_count against counts derived by hand; per street, multiplied by the
// boards a node stands for.
TEST_F(TreeModel, NodeCounts) {
  struct Case {
    const char* line;
    int street;
    const char* counts;
  };
  const Case cases[] = {
      // Six checks on a flop game: each street has one decision of each
      // player and one split (on the river the closing check, which is also
      // the end): decisions 1 + 49 + 2352 = 2402 per player, splits 2402,
      // ends 2352, total 3 x 2402 + 2352 = 9558, printed + 1 for the root.
      {"0 0 0 0 0 0", 1,
       "H_DEC: 2402\nFLOP  1\nTURN  49\nRIVER  2352\n"
       "V_DEC: 2402\nFLOP  1\nTURN  49\nRIVER  2352\n"
       "SPLIT: 2402\nFLOP  1\nTURN  49\nRIVER  2352\n"
       "END: 2352\nFLOP  0\nTURN  0\nRIVER  2352\n"
       "ROOT: 1\nFLOP  1\nTURN  0\nRIVER 0\n"
       "TOTAL: 9559\nEND\n"},
      // Bet, raise, call on the flop: OOP decides at the root and facing the
      // raise (2), IP facing the bet (1). Splits: only the walked call of 90
      // closes the street (1); the automatic call of 30 stays on the flop.
      // Ends: call 90, fold to 90, call 30, fold to 30 (4). Total 8 + 1.
      {"30 90 90", 1,
       "H_DEC: 1\nFLOP  1\nTURN  0\nRIVER  0\nV_DEC: 2\nFLOP  2\nTURN  0\nRIVER  0\n"
       "SPLIT: 1\nFLOP  1\nTURN  0\nRIVER  0\nEND: 4\nFLOP  4\nTURN  0\nRIVER  0\n"
       "ROOT: 1\nFLOP  1\nTURN  0\nRIVER 0\nTOTAL: 9\nEND\n"},
      // A turn game: bet 50 and call, then two river checks. Turn: OOP bets
      // (49), IP faces it (49); the call is a split (49); the fold an end
      // (49). River: OOP checks (2352), IP checks behind (2352), which is a
      // split and an end. Total 4 x 49 + 4 x 2352 = 9604.
      {"50 50 50 50", 2,
       "H_DEC: 2401\nFLOP  0\nTURN  49\nRIVER  2352\n"
       "V_DEC: 2401\nFLOP  0\nTURN  49\nRIVER  2352\n"
       "SPLIT: 2401\nFLOP  0\nTURN  49\nRIVER  2352\n"
       "END: 2401\nFLOP  0\nTURN  49\nRIVER  2352\n"
       "ROOT: 1\nFLOP  0\nTURN  1\nRIVER 0\n"
       "TOTAL: 9605\nEND\n"},
      // Multiplicities are not cut by dead cards: a river game counts 2352
      // per node.
      {"0 0", 3,
       "H_DEC: 2352\nFLOP  0\nTURN  0\nRIVER  2352\nV_DEC: 2352\nFLOP  0\nTURN  0\nRIVER  2352\n"
       "SPLIT: 2352\nFLOP  0\nTURN  0\nRIVER  2352\nEND: 2352\nFLOP  0\nTURN  0\nRIVER  2352\n"
       "ROOT: 1\nFLOP  0\nTURN  0\nRIVER 1\nTOTAL: 9409\nEND\n"},
  };
  for (const Case& c : cases) {
    reset_tree_state();
    add(c.line);
    build(c.street);
    EXPECT_EQ(run(cmd_node_count, "node_count"), c.counts) << c.line;
  }
}

// ---- Parameters and settings --------------------------------------------------------------

TEST_F(TreeModel, TreeParamsReadTheGame) {
  StartPot = 100;
  BoardFlop = parse_cards("Qs Jh 2h");
  BoardTurn = parse_cards("7c");
  EXPECT_EQ(run(cmd_show_tree_params, "show_tree_params"),
            "board: 2h Jh Qs 7c\npot: 0 0 100\nbet_sizes: \ndonk_bet: FALSE\nEND\n");
  StartPot = 12.5;
  BoardRiver = parse_cards("Ad");
  EXPECT_EQ(run(cmd_show_tree_params, "show_tree_params"),
            "board: 2h Jh Qs 7c Ad\npot: 0 0 12.5\nbet_sizes: \ndonk_bet: FALSE\nEND\n");
}
