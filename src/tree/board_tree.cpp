// Building the per-board hole sets: which boards exist, their sorted lists,
// the mappings to the parent lists, the root weights and the layouts.
#include "tree/board_tree.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

static constexpr int ParentIndexBits = 11;  // positions in a list stay below 1326 < 2048
static constexpr int ValueShift = 27;       // above the blocker key (16 bits) and the position

static int suits_on(CardMask m) {
  int used = 0;
  for (int s = 0; s < 4; s++)
    if ((m >> (13 * s)) & 0x1FFF) used |= 1 << s;
  return used;
}

static BoardRecord make_record(CardMask parent_board, int card, int variants) {
  BoardRecord r;
  r.board = parent_board | CardBit(card);
  r.card = card;
  r.variants = variants;
  std::fill(std::begin(r.cardChild), std::end(r.cardChild), NoPosition);
  return r;
}

// The cards that can come on `board`, as records appended to `out`.
static void list_cards(CardMask board, bool isomorphic, std::vector<BoardRecord>& out,
                       uint16_t card_child[52]) {
  std::vector<BoardRecord> cards;
  if (!isomorphic) {
    for (int s = 0; s < 4; s++)
      for (int r = LowCardIndex; r <= 12; r++)
        if (!(board & CardBit(MakeCard(r, s)))) cards.push_back(make_record(board, MakeCard(r, s), 1));
  } else {
    // The board is canonical: its suits are 0 .. used-1, the rest are free
    // and interchangeable, so the first free suit stands for all of them.
    int used = __builtin_popcount(suits_on(board));
    for (int s = 0; s < used; s++)
      for (int r = LowCardIndex; r <= 12; r++)
        if (!(board & CardBit(MakeCard(r, s)))) cards.push_back(make_record(board, MakeCard(r, s), 1));
    if (used < 4)
      for (int r = LowCardIndex; r <= 12; r++) cards.push_back(make_record(board, MakeCard(r, used), 4 - used));
  }

  if (card_count(board) == 4) {
    // Rivers: cards off the main suit first, then by rank, then by suit. The
    // main suit has the most board cards, at least two; ties to the lower.
    int main_suit = -1, best = 1;
    for (int s = 0; s < 4; s++) {
      int n = __builtin_popcountll((board >> (13 * s)) & 0x1FFF);
      if (n > best) best = n, main_suit = s;
    }
    std::stable_sort(cards.begin(), cards.end(), [main_suit](const BoardRecord& a, const BoardRecord& b) {
      auto key = [main_suit](int c) { return (SuitOf(Card(c)) == main_suit) * 64 + RankOf(Card(c)) * 4 + SuitOf(Card(c)); };
      return key(a.card) < key(b.card);
    });
  }

  out.reserve(out.size() + cards.size());
  for (auto& r : cards) {
    card_child[r.card] = uint16_t(out.size());
    out.push_back(std::move(r));
  }
}

uint32_t BlockerKey(CardMask board, CardMask pair) {
  Card hi = Card(63 - __builtin_clzll(pair)), lo = Card(__builtin_ctzll(pair));
  // a has the higher rank; at equal ranks the lower-numbered card.
  Card a = RankOf(hi) >= RankOf(lo) ? hi : lo;
  Card b = a == hi ? lo : hi;
  if (RankOf(a) == RankOf(b)) a = lo, b = hi;
  int used = suits_on(board);
  int sa = SuitOf(a), sb = SuitOf(b);
  uint32_t flags;
  if (sa == sb) {
    flags = ((used >> sa) & 1 ? uint32_t(sa + 4) : 0u) | 64u;
  } else {
    flags = ((used >> sa) & 1 ? uint32_t(sa * 8 + 32) : 0u) | ((used >> sb) & 1 ? uint32_t(sb + 4) : 0u);
  }
  return uint32_t(RankOf(a) * 13 + RankOf(b)) << 8 | flags;
}

void make_hand_groups(BoardRecord& rec) {
  rec.groups.clear();
  rec.group_table8.clear();
  rec.group_table16.clear();
  const size_t n = rec.strength.size();
  // Counted first: the lists are kept for the tree's life, and growing them
  // by doubling would leave a third of them unused on average.
  size_t runs = 0, short_runs = 0, mid_runs = 0;
  for (size_t first = 0, end; first < n; first = end) {
    for (end = first + 1; end < n && rec.strength[end] == rec.strength[first];) end++;
    runs++;
    short_runs += end - first <= 8;
    mid_runs += end - first > 8 && end - first <= 16;
  }
  rec.groups.reserve(runs);
  rec.group_table8.reserve(short_runs);
  rec.group_table16.reserve(mid_runs);
  size_t first = 0;
  while (first < n) {
    size_t end = first + 1;
    while (end < n && rec.strength[end] == rec.strength[first]) end++;
    int32_t group = int32_t(rec.groups.size());
    int16_t length = int16_t(end - first);
    rec.groups.push_back(length);
    if (length <= 8) {
      GroupEntry8 e{group, int16_t(first), length, {}};
      std::memset(e.flags, 0xFF, size_t(length));
      rec.group_table8.push_back(e);
    } else if (length <= 16) {
      GroupEntry16 e{group, int16_t(first), length, {}};
      std::memset(e.flags, 0xFF, size_t(length));
      rec.group_table16.push_back(e);
    }
    first = end;
  }
}

