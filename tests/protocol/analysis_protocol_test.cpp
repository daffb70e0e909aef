// Reading solved games through the binary: strategy rows, ranges, line
// frequencies, equities, and queries while a run goes on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "run_binary.h"

namespace {

// A range line of 1326 weights drawn from a fixed pattern, some hands 0.
std::string mixed_range(const std::string& player, int seed) {
  std::string s = "set_range " + player;
  for (int i = 0; i < 1326; i++) {
    int x = (i * 37 + seed * 11) % 10;
    s += x < 2 ? " 0" : x < 5 ? " 0.5" : " 1";
  }
  return s + "\n";
}

std::string solved(const std::string& board, const std::vector<std::string>& lines, const std::string& go) {
  std::string s = mixed_range("OOP", 1) + mixed_range("IP", 2) + "set_board " + board + "\nset_pot 0 0 100\n";
  for (const std::string& l : lines) s += "add_line " + l + "\n";
  return s + "set_isomorphism 0 0\nbuild_tree\n" + go + "\nwait_for_solver\n";
}

std::vector<std::vector<double>> rows_of(const std::string& text) {
  std::vector<std::vector<double>> rows;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line == "END" || line.rfind("SOLVER", 0) == 0) continue;
    std::istringstream l(line);
    std::vector<std::string> words;
    std::string v;
    while (l >> v) words.push_back(v);
    if (words.size() != 1326) continue;
    std::vector<double> row;
    for (const std::string& w : words) row.push_back(w == "nan" ? NAN : std::stod(w));
    rows.push_back(row);
  }
  return rows;
}

double number(const std::string& text) { return std::stod(text); }

const std::vector<std::string> RiverLines = {"0 0", "0 50 50", "0 50 150 150", "50 50", "50 150 150"};

}  // namespace

// Strategy rows add up to 1 for every hand of the acting range off the board,
// are 0 for hands on the board or out of the range, and show_range at the
// root gives the range back.
TEST(Analysis, StrategyRowsAndRanges) {
  std::string in = solved("Qs Jh 2h 7c 4d", RiverLines, "go 200 steps") +
                   "show_strategy r:0\nshow_range OOP\nshow_range IP r:0:b50\nshow_strategy r:0:c:b50\n";
  auto rows = rows_of(run_binary({"-k"}, in).out);
  ASSERT_EQ(rows.size(), 2u + 1 + 1 + 3);
  int live = 0;
  for (int h = 0; h < 1326; h++) {
    double sum = rows[0][h] + rows[1][h];
    if (rows[2][h] == 0) {
      EXPECT_EQ(sum, 0) << h;
    } else if (sum != 0) {
      EXPECT_NEAR(sum, 1.0, 1e-6) << h;
      live++;
    }
    // IP's range after OOP bets is its root range: IP has not acted.
    double call_fold_raise = rows[4][h] + rows[5][h] + rows[6][h];
    if (call_fold_raise != 0) EXPECT_NEAR(call_fold_raise, 1.0, 1e-6);
  }
  EXPECT_GT(live, 400);
  std::istringstream given(mixed_range("OOP", 1).substr(13));
  for (int h = 0; h < 1326; h++) {
    double w;
    given >> w;
    ASSERT_EQ(rows[2][h], w) << h;
  }
}

// Frequencies: 1 at the root, and the children of a node add up to the node,
// also across the cards of a chance node.
TEST(Analysis, LineFrequenciesAddUp) {
  std::string in = solved("Qs Jh 2h", {"0 0 0 0 0 0", "0 0 50 50 50 50", "50 50 50 50 50 50"}, "go 10 steps");
  for (const char* p : {"r:0", "r:0:c", "r:0:b50", "r:0:c:c", "r:0:c:c:7c", "r:0:c:c:7c:c", "r:0:c:c:7c:b50",
                        "r:0:c:c:7c:c:c"})
    in += std::string("calc_line_freq ") + p + "\n";
  std::istringstream out(run_binary({"-k"}, in).out);
  std::vector<double> f;
  std::string line;
  while (std::getline(out, line))
    if (!line.empty() && line.rfind("SOLVER", 0) != 0) f.push_back(line.rfind("ERROR", 0) == 0 ? NAN : number(line));
  ASSERT_EQ(f.size(), 8u);
  EXPECT_NEAR(f[0], 1.0, 1e-9);
  EXPECT_NEAR(f[1] + f[2], f[0], 1e-6);
  EXPECT_NEAR(f[3], f[1], 1e-6);  // the turn cards, each by its chance, add up to the line
  EXPECT_NEAR(f[5] + f[6], f[4], 1e-6);
  EXPECT_NEAR(f[7], f[5], 1e-6);  // IP only checks behind: the river cards add up again
}

