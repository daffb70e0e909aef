// Evaluator speed on one core: random hands of five, six and seven cards,
// drawn beforehand with a fixed seed, and the board list of a river. Rates
// are per second of the thread's cpu time.
#include <cstdio>
#include <ctime>
#include <random>
#include <vector>

#include "cards/cards.h"

namespace {

constexpr int HandsPerSet = 1 << 20;

std::vector<Card> draw_hands(int n, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<Card> cards(size_t(HandsPerSet) * n);
  Card deck[52];
  for (int c = 0; c < 52; c++) deck[c] = Card(c);
  for (int h = 0; h < HandsPerSet; h++)
    for (int i = 0; i < n; i++) {
      int j = i + int(rng() % (52 - i));
      std::swap(deck[i], deck[j]);
      cards[size_t(h) * n + i] = deck[i];
    }
  return cards;
}

// Thread cpu time, so that time spent descheduled on a shared machine does
// not count against the evaluator.
double cpu_seconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

void bench_cards(int n, int rounds) {
  std::vector<Card> cards = draw_hands(n, 12345 + n);
  uint64_t checksum = 0;
  double t0 = cpu_seconds();
  for (int r = 0; r < rounds; r++)
    for (int h = 0; h < HandsPerSet; h++) checksum += evaluate_cards(&cards[size_t(h) * n], n);
  double s = cpu_seconds() - t0;
  printf("%d cards: %.1f Mhands/s (checksum %llx)\n", n, double(rounds) * HandsPerSet / s / 1e6,
         (unsigned long long)checksum);
}

void bench_board() {
  CardMask board = parse_cards("Qs Jh 2h 7d 3c");
  std::vector<CardMask> holes(1326);
  std::vector<HandValue> out(1326);
  for (int p = 0; p < 1326; p++) holes[p] = PairMasks[p] & board ? 0 : PairMasks[p];
  for (int mode = 0; mode <= 2; mode++) {
    MustUseHoleCards = mode;
    int rounds = mode == 0 ? 2000 : 200;
    uint64_t checksum = 0;
    double t0 = cpu_seconds();
    for (int r = 0; r < rounds; r++) {
      evaluate_board_holes(holes.data(), holes.size(), board, out.data());
      checksum += out[r % 1326];
    }
    double s = cpu_seconds() - t0;
    printf("river board list, must-use %d: %.1f us per board (checksum %llx)\n", mode, s / rounds * 1e6,
           (unsigned long long)checksum);
  }
  MustUseHoleCards = 0;
}

}  // namespace

int main() {
  build_card_tables();
  build_rank_tables();
  bench_cards(7, 20);
  bench_cards(6, 20);
  bench_cards(5, 20);
  bench_board();
  return 0;
}
