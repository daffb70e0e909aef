// The commands that print or change the node a path names.
#include <cmath>

#include "shell/shell.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

static const char* node_kind_name(const NodePath& ref) {
  if (!ref.node) return "ROOT";
  if (ref.at_split) return "SPLIT_NODE";
  if (ref.node->children.empty()) return "END_NODE";
  return ref.node->player == 0 ? "OOP_DEC" : "IP_DEC";
}

static std::string board_line(const NodePath& ref) {
  std::string s;
  for (int c = 0; c < 52; c++) {
    if (!(BoardFlop & CardBit(c))) continue;
    if (!s.empty()) s += ' ';
    s += card_text(Card(c));
  }
  if (ref.turn_card >= 0) s += " " + card_text(Card(ref.turn_card));
  if (ref.river_card >= 0) s += " " + card_text(Card(ref.river_card));
  return s;
}

static std::string tree_flag_names(uint32_t flags) {
  static const std::pair<uint32_t, const char*> names[] = {
      {INCOMPLETE_TREE, "INCOMPLETE_TREE"}, {ISOMORPHISM_ON, "ISOMORPHISM_ON"}, {NEW_TREE, "NEW_TREE"}};
  std::string s;
  for (const auto& [bit, name] : names) {
    if (!(flags & bit)) continue;
    if (!s.empty()) s += ' ';
    s += name;
  }
  return s;
}

// Lock bits of a decision on the path's board (1 locked, 2 combo-locked),
// from its regret store's cell; a path that leaves the card open names no
// board, so no cell.
static uint32_t node_lock_bits(const NodePath& ref) {
  if (!ref.built) return 0;
  const Node& node = *ref.built;
  if (node.kind != NODE_DECISION || !node.regretStore || !ActiveTree->boards) return 0;
  const int turn = node.street >= 2 ? ref.turn_card : -1;
  const int river = node.street >= 3 ? ref.river_card : -1;
  if ((node.street >= 2 && turn < 0) || (node.street >= 3 && river < 0)) return 0;
  const BoardTree& boards = *ActiveTree->boards;
  CanonicalCards cc = canonicalise_query(BoardFlop, turn, river, boards.isomorphic);
  int32_t turn_cell, river_cell;
  if (!find_board_cells(boards, cc.turn, cc.river, turn_cell, river_cell)) return 0;
  const CellLock* lock = node.regretStore->cell_lock_info(turn_cell, river_cell);
  return lock ? lock->flags & (CELL_LOCKED | CELL_MASKED) : 0;
}

static void print_block(const NodePath& ref, const std::string& path) {
  shell_print("%s\n", path.c_str());
  shell_print("%s\n", node_kind_name(ref));
  shell_print("%s\n", board_line(ref).c_str());
  if (ref.node) shell_print("%g %g %g\n", ref.node->invested[0], ref.node->invested[1], StartPot);
  else shell_print("%g %g %g\n", 0.0, 0.0, StartPot);
  int children;
  if (!ref.node) children = 1;
  else if (ref.at_split) children = absolute_street(ref.node) == 2 ? 49 : 48;
  else children = int(ref.node->children.size());
  shell_print("%d children\n", children);
  if (!ref.node) {
    shell_print("flags: %s\n", tree_flag_names(ActiveTree->flags).c_str());
  } else if (ref.at_split) {
    shell_print("flags:\n");
  } else {
    uint32_t bits = node_lock_bits(ref);
    std::string s;
    if (bits & 1) s = "LOCKED";
    if (bits & 2) s += s.empty() ? "COMBO_LOCKED" : " COMBO_LOCKED";
    shell_print("flags: %s\n", s.c_str());
  }
}

void cmd_show_node(const Tokens& t) {
  NodePath ref = parse_path(t[1]);
  print_block(ref, t[1]);
  shell_print("END\n");
}

void cmd_show_children(const Tokens& t) {
  NodePath ref = parse_path(t[1]);
  const std::string& path = t[1];
  if (!ref.node) {
    NodePath child;
    child.node = SchematicRoot.get();
    child.built = built_node(child.node);
    child.turn_card = ref.turn_card;
    child.river_card = ref.river_card;
    shell_print("child 0:\n");
    print_block(child, "r:0");
  } else if (ref.at_split) {
    CardMask dead = BoardFlop;
    if (ref.turn_card >= 0) dead |= CardBit(ref.turn_card);
    if (ref.river_card >= 0) dead |= CardBit(ref.river_card);
    bool turn = absolute_street(ref.node) == 2;
    int n = 0;
    // The call that closes the river is a split too, but no card comes there.
    for (int rank = absolute_street(ref.node) > 3 ? -1 : 12; rank >= LowCardIndex; rank--) {
      for (int suit = 3; suit >= 0; suit--) {
        Card c = MakeCard(rank, suit);
        if (dead & CardBit(c)) continue;
        NodePath child = ref;
        child.at_split = false;
        (turn ? child.turn_card : child.river_card) = c;
        shell_print("child %d:\n", n++);
        print_block(child, path + ":" + card_text(c));
      }
    }
  } else {
    int n = 0;
    for (const auto& [key, node] : ref.node->children) {
      NodePath child = ref;
      child.node = node.get();
      child.built = built_node(child.node);  // none for a line added after the build
      child.at_split = node->street > ref.node->street;
      std::string seg;
      if (key <= ref.node->amount) seg = key >= 0 ? "c" : "f";
      else seg = "b" + std::to_string(int64_t(key));
      shell_print("child %d:\n", n++);
      print_block(child, path + ":" + seg);
    }
  }
  shell_print("END\n");
}

void cmd_set_ev_boost(const Tokens& t) {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  NodePath ref = parse_path(t[1]);
  double v = parse_double(t[2]);
  bool decision = ref.node && !ref.at_split && !ref.node->children.empty();
  if (!decision || !(v >= -0.99 && v <= 1.0)) fail_argument(t[0]);
  ref.built->ev_boost = float(v);
  print_ok(t);
}

void cmd_cut_line(const Tokens& t) {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  if (SolverRunning) fail_command("Can't do that when solver is running");
  NodePath ref = parse_path(t[1]);
  if (!ref.node || !ref.node->parent) fail_command("can't cut root");
  SchematicNode* parent = ref.node->parent;
  for (auto it = parent->children.begin(); it != parent->children.end(); ++it) {
    if (it->second.get() == ref.node) {
      parent->children.erase(it);
      break;
    }
  }
  build_game(true);
  print_ok(t);
}
