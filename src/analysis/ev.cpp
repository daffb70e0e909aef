// Values of hands at a node: one probe walk of the whole tree for the asked
// player, which hands the context of the target node and board over.
#include <cmath>
#include <mutex>

#include "analysis/analysis.h"
#include "solver/solver.h"

namespace {

// The node and board a probe walk looks for, and what it found there.
struct ProbeTarget {
  const Node* node = nullptr;
  int32_t turn_cell = -1, river_cell = -1;
  std::mutex lock;  // the target may be met on a worker of the team
  bool found = false;
  std::vector<float> value, reach;
};

void probe_visit(void* target, TraversalContext& ctx) {
  ProbeTarget& probe = *static_cast<ProbeTarget*>(target);
  if (ctx.node != probe.node || ctx.turn_cell != probe.turn_cell || ctx.river_cell != probe.river_cell) return;
  std::lock_guard<std::mutex> guard(probe.lock);
  const int32_t n = ctx.value.count;
  probe.value.assign(size_t(n), 0.0f);
  probe.reach.assign(size_t(n), 0.0f);
  if (ctx.value.data) std::copy(ctx.value.data, ctx.value.data + n, probe.value.begin());
  if (ctx.reach.data && ctx.reach.count == n) std::copy(ctx.reach.data, ctx.reach.data + n, probe.reach.begin());
  probe.found = true;
}

}  // namespace

bool spot_ev(Tree& t, const Spot& s, int32_t player, double* ev, double* matchups) {
  for (int h = 0; h < HandCount; h++) ev[h] = std::nan(""), matchups[h] = 0.0;
  Node& node = *s.built;
  SpotCell cell;
  if (!spot_cell(t, s, cell)) return false;
  const int32_t tc = cell.turn_cell, rc = cell.river_cell;

  std::vector<float> value, reach;
  {
    std::lock_guard<std::recursive_mutex> guard(traversal_lock());
    if (!materialise_tree_stores(t)) return true;
    std::vector<EvProbeResult>& cache = Analysis.ev_probes;
    for (auto it = cache.begin(); it != cache.end();) {
      if (it->tree != &t || it->iteration != t.iteration || it->generation != Evaluation.store_generation)
        it = cache.erase(it);
      else ++it;
    }
    for (const EvProbeResult& e : cache)
      if (e.node == &node && e.turn_cell == tc && e.river_cell == rc && e.player == player) {
        value = e.value;
        reach = e.reach;
      }
    if (value.empty()) {
      ProbeTarget target;
      target.node = &node;
      target.turn_cell = tc;
      target.river_cell = rc;
      const WalkProbe probe{probe_visit, &target};
      // Below a forgotten street only the target's own subgame is there.
      if (node_forgotten(t, node)) {
        open_forgotten(t, node, cell);
        probe_forgotten(t, node, tc, rc, player, probe);
      } else {
        traverse(t, player, MODE_PROBE, probe);
      }
      if (!target.found) return true;
      value = std::move(target.value);
      reach = std::move(target.reach);
      cache.push_back({&t, &node, tc, rc, player, t.iteration, Evaluation.store_generation, value, reach});
    }
  }
  // Matchups: the opponent's reach over the hands sharing no card, by card sums.
  const BoardView& view = cell.view;
  const int32_t n = std::min(view.count, int32_t(value.size()));
  double total = 0, card[52] = {};
  for (int32_t i = 0; i < n; i++) {
    if (!(reach[size_t(i)] > 0.0f)) continue;
    total += reach[size_t(i)];
    card[view.packed[i] & 0xff] += reach[size_t(i)];
    card[view.packed[i] >> 8] += reach[size_t(i)];
  }
  std::vector<double> hand_ev(size_t(view.count), std::nan("")), met(size_t(view.count), 0.0);
  for (int32_t i = 0; i < n; i++) {
    const double own = reach[size_t(i)] > 0.0f ? reach[size_t(i)] : 0.0;
    met[size_t(i)] = total - card[view.packed[i] & 0xff] - card[view.packed[i] >> 8] + own;
    if (met[size_t(i)] > 1e-12 * (total > 0 ? total : 1)) hand_ev[size_t(i)] = value[size_t(i)] / met[size_t(i)];
  }
  expand_board_list(hand_ev.data(), view.pairPosition, cell.cards.map, std::nan(""), ev);
  expand_board_list(met.data(), view.pairPosition, cell.cards.map, 0.0, matchups);
  return true;
}
