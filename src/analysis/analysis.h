// Reading a solved tree: strategies, ranges, frequencies and equities, in the
// 1326-entry arrays of the text interface (real PairIndex order here; the
// commands turn them into HandIndex order).
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tree/board_tree.h"
#include "tree/tree.h"

// From this iteration on, queries read the average strategy; the walk starts
// averaging earlier, so a query right after the switch still sees the
// current strategy where sums are thin.
constexpr int32_t QueryAverageFrom = 63;

// A point of the game for a query: a schematic node, its built node, and the
// real turn and river cards of the path (-1: not dealt on it).
struct Spot {
  const SchematicNode* node = nullptr;  // null: before the first decision ("r")
  Node* built = nullptr;
  int32_t turn = -1;
  int32_t river = -1;
};

// Absolute street of a schematic node (1 flop .. 3 river).
inline int32_t spot_street(const SchematicNode* node) { return StartStreet + node->street; }

// The board of the spot: the tree's board and the cards of the path.
CardMask spot_board(const Tree& tree, const Spot& spot);

// The board cell of the spot's node: the cards in canonical naming, the
// turn and river cell, and the cell's hand list. False when a card the
// node's street needs is missing or has no record.
struct SpotCell {
  CanonicalCards cards;
  int32_t turn_cell = -1, river_cell = -1;
  BoardView view;
};
bool spot_cell(const Tree& tree, const Spot& spot, SpotCell& cell);

// Strategy rows of a decision node on the spot's board: `actions` rows of 1326
// values each, back to back, in real PairIndex order; hands not on the board's
// list, and hands the acting player's root range leaves out, are 0. False when
// the spot names no board cell (a street's card missing).
bool strategy_rows(Tree& tree, const Spot& spot, std::vector<double>& rows);

// Position among the built node's children of a schematic child, or -1 when
// the child was added after the build.
int32_t built_action(const Tree& tree, const Node& parent, const SchematicNode* child);

// The player's range on arrival at the spot: the root range times the
// player's own action probabilities along the path. Board cards stay.
void range_at(Tree& tree, const Spot& spot, int32_t player, double* out);

// The lock mask of the spot's cell, 1 for a fixed hand, 0 for a free one, NaN
// for a hand not on the board's list; false when the cell has no mask.
bool lock_mask(Tree& tree, const Spot& spot, double* out);

// Per hand of `player`: the advantage (weight of the opponent hands beaten
// less those it loses to, averaged over the run-outs of `board`) and the
// matchups (weight of the opponent hands sharing no card with it or the
// board). Ranges in real PairIndex order. Hands touching the board, or below
// the low card, get 0 matchups.
void equity_kernel(CardMask board, const double* opponent, double* advantage, double* matchups);

// Per hand: the weight of the hands sharing no card with it, both off the
// board and in the deck (0 for a hand that is not). One pass with card sums.
void disjoint_weights(const double* weights, CardMask board, double* out);

// 0.5 x (1 + advantage / matchups): NaN where there are no matchups.
double equity_of(double advantage, double matchups);

// HandIndex numbers from the strongest hand against `opponent` on `board` down,
// without the hands that meet no opponent hand.
std::vector<int32_t> hand_strength_order(CardMask board, const double* opponent);

// Reach probability of the line to the spot: the product of both players'
// action frequencies along the path, with card removal between the ranges.
double line_frequency(Tree& tree, const Spot& spot, bool global);

// Locks of the spot's cell, in both stores of the node: all hands, none, or
// the hands whose value is not 0 (real PairIndex order). False: no cell.
bool set_cell_lock(Tree& tree, const Spot& spot, bool locked);
bool set_combo_lock(Tree& tree, const Spot& spot, const double* values);
// One action's row of the cell, written where its regrets stand (so the node
// then plays the regret matching of the rows written); its sums are cleared
// while the average is being taken.
bool write_strategy_row(Tree& tree, const Spot& spot, int32_t child, const double* values);

// ---- Commands ---------------------------------------------------------------
void cmd_lock_node(const Tokens& t);
void cmd_unlock_node(const Tokens& t);
void cmd_set_strategy(const Tokens& t);
void cmd_combo_lock_node(const Tokens& t);
void cmd_show_strategy(const Tokens& t);
void cmd_show_strategy_pp(const Tokens& t);
void cmd_show_range(const Tokens& t);
void cmd_show_locked_combos(const Tokens& t);
void cmd_show_probs(const Tokens& t);
void cmd_calc_eq(const Tokens& t);
void cmd_calc_eq_pp(const Tokens& t);
void cmd_calc_eq_node(const Tokens& t);
void cmd_calc_ev_line(const Tokens& t);
void cmd_calc_line_freq(const Tokens& t);
void cmd_calc_global_freq(const Tokens& t);

// Per hand of `player` at the spot: the value in chips from the middle of the
// pot under the strategies in the tree (NaN for a hand that meets no
// opponent hand there) and its matchups, both in real PairIndex order. False
// when the spot names no board cell.
bool spot_ev(Tree& tree, const Spot& spot, int32_t player, double* ev, double* matchups);

// ---- State ------------------------------------------------------------------------
// What the queries keep between calls (analysis_state.cpp): the values and
// reaches of the last probes, valid for one iteration count and store
// generation of one tree.
struct EvProbeResult {
  const Tree* tree;
  const Node* node;
  int32_t turn_cell, river_cell, player, iteration;
  uint32_t generation;
  std::vector<float> value, reach;
};
struct AnalysisState {
  std::vector<EvProbeResult> ev_probes;
};
extern AnalysisState Analysis;

// The values a page walk kept for one player of a complete tree: per
// (node, turn cell, river cell) the value and the reach of the hands, and per
// chance node the value the walk found there when no evaluation had it. A
// null pointer is a vector of zeros. The floats live in 4 MB blocks.
struct EvContext {
  const float* value = nullptr;
  const float* reach = nullptr;
  int32_t count = 0;
};
struct EvChance {
  const float* value = nullptr;
  int32_t count = 0;
};
struct EvPlayerValues {
  std::unordered_map<uint64_t, EvContext> contexts;
  std::unordered_map<uint64_t, EvChance> chance;
  std::vector<std::unique_ptr<float[]>> blocks;
  int64_t used = 0;  // floats taken in the last block
};
// Valid for one tree, iteration and store generation; anything else empties it.
struct EvCache {
  const Tree* tree = nullptr;
  int32_t iteration = -1;
  uint32_t generation = 0;
  EvPlayerValues players[2];
};
extern EvCache EvValues;
// Bytes the cache may hold; past it a walk keeps only the node asked.
extern int64_t EvCacheBudget;
int64_t ev_cache_bytes();
void clear_ev_cache();
// set_recalc_accuracy: the exploitability in chips, for the flop, turn and
// river, at which a partial solve stops.
extern double RecalcAccuracy[3];
// Every record and setting back to its start (for tests).
void reset_analysis_state();
void cmd_calc_ev(const Tokens& t);
void cmd_calc_ev_pp(const Tokens& t);
void cmd_solve_partial(const Tokens& t);
void cmd_explo_partial(const Tokens& t);

// A node on a forgotten street has its subgame on this board solved again
// first, once, to the recalc accuracy: what every query and lock does before
// it reads or writes the node's stores.
void open_forgotten(Tree& tree, Node& node, const SpotCell& cell);
