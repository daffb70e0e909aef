// load_tree and dump_tree: the game description moves between the shell's
// settings and the file's records here; the file itself is storage's.
#include <cfloat>

#include "cards/cards.h"
#include "core/core.h"
#include "storage/memory/file_bytes.h"
#include "tree/tree_file.h"
#include "tree/tree.h"

// ---- The description, both ways -----------------------------------------------------

// Pre-order, children in the map's order, as the file wants them.
static std::vector<SchematicRecord> schematic_records(const SchematicNode& root) {
  std::vector<SchematicRecord> out;
  struct Pending {
    const SchematicNode* node;
    int32_t parent;
    double key;
  };
  std::vector<Pending> stack{{&root, -1, 0.0}};
  while (!stack.empty()) {
    Pending p = stack.back();
    stack.pop_back();
    SchematicRecord r;
    r.player = p.node->player;
    r.street = p.node->street;
    r.raises = p.node->raises;
    r.index = p.node->index;
    r.amount = p.node->amount;
    r.invested[0] = p.node->invested[0];
    r.invested[1] = p.node->invested[1];
    r.key = p.key;
    r.parent = p.parent;
    r.child_count = int32_t(p.node->children.size());
    const int32_t at = int32_t(out.size());
    out.push_back(r);
    for (auto it = p.node->children.rbegin(); it != p.node->children.rend(); ++it)
      stack.push_back({it->second.get(), at, it->first});
  }
  return out;
}

static std::unique_ptr<SchematicNode> schematic_from_records(const std::vector<SchematicRecord>& records) {
  auto root = std::make_unique<SchematicNode>();
  std::vector<SchematicNode*> made;
  made.reserve(records.size());
  for (size_t i = 0; i < records.size(); i++) {
    const SchematicRecord& r = records[i];
    SchematicNode* node = root.get();
    if (i > 0) {
      SchematicNode* parent = made[size_t(r.parent)];
      auto [it, fresh] = parent->children.emplace(r.key, std::make_unique<SchematicNode>());
      if (!fresh) throw TreeFileError("invalid file");
      node = it->second.get();
      node->parent = parent;
    }
    node->player = r.player;
    node->street = r.street;
    node->raises = r.raises;
    node->index = r.index;
    node->amount = r.amount;
    node->invested[0] = r.invested[0];
    node->invested[1] = r.invested[1];
    made.push_back(node);
  }
  return root;
}

static void apply_game(const TreeFileGame& g) {
  LowCardIndex = g.low_card;
  MustUseHoleCards = g.must_use_hole_cards;
  if (g.has_hand_type_order) load_hand_type_order(g.hand_type_order);
  else reset_hand_type_order();
  BoardFlop = g.flop;
  BoardTurn = g.turn;
  BoardRiver = g.river;
  PotOop = g.pots[0];
  PotIp = g.pots[1];
  StartPot = g.pots[2];
  for (int p = 0; p < 2; p++) {
    Range r(HandCount);
    double lo = DBL_MAX, hi = -DBL_MAX;
    for (int pair = 0; pair < HandCount; pair++) {
      r[size_t(pair)] = g.ranges[p][PairToHand[pair]];
      lo = std::min(lo, r[size_t(pair)]);
      hi = std::max(hi, r[size_t(pair)]);
    }
    Ranges[p] = std::move(r);
    RangeMin[p] = lo;
    RangeMax[p] = hi;
  }
  SchematicRoot = schematic_from_records(g.schematic);
}

static TreeFileGame present_game() {
  TreeFileGame g;
  g.low_card = LowCardIndex;
  g.must_use_hole_cards = MustUseHoleCards;
  g.has_hand_type_order = true;
  for (int i = 0; i < 9; i++) g.hand_type_order[i] = HandTypeOrder[i];
  g.flop = BoardFlop;
  g.turn = BoardTurn;
  g.river = BoardRiver;
  g.pots[0] = PotOop;
  g.pots[1] = PotIp;
  g.pots[2] = StartPot;
  for (int p = 0; p < 2; p++) {
    g.ranges[p].assign(HandCount, 0.0);
    if (Ranges[p].size() == size_t(HandCount))
      for (int h = 0; h < HandCount; h++) g.ranges[p][size_t(h)] = Ranges[p][HandToPair[h]];
  }
  g.schematic = schematic_records(*SchematicRoot);
  return g;
}

