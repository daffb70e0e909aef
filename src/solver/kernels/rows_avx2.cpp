// The walk's row steps built for AVX2, without fused multiply-add (see
// rows_body.h and the build's flags for this file).
#include "solver/kernels/kernels_internal.h"
#include "solver/kernels/rows_body.h"

namespace {

void weighted_rows_avx2(float* out, const float* const* s, const float* const* c, int32_t rows, int32_t count) {
  weighted_rows_body(out, s, c, rows, count);
}

float reach_row_avx2(float* x, const float* reach, int32_t count) { return reach_row_body(x, reach, count); }

}  // namespace

const RowKernels Avx2RowKernels = {weighted_rows_avx2, reach_row_avx2};
