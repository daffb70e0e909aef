#!/usr/bin/env python3
"""Seeded protocol fuzz of the binary over built games.

Each chunk is one process: it sets up and builds a small river or flop game,
then sends random lines drawn from the whole command table with plausible
arguments (paths of the tree, cards good and bad, players, levels, numbers out
of range, short solver runs, 1326-value rows with NaN and negatives), and ends
with a marker. A chunk fails when the process dies by a signal, exits with a
code other than 0 (1 only after a documented fatal message), hangs, prints an
error line not of the form "ERROR: ...", or never reaches the marker. Each
failing chunk is saved as a script that reproduces it.
"""
from __future__ import annotations

import argparse
import concurrent.futures
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass

END_MARK = "FUZZ-END-OF-CHUNK"
# Messages after which exit code 1 is the documented clean end.
FATAL_TEXTS = ("fse error", "fail (", "Reserve ", "Commit ", "out of memory (not enough reserved)")

# Token counts of the command table (command word included); None: any.
ARITY = {
    "is_ready": 1, "solver_time": 1, "show_hand_order": 1, "show_settings": 1, "show_tree_params": 1,
    "set_threads": 2, "ai6_set_threads": 2, "set_recalc_accuracy": 4, "set_isomorphism": 3,
    "skip_if_done": 3, "is_tree_present": 1, "go": None, "stop": 1, "load_script": 2, "set_range": 1328,
    "set_board": None, "set_pot": 4, "clear_lines": 1, "free_schematic_tree": 1, "add_line": None,
    "remove_line": None, "force_line": None, "cut_line": 2, "build_tree": 1, "load_tree": 2,
    "dump_tree": None, "free_tree": 1, "show_node": 2, "show_children": 2, "show_strategy": 2,
    "show_strategy_pp": 2, "show_locked_combos": 2, "show_range": None, "show_probs": 2,
    "calc_results": 1, "calc_ev": 3, "calc_ev_pp": 3, "calc_ev_line": 3, "calc_line_freq": 2,
    "calc_global_freq": 2, "calc_eq": 2, "calc_eq_pp": 2, "calc_eq_node": 3, "stdoutredi": 2,
    "stdoutredi_append": 2, "stdoutback": 1, "wait_for_solver": 1, "show_memory": 1, "node_count": 1,
    "show_effective_stack": 1, "set_eff_stack": 2, "set_rake": 3, "set_ev_boost": 3,
    "set_accuracy": None, "forget": 2, "rebuild_forgotten_streets": 1, "rebuild_all": 1,
    "solve_all_splits": 2, "lock_node": 2, "unlock_node": 2, "set_strategy": 1329,
    "combo_lock_node": 1328, "solve_partial": 2, "explo_partial": 2, "show_category_names": 1,
    "show_categories": None, "ai6_set_compression": 2, "set_compression": 2,
    "ai6_get_actual_compression": 1, "get_actual_compression": 1, "ai6_get_instruction_set": 1,
    "get_instruction_set": 1, "set_scheduler": 2, "enable_avx512": 2, "enable_river_strategy": 2,
    "sleep": 2, "take_a_break": 2, "repeat": None, "echo": None, "ignore_mem_check": 2, "connect": None,
    "disconnect": 1, "show_cpu_info": 1, "reset_tree_info": 1, "add_info_line": 2, "show_tree_info": 1,
    "set_simd_level": 2, "set_precision": 2, "set_must_use_hole_cards": 2, "set_hand_type_order": 10,
    "set_low_card": 2, "eval_hand": 2, "enable_adaptive_precision": 2, "help": 1,
}
# Commands that take a node path as their first argument.
PATH_COMMANDS = {
    "cut_line", "show_node", "show_children", "show_strategy", "show_strategy_pp", "show_locked_combos",
    "show_probs", "calc_line_freq", "calc_global_freq", "set_ev_boost", "lock_node", "unlock_node",
    "set_strategy", "combo_lock_node", "solve_partial", "explo_partial",
}
# Commands whose first argument is a player, then a path.
PLAYER_COMMANDS = {"show_range", "calc_ev", "calc_ev_pp", "calc_ev_line", "calc_eq", "calc_eq_pp", "calc_eq_node"}
# Drawn more often: they walk paths and read built nodes.
HOT = sorted(PATH_COMMANDS | PLAYER_COMMANDS | {"add_line", "force_line", "remove_line", "build_tree", "go"})

