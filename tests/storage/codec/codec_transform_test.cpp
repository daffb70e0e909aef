// The row transform: exact values, the choice between the two orders, and
// round trips through its inverse for both widths and both vector forms.
#include <gtest/gtest.h>

#include "codec_support.h"
#include "platform/platform.h"
#include "core/core.h"
#include "storage/codec/codec.h"

namespace {

std::vector<uint16_t> narrow(const std::vector<uint32_t>& v) {
  std::vector<uint16_t> out(v.size());
  for (size_t i = 0; i < v.size(); i++) out[i] = uint16_t(v[i]);
  return out;
}

TEST(CodecTransform, ExactValuesWithoutReference) {
  const uint32_t x[4] = {5, 3, 3, 10};
  uint32_t a[4], b[4] = {77, 77, 77, 77};
  EXPECT_FALSE(transform_row32(x, nullptr, 4, a, b));
  EXPECT_EQ(std::vector<uint32_t>(a, a + 4), (std::vector<uint32_t>{10, 3, 0, 14}));
  EXPECT_EQ(b[0], 77u);  // untouched without a reference
  const uint16_t y[4] = {65535, 0, 1, 1};
  EXPECT_FALSE(transform_row16(y, nullptr, 4, a, b));
  EXPECT_EQ(std::vector<uint32_t>(a, a + 4), (std::vector<uint32_t>{131070, 131069, 2, 0}));
  // A 32-bit value with its top bit set starts with an odd zigzag.
  const uint32_t big[1] = {0x80000000u};
  transform_row32(big, nullptr, 1, a, b);
  EXPECT_EQ(a[0], 0xffffffffu);
}

TEST(CodecTransform, OrderChoice) {
  uint32_t a[8], b[8];
  // Same shape as the reference: second order is all zero.
  const uint32_t x1[3] = {4, 5, 6}, r1[3] = {1, 2, 3};
  EXPECT_TRUE(transform_row32(x1, r1, 3, a, b));
  EXPECT_EQ(std::vector<uint32_t>(b, b + 3), (std::vector<uint32_t>{6, 0, 0}));
  EXPECT_EQ(std::vector<uint32_t>(a, a + 3), (std::vector<uint32_t>{6, 2, 2}));
  // A tie goes to the first order.
  const uint32_t x2[2] = {0, 1}, r2[2] = {0, 5};
  EXPECT_FALSE(transform_row32(x2, r2, 2, a, b));
  EXPECT_EQ(a[1], 2u);
  EXPECT_EQ(b[1], 7u);
  // A flat row beside a bumpy reference keeps the first order.
  const uint16_t x3[5] = {9, 9, 9, 9, 9}, r3[5] = {0, 3, 0, 3, 0};
  EXPECT_FALSE(transform_row16(x3, r3, 5, a, b));
  EXPECT_EQ(a[0], 18u);  // zigzag(9 - 0) with a reference
  // Entries beyond four (the vector body) count as well.
  const uint32_t x4[8] = {0, 0, 0, 0, 0, 7, 8, 9}, r4[8] = {0, 0, 0, 0, 0, 7, 8, 9};
  EXPECT_TRUE(transform_row32(x4, r4, 8, a, b));
}

template <typename T>
void round_trip(const std::vector<uint32_t>& wide, const std::vector<uint32_t>* wide_ref) {
  const int n = int(wide.size());
  std::vector<T> x(wide.size()), r;
  for (size_t i = 0; i < wide.size(); i++) x[i] = T(wide[i]);
  if (wide_ref)
    for (uint32_t v : *wide_ref) r.push_back(T(v));
  const T* ref = wide_ref ? r.data() : nullptr;
  std::vector<uint32_t> a(wide.size() + 1), b(wide.size() + 1);
  bool second;
  if constexpr (sizeof(T) == 4)
    second = transform_row32(x.data(), ref, n, a.data(), b.data());
  else
    second = transform_row16(x.data(), ref, n, a.data(), b.data());
  if (!ref) {
    EXPECT_FALSE(second);
  }
  std::vector<T> back(wide.size() + 1, T(0x5a5a5a5a));
  if constexpr (sizeof(T) == 4)
    untransform_row32(back.data(), ref, second ? b.data() : a.data(), n, second);
  else
    untransform_row16(back.data(), ref, second ? b.data() : a.data(), n, second);
  ASSERT_EQ(std::vector<T>(back.begin(), back.begin() + n), x) << "length " << n;
  EXPECT_EQ(back[size_t(n)], T(0x5a5a5a5a)) << "wrote past the row";
}

TEST(CodecTransform, RoundTrips) {
  std::mt19937 rng(7);
  // Each form this processor has, the widest one last.
  UseAvx512 = true;
  for (int32_t limit : {CODEC_BASELINE, CODEC_AVX2, CODEC_AVX512}) {
    CodecIsaLimit = limit;
    for (int n : test_lengths()) {
      for (const auto& row : adversarial_rows(n, 0xffffffffu)) {
        round_trip<uint32_t>(row, nullptr);
        round_trip<uint16_t>(row, nullptr);
        std::vector<uint32_t> ref = realistic_row(rng, n, 1000);
        round_trip<uint32_t>(row, &ref);
        round_trip<uint16_t>(row, &ref);
        round_trip<uint32_t>(ref, &row);
      }
      for (int k = 0; k < 20; k++) {
        std::vector<uint32_t> row = realistic_row(rng, n, k < 10 ? 300 : 70000);
        std::vector<uint32_t> near = neighbour_row(rng, row);
        round_trip<uint32_t>(near, &row);
        round_trip<uint16_t>(near, &row);
        round_trip<uint32_t>(row, nullptr);
      }
    }
  }
  UseAvx512 = false;
  CodecIsaLimit = CODEC_AVX512;
}

// The baseline, AVX2 and AVX-512 forms of the 16-bit transform give the same
// values and the same choice of order.
TEST(CodecTransform, WideFormsAgree) {
  UseAvx512 = true;
  std::vector<int32_t> forms = {CODEC_BASELINE};
  for (int32_t limit : {CODEC_AVX2, CODEC_AVX512}) {
    CodecIsaLimit = limit;
    if (codec_isa() == limit) forms.push_back(limit);
  }
  if (forms.size() == 1) {
    UseAvx512 = false;
    CodecIsaLimit = CODEC_AVX512;
    GTEST_SKIP() << "no wide form on this processor";
  }
  std::mt19937 rng(11);
  for (int n : test_lengths()) {
    for (int k = 0; k < 10; k++) {
      std::vector<uint16_t> x = narrow(realistic_row(rng, n, 60000));
      std::vector<uint16_t> r = narrow(neighbour_row(rng, realistic_row(rng, n, 60000)));
      if (k % 2) r = narrow(neighbour_row(rng, std::vector<uint32_t>(x.begin(), x.end())));
      std::vector<std::vector<uint32_t>> got;
      std::vector<bool> orders;
      for (int32_t limit : forms) {
        CodecIsaLimit = limit;
        std::vector<uint32_t> a(size_t(n) + 1), b(size_t(n) + 1), plain(size_t(n) + 1), spare(size_t(n) + 1);
        orders.push_back(transform_row16(x.data(), r.data(), n, a.data(), b.data()));
        transform_row16(x.data(), nullptr, n, plain.data(), spare.data());
        got.push_back(a);
        got.push_back(b);
        got.push_back(plain);
      }
      for (size_t f = 1; f < forms.size(); f++) {
        EXPECT_EQ(orders[f], orders[0]) << n;
        for (int j = 0; j < 3; j++) EXPECT_EQ(got[3 * f + size_t(j)], got[size_t(j)]) << n << " output " << j;
      }
    }
  }
  UseAvx512 = false;
  CodecIsaLimit = CODEC_AVX512;
}

TEST(CodecTransformDeathTest, RowTooLong) {
  std::vector<uint32_t> x(MaxRowValues + 1), a(MaxRowValues + 1), b(MaxRowValues + 1);
  EXPECT_EXIT(transform_row32(x.data(), nullptr, MaxRowValues + 1, a.data(), b.data()),
              testing::ExitedWithCode(1), "");
}

}  // namespace
