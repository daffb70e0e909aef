#!/usr/bin/env python3
"""Memory and time of forgetting the rivers of the flop bench game.

Solves ../shared/bench-games/flop.txt at compression level 0 for a number of
iterations, then reads the process's resident and peak memory (from /proc)
and show_memory before and after `forget rivers`, times a strategy query at a
forgotten river node (its subgame solved again on demand, at recalc accuracy
0 and at 0.5% of the pot), the rebuild and `solve_all_splits rivers`, and
prints calc_results before and after.

    python3 bench/forget_memory.py [build-dir] [iterations]
"""
from __future__ import annotations

import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def main() -> None:
    build = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build")
    steps = sys.argv[2] if len(sys.argv) > 2 else "100"
    game = open(os.path.join(ROOT, "..", "shared", "bench-games", "flop.txt")).read()
    p = subprocess.Popen([os.path.join(build, "corvanta")], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         text=True, bufsize=1)

    def memory() -> str:
        fields = {}
        with open(f"/proc/{p.pid}/status") as f:
            for line in f:
                key, _, value = line.partition(":")
                if key in ("VmRSS", "VmHWM"):
                    fields[key] = int(value.split()[0]) // 1024
        return f"resident {fields['VmRSS']} MB, peak {fields['VmHWM']} MB"

    def send(command: str, done=lambda line: line.endswith("ok!") or line.startswith(("ERROR", "END"))) -> tuple[float, list[str]]:
        start = time.monotonic()
        p.stdin.write(command + "\n")
        p.stdin.flush()
        lines = []
        while True:
            line = p.stdout.readline()
            if not line:
                break
            lines.append(line.rstrip("\n"))
            if done(lines[-1]):
                break
        return time.monotonic() - start, lines

    for line in game.splitlines():
        if line.strip() and not line.startswith("#"):
            send(line)
    send("set_compression 0")
    send("build_tree")
    seconds, _ = send(f"go {steps} steps", lambda line: line.startswith("SOLVER: stopped"))
    print(f"solve, {steps} iterations: {seconds:.1f} s; {memory()}")
    print("calc_results:", " | ".join(send("calc_results")[1][:5]))
    print("show_memory:", " | ".join(send("show_memory")[1][:2]))
    seconds, _ = send("forget rivers")
    print(f"forget rivers: {seconds:.2f} s; {memory()}")
    print("show_memory:", " | ".join(send("show_memory")[1][:2]))
    print("calc_results:", " | ".join(send("calc_results")[1][:5]))
    for accuracy, path in (("0 0 0", "r:0:c:c:7c:c:c:3d"), ("0.005 0.005 0.005", "r:0:c:c:8s:c:c:3d")):
        send(f"set_recalc_accuracy {accuracy}")
        seconds, _ = send(f"show_strategy {path}")
        again, _ = send(f"show_strategy {path[:-1]}h")
        print(f"query at a forgotten river node, recalc accuracy {accuracy.split()[0]}: {seconds:.2f} s, "
              f"same turn card again {again:.3f} s; {memory()}")
    seconds, _ = send("rebuild_forgotten_streets")
    print(f"rebuild_forgotten_streets: {seconds:.2f} s; {memory()}")
    seconds, _ = send("solve_all_splits rivers")
    print(f"solve_all_splits rivers: {seconds:.1f} s; {memory()}")
    print("calc_results:", " | ".join(send("calc_results")[1][:5]))
    p.stdin.write("exit\n")
    p.stdin.flush()
    p.wait()


if __name__ == "__main__":
    main()
