// Streets dropped and solved again, partial solves, and strategies fixed by
// hand, through the binary.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "run_binary.h"

namespace {

// A turn game on the turn bench board: pot 60, stacks 270, one bet size a
// street with a raise all-in.
std::string turn_game() {
  std::string s = "set_range OOP";
  for (int i = 0; i < 1326; i++) s += (i * 7) % 10 < 3 ? " 1" : (i * 7) % 10 < 5 ? " 0.5" : " 0";
  s += "\nset_range IP";
  for (int i = 0; i < 1326; i++) s += (i * 3) % 10 < 3 ? " 1" : (i * 3) % 10 < 5 ? " 0.5" : " 0";
  s += "\nset_board Qs Jh 2h 7c\nset_pot 0 0 60\n";
  for (const char* l : {"0 0 0 0", "0 0 0 45 45", "0 0 0 45 270 270", "0 0 45 45", "0 0 45 270 270", "0 45 45 45 45",
                        "0 45 45 45 135 135", "0 45 45 45 270 270", "0 45 45 135 135", "0 45 270 270", "45 45 0 0",
                        "45 45 0 90 90", "45 45 90 90", "45 45 90 270 270", "45 270 270"})
    s += std::string("add_line ") + l + "\n";
  return s + "set_isomorphism 0 0\nbuild_tree\n";
}

// The five numbers of the last calc_results block at or after `from`.
std::vector<double> results(const std::string& out, size_t from = 0) {
  std::vector<double> v;
  size_t at = out.find("EV OOP: ", from);
  if (at == std::string::npos) return v;
  std::istringstream in(out.substr(at));
  std::string line;
  while (v.size() < 5 && std::getline(in, line)) v.push_back(std::stod(line.substr(line.find(": ") + 2)));
  return v;
}

std::vector<std::vector<double>> rows_in(const std::string& text) {
  std::vector<std::vector<double>> rows;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream l(line);
    std::vector<double> row;
    std::string w;
    while (l >> w && (isdigit(w[0]) || w[0] == '-' || w == "nan")) row.push_back(w == "nan" ? NAN : std::stod(w));
    if (row.size() == 1326) rows.push_back(row);
  }
  return rows;
}

}  // namespace

// calc_results doesn't change when the rivers go, go is refused until they
// are back, and solved again from the kept reaches the game is worth what it
// was, within the recalc accuracy; a query at a forgotten river node solves
// its subgame first.
TEST(Forget, RiversGoAndComeBack) {
  const double accuracy = 0.01 * 60;
  std::string in = turn_game() +
                   "go 150 steps\nwait_for_solver\ncalc_results\nshow_strategy r:0\nset_recalc_accuracy 0.01 0.01 0.01\n"
                   "forget rivers\ncalc_results\n"
                   "go\ncalc_line_freq r:0:c:c:3d\nshow_strategy r:0:c:c:3d\ncalc_ev OOP r:0:c:c:3d\nsolve_all_splits rivers\n"
                   "rebuild_forgotten_streets\nsolve_all_splits rivers\ncalc_results\nshow_strategy r:0\ngo 1 steps\n"
                   "wait_for_solver\n";
  std::string out = run_binary({"-k"}, in).out;
  size_t forgot = out.find("ERROR: go incomplete tree\n");
  ASSERT_NE(forgot, std::string::npos) << out.substr(0, 2000);
  EXPECT_NE(out.find("1\n", forgot), std::string::npos);  // line frequencies need every street
  EXPECT_NE(out.find("ERROR: solve_all_splits incomplete tree\n"), std::string::npos);
  std::vector<double> before = results(out, out.find("SOLVER: stopped"));
  std::vector<double> kept = results(out, out.find("END\n", out.find("EV OOP: ", out.find("SOLVER: stopped"))));
  std::vector<double> again = results(out, forgot);
  ASSERT_EQ(before.size(), 5u);
  EXPECT_EQ(before, kept);
  ASSERT_EQ(again.size(), 5u);
  EXPECT_NEAR(again[0], before[0], accuracy);
  EXPECT_NEAR(again[1], before[1], accuracy);
  EXPECT_LT(again[4], before[4] + accuracy);
  EXPECT_NE(out.find("SOLVER: started", forgot), std::string::npos);  // go runs again after the rebuild

  auto rows = rows_in(out);
  ASSERT_EQ(rows.size(), 2u + 2 + 2 + 2);  // root, the river node, its EV rows, root again
  int live = 0, valued = 0;
  for (int h = 0; h < 1326; h++) {
    double sum = rows[2][h] + rows[3][h];
    if (sum != 0) EXPECT_NEAR(sum, 1.0, 1e-5) << h;
    live += sum != 0;
    valued += !std::isnan(rows[4][h]) && rows[5][h] > 0;
    for (int a = 0; a < 2; a++) EXPECT_NEAR(rows[a][h], rows[6 + a][h], 1e-9);
  }
  EXPECT_GT(live, 100);
  EXPECT_GT(valued, 100);
}

