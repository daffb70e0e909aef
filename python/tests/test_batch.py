import collections
import csv
import itertools
import json
import os
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from corvanta import Solver
from corvanta.__main__ import main
from corvanta.cards import parse_cards
from corvanta.flops import canonical_flops, read_list, sample, textures

ROOT = Path(__file__).resolve().parents[2]
# A river game after each flop: tiny ranges, one bet size, loose accuracy.
STUDY = """pot = 100
stack = 200
accuracy = 0.05
threads = 1
runout = "7c 4d"
[ranges]
{ranges}
[tree.river]
bet = "50%"
"""
STUDY_RANGES = 'oop = "AA,KK,QQ,AK,KQ"\nip = "AA-TT,AK,AQ,KQ"'
STUDY = STUDY.replace("{ranges}", STUDY_RANGES)
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
           "--jobs", "2", "--threads", "1", "--bin", str(slow), "--trees"]
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


def dry_run(tmp_path, capsys, study: str, *flags: str) -> tuple[int, list[tuple[list[int], int]], str]:
    """The boards a batch would solve: (flop and run-out cards, weight) each."""
    (tmp_path / "dry.toml").write_text(study)
    code = main(["batch", str(tmp_path / "dry.toml"), "--dry-run", *flags])
    out, err = capsys.readouterr()
    return code, [(parse_cards("".join(line.split()[:-1])), int(line.split()[-1])) for line in out.splitlines()], err


