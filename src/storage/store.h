// Strategy stores: the regrets and strategy sums of the decision nodes.
//
// Every decision node owns up to two stores, the regret store and the strategy
// store. A store holds, for every board run-out that reaches the node, one row
// of values per action and one value per hand. A cell is one such run-out (for
// a river node: one river card below one turn card); a group is a run of
// neighbouring cells that is opened and closed together (for a river node: all
// river cards below one turn card). Groups are what is compressed.
//
// The classes, from plain float rows to groups that exist only as compressed
// bytes between two uses:
//
//   Store (abstract)
//     RowStore            flop nodes: one float row per action
//     CompositeStore      turn nodes: one RowStore per turn card
//     ShapedStore         river nodes: cells laid out by a StoreShape, locks
//       FlatStore         one block of values committed at once
//         FloatFlatStore    32-bit floats
//         Word16FlatStore   16-bit fixed-point regrets with a scale per cell
//       WideningStore     16-bit sums that widen to 24 bits per group
//       PackedStore       groups decompressed only while open, in an Arena
//
// Storage is the one polymorphic layer of the program; the tree holds plain
// records that point at these.
#pragma once
#include <cstdint>
#include <vector>

#include "storage/memory/bytes.h"
#include "storage/memory/hand_vector.h"

// The arenas that hold compressed groups (arena.h); stores only point at them.
class Arena;

// ---- Shapes -------------------------------------------------------------------

struct StoreGroup {
  int32_t first_cell;
  int32_t cell_count;
};

struct StoreCell {
  int32_t offset;  // in values, from the start of the store
  int32_t length;  // hands of the cell's board
};

struct GroupSpan {
  int32_t base;  // offset of the group's first cell
  int32_t span;  // values of the group, with padding
};

constexpr int32_t align4(int32_t x) { return (x + 3) & ~3; }

// The layout of the cells of a store. The value of hand i of cell c for action
// a stands at cells[c].offset + a * align4(cells[c].length) + i: the rows of a
// cell are neighbours, each padded to a multiple of four values. Padding is
// never read. All nodes with the same street and number of actions share one
// shape, so a shape must outlive the stores made with it.
struct StoreShape {
  std::vector<StoreGroup> groups;
  std::vector<StoreCell> cells;
  std::vector<GroupSpan> group_spans;
  int32_t actions = 0;
  int32_t group_count = 0;
  int32_t cell_count = 0;
  int32_t padded_values = 0;  // size of the whole store in values
  int32_t values = 0;         // values without padding

  // Index of a cell in `cells` from its group and its place in the group.
  int32_t cell_index(int32_t group, int32_t cell) const { return groups[group].first_cell + cell; }
};

// A shape for `actions` actions whose group g holds cells of the lengths
// cell_lengths[g], in order.
StoreShape make_store_shape(int32_t actions, const std::vector<std::vector<int32_t>>& cell_lengths);

// Hand counts of the boards below a tree's root, as the per-board hole sets
// list them: the root list, each turn card's list, and each river card's list
// below each turn card. A turn-rooted tree has one turn entry; a river-rooted
// tree one turn entry with one river entry.
struct BoardCells {
  int32_t root_length = 0;
  std::vector<int32_t> turn_lengths;
  std::vector<std::vector<int32_t>> river_lengths;  // by turn cell, then river cell
};

// The shapes of a tree, by absolute street (1 flop, 2 turn, 3 river) and number
// of actions. Flop: one group of one cell. Turn: one group per turn card, one
// cell each. River: one group per turn card, one cell per river card.
struct StoreShapeTable {
  std::vector<StoreShape> by_street[4];  // [street][actions]; entry 0 unused
  const StoreShape* shape(int32_t street, int32_t actions) const;
};
void build_store_shapes(StoreShapeTable& table, const BoardCells& boards, int32_t max_actions);

// ---- Cell locks -----------------------------------------------------------------

enum CellLockFlag : uint32_t {
  CELL_LOCKED = 1,  // the whole cell is fixed
  CELL_MASKED = 2,  // `mask` fixes some hands
};

// One record per cell. A non-zero mask byte freezes that hand's values: the
// solver neither updates its regrets nor adds to its sums. The mask belongs to
// the record's store and is freed with it.
struct CellLock {
  uint32_t flags = 0;
  uint8_t* mask = nullptr;
  int32_t mask_length = 0;
};

