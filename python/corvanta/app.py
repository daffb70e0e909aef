"""python3 -m corvanta app [GAME] [--folder DIR ...]: the solver in a local web page.

One page, served by Flask on the loopback address, over one engine (session.py):
set up a game, solve it, explore and lock its nodes, save and open tree files,
read studies. The address printed at the start carries a token made for this
launch, as notebook servers do; the page sends it back in a header with every
API request.

Every request must name this server in Host (the loopback address and its port),
and Origin, when a browser sends one, must be this server's own: a page of
another site can neither read the API nor, through a name that resolves to this
machine, reach it. Requests that change anything are POSTs of a JSON body of
limited size. Files are read and written only inside the folders the command
line names.
"""
from __future__ import annotations

import argparse
import hmac
import ipaddress
import json
import logging
import math
import os
import secrets
import signal
import sys
import threading
from pathlib import Path
from typing import Any

from . import cards, nodeview, paths
from .client import EngineError
from .game import Game, GameError
from .nodeview import ViewError
from .ranges import parse_range, range_text
from .session import LEVELS, Busy, Refused, Session, TREE_SUFFIX
from .setupform import check_form, game_form
from .studyview import BusyStudy, StudyEngine, read as read_study

STATIC = Path(__file__).with_name("static")
FILES = {"app.js": "text/javascript", "explore.js": "text/javascript", "study.js": "text/javascript",
         "setup.js": "text/javascript", "app.css": "text/css"}
MAX_BODY = 256 * 1024      # a lock of every hand of a node by hand is some 100 kB
TOKEN_HEADER = "X-Corvanta-Token"
ROOT = Path(__file__).resolve().parents[2]
HEADERS = {"Cache-Control": "no-store", "X-Content-Type-Options": "nosniff", "Referrer-Policy": "no-referrer",
           "X-Frame-Options": "DENY",
           "Content-Security-Policy": "default-src 'self'; img-src 'self' data: blob:; frame-ancestors 'none'"}
# Query parameters of the reading requests; anything else is refused.
PARAMS = {"/api/status": set(), "/api/meta": set(), "/api/files": set(), "/api/ranges": set(),
          "/api/node": {"path", "player"}, "/api/values": {"path", "player"}, "/api/cards": {"path", "values"},
          "/api/export": {"path", "player", "format"}, "/api/study": {"folder", "name"},
          "/api/study/line": {"folder", "name", "flop", "path"}}


def _json_safe(x):
    if isinstance(x, float) and not math.isfinite(x):
        return None
    if isinstance(x, dict):
        return {k: _json_safe(v) for k, v in x.items()}
    if isinstance(x, (list, tuple)):
        return [_json_safe(v) for v in x]
    return x


DEBIAN_PACKAGES = Path("/usr/lib/python3/dist-packages")
MISSING = "the app needs Flask (apt-get install python3-flask)"


def web() -> bool:
    """Whether Flask imports: from this python, or from Debian's folder for another python
    of the same version (Flask and its parts are plain Python there)."""
    try:
        import flask  # noqa: F401
        return True
    except ImportError:
        if not (DEBIAN_PACKAGES / "flask").is_dir() or str(DEBIAN_PACKAGES) in sys.path:
            return False
        sys.path.append(str(DEBIAN_PACKAGES))  # last: nothing of this python's own is shadowed
        try:
            import flask  # noqa: F401,F811
            return True
        except ImportError:
            sys.path.remove(str(DEBIAN_PACKAGES))
            return False


LOOPBACK_NAMES = ("127.0.0.1", "localhost", "[::1]")


def allowed_hosts(listen: str, port: int) -> frozenset[str]:
    """The Host values of this server: a loopback name, or the address it listens on, with its port.

    A page of another site that got its name pointed at 127.0.0.1 (DNS rebinding)
    still sends its own name as Host, and is refused for it."""
    names = set(LOOPBACK_NAMES)
    try:
        ip = ipaddress.ip_address(listen)
        if not ip.is_unspecified:
            names.add(f"[{ip}]" if ip.version == 6 else str(ip))
    except ValueError:
        pass
    hosts = {f"{n}:{port}" for n in names}
    if port == 80:  # a browser leaves out the default port
        hosts |= names
    return frozenset(hosts)


