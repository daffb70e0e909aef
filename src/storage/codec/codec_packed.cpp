// The packed block format (layout at the top of codec.h): one writer and one
// reader for the 32-, 16- and 24-bit forms, which differ only in what a
// form's class 2 and 3 hold and in their tail groups. Every load and store
// touches only the bytes of the group it works on, so a reader never runs
// past its row.
#include <nmmintrin.h>

#include <cstring>

#include "storage/codec/codec.h"
#include "storage/codec/codec_isa.h"
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

// ---- The forms ------------------------------------------------------------------
// A form names its value type, the border of class 3 (class 1 ends at 256),
// the payload widths of the classes, its tail groups, and how a group of
// eight is loaded, written in a class and read back from one. A group is
// loaded once: its OR gives the class, then the same registers are written.

// 32-bit values: bytes, 16 bits or 32 bits.
struct Form32 {
  using T = uint32_t;
  using Tail = Tail32;
  static constexpr uint32_t Border = 65536;
  static constexpr int Widths[4] = {0, 8, 16, 32};
  static constexpr size_t FullWidth = 4;
  struct Group {
    __m128i lo, hi;
  };
  static Group load(const T* x) { return {load16b(x), load16b(x + 4)}; }
  static uint32_t largest(const Group& v) { return or_lanes32(_mm_or_si128(v.lo, v.hi)); }
  static void put_bytes(uint8_t* d, const Group& v) {
    const __m128i w = _mm_packus_epi32(v.lo, v.hi);
    store8b(d, _mm_packus_epi16(w, w));
  }
  static void put(uint8_t* d, const Group& v, int k) {
    if (k == 1) put_bytes(d, v);
    else if (k == 2) store16b(d, _mm_packus_epi32(v.lo, v.hi));
    else if (k == 3) {
      store16b(d, v.lo);
      store16b(d + 16, v.hi);
    }
  }
  // Eight values from eight bytes at s.
  static void get_bytes(T* out, const uint8_t* s) {
    const __m128i b = load8b(s);
    store16b(out, _mm_cvtepu8_epi32(b));
    store16b(out + 4, _mm_cvtepu8_epi32(_mm_srli_si128(b, 4)));
  }
  static void get(T* out, const uint8_t* s, int k) {
    switch (k) {
      case 0:
        store16b(out, _mm_setzero_si128());
        store16b(out + 4, _mm_setzero_si128());
        break;
      case 1: get_bytes(out, s); break;
      case 2: {
        const __m128i w = load16b(s);
        store16b(out, _mm_cvtepu16_epi32(w));
        store16b(out + 4, _mm_cvtepu16_epi32(_mm_srli_si128(w, 8)));
        break;
      }
      default: memcpy(out, s, 32);
    }
  }
};

// 16-bit values: bytes, 12 bits or 16 bits.
struct Form16 {
  using T = uint16_t;
  using Tail = Tail16;
  static constexpr uint32_t Border = 4096;
  static constexpr int Widths[4] = {0, 8, 12, 16};
  static constexpr size_t FullWidth = 2;
  using Group = __m128i;
  static Group load(const T* x) { return load16b(x); }
  static uint32_t largest(const Group& v) { return or_lanes16(v); }
  static void put(uint8_t* d, const Group& v, int k) {
    if (k == 1) {
      store8b(d, _mm_packus_epi16(v, v));
    } else if (k == 2) {
      // Pairs join into 24-bit lanes (v_even + v_odd * 4096), three bytes each.
      const __m128i pairs = _mm_madd_epi16(v, _mm_set1_epi32((4096 << 16) | 1));
      const __m128i bytes = _mm_shuffle_epi8(pairs, Take24);
      store8b(d, bytes);
      store_u32(d + 8, uint32_t(_mm_extract_epi32(bytes, 2)));
    } else if (k == 3) {
      store16b(d, v);
    }
  }
  static void get_bytes(T* out, const uint8_t* s) { store16b(out, _mm_cvtepu8_epi16(load8b(s))); }
  static void get(T* out, const uint8_t* s, int k) {
    switch (k) {
      case 0: store16b(out, _mm_setzero_si128()); break;
      case 1: get_bytes(out, s); break;
      case 2: {
        const __m128i b = _mm_insert_epi32(load8b(s), int(load_u32(s + 8)), 2);
        const __m128i w = _mm_shuffle_epi8(b, Spread12);
        const __m128i even = _mm_and_si128(w, _mm_set1_epi16(0x0fff));
        store16b(out, _mm_blend_epi16(even, _mm_srli_epi16(w, 4), 0xaa));
        break;
      }
      default: memcpy(out, s, 16);
    }
  }
};

// The low 24 bits of 32-bit values: the 32-bit form with 24 bits in class 3.
struct Form24 : Form32 {
  using Tail = Tail24;
  static constexpr int Widths[4] = {0, 8, 16, 24};
  static constexpr size_t FullWidth = 3;
  static Group load(const T* x) {
    const __m128i low24 = _mm_set1_epi32(0xffffff);
    return {_mm_and_si128(load16b(x), low24), _mm_and_si128(load16b(x + 4), low24)};
  }
  static void put(uint8_t* d, const Group& v, int k) {
    if (k < 3) return Form32::put(d, v, k);
    const __m128i a = _mm_shuffle_epi8(v.lo, Take24), b = _mm_shuffle_epi8(v.hi, Take24);
    store16b(d, _mm_or_si128(a, _mm_slli_si128(b, 12)));
    store8b(d + 16, _mm_srli_si128(b, 4));
  }
  static void get(T* out, const uint8_t* s, int k) {
    if (k < 3) return Form32::get(out, s, k);
    store16b(out, _mm_shuffle_epi8(load16b(s), Spread24));
    store16b(out + 4, _mm_shuffle_epi8(load16b(s + 8), Spread24High));
  }
};

