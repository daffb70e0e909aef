"""What the app reads from a solved tree beyond the node view: EVs and equities at a
node, the report over the cards of a chance node, a node as CSV or JSON, and the rows
that lock a node's strategy.

EV and equity over a range are each hand's value weighted by its weight at the node
times its matchups, as in the node view.
"""
from __future__ import annotations

import csv
import io
import math
from typing import Any

from .cards import HAND_CARDS, HAND_COUNT, HAND_NAMES, parse_cards
from .client import EngineDied, EngineError, EngineNotImplemented, EngineTimeout, Solver
from .nodeview import (CELL_HANDS, PLAYERS, ViewError, check_path, check_player, children, node_block,
                       order_actions, range_average)


def _finite(x: float) -> float | None:
    return x if math.isfinite(x) else None


def live_hands(board: list[str]) -> list[int]:
    cards = set(parse_cards("".join(board)))
    return [h for h in range(HAND_COUNT) if not set(HAND_CARDS[h]) & cards]


def frequencies(solver: Solver, path: str) -> dict[str, float]:
    """Each action's share of the acting player's range at the node (`show_probs`)."""
    words = solver.command(f"show_probs {path}")[0].split()
    return {words[i]: float(words[i + 1]) for i in range(4, len(words) - 1, 2)}


def _maybe(query, player: str, path: str):
    """A per-hand query that the engine answers only at some nodes (no EV where a card
    comes): None there; a broken engine still raises."""
    try:
        return query(player, path)
    except (EngineDied, EngineTimeout, EngineNotImplemented):
        raise
    except EngineError:
        return None


def node_values(solver: Solver, path: str, player: str) -> dict[str, Any]:
    """Both players' EV and equity over their ranges at the node, and per hand of `player`."""
    check_path(path)
    check_player(player)
    live = live_hands(node_block(solver, path).board)
    out: dict[str, Any] = {"path": path, "player": player, "ev": {}, "eq": {}, "hands": {}}
    per_hand = {}
    for p in PLAYERS:
        weights = solver.range(p, path).values
        ev, eq = _maybe(solver.ev, p, path), _maybe(solver.equity, p, path)
        out["ev"][p] = range_average(ev.values, ev.matchups, weights, live) if ev else None
        out["eq"][p] = range_average(eq.values, eq.matchups, weights, live) if eq else None
        if p == player:
            per_hand = {HAND_NAMES[h]: [_finite(ev.values[h]) if ev else None, _finite(eq.values[h]) if eq else None]
                        for h in live if weights[h] > 0}
    out["hands"] = per_hand
    return out


def card_report(solver: Solver, path: str, values: bool = True) -> dict[str, Any]:
    """For each card that can come at a chance node: how often the game gets there
    (`calc_global_freq`), both players' equity and, with `values`, EV at the node after the
    card, and the action frequencies of the player who acts there."""
    check_path(path)
    node = node_block(solver, path)
    kids = children(solver, path) if node.kind == "SPLIT_NODE" else []
    if not kids or len(node.board) >= 5:
        raise ViewError(f"{path} is no node where a card comes")
    live_at = {}
    rows = []
    acting = None
    for kid in kids:
        card = kid.path.rsplit(":", 1)[1]
        p = kid.path
        board = tuple(kid.board)
        if board not in live_at:
            live_at[board] = live_hands(kid.board)
        live = live_at[board]
        who = {"OOP_DEC": "OOP", "IP_DEC": "IP"}.get(kid.kind)
        acting = acting or who
        row: dict[str, Any] = {"card": card, "path": p, "acting": who,
                               "freq": _finite(float(solver.command(f"calc_global_freq {p}")[0])),
                               "ev": {}, "eq": {}, "actions": frequencies(solver, p) if who else {}}
        for player in PLAYERS:
            weights = solver.range(player, p).values
            eq = solver.equity(player, p)
            row["eq"][player] = range_average(eq.values, eq.matchups, weights, live)
            if values:
                ev = solver.ev(player, p)
                row["ev"][player] = range_average(ev.values, ev.matchups, weights, live)
        rows.append(row)
    actions: list[str] = []
    for row in rows:
        actions += [a for a in row["actions"] if a not in actions]
    return {"path": path, "board": node.board, "acting": acting, "actions": order_actions(actions), "values": values,
            "cards": rows}


