// Forgetting and solving again: a solved tree drops the stores of its river
// (or turn and river) nodes and keeps, at every entry into that street, the
// hands' values and reaches, so that everything above can still be
// evaluated. The stores come back empty and are solved again from the kept
// reaches, all at once (solve_all_splits) or one subgame at a time when a
// query or a partial solve needs it.
#include <algorithm>
#include <cmath>
#include <set>

#include "solver/walk.h"
#include "storage/memory/allocation.h"
#include "storage/memory/fatal.h"

namespace {

// A place where the walk enters the street: the chance node's first decision,
// its cells (river_cell always -1), and both players' reach on the board of
// those cells.
struct StreetEntry {
  Node* node = nullptr;
  int32_t turn_cell = -1;
  int32_t river_cell = -1;
  std::vector<float> reach[2];
};

// The reach of a parent board's list on a child board, as the chance node deals it.
std::vector<float> map_down(const std::vector<float>& parent, const BoardRecord& r) {
  std::vector<float> out(r.holes.size());
  map_to_child(r, parent.data(), out.data());
  return out;
}

// Multiplies the acting player's reach by the strategy played outside
// training for each action in turn; `visit(a, reach)` sees each child's.
template <typename Visit>
void each_action(Tree& t, Node& node, int32_t tc, int32_t rc, const std::vector<float> r[2], Visit&& visit) {
  const int32_t n = int32_t(node.children.size());
  const int32_t count = cell_board(t, tc, rc).count;
  VectorFrame s(n);
  played_strategy(t, node, tc, rc, s.data(), WalkAverageFrom);
  for (int32_t a = 0; a < n; a++) {
    std::vector<float> child[2] = {r[0], r[1]};
    std::vector<float>& mine = child[node.player & 1];
    for (int32_t i = 0; i < count; i++) mine[size_t(i)] *= s[a].data ? s[a].data[i] : 0.0f;
    visit(a, child);
  }
}

void collect_walk(Tree& t, Node& node, int32_t tc, int32_t rc, const std::vector<float> r[2], int32_t street,
                  std::vector<StreetEntry>& out) {
  if (node.kind != NODE_DECISION) return;
  const BoardTree& bt = *t.boards;
  if (node.street >= 2 && tc < 0) {
    if (street == 2) {
      out.push_back({&node, -1, -1, {r[0], r[1]}});
      return;
    }
    for (size_t k = 0; k < bt.children.size(); k++) {
      std::vector<float> down[2] = {map_down(r[0], bt.children[k]), map_down(r[1], bt.children[k])};
      collect_walk(t, node, int32_t(k), -1, down, street, out);
    }
    return;
  }
  if (node.street == 3 && rc < 0) {
    out.push_back({&node, tc, -1, {r[0], r[1]}});
    return;
  }
  each_action(t, node, tc, rc, r, [&](int32_t a, const std::vector<float> child[2]) {
    collect_walk(t, t.nodes[size_t(node.children[size_t(a)])], tc, rc, child, street, out);
  });
}

// The root's cells and both players' weights on its board.
void root_reach(const Tree& t, int32_t& tc, int32_t& rc, std::vector<float> r[2]) {
  const int32_t street = t.nodes[0].street;
  tc = street >= 2 ? t.boards->turn_child : -1;
  rc = street >= 3 ? t.boards->river_child : -1;
  for (int p = 0; p < 2; p++) r[p] = t.reach_weights[p];
}

// Walks from the root with both reaches under the strategies played, and
// lists every entry into `street`; nothing below an entry is walked.
std::vector<StreetEntry> collect_entries(Tree& t, int32_t street) {
  std::vector<StreetEntry> out;
  int32_t tc, rc;
  std::vector<float> r[2];
  root_reach(t, tc, rc, r);
  RowPool* before = enter_pool(t);
  collect_walk(t, t.nodes[0], tc, rc, r, street, out);
  set_current_row_pool(before);
  return out;
}

// The record of an entry: by turn cell for a river entry, else the only one.
SubgameResults* entry_record(const StreetEntry& e) {
  Node& n = *e.node;
  const int32_t slot = n.street == 3 ? e.turn_cell : 0;
  if (!n.street_records || slot < 0 || slot >= n.street_record_count) return nullptr;
  return &n.street_records[slot];
}

// A record's vector that outlives every pass: never from a pool.
void keep_floats(HandVector& dst, const float* src, int32_t count) {
  if (dst.pooled) dst.release();
  dst.resize(count, false);
  if (count > 0) std::copy(src, src + count, dst.data);
}

float float_sum(const float* x, int32_t n) {
  float s = 0.0f;
  for (int32_t i = 0; i < n; i++) s += x[i];
  return s;
}

bool is_entry(const Node& n) {
  return n.kind == NODE_DECISION && n.street >= 2 && (!n.parent || n.parent->street < n.street);
}

// Every decision of the street or below that has no stores gets them, planned
// as a full build plans them; false when memory runs out.
bool plan_missing_stores(Tree& t, int32_t first, int32_t end, int32_t street_from) {
  const BoardCells cells = board_cells(t);
  for (int32_t i = first; i < end; i++) {
    Node& node = t.nodes[size_t(i)];
    if (node.kind != NODE_DECISION || node.street < street_from || node.stores_ready) continue;
    if (!node.regretStore) {
      int64_t totals[4] = {0, 0, 0, 0};
      make_stores_of_node(t, node, cells, totals);
    }
    if (!node.regretStore->materialise()) return false;
    if (node.strategyStore && !node.strategyStore->materialise()) return false;
    node.stores_ready = true;
  }
  return true;
}

// The pre-order end of a node's subtree.
int32_t subtree_end(const Tree& t, int32_t i) {
  const Node& n = t.nodes[size_t(i)];
  return n.children.empty() ? i + 1 : subtree_end(t, n.children.back());
}

// Weight of the hand pairs of two reaches that share no card, on the list
// of `board`: what normalises a subgame's values to chips per pair.
double pair_mass(const CellBoard& b, const std::vector<float>& r0, const std::vector<float>& r1) {
  double total = 0, card[64] = {};
  for (int32_t i = 0; i < b.count; i++) {
    total += r1[size_t(i)];
    card[b.packed[i] & 0xff] += r1[size_t(i)];
    card[b.packed[i] >> 8] += r1[size_t(i)];
  }
  double mass = 0;
  for (int32_t i = 0; i < b.count; i++) {
    if (r0[size_t(i)] <= 0.0f) continue;
    mass += r0[size_t(i)] * (total - card[b.packed[i] & 0xff] - card[b.packed[i] >> 8] + r1[size_t(i)]);
  }
  return mass;
}

// A subgame: its root, the cells it is walked with, and both arriving reaches.
struct Unit {
  Node* root = nullptr;
  int32_t turn_cell = -1, river_cell = -1;
  std::vector<float> reach[2];
  bool whole_tree = false;
};

// The subgame of a node: up the parents while they lie on the forgotten
// street or below (all the way up when nothing is forgotten). A river entry
// is walked from its chance node, every river card of its turn card at once,
// as the compressed river groups are kept per turn card.
Unit find_unit(Tree& t, Node& node, int32_t tc, int32_t rc) {
  Unit u;
  Node* r = &node;
  while (r->parent && r->parent->street >= t.forgotten_street) r = r->parent;
  u.root = r;
  u.whole_tree = r == &t.nodes[0];
  if (u.whole_tree) return u;
  u.turn_cell = r->street >= 2 ? tc : -1;
  u.river_cell = r->street == 3 && !is_entry(*r) ? rc : -1;

  // Down the path from the root with both reaches.
  std::vector<Node*> path;
  for (Node* n = r; n; n = n->parent) path.push_back(n);
  std::reverse(path.begin(), path.end());
  int32_t cur_tc, cur_rc;
  std::vector<float> reach[2];
  root_reach(t, cur_tc, cur_rc, reach);
  RowPool* before = enter_pool(t);
  for (size_t i = 0; i < path.size(); i++) {
    Node& n = *path[i];
    if (n.street >= 2 && cur_tc < 0) {
      cur_tc = u.turn_cell;
      for (auto& x : reach) x = map_down(x, t.boards->children[size_t(cur_tc)]);
    }
    if (n.street == 3 && cur_rc < 0 && u.river_cell >= 0) {
      cur_rc = u.river_cell;
      for (auto& x : reach) x = map_down(x, t.boards->children[size_t(cur_tc)].children[size_t(cur_rc)]);
    }
    if (i + 1 == path.size()) break;
    const int32_t next = int32_t(path[i + 1] - t.nodes.data());
    each_action(t, n, cur_tc, cur_rc, reach, [&](int32_t a, const std::vector<float> child[2]) {
      if (n.children[size_t(a)] == next) {
        u.reach[0] = child[0];
        u.reach[1] = child[1];
      }
    });
    reach[0] = std::move(u.reach[0]);
    reach[1] = std::move(u.reach[1]);
  }
  set_current_row_pool(before);
  u.reach[0] = std::move(reach[0]);
  u.reach[1] = std::move(reach[1]);
  return u;
}

// One walk of the subgame in the walk's mode and pass, with the other
// player's reach; `value` and `br` get the root's vectors.
void walk_unit(Tree& t, const WalkState& w, const Unit& u, std::vector<float>* value, std::vector<float>* br) {
  TraversalContext ctx;
  start_context(ctx, t, w, u.root, u.turn_cell, u.river_cell, u.reach[1 - w.traverser]);
  visit_node(ctx);
  auto take = [](const HandVector& v, std::vector<float>* out) {
    if (!out) return;
    out->assign(size_t(v.count), 0.0f);
    if (v.data) std::copy(v.data, v.data + v.count, out->begin());
  };
  take(ctx.value, value);
  take(ctx.br_value, br);
  release_context(ctx);
}

// Mean gain of the two best responses in the subgame, in chips per pair of
// hands that reach it.
double unit_exploitability(Tree& t, const Unit& u) {
  if (u.whole_tree) {
    TraverseResult p0 = traverse(t, 0, MODE_EVALUATE);
    TraverseResult p1 = traverse(t, 1, MODE_EVALUATE);
    return (p0.mes + p1.mes - p0.ev - p1.ev) * 0.5;
  }
  double gain = 0;
  for (int p = 0; p < 2; p++) {
    const WalkState w = walk_state(t, p, MODE_EVALUATE, PASS_SUBGAMES);
    std::vector<float> v, b;
    walk_unit(t, w, u, &v, &b);
    const std::vector<float>& own = u.reach[p];
    for (size_t i = 0; i < v.size() && i < own.size(); i++) gain += double(own[i]) * (double(b[i]) - double(v[i]));
  }
  const double mass = pair_mass(cell_board(t, u.turn_cell, u.river_cell), u.reach[0], u.reach[1]);
  return mass > 0 ? 0.5 * gain / mass : 0.0;
}

void train_unit(Tree& t, const Unit& u, int32_t iteration) {
  if (u.whole_tree) {
    t.iteration = iteration;
    traverse(t, 1, MODE_TRAIN);
    traverse(t, 0, MODE_TRAIN);
    return;
  }
  // The subgame's own iteration count picks its place in the river-sum schedule.
  t.iteration = iteration;
  for (int p = 1; p >= 0; p--) walk_unit(t, walk_state(t, p, MODE_TRAIN, PASS_SUBGAMES), u, nullptr, nullptr);
}

// The tree's walk state around a subgame's own iterations; a subgame walks
// below the forgotten street, so the stored values must not stand in there.
struct SavedWalk {
  Tree& t;
  int32_t iteration;
  uint32_t flags;
  int32_t regret_iteration;
  RowPool* pool;
  explicit SavedWalk(Tree& tree)
      : t(tree), iteration(tree.iteration), flags(tree.flags), regret_iteration(RegretIteration),
        pool(enter_pool(tree)) {
    t.flags &= ~uint32_t(INCOMPLETE_TREE);
  }
  ~SavedWalk() {
    t.iteration = iteration;
    t.flags = flags;
    RegretIteration = regret_iteration;
    set_current_row_pool(pool);
  }
};

}  // namespace

