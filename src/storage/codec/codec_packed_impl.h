// Pieces of the packed block format that the baseline and AVX2 builds share.
#pragma once
#include <cstring>

#include "storage/codec/codec.h"

// A 16-bit tail group of m (1 to 8) values: control byte 1 and a byte each
// when all are below 256, else 3 and 16 bits each. Returns the end.
inline uint8_t* pack16_tail_group(uint8_t* d, const uint16_t* x, int m) {
  uint32_t o = 0;
  for (int j = 0; j < m; j++) o |= x[j];
  if (o < 256) {
    *d++ = 1;
    for (int j = 0; j < m; j++) *d++ = uint8_t(x[j]);
    return d;
  }
  *d++ = 3;
  memcpy(d, x, size_t(m) * 2);
  return d + m * 2;
}

// A 32-bit tail group of m (1 to 8) values: control bit 0 set when a value
// reaches 256, bit 1 when one reaches 65536; then 1, 2 or 4 bytes each.
inline uint8_t* pack32_tail_group(uint8_t* d, const uint32_t* x, int m) {
  uint32_t o = 0;
  for (int j = 0; j < m; j++) o |= x[j];
  const uint8_t c = uint8_t((o >= 256 ? 1 : 0) | (o >= 65536 ? 2 : 0));
  *d++ = c;
  if (c & 2) {
    memcpy(d, x, size_t(m) * 4);
    return d + m * 4;
  }
  if (c & 1) {
    for (int j = 0; j < m; j++, d += 2) {
      const uint16_t v = uint16_t(x[j]);
      memcpy(d, &v, 2);
    }
    return d;
  }
  for (int j = 0; j < m; j++) *d++ = uint8_t(x[j]);
  return d;
}
