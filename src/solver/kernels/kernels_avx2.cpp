// The terminal kernels built for AVX2 with FMA.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "solver/kernels/kernels_avx_rows.h"
#include "solver/kernels/kernels_body.h"
#include "solver/kernels/kernels_internal.h"

namespace {

// The table lookups of the last fold pass stay scalar: on the processors
// measured, two 8-wide gathers per eight hands were slower than four loads.
struct Avx2One {
  static void fold_finish(float* out, const float* cs, float total, const float* reach,
                          int32_t count, const uint16_t* packed, float value) {
    fold_finish_portable(out, cs, total, reach, 0, count, packed, value);
  }
};

}  // namespace

const KernelSet Avx2Kernels = {
    fold_one<Avx2One>,
    showdown_one,
    pair_one,
    {nullptr, showdown_lane1, showdown_lanes<AvxRows4, 2>, showdown_lanes<AvxRows4, 3>,
     showdown_lanes<AvxRows4, 4>, nullptr, showdown_lanes<AvxRows8, 6>, nullptr,
     showdown_lanes<AvxRows8, 8>},
    {nullptr, fold_lane1<Avx2One>, fold_lanes<AvxRows4, 2>, fold_lanes<AvxRows4, 3>,
     fold_lanes<AvxRows4, 4>, fold_lanes<AvxRows8, 5>, fold_lanes<AvxRows8, 6>,
     fold_lanes<AvxRows8, 7>, fold_lanes<AvxRows8, 8>},
    avx_reach_bits,
};
