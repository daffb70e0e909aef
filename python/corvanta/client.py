"""A typed client of the engine: the blocking API over `protocol`.

    with Solver() as s:
        s.set_range("OOP", "AA,KK,AKs")
        ...
        results = s.solve(accuracy=0.005, progress=print)

Input is checked here before it is sent: a malformed line would get an error
from the engine too, but the caller's mistake is easier to read from Python.
The line stream with its markers and reports, and the reading of each answer,
are the protocol layer's; its errors and plain results are named here as well.
"""
from __future__ import annotations

import dataclasses
import math
import os
import shutil
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator, Mapping, Sequence

from .cards import HAND_COUNT, HAND_NAMES, parse_cards, card_text
from .lines import NodeCount
from .paths import is_path, last_segment
from .protocol import (CAP_REASON, ChildProcess, Connection, EngineDied, EngineError, EngineNotImplemented,
                       EngineTimeout, Report, Results, Transport, parse_children, parse_node_count, parse_results,
                       parse_row, parse_rows)
from .ranges import parse_range

__all__ = ["CAP_REASON", "EngineDied", "EngineError", "EngineNotImplemented", "EngineTimeout", "HandValues",
           "Report", "Results", "Solver", "Strategy", "check_path", "default_binary", "player_name"]

PLAYERS = {"oop": "OOP", "hero": "OOP", "0": "OOP", "ip": "IP", "villain": "IP", "1": "IP"}


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
    if not is_path(path):
        raise ValueError(f"node path {path!r} is not of the form r:0:b30:c")
    return path


def _number(x: float) -> str:
    x = float(x)
    if not math.isfinite(x):
        raise ValueError(f"{x!r} is not a finite number")
    return str(int(x)) if x.is_integer() else repr(x)


class Solver:
    """The engine as a child process behind a typed API. Use it as a context manager.

    `transport` replaces the child process with another line stream (a script in the tests)."""

    def __init__(self, binary: str | None = None, *, args: Sequence[str] = (), timeout: float = 120.0,
                 transport: Transport | None = None):
        self.binary = binary or default_binary()
        self._conn = Connection(transport or ChildProcess([self.binary, "-m", *args]), timeout)
        self.banner = self.command("is_ready")[:-1]

    # -- process and stream -------------------------------------------------

    @property
    def timeout(self) -> float:
        return self._conn.timeout

    @timeout.setter
    def timeout(self, seconds: float) -> None:
        self._conn.timeout = seconds

    @property
    def iterations(self) -> int | None:
        """The iteration count the engine last reported."""
        return self._conn.iterations

    @property
    def pid(self) -> int:
        return self._conn.transport.pid

    @property
    def _proc(self):  # the child itself, for the tests that look at how it ended
        return self._conn.transport.proc

    @property
    def notes(self):
        """The latest side lines the engine printed beside its answers."""
        return self._conn.notes

    def alive(self) -> bool:
        return self._conn.alive()

    # -- commands -----------------------------------------------------------

    def commands(self, lines: Sequence[str], timeout: float | None = None) -> list[str]:
        """Sends lines as they are and returns all their answer lines; the first ERROR raises."""
        return self._conn.exchange(lines, timeout)

    def command(self, line: str, timeout: float | None = None) -> list[str]:
        """One protocol line, its answer lines (reports and "#" lines taken out)."""
        return self.commands([line], timeout)

    def close(self) -> None:
        """Ends the child: `exit`, and a kill if it doesn't go within five seconds."""
        self._conn.close()

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
        return parse_node_count(self.command("node_count"))

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
        conn = self._conn
        conn.new_run()
        self.command(go)
        deadline = None if timeout is None else time.monotonic() + timeout
        try:
            while True:
                while conn.fresh:
                    yield conn.fresh.popleft()
                if conn.stop_reason is not None:
                    return
                if stop is not None and stop.is_set():
                    conn.stop_run()
                    continue
                wait = 0.5 if deadline is None else max(0.0, deadline - time.monotonic())
                if not conn.poll(wait) and deadline is not None and time.monotonic() >= deadline:
                    conn.stop_run()
                    raise EngineTimeout(f"the solve took more than {timeout} s; stopped")
        finally:
            if conn.stop_reason is None and conn.alive():
                conn.stop_run()

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
        return list(self._conn.reports)

    def stop_reason(self) -> str | None:
        return self._conn.stop_reason

    # -- queries ------------------------------------------------------------

    def results(self) -> Results:
        self._conn.iterations = None
        results = parse_results(self.command("calc_results"))  # the iteration count comes with it
        return dataclasses.replace(results, iterations=self._conn.iterations, stop_reason=self._conn.stop_reason)

    def children(self, path: str = "r:0") -> list[str]:
        """Action names at a node, in the engine's order: the last segment of each child's path."""
        lines = self.command(f"show_children {check_path(path)}")
        return [last_segment(child.path) for child in parse_children(lines)]

    def strategy(self, path: str = "r:0") -> Strategy:
        actions = self.children(path)
        rows = parse_rows(self.command(f"show_strategy {path}"), "show_strategy")
        if len(rows) != len(actions):
            raise EngineError(f"show_strategy gave {len(rows)} rows for {len(actions)} actions")
        return Strategy(path, actions, rows)

    def range(self, player: str | int, path: str = "r:0") -> HandValues:
        lines = self.command(f"show_range {player_name(player)} {check_path(path)}")
        return HandValues(parse_row(lines[0], "show_range"))

    def ev(self, player: str | int, path: str = "r:0") -> HandValues:
        """EV per hand in chips (NaN where a hand meets nothing) and matchups."""
        lines = self.command(f"calc_ev {player_name(player)} {check_path(path)}")
        return HandValues(parse_row(lines[0], "calc_ev"), parse_row(lines[1], "calc_ev"))

    def equity(self, player: str | int, path: str | None = None) -> HandValues:
        """Showdown equity per hand against the other range (the game's ranges, or with a
        path the ranges at that node), and `total`: the equity of the player's whole range
        there, each hand counted by its weight times its matchups."""
        name = player_name(player)
        if path is None:
            lines = self.command(f"calc_eq {name}")
        else:
            lines = self.command(f"calc_eq_node {name} {check_path(path)}")
        values, matchups = parse_row(lines[0], "calc_eq"), parse_row(lines[1], "calc_eq")
        # The engine's own total line counts every hand that meets the other range alike,
        # whether the player holds it or not; the player's range at the node has to weigh in.
        weights = self.range(name, path or "r:0").values
        num = den = 0.0
        for w, eq, m in zip(weights, values, matchups):
            if w > 0 and m > 0 and math.isfinite(eq):
                num += w * m * eq
                den += w * m
        return HandValues(values, matchups, num / den if den > 0 else math.nan)