RANKS = "23456789TJQKA"
SUITS = "cdhs"
CARDS = [r + s for r in RANKS for s in SUITS]
LEVELS = ["none", "low", "medium", "high", "max", "fast", "auto", "-1", "0", "2", "4", "5", "9"]
PLAYERS = ["OOP", "IP", "hero", "villain", "oop", "2", ""]
NUMBERS = ["0", "1", "-1", "2", "7", "30", "50", "99", "100", "150", "1e400", "-1e-400", "nan", "inf",
           "0x10", "99999999999999999999", "1.5", "-0", "3x", "", "+", "."]


@dataclass
class Game:
    name: str
    setup: list[str]
    paths: list[str]
    board: list[str]


def range_line(player: str, rng: random.Random, dirty: bool) -> str:
    vals = []
    for _ in range(1326):
        x = rng.random()
        if dirty and x < 0.01:
            vals.append(rng.choice(["nan", "-1", "inf", "2", "x", "1e400"]))
        else:
            vals.append("1" if x < 0.3 else "0" if x < 0.6 else f"{rng.random():.3f}")
    return f"set_range {player} " + " ".join(vals)


def river_game(rng: random.Random) -> Game:
    board = ["Kh", "Qh", "7c", "4d", "2s"]
    setup = [range_line("OOP", rng, False), range_line("IP", rng, False), "set_board " + " ".join(board),
             "set_pot 0 0 100", "add_line 0 0", "add_line 0 50 50", "add_line 0 50 150 150",
             "add_line 50 50", "add_line 50 150 150", "add_line 100 100", "build_tree"]
    paths = ["r", "r:0", "r:0:c", "r:0:b50", "r:0:c:b50", "r:0:c:b50:c", "r:0:c:b50:f", "r:0:b50:b150",
             "r:0:b50:b150:c", "r:0:b100", "r:0:b100:c", "r:0:b100:f", "r:0:c:c"]
    return Game("river", setup, paths, board)


def flop_game(rng: random.Random) -> Game:
    board = ["Qs", "Jh", "2h"]
    # Thin ranges keep each build and iteration of the flop game short.
    def thin(player: str) -> str:
        return "set_range %s %s" % (player, " ".join("1" if rng.random() < 0.08 else "0" for _ in range(1326)))
    setup = [thin("OOP"), thin("IP"), "set_board " + " ".join(board), "set_pot 0 0 100", "add_line 0 0 0 0 0 0",
             "add_line 0 0 50 50 50 50", "add_line 50 50 50 50 50 50", "add_line 0 0 0 0 100 100", "build_tree"]
    paths = ["r", "r:0", "r:0:c", "r:0:b50", "r:0:b50:c", "r:0:c:c", "r:0:c:c:Ad", "r:0:c:c:7c:c",
             "r:0:c:c:7c:c:c:3s", "r:0:c:c:7c:c:c:3s:c", "r:0:c:c:7c:b50:c:3s:b100", "r:0:b50:c:Kc:c:c:Kd",
             "r:0:b50:c:2c", "r:0:c:c:Qh", "r:0:c:c:Jd:c:c:Jc:c:c", "r:0:c:c:8h:c:c:9h:b100:c"]
    return Game("flop", setup, paths, board)


def random_path(game: Game, rng: random.Random) -> str:
    p = rng.choice(game.paths)
    x = rng.random()
    if x < 0.15:
        p += ":" + rng.choice(["c", "f", "b50", "b99", "b150", "b1e9", "bnan", "x", ""] + CARDS[::7])
    elif x < 0.25:
        p += ":" + rng.choice(CARDS)
    elif x < 0.3:
        p = rng.choice(["", ":", "r::0", "0", "r:1", "R:0", "r:0:" + "c:" * 40, "r:0\tc"])
    return p


def random_word(rng: random.Random) -> str:
    n = rng.randrange(0, 6)
    return "".join(chr(rng.randrange(33, 127)) for _ in range(n))


def value_row(n: int, rng: random.Random) -> list[str]:
    out = []
    for _ in range(n):
        x = rng.random()
        out.append("0" if x < 0.4 else "1" if x < 0.6 else rng.choice(["nan", "-1", "0.5", "1e400", "inf", "x"])
                   if x < 0.62 else f"{rng.random():.4f}")
    return out


