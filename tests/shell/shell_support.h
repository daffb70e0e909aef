// What the shell answers to one input line, with the output buffer left empty;
// and a fixture that starts every test from a fresh game and no tree.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "cards/cards.h"
#include "shell/shell.h"
#include "tree/tree.h"

inline std::string run(const std::string& line) {
  OutputBuffer.clear();
  process_line(tokenize_line(line));
  std::string out = OutputBuffer;
  OutputBuffer.clear();
  return out;
}

struct FreshGameTest : ::testing::Test {
  static void SetUpTestSuite() {
    build_rank_tables();
    build_card_tables();
  }
  void SetUp() override {
    reset_game_state();
    reset_tree_state();
    OutputBuffer.clear();
  }
  void TearDown() override {
    reset_tree_state();
    OutputBuffer.clear();
  }
};
