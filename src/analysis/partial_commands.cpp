// Partial solving by command: the subgame that holds a node is solved again
// from the ranges that reach it, until the recalc accuracy of its street.
#include "analysis/analysis.h"
#include "core/core.h"
#include "solver/solver.h"

namespace {

double resolve_path(const Tokens& t) {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  if (SolverRunning) fail_command("Can't do that when solver is running");
  NodePath ref = parse_path(t.size() > 1 && !t[1].empty() ? t[1] : std::string("r:0"));
  if (!ref.node || !ref.built || ref.at_split) fail_command("incorrect path");
  Spot s{ref.node, ref.built, ref.turn_card, ref.river_card};
  SpotCell cell;
  if (!spot_cell(*ActiveTree, s, cell)) fail_command("incorrect path");
  return resolve_node(*ActiveTree, *s.built, cell.turn_cell, cell.river_cell, true, RecalcAccuracy);
}

}  // namespace

void cmd_solve_partial(const Tokens& t) {
  resolve_path(t);
  print_ok(t);
}

void cmd_explo_partial(const Tokens& t) { shell_print("%.6g\n", resolve_path(t)); }