// ---- forget ---------------------------------------------------------------------

bool forget_street(Tree& t, int32_t street) {
  if (t.nodes.empty() || !t.boards || t.nodes[0].street >= street) return false;
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  if (t.forgotten_street >= 0 && street >= t.forgotten_street && (t.flags & INCOMPLETE_TREE)) return true;
  // The evaluation fills the values of every street record.
  results_now(t);
  // The stores of the street and below go.
  for (Node& node : t.nodes) {
    if (node.street < street || node.kind != NODE_DECISION) continue;
    delete node.regretStore;
    delete node.strategyStore;
    node.regretStore = node.strategyStore = nullptr;
    node.stores_ready = false;
  }
  return_free_memory();
  // The entries into the street with both reaches, and the largest reach sum.
  prepare_tree_facts(t);
  std::vector<StreetEntry> list = collect_entries(t, street);
  float largest = 0.0f;
  for (const StreetEntry& e : list)
    for (int p = 0; p < 2; p++) largest = std::max(largest, float_sum(e.reach[p].data(), int32_t(e.reach[p].size())));
  // Each entry keeps its reaches, scaled to a sum of 200, if it is reached enough.
  for (StreetEntry& e : list) {
    SubgameResults* r = entry_record(e);
    if (!r) continue;
    const int32_t count = int32_t(e.reach[0].size());
    const float t0 = float_sum(e.reach[0].data(), count);
    r->active = double(t0) > 0.01 * double(largest);
    for (int p = 0; p < 2; p++) {
      HandVector& v = r->reach[p];
      if (r->active) keep_floats(v, e.reach[p].data(), count);
      if (!v.data || v.count != count) keep_floats(v, std::vector<float>(size_t(count), 0.0f).data(), count);
      const float sum = float_sum(v.data, count);
      if (sum > 0x1p-23f) {
        const float f = 200.0f / sum;
        for (int32_t i = 0; i < count; i++) v.data[i] *= f;
      }
    }
    r->frozen = true;
  }
  // The tree is incomplete until the street is rebuilt.
  t.flags = (t.flags & ~uint32_t(NEW_TREE)) | INCOMPLETE_TREE;
  t.forgotten_street = street;
  Forgetting.solved_units.clear();
  return true;
}

