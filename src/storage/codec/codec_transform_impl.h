// The row transform's frame, shared by the baseline and the wide builds: the
// first entry, the scalar tail and the choice of order are written once, and
// each build gives its own vector step over Width entries.
#pragma once
#include "storage/codec/codec.h"

// first_order(i) writes a[i .. i + Width) for a row without reference;
// both_orders(i, first_nonzero, second_nonzero) writes a and b there and adds
// their non-zero counts.
template <int Width, typename T, typename FirstOrder, typename BothOrders>
bool transform_frame(const T* x, const T* r, int n, uint32_t* a, uint32_t* b, bool halve_first,
                     FirstOrder&& first_order, BothOrders&& both_orders) {
  if (n <= 0) return false;
  if (!r) {
    a[0] = halve_first ? uint32_t(x[0]) * 2 : zigzag32(x[0]);
    int i = 1;
    for (; i + Width <= n; i += Width) first_order(i);
    for (; i < n; i++) a[i] = zigzag32(uint32_t(x[i]) - uint32_t(x[i - 1]));
    return false;
  }
  a[0] = b[0] = zigzag32(uint32_t(x[0]) - uint32_t(r[0]));
  // Entry 0 is the same in both orders, so only the rest is counted.
  int first_nonzero = 0, second_nonzero = 0;
  int i = 1;
  for (; i + Width <= n; i += Width) both_orders(i, first_nonzero, second_nonzero);
  for (; i < n; i++) {
    uint32_t dx = uint32_t(x[i]) - uint32_t(x[i - 1]);
    uint32_t dr = uint32_t(r[i]) - uint32_t(r[i - 1]);
    a[i] = zigzag32(dx);
    b[i] = zigzag32(dx - dr);
    first_nonzero += a[i] != 0;
    second_nonzero += b[i] != 0;
  }
  return second_nonzero < first_nonzero;
}
