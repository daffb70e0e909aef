// Strategies, ranges and frequencies read from the stores of a solved tree.
#include <cmath>
#include <mutex>

#include "analysis/analysis.h"
#include "solver/solver.h"

namespace {

// One past the last node of a node's subtree: the nodes are in pre-order.
int32_t subtree_end(const Tree& t, int32_t i) {
  const Node& n = t.nodes[size_t(i)];
  return n.children.empty() ? i + 1 : subtree_end(t, n.children.back());
}

// River groups are compressed as one sequence per player and kind over the
// decisions below the first river node of the line, so a query opens the
// whole sequence of its turn card, as the walk does, and closes it unchanged.
struct OpenRiverGroup {
  std::vector<RiverStoreRef> lists[4];  // regrets p0, p1, sums p0, p1
  int32_t group = -1;
  bool keep = false;  // write the group back: a row was set by hand

  OpenRiverGroup(Tree& t, const Node& node, int32_t turn_cell) {
    if (node.street != 3 || turn_cell < 0) return;
    const Node* entry = &node;
    while (entry->parent && entry->parent->street == 3) entry = entry->parent;
    const int32_t first = int32_t(entry - t.nodes.data()), end = subtree_end(t, first);
    for (int32_t i = first; i < end; i++) {
      Node& d = t.nodes[size_t(i)];
      if (d.kind != NODE_DECISION || !d.regretStore) continue;
      lists[d.player & 1].push_back({d.regretStore, d.player});
      if (d.strategyStore) lists[2 + (d.player & 1)].push_back({d.strategyStore, d.player});
    }
    group = turn_cell;
    for (auto& l : lists)
      if (!l.empty()) open_river_group(l.data(), l.size(), group);
  }
  ~OpenRiverGroup() {
    if (group < 0) return;
    for (auto& l : lists)
      if (!l.empty()) close_river_group(l.data(), l.size(), group, keep);
  }
};

// Street of a schematic node's cards: the turn counts from the turn on.
int32_t spot_turn(const Spot& s, int32_t street) { return street >= 2 ? s.turn : -1; }
int32_t spot_river(const Spot& s, int32_t street) { return street >= 3 ? s.river : -1; }

}  // namespace

void open_forgotten(Tree& t, Node& node, const SpotCell& cell) {
  if (node_forgotten(t, node)) resolve_node(t, node, cell.turn_cell, cell.river_cell, false, RecalcAccuracy);
}

CardMask spot_board(const Tree& tree, const Spot& spot) {
  CardMask b = tree.board;
  if (spot.turn >= 0) b |= CardBit(Card(spot.turn));
  if (spot.river >= 0) b |= CardBit(Card(spot.river));
  return b;
}

bool spot_cell(const Tree& t, const Spot& s, SpotCell& c) {
  const int32_t street = s.built->street;
  const int32_t turn = spot_turn(s, street), river = spot_river(s, street);
  if ((street >= 2 && turn < 0) || (street >= 3 && river < 0)) return false;
  c.cards = canonicalise_query(t.flop_board, turn, river, t.boards->isomorphic);
  if (!find_board_cells(*t.boards, c.cards.turn, c.cards.river, c.turn_cell, c.river_cell)) return false;
  c.view = board_view(*t.boards, c.turn_cell, c.river_cell);
  return true;
}

bool strategy_rows(Tree& t, const Spot& s, std::vector<double>& rows) {
  Node& node = *s.built;
  const int32_t k = int32_t(node.children.size());
  rows.assign(size_t(k) * HandCount, 0.0);
  if (node.kind != NODE_DECISION || k == 0) return true;
  SpotCell cell;
  if (!spot_cell(t, s, cell)) return false;
  open_forgotten(t, node, cell);
  if (!node.regretStore) return true;
  const int32_t tc = cell.turn_cell, rc = cell.river_cell;
  const CanonicalCards& cc = cell.cards;
  const BoardView& view = cell.view;

  std::vector<HandVector> played(static_cast<size_t>(k));
  {
    std::lock_guard<std::recursive_mutex> guard(traversal_lock());
    if (!materialise_tree_stores(t)) return true;
    OpenRiverGroup open(t, node, tc);
    played_strategy(t, node, tc, rc, played.data(), QueryAverageFrom);
  }
  std::vector<float> row(size_t(view.count));
  for (int32_t act = 0; act < k; act++) {
    const HandVector& src = played[size_t(act)];
    for (int32_t i = 0; i < view.count; i++) row[size_t(i)] = src.data && i < src.count ? src.data[i] : 0.0f;
    double* out = rows.data() + size_t(act) * HandCount;
    expand_board_list(row.data(), view.pairPosition, cc.map, 0.0, out);
    const double* range = t.ranges[node.player];
    for (int h = 0; h < HandCount; h++)
      if (range[h] == 0.0) out[h] = 0.0;
  }
  return true;
}

