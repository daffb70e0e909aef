// Runs the real binary with arguments and standard input, for tests that
// compare the exact output and exit code.
#pragma once
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct RunResult {
  std::string banner;  // the lines before the first answer
  std::string out;     // everything after the banner
  int rc;
};

inline std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
}

inline std::string temp_dir() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/corvanta_test_XXXXXX";
    dir = mkdtemp(tmpl);
  }
  return dir;
}

inline std::string shell_quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'') q += "'\\''";
    else q += c;
  }
  return q + "'";
}

// banner_lines: how many lines the banner has (2, or 3 with -v).
inline RunResult run_binary(const std::vector<std::string>& args, const std::string& input,
                            int banner_lines = 2, const std::string& cwd = "") {
  std::string dir = temp_dir();
  std::string in = dir + "/stdin.txt", out = dir + "/stdout.txt";
  write_file(in, input);
  std::string cmd;
  if (!cwd.empty()) {
    cmd.append("cd ");
    cmd.append(shell_quote(cwd));
    cmd.append(" && ");
  }
  cmd.append(shell_quote(CORVANTA_BIN));
  for (const std::string& a : args) cmd += " " + shell_quote(a);
  cmd += " < " + shell_quote(in) + " > " + shell_quote(out) + " 2>/dev/null";
  int status = std::system(cmd.c_str());
  RunResult r;
  r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::string all = read_file(out);
  size_t pos = 0;
  for (int i = 0; i < banner_lines && pos != std::string::npos; i++) {
    pos = all.find('\n', pos);
    if (pos != std::string::npos) pos++;
  }
  if (pos == std::string::npos) pos = all.size();
  r.banner = all.substr(0, pos);
  r.out = all.substr(pos);
  return r;
}

// A range line of 1326 equal weights.
inline std::string range_line(const std::string& player, const std::string& weight) {
  std::string s = "set_range " + player;
  for (int i = 0; i < 1326; i++) s += " " + weight;
  return s;
}
