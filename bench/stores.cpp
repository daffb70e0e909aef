// Cost of the 16-bit store kernels per hand and action: read_strategy
// (regret matching) and update_regrets (fixed-point update), through the
// stores and through each instruction set's kernel table. Fixed seed.
//
//   bench_stores [hands]      default 1000 hands a cell
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "shell/shell.h"
#include "storage/store.h"
#include "storage/store_kernels.h"

namespace {

using Clock = std::chrono::steady_clock;

// Runs `body` until about a quarter second has passed; nanoseconds per call.
template <typename Body>
double time_per_call(Body&& body) {
  for (int i = 0; i < 50; i++) body();
  int64_t calls = 0;
  auto start = Clock::now();
  double elapsed = 0;
  int batch = 64;
  while (elapsed < 0.25) {
    for (int i = 0; i < batch; i++) body();
    calls += batch;
    elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    batch *= 2;
  }
  return elapsed * 1e9 / double(calls);
}

std::vector<float> random_row(std::mt19937& rng, int n, float lo, float hi) {
  std::uniform_real_distribution<float> d(lo, hi);
  std::vector<float> x(static_cast<size_t>(n));
  for (float& f : x) f = d(rng);
  return x;
}

struct Setup {
  int actions;
  int hands;
  StoreShape shape;
  Word16FlatStore* flat = nullptr;
  PackedStore* packed = nullptr;
  std::vector<HandVector> children;
  HandVector baseline;
  std::vector<HandVector> out;
  std::vector<float> defaults;
};

void prepare(Setup& s, std::mt19937& rng) {
  s.shape = make_store_shape(s.actions, {{s.hands}});
  s.flat = new Word16FlatStore(&s.shape);
  s.packed = new PackedStore(&s.shape, 1, true);
  if (!s.flat->materialise()) std::exit(1);
  RiverStoreRef ref{s.packed, 0};
  open_river_group(&ref, 1, 0);
  for (int a = 0; a < s.actions; a++) {
    std::vector<float> row = random_row(rng, s.hands, 0.0f, 3000.0f);
    for (int i = 0; i < s.hands; i += 5) row[size_t(i)] = 0;
    s.flat->write_row(0, 0, a, row.data());
    s.packed->write_row(0, 0, a, row.data());
  }
  s.children.resize(size_t(s.actions));
  s.out.resize(size_t(s.actions));
  for (int a = 0; a < s.actions; a++) {
    std::vector<float> v = random_row(rng, s.hands, -20.0f, 20.0f);
    s.children[size_t(a)].resize(s.hands, false);
    std::copy(v.begin(), v.end(), s.children[size_t(a)].data);
  }
  std::vector<float> b = random_row(rng, s.hands, -20.0f, 20.0f);
  s.baseline.resize(s.hands, false);
  std::copy(b.begin(), b.end(), s.baseline.data);
  s.defaults.assign(size_t(s.actions), 0.1f / float(s.actions));
  s.defaults[0] = 0.9f;
}

}  // namespace

int main(int argc, char** argv) {
  int hands = argc > 1 ? std::atoi(argv[1]) : 1000;
  if (hands < 1 || hands > 1326) hands = 1000;
  std::mt19937 rng(20240601);
  AdaptivePrecision = true;
  RegretIteration = 1;  // no rescale pass: the steady state of nine in ten iterations

  std::printf("16-bit store kernels, %d hands a cell, ns per hand and action\n", hands);
  std::printf("processor: avx2 %s, avx512 %s\n", store_kernels_have_avx2() ? "yes" : "no",
              store_kernels_have_avx512() ? "yes" : "no");

  std::printf("\nThrough the stores (Word16FlatStore; PackedStore for an open group):\n");
  std::printf("%-8s %-8s %14s %14s %14s %14s\n", "actions", "set", "read flat", "read packed",
              "update flat", "update packed");
  for (int actions : {2, 3, 4, 6}) {
    Setup s;
    s.actions = actions;
    s.hands = hands;
    prepare(s, rng);
    for (int wide : {0, 1}) {
      if (wide && !store_kernels_have_avx512()) continue;
      UseAvx512 = wide != 0;
      double per = double(hands) * actions;
      double rf = time_per_call([&] { s.flat->read_strategy(s.out.data(), 0, 0, s.defaults.data()); });
      double rp = time_per_call([&] { s.packed->read_strategy(s.out.data(), 0, 0, s.defaults.data()); });
      double uf = time_per_call([&] {
        s.flat->update_regrets(0, 0, s.baseline, s.children.data(), nullptr, 40.0);
      });
      double up = time_per_call([&] {
        s.packed->update_regrets(0, 0, s.baseline, s.children.data(), nullptr, 40.0);
      });
      std::printf("%-8d %-8s %14.3f %14.3f %14.3f %14.3f\n", actions,
                  wide ? "avx512" : (store_kernels_have_avx2() ? "avx2" : "base"), rf / per,
                  rp / per, uf / per, up / per);
    }
    delete s.flat;
    delete s.packed;
  }

  std::printf("\nKernels alone (two-action matching, fixed-point update of one row):\n");
  std::printf("%-8s %14s %14s %14s\n", "set", "match2", "match3", "update");
  struct Named {
    const char* name;
    const StoreKernels* k;
  };
  std::vector<Named> sets{{"base", &StoreKernelsBase}};
  if (store_kernels_have_avx2()) sets.push_back({"avx2", &StoreKernelsAvx2});
  if (store_kernels_have_avx512()) sets.push_back({"avx512", &StoreKernelsAvx512});
  std::vector<uint16_t> x[3];
  for (auto& r : x) {
    r.resize(size_t(hands));
    for (auto& v : r) v = uint16_t(rng() % 4000);
  }
  std::vector<float> r0(static_cast<size_t>(hands)), r1(static_cast<size_t>(hands)), r2(static_cast<size_t>(hands));
  std::vector<float> row = random_row(rng, hands, -20.0f, 20.0f);
  std::vector<float> base = random_row(rng, hands, -20.0f, 20.0f);
  const uint16_t* rows[3] = {x[0].data(), x[1].data(), x[2].data()};
  float* outs[3] = {r0.data(), r1.data(), r2.data()};
  const float d[3] = {0.9f, 0.05f, 0.05f};
  float p = std::pow(40.0f, 0.75f), t = 1.0f / 40.0f;
  for (const Named& n : sets) {
    double m2 = time_per_call([&] { n.k->match2_u16(rows[0], rows[1], hands, d[0], outs[0], outs[1]); });
    double m3 = time_per_call([&] { n.k->match3_u16(rows, hands, d, outs); });
    std::vector<uint16_t> v = x[2];
    double up = time_per_call([&] { n.k->regret_u16(v.data(), row.data(), base.data(), nullptr, hands, p, t); });
    std::printf("%-8s %14.3f %14.3f %14.3f\n", n.name, m2 / (2.0 * hands), m3 / (3.0 * hands),
                up / hands);
  }
  return 0;
}
