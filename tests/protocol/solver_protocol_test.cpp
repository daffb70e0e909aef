// Solving runs through the real binary: go/stop/wait ordering, report
// blocks, stop reasons and refusals while a run goes on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "run_binary.h"

namespace {

// A river game with two bet sizes: small enough to iterate fast, large
// enough that exploitability stays above zero for many iterations.
std::string river_game() {
  std::string oop = "set_range OOP", ip = "set_range IP";
  for (int i = 0; i < 1326; i++) {
    oop += (i % 3 == 0) ? " 1" : " 0";
    ip += (i % 2 == 0) ? " 1" : " 0.5";
  }
  return oop + "\n" + ip +
         "\nset_board Qs Jh 2h 7c 4d\nset_pot 0 0 100\n"
         "add_line 0 0\nadd_line 0 50 50\nadd_line 0 50 200 200\nadd_line 50 50\nadd_line 50 200 200\n"
         "add_line 100 100\nbuild_tree\n";
}

std::vector<std::string> lines_of(const std::string& s) {
  std::vector<std::string> v;
  std::stringstream in(s);
  for (std::string l; std::getline(in, l);) v.push_back(l);
  return v;
}

// The answers of the loop, without the lines the solving thread writes.
std::vector<std::string> loop_lines(const std::string& s) {
  std::vector<std::string> v;
  bool in_block = false;
  for (const std::string& l : lines_of(s)) {
    if (l == "SOLVER:") in_block = true;
    bool solver_line = in_block || l.rfind("SOLVER: ", 0) == 0 || l.rfind("#SOLVER:", 0) == 0;
    if (in_block && l == "END") in_block = false;
    if (!solver_line) v.push_back(l);
  }
  return v;
}

}  // namespace

TEST(Solver, GoNeedsATreeAndWellFormedLimits) {
  RunResult r = run_binary({"-k"}, "go\ncalc_results\n" + river_game() +
                                       "go 5\ngo 5 minutes\ngo x steps\nstop\nwait_for_solver\n");
  EXPECT_EQ(r.out,
            "ERROR: go missing/incorrect tree\n"
            "ERROR: calc_results missing/incorrect tree\n"
            "ERROR: go incorrect or missing argument\n"
            "ERROR: go incorrect or missing argument\n"
            "ERROR: Invalid value\n");
}

