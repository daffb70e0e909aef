// The command loop in process: tokens, dispatch order, the banned-process
// gate, and a seeded random-line run over the whole table.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

#include "shell/shell.h"
#include "shell_support.h"
#include "solver/solver.h"
#include "tree/tree.h"

namespace {

struct LoopTest : ::testing::Test {
  static void SetUpTestSuite() {
    build_rank_tables();
    build_card_tables();
  }
  void SetUp() override {
    reset_game_state();
    OutputBuffer.clear();
  }
  void TearDown() override { OutputBuffer.clear(); }
};

}  // namespace

TEST(Tokens, QuotesBlanksAndEmptyTokens) {
  EXPECT_EQ(tokenize_line("a\"b c\"d"), (Tokens{"ab c", "d"}));
  EXPECT_EQ(tokenize_line("  x   y  "), (Tokens{"x", "y"}));
  EXPECT_EQ(tokenize_line("\"\""), Tokens{});
  EXPECT_EQ(tokenize_line("a\tb c"), (Tokens{"a\tb", "c"}));
  EXPECT_EQ(tokenize_line("\"unclosed quote"), (Tokens{"unclosed quote"}));
  EXPECT_EQ(tokenize_line("say \"\" it"), (Tokens{"say", "it"}));
  EXPECT_EQ(tokenize_line(""), Tokens{});
}

TEST(Tokens, JoinClipsTheRange) {
  Tokens t{"a", "b", "c"};
  EXPECT_EQ(join_tokens(t, 0, 3), "a b c");
  EXPECT_EQ(join_tokens(t, 1, 99), "b c");
  EXPECT_EQ(join_tokens(t, 2, 2), "");
  EXPECT_EQ(join_tokens(t, 3, 5), "");
}

TEST(Table, UniqueRowsFoundByExactName) {
  std::set<std::string> names;
  for (const CommandEntry& e : CommandTable) names.insert(e.name);
  EXPECT_EQ(names.size(), size_t(CommandCount));
  const std::pair<const char*, int> counts[] = {
      {"set_range", 1328}, {"combo_lock_node", 1328}, {"set_strategy", 1329}, {"set_hand_type_order", 10}, {"go", -1}};
  for (auto [name, count] : counts) EXPECT_EQ(find_command(name)->arg_count, count) << name;
  EXPECT_EQ(find_command("set_threads")->handler, find_command("ai6_set_threads")->handler);
  EXPECT_EQ(find_command("Set_range"), nullptr);
}

TEST_F(LoopTest, CountErrorLeavesCurrentCommand) {
  run("is_ready");
  EXPECT_EQ(CurrentCommand, "is_ready");
  EXPECT_EQ(run("set_pot 1 2"), "ERROR: set_pot incorrect or missing argument\n");
  EXPECT_EQ(CurrentCommand, "is_ready");
}

TEST_F(LoopTest, BannedProcessBlocksEveryLine) {
  std::string found;
  EXPECT_TRUE(banned_process_check({"bash", "PokerStarsUpdate.exe"}, found));
  EXPECT_EQ(found, "PokerStarsUpdate.exe");
  EXPECT_FALSE(banned_process_check({"pokerstars.exe", "FullTilt"}, found));
  EXPECT_EQ(found, "");
  BannedProcessRunning = true;
  EXPECT_EQ(run("exit"), "ERROR: banned process running: \n");
  EXPECT_EQ(run("LABEL: x"), "ERROR: banned process running: \n");
  BannedProcessRunning = false;
  EXPECT_EQ(run("is_ready"), "is_ready ok!\n");
}

TEST_F(LoopTest, SkipSwallowsUntilItsLabel) {
  SkipLabel = "L1";
  EXPECT_EQ(run("is_ready"), "");
  EXPECT_EQ(run("nosuch"), "");
  EXPECT_EQ(run("LABEL: other"), "");
  EXPECT_EQ(SkipLabel, "L1");
  EXPECT_EQ(run("LABEL: L1 trailing"), "");
  EXPECT_EQ(SkipLabel, "");
  EXPECT_EQ(run("is_ready"), "is_ready ok!\n");
}

