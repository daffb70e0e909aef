// The bodies of the store kernels, written once with the compiler's vector
// types and included by one source file per instruction set, which defines
// KERNEL_WIDTH (floats per vector: 4, 8 or 16) and KERNEL_TABLE (the name of
// its table). Everything here has internal linkage, so the copies built with
// different instruction sets never meet.
//
// Each loop runs whole vectors and then one partial vector for the tail: the
// loads fill missing lanes with zeros and the stores write only the lanes that
// exist, so a kernel never touches memory beyond `n` values and the tail gives
// the same results as the body.
#include <immintrin.h>

#include <cfloat>
#include <cstring>

#include "storage/store_kernels.h"

#pragma GCC diagnostic ignored "-Wpsabi"

namespace {

constexpr int W = KERNEL_WIDTH;
typedef float vf __attribute__((vector_size(4 * W)));
typedef int32_t vi __attribute__((vector_size(4 * W)));
typedef uint32_t vu __attribute__((vector_size(4 * W)));
typedef uint16_t vh __attribute__((vector_size(2 * W)));
typedef uint8_t vb __attribute__((vector_size(W)));

#define KINLINE inline __attribute__((always_inline))

template <typename V, typename T>
KINLINE V ld(const T* p, int k) {
  V v = {};
  __builtin_memcpy(&v, p, size_t(k >= W ? W : k) * sizeof(T));
  return v;
}

template <typename V, typename T>
KINLINE void st(T* p, const V& v, int k) {
  __builtin_memcpy(p, &v, size_t(k >= W ? W : k) * sizeof(T));
}

KINLINE vf splat(float x) { return vf{} + x; }
KINLINE vf to_float(vu x) { return __builtin_convertvector(x, vf); }
KINLINE vf to_float(vi x) { return __builtin_convertvector(x, vf); }
KINLINE vh narrow(vi x) { return __builtin_convertvector(x, vh); }
KINLINE vi trunc_int(vf x) { return __builtin_convertvector(x, vi); }
KINLINE vu trunc_uint(vf x) { return __builtin_convertvector(x, vu); }

// Zero extension of 16-bit and 8-bit lanes, and the two estimates. The
// generic conversions of the compiler go through general registers for bytes,
// so these take the instructions directly.
#if KERNEL_WIDTH == 4
KINLINE vi widen(vh x) {
  __m128i r;
  __builtin_memcpy(&r, &x, sizeof x);
  return (vi)_mm_cvtepu16_epi32(r);
}
KINLINE vi widen_bytes(vb x) {
  uint32_t bits;
  __builtin_memcpy(&bits, &x, sizeof x);
  return (vi)_mm_cvtepu8_epi32(_mm_cvtsi32_si128(int(bits)));
}
KINLINE vf rsqrt_estimate(vf x) { return (vf)_mm_rsqrt_ps((__m128)x); }
KINLINE vf rcp_estimate(vf x) { return (vf)_mm_rcp_ps((__m128)x); }
#elif KERNEL_WIDTH == 8
KINLINE vi widen(vh x) { return (vi)_mm256_cvtepu16_epi32((__m128i)x); }
KINLINE vi widen_bytes(vb x) {
  uint64_t bits;
  __builtin_memcpy(&bits, &x, sizeof x);
  return (vi)_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(int64_t(bits)));
}
KINLINE vf rsqrt_estimate(vf x) { return (vf)_mm256_rsqrt_ps((__m256)x); }
KINLINE vf rcp_estimate(vf x) { return (vf)_mm256_rcp_ps((__m256)x); }
#elif KERNEL_WIDTH == 16
KINLINE vi widen(vh x) { return (vi)_mm512_maskz_cvtepu16_epi32(__mmask16(0xffff), (__m256i)x); }
KINLINE vi widen_bytes(vb x) { return (vi)_mm512_maskz_cvtepu8_epi32(__mmask16(0xffff), (__m128i)x); }
KINLINE vf rsqrt_estimate(vf x) { return (vf)_mm512_maskz_rsqrt14_ps(__mmask16(0xffff), (__m512)x); }
KINLINE vf rcp_estimate(vf x) { return (vf)_mm512_maskz_rcp14_ps(__mmask16(0xffff), (__m512)x); }
#else
#error "KERNEL_WIDTH must be 4, 8 or 16"
#endif

KINLINE vf to_float(vh x) { return to_float(widen(x)); }

// Per-hand frozen flags from a byte mask (all lanes free without a mask).
KINLINE vi frozen_lanes(const uint8_t* mask, int i, int k) {
  if (!mask) return vi{};
  return widen_bytes(ld<vb>(mask + i, k)) != 0;
}

