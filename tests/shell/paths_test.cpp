// Lock names in show_node come from the decision's cell on the path's board.
#include <gtest/gtest.h>

#include "shell/shell.h"
#include "shell_support.h"
#include "solver/solver.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

namespace {

struct PathLocks : FreshGameTest {
  static void game(const std::string& board, const std::string& line) {
    Ranges[0].assign(HandCount, 1.0);
    Ranges[1].assign(HandCount, 1.0);
    run("set_board " + board);
    run("add_line " + line);
    ASSERT_EQ(run("build_tree"), "build_tree ok!\n");
  }
  static std::string flags_line(const std::string& path) {
    std::string out = run("show_node " + path);
    size_t at = out.find("flags:");
    return out.substr(at, out.find('\n', at) - at);
  }
};

}  // namespace

TEST_F(PathLocks, FlopDecision) {
  game("Qs Jh 2h", "0 0 0 0 0 0");
  EXPECT_EQ(flags_line("r:0"), "flags: ");
  ActiveTree->nodes[0].regretStore->cell_lock_to_set(-1, -1)->flags = CELL_LOCKED;
  EXPECT_EQ(flags_line("r:0"), "flags: LOCKED");
  ActiveTree->nodes[0].regretStore->cell_lock_to_set(-1, -1)->flags = CELL_LOCKED | CELL_MASKED;
  EXPECT_EQ(flags_line("r:0"), "flags: LOCKED COMBO_LOCKED");
}

TEST_F(PathLocks, RiverDecisionOnOneBoardOnly) {
  game("Qs Jh 2h", "0 0 0 0 0 0");
  // The first river decision, below the turn Ah and the river 3c.
  const SchematicNode* river = SchematicRoot.get();
  for (int i = 0; i < 4; i++) river = river->children.begin()->second.get();
  const Node& node = ActiveTree->nodes[size_t(river->index)];
  ASSERT_EQ(node.street, 3);
  const BoardTree& b = *ActiveTree->boards;
  CanonicalCards cc = canonicalise_query(BoardFlop, MakeCard(12, 2), MakeCard(1, 0), b.isomorphic);
  int32_t tc, rc;
  ASSERT_TRUE(find_board_cells(b, cc.turn, cc.river, tc, rc));
  node.regretStore->cell_lock_to_set(tc, rc)->flags = CELL_MASKED;
  EXPECT_EQ(flags_line("r:0:c:c:Ah:c:c:3c"), "flags: COMBO_LOCKED");
  EXPECT_EQ(flags_line("r:0:c:c:Ah:c:c:4c"), "flags: ");
  // No river card: no board, no cell.
  EXPECT_EQ(flags_line("r:0:c:c:Ah:c:c"), "flags:");
}
