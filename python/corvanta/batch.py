"""A study over many flops: one engine process per flop, run by GNU parallel.

    python3 -m corvanta batch study.toml --flops all|sample:N|list.txt --out DIR --jobs J --threads T

The study is a game in the TOML format of game.py without `board`; `runout`
may name the turn (and river) card dealt after each flop, for studies of a
later street. Each flop leaves two files in DIR, both written under a
temporary name and renamed: NAME.tree (the engine's tree file) and NAME.json
(the summary). The summary is what marks a flop done: a flop whose summary
parses and belongs to the same study is never solved again, so the same
command resumes a batch that was stopped in any way. GNU parallel's job log
(DIR/joblog) is cleaned of every entry without such a summary before it is
given to --resume.
"""
from __future__ import annotations

import hashlib
import json
import os
import shutil
import signal
import subprocess
import sys
import threading
import time
import tomllib
from pathlib import Path

from .cards import HAND_CARDS, HAND_NAMES, card_text, parse_cards
from .client import EngineError, Solver
from .flops import Flop, select, textures
from .game import Game, GameError
from .ranges import parse_range

STARTED = time.monotonic()


class StudyError(ValueError):
    pass


def load_study(path: str | Path) -> dict:
    try:
        with open(path, "rb") as f:
            data = tomllib.load(f)
    except tomllib.TOMLDecodeError as e:
        raise StudyError(f"{path}: {e}") from None
    if "board" in data:
        raise StudyError(f"{path}: a study leaves the board open (cards after the flop go in runout)")
    return data


def study_key(data: dict) -> str:
    """Same settings, same key: a summary of other settings is not taken as done."""
    return hashlib.sha256(json.dumps(data, sort_keys=True).encode()).hexdigest()[:16]


def study_game(data: dict, flop_cards, threads: int | None = None) -> Game:
    game = dict(data)
    runout = str(game.pop("runout", ""))
    game["board"] = " ".join(card_text(c) for c in flop_cards) + " " + runout
    if threads is not None:
        game["threads"] = threads
    return Game.from_dict(game)


def summary_ok(path: Path, key: str) -> bool:
    try:
        with open(path) as f:
            return json.load(f).get("study") == key
    except (OSError, ValueError, AttributeError):
        return False