int32_t built_action(const Tree& t, const Node& parent, const SchematicNode* child) {
  const Node* c = built_node(child);
  if (!c) return -1;
  for (size_t a = 0; a < parent.children.size(); a++)
    if (&t.nodes[size_t(parent.children[a])] == c) return int32_t(a);
  return -1;
}

void range_at(Tree& t, const Spot& s, int32_t player, double* out) {
  for (int h = 0; h < HandCount; h++) out[h] = t.ranges[player][h];
  std::vector<const SchematicNode*> line;
  for (const SchematicNode* n = s.node; n; n = n->parent) line.push_back(n);
  std::vector<double> rows;
  // From the root down; each parent acted to reach the next node.
  for (size_t i = line.size(); i-- > 1;) {
    const SchematicNode* parent = line[i];
    const SchematicNode* child = line[i - 1];
    Node* built = built_node(parent);
    if (!built || built->kind != NODE_DECISION || built->player != player) continue;
    const int32_t action = built_action(t, *built, child);
    if (action < 0) continue;
    Spot at{parent, built, s.turn, s.river};
    if (!strategy_rows(t, at, rows)) continue;
    const double* r = rows.data() + size_t(action) * HandCount;
    for (int h = 0; h < HandCount; h++) out[h] *= r[h];
  }
}

namespace {

// Sum over the player's hands of reach x the opponent's reach over hands
// sharing no card with it, both off the board: one pass with card sums.
double reach_sum(const double* mine, const double* theirs, CardMask board) {
  std::vector<double> opp(HandCount);
  disjoint_weights(theirs, board, opp.data());
  double sum = 0;
  for (int p = 0; p < HandCount; p++)
    if (mine[p] > 0.0) sum += mine[p] * opp[size_t(p)];
  return sum;
}

double spot_reach_sum(Tree& t, const Spot& s) {
  std::vector<double> r0(HandCount), r1(HandCount);
  range_at(t, s, 0, r0.data());
  range_at(t, s, 1, r1.data());
  return reach_sum(r0.data(), r1.data(), spot_board(t, s));
}

bool card_free(int c, CardMask used) { return !(used & CardBit(Card(c))) && RankOf(Card(c)) >= LowCardIndex; }

}  // namespace

// Cards of the deck off `used`: a dealt card is one of these less the four
// hole cards, the same count for every pair of hands that can meet.
static int32_t deal_choices(CardMask used) {
  int32_t n = 0;
  for (int c = 0; c < 52; c++) n += card_free(c, used);
  return n - 4;
}

double line_frequency(Tree& t, const Spot& s, bool global) {
  Spot root{nullptr, nullptr, -1, -1};
  const double r = spot_reach_sum(t, root);
  if (global || !s.node) return spot_reach_sum(t, s) / r;
  // The line's value covers every run-out of the streets the path leaves
  // open, each card weighted by its chance.
  const int32_t street = s.built ? s.built->street : spot_street(s.node);
  auto rivers = [&](Spot x) {
    if (street < 3 || x.river >= 0) return spot_reach_sum(t, x);
    double part = 0;
    CardMask used = spot_board(t, x);
    for (int c = 0; c < 52; c++) {
      if (!card_free(c, used)) continue;
      x.river = c;
      part += spot_reach_sum(t, x);
    }
    return part / deal_choices(used);
  };
  if (street < 2 || s.turn >= 0) return rivers(s) / r;
  double sum = 0;
  for (int c = 0; c < 52; c++) {
    if (!card_free(c, t.board)) continue;
    Spot x = s;
    x.turn = c;
    sum += rivers(x);
  }
  return sum / deal_choices(t.board) / r;
}

