// Row operations of one cell, on top of the vector kernels: regret matching
// with its default rules, the regret updates with fixed point, group
// averaging and adaptive precision, the strategy sums, and the row forms of
// the stored tree.
#include "storage/store_cells.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "storage/store_kernels.h"
#include "core/core.h"
#include "storage/memory/fatal.h"

alignas(64) const float ZeroRow[ScratchRowValues] = {};

void check_action_count(int32_t actions) {
  if (actions < 0 || actions > MaxStoreActions) storage_fatal("too many actions");
}

const uint8_t* cell_mask(const CellLock& lock, int32_t n, uint8_t* scratch) {
  if (!(lock.flags & CELL_MASKED) || !lock.mask) return nullptr;
  if (lock.mask_length >= n) return lock.mask;
  memcpy(scratch, lock.mask, size_t(lock.mask_length));
  memset(scratch + lock.mask_length, 0, size_t(n - lock.mask_length));
  return scratch;
}

// ---- Regret matching ---------------------------------------------------------------

namespace {

void size_rows(HandVector* out, int32_t actions, int32_t n) {
  for (int32_t a = 0; a < actions; a++) out[a].resize(n, true);
}

float* const* out_pointers(HandVector* out, int32_t actions, float** ptrs) {
  for (int32_t a = 0; a < actions; a++) ptrs[a] = out[a].data;
  return ptrs;
}

}  // namespace

void match_rows_f32(const float* const* rows, int32_t actions, int32_t n, const float* defaults,
                    HandVector* out) {
  check_action_count(actions);
  size_rows(out, actions, n);
  if (n == 0) return;
  const StoreKernels& k = store_kernels();
  float* r[MaxStoreActions];
  out_pointers(out, actions, r);
  if (actions == 1) {
    // x / x is exactly one wherever there is a value.
    for (int32_t i = 0; i < n; i++) r[0][i] = rows[0][i] >= FLT_MIN ? 1.0f : defaults[0];
  } else if (actions == 2) {
    k.match2_f32(rows, n, defaults, r);
  } else if (actions == 3) {
    k.match3_f32(rows, n, defaults, r);
  } else {
    alignas(64) float recip[ScratchRowValues];
    k.reciprocal_f32(recip, rows, actions, n);
    for (int32_t a = 0; a < actions; a++) k.scale_f32(r[a], rows[a], recip, defaults[a], n);
  }
}

void match_rows_u16(const uint16_t* const* rows, int32_t actions, int32_t n,
                    const float* defaults, HandVector* out, bool four_at_once) {
  check_action_count(actions);
  size_rows(out, actions, n);
  if (n == 0) return;
  const StoreKernels& k = store_kernels();
  float* r[MaxStoreActions];
  out_pointers(out, actions, r);
  if (actions == 1) {
    for (int32_t i = 0; i < n; i++) r[0][i] = rows[0][i] ? 1.0f : defaults[0];
  } else if (actions == 2) {
    k.match2_u16(rows[0], rows[1], n, defaults[0], r[0], r[1]);
  } else if (actions == 3) {
    k.match3_u16(rows, n, defaults, r);
  } else if (actions == 4 && four_at_once) {
    k.match4_u16(rows, n, defaults, r);
  } else {
    alignas(64) float recip[ScratchRowValues];
    k.reciprocal_u16(recip, rows, actions, n);
    for (int32_t a = 0; a < actions; a++) k.scale_u16(r[a], rows[a], recip, defaults[a], n);
  }
}

void match_rows_u32(const uint32_t* const* rows, int32_t actions, int32_t n,
                    const float* defaults, HandVector* out) {
  check_action_count(actions);
  size_rows(out, actions, n);
  if (n == 0 || actions == 0) return;
  const StoreKernels& k = store_kernels();
  float* r[MaxStoreActions];
  out_pointers(out, actions, r);
  float d = defaults ? 1.0f / float(actions) : 0.0f;
  alignas(64) float recip[ScratchRowValues];
  k.reciprocal_u32(recip, rows, actions, n);
  for (int32_t a = 0; a < actions; a++) k.scale_u32(r[a], rows[a], recip, d, n);
}

