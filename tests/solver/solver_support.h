// Games for the solver tests, built through the real build driver: ranges,
// board and pot set as the set-up commands set them, lines walked as
// add_line walks them, then build_game.
#pragma once
#include <gtest/gtest.h>
#include <omp.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "cards/cards.h"
#include "core/core.h"
#include "solver/kernels/kernels.h"
#include "solver/solver.h"
#include "storage/store.h"
#include "tree/board_tree.h"
#include "tree/tree.h"

#if defined(__SANITIZE_ADDRESS__)  // GCC's mark of -fsanitize=address
constexpr bool UnderSanitizer = true;
#else
constexpr bool UnderSanitizer = false;
#endif

// Iterations scaled down under a sanitizer, which runs the walk far slower.
inline int32_t scaled(int32_t iterations, int32_t divisor = 2) {
  return UnderSanitizer ? std::max(1, iterations / divisor) : iterations;
}

struct GameSpec {
  std::string board;                    // "KsQd7h4c2s": 3, 4 or 5 cards
  std::vector<std::string> oop, ip;     // "AhKh" hands or "AK", "AKs", "AKo", "AA" classes
  std::vector<std::string> lines;       // levels as add_line takes them
  double pot = 100;
  double weight[2] = {1.0, 1.0};        // every hand of a player's range
};

inline Card card_of(const std::string& two) {
  return Card(__builtin_ctzll(parse_cards(two)));
}

// Adds `weight` for a hand or a class, skipping pairs that touch the board.
inline void add_to_range(Range& r, const std::string& what, CardMask board, double weight = 1.0) {
  auto put = [&](Card a, Card b) {
    if (a == b || (board & (CardBit(a) | CardBit(b)))) return;
    int hi = std::max(a, b), lo = std::min(a, b);
    r[size_t(PairIndexOf(hi, lo))] = weight;
  };
  if (what.size() == 4 && what[1] != what[0]) {
    CardMask m = parse_cards(what);
    if (card_count(m) == 2) {
      put(Card(__builtin_ctzll(m)), Card(63 - __builtin_clzll(m)));
      return;
    }
  }
  int r1 = int(std::string(RankLetters).find(what[0]));
  int r2 = int(std::string(RankLetters).find(what[1]));
  bool suited = what.size() > 2 && what[2] == 's';
  bool offsuit = what.size() > 2 && what[2] == 'o';
  for (int s1 = 0; s1 < 4; s1++)
    for (int s2 = 0; s2 < 4; s2++) {
      if (suited && s1 != s2) continue;
      if (offsuit && s1 == s2) continue;
      if (r1 == r2 && s1 >= s2) continue;
      put(MakeCard(r1, s1), MakeCard(r2, s2));
    }
}

struct SolverTest : ::testing::Test {
  static void SetUpTestSuite() {
    build_card_tables();
    build_rank_tables();
  }
  void SetUp() override {
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings(); reset_solver_settings();
    reset_tree_state();
    reset_solver_state();
    CompressionSetting = 0;
    IsomorphismFlop = false;
    IsomorphismTurn = false;
    omp_set_num_threads(2);
    OutputBuffer.clear();
  }
  void TearDown() override {
    free_active_tree();
    reset_solver_state();
    reset_tree_state();
    reset_core_state(); reset_card_settings(); reset_game_description(); reset_store_settings(); reset_solver_settings();
    RegretIteration = 0;
    OutputBuffer.clear();
  }

  static Tree& build(const GameSpec& g) {
    CardMask board = 0;
    BoardFlop = BoardTurn = BoardRiver = 0;
    for (size_t i = 0; i + 1 < g.board.size(); i += 2) {
      Card c = card_of(g.board.substr(i, 2));
      board |= CardBit(c);
      if (i < 6)
        BoardFlop |= CardBit(c);
      else if (i == 6)
        BoardTurn = CardBit(c);
      else
        BoardRiver = CardBit(c);
    }
    for (int p = 0; p < 2; p++) {
      Ranges[p] = Range(HandCount, 0.0);
      for (const std::string& h : p == 0 ? g.oop : g.ip) add_to_range(Ranges[p], h, board, g.weight[p]);
    }
    StartPot = g.pot;
    clear_schematic_tree();
    for (const std::string& l : g.lines) walk_line(tokenize_line("add_line " + l), 1, false);
    build_game(true);
    OutputBuffer.clear();
    EXPECT_TRUE(materialise_tree_stores(*ActiveTree));
    return *ActiveTree;
  }

  // Runs `n` iterations; returns the seconds they took.
  static double solve(Tree& t, int32_t n) {
    auto start = std::chrono::steady_clock::now();
    for (int32_t i = 0; i < n; i++) run_iteration(t);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  static SolverResults evaluate(Tree& t) {
    TraverseResult p0 = traverse(t, 0, MODE_EVALUATE);
    TraverseResult p1 = traverse(t, 1, MODE_EVALUATE);
    SolverResults r;
    r.ev0 = p0.ev;
    r.ev1 = p1.ev;
    r.mes0 = p0.mes;
    r.mes1 = p1.mes;
    r.exploitable = (p0.mes + p1.mes - p0.ev - p1.ev) * 0.5;
    r.iteration = t.iteration;
    return r;
  }
};

// The game value for player 0 lies in [-mes1, mes0] for any strategy pair:
// two solutions of one game must have overlapping intervals.
inline void expect_same_value(const SolverResults& a, const SolverResults& b, double slack,
                              const char* what) {
  double lo = std::max(-a.mes1, -b.mes1), hi = std::min(a.mes0, b.mes0);
  EXPECT_LE(lo, hi + slack) << what << ": [" << -a.mes1 << ", " << a.mes0 << "] vs [" << -b.mes1
                            << ", " << b.mes0 << "]";
}
