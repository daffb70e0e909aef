// The answer protocol through the real binary: exact output and exit codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "run_binary.h"

static const char* const Banner =
    "Corvanta (nalvedrin) build 1050 (Feb 20 2020, 10:29:56) \n";

TEST(Startup, BannerAndEmptyInput) {
  RunResult r = run_binary({}, "");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.banner.substr(0, strlen(Banner)), Banner);
  EXPECT_EQ(r.out, "");
}

TEST(Startup, VerboseLine) {
  RunResult r = run_binary({"-v"}, "", 3);
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.banner.find("\n[verbosity 1]\n"), std::string::npos);
}

TEST(Startup, BadOptionLineExitsOne) {
  EXPECT_EQ(run_binary({"--port", "abc"}, "").rc, 1);
  EXPECT_EQ(run_binary({"--no-such-option"}, "").rc, 1);
}

TEST(Startup, VersionAndHelp) {
  RunResult v = run_binary({"--version"}, "", 0);
  EXPECT_EQ(v.rc, 0);
  EXPECT_NE(v.out.find("1050"), std::string::npos);
  RunResult h = run_binary({"--help"}, "", 0);
  EXPECT_EQ(h.rc, 0);
  EXPECT_NE(h.out.find("terminate process on error"), std::string::npos);
  EXPECT_NE(h.out.find("suppress ok-messages"), std::string::npos);
}

