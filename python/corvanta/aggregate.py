"""The report of a study: python3 -m corvanta aggregate DIR --csv out.csv --html out.html

One row per flop summary in DIR, the weighted totals, and the weighted means
by texture class. Means are weighted by each flop's weight: the raw flops its
class stands for, or 1 for each flop of a sample. A report is of one study: a
folder with summaries of several (other settings, or sample and class weights)
is refused unless --study KEY picks one.
"""
from __future__ import annotations

import base64
import csv
import html
import io
import json
import sys
from pathlib import Path

from .flops import textures
from .cards import parse_cards

TEXTURES = ("suits", "pairing", "high_card", "connectedness")
VALUES = ("ev_oop", "ev_ip", "equity_oop", "equity_ip", "exploitability")
ORDER = {"suits": ["monotone", "two-tone", "rainbow"], "pairing": ["unpaired", "paired", "trips"],
         "high_card": list("AKQJT98765432"),
         "connectedness": ["straight possible", "straight draws", "disconnected"]}


def read_rows(folder: Path) -> tuple[list[dict], list[str]]:
    """The flop rows of every summary that parses, best flop order; and the root actions seen."""
    rows, actions = [], []
    for path in sorted(folder.glob("*.json")):
        try:
            with open(path) as f:
                s = json.load(f)
            cards = parse_cards(s["flop"])
            freq = s["root"]["frequencies"]
            row = {"flop": s["flop"], "weight": s["weight"], **textures(cards),
                   "ev_oop": s["results"]["ev_oop"], "ev_ip": s["results"]["ev_ip"],
                   "equity_oop": s["equity"]["oop"], "equity_ip": s["equity"]["ip"],
                   "exploitability": s["results"]["exploitability"],
                   "study": str(s.get("study")), "weights": str(s.get("weights", "unknown")),
                   "key": tuple(sorted(cards, reverse=True))}
        except (OSError, ValueError, KeyError, TypeError, AttributeError) as e:
            print(f"corvanta: {path.name} left out: {e!r}", file=sys.stderr)
            continue
        for a in freq:
            if a not in actions:
                actions.append(a)
        row.update({f"freq_{a}": float(x) for a, x in freq.items()})
        rows.append(row)
    for row in rows:
        for a in actions:
            row.setdefault(f"freq_{a}", 0.0)
    rows.sort(key=lambda r: r["key"], reverse=True)
    return rows, actions


def weighted(rows: list[dict], columns: list[str]) -> dict:
    total = sum(r["weight"] for r in rows)
    return {"flops": len(rows), "weight": total,
            **{c: sum(r[c] * r["weight"] for r in rows) / total if total else float("nan") for c in columns}}


def breakdowns(rows: list[dict], columns: list[str]) -> dict[str, list[tuple[str, dict]]]:
    out = {}
    for t in TEXTURES:
        out[t] = [(cls, weighted([r for r in rows if r[t] == cls], columns))
                  for cls in ORDER[t] if any(r[t] == cls for r in rows)]
    return out


