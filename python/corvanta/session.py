"""The app's one engine, and what the page knows of it: the set-up, the solve, the locks, the files.

The engine is one child process that answers one line at a time, so one lock guards
it. A request that changes the game takes the lock at once or is refused with what
holds it ("the engine is busy: solving"); a request that only reads waits its turn
for a while. A solve holds the lock on a thread of its own until it stops, so
nothing reads a tree that is being solved.

Commands to the engine are made only from checked values: numbers, cards read by
cards.py, weights from ranges.py, lines from lines.py, node paths that match the
node view's pattern, file names resolved inside the folders the command line gave.
"""
from __future__ import annotations

import contextlib
import re
import threading
import time
from dataclasses import asdict
from pathlib import Path
from typing import Any, Iterator

from . import explore, nodeview
from .client import EngineDied, EngineError, EngineTimeout, Solver
from .game import Game
from .nodeview import ViewError, check_path, check_player
from .setupform import FormError, to_game

LEVELS = ("none", "low", "medium", "high", "max", "fast")
# The automatic choice takes level 1, 2 or 3 when free memory is above these shares of the
# uncompressed storage (the later two are lower on a flop of three suits): what the engine
# counts on each level to need.
AUTO_SHARES = {1: (0.58, 0.58), 2: (0.39, 0.312), 3: (0.29, 0.232)}
TREE_SUFFIX = ".tree"
NAME_RE = re.compile(r"[\w .,+@()-]{1,120}")
MAX_REPORTS = 2000
CACHED = 256
QUEUE_SECONDS = 60.0  # how long a change waits for reads of the tree ahead of it


class Busy(Exception):
    """The engine is held by another request; the message says by what."""


class Refused(ValueError):
    """A request the app refuses as it stands; the message names the field."""


def _level(value: Any) -> str:
    if value == "auto" or value in LEVELS:
        return str(value)
    if isinstance(value, int) and not isinstance(value, bool) and 0 <= value < len(LEVELS):
        return LEVELS[value]
    raise Refused(f"compression: auto, {', '.join(LEVELS)} or 0 to {len(LEVELS) - 1}")


def check_solve(body: Any) -> dict[str, Any]:
    """threads (0: all cores), accuracy (share of the pot), seconds or steps (optional), compression, fresh."""
    if not isinstance(body, dict):
        raise Refused("solve: a JSON object")
    extra = set(body) - {"threads", "accuracy", "seconds", "steps", "compression", "fresh"}
    if extra:
        raise Refused(f"solve: unknown field {sorted(extra)[0][:40]!r}")
    threads = body.get("threads", 0)
    if isinstance(threads, bool) or not isinstance(threads, int) or not 0 <= threads <= 256:
        raise Refused("threads: a whole number from 0 (all cores) to 256")
    accuracy = body.get("accuracy", 0.005)
    if isinstance(accuracy, bool) or not isinstance(accuracy, (int, float)) or not 0 <= accuracy <= 1:
        raise Refused("accuracy: a share of the pot from 0 to 1")
    limits = {}
    for key in ("seconds", "steps"):
        x = body.get(key)
        if x is not None and (isinstance(x, bool) or not isinstance(x, int) or not 1 <= x <= 1_000_000):
            raise Refused(f"{key}: a whole number from 1 to 1000000, or none")
        limits[key] = x
    if limits["seconds"] and limits["steps"]:
        raise Refused("solve: seconds or steps, not both")
    fresh = body.get("fresh", True)
    if not isinstance(fresh, bool):
        raise Refused("fresh: true or false")
    return {"threads": threads, "accuracy": float(accuracy), **limits,
            "compression": _level(body.get("compression", "auto")), "fresh": fresh}


def quoted(path: Path) -> str:
    """A file name as one token of the engine's reader, which groups blanks in double quotes."""
    text = str(path)
    if any(ch in text for ch in '"\r\n\0'):
        raise Refused(f"file: the engine can't take the name {path.name[:60]!r}")
    return f'"{text}"'


