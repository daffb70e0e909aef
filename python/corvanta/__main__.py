"""python3 -m corvanta solve game.toml --out result.json
python3 -m corvanta script game.toml        (the engine commands of the game)
python3 -m corvanta app [GAME]              (the solver in a local web page; view GAME the same)"""
from __future__ import annotations

import argparse
import json
import math
import sys
import time

from .cards import HAND_CARDS, HAND_NAMES
from .client import EngineError, EngineNotImplemented, Report, Solver
from .files import TargetError, check_target, replace
from .game import Game, GameError
from .ranges import parse_range
from . import aggregate, batch


class ProgressBar:
    """One line on a terminal, redrawn per report; one line per report elsewhere."""

    def __init__(self, pot: float, target: float, stream=sys.stderr):
        self.pot, self.target, self.stream = pot, target, stream
        self.first: float | None = None
        self.start = time.monotonic()
        self.tty = stream.isatty()

    def share(self, report: Report) -> float:
        # Exploitability falls roughly geometrically: measure the way on a log scale.
        x = max(report.exploitability, 1e-12)
        if self.first is None:
            self.first = x
        target = max(self.target * self.pot, 1e-12)
        if x <= target or self.first <= target:
            return 1.0
        return max(0.0, min(1.0, math.log(self.first / x) / math.log(self.first / target)))

    def __call__(self, report: Report) -> None:
        width = 30
        done = int(self.share(report) * width)
        it = "?" if report.iteration is None else str(report.iteration)
        text = (f"[{'#' * done}{'.' * (width - done)}] iteration {it:>5}  exploitable "
                f"{report.exploitability:.3f} ({100 * report.exploitability / self.pot:.3f}% of pot)  "
                f"{time.monotonic() - self.start:6.1f} s")
        self.stream.write(("\r" + text) if self.tty else text + "\n")
        self.stream.flush()

    def close(self) -> None:
        if self.tty:
            self.stream.write("\n")


def root_strategy(solver: Solver, game: Game) -> dict:
    """OOP's first decision: for each hand in the range and off the board, each action's share."""
    strategy = solver.strategy("r:0")
    weights = parse_range(game.oop_range)
    board = set(game.board)
    hands = [h for h in range(len(HAND_NAMES)) if weights[h] > 0 and not set(HAND_CARDS[h]) & board]
    return {"player": "OOP", "path": "r:0", "actions": list(strategy.actions), "hands": strategy.by_hand(hands)}


def solve(args) -> int:
    try:
        game = Game.from_toml(args.game)
        if args.out:
            check_target(args.out, "--out")
    except (OSError, GameError, TargetError) as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 2
    bar = ProgressBar(game.pot, game.accuracy)
    try:
        with Solver(args.bin) as solver:
            started = time.monotonic()
            game.set_up(solver)
            results = solver.solve(accuracy=game.accuracy, seconds=game.seconds, steps=game.steps,
                                   progress=None if args.quiet else bar)
            if not args.quiet:
                bar.close()
            out = {
                "game": {"file": args.game, **game.source, "lines": len(game.lines())},
                "results": {**results.__dict__, "exploitability_share": results.exploitability / game.pot,
                            "seconds": round(time.monotonic() - started, 3)},
                "reports": [r.__dict__ for r in solver.reports],
            }
            try:
                out["root_strategy"] = root_strategy(solver, game)
            except EngineNotImplemented as e:
                out["root_strategy"] = None
                print(f"corvanta: no root strategy: {e}", file=sys.stderr)
    except EngineError as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 1
    text = json.dumps(out, indent=1)
    if args.out:
        try:
            replace(args.out, lambda tmp: tmp.write_text(text + "\n"))
        except OSError as e:
            print(f"corvanta: --out {args.out}: {e.strerror or e}", file=sys.stderr)
            return 1
    else:
        print(text)
    r = results
    print(f"EV OOP {r.ev_oop:.3f}  EV IP {r.ev_ip:.3f}  exploitable {r.exploitability:.3f} "
          f"({100 * r.exploitability / game.pot:.3f}% of pot)  {r.iterations} iterations, {r.stop_reason}"
          + (f"; written to {args.out}" if args.out else ""), file=sys.stderr)
    return 0


def script(args) -> int:
    try:
        print("\n".join(Game.from_toml(args.game).script()))
    except (OSError, GameError) as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 2
    return 0


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m corvanta", description="Solve games described in TOML.")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("solve", help="solve a game file and write the result as JSON")
    p.add_argument("game")
    p.add_argument("--out", help="JSON file to write (default: standard output)")
    p.add_argument("--bin", help="the engine (default: $CORVANTA_BIN, else build/corvanta)")
    p.add_argument("--quiet", action="store_true", help="no progress bar")
    p.set_defaults(run=solve)
    p = sub.add_parser("script", help="print the engine commands that set up the game")
    p.add_argument("game")
    p.set_defaults(run=script)
    from . import app, report
    app.add_parser(sub)
    report.add_parser(sub)
    batch.add_parser(sub)
    aggregate.add_parser(sub)
    args = parser.parse_args(argv)
    return args.run(args)


if __name__ == "__main__":
    sys.exit(main())
