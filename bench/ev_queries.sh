#!/usr/bin/env bash
# Times calc_ev on the flop bench game after a fixed number of steps: at the
# root for both players, and the per-card report's queries (both players at
# every turn card of r:0:c:c); first right after a run that ends on a report
# (the evaluation is of the present strategies), then after one more step
# (it is not). Each binary given runs each level in turn, alternating, so
# before and after share the machine's load.
#
#   STEPS=25 LEVELS="0 4" bench/ev_queries.sh [binary...]     (default: build/corvanta)
# With STEPS above 60 the walks play the average strategy, as on a solved
# tree; a run that doesn't end on a report (70) leaves even "fresh" stale.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
script="$root/../shared/bench-games/flop.txt"
steps="${STEPS:-25}"
bins=("$@")
[ ${#bins[@]} -gt 0 ] || bins=("$root/build/corvanta")

board=$(sed -n 's/^set_board //p' "$script")
cards=()
for r in 2 3 4 5 6 7 8 9 T J Q K A; do
  for s in c d h s; do
    case " $board " in *" $r$s "*) ;; *) cards+=("$r$s") ;; esac
  done
done

# Queries of one block, each after a time mark.
block() {
  local tag="$1"
  printf 'echo @%s:root-OOP\nsolver_time\ncalc_ev OOP r:0\n' "$tag"
  printf 'echo @%s:root-IP\nsolver_time\ncalc_ev IP r:0\n' "$tag"
  printf 'echo @%s:cards\nsolver_time\n' "$tag"
  for c in "${cards[@]}"; do printf 'calc_ev OOP r:0:c:c:%s\ncalc_ev IP r:0:c:c:%s\n' "$c" "$c"; done
  printf 'echo @%s:end\nsolver_time\n' "$tag"
}

printf '%-6s %-28s %-10s %10s %10s %12s\n' level binary state "root OOP" "root IP" "98 per-card"
for level in ${LEVELS:-0 4}; do
  for bin in "${bins[@]}"; do
    input=$(grep -v '^go\|^wait_for_solver\|^set_accuracy' "$script"
            printf 'set_compression %s\nset_accuracy 0\ngo %s steps\nwait_for_solver\n' "$level" "$steps"
            block fresh
            printf 'go 1 steps\nwait_for_solver\n'
            block stale)
    echo "$input" | "$bin" -k 2>/dev/null | awk -v level="$level" -v bin="$(basename "$(dirname "$bin")")/$(basename "$bin")" '
      mark { t[tag, what] = $1; mark = 0 }
      /^@/ { split(substr($0, 2), w, ":"); tag = w[1]; what = w[2]; mark = 1 }
      END {
        split("fresh stale", tags, " ")
        for (i = 1; i <= 2; i++) {
          g = tags[i]
          printf "%-6s %-28s %-10s %9.3fs %9.3fs %11.3fs\n", level, bin, g, t[g, "root-IP"] - t[g, "root-OOP"],
                 t[g, "cards"] - t[g, "root-IP"], t[g, "end"] - t[g, "cards"]
        }
      }'
  done
done
