// Cards, masks, the two orders of the 1326 hole pairs, and the hand evaluator.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/core.h"

using Card = uint8_t;        // suit * 13 + rank; rank 0 = deuce .. 12 = ace; suit c d h s
using HandValue = uint32_t;  // larger is better

constexpr int RankOf(Card c) { return c % 13; }
constexpr int SuitOf(Card c) { return c / 13; }
constexpr Card MakeCard(int rank, int suit) { return Card(suit * 13 + rank); }
constexpr CardMask CardBit(int c) { return CardMask(1) << c; }
constexpr int PairIndexOf(int hi, int lo) { return hi * (hi - 1) / 2 + lo; }

extern const char RankLetters[14];  // "23456789TJQKA"
extern const char SuitLetters[5];   // "cdhs"

// ---- Card lists -----------------------------------------------------------
// Reads "AsKd Qh" style text (case folded, blanks after a card allowed, none
// before the first). A bad rank, a bad suit or a repeated card raises the
// "ERROR: invalid card\n" error.
CardMask parse_cards(const std::string& text);
// Same rules, no exception: false on any error.
bool try_parse_cards(const std::string& text, CardMask& out);
std::string card_text(Card c);
std::string mask_text(CardMask m);  // cards from the lowest number up, no blanks
int card_count(CardMask m);

// ---- Hand orders (built once at start from HandOrderText) -----------------
extern const char HandOrderText[];
extern CardMask HandMasks[1326];     // by HandIndex
extern uint16_t HandToPair[1326];    // HandIndex -> PairIndex
extern uint16_t PairToHand[1326];    // PairIndex -> HandIndex
extern CardMask PairMasks[1326];     // by PairIndex
extern Card PairHi[1326], PairLo[1326];  // the two cards of each PairIndex
extern std::vector<uint16_t> ShapeBuckets[169];
extern int32_t LowCardIndex;         // lowest rank in play, 0..4

void build_card_tables();
std::string pair_text(int pair_index);  // "As Kd": hi card, blank, lo card

// ---- Evaluator ------------------------------------------------------------
// HandValue: category position in bits 24-31, then rank fields F1 (bits 16-19)
// down to F5 (bits 0-3); unused fields are 0.
enum HandCategory : uint8_t {
  CAT_HIGHCARD, CAT_PAIR, CAT_TWOPAIR, CAT_TRIPS, CAT_STRAIGHT,
  CAT_FLUSH, CAT_FULLHOUSE, CAT_QUADS, CAT_STRAIGHTFLUSH, CATEGORY_NB
};
constexpr int HandPositionOf(HandValue v) { return int(v >> 24); }
constexpr int HandFieldOf(HandValue v, int field) { return int(v >> (20 - 4 * field)) & 15; }  // field 1..5

// The rank tables, indexed by a 13-bit rank set (bit r = rank r). 0x1FC0 =
// 8,128 is the largest set of at most seven ranks, so no hand reads further.
constexpr int RankTableSize = 8129;
extern uint32_t RankCount[RankTableSize];      // ranks in the set
extern uint32_t TopRank[RankTableSize];        // highest rank
extern uint32_t TopFive[RankTableSize];        // up to five highest, one nibble each, packed right
extern uint32_t StraightValue[RankTableSize];  // straight's HandValue, 0 if none

extern const char* const HandTypeNames[CATEGORY_NB];
extern uint8_t HandTypeOrder[CATEGORY_NB];     // category at each position
extern uint8_t HandTypePosition[CATEGORY_NB];  // position of each category
extern bool HandTypeOrderIsDefault;
extern int32_t MustUseHoleCards;               // 0, 1 or 2

// Builds the rank tables once; later calls return at once. Always true: the
// tables are static.
bool build_rank_tables();
// 3..7 cards with the reduced-deck low straight and the category order
// applied; any other count gives 0 before the order is applied.
HandValue evaluate_cards(const Card* cards, int n);
HandValue evaluate_mask(CardMask cards);
// The table value alone: no low straight, default category order.
HandValue evaluate_cards_plain(const Card* cards, int n);
HandValue evaluate_mask_plain(CardMask cards);
// Values of hole pairs on a board, following MustUseHoleCards; an empty hole
// mask gives 0xFFFFFFFF.
void evaluate_board_holes(const CardMask* holes, size_t count, CardMask board, HandValue* out);
// Default category order.
void reset_hand_type_order();
// LowCardIndex, MustUseHoleCards and the hand type order back to their start (for tests).
void reset_card_settings();
// The nine stored bytes of HandTypeOrder, positions derived from them; false
// (and the default order) when a byte names no category.
bool load_hand_type_order(const uint8_t order[CATEGORY_NB]);
// The words of eval_hand for a value, e.g. "aces over kings".
std::string describe_hand_value(HandValue v);

