"""The app's API over the real engine, whose input is copied to a log: what a request
is refused for must never reach the engine, whatever the request holds."""
import http.client
import json
import os
import signal
import socket
import stat
import struct
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from corvanta.app import Server
from corvanta.cards import HAND_NAMES, parse_cards
from corvanta.client import Solver
from corvanta import explore
from corvanta.explore import check_mix, chosen_hands, live_hands, lock_rows
from corvanta.game import Game
from corvanta.lines import node_count
from corvanta.nodeview import ViewError, range_average
from corvanta.ranges import parse_range
from corvanta.session import Session
from corvanta.setupform import check_form, game_form, to_game

from test_report import expected_mix

ROOT = Path(__file__).resolve().parents[2]
POLAR = {"board": "2c 7d 9h Ts Ks", "pot": 100, "stack": 100, "ranges": {"oop": "99,77,43s", "ip": "KQ"},
         "tree": {"river": {"bet": "100%", "ip_bet": "", "max_raises": 0}}}
FLOP = {"board": "Qs Jh 2h", "pot": 100, "stack": 100, "ranges": {"oop": "AA,QJs,T9s", "ip": "KK,AQs"},
        "tree": {"flop": {"bet": "a", "max_raises": 0}, "turn": {"bet": "a", "max_raises": 0},
                 "river": {"bet": "a", "max_raises": 0}}}
TURN = {"board": "Qs Jh 2h 7c", "pot": 100, "stack": 150,
        "ranges": {"oop": "TT+,AQ+,KQ,QJs,QTs,JTs,T9s,98s,A5s-A3s,KJs", "ip": "99+,AJ+,KQ,QJs,KJs,JTs,T9s,87s,A5s"},
        "tree": {"turn": {"bet": "50%", "max_raises": 0}, "river": {"bet": "a", "max_raises": 0}}}
GETS = ["/api/status", "/api/meta", "/api/files", "/api/ranges", "/api/node?path=r:0", "/api/values?path=r:0",
        "/api/cards?path=r:0:c:c", "/api/export?path=r:0", "/api/study?folder=0&name=study",
        "/api/study/line?folder=0&name=study&flop=QsJh2h&path=r:0"]
POSTS = {"/api/check": POLAR, "/api/range/parse": {"text": "AA"}, "/api/range/text": {"weights": [0] * 1326},
         "/api/ranges/load": {"name": "x"}, "/api/ranges/save": {"name": "x", "text": "AA"}, "/api/setup": POLAR,
         "/api/solve": {}, "/api/stop": {}, "/api/lock": {"path": "r:0", "all": {}},
         "/api/unlock": {"path": "r:0"}, "/api/save": {"name": "x"}, "/api/open": {"name": "x.tree"}}


@pytest.fixture(scope="module")
def app(engine, tmp_path_factory):
    """The app in this process over an engine whose input goes to a log as well."""
    folder = tmp_path_factory.mktemp("files")
    log = folder.parent / "engine.log"
    wrapper = folder.parent / "engine.sh"
    wrapper.write_text(f'#!/bin/sh\ntee -a "{log}" | exec "{engine}" "$@"\n')
    wrapper.chmod(wrapper.stat().st_mode | stat.S_IEXEC)
    (folder / "ranges").mkdir()
    server = Server(Session(str(wrapper), [folder], folder / "ranges")).start()
    yield Api(server, log, folder)
    server.close()


class Api:
    def __init__(self, server, log, folder):
        self.server, self.log, self.folder = server, log, folder
        self.host = f"127.0.0.1:{server.port}"

    def __call__(self, method, path, body=None, headers=None, raw=None, token=True):
        conn = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=120)
        h = {"Host": self.host}
        if token:
            h["X-Corvanta-Token"] = self.server.token
        data = raw
        if body is not None:
            data = json.dumps(body).encode()
        if data is not None:
            h["Content-Type"] = "application/json"
        h.update(headers or {})
        conn.request(method, path, body=data, headers=h)
        r = conn.getresponse()
        text = r.read()
        conn.close()
        try:
            return r.status, json.loads(text) if text else None
        except ValueError:
            return r.status, text.decode()

    def sent(self) -> str:
        return self.log.read_text() if self.log.exists() else ""

    def wait(self, timeout=60):
        deadline = time.monotonic() + timeout
        while (st := self("GET", "/api/status")[1])["state"] in ("solving", "building"):
            assert time.monotonic() < deadline, st
            time.sleep(0.05)
        return st