def durable_rename(tmp: Path, path: Path) -> None:
    """Data on disk before the name, and the name on disk before we go on: a power cut leaves
    the old state or the new one."""
    with open(tmp, "rb") as f:
        os.fsync(f.fileno())
    os.replace(tmp, path)
    fd = os.open(path.parent, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def write_atomic(path: Path, text: str) -> None:
    tmp = path.with_name(f".{path.name}.{os.getpid()}.tmp")
    with open(tmp, "w") as f:
        f.write(text)
    durable_rename(tmp, path)


def _quoted(path: Path) -> str:
    text = str(path)
    if '"' in text or "\n" in text:
        raise EngineError(f"the engine can't take the file name {text!r}")
    return f'"{text}"' if any(ch.isspace() for ch in text) else text


# -- one flop ---------------------------------------------------------------

def solve_flop(study_path: str, out: Path, name: str, weight: int, threads: int | None, binary: str | None,
               engines: list[Solver]) -> dict:
    data = load_study(study_path)
    cards = tuple(parse_cards(name))
    game = study_game(data, cards, threads)
    summary: dict = {"flop": name, "weight": weight, "board": game.board_text(), "textures": textures(cards),
                     "study": study_key(data), "settings": data}
    with Solver(binary) as solver:
        engines.append(solver)
        started = time.monotonic()
        game.set_up(solver)
        results = solver.solve(accuracy=game.accuracy, seconds=game.seconds, steps=game.steps)
        engine_seconds = time.monotonic() - started
        summary["results"] = {**results.__dict__, "exploitability_share": results.exploitability / game.pot}
        summary["equity"] = {p.lower(): range_equity(solver, p) for p in ("OOP", "IP")}
        summary["root"] = root_summary(solver, game)
        tree = out / f"{name}.tree"
        tmp = out / f".{name}.tree.{os.getpid()}.tmp"
        try:  # the tree goes first: a summary on disk means both files are complete
            solver.command(f"dump_tree {_quoted(tmp)}", timeout=600)
            durable_rename(tmp, tree)
        finally:
            tmp.unlink(missing_ok=True)
        summary["tree_file"] = tree.name
    summary["seconds"] = {"engine": round(engine_seconds, 3), "job": round(time.monotonic() - STARTED, 3)}
    write_atomic(out / f"{name}.json", json.dumps(summary, indent=1) + "\n")
    return summary


def watch_batch(engines: list[Solver]) -> None:
    """GNU parallel gives each job a process group of its own, so a batch killed outright
    leaves its jobs running: a job whose batch is gone stops its engine and ends."""
    pid = int(os.environ.get("CORVANTA_BATCH_PID", "0"))
    if pid <= 0:
        return

    def watch() -> None:
        while True:
            time.sleep(0.3)
            try:
                os.kill(pid, 0)
            except ProcessLookupError:
                try:
                    for solver in engines:
                        os.kill(solver.pid, signal.SIGKILL)
                finally:
                    os._exit(1)
            except PermissionError:
                pass

    threading.Thread(target=watch, daemon=True).start()


def range_equity(solver: Solver, player: str) -> float:
    """The player's showdown equity over the whole range: hands weighted by range weight times matchups."""
    eq, weights = solver.equity(player), solver.range(player).values
    num = den = 0.0
    for e, m, w in zip(eq.values, eq.matchups, weights):
        if w > 0 and m > 0:
            num += e * m * w
            den += m * w
    return num / den if den else float("nan")


def root_summary(solver: Solver, game: Game) -> dict:
    """OOP's first decision: each action's overall frequency, and each hand's strategy."""
    probs = solver.command("show_probs r:0")[0].split()
    frequencies = {probs[i]: float(probs[i + 1]) for i in range(4, len(probs) - 1, 2)}
    strategy = solver.strategy("r:0")
    weights = parse_range(game.oop_range)
    board = set(game.board)
    hands = {HAND_NAMES[h]: {a: round(strategy[a][h], 5) for a in strategy}
             for h in range(len(HAND_NAMES)) if weights[h] > 0 and not set(HAND_CARDS[h]) & board}
    return {"player": "OOP", "path": "r:0", "actions": list(strategy.actions), "frequencies": frequencies,
            "hands": hands}


def job(argv: list[str]) -> int:
    """One flop, as GNU parallel runs it: prints "done NAME SECONDS", "skip NAME" or fails."""
    study_path, out, name, weight, threads, binary = argv
    out = Path(out)
    engines: list[Solver] = []
    watch_batch(engines)
    try:
        out.mkdir(parents=True, exist_ok=True)
        if summary_ok(out / f"{name}.json", study_key(load_study(study_path))):
            print(f"skip {name}", flush=True)
            return 0
        # A job killed while writing leaves its temporary files (ours, and the engine's "..NAME..."
        # from inside dump_tree); the flop is this job's alone now, so they go.
        for stale in [*out.glob(f".{name}.*"), *out.glob(f"..{name}.*")]:
            stale.unlink(missing_ok=True)
        summary = solve_flop(study_path, out, name, int(weight), int(threads) if threads != "-" else None,
                             None if binary == "-" else binary, engines)
    except (OSError, StudyError, GameError, EngineError) as e:
        print(f"corvanta: {name}: {e}", file=sys.stderr, flush=True)
        print(f"fail {name}", flush=True)
        return 1
    print(f"done {name} {summary['seconds']['job']}", flush=True)
    return 0


# -- the batch --------------------------------------------------------------

def part_of(flops: list[Flop], part: str | None) -> tuple[list[Flop], str]:
    """"K/N": every N-th flop from the K-th on (K from 0); and the job log's name."""
    if not part:
        return flops, "joblog"
    try:
        k, n = (int(x) for x in part.split("/"))
    except ValueError:
        raise StudyError(f"--part K/N with whole numbers, not {part!r}") from None
    if not 0 <= k < n:
        raise StudyError(f"--part K/N needs 0 <= K < N, not {part!r}")
    return flops[k::n], f"joblog.{k}-of-{n}"


def clean_joblog(log: Path, flops: list[Flop], out: Path, key: str) -> None:
    """Keeps the entries of flops whose summary is there, so that --resume runs all others again."""
    if not log.exists():
        return
    lines = log.read_text().splitlines(keepends=True)
    kept = lines[:1]
    for line in lines[1:]:
        fields = line.rstrip("\n").split("\t")
        try:
            seq = int(fields[0])
        except ValueError:
            continue
        if 1 <= seq <= len(flops) and flops[seq - 1].name in fields[-1] and \
                summary_ok(out / f"{flops[seq - 1].name}.json", key):
            kept.append(line)
    write_atomic(log, "".join(kept))


def _duration(seconds: float) -> str:
    seconds = int(seconds)
    if seconds >= 3600:
        return f"{seconds // 3600}h{seconds % 3600 // 60:02d}m"
    return f"{seconds // 60}m{seconds % 60:02d}s"


class Progress:
    def __init__(self, total: int, done: int, stream=sys.stderr):
        self.total, self.done, self.failed, self.solved = total, done, 0, 0
        self.stream, self.tty = stream, stream.isatty()
        self.start = time.monotonic()

    def line(self, text: str) -> None:
        word, name = (text.split() + ["", ""])[:2]
        if word == "done":
            self.done += 1
            self.solved += 1
        elif word == "fail":
            self.failed += 1
        elif word != "skip":
            return
        left = self.total - self.done - self.failed
        eta = "?"
        if self.solved:
            eta = _duration((time.monotonic() - self.start) / self.solved * left)
        msg = f"{self.done}/{self.total} flops done" + (f", {self.failed} failed" if self.failed else "") + \
              (f", about {eta} left" if left else "") + f" ({word} {name})"
        self.stream.write(f"\r{msg:<78}" if self.tty else msg + "\n")
        self.stream.flush()


def batch(args) -> int:
    try:
        data = load_study(args.study)
        runout = set(parse_cards(str(data.get("runout", ""))))
        flops, log_name = part_of(select(args.flops, args.seed), args.part)
        flops = [f for f in flops if not set(f.cards) & runout]
        if flops:
            study_game(data, flops[0].cards)  # the study's faults show before any job starts
    except (OSError, ValueError) as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 2
    if shutil.which("parallel") is None:
        print("corvanta: GNU parallel is missing (apt-get install parallel)", file=sys.stderr)
        return 2
    out = Path(args.out).resolve()
    out.mkdir(parents=True, exist_ok=True)
    key = study_key(data)
    listing = out / f"{log_name.replace('joblog', 'flops')}.txt"
    write_atomic(listing, "".join(f"{f.name} {f.weight}\n" for f in flops))
    log = out / log_name
    clean_joblog(log, flops, out, key)
    done = sum(summary_ok(out / f"{f.name}.json", key) for f in flops)
    binary = str(Path(args.bin).resolve()) if args.bin else os.environ.get("CORVANTA_BIN", "-")
    threads = "-" if args.threads is None else str(args.threads)
    env = dict(os.environ)
    package_root = str(Path(__file__).resolve().parents[1])
    env["CORVANTA_BATCH_PID"] = "0" if args.sshlogin else str(os.getpid())
    env["PYTHONPATH"] = package_root + (os.pathsep + env["PYTHONPATH"] if env.get("PYTHONPATH") else "")
    cmd = ["parallel", "--will-cite", "--quote", "--jobs", str(args.jobs), "--joblog", str(log), "--resume",
           "--colsep", " ", "--arg-file", str(listing)]
    for login in args.sshlogin or []:
        cmd += ["--sshlogin", login]
    if args.sshlogin:
        cmd += ["--env", "PYTHONPATH", "--env", "CORVANTA_BIN"]
    cmd += [sys.executable, "-m", "corvanta.batch", "job", str(Path(args.study).resolve()), str(out),
            "{1}", "{2}", threads, binary]
    progress = Progress(len(flops), done)
    print(f"{len(flops)} flops, {done} done already; results in {out}", file=sys.stderr)
    proc = subprocess.Popen(cmd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    try:
        for text in proc.stdout:
            progress.line(text)
        code = proc.wait()
    except KeyboardInterrupt:
        # Ctrl-C reached parallel and its jobs as well; let them end and say how to go on.
        code = proc.wait()
        print(f"\ninterrupted: {progress.done} of {len(flops)} flops done; the same command goes on",
              file=sys.stderr)
        return 130
    if progress.tty:
        sys.stderr.write("\n")
    finished = sum(summary_ok(out / f"{f.name}.json", key) for f in flops)
    print(f"{finished} of {len(flops)} flops done" +
          (f"; {len(flops) - finished} not: run the same command again" if finished < len(flops) else ""),
          file=sys.stderr)
    return 0 if finished == len(flops) and code == 0 else 1


def add_parser(sub) -> None:
    p = sub.add_parser("batch", help="solve a study's game on many flops through GNU parallel")
    p.add_argument("study", help="the game in TOML without board (runout: cards after the flop)")
    p.add_argument("--flops", default="all", help="all, sample:N, or a file with one flop a line")
    p.add_argument("--seed", type=int, default=1, help="seed of sample:N")
    p.add_argument("--out", required=True, help="folder of the results")
    p.add_argument("--jobs", type=int, default=1, help="engine processes at a time (per machine)")
    p.add_argument("--threads", type=int, help="threads of each engine (default: the study's)")
    p.add_argument("--part", help="K/N: only every N-th flop from the K-th on (K from 0)")
    p.add_argument("--sshlogin", action="append", help="a machine for GNU parallel (repeatable; ':' is this one)")
    p.add_argument("--bin", help="the engine (default: $CORVANTA_BIN, else build/corvanta)")
    p.set_defaults(run=batch)


if __name__ == "__main__":
    if sys.argv[1:2] == ["job"] and len(sys.argv) == 8:
        sys.exit(job(sys.argv[2:]))
    print("usage: python3 -m corvanta batch ... (this module's own entry runs one flop for it)", file=sys.stderr)
    sys.exit(2)
