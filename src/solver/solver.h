// The solving library: the solving thread and its driver, the counterfactual
// regret iteration over the tree, parallel subgames and evaluation.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "core/core.h"
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

// The settings of a run: the team's size (set_threads) and the exploitability
// in chips at which it stops (set_accuracy, worked out by the shell).
extern int32_t ThreadCount;
extern double AccuracyTarget;
// Both, with SimdLevel, back to their start values (for tests).
void reset_solver_settings();

// The solving thread's run: its limit, its reports, the figures of the side
// lines, and the count of threads not yet past their last line.
struct RunState {
  int32_t limit = 0;  // seconds or steps; 0 seconds = no limit
  bool limit_is_steps = false;
  std::vector<SolverReport> reports;  // under report_lock
  std::mutex report_lock;
  int32_t last_reported = 0;  // reports printed so far
  double cpu_seconds = 0;
  // Time spent in iterations and the terminal hands they evaluated, for the
  // "#terminal hands" side line that benchmarks read.
  double iteration_seconds = 0;
  int64_t iteration_hands = 0;
  // Hands evaluated by the terminal kernels, for the benchmark's cost per
  // hand; one relaxed add per kernel call of about a thousand hands.
  std::atomic<int64_t> terminal_hands{0};
  // Solving threads not yet past their last line: a waiter wakes only when
  // "SOLVER: stopped" is out, while `go` may start anew as soon as
  // SolverRunning falls (so for a moment two threads may count here).
  int threads_busy = 0;  // under end_lock
  std::mutex end_lock;
  std::condition_variable end_signal;
};
extern RunState Run;

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
void cmd_forget(const Tokens& t);
void cmd_rebuild_forgotten_streets(const Tokens& t);  // also rebuild_all
void cmd_solve_all_splits(const Tokens& t);

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

inline void count_terminal_hands(int64_t hands) { Run.terminal_hands.fetch_add(hands, std::memory_order_relaxed); }

// What a MODE_PROBE walk hands every context outside the queueing pass to:
// visit(target, context), with the caller's own target. `chance`, if set, is
// asked first at every chance node (in every pass, the same answer each
// time): true when it filled the context's value itself, from values known
// for the present strategies, so that the cards below are not walked.
struct TraversalContext;
struct WalkProbe {
  void (*visit)(void* target, TraversalContext& ctx) = nullptr;
  void* target = nullptr;
  bool (*chance)(void* target, TraversalContext& ctx) = nullptr;
};
// One whole-tree walk for `player` in `mode`.
TraverseResult traverse(Tree& tree, int player, int mode, WalkProbe probe = {});
SolverResults results_now(Tree& tree);

// ---- Walk, subgames and evaluation ------------------------------------------
//
// Counterfactual regret minimisation (Zinkevich et al., "Regret Minimization in
// Games with Incomplete Information", 2007) in vector form, with alternating
// updates (player 1, then player 0), regrets floored at zero and moved by
// sign(d)|d|^0.75, and a delayed, polynomially weighted average strategy.
// The current policy (regret matching) does not converge to an equilibrium;
// only the average policy does, which is why evaluation plays the average.
//
// One pass carries one float per hand of the current board (a HandVector);
// an empty vector (no data) means all zeros and is how dead subtrees are
// skipped. The walk knows no cards: fold and showdown values come from the
// kernels, chance nodes only map hand lists through the board records.
#include <atomic>

// The passes of one walk: pass 0 walks down to the chance nodes and queues
// their subgames, pass 1 runs the subgames on the team, pass 2 walks the part
// above the chance nodes again with their results.
enum WalkPass : int32_t { PASS_QUEUE = 0, PASS_SUBGAMES = 1, PASS_COLLECT = 2 };

// The state of one whole-tree walk, owned by traverse() and reached from every
// context of it; a tree carries none of it, so reading a tree needs no walk.
struct WalkState {
  int32_t traverser = 0;
  int32_t mode = MODE_EVALUATE;
  WalkPass pass = PASS_QUEUE;
  bool river_average_now = true;  // training adds to the river sums this iteration
  WalkProbe probe;
};

// The single argument of the recursion.
struct TraversalContext {
  Tree* tree = nullptr;
  const WalkState* walk = nullptr;
  Node* node = nullptr;
  int32_t turn_cell = -1;   // turn BoardRecord in force, -1 none
  int32_t river_cell = -1;  // river BoardRecord under it, -1 none
  HandVector reach;         // in: the other player's reach, with card weights
  HandVector value;         // out: counterfactual value of each traverser hand
  HandVector own_reach;     // in: the traverser's reach; count 0 when unused
  HandVector br_value;      // out, evaluation only: best-response value
};

// Fills `value` (and `br_value` in evaluation) for the context's node.
void visit_node(TraversalContext& ctx);

// The skewed training default of a node with n actions: 90% on the first
// action. `out` gets n floats.
void default_strategy(const Node& node, float* out);

// The average-or-current rule. A tree plays its average strategy once its
// iteration count reaches `average_from` (or always, or never, by its
// average_policy). The walk switches at WalkAverageFrom; queries wait a few
// iterations longer, so that thin sums right after the switch don't show.
constexpr int32_t WalkAverageFrom = 61;
bool averages_in_use(const Tree& tree, int32_t average_from);
// Some compression levels add to the river sums only on a schedule of
// iterations; whether the tree's present iteration is on it.
bool river_sums_due(const Tree& tree);

