// Cost of opening and closing the river groups of a real game: every group of
// every river store is decoded (open, then close without writing) and
// round-tripped (open, then close writing back), one thread, in walk order.
// The rows are those a solve left, so the figures follow the data the solver
// sees, escapes and all. Prints nanoseconds of the thread's processor time per
// value, which other processes on a busy machine disturb less than wall time.
//
//   bench_river_groups SCRIPT [rounds] [regrets|sums]
//
// SCRIPT is a command script run first, for example "load_tree game.tree" or a
// bench game followed by "set_compression 4" and a fixed number of steps.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "cards/cards.h"
#include "shell/shell.h"
#include "solver/solver.h"
#include "storage/arena.h"
#include "storage/store.h"
#include "tree/tree.h"

namespace {

double thread_seconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

struct Sequence {
  std::vector<RiverStoreRef> stores;
  int32_t groups = 0;
};

// One sequence per river entry node and list (regrets or sums of a player).
std::vector<Sequence> river_sequences(Tree& t, bool sums) {
  std::vector<Sequence> out;
  for (size_t i = 0; i < t.nodes.size(); i++) {
    Node& entry = t.nodes[i];
    if (entry.street != 3 || entry.kind != NODE_DECISION || !entry.parent || entry.parent->street == 3)
      continue;
    Sequence lists[2];
    // The entry's subtree is the run of nodes down to the next node that isn't
    // below it.
    for (size_t j = i; j < t.nodes.size(); j++) {
      Node& d = t.nodes[j];
      if (j > i) {
        const Node* up = d.parent;
        while (up && up != &entry) up = up->parent;
        if (!up) break;
      }
      if (d.kind != NODE_DECISION) continue;
      Store* s = sums ? d.strategyStore : d.regretStore;
      if (!s) continue;
      auto* shaped = dynamic_cast<ShapedStore*>(s);
      if (!shaped) continue;
      lists[d.player & 1].stores.push_back({s, d.player});
      lists[d.player & 1].groups = shaped->shape->group_count;
    }
    for (auto& l : lists)
      if (!l.stores.empty()) out.push_back(std::move(l));
  }
  return out;
}

// Blocks of the FSE channels of every entropy arena of the sequences: per
// channel, the blocks, bytes before and after coding.
void channel_census(const std::vector<Sequence>& seqs) {
  int64_t blocks[ChannelCount] = {}, source[ChannelCount] = {}, coded[ChannelCount] = {};
  for (const Sequence& s : seqs) {
    auto* first = dynamic_cast<PackedStore*>(s.stores[0].store);
    if (!first) return;
    for (Arena* a : first->arenas) {
      auto* e = dynamic_cast<EntropyArena*>(a);
      if (!e || !e->base) continue;
      const uint8_t* p = e->base;
      for (int c = 0; c < ChannelCount; c++) {
        const uint8_t* end = p + e->channel_size[c];
        // Channel 0 starts with the codec id.
        for (const uint8_t* q = p + (c == 0 ? 1 : 0); q + 8 <= end;) {
          uint32_t src, cod;
          memcpy(&src, q, 4);
          memcpy(&cod, q + 4, 4);
          blocks[c]++;
          source[c] += src;
          uint32_t payload = int32_t(cod) > 1 ? cod : cod == 1 ? 1 : src;
          coded[c] += 8 + payload;
          q += 8 + payload;
        }
        p = end;
      }
    }
  }
  for (int c = 0; c < ChannelCount; c++)
    if (blocks[c])
      printf("  channel %2d: %8lld blocks, %7.0f bytes a block, coded to %4.1f%%\n", c,
             static_cast<long long>(blocks[c]), double(source[c]) / double(blocks[c]),
             100.0 * double(coded[c]) / double(source[c] ? source[c] : 1));
}

void measure(Tree& t, bool sums, int rounds) {
  std::vector<Sequence> seqs = river_sequences(t, sums);
  int64_t values = 0;
  for (auto& s : seqs)
    for (int32_t g = 0; g < s.groups; g++) {
      int64_t sizes[2] = {0, 0};
      river_group_sizes(s.stores.data(), s.stores.size(), g, sizes);
      values += sizes[0] + sizes[1];
    }
  if (values == 0) return;
  double decode = 1e300, round_trip = 1e300;
  for (int r = 0; r < rounds; r++) {
    double a = thread_seconds();
    for (auto& s : seqs)
      for (int32_t g = 0; g < s.groups; g++) {
        open_river_group(s.stores.data(), s.stores.size(), g);
        close_river_group(s.stores.data(), s.stores.size(), g, false);
      }
    double b = thread_seconds();
    for (auto& s : seqs)
      for (int32_t g = 0; g < s.groups; g++) {
        open_river_group(s.stores.data(), s.stores.size(), g);
        close_river_group(s.stores.data(), s.stores.size(), g, true);
      }
    double c = thread_seconds();
    decode = std::min(decode, b - a);
    round_trip = std::min(round_trip, c - b);
  }
  if (getenv("CENSUS")) channel_census(seqs);
  printf("%-8s %6zu sequences %11lld values  decode %6.2f ns/value  encode %6.2f ns/value  (best of %d)\n",
         sums ? "sums" : "regrets", seqs.size(), static_cast<long long>(values), decode * 1e9 / double(values),
         (round_trip - decode) * 1e9 / double(values), rounds);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: bench_river_groups SCRIPT [rounds]\n");
    return 2;
  }
  int rounds = argc > 2 ? atoi(argv[2]) : 3;
  build_rank_tables();
  install_solver_hooks();
  libsubgame_init(0);
  build_card_tables();
  std::ifstream in(argv[1]);
  if (!in) {
    fprintf(stderr, "can't read %s\n", argv[1]);
    return 2;
  }
  std::string line;
  while (std::getline(in, line)) process_line(tokenize_line(line));
  flush_output();
  if (!ActiveTree) {
    fprintf(stderr, "the script built no tree\n");
    return 2;
  }
  const std::string only = argc > 3 ? argv[3] : "";
  if (only != "sums") measure(*ActiveTree, false, rounds);
  if (only != "regrets") measure(*ActiveTree, true, rounds);
  return 0;
}
