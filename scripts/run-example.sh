#!/usr/bin/env bash
# Builds in Release and plays the shipped example through the binary. The
# options are given every time, so whatever an earlier configure left in the
# cache (the test script turns the tests on) does not matter.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh -DCORVANTA_TESTS=OFF -DCORVANTA_BENCH=OFF
./build/corvanta examples/quickstart.txt < /dev/null
# A turn game described in TOML, solved through the Python client.
PYTHONPATH=python python3 -m corvanta solve examples/turn.toml --bin build/corvanta --out build/turn-result.json
