// The row kernels of every instruction set this processor has, against
// double-precision references: every length up to a few vectors (so that each
// tail width occurs), frozen hands, and no write past the end of a row.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include "storage/store_kernels.h"
#include "store_support.h"

using namespace store_test;

namespace {

struct Table {
  const char* name;
  const StoreKernels* k;
};

std::vector<Table> tables() {
  std::vector<Table> t{{"base", &StoreKernelsBase}};
  if (store_kernels_have_avx2()) t.push_back({"avx2", &StoreKernelsAvx2});
  if (store_kernels_have_avx512()) t.push_back({"avx512", &StoreKernelsAvx512});
  return t;
}

std::vector<int> lengths() {
  std::vector<int> n;
  for (int i = 0; i <= 40; i++) n.push_back(i);
  n.push_back(1326);
  return n;
}

constexpr float Canary = -12345.0f;

// Output rows with canaries behind the end.
struct Out {
  std::vector<float> v;
  int n;
  explicit Out(int n_) : v(size_t(n_) + 20, Canary), n(n_) {}
  float* data() { return v.data(); }
  float operator[](size_t i) const { return v[i]; }
  bool intact() const {
    for (size_t i = size_t(n); i < v.size(); i++)
      if (v[i] != Canary) return false;
    return true;
  }
};

std::vector<uint16_t> random_u16(std::mt19937& rng, int n, int zero_share_pct, uint16_t hi) {
  std::uniform_int_distribution<int> v(0, hi), z(0, 99);
  std::vector<uint16_t> x(size_t(n) + 20);
  for (int i = 0; i < n; i++) x[size_t(i)] = z(rng) < zero_share_pct ? 0 : uint16_t(v(rng));
  return x;
}

std::vector<uint8_t> random_mask(std::mt19937& rng, int n) {
  std::uniform_int_distribution<int> z(0, 3);
  std::vector<uint8_t> m(size_t(n) + 20);
  for (int i = 0; i < n; i++) m[size_t(i)] = z(rng) == 0 ? uint8_t(1 + z(rng)) : 0;
  return m;
}

}  // namespace

TEST(StoreKernels, MatchingOf16BitRows) {
  std::mt19937 rng(11);
  for (const Table& t : tables()) {
    for (int n : lengths()) {
      SCOPED_TRACE(std::string(t.name) + " n=" + std::to_string(n));
      // Many hands with a zero sum, so the defaults are exercised.
      std::vector<uint16_t> x[4];
      for (auto& r : x) r = random_u16(rng, n, 50, 65535);
      const uint16_t* rows[4] = {x[0].data(), x[1].data(), x[2].data(), x[3].data()};
      const float d[4] = {0.9f, 0.05f, 0.03f, 0.02f};

      Out r0(n), r1(n);
      t.k->match2_u16(rows[0], rows[1], n, d[0], r0.data(), r1.data());
      for (int i = 0; i < n; i++) {
        double s = double(x[0][size_t(i)]) + x[1][size_t(i)];
        double e = s == 0 ? d[0] : x[0][size_t(i)] / s;
        ASSERT_NEAR(r0[size_t(i)], e, 1e-6);
        ASSERT_EQ(r1[size_t(i)], 1.0f - r0[size_t(i)]);  // never defaults[1]
      }
      EXPECT_TRUE(r0.intact() && r1.intact());

      for (int k : {3, 4}) {
        Out o[4] = {Out(n), Out(n), Out(n), Out(n)};
        float* r[4] = {o[0].data(), o[1].data(), o[2].data(), o[3].data()};
        (k == 3 ? t.k->match3_u16 : t.k->match4_u16)(rows, n, d, r);
        for (int i = 0; i < n; i++) {
          double s = 0;
          for (int a = 0; a < k; a++) s += x[a][size_t(i)];
          for (int a = 0; a < k; a++)
            ASSERT_NEAR(o[a][size_t(i)], s == 0 ? d[a] : x[a][size_t(i)] / s, 1e-6);
        }
        for (int a = 0; a < k; a++) EXPECT_TRUE(o[a].intact());
      }

      // The general path: reciprocal of the sums, then row by row.
      std::vector<float> recip(size_t(n) + 20, Canary);
      t.k->reciprocal_u16(recip.data(), rows, 4, n);
      EXPECT_EQ(recip[size_t(n)], Canary);
      for (int a = 0; a < 4; a++) {
        Out o(n);
        t.k->scale_u16(o.data(), rows[a], recip.data(), d[a], n);
        for (int i = 0; i < n; i++) {
          double s = double(x[0][size_t(i)]) + x[1][size_t(i)] + x[2][size_t(i)] + x[3][size_t(i)];
          ASSERT_NEAR(o[size_t(i)], s == 0 ? d[a] : x[a][size_t(i)] / s, 2e-6);
        }
        EXPECT_TRUE(o.intact());
      }
    }
  }
}

