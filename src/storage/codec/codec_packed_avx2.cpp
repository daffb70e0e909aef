// The packed block format on 256-bit vectors, for processors with AVX2: the
// same bytes as the baseline builds, with no branch on a group's class. A
// block is decoded from tables indexed by its control byte: where each group
// starts, which bytes of a group go where, and what a group's class leaves to
// shift or mask.
//
// Every group of a block and every whole tail group is a whole number of
// 32-bit words, so readers fetch a group with a masked load over its exact
// words and never touch a byte past the row. Writers store whole vectors at
// each group's start and let the next group overwrite the excess: they may
// scribble past their end, but never past the row's bound.
#include <immintrin.h>

#include <cstring>

#include "storage/codec/codec.h"
#include "storage/codec/codec_isa.h"
#include "storage/codec/codec_packed_impl.h"

namespace {

constexpr int Width16[4] = {0, 8, 12, 16};
constexpr int Width32[4] = {0, 8, 16, 32};

struct PackedTables {
  // Per control byte: where groups 1, 2 and 3 start, then the payload size.
  uint8_t offsets16[256][4];
  uint8_t offsets32[256][4];
  // Per class: the 32-bit words a masked load takes.
  alignas(32) int32_t words16[4][4];
  alignas(32) int32_t words32[4][8];
  // 16-bit form, per pair of classes (first group | second group << 2), one
  // group in each 128-bit lane.
  alignas(32) uint8_t spread16[16][32];   // payload bytes to 16-bit lanes
  alignas(32) uint8_t shifted16[16][32];  // lanes that take the value shifted down by 4
  alignas(32) uint8_t keep16[16][32];     // bits a lane keeps
  alignas(32) uint8_t gather16[16][32];   // lanes (or 24-bit pairs) to payload bytes
  alignas(32) uint8_t pairs16[16][32];    // lanes whose group is 12-bit: take the pairs
  // 32-bit form, per class: payload to lanes (word permutation, then bytes),
  // and lanes to payload (bytes, then word permutation).
  alignas(32) int32_t spread_words32[4][8];
  alignas(32) uint8_t spread_bytes32[4][32];
  alignas(32) uint8_t gather_bytes32[4][32];
  alignas(32) int32_t gather_words32[4][8];
  uint8_t spread_bits[16];  // bit g of a nibble to bit 2g
};

constexpr uint8_t Z = 0x80;  // a shuffle index that gives a zero byte

constexpr PackedTables make_tables() {
  PackedTables t{};
  for (int c = 0; c < 256; c++) {
    int o16 = 0, o32 = 0;
    for (int g = 0; g < 4; g++) {
      int k = (c >> (2 * g)) & 3;
      o16 += Width16[k];
      o32 += Width32[k];
      t.offsets16[c][g] = uint8_t(o16);
      t.offsets32[c][g] = uint8_t(o32);
    }
  }
  for (int k = 0; k < 4; k++) {
    for (int w = 0; w < 4; w++) t.words16[k][w] = 4 * w < Width16[k] ? -1 : 0;
    for (int w = 0; w < 8; w++) t.words32[k][w] = 4 * w < Width32[k] ? -1 : 0;
  }
  const uint8_t twelve[16] = {0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11};
  const uint8_t take24[16] = {0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, Z, Z, Z, Z};
  for (int pair = 0; pair < 16; pair++) {
    for (int half = 0; half < 2; half++) {
      int k = (pair >> (2 * half)) & 3;
      for (int b = 0; b < 16; b++) {
        int at = 16 * half + b;
        uint8_t spread = uint8_t(b), gather = uint8_t(b);
        if (k == 1) {
          spread = (b & 1) ? Z : uint8_t(b / 2);
          gather = b < 8 ? uint8_t(2 * b) : Z;
        } else if (k == 2) {
          spread = twelve[b];
          gather = take24[b];
        }
        t.spread16[pair][at] = spread;
        t.gather16[pair][at] = gather;
        t.shifted16[pair][at] = (k == 2 && (b & 2)) ? 0xff : 0;
        t.keep16[pair][at] = (k == 2 && (b & 1)) ? 0x0f : 0xff;
        t.pairs16[pair][at] = k == 2 ? 0xff : 0;
      }
    }
  }
  for (int k = 0; k < 4; k++) {
    // Class 1 holds bytes 0-7: each lane takes a word of four; class 2 holds
    // 16-bit values 0-7 in words 0-3: each lane takes two words.
    for (int w = 0; w < 8; w++) {
      int lane = w / 4;
      t.spread_words32[k][w] = k == 1 ? lane : k == 2 ? 2 * lane + (w & 1) : w;
      t.gather_words32[k][w] = k == 1 ? (w < 2 ? 4 * w : 7) : k == 2 ? (w < 4 ? (w < 2 ? w : w + 2) : 7) : w;
    }
    for (int b = 0; b < 32; b++) {
      int i = b % 16, lane = b / 16;
      uint8_t spread = uint8_t(i), gather = uint8_t(i);
      if (k == 1) {
        spread = (i % 4 == 0) ? uint8_t(i / 4) : Z;
        gather = i < 4 ? uint8_t(4 * i) : Z;
      } else if (k == 2) {
        spread = (i % 4 < 2) ? uint8_t(i / 4 * 2 + i % 4) : Z;
        gather = i < 8 ? uint8_t(i / 2 * 4 + i % 2) : Z;
      }
      (void)lane;
      t.spread_bytes32[k][b] = spread;
      t.gather_bytes32[k][b] = gather;
    }
  }
  for (int m = 0; m < 16; m++) {
    uint8_t s = 0;
    for (int g = 0; g < 4; g++)
      if (m & (1 << g)) s = uint8_t(s | 1 << (2 * g));
    t.spread_bits[m] = s;
  }
  return t;
}

alignas(64) constexpr PackedTables T = make_tables();

inline __m256i load32b(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
inline __m256i table32b(const void* p) { return _mm256_load_si256(static_cast<const __m256i*>(p)); }
inline __m128i load16b(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline void store32b(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
inline void store16b(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

inline __m128i words16(const uint8_t* s, int k) {
  return _mm_maskload_epi32(reinterpret_cast<const int*>(s), _mm_load_si128(reinterpret_cast<const __m128i*>(T.words16[k])));
}
inline __m256i words32(const uint8_t* s, int k) {
  return _mm256_maskload_epi32(reinterpret_cast<const int*>(s), table32b(T.words32[k]));
}

// Two groups of the 16-bit form, payloads in the two lanes, to values.
inline __m256i spread16(__m256i v, int pair) {
  v = _mm256_shuffle_epi8(v, table32b(T.spread16[pair]));
  v = _mm256_blendv_epi8(v, _mm256_srli_epi16(v, 4), table32b(T.shifted16[pair]));
  return _mm256_and_si256(v, table32b(T.keep16[pair]));
}

// Two groups of the 16-bit form, one in each lane, to payloads.
inline __m256i gather16(__m256i v, int pair) {
  __m256i pairs = _mm256_madd_epi16(v, _mm256_set1_epi32((4096 << 16) | 1));
  v = _mm256_blendv_epi8(v, pairs, table32b(T.pairs16[pair]));
  return _mm256_shuffle_epi8(v, table32b(T.gather16[pair]));
}

inline __m256i spread32(__m256i v, int k) {
  v = _mm256_permutevar8x32_epi32(v, table32b(T.spread_words32[k]));
  return _mm256_shuffle_epi8(v, table32b(T.spread_bytes32[k]));
}

inline __m256i gather32(__m256i v, int k) {
  v = _mm256_shuffle_epi8(v, table32b(T.gather_bytes32[k]));
  return _mm256_permutevar8x32_epi32(v, table32b(T.gather_words32[k]));
}

// OR of the eight values of each lane's group, in every word of the lane.
inline __m256i fold16(__m256i v) {
  v = _mm256_or_si256(v, _mm256_srli_si256(v, 8));
  v = _mm256_or_si256(v, _mm256_srli_si256(v, 4));
  return _mm256_or_si256(v, _mm256_srli_si256(v, 2));
}

inline uint32_t or_all32(__m256i v) {
  __m128i x = _mm_or_si128(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  x = _mm_or_si128(x, _mm_shuffle_epi32(x, 0x4e));
  x = _mm_or_si128(x, _mm_shuffle_epi32(x, 0xb1));
  return uint32_t(_mm_cvtsi128_si32(x));
}

// A control byte from three masks of two bits a group (a group's bits set
// when its largest value is non-zero, above the first border, above the
// second): class = the number of borders passed.
inline unsigned control_of(unsigned nonzero, unsigned first, unsigned second) {
  return ((nonzero ^ first ^ second) & 0x55) | (first & 0xaa);
}

}  // namespace

// ---- 16-bit form --------------------------------------------------------------

uint8_t* pack16_avx2(uint8_t* d, const uint16_t* x, int n) {
  const __m128i zero = _mm_setzero_si128();
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    __m256i a = load32b(x + i), b = load32b(x + i + 16);
    // Group ORs as words 0-3: lane 0 of the unpack holds groups 0 and 2,
    // lane 1 groups 1 and 3.
    __m256i folded = _mm256_unpacklo_epi16(fold16(a), fold16(b));
    __m128i o = _mm_unpacklo_epi16(_mm256_castsi256_si128(folded), _mm256_extracti128_si256(folded, 1));
    unsigned nonzero = ~unsigned(_mm_movemask_epi8(_mm_cmpeq_epi16(o, zero)));
    unsigned first = ~unsigned(_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(o, _mm_set1_epi16(-256)), zero)));
    unsigned second =
        ~unsigned(_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(o, _mm_set1_epi16(-4096)), zero)));
    unsigned c = control_of(nonzero, first, second) & 0xff;
    *d++ = uint8_t(c);
    const uint8_t* off = T.offsets16[c];
    __m256i pa = gather16(a, int(c & 15)), pb = gather16(b, int(c >> 4));
    store16b(d, _mm256_castsi256_si128(pa));
    store16b(d + off[0], _mm256_extracti128_si256(pa, 1));
    store16b(d + off[1], _mm256_castsi256_si128(pb));
    store16b(d + off[2], _mm256_extracti128_si256(pb, 1));
    d += off[3];
  }
  for (; i + 8 <= n; i += 8) {
    __m128i v = load16b(x + i);
    __m128i o = _mm256_castsi256_si128(fold16(_mm256_castsi128_si256(v)));
    int k = (_mm_cvtsi128_si32(o) & 0xff00) ? 3 : 1;
    *d++ = uint8_t(k);
    store16b(d, _mm256_castsi256_si128(gather16(_mm256_castsi128_si256(v), k)));
    d += Width16[k];
  }
  if (i < n) d = pack_tail_group<Tail16>(d, x + i, n - i);
  return d;
}

