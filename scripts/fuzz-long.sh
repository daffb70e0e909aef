#!/usr/bin/env bash
# The long protocol fuzz to run before a release: LINES random lines (2 million
# by default) on the Release build and on the sanitizer build. Scripts of
# failing chunks land in fuzz-failures/<build>/.
set -uo pipefail
cd "$(dirname "$0")/.."
lines=${LINES:-2000000}
seed=${SEED:-$(date +%Y%m%d)}
bash scripts/build.sh > /dev/null
cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DCORVANTA_SANITIZE=ON -DCORVANTA_BENCH=OFF > /dev/null
cmake --build build-sanitize -j"$(nproc)" --target corvanta > /dev/null
status=0
for b in build build-sanitize; do
  echo "== $b: $lines lines, seed $seed"
  python3 scripts/fuzz_protocol.py --bin "$b/corvanta" --lines "$lines" --chunk 5000 --seed "$seed" \
    --timeout 900 --save "fuzz-failures/$b" || status=1
done
exit $status