// Exact answers and exit codes of the loop, its options and scripts.
TEST(Loop, ExactAnswersAndExitCodes) {
  std::string dir = temp_dir();
  write_file(dir + "/my script.txt", "is_ready\necho from-script\n");
  write_file(dir + "/done_marker", "x");
  write_file(dir + "/comments.txt", "# one\n#two\n\n");
  write_file(dir + "/exit.txt", "echo one\nexit\necho two\n");
  write_file(dir + "/skipper.txt", "skip_if_done " + dir + "/skipper.txt LATER\necho hidden\n");
  struct Case {
    std::vector<std::string> args;
    std::string input;
    int rc;
    std::string out;
  };
  const Case cases[] = {
      {{"--port", "6000", "-s", "-e"}, "is_ready\n", 0, "is_ready ok!\n"},
      // Commands of the command line answer together, before standard input.
      {{"-c", "set_pot 0 0 100", "-c", "echo \"two words\""}, "is_ready\n", 0,
       "set_pot ok!\ntwo words\nis_ready ok!\n"},
      {{"/nonexistent/script.txt"}, "is_ready\n", 1, "ERROR: can't find file '/nonexistent/script.txt'\n"},
      {{dir}, "is_ready\n", 1, "ERROR: can't find file '" + dir + "'\n"},
      // A script named with a blank, then standard input.
      {{dir + "/my script.txt"}, "echo from-stdin\n", 0, "is_ready ok!\nfrom-script\nfrom-stdin\n"},
      {{dir + "/comments.txt"}, "", 0, ""},
      {{dir + "/exit.txt"}, "echo three\n", 0, "one\n"},
      // A skip runs on from the script into standard input.
      {{dir + "/skipper.txt"}, "echo hidden2\nLABEL: LATER\necho shown\n", 0, "skip_if_done ok!\nshown\n"},
      {{}, "is_ready\recho a\r\necho b\n\n\r\necho c", 0, "is_ready ok!\na\nb\nc\n"},
      {{}, "is_ready\n\"exit\"\nis_ready\n", 0, "is_ready ok!\n"},
      // exit inside a skip is ignored.
      {{}, "skip_if_done " + dir + "/done_marker NEXT\nexit\necho skipped\nLABEL: NEXT\necho after\n", 0,
       "skip_if_done ok!\nafter\n"},
      {{"-k"}, "set_pot 0 0 100\nset_pot 1\nrepeat 1 x\n", 0, "ERROR: set_pot incorrect or missing argument\nx\nEND\n"},
      // Terminate on error ends after the message.
      {{"-t"}, "is_ready\nset_pot 1\nis_ready\n", 1, "is_ready ok!\nERROR: set_pot incorrect or missing argument\n"},
      {{"-t"}, "nosuch\nis_ready\n", 1, "ERROR: Command nosuch not recognized\n"},
      {{"--terminateonerror"}, "set_threads zz\nis_ready\n", 1, "ERROR: Invalid value\n"},
      {{"-t"}, "set_board Qs QsQs 2c\nis_ready\n", 1, "ERROR: invalid card\n"},
      // Echoed commands show their tokens without quotes.
      {{"-o"}, "echo \"a b\"\n# note\n", 0, "echo a b\na b\n# note\n"},
      // Errors leave the loop running.
      {{},
       "set_pot 0 0 100\n"
       "set_pot 1 2\n"
       "foo bar\n"
       "LABEL:\n"
       "LABEL: x\n"
       "# a comment\n"
       "#another\n"
       "set_threads x\n"
       "set_threads 3x\n"
       "set_threads 99999999999\n"
       "   \n"
       "set_board Qs Jh 2h Qs\n"
       "set_board Qs Jh 2x\n"
       "go\n",
       0,
       "set_pot ok!\n"
       "ERROR: set_pot incorrect or missing argument\n"
       "ERROR: Command foo not recognized\n"
       "ERROR: Command LABEL: not recognized\n"
       "ERROR: Invalid value\n"
       "set_threads ok!\n"
       "ERROR: Invalid value\n"
       "ERROR: set_board duplicate cards\n"
       "ERROR: invalid card\n"
       "ERROR: go missing/incorrect tree\n"},
      {{},
       "repeat 2 a b\n"
       "repeat 0 x\n"
       "repeat 100000 x\n"
       "repeat 3\n"
       "repeat 1 100% %s %d\n"
       "echo 50%\n"
       "echo\n"
       "repeat 2 go\n",
       0,
       "a b\na b\nEND\n"
       "ERROR: repeat incorrect or missing argument\n"
       "ERROR: repeat incorrect or missing argument\n"
       "ERROR: repeat incorrect or missing argument\n"
       "100% %s %d\nEND\n"
       "50%\n"
       "ERROR: echo incorrect or missing argument\n"
       "go\ngo\nEND\n"},
      {{},
       "add_info_line \"#first 100%\"\n"
       "add_info_line a b\n"
       "add_info_line second\n"
       "show_tree_info\n"
       "reset_tree_info\n"
       "show_tree_info\n",
       0,
       "add_info_line ok!\n"
       "ERROR: add_info_line incorrect or missing argument\n"
       "add_info_line ok!\n"
       "#first 100%\nsecond\nEND\n"
       "reset_tree_info ok!\n"
       "END\n"},
      {{},
       "ignore_mem_check on\n"
       "ignore_mem_check maybe\n"
       "sleep 1\n"
       "take_a_break 0\n"
       "connect 127.0.0.1 5251\n"
       "disconnect\n"
       "set_eff_stack 500\n"
       "set_eff_stack 0\n"
       "is_tree_present_x\n",
       0,
       "ignore_mem_check ok!\n"
       "ERROR: ignore_mem_check incorrect or missing argument\n"
       "take_a_break ok!\n"
       "connect ok!\n"
       "disconnect ok!\n"
       "set_eff_stack ok!\n"
       "set_eff_stack ok!\n"
       "ERROR: Command is_tree_present_x not recognized\n"},
      {{},
       "set_precision 2.5\nset_precision -2\nset_precision x\n"
       "set_simd_level 0\nset_simd_level 9\nset_simd_level 8\n"
       "enable_avx512 2\nenable_avx512 x\nenable_avx512 1\n"
       "enable_river_strategy 01\nenable_adaptive_precision 0\n"
       "set_scheduler 3\nset_scheduler 2\n"
       "set_rake 1.5 10\nset_rake 0.05 -1\nset_rake 0.05 3\n"
       "set_isomorphism 0 1\nset_isomorphism 1\n"
       "set_recalc_accuracy 0.1 0.2 0.3\nset_recalc_accuracy a b c\n"
       "set_threads 0\nai6_set_threads 2\n"
       "set_hand_type_order a\n",
       0,
       "ERROR: set_precision incorrect or missing argument\nset_precision ok!\nERROR: Invalid value\n"
       "ERROR: set_simd_level incorrect or missing argument\n"
       "ERROR: set_simd_level incorrect or missing argument\nset_simd_level ok!\n"
       "ERROR: enable_avx512 incorrect or missing argument\n"
       "ERROR: enable_avx512 incorrect or missing argument\nenable_avx512 ok!\n"
       "ERROR: enable_river_strategy incorrect or missing argument\nenable_adaptive_precision ok!\n"
       "ERROR: set_scheduler incorrect or missing argument\nset_scheduler ok!\n"
       "ERROR: set_rake incorrect or missing argument\n"
       "ERROR: set_rake incorrect or missing argument\nset_rake ok!\n"
       "set_isomorphism ok!\nERROR: set_isomorphism incorrect or missing argument\n"
       "set_recalc_accuracy ok!\nERROR: Invalid value\n"
       "set_threads ok!\nai6_set_threads ok!\n"
       "ERROR: set_hand_type_order incorrect or missing argument\n"},
  };
  for (const Case& c : cases) {
    RunResult r = run_binary(c.args, c.input);
    EXPECT_EQ(r.rc, c.rc) << c.input;
    EXPECT_EQ(r.out, c.out) << c.input;
  }
}

