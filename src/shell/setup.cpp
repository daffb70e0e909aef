// Game set-up commands and the solver settings they store.
#include <cfloat>
#include <omp.h>

#include "analysis/analysis.h"
#include "shell/shell.h"
#include "solver/kernels/kernels.h"
#include "solver/solver.h"
#include "tree/tree.h"

double RakeFraction = 0, RakeCap = 0;
int32_t Scheduler = 1;
double AccuracyValue = 0;
bool AccuracyIsFraction = false;

void recompute_accuracy_target() {
  AccuracyTarget = AccuracyIsFraction ? AccuracyValue * StartPot : AccuracyValue;
}

void cmd_answer_only(const Tokens& t) { print_ok(t); }

void cmd_set_range(const Tokens& t) {
  int player = player_from_token(t[1]);
  if (player < 0) fail_command("incorrect player name");
  // Read every number before the old range goes, so a bad token changes nothing.
  Range r(HandCount);
  for (int p = 0; p < HandCount; p++) r[p] = parse_double(t[2 + PairToHand[p]]);
  double lo = DBL_MAX, hi = -DBL_MAX;
  int nonzero = 0, rounded = 0;
  for (int p = 0; p < HandCount; p++) {
    double& w = r[p];
    if (w > 0 && w < 1e-05) {
      w = 0;
      rounded++;
    }
    if (LowCardIndex > 0 && (RankOf(PairHi[p]) < LowCardIndex || RankOf(PairLo[p]) < LowCardIndex)) w = 0;
    if (w < lo) lo = w;
    if (w > hi) hi = w;
    if (w > 0) nonzero++;
  }
  Ranges[player] = std::move(r);
  RangeMin[player] = lo;
  RangeMax[player] = hi;
  if (Verbosity > 0) shell_print("[set_range min %.8g max %.8g nonzero %d rtz %d]\n", lo, hi, nonzero, rounded);
  print_ok(t);
}

static bool below_low_card(CardMask m) {
  for (int c = 0; c < 52; c++)
    if ((m & CardBit(c)) && RankOf(Card(c)) < LowCardIndex) return true;
  return false;
}

void cmd_set_board(const Tokens& t) {
  if (t.size() < 4 || t.size() > 6) fail_argument(t[0]);
  CardMask flop = parse_cards(t[1]) | parse_cards(t[2]) | parse_cards(t[3]);
  if (card_count(flop) != 3) fail_argument(t[0]);
  CardMask turn = 0, river = 0;
  if (t.size() >= 5) {
    turn = parse_cards(t[4]);
    if (card_count(turn) != 1) fail_argument(t[0]);
  }
  if (t.size() >= 6) {
    river = parse_cards(t[5]);
    if (card_count(river) != 1) fail_argument(t[0]);
  }
  BoardFlop = flop;
  BoardTurn = turn;
  BoardRiver = river;
  if (size_t(card_count(flop | turn | river)) != t.size() - 1) fail_command("duplicate cards");
  if (below_low_card(flop | turn | river)) fail_command("invalid card");
  print_ok(t);
}

static void print_accuracy() {
  if (Verbosity > 0)
    shell_print("[accuracy %.6g (%.6g fraction)]\n", AccuracyTarget,
                AccuracyIsFraction ? AccuracyValue : AccuracyValue / StartPot);
}

void cmd_set_pot(const Tokens& t) {
  double oop = parse_int(t[1]), ip = parse_int(t[2]), start = parse_int(t[3]);
  PotOop = oop;
  PotIp = ip;
  StartPot = start;
  recompute_accuracy_target();
  print_accuracy();
  print_ok(t);
}

void cmd_set_accuracy(const Tokens& t) {
  if (t.size() < 2) fail_argument(t[0]);
  double v = parse_double(t[1]);
  if (v < 0) fail_argument(t[0]);
  AccuracyValue = v;
  AccuracyIsFraction = t.size() >= 3 && t[2] == "fraction";
  recompute_accuracy_target();
  print_accuracy();
  print_ok(t);
}

void cmd_show_effective_stack(const Tokens&) {
  if (!TreePresent) fail_command("missing/incorrect tree");
  shell_print("%d\n", EffectiveStack);
}

void cmd_set_rake(const Tokens& t) {
  double share = parse_double(t[1]), cap = parse_double(t[2]);
  if (!(share >= 0.0 && share <= 1.0) || !(cap >= 0)) fail_argument(t[0]);
  RakeFraction = share;
  RakeCap = cap;
  print_ok(t);
}

void cmd_set_isomorphism(const Tokens& t) {
  IsomorphismFlop = t[1] != "0";
  IsomorphismTurn = t[2] != "0";
  print_ok(t);
}

void cmd_set_threads(const Tokens& t) {
  int n = parse_int(t[1]);
  ThreadCount = n < 1 ? omp_get_max_threads() : n;
  print_ok(t);
}

void cmd_set_recalc_accuracy(const Tokens& t) {
  double v[3];
  for (int i = 0; i < 3; i++) v[i] = parse_double(t[1 + i]);
  for (int i = 0; i < 3; i++) RecalcAccuracy[i] = v[i] * StartPot;
  print_ok(t);
}

void cmd_set_simd_level(const Tokens& t) {
  int n = parse_int(t[1]);
  if (n < 1 || n > 8) fail_argument(t[0]);
  SimdLevel = n;
  print_ok(t);
}

void cmd_set_precision(const Tokens& t) {
  double v = parse_double(t[1]);
  if (!(v >= -2.0 && v <= 2.0)) fail_argument(t[0]);
  Precision = v;
  print_ok(t);
}

// Flags are tested as text first: anything but "0" or "1" is a bad argument.
static bool read_flag(const Tokens& t) {
  if (t[1] != "0" && t[1] != "1") fail_argument(t[0]);
  return t[1] == "1";
}

void cmd_enable_adaptive_precision(const Tokens& t) {
  AdaptivePrecision = read_flag(t);
  print_ok(t);
}

void cmd_enable_avx512(const Tokens& t) {
  UseAvx512 = read_flag(t);
  print_ok(t);
}

void cmd_enable_river_strategy(const Tokens& t) {
  RiverStrategyEnabled = read_flag(t);
  print_ok(t);
}

void cmd_set_scheduler(const Tokens& t) {
  int n = parse_int(t[1]);
  if (n < 0 || n > 2) fail_argument(t[0]);
  Scheduler = n;
  print_ok(t);
}
