"""The command line as a user meets it: bad input, missing matplotlib, the installed package.

Bad input of every kind ends in one line that names the field or the file and
exit code 2, before an engine is started: the refusals run with an engine
that doesn't exist, so reaching the solve would end with exit code 1 instead.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import urllib.request
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
GAME = """board = "Qs Jh 2h 7c 4d"
pot = 100
stack = 200
accuracy = 0
steps = 30
threads = 1
[ranges]
oop = "QQ,JJ,AQ,KQs"
ip = "AA,QJs,KQ"
[tree.river]
bet = "50%"
raise = "a"
"""
TURN = GAME.replace('"Qs Jh 2h 7c 4d"', '"Qs Jh 2h 7c"').replace("[tree.river]", "[tree.turn]")
NO_ENGINE = "/nonexistent/corvanta"


def corvanta(*args, cwd=None, env=None, python=(sys.executable,), timeout=120):
    return subprocess.run([*python, "-m", "corvanta", *map(str, args)], cwd=cwd or ROOT / "python",
                          env=env, capture_output=True, text=True, timeout=timeout, stdin=subprocess.DEVNULL)


def edit(old, new, text=GAME):
    assert old in text
    return text.replace(old, new, 1)


# Each row: what the game file holds (text or bytes; None: there is none), the
# command's arguments after the game, and the words the one line must hold.
BAD = {
    "accuracy inf": (edit("accuracy = 0", "accuracy = inf"), [], "accuracy"),
    "accuracy nan": (edit("accuracy = 0", "accuracy = nan"), [], "accuracy"),
    "allin_threshold text": (edit("[tree.river]", '[tree]\nallin_threshold = "x"\n[tree.river]'), [],
                             "tree.allin_threshold"),
    "min_bet text": (edit("[tree.river]", '[tree]\nmin_bet = "x"\n[tree.river]'), [], "tree.min_bet"),
    "tree a number": ("tree = 5\n" + GAME.split("[tree.river]")[0], [], "tree:"),
    "not UTF-8": (GAME.encode().replace(b'"a"', b'"\xff"'), [], "game.toml"),
    "pot true": (edit("pot = 100", "pot = true"), [], "pot"),
    "stack true": (edit("stack = 200", "stack = true"), [], "stack"),
    "max_raises true": (edit('raise = "a"', 'raise = "a"\nmax_raises = true'), [], "max_raises"),
    "empty range": (edit('oop = "QQ,JJ,AQ,KQs"', 'oop = ""'), [], "ranges.oop"),
    "range the board blocks": (edit('ip = "AA,QJs,KQ"', 'ip = "QsQh,JhJd"'), [], "ranges.ip"),
    "ranges never meet": (edit('oop = "QQ,JJ,AQ,KQs"', 'oop = "AsAd"').replace('"AA,QJs,KQ"', '"AsAc"'), [],
                          "ranges"),
    "flop sizes in a turn game": (edit("[tree.turn]", '[tree.flop]\nbet = "50%"\n[tree.turn]', TURN), [],
                                  "tree.flop"),
    "no street table": (GAME.split("[tree.river]")[0], [], "tree"),
    "bet a number": (edit('bet = "50%"', "bet = 50"), [], "tree.river"),
    "raise below the bet": (edit('raise = "a"', 'raise = "0.5x"'), [], "0.5x"),
    "seconds negative": (edit("steps = 30", "seconds = -5"), [], "seconds"),
    "solve --out in no folder": (GAME, ["--out", "{tmp}/missing/result.json"], "--out"),
    "report --html in no folder": (GAME, ["--html", "{tmp}/missing/report.html"], "--html"),
    "report of a bad game": (edit("pot = 100", "pot = true"), ["--html", "{tmp}/report.html"], "pot"),
    "view --port 99999": (GAME, ["--port", "99999"], "--port"),
    "view of a bad game": (edit("accuracy = 0", "accuracy = nan"), [], "accuracy"),
    "view of no file": (None, [], "game.tree"),
    "view on every address": (GAME, ["--host", "0.0.0.0"], "--host"),
    "view with a folder that isn't there": (GAME, ["--folder", "{tmp}/missing"], "--folder"),
    "report of no file": (None, ["--html", "{tmp}/report.html"], "game.tree"),
}


def command_of(case):
    return "report" if case.startswith("report") else "view" if case.startswith("view") else "solve"


@pytest.mark.parametrize("case", BAD)
def test_bad_input_is_one_line_and_exit_2_before_the_solve(case, tmp_path):
    content, args, words = BAD[case]
    game = tmp_path / ("game.tree" if content is None else "game.toml")
    if content is not None:
        game.write_bytes(content if isinstance(content, bytes) else content.encode())
    run = corvanta(command_of(case), game, *(a.format(tmp=tmp_path) for a in args), "--bin", NO_ENGINE,
                   timeout=30)
    assert run.returncode == 2, run.stderr
    assert run.stderr.count("\n") == 1 and words in run.stderr and "Traceback" not in run.stderr, run.stderr
    assert not run.stdout and not list(tmp_path.rglob("*.json")) + list(tmp_path.rglob("*.html"))


def test_the_game_of_the_table_solves(engine, tmp_path):
    """The rows above each break one thing of a game that works."""
    (tmp_path / "game.toml").write_text(GAME)
    out = tmp_path / "result.json"
    run = corvanta("solve", tmp_path / "game.toml", "--out", out, "--bin", engine, "--quiet")
    assert run.returncode == 0, run.stderr
    assert json.loads(out.read_text())["results"]["iterations"] >= 30
    assert sorted(p.name for p in tmp_path.iterdir()) == ["game.toml", "result.json"]  # no temporary left


# -- matplotlib -------------------------------------------------------------

HIDE = """import sys
class Hide:
    def find_spec(self, name, path=None, target=None):
        if name == "matplotlib" or name.startswith("matplotlib."):
            raise ModuleNotFoundError(f"No module named {name!r}", name=name)
