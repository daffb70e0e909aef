// The river batch: training on one river subtree without a kernel call per
// terminal. A forward walk reads the strategies, adds to the sums and
// collects every terminal with its reach; the kernels then take up to eight
// terminals per walk of the hand list; a backward walk in the same order
// combines the values and updates the regrets.
#include <cfloat>

#include "solver/walk.h"

RiverGroups river_groups(const BoardRecord& record) {
  TlsBlock& tb = tls_block();
  return {record.groups.data(), tb.river->group_masks, int32_t(record.groups.size())};
}

void prepare_river_subtree(TraversalContext& ctx) {
  TlsBlock& tb = tls_block();
  if (!tb.river) tb.river = std::make_unique<RiverBatch>();
  RiverBatch& b = *tb.river;
  const BoardRecord& r = *cell_board(*ctx.tree, ctx.turn_cell, ctx.river_cell).record;
  compute_group_masks(b.group_masks, ctx.reach.data, int32_t(r.holes.size()), r.groups.data(),
                      int32_t(r.groups.size()));
  // Room for the whole subtree, so that no list grows during the walk and the
  // reach pointers in `slots` stay valid.
  const NodeFacts& f = Facts.node[size_t(node_index(*ctx.tree, *ctx.node))];
  b.terminals.clear();
  b.reaches.clear();
  b.slots.clear();
  b.results.clear();
  b.strategies.clear();
  b.next_result = b.next_reach = b.next_strategy = 0;
  size_t room = size_t(f.size) + 1;
  b.terminals.reserve(size_t(f.terminals));
  b.slots.reserve(size_t(f.terminals));
  b.results.reserve(size_t(f.terminals));
  b.out_rows.reserve(size_t(f.terminals));
  b.reach_rows.reserve(size_t(f.terminals));
  b.values.reserve(size_t(f.terminals));
  // Every child of a node is a node of the subtree: `room` bounds both lists.
  b.reaches.reserve(room);
  b.strategies.reserve(room);
}

namespace {

struct BatchWalk {
  Tree& t;
  const WalkState& w;
  RiverBatch& b;
  int32_t tc, rc, count;
  const BoardRecord& record;
  bool update;  // pass 1 or 2: sums and regrets change

  void forward(Node& node, HandVector* reach) {
    if (node.kind != NODE_DECISION) {
      b.terminals.push_back({double(terminal_value(w, node)), node.kind});
      b.slots.push_back(reach->data ? reach : nullptr);
      return;
    }
    const int32_t n = int32_t(node.children.size());
    float defaults[MaxNodeActions];
    if (node.player == w.traverser) {
      // Own node: the reach goes on unchanged; the strategy waits for the
      // backward walk.
      size_t base = b.strategies.size();
      for (int32_t a = 0; a < n; a++) b.strategies.emplace_back();
      if (reach->data) {
        default_strategy(node, defaults);
        node.regretStore->read_strategy(&b.strategies[base], tc, rc, defaults);
      }
      for (int32_t a = 0; a < n; a++) forward(t.nodes[size_t(node.children[size_t(a)])], reach);
      return;
    }
    // Other node: sums, then the child reaches, kept in the list.
    size_t base = b.reaches.size();
    for (int32_t a = 0; a < n; a++) b.reaches.emplace_back();
    HandVector* s = &b.reaches[base];
    if (reach->data) {
      default_strategy(node, defaults);
      node.regretStore->read_strategy(s, tc, rc, defaults);
      if (update && node.strategyStore) {
        float weight = average_weight(t, w, node.street);
        CellLock* lock = node.regretStore->cell_lock_info(tc, rc);
        if (weight > 0.0f && !(lock && (lock->flags & CELL_LOCKED)))
          node.strategyStore->accumulate_strategy(tc, rc, s, *reach, weight);
      }
      child_reaches(s, n, reach->data, count);
    } else {
      for (int32_t a = 0; a < n; a++) make_empty(s[a], count);
    }
    for (int32_t a = 0; a < n; a++) forward(t.nodes[size_t(node.children[size_t(a)])], &b.reaches[base + size_t(a)]);
  }

  void kernels() {
    const size_t n = b.terminals.size();
    b.results.resize(n);
    const RiverGroups groups = river_groups(record);
    // Showdowns first, then folds; empty reaches get empty values.
    for (int kind : {int(NODE_SHOWDOWN), int(NODE_FOLD)}) {
      b.out_rows.clear();
      b.reach_rows.clear();
      b.values.clear();
      for (size_t i = 0; i < n; i++) {
        if (b.terminals[i].kind != kind) continue;
        if (!b.slots[i]) {
          make_empty(b.results[i], count);
          continue;
        }
        alloc_vector(b.results[i], count, false);
        b.out_rows.push_back(b.results[i].data);
        b.reach_rows.push_back(b.slots[i]->data);
        b.values.push_back(float(b.terminals[i].value));
      }
      const int32_t m = int32_t(b.out_rows.size());
      if (m == 0) continue;
      if (kind == NODE_SHOWDOWN)
        showdown_value_batch(b.out_rows.data(), b.reach_rows.data(), b.values.data(), m, count, groups,
                             record.packed.data());
      else
        fold_value_batch(b.out_rows.data(), b.reach_rows.data(), b.values.data(), m, count,
                         record.packed.data());
      count_terminal_hands(int64_t(m) * count);
    }
  }

  void backward(Node& node, const HandVector& reach, HandVector& value) {
    if (node.kind != NODE_DECISION) {
      value = std::move(b.results[size_t(b.next_result++)]);
      return;
    }
    const int32_t n = int32_t(node.children.size());
    if (node.player == w.traverser) {
      HandVector* s = &b.strategies[size_t(b.next_strategy)];
      b.next_strategy += n;
      VectorFrame c(n);
      for (int32_t a = 0; a < n; a++) backward(t.nodes[size_t(node.children[size_t(a)])], reach, c[a]);
      if (!update) {
        // Pass 0 never reaches a river subtree; keep the walk honest anyway.
        make_empty(value, count);
        return;
      }
      finish_own_node(t, w, node, tc, rc, count, reach, s, c.data(), nullptr, value, nullptr);
      return;
    }
    HandVector* r = &b.reaches[size_t(b.next_reach)];
    b.next_reach += n;
    make_empty(value, count);
    for (int32_t a = 0; a < n; a++) {
      HandVector child;
      backward(t.nodes[size_t(node.children[size_t(a)])], r[a], child);
      add_vector(value, child);
    }
  }
};

}  // namespace

void run_river_batch(TraversalContext& ctx) {
  Tree& t = *ctx.tree;
  RiverBatch& b = *tls_block().river;
  const CellBoard board = cell_board(t, ctx.turn_cell, ctx.river_cell);
  BatchWalk walk{t, *ctx.walk, b, ctx.turn_cell, ctx.river_cell, board.count, *board.record,
                 ctx.walk->pass != PASS_QUEUE};
  // Reaches down, the kernels on every terminal at once, values up.
  walk.forward(*ctx.node, &ctx.reach);
  walk.kernels();
  b.next_result = b.next_reach = b.next_strategy = 0;
  walk.backward(*ctx.node, ctx.reach, ctx.value);
  if (!ctx.value.data) ctx.value.count = board.count;
  // The batch's lists emptied for the next subtree, their memory kept.
  b.terminals.clear();
  b.slots.clear();
  b.results.clear();
  b.reaches.clear();
  b.strategies.clear();
}