def raw_request(port, method="GET", target="/api/status", **headers):
    """Status and body of a request with exactly these headers: no Host unless given."""
    conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    try:
        conn.putrequest(method, target, skip_host=True, skip_accept_encoding=True)
        for name, value in headers.items():
            conn.putheader(name.replace("_", "-"), value)
        conn.endheaders()
        answer = conn.getresponse()
        return answer.status, answer.read()
    finally:
        conn.close()


def refused(api, method, path, body=None, status=400, **kw):
    """The request is refused with a message, and the engine saw nothing of it."""
    before = api.sent()
    code, answer = api(method, path, body, **kw)
    assert code == status and answer and answer["error"], (method, path, body, code, answer)
    assert api.sent() == before, (method, path, body)
    return answer["error"]


class TestForm:
    # A field of the polarised game, its bad value, the field the message names, words of the message.
    BAD = {"six cards": ("board", "2c 7d 9h Ts Ks As", "board", "3 to 5"),
           "a card twice": ("board", "2c 2c 9h", "board", "twice"),
           "no pot": ("pot", 0, "pot", "whole number"),
           "a bad token": ("ranges", {"oop": "AKs,QX", "ip": "KQ"}, "ranges.oop", "QX"),
           "an empty range": ("ranges", {"oop": "", "ip": "KQ"}, "ranges.oop", "empty"),
           "ranges that never meet": ("ranges", {"oop": "AsAh", "ip": "AsAd"}, "ranges", "meet"),
           "a raise size as a bet": ("tree", {"river": {"bet": "2x"}}, "tree.river", "multiplies"),
           "a bad size": ("tree", {"river": {"bet": "50%, big"}}, "tree.river.bet", "big"),
           "flop sizes on the river": ("tree", {"flop": {"bet": "50%"}, "river": {}}, "tree.flop", "not played"),
           "donk true": ("tree", {"river": {"donk": True}}, "tree.river.donk", "false"),
           "all-in at twice the stack": ("tree", {"allin_threshold": 2, "river": {}}, "tree.allin_threshold",
                                         "share")}

    @pytest.mark.parametrize("case", BAD)
    def test_the_wrong_field_is_named_with_the_readers_words(self, case):
        key, value, field, words = self.BAD[case]
        errors = check_form({**POLAR, key: value})
        assert list(errors) == [field] and words in errors[field], errors

    def test_a_form_is_its_game(self):
        assert check_form(POLAR) == {} and to_game(POLAR).lines() == ["add_line 0 0", "add_line 100 100"]
        game = Game.from_toml(ROOT / "examples" / "turn.toml")
        assert to_game(game_form(game)).lines() == game.lines()


class TestLockRows:
    BOARD = parse_cards("2c 7d 9h Ts Ks")
    LIVE = live_hands(["2c", "7d", "9h", "Ts", "Ks"])
    WEIGHTS = parse_range("99,77,43s")
    CALL = {"c": 1, "f": 0}

    def names(self, selection):
        return sorted(HAND_NAMES[h] for h in chosen_hands(selection, self.LIVE, self.WEIGHTS))

    def test_a_lock_takes_the_hands_of_the_range_it_names(self):
        assert self.names({"cells": {"99": self.CALL}}) == ["9d9c", "9s9c", "9s9d"]  # 9h is on the board
        assert self.names({"hands": {"9c9s": self.CALL}}) == ["9s9c"]
        assert len(self.names({"all": self.CALL})) == 10
        for selection, words in (({"cells": {"AA": self.CALL}}, "no hand of AA"), ({"cells": {"XX": {}}}, "no cell"),
                                 ({"hands": {"9h9s": {}}}, "no hand of 9h9s"), ({"all": {}, "cells": {}}, "one of"),
                                 ({"rows": {}}, "one of")):
            with pytest.raises(ViewError, match=words):
                chosen_hands(selection, self.LIVE, self.WEIGHTS)

    def test_a_mix_is_a_share_for_each_action(self):
        assert check_mix({"c": 0.25, "f": 0.75}, ["c", "f"], "lock") == {"c": 0.25, "f": 0.75}
        for mix in ({"c": 0.5, "f": 0.4}, {"c": True, "f": 0}, {"c": 1}, {"c": 1, "f": 0, "b9": 0}, {"c": "1", "f": 0}):
            with pytest.raises(ViewError):
                check_mix(mix, ["c", "f"], "lock")
        rows = lock_rows({"c": [0.5] * 1326, "f": [0.5] * 1326}, {7: {"c": 1.0, "f": 0.0}})
        assert (rows["c"][7], rows["f"][7], rows["c"][8], rows["f"][8]) == (1.0, 0.0, 0.5, 0.5)


