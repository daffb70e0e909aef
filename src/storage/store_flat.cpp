// ShapedStore and the flat river stores: FloatFlatStore (floats) and
// Word16FlatStore (16-bit fixed-point regrets), each one block of values
// committed at once.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <unordered_map>
#include <stdexcept>

#include "platform/platform.h"
#include "storage/memory/fatal.h"
#include "storage/store.h"
#include "storage/store_cells.h"

// ---- ShapedStore ----------------------------------------------------------------------

const CellLock ShapedStore::NoCellLock{};

ShapedStore::ShapedStore(const StoreShape* shape_) : shape(shape_) { check_action_count(shape->actions); }

ShapedStore::~ShapedStore() {
  for (CellLock& lock : locks) free_lock_mask(lock);
}

int32_t ShapedStore::row_length(int32_t group, int32_t cell) {
  return shape->cells[size_t(shape->cell_index(group, cell))].length;
}

int64_t ShapedStore::value_count(int32_t group) {
  if (group < 0) return shape->values;
  const StoreGroup& g = shape->groups[size_t(group)];
  int64_t hands = 0;
  for (int32_t c = 0; c < g.cell_count; c++) hands += shape->cells[size_t(g.first_cell + c)].length;
  return hands * shape->actions;
}

CellLock* ShapedStore::cell_lock_info(int32_t group, int32_t cell) {
  return locks.empty() ? nullptr : &locks[size_t(shape->cell_index(group, cell))];
}

CellLock* ShapedStore::cell_lock_to_set(int32_t group, int32_t cell) {
  if (locks.empty()) locks.resize(size_t(shape->cell_count));
  return &locks[size_t(shape->cell_index(group, cell))];
}

void ShapedStore::save_locks(ByteWriter& writer) const {
  if (!locks.empty()) {
    for (const CellLock& lock : locks) save_lock_record(writer, lock);
    return;
  }
  // Without records every cell's is the empty one: four zero bytes.
  const size_t zeros = sizeof ZeroRow;
  for (size_t left = size_t(shape->cell_count) * sizeof(uint32_t); left > 0;) {
    size_t k = std::min(left, zeros);
    writer.write(ZeroRow, k);
    left -= k;
  }
}

// The records are made when the file locks a cell.
void ShapedStore::load_locks(ByteSource& source) {
  for (int32_t i = 0; i < shape->cell_count; i++) {
    if (!locks.empty()) {
      load_lock_record(source, locks[size_t(i)]);
      continue;
    }
    CellLock lock;
    try {
      load_lock_record(source, lock);
    } catch (...) {
      free_lock_mask(lock);
      throw;
    }
    if (lock.flags == 0 && !lock.mask) continue;
    locks.resize(size_t(shape->cell_count));
    locks[size_t(i)] = lock;
  }
}

// ---- FlatStore ---------------------------------------------------------------------------

FlatStore::~FlatStore() {
  if (data && !release_address_space_checked(data, data_bytes)) storage_fatal("VirtualFree fail");
}

bool FlatStore::materialise() {
  if (data) return true;
  size_t bytes = size_t(shape->padded_values) * size_t(value_width());
  if (bytes == 0) return true;
  size_t page = page_size();
  bytes = (bytes + page - 1) / page * page;
  void* base = reserve_address_space(bytes);
  if (!base) return false;
  if (!commit_memory(base, bytes)) {
    release_address_space(base, bytes);
    return false;
  }
  // Fresh pages are zero: every value starts at 0.
  data = base;
  data_bytes = bytes;
  return true;
}

namespace {

// Fills each row with the defaults of its action: a store without values.
void default_rows(HandVector* out, int32_t actions, int32_t n, const float* defaults) {
  for (int32_t a = 0; a < actions; a++) {
    out[a].resize(n, true);
    for (int32_t i = 0; i < n; i++) out[a].data[i] = defaults ? defaults[a] : 0.0f;
  }
}

// Pointers to the rows of one cell of a flat block of values of type T.
template <typename T>
void cell_rows(T* block, const StoreCell& cell, int32_t actions, T** rows) {
  int32_t stride = align4(cell.length);
  for (int32_t a = 0; a < actions; a++) rows[a] = block + cell.offset + int64_t(a) * stride;
}

}  // namespace

// ---- FloatFlatStore -------------------------------------------------------------------------

void FloatFlatStore::read_strategy(HandVector* out, int32_t group, int32_t cell,
                                   const float* defaults) {
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  if (!data) return default_rows(out, shape->actions, c.length, defaults);
  float* rows[MaxStoreActions];
  cell_rows(values(), c, shape->actions, rows);
  match_rows_f32(rows, shape->actions, c.length, defaults, out);
}

