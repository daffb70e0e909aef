// The automatic compression choice and the level words.
#include <gtest/gtest.h>

#include "tree/tree.h"

namespace {

// With total T and load L the budget is trunc(0.85 * trunc(T * (100 - L) / 100)).
int32_t level_for(double uncompressed_over_budget, CardMask flop) {
  const uint64_t total = 10000000000ull;  // 10 GB, load 0: budget 8.5e9
  const double budget = 8500000000.0;
  return choose_compression_level(int64_t(budget * uncompressed_over_budget), total, 0, flop);
}

const CardMask TwoTone = CardBit(MakeCard(10, 3)) | CardBit(MakeCard(9, 2)) | CardBit(MakeCard(0, 2));
const CardMask Rainbow = CardBit(MakeCard(10, 3)) | CardBit(MakeCard(9, 2)) | CardBit(MakeCard(0, 1));

}  // namespace

TEST(AutomaticCompression, ThresholdsOfTwoSuitFlops) {
  EXPECT_EQ(level_for(0.99, TwoTone), 0);
  // budget equal to U is not below it: the chain runs and gives 1.
  EXPECT_EQ(level_for(1.0, TwoTone), 1);
  EXPECT_EQ(level_for(1.0 / 0.58 - 0.01, TwoTone), 1);
  EXPECT_EQ(level_for(1.0 / 0.58 + 0.01, TwoTone), 2);
  EXPECT_EQ(level_for(1.0 / 0.39 - 0.01, TwoTone), 2);
  EXPECT_EQ(level_for(1.0 / 0.39 + 0.01, TwoTone), 3);
  EXPECT_EQ(level_for(1.0 / 0.29 - 0.01, TwoTone), 3);
  EXPECT_EQ(level_for(1.0 / 0.29 + 0.01, TwoTone), 4);
}

TEST(AutomaticCompression, RainbowFlopsCompressLater) {
  // b and c are 0.8 times the two-suit figures: 0.312 and 0.232.
  EXPECT_EQ(level_for(1.0 / 0.39 + 0.01, Rainbow), 2);
  EXPECT_EQ(level_for(1.0 / 0.312 - 0.01, Rainbow), 2);
  EXPECT_EQ(level_for(1.0 / 0.312 + 0.01, Rainbow), 3);
  EXPECT_EQ(level_for(1.0 / 0.232 - 0.01, Rainbow), 3);
  EXPECT_EQ(level_for(1.0 / 0.232 + 0.01, Rainbow), 4);
}

TEST(AutomaticCompression, LoadShrinksTheBudget) {
  // 50% load of 10 GB leaves 5 GB free, 4.25 GB budget.
  EXPECT_EQ(choose_compression_level(4240000000ll, 10000000000ull, 50, TwoTone), 0);
  EXPECT_EQ(choose_compression_level(4260000000ll, 10000000000ull, 50, TwoTone), 1);
}

TEST(CompressionWords, ParseAndClamp) {
  EXPECT_EQ(parse_compression_level("auto"), -1);
  EXPECT_EQ(parse_compression_level("none"), 0);
  EXPECT_EQ(parse_compression_level("max"), 4);
  EXPECT_EQ(parse_compression_level("fast"), 5);
  EXPECT_EQ(parse_compression_level("7"), 5);
  EXPECT_EQ(parse_compression_level("-3"), -1);
  EXPECT_EQ(parse_compression_level("2x"), 2);
  EXPECT_THROW(parse_compression_level("Max"), std::invalid_argument);
  EXPECT_THROW(parse_compression_level("99999999999"), std::out_of_range);
  EXPECT_STREQ(compression_word(-1), "auto");
  EXPECT_STREQ(compression_word(5), "fast");
  const int32_t pairs[6][2] = {{0, 0}, {0, 1}, {1, 1}, {1, 2}, {2, 2}, {0, 3}};
  for (int level = 0; level < 6; level++) {
    EXPECT_EQ(compression_pair(level).regrets, pairs[level][0]);
    EXPECT_EQ(compression_pair(level).strategy, pairs[level][1]);
  }
  EXPECT_EQ(compression_pair(9).regrets, 0);
  EXPECT_EQ(compression_pair(9).strategy, 0);
}
