// Small working memory: aligned allocation, hand vectors and the per-thread row
// pool, the storage byte counters, fatal lines, byte streams and show_memory.
#include <malloc.h>
#include <tbb/scalable_allocator.h>

#include <atomic>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "platform/platform.h"
#include "storage/arena.h"

// ---- Fatal failures ---------------------------------------------------------

// Fatal lines may come from any thread, so they bypass the loop's output buffer
// and go straight out under the output lock. _Exit skips static destructors,
// which could otherwise wait on worker threads that are still running.
void storage_fatal_line(const std::string& line) {
  write_direct(line);
  fflush(stdout);
  std::_Exit(1);
}

void storage_fatal(const char* text) {
  if (!text) storage_fatal_line("fail\n");
  storage_fatal_line(std::string("fail (") + text + ")\n");
}

// ---- Byte streams -----------------------------------------------------------

void MemoryByteWriter::write(const void* data, size_t count) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  bytes.insert(bytes.end(), p, p + count);
}

MemoryByteSource::MemoryByteSource(const void* bytes, size_t count)
    : data(static_cast<const uint8_t*>(bytes)), size(count) {}

void MemoryByteSource::fail_read() const { fail_command("can't read from memory"); }

void MemoryByteSource::read(void* buffer, size_t count) {
  if (count > size - position) fail_read();
  if (count) memcpy(buffer, data + position, count);
  position += count;
}

// ---- Counters -----------------------------------------------------------------

std::atomic<int64_t> StorageBytesRead{0};
std::atomic<int64_t> StorageBytesWritten{0};

void reset_storage_counters() {
  StorageBytesRead.store(0);
  StorageBytesWritten.store(0);
}

StorageThroughput storage_throughput(double elapsed_seconds) {
  if (!(elapsed_seconds > 0)) return {0, 0};
  auto rate = [&](int64_t bytes) {
    return int32_t(double(bytes) / elapsed_seconds / 1024.0 / 1024.0);
  };
  return {rate(StorageBytesRead.load()), rate(StorageBytesWritten.load())};
}

// ---- Allocation counts ----------------------------------------------------------

// Bytes the program holds from the scalable allocator, for show_memory. Every
// thread adds to a slot of its own, so that counting costs no shared cache line.
namespace {

struct alignas(64) CountSlot {
  std::atomic<int64_t> bytes{0};
};
constexpr int CountSlots = 16;
CountSlot ScalableCount[CountSlots];
std::atomic<int32_t> NextCountSlot{0};
thread_local int32_t OwnCountSlot = -1;
std::atomic<int64_t> PoolBlockBytes{0};
std::atomic<int64_t> ChannelBufferBytes{0};

inline void count_scalable(int64_t delta) {
  if (OwnCountSlot < 0) OwnCountSlot = NextCountSlot.fetch_add(1) % CountSlots;
  ScalableCount[OwnCountSlot].bytes.fetch_add(delta, std::memory_order_relaxed);
}

// A pool block freed to the allocator (an idle one, or one that can't go back
// to a pool).
void free_pool_block(void* block) {
  int64_t bytes = int64_t(scalable_msize(block));
  count_scalable(-bytes);
  PoolBlockBytes.fetch_sub(bytes, std::memory_order_relaxed);
  scalable_aligned_free(block);
}

}  // namespace

void* scalable_take(size_t bytes, size_t alignment) {
  void* p = scalable_aligned_malloc(bytes, alignment);
  if (p) count_scalable(int64_t(scalable_msize(p)));
  return p;
}

void scalable_give(void* p) {
  if (!p) return;
  count_scalable(-int64_t(scalable_msize(p)));
  scalable_aligned_free(p);
}

void* scalable_regrow(void* p, size_t bytes, size_t alignment) {
  int64_t before = p ? int64_t(scalable_msize(p)) : 0;
  void* grown = scalable_aligned_realloc(p, bytes, alignment);
  if (grown) count_scalable(int64_t(scalable_msize(grown)) - before);
  return grown;
}

int64_t scalable_block_bytes(const void* p) { return p ? int64_t(scalable_msize(const_cast<void*>(p))) : 0; }

void count_channel_buffer_bytes(int64_t delta) { ChannelBufferBytes.fetch_add(delta, std::memory_order_relaxed); }

