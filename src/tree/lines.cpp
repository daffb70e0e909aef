// The user's lines: the walk that grows the schematic tree with its automatic
// answers, forced lines, removal, and the flattening into pre-order records.
#include <cmath>

#include "tree/tree.h"

std::unique_ptr<SchematicNode> SchematicRoot = std::make_unique<SchematicNode>();
int32_t StartStreet = 1;

SchematicNode::~SchematicNode() {
  std::vector<std::unique_ptr<SchematicNode>> pending;
  for (auto& entry : children) pending.push_back(std::move(entry.second));
  children.clear();
  while (!pending.empty()) {
    std::unique_ptr<SchematicNode> node = std::move(pending.back());
    pending.pop_back();
    for (auto& entry : node->children) pending.push_back(std::move(entry.second));
    node->children.clear();
  }
}

void clear_schematic_tree() { SchematicRoot = std::make_unique<SchematicNode>(); }

static SchematicNode* add_child(SchematicNode* node, double key) {
  auto child = std::make_unique<SchematicNode>();
  child->parent = node;
  return node->children.emplace(key, std::move(child)).first->second.get();
}

void walk_line(const Tokens& tokens, size_t first, bool forced) {
  SchematicNode* node = SchematicRoot.get();
  node->player = node->street = node->raises = 0;
  node->amount = node->invested[0] = node->invested[1] = 0;

  // The betting state lives in the walk, not in the nodes: a node reached by
  // two lines gets the same values from both.
  double level = 0;
  int32_t player = 0, street = 0, raises = 0;
  bool checked = false;

  for (size_t i = first; i < tokens.size(); i++) {
    double v = parse_double(tokens[i]);
    // Written so that NaN fails too: it can't be ordered as a key.
    if (!(v >= level)) fail_argument(tokens[0]);

    if (forced) {
      for (auto it = node->children.begin(); it != node->children.end();)
        it = it->first != v ? node->children.erase(it) : std::next(it);
    }

    SchematicNode* parent = node;
    auto found = node->children.find(v);
    bool is_new = found == node->children.end();
    node = is_new ? add_child(node, v) : found->second.get();

    if (v > level) {
      raises++;
      player ^= 1;
      level = v;
      checked = false;
    } else if (raises == 0 && !checked) {
      player ^= 1;
      checked = true;
    } else {
      // A call or the second check closes the street; OOP opens the next.
      street++;
      raises = 0;
      checked = false;
      player = 0;
    }
    node->street = street;
    node->player = player;
    node->raises = raises;
    node->amount = v;
    int32_t actor = parent->player;
    node->invested[actor] = v;
    node->invested[actor ^ 1] = parent->invested[actor ^ 1];

    // A new bet brings its call and fold, a new first check its check behind.
    // The answers keep player and raises 0 until a line walks through them.
    if (is_new && (raises > 0 || checked)) {
      if (!node->children.count(v)) {
        SchematicNode* answer = add_child(node, v);
        answer->amount = v;
        answer->invested[0] = answer->invested[1] = v;
        answer->street = street;
      }
      if (raises > 0 && !node->children.count(FoldKey)) {
        SchematicNode* fold = add_child(node, FoldKey);
        fold->amount = parent->amount;
        fold->invested[player] = parent->amount;
        fold->invested[player ^ 1] = v;
        fold->street = street;
      }
    }
  }
}

void remove_line(const Tokens& tokens, size_t first) {
  SchematicNode* node = SchematicRoot.get();
  double previous = 0;
  for (size_t i = first; i < tokens.size(); i++) {
    double v = parse_double(tokens[i]);
    // A line can't hold a fold, so "0" after a positive level names it.
    if (v == 0 && previous > 0) v = FoldKey;
    previous = v;
    // NaN would compare equal to any key in the map; it names nothing.
    if (std::isnan(v)) return;
    auto found = node->children.find(v);
    if (found == node->children.end()) return;
    if (i + 1 == tokens.size()) {
      node->children.erase(found);
      return;
    }
    node = found->second.get();
  }
}

uint64_t Flattenings = 0;

std::vector<LineRecord> flatten_lines(SchematicNode* root) {
  std::vector<LineRecord> out;
  const uint64_t stamp = ++Flattenings;
  // Pre-order with an explicit stack (a line may be as deep as it is long):
  // children are pushed last first, so the largest key is taken next.
  struct Pending {
    SchematicNode* node;
    int32_t parent_index;
    double key;
  };
  std::vector<Pending> stack{{root, -1, 0.0}};
  while (!stack.empty()) {
    Pending p = stack.back();
    stack.pop_back();
    SchematicNode* node = p.node;
    LineRecord r;
    r.parent_index = p.parent_index;
    if (node->children.empty()) {
      r.kind = p.key < 0 ? NODE_FOLD : NODE_SHOWDOWN;
      r.player = -1;
      r.street = -1;
      r.value = StartPot * 0.5 + node->amount;
    } else {
      r.kind = NODE_DECISION;
      r.player = node->player;
      r.street = StartStreet + node->street;
      r.value = 0;
    }
    int32_t position = int32_t(out.size());
    node->index = position;
    node->flattening = stamp;
    out.push_back(r);
    for (auto it = node->children.rbegin(); it != node->children.rend(); ++it)
      stack.push_back({it->second.get(), position, it->first});
  }
  return out;
}

// ---- Commands ---------------------------------------------------------------
