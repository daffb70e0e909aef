// The row transform: zigzagged differences of neighbours, optionally taken
// against a reference row, and its inverse, a prefix sum.
#include <nmmintrin.h>

#include "storage/memory/fatal.h"
#include "storage/codec/codec.h"
#include "storage/codec/codec_isa.h"
#include "storage/codec/codec_transform_impl.h"

namespace {

inline __m128i zigzag4(__m128i v) {
  return _mm_xor_si128(_mm_slli_epi32(v, 1), _mm_srai_epi32(v, 31));
}

inline __m128i unzigzag4(__m128i t) {
  __m128i sign = _mm_sub_epi32(_mm_setzero_si128(), _mm_and_si128(t, _mm_set1_epi32(1)));
  return _mm_xor_si128(_mm_srli_epi32(t, 1), sign);
}

inline int nonzero4(__m128i v) {
  int zero = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(v, _mm_setzero_si128())));
  return 4 - _mm_popcnt_u32(unsigned(zero));
}

inline __m128i load4(const uint32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline __m128i load4(const uint16_t* p) {
  return _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}
inline void store4(uint32_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

void check_count(int count) {
  if (count > MaxRowValues) storage_fatal("row too long");
}

// Both widths share one body; T is the stored value type.
template <typename T>
bool transform_body(const T* x, const T* r, int n, uint32_t* a, uint32_t* b, bool halve_first) {
  return transform_frame<4>(
      x, r, n, a, b, halve_first,
      [&](int i) { store4(a + i, zigzag4(_mm_sub_epi32(load4(x + i), load4(x + i - 1)))); },
      [&](int i, int& first_nonzero, int& second_nonzero) {
        __m128i dx = _mm_sub_epi32(load4(x + i), load4(x + i - 1));
        __m128i dr = _mm_sub_epi32(load4(r + i), load4(r + i - 1));
        __m128i fa = zigzag4(dx), fb = zigzag4(_mm_sub_epi32(dx, dr));
        store4(a + i, fa);
        store4(b + i, fb);
        first_nonzero += nonzero4(fa);
        second_nonzero += nonzero4(fb);
      });
}

// Prefix sum of the un-zigzagged values, plus per entry either the reference
// (second order) or the reference's first value (first order with a
// reference) or nothing.
template <typename T>
void untransform_body(T* x, const T* r, const uint32_t* t, int n, bool uses_reference) {
  if (n <= 0) return;
  check_count(n);
  const bool per_entry = uses_reference && r;
  const uint32_t offset = (r && !per_entry) ? uint32_t(r[0]) : 0;
  __m128i carry = _mm_setzero_si128();
  __m128i base = _mm_set1_epi32(int(offset));
  auto put = [&](int at, __m128i v) {
    __m128i out = _mm_add_epi32(v, per_entry ? load4(r + at) : base);
    if constexpr (sizeof(T) == 4) {
      store4(reinterpret_cast<uint32_t*>(x) + at, out);
    } else {
      out = _mm_packus_epi32(_mm_and_si128(out, _mm_set1_epi32(0xffff)), out);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(x + at), out);
    }
  };
  auto prefix4 = [](__m128i v) {
    v = _mm_add_epi32(v, _mm_slli_si128(v, 4));
    return _mm_add_epi32(v, _mm_slli_si128(v, 8));
  };
  int i = 0;
  // Eight at a time: both halves are summed apart, so the carry chain is one
  // add per eight values instead of an add and a shuffle per four.
  for (; i + 8 <= n; i += 8) {
    __m128i lo = prefix4(unzigzag4(load4(t + i)));
    __m128i hi = prefix4(unzigzag4(load4(t + i + 4)));
    hi = _mm_add_epi32(hi, _mm_shuffle_epi32(lo, 0xff));
    put(i, _mm_add_epi32(lo, carry));
    put(i + 4, _mm_add_epi32(hi, carry));
    carry = _mm_add_epi32(carry, _mm_shuffle_epi32(hi, 0xff));
  }
  for (; i + 4 <= n; i += 4) {
    __m128i v = _mm_add_epi32(prefix4(unzigzag4(load4(t + i))), carry);
    carry = _mm_shuffle_epi32(v, 0xff);
    put(i, v);
  }
  uint32_t sum = uint32_t(_mm_cvtsi128_si32(carry));
  for (; i < n; i++) {
    sum += unzigzag32(t[i]);
    x[i] = T(sum + (per_entry ? uint32_t(r[i]) : offset));
  }
}

}  // namespace

bool transform_row32(const uint32_t* row, const uint32_t* reference, int count,
                     uint32_t* out_first_order, uint32_t* out_second_order) {
  check_count(count);
  return transform_body(row, reference, count, out_first_order, out_second_order, false);
}

bool transform_row16(const uint16_t* row, const uint16_t* reference, int count,
                     uint32_t* out_first_order, uint32_t* out_second_order) {
  check_count(count);
  return codec_kernels().transform_row16(row, reference, count, out_first_order, out_second_order);
}

void untransform_row32(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                       int count, bool uses_reference) {
  check_count(count);
  codec_kernels().untransform_row32(row, reference, transformed, count, uses_reference);
}

void untransform_row16(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                       int count, bool uses_reference) {
  check_count(count);
  codec_kernels().untransform_row16(row, reference, transformed, count, uses_reference);
}

// ---- Baseline forms -------------------------------------------------------------

bool transform_row16_baseline(const uint16_t* row, const uint16_t* reference, int count,
                              uint32_t* out_first_order, uint32_t* out_second_order) {
  return transform_body(row, reference, count, out_first_order, out_second_order, true);
}

void untransform_row32_baseline(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                                int count, bool uses_reference) {
  untransform_body(row, reference, transformed, count, uses_reference);
}

void untransform_row16_baseline(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                                int count, bool uses_reference) {
  untransform_body(row, reference, transformed, count, uses_reference);
}
