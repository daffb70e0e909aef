// The tree library alone has no solver above it: its tests install hooks that
// do nothing, as the solver's start-up would install the real ones.
#include <gtest/gtest.h>

#include "tree/tree.h"

namespace {
struct TreeHooksEnvironment : ::testing::Environment {
  void SetUp() override { SolverHooks = {[] {}, [] {}}; }
};
const auto* const Registered = ::testing::AddGlobalTestEnvironment(new TreeHooksEnvironment);
}  // namespace
