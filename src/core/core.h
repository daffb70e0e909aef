// The base every module stands on: the answer protocol's output and failure
// helpers, number conversion, the types of the game description, and the few
// switches that modules of every layer read. The settings of one module live
// in that module's header (the game description in tree.h, the stores'
// precision in store.h, the solver's threads and accuracy in solver.h, ...).
// Nothing here knows the shell exists.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

using Tokens = std::vector<std::string>;
using CardMask = uint64_t;  // bit = card number

constexpr int HandCount = 1326;
using Range = std::vector<double>;  // 1326 weights in PairIndex order, empty = not set

// ---- Output -------------------------------------------------------------------
// Command answers collect in OutputBuffer and leave at flush_output; the
// solving thread writes at once. All writes to standard output take OutputLock.
extern int32_t Verbosity;
extern bool SuppressOk;
extern bool ShowComments;
extern bool RawInfoOutput;
extern bool MarkOutput;  // the 0xA7 marker of the comment mode, for one command
extern std::string CurrentCommand;
extern std::string OutputBuffer;
extern std::mutex OutputLock;

void shell_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
void flush_output();
void solver_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "%s ok!\n" with the command word, unless SuppressOk.
void print_ok(const Tokens& tokens);
// Straight to standard output under OutputLock, bypassing OutputBuffer.
void write_direct(const std::string& text);
// Blanks separate tokens; double quotes group blanks into one token.
Tokens tokenize_line(const std::string& line);
std::string join_tokens(const Tokens& tokens, size_t first, size_t last);

// ---- Failures -------------------------------------------------------------------
// These raise std::runtime_error carrying the whole message with its line feed.
[[noreturn]] void fail_argument(const std::string& command);
[[noreturn]] void fail_command(const std::string& reason);
[[noreturn]] void fail_invalid_card();
// Flushes the answers so far and ends the process with code 1.
[[noreturn]] void error_exit();

// Number conversion as the standard conversions do it: leading blanks and a
// sign, stop at the first foreign character; no number raises
// std::invalid_argument, too large raises std::out_of_range.
int32_t parse_int(const std::string& s);
int64_t parse_int64(const std::string& s);
double parse_double(const std::string& s);

// ---- Switches of every layer ------------------------------------------------------
// enable_avx512: the kernels, the store kernels and the codecs take their
// AVX-512 forms where the processor has them.
extern bool UseAvx512;
// Set by the solving thread while it runs; the commands of every module refuse
// what would change a tree under it.
extern std::atomic<bool> SolverRunning;
extern std::atomic<bool> SolverStopRequested;

// Every variable of this header back to its start value (for tests).
void reset_core_state();
