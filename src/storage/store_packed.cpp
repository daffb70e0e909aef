// PackedStore: river groups that exist as compressed rows in an Arena and are
// decompressed into a buffer only while a thread works on them.
//
// Row order inside a group, for reading and writing alike: for each action,
// for each cell of the group in order, the cell's row of that action. A row's
// reference is the same action's row of the cell before, when there is one and
// the row is not longer than it: neighbouring river cards give nearly equal
// rows, which the codecs exploit.
#include <cstring>
#include <stdexcept>

#include "storage/arena.h"
#include "storage/memory/allocation.h"
#include "storage/memory/fatal.h"
#include "storage/store.h"
#include "storage/store_cells.h"

PackedStore::PackedStore(const StoreShape* shape_, int32_t level_, bool wide16_)
    : ShapedStore(shape_),
      buffers(size_t(shape_->group_count), nullptr),
      arenas(size_t(shape_->group_count), nullptr),
      cell_factors(wide16_ ? size_t(shape_->cell_count) : 0, 1.0f),
      level(level_),
      wide16(wide16_) {}

PackedStore::~PackedStore() {
  for (void* p : buffers) aligned_free_bytes(p);
  for (Arena* a : arenas) delete a;
}

Arena* PackedStore::make_arena(int64_t size) const {
  if (level == 1) return new PackedArena(size, bytes_per_value());
  return new EntropyArena(size);
}

namespace {

[[noreturn]] void not_open() { storage_fatal("not open"); }

// Where (cell, action) of an open group starts in the group's buffer, in values.
inline int64_t row_at(const StoreShape& s, int32_t group, const StoreCell& c, int32_t action) {
  return c.offset - s.group_spans[size_t(group)].base + int64_t(action) * align4(c.length);
}

// The rows of a group in their stored order (see the top of the file), each
// with where it starts, where its reference starts (-1 for none) and its
// length. Reading and writing both walk this one order, so the row stored
// against each row is the same in both directions.
template <typename Visit>
void for_each_group_row(const StoreShape& s, int32_t group, Visit&& visit) {
  const StoreGroup& g = s.groups[size_t(group)];
  for (int32_t act = 0; act < s.actions; act++) {
    for (int32_t ci = 0; ci < g.cell_count; ci++) {
      const StoreCell& c = s.cells[size_t(g.first_cell + ci)];
      const StoreCell* prev = ci > 0 ? &s.cells[size_t(g.first_cell + ci - 1)] : nullptr;
      const bool referenced = prev && c.length <= prev->length;
      visit(row_at(s, group, c, act), referenced ? row_at(s, group, *prev, act) : -1, c.length);
    }
  }
}

}  // namespace

Arena* PackedStore::open_group(Arena* arena, int32_t group, int64_t size) {
  Arena* a = arena;
  if (!a) {
    Arena*& own = arenas[size_t(group)];
    if (!own) own = make_arena(size);
    a = own;
    if (a->has_data()) a->begin_read();
  }
  int32_t span = shape->group_spans[size_t(group)].span;
  size_t bytes = size_t(span) * size_t(bytes_per_value());
  void*& buffer = buffers[size_t(group)];
  if (!buffer) {
    buffer = aligned_alloc_bytes(bytes ? bytes : 16, GroupAlignment);
    if (!buffer) storage_fatal("out of memory");
  }
  if (!a->has_data()) {
    memset(buffer, 0, bytes);
    return a;
  }
  for_each_group_row(*shape, group, [&](int64_t at, int64_t ref_at, int32_t length) {
    if (wide16) {
      uint16_t* v = group16(group);
      a->read_row16(v + at, ref_at >= 0 ? v + ref_at : nullptr, length);
    } else {
      uint32_t* v = group32(group);
      a->read_row32(v + at, ref_at >= 0 ? v + ref_at : nullptr, length);
    }
  });
  return a;
}

Arena* PackedStore::close_group(Arena* arena, int32_t group, bool keep) {
  void*& buffer = buffers[size_t(group)];
  if (!buffer) return nullptr;
  if (!keep) {
    aligned_free_bytes(buffer);
    buffer = nullptr;
    return arena;
  }
  Arena* a = arena;
  if (!a) {
    Arena*& own = arenas[size_t(group)];
    if (!own) own = make_arena(value_count(group));
    a = own;
    a->begin_write();
  }
  for_each_group_row(*shape, group, [&](int64_t at, int64_t ref_at, int32_t length) {
    if (wide16) {
      const uint16_t* v = group16(group);
      a->write_row16(v + at, ref_at >= 0 ? v + ref_at : nullptr, length);
    } else {
      const uint32_t* v = group32(group);
      a->write_row32(v + at, ref_at >= 0 ? v + ref_at : nullptr, length);
    }
  });
  aligned_free_bytes(buffer);
  buffer = nullptr;
  return a;
}

