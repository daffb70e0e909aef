"""Bet-size rules to the engine's `add_line` lines.

The engine holds the betting as lines of levels: each number is what the acting
player has put in since the start of the game, a number equal to the level
is a check or call, and calls and folds to a bet come by themselves. Players
think in rules instead: "bet 33% and 75% of the pot, raise 2.5x, all-in". This
module expands such rules into the game tree and writes one line per showdown.

Sizes, one text per street and action (and, where IP's differ, per player),
separated by commas:

    33%     a share of the pot (for a raise: of the pot after calling)
    2.5x    raise to 2.5 times the bet faced on this street
    2e      the bet that, called on each of the next 2 streets, puts the stack in
    a       all-in

A bet or raise is rounded to whole chips (halves up), is at least `min_bet`
chips and a raise at least the last bet or raise, becomes all-in at or above
`allin_threshold` x stack when that is set, and never exceeds the stack; sizes
that come out the same are one action. After `max_raises` raises on a street
the player facing a bet can only call or fold. A donk bet is OOP's lead into
the player who bet or raised last on the previous street: with `donk` unset
OOP leads with the street's bet sizes, with an empty list OOP can only check
there, with a list of sizes OOP leads with those.
"""
from __future__ import annotations

import math
import re
from dataclasses import dataclass, field
from typing import Iterator, Sequence

STREET_NAMES = ("flop", "turn", "river")
# Number of card sequences that lead to a street, as the engine counts nodes.
STREET_MULTIPLICITY = {1: 1, 2: 49, 3: 2352}


class RulesError(ValueError):
    """Bet-size rules that can't be read or don't make a game."""


@dataclass(frozen=True)
class Size:
    kind: str  # "pot", "x", "geo" or "allin"
    value: float = 0.0

    def __str__(self) -> str:
        v = f"{self.value:g}"
        return {"pot": f"{float(self.value) * 100:g}%", "x": f"{v}x", "geo": f"{v}e", "allin": "a"}[self.kind]


_SIZE = re.compile(r"(\d+(?:\.\d*)?|\.\d+)\s*(%|x|e)")


def parse_sizes(text: str | Sequence[str] | None) -> tuple[Size, ...]:
    """"33%, 75%, a" (or a list of such texts) to sizes; RulesError names the bad one."""
    if text is None:
        return ()
    if not (isinstance(text, str) or isinstance(text, (list, tuple)) and all(isinstance(t, str) for t in text)):
        raise RulesError(f"sizes are a text such as \"33%, 75%, a\", not {text!r}")
    parts = [text] if isinstance(text, str) else list(text)
    sizes = []
    for part in parts:
        for token in re.split(r"[,\s]+", str(part).strip()):
            if not token:
                continue
            low = token.lower()
            if low in ("a", "allin", "all-in"):
                sizes.append(Size("allin"))
                continue
            m = _SIZE.fullmatch(low)
            if not m or float(m[1]) <= 0:
                raise RulesError(f"size {token!r} is none of 33% (pot), 2.5x (bet faced), 2e (geometric), a (all-in)")
            value = float(m[1])
            sizes.append(Size({"%": "pot", "x": "x", "e": "geo"}[m[2]], value / 100 if m[2] == "%" else value))
    return tuple(sizes)


@dataclass
class StreetRules:
    bet: tuple[Size, ...] = ()
    raises: tuple[Size, ...] = ()
    donk: tuple[Size, ...] | None = None
    max_raises: int = 1
    ip_bet: tuple[Size, ...] | None = None      # IP's own sizes; None: the same as OOP's
    ip_raises: tuple[Size, ...] | None = None

    @staticmethod
    def of(bet=None, raises=None, donk=None, max_raises: int = 1, ip_bet=None, ip_raises=None) -> "StreetRules":
        """From texts such as bet="33%, 75%", raises="2.5x, a"; donk=False means no lead;
        ip_bet and ip_raises, when given, are IP's sizes in place of bet and raises."""
        if donk is False:
            lead: tuple[Size, ...] | None = ()
        else:
            lead = None if donk is None or donk is True else parse_sizes(donk)
        return StreetRules(parse_sizes(bet), parse_sizes(raises), lead, int(max_raises),
                           None if ip_bet is None else parse_sizes(ip_bet),
                           None if ip_raises is None else parse_sizes(ip_raises))


