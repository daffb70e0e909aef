// The inverse row transform on eight values a vector, for processors with
// AVX2. Same results as the baseline form.
#include <immintrin.h>

#include "storage/codec/codec.h"
#include "storage/codec/codec_isa.h"
#include "storage/codec/codec_transform_impl.h"

namespace {

inline __m256i load8(const uint32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline __m256i load8(const uint16_t* p) {
  return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
inline void store8(uint32_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
// Keeps the low 16 bits of each value.
inline void store8(uint16_t* p, __m256i v) {
  v = _mm256_and_si256(v, _mm256_set1_epi32(0xffff));
  __m128i packed = _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), packed);
}

// The prefix sum of the un-zigzagged values, eight a vector. `next8()` gives
// the transformed values of the next eight entries; `tail(t, k)` writes the
// last k (1 to 7) of them to t.
template <typename T, typename Next, typename Tail>
void untransform_body(T* x, const T* r, Next&& next8, Tail&& tail, int n, bool uses_reference) {
  if (n <= 0) return;
  const bool per_entry = uses_reference && r;
  const uint32_t offset = (r && !per_entry) ? uint32_t(r[0]) : 0;
  const __m256i base = _mm256_set1_epi32(int(offset));
  const __m256i last = _mm256_set1_epi32(7);
  __m256i carry = _mm256_setzero_si256();
  int i = 0;
  // The sums of each eight are formed apart from the running total, so the
  // chain from one eight to the next is a single add.
  for (; i + 8 <= n; i += 8) {
    __m256i v = next8();
    v = _mm256_xor_si256(_mm256_srli_epi32(v, 1),
                         _mm256_sub_epi32(_mm256_setzero_si256(), _mm256_and_si256(v, _mm256_set1_epi32(1))));
    v = _mm256_add_epi32(v, _mm256_slli_si256(v, 4));
    v = _mm256_add_epi32(v, _mm256_slli_si256(v, 8));
    // The low half's total goes into the high half.
    __m256i low_total = _mm256_shuffle_epi32(v, 0xff);
    v = _mm256_add_epi32(v, _mm256_permute2x128_si256(low_total, low_total, 0x08));
    __m256i out = _mm256_add_epi32(v, carry);
    carry = _mm256_add_epi32(carry, _mm256_permutevar8x32_epi32(v, last));
    store8(x + i, _mm256_add_epi32(out, per_entry ? load8(r + i) : base));
  }
  if (i == n) return;
  uint32_t t[8];
  tail(t, n - i);
  uint32_t sum = uint32_t(_mm256_cvtsi256_si32(carry));
  for (int k = 0; i < n; i++, k++) {
    sum += unzigzag32(t[k]);
    x[i] = T(sum + (per_entry ? uint32_t(r[i]) : offset));
  }
}

template <typename T>
void untransform_plain(T* x, const T* r, const uint32_t* t, int n, bool uses_reference) {
  const uint32_t* p = t;
  untransform_body(
      x, r,
      [&] {
        __m256i v = load8(p);
        p += 8;
        return v;
      },
      [&](uint32_t* out, int k) {
        for (int j = 0; j < k; j++) out[j] = p[j];
      },
      n, uses_reference);
}

// Lane j of a group with mask m: the index of its value among the group's
// non-zero values (lanes outside m point anywhere).
struct ExpandTable {
  alignas(8) uint8_t lanes[256][8];
  ExpandTable() {
    for (int m = 0; m < 256; m++)
      for (int j = 0, k = 0; j < 8; j++) {
        lanes[m][j] = uint8_t(k & 7);
        k += m >> j & 1;
      }
  }
};
const ExpandTable Expand;

// The transformed values of group g: the next popcount(masks[g]) dense values
// in the lanes the mask sets, zeros elsewhere.
inline __m256i expand8(const uint32_t*& values, unsigned m) {
  const __m256i bits = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
  __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(values));
  __m256i lanes = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Expand.lanes[m])));
  v = _mm256_permutevar8x32_epi32(v, lanes);
  __m256i on = _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_set1_epi32(int(m)), bits), bits);
  values += __builtin_popcount(m);
  return _mm256_and_si256(v, on);
}

template <typename T>
void untransform_dense(T* x, const T* r, const uint32_t* values, const uint8_t* masks, int n,
                       bool uses_reference) {
  const uint8_t* m = masks;
  untransform_body(
      x, r, [&] { return expand8(values, *m++); },
      [&](uint32_t* out, int) { store8(out, expand8(values, *m)); }, n, uses_reference);
}