// The weighted equity of a range against itself is one half, and a hand that
// holds a board card meets nobody.
TEST(Analysis, EquityRowsAndErrors) {
  std::string in = mixed_range("OOP", 3) + mixed_range("IP", 3) + "set_board Ah Kd 7c 7s\ncalc_eq hero\n" +
                   "calc_eq nobody\ncalc_eq_pp villain\n";
  std::string out = run_binary({"-k"}, in).out;
  auto rows = rows_of(out);
  ASSERT_EQ(rows.size(), 2u);
  double num = 0, den = 0, range[1326];
  std::istringstream given(mixed_range("OOP", 3).substr(13));
  for (int h = 0; h < 1326; h++) given >> range[h];
  int dead = 0;
  for (int h = 0; h < 1326; h++) {
    if (std::isnan(rows[0][h])) {
      EXPECT_EQ(rows[1][h], 0);
      dead++;
      continue;
    }
    num += range[h] * rows[0][h] * rows[1][h];
    den += range[h] * rows[1][h];
  }
  EXPECT_EQ(dead, 4 * 51 - 6);  // hands holding one of the four board cards
  EXPECT_NEAR(num / den, 0.5, 1e-9);
  EXPECT_NE(out.find("ERROR: calc_eq incorrect or missing argument\n"), std::string::npos);
  // The list runs from the strongest hand down: quads first (they lose only
  // to quad aces).
  size_t list = out.find("ERROR: calc_eq incorrect or missing argument\n");
  EXPECT_EQ(out.compare(list + 45, 13, "7h7d: 99.99; "), 0) << out.substr(list, 80);
}

// Queries while the solver runs answer whole and the run still ends.
TEST(Analysis, QueriesDuringARun) {
  std::string in = solved("Qs Jh 2h 7c", {"0 0 0 0", "50 50 50 50", "0 0 50 50"}, "go 300 steps");
  in.erase(in.rfind("wait_for_solver\n"));
  for (int i = 0; i < 30; i++) in += "show_strategy r:0\ncalc_line_freq r:0:b50\nshow_probs r:0:c\n";
  in += "wait_for_solver\nis_ready\n";
  RunResult r = run_binary({"-k"}, in);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(rows_of(r.out).size(), 60u);
  EXPECT_NE(r.out.find("SOLVER: stopped"), std::string::npos);
  EXPECT_EQ(r.out.find("ERROR"), std::string::npos) << r.out.substr(0, 400);
}

// calc_ev rows, weighted by range and matchups, give each player's value of
// calc_results; a hand holding a board card is "nan" with 0 matchups.
TEST(Analysis, EvRowsAddUpToTheGameValue) {
  std::string in = solved("Qs Jh 2h 7c 4d", RiverLines, "go 300 steps") + "calc_results\ncalc_ev OOP r:0\ncalc_ev IP r:0\n";
  std::string out = run_binary({"-k"}, in).out;
  auto rows = rows_of(out);
  ASSERT_EQ(rows.size(), 4u);
  for (int p = 0; p < 2; p++) {
    std::istringstream given(mixed_range(p ? "IP" : "OOP", p + 1).substr(p ? 12 : 13));
    double num = 0, den = 0, w;
    int dead = 0;
    for (int h = 0; h < 1326; h++) {
      given >> w;
      if (std::isnan(rows[2 * p][h])) {
        EXPECT_EQ(rows[2 * p + 1][h], 0);
        dead++;
        continue;
      }
      num += w * rows[2 * p + 1][h] * rows[2 * p][h];
      den += w * rows[2 * p + 1][h];
    }
    EXPECT_GE(dead, 5 * 51 - 10);
    size_t at = out.rfind(p ? "EV IP: " : "EV OOP: ");  // calc_results, after the run's report
    ASSERT_NE(at, std::string::npos);
    EXPECT_NEAR(num / den, number(out.substr(at + (p ? 7 : 8))), 2e-3) << p;
  }
}

// The polarised river game: the bettor (three nut hands, three air hands)
// bets the pot or checks, the bluff-catcher calls or folds.
struct Polarised {
  std::vector<std::string> order;  // HandIndex names
  const std::vector<std::string> nuts = {"KhKc", "KdKc", "KhKd"}, air = {"6c5c", "6d5d", "6h5h"};
  const std::vector<std::string> catchers = {"QcJc", "QhJh", "QsJs", "QhJc", "QsJd", "QcJh"};

