#!/usr/bin/env bash
# Times dump_tree and load_tree of the flop bench game, solved to 0.3% of the
# pot, at compression levels 0 and 4, against cp of the same file on the same
# disk (plain, and followed by a sync, since dump_tree syncs its file). Each
# figure is the best of three; the machine is shared.
#
#   bench/tree_file.sh [build-dir] [work-dir]     (defaults: build, build/tree-file-bench)
#   LEVELS="0 4" REUSE=1 bench/tree_file.sh       (REUSE=1: start from a file left by an earlier run)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
work="${2:-$build/tree-file-bench}"
bin="$build/corvanta"
game="$root/../shared/bench-games/flop.txt"
levels="${LEVELS:-0 4}"
mkdir -p "$work"

now() { date +%s.%N; }
best() { printf '%s\n' "$@" | sort -g | head -1; }

printf "%-5s %10s %9s %9s %9s %11s %11s %8s\n" level "size MB" "dump s" "load s" "cp s" "cp+sync s" "dump/cp+s" "load/cp"
for level in $levels; do
  file="$work/flop-$level.tree"
  if [ "${REUSE:-0}" = 1 ] && [ -f "$file" ]; then
    start=$(printf 'load_tree %s\n' "$file")
  else
    rm -f "$file"
    start=$( { cat "$game"; printf 'set_compression %s\nbuild_tree\ngo\nwait_for_solver\n' "$level"; } )
  fi
  # solver_time prints the seconds since start; the pairs around each command time it.
  rounds=""
  for i in 1 2 3; do
    rounds+=$(printf 'solver_time\ndump_tree %s\nsolver_time\nfree_tree\nsolver_time\nload_tree %s\nsolver_time\n' "$file" "$file")$'\n'
  done
  out=$(printf '%s\n%s\ncalc_results\n' "$start" "$rounds" | "$bin" -k 2>&1)
  times=($(echo "$out" | grep -E '^[0-9]+\.[0-9]+$'))
  if [ ${#times[@]} -ne 12 ] || echo "$out" | grep -q '^ERROR'; then
    echo "$out" | grep -E '^ERROR' >&2 || true
    echo "level $level: run failed" >&2
    exit 1
  fi
  dumps=() loads=() cps=() syncs=()
  for i in 0 4 8; do
    dumps+=($(awk -v a="${times[i]}" -v b="${times[i+1]}" 'BEGIN { print b - a }'))
    loads+=($(awk -v a="${times[i+2]}" -v b="${times[i+3]}" 'BEGIN { print b - a }'))
    rm -f "$file.copy"; t0=$(now); cp "$file" "$file.copy"; t1=$(now)
    rm -f "$file.copy"; t2=$(now); cp "$file" "$file.copy"; sync "$file.copy"; t3=$(now)
    cps+=($(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }'))
    syncs+=($(awk -v a="$t2" -v b="$t3" 'BEGIN { print b - a }'))
  done
  rm -f "$file.copy"
  awk -v l="$level" -v s="$(stat -c %s "$file")" -v d="$(best "${dumps[@]}")" -v lo="$(best "${loads[@]}")" \
      -v c="$(best "${cps[@]}")" -v cs="$(best "${syncs[@]}")" 'BEGIN {
    printf "%-5s %10.1f %9.3f %9.3f %9.3f %11.3f %11.2f %8.2f\n", l, s / 1048576, d, lo, c, cs, (cs > 0 ? d / cs : 0), (c > 0 ? lo / c : 0) }'
done
