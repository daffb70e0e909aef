// The build driver with storage planning: which store classes each level
// gives river, turn and flop nodes on flop, turn and river roots, and what a
// replan resets.
#include <gtest/gtest.h>

#include <cfloat>
#include <string>
#include <typeinfo>

#include "tree/board_tree.h"
#include "tree/tree.h"

namespace {

struct PlanStores : ::testing::Test {
  static void SetUpTestSuite() {
    build_rank_tables();
    build_card_tables();
  }
  void SetUp() override {
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings();
    reset_tree_state();
    CompressionSetting = -1;
    Ranges[0].assign(HandCount, 1.0);
    Ranges[1].assign(HandCount, 1.0);
    StartPot = 100;
  }
  void TearDown() override {
    reset_tree_state();
    CompressionSetting = -1;
    OutputBuffer.clear();
  }
  static void build(const char* board, const char* line, int level) {
    std::string b = board;
    BoardFlop = parse_cards(b.substr(0, 8));
    BoardTurn = b.size() > 9 ? parse_cards(b.substr(9, 2)) : 0;
    BoardRiver = b.size() > 12 ? parse_cards(b.substr(12, 2)) : 0;
    walk_line(tokenize_line(std::string("add_line ") + line), 1, false);
    CompressionSetting = level;
    build_game(true);
    OutputBuffer.clear();
  }
  // The stores of the first decision node on `street`.
  static const Node& first_on(int street) {
    for (const Node& n : ActiveTree->nodes)
      if (n.kind == NODE_DECISION && n.street == street) return n;
    throw std::runtime_error("no node on that street");
  }
};

// The class of a store, packed ones with their level.
std::string kind(const Store* s) {
  if (!s) return "none";
  if (const PackedStore* p = dynamic_cast<const PackedStore*>(s)) return "packed" + std::to_string(p->level);
  const std::type_info& t = typeid(*s);
  return t == typeid(RowStore)          ? "row"
         : t == typeid(CompositeStore)  ? "composite"
         : t == typeid(Word16FlatStore) ? "word16"
         : t == typeid(FloatFlatStore)  ? "float"
         : t == typeid(WideningStore)   ? "widening"
                                        : t.name();
}

}  // namespace

TEST_F(PlanStores, FlopRootRiverClassesFollowTheLevelTable) {
  // River regrets and sums by level; flop nodes keep rows, turn nodes composites.
  const char* river[6][2] = {{"word16", "float"},   {"word16", "packed1"},  {"packed1", "packed1"},
                             {"packed1", "packed2"}, {"packed2", "packed2"}, {"word16", "widening"}};
  for (int level = 0; level <= 5; level++) {
    SCOPED_TRACE(level);
    reset_tree_state();
    build("Qs Jh 2h", "0 0 0 0 0 0", level);
    EXPECT_EQ(ActualCompression, level);
    EXPECT_EQ(kind(first_on(1).regretStore) + " " + kind(first_on(1).strategyStore), "row row");
    EXPECT_EQ(kind(first_on(2).regretStore) + " " + kind(first_on(2).strategyStore), "composite composite");
    EXPECT_EQ(kind(first_on(3).regretStore), river[level][0]);
    EXPECT_EQ(kind(first_on(3).strategyStore), river[level][1]);
    EXPECT_EQ(ActiveTree->params.max_iterations, level == 5 ? 2200 : 9000);
    EXPECT_EQ(ActiveTree->params.river_group_iterations, level == 4 ? 30 : 0);
    EXPECT_EQ(ActiveTree->params.strategy_exponent, 1.5);
    EXPECT_EQ(ActiveTree->params.strategy_weight_cap, 262143.0);
    EXPECT_EQ(ActiveTree->regret_level, compression_pair(level).regrets);
    EXPECT_EQ(ActiveTree->strategy_level, compression_pair(level).strategy);
  }
}

TEST_F(PlanStores, TurnAndRiverRootsKeepPlainFloatsOnTheRiver) {
  for (int level : {0, 4, 5}) {
    SCOPED_TRACE(level);
    reset_tree_state();
    build("Qs Jh 2h 7c", "0 0 0 0", level);
    EXPECT_EQ(kind(first_on(2).regretStore), "composite");
    EXPECT_EQ(kind(first_on(3).regretStore) + " " + kind(first_on(3).strategyStore), "float float");
    EXPECT_EQ(ActiveTree->regret_level, 0);
    EXPECT_EQ(ActualCompression, level);
    // The iteration constants still follow the level's pair.
    EXPECT_EQ(ActiveTree->params.max_iterations, level == 5 ? 2200 : 9000);
    EXPECT_EQ(ActiveTree->params.river_group_iterations, level == 4 ? 30 : 0);

    reset_tree_state();
    build("Qs Jh 2h 7c 3d", "50 50", level);
    EXPECT_EQ(kind(first_on(3).regretStore), "float");
    EXPECT_EQ(ActiveTree->params.strategy_exponent, 4.0);
    EXPECT_EQ(ActiveTree->params.strategy_weight_cap, DBL_MAX);
  }
}

TEST_F(PlanStores, StoreTotalsCountRegretValuesByStreet) {
  build("Qs Jh 2h 7c 3d", "50 50", 0);
  // One line: OOP's root has one action (the bet), IP's answer two (call,
  // fold); the regret values are hands x actions of each decision.
  const BoardTree& b = *ActiveTree->boards;
  int64_t hands = b.children[0].children[0].holes.size();
  std::vector<int64_t> totals = store_totals();
  ASSERT_EQ(totals.size(), 10u);
  EXPECT_EQ(totals[3], hands * 1 + hands * 2);
  EXPECT_EQ(totals[7], totals[3] * 6);
  EXPECT_EQ(totals[1] + totals[2], 0);
}

TEST_F(PlanStores, ReplanResetsTheIteration) {
  build("Qs Jh 2h 7c 3d", "50 50", 0);
  ActiveTree->iteration = 40;
  planStorage(compression_pair(0));
  EXPECT_EQ(ActiveTree->iteration, 0);
  EXPECT_FALSE(ActiveTree->stores_ready);
}
