// Entry point: processor test, options, start-up in its fixed order, then the
// -c commands, the script and standard input through process_line.
#include <tclap/CmdLine.h>
#include <xmmintrin.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cards/cards.h"
#include "platform/platform.h"
#include "shell/shell.h"
#include "solver/solver.h"

static const char* const VersionText = "1050";

static void run_input_line(std::string line) {
  MarkOutput = false;
  if (ShowComments && !line.empty() && (unsigned char)line[0] == 0xA7) {
    line.erase(0, 1);
    MarkOutput = true;
  }
  Tokens tokens = tokenize_line(line);
  if (!tokens.empty()) process_line(tokens);
  flush_output();
  fflush(stdout);
  MarkOutput = false;
}

// Lines end at LF, CR or CRLF; a CR is taken as the end at once so that an
// interactive CR-terminated line is not held back waiting for the next byte.
static void read_standard_input() {
  std::string line;
  bool after_cr = false;
  int c;
  while ((c = getchar()) != EOF) {
    if (c == '\n' && after_cr) {
      after_cr = false;
      continue;
    }
    after_cr = false;
    if (c == '\n' || c == '\r') {
      after_cr = c == '\r';
      if (!line.empty()) run_input_line(line);
      line.clear();
    } else {
      line += char(c);
    }
  }
  if (!line.empty()) run_input_line(line);
}

int main(int argc, char** argv) {
  // Denormals cost more than they are worth in regret arithmetic.
  _mm_setcsr(_mm_getcsr() | 0x8040);

  if (!cpu_has_avx()) {
    fprintf(stderr, "Corvanta: Error: AVX-compatible CPU is required.\n");
    return 1;
  }

  std::vector<std::string> script_commands;
  std::string script;
  try {
    TCLAP::CmdLine cmd("", ' ', VersionText);
    TCLAP::SwitchArg server("s", "server", "run as a server", cmd, false);
    TCLAP::ValueArg<int> port("p", "port", "server port (default 5251)", false, 5251, "port", cmd);
    TCLAP::SwitchArg exit_arg("e", "exit", "exit after client disconnects", cmd, false);
    TCLAP::SwitchArg verbose("v", "verbose", "show debug information", cmd, false);
    TCLAP::SwitchArg echo("o", "echo", "echo commands", cmd, false);
    TCLAP::SwitchArg color("r", "color", "color text", cmd, false);
    TCLAP::SwitchArg terminate("t", "terminateonerror", "terminate process on error", cmd, false);
    TCLAP::SwitchArg suppress("k", "suppressok", "suppress ok-messages", cmd, false);
    // Side information ("#" lines, the one-line report form): for benchmark
    // runners and controlling programs that want iteration counts.
    TCLAP::SwitchArg comments("m", "comments", "show side information", cmd, false);
    TCLAP::MultiArg<std::string> commands("c", "cmd", "execute command", false, "command", cmd);
    TCLAP::UnlabeledValueArg<std::string> filename("filename", "script to load", false, "", "script.txt", cmd);
    std::vector<std::string> args(argv, argv + argc);
    args[0] = "Corvanta";
    cmd.parse(args);
    if (verbose.getValue()) Verbosity = 1;
    EchoCommands = echo.getValue();
    ColorText = color.getValue();
    TerminateOnError = terminate.getValue();
    SuppressOk = suppress.getValue();
    ShowComments = comments.getValue();
    script_commands = commands.getValue();
    script = filename.getValue();
  } catch (TCLAP::ArgException& e) {
    fprintf(stderr, "error: %s for arg %s\n", e.error().c_str(), e.argId().c_str());
    return 1;
  }

  start_watcher();
  if (!build_rank_tables()) {
    fprintf(stdout, "ERROR: out of memory\n");
    return 1;
  }
  set_current_thread_priority(1);
  install_solver_hooks();
  libsubgame_init(0);
  ProcessStartTicks = wall_clock_ticks();

  if (ColorText) set_console_attribute(6);
  printf("Corvanta (nalvedrin) build %s (Feb 20 2020, 10:29:56) \n", VersionText);
  printf("Heads-up no-limit Hold'em solver from the flop on; 'help' lists the commands.\n");
  if (ColorText) set_console_attribute(7);
  if (Verbosity > 0) printf("[verbosity %d]\n", Verbosity);
  fflush(stdout);

  build_card_tables();

  for (const std::string& c : script_commands) {
    Tokens tokens = tokenize_line(c);
    if (!tokens.empty()) process_line(tokens);
  }
  if (!script_commands.empty()) {
    flush_output();
    fflush(stdout);
  }

  if (!script.empty()) {
    if (!is_regular_file(script)) {
      printf("ERROR: can't find file '%s'\n", script.c_str());
      fflush(stdout);
      stop_watcher();
      return 1;
    }
    run_input_line("load_script \"" + script + "\"");
  }

  read_standard_input();
  // As at `exit`: a solving thread that is still winding down (or running)
  // must not meet the static destructors of a returning main.
  normal_exit();
}
