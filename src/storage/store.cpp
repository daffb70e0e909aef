// Shapes, cell locks, the walk over the river stores of a group, and the
// choice of store classes for a node.
#include "storage/store.h"

#include <cassert>
#include <cstring>
#include <stdexcept>

#include "core/core.h"
#include "platform/platform.h"
#include "storage/arena.h"
#include "storage/memory/allocation.h"
#include "storage/memory/fatal.h"
#include "storage/store_cells.h"

int32_t RegretIteration = 0;
double Precision = 0;
bool AdaptivePrecision = true;
bool RiverStrategyEnabled = true;

void reset_store_settings() {
  Precision = 0;
  AdaptivePrecision = true;
  RiverStrategyEnabled = true;
}

// ---- Shapes ---------------------------------------------------------------------

StoreShape make_store_shape(int32_t actions, const std::vector<std::vector<int32_t>>& cell_lengths) {
  StoreShape s;
  s.actions = actions;
  s.group_count = int32_t(cell_lengths.size());
  int64_t offset = 0;
  int64_t values = 0;
  for (const std::vector<int32_t>& group : cell_lengths) {
    StoreGroup g{int32_t(s.cells.size()), int32_t(group.size())};
    GroupSpan span{int32_t(offset), 0};
    for (int32_t length : group) {
      s.cells.push_back({int32_t(offset), length});
      offset += int64_t(align4(length)) * actions;
      values += int64_t(length) * actions;
    }
    span.span = int32_t(offset - span.base);
    s.groups.push_back(g);
    s.group_spans.push_back(span);
  }
  if (offset > INT32_MAX) storage_fatal("store too large");
  s.cell_count = int32_t(s.cells.size());
  s.padded_values = int32_t(offset);
  s.values = int32_t(values);
  return s;
}

const StoreShape* StoreShapeTable::shape(int32_t street, int32_t actions) const {
  if (street < 1 || street > 3) return nullptr;
  const std::vector<StoreShape>& v = by_street[street];
  if (actions < 0 || size_t(actions) >= v.size()) return nullptr;
  return &v[size_t(actions)];
}

void build_store_shapes(StoreShapeTable& table, const BoardCells& boards, int32_t max_actions) {
  std::vector<std::vector<int32_t>> flop{{boards.root_length}};
  std::vector<std::vector<int32_t>> turn;
  for (int32_t length : boards.turn_lengths) turn.push_back({length});
  for (int street = 0; street < 4; street++) table.by_street[street].clear();
  for (int32_t k = 0; k <= max_actions; k++) {
    table.by_street[1].push_back(make_store_shape(k, flop));
    table.by_street[2].push_back(make_store_shape(k, turn));
    table.by_street[3].push_back(make_store_shape(k, boards.river_lengths));
  }
}

// ---- Cell locks -------------------------------------------------------------------

uint8_t* ensure_lock_mask(CellLock& lock, int32_t length) {
  if (length < 0) length = 0;
  if (!lock.mask || lock.mask_length < length) {
    uint8_t* mask = new uint8_t[size_t(length) + 1]();
    if (lock.mask) memcpy(mask, lock.mask, size_t(lock.mask_length));
    delete[] lock.mask;
    lock.mask = mask;
  }
  lock.mask_length = length;
  return lock.mask;
}

void free_lock_mask(CellLock& lock) {
  delete[] lock.mask;
  lock.mask = nullptr;
  lock.mask_length = 0;
}

const uint8_t* frozen_mask(const CellLock& lock) {
  return (lock.flags & CELL_MASKED) ? lock.mask : nullptr;
}

void save_lock_record(ByteWriter& writer, const CellLock& lock) {
  write_value<uint32_t>(writer, lock.flags);
  if (!(lock.flags & CELL_MASKED)) return;
  int32_t length = lock.mask ? lock.mask_length : 0;
  if (length > 0xffff) storage_fatal("mask too long");
  // Alternating runs of free and frozen hands, the first of free ones.
  std::vector<uint16_t> runs;
  bool frozen = false;
  int32_t run = 0;
  for (int32_t i = 0; i < length; i++) {
    bool f = lock.mask[i] != 0;
    if (f != frozen) {
      runs.push_back(uint16_t(run));
      frozen = f;
      run = 0;
    }
    run++;
  }
  if (length > 0) runs.push_back(uint16_t(run));
  write_value<uint16_t>(writer, uint16_t(length));
  write_value<uint16_t>(writer, uint16_t(runs.size()));
  for (uint16_t r : runs) write_value<uint16_t>(writer, r);
}

