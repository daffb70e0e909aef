// makeNodeStores: the class of each store by street, root street, format and
// compression pair, the totals, and the replacement of old stores; and the
// walk over the river stores of a group.
#include <gtest/gtest.h>

#include <memory>

#include "storage/arena.h"
#include "store_support.h"

using namespace store_test;

namespace {

struct MakeStoresTest : StoreSettings {
  BoardCells boards;
  StoreShapeTable shapes;
  Store* regret = nullptr;
  Store* strategy = nullptr;
  bool ready = true;
  int64_t totals[4] = {0, 0, 0, 0};

  void SetUp() override {
    StoreSettings::SetUp();
    boards.root_length = 1000;
    boards.turn_lengths = {900, 880};
    boards.river_lengths = {{800, 801}, {700, 702, 703}};
    build_store_shapes(shapes, boards, 4);
  }
  void TearDown() override {
    delete regret;
    delete strategy;
    StoreSettings::TearDown();
  }
  void make(int street, int actions, bool want_strategy, int root, StoragePair levels,
            bool float_turn = true, bool decision = true) {
    StoreNode node{decision, street, actions, &regret, &strategy, &ready};
    makeNodeStores(node, boards, shapes.shape(3, actions), totals, want_strategy, root, levels, float_turn);
  }
  template <typename T>
  bool is(Store* s) {
    return s && dynamic_cast<T*>(s) && typeid(*s) == typeid(T);
  }
};

}  // namespace

// The classes by level and root street go through the build driver in the
// tree tests; here the cases it doesn't reach, the totals and replacement.
TEST_F(MakeStoresTest, ClassesTotalsAndReplacement) {
  make(1, 3, true, 1, {2, 2});
  EXPECT_TRUE(is<RowStore>(regret) && is<RowStore>(strategy));
  EXPECT_EQ(regret->row_length(-1, -1), 1000);
  EXPECT_EQ(totals[1], 3000);
  EXPECT_FALSE(ready);
  make(2, 2, false, 1, {0, 0});
  ASSERT_TRUE(is<CompositeStore>(regret));
  EXPECT_EQ(strategy, nullptr);
  EXPECT_EQ(regret->row_length(1, -1), 880);
  EXPECT_EQ(totals[2], 2 * (900 + 880));
  make(3, 2, false, 2, {0, 0}, false);  // a turn tree from an old file
  EXPECT_TRUE(is<Word16FlatStore>(regret));
  make(3, 4, true, 1, {2, 1});
  ASSERT_TRUE(is<PackedStore>(regret) && is<PackedStore>(strategy));
  auto* p = static_cast<PackedStore*>(regret);
  EXPECT_EQ(p->level, 2);
  EXPECT_TRUE(p->wide16);
  EXPECT_FALSE(static_cast<PackedStore*>(strategy)->wide16);
  EXPECT_EQ(p->cell_factors, std::vector<float>(5, 1.0f));
  EXPECT_EQ(p->shape, shapes.shape(3, 4));
  RiverStrategyEnabled = false;
  make(3, 2, true, 1, {1, 1});
  EXPECT_EQ(strategy, nullptr);
  ready = true;
  make(3, 0, true, 1, {0, 0}, true, false);  // a terminal loses its stores
  EXPECT_EQ(regret, nullptr);
  EXPECT_FALSE(ready);
  EXPECT_EQ(totals[3], (2 + 4 + 2) * 3706);  // only the decisions count
}

// ---- The walk over a group --------------------------------------------------------

TEST_F(MakeStoresTest, RiverWalkPassesOneArenaPerPlayer) {
  StoreShape shape = make_store_shape(2, {{10, 12}, {7}});
  std::vector<std::unique_ptr<PackedStore>> stores;
  std::vector<RiverStoreRef> refs;
  const int players[4] = {1, 0, 1, 0};
  for (int i = 0; i < 4; i++) {
    stores.push_back(std::make_unique<PackedStore>(&shape, 1, true));
    refs.push_back({stores.back().get(), players[i]});
  }
  int64_t sizes[2];
  river_group_sizes(refs.data(), refs.size(), 0, sizes);
  EXPECT_EQ(sizes[0], 2 * 44);
  EXPECT_EQ(sizes[1], 2 * 44);

  RiverArenas arenas;
  std::vector<Arena*> seen;
  for_each_river_store(refs.data(), refs.size(), arenas, [&](Store& s, Arena* a) {
    seen.push_back(a);
    return s.open_group(a, 0, 88);
  });
  // Each player's first store gets none and hands its own arena on.
  EXPECT_EQ(seen[0], nullptr);
  EXPECT_EQ(seen[1], nullptr);
  EXPECT_EQ(seen[2], stores[0]->arenas[0]);
  EXPECT_EQ(seen[3], stores[1]->arenas[0]);
  EXPECT_EQ(arenas.arena[1], stores[0]->arenas[0]);
  EXPECT_EQ(arenas.arena[0], stores[1]->arenas[0]);
  EXPECT_EQ(stores[2]->arenas[0], nullptr);
  // The reservation covers the whole sequence of the player.
  auto* packed = dynamic_cast<PackedArena*>(stores[0]->arenas[0]);
  ASSERT_NE(packed, nullptr);
  EXPECT_EQ(packed->reserved, packed_reservation(88, 2));
  close_river_group(refs.data(), refs.size(), 0, true);
  EXPECT_TRUE(stores[0]->arenas[0]->has_data());
  EXPECT_EQ(stores[1]->arenas[1], nullptr);  // group 1 never opened

  // Stores of other classes take part without arenas.
  StoreShape fshape = make_store_shape(2, {{5}});
  FloatFlatStore flat(&fshape);
  RiverStoreRef mixed[1] = {{&flat, 0}};
  open_river_group(mixed, 1, 0);
  close_river_group(mixed, 1, 0, true);
}
