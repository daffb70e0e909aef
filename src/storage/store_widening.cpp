// WideningStore: river strategy sums in 16 bits per group, widened once to
// 24 bits when the weights that a cell has taken could overflow 16 bits.
//
// A 16-bit group holds `span` values of two bytes; a wide group `span` values
// of three bytes, little-endian, with 11 spare bytes so that a reader may
// fetch 32 bits at the last value.
#include <cstring>
#include <stdexcept>

#include "storage/memory/allocation.h"
#include "storage/memory/fatal.h"
#include "storage/store.h"
#include "storage/store_cells.h"
#include "storage/store_kernels.h"

WideningStore::WideningStore(const StoreShape* shape_)
    : ShapedStore(shape_),
      data(size_t(shape_->group_count), nullptr),
      wide(size_t(shape_->group_count), 0),
      peaks(size_t(shape_->cell_count), 0.0f) {}

WideningStore::~WideningStore() {
  for (uint8_t* p : data) aligned_free_bytes(p);
}

bool WideningStore::materialise() {
  for (int32_t g = 0; g < shape->group_count; g++) {
    if (data[size_t(g)]) continue;
    size_t bytes = size_t(shape->group_spans[size_t(g)].span) * 2;
    uint8_t* p = static_cast<uint8_t*>(aligned_alloc_bytes(bytes + 16, RowAlignment));
    if (!p) return false;
    memset(p, 0, bytes + 16);
    data[size_t(g)] = p;
    wide[size_t(g)] = 0;
  }
  return true;
}

void WideningStore::widen(int32_t group) {
  uint8_t* old = data[size_t(group)];
  if (!old || wide[size_t(group)]) return;
  int32_t span = shape->group_spans[size_t(group)].span;
  uint8_t* p = static_cast<uint8_t*>(aligned_alloc_bytes(size_t(span) * 3 + 11, RowAlignment));
  if (!p) storage_fatal("out of memory");
  memset(p, 0, size_t(span) * 3 + 11);
  const uint16_t* v = reinterpret_cast<const uint16_t*>(old);
  for (int32_t i = 0; i < span; i++) store24(p + 3 * i, v[i]);
  aligned_free_bytes(old);
  data[size_t(group)] = p;
  wide[size_t(group)] = 1;
}

uint32_t WideningStore::value_at(int32_t group, int32_t cell, int32_t action, int32_t hand) const {
  const uint8_t* p = data[size_t(group)];
  if (!p) return 0;
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  int64_t at = c.offset - shape->group_spans[size_t(group)].base + int64_t(action) * align4(c.length) + hand;
  if (wide[size_t(group)]) return load24(p + 3 * at);
  return reinterpret_cast<const uint16_t*>(p)[at];
}

namespace {

// Offset in values of (action 0 of) a cell inside its group.
int64_t local_offset(const StoreShape& s, int32_t group, const StoreCell& c) {
  return c.offset - s.group_spans[size_t(group)].base;
}

}  // namespace

void WideningStore::read_strategy(HandVector* out, int32_t group, int32_t cell,
                                  const float* defaults) {
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  int32_t actions = shape->actions;
  int32_t n = c.length;
  uint8_t* p = data[size_t(group)];
  if (!p) {
    // No sums yet: every hand is all zero.
    float d = defaults && actions ? 1.0f / float(actions) : 0.0f;
    for (int32_t a = 0; a < actions; a++) {
      out[a].resize(n, true);
      for (int32_t i = 0; i < n; i++) out[a].data[i] = d;
    }
    return;
  }
  int64_t local = local_offset(*shape, group, c);
  int32_t stride = align4(n);
  if (!wide[size_t(group)]) {
    const uint16_t* rows[MaxStoreActions];
    const uint16_t* v = reinterpret_cast<const uint16_t*>(p) + local;
    for (int32_t a = 0; a < actions; a++) rows[a] = v + int64_t(a) * stride;
    match_sums_u16(rows, actions, n, defaults, out);
    return;
  }
  // 24-bit rows are unpacked one at a time: first for the sums, then for the
  // quotients.
  check_action_count(actions);
  const StoreKernels& k = store_kernels();
  alignas(64) uint32_t row[ScratchRowValues];
  alignas(64) float sum[ScratchRowValues];
  memset(sum, 0, sizeof(float) * size_t(n));
  const uint8_t* v = p + 3 * local;
  for (int32_t a = 0; a < actions; a++) {
    unpack_row24(row, v + 3 * int64_t(a) * stride, n);
    for (int32_t i = 0; i < n; i++) sum[i] += float(row[i]);
  }
  for (int32_t i = 0; i < n; i++) sum[i] = sum[i] == 0.0f ? 0.0f : 1.0f / sum[i];
  float d = defaults && actions ? 1.0f / float(actions) : 0.0f;
  for (int32_t a = 0; a < actions; a++) {
    out[a].resize(n, true);
    unpack_row24(row, v + 3 * int64_t(a) * stride, n);
    k.scale_u32(out[a].data, row, sum, d, n);
  }
}

