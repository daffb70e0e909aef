// The terminal kernels that gain from AVX-512 (F, BW, DQ, VL), used only
// when UseAvx512 is set: the one-terminal fold, whose card table fits in
// four registers, and the reach bits. The entries left empty come from the
// AVX2 build; compiled here they measured no faster, the pair kernels slower.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "solver/kernels/kernels_body.h"
#include "solver/kernels/kernels_internal.h"

// GCC 12 reports the deliberately undefined pass-through operand of the
// unmasked 512-bit intrinsics as "may be used uninitialized".
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace {

struct Avx512One {
  // The 64-entry card table lives in four registers; a two-source permute
  // per half and a blend on bit 5 of the card look up sixteen hands at once.
  static void fold_finish(float* out, const float* cs, float total, const float* reach,
                          int32_t count, const uint16_t* packed, float value) {
    const __m512 c0 = _mm512_load_ps(cs), c1 = _mm512_load_ps(cs + 16);
    const __m512 c2 = _mm512_load_ps(cs + 32), c3 = _mm512_load_ps(cs + 48);
    const __m512 vt = _mm512_set1_ps(total), vv = _mm512_set1_ps(value);
    const __m512i low = _mm512_set1_epi32(0xFF), bit5 = _mm512_set1_epi32(32);
    auto lookup = [&](__m512i idx) {
      __m512 a = _mm512_permutex2var_ps(c0, idx, c1);
      __m512 b = _mm512_permutex2var_ps(c2, idx, c3);
      return _mm512_mask_blend_ps(_mm512_test_epi32_mask(idx, bit5), a, b);
    };
    int32_t i = 0;
    for (; i + 16 <= count; i += 16) {
      __m512i p =
          _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(packed + i)));
      __m512 a = lookup(_mm512_and_si512(p, low));
      __m512 b = lookup(_mm512_srli_epi32(p, 8));
      __m512 o =
          _mm512_fmadd_ps(vv, _mm512_loadu_ps(reach + i), _mm512_sub_ps(_mm512_sub_ps(vt, a), b));
      _mm512_storeu_ps(out + i, o);
    }
    if (i < count) {
      __mmask16 m = __mmask16((1u << (count - i)) - 1);
      __m512i p = _mm512_cvtepu16_epi32(_mm256_maskz_loadu_epi16(m, packed + i));
      __m512 a = lookup(_mm512_and_si512(p, low));
      __m512 b = lookup(_mm512_srli_epi32(p, 8));
      __m512 o = _mm512_fmadd_ps(vv, _mm512_maskz_loadu_ps(m, reach + i),
                                 _mm512_sub_ps(_mm512_sub_ps(vt, a), b));
      _mm512_mask_storeu_ps(out + i, m, o);
    }
  }
};

// One bit per hand from 16 reach values at a time.
void avx512_reach_bits(uint8_t* bits, const float* reach, int32_t count) {
  const __m512 zero = _mm512_setzero_ps();
  int32_t i = 0;
  for (; i + 16 <= count; i += 16) {
    __mmask16 m = _mm512_cmp_ps_mask(_mm512_loadu_ps(reach + i), zero, _CMP_GT_OQ);
    memcpy(bits + (i >> 3), &m, 2);
  }
  if (i < count) {
    __mmask16 live = __mmask16((1u << (count - i)) - 1);
    uint32_t m =
        _mm512_mask_cmp_ps_mask(live, _mm512_maskz_loadu_ps(live, reach + i), zero, _CMP_GT_OQ);
    bits[i >> 3] = uint8_t(m);
    if (count - i > 8) bits[(i >> 3) + 1] = uint8_t(m >> 8);
  }
}

}  // namespace

const KernelSet Avx512Kernels = {
    fold_one<Avx512One>,
    nullptr,
    nullptr,
    {},
    {nullptr, fold_lane1<Avx512One>, nullptr, nullptr, nullptr},
    avx512_reach_bits,
};
