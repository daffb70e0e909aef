// The FSE channel encoder's dense list of a row's non-zero values, eight
// values a vector, for processors with AVX2. A group's mask picks a
// permutation from a 256-entry table, so no branch depends on where the zeros
// are. (Decoding expands in the inverse transform.)
#include <immintrin.h>

#include <cstdint>

#include "storage/codec/codec_isa.h"

namespace {

// compact[m]: the lanes that mask m sets, in order, then zeros.
struct LaneTables {
  alignas(8) uint8_t compact[256][8] = {};
  LaneTables() {
    for (int m = 0; m < 256; m++)
      for (int j = 0, k = 0; j < 8; j++)
        if (m >> j & 1) compact[m][k++] = uint8_t(j);
  }
};

const LaneTables Tables;

inline __m256i lane_indices(const uint8_t* bytes) {
  return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
}

}  // namespace

// The non-zero values of `groups` whole groups of t, in order, into `values`;
// returns how many. Writes up to eight entries past the last.
int compact_groups_avx2(uint32_t* values, const uint32_t* t, const uint8_t* masks, int groups) {
  uint32_t* out = values;
  for (int g = 0; g < groups; g++) {
    const unsigned m = masks[g];
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(t + 8 * g));
    v = _mm256_permutevar8x32_epi32(v, lane_indices(Tables.compact[m]));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), v);
    out += __builtin_popcount(m);
  }
  return int(out - values);
}

namespace {

// The low bytes of eight 32-bit lanes, as eight bytes in the low half.
inline __m128i low_bytes(__m256i v) {
  const __m256i pick = _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,  //
                                        0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  v = _mm256_shuffle_epi8(v, pick);
  v = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0));
  return _mm256_castsi256_si128(v);
}

// The lanes of mask m of v, in order, stored as bytes at p; returns the
// count. Writes eight bytes.
inline int put_lanes(uint8_t* p, __m256i v, unsigned m) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p),
                   low_bytes(_mm256_permutevar8x32_epi32(v, lane_indices(Tables.compact[m]))));
  return __builtin_popcount(m);
}

}  // namespace

// The channel bytes of a row's dense values t (t - 1 is what is coded), where
// no value is a double escape: the context-15 bytes in order to `top`, the
// low and high bytes of escaped values to `low` and `high`, and the values
// of the other contexts as (context, byte) pairs. values[-1] must read as 1,
// so that the first value has context 0. Writes up to eight bytes past each
// list; returns false, having written anything, when a double escape is met.
bool split_values_avx2(const uint32_t* values, int n, uint8_t* top, uint8_t* low, uint8_t* high,
                       uint8_t* other_context, uint8_t* other_byte, int counts[4]) {
  const __m256i one = _mm256_set1_epi32(1), c15 = _mm256_set1_epi32(15), c255 = _mm256_set1_epi32(255);
  const __m256i wide = _mm256_set1_epi32(65535), iota = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  int at_top = 0, at_escape = 0, at_other = 0;
  for (int i = 0; i < n; i += 8) {
    const unsigned live = unsigned(_mm256_movemask_ps(
        _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(n - i), iota))));
    const __m256i v = _mm256_sub_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(values + i)), one);
    const __m256i before =
        _mm256_sub_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(values + i - 1)), one);
    const __m256i context = _mm256_min_epu32(before, c15);
    const __m256i byte = _mm256_min_epu32(v, c255);
    auto mask_of = [](__m256i x) { return unsigned(_mm256_movemask_ps(_mm256_castsi256_ps(x))); };
    if (mask_of(_mm256_cmpeq_epi32(_mm256_max_epu32(v, wide), v)) & live) return false;
    const unsigned on_top = mask_of(_mm256_cmpeq_epi32(context, c15)) & live;
    const unsigned escape = mask_of(_mm256_cmpeq_epi32(byte, c255)) & live;
    const unsigned other = ~on_top & live;
    at_top += put_lanes(top + at_top, byte, on_top);
    put_lanes(low + at_escape, v, escape);
    at_escape += put_lanes(high + at_escape, _mm256_srli_epi32(v, 8), escape);
    put_lanes(other_context + at_other, context, other);
    at_other += put_lanes(other_byte + at_other, byte, other);
  }
  counts[0] = at_top;
  counts[1] = at_escape;
  counts[2] = at_other;
  return true;
}
