// What the queries keep between calls, in one place.
#include "analysis/analysis.h"

AnalysisState Analysis;

void reset_analysis_state() { Analysis.ev_probes.clear(); }
