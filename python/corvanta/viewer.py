"""python3 -m corvanta view GAME: a local web page over one engine.

The server is the standard library's threading HTTP server. Requests run on
their own threads, but the engine is one child process answering one line at a
time, so every use of it takes the one engine lock: concurrent requests queue
there. A TOML game is solved on a thread of its own after the server is up, so
that the page can show the progress; a stored tree is loaded before serving,
and a tree the engine can't load ends the command with the engine's reason.

Nothing from a request reaches the engine unchecked: a path must match the
viewer's own pattern before the engine parses it again, a player is OOP or IP,
unknown or repeated parameters are refused, and all refusals answer 400 with a
message. Only the few page files below are served. A request must name this
server in its Host (a loopback name or the address listened on, with the port)
and come from no other page's Origin, else 403: another site's page can't read
the answers by pointing its own name at 127.0.0.1. A HEAD gets its checks and
headers but no engine work, and a client that leaves mid-answer is let go in
silence.
"""
from __future__ import annotations

import ipaddress
import json
import math
import signal
import socket
import sys
import threading
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any

from .client import EngineError, Report, Solver
from .game import Game, GameError
from .nodeview import ViewError, check_path, check_player, node_view, open_game

STATIC = Path(__file__).with_name("static")
PAGES = {"/": ("index.html", "text/html; charset=utf-8"),
         "/viewer.js": ("viewer.js", "text/javascript; charset=utf-8"),
         "/viewer.css": ("viewer.css", "text/css; charset=utf-8")}
PARAMS = {"/api/status": set(), "/api/node": {"path", "player"}}
CACHED_NODES = 256  # a node's answer is some 100 kB at most


class Session:
    """The engine, its lock, and what the page asks about it: the state of the set-up and the node cache."""

    def __init__(self, game: str, binary: str | None = None):
        self.game = game
        self.binary = binary
        self.engine_lock = threading.Lock()
        self.state_lock = threading.Lock()
        self.state = "starting"
        self.message = ""
        self.reports: list[dict[str, Any]] = []
        self.info: dict[str, Any] = {"name": Path(game).name}
        self.cache: dict[tuple[str, str | None], dict[str, Any]] = {}
        self.solver: Solver | None = None
        self.started = time.monotonic()

    def _set(self, **fields) -> None:
        with self.state_lock:
            for k, v in fields.items():
                setattr(self, k, v)

    def _progress(self, report: Report) -> None:
        with self.state_lock:
            self.reports.append({"iteration": report.iteration, "seconds": report.seconds,
                                 "exploitability": report.exploitability,
                                 "ev_oop": report.ev_oop, "ev_ip": report.ev_ip})

    def prepare(self) -> bool:
        """Starts the engine and opens the game in it; False (with the message kept) when that fails."""
        toml = self.game.lower().endswith(".toml")
        self._set(state="solving" if toml else "loading")
        if toml:
            try:  # the page draws its progress bar towards the game's target
                g = Game.from_toml(self.game)
                self._set(info={**self.info, "pot": g.pot, "target": g.accuracy * g.pot})
            except (OSError, GameError):
                pass  # open_game says what is wrong
        try:
            with self.engine_lock:
                if self.solver is None:
                    self.solver = Solver(self.binary)
                opened = open_game(self.solver, self.game, self._progress)
        except (ViewError, EngineError, OSError) as e:
            self._set(state="error", message=str(e))
            return False
        self._set(state="ready", info={"name": opened.name, "board": opened.board, "pot": opened.pot,
                                      "results": opened.results})
        return True

    def status(self) -> dict[str, Any]:
        # The first report stays: the page measures the progress from it.
        with self.state_lock:
            return {"state": self.state, "message": self.message, "game": self.info,
                    "reports": self.reports[:1] + self.reports[1:][-199:], "seconds": round(time.monotonic() - self.started, 1)}

    def check_node(self, path: str, player: str | None) -> None:
        """What can be told of a node request without the engine: ViewError or Busy."""
        check_path(path)
        if player is not None:
            check_player(player)
        if self.state != "ready":
            raise Busy(f"the game is not ready ({self.state})")

    def node(self, path: str, player: str | None) -> dict[str, Any]:
        self.check_node(path, player)
        key = (path, player)
        with self.engine_lock:
            if key not in self.cache:
                if len(self.cache) >= CACHED_NODES:  # the oldest goes first
                    self.cache.pop(next(iter(self.cache)))
                self.cache[key] = node_view(self.solver, path, player)
            return self.cache[key]

    def close(self) -> None:
        with self.engine_lock:
            if self.solver is not None:
                self.solver.close()


class Busy(Exception):
    pass


def _json_safe(x):
    if isinstance(x, float) and not math.isfinite(x):
        return None
    if isinstance(x, dict):
        return {k: _json_safe(v) for k, v in x.items()}
    if isinstance(x, (list, tuple)):
        return [_json_safe(v) for v in x]
    return x


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


