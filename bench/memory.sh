#!/usr/bin/env bash
# Peak and resident memory of the fixed bench games by compression level, with
# the breakdown that show_memory prints as side lines after a run: river
# regrets, river sums, turn and flop stores, hole sets, tree and tables, the
# rest of the allocators, stacks and code. Peak is the system's high-water mark
# of the whole process (maximum resident set of the run).
#
#   bench/memory.sh [build-dir]
#   GAMES="flop turn river" FLOP_LEVELS="0 1 2 3 4 5" LEVELS="0 4" STEPS=100 FLOP_STEPS=70 bench/memory.sh
#
# The flop game runs a fixed number of iterations (past the start of the
# average at iteration 61, so that the river sums are in use); the turn and
# river games run to the accuracy of their scripts unless STEPS is set.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
bin="$build/corvanta"
dir="$root/../shared/bench-games"
games="${GAMES:-flop turn river}"
flop_levels="${FLOP_LEVELS:-0 1 2 3 4 5}"
levels="${LEVELS:-0 4}"
steps="${STEPS:-0}"
flop_steps="${FLOP_STEPS:-70}"
threads="${THREADS:-2}"

printf "%-5s %5s %6s %7s %7s | %7s %7s %7s %7s %7s %7s %7s %7s %7s %7s | %7s\n" game level iters "peak" resident \
  regrets sums upper holes tables pools chans other "free" "code" total
for g in $games; do
  script="$dir/$g.txt"
  [ -f "$script" ] || { echo "no bench game $script" >&2; exit 1; }
  if [ "$g" = flop ]; then ls="$flop_levels"; n="$flop_steps"; else ls="$levels"; n="$steps"; fi
  for level in $ls; do
    go="go"
    [ "$n" != "0" ] && go="go $n steps"
    out=$( { cat "$script"; printf 'set_threads %s\nset_compression %s\n%s\nwait_for_solver\nshow_memory\n' "$threads" "$level" "$go"; } |
           /usr/bin/time -f "maxrss %M" "$bin" -m -v -k 2>&1)
    echo "$out" | awk -v game="$g" -v level="$level" '
      /^#[0-9]+ iterations/ { it = $1; sub("#", "", it) }
      /^maxrss / { peak = $2 / 1024 }
      /^#memory total/ { resident = $6 }
      /^#memory / && !/^#memory total/ {
        has = 1
        v = $(NF - 1); name = $0; sub(/^#memory /, "", name); sub(/ [0-9.]+ MB$/, "", name); part[name] = v
      }
      END {
        part["other"] = part["other rows"] + part["other heap objects"]
        split("river regrets|river sums|turn and flop stores|hole sets|tree and tables|row pools|channel buffers|other|heap free blocks|code and libraries", names, "|")
        line = sprintf("%-5s %5s %6s %7.1f %7s |", game, level, it, peak, resident == "" ? "-" : resident)
        total = 0
        for (i = 1; i <= 10; i++) {
          v = has && names[i] in part ? part[names[i]] : "-"
          line = line sprintf(" %7s", v)
          if (v != "-") total += v
        }
        if ("thread stacks" in part) total += part["thread stacks"]
        print line sprintf(" | %7s", resident == "" ? "-" : sprintf("%.1f", total))
      }'
  done
done
