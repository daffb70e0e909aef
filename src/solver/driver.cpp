// The solving thread: iterations until accuracy, a limit or a stop, with an
// evaluation every 25 iterations at most every 250 or 500 milliseconds.
#include <omp.h>

#include <chrono>
#include <condition_variable>
#include <thread>

#include "core/core.h"
#include "platform/platform.h"
#include "solver/solver.h"
#include "storage/memory/counters.h"

int32_t SolverLimit = 0;
bool LimitIsSteps = false;
std::vector<SolverReport> ReportLog;
std::mutex ReportLock;
int32_t LastReportedCount = 0;
double CpuSeconds = 0;
double IterationSeconds = 0;
int64_t IterationHands = 0;

static std::atomic<bool> WaitRequested{false};
static std::mutex EndMutex;
static std::condition_variable EndSignal;
// Solving threads not yet past their last line: a waiter wakes only when
// "SOLVER: stopped" is out, while `go` may start anew as soon as
// SolverRunning falls (so for a moment two threads may count here).
static int ThreadsBusy = 0;

static int InitArgument = 0;
static volatile long InitSum = 0;

void reset_report_log() {
  std::lock_guard<std::mutex> lock(ReportLock);
  ReportLog.clear();
}

void libsubgame_init(int n) {
  InitArgument = n;
  long sum = 0;
#pragma omp parallel for schedule(dynamic, 1) reduction(+ : sum)
  for (int i = 0; i < 1000; i++) sum += i;
  InitSum = sum;
}

bool solver_running() { return SolverRunning; }

bool tree_is_complete() { return ActiveTree && !(ActiveTree->flags & INCOMPLETE_TREE); }

void request_stop() {
  if (SolverRunning) SolverStopRequested = true;
}

void wait_for_end() {
  WaitRequested = true;
  std::unique_lock<std::mutex> lock(EndMutex);
  // The predicate, not a bare signal: a run that ends as the wait begins is not missed.
  EndSignal.wait(lock, [] { return ThreadsBusy == 0; });
  WaitRequested = false;
}

std::vector<SolverReport> copy_reports() {
  std::lock_guard<std::mutex> lock(ReportLock);
  return ReportLog;
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
  if (int32_t(list.size()) <= LastReportedCount) return;
  LastReportedCount = int32_t(list.size());
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
  solver_print("#terminal hands %lld in %.3f s\n", (long long)IterationHands, IterationSeconds);
  if (Verbosity > 0)
    solver_print("[%d iterations | cpu time %.1fs | peak working set %d MB]\n", r.iteration, CpuSeconds,
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
    std::lock_guard<std::mutex> lock(EndMutex);
    ThreadsBusy--;
  }
  EndSignal.notify_all();
}

static void solving_thread() {
  solver_print("SOLVER: started\n");
  fflush(stdout);
  Tree& tree = *ActiveTree;
  const int32_t first_iteration = tree.iteration;
  const double cpu_start = process_cpu_seconds();
  CpuSeconds = 0;
  const int64_t t0 = now_ns();
  int64_t last_eval = t0;
  int64_t min_gap = 0;
  const char* reason = "requested";
  IterationSeconds = 0;
  IterationHands = 0;

  while (!SolverStopRequested && tree.iteration < tree.params.max_iterations) {
    omp_set_num_threads(ThreadCount);
    int64_t hands_before = TerminalHandCount.load(), step_start = now_ns();
    run_iteration(tree);
    IterationSeconds += double(now_ns() - step_start) * 1e-9;
    IterationHands += TerminalHandCount.load() - hands_before;
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
          std::lock_guard<std::mutex> lock(ReportLock);
          ReportLog.push_back(r);
        }
        CpuSeconds = process_cpu_seconds() - cpu_start;
        print_report();
        if (AccuracyTarget >= r.exploitable) {
          reason = "required accuracy reached";
          break;
        }
      }
    }
    if (LimitIsSteps) {
      if (first_iteration + SolverLimit <= it) {
        reason = "required number of steps done";
        break;
      }
    } else if (SolverLimit > 0 && (now_ns() - t0) / 1000000000 >= SolverLimit) {
      reason = "timeout reached";
      break;
    }
  }
  finish_run(reason);
}

bool start_solver(int32_t limit, bool limit_is_steps, void (*before_start)()) {
  if (SolverRunning || !tree_is_complete()) return false;
  SolverLimit = limit;
  LimitIsSteps = limit_is_steps;
  reset_report_log();
  // Stores done before a failure stay allocated.
  if (!materialise_tree_stores(*ActiveTree)) return false;
  SolverStopRequested = false;
  SolverRunning = true;
  {
    std::lock_guard<std::mutex> lock(EndMutex);
    ThreadsBusy++;
  }
  if (before_start) before_start();
  std::thread(solving_thread).detach();
  return true;
}
