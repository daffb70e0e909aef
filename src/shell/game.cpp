// The process-wide game description and the solver settings that commands store.
#include <cfloat>
#include <cmath>
#include <omp.h>

#include "shell/shell.h"

Range Ranges[2];
double RangeMin[2] = {DBL_MAX, DBL_MAX}, RangeMax[2] = {-DBL_MAX, -DBL_MAX};
CardMask BoardFlop = 0, BoardTurn = 0, BoardRiver = 0;
double PotOop = 0, PotIp = 0, StartPot = 100;
bool IsomorphismFlop = true, IsomorphismTurn = false;
double RakeFraction = 0, RakeCap = 0;
int32_t EffectiveStack = 0;
bool TreePresent = false;
const char* const PlayerNames[2] = {"OOP", "IP"};

int32_t ThreadCount = omp_get_max_threads();
double AccuracyValue = 0;
bool AccuracyIsFraction = false;
double AccuracyTarget = 0;
double RecalcAccuracy[3] = {0, 0, 0};
int32_t SimdLevel = 8;
double Precision = 0;
bool AdaptivePrecision = true;
bool UseAvx512 = false;
bool RiverStrategyEnabled = true;
int32_t Scheduler = 1;
std::atomic<bool> SolverRunning{false};
std::atomic<bool> SolverStopRequested{false};

int player_from_token(const std::string& token) {
  if (token == "OOP" || token == "hero") return 0;
  if (token == "IP" || token == "villain") return 1;
  return -1;
}

CardMask board_mask() { return BoardFlop | BoardTurn | BoardRiver; }

void recompute_accuracy_target() {
  AccuracyTarget = AccuracyIsFraction ? AccuracyValue * StartPot : AccuracyValue;
}

void check_range_consistency() {
  for (int player = 0; player < 2; player++) {
    const Range& r = Ranges[player];
    if (r.size() != HandCount) continue;
    for (const auto& bucket : ShapeBuckets) {
      int ref = -1;
      for (uint16_t p : bucket) {
        if (PairMasks[p] & BoardFlop) continue;
        if (ref < 0) {
          // A negative reference is not kept: the next pair becomes the reference.
          if (r[p] >= 0) ref = p;
          continue;
        }
        if (std::fabs(r[p] - r[ref]) > 2.220446049250313e-16) {
          char msg[256];
          snprintf(msg, sizeof msg,
                   "inconsistent range: %s P(%s) == %.2g, P(%s) == %.2g, use 'set_isomorphism 0 0' if intended",
                   PlayerNames[player], pair_text(ref).c_str(), r[ref], pair_text(p).c_str(), r[p]);
          fail_command(msg);
        }
      }
    }
  }
}

void reset_game_state() {
  for (int p = 0; p < 2; p++) {
    Ranges[p].clear();
    RangeMin[p] = DBL_MAX;
    RangeMax[p] = -DBL_MAX;
  }
  BoardFlop = BoardTurn = BoardRiver = 0;
  PotOop = PotIp = 0;
  StartPot = 100;
  IsomorphismFlop = true;
  IsomorphismTurn = false;
  RakeFraction = RakeCap = 0;
  EffectiveStack = 0;
  ThreadCount = omp_get_max_threads();
  AccuracyValue = 0;
  AccuracyIsFraction = false;
  AccuracyTarget = 0;
  RecalcAccuracy[0] = RecalcAccuracy[1] = RecalcAccuracy[2] = 0;
  SimdLevel = 8;
  Precision = 0;
  AdaptivePrecision = true;
  UseAvx512 = false;
  RiverStrategyEnabled = true;
  Scheduler = 1;
  LowCardIndex = 0;
  MustUseHoleCards = 0;
  reset_hand_type_order();
  SkipLabel.clear();
  TreeInfoLines.clear();
}
