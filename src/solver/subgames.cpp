// Subgames: every chance card below a chance node is one piece of work. Pass
// 0 queues them in walk order, pass 1 runs them on the OpenMP team, longest
// first, and pass 2 collects their merged values at the same chance nodes.
#include <algorithm>
#include <atomic>
#include <chrono>

#include "solver/walk.h"

std::recursive_mutex& traversal_lock() { return Subgames.traversal_lock; }

void queue_subgames(TraversalContext& ctx) {
  Tree& t = *ctx.tree;
  const BoardTree& bt = *t.boards;
  const bool turn = ctx.turn_cell < 0;
  const std::vector<BoardRecord>& kids = turn ? bt.children : bt.children[size_t(ctx.turn_cell)].children;
  const int32_t parent_count =
      turn ? int32_t(bt.holes.size()) : int32_t(bt.children[size_t(ctx.turn_cell)].holes.size());

  // The node's shared vectors.
  if (Subgames.shared_used == Subgames.shared.size()) Subgames.shared.push_back(std::make_unique<SubgameShared>());
  SubgameShared& sh = *Subgames.shared[Subgames.shared_used++];
  copy_vector(sh.reach, ctx.reach);
  sh.has_own = ctx.own_reach.count > 0;
  if (sh.has_own)
    copy_vector(sh.own_reach, ctx.own_reach);
  else
    make_empty(sh.own_reach, 0);
  alloc_vector(sh.value_sum, parent_count, true);
  sh.has_br = ctx.walk->mode == MODE_EVALUATE;
  if (sh.has_br)
    alloc_vector(sh.br_sum, parent_count, true);
  else
    make_empty(sh.br_sum, 0);

  // One record per card.
  for (size_t k = 0; k < kids.size(); k++) {
    if (Subgames.records_used == Subgames.records.size()) Subgames.records.push_back(std::make_unique<Subgame>());
    Subgame* sg = Subgames.records[Subgames.records_used++].get();
    sg->context.tree = &t;
    sg->context.walk = ctx.walk;
    sg->context.node = ctx.node;
    sg->context.turn_cell = turn ? int32_t(k) : ctx.turn_cell;
    sg->context.river_cell = turn ? -1 : int32_t(k);
    sg->shared = &sh;
    Subgames.queue.push_back(sg);
  }
}

void free_subgame_queue() {
  for (size_t i = 0; i < Subgames.records_used; i++) {
    TraversalContext& c = Subgames.records[i]->context;
    c.reach.release();
    c.value.release();
    c.own_reach.release();
    c.br_value.release();
    Subgames.records[i]->shared = nullptr;
  }
  for (size_t i = 0; i < Subgames.shared_used; i++) {
    SubgameShared& sh = *Subgames.shared[i];
    sh.reach.release();
    sh.own_reach.release();
    sh.value_sum.release();
    sh.br_sum.release();
  }
  Subgames.records_used = Subgames.shared_used = 0;
  Subgames.queue.clear();
  Subgames.cursor = 0;
}

// Maps a parent-order vector down to a child board (variant 0).
static void map_down(HandVector& out, const HandVector& in, const BoardRecord& r) {
  const int32_t n = int32_t(r.holes.size());
  if (!in.data) {
    make_empty(out, n);
    return;
  }
  alloc_vector(out, n, false);
  gather_row(out.data, in.data, r.parentPosition[0].data(), n);
}

// Adds a child-order vector into the parent order, once per variant.
static void map_up(HandVector& sum, const HandVector& v, const BoardRecord& r) {
  if (!v.data || !sum.data) return;
  add_to_parent(r, v.data, sum.data);
}

static void run_subgame(Subgame& sg) {
  // The card's context, on this thread's pool.
  const auto start = std::chrono::steady_clock::now();
  TraversalContext& ctx = sg.context;
  Tree& t = *ctx.tree;
  Node& node = *ctx.node;
  RowPool* before = enter_pool(t);
  SubgameShared& sh = *sg.shared;
  const BoardRecord& r = *cell_board(t, ctx.turn_cell, ctx.river_cell).record;

  // Reach down, then the turn card's lock.
  map_down(ctx.reach, sh.reach, r);
  if (sh.has_own)
    map_down(ctx.own_reach, sh.own_reach, r);
  else
    make_empty(ctx.own_reach, 0);
  std::mutex* turn_lock = ctx.river_cell < 0 && node.turn_locks ? &node.turn_locks[ctx.turn_cell] : nullptr;
  if (turn_lock) turn_lock->lock();
  // The walk below the card.
  visit_node(ctx);
  // The lock let go, the values merged up into the node's sums.
  if (turn_lock) turn_lock->unlock();
  {
    std::lock_guard<std::mutex> merge(Subgames.merge_lock);
    map_up(sh.value_sum, ctx.value, r);
    if (sh.has_br) map_up(sh.br_sum, ctx.br_value, r);
  }
  // The card's vectors go back.
  ctx.reach.release();
  ctx.own_reach.release();
  ctx.value.release();
  ctx.br_value.release();
  Subgames.done_count.fetch_add(1);
  // Every card of the node writes its time; the last one stays.
  if (ctx.walk->mode == MODE_TRAIN) {
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    std::atomic_ref<int32_t>(node.cell_mark[ctx.walk->traverser & 1])
        .store(int32_t(std::min<int64_t>(us.count(), INT32_MAX)), std::memory_order_relaxed);
  }
  // The caller's pool back in force.
  set_current_row_pool(before);
}

void TraverseSubgames() {
  // Nothing queued, nothing to run.
  if (Subgames.queue.empty()) return;
  std::vector<Subgame*>& order = Subgames.run_order;
  order.assign(Subgames.queue.begin(), Subgames.queue.end());
  // The longest jobs of the last run first.
  const WalkState& w = *order[0]->context.walk;
  if (w.mode == MODE_TRAIN) {
    const int p = w.traverser & 1;
    std::stable_sort(order.begin(), order.end(), [p](const Subgame* a, const Subgame* b) {
      return a->context.node->cell_mark[p] > b->context.node->cell_mark[p];
    });
  }
  // Every card on the team, one at a time each.
  Subgames.done_count = 0;
  const int32_t n = int32_t(order.size());
  Subgame* const* run = order.data();
#pragma omp parallel for schedule(dynamic, 1)
  for (int32_t i = 0; i < n; i++) run_subgame(*run[i]);
}

// ---- Module hooks -----------------------------------------------------------------

// Called after a tree is destroyed: nothing queued or cached may outlive it.
static void empty_subgame_queue() {
  std::lock_guard<std::recursive_mutex> guard(Subgames.traversal_lock);
  free_subgame_queue();
  Subgames.run_order.clear();
  forget_tree_facts();
  forget_results_cache();
  forget_resolve_marks();
}

void install_solver_hooks() {
  SolverHooks.empty_subgame_queue = empty_subgame_queue;
  SolverHooks.reset_report_log = reset_report_log;
  TreeMemoryParts = [] { return tree_memory_parts(!solver_running()); };
}