const uint8_t* unpack16_avx2(uint16_t* x, int n, const uint8_t* s) {
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    unsigned c = *s++;
    const uint8_t* off = T.offsets16[c];
    __m128i g0 = words16(s, int(c & 3));
    __m128i g1 = words16(s + off[0], int((c >> 2) & 3));
    __m128i g2 = words16(s + off[1], int((c >> 4) & 3));
    __m128i g3 = words16(s + off[2], int(c >> 6));
    store32b(x + i, spread16(_mm256_set_m128i(g1, g0), int(c & 15)));
    store32b(x + i + 16, spread16(_mm256_set_m128i(g3, g2), int(c >> 4)));
    s += off[3];
  }
  for (; i + 8 <= n; i += 8) {
    int k = *s++ == 1 ? 1 : 3;
    __m256i v = _mm256_castsi128_si256(words16(s, k));
    store16b(x + i, _mm256_castsi256_si128(spread16(v, k)));
    s += Width16[k];
  }
  if (i < n) s = unpack_tail_group<Tail16>(x + i, n - i, s);
  return s;
}

// ---- 32-bit form --------------------------------------------------------------

uint8_t* pack32_avx2(uint8_t* d, const uint32_t* x, int n) {
  const __m256i zero = _mm256_setzero_si256();
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    __m256i v0 = load32b(x + i), v1 = load32b(x + i + 8), v2 = load32b(x + i + 16), v3 = load32b(x + i + 24);
    // Groups 0 and 2 in the lanes of one vector, 1 and 3 of the other, each
    // lane folded to its OR; the blend puts group g in words 2g and 2g + 1.
    __m256i e = _mm256_or_si256(_mm256_permute2x128_si256(v0, v2, 0x20), _mm256_permute2x128_si256(v0, v2, 0x31));
    __m256i f = _mm256_or_si256(_mm256_permute2x128_si256(v1, v3, 0x20), _mm256_permute2x128_si256(v1, v3, 0x31));
    e = _mm256_or_si256(e, _mm256_shuffle_epi32(e, 0x4e));
    f = _mm256_or_si256(f, _mm256_shuffle_epi32(f, 0x4e));
    e = _mm256_or_si256(e, _mm256_shuffle_epi32(e, 0xb1));
    f = _mm256_or_si256(f, _mm256_shuffle_epi32(f, 0xb1));
    __m256i o = _mm256_blend_epi32(e, f, 0xcc);
    auto above = [&](int mask) {
      __m256i hit = _mm256_cmpeq_epi32(_mm256_and_si256(o, _mm256_set1_epi32(mask)), zero);
      return ~unsigned(_mm256_movemask_ps(_mm256_castsi256_ps(hit)));
    };
    unsigned c = control_of(above(-1), above(-256), above(-65536)) & 0xff;
    *d++ = uint8_t(c);
    const uint8_t* off = T.offsets32[c];
    store32b(d, gather32(v0, int(c & 3)));
    store32b(d + off[0], gather32(v1, int((c >> 2) & 3)));
    store32b(d + off[1], gather32(v2, int((c >> 4) & 3)));
    store32b(d + off[2], gather32(v3, int(c >> 6)));
    d += off[3];
  }
  for (; i + 8 <= n; i += 8) {
    __m256i v = load32b(x + i);
    uint32_t o = or_all32(v);
    // Tail controls 0, 1 and 3 write what classes 1, 2 and 3 do.
    int control = Tail32::control(o);
    int k = control == 0 ? 1 : control == 1 ? 2 : 3;
    *d++ = uint8_t(control);
    store32b(d, gather32(v, k));
    d += Width32[k];
  }
  if (i < n) d = pack_tail_group<Tail32>(d, x + i, n - i);
  return d;
}

const uint8_t* unpack32_avx2(uint32_t* x, int n, const uint8_t* s) {
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    unsigned c = *s++;
    const uint8_t* off = T.offsets32[c];
    int k0 = int(c & 3), k1 = int((c >> 2) & 3), k2 = int((c >> 4) & 3), k3 = int(c >> 6);
    store32b(x + i, spread32(words32(s, k0), k0));
    store32b(x + i + 8, spread32(words32(s + off[0], k1), k1));
    store32b(x + i + 16, spread32(words32(s + off[1], k2), k2));
    store32b(x + i + 24, spread32(words32(s + off[2], k3), k3));
    s += off[3];
  }
  for (; i + 8 <= n; i += 8) {
    unsigned control = *s++;
    int k = (control & 2) ? 3 : (control & 1) ? 2 : 1;
    store32b(x + i, spread32(words32(s, k), k));
    s += Width32[k];
  }
  if (i < n) s = unpack_tail_group<Tail32>(x + i, n - i, s);
  return s;
}
