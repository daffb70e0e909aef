// One iteration of counterfactual regret minimisation over the public tree:
// for player 1 and then player 0, three passes (down to the chance nodes,
// the subgames below them on the team, the nodes above them), each carrying
// one float per hand of the current board.
//
// Regret matching gives the current strategy, which does not converge; the
// weighted average of the strategies from iteration 61 on does, and is what
// evaluation plays.
#include <cassert>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <typeinfo>

#include <immintrin.h>

#include "solver/walk.h"


// ---- Per-tree facts -------------------------------------------------------------

void prepare_tree_facts(Tree& t) {
  if (Facts.tree == &t && Facts.nodes == t.nodes.data() && Facts.count == t.nodes.size()) return;
  Facts.tree = &t;
  Facts.nodes = t.nodes.data();
  Facts.count = t.nodes.size();
  Facts.node.assign(t.nodes.size(), NodeFacts{});
  Facts.root_street = t.nodes.empty() ? 1 : t.nodes[0].street;
  // Pre-order: every child lies after its parent, so one backward sweep sums.
  for (size_t i = t.nodes.size(); i-- > 0;) {
    const Node& n = t.nodes[i];
    NodeFacts& f = Facts.node[i];
    f.size = 1;
    f.terminals = n.kind == NODE_DECISION ? 0 : 1;
    f.reaches_chance = n.street > Facts.root_street;
    for (int32_t c : n.children) {
      const NodeFacts& fc = Facts.node[size_t(c)];
      f.size += fc.size;
      f.terminals += fc.terminals;
      f.reaches_chance |= fc.reaches_chance;
    }
    f.end = int32_t(i) + f.size;
  }
  Facts.has_chance = !t.nodes.empty() && Facts.node[0].reaches_chance;
}

void forget_tree_facts() {
  Facts.tree = nullptr;
  Facts.nodes = nullptr;
  Facts.count = 0;
  Facts.node.clear();
}

// ---- Per-thread block -----------------------------------------------------------

TlsBlock& tls_block() {
  thread_local TlsBlock block;
  return block;
}

RowPool* enter_pool(const Tree& tree) {
  RowPool* before = current_row_pool();
  TlsBlock& b = tls_block();
  b.pool = ensure_thread_row_pool(int64_t(4) * int64_t(tree.boards->holes.size()));
  return before;
}

VectorFrame::VectorFrame(int32_t n) : stack_(tls_block().stack), n_(n) {
  VectorStack& s = stack_;
  saved_chunk_ = s.chunk;
  saved_top_ = s.top;
  if (s.chunks.empty()) s.chunks.push_back(std::make_unique<HandVector[]>(VectorStack::ChunkSize));
  if (s.top + n > VectorStack::ChunkSize) {
    s.chunk++;
    s.top = 0;
    if (size_t(s.chunk) >= s.chunks.size())
      s.chunks.push_back(std::make_unique<HandVector[]>(VectorStack::ChunkSize));
  }
  v_ = s.chunks[size_t(s.chunk)].get() + s.top;
  s.top += n;
}

VectorFrame::~VectorFrame() {
  for (int32_t i = 0; i < n_; i++) v_[i].release();
  stack_.chunk = saved_chunk_;
  stack_.top = saved_top_;
}

// ---- Strategies ---------------------------------------------------------------------

void default_strategy(const Node& node, float* out) {
  size_t n = node.children.size();
  if (n == 0) return;
  double first = std::max(0.9, 1.0 / double(n));
  out[0] = float(first);
  for (size_t a = 1; a < n; a++) out[a] = float((1.0 - first) / double(n - 1));
}

bool averages_in_use(const Tree& t, int32_t average_from) {
  if (t.average_policy == 0) return false;
  return t.average_policy != 1 || t.iteration >= average_from;
}

float average_weight(const Tree& t, const WalkState& w, int32_t street) {
  if (!averages_in_use(t, WalkAverageFrom)) return 0.0f;
  if (street == 3 && !(w.river_average_now && RiverStrategyEnabled)) return 0.0f;
  if (t.average_policy != 1) return 1.0f;
  double weight = std::pow(double(std::max(t.iteration - 60, 0)), t.params.strategy_exponent);
  return float(std::min(weight, t.params.strategy_weight_cap));
}

// Stores of integer sums read a null default as "0 for a hand without sums";
// float stores need the zeros themselves.
static bool integer_sums(Store* s) {
  return typeid(*s) == typeid(PackedStore) || typeid(*s) == typeid(WideningStore);
}

