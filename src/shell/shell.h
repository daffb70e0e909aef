// The command shell: the command table, the loop, the shell's own switches and
// commands. It parses commands into the core settings; nothing below knows it.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "cards/cards.h"
#include "core/core.h"

using CommandHandler = void (*)(const Tokens&);

struct CommandEntry {
  const char* name;
  CommandHandler handler;
  int32_t arg_count;  // exact token count with the command word; <= 0: the handler checks
  bool reads = false;  // only reads: leaves strategies, values and the tree as they are
};

constexpr int CommandCount = 94;
extern const CommandEntry CommandTable[CommandCount];

// ---- Shell state (one loop thread writes it) ------------------------------
// Output switches, the game description and the solver settings live in the
// core header; these belong to the loop alone.
extern bool EchoCommands;
extern bool ColorText;
extern bool TerminateOnError;
extern std::string SkipLabel;
extern std::atomic<bool> BannedProcessRunning;
extern int64_t ProcessStartTicks;  // 100 ns ticks, solver_time counts from here

// ---- Settings only the shell keeps (setup.cpp) ----------------------------
// set_rake and set_scheduler are taken and kept; the accuracy as given, of
// which the solver reads only the target in chips.
extern double RakeFraction, RakeCap;
extern int32_t Scheduler;
extern double AccuracyValue;
extern bool AccuracyIsFraction;
// AccuracyTarget from the accuracy as given and the starting pot.
void recompute_accuracy_target();

// ---- Tokens and the loop --------------------------------------------------
void process_line(const Tokens& tokens);
const CommandEntry* find_command(const std::string& name);

// flush, stop the watcher, exit(0)
[[noreturn]] void normal_exit();

// ---- Process watcher ------------------------------------------------------
void start_watcher();
void stop_watcher();
bool banned_process_check(const std::vector<std::string>& names, std::string& found);
std::string banned_process_name();

// Every setting of the core, the cards, the game description, the stores,
// the solver, the queries and the shell back to its start value (for tests).
void reset_game_state();

// ---- Handlers of the shell's own commands ---------------------------------
void cmd_answer_only(const Tokens& t);  // is_ready, set_eff_stack
void cmd_set_range(const Tokens& t);
void cmd_set_board(const Tokens& t);
void cmd_set_pot(const Tokens& t);
void cmd_show_effective_stack(const Tokens& t);
void cmd_set_rake(const Tokens& t);
void cmd_set_isomorphism(const Tokens& t);
void cmd_set_threads(const Tokens& t);
void cmd_set_accuracy(const Tokens& t);
void cmd_set_recalc_accuracy(const Tokens& t);
void cmd_set_simd_level(const Tokens& t);
void cmd_set_precision(const Tokens& t);
void cmd_enable_adaptive_precision(const Tokens& t);
void cmd_enable_avx512(const Tokens& t);
void cmd_enable_river_strategy(const Tokens& t);
void cmd_set_scheduler(const Tokens& t);

void cmd_load_script(const Tokens& t);
void cmd_skip_if_done(const Tokens& t);
void cmd_repeat(const Tokens& t);
void cmd_echo(const Tokens& t);
void cmd_sleep(const Tokens& t);
void cmd_take_a_break(const Tokens& t);
void cmd_stdoutredi(const Tokens& t);
void cmd_stdoutredi_append(const Tokens& t);
void cmd_stdoutback(const Tokens& t);
void cmd_help(const Tokens& t);
void cmd_show_cpu_info(const Tokens& t);
void cmd_solver_time(const Tokens& t);
void cmd_get_instruction_set(const Tokens& t);
void cmd_reset_tree_info(const Tokens& t);
void cmd_add_info_line(const Tokens& t);
void cmd_show_tree_info(const Tokens& t);
void cmd_ignore_mem_check(const Tokens& t);
void cmd_connect(const Tokens& t);
void cmd_disconnect(const Tokens& t);

// Runs a script file line by line through process_line.
void run_script_file(const std::string& path);

// ---- Commands of node paths (the paths themselves are the tree's) -------
void cmd_show_node(const Tokens& t);
void cmd_show_children(const Tokens& t);
void cmd_set_ev_boost(const Tokens& t);
void cmd_cut_line(const Tokens& t);
