#!/usr/bin/env bash
# Plays the fixed bench games a fixed number of steps on one thread through
# two binaries and compares what they leave byte for byte: the answer of
# calc_results, OOP's root strategy and two dump_tree files (before and after
# forgetting the rivers), at compression levels 0, 2 and 4 (flat, packed and
# entropy stores on the flop game; the river and turn games store flat at every
# level). A change that should not alter behaviour must pass. OMP_NUM_THREADS=1
# holds the evaluation outside the solving thread (calc_results, forget) to one
# thread too, whose sums otherwise vary in their last bits from run to run;
# the lines of running time are left out.
#
#   scripts/same-bytes.sh BIN_BEFORE BIN_AFTER [games...]   (default: river turn flop)
#   STEPS="river=40 turn=12 flop=3" LEVELS="0 4" scripts/same-bytes.sh ...
# A game is a script in the shared bench games or in bench/ (large).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
[ $# -ge 2 ] || { echo "usage: same-bytes.sh BIN_BEFORE BIN_AFTER [games...]" >&2; exit 2; }
before="$(realpath "$1")"
after="$(realpath "$2")"
shift 2
games=("$@")
[ ${#games[@]} -eq 0 ] && games=(river turn flop)
levels="${LEVELS:-0 2 4}"
steps="${STEPS:-river=40 turn=12 flop=3 large=2}"
dir="$root/../shared/bench-games"
[ -d "$dir" ] || dir="${BENCH_GAMES:?no bench games folder}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

run() {  # binary, game, level, out dir
  local bin="$1" g="$2" level="$3" out="$4" n
  n=$(tr ' ' '\n' <<<"$steps" | awk -F= -v g="$g" '$1==g{print $2}')
  mkdir -p "$out"
  local script="$dir/$g.txt"
  [ -f "$script" ] || script="$root/bench/$g.txt"
  { cat "$script"
    printf 'set_threads 1\nset_compression %s\ngo %s steps\nwait_for_solver\n' "$level" "${n:-3}"
    # The second file holds the compressed section of a forgotten street;
    # loading the first reads every store back.
    printf 'dump_tree tree.bin\nforget rivers\ndump_tree forgot.bin\nload_tree tree.bin\n'
    printf 'calc_results\nshow_strategy r:0\n'
  } | (cd "$out" && OMP_NUM_THREADS=1 "$bin" -k) 2>"$out/stderr.txt" |
    grep -v '^running time: ' >"$out/answers.txt"
}

fail=0
for g in "${games[@]}"; do
  for level in $levels; do
    run "$before" "$g" "$level" "$work/before/$g-$level"
    run "$after" "$g" "$level" "$work/after/$g-$level"
    for f in answers.txt tree.bin forgot.bin; do
      a="$work/before/$g-$level/$f" b="$work/after/$g-$level/$f"
      if [ ! -s "$a" ]; then echo "$g level $level: no $f from the first binary"; fail=1
      elif cmp -s "$a" "$b"; then echo "$g level $level: $f same ($(stat -c %s "$a") bytes)"
      else echo "$g level $level: $f DIFFERS"; cmp "$a" "$b" | head -1 || true; fail=1; fi
    done
  done
done
[ $fail -eq 0 ] && echo "same bytes" || { echo "bytes differ"; exit 1; }
