// Terminal kernels against an O(n^2) brute force with exact card removal, on
// real river boards and on lists with forced ties, long runs and one run;
// the fused pair against separate calls; every batch width against the
// one-terminal kernel; and every instruction set against the portable build.
#include "solver/kernels/kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "cards/cards.h"
#include "platform/platform.h"
#include "core/core.h"

namespace {

// One board's list as the kernels see it, with the strengths of the
// reference beside it.
struct RiverList {
  std::vector<uint16_t> packed;
  std::vector<CardMask> masks;
  std::vector<uint32_t> strength;
  std::vector<int16_t> lengths;
  int32_t count() const { return int32_t(packed.size()); }
};

CardMask random_board(std::mt19937& rng) {
  CardMask b = 0;
  while (card_count(b) < 5) b |= CardBit(int(rng() % 52));
  return b;
}

// Sorts pairs by strength and cuts the runs of equal strength.
RiverList make_list(std::vector<std::pair<uint32_t, CardMask>> hands) {
  std::stable_sort(hands.begin(), hands.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  RiverList l;
  for (auto& [s, m] : hands) {
    int lo = __builtin_ctzll(m), hi = 63 - __builtin_clzll(m);
    l.packed.push_back(uint16_t(lo | (hi << 8)));
    l.masks.push_back(m);
    l.strength.push_back(s);
    if (l.strength.size() == 1 || l.strength[l.strength.size() - 2] != s)
      l.lengths.push_back(1);
    else
      l.lengths.back()++;
  }
  return l;
}

std::vector<CardMask> pairs_off(CardMask board) {
  std::vector<CardMask> v;
  for (int hi = 1; hi < 52; hi++)
    for (int lo = 0; lo < hi; lo++) {
      CardMask m = CardBit(hi) | CardBit(lo);
      if (!(m & board)) v.push_back(m);
    }
  return v;
}

// All 1081 pairs of a real river board, valued by the evaluator.
RiverList real_list(CardMask board) {
  std::vector<CardMask> holes = pairs_off(board);
  std::vector<HandValue> v(holes.size());
  evaluate_board_holes(holes.data(), holes.size(), board, v.data());
  std::vector<std::pair<uint32_t, CardMask>> hands;
  for (size_t i = 0; i < holes.size(); i++) hands.push_back({v[i], holes[i]});
  return make_list(hands);
}

// A random subset of a board's pairs with strengths from a small range, for
// many ties and runs of any length; levels = 1 puts all hands in one run.
RiverList synthetic_list(std::mt19937& rng, int keep_in_ten, uint32_t levels) {
  std::vector<std::pair<uint32_t, CardMask>> hands;
  for (CardMask m : pairs_off(random_board(rng)))
    if (int(rng() % 10) < keep_in_ten) hands.push_back({uint32_t(rng() % levels), m});
  return make_list(hands);
}

enum ReachKind { DENSE, SPARSE, VERY_SPARSE, RUNS_EMPTY };

std::vector<float> random_reach(std::mt19937& rng, const RiverList& l, ReachKind kind) {
  std::vector<float> r(size_t(l.count()), 0.0f);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  if (kind == RUNS_EMPTY) {
    // Whole runs without reach, several in a row, to exercise the merging.
    size_t first = 0;
    for (int16_t len : l.lengths) {
      bool live = rng() % 3 == 0;
      for (int k = 0; k < len; k++) r[first + size_t(k)] = live && rng() % 2 ? u(rng) : 0.0f;
      first += size_t(len);
    }
    return r;
  }
  int live_in_100 = kind == DENSE ? 90 : kind == SPARSE ? 30 : 2;
  for (auto& x : r)
    if (int(rng() % 100) < live_in_100) x = u(rng);
  return r;
}

std::vector<double> brute_fold(const RiverList& l, const std::vector<float>& reach, float value) {
  std::vector<double> out(size_t(l.count()));
  for (int i = 0; i < l.count(); i++) {
    double s = 0;
    for (int j = 0; j < l.count(); j++)
      if (!(l.masks[i] & l.masks[j]) && reach[j] > 0.0f) s += reach[j];
    out[i] = value * s;
  }
  return out;
}

std::vector<double> brute_showdown(const RiverList& l, const std::vector<float>& reach, float value) {
  std::vector<double> out(size_t(l.count()));
  for (int i = 0; i < l.count(); i++) {
    double s = 0;
    for (int j = 0; j < l.count(); j++) {
      if ((l.masks[i] & l.masks[j]) || !(reach[j] > 0.0f)) continue;
      if (l.strength[i] > l.strength[j]) s += reach[j];
      if (l.strength[i] < l.strength[j]) s -= reach[j];
    }
    out[i] = value * s;
  }
  return out;
}

// Largest magnitude an output can have: the tolerance is relative to it.
double scale_of(const std::vector<float>& reach, float value) {
  double s = 0;
  for (float r : reach)
    if (r > 0.0f) s += r;
  return std::fabs(value) * s;
}

void expect_near_all(const std::vector<float>& got, const std::vector<double>& want, double scale,
                     const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  double tol = 2e-5 * scale + 1e-30;
  for (size_t i = 0; i < got.size(); i++) ASSERT_NEAR(got[i], want[i], tol) << what << " hand " << i;
}

void expect_near_all(const std::vector<float>& got, const std::vector<float>& want, double scale,
                     const std::string& what) {
  expect_near_all(got, std::vector<double>(want.begin(), want.end()), scale, what);
}

void expect_zeros(const std::vector<float>& got, const std::string& what) {
  for (size_t i = 0; i < got.size(); i++) ASSERT_EQ(got[i], 0.0f) << what << " hand " << i;
}

std::vector<uint16_t> masks_of(const RiverList& l, const float* reach) {
  std::vector<uint16_t> m(l.lengths.size() + 1);
  compute_group_masks(m.data(), reach, l.count(), l.lengths.data(), int32_t(l.lengths.size()));
  return m;
}

// Every instruction set this processor can run, the portable one first.
struct IsaChoice {
  int32_t limit;
  bool avx512;
  const char* name;
};
std::vector<IsaChoice> available_isas() {
  std::vector<IsaChoice> v{{KERNEL_PORTABLE, false, "portable"}};
  if (cpu_has_avx2()) v.push_back({KERNEL_AVX2, false, "AVX2"});
  if (cpu_has_avx512()) v.push_back({KERNEL_AVX512, true, "AVX-512"});
  return v;
}

class KernelsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
  }
  void TearDown() override {
    KernelIsaLimit = KERNEL_AVX512;
    UseAvx512 = false;
    SimdLevel = 8;
  }
  // Runs f once per instruction set, with the kernels limited to it.
  void for_each_isa(const std::function<void(const std::string&)>& f) {
    for (const IsaChoice& c : available_isas()) {
      KernelIsaLimit = c.limit;
      UseAvx512 = c.avx512;
      ASSERT_EQ(kernel_isa(), KernelIsa(c.limit)) << c.name;
      f(c.name);
      if (HasFatalFailure()) return;
    }
    KernelIsaLimit = KERNEL_AVX512;
    UseAvx512 = false;
  }

