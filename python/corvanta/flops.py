"""Flop sets for studies: the flops that differ by more than a renaming of suits,
each with its weight (how many raw flops it stands for), a seeded sample of them,
or a user's list; and the texture classes of a flop.

Two flops are one class when a suit renaming maps one onto the other and leaves
the rest of the game as it is: the run-out cards dealt after every flop, and both
ranges. With no run-out and ranges that name no suit that is all 24 renamings:
1,755 classes for the 22,100 raw flops. A run-out "7c" keeps only the renamings
that fix clubs, a range with "AhKh" only those that fix hearts, and so on: more
classes, whose weights add up to the raw flops that don't touch the run-out.

A flop is three card numbers (rank-major, see cards.py), highest card first.
Its name is the three cards written together, e.g. "AsKdQd".
"""
from __future__ import annotations

import functools
import itertools
import random
from dataclasses import dataclass
from typing import Sequence

from .cards import HAND_CARDS, HAND_NAMES, RANKS, card_text, hand_index, parse_cards

Renaming = tuple[int, int, int, int]  # new suit of each suit
SUIT_PERMUTATIONS: tuple[Renaming, ...] = tuple(itertools.permutations(range(4)))


@dataclass(frozen=True)
class Flop:
    cards: tuple[int, int, int]
    weight: int

    @property
    def name(self) -> str:
        return "".join(card_text(c) for c in self.cards)


def rename(cards, p: Renaming) -> tuple[int, ...]:
    return tuple(sorted((c - c % 4 + p[c % 4] for c in cards), reverse=True))


@functools.cache
def _hand_map(p: Renaming) -> tuple[int, ...]:
    return tuple(hand_index(a - a % 4 + p[a % 4], b - b % 4 + p[b % 4]) for a, b in HAND_CARDS)


def symmetry(runout: Sequence[int] = (), ranges: Sequence[Sequence[float]] = ()) \
        -> tuple[tuple[Renaming, ...], str | None]:
    """The suit renamings that keep each run-out card and both ranges as they are; and, when
    a range alone rules some out, a hand that shows it (e.g. "AhKh")."""
    fixing = [p for p in SUIT_PERMUTATIONS if all(p[c % 4] == c % 4 for c in runout)]
    kept, witness = [], None
    for p in fixing:
        moved = next((h for w in ranges for h, g in enumerate(_hand_map(p)) if w[h] > w[g]), None)
        if moved is None:
            kept.append(p)
        elif witness is None:
            witness = HAND_NAMES[moved]
    return tuple(kept), witness


def canonical(cards, group: Sequence[Renaming] = SUIT_PERMUTATIONS) -> tuple[int, ...]:
    """The class representative: the largest of the flop's renamings in the group, highest card first."""
    return max(rename(cards, p) for p in group)


@functools.cache
def classes(group: tuple[Renaming, ...] = SUIT_PERMUTATIONS, runout: tuple[int, ...] = ()) -> tuple[Flop, ...]:
    """All classes of the flops off the run-out, in a fixed order (by representative, highest first).
    The group must fix the run-out cards: then a class never mixes flops on and off them."""
    counts: dict[tuple[int, ...], int] = {}
    for raw in itertools.combinations([c for c in range(52) if c not in runout], 3):
        key = canonical(raw, group)
        counts[key] = counts.get(key, 0) + 1
    return tuple(Flop(k, n) for k, n in sorted(counts.items(), reverse=True))


def canonical_flops() -> tuple[Flop, ...]:
    """The 1,755 classes under all suit renamings."""
    return classes()


def sample(n: int, seed: int = 1, group: tuple[Renaming, ...] = SUIT_PERMUTATIONS,
           runout: tuple[int, ...] = ()) -> list[Flop]:
    """n different classes drawn with chances in proportion to their weights; the same seed, the same draw.
    Each drawn flop counts once (weight 1): the draw itself already follows the weights."""
    flops = classes(group, runout)
    if not 0 < n <= len(flops):
        raise ValueError(f"a sample of 1 to {len(flops)} flops, not {n}")
    rng = random.Random(seed)
    # Weighted sampling without replacement: the n largest keys u^(1/w).
    keyed = sorted(flops, key=lambda f: rng.random() ** (1.0 / f.weight), reverse=True)
    return [Flop(f.cards, 1) for f in sorted(keyed[:n], key=lambda f: f.cards, reverse=True)]


def read_list(text: str, group: tuple[Renaming, ...] = SUIT_PERMUTATIONS, runout: tuple[int, ...] = ()) -> list[Flop]:
    """A user's list: one flop a line ("Qs Jh 2h" or "QsJh2h"), "#" starts a comment.
    Each flop is taken as its class, with the class weight; a class named twice is an error."""
    weights = {f.cards: f.weight for f in classes(group, runout)}
    out: dict[tuple[int, ...], Flop] = {}
    for number, line in enumerate(text.splitlines(), 1):
        line = line.split("#", 1)[0].strip()
        if not line:
            continue
        try:
            cards = parse_cards(line)
        except ValueError as e:
            raise ValueError(f"line {number}: {e}") from None
        if len(cards) != 3:
            raise ValueError(f"line {number}: a flop is 3 cards, not {len(cards)}")
        if set(cards) & set(runout):
            raise ValueError(f"line {number}: {line} holds a card of the run-out "
                             f"{' '.join(card_text(c) for c in runout)}")
        key = canonical(cards, group)
        if key in out:
            raise ValueError(f"line {number}: {line} is the same flop as {out[key].name}")
        out[key] = Flop(key, weights[key])
    if not out:
        raise ValueError("the flop list is empty")
    return list(out.values())


def select(choice: str, seed: int = 1, group: tuple[Renaming, ...] = SUIT_PERMUTATIONS,
           runout: tuple[int, ...] = ()) -> list[Flop]:
    """"all", "sample:N" or the name of a list file."""
    if choice == "all":
        return list(classes(group, runout))
    if choice.startswith("sample:"):
        try:
            n = int(choice[len("sample:"):])
        except ValueError:
            raise ValueError(f"sample:N with a whole number N, not {choice!r}") from None
        return sample(n, seed, group, runout)
    try:
        with open(choice, encoding="utf-8") as f:
            return read_list(f.read(), group, runout)
    except ValueError as e:  # also a file that isn't UTF-8
        raise ValueError(f"{choice}: {e}") from None


def textures(cards) -> dict[str, str]:
    """Texture classes: suits, pairing, high card and connectedness."""
    ranks = sorted({c // 4 for c in cards}, reverse=True)
    suits = len({c % 4 for c in cards})
    # Ace plays low as well for straights.
    low = sorted(set(ranks) | ({-1} if 12 in ranks else set()))
    spans = [b - a for a, b in itertools.combinations(low, 2)]
    if len(ranks) == 3 and any(max(t) - min(t) <= 4 for t in itertools.combinations(low, 3)):
        connected = "straight possible"
    elif any(0 < s <= 3 for s in spans):
        connected = "straight draws"
    else:
        connected = "disconnected"
    return {
        "suits": {1: "monotone", 2: "two-tone", 3: "rainbow"}[suits],
        "pairing": {3: "unpaired", 2: "paired", 1: "trips"}[len(ranks)],
        "high_card": RANKS[ranks[0]],
        "connectedness": connected,
    }
