// Shapes and the flat river stores: FloatFlatStore and Word16FlatStore
// against double references, with the fixed point's truncation, group
// averaging, adaptive precision, locks and the stored forms of every format.
#include <gtest/gtest.h>

#include <random>

#include "platform/platform.h"
#include "storage/codec/codec.h"
#include "store_support.h"

using namespace store_test;

namespace {

struct FlatStoreTest : StoreSettings {};

// All values of cell (g, c) of a 16-bit flat store, by action.
std::vector<std::vector<uint32_t>> cell_values(Word16FlatStore& s, int g, int c) {
  const StoreCell& cell = s.shape->cells[s.shape->cell_index(g, c)];
  std::vector<std::vector<uint32_t>> out(s.shape->actions);
  for (int a = 0; a < s.shape->actions; a++)
    for (int i = 0; i < cell.length; i++)
      out[a].push_back(s.values()[cell.offset + a * align4(cell.length) + i]);
  return out;
}

std::vector<std::vector<float>> cell_values(FloatFlatStore& s, int g, int c) {
  const StoreCell& cell = s.shape->cells[s.shape->cell_index(g, c)];
  std::vector<std::vector<float>> out(s.shape->actions);
  for (int a = 0; a < s.shape->actions; a++)
    for (int i = 0; i < cell.length; i++)
      out[a].push_back(s.values()[cell.offset + a * align4(cell.length) + i]);
  return out;
}

void write_cell(Store& s, int g, int c, const std::vector<std::vector<float>>& rows) {
  for (int a = 0; a < int(rows.size()); a++) s.write_row(g, c, a, rows[a].data());
}

}  // namespace

// ---- Shapes -------------------------------------------------------------------------

TEST(StoreShapes, OffsetsSpansPaddingAndTable) {
  StoreShape s = make_store_shape(2, {{5, 3}, {0}, {8}});
  // Two rows of align4(5) = 8, then 3 -> 4; an empty cell takes no room.
  std::vector<int32_t> offsets;
  for (const StoreCell& c : s.cells) offsets.push_back(c.offset);
  EXPECT_EQ(offsets, (std::vector<int32_t>{0, 16, 24, 24}));
  EXPECT_EQ(s.group_spans[2].base, 24);
  EXPECT_EQ(s.group_spans[2].span, 16);
  EXPECT_EQ(s.padded_values, 40);
  EXPECT_EQ(s.values, 32);
  EXPECT_EQ(s.cell_index(2, 0), 3);
  BoardCells b;
  b.root_length = 100;
  b.turn_lengths = {90, 80};
  b.river_lengths = {{70, 71, 72}, {60, 61}};
  StoreShapeTable t;
  build_store_shapes(t, b, 4);
  EXPECT_EQ(t.shape(2, 2)->cells[1].length, 80);
  EXPECT_EQ(t.shape(3, 4)->values, 4 * (70 + 71 + 72 + 60 + 61));
  EXPECT_EQ(t.shape(3, 4)->groups[1].first_cell, 3);
  EXPECT_EQ(t.shape(3, 5), nullptr);
}

// ---- FloatFlatStore ----------------------------------------------------------------------

TEST_F(FlatStoreTest, FloatStoreWithoutDataReadsDefaults) {
  StoreShape shape = make_store_shape(3, {{6, 2}});
  FloatFlatStore s(&shape);
  EXPECT_EQ(s.value_width(), 4);
  const float d[3] = {0.9f, 0.04f, 0.06f};
  Rows out(3);
  s.read_strategy(out.data(), 0, 1, d);
  for (int a = 0; a < 3; a++) EXPECT_EQ(to_vector(out[a]), std::vector<float>(2, d[a]));
  ASSERT_TRUE(s.materialise());
  EXPECT_GE(s.data_bytes, size_t(shape.padded_values) * 4);
  s.read_strategy(out.data(), 0, 0, d);  // committed, all zero
  for (int a = 0; a < 3; a++) EXPECT_EQ(to_vector(out[a]), std::vector<float>(6, d[a]));
}