class TestGuards:
    def test_foreign_host_origin_and_missing_token_are_refused_everywhere(self, app):
        port = app.server.port
        wrong = ("y" if app.server.token[0] == "x" else "x") + app.server.token[1:]  # one letter off
        for method, path, body in [*(("GET", p, None) for p in GETS), *(("POST", p, b) for p, b in POSTS.items())]:
            assert "is not this server" in refused(app, method, path, body, 403, headers={"Host": f"evil.example:{port}"})
            refused(app, method, path, body, 403, headers={"Host": f"127.0.0.1:{port + 1}"})
            assert "are refused" in refused(app, method, path, body, 403,
                                            headers={"Origin": f"http://evil.example:{port}"})
            assert "token" in refused(app, method, path, body, 403, token=False)
            refused(app, method, path, body, 403, headers={"X-Corvanta-Token": wrong})
        # The page itself needs no token, only the right Host.
        assert app("GET", "/", token=False)[0] == 200
        here, token = app.host, {"X-Corvanta-Token": app.server.token}
        for headers in ({"Host": f"evil.example.com:{port}"}, {"Host": "evil.example.com"}, {},
                        {"Host": f"127.0.0.2:{port}"}, {"Host": here, "Origin": "http://evil.example.com"},
                        {"Host": here, "Origin": "null"}, {"Host": here, "Origin": f"http://localhost:{port}"}):
            status, body = raw_request(port, **token, **headers)
            assert status == 403 and json.loads(body)["error"] and b"state" not in body, headers
            assert raw_request(port, target="/", **headers)[0] == 403
        for headers in ({"Host": here}, {"Host": f"localhost:{port}"}, {"Host": f"LocalHost:{port}"},
                        {"Host": f"[::1]:{port}"}, {"Host": here, "Origin": f"http://{here}"}):
            status, body = raw_request(port, **token, **headers)
            assert status == 200 and "state" in json.loads(body), headers

    def test_posts_need_a_json_body_of_limited_size(self, app):
        for path in POSTS:
            assert "JSON" in refused(app, "POST", path, raw=b'{"a": 1}', status=415,
                                     headers={"Content-Type": "text/plain"})
            refused(app, "POST", path, raw=b"{not json", status=400)
            assert "kB" in refused(app, "POST", path, raw=b'{"text": "' + b"A" * 300_000 + b'"}', status=413)
            refused(app, "GET", path, status=405)
        for path in GETS:
            refused(app, "POST", path.split("?")[0], {}, status=405)
        refused(app, "GET", "/api/node?path=r:0&path=r:0:c")
        refused(app, "GET", "/api/node?path=r:0&depth=2")
        refused(app, "GET", "/static/../session.py", status=404)

    def test_head_is_checked_but_asks_the_engine_nothing(self, app):
        before = app.sent()
        for path in GETS:
            assert app("HEAD", path) == (200, None)
        assert app("HEAD", "/api/node?path=x:0")[0] == 400 and app("HEAD", "/api/node?player=BB")[0] == 400
        assert app("HEAD", "/api/node", headers={"Host": "evil.example.com"})[0] == 403
        assert app("HEAD", "/api/node", token=False)[0] == 403
        assert app.sent() == before


class SlowSession(Session):
    """A game whose nodes are large and come when `go` is set, with no engine behind it."""

    def __init__(self):
        super().__init__("/nonexistent/corvanta")
        self.asked = 0
        self.go = threading.Event()

    def node(self, path, player):
        self.asked += 1
        self.go.wait(10)
        return {"path": path, "rows": ["0.5 " * 1326] * 400}