def loopback(host: str) -> bool:
    if host == "localhost":
        return True
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return False


def _meta() -> dict:
    """What the page needs to draw range grids (the hand order and each hand's cell) and to
    check a typed node path (the client's grammar)."""
    cell_index = {c: i for i, c in enumerate(nodeview.CELLS)}
    return {"hands": cards.HAND_NAMES, "cells": nodeview.CELLS,
            "hand_cell": [cell_index[nodeview.hand_class(h)] for h in range(cards.HAND_COUNT)],
            "levels": LEVELS, "path_pattern": paths.PATTERN}


def create_app(session: Session, token: str, study: StudyEngine | None = None):
    """The Flask app; `app.config["HOSTS"]` must hold the Host values that name the server."""
    from flask import Flask, Response, request
    from werkzeug.exceptions import HTTPException

    def reply(data: Any, status: int = 200) -> Response:
        return Response(json.dumps(_json_safe(data), separators=(",", ":"), allow_nan=False), status,
                        mimetype="application/json")

    def error(status: int, message: str) -> Response:
        return reply({"error": message}, status)

    app = Flask(__name__, static_folder=None)
    app.config["MAX_CONTENT_LENGTH"] = MAX_BODY
    app.config["HOSTS"] = set()
    study = study or StudyEngine(session.binary)
    meta = _meta()

    def body() -> Any:
        data = request.get_json(silent=True)
        if data is None:
            raise Refused("the body is no JSON")
        return data

    def args() -> dict[str, str]:
        known = PARAMS.get(request.path, set())
        out: dict[str, str] = {}
        for key, values in request.args.lists():
            if key not in known:
                raise Refused(f"unknown parameter {key[:40]!r}")
            if len(values) != 1:
                raise Refused(f"parameter {key!r} given twice")
            out[key] = values[0]
        return out

    @app.before_request
    def guard():
        hosts = app.config["HOSTS"]
        host = (request.headers.get("Host") or "").strip().lower()
        if host not in hosts:
            return error(403, f"Host {host[:80]!r} is not this server (use http://{sorted(hosts)[0]}/)")
        origin = request.headers.get("Origin")
        if origin is not None and origin.strip().lower() != f"http://{host}":
            return error(403, f"requests from the page of {origin[:80]!r} are refused")
        if request.path.startswith("/api/"):
            if not hmac.compare_digest(request.headers.get(TOKEN_HEADER, "").encode(), token.encode()):
                return error(403, "missing or wrong token: open the address the app printed, with its token")
            if request.method == "POST":
                if request.mimetype != "application/json":
                    return error(415, "a JSON body (Content-Type: application/json)")
                if request.content_length is None:
                    return error(411, "the body needs a Content-Length")
                if request.content_length > MAX_BODY:
                    return error(413, f"the body is over {MAX_BODY // 1024} kB")
            if request.method == "HEAD":  # the headers alone: checked, but no work for the engine
                a = args()
                if "path" in a:
                    nodeview.check_path(a["path"])
                if "player" in a:
                    nodeview.check_player(a["player"])
                return Response(status=200, mimetype="application/json")
        return None

    @app.after_request
    def headers(response: Response) -> Response:
        response.headers.update(HEADERS)
        return response

    @app.errorhandler(HTTPException)
    def http_error(e: HTTPException):
        text = {404: f"no such page: {request.path[:80]}", 405: f"{request.method} is not allowed here",
                413: f"the body is over {MAX_BODY // 1024} kB"}.get(e.code, e.description or e.name)
        return error(e.code or 500, text)

    @app.errorhandler(Exception)
    def failure(e: Exception):
        if isinstance(e, (Refused, ViewError)):
            return error(400, str(e))
        if isinstance(e, (Busy, BusyStudy)):
            return error(409, str(e))
        if isinstance(e, EngineError):
            return error(500, f"engine: {e}")
        return error(500, f"internal error: {type(e).__name__}: {e}")

    # -- page ---------------------------------------------------------------

    @app.get("/")
    def page():
        return Response((STATIC / "app.html").read_bytes(), mimetype="text/html")

    @app.get("/static/<name>")
    def static_file(name: str):
        if name not in FILES:
            return error(404, f"no such file: {name[:40]}")
        return Response((STATIC / name).read_bytes(), mimetype=FILES[name])

    # -- reading ------------------------------------------------------------

    @app.get("/api/meta")
    def api_meta():
        args()
        return reply({**meta, "folders": [str(f) for f in session.folders]})

    @app.get("/api/status")
    def api_status():
        args()
        return reply(session.status())

    @app.get("/api/node")
    def api_node():
        a = args()
        return reply(session.node(a.get("path", "r:0"), a.get("player")))

    @app.get("/api/values")
    def api_values():
        a = args()
        return reply(session.values(a.get("path", "r:0"), a.get("player", "OOP")))

    @app.get("/api/cards")
    def api_cards():
        a = args()
        if a.get("values", "1") not in ("0", "1"):
            raise Refused("values: 0 or 1")
        return reply(session.cards(a.get("path", ""), a.get("values", "1") == "1"))

    @app.get("/api/export")
    def api_export():
        a = args()
        fmt = a.get("format", "json")
        if fmt not in ("csv", "json"):
            raise Refused("format: csv or json")
        table = session.table(a.get("path", "r:0"), a.get("player"))
        name = "node-" + table["path"].replace(":", "_")
        if fmt == "csv":
            from .explore import table_csv
            response = Response(table_csv(table), mimetype="text/csv")
        else:
            response = reply(table)
        response.headers["Content-Disposition"] = f'attachment; filename="{name}.{fmt}"'
        return response

    @app.get("/api/files")
    def api_files():
        args()
        return reply({"folders": session.files()})

    @app.get("/api/study")
    def api_study():
        a = args()
        return reply(read_study(study_folder(a)))

    @app.get("/api/study/line")
    def api_study_line():
        a = args()
        folder = study_folder(a)
        flop = a.get("flop", "")
        try:
            parsed = cards.parse_cards(flop)
        except ValueError:
            parsed = []
        if len(parsed) != 3 or len(flop) != 6:
            raise Refused("flop: three cards written together, such as QsJh2h")
        tree = folder / f"{flop}{TREE_SUFFIX}"
        if not tree.is_file():
            raise Refused(f"flop {flop}: the study kept no tree of it")
        try:
            return reply(study.line(tree, a.get("path", "r:0")))
        except EngineError as e:
            raise Refused(f"flop {flop}: {e}") from None

    def study_folder(a: dict) -> Path:
        try:
            folder = int(a.get("folder", "0"))
        except ValueError:
            raise Refused("folder: a number") from None
        name = a.get("name", "")
        if not (0 <= folder < len(session.folders)):
            raise Refused("folder: no such folder")
        from .session import inside
        if name in ("", "."):
            path = session.folders[folder]
        else:
            path = inside(session.folders[folder], name, None, False)
        if not path.is_dir():
            raise Refused(f"name: no study folder {name[:60]!r}")
        return path

    # -- set-up -------------------------------------------------------------

    @app.post("/api/check")
    def api_check():
        return reply({"errors": check_form(body())})

    @app.post("/api/range/parse")
    def api_range_parse():
        data = body()
        text = data.get("text") if isinstance(data, dict) else None
        if not isinstance(text, str) or len(text) > 4000 or set(data) != {"text"}:
            raise Refused("range: a text of range notation")
        try:  # a check, as the set-up's: text that doesn't read is an answer, not a failed request
            return reply({"weights": parse_range(text)})
        except ValueError as e:
            return reply({"weights": None, "problem": str(e)})

    @app.post("/api/range/text")
    def api_range_text():
        data = body()
        weights = data.get("weights") if isinstance(data, dict) else None
        if (not isinstance(weights, list) or len(weights) != cards.HAND_COUNT or set(data) != {"weights"}
                or not all(isinstance(w, (int, float)) and not isinstance(w, bool) and 0 <= w <= 1 for w in weights)):
            raise Refused(f"range: {cards.HAND_COUNT} weights from 0 to 1 in hand order")
        return reply({"text": range_text([float(w) for w in weights])})

    @app.get("/api/ranges")
    def api_ranges():
        args()
        return reply({"files": session.range_files()})

    @app.post("/api/ranges/load")
    def api_ranges_load():
        data = body()
        if not isinstance(data, dict) or set(data) != {"name"}:
            raise Refused("ranges: a name")
        path = session.range_file(data["name"])
        if not path.is_file():
            raise Refused(f"ranges: no file {path.name!r}")
        text = path.read_text(errors="replace")[:4000]
        text = ",".join(line.split("#", 1)[0].strip() for line in text.splitlines() if line.split("#", 1)[0].strip())
        try:
            parse_range(text)
        except ValueError as e:
            raise Refused(f"{path.name}: {e}") from None
        return reply({"name": path.name, "text": text})

    @app.post("/api/ranges/save")
    def api_ranges_save():
        data = body()
        if not isinstance(data, dict) or set(data) != {"name", "text"} or not isinstance(data["text"], str):
            raise Refused("ranges: a name and a text")
        path = session.range_file(data["name"])
        try:
            parse_range(data["text"][:4000])
        except ValueError as e:
            raise Refused(f"range: {e}") from None
        tmp = path.with_name(f".{path.name}.{os.getpid()}.tmp")
        tmp.write_text(data["text"][:4000] + "\n")
        os.replace(tmp, path)
        return reply({"name": path.name})

    @app.post("/api/setup")
    def api_setup():
        return reply(session.set_up(body()))

    # -- solving, locks, files ---------------------------------------------

    @app.post("/api/solve")
    def api_solve():
        session.solve(body())
        return reply({"state": session.state})

    @app.post("/api/stop")
    def api_stop():
        data = body()
        if data != {}:
            raise Refused("stop: an empty object")
        return reply({"stopping": session.stop()})

    @app.post("/api/lock")
    def api_lock():
        return reply(session.lock(body()))

    @app.post("/api/unlock")
    def api_unlock():
        session.unlock(body())
        return reply({"ok": True})

    @app.post("/api/save")
    def api_save():
        return reply({"name": session.save(body())})

    @app.post("/api/open")
    def api_open():
        return reply(session.open(body()))

    app.study = study  # type: ignore[attr-defined]
    return app


