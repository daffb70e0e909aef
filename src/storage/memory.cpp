// Small working memory: aligned allocation, hand vectors and the per-thread row
// pool, the storage byte counters, fatal lines, byte streams and show_memory.
#include <malloc.h>
#include <tbb/scalable_allocator.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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

void MemoryByteSource::read(void* buffer, size_t count) {
  if (count > size - position) fail_command("can't read from memory");
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

// ---- Aligned allocation -------------------------------------------------------

void* aligned_alloc_bytes(size_t bytes, size_t alignment) {
  return scalable_aligned_malloc(bytes, alignment);
}

void aligned_free_bytes(void* p) {
  if (p) scalable_aligned_free(p);
}

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
    scalable_aligned_free(b);
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
    scalable_aligned_free(data);
    return;
  }
  PoolBlock* block = reinterpret_cast<PoolBlock*>(reinterpret_cast<uint8_t*>(data) - 8);
  RowPool* pool = PoolInForce ? PoolInForce : (OwnPool.registered ? &OwnPool.pool : nullptr);
  if (pool && pool->block_size == block->block_size) {
    block->next = static_cast<PoolBlock*>(pool->free_list);
    pool->free_list = block;
  } else {
    scalable_aligned_free(block);
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
      block = static_cast<PoolBlock*>(scalable_aligned_malloc(size_t(pool->block_size) + 8, 8));
      if (!block) {
        write_direct("out of memory\n");
        fflush(stdout);
        std::abort();
      }
    }
    block->block_size = pool->block_size;
    data = reinterpret_cast<float*>(reinterpret_cast<uint8_t*>(block) + 8);
    pooled = true;
    return;
  }
  data = static_cast<float*>(scalable_aligned_malloc(size_t(bytes), RowAlignment));
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