void played_strategy(const Tree& t, const Node& node, int32_t tc, int32_t rc, HandVector* out,
                     int32_t average_from, const float* reach) {
  int32_t n = int32_t(node.children.size());
  float uniform[MaxNodeActions];
  for (int32_t a = 0; a < n; a++) uniform[a] = 1.0f / float(n);
  bool usable = averages_in_use(t, average_from) && (node.street != 3 || RiverStrategyEnabled) && node.strategyStore;
  if (!usable) {
    node.regretStore->read_strategy(out, tc, rc, uniform);
    return;
  }
  static const float Zeros[MaxNodeActions] = {};
  node.strategyStore->read_strategy(out, tc, rc, integer_sums(node.strategyStore) ? nullptr : Zeros);
  const int32_t count = out[0].count;
  // Hands without sums play the current strategy. Most nodes have some (hands
  // the line never reaches), so the sums go by blocks of rows, in action
  // order as a hand at a time would add them.
  constexpr int32_t Block = 64;
  auto block_totals = [&](int32_t i0, int32_t m, float* total) {
    for (int32_t j = 0; j < m; j++) total[j] = out[0].data[i0 + j];
    for (int32_t a = 1; a < n; a++) {
      const float* __restrict row = out[a].data + i0;
      for (int32_t j = 0; j < m; j++) total[j] += row[j];
    }
  };
  alignas(32) float total[Block];
  int32_t first = -1;
  for (int32_t i0 = 0; i0 < count && first < 0; i0 += Block) {
    const int32_t m = std::min(Block, count - i0);
    block_totals(i0, m, total);
    int32_t zeros = 0;
    if (reach)
      for (int32_t j = 0; j < m; j++) zeros += (total[j] == 0.0f) & (reach[i0 + j] != 0.0f);
    else
      for (int32_t j = 0; j < m; j++) zeros += total[j] == 0.0f;
    if (zeros) first = i0;
  }
  if (first < 0) return;
  VectorFrame q(n);
  node.regretStore->read_strategy(q.data(), tc, rc, uniform);
  for (int32_t i0 = first; i0 < count; i0 += Block) {
    const int32_t m = std::min(Block, count - i0);
    block_totals(i0, m, total);
    for (int32_t a = 0; a < n; a++) {
      float* __restrict to = out[a].data + i0;
      const float* __restrict from = q[a].data + i0;
      // A select, not a branch per hand (the compiler makes a branch of it).
      int32_t j = 0;
      for (; j + 4 <= m; j += 4) {
        __m128 none = _mm_cmpeq_ps(_mm_load_ps(total + j), _mm_setzero_ps());
        __m128 keep = _mm_andnot_ps(none, _mm_loadu_ps(to + j));
        _mm_storeu_ps(to + j, _mm_or_ps(keep, _mm_and_ps(none, _mm_loadu_ps(from + j))));
      }
      for (; j < m; j++)
        if (total[j] == 0.0f) to[j] = from[j];
    }
  }
}

// ---- Shared steps of an own node ----------------------------------------------------

void apply_ev_boost(const Node& parent, const Node& child, HandVector& v) {
  float b = child.ev_boost;
  if (b == 0.0f || !v.data) return;
  float* __restrict x = v.data;
  int32_t n = v.count;
  if (child.kind == NODE_FOLD) {
    float f = 1.0f - b;
    for (int32_t i = 0; i < n; i++) x[i] *= f;
  } else if (child.kind == NODE_SHOWDOWN || child.street > parent.street) {
    float up = 1.0f + b, down = 1.0f / (1.0f + b);
    for (int32_t i = 0; i < n; i++) x[i] = x[i] >= 0.0f ? x[i] * up : x[i] * down;
  } else {
    float up = 1.0f + b;
    for (int32_t i = 0; i < n; i++) x[i] = x[i] > 0.0f ? x[i] * up : x[i];
  }
}

// value = sum over actions of strategy x child value; empty when no child has data.
static void combine_weighted(HandVector& out, const HandVector* s, const HandVector* c, int32_t n,
                             int32_t count) {
  const float* sr[MaxNodeActions];
  const float* cr[MaxNodeActions];
  int32_t rows = 0;
  for (int32_t a = 0; a < n; a++) {
    if (!c[a].data) continue;
    sr[rows] = s[a].data;
    cr[rows] = c[a].data;
    rows++;
  }
  if (!rows) {
    make_empty(out, count);
    return;
  }
  alloc_vector(out, count, false);
  weighted_rows(out.data, sr, cr, rows, count);
}