def write_csv(path: Path, rows: list[dict], columns: list[str], total: dict, groups: dict) -> None:
    """Flop rows, then "total", then one row per texture class named "suits:monotone" and so on."""
    header = ["flop", "weight", *TEXTURES, *columns]
    tmp = path.with_name(f".{path.name}.tmp")
    with open(tmp, "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(header)
        for r in rows:
            w.writerow([r[h] for h in header])
        w.writerow(["total", total["weight"], "", "", "", "", *(total[c] for c in columns)])
        for t, classes in groups.items():
            for cls, g in classes:
                w.writerow([f"{t}:{cls}", g["weight"], "", "", "", "", *(g[c] for c in columns)])
    tmp.replace(path)


def charts(groups: dict, actions: list[str]) -> list[str]:
    """One PNG per texture: root action frequencies and OOP's EV by class, as data URLs."""
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        return []
    images = []
    for t, classes in groups.items():
        names = [c for c, _ in classes]
        fig, (left, right) = plt.subplots(1, 2, figsize=(10, 3.2))
        bottom = [0.0] * len(names)
        for a in actions:
            values = [g[f"freq_{a}"] for _, g in classes]
            left.bar(names, values, bottom=bottom, label=a)
            bottom = [b + v for b, v in zip(bottom, values)]
        left.set_title(f"OOP's first action by {t.replace('_', ' ')}")
        left.set_ylim(0, 1)
        left.legend(fontsize="small", loc="upper right")
        right.bar(names, [g["ev_oop"] for _, g in classes], color="tab:gray")
        right.set_title("EV OOP (chips)")
        for ax in (left, right):
            ax.tick_params(axis="x", labelsize="small", rotation=20 if t == "connectedness" else 0)
        fig.tight_layout()
        buf = io.BytesIO()
        fig.savefig(buf, format="png", dpi=80)
        plt.close(fig)
        images.append("data:image/png;base64," + base64.b64encode(buf.getvalue()).decode())
    return images


def _cell(x) -> str:
    return f"{x:.4f}" if isinstance(x, float) else html.escape(str(x))


def _table(header: list[str], body: list[list]) -> str:
    head = "".join(f"<th>{html.escape(h)}</th>" for h in header)
    rows = "".join("<tr>" + "".join(f"<td>{_cell(x)}</td>" for x in r) + "</tr>" for r in body)
    return f"<table><tr>{head}</tr>{rows}</table>"


def write_html(path: Path, folder: Path, rows: list[dict], columns: list[str], total: dict, groups: dict,
               actions: list[str]) -> None:
    parts = [f"<!doctype html><meta charset='utf-8'><title>Study {html.escape(folder.name)}</title>",
             "<style>body{font:14px sans-serif;margin:2em}table{border-collapse:collapse;margin:1em 0}"
             "td,th{border:1px solid #ccc;padding:2px 6px;text-align:right}</style>",
             f"<h1>Study {html.escape(folder.name)}</h1>",
             f"<p>{total['flops']} flops standing for {total['weight']} raw flops; means weighted by them.</p>"
             if not rows[0]["weights"].startswith("sample") else
             f"<p>A sample of {total['flops']} flops {html.escape(rows[0]['weights'].removeprefix('sample '))}, "
             "drawn in proportion to the raw flops they stand for; each weighs 1.</p>",
             "<h2>Totals</h2>", _table(["flops", "weight", *columns], [[total["flops"], total["weight"],
                                                                         *(total[c] for c in columns)]])]
    for t, classes in groups.items():
        parts.append(f"<h2>By {html.escape(t.replace('_', ' '))}</h2>")
        parts.append(_table(["class", "flops", "weight", *columns],
                            [[cls, g["flops"], g["weight"], *(g[c] for c in columns)] for cls, g in classes]))
    parts += [f"<img alt='chart' src='{src}'>" for src in charts(groups, actions)] or \
        ["<p>No charts: matplotlib is missing (apt-get install python3-matplotlib).</p>"]
    parts.append("<h2>Flops</h2>")
    parts.append(_table(["flop", "weight", *TEXTURES, *columns],
                        [[r["flop"], r["weight"], *(r[t] for t in TEXTURES), *(r[c] for c in columns)]
                         for r in rows]))
    tmp = path.with_name(f".{path.name}.tmp")
    tmp.write_text("\n".join(parts) + "\n")
    tmp.replace(path)


def aggregate(args) -> int:
    folder = Path(args.folder)
    if not folder.is_dir():
        print(f"corvanta: {folder} is not a folder", file=sys.stderr)
        return 2
    rows, actions = read_rows(folder)
    if not rows:
        print(f"corvanta: no flop summaries in {folder}", file=sys.stderr)
        return 1
    studies: dict[tuple, int] = {}
    for r in rows:
        studies[(r["study"], r["weights"])] = studies.get((r["study"], r["weights"]), 0) + 1
    if args.study:
        rows = [r for r in rows if r["study"] == args.study]
        if not rows:
            print(f"corvanta: --study {args.study}: no summary of it in {folder} (it holds "
                  f"{', '.join(str(k) for k, _ in studies)})", file=sys.stderr)
            return 2
        studies = {k: n for k, n in studies.items() if k[0] == args.study}
    if len(studies) > 1:
        kinds = "; ".join(f"{k}: {n} flops, {w} weights" for (k, w), n in studies.items())
        what = "studies" if len({k for k, _ in studies}) > 1 else "weight schemes"
        print(f"corvanta: {folder} mixes {len(studies)} {what} ({kinds}); pick one with --study KEY",
              file=sys.stderr)
        return 2
    columns = [*VALUES, *(f"freq_{a}" for a in actions)]
    total = weighted(rows, columns)
    groups = breakdowns(rows, columns)
    if args.csv:
        write_csv(Path(args.csv), rows, columns, total, groups)
    if args.html:
        write_html(Path(args.html), folder.resolve(), rows, columns, total, groups, actions)
    print(f"{len(rows)} flops, weight {total['weight']}: EV OOP {total['ev_oop']:.3f}, EV IP {total['ev_ip']:.3f}"
          + "".join(f", {a} {total[f'freq_{a}']:.3f}" for a in actions), file=sys.stderr)
    return 0


def add_parser(sub) -> None:
    p = sub.add_parser("aggregate", help="one report of a study's flop summaries: CSV and HTML")
    p.add_argument("folder", help="the --out folder of batch")
    p.add_argument("--csv", help="CSV file: flop rows, the total, the texture classes")
    p.add_argument("--html", help="HTML file with tables and charts")
    p.add_argument("--study", help="the study key of the summaries to take, when the folder holds several")
    p.set_defaults(run=aggregate)