@dataclass
class TreeRules:
    pot: float                       # the pot before the first action
    stack: float                     # effective stack, the largest level
    streets: list[StreetRules]       # one per street played, the first street first
    first_street: int = 1            # 1 flop, 2 turn, 3 river
    allin_threshold: float | None = None
    min_bet: float = 1.0

    def check(self) -> None:
        if self.first_street not in (1, 2, 3):
            raise RulesError("the first street is 1 (flop), 2 (turn) or 3 (river)")
        if len(self.streets) != 4 - self.first_street:
            raise RulesError(f"a game from the {STREET_NAMES[self.first_street - 1]} needs rules for "
                             f"{4 - self.first_street} streets, not {len(self.streets)}")
        if not (self.pot > 0 and self.stack > 0):
            raise RulesError("pot and stack must be above 0")
        if self.allin_threshold is not None and not 0 < self.allin_threshold <= 1:
            raise RulesError("allin_threshold is a share of the stack in 0..1")
        if self.min_bet < 0:
            raise RulesError("min_bet can't be negative")
        for name, st in zip(STREET_NAMES[self.first_street - 1:], self.streets):
            if st.max_raises < 0:
                raise RulesError(f"{name}: max_raises can't be negative")
            for size in st.bet + (st.donk or ()) + (st.ip_bet or ()):
                if size.kind == "x":
                    raise RulesError(f"{name}: '{size}' multiplies a bet faced; use it for raises")
            for size in st.raises + (st.ip_raises or ()):
                if size.kind == "geo":
                    raise RulesError(f"{name}: geometric size '{size}' is for bets")
                if size.kind == "x" and size.value <= 1:
                    raise RulesError(f"{name}: a raise to '{size}' of the bet faced is no raise; give more than 1x")


@dataclass
class BetNode:
    """A node of the expanded game: a decision, a showdown or a fold."""
    kind: str                  # "decision", "showdown", "fold"
    street: int                # absolute: 1 flop, 2 turn, 3 river
    player: int                # decision: who acts; terminal: -1
    level: float               # the level the action that led here reached (-1 at a fold)
    closes_street: bool = False
    children: list["BetNode"] = field(default_factory=list)


@dataclass
class NodeCount:
    """The figures of the engine's `node_count`: per street flop, turn, river."""
    ip_decisions: tuple[int, int, int]
    oop_decisions: tuple[int, int, int]
    splits: tuple[int, int, int]
    ends: tuple[int, int, int]
    root_street: int
    total: int


@dataclass
class _State:
    street: int
    player: int
    levels: tuple[float, float]
    base: float                # both players' level when the street began
    bets: int = 0              # bets and raises on this street
    checked: bool = False
    last_raise: float = 0.0
    aggressor: int = -1
    previous_aggressor: int = -1


def _chips(x: float) -> float:
    return float(math.floor(x + 0.5))


