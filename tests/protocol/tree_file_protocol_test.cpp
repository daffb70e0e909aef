// Stored trees through the binary: a dumped and reloaded game answers as the
// solved one did and goes on solving from where it was; files of older
// formats built here by hand load; damaged files give errors and never a
// signal, a hang or a large allocation; a writer killed mid-file leaves the
// old file whole.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "run_binary.h"

namespace {

// A range line with weights on every tenth hand, so that flop games stay small.
std::string sparse_range(const std::string& player, int offset) {
  std::string s = "set_range " + player;
  for (int i = 0; i < 1326; i++) s += (i + offset) % 10 == 0 ? " 1" : (i + offset) % 10 == 3 ? " 0.5" : " 0";
  return s + "\n";
}

struct Game {
  const char* name;
  std::string setup;    // ranges, board, pot, lines
  std::string queries;  // answers that must survive the file
};

std::vector<Game> games() {
  std::string full = range_line("OOP", "1") + "\n" + range_line("IP", "1") + "\n";
  return {
      {"river", full + "set_board Qs Jh 2h 7c 4d\nset_pot 0 0 100\n"
                "add_line 0 0\nadd_line 0 50 50\nadd_line 50 50\nadd_line 50 200 200\n",
       "show_strategy r:0\nshow_strategy r:0:c\nshow_range IP r:0:c\nshow_locked_combos r:0:c\n"},
      {"turn", full + "set_board Qs Jh 2h 7c\nset_pot 0 0 100\n"
               "add_line 0 0 0 0\nadd_line 0 0 50 50\nadd_line 50 50 0 0\n",
       "show_strategy r:0\nshow_strategy r:0:c:c:4d\nshow_range OOP r:0:c:c:4d:c\nshow_locked_combos r:0:c\n"},
      {"flop", sparse_range("OOP", 0) + sparse_range("IP", 4) + "set_isomorphism 0 0\nset_board Qs Jh 2h\n"
               "set_pot 0 0 100\nadd_line 0 0 0 0 0 0\nadd_line 0 0 0 0 20 20\nadd_line 0 0 20 20 20 20\n",
       "show_strategy r:0\nshow_strategy r:0:c:c:7c\nshow_strategy r:0:c:c:7c:c:c:4d\n"
       "show_range IP r:0:c:c:7c:c\nshow_locked_combos r:0:c\n"},
  };
}

std::string between(const std::string& text, const std::string& from, const std::string& to) {
  size_t a = text.find(from);
  if (a == std::string::npos) return "<" + from + " missing>";
  a += from.size();
  size_t b = text.find(to, a);
  return text.substr(a, b == std::string::npos ? std::string::npos : b - a);
}

TEST(TreeFile, RoundTripEveryLevelAndRootThenSolvingGoesOn) {
  const std::string file = temp_dir() + "/round.tree";
  for (const Game& g : games()) {
    // Levels change the river stores of flop games only; the others store the level.
    for (int level : std::string(g.name) == "flop" ? std::vector<int>{0, 1, 2, 3, 4, 5} : std::vector<int>{0, 4}) {
      SCOPED_TRACE(std::string(g.name) + " level " + std::to_string(level));
      std::string solve = g.setup + "set_compression " + std::to_string(level) +
                          "\nbuild_tree\nlock_node r:0:c\ngo 12 steps\nwait_for_solver\n";
      std::string ask = "calc_results\nnode_count\n" + g.queries + "echo ==\n";
      RunResult r = run_binary({}, solve + ask + "dump_tree " + file + "\nfree_tree\nload_tree " + file + "\n" + ask +
                                       "go 5 steps\nwait_for_solver\necho FINAL\ncalc_results\n");
      ASSERT_EQ(r.rc, 0);
      std::string before = between(r.out, "SOLVER: stopped (required number of steps done)\n", "==\n");
      std::string after = between(r.out, "load_tree ok!\n", "==\n");
      EXPECT_EQ(before.find("ERROR"), std::string::npos) << before;
      EXPECT_EQ(after, before);
      // The same 17 iterations without the file in between.
      RunResult straight = run_binary({}, solve + "go 5 steps\nwait_for_solver\necho FINAL\ncalc_results\n");
      EXPECT_EQ(between(r.out, "FINAL\n", "#"), between(straight.out, "FINAL\n", "#"));
    }
  }
  unlink(file.c_str());
}

// Whether a temporary file of `base` exists in `dir`.
bool temp_file_exists(const std::string& dir, const std::string& base) {
  DIR* d = opendir(dir.c_str());
  bool found = false;
  while (dirent* e = d ? readdir(d) : nullptr)
    if (std::string(e->d_name).rfind("." + base + ".", 0) == 0) found = true;
  if (d) closedir(d);
  return found;
}

TEST(TreeFile, RefusalsAndTheTargetStaysWhole) {
  const std::string dir = temp_dir();
  const Game g = games()[0];
  RunResult r = run_binary({}, "dump_tree " + dir + "/none.tree\ndump_tree\nload_tree " + dir +
                                   "/missing.tree\n" + g.setup + "build_tree\ngo\ndump_tree " + dir +
                                   "/x.tree\nload_tree " + dir + "/x.tree\nstop\nwait_for_solver\ndump_tree " + dir +
                                   "/no/such/folder/x.tree\ncalc_results\n");
  EXPECT_NE(r.out.find("ERROR: dump_tree missing/incorrect tree\n"), std::string::npos);
  EXPECT_NE(r.out.find("ERROR: dump_tree incorrect or missing argument\n"), std::string::npos);
  EXPECT_NE(r.out.find("ERROR: load_tree can't open file (" + dir + "/missing.tree)\n"), std::string::npos);
  EXPECT_NE(r.out.find("ERROR: dump_tree Can't do that when solver is running\n"), std::string::npos);
  EXPECT_NE(r.out.find("ERROR: load_tree Can't do that when solver is running\n"), std::string::npos);
  EXPECT_NE(r.out.find("ERROR: dump_tree can't open file (" + dir + "/no/such/folder/x.tree): No such file"),
            std::string::npos);
  // The failed dump left the game as it was.
  EXPECT_NE(r.out.find("EV OOP:"), std::string::npos);
  EXPECT_EQ(r.rc, 0);

  // A full disk, as a file size limit: the writer fails cleanly, the old file
  // and the game stay, and no temporary file is left behind.
  const std::string target = dir + "/full.tree";
  ASSERT_EQ(run_binary({}, g.setup + "build_tree\ndump_tree " + target + "\n").rc, 0);
  const std::string old = read_file(target);
  write_file(dir + "/full.in", g.setup + "build_tree\ngo 3 steps\nwait_for_solver\ndump_tree " + target +
                                   "\ncalc_results\n");
  std::string cmd = "sh -c \"trap '' XFSZ; ulimit -f 64; exec " + std::string(CORVANTA_BIN) + "\" < " +
                    shell_quote(dir + "/full.in") + " > " + shell_quote(dir + "/full.out");
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  std::string out = read_file(dir + "/full.out");
  EXPECT_NE(out.find("ERROR: dump_tree can't write to file (" + target + "): File too large\nEV OOP:"),
            std::string::npos)
      << out.substr(out.size() > 300 ? out.size() - 300 : 0);
  EXPECT_EQ(read_file(target), old);
  EXPECT_FALSE(temp_file_exists(dir, "full.tree"));

  // A file that isn't a tree, and a format from the future.
  write_file(dir + "/foreign.tree", "AI5:\x09");
  std::string future("AI6:\x0a\0\0\0", 8);
  write_file(dir + "/future.tree", future);
  r = run_binary({}, "load_tree " + dir + "/foreign.tree\nload_tree " + dir + "/future.tree\nis_tree_present\n");
  EXPECT_EQ(r.out, "ERROR: load_tree invalid file\nERROR: load_tree unsupported data format, update to latest version\n"
                   "false\n");
}

// ---- Older formats, built by hand ----------------------------------------------------------

struct Bytes {
  std::string b;
  template <typename T>
  void put(T v) { b.append(reinterpret_cast<const char*>(&v), sizeof v); }
  void raw(const std::string& s) { b += s; }
};

// The schematic section of a format-9 file of a river game (its layout is
// the same in every format), with the action count of each node in order.
struct Schematic {
  std::string board;  // masks and pots
  uint32_t flags = 0;
  std::string bytes;
  std::vector<int32_t> actions;
};

Schematic schematic_of(const std::string& file) {
  const size_t start = 4 + 4 + 1 + 1 + 1 + 9 + 24 + 24 + 2 * 1326 * 8;
  Schematic s;
  size_t pos = start;
  std::vector<int32_t> open{1};
  while (!open.empty()) {
    if (open.back() == 0) {
      open.pop_back();
      continue;
    }
    open.back()--;
    if (pos != start) pos += 8;  // the child's key
    int32_t children;
    memcpy(&children, file.data() + pos + 40, 4);
    s.actions.push_back(children);
    pos += 44;
    open.push_back(children);
  }
  s.bytes = file.substr(start, pos - start);
  s.board = file.substr(20, 48);
  memcpy(&s.flags, file.data() + pos, 4);
  return s;
}

// A river game stored in `format`: action a of every node holds regrets a + 1
// for every hand, so the strategy of a two-way node is 1/3 and 2/3.
std::string old_file(int format, const Schematic& s) {
  const int hands = 1081;  // full ranges on a river board
  Bytes f;
  f.raw("AI6:");
  f.put<int32_t>(format);
  if (format >= 4) f.put<uint8_t>(0);
  if (format >= 8) {
    f.put<uint8_t>(0);
    f.put<uint8_t>(0);
    for (uint8_t i = 0; i < 9; i++) f.put<uint8_t>(i);
  }
  f.raw(s.board);
  for (int i = 0; i < 2 * 1326; i++) f.put<double>(1.0);
  f.raw(s.bytes);
  f.put<uint32_t>(s.flags);
  f.put<int32_t>(-1);
  f.put<int32_t>(-1);
  for (int i = 0; i < 6; i++) f.put<double>(0.0);
  f.put<int32_t>(0);   // compression
  f.put<int32_t>(77);  // iteration
  for (size_t n = 0; n < s.actions.size(); n++) {
    if (n == 0) {  // the root opens the river: 49 street records
      for (int r = 0; r < 49; r++) {
        if (format < 4) {
          for (int row = 0; row < 6; row++) f.put<int32_t>(0);
        } else {
          f.put<uint8_t>(0);  // a reach row of three hands, the other kept out
          f.put<uint8_t>(1);
          f.put<int32_t>(3);
          for (int i = 0; i < 3; i++) f.put<int16_t>(150);
        }
        f.put<uint8_t>(0);
        f.put<double>(0.0);
      }
    }
    int32_t actions = s.actions[n];
    if (actions == 0) continue;
    for (int store = 0; store < 2; store++) {
      f.put<uint32_t>(0);  // lock record
      for (int a = 0; a < actions; a++)
        for (int i = 0; i < hands; i++) f.put<float>(float(a + 1));
    }
  }
  if (format >= 4) {
    for (int r = 0; r < 49 * 4; r++) f.put<int32_t>(0);  // no result rows
    if (format >= 6) {
      f.put<uint8_t>(1);  // plain form: rows of length 0 have no bytes
    } else {
      // Channel form: the codec id alone, as one raw block of channel 0.
      f.put<uint64_t>(9);
      f.put<uint32_t>(1);
      f.put<uint32_t>(0);
      f.put<uint8_t>(2);
      for (int c = 1; c < 24; c++) f.put<uint64_t>(0);
    }
  }
  if (format >= 7) {
    f.put<uint32_t>(1);
    f.put<uint32_t>(5);
    f.raw("hello");
  }
  return f.b;
}

TEST(TreeFile, OlderFormatsLoad) {
  const std::string dir = temp_dir();
  const Game g = games()[0];
  RunResult made = run_binary({}, g.setup + "build_tree\ndump_tree " + dir + "/nine.tree\n");
  ASSERT_EQ(made.rc, 0);
  Schematic s = schematic_of(read_file(dir + "/nine.tree"));
  ASSERT_GT(s.actions.size(), 4u);
  for (int format : {3, 4, 6, 8}) {
    SCOPED_TRACE(format);
    std::string name = dir + "/old" + std::to_string(format) + ".tree";
    write_file(name, old_file(format, s));
    RunResult r = run_binary({}, "add_info_line stale\nload_tree " + name +
                                     "\nshow_strategy r:0:c\nshow_tree_info\ndump_tree " + name + ".9\n");
    ASSERT_EQ(r.out.substr(0, 32), "add_info_line ok!\nload_tree ok!\n");
    // r:0:c is IP's check-or-bet node: a bet of 50 before the check.
    std::istringstream rows(between(r.out, "load_tree ok!\n", "END\n"));
    std::string line;
    for (double expected : {1.0 / 3, 2.0 / 3}) {
      std::getline(rows, line);
      std::istringstream values(line);
      int live = 0, dead = 0, other = 0;
      double x;
      while (values >> x) (std::fabs(x - expected) < 1e-6 ? live : x == 0 ? dead : other)++;
      EXPECT_EQ(live, 1081);
      EXPECT_EQ(dead, 1326 - 1081);
      EXPECT_EQ(other, 0) << line.substr(0, 60);
    }
    std::string info = between(r.out, "END\n", "dump_tree ok!\n");
    EXPECT_EQ(info, format >= 7 ? "hello\nEND\n" : "END\n");
  }
}

// ---- Damaged files -----------------------------------------------------------------------

// Runs the binary over `script` with a time limit; the exit status of the
// shell, which is above 128 when the binary died of a signal.
int run_limited(const std::string& script, const std::string& out, int seconds) {
  std::string in = out + ".in";
  write_file(in, script);
  std::string cmd = "timeout -s KILL " + std::to_string(seconds) + " " + shell_quote(CORVANTA_BIN) + " < " +
                    shell_quote(in) + " > " + shell_quote(out) + " 2>&1";
  int status = std::system(cmd.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What a damaged file answers depends on the damage: a file cut short fails
// on the read, whatever field the cut falls in; a field whose value no file
// can hold is an invalid file; random damage may give either, or load, or
// stop the process at a compressed block, but never a signal or a hang.
enum Damage { CUT, FIELD, RANDOM };

struct DamagedFile {
  std::string bytes;
  Damage damage;
  std::string answer;  // FIELD: the whole answer of load_tree
};

// The file with one field at `at` set to `value`.
template <typename T>
std::string with(std::string file, size_t at, T value) {
  memcpy(&file[at], &value, sizeof value);
  return file;
}

TEST(TreeFile, DamagedFilesGiveErrorsNeverSignals) {
  const std::string dir = temp_dir();
  const std::vector<Game> all = games();
  // The river game uncompressed; the flop game with entropy-coded arenas, and
  // again with its turns forgotten: street records and kept strategies.
  const std::pair<const Game*, std::string> made[3] = {
      {&all[0], "set_compression 0\nbuild_tree\nlock_node r:0:c\ngo 3 steps\n"},
      {&all[2], "set_compression 4\nbuild_tree\nlock_node r:0:c\ngo 3 steps\n"},
      {&all[2], "set_compression 4\nbuild_tree\ngo 3 steps\nwait_for_solver\nforget turns\n"}};
  std::vector<std::string> sources;
  for (const auto& [g, steps] : made) {
    std::string name = dir + "/good" + std::to_string(sources.size()) + ".tree";
    ASSERT_EQ(run_binary({}, g->setup + steps + "wait_for_solver\nadd_info_line first\nadd_info_line second\n"
                                                "dump_tree " + name + "\n").rc, 0);
    sources.push_back(read_file(name));
  }
  const unsigned seed = 20261124;
  std::mt19937 rng(seed);
  int cases = 0;
  const std::string invalid = "ERROR: load_tree invalid file";
  // Random cases per source: a flop file takes a costly build per load.
  const int randoms[3] = {60, 20, 10};
  for (size_t k = 0; k < sources.size(); k++) {
    const std::string& good = sources[k];
    const int n = randoms[k];
    const Schematic s = schematic_of(good);
    const size_t head = 4 + 4 + 1 + 1 + 1 + 9 + 24 + 24 + 2 * 1326 * 8;
    const size_t state = head + s.bytes.size();
    std::vector<DamagedFile> files;
    // Every field boundary of the head, the state and the iteration; the
    // last sections (the end of the stored data, the info lines) byte by
    // byte; then random places in the data.
    std::vector<size_t> cuts{0, 3, 4, 8, 9, 10, 11, 20, 28, 36, 44, 68, 68 + 10608, head, head + 44, state,
                             state + 4, state + 8, state + 12, state + 60, state + 64, state + 68};
    for (size_t back = 1; back <= 48; back++) cuts.push_back(good.size() - back);
    for (int percent = 85; percent < 100; percent++) cuts.push_back(good.size() * size_t(percent) / 100);
    for (int i = 0; i < n / 2; i++) cuts.push_back(state + rng() % (good.size() - state));
    for (size_t c : cuts) files.push_back({good.substr(0, c), CUT, ""});
    // Fields whose value no file holds: the whole file is there, the
    // contents are wrong.
    const uint64_t four_cards = 0xfull;
    const double nan = std::nan("");
    for (const std::string& f :
         {with<char>(good, 3, '7'), with<int32_t>(good, 4, -1), with<uint8_t>(good, 9, 5), with<uint8_t>(good, 10, 3),
          with<uint64_t>(good, 20, four_cards), with<double>(good, 44 + 16, nan), with<double>(good, 68 + 8 * 700, nan),
          with<int32_t>(good, head, 2), with<int32_t>(good, head + 4, 4), with<int32_t>(good, head + 40, -1),
          with<int32_t>(good, state + 4, 7), with<int32_t>(good, state + 60, 6), with<int32_t>(good, state + 64, -1)})
      files.push_back({f, FIELD, invalid});
    files.push_back(
        {with<int32_t>(good, 4, 10), FIELD, "ERROR: load_tree unsupported data format, update to latest version"});
    for (int i = 0; i < 2 * n; i++) {  // flipped bytes
      std::string f = good;
      int flips = 1 + int(rng() % 4);
      for (int j = 0; j < flips; j++) f[rng() % f.size()] ^= char(1 + rng() % 255);
      files.push_back({f, RANDOM, ""});
    }
    for (int i = 0; i < n; i++) {  // huge or negative lengths anywhere after the ranges
      std::string f = good;
      size_t at = head + rng() % (f.size() - head - 8);
      uint64_t v = i % 3 == 0 ? 0x7fffffffu : i % 3 == 1 ? 0xffffffffu : 0x7fffffffffffffffull;
      memcpy(&f[at], &v, i % 3 == 2 ? 8 : 4);
      files.push_back({f, RANDOM, ""});
    }
    // One process per batch; a damaged compressed block may end it cleanly
    // with "fse error", after which the next batch starts.
    size_t next = 0;
    while (next < files.size()) {
      std::string script;
      for (size_t i = next; i < files.size(); i++) {
        std::string name = dir + "/bad" + std::to_string(i) + ".tree";
        write_file(name, files[i].bytes);
        script += "echo case" + std::to_string(i) + "\nload_tree " + name +
                  "\ncalc_results\nshow_strategy r:0:c\nshow_locked_combos r:0:c\n";
      }
      std::string out = dir + "/fuzz.out";
      int rc = run_limited(script, out, 300);
      std::string text = "\n" + read_file(out);
      size_t last = text.rfind("\ncase");
      ASSERT_NE(last, std::string::npos);
      size_t reached = std::stoul(text.substr(last + 5));  // "\ncase" and the number
      ASSERT_TRUE(rc == 0 || (rc == 1 && text.find("fse error\n", last) != std::string::npos))
          << "seed " << seed << " source " << k << " case " << reached << " exit " << rc;
      for (size_t i = next; i <= reached && i < files.size(); i++) {
        const std::string name = dir + "/bad" + std::to_string(i) + ".tree";
        const std::string read_error = "ERROR: load_tree can't read from file (" + name + ")";
        std::string answer = between(text, "\ncase" + std::to_string(i) + "\n", "\n");
        const DamagedFile& f = files[i];
        if (f.damage == CUT) {
          EXPECT_EQ(answer, read_error) << "source " << k << " cut at " << f.bytes.size() << " of " << good.size();
        } else if (f.damage == FIELD) {
          EXPECT_EQ(answer, f.answer) << "source " << k << " case " << i;
        } else {
          // A damaged length may run past the end of the file.
          EXPECT_TRUE(answer == "load_tree ok!" || answer == invalid || answer == read_error ||
                      answer == "fse error" || answer == "ERROR: incompatible data" ||
                      answer.rfind("ERROR: load_tree corrupt ", 0) == 0 ||
                      answer == "ERROR: load_tree unsupported data format, update to latest version")
              << "seed " << seed << " source " << k << " case " << i << ": " << answer;
        }
        unlink(name.c_str());
      }
      cases += int(reached - next + 1);
      next = reached + 1;
      if (rc == 0) break;
    }
  }
  EXPECT_GE(cases, 550);
  // The largest process of all stayed far below what a trusted length field
  // could have asked for.
  struct rusage usage;
  getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss, 1536L * 1024) << "KiB";
}

TEST(TreeFile, KilledWriterLeavesTheOldFile) {
  const std::string dir = temp_dir() + "/kill";
  mkdir(dir.c_str(), 0700);
  const std::string target = dir + "/kept.tree";
  // A large flop game, so that the writer is still at work when it dies.
  const Game g = games()[2];
  std::string setup = range_line("OOP", "1") + "\n" + range_line("IP", "1") + "\n" +
                      g.setup.substr(g.setup.find("set_isomorphism"));
  ASSERT_EQ(run_binary({}, setup + "build_tree\ndump_tree " + target + "\n").rc, 0);
  const std::string old = read_file(target);
  ASSERT_GT(old.size(), 10u << 20);
  int killed_mid_write = 0;
  for (int delay_ms : {0, 5, 20}) {
    std::string in = temp_dir() + "/kill.in";
    write_file(in, setup + "build_tree\nlock_node r:0:c\ndump_tree " + target + "\n");
    pid_t pid = fork();
    if (pid == 0) {
      if (!freopen(in.c_str(), "r", stdin) || !freopen("/dev/null", "w", stdout)) _exit(126);
      execl(CORVANTA_BIN, CORVANTA_BIN, (char*)nullptr);
      _exit(127);
    }
    // The moment the temporary file appears, the writer is at work.
    auto start = std::chrono::steady_clock::now();
    while (!temp_file_exists(dir, "kept.tree") && std::chrono::steady_clock::now() - start < std::chrono::seconds(60))
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    kill(pid, SIGKILL);
    int status;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    // Either the old file, whole, or the complete new one.
    std::string now = read_file(target);
    if (now == old) killed_mid_write++;
    RunResult r = run_binary({}, "load_tree " + target + "\nis_tree_present\n");
    EXPECT_EQ(r.out, "load_tree ok!\ntrue\n");
    std::string clean = "rm -f " + shell_quote(dir) + "/.kept.tree.*";
    ASSERT_EQ(std::system(clean.c_str()), 0);
  }
  EXPECT_GE(killed_mid_write, 1);
  unlink(target.c_str());
}

}  // namespace
