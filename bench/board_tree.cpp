// Building the per-board hole sets of a flop tree: every turn and river board
// with wide ranges, without and with suit isomorphism. Wall time on all the
// threads that OpenMP gives, best and mean of several builds.
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

#include "cards/cards.h"
#include "tree/board_tree.h"

namespace {

// About 1,000 of the 1,326 pairs with weight, symmetric in the suits so that
// the isomorphic build has no errors.
std::vector<double> wide_range(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<double> r(1326, 0.0);
  for (const auto& bucket : ShapeBuckets) {
    double w = rng() % 4 == 0 ? 0.0 : double(rng() % 1000 + 1) / 1000.0;
    for (uint16_t p : bucket) r[p] = w;
  }
  return r;
}

void bench(const char* flop, bool iso, const std::vector<double>& r0, const std::vector<double>& r1) {
  BoardSetup setup;
  setup.flop = parse_cards(flop);
  setup.ranges[0] = r0.data();
  setup.ranges[1] = r1.data();
  setup.use_isomorphism = iso;
  setup.action_max = 4;
  constexpr int Rounds = 10;
  double best = 1e9, total = 0;
  size_t rivers = 0, hands = 0, root_hands = 0;
  for (int i = 0; i < Rounds; i++) {
    auto t0 = std::chrono::steady_clock::now();
    auto tree = build_board_tree(setup);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    best = std::min(best, s);
    total += s;
    rivers = hands = 0;
    root_hands = tree->holes.size();
    for (const BoardRecord& t : tree->children)
      for (const BoardRecord& r : t.children) rivers++, hands += r.holes.size();
  }
  printf("%s %-13s %4zu river boards, %4zu root hands, %8zu river hands: best %6.1f ms, mean %6.1f ms\n",
         flop, iso ? "isomorphic" : "card by card", rivers, root_hands, hands, best * 1e3,
         total / Rounds * 1e3);
}

}  // namespace

int main() {
  build_card_tables();
  build_rank_tables();
  std::vector<double> r0 = wide_range(1), r1 = wide_range(2);
  printf("threads %d\n", omp_get_max_threads());
  for (const char* flop : {"QsJh2h", "Ks8d3c", "9h7h2h"}) {
    bench(flop, false, r0, r1);
    bench(flop, true, r0, r1);
  }
  return 0;
}
