// Building a game and walking it by node paths, through the real binary.
#include <gtest/gtest.h>

#include <algorithm>

#include "run_binary.h"

namespace {

std::string game(const std::string& board, const std::vector<std::string>& lines) {
  std::string s = range_line("OOP", "1") + "\n" + range_line("IP", "0.5") + "\n";
  s += "set_board " + board + "\nset_pot 0 0 100\n";
  for (const std::string& l : lines) s += "add_line " + l + "\n";
  return s;
}

std::string run_k(const std::string& input) { return run_binary({"-k"}, input).out; }

}  // namespace

TEST(BuildTree, ChecksInOrder) {
  EXPECT_EQ(run_k("build_tree\n"), "ERROR: build_tree ranges not set\n");
  EXPECT_EQ(run_k(range_line("OOP", "1") + "\nbuild_tree\n"), "ERROR: build_tree ranges not set\n");
  EXPECT_EQ(run_k(range_line("OOP", "1") + "\n" + range_line("IP", "1") + "\nbuild_tree\n"),
            "ERROR: build_tree board not set\n");
  EXPECT_EQ(run_k(game("Qs Jh 2h", {}) + "build_tree\nis_tree_present\n"),
            "ERROR: build_tree lines not set\nfalse\n");
  // Seven checks on the flop make a decision on a fourth street.
  EXPECT_EQ(run_k(game("Qs Jh 2h", {"0 0 0 0 0 0 0"}) + "build_tree\nis_tree_present\n"),
            "ERROR: build_tree invalid line\nfalse\n");
  // On the river two checks are the whole street.
  EXPECT_EQ(run_k(game("Qs Jh 2h 7c 3d", {"0 0 0"}) + "build_tree\n"), "ERROR: build_tree invalid line\n");
}

TEST(BuildTree, InconsistentRangeNamesThePairs) {
  std::string ip = "set_range IP";
  for (int i = 0; i < 1326; i++) ip += i == 1322 ? " 0.25" : " 1";  // AsKs
  std::string in = range_line("OOP", "1") + "\n" + ip + "\nset_board Qd Jh 2h\nadd_line 0 0\nbuild_tree\n" +
                   "set_isomorphism 0 0\nbuild_tree\nis_tree_present\n";
  EXPECT_EQ(run_k(in),
            "ERROR: build_tree inconsistent range: IP P(Ac Kc) == 1, P(As Ks) == 0.25, use 'set_isomorphism 0 0' "
            "if intended\n"
            "true\n");
}

TEST(BuildTree, VerboseCompressionLineAndLevels) {
  std::string in = game("Qs Jh 2h 7c", {"50 50"}) + "set_compression max\nbuild_tree\nget_actual_compression\n" +
                   "set_compression 7\nget_actual_compression\nai6_set_compression -3\n" +
                   "ai6_get_actual_compression\nset_compression x\nset_compression 99999999999\n";
  RunResult r = run_binary({"-v", "-k"}, in, 3);
  std::string out = r.out;
  EXPECT_NE(out.find("[compression set 4 (max) actual 4 (max)]\ncompression 4\ncompression 5\n"),
            std::string::npos)
      << out;
  // auto on a small tree: the uncompressed size fits any machine.
  EXPECT_NE(out.find("[uncompressed storage 0 MB]\ncompression 0\nERROR: Invalid value\nERROR: Invalid value\n"),
            std::string::npos)
      << out;
}

TEST(Paths, FlopGameNodesAndChildren) {
  std::string in = game("Qs Jh 2h", {"30 90 90", "0 0", "0 0 20"}) +
                   "build_tree\n"
                   "show_node r\n"
                   "show_children r\n"
                   "show_children r:0:b30\n"
                   "show_node r:0:c:c\n"
                   "show_node r:0:c:c:Ah\n"
                   "show_node r:0:b30:c:Ah\n";
  EXPECT_EQ(run_k(in),
            "r\nROOT\n2h Jh Qs\n0 0 100\n1 children\nflags: ISOMORPHISM_ON NEW_TREE\nEND\n"
            "child 0:\nr:0\nOOP_DEC\n2h Jh Qs\n0 0 100\n2 children\nflags: \nEND\n"
            "child 0:\nr:0:b30:b90\nOOP_DEC\n2h Jh Qs\n30 90 100\n2 children\nflags: \n"
            // The automatic call stays on its street: a showdown, not a split.
            "child 1:\nr:0:b30:c\nEND_NODE\n2h Jh Qs\n30 30 100\n0 children\nflags: \n"
            "child 2:\nr:0:b30:f\nEND_NODE\n2h Jh Qs\n30 0 100\n0 children\nflags: \nEND\n"
            "r:0:c:c\nSPLIT_NODE\n2h Jh Qs\n0 0 100\n49 children\nflags:\nEND\n"
            "r:0:c:c:Ah\nOOP_DEC\n2h Jh Qs Ah\n0 0 100\n1 children\nflags: \nEND\n"
            "ERROR: show_node incorrect path\n");
}

