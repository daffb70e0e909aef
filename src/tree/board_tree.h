// Per-board hole sets: for the root board and every turn and river card that
// can still come, the hole pairs that are alive, the order in which the
// kernels see them (by strength on turns and rivers), and how each child
// board's list maps onto its parent's. Every kernel works on these dense
// lists and never on 1326-entry arrays.
//
// Positions are 16-bit (NoPosition = absent) and pairs are packed into 16 bits
// (low card in the low byte, high card in the high byte) to keep the tables
// small: a full flop tree without isomorphism has 47 x 46 = 2,162 river boards.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "cards/cards.h"

// Vectors whose storage starts on a fixed boundary (the layout tables).
template <typename T, size_t Alignment>
struct AlignedAllocator {
  using value_type = T;
  template <typename U>
  struct rebind { using other = AlignedAllocator<U, Alignment>; };
  AlignedAllocator() = default;
  template <typename U>
  AlignedAllocator(const AlignedAllocator<U, Alignment>&) {}
  T* allocate(size_t n) {
    return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(Alignment)));
  }
  void deallocate(T* p, size_t) { ::operator delete(p, std::align_val_t(Alignment)); }
  template <typename U>
  bool operator==(const AlignedAllocator<U, Alignment>&) const { return true; }
};
template <typename T>
using Aligned64Vector = std::vector<T, AlignedAllocator<T, 64>>;

// Lengths of the runs of equal strength of a river list, in ascending
// strength; they add up to the number of hands.
using HandGroups = std::vector<int16_t>;

// The group table of a river list: one entry per run of at most 16 hands,
// with a 0xFF flag byte per hand and 0 in the padding.
template <int Width>
struct GroupEntry {
  int32_t group;   // index in HandGroups
  int16_t first;   // first hand of the run
  int16_t length;  // hands in the run
  uint8_t flags[Width];
};
using GroupEntry8 = GroupEntry<8>;    // runs of 1 to 8 hands
using GroupEntry16 = GroupEntry<16>;  // runs of 9 to 16 hands

inline uint16_t pack_pair(CardMask pair) {
  return uint16_t(__builtin_ctzll(pair) | ((63 - __builtin_clzll(pair)) << 8));
}
inline CardMask unpack_pair(uint16_t packed) {
  return CardBit(packed & 0xFF) | CardBit(packed >> 8);
}
inline int pair_index_of_mask(CardMask pair) {
  return PairIndexOf(63 - __builtin_clzll(pair), __builtin_ctzll(pair));
}

// One turn or river board.
struct BoardRecord {
  CardMask board = 0;    // the parent's board plus this card
  int32_t card = -1;     // the dealt card (the representative under isomorphism)
  int32_t variants = 1;  // real cards this record stands for
  std::vector<CardMask> holes;        // alive pairs, ascending strength
  std::vector<uint16_t> packed;       // the same pairs packed
  std::vector<uint16_t> pairPosition; // 1326: PairIndex -> position in holes; empty on a river board
  std::vector<HandValue> strength;    // value of each entry of holes
  // One list per variant: for each entry of holes its position in the
  // parent's holes; in variant k > 0 the position of the hand with the dealt
  // card's suit s exchanged with suit s + k.
  std::vector<std::vector<uint16_t>> parentPosition;
  std::vector<BoardRecord> children;  // river boards below a turn board
  std::vector<int32_t> childHoleCount;
  uint16_t cardChild[52];             // Card -> index in children, NoPosition = none
  // River boards only.
  HandGroups groups;
  std::vector<GroupEntry8> group_table8;
  std::vector<GroupEntry16> group_table16;
};

// The one mapping between a board's hand list and its parent's. Hand i of
// the child is hand parentPosition[0][i] of the parent; a record that stands
// for several dealt cards (suit isomorphism) adds its values back once per
// variant, each through its own list.
inline void map_to_child(const BoardRecord& r, const float* __restrict parent, float* __restrict child) {
  const uint16_t* down = r.parentPosition[0].data();
  const int32_t n = int32_t(r.holes.size());
  for (int32_t i = 0; i < n; i++) child[i] = parent[down[i]];
}
inline void add_to_parent(const BoardRecord& r, const float* __restrict child, float* __restrict parent) {
  const int32_t n = int32_t(r.holes.size());
  for (int32_t v = 0; v < r.variants; v++) {
    const uint16_t* up = r.parentPosition[size_t(v)].data();
    for (int32_t i = 0; i < n; i++) parent[up[i]] += child[i];
  }
}

// Addressing of the per-hand data of nodes with one action count over all
// river boards: every board's block starts on a multiple of 4 hands.
struct LayoutTurnRow {
  int32_t first_row;  // first row of this turn child in river_rows
  int32_t row_count;  // its river boards
};
struct LayoutRiverRow {
  int32_t holes;   // raw hole count of the board
  int32_t offset;  // start of the board's block, in values
};
struct LayoutTurnSpan {
  int32_t offset;  // start of the turn child's blocks, in values
  int32_t length;  // padded values of all its boards
};
struct ActionLayout {
  int32_t actions = 0;
  Aligned64Vector<LayoutTurnRow> turn_rows;    // one per child of the root
  Aligned64Vector<LayoutRiverRow> river_rows;  // one per river board
  Aligned64Vector<LayoutTurnSpan> turn_spans;  // one per child of the root
  int64_t raw_total = 0;     // sum of hole count x actions
  int64_t padded_total = 0;  // sum of align4(hole count) x actions
};

