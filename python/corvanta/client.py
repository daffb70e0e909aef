"""A typed client that runs the engine as a child process and speaks its protocol.

    with Solver() as s:
        s.set_range("OOP", "AA,KK,AKs")
        ...
        results = s.solve(accuracy=0.005, progress=print)

Every command is followed by `echo <marker>`, so the answer is exactly the lines
in front of the marker whatever the command prints (some answer nothing, some
one line, some end in "END"). The solver's report blocks arrive whenever they
are ready, also between a command and its marker; they are taken out of the
stream wherever they appear. The engine runs with `-m`, so that each report is
one "#SOLVER:" line followed by the iteration count.

Input is checked here before it is sent: a malformed line would get an error
from the engine too, but the caller's mistake is easier to read from Python.
An "ERROR: " answer raises EngineError with the engine's text; a child that
dies raises EngineDied with its exit code; no answer within the timeout kills
the child and raises EngineTimeout.
"""
from __future__ import annotations

import collections
import dataclasses
import math
import os
import queue
import re
import shutil
import subprocess
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator, Mapping, Sequence

from .cards import HAND_COUNT, HAND_NAMES, parse_cards, card_text
from .lines import NodeCount
from .ranges import parse_range

CAP_REASON = "iteration cap reached"  # the engine's hard ceiling on iterations
PLAYERS = {"oop": "OOP", "hero": "OOP", "0": "OOP", "ip": "IP", "villain": "IP", "1": "IP"}
_PATH = re.compile(r"r(:0(:[^\s:]+)*)?")


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


def _as_array(values):
    try:
        import numpy
        return numpy.asarray(values, dtype=float)
    except ImportError:
        return list(values)


@dataclass(frozen=True)
class HandValues:
    """1326 numbers in hand order; `matchups`, and for equities `total`, the range's equity."""
    values: tuple[float, ...]
    matchups: tuple[float, ...] | None = None
    total: float | None = None

    def by_hand(self) -> dict[str, float]:
        return dict(zip(HAND_NAMES, self.values))

    def array(self):
        """A numpy array when numpy is there, else a list."""
        return _as_array(self.values)


class Strategy(Mapping[str, tuple]):
    """Action name ("b75", "c", "f": the path segment) to 1326 probabilities in hand order."""

    def __init__(self, path: str, actions: Sequence[str], rows: Sequence[Sequence[float]]):
        self.path = path
        self.actions = tuple(actions)
        self.rows = {a: tuple(r) for a, r in zip(self.actions, rows)}

    def __getitem__(self, action: str) -> tuple:
        return self.rows[action]

    def __iter__(self):
        return iter(self.actions)

    def __len__(self) -> int:
        return len(self.actions)

    def hand(self, name: str) -> dict[str, float]:
        """The strategy of one hand, e.g. strategy.hand("AsKs")."""
        i = HAND_NAMES.index(_canonical_hand(name))
        return {a: self.rows[a][i] for a in self.actions}

    def by_hand(self, hands: Sequence[int] | None = None) -> dict[str, dict[str, float]]:
        picks = range(HAND_COUNT) if hands is None else hands
        return {HAND_NAMES[i]: {a: self.rows[a][i] for a in self.actions} for i in picks}


def _canonical_hand(name: str) -> str:
    cards = parse_cards(name)
    if len(cards) != 2:
        raise ValueError(f"a hand is two cards, not {name!r}")
    a, b = sorted(cards, reverse=True)
    return card_text(a) + card_text(b)


def default_binary() -> str:
    """$CORVANTA_BIN, else build/corvanta of the source tree, else corvanta on the PATH."""
    env = os.environ.get("CORVANTA_BIN")
    if env:
        return env
    built = Path(__file__).resolve().parents[2] / "build" / "corvanta"
    if built.exists():
        return str(built)
    return shutil.which("corvanta") or str(built)


