// PackedStore: groups that survive close and open at every compression level
// with identical values, the one-arena-per-player sequences, the arithmetic
// of both modes against the flat store and a reference, the stored form, and
// the fatal use of a closed group.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "storage/arena.h"
#include "storage/memory/counters.h"
#include "store_support.h"

using namespace store_test;

namespace {

struct PackedStoreTest : StoreSettings {};

// The storage pairs of compression levels 1 to 4.
const StoragePair LevelPairs[5] = {{0, 0}, {0, 1}, {1, 1}, {1, 2}, {2, 2}};

// Values of every cell of an open group, by cell then action then hand.
using GroupValues = std::vector<std::vector<std::vector<uint32_t>>>;

GroupValues group_values(const PackedStore& s, int g) {
  GroupValues out;
  const StoreGroup& grp = s.shape->groups[g];
  for (int c = 0; c < grp.cell_count; c++) {
    const StoreCell& cell = s.shape->cells[grp.first_cell + c];
    std::vector<std::vector<uint32_t>> rows(s.shape->actions);
    for (int a = 0; a < s.shape->actions; a++) {
      int64_t at = cell.offset - s.shape->group_spans[g].base + int64_t(a) * align4(cell.length);
      for (int i = 0; i < cell.length; i++)
        rows[a].push_back(s.wide16 ? s.group16(g)[at + i] : s.group32(g)[at + i]);
    }
    out.push_back(rows);
  }
  return out;
}

// Fills an open group with values like those of a solve: runs of zeros,
// neighbours alike, now and then a large one.
void fill_group(std::mt19937& rng, PackedStore& s, int g) {
  const StoreGroup& grp = s.shape->groups[g];
  std::uniform_int_distribution<int> pick(0, 9);
  uint32_t top = s.wide16 ? 65535u : 0xffffffffu;
  for (int c = 0; c < grp.cell_count; c++) {
    const StoreCell& cell = s.shape->cells[grp.first_cell + c];
    for (int a = 0; a < s.shape->actions; a++) {
      int64_t at = cell.offset - s.shape->group_spans[g].base + int64_t(a) * align4(cell.length);
      uint32_t level = uint32_t(rng() % 3000);
      for (int i = 0; i < cell.length; i++) {
        int kind = pick(rng);
        uint32_t v = kind < 3 ? 0 : kind < 8 ? level + uint32_t(rng() % 40) : uint32_t(rng()) % top + (kind == 9);
        if (kind == 9 && i % 7 == 0) v = top;
        if (s.wide16)
          s.group16(g)[at + i] = uint16_t(v);
        else
          s.group32(g)[at + i] = v;
      }
    }
  }
}

struct Chain {
  std::vector<StoreShape> shapes;
  std::vector<std::unique_ptr<PackedStore>> stores;
  std::vector<RiverStoreRef> refs;
};

// Five stores of three action counts, players 0, 1, 0, 1, 1, over groups of
// cells whose lengths rise and fall.
void make_chain(Chain& ch, int level, bool wide16) {
  std::vector<std::vector<int32_t>> lengths = {{40, 38, 38, 45, 12}, {3}, {2, 17, 33}, {64, 64, 1}};
  ch.shapes.clear();
  for (int actions : {2, 3, 4}) ch.shapes.push_back(make_store_shape(actions, lengths));
  const int players[5] = {0, 1, 0, 1, 1};
  for (int i = 0; i < 5; i++) {
    ch.stores.push_back(std::make_unique<PackedStore>(&ch.shapes[i % 3], level, wide16));
    ch.refs.push_back({ch.stores.back().get(), players[i]});
  }
}

}  // namespace