  std::vector<float> fold(const RiverList& l, const std::vector<float>& reach, float value) {
    std::vector<float> out(size_t(l.count()), -7.0f);
    fold_value(out.data(), reach.empty() ? nullptr : reach.data(), l.count(), l.packed.data(), value);
    return out;
  }
  std::vector<float> showdown(const RiverList& l, const std::vector<float>& reach, float value,
                              const std::vector<uint16_t>& masks) {
    std::vector<float> out(size_t(l.count()), -7.0f);
    RiverGroups g{l.lengths.data(), masks.data(), int32_t(l.lengths.size())};
    showdown_value(out.data(), reach.empty() ? nullptr : reach.data(), l.count(), g, l.packed.data(), value);
    return out;
  }
  std::vector<float> showdown(const RiverList& l, const std::vector<float>& reach, float value) {
    return showdown(l, reach, value, masks_of(l, reach.empty() ? nullptr : reach.data()));
  }

  // Both kernels on one list and reach, against the brute force, on every
  // instruction set.
  void check_against_brute(const RiverList& l, const std::vector<float>& reach, float sd_value, float fold_value_,
                           const std::string& what) {
    std::vector<double> want_f = brute_fold(l, reach, fold_value_);
    std::vector<double> want_s = brute_showdown(l, reach, sd_value);
    double sf = scale_of(reach, fold_value_), ss = scale_of(reach, sd_value);
    for_each_isa([&](const std::string& isa) {
      expect_near_all(fold(l, reach, fold_value_), want_f, sf, what + " fold " + isa);
      expect_near_all(showdown(l, reach, sd_value), want_s, ss, what + " showdown " + isa);
    });
  }
};

