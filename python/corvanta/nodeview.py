"""What the app and the reports show of one node, read from the engine.

A game comes in two forms: a TOML game, set up and solved here, or a stored
tree, which the engine loads. Either way everything shown afterwards comes
from the engine's queries (`show_node` for the board and the pot, the ranges
at "r:0"), so both forms go through the same code from then on.

The 13x13 grid is the usual one: pairs on the diagonal, suited hands above
it, off-suit hands below, aces first. A cell's numbers are its hands' numbers
weighted by the player's range at the node, over the hands that don't touch
the board.
"""
from __future__ import annotations

import math
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable

from .cards import HAND_CARDS, HAND_NAMES, RANKS, parse_cards
from .client import EngineDied, EngineError, EngineNotImplemented, EngineTimeout, Report, Solver
from .game import Game, GameError
from .paths import is_path, last_segment, steps
from .protocol import (NodeBlock, parse_categories, parse_category_names, parse_children, parse_line_freq, parse_node,
                       parse_probs)

PLAYERS = ("OOP", "IP")

FOLD_COLOR = "#5b8fd6"
CALL_COLOR = "#4fae5c"
# Bets and raises, smallest to largest; sizes beyond the list share its last colour.
BET_COLORS = ("#f2b45c", "#e8833a", "#d4502c", "#b02a2a", "#7d1818")
EMPTY_COLOR = "#3a3f47"


class ViewError(ValueError):
    """A request the app refuses: a bad path or player, or one the engine refuses."""


def check_path(path: str) -> str:
    if not is_path(path):
        raise ViewError(f"bad path {path[:60]!r}: expected a form like r:0:b50:c or r:0:c:c:Ah")
    return path


def check_player(player: str) -> str:
    if player not in PLAYERS:
        raise ViewError(f"bad player {player[:20]!r}: OOP or IP")
    return player


# -- the grid ---------------------------------------------------------------

def _cell_names() -> tuple[str, ...]:
    names = []
    for i in range(12, -1, -1):
        for j in range(12, -1, -1):
            if i == j:
                names.append(RANKS[i] * 2)
            elif j < i:
                names.append(RANKS[i] + RANKS[j] + "s")
            else:
                names.append(RANKS[j] + RANKS[i] + "o")
    return tuple(names)


CELLS = _cell_names()  # row by row from the top left: AA, AKs, AQs, ... 22


