#!/usr/bin/env python3
"""Times the app's answers on the flop bench game, through its HTTP API as the page asks:
the set-up preview (build, node count, memory), a node view, a node's EVs, and the report
over the turn cards, each from a cold cache and again from the warm one.

    bench/app_views.py [engine]            (default: $CORVANTA_BIN, else build/corvanta)
    STEPS=100 THREADS=2 bench/app_views.py

The game is the one of ../shared/bench-games/flop.txt, set up from the sizes and ranges its
header states; the preview's line count is checked against the header's.
"""
from __future__ import annotations

import http.client
import json
import os
import re
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "python"))

from corvanta.app import Server  # noqa: E402
from corvanta.session import Session  # noqa: E402

GAME = ROOT.parent / "shared" / "bench-games" / "flop.txt"
TARGETS = {"preview": 1.0, "node": 0.2, "cards": 1.0}


def bench_form(text: str) -> tuple[dict, int]:
    """The app's set-up form of a bench script, from its header; and its number of lines."""
    head = [line[2:] for line in text.splitlines() if line.startswith("# ")]
    m = re.search(r"board ([2-9TJQKA][cdhs](?: [2-9TJQKA][cdhs])+), starting pot (\d+), effective stack (\d+)", head[0])
    form = {"board": m[1], "pot": int(m[2]), "stack": int(m[3]), "ranges": {}, "tree": {}}
    lines = 0
    for line in head[1:]:
        if s := re.match(r"(flop|turn|river) sizes \(both players\): bet \"([^\"]*)\", raise \"([^\"]*)\", "
                         r"max raises per street (\d+)", line):
            form["tree"][s[1]] = {"bet": s[2], "raise": s[3], "max_raises": int(s[4])}
        elif r := re.match(r"(OOP|IP) range \([^)]*\): (.*)", line):
            form["ranges"][r[1].lower()] = r[2]
        elif n := re.search(r"(\d+) showdown lines", line):
            lines = int(n[1])
    return form, lines


class Client:
    def __init__(self, server: Server):
        self.port, self.token = server.port, server.token

    def __call__(self, path: str, body=None) -> tuple[float, dict]:
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=3600)
        headers = {"Host": f"127.0.0.1:{self.port}", "X-Corvanta-Token": self.token}
        data = None
        if body is not None:
            data = json.dumps(body).encode()
            headers["Content-Type"] = "application/json"
        started = time.perf_counter()
        conn.request("POST" if body is not None else "GET", path, body=data, headers=headers)
        answer = conn.getresponse()
        raw = answer.read()
        took = time.perf_counter() - started
        conn.close()
        out = json.loads(raw)
        if answer.status != 200:
            raise SystemExit(f"{path}: {answer.status} {out}")
        return took, out


def main() -> int:
    binary = sys.argv[1] if len(sys.argv) > 1 else os.environ.get("CORVANTA_BIN") or str(ROOT / "build" / "corvanta")
    steps, threads = int(os.environ.get("STEPS", "100")), int(os.environ.get("THREADS", "2"))
    form, want_lines = bench_form(GAME.read_text())
    rows: list[tuple[str, str, float]] = []
    with tempfile.TemporaryDirectory() as folder:
        server = Server(Session(binary, [Path(folder)])).start()
        api = Client(server)
        try:
            took, preview = api("/api/setup", form)
            if preview["lines"] != want_lines:
                raise SystemExit(f"the set-up has {preview['lines']} lines, the bench game {want_lines}")
            rows.append(("preview", "set-up preview (build, node count, memory)", took))
            started = time.monotonic()
            api("/api/solve", {"steps": steps, "threads": threads, "accuracy": 0})
            while (status := api("/api/status")[1])["state"] == "solving":
                time.sleep(0.5)
            r = status["results"]
            print(f"solved {r['iterations']} iterations in {time.monotonic() - started:.1f} s, "
                  f"exploitable {100 * r['exploitability_share']:.3f}% of the pot", file=sys.stderr)
            for path in ("r:0", "r:0:b5", "r:0:c:c:Ks", "r:0:c:c:Ks:b8"):
                rows.append(("node", f"node view {path}", api(f"/api/node?path={path}")[0]))
                rows.append(("", f"node view {path}, again (cached)", api(f"/api/node?path={path}")[0]))
                rows.append(("", f"EVs and equities {path}", api(f"/api/values?path={path}&player=OOP")[0]))
            rows.append(("cards", "per-card report r:0:c:c (reach, equity, actions)", api("/api/cards?path=r:0:c:c&values=0")[0]))
            rows.append(("", "per-card report r:0:c:c, again (cached)", api("/api/cards?path=r:0:c:c&values=0")[0]))
            rows.append(("", "per-card report r:0:c:c with EVs", api("/api/cards?path=r:0:c:c&values=1")[0]))
        finally:
            server.close()
    print(f"{'what':<56} {'seconds':>8}  target")
    for kind, what, took in rows:
        target = TARGETS.get(kind)
        mark = "" if target is None else f"< {target:g} s {'ok' if took < target else 'OVER'}"
        print(f"{what:<56} {took:8.3f}  {mark}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
