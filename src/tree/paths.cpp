// Node paths ("r:0:b30:c:Ah"): the schematic node a path names, with the cards
// dealt on the way, resolved to its built node.
#include <cmath>

#include "tree/tree.h"

static const char* const PathError = "incorrect path";

int32_t absolute_street(const SchematicNode* node) { return StartStreet + node->street; }

static int32_t board_turn_card() { return BoardTurn ? __builtin_ctzll(BoardTurn) : -1; }
static int32_t board_river_card() { return BoardRiver ? __builtin_ctzll(BoardRiver) : -1; }

NodePath parent_ref(const NodePath& ref) {
  NodePath p;
  p.node = ref.node ? ref.node->parent : nullptr;
  if (!p.node) {
    p.turn_card = board_turn_card();
    p.river_card = board_river_card();
    return p;
  }
  int32_t street = absolute_street(p.node);
  if (street >= 2) p.turn_card = ref.turn_card;
  if (street >= 3) p.river_card = ref.river_card;
  return p;
}

static SchematicNode* child_with_key(SchematicNode* node, double key) {
  auto it = node->children.find(key);
  if (it == node->children.end() || it->first != key) fail_command(PathError);
  return it->second.get();
}

NodePath parse_path(const std::string& text) {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  std::vector<std::string> segments;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(':', start);
    if (end == std::string::npos) end = text.size();
    segments.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  // "::" in the middle leaves an empty segment; a leading ":" one as well.
  if (!text.empty() && text[0] == ':') segments.insert(segments.begin(), "");
  if (segments.empty() || segments[0] != "r") fail_command(PathError);
  NodePath ref;
  ref.turn_card = board_turn_card();
  ref.river_card = board_river_card();
  if (segments.size() == 1) return ref;
  if (segments[1] != "0") fail_command(PathError);
  ref.node = SchematicRoot.get();
  for (size_t i = 2; i < segments.size(); i++) {
    const std::string& seg = segments[i];
    ref.at_split = false;
    if (seg.empty()) fail_command(PathError);
    SchematicNode* node = ref.node;
    if (seg[0] == 'b') {
      double key = parse_double(seg.substr(1));
      ref.node = child_with_key(node, key);
    } else if (seg[0] == 'c') {
      ref.node = child_with_key(node, node->amount);
      ref.at_split = ref.node->street > node->street;
    } else if (seg[0] == 'f') {
      ref.node = child_with_key(node, FoldKey);
    } else {
      CardMask m;
      if (seg.size() != 2 || !try_parse_cards(seg, m) || card_count(m) != 1) fail_command(PathError);
      int card = __builtin_ctzll(m);
      if ((m & BoardFlop) || RankOf(Card(card)) < LowCardIndex) fail_command(PathError);
      if (!node->parent) fail_command(PathError);
      int32_t parent_street = absolute_street(node->parent), street = absolute_street(node);
      if (parent_street == 1 && street == 2) {
        if (ref.turn_card != -1) fail_command(PathError);
        ref.turn_card = card;
      } else if (parent_street == 2 && street == 3) {
        if (ref.river_card != -1) fail_command(PathError);
        ref.river_card = card;
      } else {
        fail_command(PathError);
      }
    }
  }
  // Lines added after the build are not in the tree yet.
  if (ref.node && !(ref.built = built_node(ref.node))) fail_command(PathError);
  return ref;
}

