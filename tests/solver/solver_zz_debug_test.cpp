#include <cmath>
#include "solver_support.h"
static GameSpec turn_game() {
  GameSpec g;
  g.board = "KsQs7h4h";
  g.oop = {"AA", "77", "JTs", "65s", "AKs"};
  g.ip = {"AK", "QJ", "44", "A5s"};
  g.lines = {"0 0 0 0", "0 0 0 50 50", "0 0 50 50", "50 50 50 50", "50 50 150 150"};
  return g;
}
static GameSpec flop_game() {
  GameSpec g;
  g.board = "KsQd7h";
  g.oop = {"AA", "76s", "KQ"};
  g.ip = {"AK", "QJs", "88"};
  g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50", "0 0 50 50 50 50", "50 50 50 50 50 50"};
  return g;
}
TEST_F(SolverTest, DebugTurn) {
  Tree& t = build(turn_game());
  printf("turn: hands root %zu nodes %zu\n", t.boards->children[0].holes.size(), t.nodes.size());
  for (int k : {25, 100, 200, 400}) {
    double s = solve(t, k - t.iteration);
    SolverResults r = evaluate(t);
    printf("it %d ev0 %.5f ev1 %.5f mes0 %.5f mes1 %.5f expl %.5f (%.3fs)\n", t.iteration, r.ev0, r.ev1, r.mes0, r.mes1, r.exploitable, s);
  }
}
TEST_F(SolverTest, DebugFlop) {
  Tree& t = build(flop_game());
  printf("flop: hands root %zu nodes %zu\n", t.boards->holes.size(), t.nodes.size());
  for (int k : {25, 100, 200}) {
    double s = solve(t, k - t.iteration);
    SolverResults r = evaluate(t);
    printf("it %d ev0 %.5f ev1 %.5f mes0 %.5f mes1 %.5f expl %.5f (%.3fs)\n", t.iteration, r.ev0, r.ev1, r.mes0, r.mes1, r.exploitable, s);
  }
}
TEST_F(SolverTest, DebugFlop2) {
  SimdLevel = 1;
  Tree& t = build(flop_game());
  solve(t, 50);
  for (size_t i = 0; i < t.nodes.size(); i++) {
    Node& n = t.nodes[i];
    printf("node %zu kind %d street %d player %d children %zu value %.1f\n", i, n.kind, n.street, n.player, n.children.size(), n.value);
    if (n.kind != NODE_DECISION) continue;
    int tc = n.street >= 2 ? 0 : -1, rc = n.street >= 3 ? 0 : -1;
    HandVector rows[4];
    float def[4] = {0.25f, 0.25f, 0.25f, 0.25f};
    n.regretStore->read_strategy(rows, tc, rc, def);
    printf("   ");
    for (int h = 0; h < std::min(rows[0].count, 8); h++) printf(" %.3f", rows[0].data[h]);
    printf("\n");
  }
}
static void run_lines(SolverTest* self, std::vector<std::string> lines, int simd, int iters) {
  GameSpec g = flop_game(); g.lines = lines;
  SimdLevel = simd;
  Tree& t = SolverTest::build(g);
  SolverTest::solve(t, iters);
  SolverResults r = SolverTest::evaluate(t);
  printf("simd %d lines %s...: ev0 %.4f mes0 %.4f mes1 %.4f expl %.4f\n", simd, lines.back().c_str(), r.ev0, r.mes0, r.mes1, r.exploitable);
}
TEST_F(SolverTest, DebugFlop3) {
  run_lines(this, {"0 0 0 0 0 0"}, 8, 100);
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 8, 200);
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 1, 200);
  run_lines(this, {"0 0 0 0 0 0", "0 0 50 50 50 50"}, 8, 200);
  run_lines(this, {"0 0 0 0 0 0", "50 50 50 50 50 50"}, 8, 200);
}
TEST_F(SolverTest, DebugFlop4) {
  AdaptivePrecision = false;
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 8, 200);
  AdaptivePrecision = true; Precision = 2;
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 8, 200);
  Precision = 0;
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 8, 20);
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 8, 60);
  run_lines(this, {"0 0 0 0 0 0", "0 0 0 0 50 50"}, 8, 1000);
}
TEST_F(SolverTest, DebugFlop5) {
  GameSpec g = flop_game(); g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50"};
  Tree& t = SolverTest::build(g);
  for (Node& n : t.nodes) {
    if (n.kind != NODE_DECISION || n.street != 3) continue;
    delete n.regretStore;
    n.regretStore = new FloatFlatStore(t.shapes->shape(3, int32_t(n.children.size())));
    n.regretStore->materialise();
  }
  for (int k : {20, 100, 400}) {
  SolverTest::solve(t, k - t.iteration);
  SolverResults r = SolverTest::evaluate(t);
  printf("float river regrets: it %d ev0 %.4f mes0 %.4f mes1 %.4f expl %.4f\n", t.iteration, r.ev0, r.mes0, r.mes1, r.exploitable);
  }
}
TEST_F(SolverTest, DebugFlop6) {
  GameSpec g = flop_game(); g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50"};
  Tree& t = SolverTest::build(g);
  RiverGroupIterations = -1;
  for (int k : {20, 100, 400}) {
  SolverTest::solve(t, k - t.iteration);
  SolverResults r = SolverTest::evaluate(t);
  printf("no groups: it %d ev0 %.4f mes0 %.4f mes1 %.4f expl %.4f\n", t.iteration, r.ev0, r.mes0, r.mes1, r.exploitable);
  }
}
static void dump_river(Tree& t, const char* tag) {
  for (size_t i = 0; i < t.nodes.size(); i++) {
    Node& n = t.nodes[i];
    if (n.kind != NODE_DECISION || n.street != 3 || n.children.size() != 2) continue;
    HandVector rows[2]; float def[2] = {0.5f, 0.5f};
    n.regretStore->read_strategy(rows, 3, 5, def);
    printf("%s node %zu p%d:", tag, i, n.player);
    for (int h = 0; h < rows[0].count; h++) printf(" %.2f", rows[0].data[h]);
    printf("\n");
    if (auto* w = dynamic_cast<Word16FlatStore*>(n.regretStore)) {
      const StoreCell& c = w->shape->cells[size_t(w->shape->cell_index(3, 5))];
      printf("   raw a0:"); for (int h = 0; h < c.length; h++) printf(" %u", w->values()[c.offset + h]);
      printf("\n   raw a1:"); for (int h = 0; h < c.length; h++) printf(" %u", w->values()[c.offset + align4(c.length) + h]);
      printf("\n   factor %g\n", w->cell_factors[size_t(w->shape->cell_index(3, 5))]);
    }
  }
}
TEST_F(SolverTest, DebugFlop7) {
  GameSpec g = flop_game(); g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50"};
  {
  Tree& t = SolverTest::build(g);
  SolverTest::solve(t, 100);
  dump_river(t, "w16");
  }
  Tree& t = SolverTest::build(g);
  for (Node& n : t.nodes) {
    if (n.kind != NODE_DECISION || n.street != 3) continue;
    delete n.regretStore;
    n.regretStore = new FloatFlatStore(t.shapes->shape(3, int32_t(n.children.size())));
    n.regretStore->materialise();
  }
  SolverTest::solve(t, 100);
  dump_river(t, "f32");
}
static std::vector<float> all_strats(Tree& t) {
  std::vector<float> out;
  for (size_t i = 0; i < t.nodes.size(); i++) {
    Node& n = t.nodes[i];
    if (n.kind != NODE_DECISION || n.street != 3 || n.children.size() != 2) continue;
    for (size_t tc = 0; tc < t.boards->children.size(); tc++)
      for (size_t rc = 0; rc < t.boards->children[tc].children.size(); rc++) {
        HandVector rows[2]; float def[2] = {0.5f, 0.5f};
        n.regretStore->read_strategy(rows, int(tc), int(rc), def);
        for (int h = 0; h < rows[0].count; h++) out.push_back(rows[0].data[h]);
        out.push_back(-1);
      }
  }
  return out;
}
TEST_F(SolverTest, DebugFlop8) {
  GameSpec g = flop_game(); g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50"};
  std::vector<float> a, b;
  {
  Tree& t = SolverTest::build(g);
  SolverTest::solve(t, 100);
  a = all_strats(t);
  }
  Tree& t = SolverTest::build(g);
  for (Node& n : t.nodes) {
    if (n.kind != NODE_DECISION || n.street != 3) continue;
    delete n.regretStore;
    n.regretStore = new FloatFlatStore(t.shapes->shape(3, int32_t(n.children.size())));
    n.regretStore->materialise();
  }
  SolverTest::solve(t, 100);
  b = all_strats(t);
  int cell = 0, bad = 0;
  for (size_t i = 0, start = 0; i < a.size(); i++) {
    if (a[i] < 0) { cell++; start = i + 1; continue; }
    if (std::fabs(a[i] - b[i]) > 0.3 && bad < 20) { printf("cell %d hand %zu: %.2f vs %.2f\n", cell, i - start, a[i], b[i]); bad++; }
  }
}
TEST_F(SolverTest, DebugW16) {
  StoreShape shape = make_store_shape(2, {{8}});
  Word16FlatStore w(&shape);
  ASSERT_TRUE(w.materialise());
  HandVector base, rows[2];
  base.resize(8, false); rows[0].resize(8, false); rows[1].resize(8, false);
  float ds[8] = {0.5f, 2, 10, 100, 1000, 5000, 20000, 100000};
  for (int i = 0; i < 8; i++) { base.data[i] = 0; rows[0].data[i] = ds[i]; rows[1].data[i] = -ds[i]; }
  RegretIteration = 1;
  w.update_regrets(0, 0, base, rows, nullptr, 1.25);
  for (int i = 0; i < 8; i++) printf("d %g -> %u %u\n", ds[i], w.values()[i], w.values()[8 + i]);
}
TEST_F(SolverTest, DebugFlop9) {
  GameSpec g = flop_game(); g.lines = {"0 0 0 0 0 0", "0 0 0 0 50 50"};
  Tree& t = SolverTest::build(g);
  auto* w = dynamic_cast<Word16FlatStore*>(t.nodes[4].regretStore);
  const StoreCell& c = w->shape->cells[0];
  for (int it = 0; it < 25; it++) {
    SolverTest::solve(t, 1);
    printf("it %d factor %g:", t.iteration, w->cell_factors[0]);
    for (int h = 10; h < 18; h++) printf(" %u/%u", w->values()[c.offset + h], w->values()[c.offset + align4(c.length) + h]);
    printf("\n");
  }
  const BoardRecord& r = t.boards->children[0].children[0];
  for (int h = 10; h < 18; h++) printf("%s ", mask_text(r.holes[h]).c_str());
  printf("\n");
}
TEST_F(SolverTest, DebugRiverW16) {
  GameSpec g;
  g.board = "KsQd7h4c2s";
  g.oop = {"KcKh", "KcKd", "KhKd", "6c5c", "6d5d", "6h5h"};
  g.ip = {"QcJc", "QhJh", "QsJs", "QhJc", "QsJd", "QcJh"};
  g.lines = {"100 100", "0 0"};
  Tree& t = build(g);
  for (Node& n : t.nodes) {
    if (n.kind != NODE_DECISION) continue;
    delete n.regretStore;
    n.regretStore = new Word16FlatStore(t.shapes->shape(3, int32_t(n.children.size())));
    n.regretStore->materialise();
  }
  for (int k : {10, 50, 100, 200, 500, 1000, 2000}) {
    solve(t, k - t.iteration);
    SolverResults r = evaluate(t);
    printf("w16 it %d ev0 %.5f ev1 %.5f mes0 %.5f mes1 %.5f expl %.5f\n", t.iteration, r.ev0, r.ev1, r.mes0, r.mes1, r.exploitable);
  }
}
TEST_F(SolverTest, DebugW16b) {
  StoreShape shape = make_store_shape(2, {{8}});
  Word16FlatStore w(&shape);
  ASSERT_TRUE(w.materialise());
  HandVector base, rows[2];
  base.resize(8, false); rows[0].resize(8, false); rows[1].resize(8, false);
  float ds[8] = {0.5f, 2, 10, 100, 1000, 5000, 20000, 100000};
  RegretIteration = 1;
  for (int i = 0; i < 8; i++) { base.data[i] = 0; rows[0].data[i] = 1000; rows[1].data[i] = 1000; }
  w.update_regrets(0, 0, base, rows, nullptr, 1.0);
  for (int i = 0; i < 8; i++) { base.data[i] = 0; rows[0].data[i] = -ds[i]; rows[1].data[i] = ds[i]; }
  w.update_regrets(0, 0, base, rows, nullptr, 1.0);
  for (int i = 0; i < 8; i++) printf("d %g -> %u %u\n", ds[i], w.values()[i], w.values()[8 + i]);
  HandVector out[2]; float def[2] = {0.9f, 0.1f};
  w.read_strategy(out, 0, 0, def);
  for (int i = 0; i < 8; i++) printf("s %.3f %.3f\n", out[0].data[i], out[1].data[i]);
}
struct TraceStore : Word16FlatStore {
  using Word16FlatStore::Word16FlatStore;
  void update_regrets(int32_t g, int32_t c, const HandVector& base, const HandVector* rows, const HandGroupRuns* gr, double scale) override {
    printf("upd RI %d scale %g factor %g n %d:", RegretIteration, scale, cell_factors[0], base.count);
    for (int i = 0; i < base.count; i++) printf(" [%g %g %g]", base.data ? base.data[i] : 0.f, rows[0].data ? rows[0].data[i] : 0.f, rows[1].data ? rows[1].data[i] : 0.f);
    printf("\n");
    Word16FlatStore::update_regrets(g, c, base, rows, gr, scale);
    printf("   ->");
    for (int i = 0; i < base.count; i++) printf(" %u/%u", values()[i], values()[align4(base.count) + i]);
    printf("\n");
  }
};
TEST_F(SolverTest, DebugRiverW16Trace) {
  GameSpec g;
  g.board = "KsQd7h4c2s";
  g.oop = {"KcKh", "6c5c"};
  g.ip = {"QcJc"};
  g.lines = {"100 100", "0 0"};
  Tree& t = build(g);
  Node& n = t.nodes[0];
  delete n.regretStore;
  n.regretStore = new TraceStore(t.shapes->shape(3, int32_t(n.children.size())));
  n.regretStore->materialise();
  solve(t, 12);
}
TEST_F(SolverTest, DebugW16c) {
  for (int n : {3, 5, 8, 13}) {
  StoreShape shape = make_store_shape(2, {{n}});
  Word16FlatStore w(&shape);
  ASSERT_TRUE(w.materialise());
  HandVector out[2]; float def[2] = {0.9f, 0.1f};
  w.read_strategy(out, 0, 0, def);
  printf("n %d:", n);
  for (int i = 0; i < n; i++) printf(" %.3f/%.3f", out[0].data[i], out[1].data[i]);
  printf("\n");
  }
}
