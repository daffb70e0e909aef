"""The viewer's server and page, and the reports, over the real engine.

The games are tiny and solved for a fixed number of steps on one thread, so
the server's engine and the test's own engine hold the same strategies: the
test's engine is the oracle for what the page and the reports show.
"""
import http.client
import json
import os
import re
import selectors
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time
import urllib.error
import urllib.parse
import urllib.request
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from pathlib import Path

import pytest

from corvanta import viewer
from corvanta.cards import HAND_CARDS, HAND_NAMES, RANKS, SUITS, parse_cards
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
TURN = """board = "Qs Jh 2h 7c"
pot = 100
stack = 150
accuracy = 0
steps = 60
threads = 1
[ranges]
oop = "TT+,AQ+,KQ,QJs,QTs,JTs,T9s,98s,A5s-A3s,KJs"
ip = "99+,AJ+,KQ,QJs,KJs,JTs,T9s,87s,A5s"
[tree.turn]
bet = "50%"
max_raises = 0
[tree.river]
bet = "a"
max_raises = 0
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
def games(tmp_path_factory, engine):
    """The two games on disk, and an engine of the test's own for each, solved the same way."""
    folder = tmp_path_factory.mktemp("games")
    out = {}
    for name, text in (("river", RIVER), ("turn", TURN)):
        path = folder / f"{name}.toml"
        path.write_text(text)
        solver = Solver(engine)
        game = Game.from_toml(path)
        game.set_up(solver)
        solver.solve(accuracy=game.accuracy, steps=game.steps)
        out[name] = (path, solver)
    yield out
    for _, solver in out.values():
        solver.close()


def get(url, timeout=30):
    """Status and decoded JSON of a GET."""
    try:
        with urllib.request.urlopen(url, timeout=timeout) as r:
            return r.status, json.loads(r.read())
    except urllib.error.HTTPError as e:
        return e.code, json.loads(e.read())


@contextmanager
def viewing(engine, game, timeout=60):
    """`view GAME` as a child process; yields its address once the game is ready."""
    proc = subprocess.Popen([sys.executable, "-m", "corvanta", "view", str(game), "--bin", engine],
                            cwd=ROOT / "python", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)
    try:
        sel = selectors.DefaultSelector()
        sel.register(proc.stdout, selectors.EVENT_READ)
        assert sel.select(timeout), "the viewer printed no address"
        line = proc.stdout.readline()
        url = re.search(r"http://127\.0\.0\.1:\d+/", line)
        assert url, f"no address in {line!r}"
        deadline = time.monotonic() + timeout
        while (status := get(url[0] + "api/status")[1])["state"] != "ready":
            assert status["state"] != "error" and time.monotonic() < deadline, status
            time.sleep(0.1)
        # A TOML game shows its progress while solving; a stored tree its results at once.
        assert status["game"]["board"] and (status["reports"] or status["game"]["results"])
        yield url[0]
    finally:
        proc.terminate()
        try:
            proc.wait(10)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


@pytest.fixture(scope="module")
def river(engine, games):
    with viewing(engine, games["river"][0]) as url:
        yield url, games["river"][1]


def node_url(url, **params):
    return url + "api/node?" + urllib.parse.urlencode(params)


