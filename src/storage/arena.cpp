// The region shared by both arenas, and PackedArena.
//
// Region policy: an arena reserves its worst case once, on its first commit,
// and commits the prefix that its bytes reach, always the whole prefix from
// base. The commitment is a high-water mark: a smaller pass keeps the pages of
// a larger one, so the next large pass costs no system call.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/core.h"
#include "platform/platform.h"
#include "storage/arena.h"
#include "storage/memory/counters.h"
#include "storage/memory/fatal.h"
#include "storage/codec/codec.h"

static int64_t round_to_granule(int64_t size, uint32_t mask) {
  return (size + int64_t(mask)) & ~int64_t(mask);
}

void grow_region(int64_t target, int64_t& committed, int64_t reserved, uint8_t*& base) {
  if (target <= committed) return;
  if (target > reserved) storage_fatal_line("out of memory (not enough reserved)\n");
  committed = target;
  char line[128];
  if (!base) {
    base = static_cast<uint8_t*>(reserve_address_space(size_t(reserved)));
    if (!base) {
      snprintf(line, sizeof line, "Reserve %lld bytes fail (errno %d)\n", (long long)reserved, errno);
      storage_fatal_line(line);
    }
  }
  if (!commit_memory(base, size_t(target))) {
    snprintf(line, sizeof line, "Commit %lld bytes fail (errno %d)\n", (long long)target, errno);
    storage_fatal_line(line);
  }
}

void release_region(uint8_t*& base, int64_t reserved) {
  if (!base) return;
  if (!release_address_space_checked(base, size_t(reserved))) storage_fatal("VirtualFree fail");
  base = nullptr;
}

int64_t packed_reservation(int64_t values, int32_t value_width) {
  return round_to_granule((values + 31) / 32 + values * value_width, 16383);
}

int64_t entropy_reservation(int64_t values) { return round_to_granule(2 * values, 4095); }

// ---- PackedArena ----------------------------------------------------------------

// The packers may touch a few bytes past what they produce or consume, and a
// 16-bit row's tail can exceed the promised worst case by a few bytes. Rows
// near the end of the commitment therefore go through a staging buffer.
constexpr int32_t PackSlack = 64;
constexpr size_t StagingBytes = MaxRowValues * 5 + 2 * PackSlack;

// At least pack_bound32/16 (a control byte per eight values covers one per
// block and each tail group's), worked out inline: it is asked for every row.
static inline int32_t packed_bound(int32_t count, int32_t width) {
  return count * width + (count + 7) / 8;
}

PackedArena::PackedArena(int64_t values, int32_t value_width)
    : reserved(packed_reservation(values, value_width)) {}

PackedArena::~PackedArena() { release_region(base, reserved); }

void PackedArena::begin_write() {
  position = 0;
  limit = 0;
  committed_target = 0;
  size_target = 0;
}

void PackedArena::end_write() { StorageBytesWritten.fetch_add(position); }

bool PackedArena::has_data() const { return limit > 0; }

void PackedArena::begin_read() { position = 0; }

void PackedArena::end_read() { StorageBytesRead.fetch_add(position); }

// Promises the row's worst case, growing the region by whole worst cases.
static void promise(PackedArena& a, int32_t worst) {
  if (a.limit >= a.position + worst) return;
  a.limit += worst;
  a.size_target = a.limit;
  a.committed_target = round_to_granule(a.size_target, a.granule_mask);
  grow_region(a.committed_target, a.committed, a.reserved, a.base);
}

// A 16-bit tail can pack past the promised worst case (each tail group has a
// control byte of its own): keep the promise at least as far as the bytes, so
// that a save keeps them.
static void cover_position(PackedArena& a) {
  if (a.limit >= a.position) return;
  a.limit = a.position;
  a.size_target = a.limit;
  a.committed_target = round_to_granule(a.size_target, a.granule_mask);
}