TEST_F(PackedStoreTest, GroupsSurviveCloseAndOpenAtEveryLevel) {
  for (int level = 1; level <= 4; level++) {
    for (int kind = 0; kind < 2; kind++) {
      int arena_level = kind == 0 ? LevelPairs[level].regrets : LevelPairs[level].strategy;
      if (arena_level == 0) continue;  // that kind isn't packed at this level
      SCOPED_TRACE("level " + std::to_string(level) + (kind == 0 ? " regrets" : " sums"));
      std::mt19937 rng(51 + level * 2 + kind);
      Chain ch;
      make_chain(ch, arena_level, kind == 0);
      int64_t read_before = StorageBytesRead.load();
      for (int g = 0; g < 4; g++) {
        // First open: zeros, and the arena has nothing to read.
        open_river_group(ch.refs.data(), ch.refs.size(), g);
        EXPECT_EQ(StorageBytesRead.load(), read_before);
        for (auto& s : ch.stores) {
          for (auto& cell : group_values(*s, g))
            for (auto& row : cell)
              for (uint32_t v : row) ASSERT_EQ(v, 0u);
          fill_group(rng, *s, g);
        }
        std::vector<GroupValues> written;
        for (auto& s : ch.stores) written.push_back(group_values(*s, g));
        close_river_group(ch.refs.data(), ch.refs.size(), g, true);
        for (auto& s : ch.stores) EXPECT_EQ(s->buffers[g], nullptr);
        // One arena per player, in the first store of that player.
        EXPECT_NE(ch.stores[0]->arenas[g], nullptr);
        EXPECT_NE(ch.stores[1]->arenas[g], nullptr);
        for (int i = 2; i < 5; i++) EXPECT_EQ(ch.stores[i]->arenas[g], nullptr);
        EXPECT_TRUE(ch.stores[0]->arenas[g]->has_data());

        for (int pass = 0; pass < 3; pass++) {
          open_river_group(ch.refs.data(), ch.refs.size(), g);
          for (size_t i = 0; i < ch.stores.size(); i++)
            ASSERT_EQ(group_values(*ch.stores[i], g), written[i]) << "store " << i << " pass " << pass;
          if (pass == 0) {
            // A visit without keep leaves the stored form as it was.
            for (auto& s : ch.stores) fill_group(rng, *s, g);
            close_river_group(ch.refs.data(), ch.refs.size(), g, false);
          } else {
            // New values, smaller ones on the last pass: the region shrinks.
            for (auto& s : ch.stores) {
              fill_group(rng, *s, g);
              if (pass == 2) {
                size_t span = size_t(s->shape->group_spans[g].span);
                for (size_t i = 0; i < span; i++) {
                  if (s->wide16)
                    s->group16(g)[i] = uint16_t(s->group16(g)[i] & 3);
                  else
                    s->group32(g)[i] &= 3;
                }
              }
            }
            written.clear();
            for (auto& s : ch.stores) written.push_back(group_values(*s, g));
            close_river_group(ch.refs.data(), ch.refs.size(), g, true);
          }
        }
        open_river_group(ch.refs.data(), ch.refs.size(), g);
        for (size_t i = 0; i < ch.stores.size(); i++) ASSERT_EQ(group_values(*ch.stores[i], g), written[i]);
        close_river_group(ch.refs.data(), ch.refs.size(), g, false);
        read_before = StorageBytesRead.load();
      }
    }
  }
}

TEST_F(PackedStoreTest, RegretsMatchTheFlatStoreThroughCloseAndOpen) {
  std::mt19937 rng(52);
  for (int level : {1, 2}) {
    for (int actions : {2, 3, 4, 6}) {
      SCOPED_TRACE("level " + std::to_string(level) + " actions " + std::to_string(actions));
      StoreShape shape = make_store_shape(actions, {{30, 28, 31}, {19}});
      PackedStore packed(&shape, level, true);
      Word16FlatStore flat(&shape);
      ASSERT_TRUE(packed.materialise() && flat.materialise());
      RiverStoreRef ref{&packed, 0};
      const int16_t runs[] = {2, 1, 3, 10, 12};
      HandGroupRuns groups{runs, 5};
      for (int step = 0; step < 24; step++) {
        RegretIteration = step;
        int g = step % 2;
        open_river_group(&ref, 1, g);
        for (int c = 0; c < shape.groups[g].cell_count; c++) {
          int n = shape.cells[shape.cell_index(g, c)].length;
          HandVector base;
          fill(base, random_floats(rng, n, -4.0f, 4.0f));
          Rows children(actions);
          for (int a = 0; a < actions; a++) fill(children[a], random_floats(rng, n, -4.0f, 4.0f));
          const HandGroupRuns* grp = step < 6 ? &groups : nullptr;
          packed.update_regrets(g, c, base, children.data(), grp, 25.0);
          flat.update_regrets(g, c, base, children.data(), grp, 25.0);
          const std::vector<float> d(actions, 0.5f);
          Rows a_out(actions), b_out(actions);
          packed.read_strategy(a_out.data(), g, c, d.data());
          flat.read_strategy(b_out.data(), g, c, d.data());
          for (int a = 0; a < actions; a++) expect_near_all(a_out[a].data, b_out[a].data, n, 2e-6, "strategy");
        }
        close_river_group(&ref, 1, g, true);
      }
      EXPECT_EQ(packed.cell_factors, flat.cell_factors);
      for (int g = 0; g < 2; g++) {
        open_river_group(&ref, 1, g);
        for (int c = 0; c < shape.groups[g].cell_count; c++) {
          const StoreCell& cell = shape.cells[shape.cell_index(g, c)];
          for (int a = 0; a < actions; a++) {
            int64_t at = cell.offset - shape.group_spans[g].base + int64_t(a) * align4(cell.length);
            for (int i = 0; i < cell.length; i++)
              ASSERT_EQ(packed.group16(g)[at + i], flat.values()[cell.offset + a * align4(cell.length) + i]);
          }
        }
        close_river_group(&ref, 1, g, false);
      }
    }
  }
}

