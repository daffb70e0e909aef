// Row policies of the lane kernels on 128- and 256-bit registers, for the
// AVX2 build; internal linkage, see kernels_body.h.
#pragma once
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "solver/kernels/kernels_body.h"

namespace {

// 8 x 8 transpose: r[j] lane h becomes r[h] lane j.
inline void transpose8(__m256* r) {
  __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
  __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
  __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
  __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
  __m256 s0 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s1 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
  __m256 s2 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s3 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
  __m256 s4 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s5 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(3, 2, 3, 2));
  __m256 s6 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(1, 0, 1, 0));
  __m256 s7 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(3, 2, 3, 2));
  r[0] = _mm256_permute2f128_ps(s0, s4, 0x20);
  r[1] = _mm256_permute2f128_ps(s1, s5, 0x20);
  r[2] = _mm256_permute2f128_ps(s2, s6, 0x20);
  r[3] = _mm256_permute2f128_ps(s3, s7, 0x20);
  r[4] = _mm256_permute2f128_ps(s0, s4, 0x31);
  r[5] = _mm256_permute2f128_ps(s1, s5, 0x31);
  r[6] = _mm256_permute2f128_ps(s2, s6, 0x31);
  r[7] = _mm256_permute2f128_ps(s3, s7, 0x31);
}

inline void transpose4(__m128* r) {
  __m128 t0 = _mm_unpacklo_ps(r[0], r[1]), t1 = _mm_unpackhi_ps(r[0], r[1]);
  __m128 t2 = _mm_unpacklo_ps(r[2], r[3]), t3 = _mm_unpackhi_ps(r[2], r[3]);
  r[0] = _mm_movelh_ps(t0, t2);
  r[1] = _mm_movehl_ps(t2, t0);
  r[2] = _mm_movelh_ps(t1, t3);
  r[3] = _mm_movehl_ps(t3, t1);
}

struct AvxRows8 {
  static constexpr int Width = 8;
  using Row = __m256;
  using Mask = __m256;
  static Row zero() { return _mm256_setzero_ps(); }
  static Row load(const float* p) { return _mm256_load_ps(p); }
  static void store(float* p, Row r) { _mm256_store_ps(p, r); }
  static Row add(Row a, Row b) { return _mm256_add_ps(a, b); }
  static Row sub(Row a, Row b) { return _mm256_sub_ps(a, b); }
  static bool any(Row a) {
    return _mm256_movemask_ps(_mm256_cmp_ps(a, _mm256_setzero_ps(), _CMP_NEQ_UQ)) != 0;
  }
  static Mask big(Row total) {
    __m256 mag = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), total);
    return _mm256_cmp_ps(mag, _mm256_set1_ps(FloatMin), _CMP_GT_OQ);
  }
  static bool none(Mask m) { return _mm256_movemask_ps(m) == 0; }
  static Row keep(Row a, Mask m) { return _mm256_and_ps(a, m); }

  template <int K>
  static void load_block(float* rows, const float* const* src, const float* values, int32_t i0,
                         int32_t n) {
    __m256 r[8];
    if (n == 8) {
      for (int j = 0; j < 8; ++j)
        r[j] = j < K ? _mm256_mul_ps(_mm256_loadu_ps(src[j] + i0), _mm256_set1_ps(values[j]))
                     : _mm256_setzero_ps();
    } else {
      alignas(32) float tmp[K][8];
      memset(tmp, 0, sizeof tmp);
      for (int j = 0; j < K; ++j)
        for (int32_t h = 0; h < n; ++h) tmp[j][h] = src[j][i0 + h];
      for (int j = 0; j < 8; ++j)
        r[j] = j < K ? _mm256_mul_ps(_mm256_load_ps(tmp[j]), _mm256_set1_ps(values[j]))
                     : _mm256_setzero_ps();
    }
    transpose8(r);
    for (int h = 0; h < 8; ++h) _mm256_store_ps(rows + h * 8, r[h]);
  }

  template <int K>
  static void store_block(float* const* dst, const float* rows, int32_t i0, int32_t n) {
    __m256 r[8];
    for (int h = 0; h < 8; ++h) r[h] = _mm256_load_ps(rows + h * 8);
    transpose8(r);
    if (n == 8) {
      for (int j = 0; j < K; ++j) _mm256_storeu_ps(dst[j] + i0, r[j]);
    } else {
      alignas(32) float tmp[8];
      for (int j = 0; j < K; ++j) {
        _mm256_store_ps(tmp, r[j]);
        memcpy(dst[j] + i0, tmp, size_t(n) * sizeof(float));
      }
    }
  }
};

