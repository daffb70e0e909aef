// A piece of the packed block format that the baseline and AVX2 builds share.
#pragma once
#include <cstring>

#include "storage/codec.h"

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
