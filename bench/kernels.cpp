// Timing of the terminal kernels on one river board of 1081 hands, fixed seed:
// nanoseconds per hand for the one-terminal kernels and per hand and lane for
// the batches, for each instruction set this processor runs.
#include "solver/kernels/kernels.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

#include "cards/cards.h"
#include "platform/platform.h"
#include "shell/shell.h"

namespace {

struct Board {
  std::vector<uint16_t> packed;
  std::vector<int16_t> lengths;
  int32_t count = 0;
};

Board make_board(CardMask board) {
  std::vector<CardMask> holes;
  for (int hi = 1; hi < 52; hi++)
    for (int lo = 0; lo < hi; lo++)
      if (!((CardBit(hi) | CardBit(lo)) & board)) holes.push_back(CardBit(hi) | CardBit(lo));
  std::vector<HandValue> v(holes.size());
  evaluate_board_holes(holes.data(), holes.size(), board, v.data());
  std::vector<size_t> order(holes.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return v[a] < v[b]; });
  Board b;
  for (size_t k = 0; k < order.size(); k++) {
    CardMask m = holes[order[k]];
    b.packed.push_back(uint16_t(__builtin_ctzll(m) | ((63 - __builtin_clzll(m)) << 8)));
    if (k == 0 || v[order[k]] != v[order[k - 1]])
      b.lengths.push_back(1);
    else
      b.lengths.back()++;
  }
  b.count = int32_t(holes.size());
  return b;
}

// Best of several rounds, each long enough to be timed, in ns per call.
template <class F>
double time_call(F f) {
  using Clock = std::chrono::steady_clock;
  int reps = 1;
  for (;;) {
    auto t0 = Clock::now();
    for (int r = 0; r < reps; r++) f();
    double ns = std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
    if (ns > 1e6) break;
    reps *= 2;
  }
  double best = 1e30;
  for (int round = 0; round < 25; round++) {
    auto t0 = Clock::now();
    for (int r = 0; r < reps; r++) f();
    best =
        std::min(best, std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / reps);
  }
  return best;
}

volatile float Sink;

}  // namespace

int main() {
  build_card_tables();
  build_rank_tables();
  std::mt19937 rng(2024);
  Board b = make_board(parse_cards("Qs Jh 2h 7c 9d"));
  const int32_t n = b.count;
  // Eight reach vectors: most hands live, a few of them at zero, as in a
  // river subtree after some play.
  std::vector<std::vector<float>> reach(8, std::vector<float>(size_t(n)));
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  for (auto& r : reach)
    for (auto& x : r) x = rng() % 100 < 85 ? u(rng) : 0.0f;
  std::vector<float> uni(size_t(n), 0.0f);
  for (auto& r : reach)
    for (int32_t i = 0; i < n; i++) uni[size_t(i)] = std::max(uni[size_t(i)], r[size_t(i)]);
  std::vector<uint16_t> masks(b.lengths.size());
  compute_group_masks(masks.data(), uni.data(), n, b.lengths.data(), int32_t(b.lengths.size()));
  RiverGroups g{b.lengths.data(), masks.data(), int32_t(b.lengths.size())};
  std::vector<std::vector<float>> out(8, std::vector<float>(size_t(n)));
  float* op[8];
  const float* rp[8];
  float values[8];
  for (int t = 0; t < 8; t++) {
    op[t] = out[size_t(t)].data();
    rp[t] = reach[size_t(t)].data();
    values[t] = 10.0f + float(t);
  }

  printf("river board Qs Jh 2h 7c 9d: %d hands, %zu runs of equal strength\n", n, b.lengths.size());
  printf("%-28s", "ns per hand (per lane)");
  struct Isa {
    int32_t limit;
    bool avx512;
  };
  std::vector<Isa> isas{{KERNEL_PORTABLE, false}};
  if (cpu_has_avx2()) isas.push_back({KERNEL_AVX2, false});
  if (cpu_has_avx512()) isas.push_back({KERNEL_AVX512, true});
  for (const Isa& s : isas) {
    KernelIsaLimit = s.limit;
    UseAvx512 = s.avx512;
    printf("%10s", kernel_isa_name(kernel_isa()));
  }
  printf("\n");

  auto row = [&](const char* name, double per, auto f) {
    printf("%-28s", name);
    for (const Isa& s : isas) {
      KernelIsaLimit = s.limit;
      UseAvx512 = s.avx512;
      printf("%10.3f", time_call(f) / (double(n) * per));
    }
    printf("\n");
  };
  row("group masks", 1,
      [&] { compute_group_masks(masks.data(), uni.data(), n, b.lengths.data(), g.count); });
  row("fold_value", 1, [&] {
    fold_value(op[0], rp[0], n, b.packed.data(), -5.0f);
    Sink = op[0][7];
  });
  row("showdown_value", 1, [&] {
    showdown_value(op[0], rp[0], n, g, b.packed.data(), 5.0f);
    Sink = op[0][7];
  });
  row("showdown_and_fold (pair)", 2, [&] {
    showdown_and_fold(op[0], op[1], rp[0], n, g, b.packed.data(), 5.0f, -3.0f);
    Sink = op[1][7];
  });
  row("showdown_and_fold2 (pair)", 2, [&] {
    showdown_and_fold2(op[0], op[1], rp[0], rp[1], n, g, b.packed.data(), 5.0f, -3.0f);
    Sink = op[1][7];
  });
  for (int w : {1, 2, 3, 4, 6, 8}) {
    char name[64];
    snprintf(name, sizeof name, "showdown lanes, width %d", w);
    row(name, w, [&] {
      showdown_value_lanes(w, op, rp, values, n, g, b.packed.data());
      Sink = op[0][7];
    });
  }
  for (int w : {1, 2, 3, 4}) {
    char name[64];
    snprintf(name, sizeof name, "fold lanes, width %d", w);
    row(name, w, [&] {
      fold_value_lanes(w, op, rp, values, n, b.packed.data());
      Sink = op[0][7];
    });
  }
  return 0;
}