TEST_F(LoopTest, CommentMessagesStayOutUnlessAsked) {
  shell_print("#side %d\n", 1);
  shell_print("main\n");
  EXPECT_EQ(OutputBuffer, "main\n");
  OutputBuffer.clear();
  RawInfoOutput = true;
  shell_print("#side %d\n", 2);
  EXPECT_EQ(OutputBuffer, "#side 2\n");
  RawInfoOutput = false;
}

TEST_F(LoopTest, FailuresCarryTheWholeMessage) {
  CurrentCommand = "build_tree";
  try {
    fail_command("ranges not set");
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "ERROR: build_tree ranges not set\n");
  }
  try {
    fail_command(std::string(400, 'x'));
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(strlen(e.what()), 255u);  // cut at the 256-byte area
  }
}

TEST_F(LoopTest, RangeConsistencyTest) {
  BoardFlop = parse_cards("Qs Jh 2h");
  Ranges[0].assign(HandCount, 1.0);
  Ranges[1].assign(HandCount, 0.5);
  CurrentCommand = "build_tree";
  EXPECT_NO_THROW(check_range_consistency());
  // AsKs against the other suited ace-kings: the first live pair of the
  // bucket is the reference.
  Ranges[1][PairIndexOf(MakeCard(12, 3), MakeCard(11, 3))] = 0.25;
  try {
    check_range_consistency();
    FAIL();
  } catch (const std::runtime_error& e) {
    std::string m = e.what();
    EXPECT_EQ(m.rfind("ERROR: build_tree inconsistent range: IP P(", 0), 0u) << m;
    EXPECT_NE(m.find("== 0.25, use 'set_isomorphism 0 0' if intended\n"), std::string::npos) << m;
  }
  // A negative reference is passed over.
  Ranges[1].assign(HandCount, 0.5);
  for (uint16_t p : ShapeBuckets[12 * 13 + 12]) {
    Ranges[1][p] = -1;
    break;
  }
  EXPECT_NO_THROW(check_range_consistency());
}

// Random lines over the whole table: nothing crashes or hangs, every error
// line starts with "ERROR: ".
TEST_F(LoopTest, SeededRandomLines) {
  std::mt19937 rng(20261122);
  const char* avoid[] = {"sleep", "take_a_break", "stdoutredi", "stdoutredi_append", "stdoutback",
                         "show_cpu_info", "load_script", "wait_for_solver", "go"};
  std::vector<std::string> words;
  for (const CommandEntry& e : CommandTable) {
    bool skip = false;
    for (const char* a : avoid) skip |= std::string(a) == e.name;
    if (!skip) words.push_back(e.name);
  }
  const std::vector<std::string> pieces = {
      "0", "1", "-1", "2", "7", "100", "99999999999999999999", "1e400", "-1e-400", "nan", "inf", "0x10",
      "AsKd", "Qs", "Jh", "2h", "AsAs", "10s", "r:0", "r:0:c", "OOP", "IP", "hero", "villain", "fraction",
      "\"", "\"a b\"", "#", "%s%n%d", "LABEL:", "on", "off", "", "x", "3x", "-", "+", ".", "1.5", "\xa7",
      "\xff\xfe", "c", "f", "b", "2.5", "highcard", "pair", "flush"};
  for (int i = 0; i < 20000; i++) {
    std::string line = words[rng() % words.size()];
    int n = int(rng() % 12);
    if (rng() % 50 == 0) n = 1325 + int(rng() % 5);  // near the range-sized counts
    for (int k = 0; k < n; k++) {
      line += ' ';
      if (rng() % 8 == 0) {
        int len = int(rng() % 6);
        for (int c = 0; c < len; c++) line += char(32 + rng() % 95);
      } else {
        line += pieces[rng() % pieces.size()];
      }
    }
    std::string out = run(line);
    size_t start = 0;
    while (start < out.size()) {
      size_t end = out.find('\n', start);
      if (end == std::string::npos) end = out.size();
      std::string l = out.substr(start, end - start);
      if (l.rfind("ERROR", 0) == 0) {
        ASSERT_EQ(l.rfind("ERROR: ", 0), 0u) << line;
      }
      start = end + 1;
    }
    SkipLabel.clear();
    SuppressOk = false;
  }
  reset_game_state();
}