void match_sums_u16(const uint16_t* const* rows, int32_t actions, int32_t n,
                    const float* defaults, HandVector* out) {
  check_action_count(actions);
  size_rows(out, actions, n);
  if (n == 0 || actions == 0) return;
  const StoreKernels& k = store_kernels();
  float* r[MaxStoreActions];
  out_pointers(out, actions, r);
  float d = defaults ? 1.0f / float(actions) : 0.0f;
  alignas(64) float recip[ScratchRowValues];
  k.reciprocal_u16(recip, rows, actions, n);
  for (int32_t a = 0; a < actions; a++) k.scale_u16(r[a], rows[a], recip, d, n);
}

// ---- Regret updates ---------------------------------------------------------------------

void update_rows_f32(float* const* rows, int32_t actions, int32_t n, const HandVector& baseline,
                     const HandVector* action_rows, const uint8_t* mask) {
  const StoreKernels& k = store_kernels();
  const float* base = row_or_zero(baseline);
  for (int32_t a = 0; a < actions; a++) k.regret_f32(rows[a], row_or_zero(action_rows[a]), base, mask, n);
}

void average_runs(uint16_t* row, int32_t n, const HandGroupRuns& groups, const uint8_t* mask) {
  int32_t pos = 0;
  for (int32_t g = 0; g < groups.count && pos < n; g++) {
    int32_t len = groups.lengths[g];
    if (len <= 0) continue;
    if (len > n - pos) len = n - pos;
    uint16_t* v = row + pos;
    pos += len;
    if (len == 1) continue;
    uint32_t sum = 0;
    uint32_t count = 0;
    for (int32_t i = 0; i < len; i++) {
      if (mask && mask[v - row + i]) continue;
      sum += v[i];
      count++;
    }
    if (count == 0) continue;
    uint16_t mean = uint16_t(sum / count);
    for (int32_t i = 0; i < len; i++) {
      if (mask && mask[v - row + i]) continue;
      v[i] = mean;
    }
  }
}

double rescale_rows_u16(uint16_t* const* rows, int32_t actions, int32_t n, float& cell_factor) {
  uint32_t m = 0;
  for (int32_t a = 0; a < actions; a++) {
    const uint16_t* v = rows[a];
    uint16_t top = 0;
    for (int32_t i = 0; i < n; i++) top = v[i] > top ? v[i] : top;
    if (top > m) m = top;
  }
  if (m == 0) return 1.0;
  double target = std::exp2(Precision) * 1024.0;
  double f;
  if (double(m) < target && cell_factor <= 32.0f) {
    f = std::exp2(std::ceil(std::log2(target / double(m))));
    if (f > 8.0) f = 8.0;
  } else if (m > 60000) {
    f = 0.5;
  } else {
    return 1.0;
  }
  cell_factor = float(double(cell_factor) * f);
  int shift = f == 2.0 ? 1 : f == 4.0 ? 2 : f == 8.0 ? 3 : 0;
  for (int32_t a = 0; a < actions; a++) {
    uint16_t* v = rows[a];
    if (shift) {
      for (int32_t i = 0; i < n; i++) v[i] = uint16_t(v[i] << shift);
    } else {
      float ff = float(f);
      for (int32_t i = 0; i < n; i++) v[i] = uint16_t(uint32_t(ff * float(v[i])));
    }
  }
  return f;
}

void update_rows_u16(uint16_t* const* rows, int32_t actions, int32_t n, const HandVector& baseline,
                     const HandVector* action_rows, const HandGroupRuns* groups, double scale,
                     float& cell_factor, const uint8_t* mask) {
  const StoreKernels& k = store_kernels();
  // The fixed point: a regret d is held as (s d)^0.75, so p = s^0.75 scales
  // |d|^0.75 and anything below 1 / s vanishes.
  float s = float(AdaptivePrecision ? scale * double(cell_factor) : scale);
  float p = std::pow(s, 0.75f);
  float t = 1.0f / s;
  const float* base = row_or_zero(baseline);
  for (int32_t a = 0; a < actions; a++) {
    k.regret_u16(rows[a], row_or_zero(action_rows[a]), base, mask, n, p, t);
    if (groups) average_runs(rows[a], n, *groups, mask);
  }
  if (AdaptivePrecision && RegretIteration % 10 == 0) rescale_rows_u16(rows, actions, n, cell_factor);
}

// ---- Sums -------------------------------------------------------------------------------