TEST_F(PackedStoreTest, SumsAgainstReference) {
  std::mt19937 rng(53);
  StoreShape shape = make_store_shape(3, {{25, 14}});
  PackedStore s(&shape, 2, false);
  RiverStoreRef ref{&s, 1};
  std::vector<std::vector<double>> expect(3, std::vector<double>(14, 0.0));
  for (int step = 0; step < 12; step++) {
    open_river_group(&ref, 1, 0);
    Rows strat = random_strategy(rng, 3, 14);
    HandVector reach;
    fill(reach, random_floats(rng, 14, 0.0f, 1.0f));
    float w = std::min(262143.0f, std::pow(float(step + 1), 1.5f) * 50.0f);
    s.accumulate_strategy(0, 1, strat.data(), reach, w);
    auto v = group_values(s, 0)[1];
    for (int a = 0; a < 3; a++)
      for (int i = 0; i < 14; i++) {
        expect[a][i] = std::trunc(0.5 + double(w) * strat[a].data[i] * reach.data[i] + expect[a][i]);
        ASSERT_LE(std::fabs(v[a][i] - expect[a][i]), 1.0 + 1e-6 * expect[a][i]);
        expect[a][i] = v[a][i];
      }
    close_river_group(&ref, 1, 0, true);
  }
  open_river_group(&ref, 1, 0);
  GroupValues all = group_values(s, 0);
  for (auto& row : all[0])
    for (uint32_t v : row) EXPECT_EQ(v, 0u);  // the other cell stayed empty
  // Integer sums read with the switch rule.
  const float zeros[3] = {0, 0, 0};
  Rows out(3);
  s.read_strategy(out.data(), 0, 0, zeros);
  EXPECT_EQ(to_vector(out[1]), std::vector<float>(25, 1.0f / 3.0f));
  s.read_strategy(out.data(), 0, 0, nullptr);
  EXPECT_EQ(to_vector(out[1]), std::vector<float>(25, 0.0f));
  s.read_strategy(out.data(), 0, 1, nullptr);
  auto v = group_values(s, 0)[1];
  for (int i = 0; i < 14; i++) {
    double sum = double(v[0][i]) + v[1][i] + v[2][i];
    for (int a = 0; a < 3; a++) EXPECT_NEAR(out[a].data[i], v[a][i] / sum, 1e-6);
  }
  // Locked and frozen hands.
  auto before = group_values(s, 0)[1];
  Rows strat = random_strategy(rng, 3, 14);
  HandVector reach;
  fill(reach, random_floats(rng, 14, 0.5f, 1.0f));
  s.cell_lock_to_set(0, 1)->flags = CELL_LOCKED;
  s.accumulate_strategy(0, 1, strat.data(), reach, 100.0f);
  EXPECT_EQ(group_values(s, 0)[1], before);
  CellLock& lock = *s.cell_lock_to_set(0, 1);
  lock.flags = CELL_MASKED;
  ensure_lock_mask(lock, 14)[13] = 1;
  s.accumulate_strategy(0, 1, strat.data(), reach, 100.0f);
  auto after = group_values(s, 0)[1];
  for (int a = 0; a < 3; a++) {
    EXPECT_EQ(after[a][13], before[a][13]);
    EXPECT_NE(after[a][0], before[a][0]);
  }
  close_river_group(&ref, 1, 0, false);
}

