// The stored tree: one whole game in a file, read by load_tree and written by
// dump_tree. The layout is written down once, at the top of tree_file.cpp.
//
// The file holds no node records: the loader rebuilds the tree from the
// stored description and then reads the values of the rebuilt nodes in node
// order. So loading runs in steps, with the rebuild between them:
//   read_tree_head, (rebuild), read_tree_state, apply_tree_state,
//   (plan the stores), read_tree_data, read_info_lines.
// Nothing here knows the shell: the caller moves the description between the
// file's records and the game settings. The file streams themselves are in
// storage/memory/file_bytes.h.
#pragma once
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "storage/memory/bytes.h"

struct Tree;

// A file that is readable but not a tree we can take: "invalid file",
// "unsupported data format, update to latest version".
class TreeFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

constexpr int32_t TreeFileFormat = 9;  // what dump_tree writes; the reader takes 0 to 9

// One schematic node as stored, in pre-order: the root first, each node's
// children behind it in the tree's order. `key` is the node's key in its
// parent's map (unused at the root), `parent` the parent's position.
struct SchematicRecord {
  int32_t player = 0, street = 0, raises = 0, index = -1;
  double amount = 0;
  double invested[2] = {0, 0};
  double key = 0;
  int32_t parent = -1;
  int32_t child_count = 0;
};

// Fields 1 to 13: the game's description.
struct TreeFileGame {
  int32_t format = TreeFileFormat;
  bool results_absent = false;
  int32_t low_card = 0;          // LowCardIndex
  int32_t must_use_hole_cards = 0;
  bool has_hand_type_order = false;  // format 8 on; otherwise the natural order
  uint8_t hand_type_order[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  uint64_t flop = 0, turn = 0, river = 0;  // card masks
  double pots[3] = {0, 0, 0};              // PotOop, PotIp, StartPot
  std::vector<double> ranges[2];           // 1326 weights each, HandIndex order
  std::vector<SchematicRecord> schematic;
};

// Field 14 and 14a.
struct TreeFileState {
  uint32_t flags = 0;
  int32_t forgotten_street = -1;
  int32_t second_street = -1;
  double solver_figures[4] = {0, 0, 0, 0};
  double evaluation[2] = {0, 0};
  int32_t compression = 0;  // the level the stores were planned with
};

// Loading. Each step raises IOException (storage/memory/file_bytes.h) or
// TreeFileError and leaves whatever it had read so far.
// Fields 1 to 13; sets source.format. Checks the magic, the format number
// and that every value can be used to build a game.
void read_tree_head(ByteSource& source, TreeFileGame& game);
void read_tree_state(ByteSource& source, TreeFileState& state);
// Puts the state into the rebuilt tree, before its stores are planned.
void apply_tree_state(Tree& tree, const TreeFileState& state, int32_t format);
// Section 15, into a tree whose stores have been planned with the file's
// level: drops the stores of a forgotten street, materialises the rest, and
// reads iteration, street records and store values. A materialise that fails
// raises "out of memory".
void read_tree_data(ByteSource& source, Tree& tree, bool results_absent);
// Section 16 when the format has it; otherwise the list is left empty.
void read_info_lines(ByteSource& source, std::vector<std::string>& lines);

// Writing, in the present format. The game's `format` and `results_absent`
// are ignored; the tree gives the state, `compression` the level in force.
void write_tree_file(ByteWriter& writer, const TreeFileGame& game, Tree& tree, int32_t compression,
                     const std::vector<std::string>& info_lines);