TEST(Utility, RepeatUpperBoundPasses) {
  RunResult r = run_binary({}, "repeat 99999 x\n");
  EXPECT_EQ(r.out.size(), 99999u * 2 + 4);
}

TEST(Utility, HelpListsSortedNamesWithoutPrefixedRows) {
  RunResult r = run_binary({}, "help\n");
  std::vector<std::string> lines;
  std::stringstream s(r.out);
  for (std::string l; std::getline(s, l);) lines.push_back(l);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "END");
  lines.pop_back();
  EXPECT_EQ(lines.size(), 94u - 4u);  // four rows carry the ai6_ prefix
  EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end()));
  EXPECT_EQ(lines.front(), "add_info_line");
  for (const auto& l : lines) EXPECT_NE(l.rfind("ai6_", 0), 0u) << l;
}

TEST(Utility, SolverTimeAndInstructionSet) {
  RunResult r = run_binary({}, "solver_time\nget_instruction_set\nai6_get_instruction_set\n");
  std::stringstream s(r.out);
  std::string t, a, b;
  std::getline(s, t);
  std::getline(s, a);
  std::getline(s, b);
  double secs = std::stod(t);
  EXPECT_GE(secs, 0.0);
  EXPECT_LT(secs, 60.0);
  EXPECT_NE(t.find('.'), std::string::npos);
  EXPECT_TRUE(a == "AVX2" || a == "AVX" || a == "SSE3") << a;
  EXPECT_EQ(a, b);
}

TEST(Utility, CpuInfo) {
  RunResult r = run_binary({}, "show_cpu_info\n");
  std::vector<std::string> lines;
  std::stringstream s(r.out);
  for (std::string l; std::getline(s, l);) lines.push_back(l);
  ASSERT_EQ(lines.size(), 2u + 51u + 1u);
  EXPECT_EQ(lines[2], "3DNOW        " + lines[2].substr(13));
  EXPECT_EQ(lines[2 + 5].substr(0, 13), "AVX          ");
  EXPECT_EQ(lines[2 + 5].substr(13), "[x]");  // the binary only runs with AVX
  EXPECT_EQ(lines.back(), "END");
}

TEST(Scripts, NestingLabelsAndErrorsDoNotEndAScript) {
  std::string dir = temp_dir();
  write_file(dir + "/inner.txt", "echo inner\r\nset_pot 1\r\necho inner-after\r\n");
  write_file(dir + "/outer.txt",
             "# only a comment\n"
             "echo outer\n"
             "load_script inner.txt\n"
             "skip_if_done outer.txt SKIP\n"
             "echo skipped\n"
             "LABEL: SKIP\n"
             "skip_if_done missing.txt SKIP2\n"
             "echo not-skipped\n"
             "load_script nosuch.txt\n"
             "echo end\n");
  RunResult r = run_binary({}, "load_script outer.txt\n", 2, dir);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out,
            "outer\ninner\nERROR: set_pot incorrect or missing argument\ninner-after\n"
            "skip_if_done ok!\n"
            "skip_if_done ok!\nnot-skipped\n"
            "ERROR: load_script can't open file\n"
            "end\n");
}