bool rebuild_streets(Tree& t) {
  if (t.forgotten_street < 0 || t.nodes.empty()) return true;
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  if (!plan_missing_stores(t, 0, int32_t(t.nodes.size()), t.forgotten_street)) return false;
  for (int s = 1; s < 4; s++) t.store_values[s] = 0;
  for (const Node& n : t.nodes)
    if (n.regretStore && n.street >= 1 && n.street <= 3) t.store_values[n.street] += n.regretStore->value_count(-1);
  const int64_t w = t.average_policy != 0 ? 6 : 2;
  for (int i = 0; i < 4; i++) t.store_bytes[i] = t.store_values[i] * w;
  t.flags &= ~uint32_t(INCOMPLETE_TREE);
  return true;
}

bool SolveSubgames(Tree& t, int32_t street) {
  if (t.nodes.empty() || !t.boards || t.nodes[0].street >= street) return false;
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  // Entries are found with the strategies above, which are all there.
  if (!materialise_tree_stores(t)) return false;
  if (t.flags & INCOMPLETE_TREE) return false;
  prepare_tree_facts(t);
  std::vector<StreetEntry> list = collect_entries(t, street);
  // The kept reaches stand in for the walk's.
  for (StreetEntry& e : list) {
    const SubgameResults* r = entry_record(e);
    if (!r) continue;
    for (int p = 0; p < 2; p++)
      if (r->reach[p].data && size_t(r->reach[p].count) == e.reach[p].size())
        std::copy(r->reach[p].data, r->reach[p].data + r->reach[p].count, e.reach[p].begin());
  }
  // As many iterations as the tree had, each entry walked for both players.
  const int32_t n = std::max(1, t.iteration);
  {
    SavedWalk saved(t);
    const int32_t entries = int32_t(list.size());
    for (int32_t it = 0; it < n; it++) {
      t.iteration = it;
      for (int p = 1; p >= 0; p--) {
        WalkState w = walk_state(t, p, MODE_TRAIN, PASS_SUBGAMES);
        if (street == 3) {
#pragma omp parallel for schedule(guided, 1)
          for (int32_t i = 0; i < entries; i++) {
            RowPool* before = enter_pool(t);
            Unit u;
            u.root = list[size_t(i)].node;
            u.turn_cell = list[size_t(i)].turn_cell;
            u.reach[1 - p] = list[size_t(i)].reach[1 - p];
            walk_unit(t, w, u, nullptr, nullptr);
            set_current_row_pool(before);
          }
        } else {
          w.pass = PASS_QUEUE;
          for (StreetEntry& e : list) {
            Unit u;
            u.root = e.node;
            u.reach[1 - p] = e.reach[1 - p];
            walk_unit(t, w, u, nullptr, nullptr);
          }
          run_queued_subgames(t, w);
          free_subgame_queue();
        }
      }
      RegretIteration = it + 1;
    }
  }
  // The street is whole again.
  for (Node& node : t.nodes)
    for (int32_t k = 0; k < node.street_record_count; k++) node.street_records[k].frozen = false;
  t.forgotten_street = -1;
  Forgetting.solved_units.clear();
  Evaluation.store_generation++;
  return true;
}

