"""A study over many flops: one engine process per flop, run by GNU parallel.

    python3 -m corvanta batch study.toml --flops all|sample:N|list.txt --out DIR --jobs J --threads T

The study is a game in the TOML format of game.py without `board`; `runout`
may name the turn (and river) card dealt after each flop, for studies of a
later street. The flops are the classes of flops.py under the suit renamings
that keep the run-out and both ranges.

A folder holds one study: DIR/study.key names it (its settings and its kind of
weights) and a batch of another study refuses the folder. Each job sends its
results back on its standard output, so a job on another machine needs no
shared disk: the batch writes NAME.json (the summary) and, with --trees,
NAME.tree (the engine's tree file, first), each under a temporary name and
renamed. The summary is what marks a flop done: the batch hands GNU parallel
only the flops without one, so the same command resumes a batch that was
stopped in any way and no flop is solved twice.
"""
from __future__ import annotations

import base64
import hashlib
import json
import os
import platform
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import tomllib
from dataclasses import dataclass
from pathlib import Path

from .cards import HAND_CARDS, HAND_NAMES, card_text, hand_touches, parse_cards
from .client import EngineError, Solver, default_binary
from .flops import SUIT_PERMUTATIONS, Flop, Renaming, classes, select, symmetry, textures
from .game import Game, GameError
from .lines import build_tree
from .ranges import parse_range

STARTED = time.monotonic()
STUDY_FILE = "study.key"
TREE_CHUNK = 48 * 1024  # bytes of tree file per output line, 64 KB in base64


class StudyError(ValueError):
    pass


def load_study(path: str | Path) -> dict:
    try:
        with open(path, "rb") as f:
            data = tomllib.load(f)
    except (tomllib.TOMLDecodeError, UnicodeDecodeError) as e:
        raise StudyError(f"{path}: {e}") from None
    if "board" in data:
        raise StudyError(f"{path}: a study leaves the board open (cards after the flop go in runout)")
    return data


def study_key(data: dict, weights: str) -> str:
    """Same settings and weights, same key: a summary of another study is not taken as done."""
    text = json.dumps({"settings": data, "weights": weights}, sort_keys=True, default=str)
    return hashlib.sha256(text.encode()).hexdigest()[:16]


def study_game(data: dict, flop_cards, threads: int | None = None) -> Game:
    game = dict(data)
    runout = str(game.pop("runout", ""))
    game["board"] = " ".join(card_text(c) for c in flop_cards) + " " + runout
    if threads is not None:
        game["threads"] = threads
    return Game.from_dict(game)


@dataclass
class Plan:
    """What a batch solves: the study's settings, its flops and what their weights mean."""
    data: dict
    runout: tuple[int, ...]
    group: tuple[Renaming, ...]
    witness: str | None  # a range's hand that rules renamings out
    flops: list[Flop]
    weights: str         # "class", or "sample (seed N)": each drawn flop weighs 1
    log_name: str

    @property
    def key(self) -> str:
        return study_key(self.data, self.weights)

    @property
    def runout_text(self) -> str:
        return " ".join(card_text(c) for c in self.runout)

    def board(self, flop: Flop) -> str:
        return " ".join(card_text(c) for c in (*flop.cards, *self.runout))

    def symmetry_note(self) -> str:
        raw = sum(f.weight for f in classes(self.group, self.runout))
        kept = [*(["the run-out " + self.runout_text] if self.runout else []), "both ranges"]
        text = (f"flops are classed by the {len(self.group)} of {len(SUIT_PERMUTATIONS)} suit renamings that keep "
                f"{' and '.join(kept)}; class weights add up to the {raw} raw flops"
                + (" off the run-out" if self.runout else ""))
        if self.witness:
            text += f" ({self.witness} in a range rules out the others)"
        if self.weights != "class":
            text += "; a sample weighs each drawn flop 1"
        return text