TEST(StoreKernels, MatchingOfFloatAnd32BitRows) {
  std::mt19937 rng(12);
  for (const Table& t : tables()) {
    for (int n : lengths()) {
      SCOPED_TRACE(std::string(t.name) + " n=" + std::to_string(n));
      std::vector<float> x[3];
      std::vector<uint32_t> u[3];
      std::uniform_int_distribution<uint32_t> big(0, 4000000000u);
      for (int a = 0; a < 3; a++) {
        x[a] = random_floats(rng, n + 20, 0.0f, 100.0f);
        u[a].resize(size_t(n) + 20);
        for (int i = 0; i < n; i++) {
          if (i % 3 == 0) x[a][size_t(i)] = i % 2 ? 1e-39f : 0.0f;  // sums below FLT_MIN
          u[a][size_t(i)] = i % 4 == 0 ? 0 : big(rng) / 3;
        }
      }
      const float* rows[3] = {x[0].data(), x[1].data(), x[2].data()};
      const uint32_t* urows[3] = {u[0].data(), u[1].data(), u[2].data()};
      const float d[3] = {0.5f, 0.3f, 0.2f};
      for (int k : {2, 3}) {
        Out o[3] = {Out(n), Out(n), Out(n)};
        float* r[3] = {o[0].data(), o[1].data(), o[2].data()};
        (k == 2 ? t.k->match2_f32 : t.k->match3_f32)(rows, n, d, r);
        for (int i = 0; i < n; i++) {
          float fs = 0;
          for (int a = 0; a < k; a++) fs += x[a][size_t(i)];
          for (int a = 0; a < k; a++)
            ASSERT_NEAR(o[a][size_t(i)], fs < FLT_MIN ? d[a] : x[a][size_t(i)] / double(fs), 1e-6);
        }
        for (int a = 0; a < k; a++) EXPECT_TRUE(o[a].intact());
      }
      std::vector<float> recip(size_t(n) + 20, Canary);
      t.k->reciprocal_f32(recip.data(), rows, 3, n);
      std::vector<float> urecip(size_t(n) + 20, Canary);
      t.k->reciprocal_u32(urecip.data(), urows, 3, n);
      for (int a = 0; a < 3; a++) {
        Out o(n), uo(n);
        t.k->scale_f32(o.data(), rows[a], recip.data(), d[a], n);
        t.k->scale_u32(uo.data(), urows[a], urecip.data(), 0.25f, n);
        for (int i = 0; i < n; i++) {
          float fs = x[0][size_t(i)] + x[1][size_t(i)] + x[2][size_t(i)];
          ASSERT_NEAR(o[size_t(i)], fs < FLT_MIN ? d[a] : x[a][size_t(i)] / double(fs), 2e-6);
          double us = double(u[0][size_t(i)]) + u[1][size_t(i)] + u[2][size_t(i)];
          ASSERT_NEAR(uo[size_t(i)], us == 0 ? 0.25 : u[a][size_t(i)] / us, 2e-6);
        }
        EXPECT_TRUE(o.intact() && uo.intact());
      }
    }
  }
}