TEST_F(FlatStoreTest, FloatStoreAgainstReference) {
  std::mt19937 rng(31);
  for (int actions : {2, 3, 5}) {
    SCOPED_TRACE(actions);
    StoreShape shape = make_store_shape(actions, {{13, 9, 30}, {17}});
    FloatFlatStore regrets(&shape), sums(&shape);
    ASSERT_TRUE(regrets.materialise() && sums.materialise());
    check_float_cell(regrets, sums, 0, 2, 30, actions, rng,
                     [](Store& s, int a) { return cell_values(static_cast<FloatFlatStore&>(s), 0, 2)[size_t(a)]; });
    // The neighbours were not touched, and read as the defaults.
    for (auto& row : cell_values(sums, 1, 0))
      for (float x : row) EXPECT_EQ(x, 0.0f);
    std::vector<float> d(size_t(actions), 0.25f);
    Rows out(actions);
    regrets.read_strategy(out.data(), 0, 1, d.data());
    for (int a = 0; a < actions; a++) EXPECT_EQ(to_vector(out[a]), std::vector<float>(9, d[size_t(a)]));
  }
}

TEST_F(FlatStoreTest, FloatStoreSaveLoad) {
  std::mt19937 rng(32);
  StoreShape shape = make_store_shape(3, {{4, 7}, {11}});
  FloatFlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  write_cell(s, 0, 1, {random_floats(rng, 7, 0, 3), random_floats(rng, 7, 0, 3), random_floats(rng, 7, 0, 3)});
  write_cell(s, 1, 0, {random_floats(rng, 11, 0, 3), random_floats(rng, 11, 0, 3), random_floats(rng, 11, 0, 3)});
  s.cell_lock_to_set(1, 0)->flags = CELL_LOCKED;
  FloatFlatStore back(&shape);
  EXPECT_EQ(save_and_load(s, back).size(), 3 * 4 + (4 + 7 + 11) * 3 * 4u);
  EXPECT_EQ(back.cell_lock_info(1, 0)->flags, uint32_t(CELL_LOCKED));
  EXPECT_EQ(cell_values(back, 0, 1), cell_values(s, 0, 1));
  EXPECT_EQ(cell_values(back, 1, 0), cell_values(s, 1, 0));
}

// A store keeps no lock records until a cell is locked, yet stores one per
// cell; a file that locks nothing makes none, one that locks a cell makes them.
TEST_F(FlatStoreTest, LockRecordsOnlyOnceACellIsLocked) {
  StoreShape shape = make_store_shape(2, {{5, 6}, {7}});
  FloatFlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  EXPECT_EQ(s.cell_lock_info(0, 1), nullptr);
  FloatFlatStore back(&shape);
  std::vector<uint8_t> bytes = save_and_load(s, back);
  ASSERT_EQ(bytes.size(), 3 * 4 + (5 + 6 + 7) * 2 * 4u);
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 12), std::vector<uint8_t>(12, 0));
  EXPECT_TRUE(back.locks.empty());
  EXPECT_EQ(back.cell_lock_info(1, 0), nullptr);
  StoreMemory bare;
  add_store_memory(&back, bare, true);

  s.cell_lock_to_set(0, 1)->flags = CELL_LOCKED;
  FloatFlatStore locked(&shape);
  std::vector<uint8_t> again = save_and_load(s, locked);
  EXPECT_EQ(again.size(), bytes.size());
  ASSERT_NE(locked.cell_lock_info(0, 1), nullptr);
  EXPECT_EQ(locked.cell_lock_info(0, 1)->flags, uint32_t(CELL_LOCKED));
  EXPECT_EQ(locked.cell_lock_info(0, 0)->flags, 0u);
  StoreMemory with;
  add_store_memory(&locked, with, true);
  EXPECT_EQ(with.heap - bare.heap, int64_t(3 * sizeof(CellLock)));
}

// ---- Word16FlatStore ------------------------------------------------------------------------

TEST_F(FlatStoreTest, Word16WriteRowTruncatesAndLimits) {
  StoreShape shape = make_store_shape(2, {{6}});
  Word16FlatStore s(&shape);
  EXPECT_EQ(s.value_width(), 2);
  EXPECT_EQ(s.cell_factors, std::vector<float>(1, 1.0f));
  ASSERT_TRUE(s.materialise());
  std::vector<float> row = {3.9f, -5.0f, 70000.0f, 65534.7f, 0.4f, 65535.0f};
  s.write_row(0, 0, 1, row.data());
  EXPECT_EQ(cell_values(s, 0, 0)[1], (std::vector<uint32_t>{3, 0, 65535, 65534, 0, 65535}));
  EXPECT_EQ(cell_values(s, 0, 0)[0], std::vector<uint32_t>(6, 0));
}