AllocatorFigures allocator_figures() {
  AllocatorFigures f;
  for (const CountSlot& c : ScalableCount) f.scalable_in_use += c.bytes.load(std::memory_order_relaxed);
  f.row_pool_blocks = PoolBlockBytes.load(std::memory_order_relaxed);
  f.channel_buffers = ChannelBufferBytes.load(std::memory_order_relaxed);
  struct mallinfo2 m = mallinfo2();
  f.heap_held = int64_t(m.arena + m.hblkhd);
  f.heap_in_use = int64_t(m.uordblks + m.hblkhd);
  f.heap_free = int64_t(m.fordblks);
  return f;
}

// ---- Aligned allocation -------------------------------------------------------

void* aligned_alloc_bytes(size_t bytes, size_t alignment) { return scalable_take(bytes, alignment); }

void aligned_free_bytes(void* p) { scalable_give(p); }

void return_free_memory() {
  empty_all_row_pools();
  scalable_allocation_command(TBBMALLOC_CLEAN_ALL_BUFFERS, nullptr);
  malloc_trim(0);
}

// ---- Row pool -----------------------------------------------------------------

// A pooled block starts with an 8-byte word: the free-list link while the block
// is idle. While a row uses it, the word holds the pool's block size instead, so
// that a row released after its pool changed size (or on a thread without a
// pool) goes back to the allocator rather than into a list of other-sized blocks.
namespace {

struct PoolBlock {
  union {
    PoolBlock* next;
    int64_t block_size;
  };
};

std::mutex PoolListLock;
std::vector<RowPool*> AllPools;

// A thread's own pool, registered on first use and emptied when the thread ends.
struct ThreadPool {
  RowPool pool;
  bool registered = false;
  ~ThreadPool() {
    if (!registered) return;
    {
      std::lock_guard<std::mutex> lock(PoolListLock);
      for (size_t i = 0; i < AllPools.size(); i++) {
        if (AllPools[i] == &pool) {
          AllPools.erase(AllPools.begin() + long(i));
          break;
        }
      }
    }
    empty_row_pool(pool);
    // Rows released later on this thread go to the allocator.
    registered = false;
    pool.block_size = -1;
  }
};

thread_local ThreadPool OwnPool;
thread_local RowPool* PoolInForce = nullptr;

}  // namespace

RowPool* current_row_pool() { return PoolInForce; }
void set_current_row_pool(RowPool* pool) { PoolInForce = pool; }

RowPool* ensure_thread_row_pool(int64_t block_size) {
  ThreadPool& own = OwnPool;
  if (!own.registered) {
    std::lock_guard<std::mutex> lock(PoolListLock);
    AllPools.push_back(&own.pool);
    own.registered = true;
  }
  if (own.pool.block_size != block_size) {
    empty_row_pool(own.pool);
    own.pool.block_size = block_size;
  }
  PoolInForce = &own.pool;
  return &own.pool;
}

void empty_row_pool(RowPool& pool) {
  PoolBlock* b = static_cast<PoolBlock*>(pool.free_list);
  while (b) {
    PoolBlock* next = b->next;
    free_pool_block(b);
    b = next;
  }
  pool.free_list = nullptr;
}

void empty_all_row_pools() {
  std::lock_guard<std::mutex> lock(PoolListLock);
  for (RowPool* p : AllPools) empty_row_pool(*p);
}

int64_t row_pool_idle_blocks(const RowPool& pool) {
  int64_t n = 0;
  for (PoolBlock* b = static_cast<PoolBlock*>(pool.free_list); b; b = b->next) n++;
  return n;
}

// ---- Hand vectors -------------------------------------------------------------

HandVector::HandVector(HandVector&& other) noexcept
    : data(other.data), count(other.count), pooled(other.pooled) {
  other.data = nullptr;
  other.count = 0;
  other.pooled = false;
}

HandVector& HandVector::operator=(HandVector&& other) noexcept {
  if (this != &other) {
    release();
    data = other.data;
    count = other.count;
    pooled = other.pooled;
    other.data = nullptr;
    other.count = 0;
    other.pooled = false;
  }
  return *this;
}

// Gives a buffer back: a pooled block to the releasing thread's pool when the
// sizes agree, anything else to the allocator.
static void give_back_buffer(float* data, bool pooled) {
  if (!data) return;
  if (!pooled) {
    scalable_give(data);
    return;
  }
  PoolBlock* block = reinterpret_cast<PoolBlock*>(reinterpret_cast<uint8_t*>(data) - 8);
  RowPool* pool = PoolInForce ? PoolInForce : (OwnPool.registered ? &OwnPool.pool : nullptr);
  if (pool && pool->block_size == block->block_size) {
    block->next = static_cast<PoolBlock*>(pool->free_list);
    pool->free_list = block;
  } else {
    free_pool_block(block);
  }
}

