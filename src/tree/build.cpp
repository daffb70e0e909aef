// The build driver (build_tree, cut_line and, later, load_tree share it) and
// the compression planning that turns a level into the stores of every node.
#include <cfloat>
#include <cmath>

#include "platform/platform.h"
#include "storage/memory/counters.h"
#include "storage/store.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

int32_t CompressionSetting = -1;
int32_t ActualCompression = 0;

// "auto" stands one place before level 0, so indexing by level + 1 names -1 too.
static const char* const CompressionWords[7] = {"auto", "none", "low", "medium", "high", "max", "fast"};

const char* compression_word(int32_t level) {
  if (level < -1 || level > 5) return "none";
  return CompressionWords[level + 1];
}

StoragePair compression_pair(int32_t level) {
  switch (level) {
    case 1: return {0, 1};
    case 2: return {1, 1};
    case 3: return {1, 2};
    case 4: return {2, 2};
    case 5: return {0, 3};
    default: return {0, 0};
  }
}

int32_t parse_compression_level(const std::string& text) {
  for (int i = 0; i < 7; i++)
    if (text == CompressionWords[i]) return i - 1;
  int32_t v = parse_int(text);
  if (v < 0) return -1;
  return v > 5 ? 5 : v;
}

// Memory figures of the automatic choice; tests replace them.
MemoryStatus (*CompressionMemoryStatus)() = memory_status;

int32_t choose_compression_level(int64_t uncompressed, uint64_t total_physical, uint32_t load_percent,
                                 CardMask flop) {
  double free_bytes = double(total_physical) * double(100 - load_percent) / 100.0;
  int64_t budget = int64_t(0.85 * double(uint64_t(free_bytes)));
  int suits = 0;
  for (int s = 0; s < 4; s++)
    if (flop & (CardMask(0x1FFF) << (13 * s))) suits++;
  double a = 0.58, b = 0.39, c = 0.29;
  if (suits >= 3) {
    b = 0.312;
    c = 0.232;
  }
  double u = double(uncompressed), bud = double(budget);
  if (u < bud) return 0;
  if (bud > a * u) return 1;
  if (bud > b * u) return 2;
  if (bud > c * u) return 3;
  return 4;
}

int32_t automatic_compression_level() {
  planStorage(StoragePair{0, 0});
  const Tree& t = *ActiveTree;
  int64_t u = t.store_bytes[1] + t.store_bytes[2] + t.store_bytes[3];
  if (Verbosity > 0) shell_print("[uncompressed storage %lld MB]\n", (long long)(u / 1024 / 1024));
  MemoryStatus m = CompressionMemoryStatus();
  int32_t level = choose_compression_level(u, m.total_physical, m.load_percent, t.flop_board);
  shell_print("#auto compression level %d\n", level);
  return level;
}

BoardCells board_cells(const Tree& t) {
  BoardCells cells;
  cells.root_length = int32_t(t.boards->holes.size());
  cells.turn_lengths = t.boards->childHoleCount;
  cells.river_lengths = t.boards->childRiverCounts;
  return cells;
}

void make_stores_of_node(Tree& t, Node& node, const BoardCells& cells, int64_t totals[4]) {
  StoreNode sn;
  sn.decision = node.kind == NODE_DECISION;
  sn.street = node.street;
  sn.actions = int32_t(node.children.size());
  sn.regret_store = &node.regretStore;
  sn.strategy_store = &node.strategyStore;
  sn.stores_ready = &node.stores_ready;
  const StoreShape* shape =
      sn.decision && node.street == 3 && sn.actions > 0 ? t.shapes->shape(3, sn.actions) : nullptr;
  const int32_t root = t.nodes.empty() ? 1 : t.nodes[0].street;
  makeNodeStores(sn, cells, shape, totals, t.average_policy != 0, root,
                 StoragePair{t.regret_level, t.strategy_level}, t.format >= 5);
}

