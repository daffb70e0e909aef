"""The engine's text protocol: the line stream to the child, the sync marker, the
report lines, and every answer form read into plain data. `client.Solver` is the
typed, blocking API on top; the tests play an engine from a script through the
same `Transport`.

Every command is followed by `echo <marker>`, so the answer is exactly the lines
in front of the marker whatever the command prints (some answer nothing, some
one line, some end in "END"). The solver's report blocks arrive whenever they
are ready, also between a command and its marker; they are taken out of the
stream wherever they appear. The engine runs with `-m`, so that each report is
one "#SOLVER:" line followed by the iteration count.

An "ERROR: " answer raises EngineError with the engine's text; a child that
dies raises EngineDied with its exit code; no answer within the timeout kills
the child and raises EngineTimeout.
"""
from __future__ import annotations

import collections
import dataclasses
import queue
import re
import subprocess
import threading
import time
from dataclasses import dataclass
from typing import Protocol, Sequence

from .cards import HAND_COUNT
from .lines import NodeCount

CAP_REASON = "iteration cap reached"  # the engine's hard ceiling on iterations
SYNC = "corvanta-sync-"
REPORT_KEYS = ("running time", "EV OOP", "EV IP", "OOP's MES", "IP's MES", "Exploitable for")


class EngineError(Exception):
    """The engine answered "ERROR: ..."; the message is the engine's text."""


class EngineNotImplemented(EngineError):
    """The engine has the command but doesn't carry it out yet."""


class EngineDied(EngineError):
    def __init__(self, message: str, returncode: int | None):
        super().__init__(message)
        self.returncode = returncode


class EngineTimeout(EngineError):
    pass


@dataclass(frozen=True)
class Report:
    """One evaluation of a running solve; values in chips, EVs include half the start pot."""
    seconds: float
    ev_oop: float
    ev_ip: float
    mes_oop: float
    mes_ip: float
    exploitability: float
    iteration: int | None = None


@dataclass(frozen=True)
class Results:
    ev_oop: float
    ev_ip: float
    mes_oop: float
    mes_ip: float
    exploitability: float
    iterations: int | None = None
    stop_reason: str | None = None


@dataclass
class NodeBlock:
    """The block `show_node` prints, and `show_children` once per child."""
    path: str
    kind: str
    board: list[str]
    invested: list[float]  # OOP's and IP's chips in the pot
    pot: float  # the start pot


@dataclass
class Probs:
    """`show_probs`: the two ranges' sums at a node and each action's share of the acting range."""
    oop: float
    ip: float
    actions: dict[str, float]


# -- answers into data --------------------------------------------------------

def check_answer(lines: list[str]) -> list[str]:
    """The lines, unless one is an error: the first raises with the engine's text."""
    for line in lines:
        if line.startswith("ERROR: "):
            text = line[len("ERROR: "):]
            raise (EngineNotImplemented if text.endswith("not implemented yet") else EngineError)(text)
    return lines


def parse_row(line: str, what: str) -> tuple[float, ...]:
    values = tuple(float(t) for t in line.split())
    if len(values) != HAND_COUNT:
        raise EngineError(f"{what}: expected {HAND_COUNT} values, got {len(values)}")
    return values


def parse_rows(lines: list[str], what: str) -> list[tuple[float, ...]]:
    """Rows of hand values up to "END"."""
    return [parse_row(line, what) for line in lines if line != "END"]


def parse_report(fields: Sequence[str]) -> Report:
    found = {}
    for f in fields:
        key, _, value = f.partition(":")
        if key.strip() in REPORT_KEYS:
            found[key.strip()] = float(value)
    return Report(*(found[k] for k in REPORT_KEYS))


def parse_results(lines: list[str]) -> Results:
    """`calc_results`; the caller knows the iterations and why the solver stopped."""
    values = {}
    for line in lines:
        key, _, value = line.partition(":")
        if key in REPORT_KEYS:
            values[key] = float(value)
    return Results(*(values[k] for k in REPORT_KEYS[1:]))


def parse_node(lines: list[str]) -> NodeBlock:
    invested = lines[3].split()
    return NodeBlock(lines[0], lines[1], lines[2].split(), [float(invested[0]), float(invested[1])],
                     float(invested[2]))


def parse_children(lines: list[str]) -> list[NodeBlock]:
    return [parse_node(lines[i + 1:i + 7]) for i, line in enumerate(lines) if line.startswith("child ")]