void HandVector::resize(int32_t length, bool allow_pool) {
  // An empty vector with the count already set still needs its buffer.
  if (length == count && (data || length <= 0)) return;
  give_back_buffer(data, pooled);
  data = nullptr;
  pooled = false;
  count = length;
  if (length <= 0) return;
  int64_t bytes = int64_t(length) * 4;
  RowPool* pool = PoolInForce;
  if (allow_pool && pool && bytes <= pool->block_size) {
    PoolBlock* block = static_cast<PoolBlock*>(pool->free_list);
    if (block) {
      pool->free_list = block->next;
    } else {
      block = static_cast<PoolBlock*>(scalable_take(size_t(pool->block_size) + 8, 8));
      if (!block) {
        write_direct("out of memory\n");
        fflush(stdout);
        std::abort();
      }
      PoolBlockBytes.fetch_add(int64_t(scalable_msize(block)), std::memory_order_relaxed);
    }
    block->block_size = pool->block_size;
    data = reinterpret_cast<float*>(reinterpret_cast<uint8_t*>(block) + 8);
    pooled = true;
    return;
  }
  data = static_cast<float*>(scalable_take(size_t(bytes), RowAlignment));
  if (!data) {
    write_direct("out of memory\n");
    fflush(stdout);
    std::abort();
  }
}

void HandVector::release() {
  give_back_buffer(data, pooled);
  data = nullptr;
  count = 0;
  pooled = false;
}

// ---- show_memory --------------------------------------------------------------

void print_memory_report(uint64_t total_physical, uint32_t load_percent) {
  // Both figures are cut to 32 bits, as the report has always printed them.
  uint64_t total_mb = total_physical >> 20;
  double available = double(total_physical) * double(100 - load_percent) / 100.0;
  uint64_t available_mb = uint64_t(available) >> 20;
  shell_print("Total Physical Memory: %d MB\n", int32_t(uint32_t(total_mb)));
  shell_print("Available Phys Memory: %d MB\n", int32_t(uint32_t(available_mb)));
  shell_print("END\n");
}

// ---- Breakdown ------------------------------------------------------------------

std::vector<MemoryPart> (*TreeMemoryParts)() = nullptr;

std::vector<MemoryPart> memory_breakdown(int64_t& resident, int64_t& peak) {
  std::vector<MemoryPart> parts;
  if (TreeMemoryParts) parts = TreeMemoryParts();
  AllocatorFigures a = allocator_figures();
  ResidentFigures r = resident_figures();
  int64_t scalable_named = 0, heap_named = 0;
  for (const MemoryPart& p : parts) {
    scalable_named += p.scalable;
    heap_named += p.heap;
  }
  parts.push_back({"row pools", a.row_pool_blocks, a.row_pool_blocks, 0});
  parts.push_back({"channel buffers", a.channel_buffers, a.channel_buffers, 0});
  scalable_named += a.row_pool_blocks + a.channel_buffers;
  // What the allocators hold beyond the parts named: working rows, the walk's
  // lists and everything small.
  parts.push_back({"other rows", std::max<int64_t>(0, a.scalable_in_use - scalable_named), 0, 0});
  parts.push_back({"other heap objects", std::max<int64_t>(0, a.heap_in_use - heap_named), 0, 0});
  parts.push_back({"heap free blocks", a.heap_free, 0, 0});
  parts.push_back({"thread stacks", int64_t(thread_stack_resident()), 0, 0});
  parts.push_back({"code and libraries", int64_t(r.file + r.shared), 0, 0});
  resident = int64_t(r.resident);
  peak = int64_t(r.peak);
  return parts;
}

void print_memory_breakdown() {
  int64_t resident = 0, peak = 0;
  std::vector<MemoryPart> parts = memory_breakdown(resident, peak);
  const double mb = 1024.0 * 1024.0;
  int64_t total = 0;
  for (const MemoryPart& p : parts) {
    shell_print("#memory %s %.1f MB\n", p.name, double(p.bytes) / mb);
    total += p.bytes;
  }
  shell_print("#memory total %.1f MB, resident %.1f MB, peak %.1f MB\n", double(total) / mb, double(resident) / mb,
              double(peak) / mb);
}
