// The solver's state between calls, all in one place: one record per
// concern, and the one reset that puts them all back.
#include "solver/solver.h"
#include "solver/walk.h"

RunState Run;
EvaluationState Evaluation;
SubgameState Subgames;
TreeFacts Facts;
ForgetState Forgetting;

void reset_solver_state() {
  // What a freed tree takes along: the queue, the facts, the caches and the
  // marks of subgames solved again.
  std::lock_guard<std::recursive_mutex> guard(Subgames.traversal_lock);
  free_subgame_queue();
  Subgames.run_order.clear();
  Subgames.records.clear();
  Subgames.shared.clear();
  Subgames.done_count = 0;
  forget_tree_facts();
  forget_results_cache();
  forget_resolve_marks();
  Evaluation.store_generation = 0;
  // The run.
  reset_report_log();
  Run.limit = 0;
  Run.limit_is_steps = false;
  Run.last_reported = 0;
  Run.cpu_seconds = 0;
  Run.iteration_seconds = 0;
  Run.iteration_hands = 0;
  Run.terminal_hands = 0;
}