def make_plan(args) -> Plan:
    data = load_study(args.study)
    try:
        runout = tuple(parse_cards(str(data.get("runout", ""))))
    except ValueError as e:
        raise StudyError(f"runout: {e}") from None
    if len(runout) > 2:
        raise StudyError(f"runout: the turn and the river at most, not {len(runout)} cards")
    # The study's faults show before any job starts: the game on some flop off the run-out.
    study_game(data, [c for c in range(52) if c not in runout][:3])
    group, witness = symmetry(runout, [parse_range(str(data["ranges"][p])) for p in ("oop", "ip")])
    flops, log_name = part_of(select(args.flops, args.seed, group, runout), args.part)
    weights = f"sample (seed {args.seed})" if args.flops.startswith("sample:") else "class"
    return Plan(data, runout, group, witness, flops, weights, log_name)


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
    try:
        with open(tmp, "w") as f:
            f.write(text)
        durable_rename(tmp, path)
    finally:
        tmp.unlink(missing_ok=True)


def _quoted(path: Path) -> str:
    text = str(path)
    if '"' in text or "\n" in text:
        raise EngineError(f"the engine can't take the file name {text!r}")
    return f'"{text}"' if any(ch.isspace() for ch in text) else text


# -- one flop, wherever it runs -----------------------------------------------

def solve_flop(data: dict, name: str, threads: int | None, binary: str | None, trees: bool,
               engines: list[Solver]) -> dict:
    """The results of one flop; with `trees`, the tree file goes to standard output first."""
    game = study_game(data, parse_cards(name), threads)
    with Solver(binary) as solver:
        engines.append(solver)
        started = time.monotonic()
        game.set_up(solver)
        results = solver.solve(accuracy=game.accuracy, seconds=game.seconds, steps=game.steps)
        engine_seconds = time.monotonic() - started
        out = {"results": {**results.__dict__, "exploitability_share": results.exploitability / game.pot},
               "equity": {p.lower(): range_equity(solver, p) for p in ("OOP", "IP")},
               "root": root_summary(solver, game)}
        if trees:
            with tempfile.TemporaryDirectory(prefix="corvanta-") as folder:
                tree = Path(folder) / f"{name}.tree"
                solver.command(f"dump_tree {_quoted(tree)}", timeout=600)
                with open(tree, "rb") as f:
                    while chunk := f.read(TREE_CHUNK):
                        sys.stdout.write(f"tree {name} {base64.b64encode(chunk).decode()}\n")
    out["seconds"] = {"engine": round(engine_seconds, 3), "job": round(time.monotonic() - STARTED, 3)}
    out["host"] = platform.node()
    return out


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
    """One flop, as GNU parallel runs it here or on another machine. The study comes in
    $CORVANTA_STUDY; the results leave on standard output: "tree NAME DATA" lines (with
    trees), then "done NAME RESULTS", or "fail NAME" with the reason on standard error."""
    threads, binary, trees, name = argv
    engines: list[Solver] = []
    watch_batch(engines)
    try:
        data = json.loads(os.environ.get("CORVANTA_STUDY", ""))
        result = solve_flop(data, name, int(threads) if threads != "-" else None,
                            None if binary == "-" else binary, trees == "trees", engines)
    except (OSError, ValueError, GameError, EngineError) as e:
        print(f"corvanta: {name}: {e}", file=sys.stderr, flush=True)
        print(f"fail {name}", flush=True)
        return 1
    print(f"done {name} {json.dumps(result)}", flush=True)
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


def claim(out: Path, plan: Plan) -> None:
    """A folder holds one study. Its key file says which; a folder without one (an older
    batch's) is judged by its summaries. Writing the key file also shows the folder takes files."""
    out.mkdir(parents=True, exist_ok=True)
    marker = out / STUDY_FILE
    theirs = None
    if marker.exists():
        try:
            theirs = json.loads(marker.read_text())["study"]
        except (ValueError, KeyError, TypeError):
            raise StudyError(f"{marker}: not a study key file") from None
    else:
        for path in sorted(out.glob("*.json")):
            try:
                theirs = json.loads(path.read_text()).get("study")
            except (OSError, ValueError, AttributeError):
                continue
            if theirs != plan.key:
                break
    if theirs not in (None, plan.key):
        raise StudyError(f"--out {out}: holds another study ({theirs}); this one ({plan.key}) has other settings "
                         "or flop weights: use another folder")
    if not marker.exists():
        text = json.dumps({"study": plan.key, "weights": plan.weights, "renamings": len(plan.group),
                           "settings": plan.data}, indent=1, default=str)
        write_atomic(marker, text + "\n")