def random_args(cmd: str, game: Game, rng: random.Random, scratch_names: list[str]) -> list[str]:
    """Arguments that are mostly right for the command, sometimes not."""
    arity = ARITY.get(cmd)
    if cmd in PATH_COMMANDS:
        args = [random_path(game, rng)]
        if cmd == "set_ev_boost":
            args.append(rng.choice(["0", "0.5", "-0.99", "-1", "1", "2", "nan"]))
        elif cmd == "set_strategy":
            args.append(rng.choice(["0", "1", "2", "-1", "99", "x"]))
            args += value_row(1326, rng)
        elif cmd == "combo_lock_node":
            args += value_row(1326, rng)
    elif cmd in PLAYER_COMMANDS:
        args = [rng.choice(PLAYERS)]
        if cmd != "calc_eq" and cmd != "calc_eq_pp" or rng.random() < 0.2:
            args.append(random_path(game, rng))
    elif cmd == "set_range":
        return range_line(rng.choice(PLAYERS[:4] + ["x"]), rng, rng.random() < 0.5).split()[1:]
    elif cmd in ("add_line", "force_line", "remove_line"):
        level, args = 0.0, []
        for _ in range(rng.randrange(0, 8)):
            level += rng.choice([0, 0, 1, 25, 50, 99, 100, 150, -10])
            args.append(rng.choice([f"{level:g}"] * 8 + NUMBERS))
    elif cmd == "set_board":
        args = rng.sample(CARDS, rng.choice([3, 4, 5, 5, 2, 6])) if rng.random() < 0.8 else [random_word(rng)]
        if rng.random() < 0.7:
            args = game.board + args[: rng.choice([0, 1, 2])]
    elif cmd == "go":
        args = [str(rng.randrange(0, 6 if game.name == "flop" else 40)), rng.choice(["steps"] * 4 + ["seconds"])]
        if args[1] == "seconds":  # "0 seconds" is no limit: a wait after it never ends
            args[0] = "1"
        if rng.random() < 0.05:
            args = [rng.choice(NUMBERS), random_word(rng)]
    elif cmd in ("set_compression", "ai6_set_compression"):
        args = [rng.choice(LEVELS)]
    elif cmd in ("dump_tree", "load_tree", "stdoutredi", "stdoutredi_append", "load_script"):
        args = [rng.choice(scratch_names)]
        if cmd == "dump_tree" and rng.random() < 0.3:
            args.append(rng.choice(["0", "1", "x", "no_rivers"]))
    elif cmd == "skip_if_done":
        args = [rng.choice(scratch_names), "L1"]
    elif cmd == "forget":
        args = [rng.choice(["rivers", "turns", "flops", "x"])]
    elif cmd == "sleep":
        args = [rng.choice(["0", "1", "5", "-1", "x"])]
    elif cmd == "take_a_break":  # waits whole seconds
        args = [rng.choice(["0", "-1", "x"])]
    elif cmd == "repeat":
        args = [rng.choice(["0", "1", "3", "-2", "x"]), random_word(rng)]
    elif cmd in ("set_threads", "ai6_set_threads"):
        args = [rng.choice(["0", "1", "2", "3", "-1", "x"])]
    elif cmd in ("show_categories", "eval_hand"):
        args = rng.sample(CARDS, rng.choice([2, 3, 4, 5, 6, 7]))
        if cmd == "eval_hand":
            args = [" ".join(args)]
    elif cmd == "set_pot":
        args = [rng.choice(NUMBERS) for _ in range(3)]
    else:
        n = (arity - 1) if arity is not None else rng.randrange(0, 4)
        args = [rng.choice(NUMBERS + PLAYERS + CARDS[:4] + ["on", "off", "fraction"]) for _ in range(n)]
    if rng.random() < 0.03:  # wrong arity now and then
        args = args[:-1] if args and rng.random() < 0.5 else args + [rng.choice(NUMBERS)]
    return args