void planStorage(StoragePair pair) {
  Tree& t = *ActiveTree;
  const int32_t root = t.nodes.empty() ? 1 : t.nodes[0].street;

  t.params = solver_params(root, pair);
  if (root < 2) {
    t.regret_level = pair.regrets;
    t.strategy_level = pair.strategy;
  } else {
    t.regret_level = t.strategy_level = 0;
  }
  t.regret_scale = std::pow(2.0, Precision) * RegretScaleBase / t.max_payoff;
  for (int64_t& v : t.store_values) v = 0;

  // Old stores go before the shapes they were made with.
  for (Node& node : t.nodes) {
    delete node.regretStore;
    delete node.strategyStore;
    node.regretStore = node.strategyStore = nullptr;
    node.stores_ready = false;
  }
  const BoardCells cells = board_cells(t);
  t.shapes = std::make_unique<StoreShapeTable>();
  build_store_shapes(*t.shapes, cells, t.action_max);
  for (Node& node : t.nodes) make_stores_of_node(t, node, cells, t.store_values);
  const int64_t w = t.average_policy != 0 ? 6 : 2;  // two bytes a regret, four a sum
  for (int i = 0; i < 4; i++) t.store_bytes[i] = t.store_values[i] * w;
  reset_storage_counters();
  // Every store is new and empty: nothing is forgotten any more.
  t.flags &= ~uint32_t(INCOMPLETE_TREE);
  t.forgotten_street = -1;
  for (Node& node : t.nodes)
    for (int32_t k = 0; k < node.street_record_count; k++) node.street_records[k].frozen = false;
  t.iteration = 0;
  t.stores_ready = false;
  call_hook(SolverHooks.reset_report_log, "reset_report_log");
}

std::vector<int64_t> store_totals() {
  std::vector<int64_t> out(10, 0);
  if (!ActiveTree) return out;
  for (int i = 0; i < 4; i++) {
    out[size_t(i)] = ActiveTree->store_values[i];
    out[size_t(4 + i)] = ActiveTree->store_bytes[i];
  }
  return out;
}

static double largest_key(const SchematicNode& root) {
  double best = 0;
  std::vector<const SchematicNode*> stack{&root};
  while (!stack.empty()) {
    const SchematicNode* n = stack.back();
    stack.pop_back();
    for (const auto& [key, child] : n->children) {
      if (key > best) best = key;
      stack.push_back(child.get());
    }
  }
  return best;
}

// cut_line builds too, after the game may have changed or lost its last line.
void check_build_inputs() {
  if (Ranges[0].empty() || Ranges[1].empty()) fail_command("ranges not set");
  if (card_count(BoardFlop) != 3) fail_command("board not set");
  if (SchematicRoot->children.empty()) fail_command("lines not set");
}

// The range test of an isomorphic flop build: hands of one shape must weigh
// the same, or the suit map would merge different weights.
void check_range_consistency() {
  for (int player = 0; player < 2; player++) {
    const Range& r = Ranges[player];
    if (r.size() != HandCount) continue;
    for (const auto& bucket : ShapeBuckets) {
      int ref = -1;
      for (uint16_t p : bucket) {
        if (PairMasks[p] & BoardFlop) continue;
        if (ref < 0) {
          // A negative reference is not kept: the next pair becomes the reference.
          if (r[p] >= 0) ref = p;
          continue;
        }
        if (std::fabs(r[p] - r[ref]) > 2.220446049250313e-16) {
          char msg[256];
          snprintf(msg, sizeof msg,
                   "inconsistent range: %s P(%s) == %.2g, P(%s) == %.2g, use 'set_isomorphism 0 0' if intended",
                   PlayerNames[player], pair_text(ref).c_str(), r[ref], pair_text(p).c_str(), r[p]);
          fail_command(msg);
        }
      }
    }
  }
}

void build_game(bool plan_storage) {
  check_build_inputs();
  // The street the game starts on follows from the board alone.
  if (!BoardRiver) StartStreet = BoardTurn ? 2 : 1;
  else StartStreet = BoardTurn ? 3 : 2;
  // No stack is ever given: the deepest level of the lines is the stack.
  EffectiveStack = int32_t(largest_key(*SchematicRoot));
  // A flop game with isomorphism needs ranges that agree with it.
  if (StartStreet == 1 && IsomorphismFlop) check_range_consistency();
  // The lines flattened; none may go past the river.
  std::vector<LineRecord> records = flatten_lines(SchematicRoot.get());
  for (const LineRecord& r : records)
    if (r.kind == NODE_DECISION && r.street > 3) fail_command("invalid line");
  // The board's cards.
  Card flop[3];
  int k = 0;
  for (int c = 0; c < 52 && k < 3; c++)
    if (BoardFlop & CardBit(c)) flop[k++] = Card(c);
  int turn = BoardTurn ? __builtin_ctzll(BoardTurn) : -1;
  int river = BoardRiver ? __builtin_ctzll(BoardRiver) : -1;
  // From here on only exhausted memory can fail.
  bool iso = StartStreet == 1 ? IsomorphismFlop : StartStreet == 2 ? IsomorphismTurn : false;
  TreePresent = false;
  make_tree(records, flop, turn, river, Ranges, iso);
  // The stores at the compression level in force.
  if (plan_storage) {
    if (CompressionSetting >= 0) ActualCompression = CompressionSetting;
    else ActualCompression = automatic_compression_level();
    planStorage(compression_pair(ActualCompression));
  }
  // Only a whole tree is present.
  TreePresent = true;
}