// Best response: per hand the best child, where an empty child is worth 0.0;
// locked hands keep their fixed strategy.
static void best_response(HandVector& br, const HandVector* s, const HandVector* cbr, int32_t n,
                          int32_t count, const CellLock* lock) {
  if (lock && (lock->flags & CELL_LOCKED)) {
    combine_weighted(br, s, cbr, n, count);
    return;
  }
  bool any = false;
  for (int32_t a = 0; a < n; a++) any |= cbr[a].data != nullptr;
  if (!any) {
    make_empty(br, count);
    return;
  }
  alloc_vector(br, count, false);
  float* __restrict o = br.data;
  if (cbr[0].data)
    memcpy(o, cbr[0].data, size_t(count) * sizeof(float));
  else
    memset(o, 0, size_t(count) * sizeof(float));
  for (int32_t a = 1; a < n; a++) {
    if (cbr[a].data) {
      const float* __restrict c = cbr[a].data;
      for (int32_t i = 0; i < count; i++) o[i] = std::max(o[i], c[i]);
    } else {
      for (int32_t i = 0; i < count; i++) o[i] = std::max(o[i], 0.0f);
    }
  }
  const uint8_t* mask = lock ? frozen_mask(*lock) : nullptr;
  if (!mask) return;
  int32_t m = std::min(count, lock->mask_length);
  for (int32_t i = 0; i < m; i++) {
    if (!mask[i]) continue;
    float v = 0.0f;
    for (int32_t a = 0; a < n; a++)
      if (cbr[a].data) v += s[a].data[i] * cbr[a].data[i];
    o[i] = v;
  }
}

void finish_own_node(Tree& t, const WalkState& w, Node& node, int32_t tc, int32_t rc, int32_t count, const HandVector& reach,
                     HandVector* s, HandVector* c, HandVector* cbr, HandVector& value, HandVector* br) {
  int32_t n = int32_t(node.children.size());
  const bool train = w.mode == MODE_TRAIN;
  if (!reach.data) {
    make_empty(value, count);
    if (br) make_empty(*br, count);
    return;
  }
  CellLock* lock = node.regretStore->cell_lock_info(tc, rc);
  if (train)
    for (int32_t a = 0; a < n; a++) apply_ev_boost(node, t.nodes[size_t(node.children[size_t(a)])], c[a]);
  combine_weighted(value, s, c, n, count);
  if (br) best_response(*br, s, cbr, n, count, lock);
  if (!train || w.pass == PASS_QUEUE || !value.data) return;
  if (lock && (lock->flags & CELL_LOCKED)) return;
  double scale = t.regret_scale;
  HandGroupRuns runs;
  const HandGroupRuns* groups = nullptr;
  if (node.street == 3) {
    scale /= t.max_range_weight[1 - w.traverser];
    if (t.iteration <= t.params.river_group_iterations) {
      const BoardRecord& r = *cell_board(t, tc, rc).record;
      runs.lengths = r.groups.data();
      runs.count = int32_t(r.groups.size());
      groups = &runs;
    }
  }
  node.regretStore->update_regrets(tc, rc, value, c, groups, scale);
}

// ---- The recursion ---------------------------------------------------------------------

static void visit_chance(TraversalContext& ctx, bool turn);

static void visit_terminal(TraversalContext& ctx) {
  Tree& t = *ctx.tree;
  const WalkState& w = *ctx.walk;
  const Node& node = *ctx.node;
  CellBoard b = cell_board(t, ctx.turn_cell, ctx.river_cell);
  const bool eval = w.mode == MODE_EVALUATE;
  if (!ctx.reach.data) {
    make_empty(ctx.value, b.count);
    if (eval) make_empty(ctx.br_value, b.count);
    return;
  }
  alloc_vector(ctx.value, b.count, false);
  float v = terminal_value(w, node);
  if (node.kind == NODE_SHOWDOWN)
    showdown_value(ctx.value.data, ctx.reach.data, b.count, river_groups(*b.record), b.packed, v);
  else
    fold_value(ctx.value.data, ctx.reach.data, b.count, b.packed, v);
  count_terminal_hands(b.count);
  if (eval) copy_vector(ctx.br_value, ctx.value);
}