def test_a_client_that_leaves_mid_answer_is_let_go_quietly(capfd):
    session = SlowSession()
    server = Server(session).start()
    try:
        port, token = server.port, server.token
        with socket.create_connection(("127.0.0.1", port)) as sock:
            sock.sendall(f"GET /api/node?path=r:0 HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n"
                         f"X-Corvanta-Token: {token}\r\n\r\n".encode())
            deadline = time.monotonic() + 10
            while session.asked < 1 and time.monotonic() < deadline:
                time.sleep(0.01)
            # Gone with a reset before the answer: every write of the server fails.
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        session.go.set()
        status, body = raw_request(port, target="/api/node?path=r:0", Host=f"127.0.0.1:{port}", X_Corvanta_Token=token)
        assert status == 200 and len(body) > 1_000_000
    finally:
        server.close()
    out, err = capfd.readouterr()
    assert session.asked == 2 and err == "" and out == ""


class TestHostileInput:
    SMUGGLED = "\nexit\n"

    def test_engine_commands_smuggled_in_fields_never_reach_the_engine(self, app):
        for field, value in [("board", "2c 7d 9h Ts Ks" + self.SMUGGLED), ("pot", "100\nexit"), ("pot", True),
                             ("stack", 1e300), ("ranges", {"oop": "AA" + self.SMUGGLED, "ip": "KK"}),
                             ("ranges", {"oop": "AA", "ip": "KK", "x": "QQ"}),
                             ("tree", {"river": {"bet": "50%" + self.SMUGGLED}}),
                             ("tree", {"river": {"max_raises": "1\nexit"}}),
                             ("tree", {"flop": {"bet": "50%"}}), ("tree", {"river": {"go": "1"}}), ("x", 1)]:
            message = refused(app, "POST", "/api/setup", {**POLAR, field: value})
            assert message.split(":")[0] in (field, f"ranges.oop", "ranges", f"tree.river", "tree.flop",
                                             "tree.river.bet", "tree.river.max_raises", "tree.river.go", "x"), message
            assert app("POST", "/api/check", {**POLAR, field: value})[1]["errors"]
        for path in ("r:0" + self.SMUGGLED, "r:0:b50\r\nexit", "r:0:b 50", "x:0", "r:0:" + "c:" * 60 + "c"):
            for url in ("/api/node", "/api/values", "/api/cards", "/api/export"):
                refused(app, "GET", f"{url}?path={path.replace(chr(10), '%0A').replace(chr(13), '%0D').replace(' ', '%20')}")
            refused(app, "POST", "/api/lock", {"path": path, "all": {"c": 1}})
            refused(app, "POST", "/api/unlock", {"path": path})
        refused(app, "GET", "/api/node?path=r:0&player=OOP%0Aexit")
        assert "set up a game" in refused(app, "POST", "/api/solve", {})  # nothing to solve yet
        for body in ({"threads": "1\nexit"}, {"threads": True}, {"accuracy": -1}, {"seconds": 0},
                     {"compression": "auto\nexit"}, {"seconds": 5, "steps": 5}, {"go": 1}, []):
            refused(app, "POST", "/api/solve", body)
        for url, body in (("/api/save", {"name": "x", "folder": 0, "go": 1}), ("/api/lock", {"path": "r:0"}),
                          ("/api/stop", {"now": True}), ("/api/unlock", {"path": "r:0", "all": {}}),
                          ("/api/range/text", {"weights": [0] * 1325}), ("/api/range/text", {"weights": [True] * 1326}),
                          ("/api/range/text", {"weights": [2] * 1326}), ("/api/range/parse", {"text": 5}),
                          ("/api/ranges/load", {"name": "x", "text": ""}), ("/api/setup", [POLAR])):
            refused(app, "POST", url, body)
        (app.folder / "ranges" / "bad.txt").write_text("# no range\nAKx\n")
        assert "bad.txt" in refused(app, "POST", "/api/ranges/load", {"name": "bad"})
        assert "exit" not in app.sent()

    def test_files_stay_inside_the_named_folders(self, app, tmp_path):
        outside = tmp_path / "outside.tree"
        outside.write_bytes(b"x")
        (app.folder / "link.tree").symlink_to(outside)
        (app.folder / "linkdir").symlink_to(tmp_path)
        (app.folder / "ranges" / "link.txt").symlink_to(outside)
        for name in ("../outside.tree", "/etc/passwd", str(outside), "a/../../outside.tree", "link.tree",
                     "linkdir/outside.tree", 'a".tree', "x\nexit", "", "a" * 400, "..", "./x"):
            refused(app, "POST", "/api/open", {"folder": 0, "name": name})
            refused(app, "POST", "/api/save", {"folder": 0, "name": name})
            for url in ("/api/ranges/save", "/api/ranges/load"):
                refused(app, "POST", url, {"name": name.replace("tree", "txt"), "text": "AA"}
                        if url.endswith("save") else {"name": name.replace("tree", "txt")})
        for folder in (1, -1, "0", True, None):
            refused(app, "POST", "/api/open", {"folder": folder, "name": "x.tree"})
        refused(app, "GET", "/api/study?folder=0&name=..")
        refused(app, "GET", "/api/study?folder=0&name=linkdir")
        refused(app, "GET", "/api/study/line?folder=0&name=.&flop=../../x&path=r:0")
        assert outside.read_bytes() == b"x" and not (tmp_path / "x.tree").exists()