  Polarised() {
    std::istringstream names(run_binary({}, "show_hand_order\n").out);
    std::string w;
    while (names >> w) order.push_back(w);
  }
  size_t at(const std::string& hand) const {
    size_t i = size_t(std::find(order.begin(), order.end(), hand) - order.begin());
    EXPECT_LT(i, 1326u) << hand;
    return std::min(i, size_t(1325));
  }
  std::string row(const std::vector<std::string>& hands) const {
    std::string s;
    for (const std::string& h : order) s += std::find(hands.begin(), hands.end(), h) != hands.end() ? " 1" : " 0";
    return s;
  }
  std::string game() const {
    std::vector<std::string> oop = nuts;
    oop.insert(oop.end(), air.begin(), air.end());
    return "set_range OOP" + row(oop) + "\nset_range IP" + row(catchers) +
           "\nset_board Ks Qd 7h 4c 2s\nset_pot 0 0 100\nadd_line 100 100\nadd_line 0 0\nbuild_tree\n"
           "set_accuracy 0.0005 fraction\n";
  }
  double mean(const std::vector<double>& r, const std::vector<std::string>& hands) const {
    double sum = 0;
    for (const std::string& h : hands) sum += r[at(h)];
    return sum / double(hands.size());
  }
};

// Solved, the bettor bets its nuts always and its air half the time, and the
// bluff-catcher calls half the time.
TEST(Analysis, PolarisedRiverStrategies) {
  Polarised g;
  ASSERT_EQ(g.order.size(), 1326u);
  auto rows = rows_of(run_binary({"-k"}, g.game() + "go\nwait_for_solver\nshow_strategy r:0\nshow_strategy r:0:b100\n").out);
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_NEAR(g.mean(rows[0], g.nuts), 1.0, 0.02);
  EXPECT_NEAR(g.mean(rows[0], g.air), 0.5, 0.05);
  EXPECT_NEAR(g.mean(rows[2], g.catchers), 0.5, 0.05);
}

// A caller locked to always call leaves the bettor nothing to bluff: it bets
// value only, and its value is exact (+150 per nut hand, -50 per air hand,
// plus half the pot). A combo lock fixes only the hands it names.
TEST(Analysis, LockedCallerMakesTheBettorValueOnly) {
  Polarised g;
  std::string all(g.row(g.order)), none(g.row({}));
  std::string in = g.game() + "set_strategy r:0:b100 0" + all + "\nset_strategy r:0:b100 1" + none +
                   "\nlock_node r:0:b100\nshow_node r:0:b100\ngo\nwait_for_solver\ncalc_results\n"
                   "show_strategy r:0\nunlock_node r:0:b100\nunlock_node r:0:b100\ncombo_lock_node r:0:b100" +
                   g.row({g.catchers[0]}) + "\nshow_node r:0:b100\nshow_locked_combos r:0:b100\n"
                   "set_strategy r:0:b100 2" + none + "\n";
  std::string out = run_binary({"-k"}, in).out;
  EXPECT_NE(out.find("2 children\nflags: LOCKED\n"), std::string::npos) << out.substr(0, 300);
  EXPECT_NE(out.find("EV OOP: 100.000\nEV IP: 0.000\n", out.find("SOLVER: stopped")), std::string::npos);
  EXPECT_NE(out.find("2 children\nflags: COMBO_LOCKED\n"), std::string::npos);
  EXPECT_NE(out.find("ERROR: set_strategy invalid child index\n"), std::string::npos);
  auto rows = rows_of(out);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_NEAR(g.mean(rows[0], g.nuts), 1.0, 1e-3);
  EXPECT_NEAR(g.mean(rows[0], g.air), 0.0, 1e-3);
  EXPECT_EQ(rows[2][g.at(g.catchers[0])], 1.0);
  EXPECT_EQ(g.mean(rows[2], {g.catchers[1], g.nuts[0]}), 0.0);
}

// A flop solved with and without suit isomorphism reads the same rows at turn
// cards of either free suit, the second one reached through the suit swap.
TEST(Analysis, IsomorphicTurnRowsMatch) {
  std::string game = range_line("OOP", "1") + "\n" + range_line("IP", "1") +
                     "\nset_board Qs Jh 2h\nset_pot 0 0 100\nadd_line 0 0 0 0 0 0\nadd_line 0 0 50 50 50 50\n";
  std::string reads = "go 12 steps\nwait_for_solver\nshow_strategy r:0:c:c:7c\nshow_strategy r:0:c:c:7d\n";
  auto on = rows_of(run_binary({"-k"}, game + "set_isomorphism 1 1\nbuild_tree\n" + reads).out);
  auto off = rows_of(run_binary({"-k"}, game + "set_isomorphism 0 0\nbuild_tree\n" + reads).out);
  ASSERT_EQ(on.size(), 4u);
  ASSERT_EQ(off.size(), 4u);
  double worst = 0;
  for (size_t r = 0; r < 4; r++)
    for (int h = 0; h < 1326; h++) worst = std::max(worst, std::fabs(on[r][h] - off[r][h]));
  EXPECT_LT(worst, 1e-3);
  EXPECT_NE(on[0], on[2]);  // 7c and 7d boards block other hands
}