// The mask of `lock` with at least `length` bytes, allocated (zeroed) on first
// need and kept afterwards.
uint8_t* ensure_lock_mask(CellLock& lock, int32_t length);
void free_lock_mask(CellLock& lock);
// The mask to honour for a row of `length` hands, or null if no hand is frozen.
const uint8_t* frozen_mask(const CellLock& lock);

// Stored form: 32-bit flags; if CELL_MASKED, a 16-bit mask length, a 16-bit run
// count and the run lengths (16 bits each) of alternating runs of zero and
// non-zero bytes, the first a run of zeros, so a mask that starts frozen has a
// first run of length 0.
void save_lock_record(ByteWriter& writer, const CellLock& lock);
void load_lock_record(ByteSource& source, CellLock& lock);

// ---- Inputs of the update -----------------------------------------------------------

// Runs of hands of equal strength on a river board, in hand order; their
// lengths add up to the board's hand count.
struct HandGroupRuns {
  const int16_t* lengths = nullptr;
  int32_t count = 0;
};

// The iteration count as the stores see it; the solver copies the tree's
// iteration here after every iteration. Adaptive precision rescales cells when
// it is a multiple of 10.
extern int32_t RegretIteration;

// The settings the stores read (set_precision, enable_adaptive_precision,
// enable_river_strategy): the fixed-point precision of 16-bit regrets, whether
// it adapts per cell, and whether river strategy sums are kept.
extern double Precision;
extern bool AdaptivePrecision;
extern bool RiverStrategyEnabled;
// The three back to their start values (for tests).
void reset_store_settings();

// ---- Stores -------------------------------------------------------------------
//
// Operations take (group, cell): for a river store the turn cell and the river
// cell below it, for a turn store the turn cell (cell ignored), for a flop
// store -1, -1. Row arguments are one HandVector per action; a vector without
// data counts as zeros. Stores have no locks: one thread at a time works on a
// cell (and on a group of a PackedStore).
//
// An operation that a class doesn't name is a caller's fault: it ends the
// process with "fail (store operation <name> not supported)" (an assertion in
// a debug build) rather than answer 0 and let a wrong call pass.
class Store {
 public:
  virtual ~Store() = default;
  // Gets the memory for the values; false if there is none.
  virtual bool materialise() { unsupported(__func__); }
  virtual int32_t row_length(int32_t group, int32_t cell) { unsupported(__func__); }
  // Fills one vector per action with the normalised values of each hand. A
  // hand whose values sum to nothing takes defaults[action] (see the classes
  // for the exceptions).
  virtual void read_strategy(HandVector* rows, int32_t group, int32_t cell, const float* defaults) {
    unsupported(__func__);
  }
  // Sets one row from `row_length` floats: copied by float stores, truncated
  // and limited to the value range by integer stores. Ignores locks.
  virtual void write_row(int32_t group, int32_t cell, int32_t action, const float* row) { unsupported(__func__); }
  // Adds sign(d) * |d|^0.75 of every instantaneous regret
  // d = action_rows[a][i] - baseline[i] to the regrets, keeping them
  // non-negative. `scale` converts to the fixed point of 16-bit stores;
  // `groups_or_null` averages runs of equal hands in 16-bit stores. Frozen
  // hands and locked cells stay as they are.
  virtual void update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                              const HandVector* action_rows, const HandGroupRuns* groups_or_null,
                              double scale) {
    unsupported(__func__);
  }
  // Adds weight * rows[a][i] * reach[i] to the sums of unfrozen hands; nothing
  // if `weight` isn't positive or the reach is empty.
  virtual void accumulate_strategy(int32_t group, int32_t cell, const HandVector* rows,
                                   const HandVector& reach, float weight) {
    unsupported(__func__);
  }
  // Values of one group, or of the whole store with a negative group.
  virtual int64_t value_count(int32_t group) { unsupported(__func__); }
  virtual void save(ByteWriter& writer) { unsupported(__func__); }
  virtual void load(ByteSource& source) { unsupported(__func__); }
  // River stores, through for_each_river_store below.
  virtual Arena* open_group(Arena* arena, int32_t group, int64_t size) { unsupported(__func__); }
  virtual Arena* close_group(Arena* arena, int32_t group, bool keep) { unsupported(__func__); }
  // The lock record of a cell for reading: null when the store keeps none for
  // it, which means nothing of it is locked. cell_lock_to_set gives the record
  // to change, making it if need be; only between runs of the solver.
  virtual CellLock* cell_lock_info(int32_t group, int32_t cell) { unsupported(__func__); }
  virtual CellLock* cell_lock_to_set(int32_t group, int32_t cell) { return cell_lock_info(group, cell); }
  // Bytes per value, FlatStore classes only.
  virtual int32_t value_width() { unsupported(__func__); }

 protected:
  [[noreturn]] static void unsupported(const char* operation);
};