static void visit_other_node(TraversalContext& ctx) {
  Tree& t = *ctx.tree;
  const WalkState& w = *ctx.walk;
  Node& node = *ctx.node;
  const int32_t n = int32_t(node.children.size());
  const int32_t tc = ctx.turn_cell, rc = ctx.river_cell;
  const int32_t count = cell_board(t, tc, rc).count;
  const bool train = w.mode == MODE_TRAIN;
  const bool eval = w.mode == MODE_EVALUATE;
  const bool pass0 = w.pass == PASS_QUEUE;

  // The strategy, whose rows become the child reaches.
  VectorFrame s(n);
  if (ctx.reach.data) {
    if (train) {
      float defaults[MaxNodeActions];
      default_strategy(node, defaults);
      node.regretStore->read_strategy(s.data(), tc, rc, defaults);
    } else {
      // Hands out of reach at the other player's node play no part.
      played_strategy(t, node, tc, rc, s.data(), WalkAverageFrom, ctx.reach.data);
    }
    // The average.
    if (train && !pass0 && node.strategyStore) {
      float weight = average_weight(t, w, node.street);
      CellLock* lock = node.regretStore->cell_lock_info(tc, rc);
      if (weight > 0.0f && !(lock && (lock->flags & CELL_LOCKED)))
        node.strategyStore->accumulate_strategy(tc, rc, s.data(), ctx.reach, weight);
    }
    // Child reaches; a reach summing below FLT_MIN is dropped.
    child_reaches(s.data(), n, ctx.reach.data, count);
  } else {
    for (int32_t a = 0; a < n; a++) make_empty(s[a], count);
  }

  // Children in order, the values summed in child order; the fused
  // river pair stands for the last two children.
  make_empty(ctx.value, count);
  if (eval) make_empty(ctx.br_value, count);
  const bool fused = train && !pass0 && fused_pair(t, node) && s[n - 2].data && s[n - 1].data;
  const int32_t walked = fused ? n - 2 : n;
  for (int32_t a = 0; a < walked; a++) {
    int32_t ci = node.children[size_t(a)];
    if (pass0 && !Facts.node[size_t(ci)].reaches_chance) continue;
    TraversalContext child;
    child.tree = &t;
    child.walk = ctx.walk;
    child.node = &t.nodes[size_t(ci)];
    child.turn_cell = tc;
    child.river_cell = rc;
    child.reach = std::move(s[a]);
    if (ctx.own_reach.count > 0) child.own_reach = std::move(ctx.own_reach);
    visit_node(child);
    if (child.own_reach.count > 0) ctx.own_reach = std::move(child.own_reach);
    if (pass0) continue;
    add_vector(ctx.value, child.value);
    if (eval) add_vector(ctx.br_value, child.br_value);
  }
  if (fused) {
    const CellBoard b = cell_board(t, tc, rc);
    HandVector sd, fd;
    alloc_vector(sd, count, false);
    alloc_vector(fd, count, false);
    const Node& call = t.nodes[size_t(node.children[size_t(n - 2)])];
    const Node& fold = t.nodes[size_t(node.children[size_t(n - 1)])];
    showdown_and_fold2(sd.data, fd.data, s[n - 2].data, s[n - 1].data, count, river_groups(*b.record),
                       b.packed, terminal_value(w, call), terminal_value(w, fold));
    count_terminal_hands(2 * count);
    add_vector(ctx.value, sd);
    add_vector(ctx.value, fd);
  }
}

