import csv
import itertools
import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from corvanta import Solver
from corvanta.flops import canonical_flops, read_list, sample, textures

ROOT = Path(__file__).resolve().parents[2]
# A river game after each flop: tiny ranges, one bet size, loose accuracy.
STUDY = """pot = 100
stack = 200
accuracy = 0.05
threads = 1
runout = "7c 4d"
[ranges]
oop = "AA,KK,QQ,AK,KQ"
ip = "AA-TT,AK,AQ,KQ"
[tree.river]
bet = "50%"
"""
FLOPS = ["AsKhQd", "JsTs9s", "8s8h2d", "As5s3h", "KsKhKd", "Qs6s2s"]


def test_canonical_flops_cover_every_raw_flop_once():
    flops = canonical_flops()
    assert len(flops) == 1755 and sum(f.weight for f in flops) == 22100
    entries = {f.cards: f.weight for f in flops}
    hits = dict.fromkeys(entries, 0)
    for raw in itertools.combinations(range(52), 3):
        # The raw flop's class: all its suit renamings.
        renamed = {tuple(sorted((c // 4 * 4 + p[c % 4] for c in raw), reverse=True))
                   for p in itertools.permutations(range(4))}
        found = renamed & entries.keys()
        assert len(found) == 1, raw
        hits[found.pop()] += 1
    assert hits == entries
    share = lambda key, cls: sum(f.weight for f in flops if textures(f.cards)[key] == cls)
    assert (share("suits", "monotone"), share("suits", "rainbow"), share("pairing", "paired"),
            share("pairing", "trips")) == (1144, 8788, 3744, 52)


def test_samples_and_lists():
    a, b = sample(30, seed=7), sample(30, seed=7)
    assert a == b and len({f.cards for f in a}) == 30 and a != sample(30, seed=8)
    listed = read_list("# my flops\nQh Jd 2d\n7c7d7h  # trips\n")
    assert [(f.name, f.weight) for f in listed] == [("QsJh2h", 12), ("7s7h7d", 4)]
    for bad in ("Qh Jd\n", "QhJd2d\nQsJc2c\n", "Qh Jd 2x\n", ""):
        with pytest.raises(ValueError):
            read_list(bad)


def run_env(engine: str) -> dict:
    env = dict(os.environ, PYTHONPATH=str(ROOT / "python"), CORVANTA_BIN=engine)
    env.pop("SLURM_ARRAY_TASK_COUNT", None)
    return env


def summaries(out: Path) -> dict[str, int]:
    return {p.stem: p.stat().st_mtime_ns for p in out.glob("*.json")}


def trees(out: Path) -> dict[str, int]:
    return {p.stem: p.stat().st_mtime_ns for p in out.glob("*.tree")}


def check_tree_files(engine: str, out: Path) -> None:
    """Each flop's tree file loads back to the results of its summary."""
    with Solver(engine) as solver:
        for path in out.glob("*.json"):
            s = json.loads(path.read_text())
            assert s["tree_file"] == f"{s['flop']}.tree"
            assert solver.command(f"load_tree {out / s['tree_file']}") == ["load_tree ok!"]
            assert solver.results().ev_oop == pytest.approx(s["results"]["ev_oop"], abs=0.002)


def test_batch_resumes_after_a_kill_and_aggregates(engine, tmp_path):
    # Each engine starts a little late, so that the kill finds jobs running.
    slow = tmp_path / "slow-engine"
    slow.write_text(f"#!/bin/sh\nsleep 0.7\nexec '{engine}' \"$@\"\n")
    slow.chmod(0o755)
    (tmp_path / "study.toml").write_text(STUDY)
    (tmp_path / "flops.txt").write_text("\n".join(FLOPS) + "\n")
    out = tmp_path / "out"
    cmd = [sys.executable, "-m", "corvanta", "batch", "study.toml", "--flops", "flops.txt", "--out", "out",
           "--jobs", "2", "--threads", "1", "--bin", str(slow)]
    first = subprocess.Popen(cmd, cwd=tmp_path, env=run_env(engine), stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    deadline = time.monotonic() + 60
    while not summaries(out) and first.poll() is None and time.monotonic() < deadline:
        time.sleep(0.02)
    os.killpg(first.pid, signal.SIGKILL)  # parallel, its jobs and their engines: a power loss
    first.wait(timeout=10)
    time.sleep(1.5)  # the jobs, in process groups of their own, see the batch gone and end
    done, stored = summaries(out), trees(out)
    assert 1 <= len(done) < len(FLOPS) and stored.keys() >= done.keys()

    again = subprocess.run(cmd, cwd=tmp_path, env=run_env(engine), stdin=subprocess.DEVNULL,
                           capture_output=True, text=True, timeout=120)
    assert again.returncode == 0, again.stderr
    assert f"{len(done)} done already" in again.stderr and f"{len(FLOPS)} of {len(FLOPS)} flops done" in again.stderr
    after = summaries(out)
    assert sorted(after) == sorted(FLOPS) == sorted(trees(out)) and {k: after[k] for k in done} == done
    assert {k: trees(out)[k] for k in done} == {k: stored[k] for k in done}  # nor stored again
    assert not list(out.glob(".*"))  # no temporary file left behind
    check_tree_files(engine, out)

    run = subprocess.run([sys.executable, "-m", "corvanta", "aggregate", "out", "--csv", "r.csv", "--html", "r.html"],
                         cwd=tmp_path, env=run_env(engine), stdin=subprocess.DEVNULL, capture_output=True,
                         text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    table = list(csv.DictReader(open(tmp_path / "r.csv")))
    rows = {r["flop"]: r for r in table}
    assert sorted(r["flop"] for r in table[:len(FLOPS)]) == sorted(FLOPS) and table[len(FLOPS)]["flop"] == "total"
    js = [json.loads((out / f"{f}.json").read_text()) for f in FLOPS]
    weight = sum(s["weight"] for s in js)
    assert int(rows["total"]["weight"]) == weight == sum(int(rows[f]["weight"]) for f in FLOPS)
    mean = lambda get: sum(get(s) * s["weight"] for s in js) / weight
    for column, get in (("ev_oop", lambda s: s["results"]["ev_oop"]), ("equity_ip", lambda s: s["equity"]["ip"]),
                        ("freq_b50", lambda s: s["root"]["frequencies"]["b50"])):
        assert float(rows["total"][column]) == pytest.approx(mean(get))
    assert rows["suits:monotone"]["weight"] == str(sum(s["weight"] for s in js if s["textures"]["suits"] == "monotone"))
    assert (tmp_path / "r.html").read_text().count("data:image/png;base64,") == 4


def test_slurm_array_tasks_share_the_flops(engine, tmp_path):
    (tmp_path / "study.toml").write_text(STUDY)
    (tmp_path / "flops.txt").write_text("\n".join(FLOPS[:4]) + "\n")
    seen = []
    for task in (0, 1):
        env = dict(run_env(engine), SLURM_ARRAY_TASK_ID=str(task), SLURM_ARRAY_TASK_COUNT="2",
                   STUDY="study.toml", FLOPS="flops.txt", OUT="out", THREADS="1")
        run = subprocess.run(["bash", str(ROOT / "examples" / "study.sbatch")], cwd=tmp_path, env=env,
                             stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120)
        assert run.returncode == 0, run.stderr
        seen.append(summaries(tmp_path / "out"))
    first, both = seen
    assert len(first) == 2 and sorted(both) == sorted(FLOPS[:4])
    assert {k: both[k] for k in first} == first  # the second task solved none of the first's
