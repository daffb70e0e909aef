#!/usr/bin/env bash
# Plays the fixed bench games through the binary and prints, per game and
# compression level: iterations, seconds to 0.5% and 0.3% of the pot,
# iterations per second, peak resident memory, the cost of one terminal
# hand evaluation and the game value for OOP at the end.
#
#   bench/run_games.sh [build-dir] [games...]     (default: build, river turn flop)
#   LEVELS="0 4" THREADS=0 MAX_SECONDS=0 bench/run_games.sh
#   BINARIES="before=/path/corvanta after=build/corvanta" bench/run_games.sh
#   STEPS="flop=30 large=6" bench/run_games.sh build flop large
#
# A game is a script in ../shared/bench-games or in bench/ (large: our own
# single-raised pot of about 2.3 GB at level 0). A game runs to the accuracy of
# its script, or a fixed number of steps: STEPS, else a "# bench steps: N" line
# of the script (the large game has one: it would take hours to the end).
# With BINARIES the binaries take turns on each game and level, so that a
# before/after comparison shares the machine's state; a column names them.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
shift || true
games=("$@")
[ ${#games[@]} -eq 0 ] && games=(river turn flop)
binaries="${BINARIES:-run=$build/corvanta}"
shared="$root/../shared/bench-games"
steps_of="${STEPS:-}"
levels="${LEVELS:-0 4}"
threads="${THREADS:-0}"
max_seconds="${MAX_SECONDS:-0}"

printf "%-8s %-6s %-5s %8s %9s %9s %9s %10s %12s %8s %s\n" binary game level iters "t@0.5%" "t@0.3%" "it/s" "peak MB" "ns/term.hand" "EV OOP" "exploitable"
for g in "${games[@]}"; do
  script="$shared/$g.txt"
  [ -f "$script" ] || script="$root/bench/$g.txt"
  [ -f "$script" ] || { echo "no bench game $g (in $shared or bench/)" >&2; exit 1; }
  steps=$(tr ' ' '\n' <<<"$steps_of" | awk -F= -v g="$g" '$1==g{print $2}')
  [ -n "$steps" ] || steps=$(awk '/^# bench steps: [0-9]+/{print $4; exit}' "$script")
  pot=$(awk '$1=="set_pot"{p=$4} END{print p}' "$script")
  for level in $levels; do
   for named in $binaries; do
    name="${named%%=*}"
    bin="${named#*=}"
    go="go"
    [ "$max_seconds" != "0" ] && go="go $max_seconds seconds"
    [ -n "$steps" ] && [ "$steps" != "0" ] && go="go $steps steps"
    out=$( { cat "$script"; printf 'set_threads %s\nset_compression %s\nsolver_time\n%s\nwait_for_solver\nsolver_time\ncalc_results\nshow_memory\n' "$threads" "$level" "$go"; } |
           "$bin" -m -v -k 2>&1)
    echo "$out" | awk -v name="$name" -v game="$g" -v level="$level" -v pot="$pot" '
      /^[0-9]+\.[0-9]+$/ { if (t_start == "") t_start = $1 + 0; else t_end = $1 + 0 }
      /^#SOLVER:/ {
        n = split($0, f, "\t")
        for (i = 1; i <= n; i++) {
          if (f[i] ~ /^running time:/) { sub("running time: ", "", f[i]); t = f[i] + 0 }
          if (f[i] ~ /^Exploitable for:/) { sub("Exploitable for: ", "", f[i]); e = f[i] + 0 }
        }
        if (t5 == "" && e <= 0.005 * pot) t5 = t
        if (t3 == "" && e <= 0.003 * pot) t3 = t
      }
      /^Exploitable for:/ { final_e = $3 + 0 }
      /^EV OOP:/ { ev = $3 }
      /^#[0-9]+ iterations/ { it = $1; sub("#", "", it); it = it + 0 }
      /peak working set/ { m = $0; sub(/.*peak working set /, "", m); sub(/ MB.*/, "", m); peak = m + 0 }
      # Runs too short for a report: the high-water mark of show_memory.
      /^#memory total/ { m = $0; sub(/.*peak /, "", m); sub(/ MB.*/, "", m); if (m + 0 > peak) peak = m + 0 }
      /^#terminal hands / { th = $3 + 0; tsec = $5 + 0 }
      END {
        secs = t_end - t_start
        ips = secs > 0 ? it / secs : 0
        cost = th > 0 ? sprintf("%.2f", tsec * 1e9 / th) : "-"
        printf "%-8s %-6s %-5s %8d %9s %9s %9.3f %10d %12s %8s %.4f%% in %.2fs\n", name, game, level, it, (t5 == "" ? "-" : t5), (t3 == "" ? "-" : t3), ips, peak, cost, ev, 100 * final_e / pot, secs
      }'
   done
  done
done
