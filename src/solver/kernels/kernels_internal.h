// The kernels of one instruction set, as a table of entry points. Each
// instruction-set file fills one table from code with internal linkage, so
// that nothing compiled for a wider set can stand in for a narrower one at
// link time.
#pragma once
#include <cstdint>

#include "solver/kernels/kernels.h"

using FoldKernel = void (*)(float* out, const float* reach, int32_t count, const uint16_t* packed,
                            float value);
using ShowdownKernel = void (*)(float* out, const float* reach, int32_t count,
                                const RiverGroups& groups, const uint16_t* packed, float value);
using PairKernel = void (*)(float* out_showdown, float* out_fold, const float* reach_showdown,
                            const float* reach_fold, int32_t count, const RiverGroups& groups,
                            const uint16_t* packed, float showdown_value, float fold_value);
using ShowdownLanes = void (*)(float* const* out, const float* const* reach, const float* values,
                               int32_t count, const RiverGroups& groups, const uint16_t* packed);
using FoldLanes = void (*)(float* const* out, const float* const* reach, const float* values,
                           int32_t count, const uint16_t* packed);
// One bit per hand, bit i of byte i / 8 = reach[i] > 0.0; bytes from
// (count + 7) / 8 on are left alone.
using ReachBits = void (*)(uint8_t* bits, const float* reach, int32_t count);

struct KernelSet {
  FoldKernel fold;
  ShowdownKernel showdown;
  // Both reaches non-empty; the one-reach form passes the same pointer twice.
  PairKernel showdown_and_fold;
  ShowdownLanes showdown_lanes[9];  // by width; null where the width is not in the table
  FoldLanes fold_lanes[9];          // by width; null where the width is not in the table
  ReachBits reach_bits;
};

// The walk's row steps (rows_body.h).
struct RowKernels {
  void (*weighted_rows)(float* out, const float* const* s, const float* const* c, int32_t rows, int32_t count);
  float (*reach_row)(float* x, const float* reach, int32_t count);
  void (*gather_row)(float* out, const float* in, const uint16_t* index, int32_t count);
};
extern const RowKernels PortableRowKernels;
extern const RowKernels Avx2RowKernels;

extern const KernelSet PortableKernels;
extern const KernelSet Avx2Kernels;
// Only what the wider registers improve; null entries are taken from
// Avx2Kernels when the tables are put together.
extern const KernelSet Avx512Kernels;
