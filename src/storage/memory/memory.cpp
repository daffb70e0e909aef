// Small working memory: aligned allocation with its counts, the per-thread
// row pools and hand vectors.
#include <malloc.h>
#include <tbb/scalable_allocator.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "core/core.h"
#include "storage/memory/allocation.h"
#include "storage/memory/hand_vector.h"

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
