// Test programs above the solver wire the tree's hooks to it once, as the
// program's start-up does.
#include <gtest/gtest.h>

#include "solver/solver.h"

namespace {
struct SolverHooksEnvironment : ::testing::Environment {
  void SetUp() override { install_solver_hooks(); }
};
const auto* const Registered = ::testing::AddGlobalTestEnvironment(new SolverHooksEnvironment);
}  // namespace
