#!/usr/bin/env bash
# Wall time of a study batch as jobs x threads on this machine, and the engine's
# share of the job time (the rest is Python and engine start-up and file writing).
#   bench/batch_study.sh [study.toml] [flops] [build]     defaults: examples/study.toml sample:20 build
set -euo pipefail
cd "$(dirname "$0")/.."
study=${1:-examples/study.toml}; flops=${2:-sample:20}; build=${3:-build}
py=/usr/bin/python3; [ -x "$py" ] || py=python3
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
for shape in "1 2" "2 1"; do
  set -- $shape
  start=$EPOCHREALTIME
  PYTHONPATH=python "$py" -m corvanta batch "$study" --flops "$flops" --out "$work/j$1t$2" \
    --jobs "$1" --threads "$2" --bin "$build/corvanta" 2> "$work/log"
  end=$EPOCHREALTIME
  "$py" - "$work/j$1t$2" "$start" "$end" "$1" "$2" <<'PY'
import json, sys
from pathlib import Path
out, wall = Path(sys.argv[1]), float(sys.argv[3]) - float(sys.argv[2])
engine = sum(json.loads(p.read_text())["seconds"]["engine"] for p in out.glob("*.json"))
jobs = sum(float(l.split("\t")[3]) for l in (out / "joblog").read_text().splitlines()[1:])
print(f"jobs={sys.argv[4]} threads={sys.argv[5]}: wall {wall:.1f} s, job time {jobs:.1f} s, "
      f"engine (build and solve) {engine:.1f} s = {100 * engine / jobs:.1f}% of job time")
PY
done