// ---- The one-terminal kernels against the brute force ----------------------------

TEST_F(KernelsTest, RealRiverBoardsMatchBruteForce) {
  std::mt19937 rng(11);
  for (int b = 0; b < 8; b++) {
    CardMask board = random_board(rng);
    RiverList l = real_list(board);
    ASSERT_EQ(l.count(), MaxRiverHands);
    for (ReachKind k : {DENSE, SPARSE, VERY_SPARSE, RUNS_EMPTY}) {
      std::vector<float> reach = random_reach(rng, l, k);
      float v = 0.5f + float(rng() % 100);
      check_against_brute(l, reach, v, -v, mask_text(board) + " kind " + std::to_string(k));
      if (HasFatalFailure()) return;
    }
  }
}

TEST_F(KernelsTest, TiesLongRunsAndSmallListsMatchBruteForce) {
  std::mt19937 rng(12);
  // Strength levels from "everything ties" to "almost no ties"; with 8 to 40
  // levels many runs are longer than 16 hands and go the direct way.
  const uint32_t levels[] = {1, 2, 8, 40, 300, 5000};
  for (uint32_t lv : levels) {
    for (int keep : {1, 5, 10}) {
      RiverList l = synthetic_list(rng, keep, lv);
      for (ReachKind k : {DENSE, SPARSE, RUNS_EMPTY}) {
        std::vector<float> reach = random_reach(rng, l, k);
        check_against_brute(l, reach, 3.25f, 1.5f, "levels " + std::to_string(lv) + " keep " + std::to_string(keep));
        if (HasFatalFailure()) return;
      }
    }
  }
  // Runs of exactly 15, 16 and 17 hands: the last goes the direct way.
  for (int run : {15, 16, 17}) {
    std::vector<std::pair<uint32_t, CardMask>> hands;
    std::vector<CardMask> all = pairs_off(random_board(rng));
    for (size_t i = 0; i < all.size(); i++) hands.push_back({uint32_t(i / size_t(run)), all[i]});
    RiverList l = make_list(hands);
    ASSERT_EQ(l.lengths[0], run);
    for (ReachKind k : {DENSE, SPARSE}) {
      std::vector<float> reach = random_reach(rng, l, k);
      check_against_brute(l, reach, 1.0f, 1.0f, "run " + std::to_string(run));
      if (HasFatalFailure()) return;
    }
  }
  // Lists shorter than one vector block, and of every length around it.
  for (int n = 0; n <= 40; n++) {
    std::vector<std::pair<uint32_t, CardMask>> hands;
    std::vector<CardMask> all = pairs_off(random_board(rng));
    std::shuffle(all.begin(), all.end(), rng);
    for (int i = 0; i < n; i++) hands.push_back({uint32_t(rng() % 5), all[size_t(i)]});
    RiverList l = make_list(hands);
    std::vector<float> reach = random_reach(rng, l, DENSE);
    check_against_brute(l, reach, 2.0f, -1.0f, "n " + std::to_string(n));
    if (HasFatalFailure()) return;
  }
}

// ---- Edge cases -----------------------------------------------------------------------

TEST_F(KernelsTest, EmptyAndTinyReachGiveZeros) {
  std::mt19937 rng(14);
  RiverList l = real_list(random_board(rng));
  std::vector<float> none;
  std::vector<float> zeros(size_t(l.count()), 0.0f);
  // A few hands at 1e-40: the total is below FLT_MIN, so no noise comes out.
  std::vector<float> tiny(size_t(l.count()), 0.0f);
  for (int k = 0; k < 5; k++) tiny[rng() % tiny.size()] = 1e-40f;
  for_each_isa([&](const std::string& isa) {
    expect_zeros(fold(l, none, 2.0f), "fold empty " + isa);
    expect_zeros(showdown(l, none, 2.0f), "showdown empty " + isa);
    expect_zeros(fold(l, zeros, 2.0f), "fold zeros " + isa);
    expect_zeros(showdown(l, zeros, 2.0f), "showdown zeros " + isa);
    expect_zeros(fold(l, tiny, -1.0f), "fold tiny " + isa);
    expect_zeros(showdown(l, tiny, 1.0f), "showdown tiny " + isa);
  });
  std::vector<uint16_t> m = masks_of(l, nullptr);
  for (size_t g = 0; g < l.lengths.size(); g++) ASSERT_EQ(m[g], 0) << g;
}