def parse_probs(lines: list[str]) -> Probs:
    """ "OOP 9 IP 4.5 b50 0.25 c 0.75": no actions where nobody acts or the range is empty."""
    t = lines[0].split()
    return Probs(float(t[1]), float(t[3]), {t[i]: float(t[i + 1]) for i in range(4, len(t) - 1, 2)})


def parse_line_freq(lines: list[str]) -> float:
    return float(lines[0])


def parse_node_count(lines: list[str]) -> NodeCount:
    figures: dict[str, list[int]] = {}
    current = None
    total = 0
    for line in lines:
        key, _, value = line.partition(":") if ":" in line else line.partition(" ")
        if key in ("H_DEC", "V_DEC", "SPLIT", "END", "ROOT"):
            current = figures.setdefault(key, [])
        elif key == "TOTAL":
            total = int(value)
        elif key in ("FLOP", "TURN", "RIVER") and current is not None:
            current.append(int(value))
    return NodeCount(tuple(figures["H_DEC"]), tuple(figures["V_DEC"]), tuple(figures["SPLIT"]),
                     tuple(figures["END"]), figures["ROOT"].index(1) + 1, total)


def parse_category_names(lines: list[str]) -> tuple[list[str], list[str]]:
    """The made-hand classes, then the draws, each by number."""
    return lines[0].split(), lines[1].split()


def parse_categories(lines: list[str]) -> tuple[list[int], list[int]]:
    """Each hand's made-hand class and draw, in hand order (-1: the hand touches the board)."""
    return [int(x) for x in lines[0].split()], [int(x) for x in lines[1].split()]


# -- the line stream ------------------------------------------------------------

class Transport(Protocol):
    """Lines to and from one engine: the child process, or a script in the tests.

    `read` gives the next line without its end, None when none came within
    `timeout`, and EOFError after the last; `write` raises OSError or ValueError
    once the engine is gone; `returncode` waits up to `wait` seconds for the exit
    (None: still running); `stderr` holds the last lines of the error stream;
    `close` asks the engine to exit and kills it if it doesn't within five seconds."""
    pid: int

    def write(self, text: str) -> None: ...
    def read(self, timeout: float | None) -> str | None: ...
    def returncode(self, wait: float) -> int | None: ...
    def stderr(self) -> list[str]: ...
    def kill(self) -> None: ...
    def close(self) -> None: ...


class ChildProcess:
    """The engine as a child process, its two streams read by threads of their own."""

    def __init__(self, argv: Sequence[str]):
        self._lines: queue.Queue[str | None] = queue.Queue()
        self._stderr: collections.deque[str] = collections.deque(maxlen=20)
        try:
            self.proc = subprocess.Popen(list(argv), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, text=True, bufsize=1, encoding="utf-8",
                                         errors="replace")
        except OSError as e:
            raise EngineDied(f"can't start {argv[0]}: {e}", None) from e
        self.pid = self.proc.pid
        threading.Thread(target=self._pump, args=(self.proc.stdout, self._lines.put, True), daemon=True).start()
        threading.Thread(target=self._pump, args=(self.proc.stderr, self._stderr.append, False), daemon=True).start()

    @staticmethod
    def _pump(stream, put, mark_end: bool) -> None:
        for line in stream:
            put(line.rstrip("\r\n"))
        if mark_end:
            put(None)

    def write(self, text: str) -> None:
        self.proc.stdin.write(text)
        self.proc.stdin.flush()

    def read(self, timeout: float | None) -> str | None:
        try:
            line = self._lines.get(timeout=timeout)
        except queue.Empty:
            return None
        if line is None:
            self._lines.put(None)  # the end stays the end for every later read
            raise EOFError
        return line

    def returncode(self, wait: float) -> int | None:
        try:
            return self.proc.wait(timeout=wait)
        except subprocess.TimeoutExpired:
            return None

    def stderr(self) -> list[str]:
        return list(self._stderr)

    def kill(self) -> None:
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()

    def close(self) -> None:
        try:
            self.proc.stdin.write("exit\n")
            self.proc.stdin.close()
        except (OSError, ValueError):
            pass
        if self.returncode(5) is None:
            self.kill()


