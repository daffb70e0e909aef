#!/usr/bin/env bash
# Installs what is missing, builds in Release with the tests and runs them all.
# SANITIZE=1 runs the same suite in a Debug build under ASan and UBSan.
# TEST_FILTER=regex runs only the matching tests (the README check uses it).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
dir=build
args=(-DCMAKE_BUILD_TYPE=Release -DCORVANTA_TESTS=ON -DCORVANTA_BENCH=ON -DCORVANTA_SANITIZE=OFF)
if [ "${SANITIZE:-0}" = "1" ]; then
  dir=build-sanitize
  args=(-DCMAKE_BUILD_TYPE=Debug -DCORVANTA_TESTS=ON -DCORVANTA_SANITIZE=ON -DCORVANTA_BENCH=OFF)
fi
cmake -S . -B "$dir" "${args[@]}"
cmake --build "$dir" -j"$(nproc)"
filter=()
[ -n "${TEST_FILTER:-}" ] && filter=(-R "$TEST_FILTER")
# A run that finds no test is a failure, not a pass.
(cd "$dir" && ctest --output-on-failure --no-tests=error -j"$(nproc)" "${filter[@]}")
# The Python client's suite against the binary just built; any failure, and no test at all (5), fails.
py=/usr/bin/python3; [ -x "$py" ] || py=python3
CORVANTA_BIN="$PWD/$dir/corvanta" "$py" -m pytest -q -p no:cacheprovider python/tests
