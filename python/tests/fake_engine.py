#!/usr/bin/env python3
"""Engines without the engine.

Run as a program, it answers the query commands in their documented forms
(strategy b50 0.25, c 0.75), as a child process for the client. Imported,
`ScriptedEngine` is a transport that plays an engine from a script and checks
every command sent against it, for the protocol's unit tests.
"""
import collections
import sys
import time
from dataclasses import dataclass, field

LATER = "<the sync marker>"  # in an answer: what follows comes after the marker
SILENT = "<silence>"  # in an answer: the engine says nothing more, not even the marker


@dataclass
class Exit:
    """In an answer: the engine ends there, with this code and these last lines on its error stream."""
    code: int
    stderr: list = field(default_factory=list)


def row(value: str, count: int = 1326) -> str:
    return " ".join([value] * count)


class ScriptedEngine:
    """(command, answer lines) pairs in the order the commands must come."""
    pid = 4242

    def __init__(self, *script):
        self.script = collections.deque(script)
        self.sent = []
        self.out = collections.deque()
        self.later = []
        self.code = None
        self.errors = []
        self.silent = self.killed = False
        self.waited = 0.0

    def write(self, text):
        if self.code is not None:
            raise BrokenPipeError("the engine has ended")
        for line in text.splitlines():
            self.sent.append(line)
            if line.startswith("echo "):
                if not self.silent and self.code is None:
                    self.out.extend([line[5:], *self.later])
                self.later = []
                continue
            assert self.script, f"{line[:60]!r} sent after the end of the script"
            want, answer = self.script.popleft()
            assert line == want, f"sent {line[:60]!r}, the script expects {want[:60]!r}"
            sink = self.out
            for item in answer:
                if item == LATER:
                    sink = self.later
                elif item == SILENT:
                    self.silent = True
                elif isinstance(item, Exit):
                    self.code, self.errors = item.code, item.stderr
                else:
                    sink.append(item)

    def read(self, timeout):
        if self.out:
            return self.out.popleft()
        if self.code is not None:
            raise EOFError
        # A script that runs dry would have the reader wait for ever: fail the test instead.
        self.waited += max(0.05, 0.5 if timeout is None else timeout)
        assert self.waited < 10, "the reader waits for lines the script never gives"
        time.sleep(0 if timeout is None else timeout)
        return None

    def returncode(self, wait):
        return self.code

    def stderr(self):
        return list(self.errors)

    def kill(self):
        self.killed = True
        if self.code is None:
            self.code = -9

    def close(self):
        self.sent.append("exit")
        if self.code is None:
            self.code = 0


ANSWERS = {
    "show_children": ["child 0:", "r:0:b50", "IP_DEC", "2c 3d 4h 5s 6c", "50 0 100", "3 children", "flags: ",
                      "child 1:", "r:0:c", "IP_DEC", "2c 3d 4h 5s 6c", "0 0 100", "2 children", "flags: ", "END"],
    "show_strategy": [row("0.25"), row("0.75"), "END"],
    "show_range": [row("0.5")],
    "calc_ev": [row("nan"), row("0"), "END"],
    "calc_eq": [row("0.5"), row("12"), "END"],
    "calc_eq_node": [row("0.25"), row("3"), "0.375", "END"],
}
if __name__ == "__main__":
    for line in sys.stdin:
        word, *args = line.split()
        if word == "exit":
            break
        out = ANSWERS.get(word, [args[0] if word == "echo" else f"{word} ok!"])
        print("\n".join(out), flush=True)