def _size(n: float) -> str:
    for unit in ("B", "KB", "MB", "GB"):
        if n < 1024 or unit == "GB":
            return f"{n:.0f} {unit}" if unit == "B" or n >= 10 else f"{n:.1f} {unit}"
        n /= 1024
    raise AssertionError


def storage_figure(game: Game, binary: str) -> int | None:
    """The engine's figure for the storage of the built game, in bytes: the tree file of the
    solved game comes out at about that size or, compressed, below it."""
    try:
        run = subprocess.run([binary, "-v"], input="\n".join([*game.script(), "exit"]) + "\n",
                             capture_output=True, text=True, timeout=300)
    except (OSError, subprocess.SubprocessError):
        return None
    m = re.search(r"\[uncompressed storage (\d+) MB\]", run.stdout)
    return max(1, int(m[1])) << 20 if m else None


def disk_use(plan: Plan, todo: list[Flop], out: Path, trees: bool, binary: str) -> list[str]:
    """What the flops still to do will put on disk, from the summaries and trees of this study
    already there or, before the first, from the range and the root's actions and the engine's
    storage figure."""
    def mean(paths: list[Path]) -> float | None:
        sizes = [p.stat().st_size for p in paths[:50]]
        return sum(sizes) / len(sizes) if sizes else None

    game = study_game(plan.data, todo[0].cards)
    summary = mean([out / f"{f.name}.json" for f in plan.flops if (out / f"{f.name}.json").exists()])
    if summary is None:
        hands = sum(1 for h, w in enumerate(parse_range(game.oop_range)) if w > 0 and not hand_touches(h, game.board))
        actions = len(build_tree(game.rules).children)
        summary = 1500 + len(json.dumps(plan.data, indent=1, default=str)) + hands * (32 + 22 * actions)
    text = f"disk: about {_size(summary)} of summary a flop"
    total = summary * len(todo)
    if trees:
        tree, source = mean(sorted(out.glob("*.tree"))), "the trees here"
        if tree is None:
            figure = storage_figure(game, binary)
            tree, source = figure, f"the engine's storage figure for {todo[0].name}"
        if tree is None:
            text += " and an unknown size of tree (the engine gave no storage figure)"
        else:
            text += f" and up to {_size(tree)} of tree ({source})"
            total += tree * len(todo)
    else:
        text += " (no trees: --trees keeps them)"
    free = shutil.disk_usage(out).free
    lines = [f"{text}: {_size(total)} for {len(todo)} flops, {_size(free)} free in {out}"]
    if total > free:
        lines.append(f"corvanta: warning: the batch may need more than the {_size(free)} free in {out}")
    return lines


class Progress:
    def __init__(self, total: int, done: int, stream=sys.stderr):
        self.total, self.done, self.failed, self.solved = total, done, 0, 0
        self.stream, self.tty = stream, stream.isatty()
        self.start = time.monotonic()

    def count(self, word: str, name: str) -> None:
        if word == "done":
            self.done += 1
            self.solved += 1
        else:
            self.failed += 1
        left = self.total - self.done - self.failed
        eta = "?"
        if self.solved:
            eta = _duration((time.monotonic() - self.start) / self.solved * left)
        msg = f"{self.done}/{self.total} flops done" + (f", {self.failed} failed" if self.failed else "") + \
              (f", about {eta} left" if left else "") + f" ({word} {name})"
        self.stream.write(f"\r{msg:<78}" if self.tty else msg + "\n")
        self.stream.flush()


def _duration(seconds: float) -> str:
    seconds = int(seconds)
    if seconds >= 3600:
        return f"{seconds // 3600}h{seconds % 3600 // 60:02d}m"
    return f"{seconds // 60}m{seconds % 60:02d}s"


