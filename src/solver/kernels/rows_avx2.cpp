// The walk's row steps built for AVX2, without fused multiply-add (see
// rows_body.h and the build's flags for this file).
#include <immintrin.h>

#include "solver/kernels/kernels_internal.h"
#include "solver/kernels/rows_body.h"

namespace {

void weighted_rows_avx2(float* out, const float* const* s, const float* const* c, int32_t rows, int32_t count) {
  weighted_rows_body(out, s, c, rows, count);
}

float reach_row_avx2(float* x, const float* reach, int32_t count) { return reach_row_body(x, reach, count); }

// Eight hands a gather; the compiler keeps the plain loop scalar.
void gather_row_avx2(float* out, const float* in, const uint16_t* index, int32_t count) {
  int32_t i = 0;
  for (; i + 8 <= count; i += 8) {
    __m256i at = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(index + i)));
    _mm256_storeu_ps(out + i, _mm256_i32gather_ps(in, at, 4));
  }
  for (; i < count; i++) out[i] = in[index[i]];
}

}  // namespace

const RowKernels Avx2RowKernels = {weighted_rows_avx2, reach_row_avx2, gather_row_avx2};