static void append_cards(std::string& s, CardMask m) {
  for (; m; m &= m - 1) {
    Card c = Card(__builtin_ctzll(m));
    s += RankLetters[RankOf(c)];
    s += SuitLetters[SuitOf(c)];
    s += ' ';
  }
}

// A variant's hand that the parent list lacks: the ranges are not symmetric in
// the free suits. Reported on the error stream; the position stays NoPosition.
static void report_isomorph_error(CardMask board, CardMask hand, CardMask swapped) {
  std::string line = "isomorph error: ";
  append_cards(line, board);
  line += " | ";
  append_cards(line, hand);
  line += " | ";
  append_cards(line, swapped);
  line += '\n';
  fputs(line.c_str(), stderr);  // one call, so lines from several threads don't mix
}

void sort_board(const std::vector<CardMask>& parent_holes, const std::vector<uint16_t>& parent_position,
                BoardRecord& rec, SortScratch& scratch) {
  const CardMask board = rec.board;
  const bool river = card_count(board) == 5;
  const size_t parent_count = parent_holes.size();
  if (scratch.alive.size() < parent_count) {
    scratch.alive.resize(parent_count);
    scratch.index.resize(parent_count);
    scratch.values.resize(parent_count);
    scratch.keys.resize(parent_count);
  }

  // The parent's pairs off this board; the others could never be dealt.
  size_t alive = 0;
  for (size_t i = 0; i < parent_count; i++) {
    if (parent_holes[i] & board) continue;
    scratch.alive[alive] = parent_holes[i];
    scratch.index[alive] = uint16_t(i);
    alive++;
  }
  evaluate_board_holes(scratch.alive.data(), alive, board, scratch.values.data());

  // Ascending value, on rivers then ascending BlockerKey, then parent
  // position: a stable sort by the first keys.
  size_t kept = 0;
  for (size_t j = 0; j < alive; j++) {
    HandValue v = scratch.values[j];
    if (int32_t(v) < 0) continue;
    uint64_t key = uint64_t(v) << ValueShift | scratch.index[j];
    if (river) key |= uint64_t(BlockerKey(board, scratch.alive[j])) << ParentIndexBits;
    scratch.keys[kept++] = key;
  }
  std::sort(scratch.keys.begin(), scratch.keys.begin() + ptrdiff_t(kept));

  // The lists, and the parent position of each hand under every variant.
  rec.holes.resize(kept);
  rec.strength.resize(kept);
  rec.packed.resize(kept);
  // A river list is nobody's parent: its 1326-entry table is made only when a
  // query asks (board_view), which saves 2.6 KB on each of up to 2,162 boards.
  if (river)
    std::vector<uint16_t>().swap(rec.pairPosition);
  else
    rec.pairPosition.assign(1326, NoPosition);
  rec.parentPosition.resize(size_t(rec.variants));
  for (auto& list : rec.parentPosition) list.resize(kept);
  const int suit = SuitOf(Card(rec.card));
  for (size_t j = 0; j < kept; j++) {
    uint64_t key = scratch.keys[j];
    uint16_t i = uint16_t(key & ((1u << ParentIndexBits) - 1));
    CardMask hand = parent_holes[i];
    rec.holes[j] = hand;
    rec.strength[j] = HandValue(key >> ValueShift);
    rec.packed[j] = pack_pair(hand);
    if (!river) rec.pairPosition[size_t(pair_index_of_mask(hand))] = uint16_t(j);
    rec.parentPosition[0][j] = i;
    for (int k = 1; k < rec.variants; k++) {
      CardMask swapped = swap_suits(hand, suit, suit + k);
      uint16_t q = parent_position[size_t(pair_index_of_mask(swapped))];
      // Ranges not symmetric in the free suits: the swapped hand is missing
      // from the parent. Reported, and mapped to the hand itself so that no
      // walk ever indexes past the parent's list.
      if (q == NoPosition) {
        report_isomorph_error(board, hand, swapped);
        q = i;
      }
      rec.parentPosition[size_t(k)][j] = q;
    }
  }
  if (river) make_hand_groups(rec);
}

