// The built tree: its creation from the flat records, its destruction in a
// fixed order, node statistics, and the commands that report on the tree.
#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>
#include <string>

#include "storage/memory/allocation.h"
#include "storage/memory/fatal.h"
#include "storage/store.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

Tree* ActiveTree = nullptr;

Node* built_node(const SchematicNode* node) {
  if (!ActiveTree || !node || node->flattening != ActiveTree->flattening || node->index < 0 ||
      size_t(node->index) >= ActiveTree->nodes.size())
    return nullptr;
  return &ActiveTree->nodes[size_t(node->index)];
}
TreeHooks SolverHooks;

void call_hook(void (*hook)(), const char* name) {
  assert(hook && "a tree hook was called before install_solver_hooks");
  if (!hook) storage_fatal((std::string("hook ") + name + " not installed").c_str());
  hook();
}

SolverParams solver_params(int32_t root_street, StoragePair pair) {
  SolverParams p;
  p.max_iterations = pair.strategy == 3 ? 2200 : 9000;
  p.river_group_iterations = pair.regrets == 2 ? 30 : 0;
  // A river game is short: later iterations get far more weight in the average.
  if (root_street == 3) {
    p.strategy_exponent = 4.0;
    p.strategy_weight_cap = DBL_MAX;
  }
  return p;
}

// ---- Destruction --------------------------------------------------------------

static void free_node_extras(Node& node) {
  delete node.regretStore;
  node.regretStore = nullptr;
  delete node.strategyStore;
  node.strategyStore = nullptr;
  node.stores_ready = false;
  delete[] node.turn_locks;
  node.turn_locks = nullptr;
  delete[] node.street_records;
  node.street_records = nullptr;
  node.street_record_count = 0;
}

// Board data first, then the tree's own lists, then each node with what it
// owns, then the array: nothing below is freed while something above still
// points at it.
static void destroy_tree(Tree* tree) {
  if (!tree) return;
  delete tree->boards;
  tree->boards = nullptr;
  for (int p = 0; p < 2; p++) {
    std::vector<float>().swap(tree->reach_weights[p]);
    std::vector<float>().swap(tree->norm_weights[p]);
  }
  for (Node& node : tree->nodes)
    if (node.owns_extras) free_node_extras(node);
  std::vector<Node>().swap(tree->nodes);
  delete tree;
}

void free_active_tree() {
  Tree* tree = ActiveTree;
  // Unpublish before destroying, so nothing can find a half-freed tree.
  ActiveTree = nullptr;
  TreePresent = false;
  destroy_tree(tree);
  call_hook(SolverHooks.empty_subgame_queue, "empty_subgame_queue");
  empty_all_row_pools();
}

// ---- Construction -------------------------------------------------------------