// Square root from the reciprocal-root estimate r with one Newton step:
// y = x r, then y (y r - 3) (-0.5). Inputs below the smallest normal give 0.
KINLINE vf root(vf x) {
  vf r = rsqrt_estimate(x);
  vf y = x * r;
  vf s = y * (y * r - 3.0f) * -0.5f;
  return x < FLT_MIN ? vf{} : s;
}

// |x|^0.75 as sqrt(|x|) * sqrt(sqrt(|x|)).
KINLINE vf power34(vf x_abs) {
  vf g = root(x_abs);
  return g * root(g);
}

// The same for lanes whose result is used only where |x| is at least a
// normal float; other lanes may come out as anything, even NaN.
KINLINE vf power34_normal(vf x_abs) {
  vf r = rsqrt_estimate(x_abs);
  vf y = x_abs * r;
  vf g = y * (y * r - 3.0f) * -0.5f;
  r = rsqrt_estimate(g);
  y = g * r;
  return g * (y * (y * r - 3.0f) * -0.5f);
}

KINLINE vf magnitude(vf x) { return (vf)((vi)x & 0x7fffffff); }

// Reciprocal from the estimate with one Newton step, r (2 - x r).
KINLINE vf reciprocal(vf x) {
  vf r = rcp_estimate(x);
  return r * (2.0f - x * r);
}

template <typename Body>
KINLINE void blocks(int32_t n, Body&& body) {
  int32_t i = 0;
  for (; i + W <= n; i += W) body(i, W);
  if (i < n) body(i, int(n - i));
}

// ---- Regret matching ----------------------------------------------------------

void match2_u16(const uint16_t* x0, const uint16_t* x1, int32_t n, float d0, float* r0,
                float* r1) {
  vf def = splat(d0);
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf a = to_float(ld<vh>(x0 + i, k));
    vf s = a + to_float(ld<vh>(x1 + i, k));
    vf q = s == 0.0f ? def : a / s;
    st(r0 + i, q, k);
    st(r1 + i, 1.0f - q, k);
  });
}

template <int K>
void matchk_u16(const uint16_t* const* x, int32_t n, const float* d, float* const* r) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf v[K];
    vf s = {};
    for (int a = 0; a < K; a++) {
      v[a] = to_float(ld<vh>(x[a] + i, k));
      s += v[a];
    }
    vi none = s == 0.0f;
    vf inv = 1.0f / s;
    for (int a = 0; a < K; a++) st(r[a] + i, none ? splat(d[a]) : v[a] * inv, k);
  });
}

template <int K>
void matchk_f32(const float* const* x, int32_t n, const float* d, float* const* r) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf v[K];
    vf s = {};
    for (int a = 0; a < K; a++) {
      v[a] = ld<vf>(x[a] + i, k);
      s += v[a];
    }
    vi none = s < FLT_MIN;
    for (int a = 0; a < K; a++) st(r[a] + i, none ? splat(d[a]) : v[a] / s, k);
  });
}

void reciprocal_u16(float* recip, const uint16_t* const* x, int32_t actions, int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vi s = {};
    for (int a = 0; a < actions; a++) s += widen(ld<vh>(x[a] + i, k));
    st(recip + i, s == 0 ? vf{} : reciprocal(to_float(s)), k);
  });
}

void reciprocal_u32(float* recip, const uint32_t* const* x, int32_t actions, int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf s = {};
    for (int a = 0; a < actions; a++) s += to_float(ld<vu>(x[a] + i, k));
    st(recip + i, s == 0.0f ? vf{} : reciprocal(s), k);
  });
}

void reciprocal_f32(float* recip, const float* const* x, int32_t actions, int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf s = {};
    for (int a = 0; a < actions; a++) s += ld<vf>(x[a] + i, k);
    st(recip + i, s < FLT_MIN ? vf{} : reciprocal(s), k);
  });
}

void scale_u16(float* out, const uint16_t* x, const float* recip, float d, int32_t n) {
  vf def = splat(d);
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf r = ld<vf>(recip + i, k);
    st(out + i, r == 0.0f ? def : to_float(ld<vh>(x + i, k)) * r, k);
  });
}

void scale_u32(float* out, const uint32_t* x, const float* recip, float d, int32_t n) {
  vf def = splat(d);
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf r = ld<vf>(recip + i, k);
    st(out + i, r == 0.0f ? def : to_float(ld<vu>(x + i, k)) * r, k);
  });
}

void scale_f32(float* out, const float* x, const float* recip, float d, int32_t n) {
  vf def = splat(d);
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf r = ld<vf>(recip + i, k);
    st(out + i, r == 0.0f ? def : ld<vf>(x + i, k) * r, k);
  });
}

