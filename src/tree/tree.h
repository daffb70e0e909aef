// The game tree: the user's lines (the schematic tree, which is also the
// address system of node paths), their flat records, and the built Tree with
// one Node per schematic node whatever the number of cards.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "cards/cards.h"
#include "core/core.h"
#include "platform/platform.h"
#include "storage/memory/hand_vector.h"
#include "storage/memory/memory_report.h"
#include "storage/store.h"

// ---- The game description (game.cpp) -----------------------------------------
// What the set-up commands write and the build, the tree file and the queries read.
extern Range Ranges[2];
extern double RangeMin[2], RangeMax[2];
extern CardMask BoardFlop, BoardTurn, BoardRiver;
extern double PotOop, PotIp, StartPot;
extern bool IsomorphismFlop, IsomorphismTurn;
extern int32_t EffectiveStack;
extern bool TreePresent;  // a built or loaded tree exists
extern std::vector<std::string> TreeInfoLines;
extern const char* const PlayerNames[2];

// Player token: "OOP"/"hero" = 0, "IP"/"villain" = 1, otherwise -1.
int player_from_token(const std::string& token);
CardMask board_mask();
// Every field of the description but TreePresent back to its start value (for tests).
void reset_game_description();

// ---- Schematic tree ---------------------------------------------------------
struct SchematicNode;

// Children run from the largest amount down: bets first, then the check or
// call at the node's own amount, the fold (key -1.0) last. Child number n of a
// node everywhere in the protocol is the nth entry of this map.
using SchematicChildren = std::map<double, std::unique_ptr<SchematicNode>, std::greater<double>>;

constexpr double FoldKey = -1.0;

struct SchematicNode {
  SchematicNode* parent = nullptr;
  SchematicChildren children;
  int32_t player = 0;  // who acts here
  int32_t street = 0;  // counted from the game's first street, from 0
  int32_t raises = 0;  // bets and raises so far on this street
  int32_t index = -1;  // position in the flat list; -1 until a build covers the node
  uint64_t flattening = 0;  // which flattening set index; a tree is built from one
  double amount = 0;   // betting level reached by the action that led here
  double invested[2] = {0, 0};  // per player since the start, StartPot not included

  SchematicNode() = default;
  SchematicNode(const SchematicNode&) = delete;
  SchematicNode& operator=(const SchematicNode&) = delete;
  // Frees the subtree without recursion: a line may be as deep as it is long.
  ~SchematicNode();
};

// Owns the whole line tree; an empty root exists from process start.
extern std::unique_ptr<SchematicNode> SchematicRoot;

// Walks one line of levels from the root, making what is missing. `forced`
// first deletes every alternative of each node on the way. Throws on a
// falling level or an unreadable number; nodes made before stay.
void walk_line(const Tokens& tokens, size_t first, bool forced);
// Removes the subtree that the levels name; "0" after a positive level is the
// fold. Naming nothing is no error.
void remove_line(const Tokens& tokens, size_t first);
// A new empty root; a built Tree is not touched.
void clear_schematic_tree();

// ---- Flat records -----------------------------------------------------------
enum NodeKind : int32_t { NODE_DECISION = 0, NODE_SHOWDOWN = 1, NODE_FOLD = 2 };

struct LineRecord {
  int32_t kind;
  int32_t parent_index;  // -1 at the root
  int32_t player;        // decision: who acts; terminal: -1
  int32_t street;        // decision: StartStreet + relative street; terminal: -1
  double value;          // terminal: StartPot * 0.5 + amount; decision: 0
};

// Absolute street of the game's first decision: 1 flop, 2 turn, 3 river. Set by
// the build driver from the board before it flattens the lines.
extern int32_t StartStreet;

// Pre-order records of the schematic tree (a node's first child is the next
// entry); stores each record's position in its node's index field, stamped
// with a new Flattenings count.
std::vector<LineRecord> flatten_lines(SchematicNode* root);
extern uint64_t Flattenings;

// ---- Built tree -------------------------------------------------------------
class Store;      // regret and strategy stores, storage module
struct BoardTree; // per-board hole sets, board_tree.h

// What lies below a street entry, kept so that the part above can still be
// evaluated without it (forgotten streets) and stored with the tree.
struct SubgameResults {
  HandVector reach[2];     // by player, in this board's hand order
  HandVector value[2];     // by traverser
  HandVector br_value[2];  // by traverser
  bool active = false;     // keeps a reach for later solving
  bool frozen = false;     // training no longer adds to reach
};