TEST_F(KernelsTest, OnlyOpponentHandIsTheSamePair) {
  std::mt19937 rng(15);
  RiverList l = real_list(random_board(rng));
  for (int trial = 0; trial < 20; trial++) {
    int i = int(rng() % uint32_t(l.count()));
    std::vector<float> reach(size_t(l.count()), 0.0f);
    reach[size_t(i)] = 0.75f;
    for_each_isa([&](const std::string& isa) {
      std::vector<float> f = fold(l, reach, -3.0f), s = showdown(l, reach, 3.0f);
      ASSERT_EQ(f[size_t(i)], 0.0f) << isa;
      ASSERT_EQ(s[size_t(i)], 0.0f) << isa;
      // A hand sharing one card gets nothing either; a disjoint one the lot.
      for (int j = 0; j < l.count(); j++) {
        bool blocked = l.masks[size_t(i)] & l.masks[size_t(j)];
        ASSERT_EQ(f[size_t(j)], blocked ? 0.0f : -3.0f * 0.75f) << isa << " " << j;
        float sd = blocked || l.strength[size_t(i)] == l.strength[size_t(j)] ? 0.0f
                   : l.strength[size_t(j)] > l.strength[size_t(i)]           ? 2.25f
                                                                             : -2.25f;
        ASSERT_NEAR(s[size_t(j)], sd, 1e-6f) << isa << " " << j;
      }
    });
  }
}

// ---- The fused pair ---------------------------------------------------------------------

TEST_F(KernelsTest, PairKernelsEqualSeparateCalls) {
  std::mt19937 rng(18);
  for (uint32_t lv : {1u, 20u, 0u}) {
    RiverList l = lv ? synthetic_list(rng, 8, lv) : real_list(random_board(rng));
    int32_t n = l.count();
    std::vector<float> ra = random_reach(rng, l, DENSE), rb = random_reach(rng, l, SPARSE);
    std::vector<float> tiny(size_t(n), 0.0f);
    tiny[0] = 1e-40f;
    std::vector<float> uni(static_cast<size_t>(n));
    for (int i = 0; i < n; i++) uni[size_t(i)] = std::max({ra[size_t(i)], rb[size_t(i)], tiny[size_t(i)]});
    std::vector<uint16_t> mu = masks_of(l, uni.data());
    RiverGroups g{l.lengths.data(), mu.data(), int32_t(l.lengths.size())};
    std::vector<float> os(static_cast<size_t>(n)), of(static_cast<size_t>(n));
    // Showdown of reach s and fold of reach f (the two-reach form unless
    // `one`); a null or tiny reach gives zeros.
    auto check = [&](const std::vector<float>* s, const std::vector<float>* f, bool one, const std::string& what) {
      const float* sp = s ? s->data() : nullptr;
      if (one)
        showdown_and_fold(os.data(), of.data(), sp, n, g, l.packed.data(), 4.0f, -2.0f);
      else
        showdown_and_fold2(os.data(), of.data(), sp, f ? f->data() : nullptr, n, g, l.packed.data(), 4.0f, -2.0f);
      if (s && s != &tiny)
        expect_near_all(os, showdown(l, *s, 4.0f), scale_of(*s, 4.0f), what + " showdown");
      else
        expect_zeros(os, what + " showdown");
      if (f && f != &tiny)
        expect_near_all(of, fold(l, *f, -2.0f), scale_of(*f, 2.0f), what + " fold");
      else
        expect_zeros(of, what + " fold");
    };
    for_each_isa([&](const std::string& isa) {
      check(&ra, &ra, true, "one reach " + isa);
      check(nullptr, nullptr, true, "one empty reach " + isa);
      // Two reaches with the masks of their union; either or both empty, or
      // below FLT_MIN in total.
      check(&ra, &rb, false, "two " + isa);
      check(nullptr, &rb, false, "no showdown " + isa);
      check(&ra, nullptr, false, "no fold " + isa);
      check(nullptr, nullptr, false, "none " + isa);
      check(&tiny, &rb, false, "tiny showdown " + isa);
      check(&ra, &tiny, false, "tiny fold " + isa);
    });
  }
}

