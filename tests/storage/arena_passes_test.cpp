// Write and read passes of both arenas: round trips, the commit policy,
// has_data, save and load, the counters, and the fatal paths.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <thread>

#include "arena_child.h"
#include "storage/arena.h"
#include "storage/memory/counters.h"
#include "storage/codec/codec.h"

namespace {

// Rows like a store group's: neighbouring cells alike, neighbouring hands
// alike, many zeros, now and then a large value.
struct RowSet {
  std::vector<std::vector<uint32_t>> rows32;
  std::vector<std::vector<uint16_t>> rows16;
  std::vector<int> reference;  // index of the reference row, or -1
};

RowSet make_rows(uint32_t seed, int row_count, int min_len, int max_len, uint32_t max_value) {
  std::mt19937 rng(seed);
  RowSet s;
  for (int r = 0; r < row_count; r++) {
    int len = min_len + int(rng() % uint32_t(max_len - min_len + 1));
    std::vector<uint32_t> row(static_cast<size_t>(len));
    int ref = -1;
    if (r > 0 && rng() % 3 != 0 && int(s.rows32[size_t(r - 1)].size()) >= len) ref = r - 1;
    uint32_t v = rng() % (max_value + 1);
    for (int i = 0; i < len; i++) {
      uint32_t kind = rng() % 10;
      if (kind < 3) v = 0;
      else if (kind < 8) v = (v + rng() % 7) % (max_value + 1);
      else v = rng() % (max_value + 1);
      if (ref >= 0 && kind == 9) v = s.rows32[size_t(ref)][size_t(i)];
      row[size_t(i)] = v;
    }
    s.rows16.emplace_back(row.begin(), row.end());
    for (auto& x : s.rows16.back()) x = uint16_t(x);
    s.rows32.push_back(std::move(row));
    s.reference.push_back(ref);
  }
  return s;
}

void write_all(Arena& a, const RowSet& s, bool wide) {
  a.begin_write();
  for (size_t r = 0; r < s.rows32.size(); r++) {
    int ref = s.reference[r];
    int n = int(s.rows32[r].size());
    if (wide)
      a.write_row32(s.rows32[r].data(), ref >= 0 ? s.rows32[size_t(ref)].data() : nullptr, n);
    else
      a.write_row16(s.rows16[r].data(), ref >= 0 ? s.rows16[size_t(ref)].data() : nullptr, n);
  }
  a.end_write();
}

// Reads every row back and compares; the reference given is the decoded row.
void read_and_check(Arena& a, const RowSet& s, bool wide) {
  a.begin_read();
  std::vector<std::vector<uint32_t>> got32(s.rows32.size());
  std::vector<std::vector<uint16_t>> got16(s.rows16.size());
  for (size_t r = 0; r < s.rows32.size(); r++) {
    int ref = s.reference[r];
    int n = int(s.rows32[r].size());
    if (wide) {
      got32[r].assign(size_t(n), 0xDEADBEEF);
      a.read_row32(got32[r].data(), ref >= 0 ? got32[size_t(ref)].data() : nullptr, n);
      ASSERT_EQ(got32[r], s.rows32[r]) << "row " << r;
    } else {
      got16[r].assign(size_t(n), 0xBEEF);
      a.read_row16(got16[r].data(), ref >= 0 ? got16[size_t(ref)].data() : nullptr, n);
      ASSERT_EQ(got16[r], s.rows16[r]) << "row " << r;
    }
  }
  a.end_read();
}

std::vector<uint8_t> saved(Arena& a) {
  MemoryByteWriter w;
  a.save(w);
  return w.bytes;
}

// Saves `a` and loads the bytes into `b`, which must take them all and save
// the same again; returns the bytes.
std::vector<uint8_t> save_and_load(Arena& a, Arena& b) {
  std::vector<uint8_t> bytes = saved(a);
  MemoryByteSource src(bytes.data(), bytes.size());
  b.load(src);
  EXPECT_EQ(src.position, bytes.size());
  EXPECT_EQ(saved(b), bytes);
  return bytes;
}

void expect_load_fails(std::vector<uint8_t> bytes, Arena& b) {
  MemoryByteSource src(bytes.data(), bytes.size());
  EXPECT_THROW(b.load(src), std::runtime_error);
}

}  // namespace

