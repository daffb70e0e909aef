// Shared pieces of the store tests: seeded rows, hand vectors, the settings
// the stores read, and double-precision references of the store arithmetic.
#pragma once
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "core/core.h"
#include "storage/store.h"

namespace store_test {

// Restores the globals that stores read.
struct StoreSettings : ::testing::Test {
  bool saved_adaptive = AdaptivePrecision;
  double saved_precision = Precision;
  bool saved_avx512 = UseAvx512;
  bool saved_river = RiverStrategyEnabled;
  int32_t saved_iteration = RegretIteration;
  void SetUp() override {
    AdaptivePrecision = true;
    Precision = 0;
    UseAvx512 = false;
    RiverStrategyEnabled = true;
    RegretIteration = 1;  // not a multiple of 10: no rescale unless a test asks
  }
  void TearDown() override {
    AdaptivePrecision = saved_adaptive;
    Precision = saved_precision;
    UseAvx512 = saved_avx512;
    RiverStrategyEnabled = saved_river;
    RegretIteration = saved_iteration;
  }
};

inline void fill(HandVector& v, const std::vector<float>& x) {
  v.resize(int32_t(x.size()), false);
  if (!x.empty()) memcpy(v.data, x.data(), x.size() * sizeof(float));
}

inline std::vector<float> to_vector(const HandVector& v) {
  return v.data ? std::vector<float>(v.data, v.data + v.count) : std::vector<float>(size_t(v.count), 0.0f);
}

inline std::vector<float> random_floats(std::mt19937& rng, int n, float lo, float hi) {
  std::uniform_real_distribution<float> d(lo, hi);
  std::vector<float> x(static_cast<size_t>(n));
  for (float& f : x) f = d(rng);
  return x;
}

// Rows per action, one HandVector each.
struct Rows {
  std::vector<HandVector> v;
  Rows(int actions) : v(size_t(actions)) {}
  HandVector* data() { return v.data(); }
  HandVector& operator[](int a) { return v[size_t(a)]; }
};

// A strategy: per hand, non-negative values that sum to one over the actions.
inline Rows random_strategy(std::mt19937& rng, int actions, int n) {
  Rows r(actions);
  std::vector<std::vector<float>> x(static_cast<size_t>(actions), std::vector<float>(static_cast<size_t>(n)));
  std::uniform_real_distribution<float> d(0.0f, 1.0f);
  for (int i = 0; i < n; i++) {
    float s = 0;
    for (int a = 0; a < actions; a++) s += x[size_t(a)][size_t(i)] = d(rng);
    for (int a = 0; a < actions; a++) x[size_t(a)][size_t(i)] /= s;
  }
  for (int a = 0; a < actions; a++) fill(r[a], x[size_t(a)]);
  return r;
}

// ---- References in double precision ---------------------------------------------

inline double power34(double d) { return std::pow(std::fabs(d), 0.75); }

// Float regret: v + sign(d) |d|^0.75, flushed below the smallest normal.
inline double ref_regret_f32(double v, double d) {
  double r = std::fabs(d) < FLT_MIN ? 0.0 : (d < 0 ? -power34(d) : power34(d));
  double nv = v + r;
  return nv < FLT_MIN ? 0.0 : nv;
}

// 16-bit regret with p = s^0.75 and threshold t = 1 / s; the low 16 bits kept.
inline uint32_t ref_regret_u16(uint32_t v, double d, double s) {
  double p = std::pow(s, 0.75);
  double t = 1.0 / s;
  if (d >= t) return (v + uint32_t(std::trunc(p * power34(d)))) & 0xffff;
  if (d <= -t) {
    int64_t x = int64_t(v) - int64_t(std::trunc(p * power34(d)));
    return uint32_t(x < 0 ? 0 : x);
  }
  return v;
}

// Expects |a - b| <= tol for every entry; reports the first failure.
template <typename A, typename B>
void expect_near_all(const A& a, const B& b, size_t n, double tol, const char* what) {
  for (size_t i = 0; i < n; i++) {
    if (std::fabs(double(a[i]) - double(b[i])) > tol) {
      ADD_FAILURE() << what << ": entry " << i << " is " << double(a[i]) << ", expected "
                    << double(b[i]);
      return;
    }
  }
}

inline std::vector<uint8_t> saved_bytes(Store& s) {
  MemoryByteWriter w;
  s.save(w);
  return w.bytes;
}

// Saves `s` and loads the bytes into `back`, which must take them all and
// save the same again; returns the bytes.
inline std::vector<uint8_t> save_and_load(Store& s, Store& back) {
  std::vector<uint8_t> bytes = saved_bytes(s);
  MemoryByteSource src(bytes.data(), bytes.size());
  back.load(src);
  EXPECT_EQ(src.position, bytes.size());
  EXPECT_EQ(saved_bytes(back), bytes);
  return bytes;
}

// Regrets and strategy sums of a float cell (g, c) of n hands against double
// references: start rows, six updates with child 1 empty, then the strategy
// read from the regrets. `values(store, a)` gives the stored row of action a.
inline void check_float_cell(Store& regrets, Store& sums, int g, int c, int n, int actions, std::mt19937& rng,
                             const std::function<std::vector<float>(Store&, int)>& values) {
  std::vector<std::vector<double>> ref(static_cast<size_t>(actions));
  std::vector<std::vector<double>> sref(static_cast<size_t>(actions), std::vector<double>(size_t(n), 0.0));
  for (int a = 0; a < actions; a++) {
    std::vector<float> row = random_floats(rng, n, 0.0f, 5.0f);
    regrets.write_row(g, c, a, row.data());
    ref[size_t(a)].assign(row.begin(), row.end());
  }
  for (int step = 0; step < 6; step++) {
    HandVector base, reach;
    fill(base, random_floats(rng, n, -5.0f, 5.0f));
    fill(reach, random_floats(rng, n, 0.0f, 1.0f));
    Rows children(actions), strat = random_strategy(rng, actions, n);
    for (int a = 0; a < actions; a++)
      if (a != 1) fill(children[a], random_floats(rng, n, -5.0f, 5.0f));
    regrets.update_regrets(g, c, base, children.data(), nullptr, 123.0);
    float w = 1.5f * float(step + 1);
    sums.accumulate_strategy(g, c, strat.data(), reach, w);
    for (size_t a = 0; a < size_t(actions); a++)
      for (int i = 0; i < n; i++) {
        double child = children[int(a)].data ? children[int(a)].data[i] : 0.0;
        ref[a][size_t(i)] = ref_regret_f32(ref[a][size_t(i)], child - base.data[i]);
        sref[a][size_t(i)] += double(w) * strat[int(a)].data[i] * reach.data[i];
      }
  }
  std::vector<float> d(size_t(actions), 0.25f);
  d[0] = 0.6f;
  Rows out(actions);
  regrets.read_strategy(out.data(), g, c, d.data());
  for (int a = 0; a < actions; a++) {
    expect_near_all(values(regrets, a), ref[size_t(a)], size_t(n), 2e-4, "regret");
    expect_near_all(values(sums, a), sref[size_t(a)], size_t(n), 1e-3, "sum");
  }
  for (int i = 0; i < n; i++) {
    double s = 0;
    for (int a = 0; a < actions; a++) s += ref[size_t(a)][size_t(i)];
    for (int a = 0; a < actions; a++)
      EXPECT_NEAR(out[a].data[i], s < FLT_MIN ? d[size_t(a)] : ref[size_t(a)][size_t(i)] / s, 2e-5) << i;
  }
}

// A small river layout: `groups` turn cells, each with cells of mixed lengths
// (some rising, some falling, so both reference rules occur).
inline std::vector<std::vector<int32_t>> river_lengths(std::mt19937& rng, int groups, int cells,
                                                       int max_len) {
  std::uniform_int_distribution<int> len(1, max_len);
  std::vector<std::vector<int32_t>> out(static_cast<size_t>(groups));
  for (auto& g : out)
    for (int c = 0; c < cells; c++) g.push_back(len(rng));
  return out;
}

}  // namespace store_test
