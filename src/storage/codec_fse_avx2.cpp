// The FSE channel codec's moves between a row of transformed values and the
// dense list of its non-zero values, eight values a vector, for processors
// with AVX2. A group's mask picks a permutation from a 256-entry table, so no
// branch depends on where the zeros are.
#include <immintrin.h>

#include <cstdint>

namespace {

struct LaneTables {
  // expand[m]: for lane j of a group with mask m, the index of its value
  // among the group's non-zero values (lanes outside m point anywhere).
  // compact[m]: the lanes of m in order, then anything.
  alignas(8) uint8_t expand[256][8];
  alignas(8) uint8_t compact[256][8];
  LaneTables() {
    for (int m = 0; m < 256; m++) {
      int k = 0;
      for (int j = 0; j < 8; j++) {
        expand[m][j] = uint8_t(k & 7);
        if (m >> j & 1) compact[m][k++] = uint8_t(j);
      }
      for (int j = k; j < 8; j++) compact[m][j] = 0;
    }
  }
};

const LaneTables Tables;

inline __m256i lane_indices(const uint8_t* bytes) {
  return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
}

}  // namespace

// Group g of t gets the next popcount(masks[g]) entries of `values` in the
// lanes its mask sets, zeros elsewhere. Reads up to eight entries past the
// last value taken and writes whole groups.
void expand_groups_avx2(uint32_t* t, const uint32_t* values, const uint8_t* masks, int groups) {
  const __m256i bits = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
  for (int g = 0; g < groups; g++) {
    const unsigned m = masks[g];
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(values));
    v = _mm256_permutevar8x32_epi32(v, lane_indices(Tables.expand[m]));
    __m256i on = _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_set1_epi32(int(m)), bits), bits);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(t + 8 * g), _mm256_and_si256(v, on));
    values += __builtin_popcount(m);
  }
}

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
