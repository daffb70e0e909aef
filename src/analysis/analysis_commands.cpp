// Commands that read a solved tree: strategies, ranges, equities and line
// frequencies. Rows go out in HandIndex order.
#include <cmath>
#include <mutex>

#include "analysis/analysis.h"
#include "core/core.h"

namespace {

constexpr size_t RowBuffer = 65536;

// One row of 1326 values in PairIndex order, printed in HandIndex order.
void print_row(const double* pair_order, const char* format, const char* nan_text) {
  std::string line;
  char cell[64];
  for (int h = 0; h < HandCount; h++) {
    double v = pair_order[HandToPair[h]];
    if (std::isnan(v))
      line += nan_text;
    else {
      snprintf(cell, sizeof cell, format, v);
      line += cell;
    }
    if (h + 1 < HandCount) line += ' ';
  }
  if (line.size() + 1 >= RowBuffer) fail_command("buffer too small");
  shell_print("%s\n", line.c_str());
}

std::string hand_name(int hand_index) { return std::string(HandOrderText + 5 * hand_index, 4); }

bool tree_ready() { return TreePresent && ActiveTree; }

// The spot of a path; "" and a missing path mean "r:0". Queries need a node.
Spot read_spot(const Tokens& t, size_t i, bool need_node) {
  NodePath ref = parse_path(i < t.size() && !t[i].empty() ? t[i] : std::string("r:0"));
  if (need_node && (!ref.node || !ref.built || ref.at_split)) fail_command("incorrect path");
  return {ref.node, ref.built, ref.turn_card, ref.river_card};
}

int32_t read_player(const Tokens& t, size_t i) {
  int32_t p = i < t.size() ? player_from_token(t[i]) : -1;
  if (p < 0) fail_argument(t[0]);
  return p;
}

std::vector<double> strategy_of(const Spot& s) {
  std::vector<double> rows;
  if (!strategy_rows(*ActiveTree, s, rows)) fail_command("incorrect path");
  return rows;
}

// Name of a child as a path segment names it.
std::string action_name(const SchematicNode& node, double key) {
  if (key <= node.amount) return key >= 0 ? "c" : "f";
  char b[48];
  snprintf(b, sizeof b, "b%lld", (long long)key);
  return b;
}

// The hands of the node's acting player, strongest first against the other
// player's range there.
std::vector<int32_t> spot_strength_order(const Spot& s) {
  std::vector<double> other(HandCount);
  range_at(*ActiveTree, s, 1 - (s.built->player & 1), other.data());
  return hand_strength_order(spot_board(*ActiveTree, s), other.data());
}

void print_equity_rows(const double* adv, const double* match) {
  std::vector<double> eq(HandCount);
  for (int p = 0; p < HandCount; p++) eq[size_t(p)] = equity_of(adv[p], match[p]);
  print_row(eq.data(), "%.9g", "nan");
  print_row(match, "%.9g", "0");
}

}  // namespace

void cmd_show_strategy(const Tokens& t) {
  if (!tree_ready()) return shell_print("END\n");
  Spot s = read_spot(t, 1, true);
  std::vector<double> rows = strategy_of(s);
  for (size_t a = 0; a < s.built->children.size(); a++) print_row(rows.data() + a * HandCount, "%.12g", "0");
  shell_print("END\n");
}

void cmd_show_strategy_pp(const Tokens& t) {
  if (!tree_ready()) return shell_print("END\n");
  Spot s = read_spot(t, 1, true);
  std::vector<double> rows = strategy_of(s);
  const size_t k = s.built->children.size();
  for (int32_t h : spot_strength_order(s)) {
    std::string line = hand_name(h) + ": ";
    char cell[32];
    for (size_t a = 0; a < k; a++) {
      snprintf(cell, sizeof cell, "  %.6f", rows[a * HandCount + HandToPair[h]]);
      line += cell;
    }
    shell_print("%s\n", line.c_str());
  }
  shell_print("END\n");
}

void cmd_show_range(const Tokens& t) {
  if (t.size() < 2) fail_argument(t[0]);
  int32_t p = read_player(t, 1);
  if (!tree_ready()) return;
  Spot s = read_spot(t, 2, false);
  std::vector<double> r(HandCount);
  range_at(*ActiveTree, s, p, r.data());
  print_row(r.data(), "%.12g", "0");
}

