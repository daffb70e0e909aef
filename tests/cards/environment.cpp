// The card and rank tables, built once for the whole test program as the
// program's start-up builds them.
#include <gtest/gtest.h>

#include "cards/cards.h"

namespace {
struct CardTablesEnvironment : ::testing::Environment {
  void SetUp() override {
    build_card_tables();
    ASSERT_TRUE(build_rank_tables());
  }
};
const auto* const Registered = ::testing::AddGlobalTestEnvironment(new CardTablesEnvironment);
}  // namespace
