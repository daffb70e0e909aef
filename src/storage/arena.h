// Working memory of the solver: the arenas that hold compressed store groups,
// the process-wide byte counters, hand vectors with their per-thread row pool,
// aligned allocation, and the fatal-failure lines of storage.
//
// Three kinds of memory are kept apart. Short-lived rows come from the scalable
// allocator or the thread's row pool; whole value blocks are committed at once
// (the stores do that); compressed groups live in an Arena, one address range
// reserved at its worst case and committed only as far as the bytes reach.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/core.h"

class RowEncoder;
class RowDecoder;

// ---- Fatal failures ---------------------------------------------------------
// Storage failures that can't be recovered print one line on standard output
// and end the process with exit code 1. A null text prints "fail", any other
// "fail (text)".
[[noreturn]] void storage_fatal(const char* text);
// Prints `line` as it is (it carries its own line feed) and exits with code 1.
[[noreturn]] void storage_fatal_line(const std::string& line);

// ---- Byte streams of the stored tree ----------------------------------------
// What a stored tree is written to. Failures are raised as exceptions by the
// implementation.
struct ByteWriter {
  virtual ~ByteWriter() = default;
  virtual void write(const void* bytes, size_t count) = 0;
};

// What a stored tree is read from. `format` is the file's format number, kept
// for the readers below the source. A source that can't deliver `count` bytes
// raises an exception through fail_read; it never returns short.
struct ByteSource {
  int32_t format = 9;
  virtual ~ByteSource() = default;
  virtual void read(void* buffer, size_t count) = 0;
  // Bytes left to read. Readers compare every stored length with it before
  // they allocate, so a damaged length can't ask for more than the file holds;
  // a length that runs past the end fails through fail_read, as the read of
  // its bytes would: the source can't tell a cut file from a long length.
  virtual int64_t remaining() const { return INT64_MAX; }
  [[noreturn]] virtual void fail_read() const = 0;
};

// A writer that appends to a byte vector.
struct MemoryByteWriter : ByteWriter {
  std::vector<uint8_t> bytes;
  void write(const void* data, size_t count) override;
};

// A source over a byte range that it doesn't own; reading past the end raises
// an error through fail_command.
struct MemoryByteSource : ByteSource {
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t position = 0;
  MemoryByteSource(const void* bytes, size_t count);
  void read(void* buffer, size_t count) override;
  int64_t remaining() const override { return int64_t(size - position); }
  [[noreturn]] void fail_read() const override;
};

// Little-endian helpers for fixed-width fields (the host is x86-64).
template <typename T>
inline void write_value(ByteWriter& w, T v) { w.write(&v, sizeof v); }
template <typename T>
inline T read_value(ByteSource& s) {
  T v;
  s.read(&v, sizeof v);
  return v;
}

// ---- Process-wide byte counters ---------------------------------------------
// Compressed bytes read by finished read passes and produced by finished write
// passes. Each pass adds once, at its end.
extern std::atomic<int64_t> StorageBytesRead;
extern std::atomic<int64_t> StorageBytesWritten;
// At process start and whenever storage is planned.
void reset_storage_counters();

struct StorageThroughput {
  int32_t read_mb_per_s;
  int32_t write_mb_per_s;
};
// Both counters over `elapsed_seconds`, in MiB per second, truncated; the
// solver prints them as "#storage %d MB/s read, %d MB/s write\n".
StorageThroughput storage_throughput(double elapsed_seconds);

// ---- Aligned allocation -----------------------------------------------------
constexpr size_t RowAlignment = 16;     // rows and channel staging buffers
constexpr size_t GroupAlignment = 128;  // decompressed store groups
// The scalable allocator's aligned malloc and free; null on failure.
void* aligned_alloc_bytes(size_t bytes, size_t alignment);
void aligned_free_bytes(void* p);
// The same three calls of the scalable allocator, counted for show_memory;
// every block of it that the program holds goes through these.
void* scalable_take(size_t bytes, size_t alignment);
void scalable_give(void* p);
void* scalable_regrow(void* p, size_t bytes, size_t alignment);
void count_channel_buffer_bytes(int64_t delta);
// Bytes the scalable allocator really gives a block of scalable_take (its size
// class, at least what was asked).
int64_t scalable_block_bytes(const void* p);

// What the two allocators hold for the program, in bytes.
struct AllocatorFigures {
  int64_t scalable_in_use = 0;  // blocks the program holds from the scalable allocator
  int64_t row_pool_blocks = 0;  // of those, blocks of the row pools, idle or in use
  int64_t channel_buffers = 0;  // of those, staging buffers of entropy write passes
  int64_t heap_held = 0;        // the C heap's memory from the system
  int64_t heap_in_use = 0;      // of that, blocks in use
  int64_t heap_free = 0;        // of that, free blocks kept for reuse
};
AllocatorFigures allocator_figures();
// Hands the allocators' cached free memory back to the system, after a
// large release (a forgotten street).
void return_free_memory();

