// Commands that drop a street of a solved tree, bring its stores back and
// solve it again.
#include "core/core.h"
#include "solver/solver.h"

namespace {

// The tree, with no run on it: the stores these commands drop or remake are
// the ones a running solver walks.
Tree& idle_tree() {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  if (SolverRunning) fail_command("Can't do that when solver is running");
  return *ActiveTree;
}

// "rivers" or "turns", compared in that order; 3 or 2.
int32_t street_word(const Tokens& t) {
  if (t.size() > 1 && t[1] == "rivers") return 3;
  if (t.size() > 1 && t[1] == "turns") return 2;
  fail_argument(t[0]);
}

}  // namespace

void cmd_forget(const Tokens& t) {
  const int32_t street = street_word(t);
  // A tree rooted on the street has nothing above it to keep.
  if (!forget_street(idle_tree(), street)) fail_argument(t[0]);
  print_ok(t);
}

void cmd_rebuild_forgotten_streets(const Tokens& t) {
  if (!rebuild_streets(idle_tree())) fail_command("out of memory");
  print_ok(t);
}

void cmd_solve_all_splits(const Tokens& t) {
  const int32_t street = street_word(t);
  Tree& tree = idle_tree();
  if (!tree_is_complete()) fail_command("incomplete tree");
  if (!SolveSubgames(tree, street)) fail_argument(t[0]);
  print_ok(t);
}