// ---- Hand classifier ------------------------------------------------------
enum MadeCategory : int8_t {
  MADE_NOTHING, MADE_KING_HIGH, MADE_ACE_HIGH, MADE_LOW_PAIR, MADE_THIRD_PAIR, MADE_SECOND_PAIR,
  MADE_UNDERPAIR, MADE_TOP_PAIR, MADE_TOP_PAIR_TP, MADE_OVERPAIR, MADE_TWO_PAIR, MADE_TRIPS, MADE_SET,
  MADE_STRAIGHT, MADE_FLUSH, MADE_FULLHOUSE, MADE_TOP_FULLHOUSE, MADE_QUADS, MADE_STRAIGHT_FLUSH,
  MADE_CATEGORY_NB
};
enum DrawCategory : int8_t { DRAW_NONE, DRAW_4OUT_STRAIGHT, DRAW_8OUT_STRAIGHT, DRAW_FLUSH, DRAW_COMBO, DRAW_CATEGORY_NB };
extern const char* const MadeCategoryNames[MADE_CATEGORY_NB];
extern const char* const DrawCategoryNames[DRAW_CATEGORY_NB];
// Made hand and draw of every hand on a board of 3 to 5 cards, by HandIndex.
// Hands touching the board: made 0, draw -1 (0 on a river). False on the one
// state no board can reach (trips with a hand on a two-pair board).
bool classify_hands(CardMask board, int8_t* made, int8_t* draw);

// ---- Commands -------------------------------------------------------------
void cmd_show_category_names(const std::vector<std::string>& t);
void cmd_show_categories(const std::vector<std::string>& t);
void cmd_show_hand_order(const std::vector<std::string>& t);
void cmd_set_low_card(const std::vector<std::string>& t);
void cmd_eval_hand(const std::vector<std::string>& t);
void cmd_set_hand_type_order(const std::vector<std::string>& t);
void cmd_set_must_use_hole_cards(const std::vector<std::string>& t);

// ---- Suit isomorphism -----------------------------------------------------
// Boards that differ only by a renaming of suits share one solution. The board
// is brought to a canonical naming; queries name real cards, so they are
// translated to the canonical naming and their answers translated back.

struct SuitMap {
  uint8_t to[4];  // old suit -> new suit
};
constexpr SuitMap IdentitySuitMap{{0, 1, 2, 3}};
constexpr uint16_t NoPosition = 65535;  // "not in the list" in every position table

// Renames the suits of the three masks to the canonical naming and returns the
// renaming. The flop's suits come first (most cards first; a rainbow flop in
// card order), then the turn's suit, the river's, and the rest in suit order.
SuitMap canonicalise_board(CardMask& flop, CardMask& turn, CardMask& river);
SuitMap inverse_suit_map(const SuitMap& map);
// The 13-bit block of suit s moves to block map.to[s].
CardMask apply_suit_map(CardMask m, const SuitMap& map);
inline Card apply_suit_map(Card c, const SuitMap& map) {
  return MakeCard(RankOf(c), map.to[SuitOf(c)]);
}
// PairIndex of the image of a pair.
int apply_suit_map_to_pair(int pair_index, const SuitMap& map);
// out[image(p)] = in[p] for all 1326 pairs; in and out must not overlap.
void map_range_to_canonical(const double* in, double* out, const SuitMap& map);
// Exchanges two suits in a mask (the mapping between isomorphic variants).
CardMask swap_suits(CardMask m, int suit_a, int suit_b);

// A query's cards in canonical naming with the query's own renaming.
struct CanonicalCards {
  SuitMap map;
  int turn;   // canonical Card, or -1
  int river;  // canonical Card, or -1
};
// flop: the user's flop; turn and river: real cards or -1. Without
// isomorphism the renaming is the identity and the cards stay.
CanonicalCards canonicalise_query(CardMask flop, int turn, int river, bool isomorphic);

// A board's per-hand list, indexed through pair_position (canonical PairIndex
// -> list position, NoPosition = absent), expanded to 1326 entries in real
// PairIndex order: out[p] = list[pair_position[image(p)]], fill where absent.
void expand_board_list(const float* list, const uint16_t* pair_position, const SuitMap& map,
                       double fill, double* out);
void expand_board_list(const double* list, const uint16_t* pair_position, const SuitMap& map,
                       double fill, double* out);
// A 1326-entry array in canonical PairIndex order back to real order:
// out[p] = in[image(p)]; in and out must not overlap.
void undo_suit_map(const double* in, const SuitMap& map, double* out);