TEST(Paths, SplitChildrenInCardOrder) {
  std::string in = game("Qs Jh 2h 7c", {"0 0 0 0"}) + "build_tree\nshow_children r:0:c:c\n";
  std::string out = run_k(in);
  // A turn game's split leads to the river: 52 - 4 cards, aces first, spades first.
  EXPECT_EQ(out.rfind("child 0:\nr:0:c:c:As\nOOP_DEC\n2h Jh Qs 7c As\n0 0 100\n1 children\n", 0), 0u) << out;
  EXPECT_NE(out.find("child 1:\nr:0:c:c:Ah\n"), std::string::npos);
  EXPECT_NE(out.find("child 47:\nr:0:c:c:2c\n"), std::string::npos);
  EXPECT_EQ(out.find("child 48:"), std::string::npos);
  EXPECT_EQ(out.find(":Qs\n"), std::string::npos);
  EXPECT_EQ(out.find(":7c\n"), std::string::npos);
  EXPECT_EQ(run_k(game("Qs Jh 2h 7c", {"0 0 0 0"}) + "build_tree\nshow_node r:0:c:c\n").substr(0, 51),
            "r:0:c:c\nSPLIT_NODE\n2h Jh Qs 7c\n0 0 100\n48 children\n");
}

// Turn and river cards from both ends of the rank order, with the full deck
// and with a deck from six: the lowest rank in play is a card like any other,
// the one below it is out.
TEST(Paths, CardsAtBothEndsOfTheRankOrder) {
  auto block = [](const std::string& path, const std::string& board) {
    return path + "\nOOP_DEC\n" + board + "\n0 0 100\n1 children\nflags: \nEND\n";
  };
  const std::vector<std::string> checks{"0 0 0 0 0 0"};
  std::string full = game("Qs Jh 7h", checks) +
                     "build_tree\n"
                     "show_node r:0:c:c:2c:c:c:As\n"
                     "show_node r:0:c:c:As:c:c:2d\n"
                     "show_node r:0:c:c:2s:c:c:2c\n";
  EXPECT_EQ(run_k(full), block("r:0:c:c:2c:c:c:As", "7h Jh Qs 2c As") +
                             block("r:0:c:c:As:c:c:2d", "7h Jh Qs As 2d") +
                             block("r:0:c:c:2s:c:c:2c", "7h Jh Qs 2s 2c"));

  std::string six = "set_low_card 6\n" + game("Qs Jh 7h", checks) +
                    "build_tree\n"
                    "show_node r:0:c:c:6c:c:c:As\n"
                    "show_node r:0:c:c:As:c:c:6d\n"
                    "show_node r:0:c:c:5s\n"
                    "show_node r:0:c:c:As:c:c:5c\n"
                    "show_strategy r:0:c:c:6s:c:c:6c\n"
                    "show_children r:0:c:c\n";
  std::string out = run_k(six);
  std::string expected = block("r:0:c:c:6c:c:c:As", "7h Jh Qs 6c As") + block("r:0:c:c:As:c:c:6d", "7h Jh Qs As 6d") +
                         "ERROR: show_node incorrect path\nERROR: show_node incorrect path\n";
  ASSERT_EQ(out.substr(0, expected.size()), expected);
  // The strategy of a board of sixes: one row of 1326 for the one action,
  // which the hands in play take.
  std::istringstream rest(out.substr(expected.size()));
  std::string row, end;
  std::getline(rest, row);
  std::getline(rest, end);
  EXPECT_EQ(std::count(row.begin(), row.end(), ' '), 1325) << row.substr(0, 40);
  EXPECT_NE(row.find(" 1 "), std::string::npos);
  EXPECT_EQ(end, "END");
  // 36 cards less the flop's three: the sixes close the list.
  EXPECT_NE(out.find("child 32:\nr:0:c:c:6c\nOOP_DEC\n7h Jh Qs 6c\n"), std::string::npos);
  EXPECT_EQ(out.find("child 33:"), std::string::npos);
  EXPECT_EQ(out.find(":5"), std::string::npos);
}

