#!/usr/bin/env python3
"""Answers the query commands in their documented formats, for the client's
parsing while the engine doesn't carry them out: strategy b50 0.25, c 0.75."""
import sys

ROW = lambda x: " ".join([x] * 1326)
ANSWERS = {
    "show_children": ["child 0:", "r:0:b50", "IP_DEC", "2c 3d 4h 5s 6c", "50 0 100", "3 children", "flags: ",
                      "child 1:", "r:0:c", "IP_DEC", "2c 3d 4h 5s 6c", "0 0 100", "2 children", "flags: ", "END"],
    "show_strategy": [ROW("0.25"), ROW("0.75"), "END"],
    "show_range": [ROW("0.5")],
    "calc_ev": [ROW("nan"), ROW("0"), "END"],
    "calc_eq": [ROW("0.5"), ROW("12"), "END"],
    "calc_eq_node": [ROW("0.25"), ROW("3"), "0.375", "END"],
}
for line in sys.stdin:
    word, *args = line.split()
    if word == "exit":
        break
    out = ANSWERS.get(word, [args[0] if word == "echo" else f"{word} ok!"])
    print("\n".join(out), flush=True)