// Rows written through the store are limited to 16 bits and survive a close.
TEST_F(PackedStoreTest, WriteRowSurvivesCloseAndOpen) {
  StoreShape shape = make_store_shape(2, {{4}});
  PackedStore s(&shape, 1, true);
  RiverStoreRef ref{&s, 0};
  open_river_group(&ref, 1, 0);
  std::vector<float> r1 = {3, 5, 0, 1e6f};
  s.write_row(0, 0, 1, r1.data());
  close_river_group(&ref, 1, 0, true);
  open_river_group(&ref, 1, 0);
  EXPECT_EQ(group_values(s, 0)[0][1], (std::vector<uint32_t>{3, 5, 0, 65535}));
  EXPECT_EQ(group_values(s, 0)[0][0], (std::vector<uint32_t>{0, 0, 0, 0}));
  close_river_group(&ref, 1, 0, false);
}

TEST_F(PackedStoreTest, SaveLoadKeepsTheCompressedGroups) {
  for (int level : {1, 2}) {
    for (bool wide16 : {true, false}) {
      SCOPED_TRACE("level " + std::to_string(level) + (wide16 ? " 16-bit" : " 32-bit"));
      std::mt19937 rng(54 + level);
      Chain ch;
      make_chain(ch, level, wide16);
      std::vector<std::vector<GroupValues>> written(5);
      for (int g : {0, 2}) {  // groups 1 and 3 never get data
        open_river_group(ch.refs.data(), ch.refs.size(), g);
        for (auto& s : ch.stores) fill_group(rng, *s, g);
        for (int i = 0; i < 5; i++) written[i].push_back(group_values(*ch.stores[i], g));
        close_river_group(ch.refs.data(), ch.refs.size(), g, true);
      }
      // Group 3 is visited without keep: an arena without data.
      open_river_group(ch.refs.data(), ch.refs.size(), 3);
      close_river_group(ch.refs.data(), ch.refs.size(), 3, false);
      if (wide16) ch.stores[3]->cell_factors[4] = 4.0f;
      ch.stores[2]->cell_lock_to_set(2, 1)->flags = CELL_LOCKED;

      Chain back;
      make_chain(back, level, wide16);
      for (int i = 0; i < 5; i++) {
        MemoryByteWriter w;
        ch.stores[i]->save(w);
        // Stores after the first of their player own no arenas: one byte 0.
        size_t locks = 4 * size_t(ch.stores[i]->shape->cell_count);
        ASSERT_GT(w.bytes.size(), locks);
        EXPECT_EQ(w.bytes[locks], i < 2 ? 1 : 0);
        MemoryByteSource src(w.bytes.data(), w.bytes.size());
        back.stores[i]->load(src);
        EXPECT_EQ(src.position, w.bytes.size());
        MemoryByteWriter again;
        back.stores[i]->save(again);
        EXPECT_EQ(again.bytes, w.bytes);
      }
      EXPECT_EQ(back.stores[0]->arenas[3], nullptr);  // no data: made again at the next open
      if (wide16) {
        EXPECT_EQ(back.stores[3]->cell_factors[4], 4.0f);
      }
      EXPECT_EQ(back.stores[2]->cell_lock_info(2, 1)->flags, uint32_t(CELL_LOCKED));
      int k = 0;
      for (int g : {0, 2}) {
        open_river_group(back.refs.data(), back.refs.size(), g);
        for (int i = 0; i < 5; i++) ASSERT_EQ(group_values(*back.stores[i], g), written[i][k]);
        close_river_group(back.refs.data(), back.refs.size(), g, false);
        k++;
      }
      open_river_group(back.refs.data(), back.refs.size(), 1);
      for (auto& cell : group_values(*back.stores[4], 1))
        for (auto& row : cell)
          for (uint32_t v : row) EXPECT_EQ(v, 0u);
      close_river_group(back.refs.data(), back.refs.size(), 1, false);
    }
  }
}