TEST_F(FlatStoreTest, Word16ReadingRules) {
  StoreShape two = make_store_shape(2, {{4}});
  Word16FlatStore s(&two);
  ASSERT_TRUE(s.materialise());
  write_cell(s, 0, 0, {{1, 0, 0, 3}, {3, 5, 0, 1}});
  const float d[2] = {0.3f, 0.3f};
  Rows out(2);
  s.read_strategy(out.data(), 0, 0, d);
  EXPECT_EQ(to_vector(out[0]), (std::vector<float>{0.25f, 0.0f, 0.3f, 0.75f}));
  // The second action is always 1 - the first, defaults or not.
  EXPECT_EQ(to_vector(out[1]), (std::vector<float>{0.75f, 1.0f, 0.7f, 0.25f}));

  for (int actions : {1, 3, 4, 5, 7}) {
    SCOPED_TRACE(actions);
    std::mt19937 rng(33 + actions);
    StoreShape shape = make_store_shape(actions, {{9, 25}});
    Word16FlatStore w(&shape);
    ASSERT_TRUE(w.materialise());
    std::vector<std::vector<float>> rows(actions);
    for (auto& r : rows) {
      r = random_floats(rng, 25, 0, 60000);
      for (int i = 0; i < 25; i += 3) r[i] = 0;
    }
    write_cell(w, 0, 1, rows);
    std::vector<float> dd(actions);
    for (int a = 0; a < actions; a++) dd[a] = 0.1f * float(a + 1);
    Rows o(actions);
    w.read_strategy(o.data(), 0, 1, dd.data());
    auto v = cell_values(w, 0, 1);
    for (int i = 0; i < 25; i++) {
      double sum = 0;
      for (int a = 0; a < actions; a++) sum += v[a][i];
      for (int a = 0; a < actions; a++)
        EXPECT_NEAR(o[a].data[i], sum == 0 ? dd[a] : v[a][i] / sum, 2e-6) << i;
    }
  }
}

TEST_F(FlatStoreTest, Word16UpdateAgainstReference) {
  std::mt19937 rng(34);
  for (int actions : {2, 3, 5}) {
    SCOPED_TRACE(actions);
    StoreShape shape = make_store_shape(actions, {{40, 23}, {31}});
    Word16FlatStore s(&shape);
    ASSERT_TRUE(s.materialise());
    const int g = 0, c = 1, n = 23, cell = shape.cell_index(g, c);
    int off_by_one = 0;
    for (int step = 0; step < 40; step++) {
      RegretIteration = step;  // rescales at 0, 10, 20, 30
      double scale = 40.0;
      auto before = cell_values(s, g, c);
      float factor = s.cell_factors[cell];
      HandVector base;
      fill(base, random_floats(rng, n, -3.0f, 3.0f));
      Rows children(actions);
      for (int a = 0; a < actions; a++)
        if (a != 1 || step % 2) fill(children[a], random_floats(rng, n, -3.0f, 3.0f));
      for (int i = 0; i < n; i += 4) base.data[i] = 0.0001f;  // below 1 / s: no change
      for (int i = 0; i < n; i += 4)
        for (int a = 0; a < actions; a++)
          if (children[a].data) children[a].data[i] = 0;
      s.update_regrets(g, c, base, children.data(), nullptr, scale);

      // Reference: the step in double, then the rescale with the same rule.
      double sf = double(float(scale * factor));
      std::vector<std::vector<uint32_t>> ref = before;
      uint32_t m = 0;
      for (int a = 0; a < actions; a++)
        for (int i = 0; i < n; i++) {
          double ch = children[a].data ? children[a].data[i] : 0.0;
          ref[a][i] = ref_regret_u16(before[a][i], ch - base.data[i], sf);
          m = std::max(m, ref[a][i]);
        }
      double f = 1;
      if (step % 10 == 0 && m > 0) {
        if (m < 1024 && factor <= 32) f = std::min(8.0, std::exp2(std::ceil(std::log2(1024.0 / m))));
        else if (m > 60000) f = 0.5;
      }
      EXPECT_FLOAT_EQ(s.cell_factors[cell], float(factor * f));
      auto got = cell_values(s, g, c);
      for (int a = 0; a < actions; a++)
        for (int i = 0; i < n; i++) {
          double e = std::trunc(ref[a][i] * f);
          double diff = std::fabs(double(got[a][i]) - e);
          ASSERT_LE(diff, f > 1 ? f : 1.0) << "step " << step << " action " << a << " hand " << i;
          off_by_one += diff != 0;
          if (i % 4 == 0 && f == 1) {
            EXPECT_EQ(got[a][i], before[a][i]);
          }
        }
    }
    EXPECT_LT(off_by_one, 40 * actions * n / 50);  // truncation rarely flips
    EXPECT_GT(s.cell_factors[cell], 1.0f);         // the small regrets were scaled up
  }
}

