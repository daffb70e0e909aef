// The line walk: children order, the betting state, automatic answers,
// forced lines, removal, failures that keep what they made, and flattening.
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "tree/tree.h"

namespace {

using Keys = std::vector<double>;

struct Lines : ::testing::Test {
  void SetUp() override {
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings();
    reset_tree_state();
    OutputBuffer.clear();
  }
  void TearDown() override {
    reset_tree_state();
    OutputBuffer.clear();
  }

  // Runs one line command as the loop would; returns its answer or its
  // error text.
  static std::string run(const std::string& line) {
    OutputBuffer.clear();
    Tokens t = tokenize_line(line);
    CurrentCommand = t[0];
    void (*handler)(const Tokens&) = t[0] == "add_line"      ? cmd_add_line
                                     : t[0] == "force_line"  ? cmd_force_line
                                     : t[0] == "remove_line" ? cmd_remove_line
                                                             : cmd_clear_lines;
    try {
      handler(t);
    } catch (const std::invalid_argument&) {
      OutputBuffer += "ERROR: Invalid value\n";
    } catch (const std::runtime_error& e) {
      OutputBuffer += e.what();
    }
    std::string out = OutputBuffer;
    OutputBuffer.clear();
    return out;
  }

  // The keys of the whole tree below `node`, children in order, each child's
  // subtree in brackets: "30(30 -1)".
  static std::string tree(const SchematicNode* node = SchematicRoot.get()) {
    std::string s;
    for (const auto& [key, child] : node->children) {
      char k[32];
      snprintf(k, sizeof k, "%.10g", key);
      s += (s.empty() ? "" : " ") + std::string(k);
      if (!child->children.empty()) s += "(" + tree(child.get()) + ")";
    }
    return s;
  }
  // The node reached by following exact keys from the root; null if absent.
  static SchematicNode* at(const Keys& path) {
    SchematicNode* node = SchematicRoot.get();
    for (double key : path) {
      auto it = node->children.find(key);
      if (it == node->children.end()) return nullptr;
      node = it->second.get();
    }
    return node;
  }
  // Street, player to act, raises, investments and amount of a node.
  static std::string state(const Keys& path) {
    const SchematicNode* n = at(path);
    if (!n) return "missing";
    char s[96];
    snprintf(s, sizeof s, "s%d p%d r%d %g/%g a%g", n->street, n->player, n->raises, n->invested[0],
             n->invested[1], n->amount);
    return s;
  }
};

// Commands in order; every answer but the last is "ok", the last is `answer`
// (null: ok too); then the whole tree.
struct LineCase {
  std::vector<std::string> lines;
  const char* answer;
  const char* tree;
};

}  // namespace

// ---- Children order, automatic answers, failures, forcing, removal -------------

