// The hand classifier: each hole pair's made hand and draw on a board, in the
// words players use, from plain evaluator values of the board with and
// without the hand.
#include <string>

#include "cards/cards.h"

namespace {

int category_of(HandValue v) { return HandPositionOf(v); }

// The first field where the hand beats the board names the high card, if it
// is an ace or a king.
int kicker_rule(HandValue hv, HandValue bv) {
  for (int f = 1; f <= 5; f++) {
    int h = HandFieldOf(hv, f), b = HandFieldOf(bv, f);
    if (h > b) return h == 12 ? MADE_ACE_HIGH : h == 11 ? MADE_KING_HIGH : MADE_NOTHING;
  }
  return MADE_NOTHING;
}

// 2 x (distinct board ranks above r), plus 1 when the board holds rank r.
int rank_position(int r, uint32_t board_ranks) {
  return 2 * __builtin_popcount(board_ranks >> (r + 1)) + ((board_ranks >> r) & 1);
}

int position_rule(int p) {
  static const int8_t by_position[] = {MADE_OVERPAIR, MADE_TOP_PAIR, MADE_UNDERPAIR, MADE_SECOND_PAIR,
                                       MADE_THIRD_PAIR, MADE_THIRD_PAIR};
  return p < 6 ? by_position[p] : MADE_LOW_PAIR;
}

int made_category(HandValue hv, HandValue bv, int p) {
  const int bc = category_of(bv);
  switch (category_of(hv)) {
    case CAT_STRAIGHTFLUSH: return bc < 8 || hv > bv ? MADE_STRAIGHT_FLUSH : MADE_NOTHING;
    case CAT_QUADS: return bc < 7 ? MADE_QUADS : kicker_rule(hv, bv);
    case CAT_FULLHOUSE:
      if (bc < 6) return MADE_FULLHOUSE;
      if (HandFieldOf(hv, 1) > HandFieldOf(bv, 1)) return MADE_TOP_FULLHOUSE;
      return HandFieldOf(hv, 2) > HandFieldOf(bv, 2) ? MADE_FULLHOUSE : MADE_NOTHING;
    case CAT_FLUSH: return bc < 5 ? MADE_FLUSH : MADE_NOTHING;
    case CAT_STRAIGHT: return bc < 4 || hv > bv ? MADE_STRAIGHT : kicker_rule(hv, bv);
    case CAT_TRIPS:
      if (bc == 0) return MADE_SET;
      if (bc == 1) return MADE_TRIPS;
      if (bc == 2) return -2;  // a board with two pairs can't make trips with a hand
      return kicker_rule(hv, bv);
    case CAT_TWOPAIR:
      if (bc == 0) return MADE_TWO_PAIR;
      if (bc == 1 || HandFieldOf(hv, 1) > HandFieldOf(bv, 1) || HandFieldOf(hv, 2) > HandFieldOf(bv, 2))
        return position_rule(p);
      return kicker_rule(hv, bv);
    case CAT_PAIR: return bc == 1 ? kicker_rule(hv, bv) : position_rule(p);
    default: return kicker_rule(hv, bv);
  }
}

int draw_category(int straight_outs, int flush_outs) {
  if (straight_outs > 0 && flush_outs > 0) return DRAW_COMBO;
  if (straight_outs > 0) return straight_outs / 4;
  return flush_outs > 0 ? DRAW_FLUSH : DRAW_NONE;
}

}  // namespace

const char* const MadeCategoryNames[MADE_CATEGORY_NB] = {
    "nothing",  "king_high", "ace_high", "low_pair",  "third_pair",    "second_pair", "underpair",
    "top_pair", "top_pair_tp", "overpair", "two_pair", "trips",        "set",         "straight",
    "flush",    "fullhouse", "top_fullhouse", "quads", "straight_flush"};
const char* const DrawCategoryNames[DRAW_CATEGORY_NB] = {"no_draw", "4out_straight_draw", "8out_straight_draw",
                                                         "flush_draw", "combo_draw"};

bool classify_hands(CardMask board, int8_t* made, int8_t* draw) {
  const int n = card_count(board);
  const HandValue bv = evaluate_mask_plain(board);
  uint32_t board_ranks = 0;
  for (int c = 0; c < 52; c++)
    if (board & CardBit(Card(c))) board_ranks |= 1u << RankOf(Card(c));
  for (int h = 0; h < 1326; h++) {
    const CardMask hand = HandMasks[h];
    if (hand & board) {
      made[h] = 0;  // the internal -1 prints as 0 after the division by 100
      draw[h] = n == 5 ? 0 : -1;
      continue;
    }
    // The position of the pair's first-named card, else its second's.
    CardMask first = parse_cards(std::string(HandOrderText + 5 * h, 2));
    int first_rank = RankOf(Card(__builtin_ctzll(first)));
    int second_rank = RankOf(Card(__builtin_ctzll(hand & ~first)));
    int p = rank_position(first_rank, board_ranks);
    if (!(p & 1)) p = rank_position(second_rank, board_ranks);
    const HandValue hv = evaluate_mask_plain(board | hand);
    const int m = made_category(hv, bv, p);
    if (m < -1) return false;
    made[h] = int8_t(m);
    draw[h] = 0;
    if (n == 5) continue;
    const int hc = category_of(hv);
    int straights = 0, flushes = 0;
    for (int c = 0; c < 52; c++) {
      const CardMask card = CardBit(Card(c));
      if (card & (board | hand)) continue;
      const HandValue nv = evaluate_mask_plain(board | hand | card);
      const HandValue bn = n == 4 ? evaluate_mask_plain(board | card) : 0;
      const int nc = category_of(nv);
      if (nc == CAT_STRAIGHT && nv > bn && hc < CAT_STRAIGHT) straights++;
      if ((nc == CAT_FLUSH || nc == CAT_STRAIGHTFLUSH) && nv > bn && hc < CAT_FLUSH) flushes++;
    }
    draw[h] = int8_t(draw_category(straights, flushes));
  }
  return true;
}
