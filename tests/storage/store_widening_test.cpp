// WideningStore: 16-bit sums against a double reference, the one widening of
// a group when the peaks of a cell pass 65535, 24-bit sums after it, the
// reading rules of integer sums, locks, and the stored form.
#include <gtest/gtest.h>

#include <random>

#include "store_support.h"

using namespace store_test;

namespace {

struct WideningTest : StoreSettings {};

std::vector<std::vector<uint32_t>> cell_values(const WideningStore& s, int g, int c) {
  int n = s.shape->cells[s.shape->cell_index(g, c)].length;
  std::vector<std::vector<uint32_t>> out(s.shape->actions);
  for (int a = 0; a < s.shape->actions; a++)
    for (int i = 0; i < n; i++) out[a].push_back(s.value_at(g, c, a, i));
  return out;
}

// One accumulation checked against the reference of the group's width.
void accumulate_and_check(std::mt19937& rng, WideningStore& s, int g, int c, float w, bool wide) {
  int n = s.shape->cells[s.shape->cell_index(g, c)].length;
  int actions = s.shape->actions;
  auto before = cell_values(s, g, c);
  Rows strat = random_strategy(rng, actions, n);
  HandVector reach;
  fill(reach, random_floats(rng, n, 0.0f, 1.0f));
  reach.data[0] = 1.0f;  // the peak of the step is w
  s.accumulate_strategy(g, c, strat.data(), reach, w);
  auto after = cell_values(s, g, c);
  for (int a = 0; a < actions; a++)
    for (int i = 0; i < n; i++) {
      double x = double(w) * reach.data[i];
      double e = wide ? std::trunc(0.5 + strat[a].data[i] * x + float(before[a][i]))
                      : before[a][i] + std::trunc(0.5 + x * strat[a].data[i]);
      ASSERT_LE(std::fabs(after[a][i] - e), 1.0) << "action " << a << " hand " << i;
    }
}

}  // namespace

TEST_F(WideningTest, SumsWidenOnceWhenThePeaksPass65535) {
  std::mt19937 rng(41);
  StoreShape shape = make_store_shape(3, {{20, 9}, {15}});
  WideningStore s(&shape);
  ASSERT_TRUE(s.materialise());
  // Cell (0, 1) takes peaks of at most 1000 a step: 65 steps stay in 16 bits.
  float total = 0;
  for (int step = 0; step < 65; step++) {
    accumulate_and_check(rng, s, 0, 1, 1000.0f, false);
    total += 1000.0f;
  }
  EXPECT_EQ(s.wide[0], 0);
  EXPECT_EQ(s.peaks[1], 65000.0f);
  // The next step passes 65535 and widens group 0 before adding.
  accumulate_and_check(rng, s, 0, 1, 1000.0f, true);
  EXPECT_EQ(s.wide[0], 1);
  EXPECT_EQ(s.wide[1], 0);
  uint8_t* wide_block = s.data[0];
  for (int step = 0; step < 30; step++) accumulate_and_check(rng, s, 0, 1, 5000.0f, true);
  EXPECT_EQ(s.data[0], wide_block);  // never widened again
  // Other cells of the wide group continue in 24 bits too, from zero.
  accumulate_and_check(rng, s, 0, 0, 100.0f, true);
  // The untouched group is still 16-bit and zero.
  for (auto& row : cell_values(s, 1, 0))
    for (uint32_t v : row) EXPECT_EQ(v, 0u);
  // Values above 16 bits are held.
  uint32_t top = 0;
  for (auto& row : cell_values(s, 0, 1))
    for (uint32_t v : row) top = std::max(top, v);
  EXPECT_GT(top, 65535u);
}

TEST_F(WideningTest, WideningKeepsEveryValue) {
  std::mt19937 rng(42);
  StoreShape shape = make_store_shape(2, {{7, 12, 3}});
  WideningStore s(&shape);
  ASSERT_TRUE(s.materialise());
  for (int c = 0; c < 3; c++)
    for (int step = 0; step < 5; step++) accumulate_and_check(rng, s, 0, c, 3000.0f, false);
  std::vector<std::vector<std::vector<uint32_t>>> before;
  for (int c = 0; c < 3; c++) before.push_back(cell_values(s, 0, c));
  s.widen(0);
  EXPECT_EQ(s.wide[0], 1);
  for (int c = 0; c < 3; c++) EXPECT_EQ(cell_values(s, 0, c), before[c]);
}