// The root record (it holds the flop) and what the build keeps beside it.
struct BoardTree {
  CardMask board = 0;                 // the flop, canonical naming
  std::vector<CardMask> holes;        // alive pairs in PairIndex order
  std::vector<uint16_t> packed;
  std::vector<uint16_t> pairPosition; // 1326
  std::vector<BoardRecord> children;  // turn boards
  std::vector<int32_t> childHoleCount;
  std::vector<std::vector<int32_t>> childRiverCounts;  // per child, its children's hole counts
  uint16_t cardChild[52];

  // The naming of the build: the user's cards map to the canonical ones by
  // suit_map (the identity without isomorphism).
  bool isomorphic = false;
  SuitMap suit_map = IdentitySuitMap;
  int32_t turn_card = -1;   // fixed turn of the root, canonical; -1 none
  int32_t river_card = -1;  // fixed river of the root, canonical; -1 none
  int32_t turn_child = -1;  // index of the fixed turn child, -1 none
  int32_t river_child = -1; // index of the fixed river child under it, -1 none
  double ranges[2][1326];   // the ranges in canonical naming, PairIndex order

  // Weights of the hole list of the tree's own board (the board the root node
  // stands on), per player.
  std::vector<float> reach_weights[2];
  std::vector<float> norm_weights[2];  // reach_weights / Matchups
  double Matchups[2] = {0, 0};         // sum over own hands of weight x compatible opponent weight
  double max_range_weight[2] = {0, 0}; // largest of the 1326 weights

  std::vector<ActionLayout> layouts;  // entry k-1 for k actions, k = 1 .. action_max
};

// What tree construction hands over.
struct BoardSetup {
  CardMask flop = 0;      // the user's three flop cards
  int32_t turn = -1;      // fixed turn card of the root, or -1
  int32_t river = -1;     // fixed river card of the root, or -1 (ignored without a turn)
  const double* ranges[2] = {nullptr, nullptr};  // 1326 weights each, PairIndex order
  bool use_isomorphism = false;  // the switch for the root street; never used on a river root
  int32_t action_max = 0;        // largest action count of a node
  // Deepest absolute street that any node reaches (a showdown counts as 3):
  // boards below it are not made.
  int32_t last_street = 3;
};

// Canonicalises the board and the ranges, lists the boards, fills every hole
// list (SetHoles), the weights of the tree's own board and the layouts.
std::unique_ptr<BoardTree> build_board_tree(const BoardSetup& setup);

// Fills the root lists from the ranges and, in a parallel region, every child
// record with its own children. The records' cards must be listed already.
void SetHoles(BoardTree& root, const double* const ranges[2]);

// Per-thread working lists of sort_board, sized once for the largest list.
struct SortScratch {
  std::vector<CardMask> alive;    // parent entries off the board
  std::vector<uint16_t> index;    // their positions in the parent list
  std::vector<HandValue> values;  // their values on the board
  std::vector<uint64_t> keys;     // sort keys, parent position in the low bits
};

// Sorts one board against its parent list and fills every list of `record`
// (board, card and variants set before): holes, strength, the parentPosition
// lists, packed and pairPosition; on a river board also the groups.
void sort_board(const std::vector<CardMask>& parent_holes, const std::vector<uint16_t>& parent_position,
                BoardRecord& record, SortScratch& scratch);

// Tie order of hands of equal strength on a river: equal exactly when the two
// hands have the same ranks and differ only in suits that the board lacks.
uint32_t BlockerKey(CardMask board, CardMask pair);

// HandGroups and the group table from the strengths of a sorted river list.
void make_hand_groups(BoardRecord& record);

// The layout of per-hand data for nodes with `actions` actions.
ActionLayout make_action_layout(const BoardTree& tree, int32_t actions);

// A board of the tree seen through one shape: root (turn_cell -1), turn record
// (river_cell -1) or river record.
struct BoardView {
  CardMask board;
  int32_t count;
  const CardMask* holes;
  const uint16_t* packed;
  const uint16_t* pairPosition;
  const BoardRecord* record;  // null at the root
  // A river board's table, made for this view (the record keeps none).
  std::shared_ptr<const std::vector<uint16_t>> own_positions;
};
// PairIndex -> position in `holes`, NoPosition where absent.
std::vector<uint16_t> pair_positions(const std::vector<CardMask>& holes);
BoardView board_view(const BoardTree& tree, int32_t turn_cell, int32_t river_cell);

// Turn and river cells of canonical cards (-1 for no card); false when a card
// has no record (a board card, below LowCardIndex, or not a representative).
bool find_board_cells(const BoardTree& tree, int turn, int river, int32_t& turn_cell,
                      int32_t& river_cell);