TEST(Solver, ZeroStepsRunsExactlyOneIteration) {
  RunResult r = run_binary({"-k", "-m"}, river_game() + "go 0 steps\nwait_for_solver\ncalc_results\n");
  std::vector<std::string> l = lines_of(r.out);
  ASSERT_GE(l.size(), 4u);
  EXPECT_EQ(l[0], "#actions max 3 avg 2.4");
  EXPECT_EQ(l[1], "#auto compression level 0");
  EXPECT_EQ(l[2], "SOLVER: started");
  EXPECT_EQ(l[3], "SOLVER: stopped (required number of steps done)");
  EXPECT_NE(r.out.find("\n#1 iterations\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("#SOLVER:"), std::string::npos);  // no report before iteration 25
}

TEST(Solver, StepsLimitWithReportsAndResults) {
  RunResult r = run_binary({}, river_game() + "go 60 steps\nwait_for_solver\ncalc_results\n");
  std::vector<std::string> l = lines_of(r.out);
  // go's answer comes before the thread's first line.
  auto at = [&](const std::string& s) { return std::find(l.begin(), l.end(), s) - l.begin(); };
  EXPECT_LT(at("go ok!"), at("SOLVER: started"));
  EXPECT_LT(at("SOLVER: started"), at("SOLVER:"));
  EXPECT_LT(at("SOLVER:"), at("SOLVER: stopped (required number of steps done)"));
  // One report block at 25 and maybe one at 50, each of eight lines.
  size_t block = at("SOLVER:");
  ASSERT_LT(block + 7, l.size());
  EXPECT_EQ(l[block + 1].rfind("running time: ", 0), 0u);
  EXPECT_EQ(l[block + 2].rfind("EV OOP: ", 0), 0u);
  EXPECT_EQ(l[block + 3].rfind("EV IP: ", 0), 0u);
  EXPECT_EQ(l[block + 4].rfind("OOP's MES: ", 0), 0u);
  EXPECT_EQ(l[block + 5].rfind("IP's MES: ", 0), 0u);
  EXPECT_EQ(l[block + 6].rfind("Exploitable for: ", 0), 0u);
  EXPECT_EQ(l[block + 7], "END");
  // calc_results: the same five figures; the values of both players add up to the pot.
  size_t res = at("SOLVER: stopped (required number of steps done)") + 1;
  ASSERT_EQ(l.size(), res + 6);
  double ev0 = std::stod(l[res].substr(8)), ev1 = std::stod(l[res + 1].substr(7));
  double mes0 = std::stod(l[res + 2].substr(11)), mes1 = std::stod(l[res + 3].substr(10));
  double expl = std::stod(l[res + 4].substr(17));
  EXPECT_NEAR(ev0 + ev1, 100.0, 0.01);
  EXPECT_GE(mes0, ev0 - 1e-3);
  EXPECT_GE(mes1, ev1 - 1e-3);
  EXPECT_NEAR(expl, (mes0 + mes1 - ev0 - ev1) / 2, 0.002);
  EXPECT_EQ(l[res + 5], "END");
}

TEST(Solver, RefusalsWhileRunningThenStop) {
  RunResult r = run_binary({}, river_game() +
                                   "go\ngo\nbuild_tree\nfree_tree\nset_compression 2\ncut_line r:0:b50\n"
                                   "is_tree_present\nstop\nwait_for_solver\nstop\nwait_for_solver\nis_ready\n");
  std::vector<std::string> l = loop_lines(r.out);
  std::vector<std::string> tail(l.end() - std::min<size_t>(l.size(), 10), l.end());
  EXPECT_EQ(tail, (std::vector<std::string>{"go ok!", "ERROR: go Can't do that when solver is running",
                                            "ERROR: build_tree Can't do that when solver is running",
                                            "ERROR: free_tree Can't do that when solver is running",
                                            "ERROR: set_compression Can't do that when solver is running",
                                            "ERROR: cut_line Can't do that when solver is running", "true",
                                            "stop ok!", "stop ok!", "is_ready ok!"}))
      << r.out;
  EXPECT_NE(r.out.find("SOLVER: stopped (requested)\n"), std::string::npos);
}

TEST(Solver, AccuracyStopAndContinuation) {
  RunResult r = run_binary({"-m", "-k"}, river_game() +
                                             "set_accuracy 0.02 fraction\ngo\nwait_for_solver\n"
                                             "go 0 steps\nwait_for_solver\ncalc_results\n");
  EXPECT_NE(r.out.find("SOLVER: stopped (required accuracy reached)\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("SOLVER: stopped (required number of steps done)\n"), std::string::npos);
  // The second run continues from where the first stopped: one step more.
  size_t last_report = r.out.rfind("#SOLVER:");
  size_t it_line = r.out.find("\n#", last_report) + 2;
  int reported = std::stoi(r.out.substr(it_line));
  size_t final_line = r.out.rfind("\n#", r.out.rfind("#storage") - 2) + 2;
  EXPECT_EQ(std::stoi(r.out.substr(final_line)), reported + 1) << r.out;
}

TEST(Solver, TimeoutReason) {
  // A turn game: far from 9000 iterations in a second.
  std::string game = river_game();
  game.replace(game.find("set_board Qs Jh 2h 7c 4d"), 24, "set_board Qs Jh 2h 7c");
  game.replace(game.find("add_line 0 0\n"), 13, "add_line 0 0 0 0\nadd_line 0 0 50 50\n");
  RunResult r = run_binary({"-k"}, game + "go 1 seconds\nwait_for_solver\n");
  EXPECT_NE(r.out.find("SOLVER: stopped (timeout reached)\n"), std::string::npos) << r.out;
}

// show_memory's breakdown of the process: side lines that reach the client only
// with the comment flag, before the two protocol lines, and parts that add up
// to within a tenth of the resident size the system counts.
TEST(Solver, MemoryBreakdownMatchesResidentSize) {
  const std::string script = river_game() + "go 60 steps\nwait_for_solver\nshow_memory\n";
  RunResult plain = run_binary({"-k"}, script);
  EXPECT_EQ(plain.out.find("#memory"), std::string::npos);
  EXPECT_NE(plain.out.find("SOLVER: stopped (required number of steps done)\nTotal Physical Memory: "),
            std::string::npos);

  RunResult r = run_binary({"-k", "-m"}, script);
  ASSERT_EQ(r.rc, 0);
  double sum = 0, total = -1, resident = -1, peak = -1;
  int parts = 0;
  std::vector<std::string> lines = lines_of(r.out);
  size_t last = 0;
  for (size_t i = 0; i < lines.size(); i++) {
    const std::string& l = lines[i];
    if (l.rfind("#memory total ", 0) == 0) {
      ASSERT_EQ(sscanf(l.c_str(), "#memory total %lf MB, resident %lf MB, peak %lf MB", &total, &resident, &peak), 3);
      last = i;
    } else if (l.rfind("#memory ", 0) == 0) {
      size_t mb = l.rfind(" MB");
      ASSERT_EQ(mb, l.size() - 3) << l;
      sum += std::stod(l.substr(l.rfind(' ', mb - 1) + 1));
      parts++;
    }
  }
  EXPECT_EQ(parts, 12);
  EXPECT_NEAR(sum, total, 0.05 * parts + 1e-9);  // each line rounds to 0.1 MB
  EXPECT_GT(resident, 1.0);
  EXPECT_GE(peak, resident);
  // Under the address sanitizer its shadow memory is resident too, and no
  // part accounts for it.
#ifndef __SANITIZE_ADDRESS__
  EXPECT_GE(total, 0.9 * resident);
  EXPECT_LE(total, 1.1 * resident);
#endif
  ASSERT_LT(last + 3, lines.size());
  EXPECT_EQ(lines[last + 1].rfind("Total Physical Memory: ", 0), 0u);
  EXPECT_EQ(lines[last + 2].rfind("Available Phys Memory: ", 0), 0u);
  EXPECT_EQ(lines[last + 3], "END");
}