TEST_F(FlatStoreTest, Word16AdaptiveRescale) {
  StoreShape shape = make_store_shape(2, {{3}});
  Word16FlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  HandVector base;
  fill(base, {0, 0, 0});
  Rows zero(2);  // d = 0 everywhere: only the rescale acts
  struct Case {
    std::vector<float> r0, r1;
    float factor;
    int iteration;
    std::vector<uint32_t> want0, want1;
    float want_factor;
  };
  const Case cases[] = {
      {{100, 7, 0}, {50, 0, 1}, 1, 10, {800, 56, 0}, {400, 0, 8}, 8},        // 1024 / 100: up by 8
      {{300, 1, 0}, {0, 0, 0}, 2, 20, {1200, 4, 0}, {0, 0, 0}, 8},          // 1024 / 300: up by 4
      {{2000, 1, 0}, {0, 0, 5}, 1, 30, {2000, 1, 0}, {0, 0, 5}, 1},         // between target and 60000
      {{61001, 3, 0}, {0, 7, 0}, 4, 0, {30500, 1, 0}, {0, 3, 0}, 2},        // above 60000: halved
      {{100, 0, 0}, {0, 0, 0}, 64, 40, {100, 0, 0}, {0, 0, 0}, 64},         // factor above 32: no more up
      {{60001, 0, 0}, {0, 0, 0}, 64, 40, {30000, 0, 0}, {0, 0, 0}, 32},     // ... but halving still
      {{100, 0, 0}, {0, 0, 0}, 1, 41, {100, 0, 0}, {0, 0, 0}, 1},           // not a multiple of 10
      {{0, 0, 0}, {0, 0, 0}, 1, 50, {0, 0, 0}, {0, 0, 0}, 1},               // all zero
      {{1000, 0, 0}, {0, 0, 0}, 1, 60, {4000, 0, 0}, {0, 0, 0}, 4},         // precision 1: target 2048
      {{100, 0, 0}, {0, 0, 0}, 1, 70, {100, 0, 0}, {0, 0, 0}, 1},           // no adaptive precision
  };
  for (const Case& c : cases) {
    Precision = c.iteration >= 60 ? 1.0 : 0.0;
    AdaptivePrecision = c.iteration < 70;
    write_cell(s, 0, 0, {c.r0, c.r1});
    s.cell_factors[0] = c.factor;
    RegretIteration = c.iteration;
    s.update_regrets(0, 0, base, zero.data(), nullptr, 10.0);
    EXPECT_EQ(cell_values(s, 0, 0), (std::vector<std::vector<uint32_t>>{c.want0, c.want1})) << c.iteration;
    EXPECT_EQ(s.cell_factors[0], c.want_factor) << c.iteration;
  }
}