static void visit_own_node(TraversalContext& ctx) {
  Tree& t = *ctx.tree;
  const WalkState& w = *ctx.walk;
  Node& node = *ctx.node;
  const int32_t n = int32_t(node.children.size());
  const int32_t tc = ctx.turn_cell, rc = ctx.river_cell;
  const CellBoard b = cell_board(t, tc, rc);
  const int32_t count = b.count;
  const bool train = w.mode == MODE_TRAIN;
  const bool eval = w.mode == MODE_EVALUATE;
  const bool pass0 = w.pass == PASS_QUEUE;
  const bool own = ctx.own_reach.count > 0;

  // The strategy: needed for the value, and for the own reach of the children.
  VectorFrame frame(eval ? 3 * n : 2 * n);
  HandVector* s = frame.data();
  HandVector* c = s + n;
  HandVector* cbr = eval ? s + 2 * n : nullptr;
  if ((ctx.reach.data && !pass0) || own) {
    if (train) {
      float defaults[MaxNodeActions];
      default_strategy(node, defaults);
      node.regretStore->read_strategy(s, tc, rc, defaults);
    } else {
      played_strategy(t, node, tc, rc, s, WalkAverageFrom);
    }
  }

  // The fused river pair.
  int32_t walked = n;
  if (train && !pass0 && fused_pair(t, node)) {
    walked = n - 2;
    if (ctx.reach.data) {
      alloc_vector(c[n - 2], count, false);
      alloc_vector(c[n - 1], count, false);
      const Node& call = t.nodes[size_t(node.children[size_t(n - 2)])];
      const Node& fold = t.nodes[size_t(node.children[size_t(n - 1)])];
      showdown_and_fold(c[n - 2].data, c[n - 1].data, ctx.reach.data, count, river_groups(*b.record),
                        b.packed, terminal_value(w, call), terminal_value(w, fold));
      count_terminal_hands(2 * count);
    } else {
      make_empty(c[n - 2], count);
      make_empty(c[n - 1], count);
    }
  }

  // Children, with the reach unchanged.
  for (int32_t a = 0; a < walked; a++) {
    int32_t ci = node.children[size_t(a)];
    if (pass0 && !Facts.node[size_t(ci)].reaches_chance) continue;
    TraversalContext child;
    child.tree = &t;
    child.walk = ctx.walk;
    child.node = &t.nodes[size_t(ci)];
    child.turn_cell = tc;
    child.river_cell = rc;
    child.reach = std::move(ctx.reach);
    if (own && ctx.own_reach.data) {
      alloc_vector(child.own_reach, count, false);
      const float* __restrict o = ctx.own_reach.data;
      const float* __restrict sa = s[a].data;
      float* __restrict x = child.own_reach.data;
      for (int32_t i = 0; i < count; i++) x[i] = o[i] * sa[i];
    } else if (own) {
      make_empty(child.own_reach, count);
    }
    visit_node(child);
    ctx.reach = std::move(child.reach);
    c[a] = std::move(child.value);
    if (eval) cbr[a] = std::move(child.br_value);
  }
  if (pass0) {
    make_empty(ctx.value, count);
    return;
  }
  for (int32_t a = 0; a < n; a++)
    if (!c[a].data) c[a].count = count;

  // The node's value, best response and regrets from its children's values.
  finish_own_node(t, w, node, tc, rc, count, ctx.reach, s, c, cbr, ctx.value, eval ? &ctx.br_value : nullptr);
}

void visit_node(TraversalContext& ctx) {
  const WalkState& w = *ctx.walk;
  Node& node = *ctx.node;
  // The root of a river subtree: its scratch, and the batch in training.
  if (node.street == 3 && ctx.turn_cell >= 0 && ctx.river_cell >= 0 &&
      (!node.parent || node.parent->street != 3)) {
    prepare_river_subtree(ctx);
    // A lone showdown (both players all-in before the river) is one kernel
    // call: the batch would only add its bookkeeping.
    if (w.mode == MODE_TRAIN && SimdLevel > 1 && node.kind == NODE_DECISION) {
      run_river_batch(ctx);
      goto last;
    }
  }
  // A chance node, a decision or a terminal.
  if (node.street > 1 && ctx.turn_cell < 0)
    visit_chance(ctx, true);
  else if (node.street == 3 && ctx.river_cell < 0)
    visit_chance(ctx, false);
  else if (node.kind == NODE_DECISION)
    node.player == w.traverser ? visit_own_node(ctx) : visit_other_node(ctx);
  else
    visit_terminal(ctx);
last:
  // A probe sees every context outside the queueing pass.
  if (w.mode == MODE_PROBE && w.pass != PASS_QUEUE) w.probe.visit(w.probe.target, ctx);
}

// ---- Chance nodes -------------------------------------------------------------------------

// The river stores below a river chance node, one list per player and kind,
// in walk order; the order fixes the row sequence of compressed groups.
static void collect_river_stores(Tree& t, const Node& node, TlsBlock& tb) {
  for (auto& l : tb.river_stores) l.clear();
  int32_t first = node_index(t, node);
  int32_t end = Facts.node[size_t(first)].end;
  for (int32_t i = first; i < end; i++) {
    Node& d = t.nodes[size_t(i)];
    if (d.kind != NODE_DECISION || !d.regretStore) continue;
    int p = d.player & 1;
    tb.river_stores[p].push_back({d.regretStore, d.player});
    if (d.strategyStore) tb.river_stores[2 + p].push_back({d.strategyStore, d.player});
  }
}