struct AvxRows4 {
  static constexpr int Width = 4;
  using Row = __m128;
  using Mask = __m128;
  static Row zero() { return _mm_setzero_ps(); }
  static Row load(const float* p) { return _mm_load_ps(p); }
  static void store(float* p, Row r) { _mm_store_ps(p, r); }
  static Row add(Row a, Row b) { return _mm_add_ps(a, b); }
  static Row sub(Row a, Row b) { return _mm_sub_ps(a, b); }
  static bool any(Row a) {
    return _mm_movemask_ps(_mm_cmp_ps(a, _mm_setzero_ps(), _CMP_NEQ_UQ)) != 0;
  }
  static Mask big(Row total) {
    __m128 mag = _mm_andnot_ps(_mm_set1_ps(-0.0f), total);
    return _mm_cmp_ps(mag, _mm_set1_ps(FloatMin), _CMP_GT_OQ);
  }
  static bool none(Mask m) { return _mm_movemask_ps(m) == 0; }
  static Row keep(Row a, Mask m) { return _mm_and_ps(a, m); }

  template <int K>
  static void load_block(float* rows, const float* const* src, const float* values, int32_t i0,
                         int32_t n) {
    __m128 r[4];
    if (n == 4) {
      for (int j = 0; j < 4; ++j)
        r[j] = j < K ? _mm_mul_ps(_mm_loadu_ps(src[j] + i0), _mm_set1_ps(values[j]))
                     : _mm_setzero_ps();
    } else {
      alignas(16) float tmp[K][4];
      memset(tmp, 0, sizeof tmp);
      for (int j = 0; j < K; ++j)
        for (int32_t h = 0; h < n; ++h) tmp[j][h] = src[j][i0 + h];
      for (int j = 0; j < 4; ++j)
        r[j] = j < K ? _mm_mul_ps(_mm_load_ps(tmp[j]), _mm_set1_ps(values[j])) : _mm_setzero_ps();
    }
    transpose4(r);
    for (int h = 0; h < 4; ++h) _mm_store_ps(rows + h * 4, r[h]);
  }

  template <int K>
  static void store_block(float* const* dst, const float* rows, int32_t i0, int32_t n) {
    __m128 r[4];
    for (int h = 0; h < 4; ++h) r[h] = _mm_load_ps(rows + h * 4);
    transpose4(r);
    if (n == 4) {
      for (int j = 0; j < K; ++j) _mm_storeu_ps(dst[j] + i0, r[j]);
    } else {
      alignas(16) float tmp[4];
      for (int j = 0; j < K; ++j) {
        _mm_store_ps(tmp, r[j]);
        memcpy(dst[j] + i0, tmp, size_t(n) * sizeof(float));
      }
    }
  }
};

// One bit per hand from 8 reach values at a time.
inline void avx_reach_bits(uint8_t* bits, const float* reach, int32_t count) {
  const __m256 zero = _mm256_setzero_ps();
  int32_t i = 0;
  for (; i + 8 <= count; i += 8)
    bits[i >> 3] =
        uint8_t(_mm256_movemask_ps(_mm256_cmp_ps(_mm256_loadu_ps(reach + i), zero, _CMP_GT_OQ)));
  if (i < count) {
    uint32_t m = 0;
    for (int32_t k = 0; i + k < count; ++k) m |= uint32_t(reach[i + k] > 0.0f) << k;
    bits[i >> 3] = uint8_t(m);
  }
}

}  // namespace
