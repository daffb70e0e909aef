// Tokens of a line, the shell's own switches, the normal exit and the process watcher.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "analysis/analysis.h"
#include "platform/platform.h"
#include "shell/shell.h"
#include "solver/solver.h"
#include "tree/tree.h"

bool EchoCommands = false;
bool ColorText = false;
bool TerminateOnError = false;
std::string SkipLabel;
std::atomic<bool> BannedProcessRunning{false};
int64_t ProcessStartTicks = 0;

// ---- Exit -------------------------------------------------------------------

void normal_exit() {
  flush_output();
  fflush(stdout);
  stop_watcher();
  std::_Exit(0);
}


// ---- Process watcher ------------------------------------------------------

// Poker clients during whose run the shell refuses to work.
static const char* const BannedProcessNames[2] = {"PokerStars", "FullTiltPoker"};
static std::mutex BannedNameLock;
static std::string BannedProcessName;
static std::atomic<bool> WatcherStop{false};

bool banned_process_check(const std::vector<std::string>& names, std::string& found) {
  for (const std::string& name : names) {
    for (const char* banned : BannedProcessNames) {
      if (name.compare(0, strlen(banned), banned) == 0) {
        found = name;
        return true;
      }
    }
  }
  found.clear();
  return false;
}

std::string banned_process_name() {
  std::lock_guard<std::mutex> lock(BannedNameLock);
  return BannedProcessName;
}

void start_watcher() {
  WatcherStop = false;
  std::thread([] {
    set_current_thread_priority(-2);
    while (!WatcherStop) {
      std::string found;
      bool hit = banned_process_check(running_process_names(), found);
      {
        std::lock_guard<std::mutex> lock(BannedNameLock);
        BannedProcessName = found;  // the name goes before the flag
      }
      BannedProcessRunning = hit;
      for (int i = 0; i < 50 && !WatcherStop; i++) sleep_milliseconds(100);
    }
  }).detach();
}

void stop_watcher() { WatcherStop = true; }

// ---- Reset ------------------------------------------------------------------

void reset_game_state() {
  reset_core_state();
  reset_card_settings();
  reset_game_description();
  reset_store_settings();
  reset_solver_settings();
  reset_analysis_state();
  RakeFraction = RakeCap = 0;
  Scheduler = 1;
  AccuracyValue = 0;
  AccuracyIsFraction = false;
  SkipLabel.clear();
}
