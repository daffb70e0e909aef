// The 16-bit row transform on sixteen values at a time, for processors with
// AVX-512 when the user enables it. Same results as the baseline form.
#include <immintrin.h>

#include "storage/codec.h"

namespace {

// Masked forms throughout: the plain ones start from an undefined register,
// which GCC 12 reports as uninitialised.
inline __m512i zigzag16(__m512i v) {
  return _mm512_xor_si512(_mm512_add_epi32(v, v), _mm512_maskz_srai_epi32(0xffff, v, 31));
}

inline __m512i load16(const uint16_t* p) {
  return _mm512_maskz_cvtepu16_epi32(0xffff, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

}  // namespace

bool transform_row16_avx512(const uint16_t* x, const uint16_t* r, int n, uint32_t* a,
                            uint32_t* b) {
  if (n <= 0) return false;
  if (!r) {
    a[0] = uint32_t(x[0]) * 2;
    int i = 1;
    for (; i + 16 <= n; i += 16)
      _mm512_storeu_si512(a + i, zigzag16(_mm512_sub_epi32(load16(x + i), load16(x + i - 1))));
    for (; i < n; i++) a[i] = zigzag32(uint32_t(x[i]) - uint32_t(x[i - 1]));
    return false;
  }
  a[0] = b[0] = zigzag32(uint32_t(x[0]) - uint32_t(r[0]));
  int first_nonzero = 0, second_nonzero = 0;
  int i = 1;
  for (; i + 16 <= n; i += 16) {
    __m512i dx = _mm512_sub_epi32(load16(x + i), load16(x + i - 1));
    __m512i dr = _mm512_sub_epi32(load16(r + i), load16(r + i - 1));
    __m512i fa = zigzag16(dx), fb = zigzag16(_mm512_sub_epi32(dx, dr));
    _mm512_storeu_si512(a + i, fa);
    _mm512_storeu_si512(b + i, fb);
    first_nonzero += __builtin_popcount(_mm512_test_epi32_mask(fa, fa));
    second_nonzero += __builtin_popcount(_mm512_test_epi32_mask(fb, fb));
  }
  for (; i < n; i++) {
    uint32_t dx = uint32_t(x[i]) - uint32_t(x[i - 1]);
    uint32_t dr = uint32_t(r[i]) - uint32_t(r[i - 1]);
    a[i] = zigzag32(dx);
    b[i] = zigzag32(dx - dr);
    first_nonzero += a[i] != 0;
    second_nonzero += b[i] != 0;
  }
  return second_nonzero < first_nonzero;
}