// ---- PackedArena -------------------------------------------------------------------

TEST(ArenaPacked, FreshArenaAndEmptyPassHaveNoRegion) {
  PackedArena a(5000, 4);
  EXPECT_EQ(a.reserved, packed_reservation(5000, 4));
  EXPECT_FALSE(a.has_data());
  a.begin_write();
  a.end_write();
  EXPECT_FALSE(a.has_data());
  EXPECT_EQ(a.base, nullptr);
  EXPECT_EQ(a.committed, 0);
}

TEST(ArenaPacked, RowsEndingAtCommitBoundary) {
  // Incompressible 16-bit rows whose tails overrun their promised worst case:
  // many of them, so that rows land on and across the end of the commitment.
  RowSet s;
  std::mt19937 rng(5);
  for (int r = 0; r < 2000; r++) {
    int n = 9 + int(rng() % 23);  // a tail only
    std::vector<uint32_t> row(static_cast<size_t>(n));
    for (auto& v : row) v = 256 + rng() % 60000;
    s.rows16.emplace_back(row.begin(), row.end());
    s.rows32.push_back(row);
    s.reference.push_back(-1);
  }
  PackedArena a(1 << 20, 2);
  write_all(a, s, false);
  EXPECT_LE(a.position, a.committed);
  read_and_check(a, s, false);
}

TEST(ArenaPacked, SmallerPassKeepsCommitment) {
  RowSet big = make_rows(21, 200, 1000, 1326, 1u << 30);
  RowSet small = make_rows(22, 3, 10, 20, 5);
  PackedArena a(300000, 4);
  write_all(a, big, true);
  int64_t high = a.committed;
  uint8_t* base = a.base;
  EXPECT_GT(high, 16384);
  write_all(a, small, true);
  EXPECT_EQ(a.committed, high);  // the pages stay
  EXPECT_EQ(a.base, base);
  EXPECT_EQ(a.committed_target, 16384);
  EXPECT_LT(a.size_target, 16384);
  read_and_check(a, small, true);
  write_all(a, big, true);  // and the next large pass needs no new commit
  EXPECT_EQ(a.committed, high);
  read_and_check(a, big, true);
}

TEST(ArenaPacked, CountersTakeBytesOfFinishedPasses) {
  RowSet s = make_rows(31, 50, 100, 400, 1000);
  PackedArena a(20000, 4);
  reset_storage_counters();
  a.begin_write();
  for (auto& r : s.rows32) a.write_row32(r.data(), nullptr, int(r.size()));
  EXPECT_EQ(StorageBytesWritten.load(), 0);  // only at the end of the pass
  a.end_write();
  EXPECT_EQ(StorageBytesWritten.load(), a.position);
  int64_t written = a.position;
  std::vector<uint32_t> buf(400);
  a.begin_read();
  for (auto& r : s.rows32) a.read_row32(buf.data(), nullptr, int(r.size()));
  EXPECT_EQ(StorageBytesRead.load(), 0);
  a.end_read();
  EXPECT_EQ(StorageBytesRead.load(), written);
  reset_storage_counters();
}

