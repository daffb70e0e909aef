// Runs a fatal path in a forked child and collects its exit status and what it
// wrote on standard output, where storage failures print their line.
#pragma once
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

struct ChildOutcome {
  bool exited = false;  // ended by exit, not by a signal
  int code = -1;
  std::string out;
};

template <typename Body>
ChildOutcome run_in_child(Body body) {
  fflush(stdout);
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);
    body();
    fflush(stdout);
    _exit(0);
  }
  close(fds[1]);
  ChildOutcome r;
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) r.out.append(buf, size_t(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  r.exited = WIFEXITED(status);
  r.code = r.exited ? WEXITSTATUS(status) : -1;
  return r;
}

// The body must end the process with exit code 1 after printing `line`.
template <typename Body>
void expect_fatal(Body body, const std::string& line) {
  ChildOutcome r = run_in_child(body);
  EXPECT_TRUE(r.exited) << line;
  EXPECT_EQ(r.code, 1) << line;
  EXPECT_EQ(r.out, line);
}