void load_lock_record(ByteSource& source, CellLock& lock) {
  lock.flags = read_value<uint32_t>(source);
  if (!(lock.flags & CELL_MASKED)) return;
  int32_t length = read_value<uint16_t>(source);
  int32_t run_count = read_value<uint16_t>(source);
  uint8_t* mask = ensure_lock_mask(lock, length);
  int32_t pos = 0;
  uint8_t value = 0;
  for (int32_t r = 0; r < run_count; r++) {
    int32_t run = read_value<uint16_t>(source);
    if (run > length - pos) throw std::runtime_error("corrupt lock record");
    memset(mask + pos, value, size_t(run));
    pos += run;
    value ^= 1;
  }
  if (pos != length) throw std::runtime_error("corrupt lock record");
}

// ---- Groups of river stores -----------------------------------------------------------

void river_group_sizes(const RiverStoreRef* stores, size_t count, int32_t group, int64_t sizes[2]) {
  sizes[0] = sizes[1] = 0;
  for (size_t i = 0; i < count; i++) sizes[stores[i].player & 1] += stores[i].store->value_count(group);
}

void open_river_group(const RiverStoreRef* stores, size_t count, int32_t group) {
  int64_t sizes[2];
  river_group_sizes(stores, count, group, sizes);
  RiverArenas arenas;
  for (size_t i = 0; i < count; i++) {
    int32_t p = stores[i].player & 1;
    arenas.arena[p] = stores[i].store->open_group(arenas.arena[p], group, sizes[p]);
  }
  // The first store of each sequence began the read pass if there was data.
  for (Arena* a : arenas.arena)
    if (a && a->has_data()) a->end_read();
}

void close_river_group(const RiverStoreRef* stores, size_t count, int32_t group, bool keep) {
  RiverArenas arenas;
  for_each_river_store(stores, count, arenas, [&](Store& store, Arena* arena) {
    return store.close_group(arena, group, keep);
  });
  if (!keep) return;
  for (Arena* a : arenas.arena)
    if (a) a->end_write();
}

// ---- Making the stores of a node ------------------------------------------------------

void makeNodeStores(const StoreNode& node, const BoardCells& board_table, const StoreShape* shape,
                    int64_t totals[4], bool want_strategy, int32_t root_street, StoragePair levels,
                    bool float_turn) {
  delete *node.regret_store;
  delete *node.strategy_store;
  *node.regret_store = nullptr;
  *node.strategy_store = nullptr;
  *node.stores_ready = false;
  if (!node.decision) return;

  Store* regrets = nullptr;
  Store* strategy = nullptr;
  switch (node.street) {
    case 1:
      regrets = new RowStore(node.actions, board_table.root_length);
      if (want_strategy) strategy = new RowStore(node.actions, board_table.root_length);
      break;
    case 2:
      regrets = new CompositeStore(node.actions, board_table.turn_lengths);
      if (want_strategy) strategy = new CompositeStore(node.actions, board_table.turn_lengths);
      break;
    case 3: {
      if (!shape) storage_fatal("missing store shape");
      if (root_street == 3 || (root_street == 2 && float_turn)) {
        regrets = new FloatFlatStore(shape);
      } else if (levels.regrets != 0) {
        regrets = new PackedStore(shape, levels.regrets, true);
      } else {
        regrets = new Word16FlatStore(shape);
      }
      if (want_strategy && RiverStrategyEnabled) {
        if (levels.strategy == 3 && root_street == 1)
          strategy = new WideningStore(shape);
        else if (levels.strategy == 1 || levels.strategy == 2)
          strategy = new PackedStore(shape, levels.strategy, false);
        else
          strategy = new FloatFlatStore(shape);
      }
      break;
    }
    default:
      storage_fatal("bad street");
  }
  *node.regret_store = regrets;
  *node.strategy_store = strategy;
  if (node.street >= 0 && node.street < 4) totals[node.street] += regrets->value_count(-1);
}