class Home:
    """Where the jobs' results land: the tree file first, then the summary, each renamed into place."""

    def __init__(self, out: Path, plan: Plan, todo: list[Flop], trees: bool):
        self.out, self.plan, self.trees = out, plan, trees
        self.todo = {f.name: f for f in todo}
        self.partial: dict[str, tuple[Path, object]] = {}
        self.broken: set[str] = set()

    def tree_part(self, name: str, data: str) -> None:
        if name not in self.partial:
            tmp = self.out / f".{name}.tree.{os.getpid()}.tmp"
            self.partial[name] = (tmp, open(tmp, "wb"))
        self.partial[name][1].write(base64.b64decode(data, validate=True))

    def drop(self, name: str) -> None:
        tmp, f = self.partial.pop(name, (None, None))
        if tmp:
            f.close()
            tmp.unlink(missing_ok=True)

    def done(self, name: str, text: str) -> None:
        flop = self.todo[name]
        result = json.loads(text)
        if not isinstance(result, dict) or not {"results", "equity", "root", "seconds"} <= result.keys():
            raise ValueError("the job's results lack a part")
        summary = {"flop": name, "weight": flop.weight, "board": self.plan.board(flop),
                   "textures": textures(flop.cards), "study": self.plan.key, "weights": self.plan.weights,
                   "settings": self.plan.data, **result}
        if self.trees:
            if name not in self.partial:
                raise ValueError("no tree file came with the results")
            tmp, f = self.partial[name]
            f.close()
            durable_rename(tmp, self.out / f"{name}.tree")
            del self.partial[name]
            summary["tree_file"] = f"{name}.tree"
        write_atomic(self.out / f"{name}.json", json.dumps(summary, indent=1, default=str) + "\n")

    def line(self, text: str, progress: Progress) -> None:
        word, name, rest = (text.rstrip("\n").split(" ", 2) + ["", ""])[:3]
        if name not in self.todo or word not in ("tree", "done", "fail"):
            return
        try:
            if word == "tree":
                if name not in self.broken:
                    self.tree_part(name, rest)
                return
            if word == "done":
                if name in self.broken:
                    raise ValueError("its tree file came back damaged")
                self.done(name, rest)
        except (OSError, ValueError, KeyError) as e:
            print(f"corvanta: {name}: results not taken: {e}", file=sys.stderr)
            self.broken.add(name)
            self.drop(name)
            if word == "tree":
                return
            word = "fail"
        self.broken.discard(name)
        self.drop(name)
        progress.count(word, name)

    def close(self) -> None:
        for name in list(self.partial):
            self.drop(name)


def batch(args) -> int:
    try:
        plan = make_plan(args)
    except (OSError, ValueError) as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 2
    if args.dry_run:
        runout = f" {plan.runout_text}" if plan.runout else ""
        print("".join(f"{f.name}{runout} {f.weight}\n" for f in plan.flops), end="")
        print(f"{len(plan.flops)} boards, weight {sum(f.weight for f in plan.flops)}; {plan.symmetry_note()}",
              file=sys.stderr)
        return 0
    if not args.out:
        print("corvanta: --out: the folder of the results is missing", file=sys.stderr)
        return 2
    if shutil.which("parallel") is None:
        print("corvanta: GNU parallel is missing (apt-get install parallel)", file=sys.stderr)
        return 2
    out = Path(args.out).resolve()
    key = plan.key
    try:
        claim(out, plan)
        write_atomic(out / f"{plan.log_name.replace('joblog', 'flops')}.txt",
                     "".join(f"{f.name} {f.weight}\n" for f in plan.flops))
    except StudyError as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 2
    except OSError as e:
        print(f"corvanta: --out {out}: can't write there ({e.strerror or e})", file=sys.stderr)
        return 2
    todo = [f for f in plan.flops if not summary_ok(out / f"{f.name}.json", key)]
    # A batch killed while a result came home leaves its temporary files; these flops are ours now.
    for f in todo:
        for stale in out.glob(f".{f.name}.*"):
            stale.unlink(missing_ok=True)
    print(f"{len(plan.flops)} flops, {len(plan.flops) - len(todo)} done already; results in {out}", file=sys.stderr)
    if plan.witness or plan.runout:
        print(plan.symmetry_note(), file=sys.stderr)
    binary = str(Path(args.bin).resolve()) if args.bin else os.environ.get("CORVANTA_BIN", "-")
    if todo:
        for line in disk_use(plan, todo, out, args.trees, default_binary() if binary == "-" else binary):
            print(line, file=sys.stderr)
        code = run_parallel(args, plan, todo, out, binary)
        if code == 130:
            return 130
    finished = sum(summary_ok(out / f"{f.name}.json", key) for f in plan.flops)
    print(f"{finished} of {len(plan.flops)} flops done" +
          (f"; {len(plan.flops) - finished} not: run the same command again" if finished < len(plan.flops) else ""),
          file=sys.stderr)
    return 0 if finished == len(plan.flops) else 1