def node_table(solver: Solver, path: str, player: str | None = None) -> dict[str, Any]:
    """The hands of a player at a node: weight, strategy (for the player to act), EV, equity."""
    check_path(path)
    node = node_block(solver, path)
    acting = {"OOP_DEC": "OOP", "IP_DEC": "IP"}.get(node.kind)
    player = check_player(player) if player else acting or "OOP"
    live = live_hands(node.board)
    weights = solver.range(player, path).values
    strategy = solver.strategy(path) if acting == player else None
    ev, eq = _maybe(solver.ev, player, path), _maybe(solver.equity, player, path)
    hands = []
    for h in live:
        if weights[h] <= 0:
            continue
        hands.append({"hand": HAND_NAMES[h], "weight": weights[h],
                      "strategy": {a: strategy[a][h] for a in strategy} if strategy else {},
                      "ev": _finite(ev.values[h]) if ev else None, "equity": _finite(eq.values[h]) if eq else None})
    return {"path": path, "board": node.board, "player": player,
            "actions": list(strategy.actions) if strategy else [], "hands": hands}


def table_csv(table: dict[str, Any]) -> str:
    out = io.StringIO()
    w = csv.writer(out, lineterminator="\n")
    w.writerow(["hand", "weight", *table["actions"], "ev", "equity"])
    for row in table["hands"]:
        w.writerow([row["hand"], f"{row['weight']:.6g}", *(f"{row['strategy'][a]:.6g}" for a in table["actions"]),
                    "" if row["ev"] is None else f"{row['ev']:.6g}",
                    "" if row["equity"] is None else f"{row['equity']:.6g}"])
    return out.getvalue()


# -- locks ------------------------------------------------------------------

def check_mix(mix: Any, actions: list[str], where: str) -> dict[str, float]:
    """A strategy as {action: share}: every action of the node, shares of 0..1 that add up to 1."""
    if not isinstance(mix, dict) or set(mix) != set(actions):
        raise ViewError(f"{where}: a share for each action of the node: {', '.join(actions)}")
    out = {}
    for a in actions:
        x = mix[a]
        if isinstance(x, bool) or not isinstance(x, (int, float)) or not 0 <= x <= 1:
            raise ViewError(f"{where}: the share of {a} is a number from 0 to 1")
        out[a] = float(x)
    if abs(sum(out.values()) - 1) > 1e-6:
        raise ViewError(f"{where}: the shares add up to {sum(out.values()):.4g}, not 1")
    return out


def lock_rows(strategy, mixes: dict[int, dict[str, float]]) -> dict[str, list[float]]:
    """One row per action in hand order: the given mix for the chosen hands, the strategy
    that stands for the others (the engine reads the rows as regrets, so a row of shares
    shows as that strategy)."""
    rows = {a: list(strategy[a]) for a in strategy}
    for h, mix in mixes.items():
        for a in rows:
            rows[a][h] = mix[a]
    return rows


def chosen_hands(selection: Any, live: list[int], weights) -> dict[int, Any]:
    """{"all": mix} for the whole range, or {"cells": {"AKs": mix}} / {"hands": {"AsKs": mix}}:
    the hands in the range at the node that each mix is for."""
    if not isinstance(selection, dict) or len(selection) != 1:
        raise ViewError("lock: one of all, cells or hands")
    (kind, value), = selection.items()
    in_range = {h for h in live if weights[h] > 0}
    if kind == "all":
        return {h: value for h in sorted(in_range)}
    if kind not in ("cells", "hands") or not isinstance(value, dict) or not value or len(value) > HAND_COUNT:
        raise ViewError("lock: one of all, cells or hands")
    out = {}
    for name, mix in value.items():
        if kind == "cells":
            if name not in CELL_HANDS:
                raise ViewError(f"lock: {str(name)[:10]!r} is no cell of the grid")
            hands = [h for h in CELL_HANDS[name] if h in in_range]
        else:
            try:
                cards = parse_cards(str(name)[:10])
            except ValueError:
                cards = []
            if len(cards) != 2:
                raise ViewError(f"lock: {str(name)[:10]!r} is no hand")
            a, b = sorted(cards, reverse=True)
            hands = [h for h in in_range if HAND_CARDS[h] == (a, b)]
        if not hands:
            raise ViewError(f"lock: no hand of {name} is in the range here")
        out.update({h: mix for h in hands})
    return out


def row_text(values) -> str:
    return " ".join("0" if v == 0 else "1" if v == 1 else f"{float(v):.9g}" for v in values)
