// The solver's working vector of one float per hand, and the per-thread pools
// of equal-sized row blocks it is taken from.
#pragma once
#include <cstdint>

// A thread's pool of equal-sized row blocks. A block is `block_size + 8` bytes:
// an 8-byte link, then the row.
struct RowPool {
  int64_t block_size = 0;  // bytes of row data per block
  void* free_list = nullptr;
};

// One float per hand of one board. No data means all zero, with the count
// still valid. The buffer is 16-byte aligned unless it comes from the pool. A
// vector owns its buffer; it moves, it is never copied.
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
