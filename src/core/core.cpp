// Output, failures, number conversion and the process-wide settings.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "core/core.h"

int32_t Verbosity = 0;
bool SuppressOk = false;
bool ShowComments = false;
bool RawInfoOutput = false;
bool MarkOutput = false;
std::string CurrentCommand;
std::string OutputBuffer;
std::mutex OutputLock;

Tokens tokenize_line(const std::string& line) {
  Tokens out;
  std::string cur;
  bool quoted = false;
  for (char c : line) {
    if (!quoted) {
      if (c == ' ') {
        if (!cur.empty()) out.push_back(std::move(cur)), cur.clear();
      } else if (c == '"') {
        quoted = true;  // the token collected so far stays open
      } else {
        cur += c;
      }
    } else if (c == '"') {
      if (!cur.empty()) out.push_back(std::move(cur)), cur.clear();
      quoted = false;
    } else {
      cur += c;
    }
  }
  if (!cur.empty()) out.push_back(std::move(cur));
  return out;
}

std::string join_tokens(const Tokens& tokens, size_t first, size_t last) {
  if (last > tokens.size()) last = tokens.size();
  std::string s;
  for (size_t i = first; i < last; i++) {
    if (i > first) s += ' ';
    s += tokens[i];
  }
  return s;
}

// ---- Output ---------------------------------------------------------------

static bool comment_suppressed(const char* format) {
  return format[0] == '#' && !ShowComments && !RawInfoOutput;
}

void shell_print(const char* format, ...) {
  if (comment_suppressed(format)) return;
  static thread_local char work[65536];
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(work, sizeof work, format, ap);
  va_end(ap);
  if (n < 0) return;
  OutputBuffer.append(work, size_t(n) < sizeof work ? size_t(n) : sizeof work - 1);
}

void flush_output() {
  if (OutputBuffer.empty()) return;
  std::lock_guard<std::mutex> lock(OutputLock);
  size_t start = 0;
  while (start < OutputBuffer.size()) {
    size_t end = OutputBuffer.find('\n', start);
    if (end == std::string::npos) end = OutputBuffer.size();
    if (end > start) {
      if (MarkOutput && OutputBuffer[start] != '#') fputc(0xA7, stdout);
      fwrite(OutputBuffer.data() + start, 1, end - start, stdout);
      fputc('\n', stdout);
    }
    start = end + 1;
  }
  OutputBuffer.clear();
  RawInfoOutput = false;
}

void solver_print(const char* format, ...) {
  if (format[0] == '#' && !ShowComments) return;
  std::lock_guard<std::mutex> lock(OutputLock);
  va_list ap;
  va_start(ap, format);
  vfprintf(stdout, format, ap);
  va_end(ap);
  fflush(stdout);
}

void print_ok(const Tokens& tokens) {
  if (!SuppressOk) shell_print("%s ok!\n", tokens[0].c_str());
}

void write_direct(const std::string& text) {
  std::lock_guard<std::mutex> lock(OutputLock);
  fwrite(text.data(), 1, text.size(), stdout);
}

// ---- Failures -------------------------------------------------------------

void fail_argument(const std::string& command) {
  char msg[256];
  snprintf(msg, sizeof msg, "ERROR: %s incorrect or missing argument\n", command.c_str());
  throw std::runtime_error(msg);
}

void fail_command(const std::string& reason) {
  char msg[256];
  snprintf(msg, sizeof msg, "ERROR: %s %s\n", CurrentCommand.c_str(), reason.c_str());
  throw std::runtime_error(msg);
}

void fail_invalid_card() { throw std::runtime_error("ERROR: invalid card\n"); }

void error_exit() {
  flush_output();
  fflush(stdout);
  std::_Exit(1);
}

int32_t parse_int(const std::string& s) { return std::stoi(s); }
int64_t parse_int64(const std::string& s) { return std::stoll(s); }
double parse_double(const std::string& s) { return std::stod(s); }

// ---- Switches of every layer ----------------------------------------------

bool UseAvx512 = false;
std::atomic<bool> SolverRunning{false};
std::atomic<bool> SolverStopRequested{false};

void reset_core_state() {
  UseAvx512 = false;
  Verbosity = 0;
  SuppressOk = ShowComments = RawInfoOutput = MarkOutput = false;
  CurrentCommand.clear();
  OutputBuffer.clear();
}
