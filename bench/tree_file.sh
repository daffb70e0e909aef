#!/usr/bin/env bash
# Times dump_tree and load_tree of the flop bench game, solved to 0.3% of the
# pot, at compression levels 0 and 4, against cp of the same file on the same
# disk (plain, and followed by a sync, since dump_tree syncs its file).
#
#   bench/tree_file.sh [build-dir] [work-dir]     (defaults: build, build/tree-file-bench)
#   LEVELS="0 4" bench/tree_file.sh
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
work="${2:-$build/tree-file-bench}"
bin="$build/corvanta"
game="$root/../shared/bench-games/flop.txt"
levels="${LEVELS:-0 4}"
mkdir -p "$work"

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

printf "%-5s %10s %9s %9s %9s %11s %11s %8s\n" level "size MB" "dump s" "load s" "cp s" "cp+sync s" "dump/cp+s" "load/cp"
for level in $levels; do
  file="$work/flop-$level.tree"
  rm -f "$file" "$file.copy"
  # solver_time prints the seconds since start; the pairs around each command time it.
  out=$( { cat "$game"; printf 'set_compression %s\nbuild_tree\ngo\nwait_for_solver\nsolver_time\ndump_tree %s\nsolver_time\nfree_tree\nsolver_time\nload_tree %s\nsolver_time\ncalc_results\n' "$level" "$file" "$file"; } |
         "$bin" -k 2>&1)
  times=($(echo "$out" | grep -E '^[0-9]+\.[0-9]+$'))
  if [ ${#times[@]} -ne 4 ] || echo "$out" | grep -q '^ERROR'; then
    echo "$out" | grep -E '^ERROR' >&2 || true
    echo "level $level: run failed" >&2
    exit 1
  fi
  dump=$(elapsed "${times[0]}" "${times[1]}")
  load=$(elapsed "${times[2]}" "${times[3]}")
  t0=$(now); cp "$file" "$file.copy"; t1=$(now)
  rm -f "$file.copy"
  t2=$(now); cp "$file" "$file.copy"; sync "$file.copy"; t3=$(now)
  cp_s=$(elapsed "$t0" "$t1")
  cps_s=$(elapsed "$t2" "$t3")
  size=$(stat -c %s "$file")
  awk -v l="$level" -v s="$size" -v d="$dump" -v lo="$load" -v c="$cp_s" -v cs="$cps_s" 'BEGIN {
    printf "%-5s %10.1f %9.3f %9.3f %9.3f %11.3f %11.2f %8.2f\n", l, s / 1048576, d, lo, c, cs, (cs > 0 ? d / cs : 0), (c > 0 ? lo / c : 0) }'
  rm -f "$file.copy"
done