TEST(Redirection, AnswersFollowStandardOutput) {
  std::string dir = temp_dir();
  RunResult r = run_binary({},
                           "stdoutredi out.txt\n"
                           "repeat 1 inside\n"
                           "stdoutback\n"
                           "echo console\n"
                           "stdoutredi_append out.txt\n"
                           "echo appended\n"
                           "stdoutback\n",
                           2, dir);
  EXPECT_EQ(r.out, "stdoutback ok!\nconsole\nstdoutback ok!\n");
  EXPECT_EQ(read_file(dir + "/out.txt"),
            "stdoutredi ok!\ninside\nEND\nstdoutredi_append ok!\nappended\n");
}

TEST(SetUp, RangeBoardPotAccuracy) {
  std::string input = range_line("IP", "0.000001") + "\n" + range_line("hero", "x") + "\n" +
                      range_line("nobody", "1") + "\n" + "set_range OOP 1 2 3\n" +
                      "set_board qs jh 2h\n"
                      "set_board QsJh2h 2c 3c\n"
                      "set_board Qs Jh 2h 3c 4c\n"
                      "set_board Qs Jh\n"
                      "set_board Qs Jh 2h 3c 4c 5c\n"
                      "set_pot 0 0 200\n"
                      "set_accuracy 0.01 fraction\n"
                      "set_pot 0 0 400\n"
                      "set_accuracy 3\n"
                      "set_accuracy -1\n"
                      "set_accuracy\n"
                      "show_effective_stack\n";
  RunResult r = run_binary({"-v"}, input, 3);
  EXPECT_EQ(r.out,
            "[set_range min 0 max 0 nonzero 0 rtz 1326]\nset_range ok!\n"
            "ERROR: Invalid value\n"
            "ERROR: set_range incorrect player name\n"
            "ERROR: set_range incorrect or missing argument\n"
            "set_board ok!\n"
            "ERROR: set_board incorrect or missing argument\n"
            "set_board ok!\n"
            "ERROR: set_board incorrect or missing argument\n"
            "ERROR: set_board incorrect or missing argument\n"
            "[accuracy 0 (0 fraction)]\nset_pot ok!\n"
            "[accuracy 2 (0.01 fraction)]\nset_accuracy ok!\n"
            "[accuracy 4 (0.01 fraction)]\nset_pot ok!\n"
            "[accuracy 3 (0.0075 fraction)]\nset_accuracy ok!\n"
            "ERROR: set_accuracy incorrect or missing argument\n"
            "ERROR: set_accuracy incorrect or missing argument\n"
            "ERROR: show_effective_stack missing/incorrect tree\n");
}

TEST(SetUp, RangeStatisticsAndLowCard) {
  // HandIndex 0 is 2d2c; with the ranks below six out, every pair holding one
  // of them drops to zero without counting as rounded.
  std::string line = "set_range OOP";
  for (int i = 0; i < 1326; i++) line += i == 0 ? " 2.5" : i == 1325 ? " -1" : " 0.5";
  RunResult r = run_binary({"-v"}, line + "\nset_low_card 6\n" + line + "\nset_low_card 7\nset_low_card 1\n" +
                                       "set_board 5c 7d 8h\nset_board 6c 7d 8h\n",
                           3);
  EXPECT_EQ(r.out,
            "[set_range min -1 max 2.5 nonzero 1325 rtz 0]\nset_range ok!\n"
            "set_low_card ok!\n"
            "[set_range min -1 max 0.5 nonzero 629 rtz 0]\nset_range ok!\n"
            "ERROR: set_low_card incorrect or missing argument\n"
            "ERROR: set_low_card incorrect or missing argument\n"
            "ERROR: set_board invalid card\n"
            "set_board ok!\n");
}

TEST(SetUp, HandOrder) {
  RunResult r = run_binary({"-k"}, "show_hand_order\n");
  ASSERT_EQ(r.out.size(), 6629u + 1u);
  EXPECT_EQ(r.out.substr(0, 15), "2d2c 2h2c 2h2d ");
  EXPECT_EQ(r.out.substr(6629 - 4), "AsAh\n");
}