class TestSession:
    def test_polar_river_solves_locks_saves_and_opens(self, app):
        code, preview = app("POST", "/api/setup", POLAR)
        assert code == 200 and preview["lines"] == 2 and preview["auto"] == 0
        assert preview["decisions"] == 2 * 2352 + 2352 and len(preview["levels"]) == 6
        assert app("POST", "/api/solve", {"accuracy": 0.001})[0] == 200
        st = app.wait()
        assert st["state"] == "solved" and st["results"]["ev_oop"] == pytest.approx(90, abs=0.5)
        node = app("GET", "/api/node?path=r:0")[1]
        bet = {a["name"]: a["freq"] for a in node["actions"]}
        assert bet["b100"] == pytest.approx(0.9, abs=0.01)  # value 6 combos, bluffs 6 x 100/200
        # IP always calls: no bluff is worth making, OOP's value bets win pot and bet.
        assert app("POST", "/api/lock", {"path": "r:0:b100", "all": {"c": 1, "f": 0}})[0] == 200
        assert app("POST", "/api/solve", {"accuracy": 0.001})[0] == 200
        st = app.wait()
        assert st["results"]["ev_oop"] == pytest.approx(120, abs=0.5) and st["locks"][0]["path"] == "r:0:b100"
        assert st["locks"][0]["before"]["ev_oop"] == pytest.approx(90, abs=0.5)
        want = app("GET", "/api/export?path=r:0&format=json")[1]
        assert {h["hand"][:2]: h["strategy"]["b100"] for h in want["hands"]} == {"4c": 0, "4d": 0, "4h": 0, "4s": 0,
                                                                                 "7h": 1, "7s": 1, "9d": 1, "9s": 1}
        assert app("POST", "/api/save", {"folder": 0, "name": "polar"}) == (200, {"name": "polar.tree"})
        assert app("POST", "/api/setup", TURN)[0] == 200
        assert app("POST", "/api/open", {"folder": 0, "name": "polar.tree"})[0] == 200
        assert app("GET", "/api/export?path=r:0&format=json")[1] == want
        csv = app("GET", "/api/export?path=r:0&format=csv")[1].splitlines()
        assert csv[0] == "hand,weight,b100,c,ev,equity" and "7s7c,1,1,0,200,1" in csv

    def test_a_lock_of_cells_binds_their_hands_alone_and_unlocks(self, app):
        assert app("POST", "/api/setup", POLAR)[0] == 200
        assert app("POST", "/api/solve", {"accuracy": 0.001, "compression": "max"})[0] == 200
        assert app.wait()["results"]["ev_oop"] == pytest.approx(90, abs=0.5)
        # OOP's missed draws never bet: IP folds to every bet, and the sets win the pot alone.
        assert app("POST", "/api/lock", {"path": "r:0", "cells": {"43s": {"c": 1, "b100": 0}}})[1]["what"] == "4 hands"
        assert app("POST", "/api/solve", {"accuracy": 0.001, "compression": "max"})[0] == 200
        assert app.wait()["results"]["ev_oop"] == pytest.approx(60, abs=0.5)
        mask = [line for line in app.sent().splitlines() if line.startswith("combo_lock_node r:0 ")][-1].split()[2:]
        assert sorted(HAND_NAMES[h] for h, x in enumerate(mask) if x == "1") == ["4c3c", "4d3d", "4h3h", "4s3s"]
        assert "set_compression max" in app.sent()
        assert app("POST", "/api/unlock", {"path": "r:0"})[0] == 200
        assert app("POST", "/api/solve", {"accuracy": 0.001})[0] == 200
        st = app.wait()
        assert st["results"]["ev_oop"] == pytest.approx(90, abs=0.5) and st["locks"] == []

    def test_a_solve_holds_the_engine_and_stops_on_request(self, app):
        assert app("POST", "/api/setup", TURN)[0] == 200
        assert app("POST", "/api/solve", {"accuracy": 0, "seconds": 60, "threads": 1})[0] == 200
        # What changes the game is refused while the solver runs; what reads it waits its turn.
        with ThreadPoolExecutor(6) as pool:
            reads = [pool.submit(app, "GET", p) for p in ("/api/node?path=r:0", "/api/cards?path=r:0:c:c&values=0")]
            answers = list(pool.map(lambda a: app(*a), [("POST", "/api/setup", POLAR),
                                                        ("POST", "/api/lock", {"path": "r:0", "all": {"c": 1}}),
                                                        ("POST", "/api/open", {"name": "polar.tree"}),
                                                        ("POST", "/api/solve", {})]))
            assert all(code == 409 and answer["error"] == "the engine is busy: solving" for code, answer in answers)
            assert not any(r.done() for r in reads)
            started = time.monotonic()
            assert app("POST", "/api/stop", {}) == (200, {"stopping": True})
            st = app.wait(10)
            assert st["state"] == "solved" and st["results"]["stop_reason"] and time.monotonic() - started < 5
            (code, node), (code2, cards) = (r.result(10) for r in reads)
        assert (code, code2, node["path"], len(cards["cards"])) == (200, 200, "r:0", 48)

    def test_a_change_waits_for_the_reads_ahead_of_it(self, app, monkeypatch):
        assert app("POST", "/api/setup", POLAR)[0] == 200
        assert app("POST", "/api/solve", {"steps": 20, "threads": 1})[0] == 200
        app.wait()
        real, entered = explore.node_values, threading.Event()

        def slow(*args):  # EVs as a slow machine computes them
            entered.set()
            time.sleep(1.5)
            return real(*args)
        monkeypatch.setattr(explore, "node_values", slow)
        with ThreadPoolExecutor(2) as pool:
            read = pool.submit(app, "GET", "/api/values?path=r:0:b100&player=IP")
            assert entered.wait(10)
            started = time.monotonic()
            assert app("POST", "/api/lock", {"path": "r:0:b100", "all": {"c": 1, "f": 0}})[0] == 200
            assert time.monotonic() - started > 0.5 and read.result(10)[0] == 200
            entered.clear()
            read = pool.submit(app, "GET", "/api/values?path=r:0&player=OOP")
            assert entered.wait(10)
            assert app("POST", "/api/solve", {"steps": 20, "threads": 1})[0] == 200
            assert read.result(10)[0] == 200
        st = app.wait()
        assert st["state"] == "solved" and [lock["path"] for lock in st["locks"]] == ["r:0:b100"]
        assert app("POST", "/api/unlock", {"path": "r:0:b100"})[0] == 200

    def test_card_report_concurrent_nodes_and_ranges(self, app, engine):
        assert app("POST", "/api/setup", TURN)[0] == 200
        assert app("POST", "/api/solve", {"steps": 30, "threads": 1})[0] == 200
        app.wait()
        # Requests at once queue for the one engine, and each gets its own node.
        assert app("POST", "/api/save", {"name": "turn"})[0] == 200
        asks = [(p, who) for p in ("r:0", "r:0:c", "r:0:b50", "r:0:c:b50") for who in ("OOP", "IP")]
        with ThreadPoolExecutor(8) as pool:
            answers = list(pool.map(lambda a: app("GET", f"/api/node?path={a[0]}&player={a[1]}"), asks))
        with Solver(engine) as oracle:
            oracle.command(f"load_tree {app.folder / 'turn.tree'}")
            for (path, who), (status, node) in zip(asks, answers):
                assert status == 200 and node["path"] == path and node["player"] == who
                mixes = {c["hand"]: c["mix"] for c in node["cells"] if c["mix"]}
                want = expected_mix(oracle, path, who) if who == node["acting"] else {}
                assert mixes.keys() == want.keys() and all(mixes[c] == pytest.approx(want[c], abs=1e-9) for c in want)
            for row in app("GET", "/api/cards?path=r:0:c:c&values=0")[1]["cards"]:
                p = row["path"]
                probs = oracle.command(f"show_probs {p}")[0].split()
                assert row["freq"] == pytest.approx(float(oracle.command(f"calc_global_freq {p}")[0]), abs=1e-9)
                assert row["actions"] == {probs[i]: pytest.approx(float(probs[i + 1])) for i in range(4, len(probs), 2)}
                eq, weights = oracle.equity("IP", p), oracle.range("IP", p).values
                live = [h for h in range(1326) if eq.matchups[h] > 0]
                assert row["eq"]["IP"] == pytest.approx(range_average(eq.values, eq.matchups, weights, live))
        report = app("GET", "/api/cards?path=r:0:c:c")[1]
        assert len(report["cards"]) == 48 and report["acting"] == "OOP"
        assert all(0 < r["freq"] < 1 for r in report["cards"])
        assert all(set(r["actions"]) == {"c", "b150"} and r["ev"]["OOP"] > 0 for r in report["cards"])
        assert app("GET", "/api/cards?path=r:0")[0] == 400  # a decision: no card comes
        weights = app("POST", "/api/range/parse", {"text": "AKs,QQ:0.5"})[1]["weights"]
        assert sum(weights) == 4 + 3 and app("POST", "/api/range/text", {"weights": weights})[1]["text"] == "QQ:0.5,AKs"
        assert "position" in app("POST", "/api/range/parse", {"text": "AKs,QX"})[1]["problem"]
        assert app("POST", "/api/ranges/save", {"name": "mine", "text": "AKs,QQ:0.5"})[0] == 200
        assert app("GET", "/api/ranges")[1]["files"] == ["bad.txt", "mine.txt"]
        assert app("POST", "/api/ranges/load", {"name": "mine"})[1]["text"] == "AKs,QQ:0.5"