// A combo lock holds only its hands: the locked bluff-catcher keeps calling,
// the free ones move to the call rate that makes up half in all. Unlocked,
// the game goes back to its closed form.
TEST(Analysis, ComboLockHoldsItsHandsAndUnlockRestoresTheClosedForm) {
  Polarised g;
  std::string all(g.row(g.order)), none(g.row({}));
  std::string calls = "set_strategy r:0:b100 0" + all + "\nset_strategy r:0:b100 1" + none + "\n";
  // Step limits: a run without one goes on to the iteration cap, and the next would have none left.
  std::string in = g.game() + calls + "lock_node r:0:b100\ngo\nwait_for_solver\nunlock_node r:0:b100\ngo 1500 steps\n"
                   "wait_for_solver\nshow_strategy r:0\nshow_strategy r:0:b100\n" + calls + "combo_lock_node r:0:b100" +
                   g.row({g.catchers[0]}) + "\ngo 1500 steps\nwait_for_solver\nshow_strategy r:0:b100\n";
  auto rows = rows_of(run_binary({"-k"}, in).out);
  ASSERT_EQ(rows.size(), 6u);
  EXPECT_NEAR(g.mean(rows[0], g.nuts), 1.0, 0.02);
  EXPECT_NEAR(g.mean(rows[0], g.air), 0.5, 0.05);
  EXPECT_NEAR(g.mean(rows[2], g.catchers), 0.5, 0.05);
  EXPECT_NEAR(rows[4][g.at(g.catchers[0])], 1.0, 1e-6);
  std::vector<std::string> free(g.catchers.begin() + 1, g.catchers.end());
  EXPECT_NEAR(g.mean(rows[4], free), 0.4, 0.06);
}

// A row set by hand reads back the same through show_strategy at every
// compression level, on flop, turn and river nodes.
TEST(Analysis, SetStrategyRowsReadBackAtEveryLevel) {
  std::string oop = "set_range OOP", ip = "set_range IP", x = "", y = "";
  const char* parts[] = {"0", "0.25", "0.5", "0.75", "1"};
  for (int h = 0; h < 1326; h++) {
    oop += h % 5 == 0 ? " 1" : " 0";
    ip += h % 5 == 1 ? " 1" : " 0";
    x += std::string(" ") + parts[h % 5 == 0 || h % 5 == 1 ? (h / 5) % 5 : 0];
    y += std::string(" ") + parts[h % 5 == 0 || h % 5 == 1 ? 4 - (h / 5) % 5 : 0];
  }
  std::string in = oop + "\n" + ip + "\nset_board Qs Jh 2h\nset_pot 0 0 100\nadd_line 0 0 0 0 0 0\n"
                   "add_line 0 0 50 50 50 50\nadd_line 0 0 0 0 50 50\nadd_line 50 50 0 0 0 0\nset_isomorphism 0 0\nbuild_tree\n";
  const std::vector<std::string> nodes = {"r:0", "r:0:b50", "r:0:c:c:7c", "r:0:c:c:7c:c:c:3s", "r:0:c:c:7c:c:c:3s:b50"};
  for (int level = 0; level <= 5; level++) {
    in += "set_compression " + std::to_string(level) + "\n";
    for (const std::string& n : nodes) in += "set_strategy " + n + " 0" + x + "\nset_strategy " + n + " 1" + y + "\n";
    for (const std::string& n : nodes) in += "show_strategy " + n + "\n";
  }
  auto rows = rows_of(run_binary({"-k"}, in).out);
  ASSERT_EQ(rows.size(), 6u * nodes.size() * 2);
  std::istringstream want(x);
  std::vector<double> w(1326);
  for (double& v : w) want >> v;
  for (size_t r = 0; r < rows.size(); r += 2) {
    int checked = 0;
    for (int h = 0; h < 1326; h++) {
      if (rows[r][h] + rows[r + 1][h] == 0) continue;  // off the board's list or out of the actor's range
      ASSERT_NEAR(rows[r][h], w[size_t(h)], 2e-3) << "level " << r / 10 << " node " << nodes[(r / 2) % 5] << " hand " << h;
      checked++;
    }
    EXPECT_GT(checked, 150) << r;
  }
}
