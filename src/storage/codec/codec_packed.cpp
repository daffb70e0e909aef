// The packed block format (layout at the top of codec.h): 32-, 16- and 24-bit
// forms, writers and readers side by side. Every load and store touches only
// the bytes of the group it works on, so a reader never runs past its row.
#include <nmmintrin.h>

#include <cstring>

#include "storage/codec/codec.h"
#include "storage/codec/codec_packed_impl.h"

namespace {

inline __m128i load16b(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline __m128i load8b(const void* p) { return _mm_loadl_epi64(static_cast<const __m128i*>(p)); }
inline void store16b(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
inline void store8b(void* p, __m128i v) { _mm_storel_epi64(static_cast<__m128i*>(p), v); }

inline uint32_t load_u32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}
inline void store_u32(uint8_t* p, uint32_t v) { memcpy(p, &v, 4); }
inline uint16_t load_u16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, 2);
  return v;
}
inline void store_u16(uint8_t* p, uint16_t v) { memcpy(p, &v, 2); }
inline uint32_t load_u24(const uint8_t* p) { return p[0] | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16; }
inline void store_u24(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
}

// OR of all lanes: below 2^k exactly when the largest value is.
inline uint32_t or_lanes32(__m128i v) {
  v = _mm_or_si128(v, _mm_shuffle_epi32(v, 0x4e));
  v = _mm_or_si128(v, _mm_shuffle_epi32(v, 0xb1));
  return uint32_t(_mm_cvtsi128_si32(v));
}
inline uint32_t or_lanes16(__m128i v) {
  v = _mm_or_si128(v, _mm_srli_si128(v, 8));
  v = _mm_or_si128(v, _mm_srli_si128(v, 4));
  v = _mm_or_si128(v, _mm_srli_si128(v, 2));
  return uint32_t(_mm_cvtsi128_si32(v)) & 0xffff;
}

// Four 8-bit lanes from bytes 0..3 of each 32-bit lane, low 24 bits kept.
const __m128i Take24 = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
const __m128i Spread24 = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
const __m128i Spread24High = _mm_setr_epi8(4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
// Two bytes per 12-bit value: value k starts at bit 12k.
const __m128i Spread12 = _mm_setr_epi8(0, 1, 1, 2, 3, 4, 4, 5, 6, 7, 7, 8, 9, 10, 10, 11);

constexpr int Width32[4] = {0, 8, 16, 32};
constexpr int Width16[4] = {0, 8, 12, 16};
constexpr int Width24[4] = {0, 8, 16, 24};

inline int class_of(uint32_t m, uint32_t middle) {
  return int(m != 0) + int(m >= 256) + int(m >= middle);
}

// Tail groups of the 32-bit form write 1, 2 or 4 bytes a value.
int tail_width32(uint8_t control) { return (control & 2) ? 4 : (control & 1) ? 2 : 1; }
int tail_width16(uint8_t control) { return control == 1 ? 1 : 2; }
int tail_width24(uint8_t control) { return control == 0 ? 1 : control == 1 ? 2 : 3; }

template <int (*TailWidth)(uint8_t)>
int64_t measure(const uint8_t* src, size_t size, int count, const int* widths) {
  size_t at = 0;
  int i = 0;
  for (; i + 32 <= count; i += 32) {
    if (at >= size) return -1;
    uint8_t c = src[at++];
    for (int g = 0; g < 4; g++) at += widths[(c >> (2 * g)) & 3];
    if (at > size) return -1;
  }
  for (; i < count; i += 8) {
    int m = count - i < 8 ? count - i : 8;
    if (at >= size) return -1;
    at += 1 + size_t(m) * TailWidth(src[at]);
    if (at > size) return -1;
  }
  return int64_t(at);
}

}  // namespace

// The builds for processors with AVX2 (codec_packed_avx2.cpp), same bytes.
uint8_t* pack32_avx2(uint8_t* dst, const uint32_t* row, int count);
uint8_t* pack16_avx2(uint8_t* dst, const uint16_t* row, int count);
const uint8_t* unpack32_avx2(uint32_t* row, int count, const uint8_t* src);
const uint8_t* unpack16_avx2(uint16_t* row, int count, const uint8_t* src);

// ---- 32-bit form --------------------------------------------------------------

uint8_t* pack32(uint8_t* d, const uint32_t* x, int n) {
  if (CodecUseAvx2) return pack32_avx2(d, x, n);
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t* control = d++;
    unsigned c = 0;
    for (int g = 0; g < 4; g++) {
      __m128i lo = load16b(x + i + 8 * g), hi = load16b(x + i + 8 * g + 4);
      int k = class_of(or_lanes32(_mm_or_si128(lo, hi)), 65536);
      c |= unsigned(k) << (2 * g);
      if (k == 1) {
        __m128i w = _mm_packus_epi32(lo, hi);
        store8b(d, _mm_packus_epi16(w, w));
        d += 8;
      } else if (k == 2) {
        store16b(d, _mm_packus_epi32(lo, hi));
        d += 16;
      } else if (k == 3) {
        store16b(d, lo);
        store16b(d + 16, hi);
        d += 32;
      }
    }
    *control = uint8_t(c);
  }
  for (; i < n; i += 8) d = pack32_tail_group(d, x + i, n - i < 8 ? n - i : 8);
  return d;
}