class TestEngine:
    def test_the_preview_is_the_engines_plan(self, app):
        code, p = app("POST", "/api/setup", FLOP)
        want = node_count(to_game(FLOP).rules)
        assert code == 200 and p["lines"] == len(to_game(FLOP).lines()) and p["nodes"] == want.total
        assert p["decisions"] == sum(want.ip_decisions) + sum(want.oop_decisions)
        storage = [level["storage_mb"] for level in p["levels"]]
        assert storage[0] == p["uncompressed_mb"] > 0 and storage[0] > storage[1] > storage[2] > storage[3]
        assert storage[4] == storage[3] and p["levels"][4]["bound"] == "below" and storage[5] == storage[0]
        assert p["auto"] in range(5) and p["memory"]["available"] > 0
        assert all(level["total_mb"] >= level["storage_mb"] for level in p["levels"])

    def test_a_study_reads_its_summaries_and_the_lines_of_its_kept_trees(self, app, engine):
        study = app.folder / "study"
        study.mkdir()
        assert app("POST", "/api/setup", FLOP)[0] == 200 and app("POST", "/api/solve", {"steps": 10})[0] == 200
        app.wait()
        assert app("POST", "/api/save", {"name": "study/QsJh2h"})[0] == 200
        for flop, ev in (("QsJh2h", 60.0), ("7c7d2s", 55.0)):
            (study / f"{flop}.json").write_text(json.dumps({
                "flop": flop, "weight": 12, "results": {"ev_oop": ev, "ev_ip": 100 - ev, "exploitability": 1},
                "equity": {"oop": 0.5, "ip": 0.5}, "root": {"frequencies": {"c": 0.75, "b100": 0.25}}}))
        (study / "broken.json").write_text("{")
        got = app("GET", "/api/study?folder=0&name=study")[1]
        assert [(f["flop"], f["tree"]) for f in got["flops"]] == [("QsJh2h", "QsJh2h.tree"), ("7c7d2s", None)]
        assert len(got["skipped"]) == 1 and "broken.json" in got["skipped"][0]
        line = app("GET", "/api/study/line?folder=0&name=study&flop=QsJh2h&path=r:0:c")[1]
        with Solver(engine) as s:
            s.command(f"load_tree {study / 'QsJh2h.tree'}")
            probs = s.command("show_probs r:0:c")[0].split()
            assert line["actions"] == {probs[i]: pytest.approx(float(probs[i + 1])) for i in range(4, len(probs), 2)}
            assert line["line_freq"] == pytest.approx(float(s.command("calc_line_freq r:0:c")[0]))
        for query, words in (("flop=7c7d2s&path=r:0", "no tree"), ("flop=QsJh2&path=r:0", "three cards"),
                             ("flop=QsJh2h&path=r:0:x", "bad path")):
            code, answer = app("GET", f"/api/study/line?folder=0&name=study&{query}")
            assert code == 400 and words in answer["error"], answer


