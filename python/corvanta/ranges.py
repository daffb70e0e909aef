"""Range notation: text such as "AA,77+,AKs,KQo:0.5,AsKs" to 1326 weights and back.

Weights are in the engine's hand order (`corvanta.cards.HAND_NAMES`, the order of
`show_hand_order`). Items are separated by commas and later items overwrite
earlier ones, so "AK,AsKs:0" is every ace-king but one. Forms, case and blanks
forgiven:

    AA  77+  TT-66                  pairs, pairs up to aces, a run of pairs
    AKs AKo AK                      suited, offsuit, both
    A2s+  K9o-K6o  AT+  KT-K7       kicker runs (up to one below the high card)
    AsKs  Td9d                      one combination
    item:0.5                        a weight in 0..1 for the item before it

`range_text` writes the shortest text this notation allows that gives the same
weights back exactly.
"""
from __future__ import annotations

import math
import re
from collections import Counter
from typing import Iterable, Sequence

from .cards import HAND_CARDS, HAND_COUNT, HAND_NAMES, RANKS, SUITS, hand_index


class RangeError(ValueError):
    """A range text that can't be read; the message names the token and where it is."""


def _shape_of(hand: int) -> tuple[int, int, str]:
    a, b = HAND_CARDS[hand]
    hi, lo = a // 4, b // 4
    if hi == lo:
        return hi, lo, "p"
    return hi, lo, "s" if a % 4 == b % 4 else "o"


SHAPE_HANDS: dict[tuple[int, int, str], list[int]] = {}
for _h in range(HAND_COUNT):
    SHAPE_HANDS.setdefault(_shape_of(_h), []).append(_h)

_R = "[2-9TJQKA]"
_COMBO = re.compile(f"({_R})([CDHS])({_R})([CDHS])")
_PAIR = re.compile(f"({_R})\\1(\\+)?")
_PAIR_RUN = re.compile(f"({_R})\\1-({_R})\\2")
_SHAPE = re.compile(f"({_R})({_R})([SO]?)(\\+)?")
_SHAPE_RUN = re.compile(f"({_R})({_R})([SO]?)-({_R})({_R})([SO]?)")


def _kinds(suffix: str) -> str:
    return {"S": "s", "O": "o", "": "so"}[suffix]


def _shape_hands(hi: int, lo: int, kinds: str) -> list[int]:
    if hi == lo:
        return SHAPE_HANDS[(hi, lo, "p")]
    hi, lo = max(hi, lo), min(hi, lo)
    return [h for k in kinds for h in SHAPE_HANDS[(hi, lo, k)]]


def _item_hands(body: str) -> list[int] | str:
    """The hands an item names, or the reason it names none."""
    up = body.upper()
    rank = RANKS.index
    if m := _COMBO.fullmatch(up):
        a = rank(m[1]) * 4 + SUITS.index(m[2].lower())
        b = rank(m[3]) * 4 + SUITS.index(m[4].lower())
        if a == b:
            return "card twice in combo"
        return [hand_index(a, b)]
    if m := _PAIR.fullmatch(up):
        r = rank(m[1])
        top = 12 if m[2] else r
        return [h for x in range(r, top + 1) for h in _shape_hands(x, x, "p")]
    if m := _PAIR_RUN.fullmatch(up):
        lo, hi = sorted((rank(m[1]), rank(m[2])))
        return [h for x in range(lo, hi + 1) for h in _shape_hands(x, x, "p")]
    if (m := _SHAPE.fullmatch(up)) and m[1] != m[2]:
        hi, lo = sorted((rank(m[1]), rank(m[2])), reverse=True)
        top = hi - 1 if m[4] else lo
        return [h for k in range(lo, top + 1) for h in _shape_hands(hi, k, _kinds(m[3]))]
    if m := _SHAPE_RUN.fullmatch(up):
        first = sorted((rank(m[1]), rank(m[2])), reverse=True)
        last = sorted((rank(m[4]), rank(m[5])), reverse=True)
        if first[0] == first[1] or last[0] == last[1]:
            return "unknown token"
        if first[0] != last[0] or m[3] != m[6]:
            return "run with different high cards or suits"
        lo, top = sorted((first[1], last[1]))
        return [h for k in range(lo, top + 1) for h in _shape_hands(first[0], k, _kinds(m[3]))]
    return "unknown token"


