// Hand vectors and the row pool, aligned allocation, the byte counters, the
// region growth and its fatal lines, show_memory.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>

#include "arena_child.h"
#include "platform/platform.h"
#include "storage/arena.h"
#include "storage/memory/allocation.h"
#include "storage/memory/counters.h"
#include "storage/memory/fatal.h"
#include "storage/memory/hand_vector.h"
#include "storage/memory/memory_report.h"

namespace {

bool aligned_to(const void* p, uintptr_t a) { return (reinterpret_cast<uintptr_t>(p) & (a - 1)) == 0; }

// Each test leaves the thread without a pool in force and with empty pools.
struct ArenaPoolTest : ::testing::Test {
  void TearDown() override {
    set_current_row_pool(nullptr);
    empty_all_row_pools();
  }
};

}  // namespace

// ---- Hand vectors without a pool ------------------------------------------------

TEST_F(ArenaPoolTest, ResizeReleaseAndMoveWithoutPool) {
  HandVector v;
  EXPECT_TRUE(v.empty());
  v.resize(37, true);  // no pool in force: the allocator
  ASSERT_NE(v.data, nullptr);
  EXPECT_FALSE(v.pooled);
  EXPECT_TRUE(aligned_to(v.data, 16));
  for (int i = 0; i < 37; i++) v.data[i] = 0.5f * float(i);  // the whole row is writable
  float* before = v.data;
  v.resize(37, false);  // same length: same buffer, same contents
  EXPECT_EQ(v.data, before);
  for (int i = 0; i < 37; i++) ASSERT_EQ(v.data[i], 0.5f * float(i));
  v.resize(200, false);
  EXPECT_EQ(v.count, 200);
  for (int i = 0; i < 200; i++) v.data[i] = 1.0f;
  v.resize(0, false);
  EXPECT_EQ(v.data, nullptr);
  v.count = 50;  // all zero by convention, no buffer: still gets one
  v.resize(50, false);
  ASSERT_NE(v.data, nullptr);
  float* p = v.data;
  HandVector b(std::move(v));
  EXPECT_EQ(v.data, nullptr);
  EXPECT_EQ(v.count, 0);
  EXPECT_EQ(b.data, p);
  HandVector c;
  c.resize(3, false);
  c = std::move(b);
  EXPECT_EQ(c.data, p);
  EXPECT_EQ(c.count, 50);
  EXPECT_EQ(b.data, nullptr);
  std::vector<HandVector> rows(5);
  for (auto& r : rows) r.resize(20, false);
  rows.resize(50);  // growth moves the rows
  EXPECT_EQ(rows[4].count, 20);
  c.release();
  EXPECT_EQ(c.data, nullptr);
  EXPECT_EQ(c.count, 0);
}

// ---- The row pool ------------------------------------------------------------------

TEST_F(ArenaPoolTest, PooledRowSitsBehindLinkAndIsRecycled) {
  RowPool* pool = ensure_thread_row_pool(4 * 200);
  ASSERT_EQ(current_row_pool(), pool);
  EXPECT_EQ(pool->block_size, 800);
  HandVector v;
  v.resize(200, true);  // exactly the block size
  ASSERT_TRUE(v.pooled);
  EXPECT_EQ(v.count, 200);
  EXPECT_TRUE(aligned_to(v.data, 8));
  for (int i = 0; i < 200; i++) v.data[i] = 2.0f;  // the whole block behind the link
  float* first = v.data;
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
  v.release();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 1);
  HandVector w;
  w.resize(17, true);  // a shorter row takes the same block
  EXPECT_TRUE(w.pooled);
  EXPECT_EQ(w.data, first);
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
  // Resizing a pooled row pushes its block, then pops it again.
  w.resize(18, true);
  EXPECT_EQ(w.data, first);
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
}