TEST(ArenaPacked, SaveLoadRoundTrip) {
  RowSet s = make_rows(41, 120, 1, 1326, 40000);
  PackedArena a(200000, 4);
  write_all(a, s, true);
  PackedArena b;  // as a store creates it before loading
  std::vector<uint8_t> bytes = save_and_load(a, b);
  // limit, reservation and size, then the region.
  ASSERT_EQ(bytes.size(), size_t(4 + 8 + 8 + a.size_target));
  int32_t limit;
  int64_t reserved, size;
  memcpy(&limit, bytes.data(), 4);
  memcpy(&reserved, bytes.data() + 4, 8);
  memcpy(&size, bytes.data() + 12, 8);
  EXPECT_EQ(limit, a.limit);
  EXPECT_EQ(reserved, a.reserved);
  EXPECT_EQ(size, a.size_target);
  EXPECT_EQ(b.limit, a.limit);
  EXPECT_EQ(b.committed, (a.size_target + 16383) & ~int64_t(16383));
  read_and_check(b, s, true);
  bytes.pop_back();
  PackedArena truncated;
  expect_load_fails(bytes, truncated);
  PackedArena empty(100, 2), empty_back;
  EXPECT_EQ(save_and_load(empty, empty_back).size(), 20u);
  EXPECT_FALSE(empty_back.has_data());
  EXPECT_EQ(empty_back.base, nullptr);
}

TEST(ArenaPacked, WorstCasePromisesExhaustReservation) {
  // 4000 values reserve 4 bytes each (16384 bytes). Rows of 1000 wide values
  // produce 4032 bytes each, 16128 in all, which would fit; but every row
  // promises 5000 more, and the fourth promise passes the reservation.
  std::vector<uint32_t> row(1000, 100000);
  expect_fatal(
      [&] {
        PackedArena a(4000, 4);
        a.begin_write();
        for (int i = 0; i < 4; i++) a.write_row32(row.data(), nullptr, 1000);
        a.end_write();
      },
      "out of memory (not enough reserved)\n");
  PackedArena a(4000, 4);
  a.begin_write();
  for (int i = 0; i < 3; i++) a.write_row32(row.data(), nullptr, 1000);
  EXPECT_EQ(a.limit, 15000);
  EXPECT_EQ(a.position, 3 * 4032);
  a.end_write();
  // Small values grow the promise only when the cursor needs it.
  PackedArena b(4000, 4);
  std::vector<uint32_t> zeros(1000, 0);
  b.begin_write();
  for (int i = 0; i < 4; i++) b.write_row32(zeros.data(), nullptr, 1000);
  b.end_write();
  EXPECT_EQ(b.limit, 10000);
}

// ---- EntropyArena -------------------------------------------------------------------

TEST(ArenaEntropy, FreshAndEmptyPass) {
  EntropyArena a(10000);
  EXPECT_EQ(a.reserved, 20480);
  EXPECT_FALSE(a.has_data());
  a.begin_write();
  a.end_write();
  // The codec id alone makes a pass count as data.
  EXPECT_TRUE(a.has_data());
  EXPECT_EQ(a.base[0], uint8_t(CodecId::FseCodec));
  EXPECT_EQ(a.committed, 4096);
  EXPECT_EQ(a.channel_buffers, nullptr);
}

// Each thread keeps the channel buffers of its last pass for the next one.
TEST(ArenaEntropy, ChannelBuffersAreRecycled) {
  RowSet s = make_rows(54, 600, 1326, 1326, 100000);
  EntropyArena a(int64_t(600) * 1326 * 4);
  // A fresh thread starts with an empty stack.
  std::thread t([&] {
    EXPECT_EQ(idle_channel_buffers(), 0u);
    write_all(a, s, true);
    ASSERT_EQ(idle_channel_buffers(), 1u);
    ChannelBuffers* b = take_channel_buffers();
    for (int c = 0; c < ChannelCount; c++)
      EXPECT_GE(b->capacity[c], uint32_t(a.channel_position[c])) << "channel " << c;
    give_channel_buffers(b);
    EntropyArena other(10000);
    other.begin_write();
    EXPECT_EQ(other.channel_buffers, b);
    EXPECT_EQ(idle_channel_buffers(), 0u);
    other.end_write();
    EXPECT_EQ(idle_channel_buffers(), 1u);
  });
  t.join();
  read_and_check(a, s, true);
}