void cmd_show_locked_combos(const Tokens& t) {
  if (!tree_ready()) return shell_print("END\n");
  Spot s = read_spot(t, 1, true);
  std::vector<double> mask(HandCount);
  lock_mask(*ActiveTree, s, mask.data());
  print_row(mask.data(), "%.12g", "nan");
  shell_print("END\n");
}

void cmd_show_probs(const Tokens& t) {
  if (!tree_ready()) return;
  NodePath ref = parse_path(t.size() > 1 && !t[1].empty() ? t[1] : std::string("r:0"));
  Spot s{ref.node, ref.built, ref.turn_card, ref.river_card};
  const CardMask board = spot_board(*ActiveTree, s);
  double sums[2] = {0, 0};
  std::vector<double> r[2] = {std::vector<double>(HandCount), std::vector<double>(HandCount)};
  for (int p = 0; p < 2; p++) {
    range_at(*ActiveTree, s, p, r[p].data());
    for (int h = 0; h < HandCount; h++)
      if (!(HandMasks[PairToHand[h]] & board)) sums[p] += r[p][size_t(h)];
  }
  std::string text;
  const Node* n = s.built;
  std::vector<double> rows;
  if (n && !ref.at_split && n->kind == NODE_DECISION && sums[n->player & 1] > 0 &&
      strategy_rows(*ActiveTree, s, rows)) {
    const std::vector<double>& mine = r[n->player & 1];
    for (const auto& kv : ref.node->children) {
      const int32_t action = built_action(*ActiveTree, *n, kv.second.get());
      if (action < 0) continue;  // a line added after the build
      const size_t a = size_t(action);
      double part = 0;
      for (int h = 0; h < HandCount; h++)
        if (!(HandMasks[PairToHand[h]] & board)) part += mine[size_t(h)] * rows[a * HandCount + size_t(h)];
      char cell[64];
      snprintf(cell, sizeof cell, "%s%s %.12g", text.empty() ? "" : " ", action_name(*ref.node, kv.first).c_str(),
               part / sums[n->player & 1]);
      text += cell;
    }
  }
  shell_print("OOP %.12g IP %.12g %s\n", sums[0], sums[1], text.c_str());
}

// calc_eq and calc_eq_pp: the game's ranges on the game's board, tree or not.
static bool game_equity(int32_t player, std::vector<double>& adv, std::vector<double>& match) {
  adv.assign(HandCount, 0.0);
  match.assign(HandCount, 0.0);
  const CardMask board = board_mask();
  if (Ranges[1 - player].size() != size_t(HandCount) || card_count(BoardFlop) != 3) return false;
  equity_kernel(board, Ranges[1 - player].data(), adv.data(), match.data());
  return true;
}

void cmd_calc_eq(const Tokens& t) {
  int32_t p = read_player(t, 1);
  std::vector<double> adv, match;
  game_equity(p, adv, match);
  print_equity_rows(adv.data(), match.data());
  shell_print("END\n");
}

void cmd_calc_eq_pp(const Tokens& t) {
  int32_t p = read_player(t, 1);
  std::vector<double> adv, match;
  if (game_equity(p, adv, match)) {
    for (int32_t h : hand_strength_order(board_mask(), Ranges[1 - p].data())) {
      int pair = HandToPair[h];
      double e = equity_of(adv[size_t(pair)], match[size_t(pair)]);
      shell_print("%s: %.2f; %.2f\n", hand_name(h).c_str(), 100.0 * e, match[size_t(pair)]);
    }
  }
  shell_print("END\n");
}

void cmd_calc_eq_node(const Tokens& t) {
  int32_t p = read_player(t, 1);
  if (!tree_ready()) return shell_print("END\n");
  Spot s = read_spot(t, 2, false);
  std::vector<double> other(HandCount), adv(HandCount), match(HandCount);
  range_at(*ActiveTree, s, 1 - p, other.data());
  equity_kernel(spot_board(*ActiveTree, s), other.data(), adv.data(), match.data());
  double num = 0, den = 0;
  for (int h = 0; h < HandCount; h++) {
    double e = equity_of(adv[size_t(h)], match[size_t(h)]);
    if (std::isnan(e)) continue;
    num += e * match[size_t(h)];
    den += match[size_t(h)];
  }
  print_equity_rows(adv.data(), match.data());
  shell_print("%.9g\n", num / den);
  shell_print("END\n");
}