// The strategy played outside training at a decision cell: the normalised
// average sums where the rule allows, with the current strategy for hands
// without sums, and the current strategy (uniform where it has nothing)
// before that. With `reach` given, hands whose reach is 0.0 may be left at
// 0.0 instead: only their product with the reach is used (the other player's
// node), and the current strategy is read only if a hand with reach needs it.
void played_strategy(const Tree& tree, const Node& node, int32_t turn_cell, int32_t river_cell,
                     HandVector* out, int32_t average_from, const float* reach = nullptr);

// One chance card below a chance node, run by a worker of the team. The four
// shared vectors belong to the chance node and are shared by all its cards.
struct SubgameShared {
  HandVector reach;      // the other player's reach at the chance node, parent order
  HandVector own_reach;  // count 0 when unused
  HandVector value_sum;  // where the parent's value accumulates (merge lock)
  HandVector br_sum;     // evaluation only
  bool has_own = false;
  bool has_br = false;
};
struct Subgame {
  TraversalContext context;  // tree, the chance node and this card's cells
  SubgameShared* shared = nullptr;
};


// Queues one Subgame per child card of the chance node in `ctx`.
void queue_subgames(TraversalContext& ctx);
// Runs the queued subgames on the OpenMP team (longest first in training).
void TraverseSubgames();
// Releases every queued record and its shared vectors.
void free_subgame_queue();

// Every whole-tree walk (solver passes, queries) holds this; it is recursive so
// that a query may hold it around a traverse of its own.
std::recursive_mutex& traversal_lock();

// Installs what the tree calls in the solver (SolverHooks); main does it once
// at start-up, test fixtures that build trees do it in their set-up.
void install_solver_hooks();
void reset_report_log();

// Materialises every store not yet ready, as the first run does; false at the
// first failure (nodes done so far stay done).
bool materialise_tree_stores(Tree& tree);
// Asks for the flat stores' pages written: the regret stores, or the sums.
void page_in_stores(Tree& tree, bool sums);

// The evaluation cache of the present tree; results_iteration -1 = none.
struct ResultsCache {
  int32_t results_iteration = -1;
  double mes[2] = {0, 0};
  double ev[2] = {0, 0};
  double exploitable = 0;
  double mean_ev = 0;
};
// The cache and the tree it belongs to, and a count of changes of strategies
// that leave the iteration count as it was, so that caches keyed by the
// iteration (here and in the queries) can tell.
// `records` says, per player, for which tree, iteration and generation a
// whole-tree evaluation of a complete tree last wrote the values of the
// street records: until either moves, they are the values a walk of the
// present strategies would find at those chance nodes.
struct RecordsStamp {
  const Tree* tree = nullptr;
  int32_t iteration = -1;
  uint32_t generation = 0;
};
struct EvaluationState {
  ResultsCache cache;
  const Tree* cache_tree = nullptr;
  std::atomic<uint32_t> store_generation{0};
  RecordsStamp records[2];
};
// Whether the street records hold the player's values for the tree as it is.
bool records_current(const Tree& tree, int32_t player);
extern EvaluationState Evaluation;
ResultsCache& results_cache();
// Runs both evaluation passes and fills the cache for the present iteration.
void refresh_results(Tree& tree);

// ---- Forgotten streets and subgames solved again ------------------------------
//
// forget_street drops the stores of `street` (3 rivers, 2 turns) and below,
// keeping at each entry into it the values of the last evaluation and the
// reaches to solve from; false when the tree's root lies on that street.
bool forget_street(Tree& tree, int32_t street);
// Empty stores for every forgotten node; false when memory runs out.
bool rebuild_streets(Tree& tree);
// Solves every entry into `street` from its kept reach, with as many
// iterations as the tree has had; false without stores or with the tree
// still incomplete.
bool SolveSubgames(Tree& tree, int32_t street);
// On a forgotten street of a tree not rebuilt since: its stores may be gone.
bool node_forgotten(const Tree& tree, const Node& node);
// Solves the subgame that holds the node on the board of the cells, from the
// reaches its root gets from above, for up to 1000 iterations or until its
// exploitability (chips per pair of hands) is at most accuracy[street - 1]
// of its root; returns that exploitability. Without `force` a subgame
// already solved since the last forget returns 0 at once.
double resolve_node(Tree& tree, Node& node, int32_t turn_cell, int32_t river_cell, bool force,
                    const double accuracy[3]);
// A MODE_PROBE walk of the subgame that holds `target`, for the player.
void probe_forgotten(Tree& tree, Node& target, int32_t turn_cell, int32_t river_cell, int32_t player,
                     WalkProbe probe);
void forget_resolve_marks();

// ---- State ---------------------------------------------------------------------
// What the solver keeps between calls, one record per concern: the run
// (RunState), the evaluation (EvaluationState), and inside the walk the
// queued subgames, the tree's facts and the subgames solved again (walk.h).
// All are defined in solver_state.cpp. Every record back to its start, the
// tree's caches dropped; the solver must be stopped (for tests).
void reset_solver_state();