def player_name(player: str | int) -> str:
    name = PLAYERS.get(str(player).lower())
    if name is None:
        raise ValueError(f"player {player!r} is none of OOP, IP, hero, villain, 0, 1")
    return name


def check_path(path: str) -> str:
    if not isinstance(path, str) or not _PATH.fullmatch(path):
        raise ValueError(f"node path {path!r} is not of the form r:0:b30:c")
    return path


def _number(x: float) -> str:
    x = float(x)
    if not math.isfinite(x):
        raise ValueError(f"{x!r} is not a finite number")
    return str(int(x)) if x.is_integer() else repr(x)


def _row(line: str, what: str) -> tuple[float, ...]:
    values = tuple(float(t) for t in line.split())
    if len(values) != HAND_COUNT:
        raise EngineError(f"{what}: expected {HAND_COUNT} values, got {len(values)}")
    return values


_REPORT_KEYS = ("running time", "EV OOP", "EV IP", "OOP's MES", "IP's MES", "Exploitable for")


def _report_values(fields: Sequence[str]) -> Report:
    found = {}
    for f in fields:
        key, _, value = f.partition(":")
        if key.strip() in _REPORT_KEYS:
            found[key.strip()] = float(value)
    return Report(*(found[k] for k in _REPORT_KEYS))