void WideningStore::write_row(int32_t group, int32_t cell, int32_t action, const float* row) {
  if (action < 0 || action >= shape->actions || !materialise()) return;
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  int64_t at = local_offset(*shape, group, c) + int64_t(action) * align4(c.length);
  uint8_t* p = data[size_t(group)];
  if (wide[size_t(group)])
    store_row_u24(p + 3 * at, row, c.length);
  else
    store_row_u16(reinterpret_cast<uint16_t*>(p) + at, row, c.length);
}

void WideningStore::accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                                        const HandVector& reach, float weight) {
  if (!(weight > 0.0f) || !reach.data) return;
  int32_t index = shape->cell_index(group, cell);
  const CellLock& lock = lock_at(index);
  if ((lock.flags & CELL_LOCKED) || !data[size_t(group)]) return;
  const StoreCell& c = shape->cells[size_t(index)];
  int32_t n = c.length;
  int32_t actions = shape->actions;
  int32_t stride = align4(n);
  const StoreKernels& k = store_kernels();
  uint8_t scratch[ScratchRowValues];
  const uint8_t* mask = cell_mask(lock, n, scratch);

  alignas(64) float x[ScratchRowValues];
  float peak = k.weigh_reach(x, reach.data, weight, n);
  if (!wide[size_t(group)]) {
    // The sum of the peaks bounds every value of the cell: once it passes
    // 65535 the group must hold 24 bits before the values can overflow.
    float& cell_peak = peaks[size_t(index)];
    if (cell_peak >= 0.0f) {
      cell_peak += peak;
      if (cell_peak > 65535.0f) widen(group);
    }
  }
  int64_t local = local_offset(*shape, group, c);
  uint8_t* p = data[size_t(group)];
  if (!wide[size_t(group)]) {
    uint16_t* v = reinterpret_cast<uint16_t*>(p) + local;
    for (int32_t a = 0; a < actions; a++)
      if (strategy[a].data) k.accumulate_u16(v + int64_t(a) * stride, strategy[a].data, x, mask, n);
    return;
  }
  alignas(64) uint32_t row[ScratchRowValues];
  for (int32_t a = 0; a < actions; a++) {
    if (!strategy[a].data) continue;
    uint8_t* v = p + 3 * (local + int64_t(a) * stride);
    unpack_row24(row, v, n);
    k.accumulate_u32(row, strategy[a].data, x, 1.0f, mask, n);
    pack_row24(v, row, n);
  }
}

// Per group: its width byte, then each cell's rows in action order, each a
// 16-bit byte count and a packed row of 24 or 16 bits as the group is.
void WideningStore::save(ByteWriter& writer) {
  save_locks(writer);
  write_value<uint8_t>(writer, uint8_t(format));
  alignas(64) uint32_t row[ScratchRowValues];
  alignas(64) uint16_t row16[ScratchRowValues];
  for (int32_t g = 0; g < shape->group_count; g++) {
    write_value<uint8_t>(writer, wide[size_t(g)]);
    const StoreGroup& group = shape->groups[size_t(g)];
    for (int32_t ci = 0; ci < group.cell_count; ci++) {
      const StoreCell& c = shape->cells[size_t(group.first_cell + ci)];
      for (int32_t a = 0; a < shape->actions; a++) {
        for (int32_t i = 0; i < c.length; i++) row[i] = value_at(g, ci, a, i);
        if (wide[size_t(g)]) {
          save_packed_row24(writer, row, c.length);
        } else {
          for (int32_t i = 0; i < c.length; i++) row16[i] = uint16_t(row[i]);
          save_packed_row16(writer, row16, c.length);
        }
      }
    }
  }
}

void WideningStore::load(ByteSource& source) {
  load_locks(source);
  int32_t stored_format = read_value<uint8_t>(source);
  if (stored_format > format) throw std::runtime_error("ERROR: incompatible data\n");
  if (!materialise()) throw std::runtime_error("out of memory");
  alignas(64) uint32_t row[ScratchRowValues];
  alignas(64) uint16_t row16[ScratchRowValues];
  for (int32_t g = 0; g < shape->group_count; g++) {
    bool stored_wide = read_value<uint8_t>(source) != 0;
    if (stored_wide) widen(g);
    uint8_t* p = data[size_t(g)];
    const StoreGroup& group = shape->groups[size_t(g)];
    for (int32_t ci = 0; ci < group.cell_count; ci++) {
      const StoreCell& c = shape->cells[size_t(group.first_cell + ci)];
      int64_t local = local_offset(*shape, g, c);
      for (int32_t a = 0; a < shape->actions; a++) {
        int64_t at = local + int64_t(a) * align4(c.length);
        if (stored_wide) {
          load_packed_row24(source, row, c.length);
        } else {
          load_packed_row16(source, row16, c.length);
          for (int32_t i = 0; i < c.length; i++) row[i] = row16[i];
        }
        // A group already wide in memory keeps its width: groups never narrow.
        if (wide[size_t(g)])
          pack_row24(p + 3 * at, row, c.length);
        else
          memcpy(reinterpret_cast<uint16_t*>(p) + at, row16, size_t(c.length) * 2);
      }
    }
  }
}
