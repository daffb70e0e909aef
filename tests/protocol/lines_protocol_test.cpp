// The line and tree commands through the real binary: the table's token
// counts, exact answers and errors, and that a failing line keeps its nodes.
#include <gtest/gtest.h>

#include "run_binary.h"

TEST(LineCommands, AnswersAndErrors) {
  RunResult r = run_binary({},
                           "add_line\n"
                           "add_line 30 90 90\n"
                           "add_line 10 5\n"
                           "add_line 30 x\n"
                           "force_line 30 30\n"
                           "remove_line 30 0\n"
                           "remove_line 99\n"
                           "clear_lines\n"
                           "free_schematic_tree\n"
                           "clear_lines now\n");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out,
            "add_line ok!\n"
            "add_line ok!\n"
            "ERROR: add_line incorrect or missing argument\n"
            "ERROR: Invalid value\n"
            "force_line ok!\n"
            "remove_line ok!\n"
            "remove_line ok!\n"
            "clear_lines ok!\n"
            "free_schematic_tree ok!\n"
            "ERROR: clear_lines incorrect or missing argument\n");
}

TEST(TreeCommands, WithoutATree) {
  RunResult r = run_binary({},
                           "is_tree_present\n"
                           "node_count\n"
                           "free_tree\n"
                           "is_tree_present\n"
                           "show_settings\n"
                           "set_board Qs Jh 2h 7c\n"
                           "set_pot 0 0 100\n"
                           "show_tree_params\n"
                           "node_count extra\n");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out,
            "false\n"
            "ERROR: node_count missing/incorrect tree\n"
            "free_tree ok!\n"
            "false\n"
            "END\n"
            "set_board ok!\n"
            "set_pot ok!\n"
            "board: 2h Jh Qs 7c\npot: 0 0 100\nbet_sizes: \ndonk_bet: FALSE\nEND\n"
            "ERROR: node_count incorrect or missing argument\n");
}

TEST(LineCommands, SuppressedOkAnswersOnlyErrors) {
  RunResult r = run_binary({"-k"}, "add_line 30\nadd_line 30 20\nremove_line 30\n");
  EXPECT_EQ(r.out, "ERROR: add_line incorrect or missing argument\n");
}
