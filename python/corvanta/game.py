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

import math
import tomllib
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from .cards import HAND_CARDS, HAND_COUNT, card_text, hand_touches, parse_cards
from .lines import STREET_NAMES, RulesError, StreetRules, TreeRules, lines
from .ranges import parse_range


class GameError(ValueError):
    """A game file that can't be used; the message names the field."""


_TOP = {"board", "pot", "stack", "accuracy", "seconds", "steps", "threads", "ranges", "tree"}
_TREE = {"allin_threshold", "min_bet", "max_raises", *STREET_NAMES}
_STREET = {"bet", "raise", "max_raises", "donk", "ip_bet", "ip_raise"}


_LIMIT = 2 ** 31  # the engine reads its numbers as signed 32-bit


def _whole(x: Any) -> bool:
    # TOML's true and false are ints to Python; a flag where a number belongs is a mistake.
    return isinstance(x, int) and not isinstance(x, bool)


def _number(x: Any) -> bool:
    return (_whole(x) or isinstance(x, float)) and math.isfinite(x)


def _shown(x: Any) -> str:
    return str(x).lower() if isinstance(x, bool) else repr(x)


def _can_meet(oop: list[float], ip: list[float], live: list[int]) -> bool:
    """Whether some hand of each range, off the board, shares no card with the other."""
    theirs = [HAND_CARDS[h] for h in live if ip[h] > 0]
    for h in live:
        if oop[h] > 0:
            a, b = HAND_CARDS[h]
            if any(a not in other and b not in other for other in theirs):
                return True
    return False


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
        except UnicodeDecodeError as e:
            raise GameError(f"{path}: not UTF-8 text (byte {e.start})") from None
        return Game.from_dict(data)

    @staticmethod
    def from_dict(data: dict[str, Any]) -> "Game":
        _unknown(data, _TOP, "game")
        for key in ("board", "pot", "stack", "ranges"):
            if key not in data:
                raise GameError(f"game: {key!r} is missing")
        if not isinstance(data["board"], str):
            raise GameError(f"board: cards in a text such as \"Qs Jh 2h\", not {_shown(data['board'])}")
        try:
            board = parse_cards(data["board"])
        except ValueError as e:
            raise GameError(f"board: {e}") from None
        if not 3 <= len(board) <= 5:
            raise GameError(f"board: 3 to 5 cards, not {len(board)}")
        pot, stack = data["pot"], data["stack"]
        for name, x in (("pot", pot), ("stack", stack)):
            if not _whole(x) or not 0 < x < _LIMIT:
                raise GameError(f"{name}: a whole number of chips above 0, not {_shown(x)}")
        ranges = data["ranges"]
        if not isinstance(ranges, dict) or set(ranges) != {"oop", "ip"}:
            raise GameError("ranges: a table with the keys oop and ip")
        live = [h for h in range(HAND_COUNT) if not hand_touches(h, board)]
        weights = {}
        for who, text in ranges.items():
            if not isinstance(text, str):
                raise GameError(f"ranges.{who}: range notation in a text such as \"TT+,AK\", not {_shown(text)}")
            try:
                weights[who] = parse_range(text)
            except ValueError as e:
                raise GameError(f"ranges.{who}: {e}") from None
            if not any(w > 0 for w in weights[who]):
                raise GameError(f"ranges.{who}: the range is empty")
            if not any(weights[who][h] > 0 for h in live):
                raise GameError(f"ranges.{who}: every hand of {text!r} holds a card of the board")
        if not _can_meet(weights["oop"], weights["ip"], live):
            raise GameError("ranges: no hand of oop's range can meet a hand of ip's")

        tree = data.get("tree", {})
        if not isinstance(tree, dict):
            raise GameError(f"tree: a table with one table per street, such as [tree.river], not {_shown(tree)}")
        _unknown(tree, _TREE, "tree")
        first = len(board) - 2
        played = STREET_NAMES[first - 1:]
        for name in STREET_NAMES[:first - 1]:
            if name in tree:
                raise GameError(f"tree.{name}: this game starts on the {played[0]}; give [tree.{played[0]}] instead")
        if not any(name in tree for name in played):
            raise GameError(f"tree: no street table: give the bet sizes in [tree.{played[0]}]"
                            + (f" or later ({', '.join(f'[tree.{n}]' for n in played[1:])})" if played[1:] else ""))
        default_raises = tree.get("max_raises", 1)
        if not _whole(default_raises) or default_raises < 0:
            raise GameError(f"tree.max_raises: a whole number of 0 or more, not {_shown(default_raises)}")
        streets = []
        for name in played:
            st = tree.get(name, {})
            if not isinstance(st, dict):
                raise GameError(f"tree.{name}: a table with bet, raise, max_raises and donk, not {_shown(st)}")
            _unknown(st, _STREET, f"tree.{name}")
            raises = st.get("max_raises", default_raises)
            if not _whole(raises) or raises < 0:
                raise GameError(f"tree.{name}.max_raises: a whole number of 0 or more, not {_shown(raises)}")
            try:
                streets.append(StreetRules.of(st.get("bet"), st.get("raise"), st.get("donk"), raises,
                                              st.get("ip_bet"), st.get("ip_raise")))
            except (RulesError, TypeError, ValueError) as e:
                raise GameError(f"tree.{name}: {e}") from None
        threshold, min_bet = tree.get("allin_threshold"), tree.get("min_bet", 1)
        if threshold is not None and not (_number(threshold) and 0 < threshold <= 1):
            raise GameError(f"tree.allin_threshold: a share of the stack above 0 and at most 1, not {_shown(threshold)}")
        if not (_number(min_bet) and 0 <= min_bet <= stack):
            raise GameError(f"tree.min_bet: chips from 0 to the stack, not {_shown(min_bet)}")
        rules = TreeRules(pot, stack, streets, first, threshold, min_bet)
        try:
            rules.check()
        except RulesError as e:
            raise GameError(f"tree: {e}") from None

        accuracy = data.get("accuracy", 0.005)
        if not (_number(accuracy) and accuracy >= 0):
            raise GameError(f"accuracy: a share of the pot of 0 or more, not {_shown(accuracy)}")
        for key in ("seconds", "steps"):
            if key in data and not (_whole(data[key]) and 0 < data[key] < _LIMIT):
                raise GameError(f"{key}: a whole number above 0, not {_shown(data[key])}")
        if "threads" in data and not (_whole(data["threads"]) and abs(data["threads"]) < _LIMIT):
            raise GameError(f"threads: a whole number (0 or less: all cores), not {_shown(data['threads'])}")
        if "seconds" in data and "steps" in data:
            raise GameError("game: seconds or steps, not both")
        return Game(board, pot, stack, ranges["oop"], ranges["ip"], rules, float(accuracy),
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
