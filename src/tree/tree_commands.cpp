// The commands of lines, building and tree statistics.
#include <cinttypes>
#include <cstdio>

#include "core/core.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

void cmd_build_tree(const Tokens& t) {
  if (SolverRunning) fail_command("Can't do that when solver is running");
  check_build_inputs();
  TreeInfoLines.clear();
  try {
    build_game(true);
  } catch (const std::bad_alloc&) {
    free_active_tree();
    fail_command("out of memory");
  }
  if (Verbosity > 0)
    shell_print("[compression set %d (%s) actual %d (%s)]\n", CompressionSetting,
                compression_word(CompressionSetting), ActualCompression, compression_word(ActualCompression));
  print_ok(t);
}

void cmd_set_compression(const Tokens& t) {
  if (SolverRunning) fail_command("Can't do that when solver is running");
  CompressionSetting = parse_compression_level(t[1]);
  if (TreePresent && ActiveTree) {
    ActualCompression = CompressionSetting < 0 ? automatic_compression_level() : CompressionSetting;
    planStorage(compression_pair(ActualCompression));
  }
  print_ok(t);
}

void cmd_get_actual_compression(const Tokens&) { shell_print("compression %d\n", ActualCompression); }

void cmd_add_line(const Tokens& t) {
  walk_line(t, 1, false);
  print_ok(t);
}

void cmd_force_line(const Tokens& t) {
  walk_line(t, 1, true);
  print_ok(t);
}

void cmd_remove_line(const Tokens& t) {
  remove_line(t, 1);
  print_ok(t);
}

void cmd_clear_lines(const Tokens& t) {
  clear_schematic_tree();
  print_ok(t);
}

void cmd_is_tree_present(const Tokens&) { shell_print("%s\n", TreePresent ? "true" : "false"); }

void cmd_show_tree_params(const Tokens&) {
  // The board as node printing shows it: flop cards in card order, then the
  // turn and the river.
  std::string board;
  for (CardMask part : {BoardFlop, BoardTurn, BoardRiver}) {
    for (int c = 0; c < 52; c++) {
      if (!(part & CardBit(c))) continue;
      if (!board.empty()) board += ' ';
      board += card_text(Card(c));
    }
  }
  shell_print("board: %s\n", board.c_str());
  shell_print("pot: %g %g %g\n", 0.0, 0.0, StartPot);
  shell_print("bet_sizes: \n");
  shell_print("donk_bet: FALSE\n");
  shell_print("END\n");
}

void cmd_show_settings(const Tokens&) { shell_print("END\n"); }

void cmd_node_count(const Tokens&) {
  if (!TreePresent) fail_command("missing/incorrect tree");
  NodeCounts c = count_nodes(*SchematicRoot, StartStreet);
  auto block = [](const char* title, const int64_t* counts) {
    shell_print("%s: %lld\n", title, (long long)counts[0]);
    shell_print("FLOP  %lld\n", (long long)counts[1]);
    shell_print("TURN  %lld\n", (long long)counts[2]);
    shell_print("RIVER  %lld\n", (long long)counts[3]);
  };
  block("H_DEC", c.decisions[1]);
  block("V_DEC", c.decisions[0]);
  block("SPLIT", c.splits);
  block("END", c.ends);
  shell_print("ROOT: 1\n");
  shell_print("FLOP  %d\n", StartStreet == 1 ? 1 : 0);
  shell_print("TURN  %d\n", StartStreet == 2 ? 1 : 0);
  shell_print("RIVER %d\n", StartStreet == 3 ? 1 : 0);
  shell_print("TOTAL: %lld\n", (long long)(c.total + 1));
  shell_print("END\n");
}

void cmd_free_tree(const Tokens& t) {
  // The solving thread walks the tree without a reference of its own.
  if (SolverRunning) fail_command("Can't do that when solver is running");
  free_active_tree();
  print_ok(t);
}
