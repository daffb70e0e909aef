// The solving thread: iterations until accuracy, a limit or a stop, with an
// evaluation every 25 iterations at most every 250 or 500 milliseconds.
#include <omp.h>

#include <chrono>
#include <thread>

#include "core/core.h"
#include "platform/platform.h"
#include "solver/kernels/kernels.h"
#include "solver/solver.h"
#include "storage/memory/counters.h"

int32_t ThreadCount = omp_get_max_threads();
double AccuracyTarget = 0;

void reset_solver_settings() {
  ThreadCount = omp_get_max_threads();
  AccuracyTarget = 0;
  SimdLevel = 8;
}

void reset_report_log() {
  std::lock_guard<std::mutex> lock(Run.report_lock);
  Run.reports.clear();
}

void libsubgame_init(int) {
  long sum = 0;
#pragma omp parallel for schedule(dynamic, 1) reduction(+ : sum)
  for (int i = 0; i < 1000; i++) sum += i;
  // Kept, so that the loop that starts the team is not optimised away.
  volatile long kept = sum;
  (void)kept;
}

bool solver_running() { return SolverRunning; }

bool tree_is_complete() { return ActiveTree && !(ActiveTree->flags & INCOMPLETE_TREE); }

void request_stop() {
  if (SolverRunning) SolverStopRequested = true;
}

void wait_for_end() {
  std::unique_lock<std::mutex> lock(Run.end_lock);
  // The predicate, not a bare signal: a run that ends as the wait begins is not missed.
  Run.end_signal.wait(lock, [] { return Run.threads_busy == 0; });
}

std::vector<SolverReport> copy_reports() {
  std::lock_guard<std::mutex> lock(Run.report_lock);
  return Run.reports;
}

static int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

static void print_storage_line(double seconds) {
  StorageThroughput rate = storage_throughput(seconds);
  solver_print("#storage %d MB/s read, %d MB/s write\n", rate.read_mb_per_s, rate.write_mb_per_s);
}

void print_report() {
  std::vector<SolverReport> list = copy_reports();
  if (int32_t(list.size()) <= Run.last_reported) return;
  Run.last_reported = int32_t(list.size());
  const SolverReport& r = list.back();
  double half = StartPot / 2;
  const char* format =
      ShowComments ? "#SOLVER:\trunning time: %.3f\tEV OOP: %.3f\tEV IP: %.3f\tOOP's MES: %.3f\tIP's MES: "
                     "%.3f\tExploitable for: %.3f\tEND\n"
                   : "SOLVER:\nrunning time: %.3f\nEV OOP: %.3f\nEV IP: %.3f\nOOP's MES: %.3f\nIP's MES: "
                     "%.3f\nExploitable for: %.3f\nEND\n";
  char block[1024];
  snprintf(block, sizeof block, format, r.seconds, half + r.ev0, half + r.ev1, half + r.mes0, half + r.mes1,
           r.exploitable);
  solver_print("%s", block);
  solver_print("#%d iterations\n", r.iteration);
  print_storage_line(r.seconds);
  solver_print("#terminal hands %lld in %.3f s\n", (long long)Run.iteration_hands, Run.iteration_seconds);
  if (Verbosity > 0)
    solver_print("[%d iterations | cpu time %.1fs | peak working set %d MB]\n", r.iteration, Run.cpu_seconds,
                 int(peak_resident_bytes() >> 20));
  fflush(stdout);
  std::this_thread::yield();
}

static void finish_run(const char* reason) {
  SolverStopRequested = false;
  SolverRunning = false;
  solver_print("SOLVER: stopped (%s)\n", reason);
  fflush(stdout);
  {
    std::lock_guard<std::mutex> lock(Run.end_lock);
    Run.threads_busy--;
  }
  Run.end_signal.notify_all();
}

static void solving_thread() {
  solver_print("SOLVER: started\n");
  fflush(stdout);
  Tree& tree = *ActiveTree;
  const int32_t first_iteration = tree.iteration;
  const double cpu_start = process_cpu_seconds();
  Run.cpu_seconds = 0;
  const int64_t t0 = now_ns();
  int64_t last_eval = t0;
  int64_t min_gap = 0;
  const char* reason = "requested";
  Run.iteration_seconds = 0;
  Run.iteration_hands = 0;

  while (!SolverStopRequested && tree.iteration < tree.params.max_iterations) {
    omp_set_num_threads(ThreadCount);
    int64_t hands_before = Run.terminal_hands.load(), step_start = now_ns();
    run_iteration(tree);
    Run.iteration_seconds += double(now_ns() - step_start) * 1e-9;
    Run.iteration_hands += Run.terminal_hands.load() - hands_before;
    const int32_t it = tree.iteration;

    bool due = it == 25 || (it > 25 && (it - 25) % ReportPeriod == 0);
    if (due) {
      int64_t t = now_ns();
      if ((t - last_eval) / 1000000 >= min_gap) {
        last_eval = t;
        min_gap = 4 * ReportPeriod > it ? 250 : 500;
        TraverseResult p0 = traverse(tree, 0, MODE_EVALUATE);
        TraverseResult p1 = traverse(tree, 1, MODE_EVALUATE);
        SolverReport r;
        r.iteration = it;
        r.seconds = double((t - t0) / 1000000) / 1000.0;
        r.ev0 = p0.ev;
        r.ev1 = p1.ev;
        r.mes0 = p0.mes;
        r.mes1 = p1.mes;
        r.exploitable = (r.mes0 + r.mes1 - r.ev0 - r.ev1) * 0.5;
        {
          std::lock_guard<std::mutex> lock(Run.report_lock);
          Run.reports.push_back(r);
        }
        Run.cpu_seconds = process_cpu_seconds() - cpu_start;
        print_report();
        if (AccuracyTarget >= r.exploitable) {
          reason = "required accuracy reached";
          break;
        }
      }
    }
    if (Run.limit_is_steps) {
      if (first_iteration + Run.limit <= it) {
        reason = "required number of steps done";
        break;
      }
    } else if (Run.limit > 0 && (now_ns() - t0) / 1000000000 >= Run.limit) {
      reason = "timeout reached";
      break;
    }
  }
  finish_run(reason);
}

bool start_solver(int32_t limit, bool limit_is_steps, void (*before_start)()) {
  if (SolverRunning || !tree_is_complete()) return false;
  Run.limit = limit;
  Run.limit_is_steps = limit_is_steps;
  reset_report_log();
  // Stores done before a failure stay allocated.
  if (!materialise_tree_stores(*ActiveTree)) return false;
  SolverStopRequested = false;
  SolverRunning = true;
  {
    std::lock_guard<std::mutex> lock(Run.end_lock);
    Run.threads_busy++;
  }
  if (before_start) before_start();
  std::thread(solving_thread).detach();
  return true;
}