void accumulate_rows_f32(float* const* rows, int32_t actions, int32_t n, const HandVector* strategy,
                         const HandVector& reach, float weight, const uint8_t* mask,
                         bool prescale) {
  const StoreKernels& k = store_kernels();
  if (prescale && actions > 4) {
    alignas(64) float x[ScratchRowValues];
    k.weigh_reach(x, reach.data, weight, n);
    for (int32_t a = 0; a < actions; a++)
      if (strategy[a].data) k.accumulate_f32_x(rows[a], strategy[a].data, x, mask, n);
    return;
  }
  for (int32_t a = 0; a < actions; a++)
    if (strategy[a].data) k.accumulate_f32(rows[a], strategy[a].data, reach.data, weight, mask, n);
}

void accumulate_rows_u32(uint32_t* const* rows, int32_t actions, int32_t n,
                         const HandVector* strategy, const HandVector& reach, float weight,
                         const uint8_t* mask) {
  const StoreKernels& k = store_kernels();
  for (int32_t a = 0; a < actions; a++)
    if (strategy[a].data) k.accumulate_u32(rows[a], strategy[a].data, reach.data, weight, mask, n);
}

// ---- write_row --------------------------------------------------------------------------

void store_row_u16(uint16_t* dst, const float* row, int32_t n) {
  for (int32_t i = 0; i < n; i++) {
    float x = row ? row[i] : 0.0f;
    dst[i] = x >= 65535.0f ? 65535 : x > 0.0f ? uint16_t(x) : 0;
  }
}

void store_row_u32(uint32_t* dst, const float* row, int32_t n) {
  for (int32_t i = 0; i < n; i++) {
    float x = row ? row[i] : 0.0f;
    dst[i] = x >= 4294967296.0f ? 0xffffffffu : x > 0.0f ? uint32_t(x) : 0;
  }
}

void store_row_u24(uint8_t* dst, const float* row, int32_t n) {
  for (int32_t i = 0; i < n; i++) {
    float x = row ? row[i] : 0.0f;
    store24(dst + 3 * i, x >= 16777215.0f ? 0xffffffu : x > 0.0f ? uint32_t(x) : 0);
  }
}

void unpack_row24(uint32_t* dst, const uint8_t* src, int32_t n) {
  for (int32_t i = 0; i < n; i++) dst[i] = load24(src + 3 * i);
}

void pack_row24(uint8_t* dst, const uint32_t* src, int32_t n) {
  for (int32_t i = 0; i < n; i++) store24(dst + 3 * i, src[i]);
}

// ---- Stored rows -------------------------------------------------------------------------

namespace {

// Room for the worst case of any row with slack for the packers.
constexpr size_t RowBytes = MaxRowValues * 4 + 256;

void check_row_length(int32_t n) {
  if (n < 0 || n > MaxRowValues) throw std::runtime_error("corrupt store data");
}

void write_counted(ByteWriter& writer, const uint8_t* bytes, size_t size) {
  if (size > 0xffff) storage_fatal("row too long");
  write_value<uint16_t>(writer, uint16_t(size));
  writer.write(bytes, size);
}

// Reads a counted row and checks that its bytes hold exactly `n` values.
template <typename Measure>
size_t read_counted(ByteSource& source, uint8_t* bytes, int32_t n, Measure measure) {
  size_t size = read_value<uint16_t>(source);
  if (size > RowBytes - 64) throw std::runtime_error("corrupt store data");
  source.read(bytes, size);
  memset(bytes + size, 0, 64);
  if (measure(bytes, size, n) != int64_t(size)) throw std::runtime_error("corrupt store data");
  return size;
}

}  // namespace

void save_packed_row16(ByteWriter& writer, const uint16_t* row, int32_t n) {
  check_row_length(n);
  alignas(16) uint8_t bytes[RowBytes];
  uint8_t* end = pack16(bytes, row, n);
  write_counted(writer, bytes, size_t(end - bytes));
}

void load_packed_row16(ByteSource& source, uint16_t* row, int32_t n) {
  check_row_length(n);
  alignas(16) uint8_t bytes[RowBytes];
  read_counted(source, bytes, n, packed_size16);
  unpack16(row, n, bytes);
}

void save_packed_row24(ByteWriter& writer, const uint32_t* row, int32_t n) {
  check_row_length(n);
  alignas(16) uint8_t bytes[RowBytes];
  uint8_t* end = pack24(bytes, row, n);
  write_counted(writer, bytes, size_t(end - bytes));
}

void load_packed_row24(ByteSource& source, uint32_t* row, int32_t n) {
  check_row_length(n);
  alignas(16) uint8_t bytes[RowBytes];
  read_counted(source, bytes, n, packed_size24);
  unpack24(row, n, bytes);
}