TEST(ArenaEntropy, StacksPerThreadAndArenasMoveBetweenPasses) {
  RowSet s = make_rows(55, 40, 100, 800, 500);
  EntropyArena a(100000);
  write_all(a, s, true);
  ASSERT_GE(idle_channel_buffers(), 1u);
  size_t elsewhere = 99;
  std::thread reader([&] {
    elsewhere = idle_channel_buffers();
    read_and_check(a, s, true);
  });
  reader.join();
  EXPECT_EQ(elsewhere, 0u);
}

TEST(ArenaEntropy, SmallerPassKeepsCommitment) {
  RowSet big = make_rows(56, 200, 1000, 1326, 1u << 30);
  RowSet small = make_rows(57, 2, 10, 20, 3);
  EntropyArena a(int64_t(200) * 1326 * 4);
  write_all(a, big, true);
  int64_t high = a.committed;
  EXPECT_GT(high, 4096);
  write_all(a, small, true);
  EXPECT_EQ(a.committed, high);
  EXPECT_EQ(a.committed_target, 4096);
  read_and_check(a, small, true);
}

TEST(ArenaEntropy, CountersTakeBytesOfFinishedPasses) {
  RowSet s = make_rows(58, 50, 100, 400, 1000);
  EntropyArena a(100000);
  reset_storage_counters();
  write_all(a, s, true);
  EXPECT_EQ(StorageBytesWritten.load(), a.size_target);
  read_and_check(a, s, true);
  EXPECT_EQ(StorageBytesRead.load(), a.size_target);  // a full read takes every byte
  reset_storage_counters();
}

TEST(ArenaEntropy, SaveLoadRoundTrip) {
  RowSet s = make_rows(59, 150, 1, 1326, 65535);
  EntropyArena a(400000);
  write_all(a, s, false);
  read_and_check(a, s, false);  // saving after a read keeps the lengths
  EntropyArena b;
  std::vector<uint8_t> bytes = save_and_load(a, b);
  // Size and position of each channel, reservation and size, then the region.
  ASSERT_EQ(bytes.size(), size_t(24 * 8 + 16 + a.size_target));
  for (int c = 0; c < ChannelCount; c++) {
    int32_t pair[2];
    memcpy(pair, bytes.data() + 8 * c, 8);
    EXPECT_EQ(pair[0], a.channel_size[c]);
    EXPECT_EQ(pair[1], a.channel_position[c]);
  }
  EXPECT_EQ(b.reserved, a.reserved);
  EXPECT_EQ(b.committed, (a.size_target + 4095) & ~int64_t(4095));
  read_and_check(b, s, false);
  // A channel length beyond the region is refused.
  int32_t big = 1 << 20;
  memcpy(bytes.data() + 8 * 5 + 4, &big, 4);
  EntropyArena refused;
  expect_load_fails(bytes, refused);
}

TEST(ArenaEntropy, FatalPaths) {
  expect_fatal(
      [] {
        EntropyArena a(10000);
        a.begin_write();
        a.begin_write();  // a codec is attached
      },
      "fail\n");
  expect_fatal(
      [] {
        EntropyArena a(10000);
        a.begin_write();
        a.end_write();
        a.begin_read();
        a.begin_write();
      },
      "fail\n");
  // Worst cases of hard-to-compress rows pass the 2-bytes-a-value reservation.
  expect_fatal(
      [] {
        std::mt19937 rng(60);
        std::vector<uint32_t> row(1326);
        EntropyArena a(20 * 1326);
        a.begin_write();
        for (int r = 0; r < 20; r++) {
          for (auto& v : row) v = rng();
          a.write_row32(row.data(), nullptr, 1326);
        }
        a.end_write();
      },
      "out of memory (not enough reserved)\n");
}
