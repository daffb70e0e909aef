"""The reports of a node (PNG and HTML) and a tree file the engine refuses, over the real engine.

The game is tiny and solved for a fixed number of steps on one thread, so the
command's engine and the test's own engine hold the same strategies: the
test's engine is the oracle for what the reports show.
"""
import re
import struct
import subprocess
import sys
from pathlib import Path

import pytest

from corvanta.cards import HAND_CARDS, HAND_NAMES, RANKS, parse_cards
from corvanta.client import Solver
from corvanta.game import Game

ROOT = Path(__file__).resolve().parents[2]
RIVER = """board = "Qs Jh 2h 7c 4d"
pot = 100
stack = 200
accuracy = 0
steps = 100
threads = 1
[ranges]
oop = "QQ,JJ,AQ,KQs,T9s,A5s"
ip = "AA,QJs,KQ,JTs,98s"
[tree.river]
bet = "50%"
raise = "a"
"""


def cell_of(hand: int) -> str:
    a, b = HAND_CARDS[hand]
    hi, lo = RANKS[max(a, b) // 4], RANKS[min(a, b) // 4]
    return hi * 2 if hi == lo else hi + lo + ("s" if a % 4 == b % 4 else "o")


def expected_mix(solver, path, player):
    """Each cell's action shares straight from the engine's rows: weighted by the range, off the board."""
    lines = solver.command(f"show_node {path}")
    board = set(parse_cards("".join(lines[2].split())))
    strategy = solver.strategy(path)
    weights = solver.range(player, path).values
    sums: dict[str, dict[str, float]] = {}
    for h in range(len(HAND_NAMES)):
        if weights[h] > 0 and not set(HAND_CARDS[h]) & board:
            cell = sums.setdefault(cell_of(h), {"": 0.0})
            cell[""] += weights[h]
            for a in strategy:
                cell[a] = cell.get(a, 0.0) + weights[h] * strategy[a][h]
    return {c: {a: v / s[""] for a, v in s.items() if a} for c, s in sums.items()}


@pytest.fixture(scope="module")
def river(tmp_path_factory, engine):
    """The game on disk, and an engine of the test's own, solved the same way."""
    path = tmp_path_factory.mktemp("games") / "river.toml"
    path.write_text(RIVER)
    solver = Solver(engine)
    game = Game.from_toml(path)
    game.set_up(solver)
    solver.solve(accuracy=game.accuracy, steps=game.steps)
    yield path, solver
    solver.close()


def report(engine, game, tmp_path, *args):
    png, page = tmp_path / "grid.png", tmp_path / "report.html"
    run = subprocess.run([sys.executable, "-m", "corvanta", "report", str(game), *args, "--png", str(png),
                          "--html", str(page), "--bin", engine, "--quiet"],
                         cwd=ROOT / "python", capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    text = page.read_text()
    cells = re.findall(r'<g class="cell" data-hand="(\w+)" data-weight="[\d.]+" data-mix="([^"]*)">', text)
    assert len(cells) == 169 and "<script" not in text
    return png, {hand: {a: float(v) for a, v in (x.split(":") for x in mix.split(","))} for hand, mix in cells if mix}


def test_report_png_and_html_hold_the_engines_numbers(engine, river, tmp_path):
    game, oracle = river
    png, got = report(engine, game, tmp_path, "--path", "r:0:b50")
    header = png.read_bytes()[:24]
    assert header[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", header[16:24]) == (1200, 720)
    want = expected_mix(oracle, "r:0:b50", "IP")
    assert got.keys() == want.keys() and set(next(iter(want.values()))) == {"f", "c", "b200"}
    assert all(got[c] == pytest.approx(want[c], abs=1e-6) for c in want)


def test_a_dumped_tree_reports_what_its_game_showed(engine, river, tmp_path):
    _, oracle = river
    tree = tmp_path / "river.tree"
    oracle.command(f"dump_tree {tree}")
    _, got = report(engine, tree, tmp_path, "--path", "r:0")
    want = expected_mix(oracle, "r:0", "OOP")
    assert got.keys() == want.keys() and all(got[c] == pytest.approx(want[c], abs=1e-6) for c in want)


@pytest.mark.parametrize("content", [b"not a tree", bytes(range(256)) * 64])
def test_a_damaged_tree_file_ends_view_and_report_with_an_error(engine, tmp_path, content):
    tree = tmp_path / "game.tree"
    tree.write_bytes(content)
    for args in (["view", str(tree)], ["report", str(tree), "--html", str(tmp_path / "r.html")]):
        run = subprocess.run([sys.executable, "-m", "corvanta", *args, "--bin", engine], cwd=ROOT / "python",
                             capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL)
        assert run.returncode == 1 and "game.tree" in run.stderr and not run.stdout, (args, run.stderr)
    assert not (tmp_path / "r.html").exists()