class TestApi:
    BAD = [{"path": "r:0\nexit"}, {"path": "r:0:b50\r\nexit"}, {"path": "x:0"}, {"path": "r:0:b 50"},
           {"path": "r:0:b999"}, {"path": "r:0:Qs"}, {"path": "r:0:" + "c:" * 60 + "c"},
           {"path": "r:0", "player": "BB"}, {"path": "r:0", "player": "OOP\n"}, {"path": "r:0", "depth": "1"}]

    def test_bad_requests_answer_400_and_the_engine_goes_on(self, river):
        url, _ = river
        good = get(node_url(url, path="r:0:b50"))
        assert good[0] == 200 and good[1]["acting"] == "IP"
        for params in self.BAD:
            status, answer = get(node_url(url, **params))
            assert status == 400 and answer["error"], params
            assert get(node_url(url, path="r:0:b50")) == good
        assert get(url + "api/node?path=r:0&path=r:0:c")[0] == 400
        assert get(url + "../../etc/passwd")[0] == 404

    def test_concurrent_requests_all_answer_correctly(self, river):
        url, oracle = river
        asks = [(p, who) for p in ("r:0", "r:0:c", "r:0:b50", "r:0:c:b50") for who in ("OOP", "IP")]
        with ThreadPoolExecutor(8) as pool:
            answers = list(pool.map(lambda a: get(node_url(url, path=a[0], player=a[1])), asks))
        for (path, who), (status, node) in zip(asks, answers):
            assert status == 200 and node["path"] == path and node["player"] == who
            mixes = {c["hand"]: c["mix"] for c in node["cells"] if c["mix"]}
            if who == node["acting"]:
                want = expected_mix(oracle, path, who)
                assert mixes.keys() == want.keys()
                assert all(mixes[c] == pytest.approx(want[c], abs=1e-9) for c in want)
            else:
                assert not mixes

    @pytest.mark.parametrize("content", [b"not a tree", bytes(range(256)) * 64])
    def test_a_damaged_tree_file_ends_view_and_report_with_an_error(self, engine, tmp_path, content):
        tree = tmp_path / "game.tree"
        tree.write_bytes(content)
        for args in (["view", str(tree)], ["report", str(tree), "--html", str(tmp_path / "r.html")]):
            run = subprocess.run([sys.executable, "-m", "corvanta", *args, "--bin", engine], cwd=ROOT / "python",
                                 capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL)
            assert run.returncode == 1 and "game.tree" in run.stderr and not run.stdout, args
        assert not (tmp_path / "r.html").exists()


def raw_request(url, method="GET", target="/api/node?path=r:0", **headers):
    """Status and body of a request with exactly these headers: no Host unless given."""
    parts = urllib.parse.urlsplit(url)
    conn = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
    try:
        conn.putrequest(method, target, skip_host=True, skip_accept_encoding=True)
        for name, value in headers.items():
            conn.putheader(name.replace("_", "-"), value)
        conn.endheaders()
        answer = conn.getresponse()
        return answer.status, answer.read()
    finally:
        conn.close()


def test_requests_that_name_another_host_or_come_from_another_page_are_refused(river):
    url, _ = river
    here = urllib.parse.urlsplit(url).netloc
    port = urllib.parse.urlsplit(url).port
    for headers in ({"Host": f"evil.example.com:{port}"}, {"Host": "evil.example.com"}, {},
                    {"Host": f"127.0.0.1:{port + 1}"}, {"Host": f"127.0.0.2:{port}"},
                    {"Host": here, "Origin": "http://evil.example.com"}, {"Host": here, "Origin": "null"},
                    {"Host": here, "Origin": f"http://localhost:{port}"}):
        status, body = raw_request(url, **headers)
        assert status == 403 and json.loads(body)["error"] and b"AsAh" not in body, headers
        assert raw_request(url, target="/", **headers)[0] == 403
    for headers in ({"Host": here}, {"Host": f"localhost:{port}"}, {"Host": f"LocalHost:{port}"},
                    {"Host": f"[::1]:{port}"}, {"Host": here, "Origin": f"http://{here}"}):
        status, body = raw_request(url, **headers)
        assert status == 200 and json.loads(body)["path"] == "r:0", headers


class SlowSession(viewer.Session):
    """A ready game whose nodes are large and come when `go` is set, with no engine behind it."""

    def __init__(self):
        super().__init__("game.toml")
        self.state = "ready"
        self.asked = 0
        self.go = threading.Event()

    def node(self, path, player):
        self.asked += 1
        self.go.wait(10)
        return {"path": path, "rows": ["0.5 " * 1326] * 400}