def test_an_engine_that_dies_while_it_is_looked_at_is_not_replaced():
    class Dying:  # alive at the first look, dead at any later one
        looks = 0

        def alive(self):
            self.looks += 1
            return self.looks == 1
    session = Session("/nonexistent/corvanta")
    session.solver = dying = Dying()
    assert session._engine() is dying  # its death shows on its next command, with its exit code


def test_an_engine_that_dies_is_an_error_and_a_new_set_up_starts_another(engine, tmp_path):
    server = Server(Session(engine, [tmp_path])).start()
    try:
        api = Api(server, tmp_path / "no.log", tmp_path)
        assert api("POST", "/api/setup", POLAR)[0] == 200 and api("POST", "/api/solve", {"accuracy": 0.001})[0] == 200
        api.wait()
        os.kill(server.session.solver.pid, signal.SIGKILL)
        code, answer = api("GET", "/api/node?path=r:0:b100")
        assert code == 500 and "exit code -9" in answer["error"], answer
        assert api("GET", "/api/status")[1]["state"] == "error"
        assert api("GET", "/api/node?path=r:0")[0] == 409  # nothing to read until a new set-up
        assert api("POST", "/api/setup", POLAR)[0] == 200 and api("POST", "/api/solve", {"accuracy": 0.001})[0] == 200
        assert api.wait()["results"]["ev_oop"] == pytest.approx(90, abs=0.5)
    finally:
        server.close()


