// The evaluator's settings and words: the category order, the hole-card rule
// and the eval_hand line.
#include <cstdio>

#include "cards/cards.h"
#include "core/core.h"

static const char* const RankWords[13] = {"deuce", "trey", "four", "five",  "six",  "seven", "eight",
                                          "nine",  "ten",  "jack", "queen", "king", "ace"};
static const char* const RankPlurals[13] = {"deuces", "treys", "fours", "fives",  "sixes", "sevens", "eights",
                                            "nines",  "tens",  "jacks", "queens", "kings", "aces"};

static const char* word(int rank) { return rank >= 0 && rank < 13 ? RankWords[rank] : ""; }
static const char* plural(int rank) { return rank >= 0 && rank < 13 ? RankPlurals[rank] : ""; }

void reset_hand_type_order() {
  for (int i = 0; i < CATEGORY_NB; i++) HandTypeOrder[i] = HandTypePosition[i] = uint8_t(i);
  HandTypeOrderIsDefault = true;
}

void reset_card_settings() {
  LowCardIndex = 0;
  MustUseHoleCards = 0;
  reset_hand_type_order();
}

bool load_hand_type_order(const uint8_t order[CATEGORY_NB]) {
  reset_hand_type_order();
  for (int i = 0; i < CATEGORY_NB; i++)
    if (order[i] >= CATEGORY_NB) return false;
  for (int i = 0; i < CATEGORY_NB; i++) {
    HandTypeOrder[i] = order[i];
    HandTypePosition[order[i]] = uint8_t(i);
    if (order[i] != i) HandTypeOrderIsDefault = false;
  }
  return true;
}

std::string describe_hand_value(HandValue v) {
  int position = HandPositionOf(v);
  if (position >= CATEGORY_NB) return "";
  int f[6];
  for (int i = 1; i <= 5; i++) f[i] = HandFieldOf(v, i);
  std::string s;
  switch (HandTypeOrder[position]) {
    case CAT_HIGHCARD:
    case CAT_FLUSH:
      for (int i = 1; i <= 5; i++) (s += word(f[i])) += ' ';
      break;
    case CAT_PAIR:
      s = std::string(plural(f[1])) + ", " + word(f[2]) + " " + word(f[3]) + " " + word(f[4]) + " kicker";
      break;
    case CAT_TWOPAIR:
      s = std::string(plural(f[1])) + " and " + plural(f[2]) + ", " + word(f[3]) + " kicker";
      break;
    case CAT_TRIPS:
      s = std::string(plural(f[1])) + ", " + word(f[2]) + " " + word(f[3]) + " kicker";
      break;
    case CAT_STRAIGHT:
    case CAT_STRAIGHTFLUSH:
      // F1 = 3 stands for the lowest straight of whatever deck is in play.
      if (f[1] == 3) {
        for (int r = LowCardIndex + 3; r >= LowCardIndex; r--) (s += word(r)) += ' ';
        s += "ace";
      } else {
        for (int r = f[1]; r > f[1] - 5; r--) (s += word(r)) += ' ';
      }
      break;
    case CAT_FULLHOUSE:
      s = std::string(plural(f[1])) + " over " + plural(f[2]);
      break;
    case CAT_QUADS:
      s = std::string(plural(f[1])) + ", " + word(f[2]) + " kicker";
      break;
  }
  return s;
}

void cmd_eval_hand(const std::vector<std::string>& t) {
  CardMask cards = parse_cards(t[1]);
  int n = card_count(cards);
  if (n < 5 || n > 7) fail_argument(t[0]);
  HandValue v = evaluate_mask(cards);
  int category = HandTypeOrder[HandPositionOf(v)];
  char line[256];
  snprintf(line, sizeof line, "%s | %d cards | %08x | %13s | %s\n", t[1].c_str(), n, v, HandTypeNames[category],
           describe_hand_value(v).c_str());
  shell_print("%s", line);
}

void cmd_set_hand_type_order(const std::vector<std::string>& t) {
  for (int i = 0; i < CATEGORY_NB; i++) {
    const std::string& name = i + 1 < int(t.size()) ? t[i + 1] : std::string();
    int category = 0;
    while (category < CATEGORY_NB && name != HandTypeNames[category]) category++;
    // Positions already written stay written.
    if (category == CATEGORY_NB) fail_argument(t[0]);
    HandTypeOrder[i] = uint8_t(category);
    HandTypePosition[category] = uint8_t(i);
    if (category != i) HandTypeOrderIsDefault = false;
  }
  print_ok(t);
}

void cmd_set_must_use_hole_cards(const std::vector<std::string>& t) {
  int n = parse_int(t[1]);
  if (n < 0 || n > 2) fail_argument(t[0]);
  MustUseHoleCards = n;
  print_ok(t);
}

void cmd_show_category_names(const std::vector<std::string>&) {
  std::string s;
  for (const char* name : MadeCategoryNames) s += std::string(name) + " ";
  s += "\n";
  for (const char* name : DrawCategoryNames) s += std::string(name) + " ";
  shell_print("%s\nEND\n", s.c_str());
}

void cmd_show_categories(const std::vector<std::string>& t) {
  CardMask board = parse_cards(join_tokens(t, 1, t.size()));
  int n = card_count(board);
  if (n < 3 || n > 5) fail_command("invalid board");
  int8_t made[1326], draw[1326];
  if (!classify_hands(board, made, draw)) {
    shell_print("ERROR: bug in hand classifier, please report!\n");
    error_exit();
  }
  std::string rows;
  char cell[8];
  for (int8_t m : made) {
    snprintf(cell, sizeof cell, "%d ", m);
    rows += cell;
  }
  rows += "\n";
  for (int8_t d : draw) {
    snprintf(cell, sizeof cell, "%d ", d);
    rows += cell;
  }
  shell_print("%s\nEND\n", rows.c_str());
}

void cmd_show_hand_order(const std::vector<std::string>&) { shell_print("%s\n", HandOrderText); }

void cmd_set_low_card(const std::vector<std::string>& t) {
  int n = parse_int(t[1]);
  if (n < 2 || n > 6) fail_argument(t[0]);
  LowCardIndex = n - 2;
  print_ok(t);
}
