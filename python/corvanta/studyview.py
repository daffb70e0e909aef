"""A study folder in the app: the flops of its summaries, and the action frequencies at any
line, read from the flops' tree files where the study kept them.

The summaries hold OOP's first decision only; a line further down is answered by an
engine of its own that loads each flop's tree in turn, so the game open in the page
stays as it is.
"""
from __future__ import annotations

import contextlib
import io
import threading
from pathlib import Path
from typing import Any

from . import aggregate
from .client import EngineError, Solver
from .explore import frequencies
from .nodeview import check_path


def read(folder: Path) -> dict[str, Any]:
    """The flops with weight, textures, EVs, equities and root frequencies; which have a tree."""
    with contextlib.redirect_stderr(io.StringIO()) as skipped:
        rows, actions = aggregate.read_rows(folder)
    flops = []
    for row in rows:
        tree = folder / f"{row['flop']}.tree"
        flops.append({**{k: v for k, v in row.items() if k != "key"}, "tree": tree.name if tree.is_file() else None})
    return {"flops": flops, "actions": actions, "textures": list(aggregate.TEXTURES),
            "classes": aggregate.ORDER, "skipped": [line for line in skipped.getvalue().splitlines() if line]}


class StudyEngine:
    """One engine for the lines of studies; one request at a time."""

    def __init__(self, binary: str | None):
        self.binary = binary
        self.lock = threading.Lock()
        self.solver: Solver | None = None
        self.loaded: Path | None = None

    def line(self, tree: Path, path: str) -> dict[str, Any]:
        """How often the line is played, and the frequencies of the actions at its end."""
        check_path(path)
        if not self.lock.acquire(blocking=False):
            raise BusyStudy("the study engine is busy with another flop")
        try:
            if self.solver is None or not self.solver.alive():
                self.solver = Solver(self.binary)
                self.loaded = None
            s = self.solver
            if self.loaded != tree:
                if any(ch in str(tree) for ch in '"\r\n'):
                    raise EngineError(f"the engine can't take the name {tree.name!r}")
                self.loaded = None
                s.command(f'load_tree "{tree}"', timeout=600)
                self.loaded = tree
            kind = s.command(f"show_node {path}")[1]
            freq = float(s.command(f"calc_line_freq {path}")[0])
            actions = frequencies(s, path) if kind in ("OOP_DEC", "IP_DEC") else {}
            return {"path": path, "kind": kind, "line_freq": freq, "actions": actions}
        finally:
            self.lock.release()

    def close(self) -> None:
        with self.lock:
            if self.solver is not None:
                self.solver.close()


class BusyStudy(Exception):
    pass