class _Builder:
    def __init__(self, rules: TreeRules):
        rules.check()
        self.r = rules

    def sizes_to_levels(self, st: _State, sizes: Sequence[Size], raising: bool) -> list[float]:
        r = self.r
        level = max(st.levels)
        pot = r.pot + 2 * level
        streets_left = 3 - st.street + 1
        least = level + max(r.min_bet, st.last_raise if raising else 0.0, 1.0)
        out = set()
        for size in sizes:
            if size.kind == "allin":
                to = r.stack
            elif size.kind == "pot":
                to = level + size.value * pot
            elif size.kind == "x":
                to = st.base + size.value * (level - st.base)
            else:
                n = max(1, min(int(size.value), streets_left))
                grow = ((pot + 2 * (r.stack - level)) / pot) ** (1.0 / n)
                to = level + (grow - 1) / 2 * pot
            to = max(_chips(to), least)
            if r.allin_threshold is not None and to >= r.allin_threshold * r.stack:
                to = r.stack
            out.add(min(to, r.stack))
        return sorted(out)

    def street_end(self, st: _State, level: float) -> BetNode:
        if st.street == 3 or level >= self.r.stack:
            return BetNode("showdown", st.street, -1, level, closes_street=True)
        nxt = _State(st.street + 1, 0, (level, level), level, previous_aggressor=st.aggressor)
        node = self.decision(nxt)
        node.level, node.closes_street = level, True
        return node

    def decision(self, st: _State) -> BetNode:
        p = st.player
        level = max(st.levels)
        rules = self.r.streets[st.street - self.r.first_street]
        node = BetNode("decision", st.street, p, level)
        facing = st.levels[p] < level
        if facing or st.checked:
            passive = self.street_end(st, level)
        else:
            passive = self.decision(_State(st.street, 1 - p, st.levels, st.base, st.bets, True,
                                           st.last_raise, st.aggressor, st.previous_aggressor))
        passive.level = level
        node.children.append(passive)
        bets = rules.bet if p == 0 or rules.ip_bet is None else rules.ip_bet
        raises = rules.raises if p == 0 or rules.ip_raises is None else rules.ip_raises
        if facing:
            sizes = raises if st.bets - 1 < rules.max_raises and level < self.r.stack else ()
        else:
            sizes = bets
            if p == 0 and st.previous_aggressor == 1 and rules.donk is not None:
                sizes = rules.donk
        for to in self.sizes_to_levels(st, sizes, facing) if level < self.r.stack else ():
            levels = (to, st.levels[1]) if p == 0 else (st.levels[0], to)
            child = self.decision(_State(st.street, 1 - p, levels, st.base, st.bets + 1, st.checked,
                                         to - level, p, st.previous_aggressor))
            child.children.append(BetNode("fold", st.street, -1, -1.0))
            node.children.append(child)
        return node


def build_tree(rules: TreeRules) -> BetNode:
    """The first decision of the game, with everything below it."""
    return _Builder(rules).decision(_State(rules.first_street, 0, (0.0, 0.0), 0.0))


def _number(x: float) -> str:
    return str(int(x)) if float(x).is_integer() else repr(float(x))


def lines(rules: TreeRules) -> list[str]:
    """The `add_line` commands of the game, one per showdown, checks and calls first."""
    out: list[str] = []

    def walk(node: BetNode, path: list[float]) -> None:
        for child in node.children:
            if child.kind == "fold":
                continue
            here = path + [child.level]
            if child.kind == "showdown":
                out.append("add_line " + " ".join(_number(x) for x in here))
            else:
                walk(child, here)

    walk(build_tree(rules), [])
    return out


def _walk(node: BetNode) -> Iterator[BetNode]:
    yield node
    for child in node.children:
        yield from _walk(child)


def summary(rules: TreeRules) -> dict[str, int]:
    """Decision nodes, showdowns and folds of the tree, each counted once."""
    kinds = [n.kind for n in _walk(build_tree(rules))]
    return {"decisions": kinds.count("decision"), "showdowns": kinds.count("showdown"),
            "folds": kinds.count("fold")}


def node_count(rules: TreeRules) -> NodeCount:
    """What the engine's `node_count` reports for these rules after `build_tree`.

    Every node counts once per card sequence that leads to its street; a split is
    an action that closes a street (the river's included), an end a node with no
    children; both count at the street of the node they leave."""
    dec = {0: [0, 0, 0], 1: [0, 0, 0]}
    split, end = [0, 0, 0], [0, 0, 0]
    for node in _walk(build_tree(rules)):
        if node.kind != "decision":
            continue
        s = node.street
        m = STREET_MULTIPLICITY[s]
        dec[node.player][s - 1] += m
        for child in node.children:
            if child.closes_street:
                split[s - 1] += m
            if not child.children:
                end[s - 1] += m
    total = sum(dec[0]) + sum(dec[1]) + sum(split) + sum(end) + 1
    return NodeCount(tuple(dec[1]), tuple(dec[0]), tuple(split), tuple(end), rules.first_street, total)
