// Row kernels of the stores: regret matching, regret updates and strategy
// sums on flat arrays of one cell. The same source is compiled once per
// instruction set (SSE4.2 baseline, AVX2/FMA, AVX-512) and a table of each is
// chosen per call. No kernel allocates; every kernel takes any length and runs
// a partial vector at the tail.
#pragma once
#include <cstdint>

// A null mask freezes nothing; otherwise a non-zero byte leaves that hand's
// value as it is.
struct StoreKernels {
  // ---- Regret matching: out[a][i] = x[a][i] / sum over actions ----
  // Two 16-bit rows: r0 = x0 / (x0 + x1), or d0 for a zero sum; r1 = 1 - r0.
  void (*match2_u16)(const uint16_t* x0, const uint16_t* x1, int32_t n, float d0, float* r0,
                     float* r1);
  // Three and four 16-bit rows read at once; d[a] for a zero sum.
  void (*match3_u16)(const uint16_t* const* x, int32_t n, const float* d, float* const* r);
  void (*match4_u16)(const uint16_t* const* x, int32_t n, const float* d, float* const* r);
  // Two and three float rows; d[a] for a sum below the smallest normal float.
  void (*match2_f32)(const float* const* x, int32_t n, const float* d, float* const* r);
  void (*match3_f32)(const float* const* x, int32_t n, const float* d, float* const* r);
  // Any number of rows: first the reciprocal of each hand's sum (0 for a sum
  // that counts as nothing), then each row scaled by it, `d` where it is 0.
  void (*reciprocal_u16)(float* recip, const uint16_t* const* x, int32_t actions, int32_t n);
  void (*reciprocal_u32)(float* recip, const uint32_t* const* x, int32_t actions, int32_t n);
  void (*reciprocal_f32)(float* recip, const float* const* x, int32_t actions, int32_t n);
  void (*scale_u16)(float* out, const uint16_t* x, const float* recip, float d, int32_t n);
  void (*scale_u32)(float* out, const uint32_t* x, const float* recip, float d, int32_t n);
  void (*scale_f32)(float* out, const float* x, const float* recip, float d, int32_t n);

  // ---- Regret updates, d = row[i] - base[i] ----
  // v = max(v + sign(d) |d|^0.75, 0), flushed to 0 below the smallest normal.
  void (*regret_f32)(float* v, const float* row, const float* base, const uint8_t* mask,
                     int32_t n);
  // 16-bit fixed point: d >= t adds trunc(p |d|^0.75) (low 16 bits kept),
  // d <= -t subtracts it with a floor at 0, anything between is lost.
  void (*regret_u16)(uint16_t* v, const float* row, const float* base, const uint8_t* mask,
                     int32_t n, float p, float t);

  // ---- Strategy sums ----
  // v += w * s[i] * reach[i]
  void (*accumulate_f32)(float* v, const float* s, const float* reach, float w,
                         const uint8_t* mask, int32_t n);
  // v += s[i] * x[i], x already weighted
  void (*accumulate_f32_x)(float* v, const float* s, const float* x, const uint8_t* mask,
                           int32_t n);
  // v = trunc(0.5 + w * s[i] * reach[i] + float(v))
  void (*accumulate_u32)(uint32_t* v, const float* s, const float* reach, float w,
                         const uint8_t* mask, int32_t n);
  // v = v + trunc(0.5 + x[i] * s[i]), low 16 bits kept
  void (*accumulate_u16)(uint16_t* v, const float* s, const float* x, const uint8_t* mask,
                         int32_t n);
  // x = w * reach; returns the largest x (0 for n = 0)
  float (*weigh_reach)(float* x, const float* reach, float w, int32_t n);
};

extern const StoreKernels StoreKernelsBase;
extern const StoreKernels StoreKernelsAvx2;
extern const StoreKernels StoreKernelsAvx512;

bool store_kernels_have_avx2();
bool store_kernels_have_avx512();

// The table for this call: AVX-512 when UseAvx512 is set and the processor
// has it, else AVX2 when there, else the baseline.
const StoreKernels& store_kernels();
