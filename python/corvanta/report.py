"""python3 -m corvanta report GAME --path r:0 --png grid.png --html report.html

The app's grid and node summary as files: a PNG drawn with matplotlib and
an HTML page that holds everything inline (CSS and SVG, no scripts), so it
reads the same from a mail or an archive. Both come from the app's own
node data, so a report and the page never disagree.
"""
from __future__ import annotations

import html
import os
import sys
from typing import Any

from .client import EngineError, Report, Solver
from .files import TargetError, check_target, replace
from .game import Game, GameError
from .nodeview import ViewError, check_path, check_player, node_view, open_game
from .plotting import MISSING, pyplot

PNG_SIZE = (1200, 720)  # pixels: 12 x 7.2 inches at 100 dpi


def _pct(x: float | None, digits: int = 1) -> str:
    return "-" if x is None else f"{100 * x:.{digits}f}%"


def _num(x: float | None, digits: int = 2) -> str:
    return "-" if x is None else f"{x:.{digits}f}"


def _title(view: dict[str, Any], game: str) -> str:
    who = view["acting"] or "nobody"
    return f"{game}  ·  {view['path']}  ·  board {' '.join(view['board'])}  ·  {who} to act"


def _summary_lines(view: dict[str, Any]) -> list[tuple[str, str]]:
    s = view["summary"]
    out = [("", f"{'OOP':>8}  {'IP':>8}"),
           ("EV (chips)", f"{_num(s['ev']['OOP']):>8}  {_num(s['ev']['IP']):>8}"),
           ("equity", f"{_pct(s['eq']['OOP']):>8}  {_pct(s['eq']['IP']):>8}"),
           ("range (combos)", f"{_num(s['range_sums']['OOP'], 1):>8}  {_num(s['range_sums']['IP'], 1):>8}"),
           ("line played", _pct(s["line_freq"], 2))]
    return out


# -- PNG --------------------------------------------------------------------

def write_png(view: dict[str, Any], path: str, game: str) -> None:
    plt = pyplot()
    if plt is None:
        raise ImportError(MISSING)
    from matplotlib.patches import Rectangle

    fig = plt.figure(figsize=(PNG_SIZE[0] / 100, PNG_SIZE[1] / 100), dpi=100)
    fig.text(0.02, 0.965, _title(view, game), fontsize=12, weight="bold")
    ax = fig.add_axes((0.02, 0.03, 0.52, 0.52 * PNG_SIZE[0] / PNG_SIZE[1] * 0.99))
    ax.set_xlim(0, 13)
    ax.set_ylim(13, 0)
    ax.set_axis_off()
    colors = {a["name"]: a["color"] for a in view["actions"]}
    for i, cell in enumerate(view["cells"]):
        x, y = i % 13, i // 13
        ax.add_patch(Rectangle((x, y), 1, 1, facecolor="white", edgecolor="#c9ced5", linewidth=0.8))
        h = min(1.0, cell["weight"])
        if h > 0:
            if cell["mix"]:
                left = x
                for a in view["actions"]:
                    w = cell["mix"][a["name"]]
                    ax.add_patch(Rectangle((left, y + 1 - h), w, h, facecolor=colors[a["name"]], linewidth=0))
                    left += w
            else:
                ax.add_patch(Rectangle((x, y + 1 - h), 1, h, facecolor="#aab2bd", linewidth=0))
        ax.text(x + 0.06, y + 0.3, cell["hand"], fontsize=7.5, weight="bold", color="#1d232b")

    side = fig.add_axes((0.58, 0.03, 0.40, 0.88))
    side.set_axis_off()
    side.set_xlim(0, 1)
    side.set_ylim(1, 0)
    y = 0.02
    for a in view["actions"]:
        side.add_patch(Rectangle((0, y - 0.012), 0.03, 0.024, facecolor=a["color"]))
        side.text(0.05, y, f"{a['label']}", va="center", fontsize=10)
        side.text(0.55, y, _pct(a["freq"]), va="center", ha="right", fontsize=10)
        y += 0.04
    y += 0.02
    for label, value in _summary_lines(view):
        side.text(0, y, label, va="center", fontsize=10)
        side.text(0.55, y, value, va="center", ha="right", fontsize=10, family="monospace")
        y += 0.04
    y += 0.03
    side.text(0, y, f"{view['player']}'s hand classes", va="center", fontsize=10, weight="bold")
    y += 0.04
    for c in view["classes"] + view["draws"]:
        if y > 0.98:
            break
        side.text(0, y, c["name"].replace("_", " "), va="center", fontsize=9)
        side.text(0.45, y, _pct(c["share"]), va="center", ha="right", fontsize=9)
        if c["mix"]:
            left = 0.5
            for a in view["actions"]:
                w = 0.45 * c["mix"][a["name"]]
                side.add_patch(Rectangle((left, y - 0.012), w, 0.024, facecolor=colors[a["name"]], linewidth=0))
                left += w
        y += 0.035
    replace(path, lambda tmp: fig.savefig(tmp, dpi=100, format="png", facecolor="white"))
    plt.close(fig)