def hand_class(hand: int) -> str:
    a, b = HAND_CARDS[hand]
    hi, lo = max(a // 4, b // 4), min(a // 4, b // 4)
    if hi == lo:
        return RANKS[hi] * 2
    return RANKS[hi] + RANKS[lo] + ("s" if a % 4 == b % 4 else "o")


CELL_HANDS: dict[str, list[int]] = {c: [] for c in CELLS}
for _h in range(len(HAND_NAMES)):
    CELL_HANDS[hand_class(_h)].append(_h)


def action_label(segment: str, facing_bet: bool) -> str:
    if segment == "f":
        return "Fold"
    if segment == "c":
        return "Call" if facing_bet else "Check"
    return ("Raise to " if facing_bet else "Bet ") + segment[1:]


def order_actions(segments: list[str]) -> list[str]:
    """Fold, check or call, then bets from small to large: the order of the colours."""
    def key(s: str):
        return (0, 0.0) if s == "f" else (1, 0.0) if s == "c" else (2, float(s[1:]))
    return sorted(segments, key=key)


def action_colors(ordered: list[str]) -> dict[str, str]:
    out, bets = {}, 0
    for s in ordered:
        if s == "f":
            out[s] = FOLD_COLOR
        elif s == "c":
            out[s] = CALL_COLOR
        else:
            out[s] = BET_COLORS[min(bets, len(BET_COLORS) - 1)]
            bets += 1
    return out


def weighted_mix(hands: list[int], weights, rows: dict[str, tuple]) -> dict[str, float] | None:
    total = sum(weights[h] for h in hands)
    if total <= 0:
        return None
    return {a: sum(weights[h] * row[h] for h in hands) / total for a, row in rows.items()}


def range_average(values, matchups, weights, live: list[int]) -> float | None:
    """A per-hand value over the range at the node: each hand counts with its weight times its matchups."""
    num = den = 0.0
    for h in live:
        if weights[h] > 0 and math.isfinite(values[h]):
            num += weights[h] * matchups[h] * values[h]
            den += weights[h] * matchups[h]
    return num / den if den > 0 else None


def _finite(x: float) -> float | None:
    return x if math.isfinite(x) else None


# -- a game opened for viewing ----------------------------------------------

@dataclass
class Opened:
    name: str
    board: list[str]
    pot: float
    results: dict[str, Any] | None


def open_game(solver: Solver, path: str, progress: Callable[[Report], None] | None = None) -> Opened:
    """A TOML game is set up and solved; anything else is a stored tree for the engine to load."""
    p = Path(path)
    if not p.is_file():
        raise ViewError(f"{path}: no such file")
    results = None
    if p.suffix.lower() == ".toml":
        try:
            game = Game.from_toml(p)
        except (OSError, GameError) as e:
            raise ViewError(str(e)) from None
        game.set_up(solver)
        r = solver.solve(accuracy=game.accuracy, seconds=game.seconds, steps=game.steps, progress=progress)
        results = {**r.__dict__, "exploitability_share": r.exploitability / game.pot}
    else:
        full = str(p.resolve())
        # The engine reads double quotes as grouping: such a name can't be passed on safely.
        if any(ch in full for ch in '"\r\n'):
            raise ViewError(f"{path}: a tree file name can't hold quotes or line breaks")
        try:
            solver.command(f'load_tree "{full}"')
            r = solver.results()
        except EngineError as e:  # a damaged or foreign file: the engine's answer says which
            raise ViewError(f"{path}: not a tree file this engine can load ({e})") from None
    root = node_block(solver, "r:0")
    if results is None:
        results = {**r.__dict__, "exploitability_share": r.exploitability / root.pot if root.pot else None}
    return Opened(p.name, root.board, root.pot, results)


def node_block(solver: Solver, path: str) -> NodeBlock:
    return parse_node(solver.command(f"show_node {path}"))


def children(solver: Solver, path: str) -> list[NodeBlock]:
    return parse_children(solver.command(f"show_children {path}"))


# -- one node ---------------------------------------------------------------

def node_view(solver: Solver, path: str, player: str | None = None, values: bool = True) -> dict[str, Any]:
    """Everything the page and the reports show at a node; `player` picks the main grid's
    player (default: the one to act, OOP where nobody acts). Without `values` the EVs and
    equities are left out: on a flop tree each EV is a pass over the tree below the node."""
    check_path(path)
    if player is not None:
        check_player(player)
    try:
        return _node_view(solver, path, player, values)
    except _BROKEN:
        raise
    except EngineError as e:
        raise ViewError(f"the engine refused {path}: {e}") from None


# Failures of the engine itself, not refusals of a request: they must not pass for bad input.
_BROKEN = (EngineNotImplemented, EngineDied, EngineTimeout)


def _node_view(solver: Solver, path: str, player: str | None, values: bool = True) -> dict[str, Any]:
    node = node_block(solver, path)
    kind = node.kind
    acting = {"OOP_DEC": "OOP", "IP_DEC": "IP"}.get(kind)
    shown = player or acting or "OOP"
    board = node.board
    board_cards = set(parse_cards("".join(board)))
    live = [h for h in range(len(HAND_NAMES)) if not (set(HAND_CARDS[h]) & board_cards)]
    live_set = frozenset(live)

    kids = children(solver, path) if kind not in ("END_NODE",) else []
    out: dict[str, Any] = {"path": path, "steps": steps(path), "kind": kind, "board": board, "pot": node.pot,
                           "invested": node.invested, "acting": acting, "player": shown,
                           "actions": [], "cards": []}
    if kind == "SPLIT_NODE":
        # The end of the river is marked as a split too: no card comes there.
        if len(board) < 5:
            out["cards"] = [last_segment(k.path) for k in kids]
        kids = []
    facing = node.invested[0] != node.invested[1]
    segments = order_actions([last_segment(k.path) for k in kids]) if acting else []

    ranges = {p: solver.range(p, path).values for p in PLAYERS}
    sums = {p: sum(ranges[p][h] for h in live) for p in PLAYERS}
    weights = ranges[shown]

    rows: dict[str, tuple] = {}
    freqs: dict[str, float] = {}
    if acting and segments and sums[acting] > 0:
        freqs = parse_probs(solver.command(f"show_probs {path}")).actions
        if shown == acting:
            strategy = solver.strategy(path)
            rows = {a: strategy[a] for a in segments}
    colors = action_colors(segments)
    out["actions"] = [{"name": a, "label": action_label(a, facing), "color": colors[a],
                       "freq": freqs.get(a), "path": f"{path}:{a}"} for a in segments]

    # Per hand for the grid's player; over the range for both. The engine's own equity total
    # weighs every hand alike, so the range average is taken here for EV and equity both.
    ev, eq, summary_ev, summary_eq = {}, {}, {}, {}
    for p in PLAYERS if values else ():
        for query, per_hand, summary in ((solver.ev, ev, summary_ev), (solver.equity, eq, summary_eq)):
            try:
                got = query(p, path)
            except _BROKEN:
                raise
            except EngineError:
                summary[p] = None
                continue
            per_hand[p] = got.values
            summary[p] = range_average(got.values, got.matchups, ranges[p], live)
    try:
        line_freq = _finite(parse_line_freq(solver.command(f"calc_line_freq {path}")))
    except _BROKEN:
        raise
    except (EngineError, ValueError, IndexError):
        line_freq = None

    cells, combos = [], {}
    for c in CELLS:
        hands = [h for h in CELL_HANDS[c] if h in live_set]
        mix = weighted_mix(hands, weights, rows) if rows else None
        cells.append({"hand": c, "weight": _cell_weight(c, weights, live_set), "mix": mix})
        listed = []
        for h in hands:
            if weights[h] <= 0:
                continue
            listed.append({"hand": HAND_NAMES[h], "weight": weights[h],
                           "strategy": {a: rows[a][h] for a in rows} if rows else None,
                           "ev": _finite(ev[shown][h]) if shown in ev else None,
                           "eq": _finite(eq[shown][h]) if shown in eq else None})
        if listed:
            combos[c] = listed
    out["cells"] = cells
    out["combos"] = combos
    out["ranges"] = {p: [_cell_weight(c, ranges[p], live_set) for c in CELLS] for p in PLAYERS}
    out["summary"] = {"ev": summary_ev, "eq": summary_eq, "range_sums": sums, "line_freq": line_freq}
    out["classes"], out["draws"] = classes(solver, board, live, weights, rows)
    return out


def _cell_weight(cell: str, weights, live: frozenset) -> float:
    hands = [h for h in CELL_HANDS[cell] if h in live]
    return sum(weights[h] for h in hands) / len(hands) if hands else 0.0


_NAMES: dict[str, tuple[list[str], list[str]]] = {}


def classes(solver: Solver, board: list[str], live: list[int], weights, rows) -> tuple[list, list]:
    """Each hand class's share of the range and its action mix: made hands, then draws."""
    if "names" not in _NAMES:
        _NAMES["names"] = parse_category_names(solver.command("show_category_names"))
    made_names, draw_names = _NAMES["names"]
    made, draw = parse_categories(solver.command("show_categories " + " ".join(board)))
    total = sum(weights[h] for h in live)
    out = []
    for numbers, names, skip in ((made, made_names, None), (draw, draw_names, 0)):
        groups: dict[int, list[int]] = {}
        for h in live:
            if weights[h] > 0 and numbers[h] != skip and numbers[h] >= 0:
                groups.setdefault(numbers[h], []).append(h)
        table = []
        for n in sorted(groups, reverse=True):
            hands = groups[n]
            table.append({"name": names[n], "share": sum(weights[h] for h in hands) / total if total else 0.0,
                          "combos": len(hands), "mix": weighted_mix(hands, weights, rows) if rows else None})
        out.append(table)
    return out[0], out[1]