def board_kind(board: list[int], suits: tuple[int, ...]) -> tuple:
    """What no renaming of the study may change: the flop's textures, the most cards of one suit and the
    pairs on the whole board, and the flop's cards of each suit the study pins (the run-out's, a range's)."""
    flop, ranks = board[:3], collections.Counter(c // 4 for c in board)
    return (textures(flop)["suits"], textures(flop)["pairing"], max(collections.Counter(c % 4 for c in board).values()),
            tuple(sorted(ranks.values())), *(sum(c % 4 == s for c in flop) for s in suits))


def test_runout_studies_weigh_boards_as_a_plain_enumeration(tmp_path, capsys):
    for runout, ranges, pinned in (("7c", STUDY_RANGES, (0,)), ("7s", STUDY_RANGES, (3,)),
                                   ("7c 4d", STUDY_RANGES, (0, 1)), ("7c", 'oop = "AA,AhKh"\nip = "KK+"', (0, 2))):
        study = STUDY.replace('runout = "7c 4d"', f'runout = "{runout}"').replace(STUDY_RANGES, ranges)
        code, boards, err = dry_run(tmp_path, capsys, study, "--flops", "all")
        fixed = parse_cards(runout)
        raw = [[*flop, *fixed] for flop in itertools.combinations([c for c in range(52) if c not in fixed], 3)]
        assert code == 0 and sum(w for _, w in boards) == len(raw) and f"{len(raw)} raw flops" in err
        assert all(board[3:] == fixed for board, _ in boards)
        got = collections.Counter()
        for board, w in boards:
            got[board_kind(board, pinned)] += w
        assert got == collections.Counter(board_kind(board, pinned) for board in raw), (runout, ranges)
    assert "2 of 24" in err and "AhKh" in err  # the smaller symmetry, and why

    # A sample and a list take the same classes: a sampled flop is one of them, a listed one its class.
    code, every, _ = dry_run(tmp_path, capsys, STUDY.replace("7c 4d", "7c"), "--flops", "all")
    code, drawn, _ = dry_run(tmp_path, capsys, STUDY.replace("7c 4d", "7c"), "--flops", "sample:40", "--seed", "3")
    assert code == 0 and len(drawn) == 40 and {w for _, w in drawn} == {1}
    assert {tuple(b) for b, _ in drawn} <= {tuple(b) for b, _ in every}
    (tmp_path / "list.txt").write_text("Qh Jd 2d\nQcJd2d\n")
    code, listed, _ = dry_run(tmp_path, capsys, STUDY.replace("7c 4d", "7c"), "--flops", str(tmp_path / "list.txt"))
    assert [(b, w) for b, w in listed] == [(parse_cards("QsJh2h7c"), 6), (parse_cards("QcJs2s7c"), 3)]
    (tmp_path / "list.txt").write_text("Qh Jd 2d\n7c 8d 9d\n")
    code, listed, err = dry_run(tmp_path, capsys, STUDY.replace("7c 4d", "7c"), "--flops", str(tmp_path / "list.txt"))
    assert code == 2 and listed == [] and err.count("\n") == 1 and "line 2" in err and "run-out" in err


def batch_run(tmp_path, engine, *args, study="study.toml"):
    return subprocess.run([sys.executable, "-m", "corvanta", "batch", study, "--threads", "1", *args],
                          cwd=tmp_path, env=run_env(engine), stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=120)


def aggregate_run(tmp_path, engine, *args):
    return subprocess.run([sys.executable, "-m", "corvanta", "aggregate", *args], cwd=tmp_path,
                          env=run_env(engine), stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)


def test_a_folder_holds_one_study_and_only_summaries(engine, tmp_path):
    (tmp_path / "study.toml").write_text(STUDY)
    (tmp_path / "other.toml").write_text(STUDY.replace("accuracy = 0.05", "accuracy = 0.04"))
    (tmp_path / "flops.txt").write_text("\n".join(FLOPS[:2]) + "\n")
    run = batch_run(tmp_path, engine, "--flops", "flops.txt", "--out", "out")
    assert run.returncode == 0, run.stderr
    out = tmp_path / "out"
    assert sorted(summaries(out)) == sorted(FLOPS[:2]) and not trees(out)  # summaries only
    # The disk use shows before the first flop is done, and is about right.
    before = run.stderr[:run.stderr.index("flops done")]
    size = float(before.split("disk: about ")[1].split(" KB")[0]) * 1024
    assert "no trees" in before and 0.5 < size / (sum(p.stat().st_size for p in out.glob("*.json")) / 2) < 2
    kept = {p.name: p.read_bytes() for p in out.iterdir()}

    for study, flops in (("other.toml", "flops.txt"), ("study.toml", "sample:2")):
        run = batch_run(tmp_path, engine, "--flops", flops, "--out", "out", "--bin", "no-engine", study=study)
        assert run.returncode == 2 and run.stderr.count("\n") == 1 and f"--out {out}: holds another study" in run.stderr
        assert {p.name: p.read_bytes() for p in out.iterdir()} == kept  # flop list, job log, summaries
    (tmp_path / "a-file").write_text("")
    for where in ("a-file", "a-file/out"):  # nothing can be written there: said before any solving
        run = batch_run(tmp_path, engine, "--flops", "flops.txt", "--out", where, "--bin", "no-engine")
        assert run.returncode == 2 and run.stderr.count("\n") == 1 and f"--out {tmp_path / where}" in run.stderr

    # Summaries of other studies copied in: aggregate takes one study, named by --study.
    for study, flops, folder in (("other.toml", "flops.txt", "out2"), ("study.toml", "sample:2", "out3")):
        assert batch_run(tmp_path, engine, "--flops", flops, "--out", folder, study=study).returncode == 0
    key = json.loads((out / FLOPS[0]).with_suffix(".json").read_text())["study"]
    for stranger in ["out2/" + next(p.name for p in (tmp_path / "out2").glob("*.json")),
                     "out3/" + next(p.name for p in (tmp_path / "out3").glob("*.json"))]:
        shutil.copytree(out, tmp_path / "mixed", dirs_exist_ok=True)
        shutil.copy(tmp_path / stranger, tmp_path / "mixed" / "stranger.json")
        run = aggregate_run(tmp_path, engine, "mixed", "--csv", "m.csv")
        assert run.returncode == 2 and run.stderr.count("\n") == 1 and "--study" in run.stderr
        assert not (tmp_path / "m.csv").exists()
    assert "sample (seed 1) weights" in run.stderr and "class weights" in run.stderr
    run = aggregate_run(tmp_path, engine, "mixed", "--study", key, "--csv", "m.csv")
    assert run.returncode == 0, run.stderr
    rows = {r["flop"]: r for r in csv.DictReader(open(tmp_path / "m.csv"))}
    weights = [json.loads((out / f"{f}.json").read_text())["weight"] for f in FLOPS[:2]]
    assert int(rows["total"]["weight"]) == sum(weights) and len(rows) > 2 and "stranger" not in str(rows)


FAKE_SSH = """#!/bin/sh
# ssh HOST COMMAND as a machine with its own disk: the local side's folder is hidden under an empty
# file system, and the command runs in a home folder of its own.
echo "$*" | cut -c1-60 >> "{log}"
while [ "$1" != "--" ]; do shift; done; shift
exec unshare -rm sh -c 'mount -t tmpfs none "$0" && cd "$1" && HOME="$1" exec sh -c "$2"' "{local}" "{remote}" "$*"
"""


def test_a_batch_on_another_machine_brings_its_results_home(engine, tmp_path):
    if subprocess.run(["unshare", "-rm", "true"], capture_output=True).returncode != 0:
        pytest.skip("no mount namespaces here (unshare -rm) to give the stand-in machine a disk of its own")
    local, remote = tmp_path / "local", tmp_path / "remote"
    local.mkdir(), remote.mkdir()
    ssh, log = tmp_path / "fake-ssh", tmp_path / "ssh.log"
    ssh.write_text(FAKE_SSH.format(log=log, local=local, remote=remote))
    ssh.chmod(0o755)
    (local / "study.toml").write_text(STUDY)
    (local / "flops.txt").write_text("\n".join(FLOPS[:3]) + "\n")
    run = batch_run(local, engine, "--flops", "flops.txt", "--out", "here")
    assert run.returncode == 0, run.stderr
    run = batch_run(local, engine, "--flops", "flops.txt", "--out", "out", "--jobs", "2", "--trees",
                    "--sshlogin", f"2/{ssh} elsewhere")
    assert run.returncode == 0 and "3 of 3 flops done" in run.stderr, run.stderr
    assert "of tree (the engine's storage figure" in run.stderr
    assert sorted(run.stderr.count(f"(done {f})") for f in FLOPS[:3]) == [1, 1, 1]
    assert len(log.read_text().splitlines()) == 3  # one job each, all on the other machine
    assert [p for p in remote.rglob("*") if p.is_file()] == []  # nothing left there
    out = local / "out"
    strip = lambda p: {k: v for k, v in json.loads(p.read_text()).items() if k not in ("seconds", "host", "tree_file")}
    assert sorted(summaries(out)) == sorted(trees(out)) == sorted(FLOPS[:3])
    for f in FLOPS[:3]:
        assert strip(out / f"{f}.json") == strip(local / "here" / f"{f}.json")
    check_tree_files(engine, out)
    again = batch_run(local, engine, "--flops", "flops.txt", "--out", "out", "--sshlogin", f"2/{ssh} elsewhere")
    assert again.returncode == 0 and "3 done already" in again.stderr and len(log.read_text().splitlines()) == 3