TEST_F(FlatStoreTest, Word16ScaleUsesTheCellFactorOnlyWithAdaptivePrecision) {
  StoreShape shape = make_store_shape(1, {{2}});
  Word16FlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  s.cell_factors[0] = 16.0f;
  HandVector base;
  fill(base, {0, 0});
  Rows child(1);
  fill(child[0], {1.0f, 16.0f});
  s.update_regrets(0, 0, base, child.data(), nullptr, 1.0);  // s = 16: p = 8
  EXPECT_NEAR(int(cell_values(s, 0, 0)[0][0]), 8, 1);
  EXPECT_NEAR(int(cell_values(s, 0, 0)[0][1]), 64, 1);
  AdaptivePrecision = false;
  write_cell(s, 0, 0, {{0, 0}});
  s.update_regrets(0, 0, base, child.data(), nullptr, 1.0);  // s = 1
  EXPECT_NEAR(int(cell_values(s, 0, 0)[0][0]), 1, 1);
  EXPECT_NEAR(int(cell_values(s, 0, 0)[0][1]), 8, 1);
}

TEST_F(FlatStoreTest, Word16GroupAveraging) {
  StoreShape shape = make_store_shape(2, {{7}});
  Word16FlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  write_cell(s, 0, 0, {{10, 20, 31, 5, 7, 100, 1}, {1, 2, 3, 4, 5, 6, 7}});
  const int16_t runs[] = {3, 1, 2, 1};
  HandGroupRuns groups{runs, 4};
  HandVector base;
  fill(base, std::vector<float>(7, 0.0f));
  Rows zero(2);
  s.update_regrets(0, 0, base, zero.data(), &groups, 5.0);
  auto v = cell_values(s, 0, 0);
  EXPECT_EQ(v[0], (std::vector<uint32_t>{20, 20, 20, 5, 53, 53, 1}));
  EXPECT_EQ(v[1], (std::vector<uint32_t>{2, 2, 2, 4, 5, 5, 7}));

  // Frozen hands keep their values and stay out of the mean.
  write_cell(s, 0, 0, {{10, 20, 31, 5, 7, 100, 1}, {1, 2, 3, 4, 5, 6, 7}});
  CellLock& lock = *s.cell_lock_to_set(0, 0);
  lock.flags = CELL_MASKED;
  ensure_lock_mask(lock, 7)[2] = 1;
  s.update_regrets(0, 0, base, zero.data(), &groups, 5.0);
  v = cell_values(s, 0, 0);
  EXPECT_EQ(v[0], (std::vector<uint32_t>{15, 15, 31, 5, 53, 53, 1}));
}

TEST_F(FlatStoreTest, Word16LocksAndFrozenHands) {
  std::mt19937 rng(35);
  StoreShape shape = make_store_shape(3, {{12}});
  Word16FlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  write_cell(s, 0, 0, {random_floats(rng, 12, 0, 1000), random_floats(rng, 12, 0, 1000),
                       random_floats(rng, 12, 0, 1000)});
  auto before = cell_values(s, 0, 0);
  HandVector base;
  fill(base, random_floats(rng, 12, -5, 5));
  Rows children(3);
  for (int a = 0; a < 3; a++) fill(children[a], random_floats(rng, 12, -5, 5));
  s.cell_lock_to_set(0, 0)->flags = CELL_LOCKED;
  s.update_regrets(0, 0, base, children.data(), nullptr, 50.0);
  EXPECT_EQ(cell_values(s, 0, 0), before);
  CellLock& lock = *s.cell_lock_to_set(0, 0);
  lock.flags = CELL_MASKED;
  uint8_t* m = ensure_lock_mask(lock, 12);
  m[0] = m[7] = m[11] = 1;
  s.update_regrets(0, 0, base, children.data(), nullptr, 50.0);
  auto after = cell_values(s, 0, 0);
  int moved = 0;
  for (int a = 0; a < 3; a++)
    for (int i = 0; i < 12; i++) {
      if (m[i])
        EXPECT_EQ(after[a][i], before[a][i]);
      else
        moved += after[a][i] != before[a][i];
    }
  EXPECT_GT(moved, 15);
}