constexpr int TurnCardSlots = 49;   // one lock / record per possible turn card
constexpr int RiverCardSlots = 49;  // records of the first river decision

struct Node {
  int32_t kind = NODE_DECISION;
  int32_t parent_index = -1;
  int32_t player = 0;  // terminal: the player of the parent
  int32_t street = 0;  // absolute; a showdown is always 3, a fold the parent's
  double value = 0;    // terminal: StartPot * 0.5 + amount
  std::vector<int32_t> children;
  Node* parent = nullptr;
  // Owned; made by storage planning on decisions, null until then. Deleted
  // with the node when owns_extras is set.
  Store* regretStore = nullptr;
  Store* strategyStore = nullptr;
  float ev_boost = 0;
  bool stores_ready = false;
  bool owns_extras = false;
  int32_t cell_mark[2] = {-1, -1};  // last subgame run time in microseconds, per traverser
  std::mutex* turn_locks = nullptr;          // TurnCardSlots entries, first node on the turn
  SubgameResults* street_records = nullptr;  // 1 (turn entry) or RiverCardSlots (river entry)
  int32_t street_record_count = 0;

  Node() = default;
  // A Node owns raw arrays; copying it would free them twice.
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
};

enum TreeFlag : uint32_t { INCOMPLETE_TREE = 1, ISOMORPHISM_ON = 2, NEW_TREE = 4 };
enum TraverseMode : int32_t { MODE_EVALUATE = 0, MODE_TRAIN = 1, MODE_PROBE = 2 };

// The solving parameters of one tree, fixed by its root street and storage
// plan (solver_params); the walk reads them from the tree it walks.
struct SolverParams {
  double strategy_exponent = 1.5;      // weight of iteration k in the average: k^exponent
  double strategy_weight_cap = 262143.0;
  int32_t river_group_iterations = 0;  // early iterations whose river regrets move by runs of equal hands
  int32_t max_iterations = 9000;
};
struct StoragePair;
SolverParams solver_params(int32_t root_street, StoragePair pair);

struct Tree {
  std::vector<Node> nodes;  // fixed after the build; the root is entry 0
  CardMask flop_board = 0;  // flop cards of the root
  CardMask board = 0;       // all cards of the root
  BoardTree* boards = nullptr;  // owned
  double ranges[2][HandCount] = {};  // copies at the build, PairIndex order
  double action_average = 0;  // mean children count over nodes that have any
  int32_t action_max = 0;
  double max_payoff = 0;  // largest absolute terminal value
  uint32_t flags = 0;
  int32_t forgotten_street = -1;  // first street whose stores were dropped; -1 none
  uint64_t flattening = 0;  // the flattening of the lines the nodes were made from

  // Solving progress and parameters. The walk's own state (traverser, mode,
  // pass) lives in the walk, not here.
  SolverParams params;
  int32_t average_policy = 0;
  int32_t iteration = 0;
  double regret_scale = 0;
  double max_range_weight[2] = {0, 0};
  std::vector<float> reach_weights[2];
  std::vector<float> norm_weights[2];

  // Storage plan in force.
  int32_t regret_level = 0;
  int32_t strategy_level = 0;
  int64_t store_values[4] = {0, 0, 0, 0};  // by absolute street 1..3
  int64_t store_bytes[4] = {0, 0, 0, 0};
  bool stores_ready = false;  // every store has been materialised
  std::unique_ptr<StoreShapeTable> shapes;  // river layouts the stores were made with

  // Carried by the tree file. `format` is the stored format the tree came from
  // (9 for a new tree) and decides the river regret class of turn games; the
  // rest is written back as it was read.
  int32_t format = 9;
  int32_t second_street = -1;
  double solver_figures[4] = {0, 0, 0, 0};
  double evaluation[2] = {0, 0};
};

// The one built tree, or null; owned here and freed only by free_active_tree.
extern Tree* ActiveTree;

// The built node of a schematic node, or null: lines added after the build,
// and nodes whose index comes from a later flattening than the tree's, have none.
Node* built_node(const SchematicNode* node);

// What the tree calls in the solver above it, installed once at start-up by
// install_solver_hooks(). Calling a hook that was never installed is a wiring
// fault: an assertion in a debug build, "fail (hook <name> not installed)"
// and exit code 1 in a release build; never a silent no-op.
struct TreeHooks {
  void (*empty_subgame_queue)() = nullptr;  // after a Tree is gone, under the queue's lock
  void (*reset_report_log)() = nullptr;     // when storage is replanned
};
extern TreeHooks SolverHooks;
void call_hook(void (*hook)(), const char* name);

