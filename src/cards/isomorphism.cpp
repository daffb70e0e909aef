// Suit renaming: the canonical naming of a board and the translation of
// masks, pairs and per-pair arrays between real and canonical suits.
#include "cards/cards.h"

static constexpr CardMask SuitBlock = 0x1FFF;

static int suit_count_in(CardMask m, int suit) {
  return __builtin_popcountll((m >> (13 * suit)) & SuitBlock);
}

SuitMap canonicalise_board(CardMask& flop, CardMask& turn, CardMask& river) {
  int count[4];
  int present = 0;
  for (int s = 0; s < 4; s++) {
    count[s] = suit_count_in(flop, s);
    present += count[s] > 0;
  }
  int8_t number[4] = {-1, -1, -1, -1};
  if (present == 1 || present == 2) {
    // Most cards first, the lowest suit among equal counts; with two suits the
    // other one follows.
    int best = -1;
    for (int s = 0; s < 4; s++)
      if (count[s] > 0 && (best < 0 || count[s] > count[best])) best = s;
    number[best] = 0;
    for (int s = 0; s < 4; s++)
      if (count[s] > 0 && s != best) number[s] = 1;
  } else if (present >= 3) {
    // By the flop's cards in ascending number: the suit of the lowest card first.
    int next = 0;
    for (CardMask m = flop; m; m &= m - 1) {
      int s = SuitOf(Card(__builtin_ctzll(m)));
      if (number[s] < 0) number[s] = int8_t(next++);
    }
  }
  int next = present;
  for (CardMask m : {turn, river}) {
    if (!m) continue;
    int s = SuitOf(Card(__builtin_ctzll(m)));
    if (number[s] < 0) number[s] = int8_t(next++);
  }
  for (int s = 0; s < 4; s++)
    if (number[s] < 0) number[s] = int8_t(next++);

  SuitMap map;
  for (int s = 0; s < 4; s++) map.to[s] = uint8_t(number[s]);
  flop = apply_suit_map(flop, map);
  turn = apply_suit_map(turn, map);
  river = apply_suit_map(river, map);
  return map;
}

SuitMap inverse_suit_map(const SuitMap& map) {
  SuitMap inv;
  for (int s = 0; s < 4; s++) inv.to[map.to[s]] = uint8_t(s);
  return inv;
}

CardMask apply_suit_map(CardMask m, const SuitMap& map) {
  CardMask out = 0;
  for (int s = 0; s < 4; s++) out |= ((m >> (13 * s)) & SuitBlock) << (13 * map.to[s]);
  return out;
}

int apply_suit_map_to_pair(int pair_index, const SuitMap& map) {
  int a = apply_suit_map(PairHi[pair_index], map);
  int b = apply_suit_map(PairLo[pair_index], map);
  return a > b ? PairIndexOf(a, b) : PairIndexOf(b, a);
}

void map_range_to_canonical(const double* in, double* out, const SuitMap& map) {
  for (int p = 0; p < 1326; p++) out[apply_suit_map_to_pair(p, map)] = in[p];
}

CardMask swap_suits(CardMask m, int suit_a, int suit_b) {
  if (suit_a == suit_b) return m;
  CardMask a = (m >> (13 * suit_a)) & SuitBlock;
  CardMask b = (m >> (13 * suit_b)) & SuitBlock;
  m &= ~((SuitBlock << (13 * suit_a)) | (SuitBlock << (13 * suit_b)));
  return m | (a << (13 * suit_b)) | (b << (13 * suit_a));
}

CanonicalCards canonicalise_query(CardMask flop, int turn, int river, bool isomorphic) {
  CanonicalCards out{IdentitySuitMap, turn, river};
  if (!isomorphic) return out;
  CardMask t = turn >= 0 ? CardBit(turn) : 0;
  CardMask r = river >= 0 ? CardBit(river) : 0;
  out.map = canonicalise_board(flop, t, r);
  out.turn = turn >= 0 ? __builtin_ctzll(t) : -1;
  out.river = river >= 0 ? __builtin_ctzll(r) : -1;
  return out;
}

template <class T>
static void expand_list(const T* list, const uint16_t* pair_position, const SuitMap& map,
                        double fill, double* out) {
  for (int p = 0; p < 1326; p++) {
    uint16_t pos = pair_position[apply_suit_map_to_pair(p, map)];
    out[p] = pos == NoPosition ? fill : double(list[pos]);
  }
}

void expand_board_list(const float* list, const uint16_t* pair_position, const SuitMap& map,
                       double fill, double* out) {
  expand_list(list, pair_position, map, fill, out);
}

void expand_board_list(const double* list, const uint16_t* pair_position, const SuitMap& map,
                       double fill, double* out) {
  expand_list(list, pair_position, map, fill, out);
}

void undo_suit_map(const double* in, const SuitMap& map, double* out) {
  for (int p = 0; p < 1326; p++) out[p] = in[apply_suit_map_to_pair(p, map)];
}
