"""Flop sets for studies: the 1,755 flops that differ by more than a renaming of
suits, each with its weight (how many of the 22,100 raw flops it stands for),
a seeded sample of them, or a user's list; and the texture classes of a flop.

A flop is three card numbers (rank-major, see cards.py), highest card first.
Its name is the three cards written together, e.g. "AsKdQd".
"""
from __future__ import annotations

import functools
import itertools
import random
from dataclasses import dataclass

from .cards import RANKS, card_text, parse_cards

SUIT_PERMUTATIONS = tuple(itertools.permutations(range(4)))


@dataclass(frozen=True)
class Flop:
    cards: tuple[int, int, int]
    weight: int

    @property
    def name(self) -> str:
        return "".join(card_text(c) for c in self.cards)


def canonical(cards) -> tuple[int, int, int]:
    """The class representative: the largest of the flop's suit renamings, highest card first."""
    return max(tuple(sorted((c // 4 * 4 + p[c % 4] for c in cards), reverse=True)) for p in SUIT_PERMUTATIONS)


@functools.cache
def canonical_flops() -> tuple[Flop, ...]:
    """All 1,755 classes in a fixed order (by representative, highest first)."""
    counts: dict[tuple[int, int, int], int] = {}
    for raw in itertools.combinations(range(52), 3):
        key = canonical(raw)
        counts[key] = counts.get(key, 0) + 1
    return tuple(Flop(k, n) for k, n in sorted(counts.items(), reverse=True))


def sample(n: int, seed: int = 1) -> list[Flop]:
    """n different flops drawn with chances in proportion to their weights; the same seed, the same draw.
    Each drawn flop counts once (weight 1): the draw itself already follows the weights."""
    flops = canonical_flops()
    if not 0 < n <= len(flops):
        raise ValueError(f"a sample of 1 to {len(flops)} flops, not {n}")
    rng = random.Random(seed)
    # Weighted sampling without replacement: the n largest keys u^(1/w).
    keyed = sorted(flops, key=lambda f: rng.random() ** (1.0 / f.weight), reverse=True)
    return [Flop(f.cards, 1) for f in sorted(keyed[:n], key=lambda f: f.cards, reverse=True)]


def read_list(text: str) -> list[Flop]:
    """A user's list: one flop a line ("Qs Jh 2h" or "QsJh2h"), "#" starts a comment.
    Each flop is taken as its class, with the class weight; a class named twice is an error."""
    weights = {f.cards: f.weight for f in canonical_flops()}
    out: dict[tuple[int, int, int], Flop] = {}
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
        key = canonical(cards)
        if key in out:
            raise ValueError(f"line {number}: {line} is the same flop as {out[key].name}")
        out[key] = Flop(key, weights[key])
    if not out:
        raise ValueError("the flop list is empty")
    return list(out.values())


def select(choice: str, seed: int = 1) -> list[Flop]:
    """"all", "sample:N" or the name of a list file."""
    if choice == "all":
        return list(canonical_flops())
    if choice.startswith("sample:"):
        try:
            n = int(choice[len("sample:"):])
        except ValueError:
            raise ValueError(f"sample:N with a whole number N, not {choice!r}") from None
        return sample(n, seed)
    with open(choice) as f:
        return read_list(f.read())


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