TEST(StoreKernels, FloatRegretUpdate) {
  std::mt19937 rng(13);
  for (const Table& t : tables()) {
    for (int n : lengths()) {
      SCOPED_TRACE(std::string(t.name) + " n=" + std::to_string(n));
      std::vector<float> v = random_floats(rng, n + 20, 0.0f, 50.0f);
      for (int i = 0; i < n; i += 5) v[size_t(i)] = 0;
      std::vector<float> row = random_floats(rng, n, -80.0f, 80.0f);
      std::vector<float> base = random_floats(rng, n, -80.0f, 80.0f);
      for (int i = 0; i < n; i += 7) row[size_t(i)] = base[size_t(i)];  // d = 0
      std::vector<uint8_t> mask = random_mask(rng, n);
      for (int masked = 0; masked < 2; masked++) {
        std::vector<float> out = v;
        t.k->regret_f32(out.data(), row.data(), base.data(), masked ? mask.data() : nullptr, n);
        for (int i = 0; i < n; i++) {
          double e = masked && mask[size_t(i)]
                         ? v[size_t(i)]
                         : ref_regret_f32(v[size_t(i)], double(row[size_t(i)] - base[size_t(i)]));
          ASSERT_NEAR(out[size_t(i)], e, 1e-5 + 2e-6 * std::fabs(e)) << "hand " << i;
          ASSERT_GE(out[size_t(i)], 0.0f);
        }
        for (size_t i = size_t(n); i < out.size(); i++) ASSERT_EQ(out[i], v[i]);
      }
    }
  }
}

TEST(StoreKernels, FixedPointRegretUpdate) {
  std::mt19937 rng(14);
  for (const Table& t : tables()) {
    for (int n : lengths()) {
      SCOPED_TRACE(std::string(t.name) + " n=" + std::to_string(n));
      std::vector<uint16_t> v = random_u16(rng, n, 20, 60000);
      std::vector<float> row = random_floats(rng, n, -30.0f, 30.0f);
      std::vector<float> base = random_floats(rng, n, -30.0f, 30.0f);
      std::vector<uint8_t> mask = random_mask(rng, n);
      for (float s : {0.5f, 37.0f, 900.0f}) {
        float p = std::pow(s, 0.75f), th = 1.0f / s;
        for (int masked = 0; masked < 2; masked++) {
          std::vector<uint16_t> out = v;
          t.k->regret_u16(out.data(), row.data(), base.data(), masked ? mask.data() : nullptr, n, p, th);
          for (int i = 0; i < n; i++) {
            uint32_t e = masked && mask[size_t(i)]
                             ? v[size_t(i)]
                             : ref_regret_u16(v[size_t(i)], double(row[size_t(i)]) - base[size_t(i)], s);
            // Truncation may fall on the other side of an integer by one unit.
            int diff = int(out[size_t(i)]) - int(e);
            if (diff == 65535 || diff == -65535) diff = 1;  // wrapped at the top
            ASSERT_LE(std::abs(diff), 1) << "hand " << i << " s " << s;
          }
          for (size_t i = size_t(n); i < out.size(); i++) ASSERT_EQ(out[i], v[i]);
        }
      }
    }
  }
}

TEST(StoreKernels, FixedPointThresholdAndWrap) {
  for (const Table& t : tables()) {
    SCOPED_TRACE(t.name);
    // s = 4: regrets below 1/4 in size vanish.
    const float s = 4.0f, p = std::pow(s, 0.75f), th = 1.0f / s;
    std::vector<float> row = {0.2499f, -0.2499f, 0.25f, -0.25f, 1000.0f, -1000.0f, 0.0f, 16.0f};
    std::vector<float> base(row.size(), 0.0f);
    std::vector<uint16_t> v = {5, 5, 5, 5, 65535, 3, 7, 0};
    t.k->regret_u16(v.data(), row.data(), base.data(), nullptr, int(row.size()), p, th);
    EXPECT_EQ(v[0], 5);
    EXPECT_EQ(v[1], 5);
    // Exactly at the threshold the step is trunc(about 1): at most one unit.
    EXPECT_TRUE(v[2] == 5 || v[2] == 6) << v[2];
    EXPECT_TRUE(v[3] == 4 || v[3] == 5) << v[3];
    // 65535 + trunc(4^0.75 * 1000^0.75): the sum wraps, no saturation.
    uint32_t step = uint32_t(std::trunc(std::pow(4.0, 0.75) * std::pow(1000.0, 0.75)));
    EXPECT_NEAR(int(v[4]), int((65535 + step) & 0xffff), 1);
    EXPECT_EQ(v[5], 0);  // floored at zero
    EXPECT_EQ(v[6], 7);
    EXPECT_NEAR(int(v[7]), int(std::pow(4.0, 0.75) * 8.0), 1);
  }
}

