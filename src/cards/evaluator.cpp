// The hand evaluator: rank tables over 13-bit rank sets, one routine per card
// count, the reduced-deck low straight, the category-order mapping and the
// board list that follows MustUseHoleCards.
//
// A hand is split into four 13-bit suit sets S0..S3 (bit r = rank r). With
// all = S0|S1|S2|S3 and odd = S0^S1^S2^S3, the number of distinct ranks and
// the parity of each rank's count tell the shape of the hand, so every
// category comes out of a few table reads and no card is ever sorted.
#include "cards/cards.h"

uint32_t RankCount[RankTableSize];
uint32_t TopRank[RankTableSize];
uint32_t TopFive[RankTableSize];
uint32_t StraightValue[RankTableSize];

const char* const HandTypeNames[CATEGORY_NB] = {"highcard", "pair",      "twopair", "trips",        "straight",
                                                "flush",    "fullhouse", "quads",   "straightflush"};
uint8_t HandTypeOrder[CATEGORY_NB] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
uint8_t HandTypePosition[CATEGORY_NB] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
bool HandTypeOrderIsDefault = true;
int32_t MustUseHoleCards = 0;

namespace {

constexpr uint32_t category_bits(int category) { return uint32_t(category) << 24; }

constexpr uint32_t PAIR = category_bits(CAT_PAIR);
constexpr uint32_t TWOPAIR = category_bits(CAT_TWOPAIR);
constexpr uint32_t TRIPS = category_bits(CAT_TRIPS);
constexpr uint32_t FLUSH = category_bits(CAT_FLUSH);
constexpr uint32_t FULLHOUSE = category_bits(CAT_FULLHOUSE);
constexpr uint32_t QUADS = category_bits(CAT_QUADS);
constexpr uint32_t LOW_STRAIGHT = 0x04030000;
constexpr uint32_t LOW_STRAIGHT_FLUSH = 0x08030000;
constexpr uint32_t RANK_SET = 0x1FFF;

// Evaluator-mask bit of every possible Card byte; bytes above 51 give no bit,
// so a stray value cannot index outside the tables.
struct EvalBits {
  uint64_t bit[256];
  constexpr EvalBits() : bit() {
    for (int c = 0; c < 52; c++) bit[c] = uint64_t(1) << (SuitOf(Card(c)) * 16 + RankOf(Card(c)));
  }
};
constexpr EvalBits EvalBit;

struct SuitSets {
  uint32_t s0, s1, s2, s3;
};

inline SuitSets split_suits(uint64_t m) {
  return {uint32_t(m) & RANK_SET, uint32_t(m >> 16) & RANK_SET, uint32_t(m >> 32) & RANK_SET,
          uint32_t(m >> 48) & RANK_SET};
}

// A card mask (bit = suit * 13 + rank) in the evaluator layout (suit * 16 + rank).
inline uint64_t to_eval_mask(CardMask m) {
  return (m & 0x1FFF) | ((m << 3) & (uint64_t(RANK_SET) << 16)) | ((m << 6) & (uint64_t(RANK_SET) << 32)) |
         ((m << 9) & (uint64_t(RANK_SET) << 48));
}

// Ranks held in at least two suits.
inline uint32_t two_or_more(const SuitSets& s) {
  return (s.s0 & s.s1) | (s.s2 & (s.s0 | s.s1)) | (s.s3 & (s.s0 | s.s1 | s.s2));
}

// The one suit that can hold five of the N cards, or 0. The walk stops once the
// suits seen so far leave too few cards for a five-card suit.
template <int N>
inline uint32_t flush_suit(const SuitSets& s) {
  const uint32_t sets[4] = {s.s0, s.s1, s.s2, s.s3};
  uint32_t seen = 0;
  for (int i = 0; i < 4; i++) {
    uint32_t c = RankCount[sets[i]];
    if (c >= 5) return sets[i];
    seen += c;
    if (N - int(seen) < 5) return 0;
  }
  return 0;
}

// Flush, straight flush or straight; 0 when the hand has none of them.
template <int N>
inline uint32_t flush_or_straight(const SuitSets& s, uint32_t all) {
  if (uint32_t f = flush_suit<N>(s)) {
    uint32_t sv = StraightValue[f];
    return sv ? sv + 0x04000000 : (TopFive[f] | FLUSH);
  }
  return StraightValue[all];
}

inline uint32_t quads_value(uint32_t quad, uint32_t all) {
  return QUADS | TopRank[quad] << 16 | TopRank[all ^ quad] << 12;
}

[[gnu::always_inline]] inline uint32_t eval7(uint64_t m) {
  SuitSets s = split_suits(m);
  uint32_t all = s.s0 | s.s1 | s.s2 | s.s3;
  uint32_t odd = s.s0 ^ s.s1 ^ s.s2 ^ s.s3;
  uint32_t n = RankCount[all];
  if (n >= 5) {
    if (uint32_t v = flush_or_straight<7>(s, all)) return v;
    if (n == 7) return TopFive[all];
    if (n == 6) return PAIR | TopRank[all ^ odd] << 16 | ((TopFive[odd] >> 4) & 0xFFF0);  // 2,1,1,1,1,1
    if (RankCount[odd] == 3) return TWOPAIR | TopFive[all ^ odd] << 12 | TopRank[odd] << 8;  // 2,2,1,1,1
    uint32_t trip = two_or_more(s);                                                          // 3,1,1,1,1
    return TRIPS | TopRank[trip] << 16 | (TopFive[all ^ trip] & 0xFF00);
  }
  if (n == 4) {
    if (RankCount[odd] == 1) {  // 2,2,2,1: the third pair may still be the kicker
      uint32_t pairs = all ^ odd;
      uint32_t top2 = TopFive[pairs] & 0xFF0;
      uint32_t third = 1u << (TopFive[pairs] & 0xF);
      return TWOPAIR | top2 << 8 | TopRank[third | odd] << 8;
    }
    uint32_t quad = s.s0 & s.s1 & s.s2 & s.s3;
    if (quad) return QUADS | TopRank[quad] << 16 | TopRank[odd] << 12;  // 4,1,1,1
    uint32_t both = two_or_more(s);                                     // 3,2,1,1
    uint32_t trip = both & odd;
    return FULLHOUSE | TopRank[trip] << 16 | TopRank[both ^ trip] << 12;
  }
  uint32_t quad = s.s0 & s.s1 & s.s2 & s.s3;
  if (quad) return quads_value(quad, all);                                                   // 4,3 and 4,2,1
  if (RankCount[odd] == 3) return FULLHOUSE | TopFive[two_or_more(s)] << 12;                 // 3,3,1
  return FULLHOUSE | TopRank[odd] << 16 | TopRank[odd ^ all] << 12;                          // 3,2,2
}

[[gnu::always_inline]] inline uint32_t eval6(uint64_t m) {
  SuitSets s = split_suits(m);
  uint32_t all = s.s0 | s.s1 | s.s2 | s.s3;
  uint32_t odd = s.s0 ^ s.s1 ^ s.s2 ^ s.s3;
  uint32_t n = RankCount[all];
  if (n >= 5) {
    if (uint32_t v = flush_or_straight<6>(s, all)) return v;
    if (n == 6) return TopFive[all];
    return PAIR | TopRank[all ^ odd] << 16 | (TopFive[odd] & 0xFFF0);  // 2,1,1,1,1
  }
  if (n == 4) {
    if (odd == all) {  // 3,1,1,1
      uint32_t trip = two_or_more(s);
      return TRIPS | TopRank[trip] << 16 | (TopFive[all ^ trip] & 0xFF0) << 4;
    }
    return TWOPAIR | TopFive[all ^ odd] << 12 | TopRank[odd] << 8;  // 2,2,1,1
  }
  uint32_t quad = s.s0 & s.s1 & s.s2 & s.s3;
  if (quad) return quads_value(quad, all);  // 4,2 and 4,1,1
  if (n == 3) {
    if (odd == 0) return TWOPAIR | TopFive[all] << 8;  // 2,2,2: the third pair is the kicker
    uint32_t both = two_or_more(s);                    // 3,2,1
    uint32_t trip = both & odd;
    return FULLHOUSE | TopRank[trip] << 16 | TopRank[both ^ trip] << 12;
  }
  return FULLHOUSE | TopFive[all] << 12;  // 3,3
}

[[gnu::always_inline]] inline uint32_t eval5(uint64_t m) {
  SuitSets s = split_suits(m);
  uint32_t all = s.s0 | s.s1 | s.s2 | s.s3;
  uint32_t odd = s.s0 ^ s.s1 ^ s.s2 ^ s.s3;
  uint32_t n = RankCount[all];
  if (n == 5) {
    if (uint32_t v = flush_or_straight<5>(s, all)) return v;
    return TopFive[all];
  }
  if (n == 4) return PAIR | TopRank[all ^ odd] << 16 | TopFive[odd] << 4;  // 2,1,1,1
  if (n == 3) {
    if (odd == all) {  // 3,1,1
      uint32_t trip = two_or_more(s);
      return TRIPS | TopRank[trip] << 16 | TopFive[all ^ trip] << 8;
    }
    return TWOPAIR | TopFive[all ^ odd] << 12 | TopRank[odd] << 8;  // 2,2,1
  }
  uint32_t quad = s.s0 & s.s1 & s.s2 & s.s3;
  if (quad) return quads_value(quad, all);                                  // 4,1
  return FULLHOUSE | TopRank[odd] << 16 | TopRank[all ^ odd] << 12;         // 3,2
}

[[gnu::always_inline]] inline uint32_t eval4(uint64_t m) {
  SuitSets s = split_suits(m);
  uint32_t all = s.s0 | s.s1 | s.s2 | s.s3;
  uint32_t odd = s.s0 ^ s.s1 ^ s.s2 ^ s.s3;
  switch (RankCount[all]) {
    case 4: return TopFive[all] << 4;
    case 3: return PAIR | TopRank[all ^ odd] << 16 | TopFive[odd] << 8;  // 2,1,1
    case 2:
      if (odd == 0) return TWOPAIR | TopFive[all] << 12;  // 2,2
      {
        uint32_t trip = two_or_more(s);  // 3,1
        return TRIPS | TopRank[trip] << 16 | TopRank[all ^ trip] << 12;
      }
    default: return QUADS | TopRank[all] << 16;
  }
}

[[gnu::always_inline]] inline uint32_t eval3(uint64_t m) {
  SuitSets s = split_suits(m);
  uint32_t all = s.s0 | s.s1 | s.s2 | s.s3;
  uint32_t odd = s.s0 ^ s.s1 ^ s.s2 ^ s.s3;
  switch (RankCount[all]) {
    case 3: return TopFive[all] << 8;
    case 2: return PAIR | TopRank[all ^ odd] << 16 | TopRank[odd] << 12;
    default: return TRIPS | TopRank[all] << 16;
  }
}

inline uint32_t eval_plain(uint64_t m, int n) {
  switch (n) {
    case 7: return eval7(m);
    case 6: return eval6(m);
    case 5: return eval5(m);
    case 4: return eval4(m);
    case 3: return eval3(m);
    default: return 0;
  }
}

// The reduced deck's low straight (ranks L..L+3 with the ace, L+4 absent),
// then the category order; both read process-wide settings.
[[gnu::noinline]] uint32_t apply_settings_slow(uint32_t v, uint64_t m) {
  int low_rank = LowCardIndex;
  if (low_rank > 0 && low_rank <= 4) {
    SuitSets s = split_suits(m);
    uint32_t all = s.s0 | s.s1 | s.s2 | s.s3;
    uint32_t low = (0xFu << low_rank) | (1u << 12);
    if ((all & low) == low && !(all & (1u << (low_rank + 4)))) {
      uint32_t category = v >> 24;
      if (category != CAT_FLUSH) {
        if (HandTypePosition[CAT_STRAIGHT] > HandTypePosition[category]) v = LOW_STRAIGHT;
      } else if (((s.s0 & low) == low || (s.s1 & low) == low || (s.s2 & low) == low || (s.s3 & low) == low) &&
                 HandTypePosition[CAT_STRAIGHTFLUSH] > HandTypePosition[CAT_FLUSH]) {
        v = LOW_STRAIGHT_FLUSH;
      }
    }
  }
  if (!HandTypeOrderIsDefault) v = (v & 0xFFFFFF) | uint32_t(HandTypePosition[v >> 24]) << 24;
  return v;
}

// The usual game pays one test for the settings.
inline uint32_t apply_settings(uint32_t v, uint64_t m) {
  if (__builtin_expect(LowCardIndex == 0 && HandTypeOrderIsDefault, 1)) return v;
  return apply_settings_slow(v, m);
}

inline uint64_t eval_mask_of(const Card* cards, int n) {
  uint64_t m = 0;
  for (int i = 0; i < n; i++) m |= EvalBit.bit[cards[i]];
  return m;
}

inline int valid_count(int n) { return n >= 3 && n <= 7 ? n : 0; }

}  // namespace

