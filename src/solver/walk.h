// What the walk, the subgame runner and the river batch share inside the
// solver: hand-vector helpers, the board of a cell, per-tree facts, the
// per-thread block, and the steps of a decision node that the plain
// recursion and the river batch both take.
#pragma once
#include <cfloat>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "solver/kernels/kernels.h"
#include "solver/solver.h"
#include "storage/store.h"
#include "tree/board_tree.h"

// Enough for any line; stores have the same ceiling.
constexpr int32_t MaxNodeActions = 64;

// ---- Hand vectors -------------------------------------------------------------

// A buffer of `count` floats from the thread's pool in force; zeroed on request.
inline void alloc_vector(HandVector& v, int32_t count, bool zero) {
  v.resize(count, true);
  if (zero && count > 0) memset(v.data, 0, size_t(count) * sizeof(float));
}
// No data: all zeros, the count still valid.
inline void make_empty(HandVector& v, int32_t count) {
  v.release();
  v.count = count;
}
inline void copy_vector(HandVector& dst, const HandVector& src) {
  if (!src.data) {
    make_empty(dst, src.count);
    return;
  }
  alloc_vector(dst, src.count, false);
  memcpy(dst.data, src.data, size_t(src.count) * sizeof(float));
}
// A copy that outlives the pass (street records): never from the pool.
inline void keep_vector(HandVector& dst, const HandVector& src, int32_t count) {
  if (dst.pooled) dst.release();
  dst.resize(count, false);
  if (count <= 0) return;
  if (src.data)
    memcpy(dst.data, src.data, size_t(count) * sizeof(float));
  else
    memset(dst.data, 0, size_t(count) * sizeof(float));
}
// dst += src; an empty src adds nothing, an empty dst takes src over.
inline void add_vector(HandVector& dst, HandVector& src) {
  if (!src.data) return;
  if (!dst.data) {
    dst = std::move(src);
    return;
  }
  float* __restrict d = dst.data;
  const float* __restrict s = src.data;
  for (int32_t i = 0; i < dst.count; i++) d[i] += s[i];
}
inline void scale_vector(HandVector& v, float f) {
  if (!v.data) return;
  float* __restrict d = v.data;
  for (int32_t i = 0; i < v.count; i++) d[i] *= f;
}
// The reaches of an acting player's children: the strategy rows in `s`
// become strategy x reach; a child whose reach sums below FLT_MIN is dropped.
//
// The sum only decides the drop, and that decision doesn't depend on the
// order of the additions: the terms are never negative, sums below FLT_MIN
// are exact, and a sum of non-negative terms that reaches FLT_MIN can't round
// back below it. So reach_row may add in whatever order vectorises best.
inline void child_reaches(HandVector* s, int32_t n, const float* __restrict reach, int32_t count) {
  for (int32_t a = 0; a < n; a++)
    if (reach_row(s[a].data, reach, count) < FLT_MIN) make_empty(s[a], count);
}

// ---- Boards ---------------------------------------------------------------------

// The hand list of the deepest cell in force.
struct CellBoard {
  int32_t count;
  const uint16_t* packed;
  const BoardRecord* record;  // null at the root list
};
inline CellBoard cell_board(const Tree& t, int32_t turn_cell, int32_t river_cell) {
  const BoardTree& b = *t.boards;
  if (turn_cell < 0) return {int32_t(b.holes.size()), b.packed.data(), nullptr};
  const BoardRecord* r = &b.children[size_t(turn_cell)];
  if (river_cell >= 0) r = &r->children[size_t(river_cell)];
  return {int32_t(r->holes.size()), r->packed.data(), r};
}

// ---- Per-tree facts ---------------------------------------------------------------

struct NodeFacts {
  int32_t end = 0;        // one past the last node of the subtree (pre-order)
  int32_t size = 0;       // nodes of the subtree
  int32_t terminals = 0;  // terminal nodes of the subtree
  bool reaches_chance = false;  // pass 0 must walk it: a later street lies in it
};
struct TreeFacts {
  const Tree* tree = nullptr;
  const Node* nodes = nullptr;
  size_t count = 0;
  int32_t root_street = 1;
  bool has_chance = false;
  std::vector<NodeFacts> node;
};
extern TreeFacts Facts;  // solver_state.cpp
// Rebuilds the facts when the tree is another one; under the traversal lock.
void prepare_tree_facts(Tree& tree);
void forget_tree_facts();
// The evaluation cache belongs to one tree; a freed tree takes it along.
void forget_results_cache();
inline int32_t node_index(const Tree& t, const Node& n) { return int32_t(&n - t.nodes.data()); }

// ---- Steps of a walk -----------------------------------------------------------------
// The whole-tree walk (traverse) and the walks of single subgames after a
// forget take the same steps to start and end.

// The state of a walk for `player` in `mode`, starting in `pass`, on the
// river-sum schedule of the tree's present iteration.
WalkState walk_state(const Tree& tree, int32_t player, int32_t mode, WalkPass pass, WalkProbe probe = {});
// A context at `node` on the board of the cells, with the other player's
// arriving reach.
void start_context(TraversalContext& ctx, Tree& tree, const WalkState& w, Node* node, int32_t turn_cell,
                   int32_t river_cell, const std::vector<float>& reach);