void make_tree(const std::vector<LineRecord>& records, const Card flop[3], int turn, int river,
               const Range ranges[2], bool use_isomorphism) {
  free_active_tree();

  // Owned by the guard until complete, so a failed allocation frees it.
  std::unique_ptr<Tree, void (*)(Tree*)> tree(new Tree, destroy_tree);
  Tree& t = *tree;
  t.flags = NEW_TREE;
  t.flattening = Flattenings;
  t.average_policy = 1;
  t.max_range_weight[0] = t.max_range_weight[1] = 1.0;
  t.flop_board = CardBit(flop[0]) | CardBit(flop[1]) | CardBit(flop[2]);
  t.board = t.flop_board;
  if (turn >= 0) t.board |= CardBit(turn);
  if (river >= 0) t.board |= CardBit(river);
  for (int p = 0; p < 2; p++)
    if (ranges[p].size() == size_t(HandCount))
      std::copy(ranges[p].begin(), ranges[p].end(), t.ranges[p]);

  t.nodes = std::vector<Node>(records.size());
  int64_t children_total = 0, parents = 0;
  for (size_t i = 0; i < records.size(); i++) {
    const LineRecord& r = records[i];
    Node& node = t.nodes[i];
    node.kind = r.kind;
    node.parent_index = r.parent_index;
    node.player = r.player;
    node.street = r.street;
    node.value = r.value;
    node.ev_boost = 0;
    node.cell_mark[0] = node.cell_mark[1] = -1;

    // Records are in pre-order, so the parent is complete already.
    Node* parent = r.parent_index >= 0 ? &t.nodes[r.parent_index] : nullptr;
    if (parent) {
      parent->children.push_back(int32_t(i));
      node.parent = parent;
    }
    if (r.kind != NODE_DECISION) {
      if (parent) node.player = parent->player;
      // All cards are dealt before a showdown; a fold ends where it happens.
      node.street = r.kind == NODE_FOLD ? (parent ? parent->street : r.street) : 3;
      t.max_payoff = std::max(t.max_payoff, std::fabs(node.value));
    }

    // Where a street begins, the subgames of its cards meet: the turn's first
    // node locks per turn card, the first decisions keep their street records.
    if (node.street == 2 && (!parent || parent->street < 2)) {
      node.turn_locks = new std::mutex[TurnCardSlots];
      if (node.kind == NODE_DECISION) {
        node.street_records = new SubgameResults[1];
        node.street_record_count = 1;
      }
    } else if (node.kind == NODE_DECISION && node.street == 3 && (!parent || parent->street < 3)) {
      node.street_records = new SubgameResults[RiverCardSlots];
      node.street_record_count = RiverCardSlots;
    }
    node.owns_extras = true;
  }
  for (const Node& node : t.nodes) {
    if (node.children.empty()) continue;
    t.action_max = std::max(t.action_max, int32_t(node.children.size()));
    children_total += int64_t(node.children.size());
    parents++;
  }
  t.action_average = parents ? double(children_total) / double(parents) : 0.0;
  shell_print("#actions max %d avg %.2g\n", t.action_max, t.action_average);

  // The per-board hole sets: every board below the root with its live hands.
  BoardSetup setup;
  setup.flop = t.flop_board;
  setup.turn = turn;
  setup.river = river;
  setup.ranges[0] = t.ranges[0];
  setup.ranges[1] = t.ranges[1];
  setup.use_isomorphism = use_isomorphism;
  setup.action_max = t.action_max;
  setup.last_street = 1;
  for (const Node& node : t.nodes) setup.last_street = std::max(setup.last_street, node.street);
  std::unique_ptr<BoardTree> boards = build_board_tree(setup);
  for (int p = 0; p < 2; p++) {
    t.reach_weights[p] = boards->reach_weights[p];
    t.norm_weights[p] = boards->norm_weights[p];
    t.max_range_weight[p] = boards->max_range_weight[p];
  }
  if (boards->isomorphic) t.flags |= ISOMORPHISM_ON;
  t.boards = boards.release();

  t.params = solver_params(t.nodes.empty() ? 1 : t.nodes[0].street, StoragePair{});
  t.regret_scale = std::pow(2.0, Precision) * RegretScaleBase / t.max_payoff;

  ActiveTree = tree.release();
}

// ---- Statistics ---------------------------------------------------------------

// Card sequences that lead to a street: one flop, 49 turns, 49 x 48 rivers.
static int64_t street_multiplicity(int32_t street) {
  return street <= 1 ? 1 : street == 2 ? 49 : 2352;
}

// Lines added after a build can reach past the river; they count as river.
static int32_t clamp_street(int32_t street) { return std::min(std::max(street, 1), 3); }

NodeCounts count_nodes(const SchematicNode& root, int32_t start_street) {
  NodeCounts c;
  // Order doesn't matter to sums; a stack keeps deep lines off the call stack.
  std::vector<const SchematicNode*> stack{&root};
  while (!stack.empty()) {
    const SchematicNode& node = *stack.back();
    stack.pop_back();
    int32_t s = clamp_street(start_street + node.street);
    int64_t m = street_multiplicity(s);
    if (!node.children.empty()) {
      c.decisions[node.player & 1][s] += m;
      c.decisions[node.player & 1][0] += m;
      c.total += m;
    }
    for (const auto& entry : node.children) {
      const SchematicNode& child = *entry.second;
      if (child.street > node.street) {
        c.splits[s] += m;
        c.splits[0] += m;
        c.total += m;
      }
      if (child.children.empty()) {
        c.ends[s] += m;
        c.ends[0] += m;
        c.total += m;
      }
      stack.push_back(&child);
    }
  }
  return c;
}

// ---- Module state ---------------------------------------------------------------

void reset_tree_state() {
  free_active_tree();
  clear_schematic_tree();
  StartStreet = 1;
}

// ---- Commands -------------------------------------------------------------------

// ---- Memory of the tree ----------------------------------------------------------

template <typename V>
static int64_t capacity_bytes(const V& v) {
  return int64_t(v.capacity() * sizeof(typename V::value_type));
}