def make_chunk(seed: int, index: int, lines: int, scratch_names: list[str]) -> list[str]:
    rng = random.Random(seed * 1_000_003 + index)
    game = (river_game if index % 2 == 0 else flop_game)(rng)
    commands = sorted(ARITY)
    out = list(game.setup)
    for _ in range(lines):
        cmd = rng.choice(HOT) if rng.random() < 0.5 else rng.choice(commands)
        if cmd == "wait_for_solver" and rng.random() < 0.5:
            out.append("go 3 steps")
        if cmd in ("solve_partial", "explo_partial"):  # else up to 1000 iterations of the whole game
            out.append("set_recalc_accuracy 0.05 0.05 0.05")
        line = " ".join([cmd] + random_args(cmd, game, rng, scratch_names))
        if rng.random() < 0.01:
            line = line.replace(" ", '"', 1)
        out.append(line)
        if rng.random() < 0.02:
            out.append("LABEL: L1")
        if cmd in ("stdoutredi", "stdoutredi_append") and rng.random() < 0.9:
            out.append("stdoutback")
    out += ["LABEL: L1", "stop", "wait_for_solver", "stdoutback", "echo " + END_MARK]
    return out


def check_output(text: str, rc: int) -> str | None:
    for mark in ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"):
        if mark in text:
            return "sanitizer report: " + text[text.index(mark):][:120].splitlines()[0]
    if rc < 0:
        return f"killed by signal {-rc}"
    if rc != 0 and not (rc == 1 and any(t in text for t in FATAL_TEXTS)):
        return f"exit code {rc}"
    for line in text.splitlines():
        if line.startswith("ERROR") and not line.startswith("ERROR: "):
            return f"malformed error line: {line[:80]!r}"
    if rc == 0 and END_MARK not in text:
        return "the end marker never came"
    return None


def run_chunk(binary: str, seed: int, index: int, lines: int, timeout: float, save_dir: str) -> tuple[int, int, str | None]:
    work = tempfile.mkdtemp(prefix="corvanta_fuzz_")
    try:
        names = ["tree_a.bin", "tree_b.bin", "out.txt", "missing/x.bin", "script.txt", work + "/abs.bin", ""]
        chunk = make_chunk(seed, index, lines, names)
        with open(os.path.join(work, "script.txt"), "w") as f:  # a small script that nests once
            f.write("echo from script\nshow_node r:0\nload_script inner.txt\n")
        with open(os.path.join(work, "inner.txt"), "w") as f:
            f.write("show_children r:0\nnode_count\n")
        text = "\n".join(chunk) + "\n"
        try:
            env = dict(os.environ, ASAN_OPTIONS="exitcode=86:detect_leaks=0", UBSAN_OPTIONS="exitcode=87:print_stacktrace=1")
            p = subprocess.run([binary], env=env, input=text.encode("latin-1", "replace"), cwd=work, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, timeout=timeout)
            problem = check_output(p.stdout.decode("latin-1"), p.returncode)
        except subprocess.TimeoutExpired:
            problem = f"no end after {timeout:g} s"
        if problem:
            os.makedirs(save_dir, exist_ok=True)
            path = os.path.join(save_dir, f"fuzz-{seed}-{index}.txt")
            with open(path, "w", encoding="latin-1", errors="replace") as f:
                f.write(f"# fuzz seed {seed} chunk {index}: {problem}\n# reproduce: {binary} < {path}\n")
                f.write(text)
            problem = f"{problem} (saved {path})"
        return index, len(chunk), problem
    finally:
        shutil.rmtree(work, ignore_errors=True)


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", default="build/corvanta")
    ap.add_argument("--lines", type=int, default=50_000, help="random lines in all")
    ap.add_argument("--chunk", type=int, default=2_500, help="random lines per process")
    ap.add_argument("--seed", type=int, default=20261124)
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    ap.add_argument("--timeout", type=float, default=300.0, help="seconds a chunk may take")
    ap.add_argument("--save", default="fuzz-failures", help="folder for the scripts of failing chunks")
    a = ap.parse_args()
    chunks = max(1, (a.lines + a.chunk - 1) // a.chunk)
    start, total, failures = time.time(), 0, []
    with concurrent.futures.ThreadPoolExecutor(a.jobs) as pool:
        futures = [pool.submit(run_chunk, os.path.abspath(a.bin), a.seed, i, a.chunk, a.timeout,
                               os.path.abspath(a.save)) for i in range(chunks)]
        for fut in concurrent.futures.as_completed(futures):
            index, n, problem = fut.result()
            total += n
            if problem:
                failures.append(problem)
                print(f"chunk {index}: {problem}", flush=True)
    print(f"fuzz: {chunks} chunks, {total} lines, {len(failures)} failing, {time.time() - start:.1f} s")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
