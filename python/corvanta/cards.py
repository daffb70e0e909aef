"""Cards and the order of the 1326 hole-card pairs at the text interface.

A card is rank x 4 + suit here ("rank-major": 2c = 0, 2d = 1, ... As = 51),
which is the form the engine's hand order is built from: the pair of cards
a > b has the index a * (a - 1) / 2 + b and is written with card a first, so
the order starts "2d2c 2h2c 2h2d" and ends "AsAh".
"""
from __future__ import annotations

RANKS = "23456789TJQKA"
SUITS = "cdhs"
HAND_COUNT = 1326


def card_index(text: str) -> int:
    """The rank-major number of a two-character card such as "As" or "td"."""
    if len(text) != 2:
        raise ValueError(f"invalid card {text!r}")
    rank = RANKS.find(text[0].upper())
    suit = SUITS.find(text[1].lower())
    if rank < 0 or suit < 0:
        raise ValueError(f"invalid card {text!r}")
    return rank * 4 + suit


def card_text(card: int) -> str:
    return RANKS[card // 4] + SUITS[card % 4]


def hand_index(a: int, b: int) -> int:
    """Index of the pair of two different cards in the engine's hand order."""
    if a == b:
        raise ValueError("a hand needs two different cards")
    if a < b:
        a, b = b, a
    return a * (a - 1) // 2 + b


def _build_order() -> tuple[tuple[int, int], ...]:
    pairs = []
    for a in range(1, 52):
        for b in range(a):
            pairs.append((a, b))
    return tuple(pairs)


# HAND_CARDS[i]: the two cards (higher first) of hand i.
HAND_CARDS = _build_order()
HAND_NAMES = tuple(card_text(a) + card_text(b) for a, b in HAND_CARDS)
HAND_ORDER_TEXT = " ".join(HAND_NAMES)


def parse_cards(text: str) -> list[int]:
    """Cards written together or apart ("QsJh2h", "Qs Jh 2h"); no card twice."""
    compact = "".join(text.split())
    if len(compact) % 2:
        raise ValueError(f"invalid card list {text!r}")
    cards = [card_index(compact[i:i + 2]) for i in range(0, len(compact), 2)]
    if len(set(cards)) != len(cards):
        raise ValueError(f"card named twice in {text!r}")
    return cards


def hand_touches(hand: int, cards: list[int] | set[int]) -> bool:
    a, b = HAND_CARDS[hand]
    return a in cards or b in cards