// ---- Subgames solved again --------------------------------------------------------

bool node_forgotten(const Tree& t, const Node& node) {
  return (t.flags & INCOMPLETE_TREE) && t.forgotten_street >= 0 && node.street >= t.forgotten_street;
}

double resolve_node(Tree& t, Node& node, int32_t tc, int32_t rc, bool force, const double accuracy[3]) {
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  // The stores above, and the facts.
  if (!materialise_tree_stores(t)) return 0.0;
  prepare_tree_facts(t);
  // The subgame that holds the node, with its arriving reaches.
  Unit u = find_unit(t, node, tc, rc);
  const int32_t root_index = node_index(t, *u.root);
  const std::pair<int32_t, int32_t> key{root_index, u.turn_cell};
  // Stores below the subgame root that the forget took.
  bool fresh = false;
  if (t.forgotten_street >= 0) {
    const int32_t end = subtree_end(t, root_index);
    for (int32_t i = root_index; i < end; i++) fresh |= t.nodes[size_t(i)].kind == NODE_DECISION && !t.nodes[size_t(i)].regretStore;
    if (!plan_missing_stores(t, root_index, end, 0)) storage_fatal("out of memory (not enough reserved)");
  }
  // A subgame solved since the last forget is done.
  if (!force && !fresh && Forgetting.solved_units.count(key)) return 0.0;
  // Its own iterations, from 0 on fresh stores, else going on.
  double e = 0;
  {
    SavedWalk saved(t);
    const int32_t start = fresh ? 0 : saved.iteration;
    const double target = accuracy[std::clamp(u.root->street, 1, 3) - 1];
    constexpr int32_t Cycles = 1000;
    bool measured = false;
    for (int32_t c = 0; c < Cycles; c++) {
      if (c % ReportPeriod == 0 && (c > 0 || !fresh)) {
        t.iteration = start + c;
        e = unit_exploitability(t, u);
        measured = true;
        if (e <= target) break;
      }
      measured = false;
      train_unit(t, u, start + c);
      RegretIteration = start + c + 1;
    }
    if (!measured) {
      t.iteration = start + Cycles;
      e = unit_exploitability(t, u);
    }
  }
  // Marked solved; the strategies changed at the same iteration count.
  Forgetting.solved_units.insert(key);
  Evaluation.store_generation++;
  return e;
}

void probe_forgotten(Tree& t, Node& target, int32_t tc, int32_t rc, int32_t player, WalkProbe probe) {
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  prepare_tree_facts(t);
  Unit u = find_unit(t, target, tc, rc);
  SavedWalk saved(t);
  if (u.whole_tree) {
    traverse(t, player, MODE_PROBE, probe);
    return;
  }
  walk_unit(t, walk_state(t, player, MODE_PROBE, PASS_SUBGAMES, probe), u, nullptr, nullptr);
}

void forget_resolve_marks() { Forgetting.solved_units.clear(); }