TEST_F(FlatStoreTest, Word16SaveLoadAllFormats) {
  std::mt19937 rng(36);
  StoreShape shape = make_store_shape(2, {{33, 5}, {40}});
  Word16FlatStore s(&shape);
  ASSERT_TRUE(s.materialise());
  for (int g = 0; g < 2; g++)
    for (int c = 0; c < shape.groups[g].cell_count; c++) {
      int n = shape.cells[shape.cell_index(g, c)].length;
      write_cell(s, g, c, {random_floats(rng, n, 0, 5000), random_floats(rng, n, 0, 65535)});
    }
  s.cell_factors = {2.0f, 0.5f, 8.0f};
  CellLock& lock = *s.cell_lock_to_set(0, 1);
  lock.flags = CELL_MASKED;
  ensure_lock_mask(lock, 5)[0] = 1;

  Word16FlatStore back(&shape);
  std::vector<uint8_t> bytes = save_and_load(s, back);
  for (int g = 0; g < 2; g++)
    for (int c = 0; c < shape.groups[g].cell_count; c++) EXPECT_EQ(cell_values(back, g, c), cell_values(s, g, c));
  EXPECT_EQ(back.cell_factors, s.cell_factors);

  // Older files: packed rows without factors (4..8), raw rows before 4.
  for (int format : {3, 8}) {
    SCOPED_TRACE(format);
    MemoryByteWriter w;
    for (const CellLock& l : s.locks) save_lock_record(w, l);
    for (const StoreCell& c : shape.cells)
      for (int a = 0; a < 2; a++) {
        const uint16_t* row = s.values() + c.offset + a * align4(c.length);
        if (format >= 4) {
          std::vector<uint8_t> packed(pack_bound16(c.length) + 64);
          uint16_t size = uint16_t(pack16(packed.data(), row, c.length) - packed.data());
          write_value<uint16_t>(w, size);
          w.write(packed.data(), size);
        } else {
          w.write(row, size_t(c.length) * 2);
        }
      }
    Word16FlatStore old(&shape);
    old.cell_factors[1] = 4.0f;
    MemoryByteSource osrc(w.bytes.data(), w.bytes.size());
    osrc.format = format;
    old.load(osrc);
    EXPECT_EQ(osrc.position, w.bytes.size());
    for (int g = 0; g < 2; g++)
      for (int c = 0; c < shape.groups[g].cell_count; c++) EXPECT_EQ(cell_values(old, g, c), cell_values(s, g, c));
    EXPECT_EQ(old.cell_factors, std::vector<float>(3, 1.0f));
  }

  // A row whose byte count doesn't match its values is refused.
  std::vector<uint8_t> bad = bytes;
  size_t first_row = 4 + (4 + 2 + 2 + 3 * 2) + 4;  // three lock records, the masked one with 3 runs
  bad[first_row] = uint8_t(bad[first_row] + 1);
  Word16FlatStore broken(&shape);
  MemoryByteSource bsrc(bad.data(), bad.size());
  EXPECT_THROW(broken.load(bsrc), std::runtime_error);
}

// Pages ahead of a load: whichever of the reader and the helper takes a
// block, it is all there when the reader's take returns, in the order of the
// list or out of it, and a block the helper doesn't know is filled directly.
TEST(PagesAhead, EveryBlockIsThereWhenTheReaderTakesIt) {
  const size_t bytes = 64 * page_size();
  constexpr int Blocks = 96;
  for (int round = 0; round < 2; round++) {
    std::vector<PageBlock> blocks;
    for (int i = 0; i <= Blocks; i++) {
      void* p = reserve_address_space(bytes);
      ASSERT_TRUE(p && commit_memory(p, bytes));
      blocks.push_back({p, bytes});
    }
    const PageBlock stranger = blocks.back();
    blocks.pop_back();
    ASSERT_EQ(resident_bytes_in(blocks[0].data, bytes), 0u);
    start_pages_ahead(blocks);
    for (int k = 0; k < Blocks; k++) {
      const int i = round == 0 ? k : Blocks - 1 - k;
      take_flat_pages(blocks[size_t(i)].data, bytes);
      ASSERT_EQ(resident_bytes_in(blocks[size_t(i)].data, bytes), bytes) << "round " << round << " block " << i;
    }
    take_flat_pages(stranger.data, bytes);
    EXPECT_EQ(resident_bytes_in(stranger.data, bytes), bytes);
    finish_pages_ahead();
    for (const PageBlock& b : blocks) release_address_space(b.data, b.bytes);
    release_address_space(stranger.data, bytes);
  }
}