def viewing(engine, game):
    """`view GAME` as a child process; its port and headers."""
    proc = subprocess.Popen([sys.executable, "-m", "corvanta", "view", str(game), "--bin", engine],
                            cwd=ROOT / "python", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)
    line = proc.stdout.readline()
    port, token = int(line.split(":")[2].split("/")[0]), line.split("token=")[1].split()[0]
    return proc, port, {"Host": f"127.0.0.1:{port}", "X-Corvanta-Token": token}


def test_view_of_a_toml_game_serves_quietly_through_disconnects_and_its_tree_opens(engine, tmp_path):
    """`view GAME` sets up and solves the game; clients that hang up leave no trace on stderr."""
    game = tmp_path / "polar.toml"
    game.write_text('board = "2c 7d 9h Ts Ks"\npot = 100\nstack = 100\naccuracy = 0.001\n[ranges]\n'
                    'oop = "99,77,43s"\nip = "KQ"\n[tree.river]\nbet = "100%"\nip_bet = ""\nmax_raises = 0\n')
    proc, port, headers = viewing(engine, game)
    try:
        for _ in range(3):  # hang up mid-request, and before reading the answer
            with socket.create_connection(("127.0.0.1", port)) as s:
                s.sendall(b"GET /api/status HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % port)
            with socket.create_connection(("127.0.0.1", port)) as s:
                s.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % port)
        deadline = time.monotonic() + 60
        while True:
            conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
            conn.request("GET", "/api/status", headers=headers)
            st = json.loads(conn.getresponse().read())
            if st["state"] == "solved" or time.monotonic() > deadline:
                break
            time.sleep(0.1)
        assert st["state"] == "solved" and st["results"]["ev_oop"] == pytest.approx(90, abs=0.5)
        assert st["form"]["ranges"]["oop"] == "99,77,43s"
        # The game's folder is the app's folder: the tree saved there opens with `view` too.
        conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
        conn.request("POST", "/api/save", body=b'{"name": "polar"}',
                     headers={**headers, "Content-Type": "application/json"})
        assert conn.getresponse().status == 200
    finally:
        proc.terminate()
        _, err = proc.communicate(timeout=20)
    assert proc.returncode == 0 and "Traceback" not in err and "Error" not in err, err
    proc, port, headers = viewing(engine, tmp_path / "polar.tree")
    try:
        conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
        conn.request("GET", "/api/status", headers=headers)
        st = json.loads(conn.getresponse().read())
        assert st["name"] == "polar.tree" and st["results"]["ev_oop"] == pytest.approx(90, abs=0.5)
    finally:
        proc.terminate()
        proc.communicate(timeout=20)
