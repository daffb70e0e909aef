// The terminal kernels built for AVX2 with FMA.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "solver/kernels/kernels_internal.h"
#include "solver/kernels/kernels_body.h"
#include "solver/kernels/kernels_avx_rows.h"

namespace {

struct Avx2One {
  // Eight hands at a time, the two card sums gathered from the table.
  static void fold_finish(float* out, const float* cs, float total, const float* reach,
                          int32_t count, const uint16_t* packed, float value) {
    const __m256 vt = _mm256_set1_ps(total), vv = _mm256_set1_ps(value);
    const __m256i low = _mm256_set1_epi32(0xFF);
    int32_t i = 0;
    for (; i + 8 <= count; i += 8) {
      __m256i p = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(packed + i)));
      __m256 a = _mm256_i32gather_ps(cs, _mm256_and_si256(p, low), 4);
      __m256 b = _mm256_i32gather_ps(cs, _mm256_srli_epi32(p, 8), 4);
      __m256 o = _mm256_fmadd_ps(vv, _mm256_loadu_ps(reach + i), _mm256_sub_ps(_mm256_sub_ps(vt, a), b));
      _mm256_storeu_ps(out + i, o);
    }
    fold_finish_portable(out, cs, total, reach, i, count, packed, value);
  }
};

}  // namespace

const KernelSet Avx2Kernels = {
    fold_one<Avx2One>,
    showdown_one,
    pair_entry,
    {nullptr, showdown_lane1, showdown_lanes<AvxRows4, 2>, showdown_lanes<AvxRows4, 3>,
     showdown_lanes<AvxRows4, 4>, nullptr, showdown_lanes<AvxRows8, 6>, nullptr,
     showdown_lanes<AvxRows8, 8>},
    {nullptr, fold_lane1<Avx2One>, fold_lanes<AvxRows4, 2>, fold_lanes<AvxRows4, 3>,
     fold_lanes<AvxRows4, 4>},
    avx_reach_bits,
};
