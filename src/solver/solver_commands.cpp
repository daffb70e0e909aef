// The commands of the solving thread: go, stop, wait_for_solver, calc_results.
#include <cstdio>

#include "core/core.h"
#include "solver/solver.h"
#include "storage/memory/counters.h"

void cmd_go(const Tokens& t) {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  if (SolverRunning) fail_command("Can't do that when solver is running");
  if (!tree_is_complete()) fail_command("incomplete tree");
  Run.last_reported = 0;
  int32_t limit = 0;
  bool steps = false;
  if (t.size() > 1) {
    if (t.size() < 3 || (t[2] != "seconds" && t[2] != "steps")) fail_argument(t[0]);
    limit = parse_int(t[1]);
    steps = t[2] == "steps";
  }
  if (Verbosity > 0) shell_print("[go %d threads]\n", ThreadCount);
  // The answer reaches the client before the thread's first line.
  static std::string word;
  word = t[0];
  auto answer = [] {
    if (!SuppressOk) shell_print("%s ok!\n", word.c_str());
    flush_output();
    fflush(stdout);
  };
  if (!start_solver(limit, steps, answer)) fail_command("out of memory");
}

void cmd_stop(const Tokens& t) {
  request_stop();
  print_ok(t);
}

void cmd_wait_for_solver(const Tokens&) { wait_for_end(); }

void cmd_calc_results(const Tokens&) {
  if (!TreePresent || !ActiveTree) fail_command("missing/incorrect tree");
  SolverResults r = results_now(*ActiveTree);
  double half = StartPot / 2;
  shell_print("EV OOP: %.3f\nEV IP: %.3f\nOOP's MES: %.3f\nIP's MES: %.3f\nExploitable for: %.3f\nEND\n",
              half + r.ev0, half + r.ev1, half + r.mes0, half + r.mes1, r.exploitable);
  shell_print("#%d iterations\n", ActiveTree->iteration);
  // The storage rates of the last report's run, as the results carry no time.
  std::vector<SolverReport> list = copy_reports();
  double seconds = list.empty() ? 0 : list.back().seconds;
  StorageThroughput rate = storage_throughput(seconds);
  shell_print("#storage %d MB/s read, %d MB/s write\n", rate.read_mb_per_s, rate.write_mb_per_s);
  shell_print("#terminal hands %lld in %.3f s\n", (long long)Run.iteration_hands, Run.iteration_seconds);
}
