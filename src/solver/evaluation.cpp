// Exploitability: an evaluation pass per player gives the value of the
// strategies being evaluated and of a best response to them; the mean gain
// of the two best responses is what the solver reports and stops on.
#include "platform/platform.h"
#include "solver/walk.h"

ResultsCache& results_cache() { return Evaluation.cache; }

void forget_results_cache() {
  Evaluation.cache = ResultsCache();
  Evaluation.cache_tree = nullptr;
  Evaluation.records[0] = Evaluation.records[1] = RecordsStamp();
}

bool records_current(const Tree& t, int32_t player) {
  const RecordsStamp& r = Evaluation.records[player & 1];
  return r.tree == &t && r.iteration == t.iteration && r.generation == Evaluation.store_generation &&
         !(t.flags & INCOMPLETE_TREE);
}

// A fresh flat store is read before it is written (a strategy from regrets
// of zero, a sum added to), so each page's first touch maps the shared zero
// page and its first write copies it and flushes the TLB of every core. Pages
// asked for written, on every thread, cost one cheap fault each instead; on a
// large game that was a fifth of the first iterations.
void page_in_stores(Tree& tree, bool sums) {
  std::vector<PageBlock> blocks;
  for (Node& node : tree.nodes) add_flat_pages(sums ? node.strategyStore : node.regretStore, blocks);
  const int64_t n = int64_t(blocks.size());
#pragma omp parallel for schedule(dynamic, 1) num_threads(ThreadCount)
  for (int64_t i = 0; i < n; i++) populate_memory(blocks[size_t(i)].data, blocks[size_t(i)].bytes);
}

bool materialise_tree_stores(Tree& tree) {
  if (tree.stores_ready) return true;
  for (Node& node : tree.nodes) {
    if (!node.regretStore || node.stores_ready) continue;
    if (!node.regretStore->materialise()) return false;
    if (node.strategyStore && !node.strategyStore->materialise()) return false;
    node.stores_ready = true;
  }
  tree.stores_ready = true;
  page_in_stores(tree, false);
  // The sums are first written when averaging starts (run_iteration).
  if (averages_in_use(tree, WalkAverageFrom)) page_in_stores(tree, true);
  return true;
}

void refresh_results(Tree& tree) {
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  TraverseResult p0 = traverse(tree, 0, MODE_EVALUATE);
  TraverseResult p1 = traverse(tree, 1, MODE_EVALUATE);
  Evaluation.cache_tree = &tree;
  Evaluation.cache.ev[0] = p0.ev;
  Evaluation.cache.ev[1] = p1.ev;
  Evaluation.cache.mes[0] = p0.mes;
  Evaluation.cache.mes[1] = p1.mes;
  Evaluation.cache.mean_ev = (p0.ev + p1.ev) * 0.5;
  Evaluation.cache.exploitable = (p0.mes + p1.mes - p0.ev - p1.ev) * 0.5;
  Evaluation.cache.results_iteration = tree.iteration;
}

SolverResults results_now(Tree& tree) {
  std::lock_guard<std::recursive_mutex> guard(traversal_lock());
  // The stores, and a cache of this tree.
  materialise_tree_stores(tree);
  if (Evaluation.cache_tree != &tree) forget_results_cache();
  // Only a tree without its lower streets keeps its results: anything
  // else may have changed its stores (a strategy set by hand) at the same
  // iteration count.
  if (!(tree.flags & INCOMPLETE_TREE)) Evaluation.cache.results_iteration = -1;
  // A fresh evaluation when the cached one is of another iteration.
  if (Evaluation.cache.results_iteration != tree.iteration) refresh_results(tree);
  // The results, relative to the middle of the pot.
  SolverResults r;
  r.ev0 = Evaluation.cache.ev[0];
  r.ev1 = Evaluation.cache.ev[1];
  r.mes0 = Evaluation.cache.mes[0];
  r.mes1 = Evaluation.cache.mes[1];
  r.exploitable = Evaluation.cache.exploitable;
  r.iteration = tree.iteration;
  return r;
}