TEST_F(ArenaPoolTest, LongDisallowedAndPoollessRowsBypassPool) {
  RowPool* pool = ensure_thread_row_pool(4 * 100);
  HandVector longer, refused;
  longer.resize(101, true);
  refused.resize(50, false);
  EXPECT_FALSE(longer.pooled);
  EXPECT_FALSE(refused.pooled);
  EXPECT_TRUE(aligned_to(longer.data, 16));
  longer.release();
  refused.release();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);  // neither went to the pool
  set_current_row_pool(nullptr);
  HandVector v;
  v.resize(10, true);
  EXPECT_FALSE(v.pooled);
}

TEST_F(ArenaPoolTest, ManyRowsComeBackAsManyBlocks) {
  RowPool* pool = ensure_thread_row_pool(64 * 4);
  std::vector<HandVector> rows(10);
  for (auto& r : rows) r.resize(64, true);
  for (size_t i = 0; i < rows.size(); i++)
    for (size_t j = i + 1; j < rows.size(); j++) ASSERT_NE(rows[i].data, rows[j].data);
  rows.clear();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 10);
  empty_row_pool(*pool);
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
  HandVector v;
  v.resize(64, true);
  v.release();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 1);
  empty_all_row_pools();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
}

TEST_F(ArenaPoolTest, RowReleasedOnAnotherThreadGoesToThatThreadsPool) {
  RowPool* mine = ensure_thread_row_pool(4 * 300);
  HandVector v;
  v.resize(300, true);
  ASSERT_TRUE(v.pooled);
  int64_t theirs_before = -1, theirs_after = -1;
  std::thread other([&] {
    RowPool* theirs = ensure_thread_row_pool(4 * 300);
    theirs_before = row_pool_idle_blocks(*theirs);
    v.release();
    theirs_after = row_pool_idle_blocks(*theirs);
    // The block now serves this thread.
    HandVector w;
    w.resize(300, true);
    EXPECT_TRUE(w.pooled);
    EXPECT_EQ(row_pool_idle_blocks(*theirs), 0);
  });
  other.join();
  EXPECT_EQ(theirs_before, 0);
  EXPECT_EQ(theirs_after, 1);
  EXPECT_EQ(row_pool_idle_blocks(*mine), 0);
}

TEST_F(ArenaPoolTest, PoolOfNewSizeDropsOldBlocksAndRefusesOldRows) {
  RowPool* pool = ensure_thread_row_pool(4 * 100);
  HandVector kept, idle;
  kept.resize(100, true);
  idle.resize(100, true);
  idle.release();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 1);
  // A tree with more hands: the pool is emptied and takes the new size.
  EXPECT_EQ(ensure_thread_row_pool(4 * 500), pool);
  EXPECT_EQ(pool->block_size, 2000);
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
  // A row of the old size must not end up in the list of larger blocks.
  kept.release();
  EXPECT_EQ(row_pool_idle_blocks(*pool), 0);
  HandVector big;
  big.resize(500, true);
  ASSERT_TRUE(big.pooled);
  for (int i = 0; i < 500; i++) big.data[i] = 3.0f;
}

// ---- Aligned allocation ---------------------------------------------------------

TEST(ArenaAllocation, BothAlignmentsHold) {
  for (size_t bytes : {1u, 16u, 1000u, 65536u, 1u << 20}) {
    void* a = aligned_alloc_bytes(bytes, RowAlignment);
    void* b = aligned_alloc_bytes(bytes, GroupAlignment);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(aligned_to(a, 16));
    EXPECT_TRUE(aligned_to(b, 128));
    memset(a, 1, bytes);
    memset(b, 2, bytes);
    aligned_free_bytes(a);
    aligned_free_bytes(b);
  }
  aligned_free_bytes(nullptr);
}

// ---- Counters ----------------------------------------------------------------------

TEST(ArenaCounters, ResetAndThroughput) {
  StorageBytesRead = 123;
  StorageBytesWritten = 456;
  reset_storage_counters();
  EXPECT_EQ(StorageBytesRead.load(), 0);
  EXPECT_EQ(StorageBytesWritten.load(), 0);
  StorageBytesRead = int64_t(10) << 20;
  StorageBytesWritten = (int64_t(3) << 20) + 5;
  StorageThroughput t = storage_throughput(2.0);
  EXPECT_EQ(t.read_mb_per_s, 5);
  EXPECT_EQ(t.write_mb_per_s, 1);  // 1.5 truncates
  t = storage_throughput(0.0);
  EXPECT_EQ(t.read_mb_per_s, 0);
  EXPECT_EQ(t.write_mb_per_s, 0);
  reset_storage_counters();
}