bool build_rank_tables() {
  static bool built = false;
  if (built) return true;
  for (uint32_t m = 1; m < RankTableSize; m++) {
    uint32_t count = 0, top = 0, five = 0;
    for (int r = 12; r >= 0; r--) {
      if (!(m & (1u << r))) continue;
      if (count == 0) top = r;
      if (count < 5) five = five << 4 | r;
      count++;
    }
    RankCount[m] = count;
    TopRank[m] = top;
    TopFive[m] = five;
  }
  // Highest pattern first, so a set holding two straights keeps the higher.
  for (uint32_t pattern = 0x1F00; pattern >= 0x1F; pattern >>= 1)
    for (int a = 0; a < 13; a++)
      for (int b = 0; b < 13; b++) {
        uint32_t m = pattern | 1u << a | 1u << b;
        if (!StraightValue[m]) StraightValue[m] = 0x04000000 + (TopRank[pattern] << 16);
      }
  for (int a = 0; a < 13; a++)
    for (int b = 0; b < 13; b++) {
      uint32_t m = 0x100F | 1u << a | 1u << b;
      if (!StraightValue[m]) StraightValue[m] = LOW_STRAIGHT;
    }
  built = true;
  return true;
}

HandValue evaluate_cards(const Card* cards, int n) {
  n = valid_count(n);
  uint64_t m = eval_mask_of(cards, n);
  return apply_settings(eval_plain(m, n), m);
}