const uint8_t* unpack32(uint32_t* x, int n, const uint8_t* s) {
  if (CodecUseAvx2) return unpack32_avx2(x, n, s);
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t c = *s++;
    uint32_t* out = x + i;
    if (c == 0) {
      __m128i z = _mm_setzero_si128();
      for (int k = 0; k < 32; k += 4) store16b(out + k, z);
      continue;
    }
    if (c == 0x55) {
      for (int k = 0; k < 32; k += 16) {
        __m128i b = load16b(s + k);
        store16b(out + k, _mm_cvtepu8_epi32(b));
        store16b(out + k + 4, _mm_cvtepu8_epi32(_mm_srli_si128(b, 4)));
        store16b(out + k + 8, _mm_cvtepu8_epi32(_mm_srli_si128(b, 8)));
        store16b(out + k + 12, _mm_cvtepu8_epi32(_mm_srli_si128(b, 12)));
      }
      s += 32;
      continue;
    }
    for (int g = 0; g < 4; g++, out += 8) {
      switch ((c >> (2 * g)) & 3) {
        case 0:
          store16b(out, _mm_setzero_si128());
          store16b(out + 4, _mm_setzero_si128());
          break;
        case 1: {
          __m128i b = load8b(s);
          store16b(out, _mm_cvtepu8_epi32(b));
          store16b(out + 4, _mm_cvtepu8_epi32(_mm_srli_si128(b, 4)));
          s += 8;
          break;
        }
        case 2: {
          __m128i w = load16b(s);
          store16b(out, _mm_cvtepu16_epi32(w));
          store16b(out + 4, _mm_cvtepu16_epi32(_mm_srli_si128(w, 8)));
          s += 16;
          break;
        }
        default:
          memcpy(out, s, 32);
          s += 32;
      }
    }
  }
  for (; i < n; i += 8) {
    int m = n - i < 8 ? n - i : 8;
    int w = tail_width32(*s++);
    if (w == 4) {
      memcpy(x + i, s, size_t(m) * 4);
    } else if (w == 2) {
      for (int j = 0; j < m; j++) x[i + j] = load_u16(s + 2 * j);
    } else {
      for (int j = 0; j < m; j++) x[i + j] = s[j];
    }
    s += m * w;
  }
  return s;
}

// ---- 16-bit form --------------------------------------------------------------

uint8_t* pack16(uint8_t* d, const uint16_t* x, int n) {
  if (CodecUseAvx2) return pack16_avx2(d, x, n);
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t* control = d++;
    unsigned c = 0;
    for (int g = 0; g < 4; g++) {
      __m128i v = load16b(x + i + 8 * g);
      int k = class_of(or_lanes16(v), 4096);
      c |= unsigned(k) << (2 * g);
      if (k == 1) {
        store8b(d, _mm_packus_epi16(v, v));
        d += 8;
      } else if (k == 2) {
        // Pairs join into 24-bit lanes (v_even + v_odd * 4096), three bytes each.
        __m128i pairs = _mm_madd_epi16(v, _mm_set1_epi32((4096 << 16) | 1));
        __m128i bytes = _mm_shuffle_epi8(pairs, Take24);
        store8b(d, bytes);
        store_u32(d + 8, uint32_t(_mm_extract_epi32(bytes, 2)));
        d += 12;
      } else if (k == 3) {
        store16b(d, v);
        d += 16;
      }
    }
    *control = uint8_t(c);
  }
  for (; i < n; i += 8) d = pack16_tail_group(d, x + i, n - i < 8 ? n - i : 8);
  return d;
}

const uint8_t* unpack16(uint16_t* x, int n, const uint8_t* s) {
  if (CodecUseAvx2) return unpack16_avx2(x, n, s);
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t c = *s++;
    uint16_t* out = x + i;
    if (c == 0) {
      __m128i z = _mm_setzero_si128();
      for (int k = 0; k < 32; k += 8) store16b(out + k, z);
      continue;
    }
    if (c == 0x55) {
      for (int k = 0; k < 32; k += 16) {
        __m128i b = load16b(s + k);
        store16b(out + k, _mm_cvtepu8_epi16(b));
        store16b(out + k + 8, _mm_cvtepu8_epi16(_mm_srli_si128(b, 8)));
      }
      s += 32;
      continue;
    }
    for (int g = 0; g < 4; g++, out += 8) {
      switch ((c >> (2 * g)) & 3) {
        case 0:
          store16b(out, _mm_setzero_si128());
          break;
        case 1:
          store16b(out, _mm_cvtepu8_epi16(load8b(s)));
          s += 8;
          break;
        case 2: {
          __m128i b = _mm_insert_epi32(load8b(s), int(load_u32(s + 8)), 2);
          __m128i w = _mm_shuffle_epi8(b, Spread12);
          __m128i even = _mm_and_si128(w, _mm_set1_epi16(0x0fff));
          store16b(out, _mm_blend_epi16(even, _mm_srli_epi16(w, 4), 0xaa));
          s += 12;
          break;
        }
        default:
          memcpy(out, s, 16);
          s += 16;
      }
    }
  }
  for (; i < n; i += 8) {
    int m = n - i < 8 ? n - i : 8;
    int w = tail_width16(*s++);
    if (w == 2) {
      memcpy(x + i, s, size_t(m) * 2);
    } else {
      for (int j = 0; j < m; j++) x[i + j] = s[j];
    }
    s += m * w;
  }
  return s;
}