class Session:
    def __init__(self, binary: str | None = None, folders: list[Path] | tuple = (), ranges: Path | None = None):
        self.binary = binary
        self.folders = [Path(f).resolve() for f in folders]
        self.ranges = ranges.resolve() if ranges else None
        self.solver: Solver | None = None
        self._lock = threading.Lock()
        self._state = threading.Lock()
        self.busy = ""
        self.state = "empty"          # empty, built, solving, solved, error
        self.message = ""
        self.name = ""                # the set-up's or the tree file's name
        self.form: dict | None = None
        self.game: Game | None = None
        self.pot = 0.0
        self.preview: dict | None = None
        self.settings: dict = {"threads": 0, "accuracy": 0.005, "seconds": None, "compression": "auto"}
        self.reports: list[dict] = []
        self.results: dict | None = None
        self.history: list[dict] = []
        self.locks: dict[str, dict] = {}
        self.generation = 0
        self._cache: dict[tuple, Any] = {}
        self._stop = threading.Event()   # set by a stop request, cleared when the next solve starts

    # -- the engine ---------------------------------------------------------

    def _engine(self, new_game: bool = False) -> Solver:
        """The engine; a new one for a new game when there is none or it died. An engine that
        died under a game is not replaced behind the page's back: its game is gone."""
        # One look at the child: one that dies between two looks must not pass for none at all.
        alive = self.solver is not None and self.solver.alive()
        if self.solver is not None and not alive and not new_game:
            dead, self.solver = self.solver, None
            try:
                dead.command("echo")  # the client's account of the end: exit code, last words
            except EngineDied as e:
                raise EngineDied(f"{e}; set up or open a game again", e.returncode) from None
        if not alive:
            # -v: the build reports the storage it plans ("[uncompressed storage N MB]").
            self.solver = Solver(self.binary, args=("-v",))
        return self.solver

    @contextlib.contextmanager
    def engine(self, doing: str, wait: float | None = None, new_game: bool = False) -> Iterator[Solver]:
        """The engine for one request within `wait` seconds, else Busy. A change (no `wait`)
        queues behind the reads ahead of it, but not behind a solve, which only a stop ends."""
        if wait is None:
            wait = 0.0 if self.state == "solving" else QUEUE_SECONDS
        got = self._lock.acquire(timeout=wait) if wait else self._lock.acquire(blocking=False)
        if not got:
            raise Busy(f"the engine is busy: {self.busy or 'working'}")
        self.busy = doing
        try:
            yield self._engine(new_game)
        except (EngineDied, EngineTimeout) as e:
            self._set(state="error", message=f"the engine stopped: {e}")
            raise
        finally:
            self.busy = ""
            self._lock.release()

    def _set(self, **fields) -> None:
        with self._state:
            for k, v in fields.items():
                setattr(self, k, v)

    def _new_game(self, name: str, state: str, form: dict | None, pot: float) -> None:
        self._cache.clear()
        self._set(name=name, state=state, form=form, game=None, pot=pot, results=None, reports=[], locks={},
                  message="", generation=self.generation + 1)

    def close(self) -> None:
        self._stop.set()
        with self._lock:
            if self.solver is not None:
                self.solver.close()

    # -- set-up -------------------------------------------------------------

    def set_up(self, form: Any, name: str = "set-up") -> dict:
        """Checks the form, builds its tree in the engine and answers the preview."""
        try:
            game = to_game(form)
        except FormError as e:
            raise Refused(str(e)) from None
        with self.engine("building the tree", new_game=True) as s:
            self._new_game(name, "building", None, game.pot)
            try:
                self._build(s, game)
                preview = self._preview(s, game)
            except EngineError as e:
                self._set(state="empty", message=str(e))
                raise Refused(f"set-up: the engine refused it: {e}") from None
            self._set(state="built", form=form, preview=preview, game=game)
        return preview

    @staticmethod
    def _build(s: Solver, game: Game, compression: str = "auto") -> None:
        script = [line for line in game.script() if line != "build_tree" and not line.startswith("set_threads")]
        s.commands(["clear_lines", *script, f"set_compression {compression}"])
        s.notes.clear()
        s.build_tree(timeout=600)

    def _preview(self, s: Solver, game: Game) -> dict:
        """Tree size from `node_count`, storage from the build's plan, memory from `show_memory`."""
        notes = list(s.notes)
        uncompressed = auto = None
        for line in notes:
            if m := re.fullmatch(r"\[uncompressed storage (\d+) MB\]", line):
                uncompressed = int(m[1])
            elif m := re.fullmatch(r"#auto compression level (\d+)", line):
                auto = int(m[1])
        count = s.node_count()
        s.notes.clear()
        answer = s.command("show_memory")
        memory = {}
        for line in [*s.notes, *answer]:
            if m := re.fullmatch(r"#memory total ([\d.]+) MB.*", line):
                memory["now"] = float(m[1])
            elif m := re.fullmatch(r"Available Phys Memory: (\d+) MB", line):
                memory["available"] = int(m[1])
            elif m := re.fullmatch(r"Total Physical Memory: (\d+) MB", line):
                memory["physical"] = int(m[1])
        base = memory.get("now", 0.0)
        flop_root = len(game.board) == 3
        suits = len({c % 4 for c in game.board})
        levels = []
        for level, word in enumerate(LEVELS):
            if uncompressed is None:
                mb, bound = None, ""
            elif not flop_root or level in (0, 5):
                mb, bound = uncompressed, ""   # turn and river roots keep plain stores at every level
            elif level in AUTO_SHARES:
                mb, bound = AUTO_SHARES[level][1 if suits >= 3 else 0] * uncompressed, "about"
            else:
                mb, bound = AUTO_SHARES[3][1 if suits >= 3 else 0] * uncompressed, "below"
            levels.append({"level": level, "name": word, "storage_mb": mb, "bound": bound,
                           "total_mb": None if mb is None else round(base + mb, 1)})
        return {"decisions": sum(count.ip_decisions) + sum(count.oop_decisions),
                "decisions_by_street": [a + b for a, b in zip(count.oop_decisions, count.ip_decisions)],
                "nodes": count.total, "lines": len(game.lines()), "uncompressed_mb": uncompressed,
                "auto": auto, "levels": levels, "memory": memory}

    # -- solving ------------------------------------------------------------

    def solve(self, body: Any) -> None:
        settings = check_solve(body)
        if self.state == "solving":
            raise Busy("the engine is busy: solving")
        if self.state not in ("built", "solved") and not (self.state == "error" and self.game):
            raise Refused("solve: set up a game or open a tree first")
        if not self._lock.acquire(timeout=QUEUE_SECONDS):
            raise Busy(f"the engine is busy: {self.busy or 'working'}")
        if self.state == "solving":  # another request started a solve while this one waited
            self._lock.release()
            raise Busy("the engine is busy: solving")
        # The lock goes to the solving thread, which lets it go when the solver stopped.
        self.busy = "solving"
        self._stop.clear()
        self._cache.clear()
        self._set(state="solving", message="", reports=[], settings={**settings},
                  generation=self.generation + 1)
        threading.Thread(target=self._run, args=(settings,), daemon=True).start()

    def _run(self, settings: dict) -> None:
        try:
            s = self._engine()
            if settings["fresh"]:
                # From the start: the game as set up (or as the tree file describes it), with
                # the locks made since; a new engine after a failure gets the whole set-up.
                if self.game is not None:
                    self._build(s, self.game, settings["compression"])
                else:
                    s.commands([f"set_compression {settings['compression']}", "build_tree"], timeout=600)
                self._apply_locks(s)
            s.set_threads(settings["threads"])
            started = time.monotonic()
            for r in s.iter_solve(accuracy=settings["accuracy"], seconds=settings["seconds"],
                                  steps=settings["steps"], stop=self._stop):
                with self._state:
                    self.reports.append({"iteration": r.iteration, "seconds": r.seconds, "ev_oop": r.ev_oop,
                                         "ev_ip": r.ev_ip, "exploitability": r.exploitability})
                    if len(self.reports) > MAX_REPORTS:  # thin the middle out, keep the first
                        del self.reports[1:len(self.reports) // 2:2]
            results = {**asdict(s.results()), "seconds": round(time.monotonic() - started, 2)}
            results["exploitability_share"] = results["exploitability"] / self.pot if self.pot else None
            entry = {"results": results, "locks": sorted(self.locks), "settings": settings}
            self._set(state="solved", results=results, history=(self.history + [entry])[-20:])
        except EngineError as e:
            self._set(state="error", message=f"solve: {e}")
            if not self.solver or not self.solver.alive():
                self.solver = None
        finally:
            self._cache.clear()
            self._set(generation=self.generation + 1)
            self.busy = ""
            self._lock.release()

    def stop(self) -> bool:
        if self.state != "solving":
            return False
        self._stop.set()
        return True

    # -- reading the tree ---------------------------------------------------

    def _readable(self) -> None:
        # A read that comes while the solver runs waits its turn (its answer is of the solved tree).
        if self.state not in ("built", "solved", "solving"):
            raise Busy(f"no tree to read: {self.state}")

    def _cached(self, key: tuple, make) -> Any:
        key = (self.generation, *key)
        if key not in self._cache:
            if len(self._cache) >= CACHED:
                self._cache.pop(next(iter(self._cache)))
            self._cache[key] = make()
        return self._cache[key]

    def node(self, path: str, player: str | None) -> dict:
        check_path(path)
        if player is not None:
            check_player(player)
        self._readable()
        with self.engine("reading a node", wait=30) as s:
            view = self._cached(("node", path, player), lambda: nodeview.node_view(s, path, player, values=False))
        return {**view, "locked": self.locks.get(path, {}).get("summary")}

    def values(self, path: str, player: str) -> dict:
        check_path(path)
        check_player(player)
        self._readable()
        with self.engine("computing EVs", wait=60) as s:
            return self._cached(("values", path, player), lambda: self._engine_call(explore.node_values, s, path, player))

    def cards(self, path: str, values: bool) -> dict:
        check_path(path)
        self._readable()
        with self.engine("reporting the cards", wait=60) as s:
            return self._cached(("cards", path, values), lambda: self._engine_call(explore.card_report, s, path, values))

    def table(self, path: str, player: str | None) -> dict:
        check_path(path)
        if player is not None:
            check_player(player)
        self._readable()
        with self.engine("exporting a node", wait=60) as s:
            return self._cached(("table", path, player), lambda: self._engine_call(explore.node_table, s, path, player))

    @staticmethod
    def _engine_call(fn, s: Solver, *args):
        try:
            return fn(s, *args)
        except (EngineDied, EngineTimeout):
            raise
        except EngineError as e:
            raise ViewError(f"the engine refused {args[0]}: {e}") from None

    # -- locks --------------------------------------------------------------

    def lock(self, body: Any) -> dict:
        if (not isinstance(body, dict) or set(body) - {"path", "all", "cells", "hands"} or "path" not in body
                or len(body) != 2):
            raise Refused("lock: path and one of all, cells or hands")
        path = check_path(body["path"])
        self._readable()
        with self.engine("locking a node") as s:
            try:
                node = nodeview.node_block(s, path)
                acting = {"OOP_DEC": "OOP", "IP_DEC": "IP"}.get(node.kind)
                if not acting:
                    raise Refused(f"lock: {path} is no decision")
                strategy = s.strategy(path)
                actions = list(strategy.actions)
                live = explore.live_hands(node.board)
                weights = s.range(acting, path).values
                selection = {k: v for k, v in body.items() if k != "path"}
                hands = explore.chosen_hands(selection, live, weights)
                mixes = {h: explore.check_mix(m, actions, "lock") for h, m in hands.items()}
                rows = explore.lock_rows(strategy, mixes)
                whole = "all" in selection
                mask = None if whole else [1 if h in mixes else 0 for h in range(len(weights))]
                before = self.results
                self._lock_in(s, path, actions, rows, mask)
            except EngineError as e:
                raise Refused(f"lock: the engine refused it: {e}") from None
        what = "the whole range" if whole else f"{len(mixes)} hands"
        self.locks[path] = {"actions": actions, "rows": rows, "mask": mask, "before": before,
                            "summary": {"path": path, "player": acting, "what": what}}
        self._cache.clear()
        self._set(generation=self.generation + 1)
        return self.locks[path]["summary"]

    @staticmethod
    def _lock_in(s: Solver, path: str, actions: list[str], rows: dict, mask: list | None) -> None:
        lines = [f"set_strategy {path} {i} {explore.row_text(rows[a])}" for i, a in enumerate(actions)]
        lines.append(f"lock_node {path}" if mask is None else f"combo_lock_node {path} {explore.row_text(mask)}")
        s.commands(lines)

    def _apply_locks(self, s: Solver) -> None:
        for path, lock in self.locks.items():
            self._lock_in(s, path, lock["actions"], lock["rows"], lock["mask"])

    def unlock(self, body: Any) -> None:
        if not isinstance(body, dict) or set(body) != {"path"}:
            raise Refused("unlock: a path")
        path = check_path(body["path"])
        self._readable()
        with self.engine("unlocking a node") as s:
            try:
                s.command(f"unlock_node {path}")
            except EngineError as e:
                raise Refused(f"unlock: the engine refused it: {e}") from None
        self.locks.pop(path, None)
        self._cache.clear()
        self._set(generation=self.generation + 1)

    # -- files --------------------------------------------------------------

    def file(self, body: Any, suffix: str | None, must_exist: bool, kinds: tuple = ("folder", "name")) -> Path:
        """The file a request names: a folder of the command line by number and a name inside it."""
        if not isinstance(body, dict) or set(body) - set(kinds) or "name" not in body:
            raise Refused("file: a folder number and a name")
        folder = body.get("folder", 0)
        if isinstance(folder, bool) or not isinstance(folder, int) or not 0 <= folder < len(self.folders):
            raise Refused(f"folder: a number from 0 to {len(self.folders) - 1}" if self.folders
                          else "folder: the app was started without folders")
        return inside(self.folders[folder], body["name"], suffix, must_exist)

    def save(self, body: Any) -> str:
        path = self.file(body, TREE_SUFFIX, False)
        if self.state not in ("built", "solved"):
            raise Refused("save: no tree to save")
        with self.engine("saving the tree") as s:
            try:
                s.command(f"dump_tree {quoted(path)}", timeout=600)
            except EngineError as e:
                raise Refused(f"save: {e}") from None
        return path.name

    def open(self, body: Any = None, path: Path | None = None) -> dict:
        path = path or self.file(body, None, True)
        with self.engine("opening a tree", new_game=True) as s:
            self._new_game(path.name, "building", None, 0.0)
            try:
                s.command(f"load_tree {quoted(path)}", timeout=600)
                results = asdict(s.results())
                root = nodeview.node_block(s, "r:0")
            except EngineError as e:
                self._set(state="empty", message=f"{path.name}: not a tree file this engine can load ({e})")
                raise Refused(self.message) from None
        results["exploitability_share"] = results["exploitability"] / root.pot if root.pot else None
        self._set(state="solved", pot=root.pot, results=results, preview=None,
                  history=self.history + [{"results": results, "locks": [], "settings": None, "file": path.name}])
        return {"name": path.name, "board": root.board, "pot": root.pot}

    def files(self) -> list[dict]:
        """Per folder: its tree files and the study folders in it (those holding summaries), to some depth."""
        out = []
        for i, root in enumerate(self.folders):
            trees, studies = [], ["."] if any(root.glob("*.json")) else []
            for p in sorted(_walk(root, 3)):
                rel = str(p.relative_to(root))
                if p.is_file() and p.suffix == TREE_SUFFIX and not p.name.startswith("."):
                    trees.append({"name": rel, "size": p.stat().st_size})
                elif p.is_dir() and any(p.glob("*.json")):
                    studies.append(rel)
                if len(trees) + len(studies) > 500:
                    break
            out.append({"folder": i, "path": str(root), "trees": trees, "studies": studies})
        return out

    # -- range files --------------------------------------------------------

    def range_files(self) -> list[str]:
        if not self.ranges or not self.ranges.is_dir():
            return []
        return sorted(p.name for p in self.ranges.glob("*.txt") if not p.name.startswith(".") and not p.is_symlink())

    def range_file(self, name: Any) -> Path:
        if not self.ranges:
            raise Refused("ranges: the app has no range folder")
        return inside(self.ranges, name, ".txt", False)

    # -- status -------------------------------------------------------------

    def status(self) -> dict:
        with self._state:
            reports = self.reports
            return {"state": self.state, "busy": self.busy, "message": self.message, "name": self.name,
                    "generation": self.generation, "form": self.form, "preview": self.preview, "pot": self.pot,
                    "settings": self.settings, "reports": reports[-600:] if len(reports) > 600 else list(reports),
                    "results": self.results, "history": self.history,
                    "locks": [{**lock["summary"], "before": lock["before"]} for lock in self.locks.values()],
                    "folders": [str(f) for f in self.folders]}


def _walk(root: Path, depth: int) -> Iterator[Path]:
    try:
        entries = list(root.iterdir())
    except OSError:
        return
    for p in entries:
        if p.name.startswith(".") or p.is_symlink():
            continue
        yield p
        if depth > 1 and p.is_dir():
            yield from _walk(p, depth - 1)


def inside(root: Path, name: Any, suffix: str | None, must_exist: bool) -> Path:
    """`name` resolved under `root`; a name that leaves it (`..`, an absolute path, a link out) is refused."""
    if not isinstance(name, str) or not name or len(name) > 300:
        raise Refused("name: a file name of 1 to 300 characters")
    parts = name.replace("\\", "/").split("/")
    if name.startswith("/") or any(p in ("", ".", "..") for p in parts) or not all(NAME_RE.fullmatch(p) for p in parts):
        raise Refused(f"name: {name[:60]!r} is not a plain name inside the folder (letters, digits, blanks, . , + - @ ( ))")
    if suffix and not name.endswith(suffix):
        name += suffix
    path = (root / name).resolve()
    if not path.is_relative_to(root):
        raise Refused(f"name: {name[:60]!r} leads out of the folder")
    if must_exist and not path.is_file():
        raise Refused(f"name: no file {name[:60]!r} in {root}")
    if not must_exist and not path.parent.is_dir():
        raise Refused(f"name: no folder for {name[:60]!r} in {root}")
    return path