// ---- Regret updates -----------------------------------------------------------------

void regret_f32(float* v, const float* row, const float* base, const uint8_t* mask, int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf d = ld<vf>(row + i, k) - ld<vf>(base + i, k);
    vf neg = d < 0.0f ? splat(-1.0f) : splat(1.0f);
    vf r = power34(d * neg) * neg;
    vf old = ld<vf>(v + i, k);
    vf nv = old + r;
    nv = nv < FLT_MIN ? vf{} : nv;
    if (mask) nv = frozen_lanes(mask, i, k) ? old : nv;
    st(v + i, nv, k);
  });
}

void regret_u16(uint16_t* v, const float* row, const float* base, const uint8_t* mask, int32_t n,
                float p, float t) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf d = ld<vf>(row + i, k) - ld<vf>(base + i, k);
    vi up = d >= t;
    vi down = d <= -t;
    // Lanes between -t and t keep their value, and t = 1 / s is normal.
    vi step = trunc_int(p * power34_normal(magnitude(d)));
    vi old = widen(ld<vh>(v + i, k));
    // Unused lanes may hold any step, so the sums wrap as unsigned numbers.
    vi raised = (vi)((vu)old + (vu)step);
    vi lowered = (vi)((vu)old - (vu)step);
    lowered = lowered < 0 ? vi{} : lowered;
    vi nv = up ? raised : (down ? lowered : old);
    if (mask) nv = frozen_lanes(mask, i, k) ? old : nv;
    st(v + i, narrow(nv), k);
  });
}

// ---- Strategy sums ----------------------------------------------------------------

void accumulate_f32(float* v, const float* s, const float* reach, float w, const uint8_t* mask,
                    int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf old = ld<vf>(v + i, k);
    vf nv = old + w * ld<vf>(s + i, k) * ld<vf>(reach + i, k);
    if (mask) nv = frozen_lanes(mask, i, k) ? old : nv;
    st(v + i, nv, k);
  });
}

void accumulate_f32_x(float* v, const float* s, const float* x, const uint8_t* mask, int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf old = ld<vf>(v + i, k);
    vf nv = old + ld<vf>(x + i, k) * ld<vf>(s + i, k);
    if (mask) nv = frozen_lanes(mask, i, k) ? old : nv;
    st(v + i, nv, k);
  });
}

void accumulate_u32(uint32_t* v, const float* s, const float* reach, float w, const uint8_t* mask,
                    int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vu old = ld<vu>(v + i, k);
    vf sum = (0.5f + w * ld<vf>(s + i, k) * ld<vf>(reach + i, k)) + to_float(old);
    vu nv = trunc_uint(sum);
    if (mask) nv = frozen_lanes(mask, i, k) ? old : nv;
    st(v + i, nv, k);
  });
}

void accumulate_u16(uint16_t* v, const float* s, const float* x, const uint8_t* mask, int32_t n) {
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vi old = widen(ld<vh>(v + i, k));
    vi nv = (vi)((vu)old + (vu)trunc_int(0.5f + ld<vf>(x + i, k) * ld<vf>(s + i, k)));
    if (mask) nv = frozen_lanes(mask, i, k) ? old : nv;
    st(v + i, narrow(nv), k);
  });
}

float weigh_reach(float* x, const float* reach, float w, int32_t n) {
  vf peak = {};
  blocks(n, [&](int32_t i, int k) __attribute__((always_inline)) {
    vf y = w * ld<vf>(reach + i, k);
    peak = y > peak ? y : peak;
    st(x + i, y, k);
  });
  float m = 0;
  for (int l = 0; l < W; l++) m = peak[l] > m ? peak[l] : m;
  return m;
}

}  // namespace

extern const StoreKernels KERNEL_TABLE = {
    .match2_u16 = match2_u16,
    .match3_u16 = matchk_u16<3>,
    .match4_u16 = matchk_u16<4>,
    .match2_f32 = matchk_f32<2>,
    .match3_f32 = matchk_f32<3>,
    .reciprocal_u16 = reciprocal_u16,
    .reciprocal_u32 = reciprocal_u32,
    .reciprocal_f32 = reciprocal_f32,
    .scale_u16 = scale_u16,
    .scale_u32 = scale_u32,
    .scale_f32 = scale_f32,
    .regret_f32 = regret_f32,
    .regret_u16 = regret_u16,
    .accumulate_f32 = accumulate_f32,
    .accumulate_f32_x = accumulate_f32_x,
    .accumulate_u32 = accumulate_u32,
    .accumulate_u16 = accumulate_u16,
    .weigh_reach = weigh_reach,
};