TEST_F(Lines, CommandsGiveTheTree) {
  const std::string bad = "ERROR: add_line incorrect or missing argument\n";
  const LineCase cases[] = {
      {{"add_line"}, nullptr, ""},
      // One node per action: a first check brings exactly the check behind.
      {{"add_line 0 0 0 0 0 0"}, nullptr, "0(0(0(0(0(0)))))"},
      {{"add_line 0"}, nullptr, "0(0)"},
      // A bet brings the call, then the fold.
      {{"add_line 30"}, nullptr, "30(30 -1)"},
      {{"add_line 30 90 90"}, nullptr, "30(90(90 -1) 30 -1)"},
      {{"add_line 0 30 90 270 270"}, nullptr, "0(30(90(270(270 -1) 90 -1) 30 -1) 0)"},
      // Larger amounts first; a line through an existing bet adds no second fold.
      {{"add_line 30", "add_line 90", "add_line 30 90", "add_line 30 60", "add_line 30 30"}, nullptr, "90(90 -1) 30(90(90 -1) 60(60 -1) 30 -1)"},
      // Keys are exact doubles.
      {{"add_line 30", "add_line 30.0", "add_line 30.0000001"}, nullptr, "30.0000001(30.0000001 -1) 30(30 -1)"},
      // A failing line keeps what it made before the bad token.
      {{"add_line 30 30 0"}, bad.c_str(), "30(30 -1)"},
      {{"add_line 10 5"}, bad.c_str(), "10(10 -1)"},
      {{"add_line 30 abc"}, "ERROR: Invalid value\n", "30(30 -1)"},
      // NaN is a number to the reader but no level.
      {{"add_line 30", "add_line nan"}, bad.c_str(), "30(30 -1)"},
      // Forcing drops the fold and the alternatives on its way only; the last
      // node keeps its children and later lines bring alternatives back.
      {{"force_line 30 30"}, nullptr, "30(30)"},
      {{"add_line 30 90", "add_line 0 0", "force_line 0"}, nullptr, "0(0)"},
      {{"add_line 30 90", "add_line 0 0", "force_line 0", "add_line 30"}, nullptr, "30(30 -1) 0(0)"},
      {{"force_line 50", "add_line 50 150", "force_line 50 150"}, nullptr, "50(150(150 -1))"},
      // The first token was forced before the second failed.
      {{"add_line 30", "add_line 60", "force_line 60 20"},
       "ERROR: force_line incorrect or missing argument\n", "60(60 -1)"},
      // "0" after a bet names the fold, after "0" the check; a lone "0" is the check.
      {{"add_line 30 30", "remove_line 30 0"}, nullptr, "30(30)"},
      {{"add_line 0 0 0", "add_line 0 30", "remove_line 0 0"}, nullptr, "0(30(30 -1))"},
      {{"add_line 0", "remove_line 0"}, nullptr, ""},
      {{"add_line 30 90 90", "add_line 60", "remove_line 30"}, nullptr, "60(60 -1)"},
      // Removing a missing line succeeds; the walk stops at the missing child
      // before it reads a bad number.
      {{"add_line 30", "remove_line 99", "remove_line 30 30 30 30", "remove_line", "remove_line 99 abc",
        "remove_line nan"},
       nullptr, "30(30 -1)"},
      {{"add_line 30 90 90", "clear_lines"}, nullptr, ""},
      {{"add_line 30", "free_schematic_tree"}, nullptr, ""},
  };
  for (const LineCase& c : cases) {
    reset_tree_state();
    std::string what = c.lines.back();
    for (size_t i = 0; i < c.lines.size(); i++) {
      std::string name = tokenize_line(c.lines[i])[0];
      std::string want = i + 1 == c.lines.size() && c.answer ? c.answer : name + " ok!\n";
      EXPECT_EQ(run(c.lines[i]), want) << c.lines[i];
    }
    EXPECT_EQ(tree(), c.tree) << what;
  }
}

TEST_F(Lines, SuppressedOkStillChangesTheTree) {
  SuppressOk = true;
  EXPECT_EQ(run("add_line 30"), "");
  SuppressOk = false;
  EXPECT_EQ(tree(), "30(30 -1)");
}

// ---- The betting state -------------------------------------------------------------

TEST_F(Lines, NodesCarryStreetPlayerRaisesAndInvestments) {
  run("add_line 0 0 0 0 0 0");
  // Two checks on each street, the out-of-position player first.
  Keys path;
  for (const char* want : {"s0 p1 r0 0/0 a0", "s1 p0 r0 0/0 a0", "s1 p1 r0 0/0 a0", "s2 p0 r0 0/0 a0",
                           "s2 p1 r0 0/0 a0", "s3 p0 r0 0/0 a0"}) {
    path.push_back(0);
    EXPECT_EQ(state(path), want) << path.size();
  }
  run("add_line 30 30 30 30 30 30");
  EXPECT_EQ(state({30, 30}), "s1 p0 r0 30/30 a30");
  EXPECT_EQ(state({30, 30, 30, 30, 30, 30}), "s3 p0 r0 30/30 a30");
  run("add_line 30 90 90");
  EXPECT_EQ(state({30, 90}), "s0 p0 r2 30/90 a90");  // OOP folds with the 30 bet in, IP has 90
  EXPECT_EQ(state({30, 90, 90}), "s1 p0 r0 90/90 a90");
  EXPECT_EQ(state({30, 90, -1}), "s0 p0 r0 30/90 a30");
  EXPECT_EQ(state({30, -1}), "s0 p0 r0 30/0 a0");  // the fold goes back to the level before the bet
  run("add_line 0 30 90 270 270");
  EXPECT_EQ(state({0, 30}), "s0 p0 r1 0/30 a30");  // IP bet, OOP to act
  EXPECT_EQ(state({0, 30, 90, 270}), "s0 p0 r3 90/270 a270");
  EXPECT_EQ(state({0, 30, 90, 270, 270}), "s1 p0 r0 270/270 a270");
  // Levels carry over streets.
  run("add_line 0 0 50 50 150 150");
  EXPECT_EQ(state({0, 0, 50}), "s1 p1 r1 50/0 a50");
  EXPECT_EQ(state({0, 0, 50, 50, 150}), "s2 p1 r1 150/50 a150");
  EXPECT_EQ(state({0, 0, 50, 50, 150, 150}), "s3 p0 r0 150/150 a150");
  // An automatic answer not walked stays on the bet's street; walking it
  // through sets its state, and a closed street gets no answers below.
  reset_tree_state();
  run("add_line 30");
  EXPECT_EQ(state({30, 30}), "s0 p0 r0 30/30 a30");
  run("add_line 30 30");
  EXPECT_EQ(state({30, 30}), "s1 p0 r0 30/30 a30");
  EXPECT_EQ(tree(), "30(30 -1)");
}