def parse_range(text: str) -> list[float]:
    """1326 weights in hand order from range notation; RangeError on bad input."""
    weights = [0.0] * HAND_COUNT
    pos = 0
    for number, raw in enumerate(text.split(","), 1):
        start = pos + (len(raw) - len(raw.lstrip()))
        pos += len(raw) + 1
        item = "".join(raw.split())
        if not item:
            continue
        where = f"{item!r} at position {start + 1} (item {number})"
        body, colon, wtext = item.partition(":")
        weight = 1.0
        if colon:
            try:
                weight = float(wtext)
            except ValueError:
                weight = math.nan
            if not 0.0 <= weight <= 1.0:
                raise RangeError(f"bad weight {wtext!r} in {where}: weights lie in 0..1")
        hands = _item_hands(body)
        if isinstance(hands, str):
            raise RangeError(f"{hands} {where}")
        for h in hands:
            weights[h] = weight
    return weights


def _weight_suffix(w: float) -> str:
    if w == 1.0:
        return ""
    text = repr(float(w))
    return ":" + (text[:-2] if text.endswith(".0") else text)


def _runs(values: Iterable[int]) -> list[tuple[int, int]]:
    """Maximal runs of consecutive numbers as (top, bottom), highest first."""
    runs: list[tuple[int, int]] = []
    for v in sorted(values, reverse=True):
        if runs and runs[-1][1] == v + 1:
            runs[-1] = (runs[-1][0], v)
        else:
            runs.append((v, v))
    return runs


def _pair_items(ranks: Iterable[int]) -> list[tuple[tuple, str]]:
    items = []
    for top, bottom in _runs(ranks):
        r, b = RANKS[top], RANKS[bottom]
        if top == bottom:
            text = r + r
        elif top == 12:
            text = b + b + "+"
        else:
            text = f"{r}{r}-{b}{b}"
        items.append(((0, -top), text))
    return items


def _kicker_items(hi: int, kickers: Iterable[int], suffix: str) -> list[tuple[tuple, str]]:
    h = RANKS[hi]
    items = []
    for top, bottom in _runs(kickers):
        t, b = RANKS[top], RANKS[bottom]
        if top == bottom:
            text = f"{h}{t}{suffix}"
        elif top == hi - 1:
            text = f"{h}{b}{suffix}+"
        else:
            text = f"{h}{t}{suffix}-{h}{b}{suffix}"
        items.append(((1, -hi, -top, "so".find(suffix)), text))
    return items


def _text_len(items: list[tuple[tuple, str]]) -> int:
    return sum(len(t) + 1 for _, t in items)


def range_text(weights: Sequence[float]) -> str:
    """The shortest usual text for 1326 weights in hand order (each in 0..1)."""
    if len(weights) != HAND_COUNT:
        raise ValueError(f"a range has {HAND_COUNT} weights, not {len(weights)}")
    ws = [float(w) for w in weights]
    for h, w in enumerate(ws):
        if not 0.0 <= w <= 1.0:
            raise ValueError(f"weight {w!r} of hand {h} is outside 0..1")

    # A shape whose combos differ takes its most common weight, and the others
    # follow as single combos; the combos come last so that they overwrite it.
    shape_weight: dict[tuple[int, int, str], float] = {}
    combos: list[tuple[float, int]] = []
    for shape, hands in SHAPE_HANDS.items():
        counts = Counter(ws[h] for h in hands)
        common = max(counts, key=lambda w: (counts[w], w != 0.0, w))
        shape_weight[shape] = common
        combos += [(ws[h], h) for h in hands if ws[h] != common]

    items: list[tuple[tuple, str]] = []
    for w in sorted({w for w in shape_weight.values() if w != 0.0}, reverse=True):
        suffix = _weight_suffix(w)
        group = _pair_items(hi for (hi, lo, k), x in shape_weight.items() if k == "p" and x == w)
        for hi in range(12, 0, -1):
            suited = {lo for lo in range(hi) if shape_weight[(hi, lo, "s")] == w}
            offsuit = {lo for lo in range(hi) if shape_weight[(hi, lo, "o")] == w}
            apart = _kicker_items(hi, suited, "s") + _kicker_items(hi, offsuit, "o")
            both = (_kicker_items(hi, suited & offsuit, "") + _kicker_items(hi, suited - offsuit, "s")
                    + _kicker_items(hi, offsuit - suited, "o"))
            group += both if _text_len(both) <= _text_len(apart) else apart
        items += [(key, text + suffix) for key, text in group]
    out = [text for _, text in sorted(items)]
    out += [HAND_NAMES[h] + _weight_suffix(w) for w, h in sorted(combos, key=lambda c: (-c[0], -c[1]))]
    return ",".join(out)


def combo_count(weights: Sequence[float], dead: Iterable[int] = ()) -> float:
    """Sum of the weights, leaving out hands that hold a dead card (rank-major numbers)."""
    dead = set(dead)
    return sum(w for h, w in enumerate(weights) if not (set(HAND_CARDS[h]) & dead))