TEST(Paths, Errors) {
  std::string in = "show_node r\n" + game("Qs Jh 2h", {"30 30", "0 0"}) +
                   "build_tree\n"
                   "show_node x:0\n"
                   "show_node r:1\n"
                   "show_node r:0:bx\n"
                   "show_node r:0:b31\n"
                   "show_node r:0::c\n"
                   "show_node r:0:c:c:Qs\n"
                   "show_node r:0:c:c:Ah:Kh\n"
                   "show_node r:0:Ah\n"
                   "show_node r:0:c:c:AhKh\n"
                   "show_node r:0:c:c:Ah:\n"
                   "show_node r:0:b30:f:c\n"
                   "set_ev_boost r:0:b30:f 0.5\n"
                   "set_ev_boost r:0 1.5\n"
                   "set_ev_boost r:0 -0.99\n"
                   "cut_line r:0\n"
                   "cut_line r\n"
                   "cut_line r:0:b30\n"
                   "show_children r:0\n"
                   "free_tree\n"
                   "cut_line r:0:c\n"
                   "show_children r\n";
  EXPECT_EQ(run_k(in),
            "ERROR: show_node missing/incorrect tree\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: Invalid value\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: show_node incorrect path\n"
            "r:0:c:c:Ah:\nEND_NODE\n2h Jh Qs Ah\n0 0 100\n0 children\nflags: \nEND\n"
            "ERROR: show_node incorrect path\n"
            "ERROR: set_ev_boost incorrect or missing argument\n"
            "ERROR: set_ev_boost incorrect or missing argument\n"
            "ERROR: cut_line can't cut root\n"
            "ERROR: cut_line can't cut root\n"
            "child 0:\nr:0:c\nIP_DEC\n2h Jh Qs\n0 0 100\n1 children\nflags: \nEND\n"
            "ERROR: cut_line missing/incorrect tree\n"
            "ERROR: show_children missing/incorrect tree\n");
}

TEST(Paths, RiverGameClosingCallHasNoCards) {
  std::string in = game("Qs Jh 2h 7c 3d", {"50 50"}) + "build_tree\nshow_children r:0:b50:c\nshow_node r:0:b50\n";
  EXPECT_EQ(run_k(in), "END\nr:0:b50\nIP_DEC\n2h Jh Qs 7c 3d\n50 0 100\n2 children\nflags: \nEND\n");
}

// Lines change only the schematic tree: a child added after the build has no
// built node, so paths show it without flags and refuse to act on it.
TEST(Paths, LinesAddedAfterTheBuild) {
  std::string in = game("Kh Qh 7c 4d 2s", {"0 0", "100 100"}) +
                   "build_tree\n"
                   "add_line 99\n"
                   "show_children r:0\n"
                   "show_node r:0:b99\n"
                   "set_ev_boost r:0:b99 0.5\n"
                   "force_line 30 30\n"
                   "show_children r:0\n"
                   "calc_results\n";
  std::string out = run_k(in);
  EXPECT_EQ(out.rfind("child 0:\nr:0:b100\nIP_DEC\n7c Qh Kh 4d 2s\n100 0 100\n2 children\nflags: \n"
                      "child 1:\nr:0:b99\nIP_DEC\n7c Qh Kh 4d 2s\n99 0 100\n2 children\nflags: \n", 0), 0u) << out;
  EXPECT_NE(out.find("ERROR: show_node incorrect path\nERROR: set_ev_boost incorrect path\n"
                     "child 0:\nr:0:b30\nIP_DEC\n7c Qh Kh 4d 2s\n30 0 100\n1 children\nflags: \nEND\n"),
            std::string::npos) << out;
  EXPECT_NE(out.find("EV OOP: "), std::string::npos) << out;
}