TEST_F(PackedStoreTest, ClosedGroupIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  StoreShape shape = make_store_shape(2, {{8}});
  PackedStore s(&shape, 1, true);
  Rows out(2);
  const float d[2] = {0.5f, 0.5f};
  EXPECT_EXIT(s.read_strategy(out.data(), 0, 0, d), ::testing::ExitedWithCode(1), "");
  std::vector<float> row(8, 1.0f);
  EXPECT_EXIT(s.write_row(0, 0, 0, row.data()), ::testing::ExitedWithCode(1), "");
  HandVector base;
  fill(base, row);
  Rows children(2);
  EXPECT_EXIT(s.update_regrets(0, 0, base, children.data(), nullptr, 1.0), ::testing::ExitedWithCode(1), "");
  // Nothing to close: null back.
  EXPECT_EQ(s.close_group(nullptr, 0, true), nullptr);
}

// The row sequence is part of the stored form: for each action, each cell in
// order, with the row of the cell before as reference when this one isn't
// longer. Written by hand in that order, an arena must come out byte for byte
// the same as the store's.
TEST_F(PackedStoreTest, RowOrderAndReferencesFollowTheStoredForm) {
  std::mt19937 rng(55);
  for (int level : {1, 2}) {
    for (bool wide16 : {true, false}) {
      SCOPED_TRACE("level " + std::to_string(level) + (wide16 ? " 16-bit" : " 32-bit"));
      StoreShape shape = make_store_shape(3, {{30, 30, 12, 41, 40}});
      PackedStore s(&shape, level, wide16);
      RiverStoreRef ref{&s, 0};
      open_river_group(&ref, 1, 0);
      fill_group(rng, s, 0);
      GroupValues v = group_values(s, 0);
      close_river_group(&ref, 1, 0, true);

      std::unique_ptr<Arena> manual(s.make_arena(s.value_count(0)));
      manual->begin_write();
      for (int a = 0; a < 3; a++)
        for (int c = 0; c < 5; c++) {
          int n = shape.cells[c].length;
          bool referenced = c > 0 && n <= shape.cells[c - 1].length;
          if (wide16) {
            std::vector<uint16_t> row(v[c][a].begin(), v[c][a].end());
            std::vector<uint16_t> prev;
            if (referenced) prev.assign(v[c - 1][a].begin(), v[c - 1][a].end());
            manual->write_row16(row.data(), referenced ? prev.data() : nullptr, n);
          } else {
            const uint32_t* prev = referenced ? v[c - 1][a].data() : nullptr;
            manual->write_row32(v[c][a].data(), prev, n);
          }
        }
      manual->end_write();
      MemoryByteWriter a, b;
      s.arenas[0]->save(a);
      manual->save(b);
      EXPECT_EQ(a.bytes, b.bytes);
    }
  }
}

// A cell without hands gives rows of no values, and a 16-bit row of 31 large
// values packs to more than the worst case the arena promises for it (four
// tail groups with a control byte each); both must survive a save and load.
TEST_F(PackedStoreTest, EmptyRowsAndOverlongTailsSurviveSaveLoad) {
  StoreShape shape = make_store_shape(1, {{0, 31}});
  PackedStore s(&shape, 1, true);
  RiverStoreRef ref{&s, 0};
  open_river_group(&ref, 1, 0);
  for (int i = 0; i < 31; i++) s.group16(0)[i] = uint16_t(40000 + i);
  close_river_group(&ref, 1, 0, true);
  open_river_group(&ref, 1, 0);
  for (int i = 0; i < 31; i++) ASSERT_EQ(s.group16(0)[i], 40000 + i);
  close_river_group(&ref, 1, 0, false);

  PackedStore back(&shape, 1, true);
  save_and_load(s, back);
  RiverStoreRef back_ref{&back, 0};
  open_river_group(&back_ref, 1, 0);
  for (int i = 0; i < 31; i++) EXPECT_EQ(back.group16(0)[i], 40000 + i) << "hand " << i;
  close_river_group(&back_ref, 1, 0, false);
}
