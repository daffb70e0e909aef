// Values of hands at a node. On a complete tree one walk per player answers a
// whole page: it keeps the value and reach of every flop node, and when asked
// for a later street of every turn node on every card. The chance nodes it
// need not open give their values from the street records of an evaluation
// of the present strategies, or from an earlier walk of them; without either,
// a walk for a deeper node opens only what lies below that node's entry. A
// tree with a forgotten street goes the old way: one probe walk per node.
#include <cmath>
#include <cstring>
#include <mutex>

#include "analysis/analysis.h"
#include "solver/walk.h"

EvCache EvValues;
int64_t EvCacheBudget = int64_t(256) << 20;

namespace {

// ---- The cache ---------------------------------------------------------------------

// n values, zeros for an empty vector.
void copy_or_zeros(std::vector<float>& to, const float* from, int32_t n) {
  if (from)
    to.assign(from, from + n);
  else
    to.assign(size_t(n), 0.0f);
}

uint64_t context_key(int32_t node, int32_t tc, int32_t rc) {
  return (uint64_t(uint32_t(node)) << 16) | (uint64_t(tc + 1) << 8) | uint64_t(rc + 1);
}

constexpr int64_t BlockFloats = int64_t(1) << 20;  // 4 MB a block

// Room for n floats in the player's blocks; null past the budget unless forced.
float* cache_room(EvPlayerValues& p, int32_t n, bool force) {
  if (n <= 0) return nullptr;
  if (!force && ev_cache_bytes() + int64_t(n) * 4 > EvCacheBudget) return nullptr;
  if (p.blocks.empty() || p.used + n > BlockFloats) {
    p.blocks.push_back(std::make_unique<float[]>(size_t(std::max<int64_t>(BlockFloats, n))));
    p.used = 0;
  }
  float* at = p.blocks.back().get() + p.used;
  p.used += n;
  return at;
}

// Keeps a vector: null data stays "empty".
bool keep_values(EvPlayerValues& p, const HandVector& v, int32_t count, bool force, const float*& out) {
  out = nullptr;
  if (!v.data) return true;
  float* at = cache_room(p, count, force);
  if (!at) return false;
  memcpy(at, v.data, size_t(count) * sizeof(float));
  out = at;
  return true;
}

void clear_values(EvPlayerValues& p) {
  p.contexts.clear();
  p.chance.clear();
  p.blocks.clear();
  p.used = 0;
}

// Drops what was kept for another tree, iteration or generation.
void check_cache(const Tree& t) {
  const uint32_t generation = Evaluation.store_generation;
  if (EvValues.tree == &t && EvValues.iteration == t.iteration && EvValues.generation == generation) return;
  for (EvPlayerValues& p : EvValues.players) clear_values(p);
  EvValues.tree = &t;
  EvValues.iteration = t.iteration;
  EvValues.generation = generation;
}

// ---- One walk for a page ----------------------------------------------------------

struct PageWalk {
  Tree* tree = nullptr;
  int32_t player = 0;
  bool records = false;        // the street records hold this player's values
  int32_t keep_street = 2;     // contexts kept up to this street
  bool open_turns = false;     // walk every turn card, for a node on the turn or river
  const Node* target = nullptr;
  int32_t turn_cell = -1, river_cell = -1;
  // A river target: the river entry above it, whose cards are walked, and
  // the end of its subtree; every context there is kept as well.
  const Node* river_entry = nullptr;
  int32_t river_end = -1;
  // Without current records, only the chance nodes whose values can reach
  // the node asked are walked: those in the subtree from `region` to
  // `region_end` (on `region_turn` alone, unless -1). The others count as
  // zeros, so only contexts inside are right and kept.
  bool whole = true;
  int32_t region = 0, region_end = 0, region_turn = -1;
  std::mutex lock;  // visits come from the workers of the team
  EvPlayerValues* values = nullptr;
};

bool in_region(const PageWalk& w, const TraversalContext& ctx) {
  if (w.whole) return true;
  const int32_t i = node_index(*w.tree, *ctx.node);
  return i >= w.region && i < w.region_end && (w.region_turn < 0 || ctx.turn_cell == w.region_turn);
}

bool chance_context(const TraversalContext& ctx) {
  const Node& n = *ctx.node;
  return (n.street > 1 && ctx.turn_cell < 0) || (n.street == 3 && ctx.river_cell < 0);
}

int32_t chance_count(const Tree& t, int32_t tc) {
  const BoardTree& b = *t.boards;
  return tc < 0 ? int32_t(b.holes.size()) : int32_t(b.children[size_t(tc)].holes.size());
}

// The value of a chance node for the present strategies, if known: the street
// record of an evaluation, else what an earlier walk found. `known` false: not
// known; a known null pointer is a value of zeros that the walk keeps empty.
const float* known_chance(PageWalk& w, const TraversalContext& ctx, bool& known) {
  known = false;
  const Node& n = *ctx.node;
  const int32_t count = chance_count(*w.tree, ctx.turn_cell);
  if (w.records && n.kind == NODE_DECISION && n.street_records) {
    const int32_t slot = ctx.turn_cell < 0 ? 0 : ctx.turn_cell;
    if (slot < n.street_record_count) {
      const HandVector& v = n.street_records[slot].value[w.player];
      if (v.data && v.count == count) {
        known = true;
        return v.data;
      }
    }
  }
  auto it = w.values->chance.find(context_key(node_index(*w.tree, n), ctx.turn_cell, -1));
  if (it == w.values->chance.end()) return nullptr;
  known = true;
  return it->second.value;
}

bool page_chance(void* target, TraversalContext& ctx) {
  PageWalk& w = *static_cast<PageWalk*>(target);
  const bool turn = ctx.turn_cell < 0;
  // For a later street every turn card is walked: the page's cards and the
  // nodes below them. A flop node takes the turn values as known.
  if (turn && ctx.node->street == 2 && w.open_turns) return false;
  if (!turn && ctx.node == w.river_entry && ctx.turn_cell == w.turn_cell) return false;
  bool known;
  const float* v;
  {
    std::lock_guard<std::mutex> guard(w.lock);
    v = known_chance(w, ctx, known);
  }
  if (!known && in_region(w, ctx)) return false;
  // As the walk leaves it: a turn node's sums always have data, a river
  // node without reach has none. Outside the region, zeros.
  const int32_t count = chance_count(*w.tree, ctx.turn_cell);
  if (!turn && !ctx.reach.data) {
    make_empty(ctx.value, count);
    return true;
  }
  alloc_vector(ctx.value, count, v == nullptr);
  if (v) memcpy(ctx.value.data, v, size_t(count) * sizeof(float));
  return true;
}

void page_visit(void* target, TraversalContext& ctx) {
  PageWalk& w = *static_cast<PageWalk*>(target);
  Tree& t = *w.tree;
  const Node& n = *ctx.node;
  const int32_t index = node_index(t, n);
  const int32_t count = ctx.value.count;
  // Every context of the walk comes here: the lock only for what is kept.
  if (!in_region(w, ctx)) return;
  EvPlayerValues& p = *w.values;
  if (chance_context(ctx)) {
    // A chance node the walk opened: its value serves later walks.
    std::lock_guard<std::mutex> guard(w.lock);
    bool known;
    known_chance(w, ctx, known);
    if (known) return;
    EvChance c;
    c.count = count;
    if (!keep_values(p, ctx.value, count, false, c.value)) return;
    p.chance.emplace(context_key(index, ctx.turn_cell, -1), c);
    return;
  }
  const bool asked = &n == w.target && ctx.turn_cell == w.turn_cell && ctx.river_cell == w.river_cell;
  const bool below_entry = w.river_entry && ctx.turn_cell == w.turn_cell && index >= node_index(t, *w.river_entry) &&
                           index < w.river_end;
  if (!asked && (n.kind != NODE_DECISION || (!below_entry && n.street > w.keep_street))) return;
  std::lock_guard<std::mutex> guard(w.lock);
  const uint64_t key = context_key(index, ctx.turn_cell, ctx.river_cell);
  if (p.contexts.count(key)) return;
  EvContext e;
  e.count = count;
  const bool reach = ctx.reach.data && ctx.reach.count == count;
  if (!keep_values(p, ctx.value, count, asked, e.value)) return;
  if (reach && !keep_values(p, ctx.reach, count, asked, e.reach)) return;
  p.contexts.emplace(key, e);
}

// The first river node of the line to a river node.
const Node* river_entry(const Node& node) {
  const Node* e = &node;
  while (e->parent && e->parent->street == 3) e = e->parent;
  return e;
}

void page_walk(Tree& t, Node& node, int32_t tc, int32_t rc, int32_t player) {
  PageWalk w;
  w.tree = &t;
  w.player = player;
  w.records = records_current(t, player);
  w.keep_street = std::max(2, t.nodes[0].street);
  w.open_turns = node.street >= 2;
  w.target = &node;
  w.turn_cell = tc;
  w.river_cell = rc;
  w.values = &EvValues.players[player];
  prepare_tree_facts(t);
  const int32_t root_street = t.nodes[0].street;
  if (node.street == 3 && rc >= 0 && root_street < 3) {
    w.river_entry = river_entry(node);
    w.river_end = Facts.node[size_t(node_index(t, *w.river_entry))].end;
  }
  // The region: the node's own subtree on the flop, all cards of its turn
  // entry on the turn, its river entry on the river card asked.
  if (!w.records && node.street > root_street) {
    const Node* r = &node;
    if (node.street == 2 && tc >= 0)
      while (r->parent && r->parent->street == 2) r = r->parent;
    if (w.river_entry) r = w.river_entry;
    w.whole = false;
    w.region = node_index(t, *r);
    w.region_end = Facts.node[size_t(w.region)].end;
    w.region_turn = w.river_entry ? tc : -1;
  } else if (!w.records && node.street == 1 && &node != &t.nodes[0]) {
    w.whole = false;
    w.region = node_index(t, node);
    w.region_end = Facts.node[size_t(w.region)].end;
  }
  WalkProbe probe;
  probe.visit = page_visit;
  probe.target = &w;
  probe.chance = page_chance;
  traverse(t, player, MODE_PROBE, probe);
}

// ---- The old way, for a tree with a forgotten street --------------------------------

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
  copy_or_zeros(probe.value, ctx.value.data, n);
  copy_or_zeros(probe.reach, ctx.reach.count == n ? ctx.reach.data : nullptr, n);
  probe.found = true;
}