static bool river_sums_open(const Tree& t, const WalkState& w) {
  return averages_in_use(t, WalkAverageFrom) && RiverStrategyEnabled &&
         (w.mode != MODE_TRAIN || w.river_average_now);
}

// Training reads the sums of neither player and writes only the other
// player's: the traverser's sums are left compressed.
static bool skip_river_sums(const WalkState& w, int k) {
  return k >= 2 && w.mode == MODE_TRAIN && (k & 1) == w.traverser;
}

static void open_river_stores(Tree& t, const WalkState& w, int32_t group, TlsBlock& tb) {
  for (int k = 0; k < 4; k++) {
    if (k >= 2 && !river_sums_open(t, w)) break;
    if (skip_river_sums(w, k)) continue;
    auto& l = tb.river_stores[k];
    if (!l.empty()) open_river_group(l.data(), l.size(), group);
  }
}

// Training writes back the traverser's regrets and the other player's sums;
// everything else goes back as it was.
static void close_river_stores(Tree& t, const WalkState& w, int32_t group, TlsBlock& tb) {
  const bool train = w.mode == MODE_TRAIN;
  for (int k = 0; k < 4; k++) {
    if (k >= 2 && !river_sums_open(t, w)) break;
    if (skip_river_sums(w, k)) continue;
    auto& l = tb.river_stores[k];
    int p = k & 1;
    bool keep = train && (k < 2 ? p == w.traverser : p != w.traverser);
    if (!l.empty()) close_river_group(l.data(), l.size(), group, keep);
  }
}

// What every step of a chance node's visit shares.
struct ChanceVisit {
  TraversalContext& ctx;
  Tree& t;
  const WalkState& w;
  Node& node;
  bool turn;
  const std::vector<BoardRecord>& kids;  // the dealt cards' boards
  int32_t parent_count;
  bool eval;
  SubgameResults* rec;  // the street record of this entry, if the node keeps one
};

static ChanceVisit chance_visit(TraversalContext& ctx, bool turn) {
  Tree& t = *ctx.tree;
  Node& node = *ctx.node;
  const BoardTree& bt = *t.boards;
  const int32_t tc = ctx.turn_cell;
  const BoardRecord* parent = turn ? nullptr : &bt.children[size_t(tc)];
  SubgameResults* rec = nullptr;
  if (node.kind == NODE_DECISION && node.street_records) {
    int32_t slot = turn ? 0 : tc;
    if (slot >= 0 && slot < node.street_record_count) rec = &node.street_records[slot];
  }
  return {ctx, t, *ctx.walk, node, turn, turn ? bt.children : parent->children,
          turn ? int32_t(bt.holes.size()) : int32_t(parent->holes.size()), ctx.walk->mode == MODE_EVALUATE,
          rec};
}

// A forgotten street below: evaluation and probes take its stored values instead.
static bool visit_forgotten_street(ChanceVisit& c) {
  if (!(c.eval || c.w.mode == MODE_PROBE) || c.node.kind != NODE_DECISION || !(c.t.flags & INCOMPLETE_TREE))
    return false;
  TraversalContext& ctx = c.ctx;
  const int32_t me = c.w.traverser;
  alloc_vector(ctx.value, c.parent_count, true);
  alloc_vector(ctx.br_value, c.parent_count, true);
  if (c.rec && (!c.turn || c.w.pass == PASS_COLLECT)) {
    const HandVector& v = c.rec->value[me];
    const HandVector& b = c.rec->br_value[me];
    if (v.data && v.count == c.parent_count) memcpy(ctx.value.data, v.data, size_t(c.parent_count) * sizeof(float));
    if (b.data && b.count == c.parent_count) memcpy(ctx.br_value.data, b.data, size_t(c.parent_count) * sizeof(float));
  }
  return true;
}

// The other player's reach, kept for later solving of the street below.
static void keep_street_reach(ChanceVisit& c) {
  const TraversalContext& ctx = c.ctx;
  if (c.w.mode != MODE_TRAIN || !c.rec || c.rec->frozen || !ctx.reach.data) return;
  if (c.turn && c.w.pass != PASS_QUEUE) return;
  HandVector& r = c.rec->reach[1 - c.w.traverser];
  if (!r.data || r.count != c.parent_count || r.pooled) keep_vector(r, HandVector(), c.parent_count);
  float weight = float(std::pow(double(c.t.iteration + 1), c.t.params.strategy_exponent));
  const float* __restrict x = ctx.reach.data;
  float* __restrict y = r.data;
  for (int32_t i = 0; i < c.parent_count; i++) y[i] += weight * x[i];
}

