// The hand classifier: the worked examples, and flush draws checked against a
// count of suits on random flops.
#include <gtest/gtest.h>

#include <random>

#include "cards/cards.h"

namespace {

int hand_index(const char* text) {
  CardMask m = parse_cards(text);
  for (int h = 0; h < 1326; h++)
    if (HandMasks[h] == m) return h;
  return -1;
}

}  // namespace

TEST(Classifier, WorkedExamples) {
  struct Case {
    const char* board;
    const char* hand;
    int made, draw;
  } cases[] = {
      {"Kh Kd 7c", "AsQs", MADE_ACE_HIGH, DRAW_NONE},   {"Kh Kd 7c", "QsJs", MADE_NOTHING, DRAW_NONE},
      {"Kh Kd 7c", "Ks7s", MADE_FULLHOUSE, DRAW_NONE},   {"Ah Kh 7c", "AsKs", MADE_TWO_PAIR, DRAW_NONE},
      {"Ah Kh 7c", "7s7d", MADE_SET, DRAW_NONE},         {"Ah Kh 7c", "QsQd", MADE_THIRD_PAIR, DRAW_NONE},
      {"Jc 9c 2d", "KsKd", MADE_OVERPAIR, DRAW_NONE},    {"Jc 9c 2d", "Tc8c", MADE_NOTHING, DRAW_COMBO},
      {"Jc 9c 2d", "Ts8s", MADE_NOTHING, DRAW_8OUT_STRAIGHT}, {"Jc 9c 2d", "KsQd", MADE_KING_HIGH, DRAW_4OUT_STRAIGHT},
      {"Ah Kh 7h 2h", "QsJs", MADE_NOTHING, DRAW_NONE},  {"Ah Kh 7h 2h", "QhJs", MADE_FLUSH, DRAW_NONE},
      {"Ah Kh 7h 2h 3c", "5s4s", MADE_STRAIGHT, DRAW_NONE}, {"Ah Kh 7h", "Ad9c", MADE_TOP_PAIR, DRAW_NONE},
      {"Ah 7h 3c", "Jc Jd", MADE_UNDERPAIR, DRAW_NONE},  {"Ah Kh 7h", "Ah Qc", MADE_NOTHING, -1},
  };
  int8_t made[1326], draw[1326];
  for (const Case& c : cases) {
    ASSERT_TRUE(classify_hands(parse_cards(c.board), made, draw));
    int h = hand_index(c.hand);
    EXPECT_EQ(made[h], c.made) << c.board << " " << c.hand;
    EXPECT_EQ(draw[h], c.draw) << c.board << " " << c.hand;
  }
  // Nothing comes after the river, not even for hands on the board.
  ASSERT_TRUE(classify_hands(parse_cards("Ah Kh 7h 2h 3c"), made, draw));
  for (int h = 0; h < 1326; h++) ASSERT_EQ(draw[h], 0);
}

// Without a straight or a pair of better, a flush draw is exactly four cards
// of one suit between hand and flop.
TEST(Classifier, FlushDrawsAreFourOfASuit) {
  std::mt19937 rng(5);
  int8_t made[1326], draw[1326];
  for (int k = 0; k < 30; k++) {
    CardMask board = 0;
    while (card_count(board) < 3) board |= CardBit(Card(rng() % 52));
    ASSERT_TRUE(classify_hands(board, made, draw));
    for (int h = 0; h < 1326; h++) {
      if (HandMasks[h] & board) continue;
      CardMask all = board | HandMasks[h];
      bool four = false;
      for (int s = 0; s < 4; s++) four |= __builtin_popcountll((all >> (13 * s)) & 0x1fff) == 4;
      bool flushy = draw[h] == DRAW_FLUSH || draw[h] == DRAW_COMBO;
      EXPECT_EQ(flushy, four) << card_text(Card(__builtin_ctzll(HandMasks[h])));
    }
  }
}
