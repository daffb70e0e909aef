// Pieces of the packed block format that the baseline and AVX2 builds share:
// the tail groups. Fewer than 32 values at a row's end go in groups of up to
// eight, each a control byte that gives one width for all its values.
#pragma once
#include <cstring>

#include "storage/codec/codec.h"

// The control byte of a tail group from the OR of its values, and the width
// in bytes that a control byte gives.
struct Tail32 {  // bit 0: a value reaches 256; bit 1: one reaches 65536
  static uint32_t low(uint32_t v) { return v; }
  static uint8_t control(uint32_t o) { return uint8_t((o >= 256 ? 1 : 0) | (o >= 65536 ? 2 : 0)); }
  static int width(uint8_t c) { return (c & 2) ? 4 : (c & 1) ? 2 : 1; }
};
struct Tail16 {  // 1: bytes; anything else (3 when written): 16 bits
  static uint32_t low(uint32_t v) { return v; }
  static uint8_t control(uint32_t o) { return o < 256 ? 1 : 3; }
  static int width(uint8_t c) { return c == 1 ? 1 : 2; }
};
struct Tail24 {  // the 32-bit controls on the low 24 bits, 3 bytes for both high ones
  static uint32_t low(uint32_t v) { return v & 0xffffff; }
  static uint8_t control(uint32_t o) { return Tail32::control(o); }
  static int width(uint8_t c) { return c == 0 ? 1 : c == 1 ? 2 : 3; }
};

// A tail group of m (1 to 8) values; returns the end of the output.
template <class Tail, typename T>
inline uint8_t* pack_tail_group(uint8_t* d, const T* x, int m) {
  uint32_t o = 0;
  for (int j = 0; j < m; j++) o |= Tail::low(x[j]);
  const uint8_t c = Tail::control(o);
  *d++ = c;
  const int w = Tail::width(c);
  if (w == int(sizeof(T))) {
    memcpy(d, x, size_t(m) * sizeof(T));
    return d + m * w;
  }
  for (int j = 0; j < m; j++, d += w) {
    const uint32_t v = x[j];
    d[0] = uint8_t(v);
    if (w > 1) d[1] = uint8_t(v >> 8);
    if (w > 2) d[2] = uint8_t(v >> 16);
  }
  return d;
}

// The same group read back; returns the end of the input.
template <class Tail, typename T>
inline const uint8_t* unpack_tail_group(T* x, int m, const uint8_t* s) {
  const int w = Tail::width(*s++);
  if (w == int(sizeof(T))) {
    memcpy(x, s, size_t(m) * sizeof(T));
    return s + m * w;
  }
  for (int j = 0; j < m; j++, s += w) {
    uint32_t v = s[0];
    if (w > 1) v |= uint32_t(s[1]) << 8;
    if (w > 2) v |= uint32_t(s[2]) << 16;
    x[j] = T(v);
  }
  return s;
}