static std::vector<int32_t> hole_counts(const std::vector<BoardRecord>& records) {
  std::vector<int32_t> counts(records.size());
  for (size_t i = 0; i < records.size(); i++) counts[i] = int32_t(records[i].holes.size());
  return counts;
}

void SetHoles(BoardTree& root, const double* const ranges[2]) {
  root.pairPosition.assign(1326, NoPosition);
  root.holes.clear();
  root.packed.clear();
  for (int hi = 1; hi < 52; hi++) {
    for (int lo = 0; lo < hi; lo++) {
      CardMask pair = CardBit(hi) | CardBit(lo);
      int p = PairIndexOf(hi, lo);
      if ((pair & root.board) || !(ranges[0][p] > 0.0 || ranges[1][p] > 0.0)) continue;
      root.pairPosition[size_t(p)] = uint16_t(root.holes.size());
      root.holes.push_back(pair);
      root.packed.push_back(pack_pair(pair));
    }
  }

  const int children = int(root.children.size());
  root.childHoleCount.assign(size_t(children), 0);
  root.childRiverCounts.assign(size_t(children), {});
  // Each iteration writes only its own record and its own slots of the root.
  // An exception can't leave a parallel region, so the first one (running out
  // of memory) is carried out and raised behind it.
  std::exception_ptr failure;
#pragma omp parallel
  {
    SortScratch scratch;
#pragma omp for schedule(dynamic, 1)
    for (int c = 0; c < children; c++) {
      try {
        BoardRecord& turn = root.children[size_t(c)];
        sort_board(root.holes, root.pairPosition, turn, scratch);
        for (BoardRecord& river : turn.children) sort_board(turn.holes, turn.pairPosition, river, scratch);
        turn.childHoleCount = hole_counts(turn.children);
        root.childHoleCount[size_t(c)] = int32_t(turn.holes.size());
        root.childRiverCounts[size_t(c)] = turn.childHoleCount;
      } catch (...) {
#pragma omp critical(SetHolesFailure)
        if (!failure) failure = std::current_exception();
      }
    }
  }
  if (failure) std::rethrow_exception(failure);
}

ActionLayout make_action_layout(const BoardTree& tree, int32_t actions) {
  ActionLayout layout;
  layout.actions = actions;
  int32_t row = 0;
  int64_t offset = 0, raw = 0;
  layout.turn_rows.reserve(tree.children.size());
  layout.turn_spans.reserve(tree.children.size());
  for (const BoardRecord& turn : tree.children) {
    layout.turn_rows.push_back({row, int32_t(turn.children.size())});
    int64_t start = offset;
    for (const BoardRecord& river : turn.children) {
      int64_t holes = int64_t(river.holes.size());
      layout.river_rows.push_back({int32_t(holes), int32_t(offset)});
      offset += ((holes + 3) & ~int64_t(3)) * actions;
      raw += holes * actions;
      row++;
    }
    layout.turn_spans.push_back({int32_t(start), int32_t(offset - start)});
  }
  layout.raw_total = raw;
  layout.padded_total = offset;
  return layout;
}

// Matchups of `own`: each own hand's weight times the opponent weight of the
// hands that share no card with it. Per card sums: the opponent total less
// the hands holding either card, plus the same hand, taken off twice.
static double matchups(const std::vector<CardMask>& holes, const std::vector<double>& own,
                       const std::vector<double>& other) {
  double card_sum[52] = {};
  double total = 0;
  for (size_t i = 0; i < holes.size(); i++) {
    total += other[i];
    card_sum[__builtin_ctzll(holes[i])] += other[i];
    card_sum[63 - __builtin_clzll(holes[i])] += other[i];
  }
  double sum = 0;
  for (size_t i = 0; i < holes.size(); i++) {
    if (own[i] == 0.0) continue;
    double compatible = total - card_sum[__builtin_ctzll(holes[i])] -
                        card_sum[63 - __builtin_clzll(holes[i])] + other[i];
    sum += own[i] * compatible;
  }
  return sum;
}