// ---- Arena ------------------------------------------------------------------
// A sequence of compressed rows in one region. Rows are read in the order they
// were written, with the same counts and the same presence of a reference row;
// the arena keeps no index. One thread works on an arena during a pass; there
// are no locks.
class Arena {
 public:
  virtual ~Arena() = default;
  // Starts a write pass; the pass replaces the whole contents.
  virtual void begin_write() = 0;
  // Ends a write pass: all rows of the pass are now in the region.
  virtual void end_write() = 0;
  // True once a write pass has stored anything.
  virtual bool has_data() const = 0;
  // Starts a read pass at the first row.
  virtual void begin_read() = 0;
  virtual void end_read() = 0;
  // Appends a row of `count` values; `reference` is an earlier row of the same
  // pass or null.
  virtual void write_row32(const uint32_t* row, const uint32_t* reference, int32_t count) = 0;
  virtual void write_row16(const uint16_t* row, const uint16_t* reference, int32_t count) = 0;
  // Fetches the next row; `reference` is the decoded row that was the
  // reference when the row was written, or null.
  virtual void read_row32(uint32_t* row, const uint32_t* reference, int32_t count) = 0;
  virtual void read_row16(uint16_t* row, const uint16_t* reference, int32_t count) = 0;
  virtual void save(ByteWriter& writer) = 0;
  virtual void load(ByteSource& source) = 0;
};

// Worst-case region sizes for a group of `values` values, already rounded to
// the arena's granule. `value_width` is 2 for a 16-bit store, 4 for a 32-bit one.
int64_t packed_reservation(int64_t values, int32_t value_width);
int64_t entropy_reservation(int64_t values);

// Rows one behind the other in the packed block format, written straight into
// the region.
class PackedArena : public Arena {
 public:
  int64_t committed_target = 0;  // size asked of the region, rounded to the granule
  int64_t size_target = 0;       // the same before rounding
  int64_t committed = 0;         // high-water mark of the commitment; never falls
  int64_t reserved = 0;          // bytes that may ever be committed
  uint8_t* base = nullptr;       // null until the first commit
  uint32_t granule_mask = 16383;
  int32_t limit = 0;     // bytes of the region promised so far
  int32_t position = 0;  // write or read cursor from base

  PackedArena() = default;
  PackedArena(int64_t values, int32_t value_width);
  ~PackedArena() override;
  PackedArena(const PackedArena&) = delete;
  PackedArena& operator=(const PackedArena&) = delete;

  void begin_write() override;
  void end_write() override;
  bool has_data() const override;
  void begin_read() override;
  void end_read() override;
  void write_row32(const uint32_t* row, const uint32_t* reference, int32_t count) override;
  void write_row16(const uint16_t* row, const uint16_t* reference, int32_t count) override;
  void read_row32(uint32_t* row, const uint32_t* reference, int32_t count) override;
  void read_row16(uint16_t* row, const uint16_t* reference, int32_t count) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
};

constexpr int ChannelCount = 24;

// Staging buffers of one entropy write pass, recycled through a per-thread
// stack with their buffers still allocated.
struct ChannelBuffers {
  uint8_t* data[ChannelCount];
  uint32_t capacity[ChannelCount];
};
static_assert(sizeof(ChannelBuffers) == 288);

// Takes an idle instance from the calling thread's stack, or a new empty one.
ChannelBuffers* take_channel_buffers();
// Returns an instance to the calling thread's stack.
void give_channel_buffers(ChannelBuffers* buffers);
// Idle instances on the calling thread's stack (for tests).
size_t idle_channel_buffers();

// 24 entropy-coded channels, staged during a write pass and copied into the
// region, one behind the other without padding or header, when it ends.
class EntropyArena : public Arena {
 public:
  int32_t channel_size[ChannelCount] = {};      // writing: high-water length; reading: stored length
  int32_t channel_position[ChannelCount] = {};  // writing: bytes in the channel; reading: cursor
  RowEncoder* encoder = nullptr;                // the codec of a running write pass
  RowDecoder* decoder = nullptr;                // the codec of a running read pass
  int64_t committed_target = 0;
  int64_t size_target = 0;
  int64_t committed = 0;
  int64_t reserved = 0;
  uint8_t* base = nullptr;
  uint32_t granule_mask = 4095;
  ChannelBuffers* channel_buffers = nullptr;  // only during a write pass
  const uint8_t* channel_start[ChannelCount] = {};

