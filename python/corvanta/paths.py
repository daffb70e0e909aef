"""Node paths, the one grammar of the client, the viewer and its page.

"r:0" is the first decision; each further segment is one step, written as
`show_children` writes it: "b30" a bet or raise to 30, "c" a check or a call,
"f" a fold, "Ah" the card that comes. "r" alone is the game before it.

Stricter than the engine's reader (a bet is ASCII digits, a card is rank and
suit, at most 40 steps), so that a path that passes can be sent on as it is.
The page gets `PATTERN` from the server and the steps of each node's path in
its answer, so it keeps no grammar of its own.
"""
from __future__ import annotations

import re

SEGMENT = r"b[0-9]{1,7}(?:\.[0-9]{1,6})?|c|f|[2-9TJQKA][cdhs]"
PATTERN = rf"r(?::0(?::(?:{SEGMENT})){{0,40}})?"  # written so that JavaScript reads it alike
PATH_RE = re.compile(PATTERN)
CARD_RE = re.compile(r"[2-9TJQKA][cdhs]")


def is_path(text: object) -> bool:
    return isinstance(text, str) and PATH_RE.fullmatch(text) is not None


def last_segment(path: str) -> str:
    """The step that led to a node: "b50" of "r:0:b50"."""
    return path.rsplit(":", 1)[1]


def steps(path: str) -> list[dict[str, object]]:
    """The steps after "r:0", each with the path up to it and whether it is a card."""
    parts = path.split(":")
    return [{"path": ":".join(parts[:i + 1]), "segment": parts[i], "card": CARD_RE.fullmatch(parts[i]) is not None}
            for i in range(2, len(parts))]
