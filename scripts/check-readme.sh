#!/usr/bin/env bash
# Runs the README's two set-up commands on a fresh clone of HEAD, in both
# orders, and checks that the example answered and that tests really ran.
# The suite is cut down with TEST_FILTER: the point is the build folder's
# configuration, not the tests themselves.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git clone -q "$src" "$work/clone"
cd "$work/clone"
ln -s "$src/../shared" ../shared 2>/dev/null || true
export TEST_FILTER="${TEST_FILTER:-^(CardReader|HandOrder|Startup)\.}"

example_ok() {
  grep -q '^Corvanta quick start$' "$1" && grep -q '^SOLVER: stopped' "$1"
}
tests_ok() {
  local n
  n=$(sed -n 's/.*tests passed, 0 tests failed out of \([0-9]*\).*/\1/p' "$1" | tail -n 1)
  [ -n "$n" ] && [ "$n" -gt 0 ]
}
fail() { echo "README check: $1"; exit 1; }

bash scripts/run-example.sh > ex1.log 2>&1 || fail "example first: exit $?"
example_ok ex1.log || fail "example first: no answers"
bash scripts/test.sh > t1.log 2>&1 || { tail -n 20 t1.log; fail "tests after the example failed"; }
tests_ok t1.log || { tail -n 20 t1.log; fail "tests after the example ran no test"; }
bash scripts/test.sh > t2.log 2>&1 || fail "tests first failed"
tests_ok t2.log || fail "tests first ran no test"
bash scripts/run-example.sh > ex2.log 2>&1 || fail "example after the tests: exit $?"
example_ok ex2.log || fail "example after the tests: no answers"
echo "README check: both orders passed"