// ---- Batches ------------------------------------------------------------------------------

struct Batch {
  std::vector<std::vector<float>> reach, out;
  std::vector<float> values;
  std::vector<float*> out_ptr;
  std::vector<const float*> reach_ptr;
};

// n terminals on one list: mixed sparse and dense reach, positive and
// negative values, one lane below FLT_MIN in total.
Batch make_batch(std::mt19937& rng, const RiverList& l, int n, bool with_tiny) {
  Batch b;
  for (int t = 0; t < n; t++) {
    b.reach.push_back(random_reach(rng, l, ReachKind(rng() % 4)));
    b.values.push_back(float(int(rng() % 200) - 100) + 0.5f);
    b.out.push_back(std::vector<float>(size_t(l.count()), -7.0f));
  }
  if (with_tiny && n > 1) {
    std::vector<float>& r = b.reach[size_t(n / 2)];
    std::fill(r.begin(), r.end(), 0.0f);
    r[size_t(l.count() / 3)] = 1e-40f;
  }
  for (int t = 0; t < n; t++) {
    b.out_ptr.push_back(b.out[size_t(t)].data());
    b.reach_ptr.push_back(b.reach[size_t(t)].data());
  }
  return b;
}

std::vector<float> union_reach(const Batch& b) {
  std::vector<float> u(b.reach[0].size(), 0.0f);
  for (const auto& r : b.reach)
    for (size_t i = 0; i < u.size(); i++) u[i] = std::max(u[i], r[i]);
  return u;
}

TEST_F(KernelsTest, BatchDriverOverAnyCountAndLevel) {
  // Nine terminals (and the first five and seven) at every level, so that
  // every lane width runs, with an empty reach and one below FLT_MIN among
  // them: every terminal gets the one-terminal result (those two zeros).
  std::mt19937 rng(21);
  for (int list = 0; list < 3; list++) {
    RiverList l = list == 0 ? real_list(random_board(rng)) : synthetic_list(rng, list == 1 ? 7 : 3, list == 1 ? 60 : 4);
    int32_t n = l.count();
    Batch b = make_batch(rng, l, 9, true);
    b.reach_ptr[3] = nullptr;
    std::vector<uint16_t> mu = masks_of(l, union_reach(b).data());
    RiverGroups g{l.lengths.data(), mu.data(), int32_t(l.lengths.size())};
    std::vector<std::vector<float>> want_s, want_f;
    for (int t = 0; t < 9; t++) {
      std::vector<float> r = t == 3 ? std::vector<float>() : b.reach[size_t(t)];
      want_s.push_back(showdown(l, r, b.values[size_t(t)]));
      want_f.push_back(fold(l, r, b.values[size_t(t)]));
    }
    for (int level = 1; level <= 8; level++) {
      SimdLevel = level;
      for_each_isa([&](const std::string& isa) {
        std::string what = isa + " level " + std::to_string(level) + " list " + std::to_string(list);
        // Five and seven terminals run as six and eight with a lane to spare.
        for (int m : {5, 7, 9}) {
          showdown_value_batch(b.out_ptr.data(), b.reach_ptr.data(), b.values.data(), m, n, g, l.packed.data());
          for (int t = 0; t < m; t++)
            expect_near_all(b.out[size_t(t)], want_s[size_t(t)], scale_of(b.reach[size_t(t)], b.values[size_t(t)]),
                            "showdown " + what + " of " + std::to_string(m) + " t " + std::to_string(t));
        }
        fold_value_batch(b.out_ptr.data(), b.reach_ptr.data(), b.values.data(), 9, n, l.packed.data());
        for (int t = 0; t < 9; t++)
          expect_near_all(b.out[size_t(t)], want_f[size_t(t)], scale_of(b.reach[size_t(t)], b.values[size_t(t)]),
                          "fold " + what + " t " + std::to_string(t));
        expect_zeros(b.out[3], "empty terminal " + what);
        expect_zeros(b.out[4], "tiny terminal " + what);
      });
      if (HasFatalFailure()) return;
    }
  }
}