// ---- Locks and strategies set by hand ------------------------------------------

namespace {

using Cell = SpotCell;

// The cell of a decision node with stores, where locks and rows live.
bool find_cell(Tree& t, const Spot& s, Cell& c) {
  Node& node = *s.built;
  if (node.kind != NODE_DECISION || !spot_cell(t, s, c)) return false;
  open_forgotten(t, node, c);
  return node.regretStore != nullptr;
}

// 1326 values in real PairIndex order onto the cell's hand list.
std::vector<float> cell_list(const Cell& c, const double* values) {
  std::vector<double> canonical(HandCount);
  map_range_to_canonical(values, canonical.data(), c.cards.map);
  std::vector<float> list(size_t(c.view.count));
  for (int32_t i = 0; i < c.view.count; i++) list[size_t(i)] = float(canonical[size_t(pair_index_of_mask(c.view.holes[i]))]);
  return list;
}

template <typename F>
void both_locks(Node& node, const Cell& c, F f) {
  for (Store* store : {node.regretStore, node.strategyStore})
    if (store)
      if (CellLock* lock = store->cell_lock_to_set(c.turn_cell, c.river_cell)) f(*lock);
}

}  // namespace

bool set_cell_lock(Tree& t, const Spot& s, bool locked) {
  Cell c;
  if (!find_cell(t, s, c)) return false;
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  both_locks(*s.built, c, [&](CellLock& lock) {
    if (lock.flags & CELL_MASKED) free_lock_mask(lock);
    lock.flags = (lock.flags & ~uint32_t(CELL_MASKED | CELL_LOCKED)) | (locked ? CELL_LOCKED : 0u);
  });
  return true;
}

bool set_combo_lock(Tree& t, const Spot& s, const double* values) {
  Cell c;
  if (!find_cell(t, s, c)) return false;
  std::vector<float> list = cell_list(c, values);
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  if (!materialise_tree_stores(t)) return false;
  both_locks(*s.built, c, [&](CellLock& lock) {
    lock.flags = (lock.flags & ~uint32_t(CELL_LOCKED)) | CELL_MASKED;
    uint8_t* mask = ensure_lock_mask(lock, c.view.count);
    for (int32_t i = 0; i < c.view.count; i++) mask[i] = list[size_t(i)] != 0.0f;
  });
  return true;
}

bool write_strategy_row(Tree& t, const Spot& s, int32_t child, const double* values) {
  Cell c;
  if (!find_cell(t, s, c)) return false;
  // Written in the place of the regrets, so regret matching plays the row.
  std::vector<float> row = cell_list(c, values);
  for (float& v : row) v *= 1000.0f;
  Node& node = *s.built;
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  if (!materialise_tree_stores(t)) return false;
  OpenRiverGroup open(t, node, c.turn_cell);
  node.regretStore->write_row(c.turn_cell, c.river_cell, child, row.data());
  const bool averaging = averages_in_use(t, WalkAverageFrom);
  if (averaging && node.strategyStore) node.strategyStore->write_row(c.turn_cell, c.river_cell, child, nullptr);
  open.keep = true;
  Evaluation.store_generation++;
  return true;
}

bool lock_mask(Tree& t, const Spot& s, double* out) {
  for (int h = 0; h < HandCount; h++) out[h] = std::nan("");
  Cell c;
  if (!find_cell(t, s, c)) return false;
  const CellLock* lock = s.built->regretStore->cell_lock_info(c.turn_cell, c.river_cell);
  if (!lock || !(lock->flags & CELL_MASKED) || !lock->mask) return false;
  std::vector<float> row(size_t(c.view.count), std::nanf(""));
  for (int32_t i = 0; i < std::min(c.view.count, lock->mask_length); i++) row[size_t(i)] = lock->mask[i] ? 1.0f : 0.0f;
  expand_board_list(row.data(), c.view.pairPosition, c.cards.map, std::nan(""), out);
  return true;
}
