// The row steps of the walk (a node's value from its children, the children's
// reaches from a strategy), written once and compiled once per instruction set
// like the terminal kernels. Every set does the same operations in the same
// order, one multiply and one add rounded each (files that include this
// header are built without fused multiply-add), so a solve keeps its bits
// whichever set runs.
#pragma once
#include <cstdint>

namespace {

// out = s[0] c[0] + s[1] c[1] + ..., added in row order.
inline void weighted_rows_body(float* out, const float* const* s, const float* const* c, int32_t rows,
                               int32_t count) {
  {
    float* __restrict o = out;
    const float* __restrict sa = s[0];
    const float* __restrict ca = c[0];
    for (int32_t i = 0; i < count; i++) o[i] = sa[i] * ca[i];
  }
  for (int32_t a = 1; a < rows; a++) {
    float* __restrict o = out;
    const float* __restrict sa = s[a];
    const float* __restrict ca = c[a];
    for (int32_t i = 0; i < count; i++) o[i] += sa[i] * ca[i];
  }
}

// x *= reach; returns the sum of the new x in eight partial sums.
inline float reach_row_body(float* x_, const float* reach_, int32_t count) {
  float* __restrict x = x_;
  const float* __restrict reach = reach_;
  float part[8] = {};
  int32_t i = 0;
  for (; i + 8 <= count; i += 8)
    for (int32_t j = 0; j < 8; j++) {
      x[i + j] *= reach[i + j];
      part[j] += x[i + j];
    }
  for (; i < count; i++) {
    x[i] *= reach[i];
    part[0] += x[i];
  }
  return ((part[0] + part[1]) + (part[2] + part[3])) + ((part[4] + part[5]) + (part[6] + part[7]));
}

// out[i] = in[index[i]].
inline void gather_row_body(float* out_, const float* in_, const uint16_t* index_, int32_t count) {
  float* __restrict out = out_;
  const float* __restrict in = in_;
  const uint16_t* __restrict index = index_;
  for (int32_t i = 0; i < count; i++) out[i] = in[index[i]];
}

}  // namespace