void cmd_calc_ev_line(const Tokens& t) {
  read_player(t, 1);
  if (tree_ready()) read_spot(t, 2, false);
  std::vector<double> zeros(HandCount, 0.0), ones(HandCount, 1.0);
  print_row(zeros.data(), "%.9g", "nan");
  print_row(ones.data(), "%.9g", "0");
  shell_print("END\n");
}

static void print_frequency(const Tokens& t, bool global) {
  if (!tree_ready()) return shell_print("%.9g\n", 0.0);
  // Run-outs below a forgotten street have no strategies to weigh them.
  if (!global && ActiveTree->forgotten_street >= 0) return shell_print("1\n");
  Spot s = read_spot(t, 1, false);
  shell_print("%.9g\n", line_frequency(*ActiveTree, s, global));
}

void cmd_calc_line_freq(const Tokens& t) { print_frequency(t, false); }
void cmd_calc_global_freq(const Tokens& t) { print_frequency(t, true); }

// EV rows from the asked player's view, with half the starting pot added.
static bool ev_rows(const Tokens& t, std::vector<double>& ev, std::vector<double>& match, Spot& s) {
  ev.assign(HandCount, 0.0);
  match.assign(HandCount, 0.0);
  int32_t p = read_player(t, 1);
  if (!tree_ready()) return false;
  s = read_spot(t, 2, true);
  if (!spot_ev(*ActiveTree, s, p, ev.data(), match.data())) fail_command("incorrect path");
  for (double& v : ev)
    if (!std::isnan(v)) v += 0.5 * StartPot;
  return true;
}

void cmd_calc_ev(const Tokens& t) {
  std::vector<double> ev, match;
  Spot s;
  ev_rows(t, ev, match, s);
  print_row(ev.data(), "%.9g", "nan");
  print_row(match.data(), "%.9g", "0");
  shell_print("END\n");
}

void cmd_calc_ev_pp(const Tokens& t) {
  std::vector<double> ev, match;
  Spot s;
  if (ev_rows(t, ev, match, s)) {
    for (int32_t h : spot_strength_order(s)) {
      int pair = HandToPair[h];
      shell_print("%s: %.2f; %.2f\n", hand_name(h).c_str(), ev[size_t(pair)], match[size_t(pair)]);
    }
  }
  shell_print("END\n");
}

// ---- Locks ---------------------------------------------------------------------

static Spot lock_spot(const Tokens& t) {
  if (!tree_ready()) fail_command("missing/incorrect tree");
  if (SolverRunning) fail_command("Can't do that when solver is running");
  return read_spot(t, 1, true);
}

// 1326 values in HandIndex order from token `first` on, back in PairIndex order.
static std::vector<double> read_values(const Tokens& t, size_t first) {
  std::vector<double> v(HandCount, 0.0);
  for (int h = 0; h < HandCount && first + size_t(h) < t.size(); h++) v[HandToPair[h]] = parse_double(t[first + size_t(h)]);
  return v;
}

static void lock_command(const Tokens& t, bool locked) {
  Spot s = lock_spot(t);
  if (!set_cell_lock(*ActiveTree, s, locked)) fail_command("incorrect path");
  print_ok(t);
}

void cmd_lock_node(const Tokens& t) { lock_command(t, true); }
void cmd_unlock_node(const Tokens& t) { lock_command(t, false); }

void cmd_set_strategy(const Tokens& t) {
  Spot s = lock_spot(t);
  int32_t child = parse_int(t[2]);
  if (child < 0 || size_t(child) >= s.built->children.size()) fail_command("invalid child index");
  std::vector<double> v = read_values(t, 3);
  if (!write_strategy_row(*ActiveTree, s, child, v.data())) fail_command("incorrect path");
  print_ok(t);
}

void cmd_combo_lock_node(const Tokens& t) {
  Spot s = lock_spot(t);
  std::vector<double> v = read_values(t, 2);
  if (!set_combo_lock(*ActiveTree, s, v.data())) fail_command("incorrect path");
  print_ok(t);
}