@contextmanager
def served(session):
    server = viewer.serve(session)
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.05})
    thread.start()
    try:
        yield server, "http://127.0.0.1:%d/" % server.server_address[1]
    finally:
        session.go.set()
        server.shutdown()
        server.server_close()  # waits for the requests' threads
        thread.join()


def test_head_is_checked_but_asks_the_engine_nothing():
    session = SlowSession()
    session.go.set()
    with served(session) as (server, url):
        here = urllib.parse.urlsplit(url).netloc
        assert raw_request(url, "HEAD", Host=here) == (200, b"")
        assert raw_request(url, "HEAD", "/api/node?path=x:0", Host=here)[0] == 400
        assert raw_request(url, "HEAD", Host="evil.example.com")[0] == 403
        assert session.asked == 0
        status, body = raw_request(url, Host=here)
        assert status == 200 and len(body) > 1_000_000 and session.asked == 1


def test_a_client_that_leaves_mid_answer_is_let_go_quietly(capfd):
    session = SlowSession()
    with served(session) as (server, url):
        port = server.server_address[1]
        with socket.create_connection(("127.0.0.1", port)) as sock:
            sock.sendall(f"GET /api/node?path=r:0 HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
            deadline = time.monotonic() + 10
            while session.asked < 1 and time.monotonic() < deadline:
                time.sleep(0.01)
            # Gone with a reset before the answer: every write of the server fails.
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        session.go.set()
        assert raw_request(url, Host=f"127.0.0.1:{port}")[0] == 200
    out, err = capfd.readouterr()  # the server's threads have ended here
    assert session.asked == 2 and err == "" and out == ""


def test_a_dumped_tree_shows_what_its_game_showed(engine, games, tmp_path):
    game, oracle = games["river"]
    tree = tmp_path / "river.tree"
    oracle.command(f"dump_tree {tree}")
    with viewing(engine, tree) as url:
        status, node = get(node_url(url, path="r:0"))
    assert status == 200 and node["acting"] == "OOP"
    mixes = {c["hand"]: c["mix"] for c in node["cells"] if c["mix"]}
    want = expected_mix(oracle, "r:0", "OOP")
    assert mixes.keys() == want.keys() and all(mixes[c] == pytest.approx(want[c], abs=1e-6) for c in want)
    page = tmp_path / "report.html"
    run = subprocess.run([sys.executable, "-m", "corvanta", "report", str(tree), "--path", "r:0", "--png",
                          str(tmp_path / "grid.png"), "--html", str(page), "--bin", engine],
                         cwd=ROOT / "python", capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    assert page.read_text().count('<g class="cell" ') == 169 and (tmp_path / "grid.png").stat().st_size > 0


def test_report_png_and_html_hold_the_engines_numbers(engine, games, tmp_path):
    game, oracle = games["river"]
    png, page = tmp_path / "grid.png", tmp_path / "report.html"
    run = subprocess.run([sys.executable, "-m", "corvanta", "report", str(game), "--path", "r:0:b50", "--png",
                          str(png), "--html", str(page), "--bin", engine, "--quiet"],
                         cwd=ROOT / "python", capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    header = png.read_bytes()[:24]
    assert header[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", header[16:24]) == (1200, 720)
    text = page.read_text()
    cells = re.findall(r'<g class="cell" data-hand="(\w+)" data-weight="[\d.]+" data-mix="([^"]*)">', text)
    assert len(cells) == 169 and "<script" not in text
    got = {hand: {a: float(v) for a, v in (x.split(":") for x in mix.split(","))} for hand, mix in cells if mix}
    want = expected_mix(oracle, "r:0:b50", "IP")
    assert got.keys() == want.keys() and set(next(iter(want.values()))) == {"f", "c", "b200"}
    assert all(got[c] == pytest.approx(want[c], abs=1e-6) for c in want)


# -- in a real browser ------------------------------------------------------

@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        if os.environ.get("CI"):
            raise
        pytest.skip("no python3-selenium")
    driver_path, chromium = shutil.which("chromedriver"), shutil.which("chromium")
    if not (driver_path and chromium):
        if os.environ.get("CI"):
            pytest.fail("chromium and chromium-driver are missing")
        pytest.skip("no chromium")
    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--window-size=1400,1000", "--no-first-run", "--disable-extensions",
                f"--user-data-dir={tmp_path_factory.mktemp('chromium')}"):
        options.add_argument(arg)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(driver_path), options=options)
    driver.set_page_load_timeout(30)
    driver.set_script_timeout(30)
    yield driver
    driver.quit()


def wait(driver, condition, timeout=20):
    from selenium.webdriver.support.ui import WebDriverWait
    return WebDriverWait(driver, timeout, poll_frequency=0.05).until(lambda d: condition(d))


def open_page(driver, url, path):
    driver.get(url + "#" + path)
    wait(driver, lambda d: d.execute_script("return document.body.dataset.path") == path)


SPLITS = """return [...document.querySelectorAll('#grid .cell')].filter(c => c.querySelector('.seg')).map(c => {
  const fill = c.querySelector('.fill').getBoundingClientRect().width;
  return [c.dataset.hand, Object.fromEntries([...c.querySelectorAll('.seg')].map(
    s => [s.dataset.action, s.getBoundingClientRect().width / fill]))];
});"""


def severe(driver):
    return [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]


class TestBrowser:
    def test_river_page_shows_the_engines_strategy_and_follows_clicks(self, browser, river):
        url, oracle = river
        open_page(browser, url, "r:0")
        assert len(browser.find_elements("css selector", "#grid .cell")) == 169
        assert len(browser.find_elements("css selector", "#range-IP .cell")) == 169
        want = expected_mix(oracle, "r:0", "OOP")
        shown = dict(browser.execute_script(SPLITS))
        assert shown.keys() == want.keys() and "KQs" in want
        for cell in want:  # the colours' widths, as drawn
            assert shown[cell] == pytest.approx(want[cell], abs=0.03), cell
        before = browser.find_element("id", "grid").get_attribute("innerHTML")
        browser.find_element("css selector", 'button.action[data-action="b50"]').click()
        wait(browser, lambda d: d.execute_script("return document.body.dataset.path") == "r:0:b50")
        assert "IP to act" in browser.find_element("id", "grid-title").text
        assert browser.find_element("id", "grid").get_attribute("innerHTML") != before
        assert {b.get_attribute("data-action") for b in browser.find_elements("css selector", "button.action")} \
            == {"f", "c", "b200"}
        assert severe(browser) == []

    def test_turn_page_offers_exactly_the_cards_that_can_come(self, browser, engine, games):
        with viewing(engine, games["turn"][0]) as url:
            open_page(browser, url, "r:0:c:c")
            offered = [b.get_attribute("data-card") for b in browser.find_elements("css selector", "button.card")]
            board = set(parse_cards("Qs Jh 2h 7c"))
            assert sorted(offered) == sorted(r + s for r in RANKS for s in SUITS if parse_cards(r + s)[0] not in board)
            browser.find_element("css selector", 'button.card[data-card="Ks"]').click()
            wait(browser, lambda d: d.execute_script("return document.body.dataset.path") == "r:0:c:c:Ks")
            assert browser.find_elements("css selector", "button.action")
            # The picture in the README: the first decision with one cell's hands listed.
            open_page(browser, url, "r:0")
            browser.find_element("css selector", '#grid .cell[data-hand="KQs"]').click()
            shot = Path(os.environ.get("CORVANTA_SCREENSHOT") or ROOT / "build" / "viewer.png")
            if shot.parent.is_dir():
                browser.save_screenshot(str(shot))
            assert severe(browser) == []
