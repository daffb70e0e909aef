// The FSE channel encoder's dense list of a row's non-zero values, eight
// values a vector, for processors with AVX2. A group's mask picks a
// permutation from a 256-entry table, so no branch depends on where the zeros
// are. (Decoding expands in the inverse transform.)
#include <immintrin.h>

#include <cstdint>

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