static int64_t record_bytes(const BoardRecord& r) {
  int64_t n = capacity_bytes(r.holes) + capacity_bytes(r.packed) + capacity_bytes(r.pairPosition) +
              capacity_bytes(r.strength) + capacity_bytes(r.parentPosition) + capacity_bytes(r.children) +
              capacity_bytes(r.childHoleCount) + capacity_bytes(r.groups) + capacity_bytes(r.group_table8) +
              capacity_bytes(r.group_table16);
  for (const std::vector<uint16_t>& p : r.parentPosition) n += capacity_bytes(p);
  for (const BoardRecord& c : r.children) n += record_bytes(c);
  return n;
}

static int64_t hole_set_bytes(const BoardTree& b) {
  int64_t n = int64_t(sizeof(BoardTree)) + capacity_bytes(b.holes) + capacity_bytes(b.packed) +
              capacity_bytes(b.pairPosition) + capacity_bytes(b.children) + capacity_bytes(b.childHoleCount) +
              capacity_bytes(b.childRiverCounts);
  for (const std::vector<int32_t>& c : b.childRiverCounts) n += capacity_bytes(c);
  for (const BoardRecord& r : b.children) n += record_bytes(r);
  return n;
}

static void add_hand_vector(const HandVector& v, MemoryPart& p, bool settled) {
  if (!v.data || v.pooled) return;
  int64_t bytes = settled ? scalable_block_bytes(v.data) : int64_t(v.count) * 4;
  p.bytes += bytes;
  p.scalable += bytes;
}

static void add_heap_bytes(MemoryPart& p, int64_t bytes) {
  p.bytes += bytes;
  p.heap += bytes;
}

static MemoryPart as_part(const char* name, const StoreMemory& m) { return {name, m.bytes, m.scalable, m.heap}; }

std::vector<MemoryPart> tree_memory_parts(bool settled) {
  std::vector<MemoryPart> parts;
  const Tree* t = ActiveTree;
  if (!t) return parts;
  StoreMemory regrets, sums, upper;
  MemoryPart tables{"tree and tables"};
  add_heap_bytes(tables, int64_t(sizeof(Tree)) + capacity_bytes(t->nodes));
  for (const Node& n : t->nodes) {
    add_heap_bytes(tables, capacity_bytes(n.children));
    if (n.street == 3) {
      add_store_memory(n.regretStore, regrets, settled);
      add_store_memory(n.strategyStore, sums, settled);
    } else {
      add_store_memory(n.regretStore, upper, settled);
      add_store_memory(n.strategyStore, upper, settled);
    }
    if (n.turn_locks) add_heap_bytes(tables, int64_t(sizeof(std::mutex)) * TurnCardSlots);
    for (int32_t k = 0; k < n.street_record_count; k++) {
      const SubgameResults& r = n.street_records[k];
      for (int p = 0; p < 2; p++) {
        add_hand_vector(r.reach[p], tables, settled);
        add_hand_vector(r.value[p], tables, settled);
        add_hand_vector(r.br_value[p], tables, settled);
      }
    }
    if (n.street_records) add_heap_bytes(tables, int64_t(sizeof(SubgameResults)) * n.street_record_count);
  }
  for (int p = 0; p < 2; p++) add_heap_bytes(tables, capacity_bytes(t->reach_weights[p]) + capacity_bytes(t->norm_weights[p]));
  if (t->shapes) {
    for (const std::vector<StoreShape>& street : t->shapes->by_street) {
      for (const StoreShape& s : street)
        add_heap_bytes(tables, capacity_bytes(s.groups) + capacity_bytes(s.cells) + capacity_bytes(s.group_spans));
    }
  }
  MemoryPart holes{"hole sets"};
  if (t->boards) {
    const BoardTree& b = *t->boards;
    add_heap_bytes(holes, hole_set_bytes(b));
    for (int p = 0; p < 2; p++) add_heap_bytes(tables, capacity_bytes(b.reach_weights[p]) + capacity_bytes(b.norm_weights[p]));
    for (const ActionLayout& l : b.layouts)
      add_heap_bytes(tables, capacity_bytes(l.turn_rows) + capacity_bytes(l.river_rows) + capacity_bytes(l.turn_spans));
  }
  parts.push_back(as_part("river regrets", regrets));
  parts.push_back(as_part("river sums", sums));
  parts.push_back(as_part("turn and flop stores", upper));
  parts.push_back(holes);
  parts.push_back(tables);
  return parts;
}