def run_parallel(args, plan: Plan, todo: list[Flop], out: Path, binary: str) -> int:
    env = dict(os.environ)
    package_root = str(Path(__file__).resolve().parents[1])
    env["CORVANTA_BATCH_PID"] = "0" if args.sshlogin else str(os.getpid())
    env["PYTHONPATH"] = package_root + (os.pathsep + env["PYTHONPATH"] if env.get("PYTHONPATH") else "")
    env["CORVANTA_STUDY"] = json.dumps(plan.data, default=str)
    # Without --jobs, "8/host" is eight jobs on host: as many as the CPUs it is said to have.
    jobs = str(args.jobs) if args.jobs else "100%" if args.sshlogin else "1"
    log = out / plan.log_name
    cmd = ["parallel", "--will-cite", "--quote", "--jobs", jobs, "--joblog", f"+{log}" if log.exists() else str(log)]
    for login in args.sshlogin or []:
        cmd += ["--sshlogin", login]
    if args.sshlogin:
        cmd += ["--env", "PYTHONPATH", "--env", "CORVANTA_BIN", "--env", "CORVANTA_STUDY"]
    cmd += [sys.executable, "-m", "corvanta.batch", "job", "-" if args.threads is None else str(args.threads),
            binary, "trees" if args.trees else "-", "{}", ":::", *(f.name for f in todo)]
    progress = Progress(len(plan.flops), len(plan.flops) - len(todo))
    home = Home(out, plan, todo, args.trees)
    proc = subprocess.Popen(cmd, env=env, cwd=out, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    try:
        for text in proc.stdout:
            home.line(text, progress)
        code = proc.wait()
    except KeyboardInterrupt:
        # Ctrl-C reached parallel and its jobs as well; let them end and say how to go on.
        proc.wait()
        print(f"\ninterrupted: {progress.done} of {len(plan.flops)} flops done; the same command goes on",
              file=sys.stderr)
        return 130
    finally:
        home.close()
    if progress.tty:
        sys.stderr.write("\n")
    return code


def add_parser(sub) -> None:
    p = sub.add_parser("batch", help="solve a study's game on many flops through GNU parallel")
    p.add_argument("study", help="the game in TOML without board (runout: cards after the flop)")
    p.add_argument("--flops", default="all", help="all, sample:N, or a file with one flop a line")
    p.add_argument("--seed", type=int, default=1, help="seed of sample:N")
    p.add_argument("--out", help="folder of the results (one study a folder)")
    p.add_argument("--jobs", type=int,
                   help="engine processes at a time on each machine (default 1; with --sshlogin N/host, N)")
    p.add_argument("--threads", type=int, help="threads of each engine (default: the study's)")
    p.add_argument("--part", help="K/N: only every N-th flop from the K-th on (K from 0)")
    p.add_argument("--sshlogin", action="append",
                   help="a machine for GNU parallel (repeatable; ':' is this one); results come home")
    p.add_argument("--bin", help="the engine (default: $CORVANTA_BIN, else build/corvanta)")
    p.add_argument("--trees", action="store_true", help="keep each flop's tree file, not only its summary")
    p.add_argument("--dry-run", action="store_true",
                   help="print each board (flop and run-out) with its weight, and solve nothing")
    p.set_defaults(run=batch)


if __name__ == "__main__":
    if sys.argv[1:2] == ["job"] and len(sys.argv) == 6:
        sys.exit(job(sys.argv[2:]))
    print("usage: python3 -m corvanta batch ... (this module's own entry runs one flop for it)", file=sys.stderr)
    sys.exit(2)
