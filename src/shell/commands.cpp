// The command table and process_line, the one routine every input line passes.
#include <cstring>

#include "analysis/analysis.h"
#include "platform/platform.h"
#include "shell/shell.h"
#include "solver/solver.h"
#include "storage/memory/memory_report.h"
#include "tree/tree.h"

// Commands marked Reads only read; the rest may change strategies, values or
// the tree, so they move the store generation that query caches are keyed by.
constexpr bool Reads = true;

const CommandEntry CommandTable[CommandCount] = {
    {"is_ready", cmd_answer_only, 1, Reads},
    {"solver_time", cmd_solver_time, 1, Reads},
    {"show_hand_order", cmd_show_hand_order, 1, Reads},
    {"show_settings", cmd_show_settings, 1, Reads},
    {"show_tree_params", cmd_show_tree_params, 1, Reads},
    {"set_threads", cmd_set_threads, 2},
    {"ai6_set_threads", cmd_set_threads, 2},
    {"set_recalc_accuracy", cmd_set_recalc_accuracy, 4},
    {"set_isomorphism", cmd_set_isomorphism, 3},
    {"skip_if_done", cmd_skip_if_done, 3},
    {"is_tree_present", cmd_is_tree_present, 1, Reads},
    {"go", cmd_go, -1},
    {"stop", cmd_stop, 1},
    {"load_script", cmd_load_script, 2},
    {"set_range", cmd_set_range, 1328},
    {"set_board", cmd_set_board, -1},
    {"set_pot", cmd_set_pot, 4},
    {"clear_lines", cmd_clear_lines, 1},
    {"free_schematic_tree", cmd_clear_lines, 1},
    {"add_line", cmd_add_line, -1},
    {"remove_line", cmd_remove_line, -1},
    {"force_line", cmd_force_line, -1},
    {"cut_line", cmd_cut_line, 2},
    {"build_tree", cmd_build_tree, 1},
    {"load_tree", cmd_load_tree, 2},
    {"dump_tree", cmd_dump_tree, -1},
    {"free_tree", cmd_free_tree, 1},
    {"show_node", cmd_show_node, 2, Reads},
    {"show_children", cmd_show_children, 2, Reads},
    {"show_strategy", cmd_show_strategy, 2, Reads},
    {"show_strategy_pp", cmd_show_strategy_pp, 2, Reads},
    {"show_locked_combos", cmd_show_locked_combos, 2, Reads},
    {"show_range", cmd_show_range, -1, Reads},
    {"show_probs", cmd_show_probs, 2, Reads},
    {"calc_results", cmd_calc_results, 1, Reads},
    {"calc_ev", cmd_calc_ev, 3, Reads},
    {"calc_ev_pp", cmd_calc_ev_pp, 3, Reads},
    {"calc_ev_line", cmd_calc_ev_line, 3, Reads},
    {"calc_line_freq", cmd_calc_line_freq, 2, Reads},
    {"calc_global_freq", cmd_calc_global_freq, 2, Reads},
    {"calc_eq", cmd_calc_eq, 2, Reads},
    {"calc_eq_pp", cmd_calc_eq_pp, 2, Reads},
    {"calc_eq_node", cmd_calc_eq_node, 3, Reads},
    {"stdoutredi", cmd_stdoutredi, 2, Reads},
    {"stdoutredi_append", cmd_stdoutredi_append, 2, Reads},
    {"stdoutback", cmd_stdoutback, 1, Reads},
    {"wait_for_solver", cmd_wait_for_solver, 1, Reads},
    {"show_memory", cmd_show_memory, 1, Reads},
    {"node_count", cmd_node_count, 1, Reads},
    {"show_effective_stack", cmd_show_effective_stack, 1, Reads},
    {"set_eff_stack", cmd_answer_only, 2},
    {"set_rake", cmd_set_rake, 3},
    {"set_ev_boost", cmd_set_ev_boost, 3},
    {"set_accuracy", cmd_set_accuracy, -1},
    {"forget", cmd_forget, 2},
    {"rebuild_forgotten_streets", cmd_rebuild_forgotten_streets, 1},
    {"rebuild_all", cmd_rebuild_forgotten_streets, 1},
    {"solve_all_splits", cmd_solve_all_splits, 2},
    {"lock_node", cmd_lock_node, 2},
    {"unlock_node", cmd_unlock_node, 2},
    {"set_strategy", cmd_set_strategy, 1329},
    {"combo_lock_node", cmd_combo_lock_node, 1328},
    {"solve_partial", cmd_solve_partial, 2},
    {"explo_partial", cmd_explo_partial, 2},
    {"show_category_names", cmd_show_category_names, 1, Reads},
    {"show_categories", cmd_show_categories, -1, Reads},
    {"ai6_set_compression", cmd_set_compression, 2},
    {"set_compression", cmd_set_compression, 2},
    {"ai6_get_actual_compression", cmd_get_actual_compression, 1, Reads},
    {"get_actual_compression", cmd_get_actual_compression, 1, Reads},
    {"ai6_get_instruction_set", cmd_get_instruction_set, 1, Reads},
    {"get_instruction_set", cmd_get_instruction_set, 1, Reads},
    {"set_scheduler", cmd_set_scheduler, 2},
    {"enable_avx512", cmd_enable_avx512, 2},
    {"enable_river_strategy", cmd_enable_river_strategy, 2},
    {"sleep", cmd_sleep, 2, Reads},
    {"take_a_break", cmd_take_a_break, 2, Reads},
    {"repeat", cmd_repeat, -1},
    {"echo", cmd_echo, -1, Reads},
    {"ignore_mem_check", cmd_ignore_mem_check, 2},
    {"connect", cmd_connect, -1},
    {"disconnect", cmd_disconnect, 1},
    {"show_cpu_info", cmd_show_cpu_info, 1, Reads},
    {"reset_tree_info", cmd_reset_tree_info, 1},
    {"add_info_line", cmd_add_info_line, 2},
    {"show_tree_info", cmd_show_tree_info, 1, Reads},
    {"set_simd_level", cmd_set_simd_level, 2},
    {"set_precision", cmd_set_precision, 2},
    {"set_must_use_hole_cards", cmd_set_must_use_hole_cards, 2},
    {"set_hand_type_order", cmd_set_hand_type_order, 10},
    {"set_low_card", cmd_set_low_card, 2},
    {"eval_hand", cmd_eval_hand, 2, Reads},
    {"enable_adaptive_precision", cmd_enable_adaptive_precision, 2},
    {"help", cmd_help, 1, Reads},
};