class Connection:
    """One engine's conversation: commands sent with a marker, their answers gathered,
    and the report lines that come in between kept aside."""

    def __init__(self, transport: Transport, timeout: float):
        self.transport = transport
        self.timeout = timeout
        self.dead = False
        self.marker = 0
        self.pending: Report | None = None  # a report line waiting for its iteration count
        self.reports: list[Report] = []
        self.fresh: collections.deque[Report] = collections.deque()  # not yet handed out
        self.stop_reason: str | None = None
        self.stop_sent = False
        self.iterations: int | None = None
        # The latest side lines ("#..." comments, "[...]" under -v), for callers that read
        # what the engine says beside its answers, such as the storage plan of a build.
        self.notes: collections.deque[str] = collections.deque(maxlen=64)

    def alive(self) -> bool:
        return not self.dead and self.transport.returncode(0) is None

    def died(self) -> EngineDied:
        self.dead = True
        code = self.transport.returncode(5)
        tail = " | ".join(self.transport.stderr())
        return EngineDied(f"the engine ended with exit code {code}" + (f": {tail}" if tail else ""), code)

    def kill(self) -> None:
        self.dead = True
        self.transport.kill()

    def close(self) -> None:
        if not self.dead:
            self.dead = True
            self.transport.close()

    def write(self, text: str) -> None:
        if self.dead:
            raise EngineDied("the engine is no longer running", self.transport.returncode(0))
        try:
            self.transport.write(text)
        except (OSError, ValueError):
            raise self.died() from None

    def next_line(self, timeout: float | None) -> str | None:
        """The next line, None when `timeout` passed; a dead child raises."""
        try:
            return self.transport.read(timeout)
        except EOFError:
            raise self.died() from None

    def exchange(self, lines: Sequence[str], timeout: float | None = None) -> list[str]:
        """Sends lines as they are and returns all their answer lines; the first ERROR raises."""
        for line in lines:
            if "\n" in line or "\r" in line:
                raise ValueError("a command is one line")
        if any(line.split()[:1] == ["stop"] for line in lines):
            self.stop_sent = True
        self.marker += 1
        marker = f"{SYNC}{self.marker}"
        self.write("".join(f"{line}\n" for line in lines) + f"echo {marker}\n")
        limit = self.timeout if timeout is None else timeout
        deadline = time.monotonic() + limit
        answer = []
        while (line := self.next_line(max(0.0, deadline - time.monotonic()))) != marker:
            if line is None:
                self.kill()
                raise EngineTimeout(f"no answer to {lines[-1] if lines else 'echo'!r} within {limit} s; "
                                    "the engine was stopped")
            if not self.side_line(line):
                answer.append(line)
        return check_answer(answer)

    # -- a run of the solver ----------------------------------------------------

    def new_run(self) -> None:
        self.reports, self.stop_reason, self.stop_sent = [], None, False
        self.fresh.clear()

    def poll(self, timeout: float | None) -> bool:
        """Reads one line for its report or stop, if one comes within `timeout`."""
        line = self.next_line(timeout)
        if line is None:
            return False
        self.side_line(line)
        return True

    def stop_run(self) -> None:
        self.exchange(["stop"])
        deadline = time.monotonic() + self.timeout
        while self.stop_reason is None:
            if not self.poll(max(0.0, deadline - time.monotonic())):
                self.kill()
                raise EngineTimeout("the solver didn't stop; the engine was stopped")

    def side_line(self, line: str) -> bool:
        """Takes report lines and other side information out of the answer stream."""
        if line == "SOLVER: started":
            return True
        if line.startswith("SOLVER: stopped ("):
            self._flush_pending()
            reason = line[len("SOLVER: stopped ("):].rstrip(")")
            # The engine says "requested" for a stop and for its iteration cap alike;
            # only this side knows whether it asked.
            self.stop_reason = reason if reason != "requested" or self.stop_sent else CAP_REASON
            return True
        if line.startswith("#SOLVER:"):
            self._flush_pending()
            self.pending = parse_report(line[len("#SOLVER:"):].split("\t"))
            return True
        if line == "SOLVER:":  # the block form, when comments are off
            block = []
            while (nxt := self.next_line(self.timeout)) not in (None, "END"):
                block.append(nxt)
            self._add_report(parse_report(block))
            return True
        if m := re.fullmatch(r"#(\d+) iterations", line):
            self.iterations = int(m[1])
            if self.pending:
                self._add_report(dataclasses.replace(self.pending, iteration=self.iterations))
                self.pending = None
            return True
        if line.startswith("#") or line.startswith("["):
            self.notes.append(line)
            return True
        return False

    def _add_report(self, report: Report) -> None:
        self.reports.append(report)
        self.fresh.append(report)

    def _flush_pending(self) -> None:
        if self.pending:
            self._add_report(self.pending)
            self.pending = None