// ---- Region growth and fatal lines ---------------------------------------------------

TEST(ArenaRegion, Reservations) {
  EXPECT_EQ(packed_reservation(0, 4), 0);
  EXPECT_EQ(packed_reservation(1000, 4), 16384);
  EXPECT_EQ(packed_reservation(4064, 4), 16384);   // 127 + 16256 = 16383
  EXPECT_EQ(packed_reservation(4065, 4), 32768);   // 128 + 16260
  EXPECT_EQ(packed_reservation(100000, 2), 212992);  // 3125 + 200000 -> 13 granules
  EXPECT_EQ(entropy_reservation(0), 0);
  EXPECT_EQ(entropy_reservation(1), 4096);
  EXPECT_EQ(entropy_reservation(2048), 4096);
  EXPECT_EQ(entropy_reservation(2049), 8192);
}

TEST(ArenaFatal, FatalLines) {
  expect_fatal([] { storage_fatal(nullptr); }, "fail\n");
  expect_fatal([] { storage_fatal("VirtualFree fail"); }, "fail (VirtualFree fail)\n");
  uint8_t* base = nullptr;
  int64_t committed = 0;
  expect_fatal([&] { grow_region(32768, committed, 16384, base); },
               "out of memory (not enough reserved)\n");
  // More address space than the machine has.
  expect_fatal([&] { grow_region(4096, committed, int64_t(1) << 62, base); },
               "Reserve 4611686018427387904 bytes fail (errno 12)\n");
  size_t page = page_size();
  expect_fatal(
      [&] {
        // A reservation whose second page is gone: committing both pages fails.
        base = static_cast<uint8_t*>(reserve_address_space(2 * page));
        release_address_space(base + page, page);
        grow_region(int64_t(2 * page), committed, int64_t(2 * page), base);
      },
      "Commit " + std::to_string(2 * page) + " bytes fail (errno 12)\n");
}

// ---- show_memory -----------------------------------------------------------------------

TEST(ArenaShowMemory, ReportLines) {
  struct Case {
    uint64_t total;
    int load;
    const char* lines;
  };
  const Case cases[] = {
      {uint64_t(16) << 30, 25, "Total Physical Memory: 16384 MB\nAvailable Phys Memory: 12288 MB\nEND\n"},
      // Available is computed in double precision and truncated before the shift.
      {(uint64_t(1) << 30) + 3, 33, "Total Physical Memory: 1024 MB\nAvailable Phys Memory: 686 MB\nEND\n"},
      // Both figures are cut to 32 bits.
      {(uint64_t(1) << 52) + (uint64_t(5) << 20), 0, "Total Physical Memory: 5 MB\nAvailable Phys Memory: 5 MB\nEND\n"},
  };
  for (const Case& c : cases) {
    OutputBuffer.clear();
    print_memory_report(c.total, c.load);
    EXPECT_EQ(OutputBuffer, c.lines);
  }
  OutputBuffer.clear();
}

TEST(ArenaShowMemory, CommandUsesMachineFigures) {
  OutputBuffer.clear();
  cmd_show_memory({"show_memory"});
  MemoryStatus m = memory_status();
  std::string expected = "Total Physical Memory: " + std::to_string(int32_t(m.total_physical >> 20)) + " MB\n";
  EXPECT_EQ(OutputBuffer.substr(0, expected.size()), expected);
  EXPECT_NE(OutputBuffer.find("\nAvailable Phys Memory: "), std::string::npos);
  EXPECT_EQ(OutputBuffer.substr(OutputBuffer.size() - 4), "END\n");
  OutputBuffer.clear();
}
