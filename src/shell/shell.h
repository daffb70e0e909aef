// The command shell: the answer protocol, the command table, the game
// description and the solver settings that commands store.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "cards/cards.h"

using Tokens = std::vector<std::string>;
using CommandHandler = void (*)(const Tokens&);

struct CommandEntry {
  const char* name;
  CommandHandler handler;
  int32_t arg_count;  // exact token count with the command word; <= 0: the handler checks
};

constexpr int CommandCount = 94;
extern const CommandEntry CommandTable[CommandCount];

// ---- Shell state (one loop thread writes it) ------------------------------
extern int32_t Verbosity;
extern bool EchoCommands;
extern bool ColorText;
extern bool TerminateOnError;
extern bool SuppressOk;
extern bool ShowComments;
extern bool RawInfoOutput;
extern bool MarkOutput;  // the 0xA7 marker of the comment mode, for one command
extern std::string SkipLabel;
extern std::string CurrentCommand;
extern std::string OutputBuffer;
extern std::mutex OutputLock;
extern std::atomic<bool> BannedProcessRunning;
extern int64_t ProcessStartTicks;  // 100 ns ticks, solver_time counts from here
extern std::vector<std::string> TreeInfoLines;

// ---- Tokens and the loop --------------------------------------------------
Tokens tokenize_line(const std::string& line);
std::string join_tokens(const Tokens& tokens, size_t first, size_t last);
void process_line(const Tokens& tokens);
const CommandEntry* find_command(const std::string& name);

// ---- Output ---------------------------------------------------------------
void shell_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
void flush_output();
void solver_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "%s ok!\n" with the command word, unless SuppressOk.
void print_ok(const Tokens& tokens);
// Writes straight to standard output under OutputLock, bypassing OutputBuffer.
void write_direct(const std::string& text);

// ---- Failures -------------------------------------------------------------
// Both raise std::runtime_error carrying the whole message with its line feed.
[[noreturn]] void fail_argument(const std::string& command);
[[noreturn]] void fail_command(const std::string& reason);
[[noreturn]] void fail_invalid_card();
// flush, stop the watcher, exit(1)
[[noreturn]] void error_exit();
[[noreturn]] void normal_exit();

// Number conversion as the standard conversions do it: leading blanks and a
// sign, stop at the first foreign character; no number raises
// std::invalid_argument, too large raises std::out_of_range.
int32_t parse_int(const std::string& s);
int64_t parse_int64(const std::string& s);
double parse_double(const std::string& s);

// ---- Process watcher ------------------------------------------------------
void start_watcher();
void stop_watcher();
bool banned_process_check(const std::vector<std::string>& names, std::string& found);
std::string banned_process_name();

// ---- Game description -----------------------------------------------------
constexpr int HandCount = 1326;
using Range = std::vector<double>;  // 1326 weights in PairIndex order, empty = not set

extern Range Ranges[2];
extern double RangeMin[2], RangeMax[2];
extern CardMask BoardFlop, BoardTurn, BoardRiver;
extern double PotOop, PotIp, StartPot;
extern bool IsomorphismFlop, IsomorphismTurn;
extern double RakeFraction, RakeCap;
extern int32_t EffectiveStack;
extern bool TreePresent;  // a built or loaded tree exists
extern const char* const PlayerNames[2];

// Player token: "OOP"/"hero" = 0, "IP"/"villain" = 1, otherwise -1.
int player_from_token(const std::string& token);
CardMask board_mask();
// The range consistency test of an isomorphic flop build; throws the build's
// error through fail_command.
void check_range_consistency();

// ---- Solver settings stored by commands -----------------------------------
extern int32_t ThreadCount;
extern double AccuracyValue;
extern bool AccuracyIsFraction;
extern double AccuracyTarget;
extern double RecalcAccuracy[3];
extern int32_t SimdLevel;
extern double Precision;
extern bool AdaptivePrecision;
extern bool UseAvx512;
extern bool RiverStrategyEnabled;
extern int32_t Scheduler;
extern std::atomic<bool> SolverRunning;  // set by the solving thread while it runs
extern std::atomic<bool> SolverStopRequested;

void recompute_accuracy_target();
void reset_game_state();  // for tests: every global of this header back to its start value

// ---- Handlers of the shell's own commands ---------------------------------
void cmd_not_implemented(const Tokens& t);
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

// ---- Node paths -----------------------------------------------------------
struct SchematicNode;
struct Node;

// A situation of the game: a point of the line tree with the cards so far.
struct NodePath {
  SchematicNode* node = nullptr;  // none for the path "r"
  Node* built = nullptr;          // the built node of `node`; parse_path fails without one
  int32_t turn_card = -1;
  int32_t river_card = -1;
  bool at_split = false;  // ended on the action that closed a street, before the card
};

// Needs a tree; "incorrect path" for anything the tree doesn't hold.
NodePath parse_path(const std::string& text);
NodePath parent_ref(const NodePath& ref);
// Absolute street of a schematic node (1 flop .. 3 river).
int32_t absolute_street(const SchematicNode* node);

void cmd_show_node(const Tokens& t);
void cmd_show_children(const Tokens& t);
void cmd_set_ev_boost(const Tokens& t);
void cmd_cut_line(const Tokens& t);
