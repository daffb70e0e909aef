// Cards, masks, the two orders of the 1326 hole pairs, and the hand evaluator.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

using Card = uint8_t;        // suit * 13 + rank; rank 0 = deuce .. 12 = ace; suit c d h s
using CardMask = uint64_t;   // bit = Card
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
enum HandCategory : uint8_t {
  CAT_HIGHCARD, CAT_PAIR, CAT_TWOPAIR, CAT_TRIPS, CAT_STRAIGHT,
  CAT_FLUSH, CAT_FULLHOUSE, CAT_QUADS, CAT_STRAIGHTFLUSH, CATEGORY_NB
};
extern const char* const HandTypeNames[CATEGORY_NB];
extern uint8_t HandTypeOrder[CATEGORY_NB];     // category at each position
extern uint8_t HandTypePosition[CATEGORY_NB];  // position of each category
extern bool HandTypeOrderIsDefault;
extern int32_t MustUseHoleCards;               // 0, 1 or 2

bool build_rank_tables();
// 3..7 cards; any other count gives 0.
HandValue evaluate_cards(const Card* cards, int n);
// Values of hole pairs on a board, following MustUseHoleCards; an empty hole
// mask gives 0xFFFFFFFF.
void evaluate_board_holes(const CardMask* holes, size_t count, CardMask board, HandValue* out);
void reset_hand_type_order();
std::string describe_hand_value(HandValue v);

// ---- Commands -------------------------------------------------------------
void cmd_show_hand_order(const std::vector<std::string>& t);
void cmd_set_low_card(const std::vector<std::string>& t);
void cmd_eval_hand(const std::vector<std::string>& t);
void cmd_set_hand_type_order(const std::vector<std::string>& t);
void cmd_set_must_use_hole_cards(const std::vector<std::string>& t);
