// PLACEHOLDER written by the lead so the program links while the iteration is
// being written: replace this whole file (run_iteration, traverse and
// results_now are declared in solver.h).
#include "solver/solver.h"

void run_iteration(Tree& tree) {
  tree.iteration++;
  tree.flags &= ~uint32_t(NEW_TREE);
}

TraverseResult traverse(Tree&, int, int) { return {0.0, 0.0}; }

SolverResults results_now(Tree& tree) { return {0, 0, 0, 0, 0, tree.iteration}; }