// Pass 0: one subgame per card, run by the team in pass 1.
static void queue_chance(ChanceVisit& c) {
  queue_subgames(c.ctx);
  make_empty(c.ctx.value, c.parent_count);
  if (c.eval) make_empty(c.ctx.br_value, c.parent_count);
}

// Pass 2: the sums the node's subgames merged.
static void collect_chance(ChanceVisit& c) {
  Subgame* first = Subgames.queue[size_t(Subgames.cursor)];
  SubgameShared* sh = first->shared;
  c.ctx.value = std::move(sh->value_sum);
  if (c.eval) c.ctx.br_value = std::move(sh->br_sum);
  sh->reach.release();
  sh->own_reach.release();
  Subgames.cursor += int32_t(c.kids.size());
}

// Pass 1, inside a subgame: every card in turn on this thread.
static void walk_chance_inline(ChanceVisit& c) {
  TraversalContext& ctx = c.ctx;
  const int32_t tc = ctx.turn_cell;
  make_empty(ctx.value, c.parent_count);
  if (c.eval) make_empty(ctx.br_value, c.parent_count);
  if (!ctx.reach.data) return;
  alloc_vector(ctx.value, c.parent_count, true);
  if (c.eval) alloc_vector(ctx.br_value, c.parent_count, true);
  TlsBlock& tb = tls_block();
  if (!c.turn) {
    collect_river_stores(c.t, c.node, tb);
    open_river_stores(c.t, c.w, tc, tb);
  }
  const bool own = ctx.own_reach.count > 0;
  for (size_t k = 0; k < c.kids.size(); k++) {
    const BoardRecord& r = c.kids[k];
    const int32_t cn = int32_t(r.holes.size());
    TraversalContext child;
    child.tree = &c.t;
    child.walk = ctx.walk;
    child.node = &c.node;
    child.turn_cell = c.turn ? int32_t(k) : tc;
    child.river_cell = c.turn ? -1 : int32_t(k);
    alloc_vector(child.reach, cn, false);
    gather_row(child.reach.data, ctx.reach.data, r.parentPosition[0].data(), cn);
    if (own && ctx.own_reach.data) {
      alloc_vector(child.own_reach, cn, false);
      gather_row(child.own_reach.data, ctx.own_reach.data, r.parentPosition[0].data(), cn);
    } else if (own) {
      make_empty(child.own_reach, cn);
    }
    visit_node(child);
    if (child.value.data) add_to_parent(r, child.value.data, ctx.value.data);
    if (c.eval && child.br_value.data) add_to_parent(r, child.br_value.data, ctx.br_value.data);
  }
  if (!c.turn) close_river_stores(c.t, c.w, tc, tb);
}

// Every dealt card stands for one of D unseen cards; evaluation keeps
// the values for evaluating above a forgotten street.
static void finish_chance(ChanceVisit& c) {
  TraversalContext& ctx = c.ctx;
  const int32_t d = (c.turn ? 45 : 44) - 4 * LowCardIndex;
  const float inv = 1.0f / float(d);
  scale_vector(ctx.value, inv);
  if (c.eval) scale_vector(ctx.br_value, inv);
  if (c.eval && c.rec) {
    keep_vector(c.rec->value[c.w.traverser], ctx.value, c.parent_count);
    keep_vector(c.rec->br_value[c.w.traverser], ctx.br_value, c.parent_count);
  }
}

static void visit_chance(TraversalContext& ctx, bool turn) {
  const WalkProbe& probe = ctx.walk->probe;
  if (ctx.walk->mode == MODE_PROBE && probe.chance && probe.chance(probe.target, ctx)) return;
  ChanceVisit c = chance_visit(ctx, turn);
  if (visit_forgotten_street(c)) return;
  keep_street_reach(c);
  switch (c.w.pass) {
    case PASS_QUEUE:
      queue_chance(c);
      return;
    case PASS_SUBGAMES:
      walk_chance_inline(c);
      break;
    case PASS_COLLECT:
      collect_chance(c);
      break;
  }
  finish_chance(c);
}


// ---- Steps of a walk, shared with the walks of single subgames ------------------