void FloatFlatStore::write_row(int32_t group, int32_t cell, int32_t action, const float* row) {
  if (action < 0 || action >= shape->actions || !materialise() || !data) return;
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  float* dst = values() + c.offset + int64_t(action) * align4(c.length);
  if (row)
    memcpy(dst, row, size_t(c.length) * sizeof(float));
  else
    memset(dst, 0, size_t(c.length) * sizeof(float));
}

void FloatFlatStore::update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                                    const HandVector* action_rows, const HandGroupRuns*, double) {
  int32_t index = shape->cell_index(group, cell);
  const CellLock& lock = lock_at(index);
  if (!data || (lock.flags & CELL_LOCKED)) return;
  const StoreCell& c = shape->cells[size_t(index)];
  float* rows[MaxStoreActions];
  cell_rows(values(), c, shape->actions, rows);
  uint8_t scratch[ScratchRowValues];
  update_rows_f32(rows, shape->actions, c.length, baseline, action_rows,
                  cell_mask(lock, c.length, scratch));
}

void FloatFlatStore::accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                                         const HandVector& reach, float weight) {
  if (!(weight > 0.0f) || !reach.data || !data) return;
  int32_t index = shape->cell_index(group, cell);
  const CellLock& lock = lock_at(index);
  if (lock.flags & CELL_LOCKED) return;
  const StoreCell& c = shape->cells[size_t(index)];
  float* rows[MaxStoreActions];
  cell_rows(values(), c, shape->actions, rows);
  uint8_t scratch[ScratchRowValues];
  accumulate_rows_f32(rows, shape->actions, c.length, strategy, reach, weight,
                      cell_mask(lock, c.length, scratch), true);
}

// The rows of every cell in order, unpadded as the file has them: one piece a
// row, or one for a run of rows that lie back to back.
static std::vector<BytePiece> row_pieces(float* block, const StoreShape& shape) {
  std::vector<BytePiece> pieces;
  for (const StoreCell& c : shape.cells)
    for (int32_t a = 0; a < shape.actions; a++) {
      const size_t bytes = size_t(c.length) * sizeof(float);
      float* row = block ? block + c.offset + int64_t(a) * align4(c.length) : const_cast<float*>(ZeroRow);
      if (bytes == 0) continue;
      if (block && !pieces.empty() && static_cast<uint8_t*>(pieces.back().data) + pieces.back().count ==
                                          reinterpret_cast<uint8_t*>(row))
        pieces.back().count += bytes;
      else
        pieces.push_back({row, bytes});
    }
  return pieces;
}

void FloatFlatStore::save(ByteWriter& writer) {
  save_locks(writer);
  std::vector<BytePiece> pieces = row_pieces(data ? values() : nullptr, *shape);
  writer.write_pieces(pieces.data(), pieces.size());
}

void FloatFlatStore::load(ByteSource& source) {
  load_locks(source);
  if (!materialise()) throw std::runtime_error("out of memory");
  if (!data) return;  // a store without hands
  take_flat_pages(data, data_bytes);
  std::vector<BytePiece> pieces = row_pieces(values(), *shape);
  source.read_pieces(pieces.data(), pieces.size());
}

// ---- Word16FlatStore --------------------------------------------------------------------------

Word16FlatStore::Word16FlatStore(const StoreShape* shape_)
    : FlatStore(shape_), cell_factors(size_t(shape_->cell_count), 1.0f) {}

void Word16FlatStore::read_strategy(HandVector* out, int32_t group, int32_t cell,
                                    const float* defaults) {
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  if (!data) return default_rows(out, shape->actions, c.length, defaults);
  uint16_t* rows[MaxStoreActions];
  cell_rows(values(), c, shape->actions, rows);
  match_rows_u16(rows, shape->actions, c.length, defaults, out, false);
}

void Word16FlatStore::write_row(int32_t group, int32_t cell, int32_t action, const float* row) {
  if (action < 0 || action >= shape->actions || !materialise() || !data) return;
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  store_row_u16(values() + c.offset + int64_t(action) * align4(c.length), row, c.length);
}

