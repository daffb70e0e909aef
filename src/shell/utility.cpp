// Script, redirection, timing, help and tree-information commands.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "shell/shell.h"
#include "tree/tree.h"

void run_script_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) fail_command("can't open file");
  std::string line;
  auto run = [&]() {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) {
      process_line(tokenize_line(line));
      flush_output();
      fflush(stdout);
    }
    line.clear();
  };
  int c;
  while ((c = fgetc(f)) != EOF) {
    if (c == '\n') run();
    else line += char(c);
  }
  run();
  fclose(f);
}

void cmd_load_script(const Tokens& t) {
  if (Verbosity > 0) shell_print("[load_script %s]\n", t[1].c_str());
  run_script_file(t[1]);
}

void cmd_skip_if_done(const Tokens& t) {
  if (is_regular_file(t[1])) SkipLabel = t[2];
  print_ok(t);
}

void cmd_repeat(const Tokens& t) {
  if (t.size() < 3) fail_argument(t[0]);
  int n = parse_int(t[1]);
  if (n < 1 || n > 99999) fail_argument(t[0]);
  std::string text = join_tokens(t, 2, t.size()) + "\n";
  for (int i = 0; i < n; i++) shell_print("%s", text.c_str());
  shell_print("END\n");
}

void cmd_echo(const Tokens& t) {
  if (t.size() < 2) fail_argument(t[0]);
  shell_print("%s", t[1].c_str());
}

void cmd_sleep(const Tokens& t) { sleep_milliseconds(parse_int64(t[1])); }

void cmd_take_a_break(const Tokens& t) {
  double seconds = parse_double(t[1]);
  if (SolverRunning) SolverStopRequested = true;  // ask, don't wait
  if (seconds > 0) sleep_milliseconds(int64_t(seconds * 1000.0));
  print_ok(t);
}

void cmd_stdoutredi(const Tokens& t) {
  if (!redirect_stdout(t[1], false)) fail_command("can't open file");
  print_ok(t);
}

void cmd_stdoutredi_append(const Tokens& t) {
  if (!redirect_stdout(t[1], true)) fail_command("can't open file");
  print_ok(t);
}

void cmd_stdoutback(const Tokens& t) {
  restore_stdout();
  print_ok(t);
}

void cmd_help(const Tokens&) {
  std::vector<std::string> names;
  for (const CommandEntry& e : CommandTable)
    if (strncmp(e.name, "ai6_", 4) != 0) names.push_back(e.name);
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) shell_print("%s\n", n.c_str());
  shell_print("END\n");
}

struct CpuFeature {
  const char* name;
  uint32_t leaf;
  int reg;  // 0 eax 1 ebx 2 ecx 3 edx
  int bit;
  int vendor;  // 0 any, 1 Intel only, 2 AMD only
};