class Handler(BaseHTTPRequestHandler):
    session: Session
    server_version = "corvanta-viewer"
    sys_version = ""

    def log_message(self, format: str, *args) -> None:
        pass  # the page polls; a line per request would drown the terminal

    def _send(self, status: int, body: bytes, kind: str) -> None:
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.send_header("X-Content-Type-Options", "nosniff")
        self.send_header("Content-Security-Policy", "default-src 'self'; img-src 'self' data:")
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def _refusal(self) -> str | None:
        """Why a request from outside this server's own page is refused, or None."""
        host = (self.headers.get("Host") or "").strip().lower()
        allowed = allowed_hosts(*self.server.server_address[:2])
        if host not in allowed:
            return f"Host {host[:80]!r} is not this server (use http://{sorted(allowed)[0]}/)"
        origin = self.headers.get("Origin")
        if origin is not None and origin.strip().lower() != f"http://{host}":
            return f"requests from the page of {origin[:80]!r} are refused"
        return None

    def _json(self, status: int, data: Any) -> None:
        self._send(status, json.dumps(_json_safe(data), separators=(",", ":")).encode(),
                   "application/json; charset=utf-8")

    def _error(self, status: int, message: str) -> None:
        self._json(status, {"error": message})

    def do_GET(self) -> None:
        try:
            refusal = self._refusal()
            if refusal:
                return self._error(403, refusal)
            self._route()
        except ConnectionError:
            self.close_connection = True  # the client went away: nobody to tell
        except Exception as e:  # a broken request must never end the server
            try:
                self._error(500, f"internal error: {type(e).__name__}: {e}")
            except ConnectionError:
                self.close_connection = True

    do_HEAD = do_GET

    def _route(self) -> None:
        target = urllib.parse.urlsplit(self.path)
        if target.path in PAGES:
            name, kind = PAGES[target.path]
            return self._send(200, (STATIC / name).read_bytes(), kind)
        if target.path not in PARAMS:
            return self._error(404, f"no such page: {target.path[:80]}")
        try:
            pairs = urllib.parse.parse_qsl(target.query, keep_blank_values=True, strict_parsing=bool(target.query),
                                           max_num_fields=4)
        except ValueError as e:
            return self._error(400, f"bad query: {e}")
        args: dict[str, str] = {}
        for k, v in pairs:
            if k not in PARAMS[target.path]:
                return self._error(400, f"unknown parameter {k[:40]!r}")
            if k in args:
                return self._error(400, f"parameter {k!r} given twice")
            args[k] = v
        if target.path == "/api/status":
            return self._json(200, self.session.status())
        try:
            if self.command == "HEAD":  # the headers alone: checked, but no work for the engine
                self.session.check_node(args.get("path", "r:0"), args.get("player"))
                return self._send(200, b"", "application/json; charset=utf-8")
            data = self.session.node(args.get("path", "r:0"), args.get("player"))
        except ViewError as e:
            return self._error(400, str(e))
        except Busy as e:
            return self._error(503, str(e))
        except EngineError as e:
            return self._error(500, f"engine: {e}")
        self._json(200, data)


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address) -> None:
        # A client that goes away mid-request is no fault of the server's; anything else is one line.
        error = sys.exc_info()[1]
        if not isinstance(error, ConnectionError):
            print(f"corvanta: request from {client_address[0]}: {type(error).__name__}: {error}",
                  file=sys.stderr, flush=True)


def serve(session: Session, host: str = "127.0.0.1", port: int = 0) -> ThreadingHTTPServer:
    handler = type("BoundHandler", (Handler,), {"session": session})
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    server = type("BoundServer", (Server,), {"address_family": family})((host, port), handler)
    server.daemon_threads = True
    return server


def _interrupt(*_) -> None:
    # A plain kill ends the engine too, through the same way out as Ctrl-C.
    raise KeyboardInterrupt


def run(args) -> int:
    if not 0 <= args.port <= 65535:
        print(f"corvanta: --port {args.port}: a port is 0 (any free one) to 65535", file=sys.stderr)
        return 2
    if not Path(args.game).is_file():
        print(f"corvanta: {args.game}: no such file", file=sys.stderr)
        return 2
    session = Session(args.game, args.bin)
    toml = args.game.lower().endswith(".toml")
    if toml:
        try:  # a game file with a mistake ends here, before anything is served
            Game.from_toml(args.game)
        except (OSError, GameError) as e:
            print(f"corvanta: {e}", file=sys.stderr)
            return 2
    elif not session.prepare():
        # A stored tree loads at once; one the engine refuses is an error of the command.
        print(f"corvanta: {session.message}", file=sys.stderr)
        session.close()
        return 1
    try:
        server = serve(session, args.host, args.port)
    except OSError as e:
        print(f"corvanta: can't listen on {args.host}:{args.port}: {e}", file=sys.stderr)
        session.close()
        return 1
    host, port = server.server_address[:2]
    shown = f"[{host}]" if ":" in host else host
    print(f"Corvanta viewer of {Path(args.game).name} on http://{shown}:{port}/ (Ctrl-C ends it)", flush=True)
    if not loopback(args.host):
        print(f"corvanta: warning: listening on {args.host}, reachable beyond this machine", file=sys.stderr)
    if toml:
        def solve_then_report():
            ok = session.prepare()
            print("corvanta: game solved" if ok else f"corvanta: {session.message}", file=sys.stderr, flush=True)
        threading.Thread(target=solve_then_report, daemon=True).start()
    signal.signal(signal.SIGTERM, _interrupt)
    try:
        server.serve_forever(poll_interval=0.2)
    except KeyboardInterrupt:
        pass
    finally:
        server.server_close()
        if session.solver is not None:
            session.solver.close()
    return 0


def add_parser(sub) -> None:
    p = sub.add_parser("view", help="serve a local web page that shows a solved game")
    p.add_argument("game", help="a TOML game (solved first) or a stored tree file")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (default: 127.0.0.1)")
    p.add_argument("--port", type=int, default=0, help="port (default: a free one, printed)")
    p.add_argument("--bin", help="the engine (default: $CORVANTA_BIN, else build/corvanta)")
    p.set_defaults(run=run)
