// Cards: the card-list reader, card numbering, the two orders of the 1326
// pairs derived from the stored name list, the shape buckets, set_low_card.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <stdexcept>

#include "cards/cards.h"
#include "core/core.h"

namespace {

std::string error_of(const std::string& text) {
  try {
    parse_cards(text);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

// Rank-major card number of the text interfaces: 2c 2d 2h 2s 3c ... As = 0 .. 51.
int rank_major(Card c) { return RankOf(c) * 4 + SuitOf(c); }

// ---- Reading and printing ---------------------------------------------------

TEST(CardReader, EdgeCases) {
  EXPECT_EQ(parse_cards(""), 0u);
  EXPECT_EQ(error_of(" As"), "ERROR: invalid card\n");
  EXPECT_EQ(parse_cards("As "), CardBit(51));
  EXPECT_EQ(parse_cards("As   "), CardBit(51));
  EXPECT_EQ(error_of("AsAs"), "ERROR: invalid card\n");
  EXPECT_EQ(error_of("As as"), "ERROR: invalid card\n");
  EXPECT_EQ(error_of("10s"), "ERROR: invalid card\n");
  EXPECT_EQ(error_of("A"), "ERROR: invalid card\n");    // suit missing at the end
  EXPECT_EQ(error_of("Ax"), "ERROR: invalid card\n");   // bad suit
  EXPECT_EQ(error_of("1s"), "ERROR: invalid card\n");   // bad rank
  EXPECT_EQ(error_of("As,Kd"), "ERROR: invalid card\n");
  CardMask m = 0;
  EXPECT_FALSE(try_parse_cards(" As", m));
  EXPECT_TRUE(try_parse_cards("Kd", m));
  EXPECT_EQ(m, CardBit(24));
  for (const char* t : {"As", "AS", "as", "aS"}) EXPECT_EQ(parse_cards(t), CardBit(51)) << t;
  EXPECT_EQ(parse_cards("tc"), CardBit(8));
  EXPECT_EQ(parse_cards("AsKdQh"), parse_cards("As Kd  Qh"));
}

TEST(CardReader, Numbering) {
  const std::pair<const char*, int> known[] = {{"2c", 0},  {"Ac", 12}, {"2d", 13}, {"Ad", 25},
                                               {"2h", 26}, {"Ah", 38}, {"2s", 39}, {"As", 51}};
  for (auto [text, number] : known) {
    EXPECT_EQ(parse_cards(text), CardBit(number)) << text;
    EXPECT_EQ(card_text(Card(number)), text);
  }
  // Every card reads back from its printed form.
  for (int c = 0; c < 52; c++) EXPECT_EQ(parse_cards(card_text(Card(c))), CardBit(c));
  EXPECT_EQ(mask_text(parse_cards("As 2c Kd")), "2cKdAs");
}

// ---- Hand orders ---------------------------------------------------------------

// The tables come from the stored names; they must agree with the formulas.
TEST(HandOrder, TablesAgreeWithTheFormulas) {
  for (int hi = 1; hi < 52; hi++)
    for (int lo = 0; lo < hi; lo++) {
      int p = PairIndexOf(hi, lo);
      CardMask m = CardBit(hi) | CardBit(lo);
      ASSERT_EQ(PairMasks[p], m);
      ASSERT_EQ(PairHi[p], hi);
      ASSERT_EQ(PairLo[p], lo);
      int a = rank_major(Card(hi)), b = rank_major(Card(lo));
      Card first = Card(hi), second = Card(lo);
      if (a < b) std::swap(a, b), std::swap(first, second);
      int h = a * (a - 1) / 2 + b;
      ASSERT_EQ(HandToPair[h], p);
      ASSERT_EQ(PairToHand[p], h);
      ASSERT_EQ(HandMasks[h], m);
      ASSERT_EQ(std::string(HandOrderText + 5 * h, 4), card_text(first) + card_text(second));
    }
  EXPECT_EQ(strlen(HandOrderText), 6629u);  // 1326 names and the blanks between them
  EXPECT_EQ(pair_text(1325), "As Ks");
}

TEST(HandOrder, ShapeBuckets) {
  int total = 0;
  std::set<int> seen;
  for (int row = 0; row < 13; row++)
    for (int col = 0; col < 13; col++) {
      const auto& bucket = ShapeBuckets[row * 13 + col];
      size_t want = row == col ? 6 : row < col ? 4 : 12;  // pairs, suited above the diagonal, offsuit below
      ASSERT_EQ(bucket.size(), want) << row << " " << col;
      for (size_t i = 0; i < bucket.size(); i++) {
        int p = bucket[i];
        seen.insert(p);
        int r1 = RankOf(PairHi[p]), r2 = RankOf(PairLo[p]);
        if (r1 < r2) std::swap(r1, r2);
        bool suited = SuitOf(PairHi[p]) == SuitOf(PairLo[p]);
        bool placed;
        if (row == col) {
          placed = r1 == row && r2 == row;
        } else if (row < col) {
          placed = suited && r2 == row && r1 == col;
        } else {
          placed = !suited && r1 == row && r2 == col;
        }
        EXPECT_TRUE(placed) << pair_text(p) << " in " << row << " " << col;
        if (i > 0) {
          EXPECT_LT(PairToHand[bucket[i - 1]], PairToHand[p]);  // HandIndex order
        }
      }
      total += int(bucket.size());
    }
  EXPECT_EQ(total, 1326);
  EXPECT_EQ(seen.size(), 1326u);
}

TEST(HandOrder, BuildingAgainGivesTheSameBuckets) {
  std::vector<uint16_t> before = ShapeBuckets[168];
  build_card_tables();
  EXPECT_EQ(ShapeBuckets[168], before);
}

// ---- Commands ----------------------------------------------------------------------

struct CardCommands : ::testing::Test {
  void SetUp() override {
    LowCardIndex = 0;
    SuppressOk = false;
    OutputBuffer.clear();
  }
  void TearDown() override { SetUp(); }
};

TEST_F(CardCommands, SetLowCard) {
  cmd_set_low_card({"set_low_card", "2"});
  EXPECT_EQ(LowCardIndex, 0);
  cmd_set_low_card({"set_low_card", "6"});
  EXPECT_EQ(LowCardIndex, 4);
  EXPECT_THROW(cmd_set_low_card({"set_low_card", "7"}), std::runtime_error);
  EXPECT_EQ(LowCardIndex, 4);
  EXPECT_THROW(cmd_set_low_card({"set_low_card", "six"}), std::invalid_argument);
}

}  // namespace