HandValue evaluate_cards_plain(const Card* cards, int n) {
  n = valid_count(n);
  return eval_plain(eval_mask_of(cards, n), n);
}

HandValue evaluate_mask(CardMask cards) {
  uint64_t m = to_eval_mask(cards);
  return apply_settings(eval_plain(m, __builtin_popcountll(m)), m);
}

HandValue evaluate_mask_plain(CardMask cards) {
  uint64_t m = to_eval_mask(cards);
  return eval_plain(m, __builtin_popcountll(m));
}

namespace {

// Best five-card value made of `take` board cards and `hole_cards` cards of
// the hole mask; 0 when the board has too few cards.
HandValue best_of_subsets(const uint64_t* board, int k, int take, uint64_t hole, bool one_hole_card) {
  uint64_t parts[2] = {hole, 0};
  int part_count = 1;
  if (one_hole_card) {
    parts[0] = hole & (0 - hole);  // lowest card
    parts[1] = hole ^ parts[0];
    part_count = parts[1] ? 2 : 1;
  }
  HandValue best = 0;
  auto consider = [&](uint64_t chosen) {
    for (int p = 0; p < part_count; p++) {
      uint64_t m = chosen | parts[p];
      HandValue v = apply_settings(eval_plain(m, __builtin_popcountll(m)), m);
      if (v > best) best = v;
    }
  };
  if (take == 3) {
    for (int a = 0; a < k; a++)
      for (int b = a + 1; b < k; b++)
        for (int c = b + 1; c < k; c++) consider(board[a] | board[b] | board[c]);
  } else {
    for (int a = 0; a < k; a++)
      for (int b = a + 1; b < k; b++)
        for (int c = b + 1; c < k; c++)
          for (int d = c + 1; d < k; d++) consider(board[a] | board[b] | board[c] | board[d]);
  }
  return best;
}

}  // namespace

void evaluate_board_holes(const CardMask* holes, size_t count, CardMask board, HandValue* out) {
  uint64_t board_eval = to_eval_mask(board);
  int mode = MustUseHoleCards;
  // The board's cards one by one, for the modes that choose among them.
  uint64_t board_cards[52];
  int k = 0;
  for (uint64_t b = board_eval; b; b &= b - 1) board_cards[k++] = b & (0 - b);
  for (size_t i = 0; i < count; i++) {
    if (!holes[i]) {
      out[i] = 0xFFFFFFFF;
      continue;
    }
    uint64_t hole = to_eval_mask(holes[i]);
    if (mode == 1) {
      out[i] = best_of_subsets(board_cards, k, 4, hole, true);
    } else if (mode == 2) {
      out[i] = best_of_subsets(board_cards, k, 3, hole, false);
    } else {
      uint64_t m = board_eval | hole;
      out[i] = apply_settings(eval_plain(m, __builtin_popcountll(m)), m);
    }
  }
}
