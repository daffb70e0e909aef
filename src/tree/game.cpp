// The game description: ranges, board, pots, isomorphism, stack and the
// tree's info lines, as the set-up commands leave them for the build.
#include <cfloat>

#include "tree/tree.h"

Range Ranges[2];
double RangeMin[2] = {DBL_MAX, DBL_MAX}, RangeMax[2] = {-DBL_MAX, -DBL_MAX};
CardMask BoardFlop = 0, BoardTurn = 0, BoardRiver = 0;
double PotOop = 0, PotIp = 0, StartPot = 100;
bool IsomorphismFlop = true, IsomorphismTurn = false;
int32_t EffectiveStack = 0;
bool TreePresent = false;
std::vector<std::string> TreeInfoLines;
const char* const PlayerNames[2] = {"OOP", "IP"};

int player_from_token(const std::string& token) {
  if (token == "OOP" || token == "hero") return 0;
  if (token == "IP" || token == "villain") return 1;
  return -1;
}

CardMask board_mask() { return BoardFlop | BoardTurn | BoardRiver; }

void reset_game_description() {
  for (int p = 0; p < 2; p++) {
    Ranges[p].clear();
    RangeMin[p] = DBL_MAX;
    RangeMax[p] = -DBL_MAX;
  }
  BoardFlop = BoardTurn = BoardRiver = 0;
  PotOop = PotIp = 0;
  StartPot = 100;
  IsomorphismFlop = true;
  IsomorphismTurn = false;
  EffectiveStack = 0;
  TreeInfoLines.clear();
}