static const CpuFeature CpuFeatures[] = {
    {"3DNOW", 0x80000001, 3, 31, 2},  {"3DNOWEXT", 0x80000001, 3, 30, 2}, {"ABM", 0x80000001, 2, 5, 2},
    {"ADX", 7, 1, 19, 0},             {"AES", 1, 2, 25, 0},              {"AVX", 1, 2, 28, 0},
    {"AVX2", 7, 1, 5, 0},             {"AVX512CD", 7, 1, 28, 0},         {"AVX512ER", 7, 1, 27, 0},
    {"AVX512F", 7, 1, 16, 0},         {"AVX512PF", 7, 1, 26, 0},         {"BMI1", 7, 1, 3, 0},
    {"BMI2", 7, 1, 8, 0},             {"CLFSH", 1, 3, 19, 0},            {"CMPXCHG16B", 1, 2, 13, 0},
    {"CX8", 1, 3, 8, 0},              {"ERMS", 7, 1, 9, 0},              {"F16C", 1, 2, 29, 0},
    {"FMA", 1, 2, 12, 0},             {"FSGSBASE", 7, 1, 0, 0},          {"FXSR", 1, 3, 24, 0},
    {"HLE", 7, 1, 4, 1},              {"INVPCID", 7, 1, 10, 0},          {"LAHF", 0x80000001, 2, 0, 0},
    {"LZCNT", 0x80000001, 2, 5, 1},   {"MMX", 1, 3, 23, 0},              {"MMXEXT", 0x80000001, 3, 22, 2},
    {"MONITOR", 1, 2, 3, 0},          {"MOVBE", 1, 2, 22, 0},            {"MSR", 1, 3, 5, 0},
    {"OSXSAVE", 1, 2, 27, 0},         {"PCLMULQDQ", 1, 2, 1, 0},         {"POPCNT", 1, 2, 23, 0},
    {"PREFETCHWT1", 7, 2, 0, 0},      {"RDRAND", 1, 2, 30, 0},           {"RDSEED", 7, 1, 18, 0},
    {"RDTSCP", 0x80000001, 3, 27, 1}, {"RTM", 7, 1, 11, 1},              {"SEP", 1, 3, 11, 0},
    {"SHA", 7, 1, 29, 0},             {"SSE", 1, 3, 25, 0},              {"SSE2", 1, 3, 26, 0},
    {"SSE3", 1, 2, 0, 0},             {"SSE4.1", 1, 2, 19, 0},           {"SSE4.2", 1, 2, 20, 0},
    {"SSE4a", 0x80000001, 2, 6, 2},   {"SSSE3", 1, 2, 9, 0},             {"SYSCALL", 0x80000001, 3, 11, 1},
    {"TBM", 0x80000001, 2, 21, 2},    {"XOP", 0x80000001, 2, 11, 2},     {"XSAVE", 1, 2, 26, 0},
};

void cmd_show_cpu_info(const Tokens&) {
  std::string vendor = cpu_vendor();
  int vendor_id = vendor == "GenuineIntel" ? 1 : vendor == "AuthenticAMD" ? 2 : 0;
  uint32_t max_basic = cpuid(0).eax, max_ext = cpuid(0x80000000).eax;
  std::string out = vendor + "\n" + cpu_brand() + "\n";
  for (const CpuFeature& f : CpuFeatures) {
    bool present = false;
    bool leaf_ok = f.leaf >= 0x80000000 ? f.leaf <= max_ext : f.leaf <= max_basic;
    if (leaf_ok && (f.vendor == 0 || f.vendor == vendor_id)) {
      CpuidRegs r = cpuid(f.leaf, 0);
      uint32_t regs[4] = {r.eax, r.ebx, r.ecx, r.edx};
      present = (regs[f.reg] >> f.bit) & 1;
    }
    char line[64];
    snprintf(line, sizeof line, "%-13s%s\n", f.name, present ? "[x]" : "[ ]");
    out += line;
  }
  write_direct(out);
  shell_print("END\n");
}

void cmd_solver_time(const Tokens&) {
  shell_print("%f\n", double(wall_clock_ticks() - ProcessStartTicks) / 1e7);
}

void cmd_get_instruction_set(const Tokens&) {
  bool avx2 = cpu_has_avx() && cpuid(0).eax >= 7 && (cpuid(7).ebx & (1u << 5));
  shell_print("%s\n", avx2 ? "AVX2" : cpu_has_avx() ? "AVX" : "SSE3");
}

void cmd_reset_tree_info(const Tokens& t) {
  TreeInfoLines.clear();
  print_ok(t);
}

void cmd_add_info_line(const Tokens& t) {
  TreeInfoLines.push_back(t[1]);
  print_ok(t);
}

void cmd_show_tree_info(const Tokens&) {
  RawInfoOutput = true;
  for (const std::string& line : TreeInfoLines) shell_print("%s\n", line.c_str());
  shell_print("END\n");
}

void cmd_ignore_mem_check(const Tokens& t) {
  if (t[1] != "on" && t[1] != "off") fail_argument(t[0]);
  print_ok(t);
}

// The program serves no clients: connect and disconnect accept their tokens
// and answer, nothing more.
void cmd_connect(const Tokens& t) { print_ok(t); }
void cmd_disconnect(const Tokens& t) { print_ok(t); }
