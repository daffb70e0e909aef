// Placeholder: the evaluator is being written.
#include "cards/cards.h"
#include "shell/shell.h"

const char* const HandTypeNames[CATEGORY_NB] = {"highcard", "pair", "twopair", "trips", "straight",
                                                "flush", "fullhouse", "quads", "straightflush"};
uint8_t HandTypeOrder[CATEGORY_NB] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
uint8_t HandTypePosition[CATEGORY_NB] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
bool HandTypeOrderIsDefault = true;
int32_t MustUseHoleCards = 0;

bool build_rank_tables() { return true; }
HandValue evaluate_cards(const Card*, int) { return 0; }
void evaluate_board_holes(const CardMask*, size_t count, CardMask, HandValue* out) {
  for (size_t i = 0; i < count; i++) out[i] = 0;
}
void reset_hand_type_order() {}
std::string describe_hand_value(HandValue) { return ""; }
void cmd_eval_hand(const std::vector<std::string>& t) { cmd_not_implemented(t); }
void cmd_set_hand_type_order(const std::vector<std::string>& t) { cmd_not_implemented(t); }
void cmd_set_must_use_hole_cards(const std::vector<std::string>& t) { cmd_not_implemented(t); }