// Byte shuffle of a group with mask m from its dense 16-bit values: lane j
// takes value popcount(m below j) where m sets it, zero elsewhere.
struct ExpandTable16 {
  alignas(16) uint8_t control[256][16];
  ExpandTable16() {
    for (int m = 0; m < 256; m++)
      for (int j = 0, k = 0; j < 8; j++) {
        const bool on = m >> j & 1;
        control[m][2 * j] = on ? uint8_t(2 * k) : 0x80;
        control[m][2 * j + 1] = on ? uint8_t(2 * k + 1) : 0x80;
        k += on;
      }
  }
};
const ExpandTable16 Expand16;

inline __m128i load16b(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }

inline __m256i zigzag8(__m256i v) { return _mm256_xor_si256(_mm256_add_epi32(v, v), _mm256_srai_epi32(v, 31)); }

inline int nonzero8(__m256i v) {
  return 8 - __builtin_popcount(unsigned(
                 _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(v, _mm256_setzero_si256())))));
}

}  // namespace

// The 16-bit row transform eight values a vector; the same results as the
// baseline form.
bool transform_row16_avx2(const uint16_t* x, const uint16_t* r, int n, uint32_t* a, uint32_t* b) {
  return transform_frame<8>(
      x, r, n, a, b, true,
      [&](int i) { store8(a + i, zigzag8(_mm256_sub_epi32(load8(x + i), load8(x + i - 1)))); },
      [&](int i, int& first_nonzero, int& second_nonzero) {
        __m256i dx = _mm256_sub_epi32(load8(x + i), load8(x + i - 1));
        __m256i dr = _mm256_sub_epi32(load8(r + i), load8(r + i - 1));
        __m256i fa = zigzag8(dx), fb = zigzag8(_mm256_sub_epi32(dx, dr));
        store8(a + i, fa);
        store8(b + i, fb);
        first_nonzero += nonzero8(fa);
        second_nonzero += nonzero8(fb);
      });
}

void untransform_row32_avx2(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference) {
  untransform_plain(row, reference, transformed, count, uses_reference);
}

void untransform_row16_avx2(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference) {
  untransform_plain(row, reference, transformed, count, uses_reference);
}

void untransform_dense32_avx2(uint32_t* row, const uint32_t* reference, const uint32_t* values,
                              const uint8_t* masks, int count, bool uses_reference) {
  untransform_dense(row, reference, values, masks, count, uses_reference);
}

// A 16-bit row from its differences already un-zigzagged to 16 bits, sixteen
// lanes a vector: the low 16 bits of the 32-bit sums are the sums of the low
// 16 bits, so the row comes out as from the 32-bit forms.
void untransform_diffs16_avx2(uint16_t* x, const uint16_t* r, const uint16_t* d, const uint8_t* masks,
                              int n, bool uses_reference) {
  if (n <= 0) return;
  const bool per_entry = uses_reference && r;
  // Without per-entry reference the offset rides in the running total.
  uint16_t sum = (r && !per_entry) ? r[0] : 0;
  __m256i carry = _mm256_set1_epi16(int16_t(sum));
  const __m256i last = _mm256_set1_epi32(7);
  int i = 0;
  for (; i + 16 <= n; i += 16, masks += 2) {
    const unsigned m0 = masks[0], m1 = masks[1];
    const __m128i lo = load16b(d);
    d += __builtin_popcount(m0);
    const __m128i hi = load16b(d);
    d += __builtin_popcount(m1);
    __m256i v = _mm256_shuffle_epi8(_mm256_setr_m128i(lo, hi),
                                    _mm256_setr_m128i(load16b(Expand16.control[m0]), load16b(Expand16.control[m1])));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 2));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 4));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 8));
    // Each half's total in all its lanes; the low half's goes into the high half.
    const __m256i top = _mm256_shufflehi_epi16(v, 0xff);
    const __m256i totals = _mm256_unpackhi_epi64(top, top);
    v = _mm256_add_epi16(v, _mm256_permute2x128_si256(totals, totals, 0x08));
    __m256i out = _mm256_add_epi16(v, carry);
    carry = _mm256_add_epi16(carry, _mm256_permutevar8x32_epi32(_mm256_shufflehi_epi16(v, 0xff), last));
    if (per_entry) out = _mm256_add_epi16(out, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r + i)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(x + i), out);
  }
  sum = uint16_t(_mm256_extract_epi16(carry, 0));
  for (; i < n; i++) {
    if (masks[(i & 15) >> 3] >> (i & 7) & 1) sum = uint16_t(sum + *d++);
    x[i] = uint16_t(sum + (per_entry ? r[i] : 0));
  }
}