// Gives back the vectors of a context the walk is done with.
void release_context(TraversalContext& ctx);
// Pass 1: the queued subgames on the team; the caller's pool back in force.
void run_queued_subgames(Tree& tree, WalkState& w);

// ---- Walk state between calls (solver_state.cpp) ------------------------------------

// The subgames of a walk: created in walk order by pass 0 into records kept
// and reused between passes, so that queuing allocates only while the queue
// grows beyond what an earlier pass needed; run by pass 1 in run_order;
// collected by pass 2 at `cursor`.
struct SubgameState {
  std::vector<Subgame*> queue;
  int32_t cursor = 0;
  std::atomic<int32_t> done_count{0};
  std::vector<std::unique_ptr<Subgame>> records;
  std::vector<std::unique_ptr<SubgameShared>> shared;
  size_t records_used = 0;
  size_t shared_used = 0;
  std::vector<Subgame*> run_order;
  std::mutex merge_lock;                 // the chance node's sums
  std::recursive_mutex traversal_lock;  // every whole-tree walk (traversal_lock())
};
extern SubgameState Subgames;

// Subgames solved again since the last forget, as (subgame root, turn cell).
struct ForgetState {
  std::set<std::pair<int32_t, int32_t>> solved_units;
};
extern ForgetState Forgetting;

// ---- Per-thread block ----------------------------------------------------------------

// HandVectors for the frames of the recursion, taken and given back in stack
// order so that no frame allocates once the chunks exist.
struct VectorStack {
  static constexpr int32_t ChunkSize = 256;
  std::vector<std::unique_ptr<HandVector[]>> chunks;
  int32_t chunk = 0;
  int32_t top = 0;
};

struct BatchTerminal {
  double value;  // signed for the traverser
  int32_t kind;
};

// The river batch's lists: filled by the forward walk in depth-first order,
// read back in the same order by the backward walk.
struct RiverBatch {
  alignas(64) uint16_t group_masks[MaxRiverHands];
  std::vector<BatchTerminal> terminals;
  std::vector<HandVector> reaches;     // child reaches of other-player nodes
  std::vector<HandVector*> slots;      // per terminal: its reach, or null when empty
  std::vector<HandVector> results;     // per terminal: its value
  std::vector<HandVector> strategies;  // per own node: one row per action
  int32_t next_result = 0;
  int32_t next_reach = 0;
  int32_t next_strategy = 0;
  // Kernel arguments, reserved with the lists.
  std::vector<float*> out_rows;
  std::vector<const float*> reach_rows;
  std::vector<float> values;
};

struct TlsBlock {
  RowPool* pool = nullptr;             // the thread's row pool
  std::unique_ptr<RiverBatch> river;   // made on the first river subtree
  VectorStack stack;
  std::vector<RiverStoreRef> river_stores[4];  // regrets p0, p1, sums p0, p1
};
TlsBlock& tls_block();
// Makes the calling thread's pool ready for the tree's rows and puts it in
// force; returns the pool that was in force before.
RowPool* enter_pool(const Tree& tree);

// A frame of `n` vectors from the thread's stack, given back on destruction.
class VectorFrame {
 public:
  explicit VectorFrame(int32_t n);
  ~VectorFrame();
  VectorFrame(const VectorFrame&) = delete;
  VectorFrame& operator=(const VectorFrame&) = delete;
  HandVector& operator[](int32_t i) { return v_[i]; }
  HandVector* data() { return v_; }

 private:
  VectorStack& stack_;
  HandVector* v_;
  int32_t n_;
  int32_t saved_chunk_, saved_top_;
};

// ---- Shared steps of a decision node ---------------------------------------------------

// River runs of equal strength with the thread's group masks.
RiverGroups river_groups(const BoardRecord& record);
// The thread's river scratch for the subtree rooted at ctx.node: group masks
// of the reach and room in the batch lists.
void prepare_river_subtree(TraversalContext& ctx);
// Training on a river subtree: forward walk, batched kernels, backward walk.
void run_river_batch(TraversalContext& ctx);

// Strategy-sum weight of this iteration at a node of `street`; 0 = no sums.
float average_weight(const Tree& tree, const WalkState& walk, int32_t street);
// The node's terminal value signed for the traverser.
inline float terminal_value(const WalkState& w, const Node& n) {
  float v = float(n.value);
  return n.kind == NODE_FOLD && n.player == w.traverser ? -v : v;
}
// The last two children are the call (showdown) and the fold, both terminal.
inline bool fused_pair(const Tree& t, const Node& node) {
  size_t n = node.children.size();
  return node.street == 3 && n >= 2 && t.nodes[size_t(node.children[n - 2])].kind == NODE_SHOWDOWN &&
         t.nodes[size_t(node.children[n - 1])].kind == NODE_FOLD;
}
// EV boost of the child `a` on its value vector (training only).
void apply_ev_boost(const Node& parent, const Node& child, HandVector& v);
// The end of an own node: combine the children with the strategy, the
// best response in evaluation, the regret update in training.
void finish_own_node(Tree& t, const WalkState& walk, Node& node, int32_t turn_cell, int32_t river_cell, int32_t count,
                     const HandVector& reach, HandVector* strategy, HandVector* child_values,
                     HandVector* child_br, HandVector& value, HandVector* br_value);
