// Lock records and the float row stores of flop and turn nodes: rows written
// and read back, regrets and sums against a double reference, locks and
// frozen hands, and the stored form.
#include <gtest/gtest.h>

#include <random>

#include "store_support.h"

using namespace store_test;

namespace {

struct RowStoreTest : StoreSettings {};

}  // namespace

// ---- Lock records -------------------------------------------------------------------

TEST(LockRecord, RunsStartWithFreeHands) {
  CellLock lock;
  lock.flags = CELL_MASKED;
  uint8_t* m = ensure_lock_mask(lock, 7);
  const uint8_t bits[7] = {1, 1, 0, 0, 0, 3, 0};
  memcpy(m, bits, 7);
  MemoryByteWriter w;
  save_lock_record(w, lock);
  // flags, length 7, 5 runs: 0 free, 2 frozen, 3 free, 1 frozen, 1 free.
  const std::vector<uint8_t> expect = {2, 0, 0, 0, 7, 0, 5, 0, 0, 0, 2, 0, 3, 0, 1, 0, 1, 0};
  EXPECT_EQ(w.bytes, expect);

  CellLock back;
  MemoryByteSource src(w.bytes.data(), w.bytes.size());
  load_lock_record(src, back);
  EXPECT_EQ(back.flags, uint32_t(CELL_MASKED));
  ASSERT_EQ(back.mask_length, 7);
  for (int i = 0; i < 7; i++) EXPECT_EQ(back.mask[i] != 0, bits[i] != 0);
  EXPECT_EQ(src.position, w.bytes.size());
  free_lock_mask(lock);
  free_lock_mask(back);
}

TEST(LockRecord, PlainFlagsAndCorruptRuns) {
  CellLock lock;
  lock.flags = CELL_LOCKED;
  MemoryByteWriter w;
  save_lock_record(w, lock);
  EXPECT_EQ(w.bytes, (std::vector<uint8_t>{1, 0, 0, 0}));

  // Runs that add up to more or less than the mask are refused.
  for (const std::vector<uint8_t>& bad : {std::vector<uint8_t>{2, 0, 0, 0, 3, 0, 2, 0, 2, 0, 2, 0},
                                          std::vector<uint8_t>{2, 0, 0, 0, 5, 0, 1, 0, 2, 0}}) {
    MemoryByteSource src(bad.data(), bad.size());
    CellLock back;
    EXPECT_THROW(load_lock_record(src, back), std::runtime_error);
    free_lock_mask(back);
  }
}

// ---- RowStore -----------------------------------------------------------------------------

TEST_F(RowStoreTest, WriteReadUpdateAccumulateAgainstReference) {
  std::mt19937 rng(21);
  for (int actions : {1, 2, 3, 4, 6}) {
    SCOPED_TRACE(actions);
    RowStore regrets(actions, 37), sums(actions, 37);
    ASSERT_TRUE(regrets.materialise() && sums.materialise());
    check_float_cell(regrets, sums, -1, -1, 37, actions, rng,
                     [](Store& s, int a) { return to_vector(static_cast<RowStore&>(s).rows[size_t(a)]); });
  }
}

// Rows read as defaults before and after materialise (all zero); no weight
// or no reach adds nothing.
TEST_F(RowStoreTest, ZeroRowsAndNoOps) {
  std::mt19937 rng(22);
  RowStore s(2, 9);
  EXPECT_EQ(s.value_count(-1), 18);
  const float d[2] = {0.9f, 0.1f};
  Rows out(2);
  for (int pass = 0; pass < 2; pass++) {
    s.read_strategy(out.data(), -1, -1, d);
    for (int a = 0; a < 2; a++) EXPECT_EQ(to_vector(out[a]), std::vector<float>(9, d[a]));
    ASSERT_TRUE(s.materialise());
  }
  Rows strat = random_strategy(rng, 2, 9);
  HandVector reach, empty;
  fill(reach, random_floats(rng, 9, 0.1f, 1.0f));
  empty.count = 9;
  s.accumulate_strategy(-1, -1, strat.data(), reach, 0.0f);
  s.accumulate_strategy(-1, -1, strat.data(), reach, -1.0f);
  s.accumulate_strategy(-1, -1, strat.data(), empty, 5.0f);
  for (int a = 0; a < 2; a++) EXPECT_EQ(to_vector(s.rows[size_t(a)]), std::vector<float>(9, 0.0f));
}

