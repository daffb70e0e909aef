// What the queries keep between calls, in one place.
#include "analysis/analysis.h"

AnalysisState Analysis;
double RecalcAccuracy[3] = {0, 0, 0};

void reset_analysis_state() {
  Analysis.ev_probes.clear();
  clear_ev_cache();
  EvCacheBudget = int64_t(256) << 20;
  RecalcAccuracy[0] = RecalcAccuracy[1] = RecalcAccuracy[2] = 0;
}