// False: the walk never met the node.
bool probe_values(Tree& t, Node& node, const SpotCell& cell, int32_t player, std::vector<float>& value,
                  std::vector<float>& reach) {
  const int32_t tc = cell.turn_cell, rc = cell.river_cell;
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
      return true;
    }
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
  if (!target.found) return false;
  value = std::move(target.value);
  reach = std::move(target.reach);
  cache.push_back({&t, &node, tc, rc, player, t.iteration, Evaluation.store_generation, value, reach});
  return true;
}

}  // namespace

int64_t ev_cache_bytes() {
  int64_t bytes = 0;
  for (const EvPlayerValues& p : EvValues.players) {
    bytes += int64_t(p.blocks.size()) * BlockFloats * int64_t(sizeof(float));
    bytes += int64_t(p.contexts.size() + p.chance.size()) * 64;  // the maps' nodes, roughly
  }
  return bytes;
}

void clear_ev_cache() {
  for (EvPlayerValues& p : EvValues.players) clear_values(p);
  EvValues.tree = nullptr;
  EvValues.iteration = -1;
}

bool cached_values(Tree& t, Node& node, int32_t tc, int32_t rc, int32_t player, std::vector<float>& value,
                   std::vector<float>& reach) {
  check_cache(t);
  const EvPlayerValues& p = EvValues.players[player];
  auto it = p.contexts.find(context_key(node_index(t, node), tc, rc));
  if (it == p.contexts.end()) return false;
  const EvContext& e = it->second;
  copy_or_zeros(value, e.value, e.count);
  copy_or_zeros(reach, e.reach, e.count);
  return true;
}

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
    if (t.flags & INCOMPLETE_TREE) {
      if (!probe_values(t, node, cell, player, value, reach)) return true;
    } else if (!cached_values(t, node, tc, rc, player, value, reach)) {
      page_walk(t, node, tc, rc, player);
      if (!cached_values(t, node, tc, rc, player, value, reach)) return true;
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