static void set_weights(BoardTree& bt) {
  const std::vector<CardMask>* holes = &bt.holes;
  if (bt.turn_child >= 0) {
    const BoardRecord& turn = bt.children[size_t(bt.turn_child)];
    holes = bt.river_child >= 0 ? &turn.children[size_t(bt.river_child)].holes : &turn.holes;
  }
  const size_t n = holes->size();
  std::vector<double> w[2];
  for (int p = 0; p < 2; p++) {
    w[p].resize(n);
    for (size_t i = 0; i < n; i++) w[p][i] = bt.ranges[p][pair_index_of_mask((*holes)[i])];
    bt.max_range_weight[p] = *std::max_element(bt.ranges[p], bt.ranges[p] + 1326);
  }
  for (int p = 0; p < 2; p++) {
    bt.Matchups[p] = matchups(*holes, w[p], w[1 - p]);
    bt.reach_weights[p].resize(n);
    bt.norm_weights[p].resize(n);
    // An empty range leaves Matchups 0; nothing downstream is defined then, so
    // the normalised list stays zero rather than 0/0.
    for (size_t i = 0; i < n; i++) {
      bt.reach_weights[p][i] = float(w[p][i]);
      bt.norm_weights[p][i] = bt.Matchups[p] != 0.0 ? float(w[p][i] / bt.Matchups[p]) : 0.0f;
    }
  }
}

std::unique_ptr<BoardTree> build_board_tree(const BoardSetup& setup) {
  auto bt = std::make_unique<BoardTree>();
  std::fill(std::begin(bt->cardChild), std::end(bt->cardChild), NoPosition);

  // Canonical naming of the board and the ranges. A river root never uses
  // isomorphism; a river without a turn belongs to no street of this tree.
  const int turn = setup.turn;
  const int river = turn >= 0 ? setup.river : -1;
  CardMask flop = setup.flop;
  CardMask turn_mask = turn >= 0 ? CardBit(turn) : 0;
  CardMask river_mask = river >= 0 ? CardBit(river) : 0;
  bt->isomorphic = setup.use_isomorphism && river < 0;
  bt->suit_map = bt->isomorphic ? canonicalise_board(flop, turn_mask, river_mask) : IdentitySuitMap;
  bt->board = flop;
  bt->turn_card = turn >= 0 ? __builtin_ctzll(turn_mask) : -1;
  bt->river_card = river >= 0 ? __builtin_ctzll(river_mask) : -1;
  for (int p = 0; p < 2; p++) map_range_to_canonical(setup.ranges[p], bt->ranges[p], bt->suit_map);

  // The boards: every turn and river that can come below the root, or the
  // root's fixed cards.
  if (bt->turn_card >= 0) {
    bt->cardChild[bt->turn_card] = 0;
    bt->children.push_back(make_record(bt->board, bt->turn_card, 1));
    bt->turn_child = 0;
  } else if (setup.last_street >= 2) {
    list_cards(bt->board, bt->isomorphic, bt->children, bt->cardChild);
  }
  for (BoardRecord& t : bt->children) {
    if (bt->river_card >= 0) {
      t.cardChild[bt->river_card] = 0;
      t.children.push_back(make_record(t.board, bt->river_card, 1));
      bt->river_child = 0;
    } else if (setup.last_street >= 3) {
      list_cards(t.board, bt->isomorphic, t.children, t.cardChild);
    }
  }

  const double* ranges[2] = {bt->ranges[0], bt->ranges[1]};
  SetHoles(*bt, ranges);
  set_weights(*bt);
  for (int32_t k = 1; k <= setup.action_max; k++) bt->layouts.push_back(make_action_layout(*bt, k));
  return bt;
}

std::vector<uint16_t> pair_positions(const std::vector<CardMask>& holes) {
  std::vector<uint16_t> positions(1326, NoPosition);
  for (size_t j = 0; j < holes.size(); j++) positions[size_t(pair_index_of_mask(holes[j]))] = uint16_t(j);
  return positions;
}

BoardView board_view(const BoardTree& tree, int32_t turn_cell, int32_t river_cell) {
  BoardView v;
  if (turn_cell < 0) {
    v = {tree.board, int32_t(tree.holes.size()), tree.holes.data(), tree.packed.data(), tree.pairPosition.data(),
         nullptr, nullptr};
    return v;
  }
  const BoardRecord* r = &tree.children[size_t(turn_cell)];
  if (river_cell >= 0) r = &r->children[size_t(river_cell)];
  v = {r->board, int32_t(r->holes.size()), r->holes.data(), r->packed.data(), r->pairPosition.data(), r, nullptr};
  if (r->pairPosition.empty()) {
    v.own_positions = std::make_shared<std::vector<uint16_t>>(pair_positions(r->holes));
    v.pairPosition = v.own_positions->data();
  }
  return v;
}

bool find_board_cells(const BoardTree& tree, int turn, int river, int32_t& turn_cell, int32_t& river_cell) {
  turn_cell = river_cell = -1;
  if (turn < 0) return river < 0;
  if (turn >= 52 || tree.cardChild[turn] == NoPosition) return false;
  turn_cell = tree.cardChild[turn];
  if (river < 0) return true;
  const BoardRecord& t = tree.children[size_t(turn_cell)];
  if (river >= 52 || t.cardChild[river] == NoPosition) return false;
  river_cell = t.cardChild[river];
  return true;
}