// A partial solve of a turn node reaches the recalc accuracy, with nothing
// forgotten and with the rivers below it forgotten.
TEST(Forget, PartialSolveReachesTheRecalcAccuracy) {
  std::string in = turn_game() +
                   "go 100 steps\nwait_for_solver\nset_recalc_accuracy 0.005 0.005 0.005\nexplo_partial r:0:c\n"
                   "solve_partial r:0:b45\nexplo_partial r:0:b45:x\nforget rivers\nexplo_partial r:0:c\n";
  RunResult r = run_binary({}, in);
  EXPECT_NE(r.out.find("solve_partial ok!\nERROR: explo_partial incorrect path\n"), std::string::npos) << r.out;
  std::istringstream lines(r.out.substr(r.out.find("SOLVER: stopped")));
  std::vector<double> values;
  std::string line;
  while (std::getline(lines, line))
    if (!line.empty() && (isdigit(line[0]) || line[0] == '-')) values.push_back(std::stod(line));
  ASSERT_EQ(values.size(), 2u) << r.out;
  for (double e : values) {
    EXPECT_GE(e, 0.0);
    EXPECT_LE(e, 0.005 * 60);
  }
}

// The turns of a flop game go the same way; a bad word and a rebuild with
// nothing forgotten answer as they should.
TEST(Forget, TurnsOfAFlopGame) {
  std::string s = "set_range OOP";
  for (int i = 0; i < 1326; i++) s += i % 23 == 0 ? " 1" : " 0";
  s += "\nset_range IP";
  for (int i = 0; i < 1326; i++) s += i % 19 == 0 ? " 1" : " 0";
  s += "\nset_board Qs Jh 2h\nset_pot 0 0 100\nadd_line 0 0 0 0 0 0\nadd_line 0 0 50 50 50 50\n"
       "add_line 50 50 50 50 100 100\nset_isomorphism 0 0\nbuild_tree\nrebuild_all\ngo 80 steps\nwait_for_solver\n"
       "calc_results\nforget flops\nforget turns\ncalc_results\nrebuild_all\nsolve_all_splits turns\ncalc_results\n";
  std::string out = run_binary({}, s).out;
  EXPECT_NE(out.find("build_tree ok!\nrebuild_all ok!\n"), std::string::npos);
  EXPECT_NE(out.find("ERROR: forget incorrect or missing argument\nforget ok!\n"), std::string::npos) << out;
  EXPECT_NE(out.find("rebuild_all ok!\nsolve_all_splits ok!\n"), std::string::npos);
  size_t first = out.find("EV OOP: ", out.find("SOLVER: stopped"));
  std::vector<double> before = results(out, first), kept = results(out, first + 1);
  std::vector<double> again = results(out, out.find("solve_all_splits ok!"));
  ASSERT_EQ(again.size(), 5u);
  EXPECT_EQ(before, kept);
  EXPECT_NEAR(again[0], before[0], 0.01 * 100);
  EXPECT_LT(again[4], before[4] + 0.01 * 100);
}