void PackedStore::read_strategy(HandVector* out, int32_t group, int32_t cell,
                                const float* defaults) {
  if (!buffers[size_t(group)]) not_open();
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  int32_t actions = shape->actions;
  if (wide16) {
    const uint16_t* rows[MaxStoreActions];
    for (int32_t a = 0; a < actions; a++) rows[a] = group16(group) + row_at(*shape, group, c, a);
    match_rows_u16(rows, actions, c.length, defaults, out, true);
  } else {
    const uint32_t* rows[MaxStoreActions];
    for (int32_t a = 0; a < actions; a++) rows[a] = group32(group) + row_at(*shape, group, c, a);
    match_rows_u32(rows, actions, c.length, defaults, out);
  }
}

void PackedStore::write_row(int32_t group, int32_t cell, int32_t action, const float* row) {
  if (!buffers[size_t(group)]) not_open();
  if (action < 0 || action >= shape->actions) return;
  const StoreCell& c = shape->cells[size_t(shape->cell_index(group, cell))];
  int64_t at = row_at(*shape, group, c, action);
  if (wide16)
    store_row_u16(group16(group) + at, row, c.length);
  else
    store_row_u32(group32(group) + at, row, c.length);
}

void PackedStore::update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                                 const HandVector* action_rows,
                                 const HandGroupRuns* groups_or_null, double scale) {
  if (!buffers[size_t(group)]) not_open();
  int32_t index = shape->cell_index(group, cell);
  const CellLock& lock = lock_at(index);
  if (!wide16 || (lock.flags & CELL_LOCKED)) return;
  const StoreCell& c = shape->cells[size_t(index)];
  uint16_t* rows[MaxStoreActions];
  for (int32_t a = 0; a < shape->actions; a++) rows[a] = group16(group) + row_at(*shape, group, c, a);
  uint8_t scratch[ScratchRowValues];
  update_rows_u16(rows, shape->actions, c.length, baseline, action_rows, groups_or_null, scale,
                  cell_factors[size_t(index)], cell_mask(lock, c.length, scratch));
}

void PackedStore::accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                                      const HandVector& reach, float weight) {
  if (!(weight > 0.0f) || !reach.data) return;
  if (!buffers[size_t(group)]) not_open();
  int32_t index = shape->cell_index(group, cell);
  const CellLock& lock = lock_at(index);
  if (wide16 || (lock.flags & CELL_LOCKED)) return;
  const StoreCell& c = shape->cells[size_t(index)];
  uint32_t* rows[MaxStoreActions];
  for (int32_t a = 0; a < shape->actions; a++) rows[a] = group32(group) + row_at(*shape, group, c, a);
  uint8_t scratch[ScratchRowValues];
  accumulate_rows_u32(rows, shape->actions, c.length, strategy, reach, weight,
                      cell_mask(lock, c.length, scratch));
}

// Lock records, one byte telling whether the store has arenas, each group's
// arena if so (a group without data writes an empty arena), and in 16-bit
// mode the cell factors.
void PackedStore::save(ByteWriter& writer) {
  save_locks(writer);
  // An arena that a read made but no write filled holds nothing to store.
  bool any = false;
  for (Arena* a : arenas) any = any || (a && a->has_data());
  write_value<uint8_t>(writer, any ? 1 : 0);
  if (any) {
    for (Arena* a : arenas) {
      if (a && a->has_data()) {
        a->save(writer);
      } else if (level == 1) {
        PackedArena empty;
        empty.save(writer);
      } else {
        EntropyArena empty;
        empty.save(writer);
      }
    }
  }
  if (wide16) writer.write(cell_factors.data(), cell_factors.size() * sizeof(float));
}

void PackedStore::load(ByteSource& source) {
  load_locks(source);
  for (void*& p : buffers) {
    aligned_free_bytes(p);
    p = nullptr;
  }
  for (Arena*& a : arenas) {
    delete a;
    a = nullptr;
  }
  if (read_value<uint8_t>(source)) {
    for (Arena*& a : arenas) {
      a = level == 1 ? static_cast<Arena*>(new PackedArena()) : new EntropyArena();
      a->load(source);
      // A group that never held data gets a fresh arena, with the reservation
      // of its sequence, at its first open.
      if (!a->has_data()) {
        delete a;
        a = nullptr;
      }
    }
  }
  if (wide16) {
    if (source.format >= 9)
      source.read(cell_factors.data(), cell_factors.size() * sizeof(float));
    else
      std::fill(cell_factors.begin(), cell_factors.end(), 1.0f);
  }
}
