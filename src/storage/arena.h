// The arenas that hold compressed store groups: one address range reserved at
// its worst case and committed only as far as the bytes reach. Rows come in
// and out in the order they were written, through the packed block format or
// the FSE row codec.
//
// Three kinds of memory are kept apart. Short-lived rows come from the scalable
// allocator or the thread's row pool (storage/memory); whole value blocks are
// committed at once (the stores do that); compressed groups live in an Arena.
#pragma once
#include <cstddef>
#include <cstdint>

#include "storage/memory/bytes.h"

class RowEncoder;
class RowDecoder;

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