class Server:
    """The app on a loopback port, on a thread or in the foreground."""

    def __init__(self, session: Session, host: str = "127.0.0.1", port: int = 0, token: str | None = None):
        from werkzeug.serving import make_server
        self.token = token or secrets.token_urlsafe(24)
        self.session = session
        self.app = create_app(session, self.token)
        logging.getLogger("werkzeug").setLevel(logging.ERROR)  # no line per request: the page polls
        self.http = make_server(host, port, self.app, threaded=True)
        self.http.daemon_threads = True
        self.port = self.http.server_port
        shown = f"[{host}]" if ":" in host else host
        self.app.config["HOSTS"] = allowed_hosts(host, self.port)
        self.base = f"http://{shown}:{self.port}/"
        self.url = f"{self.base}?token={self.token}"

    def start(self) -> "Server":
        threading.Thread(target=self.http.serve_forever, kwargs={"poll_interval": 0.2}, daemon=True).start()
        return self

    def close(self) -> None:
        self.http.shutdown()
        self.http.server_close()
        self.app.study.close()
        self.session.close()


def _interrupt(*_) -> None:
    raise KeyboardInterrupt


def run(args) -> int:
    if not 0 <= args.port <= 65535:
        print(f"corvanta: --port {args.port}: a port is 0 (any free one) to 65535", file=sys.stderr)
        return 2
    if not loopback(args.host):
        print(f"corvanta: --host {args.host}: the app listens on loopback addresses only", file=sys.stderr)
        return 2
    if not web():
        print(f"corvanta: {MISSING}", file=sys.stderr)
        return 2
    folders = [Path(f) for f in (args.folder or [])]
    for f in folders:
        if not f.is_dir():
            print(f"corvanta: --folder {f}: no such folder", file=sys.stderr)
            return 2
    game = getattr(args, "game", None)
    toml = game is not None and game.lower().endswith(".toml")
    parsed = None
    if game is not None:
        if not Path(game).is_file():
            print(f"corvanta: {game}: no such file", file=sys.stderr)
            return 2
        if toml:
            try:  # a game file with a mistake ends here, before anything is served
                parsed = Game.from_toml(game)
            except (OSError, GameError) as e:
                print(f"corvanta: {e}", file=sys.stderr)
                return 2
        folders.append(Path(game).resolve().parent)
    if not folders:
        folders = [Path.cwd()]
    session = Session(args.bin, list(dict.fromkeys(f.resolve() for f in folders)), ROOT / "examples" / "ranges")
    if game is not None and not toml:
        try:  # a stored tree loads at once; one the engine refuses is an error of the command
            session.open(path=Path(game).resolve())
        except (Refused, EngineError) as e:
            print(f"corvanta: {e}", file=sys.stderr)
            session.close()
            return 1
    try:
        server = Server(session, args.host, args.port)
    except OSError as e:
        print(f"corvanta: can't listen on {args.host}:{args.port}: {e}", file=sys.stderr)
        session.close()
        return 1
    what = f" of {Path(game).name}" if game else ""
    print(f"Corvanta app{what} on {server.url} (Ctrl-C ends it)", flush=True)
    print(f"corvanta: files in {', '.join(str(f) for f in session.folders)}", file=sys.stderr, flush=True)
    if parsed is not None:
        def set_up_and_solve() -> None:
            try:
                session.set_up(game_form(parsed), Path(game).name)
                session.solve({"threads": parsed.threads or 0, "accuracy": parsed.accuracy,
                               "seconds": parsed.seconds, "steps": parsed.steps, "fresh": False})
            except (Refused, Busy, EngineError) as e:
                print(f"corvanta: {e}", file=sys.stderr, flush=True)
        threading.Thread(target=set_up_and_solve, daemon=True).start()
    signal.signal(signal.SIGTERM, _interrupt)
    try:
        server.http.serve_forever(poll_interval=0.2)
    except KeyboardInterrupt:
        pass
    finally:
        server.http.server_close()
        server.app.study.close()
        session.close()
    return 0


def _options(p) -> None:
    p.add_argument("--folder", action="append", metavar="DIR",
                   help="a folder for tree files and studies (repeatable; default: the current folder)")
    p.add_argument("--host", default="127.0.0.1", help="loopback address to listen on (default: 127.0.0.1)")
    p.add_argument("--port", type=int, default=0, help="port (default: a free one, printed)")
    p.add_argument("--bin", help="the engine (default: $CORVANTA_BIN, else build/corvanta)")
    p.set_defaults(run=run)


def add_parser(sub) -> None:
    p = sub.add_parser("app", help="serve the solver as a local web page: set up, solve, explore, lock, save")
    p.add_argument("game", nargs="?", help="a TOML game (set up and solved at once) or a tree file to open")
    _options(p)
    p = sub.add_parser("view", help="the app, opened on a game")
    p.add_argument("game", help="a TOML game (solved first) or a stored tree file")
    _options(p)