// ---- Flattening ------------------------------------------------------------------

// Records in pre-order: kind, player, street, parent and payoff.
TEST_F(Lines, FlatRecordsArePreOrderWithPayoffs) {
  auto records = [] {
    std::vector<std::string> out;
    for (const LineRecord& r : flatten_lines(SchematicRoot.get())) {
      char s[64];
      snprintf(s, sizeof s, "k%d p%d s%d ^%d %g", r.kind, r.player, r.street, r.parent_index, r.value);
      out.push_back(s);
    }
    return out;
  };
  StartPot = 100;
  StartStreet = 1;
  run("add_line 30 90 90");
  // root, bet 30, raise 90, call 90, fold to 90, call 30, fold to 30
  EXPECT_EQ(records(), (std::vector<std::string>{"k0 p0 s1 ^-1 0", "k0 p1 s1 ^0 0", "k0 p0 s1 ^1 0", "k1 p-1 s-1 ^2 140",
                                            "k2 p-1 s-1 ^2 80", "k1 p-1 s-1 ^1 80", "k2 p-1 s-1 ^1 50"}));
  // The index fields point back at the records.
  EXPECT_EQ(SchematicRoot->index, 0);
  EXPECT_EQ(at({30, 90, -1})->index, 4);
  EXPECT_EQ(at({30, -1})->index, 6);
  // Streets start at the game's first street.
  reset_tree_state();
  StartStreet = 2;
  run("add_line 0 0 0");
  // root, check, check, check, its check behind
  EXPECT_EQ(records(), (std::vector<std::string>{"k0 p0 s2 ^-1 0", "k0 p1 s2 ^0 0", "k0 p0 s3 ^1 0", "k0 p1 s3 ^2 0",
                                            "k1 p-1 s-1 ^3 50"}));
}

// Lines have no length limit: a very deep line must not exhaust the stack in
// flattening, counting or freeing.
TEST_F(Lines, DeepLineIsWalkedFlattenedAndFreed) {
  Tokens t{"add_line"};
  const int depth = 100000;
  for (int i = 1; i <= depth; i++) t.push_back(std::to_string(i));
  walk_line(t, 1, false);
  std::vector<LineRecord> r = flatten_lines(SchematicRoot.get());
  // Every bet brings a call and a fold; the last bet's pair ends the line.
  ASSERT_EQ(r.size(), size_t(1 + 3 * depth));
  EXPECT_EQ(r[depth].kind, NODE_DECISION);
  EXPECT_EQ(r[depth + 1].kind, NODE_SHOWDOWN);
  EXPECT_EQ(r.back().kind, NODE_FOLD);
  EXPECT_EQ(r.back().parent_index, 1);
  NodeCounts c = count_nodes(*SchematicRoot, 1);
  EXPECT_EQ(c.decisions[0][0] + c.decisions[1][0], depth + 1);
  EXPECT_EQ(c.ends[1], 2 * depth);
  remove_line(Tokens{"remove_line", "1"}, 1);
  EXPECT_TRUE(SchematicRoot->children.empty());
  walk_line(t, 1, false);
  clear_schematic_tree();
  EXPECT_TRUE(SchematicRoot->children.empty());
}