sys.meta_path.insert(0, Hide())
"""


def test_report_without_matplotlib(engine, tmp_path):
    hide = tmp_path / "hide"
    hide.mkdir()
    (hide / "sitecustomize.py").write_text(HIDE)
    env = {**os.environ, "PYTHONPATH": os.pathsep.join([str(hide), str(ROOT / "python")])}
    (tmp_path / "game.toml").write_text(GAME)
    png, page = tmp_path / "grid.png", tmp_path / "report.html"
    run = corvanta("report", tmp_path / "game.toml", "--png", png, "--html", page, "--bin", NO_ENGINE, env=env)
    assert run.returncode == 2 and run.stderr.count("\n") == 1 and "python3-matplotlib" in run.stderr, run.stderr
    run = corvanta("report", tmp_path / "game.toml", "--html", page, "--bin", engine, "--quiet", env=env)
    assert run.returncode == 0, run.stderr
    assert page.read_text().count('<g class="cell" ') == 169 and not png.exists()


def test_the_app_without_flask_names_the_package(tmp_path):
    hide = tmp_path / "hide"
    hide.mkdir()
    (hide / "sitecustomize.py").write_text(HIDE.replace('"matplotlib"', '"flask"').replace("matplotlib.", "flask."))
    env = {**os.environ, "PYTHONPATH": os.pathsep.join([str(hide), str(ROOT / "python")])}
    run = corvanta("app", "--bin", NO_ENGINE, env=env, timeout=30)
    assert run.returncode == 2 and run.stderr.count("\n") == 1 and "python3-flask" in run.stderr, run.stderr


DEBIAN_MATPLOTLIB = Path("/usr/lib/python3/dist-packages/matplotlib") / f"_path{sysconfig.get_config_var('EXT_SUFFIX')}"


@pytest.mark.skipif(not DEBIAN_MATPLOTLIB.exists(), reason="no python3-matplotlib for this python")
def test_report_finds_debians_matplotlib_from_a_python_without_it(engine, tmp_path):
    # -S: no site module, so Debian's dist-packages is not on the path, as for a python of one's own.
    (tmp_path / "game.toml").write_text(GAME)
    png = tmp_path / "grid.png"
    run = corvanta("report", tmp_path / "game.toml", "--png", png, "--bin", engine, "--quiet",
                   python=(sys.executable, "-S"))
    assert run.returncode == 0, run.stderr
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


# -- the package ------------------------------------------------------------

def debian_pip() -> bool:
    python = "/usr/bin/python3"
    return Path(python).exists() and all(subprocess.run([python, *args], capture_output=True).returncode == 0
                                         for args in (["-m", "pip", "--version"], ["-c", "import setuptools, wheel"]))


@pytest.mark.skipif(not debian_pip(), reason="no python3-pip, python3-setuptools and python3-wheel")
def test_the_wheel_installs_and_serves_the_app(engine, tmp_path):
    # A copy laid out as the checkout is (pip builds in the source folder); no network, no build isolation.
    source = tmp_path / "python"
    shutil.copytree(ROOT / "python", source, ignore=shutil.ignore_patterns("tests", "__pycache__", "build",
                                                                            "*.egg-info"))
    shutil.copy(ROOT / "README.md", tmp_path)
    pip = ["/usr/bin/python3", "-m", "pip", "--disable-pip-version-check", "--no-input"]
    run = subprocess.run([*pip, "wheel", "--no-index", "--no-build-isolation", "--no-deps", "-w", tmp_path / "dist",
                          source], capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stdout + run.stderr
    wheel, = (tmp_path / "dist").glob("corvanta-*.whl")
    site = tmp_path / "site"
    run = subprocess.run([*pip, "install", "--no-index", "--no-deps", "--target", site, wheel],
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stdout + run.stderr
    assert (site / "corvanta" / "py.typed").exists()

    (tmp_path / "game.toml").write_text(GAME)
    env = {**os.environ, "PYTHONPATH": str(site)}
    proc = subprocess.Popen(["/usr/bin/python3", "-m", "corvanta", "view", tmp_path / "game.toml", "--bin", engine],
                            cwd=tmp_path, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)
    try:
        line = proc.stdout.readline()
        url = re.search(r"http://127\.0\.0\.1:\d+/", line)
        assert url, line + (proc.stderr.read() if proc.poll() is not None else "")
        url = url[0]
        static = ROOT / "python" / "corvanta" / "static"
        for page in ("", *(f"static/{p.name}" for p in static.iterdir() if p.name != "app.html")):
            with urllib.request.urlopen(url + page, timeout=30) as r:
                assert r.read() == (static / (page[len("static/"):] or "app.html")).read_bytes()
    finally:
        proc.terminate()
        proc.wait(10)
