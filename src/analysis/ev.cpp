// Values of hands at a node: one probe walk of the whole tree for the asked
// player, which hands the context of the target node and board over.
#include <cmath>
#include <mutex>

#include "analysis/analysis.h"
#include "solver/solver.h"

namespace {

struct ProbeTarget {
  const Node* node = nullptr;
  int32_t turn_cell = -1, river_cell = -1;
  std::mutex lock;  // the target may be met on a worker of the team
  bool found = false;
  std::vector<float> value, reach;
};
ProbeTarget Probe;

void probe_visit(TraversalContext& ctx) {
  if (ctx.node != Probe.node || ctx.turn_cell != Probe.turn_cell || ctx.river_cell != Probe.river_cell) return;
  std::lock_guard<std::mutex> guard(Probe.lock);
  const int32_t n = ctx.value.count;
  Probe.value.assign(size_t(n), 0.0f);
  Probe.reach.assign(size_t(n), 0.0f);
  if (ctx.value.data) std::copy(ctx.value.data, ctx.value.data + n, Probe.value.begin());
  if (ctx.reach.data && ctx.reach.count == n) std::copy(ctx.reach.data, ctx.reach.data + n, Probe.reach.begin());
  Probe.found = true;
}

// Results of the last probes, valid for one iteration count of one tree.
struct EvCacheEntry {
  const Tree* tree;
  const Node* node;
  int32_t turn_cell, river_cell, player, iteration;
  uint32_t generation;
  std::vector<float> value, reach;
};
std::vector<EvCacheEntry> EvCache;

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
    for (auto it = EvCache.begin(); it != EvCache.end();) {
      if (it->tree != &t || it->iteration != t.iteration || it->generation != StoreGeneration)
        it = EvCache.erase(it);
      else ++it;
    }
    for (const EvCacheEntry& e : EvCache)
      if (e.node == &node && e.turn_cell == tc && e.river_cell == rc && e.player == player) {
        value = e.value;
        reach = e.reach;
      }
    if (value.empty()) {
      Probe.node = &node;
      Probe.turn_cell = tc;
      Probe.river_cell = rc;
      Probe.found = false;
      // Below a forgotten street only the target's own subgame is there.
      if (node_forgotten(t, node)) {
        open_forgotten(t, node, cell);
        probe_forgotten(t, node, tc, rc, player, probe_visit);
      } else {
        traverse(t, player, MODE_PROBE, probe_visit);
      }
      Probe.node = nullptr;
      if (!Probe.found) return true;
      value = std::move(Probe.value);
      reach = std::move(Probe.reach);
      EvCache.push_back({&t, &node, tc, rc, player, t.iteration, StoreGeneration, value, reach});
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