TEST(StoreKernels, StrategySums) {
  std::mt19937 rng(15);
  for (const Table& t : tables()) {
    for (int n : lengths()) {
      SCOPED_TRACE(std::string(t.name) + " n=" + std::to_string(n));
      std::vector<float> s = random_floats(rng, n, 0.0f, 1.0f);
      std::vector<float> reach = random_floats(rng, n, 0.0f, 2.0f);
      std::vector<uint8_t> mask = random_mask(rng, n);
      const float w = 37.5f;
      std::vector<float> v = random_floats(rng, n + 20, 0.0f, 1000.0f);
      std::vector<uint32_t> u(size_t(n) + 20);
      std::vector<uint16_t> h = random_u16(rng, n, 10, 60000);
      for (int i = 0; i < n; i++) u[size_t(i)] = uint32_t(rng() % 3000000u);
      for (int masked = 0; masked < 2; masked++) {
        const uint8_t* m = masked ? mask.data() : nullptr;
        auto frozen = [&](int i) { return masked && mask[size_t(i)]; };
        std::vector<float> fv = v;
        t.k->accumulate_f32(fv.data(), s.data(), reach.data(), w, m, n);
        std::vector<float> x(size_t(n) + 4);
        float peak = t.k->weigh_reach(x.data(), reach.data(), w, n);
        std::vector<float> fx = v;
        t.k->accumulate_f32_x(fx.data(), s.data(), x.data(), m, n);
        std::vector<uint32_t> fu = u;
        t.k->accumulate_u32(fu.data(), s.data(), reach.data(), w, m, n);
        std::vector<uint16_t> fh = h;
        t.k->accumulate_u16(fh.data(), s.data(), x.data(), m, n);
        double top = 0;
        for (int i = 0; i < n; i++) {
          size_t k = size_t(i);
          double add = double(w) * s[k] * reach[k];
          top = std::max(top, double(w) * reach[k]);
          ASSERT_NEAR(x[k], double(w) * reach[k], 1e-4);
          ASSERT_NEAR(fv[k], frozen(i) ? v[k] : v[k] + add, 1e-3);
          ASSERT_NEAR(fx[k], frozen(i) ? v[k] : v[k] + add, 1e-3);
          // trunc(0.5 + w s r + float(v)): rounding to the nearest integer.
          double eu = frozen(i) ? u[k] : std::trunc(0.5 + add + u[k]);
          ASSERT_LE(std::fabs(double(fu[k]) - eu), 1.0);
          uint32_t eh = frozen(i) ? h[k] : (h[k] + uint32_t(std::trunc(0.5 + add))) & 0xffff;
          ASSERT_LE(std::abs(int(fh[k]) - int(eh)), 1);
        }
        EXPECT_NEAR(peak, top, 1e-3);
        for (size_t i = size_t(n); i < v.size(); i++) {
          ASSERT_EQ(fv[i], v[i]);
          ASSERT_EQ(fu[i], u[i]);
          ASSERT_EQ(fh[i], h[i]);
        }
      }
    }
  }
}

TEST(StoreKernels, DispatchFollowsTheSwitch) {
  bool saved = UseAvx512;
  UseAvx512 = false;
  EXPECT_EQ(&store_kernels() == &StoreKernelsAvx2, store_kernels_have_avx2());
  UseAvx512 = true;
  EXPECT_EQ(&store_kernels() == &StoreKernelsAvx512, store_kernels_have_avx512());
  UseAvx512 = saved;
}