  EntropyArena() = default;
  explicit EntropyArena(int64_t values);
  ~EntropyArena() override;
  EntropyArena(const EntropyArena&) = delete;
  EntropyArena& operator=(const EntropyArena&) = delete;

  void begin_write() override;
  void end_write() override;
  bool has_data() const override;
  void begin_read() override;
  void end_read() override;
  void write_row32(const uint32_t* row, const uint32_t* reference, int32_t count) override;
  void write_row16(const uint16_t* row, const uint16_t* reference, int32_t count) override;
  void read_row32(uint32_t* row, const uint32_t* reference, int32_t count) override;
  void read_row16(uint16_t* row, const uint16_t* reference, int32_t count) override;
  void save(ByteWriter& writer) override;
  void load(ByteSource& source) override;
};

// Whether a stored region of `size` bytes in a reservation of `reserved` can
// be loaded: the reservation must hold them and stay below 64 GiB, the
// largest a group can reach. A region that can be but whose bytes the source
// no longer has fails as a read past the end.
bool stored_region_fits(int64_t size, int64_t reserved, uint32_t granule_mask, const ByteSource& source);

// Grows a region to `target` bytes (already rounded): the shared step of every
// write path and of load. Commits the whole prefix from base; reserves on the
// first call. Ends the process when the target passes `reserved` or the
// system refuses.
void grow_region(int64_t target, int64_t& committed, int64_t reserved, uint8_t*& base);
// Gives the whole reservation back; a refusal is fatal.
void release_region(uint8_t*& base, int64_t reserved);

// ---- Hand vectors -----------------------------------------------------------
// A thread's pool of equal-sized row blocks. A block is `block_size + 8` bytes:
// an 8-byte link, then the row.
struct RowPool {
  int64_t block_size = 0;  // bytes of row data per block
  void* free_list = nullptr;
};

// The solver's working vector: one float per hand of one board. No data means
// all zero, with the count still valid. The buffer is 16-byte aligned unless it
// comes from the pool. A vector owns its buffer; it moves, it is never copied.
struct HandVector {
  float* data = nullptr;
  int32_t count = 0;
  bool pooled = false;

  HandVector() = default;
  HandVector(const HandVector&) = delete;
  HandVector& operator=(const HandVector&) = delete;
  HandVector(HandVector&& other) noexcept;
  HandVector& operator=(HandVector&& other) noexcept;
  ~HandVector() { release(); }

  // A new length gives a new, uninitialised buffer; the same length keeps the
  // contents. With `allow_pool` the row comes from the thread's pool in force
  // when it fits a block.
  void resize(int32_t length, bool allow_pool);
  // Gives the buffer back (to the releasing thread's pool if pooled) and
  // clears pointer, count and flag.
  void release();
  bool empty() const { return data == nullptr; }
};

// The calling thread's pool in force, or null. The subgame runner and the walk
// set it at their start and clear it at their end.
RowPool* current_row_pool();
void set_current_row_pool(RowPool* pool);
// Makes sure of the calling thread's own pool with `block_size` bytes per row
// (emptying it first when it has another size) and puts it in force. Each
// thread's pool is registered process-wide on first use.
RowPool* ensure_thread_row_pool(int64_t block_size);
// Frees the idle blocks of a pool.
void empty_row_pool(RowPool& pool);
// Frees the idle blocks of every thread's pool; the solver must be stopped.
void empty_all_row_pools();
// Idle blocks on a pool's free list (for tests).
int64_t row_pool_idle_blocks(const RowPool& pool);

// ---- Memory report ------------------------------------------------------------
// One line of the breakdown: bytes in all, and how many of them the scalable
// allocator and the C heap hold (the rest is mapped directly).
struct MemoryPart {
  const char* name;
  int64_t bytes = 0;
  int64_t scalable = 0;
  int64_t heap = 0;
};
// The parts that the present tree owns (stores, hole sets, tables); installed
// by the layer that knows the tree. Null or empty without a tree.
extern std::vector<MemoryPart> (*TreeMemoryParts)();
// The whole breakdown, every line "#memory ...", ending with the components'
// total beside the resident size the system counts.
std::vector<MemoryPart> memory_breakdown(int64_t& resident, int64_t& peak);
void print_memory_breakdown();

// ---- Commands ---------------------------------------------------------------
void cmd_show_memory(const Tokens& t);
// The lines of show_memory for a machine with `total_physical` bytes at
// `load_percent` load, then "END".
void print_memory_report(uint64_t total_physical, uint32_t load_percent);