# -- HTML -------------------------------------------------------------------

CSS = """body{font:14px/1.4 system-ui,sans-serif;margin:16px;color:#1d232b;background:#f6f7f9}
h1{font-size:18px}h2{font-size:14px;color:#48515c;margin:14px 0 6px}
.wrap{display:flex;gap:24px;flex-wrap:wrap;align-items:flex-start}
table{border-collapse:collapse}td,th{padding:2px 8px;text-align:right;border-bottom:1px solid #e2e5e9}
td:first-child,th:first-child{text-align:left}.sw{display:inline-block;width:12px;height:12px;margin-right:4px}
svg text{font:bold 11px system-ui,sans-serif;fill:#1d232b}"""

CELL = 44


def _svg_grid(view: dict[str, Any]) -> str:
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{13 * CELL + 1}" height="{13 * CELL + 1}" '
           f'viewBox="0 0 {13 * CELL + 1} {13 * CELL + 1}">']
    for i, cell in enumerate(view["cells"]):
        x, y = (i % 13) * CELL, (i // 13) * CELL
        mix = cell["mix"]
        data = ",".join(f"{a['name']}:{mix[a['name']]:.9f}" for a in view["actions"]) if mix else ""
        combos = view["combos"].get(cell["hand"], [])
        tip = [f"{cell['hand']}: weight {cell['weight']:.3f}"]
        for c in combos:
            strategy = ", ".join(f"{a['label']} {_pct(c['strategy'][a['name']])}" for a in view["actions"]) \
                if c["strategy"] else ""
            tip.append(f"{c['hand']} {strategy}; EV {_num(c['ev'])}; equity {_pct(c['eq'])}".replace(" ;", ";"))
        out.append(f'<g class="cell" data-hand="{cell["hand"]}" data-weight="{cell["weight"]:.9f}" '
                   f'data-mix="{data}"><title>{html.escape(chr(10).join(tip))}</title>')
        out.append(f'<rect x="{x}" y="{y}" width="{CELL}" height="{CELL}" fill="#fff" stroke="#c9ced5"/>')
        h = min(1.0, cell["weight"]) * (CELL - 1)
        if h > 0:
            left = float(x) + 0.5
            for a in (view["actions"] if mix else [{"name": None, "color": "#aab2bd"}]):
                w = (CELL - 1) * (mix[a["name"]] if mix else 1.0)
                out.append(f'<rect x="{left:.2f}" y="{y + CELL - 0.5 - h:.2f}" width="{w:.2f}" height="{h:.2f}" '
                           f'fill="{a["color"]}"/>')
                left += w
        out.append(f'<text x="{x + 3}" y="{y + 13}">{cell["hand"]}</text></g>')
    out.append("</svg>")
    return "".join(out)


def _mix_svg(view: dict[str, Any], mix: dict[str, float] | None) -> str:
    if not mix:
        return ""
    parts, left = [], 0.0
    for a in view["actions"]:
        w = 120 * mix[a["name"]]
        parts.append(f'<rect x="{left:.2f}" y="0" width="{w:.2f}" height="12" fill="{a["color"]}"/>')
        left += w
    return f'<svg xmlns="http://www.w3.org/2000/svg" width="120" height="12">{"".join(parts)}</svg>'


def html_report(view: dict[str, Any], game: str) -> str:
    e = html.escape
    s = view["summary"]
    actions = "".join(f'<tr><td><span class="sw" style="background:{a["color"]}"></span>{e(a["label"])}</td>'
                      f'<td>{_pct(a["freq"])}</td></tr>' for a in view["actions"])
    classes = "".join(f'<tr><td>{e(c["name"].replace("_", " "))}</td><td>{_pct(c["share"])}</td>'
                      f'<td>{c["combos"]}</td><td>{_mix_svg(view, c["mix"])}</td></tr>'
                      for c in view["classes"] + view["draws"])
    cards = f'<p>Cards that can come: {e(" ".join(view["cards"]))}</p>' if view["cards"] else ""
    return f"""<!doctype html>
<html lang="en"><head><meta charset="utf-8"><title>{e(_title(view, game))}</title><style>{CSS}</style></head>
<body><h1>{e(_title(view, game))}</h1>{cards}
<div class="wrap"><div><h2>{e(view["player"])}: strategy by hand, shaded by range weight</h2>{_svg_grid(view)}</div>
<div><h2>Actions</h2><table><tr><th>action</th><th>frequency</th></tr>{actions}</table>
<h2>Node</h2><table><tr><th></th><th>OOP</th><th>IP</th></tr>
<tr><td>EV (chips)</td><td>{_num(s["ev"]["OOP"])}</td><td>{_num(s["ev"]["IP"])}</td></tr>
<tr><td>equity</td><td>{_pct(s["eq"]["OOP"])}</td><td>{_pct(s["eq"]["IP"])}</td></tr>
<tr><td>range (combos)</td><td>{_num(s["range_sums"]["OOP"], 1)}</td><td>{_num(s["range_sums"]["IP"], 1)}</td></tr>
</table><p>The line is played {_pct(s["line_freq"], 2)} of the time.</p>
<h2>{e(view["player"])}'s hand classes</h2><table><tr><th>class</th><th>share</th><th>combos</th><th>actions</th></tr>
{classes}</table></div></div></body></html>
"""


def write_html(view: dict[str, Any], path: str, game: str) -> None:
    text = html_report(view, game)
    replace(path, lambda tmp: tmp.write_text(text, encoding="utf-8"))


# -- command ----------------------------------------------------------------

def run(args) -> int:
    if not args.png and not args.html:
        print("corvanta: report: give --png, --html or both", file=sys.stderr)
        return 2
    try:  # everything that can be told before the solve
        check_path(args.path)
        if args.player:
            check_player(args.player)
        for option, path in (("--png", args.png), ("--html", args.html)):
            if path:
                check_target(path, option)
        if args.png and pyplot() is None:
            raise ViewError(f"--png: {MISSING}; --html needs nothing more")
        if args.game.lower().endswith(".toml"):
            Game.from_toml(args.game)
        elif not os.path.isfile(args.game):
            raise ViewError(f"{args.game}: no such file")
    except (ViewError, TargetError, GameError, OSError) as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 2

    def progress(r: Report) -> None:
        if not args.quiet:
            print(f"iteration {r.iteration}: exploitable for {r.exploitability:.3f}", file=sys.stderr, flush=True)

    try:
        with Solver(args.bin) as solver:
            opened = open_game(solver, args.game, progress)
            view = node_view(solver, args.path, args.player)
    except (ViewError, EngineError) as e:
        print(f"corvanta: {e}", file=sys.stderr)
        return 1
    try:
        if args.png:
            write_png(view, args.png, opened.name)
        if args.html:
            write_html(view, args.html, opened.name)
    except OSError as e:
        print(f"corvanta: {e.filename or 'report'}: {e.strerror or e}", file=sys.stderr)
        return 1
    print(f"corvanta: {args.path} of {opened.name} written to "
          + " and ".join(p for p in (args.png, args.html) if p), file=sys.stderr)
    return 0


def add_parser(sub) -> None:
    p = sub.add_parser("report", help="write a node's grid and summary as PNG and self-contained HTML")
    p.add_argument("game", help="a TOML game (solved first) or a stored tree file")
    p.add_argument("--path", default="r:0", help="the node, e.g. r:0:b50 (default: r:0)")
    p.add_argument("--player", help="OOP or IP (default: the one to act)")
    p.add_argument("--png", help="PNG file to write")
    p.add_argument("--html", help="HTML file to write")
    p.add_argument("--bin", help="the engine (default: $CORVANTA_BIN, else build/corvanta)")
    p.add_argument("--quiet", action="store_true", help="no progress lines")
    p.set_defaults(run=run)
