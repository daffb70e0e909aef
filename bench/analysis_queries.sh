#!/usr/bin/env bash
# Solves the flop bench game to 0.3% of the pot at each level and times the
# queries a client sends most: strategies at the root, a turn and a river
# node, EV and equity at the root, a global line frequency.
#
#   LEVELS="0 4" bench/analysis_queries.sh [build-dir]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bin="${1:-$root/build}/corvanta"
script="$root/../shared/bench-games/flop.txt"
queries=("show_strategy r:0" "show_strategy r:0:c:c:7c" "show_strategy r:0:c:c:7c:c:c:3d"
         "show_strategy r:0:c:c:7c:c:c:4s" "calc_ev OOP r:0" "calc_ev OOP r:0" "calc_eq OOP"
         "calc_global_freq r:0:c:c:7c:c:c:3d" "calc_line_freq r:0:c:c")
for level in ${LEVELS:-0 4}; do
  input=$(cat "$script"; printf 'set_compression %s\nset_accuracy 0.003 fraction\ngo\nwait_for_solver\n' "$level")
  for q in "${queries[@]}"; do input+=$'\necho @time\nsolver_time\n'"$q"; done
  input+=$'\necho @time\nsolver_time\n'
  echo "$input" | "$bin" -k 2>/dev/null | awk -v level="$level" -v list="$(printf '%s|' "${queries[@]}")" '
    BEGIN { n = split(list, q, "|") }
    mark { t[++k] = $1; mark = 0 }
    $0 == "@time" { mark = 1 }
    END { for (i = 1; i < k; i++) printf "level %s  %-40s %8.3f s\n", level, q[i], t[i + 1] - t[i] }'
done