// Flop nodes: one float row per action over the root's hand list, one lock.
class RowStore : public Store {
 public:
  int32_t actions;
  int32_t length;
  std::vector<HandVector> rows;
  CellLock lock;
  // The rows lie in a block of the CompositeStore that owns this store: they
  // are never freed or resized one by one.
  bool borrowed = false;

  RowStore(int32_t actions, int32_t length);
  ~RowStore() override;
  RowStore(const RowStore&) = delete;
  RowStore& operator=(const RowStore&) = delete;

  bool materialise() override;
  int32_t row_length(int32_t group, int32_t cell) override;
  void read_strategy(HandVector* out, int32_t group, int32_t cell, const float* defaults) override;
  void write_row(int32_t group, int32_t cell, int32_t action, const float* row) override;
  void update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                      const HandVector* action_rows, const HandGroupRuns* groups_or_null,
                      double scale) override;
  void accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                           const HandVector& reach, float weight) override;
  int64_t value_count(int32_t group) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
  CellLock* cell_lock_info(int32_t group, int32_t cell) override;
};

// Turn nodes: one RowStore per turn cell; every operation goes to the member of
// its group.
class CompositeStore : public Store {
 public:
  std::vector<RowStore*> parts;  // owned
  // The rows of all parts in one block, each padded to four values: one block
  // per node instead of a small one per row, which the allocator would round
  // up to its next size class (up to two fifths more).
  float* block = nullptr;

  CompositeStore(int32_t actions, const std::vector<int32_t>& lengths);
  ~CompositeStore() override;
  CompositeStore(const CompositeStore&) = delete;
  CompositeStore& operator=(const CompositeStore&) = delete;

  bool materialise() override;
  int32_t row_length(int32_t group, int32_t cell) override;
  void read_strategy(HandVector* out, int32_t group, int32_t cell, const float* defaults) override;
  void write_row(int32_t group, int32_t cell, int32_t action, const float* row) override;
  void update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                      const HandVector* action_rows, const HandGroupRuns* groups_or_null,
                      double scale) override;
  void accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                           const HandVector& reach, float weight) override;
  int64_t value_count(int32_t group) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
  CellLock* cell_lock_info(int32_t group, int32_t cell) override;
};

// River nodes: cells laid out by a shared shape, one lock record per cell.
class ShapedStore : public Store {
 public:
  const StoreShape* shape;
  // cell_count records, made when the first cell is locked: most trees lock
  // nothing, and a record a cell is as much as the regrets of a few hands.
  std::vector<CellLock> locks;

  explicit ShapedStore(const StoreShape* shape);
  ~ShapedStore() override;
  ShapedStore(const ShapedStore&) = delete;
  ShapedStore& operator=(const ShapedStore&) = delete;

  int32_t row_length(int32_t group, int32_t cell) override;
  int64_t value_count(int32_t group) override;
  CellLock* cell_lock_info(int32_t group, int32_t cell) override;
  CellLock* cell_lock_to_set(int32_t group, int32_t cell) override;
  // Every river store takes part in a group's open and close; a store whose
  // groups always lie open in plain memory has nothing to do and hands no
  // arena on. The packed store decompresses here.
  Arena* open_group(Arena* arena, int32_t group, int64_t size) override { return nullptr; }
  Arena* close_group(Arena* arena, int32_t group, bool keep) override { return nullptr; }

 protected:
  const CellLock& lock_at(int32_t index) const { return locks.empty() ? NoCellLock : locks[size_t(index)]; }
  void save_locks(ByteWriter& writer) const;
  void load_locks(ByteSource& source);
  static const CellLock NoCellLock;
};

// One block of `padded_values * value_width()` bytes, committed from the
// operating system at once and zero at first.
class FlatStore : public ShapedStore {
 public:
  void* data = nullptr;
  size_t data_bytes = 0;  // the committed size, rounded to pages

