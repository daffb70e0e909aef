// The 16-bit row transform on sixteen values at a time, for processors with
// AVX-512 when the user enables it. Same results as the baseline form.
#include <immintrin.h>

#include "storage/codec/codec.h"
#include "storage/codec/codec_isa.h"
#include "storage/codec/codec_transform_impl.h"

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
  return transform_frame<16>(
      x, r, n, a, b, true,
      [&](int i) { _mm512_storeu_si512(a + i, zigzag16(_mm512_sub_epi32(load16(x + i), load16(x + i - 1)))); },
      [&](int i, int& first_nonzero, int& second_nonzero) {
        __m512i dx = _mm512_sub_epi32(load16(x + i), load16(x + i - 1));
        __m512i dr = _mm512_sub_epi32(load16(r + i), load16(r + i - 1));
        __m512i fa = zigzag16(dx), fb = zigzag16(_mm512_sub_epi32(dx, dr));
        _mm512_storeu_si512(a + i, fa);
        _mm512_storeu_si512(b + i, fb);
        first_nonzero += __builtin_popcount(_mm512_test_epi32_mask(fa, fa));
        second_nonzero += __builtin_popcount(_mm512_test_epi32_mask(fb, fb));
      });
}