void Word16FlatStore::update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                                     const HandVector* action_rows,
                                     const HandGroupRuns* groups_or_null, double scale) {
  int32_t index = shape->cell_index(group, cell);
  const CellLock& lock = lock_at(index);
  if (!data || (lock.flags & CELL_LOCKED)) return;
  const StoreCell& c = shape->cells[size_t(index)];
  uint16_t* rows[MaxStoreActions];
  cell_rows(values(), c, shape->actions, rows);
  uint8_t scratch[ScratchRowValues];
  update_rows_u16(rows, shape->actions, c.length, baseline, action_rows, groups_or_null, scale,
                  cell_factors[size_t(index)], cell_mask(lock, c.length, scratch));
}

void Word16FlatStore::save(ByteWriter& writer) {
  save_locks(writer);
  alignas(16) static const uint16_t zeros[ScratchRowValues] = {};
  for (const StoreCell& c : shape->cells)
    for (int32_t a = 0; a < shape->actions; a++) {
      const uint16_t* row = data ? values() + c.offset + int64_t(a) * align4(c.length) : zeros;
      save_packed_row16(writer, row, c.length);
    }
  writer.write(cell_factors.data(), cell_factors.size() * sizeof(float));
}

void Word16FlatStore::load(ByteSource& source) {
  load_locks(source);
  if (!materialise()) throw std::runtime_error("out of memory");
  if (data) take_flat_pages(data, data_bytes);
  for (const StoreCell& c : shape->cells)
    for (int32_t a = 0; a < shape->actions; a++) {
      uint16_t* row = values() + c.offset + int64_t(a) * align4(c.length);
      if (source.format >= 4)
        load_packed_row16(source, row, c.length);
      else
        source.read(row, size_t(c.length) * sizeof(uint16_t));
    }
  if (source.format >= 9)
    source.read(cell_factors.data(), cell_factors.size() * sizeof(float));
  else
    std::fill(cell_factors.begin(), cell_factors.end(), 1.0f);
}

// ---- Pages ahead of a load ------------------------------------------------------------

namespace {

enum : uint8_t { PAGES_FREE = 0, PAGES_TAKEN = 1, PAGES_DONE = 2 };

struct PagesAhead {
  std::vector<PageBlock> blocks;
  std::unique_ptr<std::atomic<uint8_t>[]> state;
  std::unordered_map<const void*, size_t> index;
  std::atomic<size_t> next{0};  // the next block to take in order
  std::thread worker;
};
PagesAhead Ahead;

bool claim(size_t i) {
  uint8_t free = PAGES_FREE;
  return Ahead.state[i].compare_exchange_strong(free, PAGES_TAKEN, std::memory_order_acq_rel);
}

void fill(size_t i) {
  populate_memory(Ahead.blocks[i].data, Ahead.blocks[i].bytes);
  Ahead.state[i].store(PAGES_DONE, std::memory_order_release);
}

}  // namespace

void start_pages_ahead(std::vector<PageBlock> blocks) {
  finish_pages_ahead();
  if (blocks.empty()) return;
  Ahead.blocks = std::move(blocks);
  const size_t n = Ahead.blocks.size();
  Ahead.state = std::make_unique<std::atomic<uint8_t>[]>(n);
  for (size_t i = 0; i < n; i++) {
    Ahead.state[i].store(PAGES_FREE, std::memory_order_relaxed);
    Ahead.index[Ahead.blocks[i].data] = i;
  }
  Ahead.worker = std::thread([n] {
    for (size_t i; (i = Ahead.next.fetch_add(1)) < n;)
      if (claim(i)) fill(i);
  });
}

void finish_pages_ahead() {
  // A load that failed half-way leaves blocks nobody will read: the helper
  // stops after the one it is on.
  Ahead.next.store(SIZE_MAX / 2);
  if (Ahead.worker.joinable()) Ahead.worker.join();
  Ahead.blocks.clear();
  Ahead.state.reset();
  Ahead.index.clear();
  Ahead.next = 0;
}

void take_flat_pages(void* data, size_t bytes) {
  auto it = Ahead.state ? Ahead.index.find(data) : Ahead.index.end();
  if (it == Ahead.index.end() || Ahead.blocks[it->second].bytes != bytes) {
    populate_memory(data, bytes);
    return;
  }
  const size_t i = it->second;
  if (claim(i)) return fill(i);
  // Faulting pages in costs more than the copy into them: rather than wait
  // for the helper, the reader takes the next block in order itself.
  while (Ahead.state[i].load(std::memory_order_acquire) != PAGES_DONE) {
    const size_t j = Ahead.next.fetch_add(1);
    if (j < Ahead.blocks.size()) {
      if (claim(j)) fill(j);
    } else {
      std::this_thread::yield();
    }
  }
}