  explicit FlatStore(const StoreShape* shape) : ShapedStore(shape) {}
  ~FlatStore() override;
  bool materialise() override;
};

class FloatFlatStore : public FlatStore {
 public:
  explicit FloatFlatStore(const StoreShape* shape) : FlatStore(shape) {}

  float* values() const { return static_cast<float*>(data); }
  void read_strategy(HandVector* out, int32_t group, int32_t cell, const float* defaults) override;
  void write_row(int32_t group, int32_t cell, int32_t action, const float* row) override;
  void update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                      const HandVector* action_rows, const HandGroupRuns* groups_or_null,
                      double scale) override;
  void accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                           const HandVector& reach, float weight) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
  int32_t value_width() override { return 4; }
};

// Regrets as unsigned 16-bit fixed point: each update adds
// trunc(s^0.75 |d|^0.75), s being the caller's scale times the cell's factor,
// so regrets below 1 / s vanish. Adaptive precision moves the factor in powers
// of two to keep the largest value of a cell in range.
class Word16FlatStore : public FlatStore {
 public:
  std::vector<float> cell_factors;  // one per cell, starting at 1.0

  explicit Word16FlatStore(const StoreShape* shape);

  uint16_t* values() const { return static_cast<uint16_t*>(data); }
  void read_strategy(HandVector* out, int32_t group, int32_t cell, const float* defaults) override;
  void write_row(int32_t group, int32_t cell, int32_t action, const float* row) override;
  void update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                      const HandVector* action_rows, const HandGroupRuns* groups_or_null,
                      double scale) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
  int32_t value_width() override { return 2; }
};

// Strategy sums as 16-bit integers per group, widened once to 24 bits (three
// bytes a value, little-endian, no gaps) as soon as the running sum of the
// peaks of any cell of the group passes 65535.
class WideningStore : public ShapedStore {
 public:
  int32_t format = 1;
  std::vector<uint8_t*> data;  // per group: 2 * span bytes, or 3 * span + 11 when wide
  std::vector<uint8_t> wide;   // per group: 0 16-bit, 1 24-bit
  std::vector<float> peaks;    // per cell

  explicit WideningStore(const StoreShape* shape);
  ~WideningStore() override;

  bool materialise() override;
  void read_strategy(HandVector* out, int32_t group, int32_t cell, const float* defaults) override;
  void write_row(int32_t group, int32_t cell, int32_t action, const float* row) override;
  void accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                           const HandVector& reach, float weight) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;

  // Rewrites group g in 24 bits; a group never narrows.
  void widen(int32_t group);
  // The value of hand i of (group, cell, action), whatever the group's width.
  uint32_t value_at(int32_t group, int32_t cell, int32_t action, int32_t hand) const;
};

// Groups that live compressed in an Arena and are decompressed into a buffer
// only while open. 16-bit mode holds regrets as Word16FlatStore does; 32-bit
// mode holds strategy sums as unsigned integers.
class PackedStore : public ShapedStore {
 public:
  std::vector<void*> buffers;    // per group, null while closed
  std::vector<Arena*> arenas;    // per group, owned, null until first use
  std::vector<float> cell_factors;  // 16-bit mode only, one per cell
  int32_t level;                 // 1 PackedArena, 2 EntropyArena
  bool wide16;                   // 1: 16-bit regrets, 0: 32-bit sums

  PackedStore(const StoreShape* shape, int32_t level, bool wide16);
  ~PackedStore() override;

  bool materialise() override { return true; }
  void read_strategy(HandVector* out, int32_t group, int32_t cell, const float* defaults) override;
  void write_row(int32_t group, int32_t cell, int32_t action, const float* row) override;
  void update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                      const HandVector* action_rows, const HandGroupRuns* groups_or_null,
                      double scale) override;
  void accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                           const HandVector& reach, float weight) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
  // Decompresses a group. With a null `arena` the group's own arena is taken
  // (made on first use with the reservation for `size` values) and its read
  // pass begun; the arena is returned for the stores that follow.
  Arena* open_group(Arena* arena, int32_t group, int64_t size) override;
  // Writes an open group back (with `keep`) or just drops the buffer, leaving
  // the compressed form as it was.
  Arena* close_group(Arena* arena, int32_t group, bool keep) override;

  Arena* make_arena(int64_t size) const;
  int32_t bytes_per_value() const { return wide16 ? 2 : 4; }
  // Start of group g's open buffer (null while closed).
  uint16_t* group16(int32_t group) const { return static_cast<uint16_t*>(buffers[group]); }
  uint32_t* group32(int32_t group) const { return static_cast<uint32_t*>(buffers[group]); }
};