// Destroys ActiveTree in its fixed order (board tree, lists, nodes with their
// stores and arrays, the array), then empties the subgame queue and the row
// pools, and clears TreePresent. No tree: nothing happens.
void free_active_tree();

// Replaces ActiveTree by a tree made from `records`. A turn or river card
// below 0 is not fixed. ActiveTree never points at a half-built tree.
void make_tree(const std::vector<LineRecord>& records, const Card flop[3], int turn, int river,
               const Range ranges[2], bool use_isomorphism);

constexpr double RegretScaleBase = 125.0;

// The memory the present tree owns, by part, for show_memory; `settled` false
// while the solver runs (see add_store_memory).
std::vector<MemoryPart> tree_memory_parts(bool settled);

// ---- Statistics -------------------------------------------------------------
// Counts of node_count, indexed by absolute street 1..3; slot 0 holds the total.
struct NodeCounts {
  int64_t decisions[2][4] = {};  // by player
  int64_t splits[4] = {};
  int64_t ends[4] = {};
  int64_t total = 0;
};
// The schematic tree counted as if expanded over the cards (1, 49, 2352 card
// sequences for flop, turn, river), the root on `start_street`.
NodeCounts count_nodes(const SchematicNode& root, int32_t start_street);

// Everything of this module back to its start state (for tests).
void reset_tree_state();

// ---- Building and storage planning ------------------------------------------
extern int32_t CompressionSetting;  // asked for; -1 = auto
extern int32_t ActualCompression;   // in force for the present tree
const char* compression_word(int32_t level);
StoragePair compression_pair(int32_t level);
// A level word or a decimal integer, clamped to -1 .. 5.
int32_t parse_compression_level(const std::string& text);
// The automatic choice from the uncompressed size and the free memory.
int32_t choose_compression_level(int64_t uncompressed, uint64_t total_physical, uint32_t load_percent,
                                 CardMask flop);
extern MemoryStatus (*CompressionMemoryStatus)();
int32_t automatic_compression_level();
// Rebuilds every store of ActiveTree for the pair; all solving work is lost.
void planStorage(StoragePair pair);
// The hand-list lengths the stores of a tree are shaped by.
BoardCells board_cells(const Tree& t);
// Makes one node's stores as the plan in force makes them, adding their value
// counts to `totals`; forgotten streets get theirs back through it.
void make_stores_of_node(Tree& t, Node& node, const BoardCells& cells, int64_t totals[4]);
std::vector<int64_t> store_totals();

// The range test of an isomorphic flop build; fails the command with the
// first pair of one shape whose weights differ.
void check_range_consistency();
// The ranges, board and lines a build needs; fails the command on the first missing.
void check_build_inputs();
// The shared build driver of build_tree and cut_line.
void build_game(bool plan_storage);

// ---- Node paths -----------------------------------------------------------
// A situation of the game: a point of the line tree with the cards so far.
struct NodePath {
  SchematicNode* node = nullptr;  // none for the path "r"
  Node* built = nullptr;          // the built node of `node`; parse_path fails without one
  int32_t turn_card = -1;
  int32_t river_card = -1;
  bool at_split = false;  // ended on the action that closed a street, before the card
};

// Needs a tree; "incorrect path" for anything the tree doesn't hold.
NodePath parse_path(const std::string& text);
NodePath parent_ref(const NodePath& ref);
// Absolute street of a schematic node (1 flop .. 3 river).
int32_t absolute_street(const SchematicNode* node);

// ---- Commands ---------------------------------------------------------------
void cmd_build_tree(const Tokens& t);
void cmd_set_compression(const Tokens& t);  // also ai6_set_compression
void cmd_get_actual_compression(const Tokens& t);
void cmd_add_line(const Tokens& t);
void cmd_force_line(const Tokens& t);
void cmd_remove_line(const Tokens& t);
void cmd_clear_lines(const Tokens& t);  // also free_schematic_tree
void cmd_is_tree_present(const Tokens& t);
void cmd_show_tree_params(const Tokens& t);
void cmd_show_settings(const Tokens& t);
void cmd_node_count(const Tokens& t);
void cmd_free_tree(const Tokens& t);
void cmd_load_tree(const Tokens& t);
void cmd_dump_tree(const Tokens& t);
