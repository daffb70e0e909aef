// Aligned allocation from the scalable allocator, counted for show_memory,
// and what the two allocators (scalable and C heap) hold for the program.
#pragma once
#include <cstddef>
#include <cstdint>

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