// ---- Groups of river stores ---------------------------------------------------------
//
// Below one turn card all river stores of one player form a single row sequence
// in the arena of the first store visited: the first store gets a null arena
// and returns its own, every store after it is given that one. The order of the
// visit is therefore part of the stored form, and every open and close of the
// group must visit the same stores in the same order.

// One river store met by the walk below a turn card, in walk order.
struct RiverStoreRef {
  Store* store;
  int32_t player;  // the acting player of the node: one row sequence per player
};

// The arena in force for each player during a visit.
struct RiverArenas {
  Arena* arena[2] = {nullptr, nullptr};
};

// Visits `stores` in order; `visit(store, arena)` gets the arena in force for
// the store's player and returns the one for the next store of that player.
template <typename Visit>
void for_each_river_store(const RiverStoreRef* stores, size_t count, RiverArenas& arenas,
                          Visit&& visit) {
  for (size_t i = 0; i < count; i++) {
    Arena*& arena = arenas.arena[stores[i].player & 1];
    arena = visit(*stores[i].store, arena);
  }
}

// Sums value_count(group) per player: the reservation each sequence needs.
void river_group_sizes(const RiverStoreRef* stores, size_t count, int32_t group, int64_t sizes[2]);
// Opens `group` in every store of the list and ends the read passes.
void open_river_group(const RiverStoreRef* stores, size_t count, int32_t group);
// Closes `group` in every store of the list; with `keep` the group is written
// back and the write passes are ended, without it the buffers are dropped.
void close_river_group(const RiverStoreRef* stores, size_t count, int32_t group, bool keep);

// ---- Memory of a store --------------------------------------------------------------

// The bytes that hold a store's values: blocks and regions count what is in
// physical memory (a committed page never touched is not), buffers what was
// asked of the allocator. `scalable` is the part held from the scalable
// allocator, `heap` the part from the C heap. While the solver runs, groups
// open and close under the caller: `settled` false counts their buffers by
// size instead of asking the allocator about blocks that may be gone.
struct StoreMemory {
  int64_t bytes = 0;
  int64_t scalable = 0;
  int64_t heap = 0;
};
void add_store_memory(Store* store, StoreMemory& total, bool settled);

// The block of a flat store, for callers that want its pages before their
// first touch; nothing for the other classes or a store without values.
struct PageBlock {
  void* data;
  size_t bytes;
};
void add_flat_pages(Store* store, std::vector<PageBlock>& blocks);

// Fresh memory costs more at its first touch than the copy into it. While a
// file is read, a helper thread asks for the pages of the flat stores in the
// order given, one block at a time; the reader's load of each store takes its
// pages through take_flat_pages: nothing to do when they are there, else it
// asks for them itself, or, while the helper is on them, for the next block
// nobody has taken. No block is asked for twice, or by both at once.
void start_pages_ahead(std::vector<PageBlock> blocks);
void finish_pages_ahead();
void take_flat_pages(void* data, size_t bytes);

// ---- Making the stores of a node -------------------------------------------------------

// The compression classes in force: the first number for river regrets, the
// second for river strategy sums (see the compression levels).
struct StoragePair {
  int32_t regrets = 0;
  int32_t strategy = 0;
};

// The slots of one tree node that makeNodeStores fills.
struct StoreNode {
  bool decision = false;  // terminal nodes get no stores
  int32_t street = 0;     // absolute: 1 flop, 2 turn, 3 river
  int32_t actions = 0;
  Store** regret_store = nullptr;    // owned by the node
  Store** strategy_store = nullptr;  // owned by the node
  bool* stores_ready = nullptr;      // the node's materialised mark
};

// Replaces the stores of one node. `shape` is the river shape for the node's
// number of actions (unused off the river); `totals` gets the regret store's
// values added at the node's street; `want_strategy` says the tree keeps
// strategy sums at all; `float_turn` is set for trees of format 5 or later.
void makeNodeStores(const StoreNode& node, const BoardCells& board_table, const StoreShape* shape,
                    int64_t totals[4], bool want_strategy, int32_t root_street, StoragePair levels,
                    bool float_turn);