inline int class_of(uint32_t m, uint32_t border) {
  return int(m != 0) + int(m >= 256) + int(m >= border);
}

// ---- Writer and reader ----------------------------------------------------------

template <class F>
uint8_t* pack_row(uint8_t* d, const typename F::T* x, int n) {
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    uint8_t* control = d++;
    unsigned c = 0;
    for (int g = 0; g < 4; g++) {
      const typename F::Group v = F::load(x + i + 8 * g);
      const int k = class_of(F::largest(v), F::Border);
      c |= unsigned(k) << (2 * g);
      F::put(d, v, k);
      d += F::Widths[k];
    }
    *control = uint8_t(c);
  }
  for (; i < n; i += 8) d = pack_tail_group<typename F::Tail>(d, x + i, n - i < 8 ? n - i : 8);
  return d;
}

template <class F>
const uint8_t* unpack_row(typename F::T* x, int n, const uint8_t* s) {
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    const uint8_t c = *s++;
    typename F::T* out = x + i;
    // Two control bytes are common enough to skip the per-group switch:
    // 32 zeros, and 32 bytes.
    if (c == 0) {
      memset(out, 0, 32 * sizeof(typename F::T));
      continue;
    }
    if (c == 0x55) {
      for (int g = 0; g < 4; g++) F::get_bytes(out + 8 * g, s + 8 * g);
      s += 32;
      continue;
    }
    for (int g = 0; g < 4; g++, out += 8) {
      const int k = (c >> (2 * g)) & 3;
      F::get(out, s, k);
      s += F::Widths[k];
    }
  }
  for (; i < n; i += 8) s = unpack_tail_group<typename F::Tail>(x + i, n - i < 8 ? n - i : 8, s);
  return s;
}

// Bytes a packed row takes, from its control bytes alone; -1 past `size`.
template <class F>
int64_t measure(const uint8_t* src, size_t size, int count) {
  size_t at = 0;
  int i = 0;
  for (; i + 32 <= count; i += 32) {
    if (at >= size) return -1;
    const uint8_t c = src[at++];
    for (int g = 0; g < 4; g++) at += F::Widths[(c >> (2 * g)) & 3];
    if (at > size) return -1;
  }
  for (; i < count; i += 8) {
    const int m = count - i < 8 ? count - i : 8;
    if (at >= size) return -1;
    at += 1 + size_t(m) * F::Tail::width(src[at]);
    if (at > size) return -1;
  }
  return int64_t(at);
}

// A block of 32 costs a control byte and at most 32 full values; a tail group a
// control byte and its values.
template <class F>
size_t bound(int count) {
  if (count <= 0) return 0;
  const size_t blocks = size_t(count) / 32, rest = size_t(count) % 32;
  return blocks * (1 + 32 * F::FullWidth) + (rest + 7) / 8 + rest * F::FullWidth;
}

}  // namespace

// The 32- and 16-bit forms have AVX2 builds (codec_packed_avx2.cpp).
uint8_t* pack32(uint8_t* dst, const uint32_t* row, int count) { return codec_kernels().pack32(dst, row, count); }
uint8_t* pack16(uint8_t* dst, const uint16_t* row, int count) { return codec_kernels().pack16(dst, row, count); }
uint8_t* pack24(uint8_t* dst, const uint32_t* row, int count) { return pack_row<Form24>(dst, row, count); }
const uint8_t* unpack32(uint32_t* row, int count, const uint8_t* src) {
  return codec_kernels().unpack32(row, count, src);
}
const uint8_t* unpack16(uint16_t* row, int count, const uint8_t* src) {
  return codec_kernels().unpack16(row, count, src);
}
const uint8_t* unpack24(uint32_t* row, int count, const uint8_t* src) { return unpack_row<Form24>(row, count, src); }

uint8_t* pack32_baseline(uint8_t* dst, const uint32_t* row, int count) { return pack_row<Form32>(dst, row, count); }
uint8_t* pack16_baseline(uint8_t* dst, const uint16_t* row, int count) { return pack_row<Form16>(dst, row, count); }
const uint8_t* unpack32_baseline(uint32_t* row, int count, const uint8_t* src) {
  return unpack_row<Form32>(row, count, src);
}
const uint8_t* unpack16_baseline(uint16_t* row, int count, const uint8_t* src) {
  return unpack_row<Form16>(row, count, src);
}

size_t pack_bound32(int count) { return bound<Form32>(count); }
size_t pack_bound16(int count) { return bound<Form16>(count); }
size_t pack_bound24(int count) { return bound<Form24>(count); }

int64_t packed_size32(const uint8_t* src, size_t size, int count) { return measure<Form32>(src, size, count); }
int64_t packed_size16(const uint8_t* src, size_t size, int count) { return measure<Form16>(src, size, count); }
int64_t packed_size24(const uint8_t* src, size_t size, int count) { return measure<Form24>(src, size, count); }