// Packs one row at the cursor, staging it when it might run past the
// commitment.
template <typename T, typename Pack>
static void put_row(PackedArena& a, const T* row, int32_t count, Pack pack) {
  if (count > MaxRowValues) storage_fatal(nullptr);
  int32_t bound = packed_bound(count, int32_t(sizeof(T)));
  if (a.position + bound + PackSlack <= a.committed) {
    uint8_t* end = pack(a.base + a.position, row, count);
    a.position = int32_t(end - a.base);
    cover_position(a);
    return;
  }
  alignas(64) uint8_t staging[StagingBytes];
  int32_t produced = int32_t(pack(staging, row, count) - staging);
  if (produced == 0) return;  // an empty row; nothing may be committed yet
  // Only a 16-bit tail can overshoot the promise; cover it like any growth,
  // and keep the promise at least as far as the bytes, so a save keeps them.
  if (a.position + produced > a.committed) {
    grow_region(round_to_granule(a.position + produced, a.granule_mask), a.committed, a.reserved,
                a.base);
  }
  memcpy(a.base + a.position, staging, size_t(produced));
  a.position += produced;
  cover_position(a);
}

template <typename T, typename Unpack>
static void get_row(PackedArena& a, T* row, int32_t count, Unpack unpack) {
  if (count > MaxRowValues) storage_fatal(nullptr);
  int32_t bound = packed_bound(count, int32_t(sizeof(T)));
  if (a.position + bound + PackSlack <= a.committed) {
    const uint8_t* end = unpack(row, count, a.base + a.position);
    a.position = int32_t(end - a.base);
    return;
  }
  alignas(64) uint8_t staging[StagingBytes] = {};
  int64_t available = a.committed - a.position;
  if (available > bound) available = bound;
  if (available > 0) memcpy(staging, a.base + a.position, size_t(available));
  a.position += int32_t(unpack(row, count, staging) - staging);
}

void PackedArena::write_row32(const uint32_t* row, const uint32_t*, int32_t count) {
  promise(*this, count * 5);
  put_row(*this, row, count, [](uint8_t* d, const uint32_t* r, int32_t n) { return pack32(d, r, n); });
}

void PackedArena::write_row16(const uint16_t* row, const uint16_t*, int32_t count) {
  promise(*this, count * 2 + (count + 31) / 32);
  put_row(*this, row, count, [](uint8_t* d, const uint16_t* r, int32_t n) { return pack16(d, r, n); });
}

void PackedArena::read_row32(uint32_t* row, const uint32_t*, int32_t count) {
  get_row(*this, row, count,
          [](uint32_t* r, int32_t n, const uint8_t* s) { return unpack32(r, n, s); });
}

void PackedArena::read_row16(uint16_t* row, const uint16_t*, int32_t count) {
  get_row(*this, row, count,
          [](uint16_t* r, int32_t n, const uint8_t* s) { return unpack16(r, n, s); });
}

bool stored_region_fits(int64_t size, int64_t reserved, uint32_t granule_mask, const ByteSource& source) {
  const int64_t most = int64_t(1) << 36;
  if (size < 0 || size > most || reserved > most || reserved < round_to_granule(size, granule_mask)) return false;
  if (size > source.remaining()) source.fail_read();
  return true;
}

void PackedArena::save(ByteWriter& writer) {
  write_value<int32_t>(writer, limit);
  write_value<int64_t>(writer, reserved);
  write_value<int64_t>(writer, size_target);
  if (size_target > 0) writer.write(base, size_t(size_target));
}

void PackedArena::load(ByteSource& source) {
  int32_t stored_limit = read_value<int32_t>(source);
  int64_t stored_reserved = read_value<int64_t>(source);
  int64_t stored_size = read_value<int64_t>(source);
  if (!stored_region_fits(stored_size, stored_reserved, granule_mask, source)) fail_command("invalid file");
  // A region reserved at another size can't be reused.
  if (base && stored_reserved != reserved) {
    release_region(base, reserved);
    committed = 0;
  }
  limit = stored_limit;
  reserved = stored_reserved;
  size_target = stored_size;
  committed_target = round_to_granule(size_target, granule_mask);
  grow_region(committed_target, committed, reserved, base);
  if (size_target > 0) {
    populate_memory(base, size_t(size_target));
    source.read(base, size_t(size_target));
  }
  position = 0;
}