// Moves the generation before a changing command and again after it, so
// that a walk of the solving thread overlapping it never carries the
// generation that follows it; the query caches give their memory back.
struct GenerationMark {
  bool on;
  explicit GenerationMark(bool changes) : on(changes) {
    if (!on) return;
    Evaluation.store_generation++;
    clear_ev_cache();
  }
  ~GenerationMark() {
    if (on) Evaluation.store_generation++;
  }
};

const CommandEntry* find_command(const std::string& name) {
  for (const CommandEntry& e : CommandTable)
    if (name == e.name) return &e;
  return nullptr;
}

void process_line(const Tokens& tokens) {
  if (tokens.empty()) return;

  // A listed poker client blocks every line, exit included.
  if (BannedProcessRunning) {
    shell_print("ERROR: banned process running: %s\n", banned_process_name().c_str());
    return;
  }
  // Echo, before anything else can swallow the line.
  if (EchoCommands) {
    std::lock_guard<std::mutex> lock(OutputLock);
    if (ColorText) set_console_attribute(2);
    std::string line = join_tokens(tokens, 0, tokens.size());
    fwrite(line.data(), 1, line.size(), stdout);
    if (ColorText) set_console_attribute(7);
    fputc('\n', stdout);
  }
  // Labels end a skip; they answer nothing.
  if (tokens.size() >= 2 && tokens[0] == "LABEL:") {
    if (tokens[1] == SkipLabel) SkipLabel.clear();
    return;
  }
  // A skip swallows everything, exit and comments included.
  if (!SkipLabel.empty()) return;
  // Comments.
  if (tokens[0][0] == '#') return;
  // exit has no answer.
  if (tokens[0] == "exit") normal_exit();
  // The table.
  const CommandEntry* entry = find_command(tokens[0]);
  if (!entry) {
    shell_print("ERROR: Command %s not recognized\n", tokens[0].c_str());
    if (TerminateOnError) error_exit();
    return;
  }
  try {
    // The table's token count.
    if (entry->arg_count > 0 && size_t(entry->arg_count) != tokens.size()) fail_argument(tokens[0]);
    // The handler.
    CurrentCommand = tokens[0];
    GenerationMark mark(!entry->reads);
    entry->handler(tokens);
  } catch (const std::invalid_argument&) {
    shell_print("ERROR: Invalid value\n");
    if (TerminateOnError) error_exit();
  } catch (const std::out_of_range&) {
    // A number too large for its type: the nearest answer is the unreadable number's.
    shell_print("ERROR: Invalid value\n");
    if (TerminateOnError) error_exit();
  } catch (const std::runtime_error& e) {
    shell_print("%s", e.what());
    if (TerminateOnError) error_exit();
  } catch (const std::bad_alloc&) {
    shell_print("ERROR: %s out of memory\n", CurrentCommand.c_str());
    if (TerminateOnError) error_exit();
  } catch (const std::exception& e) {
    shell_print("ERROR: %s %s\n", CurrentCommand.c_str(), e.what());
    if (TerminateOnError) error_exit();
  } catch (const char* text) {
    shell_print("#exception: %s\n", text);
    fflush(stdout);
    throw;
  }
}
