#!/usr/bin/env bash
# Builds in Release and plays the shipped example through the binary.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh -DCORVANTA_TESTS=OFF -DCORVANTA_BENCH=OFF
./build/corvanta examples/quickstart.txt < /dev/null