WalkState walk_state(const Tree& tree, int32_t player, int32_t mode, WalkPass pass, WalkProbe probe) {
  WalkState w;
  w.traverser = player;
  w.mode = mode;
  w.pass = pass;
  w.river_average_now = river_sums_due(tree);
  w.probe = probe;
  return w;
}

void start_context(TraversalContext& ctx, Tree& tree, const WalkState& w, Node* node, int32_t turn_cell,
                   int32_t river_cell, const std::vector<float>& reach) {
  ctx.tree = &tree;
  ctx.walk = &w;
  ctx.node = node;
  ctx.turn_cell = turn_cell;
  ctx.river_cell = river_cell;
  alloc_vector(ctx.reach, int32_t(reach.size()), false);
  if (!reach.empty()) memcpy(ctx.reach.data, reach.data(), reach.size() * sizeof(float));
}

void release_context(TraversalContext& ctx) {
  ctx.reach.release();
  ctx.value.release();
  ctx.own_reach.release();
  ctx.br_value.release();
}

void run_queued_subgames(Tree& tree, WalkState& w) {
  w.pass = PASS_SUBGAMES;
  TraverseSubgames();
  enter_pool(tree);
}

// The root on the game's own board, with the other player's starting reach.
static void root_context(Tree& t, const WalkState& w, TraversalContext& ctx) {
  const int32_t street = t.nodes[0].street;
  start_context(ctx, t, w, &t.nodes[0], street >= 2 ? t.boards->turn_child : -1,
                street >= 3 ? t.boards->river_child : -1, t.reach_weights[1 - w.traverser]);
}

bool river_sums_due(const Tree& t) {
  if (t.strategy_level < 2) return true;
  const int32_t k = t.iteration - 61;
  return k >= 0 && (k < 7 || k % 7 == 0);
}

TraverseResult traverse(Tree& tree, int player, int mode, WalkProbe probe) {
  TraverseResult result{0.0, 0.0};
  // One walk at a time; a query's walk may hold the lock already.
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  WalkState w = walk_state(tree, player, mode, PASS_QUEUE, probe);
  const uint32_t generation = Evaluation.store_generation;  // as the walk starts
  assert(mode != MODE_PROBE || probe.visit);
  // A tree whose stores were never planned has nothing to walk with.
  if (tree.nodes.empty() || !tree.boards) return result;
  if (tree.nodes[0].kind == NODE_DECISION && !tree.nodes[0].regretStore) return result;
  prepare_tree_facts(tree);
  RowPool* before = enter_pool(tree);

  // Pass 0 only queues; a tree without chance nodes has nothing to queue.
  if (Facts.has_chance) {
    w.pass = PASS_QUEUE;
    TraversalContext ctx;
    root_context(tree, w, ctx);
    visit_node(ctx);
  }
  // Pass 1: the queued subgames on the team.
  run_queued_subgames(tree, w);
  // Pass 2: the part above the chance nodes again, with their results.
  w.pass = PASS_COLLECT;
  Subgames.cursor = 0;
  TraversalContext ctx;
  root_context(tree, w, ctx);
  visit_node(ctx);

  // The root's values, weighted by the player's normalised range.
  const std::vector<float>& norm = tree.norm_weights[player];
  const int32_t n = std::min(int32_t(norm.size()), ctx.value.count);
  float value_total = 0.0f, br_total = 0.0f;
  if (ctx.value.data)
    for (int32_t i = 0; i < n; i++) value_total += ctx.value.data[i] * norm[size_t(i)];
  if (ctx.br_value.data)
    for (int32_t i = 0; i < n; i++) br_total += ctx.br_value.data[i] * norm[size_t(i)];
  result.mes = br_total;
  result.ev = value_total;
  if (mode == MODE_EVALUATE && !(tree.flags & INCOMPLETE_TREE))
    Evaluation.records[player & 1] = {&tree, tree.iteration, generation};

  // Everything the walk held goes back.
  release_context(ctx);
  free_subgame_queue();
  set_current_row_pool(before);
  return result;
}

void run_iteration(Tree& tree) {
  if (tree.average_policy == 1 && tree.iteration == WalkAverageFrom) page_in_stores(tree, true);
  // Player 1, then player 0.
  traverse(tree, 1, MODE_TRAIN);
  traverse(tree, 0, MODE_TRAIN);
  // Queries may walk between iterations, so the count moves under the lock.
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  tree.iteration += 1;
  tree.flags &= ~uint32_t(NEW_TREE);
  RegretIteration = tree.iteration;
}

