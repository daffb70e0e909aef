// The inverse row transform on eight values a vector, for processors with
// AVX2. Same results as the baseline form.
#include <immintrin.h>

#include "storage/codec.h"

namespace {

inline __m256i load8(const uint32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline __m256i load8(const uint16_t* p) {
  return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
inline void store8(uint32_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
// Keeps the low 16 bits of each value.
inline void store8(uint16_t* p, __m256i v) {
  v = _mm256_and_si256(v, _mm256_set1_epi32(0xffff));
  __m128i packed = _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), packed);
}

template <typename T>
void untransform_body(T* x, const T* r, const uint32_t* t, int n, bool uses_reference) {
  if (n <= 0) return;
  const bool per_entry = uses_reference && r;
  const uint32_t offset = (r && !per_entry) ? uint32_t(r[0]) : 0;
  const __m256i base = _mm256_set1_epi32(int(offset));
  const __m256i last = _mm256_set1_epi32(7);
  __m256i carry = _mm256_setzero_si256();
  int i = 0;
  // The sums of each eight are formed apart from the running total, so the
  // chain from one eight to the next is a single add.
  for (; i + 8 <= n; i += 8) {
    __m256i v = load8(t + i);
    v = _mm256_xor_si256(_mm256_srli_epi32(v, 1),
                         _mm256_sub_epi32(_mm256_setzero_si256(), _mm256_and_si256(v, _mm256_set1_epi32(1))));
    v = _mm256_add_epi32(v, _mm256_slli_si256(v, 4));
    v = _mm256_add_epi32(v, _mm256_slli_si256(v, 8));
    // The low half's total goes into the high half.
    __m256i low_total = _mm256_shuffle_epi32(v, 0xff);
    v = _mm256_add_epi32(v, _mm256_permute2x128_si256(low_total, low_total, 0x08));
    __m256i out = _mm256_add_epi32(v, carry);
    carry = _mm256_add_epi32(carry, _mm256_permutevar8x32_epi32(v, last));
    store8(x + i, _mm256_add_epi32(out, per_entry ? load8(r + i) : base));
  }
  uint32_t sum = uint32_t(_mm256_cvtsi256_si32(carry));
  for (; i < n; i++) {
    sum += unzigzag32(t[i]);
    x[i] = T(sum + (per_entry ? uint32_t(r[i]) : offset));
  }
}

}  // namespace

void untransform_row32_avx2(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference) {
  untransform_body(row, reference, transformed, count, uses_reference);
}

void untransform_row16_avx2(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference) {
  untransform_body(row, reference, transformed, count, uses_reference);
}