void Store::unsupported(const char* operation) {
  assert(!"a store operation its class does not support");
  storage_fatal((std::string("store operation ") + operation + " not supported").c_str());
}

// ---- Memory of a store ------------------------------------------------------------

static int64_t region_bytes(const Arena* a) {
  if (auto p = dynamic_cast<const PackedArena*>(a)) return int64_t(resident_bytes_in(p->base, size_t(p->committed)));
  if (auto e = dynamic_cast<const EntropyArena*>(a)) return int64_t(resident_bytes_in(e->base, size_t(e->committed)));
  return 0;
}

template <typename T>
static int64_t vector_bytes(const std::vector<T>& v) {
  return int64_t(v.capacity() * sizeof(T));
}

static void add_scalable(StoreMemory& m, int64_t bytes) {
  m.bytes += bytes;
  m.scalable += bytes;
}
static void add_heap(StoreMemory& m, int64_t bytes) {
  m.bytes += bytes;
  m.heap += bytes;
}

static void add_locks(const std::vector<CellLock>& locks, StoreMemory& m) {
  add_heap(m, vector_bytes(locks));
  for (const CellLock& l : locks) add_heap(m, l.mask_length);
}

void add_store_memory(Store* store, StoreMemory& m, bool settled) {
  if (!store) return;
  if (auto r = dynamic_cast<RowStore*>(store)) {
    for (const HandVector& row : r->rows)
      if (row.data && !row.pooled && !r->borrowed) add_scalable(m, scalable_block_bytes(row.data));
    add_heap(m, vector_bytes(r->rows) + r->lock.mask_length);
  } else if (auto c = dynamic_cast<CompositeStore*>(store)) {
    for (RowStore* part : c->parts) add_store_memory(part, m, settled);
    add_heap(m, vector_bytes(c->parts));
    add_scalable(m, scalable_block_bytes(c->block));
  } else if (auto f = dynamic_cast<FlatStore*>(store)) {
    m.bytes += int64_t(resident_bytes_in(f->data, f->data_bytes));
    add_locks(f->locks, m);
    if (auto w = dynamic_cast<Word16FlatStore*>(store)) add_heap(m, vector_bytes(w->cell_factors));
  } else if (auto w = dynamic_cast<WideningStore*>(store)) {
    for (size_t g = 0; g < w->data.size(); g++) {
      int64_t span = w->shape->group_spans[g].span;
      if (settled)
        add_scalable(m, scalable_block_bytes(w->data[g]));
      else if (w->data[g])
        add_scalable(m, w->wide[g] ? span * 3 + 11 : span * 2 + 16);
    }
    add_heap(m, vector_bytes(w->data) + vector_bytes(w->wide) + vector_bytes(w->peaks));
    add_locks(w->locks, m);
  } else if (auto p = dynamic_cast<PackedStore*>(store)) {
    for (size_t g = 0; g < p->buffers.size(); g++) {
      void* buffer = p->buffers[g];
      if (settled)
        add_scalable(m, scalable_block_bytes(buffer));
      else if (buffer)
        add_scalable(m, int64_t(p->shape->group_spans[g].span) * p->bytes_per_value());
      if (p->arenas[g]) {
        m.bytes += region_bytes(p->arenas[g]);
        add_heap(m, p->level == 1 ? int64_t(sizeof(PackedArena)) : int64_t(sizeof(EntropyArena)));
      }
    }
    add_heap(m, vector_bytes(p->buffers) + vector_bytes(p->arenas) + vector_bytes(p->cell_factors));
    add_locks(p->locks, m);
  }
}

void add_flat_pages(Store* store, std::vector<PageBlock>& blocks) {
  if (auto* f = dynamic_cast<FlatStore*>(store))
    if (f->data) blocks.push_back({f->data, f->data_bytes});
}