TEST_F(RowStoreTest, LockedCellAndFrozenHandsStayUntouched) {
  std::mt19937 rng(23);
  const int n = 21, actions = 3;
  RowStore s(actions, n);
  ASSERT_TRUE(s.materialise());
  for (int a = 0; a < actions; a++) s.write_row(-1, -1, a, random_floats(rng, n, 0.0f, 4.0f).data());
  std::vector<std::vector<float>> before;
  for (int a = 0; a < actions; a++) before.push_back(to_vector(s.rows[size_t(a)]));

  HandVector base;
  fill(base, random_floats(rng, n, -2.0f, 2.0f));
  Rows children(actions);
  for (int a = 0; a < actions; a++) fill(children[a], random_floats(rng, n, -2.0f, 2.0f));
  Rows strat = random_strategy(rng, actions, n);
  HandVector reach;
  fill(reach, random_floats(rng, n, 0.1f, 1.0f));

  s.cell_lock_to_set(-1, -1)->flags = CELL_LOCKED;
  s.update_regrets(-1, -1, base, children.data(), nullptr, 1.0);
  s.accumulate_strategy(-1, -1, strat.data(), reach, 3.0f);
  for (int a = 0; a < actions; a++) EXPECT_EQ(to_vector(s.rows[size_t(a)]), before[size_t(a)]);

  // Frozen hands 0, 5 and 20 keep their values, the others move.
  CellLock& lock = *s.cell_lock_to_set(-1, -1);
  lock.flags = CELL_MASKED;
  uint8_t* m = ensure_lock_mask(lock, n);
  m[0] = m[5] = m[20] = 1;
  s.update_regrets(-1, -1, base, children.data(), nullptr, 1.0);
  s.accumulate_strategy(-1, -1, strat.data(), reach, 3.0f);
  int moved = 0;
  for (int a = 0; a < actions; a++)
    for (int i = 0; i < n; i++) {
      if (m[i])
        EXPECT_EQ(s.rows[size_t(a)].data[i], before[size_t(a)][size_t(i)]);
      else
        moved += s.rows[size_t(a)].data[i] != before[size_t(a)][size_t(i)];
    }
  EXPECT_GT(moved, 40);
}

TEST_F(RowStoreTest, SaveLoadRoundTrip) {
  std::mt19937 rng(24);
  const int n = 50;
  RowStore s(3, n);
  ASSERT_TRUE(s.materialise());
  for (int a = 0; a < 3; a++) s.write_row(-1, -1, a, random_floats(rng, n, 0.0f, 9.0f).data());
  s.lock.flags = CELL_MASKED;
  uint8_t* m = ensure_lock_mask(s.lock, n);
  m[0] = m[1] = m[30] = 1;
  RowStore back(3, n);  // not materialised: load makes the rows
  // Lock record (4 + 4 + 5 runs * 2), then three rows of floats.
  EXPECT_EQ(save_and_load(s, back).size(), 4u + 4u + 10u + 3u * n * 4u);
  for (int a = 0; a < 3; a++) EXPECT_EQ(to_vector(back.rows[size_t(a)]), to_vector(s.rows[size_t(a)]));
  EXPECT_EQ(back.lock.flags, uint32_t(CELL_MASKED));
  for (int i = 0; i < n; i++) EXPECT_EQ(back.lock.mask[i] != 0, m[i] != 0);
}

// ---- CompositeStore --------------------------------------------------------------------------

TEST_F(RowStoreTest, CompositeForwardsToTheTurnCell) {
  std::mt19937 rng(25);
  std::vector<int32_t> lengths = {5, 0, 12, 7};
  CompositeStore s(2, lengths);
  EXPECT_EQ(s.value_count(-1), 2 * (5 + 0 + 12 + 7));
  EXPECT_EQ(s.value_count(2), 24);
  EXPECT_EQ(s.row_length(3, -1), 7);
  ASSERT_TRUE(s.materialise());
  std::vector<float> row = random_floats(rng, 12, 1.0f, 2.0f);
  s.write_row(2, -1, 1, row.data());
  EXPECT_EQ(to_vector(s.parts[2]->rows[1]), row);
  for (int g : {0, 3})
    for (float x : to_vector(s.parts[size_t(g)]->rows[1])) EXPECT_EQ(x, 0.0f);
  EXPECT_EQ(s.cell_lock_info(3, -1), &s.parts[3]->lock);

  const float d[2] = {0.9f, 0.1f};
  Rows out(2);
  s.read_strategy(out.data(), 2, -1, d);
  for (int i = 0; i < 12; i++) {
    EXPECT_FLOAT_EQ(out[0].data[i], 0.0f);
    EXPECT_FLOAT_EQ(out[1].data[i], 1.0f);
  }

  s.parts[0]->lock.flags = CELL_MASKED;
  ensure_lock_mask(s.parts[0]->lock, 5)[4] = 1;
  CompositeStore back(2, lengths);
  save_and_load(s, back);
  EXPECT_EQ(to_vector(back.parts[2]->rows[1]), row);
}