class Solver:
    """The engine as a child process behind a typed API. Use it as a context manager."""

    def __init__(self, binary: str | None = None, *, args: Sequence[str] = (), timeout: float = 120.0):
        self.binary = binary or default_binary()
        self.timeout = timeout
        self._lines: queue.Queue[str | None] = queue.Queue()
        self._stderr: collections.deque[str] = collections.deque(maxlen=20)
        self._marker = 0
        self._dead = False
        self._pending: Report | None = None
        self._reports: list[Report] = []
        self._fresh: collections.deque[Report] = collections.deque()
        self._stop_reason: str | None = None
        self._stop_sent = False
        self.iterations: int | None = None
        # The latest side lines ("#..." comments, "[...]" under -v), for callers that read
        # what the engine says beside its answers, such as the storage plan of a build.
        self.notes: collections.deque[str] = collections.deque(maxlen=64)
        try:
            self._proc = subprocess.Popen([self.binary, "-m", *args], stdin=subprocess.PIPE,
                                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                          text=True, bufsize=1, encoding="utf-8", errors="replace")
        except OSError as e:
            raise EngineDied(f"can't start {self.binary}: {e}", None) from e
        threading.Thread(target=self._pump, args=(self._proc.stdout, self._lines), daemon=True).start()
        threading.Thread(target=self._pump, args=(self._proc.stderr, self._stderr), daemon=True).start()
        self.banner = self.command("is_ready")[:-1]

    # -- process and stream -------------------------------------------------

    @staticmethod
    def _pump(stream, sink) -> None:
        for line in stream:
            (sink.put if isinstance(sink, queue.Queue) else sink.append)(line.rstrip("\r\n"))
        if isinstance(sink, queue.Queue):
            sink.put(None)

    @property
    def pid(self) -> int:
        return self._proc.pid

    def alive(self) -> bool:
        return not self._dead and self._proc.poll() is None

    def _died(self) -> EngineDied:
        self._dead = True
        try:
            code = self._proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            code = None
        tail = " | ".join(self._stderr)
        return EngineDied(f"the engine ended with exit code {code}" + (f": {tail}" if tail else ""), code)

    def _kill(self) -> None:
        self._dead = True
        if self._proc.poll() is None:
            self._proc.kill()
            self._proc.wait()

    def _write(self, text: str) -> None:
        if self._dead:
            raise EngineDied("the engine is no longer running", self._proc.returncode)
        try:
            self._proc.stdin.write(text)
            self._proc.stdin.flush()
        except (BrokenPipeError, OSError, ValueError):
            raise self._died() from None

    def _next_line(self, timeout: float | None) -> str | None:
        """The next line, None when `timeout` passed; a dead child raises."""
        try:
            line = self._lines.get(timeout=timeout)
        except queue.Empty:
            return None
        if line is None:
            self._lines.put(None)
            raise self._died()
        return line

    def _side_line(self, line: str) -> bool:
        """Takes report lines and other side information out of the answer stream."""
        if line == "SOLVER: started":
            return True
        if line.startswith("SOLVER: stopped ("):
            self._flush_pending()
            reason = line[len("SOLVER: stopped ("):].rstrip(")")
            # The engine says "requested" for a stop and for its iteration cap alike;
            # only this side knows whether it asked.
            self._stop_reason = reason if reason != "requested" or self._stop_sent else CAP_REASON
            return True
        if line.startswith("#SOLVER:"):
            self._flush_pending()
            self._pending = _report_values(line[len("#SOLVER:"):].split("\t"))
            return True
        if line == "SOLVER:":  # the block form, when comments are off
            block = []
            while (nxt := self._next_line(self.timeout)) not in (None, "END"):
                block.append(nxt)
            self._add_report(_report_values(block))
            return True
        if m := re.fullmatch(r"#(\d+) iterations", line):
            self.iterations = int(m[1])
            if self._pending:
                self._add_report(dataclasses.replace(self._pending, iteration=self.iterations))
                self._pending = None
            return True
        if line.startswith("#") or line.startswith("["):
            self.notes.append(line)
            return True
        return False

    def _add_report(self, report: Report) -> None:
        self._reports.append(report)
        self._fresh.append(report)

    def _flush_pending(self) -> None:
        if self._pending:
            self._add_report(self._pending)
            self._pending = None

    # -- commands -----------------------------------------------------------

    def commands(self, lines: Sequence[str], timeout: float | None = None) -> list[str]:
        """Sends lines as they are and returns all their answer lines; the first ERROR raises."""
        for line in lines:
            if "\n" in line or "\r" in line:
                raise ValueError("a command is one line")
        if any(line.split()[:1] == ["stop"] for line in lines):
            self._stop_sent = True
        self._marker += 1
        marker = f"corvanta-sync-{self._marker}"
        self._write("".join(f"{line}\n" for line in lines) + f"echo {marker}\n")
        deadline = time.monotonic() + (self.timeout if timeout is None else timeout)
        answer = []
        while True:
            line = self._next_line(max(0.0, deadline - time.monotonic()))
            if line is None:
                self._kill()
                raise EngineTimeout(f"no answer to {lines[-1] if lines else 'echo'!r} within "
                                    f"{self.timeout if timeout is None else timeout} s; the engine was stopped")
            if line == marker:
                break
            if not self._side_line(line):
                answer.append(line)
        for line in answer:
            if line.startswith("ERROR: "):
                text = line[len("ERROR: "):]
                raise (EngineNotImplemented if text.endswith("not implemented yet") else EngineError)(text)
        return answer

    def command(self, line: str, timeout: float | None = None) -> list[str]:
        """One protocol line, its answer lines (reports and "#" lines taken out)."""
        return self.commands([line], timeout)

    def close(self) -> None:
        """Ends the child: `exit`, and a kill if it doesn't go within five seconds."""
        if self._dead:
            return
        self._dead = True
        try:
            self._proc.stdin.write("exit\n")
            self._proc.stdin.close()
        except (OSError, ValueError):
            pass
        try:
            self._proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self._proc.kill()
            self._proc.wait()

    def __enter__(self) -> "Solver":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    # -- set-up -------------------------------------------------------------

    def hand_order(self) -> list[str]:
        return self.command("show_hand_order")[0].split()

    def set_range(self, player: str | int, weights: str | Sequence[float]) -> None:
        """Range notation ("AA,AKs:0.5") or 1326 weights in hand order."""
        if isinstance(weights, str):
            weights = parse_range(weights)
        if len(weights) != HAND_COUNT:
            raise ValueError(f"a range has {HAND_COUNT} weights, not {len(weights)}")
        self.command(f"set_range {player_name(player)} " + " ".join(_number(w) for w in weights))

    def set_board(self, cards: str | Sequence[str]) -> None:
        text = cards if isinstance(cards, str) else " ".join(cards)
        board = parse_cards(text)
        if not 3 <= len(board) <= 5:
            raise ValueError(f"a board has 3 to 5 cards, not {len(board)}")
        self.command("set_board " + " ".join(card_text(c) for c in board))

    def set_pot(self, pot: int, oop: int = 0, ip: int = 0) -> None:
        for x in (pot, oop, ip):
            if int(x) != x or x < 0:
                raise ValueError(f"pot amounts are whole chips of 0 or more, not {x!r}")
        self.command(f"set_pot {int(oop)} {int(ip)} {int(pot)}")

    def add_lines(self, lines: Sequence[str | Sequence[float]]) -> None:
        """Lines as "add_line 0 30 30" texts or as lists of levels."""
        out = []
        for line in lines:
            levels = line.split()[1:] if isinstance(line, str) else line
            if isinstance(line, str) and not line.startswith("add_line"):
                raise ValueError(f"not an add_line line: {line!r}")
            values = [float(v) for v in levels]
            if any(b < a for a, b in zip(values, values[1:])) or any(v < 0 for v in values):
                raise ValueError(f"levels of a line never fall: {line!r}")
            out.append("add_line " + " ".join(_number(v) for v in values))
        self.commands(out)

    def clear_lines(self) -> None:
        self.command("clear_lines")

    def build_tree(self, timeout: float | None = None) -> None:
        self.command("build_tree", timeout)

    def node_count(self) -> NodeCount:
        figures: dict[str, list[int]] = {}
        current = None
        total = 0
        for line in self.command("node_count"):
            key, _, value = line.partition(":") if ":" in line else line.partition(" ")
            if key in ("H_DEC", "V_DEC", "SPLIT", "END", "ROOT"):
                current = figures.setdefault(key, [])
            elif key == "TOTAL":
                total = int(value)
            elif key in ("FLOP", "TURN", "RIVER") and current is not None:
                current.append(int(value))
        return NodeCount(tuple(figures["H_DEC"]), tuple(figures["V_DEC"]), tuple(figures["SPLIT"]),
                         tuple(figures["END"]), figures["ROOT"].index(1) + 1, total)

    def set_threads(self, threads: int) -> None:
        self.command(f"set_threads {int(threads)}")

    def set_accuracy(self, value: float, fraction: bool = True) -> None:
        """Exploitability at which to stop: a share of the pot, or chips with fraction=False."""
        if not value >= 0:
            raise ValueError("accuracy is 0 or more")
        self.command(f"set_accuracy {_number(value)}" + (" fraction" if fraction else ""))

    # -- solving ------------------------------------------------------------

    def iter_solve(self, accuracy: float | None = None, seconds: int | None = None,
                   steps: int | None = None, timeout: float | None = None,
                   stop: threading.Event | None = None) -> Iterator[Report]:
        """Starts the solver and yields each evaluation as it arrives, up to the stop.

        Leaving the loop early stops the solver. `timeout` (seconds) stops it
        from here and raises EngineTimeout. Another thread stops the solve by
        setting `stop`, which is looked at twice a second."""
        if seconds is not None and steps is not None:
            raise ValueError("give seconds or steps, not both")
        if accuracy is not None:
            self.set_accuracy(accuracy)
        go = "go"
        if seconds is not None:
            go = f"go {int(seconds)} seconds"
        elif steps is not None:
            go = f"go {int(steps)} steps"
        self._reports, self._stop_reason, self._stop_sent = [], None, False
        self._fresh.clear()
        self.command(go)
        deadline = None if timeout is None else time.monotonic() + timeout
        try:
            while True:
                while self._fresh:
                    yield self._fresh.popleft()
                if self._stop_reason is not None:
                    return
                if stop is not None and stop.is_set():
                    self._stop_run()
                    continue
                wait = 0.5 if deadline is None else max(0.0, deadline - time.monotonic())
                line = self._next_line(wait)
                if line is None:
                    if deadline is not None and time.monotonic() >= deadline:
                        self._stop_run()
                        raise EngineTimeout(f"the solve took more than {timeout} s; stopped")
                    continue
                self._side_line(line)
        finally:
            if self._stop_reason is None and self.alive():
                self._stop_run()

    def _stop_run(self) -> None:
        self.command("stop")
        deadline = time.monotonic() + self.timeout
        while self._stop_reason is None:
            line = self._next_line(max(0.0, deadline - time.monotonic()))
            if line is None:
                self._kill()
                raise EngineTimeout("the solver didn't stop; the engine was stopped")
            self._side_line(line)

    def solve(self, accuracy: float | None = None, seconds: int | None = None, steps: int | None = None,
              progress: Callable[[Report], None] | None = None, timeout: float | None = None) -> Results:
        """Solves to `accuracy` (share of the pot), a time or a step limit; calls
        `progress` with each report; returns the results once the solver stopped."""
        for report in self.iter_solve(accuracy, seconds, steps, timeout):
            if progress:
                progress(report)
        return self.results()

    @property
    def reports(self) -> list[Report]:
        """The reports of the last solve."""
        return list(self._reports)

    def stop_reason(self) -> str | None:
        return self._stop_reason

    # -- queries ------------------------------------------------------------

    def results(self) -> Results:
        self.iterations = None
        lines = self.command("calc_results")
        values = {}
        for line in lines:
            key, _, value = line.partition(":")
            if key in _REPORT_KEYS:
                values[key] = float(value)
        return Results(*(values[k] for k in _REPORT_KEYS[1:]), iterations=self.iterations,
                       stop_reason=self._stop_reason)

    def children(self, path: str = "r:0") -> list[str]:
        """Action names at a node, in the engine's order: the last segment of each child's path."""
        lines = self.command(f"show_children {check_path(path)}")
        return [lines[i + 1].rsplit(":", 1)[1] for i, line in enumerate(lines) if line.startswith("child ")]

    def strategy(self, path: str = "r:0") -> Strategy:
        actions = self.children(path)
        rows = [_row(line, "show_strategy") for line in self.command(f"show_strategy {path}") if line != "END"]
        if len(rows) != len(actions):
            raise EngineError(f"show_strategy gave {len(rows)} rows for {len(actions)} actions")
        return Strategy(path, actions, rows)

    def range(self, player: str | int, path: str = "r:0") -> HandValues:
        lines = self.command(f"show_range {player_name(player)} {check_path(path)}")
        return HandValues(_row(lines[0], "show_range"))

    def ev(self, player: str | int, path: str = "r:0") -> HandValues:
        """EV per hand in chips (NaN where a hand meets nothing) and matchups."""
        lines = self.command(f"calc_ev {player_name(player)} {check_path(path)}")
        return HandValues(_row(lines[0], "calc_ev"), _row(lines[1], "calc_ev"))

    def equity(self, player: str | int, path: str | None = None) -> HandValues:
        """Showdown equity per hand against the other range (the game's ranges, or with a
        path the ranges at that node), and `total`: the equity of the player's whole range
        there, each hand counted by its weight times its matchups."""
        name = player_name(player)
        if path is None:
            lines = self.command(f"calc_eq {name}")
        else:
            lines = self.command(f"calc_eq_node {name} {check_path(path)}")
        values, matchups = _row(lines[0], "calc_eq"), _row(lines[1], "calc_eq")
        # The engine's own total line counts every hand that meets the other range alike,
        # whether the player holds it or not; the player's range at the node has to weigh in.
        weights = self.range(name, path or "r:0").values
        num = den = 0.0
        for w, eq, m in zip(weights, values, matchups):
            if w > 0 and m > 0 and math.isfinite(eq):
                num += w * m * eq
                den += w * m
        return HandValues(values, matchups, num / den if den > 0 else math.nan)
