#!/usr/bin/env bash
# Build time and store memory of the fixed flop game at compression levels 0 to 5:
# the build (load, plan, stores made) is timed through the binary, and the
# memory is the peak resident size after a short solve with the stores filled.
#
#   bench/build_levels.sh [build-dir] [game] [steps]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
game="${2:-flop}"
steps="${3:-70}"  # past the first strategy sums, so every store is touched
bin="$build/corvanta"
script="$root/../shared/bench-games/$game.txt"

printf "%-6s %-6s %10s %12s\n" level word "build s" "peak MB"
words=(none low medium high max fast)
for level in 0 1 2 3 4 5; do
  start=$(date +%s.%N)
  { printf 'set_compression %s\n' "$level"; cat "$script"; } | "$bin" -k > /dev/null
  end=$(date +%s.%N)
  # The peak resident size of the whole run (GNU time), else the last report's.
  if [ -x /usr/bin/time ]; then
    peak=$( { { printf 'set_compression %s\n' "$level"; cat "$script"; printf 'go %s steps\nwait_for_solver\n' "$steps"; } |
              /usr/bin/time -f "%M" "$bin" -k > /dev/null; } 2>&1 | tail -1)
    peak=$((peak / 1024))
  else
    out=$( { printf 'set_compression %s\n' "$level"; cat "$script"; printf 'go %s steps\nwait_for_solver\n' "$steps"; } |
           "$bin" -k -v -m 2>&1)
    peak=$(echo "$out" | sed -n 's/.*peak working set \([0-9]*\) MB.*/\1/p' | tail -1)
  fi
  printf "%-6s %-6s %10.3f %12s\n" "$level" "${words[$level]}" "$(awk -v a="$start" -v b="$end" 'BEGIN{print b-a}')" "${peak:--}"
done
