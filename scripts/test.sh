#!/usr/bin/env bash
# Installs what is missing, builds in Release with the tests and runs them all.
# SANITIZE=1 runs the same suite in a Debug build under ASan and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
dir=build
args=(-DCMAKE_BUILD_TYPE=Release)
if [ "${SANITIZE:-0}" = "1" ]; then
  dir=build-sanitize
  args=(-DCMAKE_BUILD_TYPE=Debug -DCORVANTA_SANITIZE=ON -DCORVANTA_BENCH=OFF)
fi
cmake -S . -B "$dir" "${args[@]}"
cmake --build "$dir" -j"$(nproc)"
cd "$dir"
ctest --output-on-failure -j"$(nproc)"