// The file is rebuilt from its lines, so they must be the lines the tree was
// built from: one record per node, all of the tree's flattening.
static bool lines_match_tree(const std::vector<SchematicRecord>& records, const SchematicNode& root,
                             const Tree& tree) {
  if (records.size() != tree.nodes.size()) return false;
  std::vector<const SchematicNode*> stack{&root};
  while (!stack.empty()) {
    const SchematicNode* n = stack.back();
    stack.pop_back();
    if (n->flattening != tree.flattening) return false;
    for (const auto& kv : n->children) stack.push_back(kv.second.get());
  }
  return true;
}

// ---- Commands ---------------------------------------------------------------------------

// Errors of the file and of the stores reach the client as the command's
// errors; those that carry their whole line already pass as they are.
[[noreturn]] static void fail_load(const std::runtime_error& e) {
  std::string text = e.what();
  if (text.rfind("ERROR: ", 0) == 0) throw;
  fail_command(text);
}

void cmd_load_tree(const Tokens& t) {
  if (SolverRunning) fail_command("Can't do that when solver is running");
  const std::string name = t[1];
  free_active_tree();
  TreePresent = false;
  clear_schematic_tree();
  try {
    FileByteSource source(name);
    TreeFileGame game;
    read_tree_head(source, game);
    TreeFileState state;
    read_tree_state(source, state);
    apply_game(game);
    // Cells depend on suit isomorphism, so the tree is built as the stored
    // one was, whatever the setting says now; the setting stays the user's.
    const bool iso = (state.flags & ISOMORPHISM_ON) != 0;
    const bool kept[2] = {IsomorphismFlop, IsomorphismTurn};
    IsomorphismFlop = IsomorphismTurn = iso;
    try {
      build_game(false);
    } catch (...) {
      IsomorphismFlop = kept[0];
      IsomorphismTurn = kept[1];
      throw;
    }
    IsomorphismFlop = kept[0];
    IsomorphismTurn = kept[1];
    TreePresent = false;
    if (iso != ((ActiveTree->flags & ISOMORPHISM_ON) != 0)) throw TreeFileError("invalid file");
    // The store plan comes first: a replan starts with nothing forgotten, and
    // the stored state (flags, forgotten street) is what the file says.
    ActiveTree->format = game.format;
    ActualCompression = state.compression;
    planStorage(compression_pair(state.compression));
    apply_tree_state(*ActiveTree, state, game.format);
    read_tree_data(source, *ActiveTree, game.results_absent);
    read_info_lines(source, TreeInfoLines);
    source.close();
  } catch (const std::bad_alloc&) {
    free_active_tree();
    fail_command("out of memory");
  } catch (const std::runtime_error& e) {
    free_active_tree();
    fail_load(e);
  }
  TreePresent = true;
  print_ok(t);
}

void cmd_dump_tree(const Tokens& t) {
  if (SolverRunning) fail_command("Can't do that when solver is running");
  if (t.size() < 2) fail_argument(t[0]);
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  TreeFileGame game = present_game();
  if (!lines_match_tree(game.schematic, *SchematicRoot, *ActiveTree)) fail_command("missing/incorrect tree");
  try {
    // Nothing reaches the target name until the whole file is on the disk.
    FileByteWriter writer(t[1]);
    write_tree_file(writer, game, *ActiveTree, ActualCompression, TreeInfoLines);
    writer.commit();
  } catch (const std::bad_alloc&) {
    fail_command("out of memory");
  } catch (const std::runtime_error& e) {
    fail_load(e);
  }
  print_ok(t);
}