TEST_F(WideningTest, ReadingIntegerSums) {
  StoreShape shape = make_store_shape(4, {{3}, {3}});
  WideningStore s(&shape);
  const float zeros[4] = {0, 0, 0, 0};
  Rows out(4);
  // No memory yet: every hand is all zero.
  s.read_strategy(out.data(), 0, 0, zeros);
  EXPECT_EQ(to_vector(out[2]), std::vector<float>(3, 0.25f));
  s.read_strategy(out.data(), 0, 0, nullptr);
  EXPECT_EQ(to_vector(out[2]), std::vector<float>(3, 0.0f));
  ASSERT_TRUE(s.materialise());
  for (int g = 0; g < 2; g++) {
    if (g == 1) s.widen(1);
    std::vector<std::vector<float>> rows = {{1, 0, 70000}, {1, 0, 10000}, {2, 0, 0}, {0, 0, 20000}};
    if (g == 0) rows[0][2] = 60000;
    for (int a = 0; a < 4; a++) s.write_row(g, 0, a, rows[a].data());
    s.read_strategy(out.data(), g, 0, zeros);  // non-null defaults: 1 / actions
    double sum2 = rows[0][2] + rows[1][2] + rows[3][2];
    for (int a = 0; a < 4; a++) {
      EXPECT_NEAR(out[a].data[0], rows[a][0] / 4.0, 1e-6);
      EXPECT_EQ(out[a].data[1], 0.25f);
      EXPECT_NEAR(out[a].data[2], rows[a][2] / sum2, 1e-6);
    }
    s.read_strategy(out.data(), g, 0, nullptr);  // null defaults: 0
    for (int a = 0; a < 4; a++) EXPECT_EQ(out[a].data[1], 0.0f);
  }
  // write_row limits to the width of the group.
  std::vector<float> big = {1e9f, -1.0f, 65535.9f};
  s.write_row(0, 0, 0, big.data());
  s.write_row(1, 0, 0, big.data());
  EXPECT_EQ(cell_values(s, 0, 0)[0], (std::vector<uint32_t>{65535, 0, 65535}));
  EXPECT_EQ(cell_values(s, 1, 0)[0], (std::vector<uint32_t>{16777215, 0, 65535}));
}

TEST_F(WideningTest, LocksAndNoOps) {
  std::mt19937 rng(43);
  StoreShape shape = make_store_shape(2, {{10}});
  WideningStore s(&shape);
  ASSERT_TRUE(s.materialise());
  Rows strat = random_strategy(rng, 2, 10);
  HandVector reach, empty;
  fill(reach, random_floats(rng, 10, 0.5f, 1.0f));
  empty.count = 10;
  s.accumulate_strategy(0, 0, strat.data(), reach, 0.0f);
  s.accumulate_strategy(0, 0, strat.data(), empty, 100.0f);
  s.cell_lock_to_set(0, 0)->flags = CELL_LOCKED;
  s.accumulate_strategy(0, 0, strat.data(), reach, 100.0f);
  for (auto& row : cell_values(s, 0, 0))
    for (uint32_t v : row) EXPECT_EQ(v, 0u);
  EXPECT_EQ(s.peaks[0], 0.0f);
  CellLock& lock = *s.cell_lock_to_set(0, 0);
  lock.flags = CELL_MASKED;
  ensure_lock_mask(lock, 10)[4] = 1;
  s.accumulate_strategy(0, 0, strat.data(), reach, 100.0f);
  auto v = cell_values(s, 0, 0);
  for (int i = 0; i < 10; i++) EXPECT_EQ(v[0][i] + v[1][i] == 0, i == 4) << i;
}

TEST_F(WideningTest, SaveLoadRoundTripAndIncompatibleFormat) {
  std::mt19937 rng(44);
  StoreShape shape = make_store_shape(3, {{11, 4}, {9}, {30}});
  WideningStore s(&shape);
  ASSERT_TRUE(s.materialise());
  for (int g = 0; g < 3; g++)
    for (int c = 0; c < shape.groups[g].cell_count; c++)
      for (int step = 0; step < 3; step++) accumulate_and_check(rng, s, g, c, 9000.0f, false);
  s.widen(1);
  for (int step = 0; step < 10; step++) accumulate_and_check(rng, s, 1, 0, 20000.0f, true);
  s.cell_lock_to_set(2, 0)->flags = CELL_LOCKED;
  WideningStore back(&shape);
  std::vector<uint8_t> bytes = save_and_load(s, back);
  EXPECT_EQ(back.wide, s.wide);
  for (int g = 0; g < 3; g++)
    for (int c = 0; c < shape.groups[g].cell_count; c++) EXPECT_EQ(cell_values(back, g, c), cell_values(s, g, c));
  EXPECT_EQ(back.cell_lock_info(2, 0)->flags, uint32_t(CELL_LOCKED));

  // The byte after the lock records is the store's format: a newer one is refused.
  std::vector<uint8_t> newer = bytes;
  size_t at = 4 * size_t(shape.cell_count);
  ASSERT_EQ(newer[at], 1);
  newer[at] = 2;
  WideningStore refused(&shape);
  MemoryByteSource nsrc(newer.data(), newer.size());
  try {
    refused.load(nsrc);
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "ERROR: incompatible data\n");
  }
}
