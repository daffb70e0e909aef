"""A game described in TOML: board, pot, stack, ranges in notation, bet sizes.

    board = "Qs Jh 2h 7c 4d"
    pot = 100                 # chips in the pot before the first action
    stack = 400               # effective stack: the largest level of the game
    accuracy = 0.005          # stop at this exploitability, as a share of the pot
    seconds = 60              # optional time limit
    threads = 0               # optional; 0 or less: all cores

    [ranges]
    oop = "TT+,AK,AQs"
    ip = "22+,A2s+,KQ"

    [tree]                    # optional: allin_threshold, min_bet, max_raises
    allin_threshold = 0.67    # bets at or above 67% of the stack become all-in

    [tree.river]              # one table per street played: flop, turn, river
    bet = "33%, 75%"
    raise = "60%, a"
    max_raises = 1            # raises after the bet; the default comes from [tree]
    donk = "50%"              # optional: OOP's lead sizes into the last aggressor, false for none
    ip_bet = "50%"            # optional: IP's own bet sizes (ip_raise: its raises); else bet and raise
"""
from __future__ import annotations

import tomllib
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from .cards import card_text, parse_cards
from .lines import STREET_NAMES, RulesError, StreetRules, TreeRules, lines
from .ranges import parse_range


class GameError(ValueError):
    """A game file that can't be used; the message names the field."""


_TOP = {"board", "pot", "stack", "accuracy", "seconds", "steps", "threads", "ranges", "tree"}
_TREE = {"allin_threshold", "min_bet", "max_raises", *STREET_NAMES}
_STREET = {"bet", "raise", "max_raises", "donk", "ip_bet", "ip_raise"}


def _unknown(table: dict, known: set, where: str) -> None:
    extra = sorted(set(table) - known)
    if extra:
        raise GameError(f"{where}: unknown key {extra[0]!r} (known: {', '.join(sorted(known))})")


@dataclass
class Game:
    board: list[int]
    pot: int
    stack: int
    oop_range: str
    ip_range: str
    rules: TreeRules
    accuracy: float = 0.005
    seconds: int | None = None
    steps: int | None = None
    threads: int | None = None
    source: dict[str, Any] = field(default_factory=dict)

    @staticmethod
    def from_toml(path: str | Path) -> "Game":
        try:
            with open(path, "rb") as f:
                data = tomllib.load(f)
        except tomllib.TOMLDecodeError as e:
            raise GameError(f"{path}: {e}") from None
        return Game.from_dict(data)

    @staticmethod
    def from_dict(data: dict[str, Any]) -> "Game":
        _unknown(data, _TOP, "game")
        for key in ("board", "pot", "stack", "ranges"):
            if key not in data:
                raise GameError(f"game: {key!r} is missing")
        try:
            board = parse_cards(str(data["board"]))
        except ValueError as e:
            raise GameError(f"board: {e}") from None
        if not 3 <= len(board) <= 5:
            raise GameError(f"board: 3 to 5 cards, not {len(board)}")
        pot, stack = data["pot"], data["stack"]
        for name, x in (("pot", pot), ("stack", stack)):
            if not isinstance(x, int) or x <= 0:
                raise GameError(f"{name}: a whole number of chips above 0, not {x!r}")
        ranges = data["ranges"]
        if not isinstance(ranges, dict) or set(ranges) != {"oop", "ip"}:
            raise GameError("ranges: a table with the keys oop and ip")
        for who, text in ranges.items():
            try:
                parse_range(str(text))
            except ValueError as e:
                raise GameError(f"ranges.{who}: {e}") from None

        tree = data.get("tree", {})
        _unknown(tree, _TREE, "tree")
        first = len(board) - 2
        streets = []
        for name in STREET_NAMES[first - 1:]:
            st = tree.get(name, {})
            _unknown(st, _STREET, f"tree.{name}")
            try:
                streets.append(StreetRules.of(st.get("bet"), st.get("raise"), st.get("donk"),
                                              st.get("max_raises", tree.get("max_raises", 1)),
                                              st.get("ip_bet"), st.get("ip_raise")))
            except (RulesError, TypeError, ValueError) as e:
                raise GameError(f"tree.{name}: {e}") from None
        rules = TreeRules(pot, stack, streets, first, tree.get("allin_threshold"), tree.get("min_bet", 1))
        try:
            rules.check()
        except RulesError as e:
            raise GameError(f"tree: {e}") from None

        accuracy = data.get("accuracy", 0.005)
        if not isinstance(accuracy, (int, float)) or accuracy < 0:
            raise GameError(f"accuracy: a share of the pot of 0 or more, not {accuracy!r}")
        for key in ("seconds", "steps", "threads"):
            if key in data and not isinstance(data[key], int):
                raise GameError(f"{key}: a whole number, not {data[key]!r}")
        if "seconds" in data and "steps" in data:
            raise GameError("game: seconds or steps, not both")
        return Game(board, pot, stack, str(ranges["oop"]), str(ranges["ip"]), rules, float(accuracy),
                    data.get("seconds"), data.get("steps"), data.get("threads"), data)

    def board_text(self) -> str:
        return " ".join(card_text(c) for c in self.board)

    def lines(self) -> list[str]:
        return lines(self.rules)

    def script(self) -> list[str]:
        """The engine commands that set up and build this game."""
        out = [
            "set_range OOP " + " ".join(f"{w:g}" if w in (0.0, 1.0) else repr(w) for w in parse_range(self.oop_range)),
            "set_range IP " + " ".join(f"{w:g}" if w in (0.0, 1.0) else repr(w) for w in parse_range(self.ip_range)),
            f"set_board {self.board_text()}",
            f"set_pot 0 0 {self.pot}",
            *self.lines(),
            "build_tree",
        ]
        if self.threads is not None:
            out.append(f"set_threads {self.threads}")
        return out

    def set_up(self, solver) -> None:
        """Sends the game to a `Solver` and builds the tree."""
        solver.commands(self.script())