// ---- 24-bit form --------------------------------------------------------------

uint8_t* pack24(uint8_t* d, const uint32_t* x, int n) {
  const __m128i low24 = _mm_set1_epi32(0xffffff);
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t* control = d++;
    unsigned c = 0;
    for (int g = 0; g < 4; g++) {
      __m128i lo = _mm_and_si128(load16b(x + i + 8 * g), low24);
      __m128i hi = _mm_and_si128(load16b(x + i + 8 * g + 4), low24);
      int k = class_of(or_lanes32(_mm_or_si128(lo, hi)), 65536);
      c |= unsigned(k) << (2 * g);
      if (k == 1) {
        __m128i w = _mm_packus_epi32(lo, hi);
        store8b(d, _mm_packus_epi16(w, w));
        d += 8;
      } else if (k == 2) {
        store16b(d, _mm_packus_epi32(lo, hi));
        d += 16;
      } else if (k == 3) {
        __m128i a = _mm_shuffle_epi8(lo, Take24), b = _mm_shuffle_epi8(hi, Take24);
        store16b(d, _mm_or_si128(a, _mm_slli_si128(b, 12)));
        store8b(d + 16, _mm_srli_si128(b, 4));
        d += 24;
      }
    }
    *control = uint8_t(c);
  }
  for (; i < n; i += 8) {
    int m = n - i < 8 ? n - i : 8;
    uint32_t o = 0;
    for (int j = 0; j < m; j++) o |= x[i + j] & 0xffffff;
    uint8_t c = uint8_t((o >= 256 ? 1 : 0) | (o >= 65536 ? 2 : 0));
    *d++ = c;
    int w = tail_width24(c);
    for (int j = 0; j < m; j++, d += w) {
      if (w == 3)
        store_u24(d, x[i + j]);
      else if (w == 2)
        store_u16(d, uint16_t(x[i + j]));
      else
        *d = uint8_t(x[i + j]);
    }
  }
  return d;
}

const uint8_t* unpack24(uint32_t* x, int n, const uint8_t* s) {
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t c = *s++;
    uint32_t* out = x + i;
    if (c == 0) {
      __m128i z = _mm_setzero_si128();
      for (int k = 0; k < 32; k += 4) store16b(out + k, z);
      continue;
    }
    for (int g = 0; g < 4; g++, out += 8) {
      switch ((c >> (2 * g)) & 3) {
        case 0:
          store16b(out, _mm_setzero_si128());
          store16b(out + 4, _mm_setzero_si128());
          break;
        case 1: {
          __m128i b = load8b(s);
          store16b(out, _mm_cvtepu8_epi32(b));
          store16b(out + 4, _mm_cvtepu8_epi32(_mm_srli_si128(b, 4)));
          s += 8;
          break;
        }
        case 2: {
          __m128i w = load16b(s);
          store16b(out, _mm_cvtepu16_epi32(w));
          store16b(out + 4, _mm_cvtepu16_epi32(_mm_srli_si128(w, 8)));
          s += 16;
          break;
        }
        default:
          store16b(out, _mm_shuffle_epi8(load16b(s), Spread24));
          store16b(out + 4, _mm_shuffle_epi8(load16b(s + 8), Spread24High));
          s += 24;
      }
    }
  }
  for (; i < n; i += 8) {
    int m = n - i < 8 ? n - i : 8;
    int w = tail_width24(*s++);
    for (int j = 0; j < m; j++, s += w)
      x[i + j] = w == 3 ? load_u24(s) : w == 2 ? load_u16(s) : *s;
  }
  return s;
}

// ---- Sizes ----------------------------------------------------------------------

// A block of 32 costs a control byte and at most 32 full values; a tail group a
// control byte and its values.
static size_t bound(int count, size_t width) {
  if (count <= 0) return 0;
  size_t blocks = size_t(count) / 32, rest = size_t(count) % 32;
  return blocks * (1 + 32 * width) + (rest + 7) / 8 + rest * width;
}

size_t pack_bound32(int count) { return bound(count, 4); }
size_t pack_bound16(int count) { return bound(count, 2); }
size_t pack_bound24(int count) { return bound(count, 3); }

int64_t packed_size32(const uint8_t* src, size_t size, int count) {
  return measure<tail_width32>(src, size, count, Width32);
}
int64_t packed_size16(const uint8_t* src, size_t size, int count) {
  return measure<tail_width16>(src, size, count, Width16);
}
int64_t packed_size24(const uint8_t* src, size_t size, int count) {
  return measure<tail_width24>(src, size, count, Width24);
}