TEST_F(KernelsTest, WideFoldBatchesKeepTheBitsOfBatchesOfFour) {
  // Level 8 runs folds eight at a time; a solve must not change by a bit for
  // it. Lanes don't depend on their batch, but the one-terminal kernel rounds
  // differently, so the terminal that batches of four leave alone (counts of
  // 4k + 1) must stay alone.
  std::mt19937 rng(33);
  RiverList l = real_list(random_board(rng));
  const int32_t n = l.count();
  Batch b = make_batch(rng, l, 13, false);
  for_each_isa([&](const std::string& isa) {
    for (int m = 1; m <= 13; m++) {
      SimdLevel = 4;
      fold_value_batch(b.out_ptr.data(), b.reach_ptr.data(), b.values.data(), m, n, l.packed.data());
      std::vector<std::vector<float>> four(b.out.begin(), b.out.begin() + m);
      SimdLevel = 8;
      fold_value_batch(b.out_ptr.data(), b.reach_ptr.data(), b.values.data(), m, n, l.packed.data());
      for (int t = 0; t < m; t++)
        EXPECT_EQ(0, memcmp(four[size_t(t)].data(), b.out[size_t(t)].data(), size_t(n) * sizeof(float)))
            << isa << ": " << m << " folds, terminal " << t;
    }
  });
}

// ---- Rows of the walk -----------------------------------------------------------------------

TEST_F(KernelsTest, WalkRowsRoundAlikeOnEverySet) {
  // A node's value and its children's reaches must not change by a bit with
  // the instruction set: one multiply and one add, each rounded, in row order.
  std::mt19937 rng(41);
  std::uniform_real_distribution<float> u(-3.0f, 3.0f);
  const int32_t count = 1037;  // a tail after the whole vectors
  std::vector<std::vector<float>> s(4, std::vector<float>(size_t(count))), c = s;
  for (int a = 0; a < 4; a++)
    for (int32_t i = 0; i < count; i++) {
      s[size_t(a)][size_t(i)] = std::fabs(u(rng)) / 3.0f;
      c[size_t(a)][size_t(i)] = u(rng) * 1000.0f;
    }
  const float* sp[4] = {s[0].data(), s[1].data(), s[2].data(), s[3].data()};
  const float* cp[4] = {c[0].data(), c[1].data(), c[2].data(), c[3].data()};
  std::vector<float> want(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; i++) {
    volatile float v = sp[0][i] * cp[0][i];
    for (int a = 1; a < 4; a++) {
      volatile float p = sp[a][i] * cp[a][i];
      v = v + p;
    }
    want[size_t(i)] = v;
  }
  for_each_isa([&](const std::string& isa) {
    std::vector<float> out(size_t(count), -7.0f);
    weighted_rows(out.data(), sp, cp, 4, count);
    EXPECT_EQ(0, memcmp(out.data(), want.data(), size_t(count) * sizeof(float))) << isa;
    std::vector<float> x = s[1];
    float sum = reach_row(x.data(), s[2].data(), count);
    double total = 0.0;
    for (int32_t i = 0; i < count; i++) {
      volatile float p = s[1][size_t(i)] * s[2][size_t(i)];
      EXPECT_EQ(p, x[size_t(i)]) << isa << " hand " << i;
      total += p;
    }
    EXPECT_NEAR(sum, total, 1e-3 * total) << isa;
    std::vector<float> zeros(size_t(count), 0.0f);
    EXPECT_EQ(0.0f, reach_row(x.data(), zeros.data(), count)) << isa;
    // A parent's vector down to a child board: any positions, in any order.
    std::vector<uint16_t> index(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; i++) index[size_t(i)] = uint16_t(rng() % uint32_t(count));
    std::vector<float> down(size_t(count), -7.0f);
    gather_row(down.data(), c[3].data(), index.data(), count - 3);
    for (int32_t i = 0; i < count - 3; i++) EXPECT_EQ(c[3][index[size_t(i)]], down[size_t(i)]) << isa << " hand " << i;
    EXPECT_EQ(-7.0f, down[size_t(count - 3)]) << isa << ": past the end";
  });
}

}  // namespace
