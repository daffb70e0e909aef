// The tree file in process: a tree with its river forgotten keeps the
// strategies above it in thousandths and its street records in hundredths,
// and has no river stores after loading; the byte source and the writer hold
// their contracts across buffer boundaries and failures.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <fstream>

#include "storage/memory/file_bytes.h"
#include "tree/tree_file.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

namespace {

struct TreeFileInProcess : ::testing::Test {
  static void SetUpTestSuite() {
    build_rank_tables();
    build_card_tables();
  }
  void SetUp() override {
    reset_core_state();
    reset_game_description();
    reset_store_settings();
    reset_card_settings();
    reset_tree_state();
    for (int p = 0; p < 2; p++) {
      Ranges[p].assign(HandCount, 0.0);
      for (int i = p; i < HandCount; i += 9) Ranges[p][size_t(i)] = 1.0;
    }
    IsomorphismFlop = false;
    StartPot = 100;
    BoardFlop = parse_cards("Qs Jh 2h");
    walk_line(tokenize_line("add_line 0 0 0 0 0 0"), 1, false);
    walk_line(tokenize_line("add_line 0 20 20 20 20 20 20"), 1, false);
    walk_line(tokenize_line("add_line 0 0 0 20 20 20 20"), 1, false);
    CompressionSetting = 0;
  }
  void TearDown() override {
    reset_tree_state();
    CompressionSetting = -1;
    OutputBuffer.clear();
  }
  static std::string temp_name(const char* base) {
    return std::string("/tmp/corvanta_tree_file_") + std::to_string(getpid()) + "_" + base;
  }
};

// Strategy rows of a node's regret store at one turn cell (-1: the flop).
std::vector<std::vector<float>> strategy(Node& node, int32_t group) {
  const int32_t actions = int32_t(node.children.size());
  const int32_t cell = group < 0 ? -1 : 0;
  std::vector<HandVector> rows(static_cast<size_t>(actions));
  std::vector<float> defaults(size_t(actions), 1.0f / float(actions));
  for (HandVector& v : rows) v.resize(node.regretStore->row_length(group, cell), false);
  node.regretStore->read_strategy(rows.data(), group, cell, defaults.data());
  std::vector<std::vector<float>> out;
  for (HandVector& v : rows) out.emplace_back(v.data, v.data + v.count);
  return out;
}

TEST_F(TreeFileInProcess, ForgottenRiverKeepsStrategiesAboveAndRecords) {
  build_game(true);
  Tree& t = *ActiveTree;
  for (Node& n : t.nodes)
    if (n.regretStore) ASSERT_TRUE(n.regretStore->materialise());
  // Regrets that differ by hand and action on the flop and every turn card.
  Node* flop = nullptr;
  Node* turn = nullptr;
  Node* river_entry = nullptr;
  for (Node& n : t.nodes) {
    if (n.kind != NODE_DECISION || n.children.size() < 2) continue;
    if (n.street == 1 && !flop) flop = &n;
    if (n.street == 2 && !turn) turn = &n;
  }
  for (Node& n : t.nodes)
    if (n.street_record_count == RiverCardSlots && !river_entry) river_entry = &n;
  ASSERT_TRUE(flop && turn && river_entry);
  auto fill = [](Node& n, int32_t groups, int32_t group_of_flop) {
    for (int32_t g = 0; g < groups; g++) {
      int32_t group = group_of_flop < 0 ? -1 : g, cell = group < 0 ? -1 : 0;
      int32_t len = n.regretStore->row_length(group, cell);
      for (int32_t a = 0; a < int32_t(n.children.size()); a++) {
        std::vector<float> row(static_cast<size_t>(len));
        for (int32_t i = 0; i < len; i++) row[size_t(i)] = float((i * (a + 3) + g) % 7);
        n.regretStore->write_row(group, cell, a, row.data());
      }
    }
  };
  const int32_t turn_cards = int32_t(t.boards->children.size());
  fill(*flop, 1, -1);
  fill(*turn, turn_cards, 0);
  std::vector<std::vector<float>> flop_before = strategy(*flop, -1), turn_before = strategy(*turn, 5);
  SubgameResults& rec = river_entry->street_records[3];
  rec.value[1].resize(40, false);
  for (int i = 0; i < 40; i++) rec.value[1].data[i] = -12.345f + float(i);
  rec.active = true;
  t.iteration = 321;
  // What forgetting the river leaves.
  t.forgotten_street = 3;
  t.flags = INCOMPLETE_TREE;
  for (Node& n : t.nodes)
    if (n.street == 3) {
      delete n.regretStore;
      delete n.strategyStore;
      n.regretStore = n.strategyStore = nullptr;
    }

  TreeFileGame game;
  game.flop = BoardFlop;
  for (auto& r : game.ranges) r.assign(HandCount, 1.0);
  game.schematic.resize(1);
  MemoryByteWriter w;
  write_tree_file(w, game, t, 0, {"kept"});

  const size_t at[3] = {size_t(flop - t.nodes.data()), size_t(turn - t.nodes.data()),
                        size_t(river_entry - t.nodes.data())};
  build_game(true);
  MemoryByteSource s(w.bytes.data(), w.bytes.size());
  TreeFileGame back;
  TreeFileState state;
  read_tree_head(s, back);
  read_tree_state(s, state);
  ActiveTree->format = back.format;
  planStorage(compression_pair(state.compression));
  apply_tree_state(*ActiveTree, state, back.format);
  read_tree_data(s, *ActiveTree, back.results_absent);
  std::vector<std::string> info;
  read_info_lines(s, info);
  EXPECT_EQ(s.remaining(), 0);
  EXPECT_EQ(info, std::vector<std::string>{"kept"});

  Tree& u = *ActiveTree;
  EXPECT_EQ(u.iteration, 321);
  EXPECT_EQ(u.forgotten_street, 3);
  EXPECT_EQ(u.flags, uint32_t(INCOMPLETE_TREE));
  Node& flop2 = u.nodes[at[0]];
  Node& turn2 = u.nodes[at[1]];
  Node& entry2 = u.nodes[at[2]];
  for (auto [before, after] : {std::pair{flop_before, strategy(flop2, -1)}, {turn_before, strategy(turn2, 5)}}) {
    ASSERT_EQ(before.size(), after.size());
    for (size_t a = 0; a < before.size(); a++)
      for (size_t i = 0; i < before[a].size(); i++) ASSERT_NEAR(after[a][i], before[a][i], 0.0011);
  }
  for (const Node& n : u.nodes)
    if (n.street == 3) {
      EXPECT_FALSE(n.regretStore || n.strategyStore);
    }
  const SubgameResults& rec2 = entry2.street_records[3];
  ASSERT_EQ(rec2.value[1].count, 40);
  for (int i = 0; i < 40; i++) EXPECT_NEAR(rec2.value[1].data[i], -12.345f + float(i), 0.0051);
  EXPECT_TRUE(rec2.active);
  EXPECT_FALSE(rec2.value[0].data);
}

TEST_F(TreeFileInProcess, ByteSourceAndWriterAcrossBuffersAndFailures) {
  const std::string name = temp_name("io.bin");
  // Small and large writes around the 1 MiB buffer.
  std::vector<uint8_t> data(3 * FileBufferBytes + 12345);
  for (size_t i = 0; i < data.size(); i++) data[i] = uint8_t(i * 7 + (i >> 11));
  const size_t pieces[] = {1, 7, FileBufferBytes - 3, 2 * FileBufferBytes, 5};
  {
    FileByteWriter w(name);
    size_t at = 0;
    for (size_t p : pieces) {
      w.write(data.data() + at, p);
      at += p;
    }
    w.write(data.data() + at, data.size() - at);
    w.commit();
  }
  {
    FileByteSource s(name);
    std::vector<uint8_t> back(data.size());
    size_t at = 0;
    for (size_t p : {size_t(3), FileBufferBytes, size_t(1), 2 * FileBufferBytes - 10}) {
      s.read(back.data() + at, p);
      at += p;
      EXPECT_EQ(s.remaining(), int64_t(data.size() - at));
    }
    s.read(back.data() + at, data.size() - at);
    EXPECT_EQ(back, data);
    uint8_t one;
    try {
      s.read(&one, 1);
      ADD_FAILURE() << "read past the end";
    } catch (const IOException& e) {
      EXPECT_EQ(std::string(e.what()), "can't read from file (" + name + ")");
    }
  }
  // A writer that never commits leaves the old file and no temporary one.
  std::string temp;
  {
    FileByteWriter w(name);
    w.write("short", 5);
    temp = w.temp_name();
    EXPECT_EQ(access(temp.c_str(), F_OK), 0);
  }
  EXPECT_NE(access(temp.c_str(), F_OK), 0);
  std::ifstream f(name, std::ios::binary | std::ios::ate);
  EXPECT_EQ(size_t(f.tellg()), data.size());
  unlink(name.c_str());
  EXPECT_THROW(FileByteSource(temp_name("missing")), IOException);
  // Gathered and scattered pieces: rows lying apart in memory, back to back in
  // the file, small and large, around the buffer, the direct writes and more
  // pieces than go to the system at once.
  {
    const std::string pieces_name = temp_name("pieces.bin");
    std::vector<size_t> lengths;
    size_t span = 0;
    for (size_t k = 0, from = 0; from < data.size(); k++) {
      lengths.push_back(std::min(data.size() - from, k % 50 == 49 ? FileDirectBytes + 17 : 100 + 37 * (k % 11)));
      from += lengths.back();
      span += lengths.back() + k % 3;  // gaps, as padded rows leave
    }
    std::vector<uint8_t> lying(span, 0xEE);
    std::vector<BytePiece> rows;
    for (size_t k = 0, from = 0, at = 0; k < lengths.size(); k++) {
      memcpy(lying.data() + at, data.data() + from, lengths[k]);
      rows.push_back({lying.data() + at, lengths[k]});
      from += lengths[k];
      at += lengths[k] + k % 3;
    }
    FileByteWriter w(pieces_name);
    w.write("x", 1);
    w.write_pieces(rows.data(), 3);  // small: through the buffer
    w.write_pieces(rows.data() + 3, rows.size() - 3);
    w.commit();
    FileByteSource s(pieces_name);
    uint8_t x;
    s.read(&x, 1);
    std::vector<uint8_t> back(lying.size(), 0xEE);
    std::vector<BytePiece> into = rows;
    for (BytePiece& p : into) p.data = back.data() + (static_cast<uint8_t*>(p.data) - lying.data());
    s.read_pieces(into.data(), 2);
    s.read_pieces(into.data() + 2, into.size() - 2);
    EXPECT_EQ(x, 'x');
    EXPECT_EQ(back, lying);
    EXPECT_EQ(s.remaining(), 0);
    unlink(pieces_name.c_str());
  }
}

}  // namespace
