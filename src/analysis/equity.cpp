// Showdown equity against a range over every run-out of a board, with exact
// card removal: per river board one sort by strength and one sweep with card
// sums, so a flop costs one pass per river board rather than hands squared.
#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "analysis/analysis.h"

namespace {

struct Live {
  HandValue value;
  int16_t pair;
  uint8_t lo, hi;
};

int low_card(CardMask m) { return __builtin_ctzll(m); }
int high_card(CardMask m) { return 63 - __builtin_clzll(m); }

bool in_deck(int c) { return RankOf(Card(c)) >= LowCardIndex; }
bool hand_in_deck(CardMask m) { return in_deck(low_card(m)) && in_deck(high_card(m)); }

// Adds, for every live hand, the opponent weight it beats less the weight it
// loses to on one five-card board.
void river_sweep(CardMask board, const double* opponent, double* advantage, std::vector<Live>& live) {
  live.clear();
  CardMask holes[HandCount];
  HandValue values[HandCount];
  for (int p = 0; p < HandCount; p++) {
    CardMask m = HandMasks[PairToHand[p]];
    if ((m & board) || !hand_in_deck(m)) continue;
    holes[live.size()] = m;
    live.push_back({0, int16_t(p), uint8_t(low_card(m)), uint8_t(high_card(m))});
  }
  evaluate_board_holes(holes, live.size(), board, values);
  for (size_t i = 0; i < live.size(); i++) live[i].value = values[i];
  std::sort(live.begin(), live.end(), [](const Live& a, const Live& b) { return a.value < b.value; });
  // below: weight of strictly weaker hands, by card and in all.
  double below = 0, below_card[52] = {}, above = 0, above_card[52] = {};
  for (const Live& h : live) {
    double w = opponent[h.pair] > 0.0 ? opponent[h.pair] : 0.0;
    above += w;
    above_card[h.lo] += w;
    above_card[h.hi] += w;
  }
  for (size_t i = 0; i < live.size();) {
    size_t j = i;
    while (j < live.size() && live[j].value == live[i].value) j++;
    // The run [i, j) ties with itself: out of "above" before, into "below" after.
    for (size_t k = i; k < j; k++) {
      double w = opponent[live[k].pair] > 0.0 ? opponent[live[k].pair] : 0.0;
      above -= w;
      above_card[live[k].lo] -= w;
      above_card[live[k].hi] -= w;
    }
    for (size_t k = i; k < j; k++) {
      const Live& h = live[k];
      double win = below - below_card[h.lo] - below_card[h.hi];
      double lose = above - above_card[h.lo] - above_card[h.hi];
      advantage[h.pair] += win - lose;
    }
    for (size_t k = i; k < j; k++) {
      double w = opponent[live[k].pair] > 0.0 ? opponent[live[k].pair] : 0.0;
      below += w;
      below_card[live[k].lo] += w;
      below_card[live[k].hi] += w;
    }
    i = j;
  }
}

double choose(int n, int k) {
  if (k == 0) return 1;
  if (k == 1) return n;
  return double(n) * double(n - 1) / 2.0;
}

}  // namespace

void equity_kernel(CardMask board, const double* opponent, double* advantage, double* matchups) {
  std::fill(advantage, advantage + HandCount, 0.0);
  std::vector<Live> live;
  live.reserve(HandCount);
  const int open = 5 - __builtin_popcountll(board);
  std::vector<int> deck;
  for (int c = 0; c < 52; c++)
    if (in_deck(c) && !(board & CardBit(Card(c)))) deck.push_back(c);
  if (open == 0) {
    river_sweep(board, opponent, advantage, live);
  } else if (open == 1) {
    for (int c : deck) river_sweep(board | CardBit(Card(c)), opponent, advantage, live);
  } else {
    for (size_t a = 0; a < deck.size(); a++)
      for (size_t b = a + 1; b < deck.size(); b++)
        river_sweep(board | CardBit(Card(deck[a])) | CardBit(Card(deck[b])), opponent, advantage, live);
  }
  // Every disjoint pair of hands meets on C(cards left, open) run-outs.
  const double runouts = choose(int(deck.size()) - 4, open);
  disjoint_weights(opponent, board, matchups);
  // Hands on the board or out of the deck were never live: their sums stay 0.
  for (int p = 0; p < HandCount; p++) advantage[p] /= runouts;
}

void disjoint_weights(const double* weights, CardMask board, double* out) {
  double total = 0, card[52] = {};
  for (int p = 0; p < HandCount; p++) {
    CardMask m = HandMasks[PairToHand[p]];
    if ((m & board) || !hand_in_deck(m) || !(weights[p] > 0.0)) continue;
    total += weights[p];
    card[low_card(m)] += weights[p];
    card[high_card(m)] += weights[p];
  }
  for (int p = 0; p < HandCount; p++) {
    CardMask m = HandMasks[PairToHand[p]];
    const double own = weights[p] > 0.0 ? weights[p] : 0.0;
    out[p] = (m & board) || !hand_in_deck(m) ? 0.0 : total - card[low_card(m)] - card[high_card(m)] + own;
  }
}

double equity_of(double advantage, double matchups) {
  if (!(matchups > 0.0)) return std::nan("");
  return 0.5 * (1.0 + advantage / matchups);
}

std::vector<int32_t> hand_strength_order(CardMask board, const double* opponent) {
  std::vector<double> adv(HandCount), match(HandCount);
  equity_kernel(board, opponent, adv.data(), match.data());
  const double lowest = std::numeric_limits<double>::lowest();
  std::vector<double> key(HandCount);
  for (int h = 0; h < HandCount; h++) {
    int p = HandToPair[h];
    double e = match[p] > 0.0 ? adv[p] / match[p] : std::nan("");
    key[h] = std::isnan(e) ? lowest : e;
  }
  std::vector<int32_t> order(HandCount);
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int32_t a, int32_t b) { return key[a] > key[b]; });
  size_t n = 0;
  while (n < order.size() && key[order[n]] != lowest) n++;
  order.resize(n);
  return order;
}
