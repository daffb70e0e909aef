"""The app's set-up form: each field checked with the client's own readers, then the whole as a game.

The form is the TOML game of game.py as JSON, without the solving keys:

    {"board": "Qs Jh 2h", "pot": 100, "stack": 200,
     "ranges": {"oop": "TT+,AQ", "ip": "22+"},
     "tree": {"allin_threshold": 0.67,
              "flop": {"bet": "33%, 75%", "raise": "2.5x", "max_raises": 1, "donk": false,
                       "ip_bet": "50%", "ip_raise": "a"}, "turn": {...}, "river": {...}}}

A key the form doesn't know, or a value of the wrong type, is refused by name:
nothing of the form reaches the engine but what game.py and lines.py make of it.
"""
from __future__ import annotations

from typing import Any

from .cards import parse_cards
from .game import Game, GameError
from .lines import STREET_NAMES, RulesError, parse_sizes
from .ranges import parse_range

MAX_TEXT = 4000           # a range text of every class with its weight is some 2,000 characters
MAX_CHIPS = 10_000_000
STREET_KEYS = {"bet": str, "raise": str, "ip_bet": str, "ip_raise": str, "max_raises": int, "donk": (str, bool)}
SIZE_KEYS = ("bet", "raise", "ip_bet", "ip_raise", "donk")


class FormError(ValueError):
    def __init__(self, field: str, message: str):
        super().__init__(f"{field}: {message}")
        self.field = field
        self.message = message


def _is(value: Any, kind) -> bool:
    # JSON true is no number of chips: bool is an int to Python, so it is refused by name.
    if isinstance(value, bool):
        return kind is bool or (isinstance(kind, tuple) and bool in kind)
    return isinstance(value, kind)


def _streets(board_cards: int) -> tuple[str, ...]:
    return STREET_NAMES[max(0, board_cards - 3):]


def check_fields(form: Any) -> dict[str, str]:
    """Field name ("board", "ranges.oop", "tree.turn.bet", ...) to the reader's message, for
    every field that is wrong by itself; empty when each field reads."""
    if not isinstance(form, dict):
        return {"form": "a set-up is a JSON object"}
    errors: dict[str, str] = {}
    for key in form:
        if key not in ("board", "pot", "stack", "ranges", "tree"):
            errors[str(key)[:40]] = "unknown field"
    board = form.get("board")
    cards = 3
    if not _is(board, str) or len(board) > 40:
        errors["board"] = "3 to 5 cards such as Qs Jh 2h"
    else:
        try:
            got = parse_cards(board)
            if not 3 <= len(got) <= 5:
                raise ValueError(f"3 to 5 cards, not {len(got)}")
            cards = len(got)
        except ValueError as e:
            errors["board"] = str(e)
    for key in ("pot", "stack"):
        x = form.get(key)
        if not _is(x, int) or not 0 < x <= MAX_CHIPS:
            errors[key] = f"a whole number of chips from 1 to {MAX_CHIPS}"
    ranges = form.get("ranges")
    if not isinstance(ranges, dict) or set(ranges) != {"oop", "ip"}:
        errors["ranges"] = "both ranges, oop and ip"
    else:
        for who, text in ranges.items():
            if not _is(text, str) or len(text) > MAX_TEXT:
                errors[f"ranges.{who}"] = f"range notation of at most {MAX_TEXT} characters"
                continue
            try:
                weights = parse_range(text)
            except ValueError as e:
                errors[f"ranges.{who}"] = str(e)
                continue
            if not any(weights):
                errors[f"ranges.{who}"] = "the range is empty"
    tree = form.get("tree", {})
    if not isinstance(tree, dict):
        errors["tree"] = "bet sizes per street"
        return errors
    for key, value in tree.items():
        if key == "allin_threshold":
            if value is not None and (not _is(value, (int, float)) or not 0 < value <= 1):
                errors["tree.allin_threshold"] = "a share of the stack above 0 and at most 1"
        elif key == "max_raises":
            if not _is(value, int) or not 0 <= value <= 20:
                errors["tree.max_raises"] = "a whole number from 0 to 20"
        elif key in STREET_NAMES:
            if key not in _streets(cards):
                errors[f"tree.{key}"] = "this street is not played from this board"
                continue
            errors.update(_check_street(key, value))
        else:
            errors[f"tree.{str(key)[:40]}"] = "unknown field"
    return errors


def _check_street(name: str, rules: Any) -> dict[str, str]:
    if not isinstance(rules, dict):
        return {f"tree.{name}": "bet sizes of the street"}
    errors = {}
    for key, value in rules.items():
        field = f"tree.{name}.{str(key)[:40]}"
        if key not in STREET_KEYS:
            errors[field] = "unknown field"
        elif value is None and key in ("ip_bet", "ip_raise", "donk"):
            continue  # unset: the same as OOP's sizes, or for donk the street's bets
        elif not _is(value, STREET_KEYS[key]) or (isinstance(value, str) and len(value) > 200):
            errors[field] = "sizes such as 33%, 75%, a" if key != "max_raises" else "a whole number"
        elif key == "max_raises":
            if not 0 <= value <= 20:
                errors[field] = "a whole number from 0 to 20"
        elif key == "donk" and value is True:
            errors[field] = "sizes, or false for no lead"
        elif isinstance(value, str):
            try:
                parse_sizes(value)
            except RulesError as e:
                errors[field] = str(e)
    return errors


def _clean(form: dict) -> dict:
    """The form as game.py reads it: unset values (null) left out, as a TOML file would."""
    out = {k: v for k, v in form.items() if k != "tree"}
    tree = {}
    for key, value in form.get("tree", {}).items():
        if isinstance(value, dict):
            tree[key] = {k: v for k, v in value.items() if v is not None}
        elif value is not None:
            tree[key] = value
    out["tree"] = tree
    return out


def to_game(form: Any) -> Game:
    """The checked game of a form; FormError names the first wrong field."""
    errors = check_fields(form)
    if errors:
        field = next(iter(errors))
        raise FormError(field, errors[field])
    try:
        return Game.from_dict(_clean(form))
    except (GameError, RulesError, TypeError, ValueError) as e:
        # game.py names the field first ("tree.river: ...", "tree: river: ..."): keep that as the field.
        text = str(e)
        field, _, message = text.partition(": ")
        if not message or " " in field:
            raise FormError("form", text) from None
        street, _, rest = message.partition(": ")
        if field == "tree" and street in STREET_NAMES and rest:
            field, message = f"tree.{street}", rest
        raise FormError(field, message) from None


def check_form(form: Any) -> dict[str, str]:
    """Every field that is wrong by itself; when none is, what is wrong with the whole game."""
    errors = check_fields(form)
    if not errors:
        try:
            to_game(form)
        except FormError as e:
            errors[e.field] = e.message
    return errors


def game_form(game: Game) -> dict:
    """The form of a game read from TOML, to show in the page."""
    data = game.source
    tree = dict(data.get("tree", {}))
    form = {"board": game.board_text(), "pot": game.pot, "stack": game.stack,
            "ranges": {"oop": game.oop_range, "ip": game.ip_range}, "tree": tree}
    return form
