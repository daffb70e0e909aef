// The solving library: the solving thread and its driver, the counterfactual
// regret iteration over the tree, parallel subgames and evaluation.
#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "shell/shell.h"
#include "tree/tree.h"

// ---- Driver ---------------------------------------------------------------

// One evaluation of a run; amounts relative to the middle of the pot.
struct SolverReport {
  int32_t iteration;
  double seconds;
  double ev0, ev1;    // value of the average strategies for OOP and IP
  double mes0, mes1;  // value of a best response of OOP and IP
  double exploitable; // (mes0 + mes1 - ev0 - ev1) / 2
};

constexpr int32_t ReportPeriod = 25;  // iterations between evaluation chances

extern int32_t SolverLimit;  // seconds or steps; 0 seconds = no limit
extern bool LimitIsSteps;
extern std::vector<SolverReport> ReportLog;
extern std::mutex ReportLock;
extern int32_t LastReportedCount;
extern double CpuSeconds;

// Makes the OpenMP team exist before the first command.
void libsubgame_init(int n);
bool solver_running();
bool tree_is_complete();
void request_stop();
void wait_for_end();
std::vector<SolverReport> copy_reports();
void print_report();
// Materialises the stores and starts the solving thread; false when a store
// can't be allocated (or a run exists, or the tree is incomplete).
// `before_start` runs on the caller's thread just before the thread starts.
bool start_solver(int32_t limit, bool limit_is_steps, void (*before_start)() = nullptr);

void cmd_go(const Tokens& t);
void cmd_stop(const Tokens& t);
void cmd_wait_for_solver(const Tokens& t);
void cmd_calc_results(const Tokens& t);

// ---- Iteration and evaluation (what the driver calls) -----------------------

// Values of one evaluation pass for one player, relative to the middle of the
// pot: the best response's value and the average strategies' value.
struct TraverseResult {
  double mes;
  double ev;
};

// The results of the present strategies, cached by iteration.
struct SolverResults {
  double ev0, ev1, mes0, mes1, exploitable;
  int32_t iteration;
};

void run_iteration(Tree& tree);
TraverseResult traverse(Tree& tree, int player, int mode);
SolverResults results_now(Tree& tree);
