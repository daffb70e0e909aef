#!/usr/bin/env bash
# The layers of src/ point one way. Every folder has a rank in the table
# below; a file may include the headers of its own folder and of folders of a
# lower rank, nothing else. An include that runs up, or sideways to another
# folder of the same rank, fails, and so does a folder the table doesn't rank.
#
#   scripts/check-layers.sh [SRC_DIR]     checks SRC_DIR (default: src)
#   scripts/check-layers.sh --self-test   plants bad includes in copies of src
#                                         and shows that each one fails
set -euo pipefail
cd "$(dirname "$0")/.."

# folder            rank   what it holds
Layers='
main                9      entry point and start-up
shell               8      command table, the loop, set-up and script commands
analysis            7      queries on a solved tree, node locks
solver              6      solving thread, iterations, forgetting streets
tree                5      lines, tree records, hole sets, the tree file
storage             4      arenas and strategy stores
storage/codec       3      row transform, packed format, FSE and channel codecs
storage/memory      2      allocation, byte and file streams, hand vectors, memory report
cards               2      cards, hand orders, evaluator, isomorphism
solver/kernels      2      terminal kernels per instruction set
core                1      answer output, failures, settings
platform            1      the operating-system layer
'

# Prints one line per breach; exits 1 if there is any.
check() {
  local src="$1" dirs includes
  dirs=$(cd "$src" && find . -mindepth 1 -type d | sed 's|^\./||' | sort)
  includes=$(cd "$src" && find . -type f \( -name '*.h' -o -name '*.cpp' \) | sed 's|^\./||' | sort |
             xargs -r grep -Hn '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' || true)
  awk -v table="$Layers" -v dirs="$dirs" -v src="$src" '
    BEGIN {
      n = split(table, rows, "\n")
      for (i = 1; i <= n; i++)
        if (split(rows[i], f, " ") >= 2) rank[f[1]] = f[2] + 0
      m = split(dirs, d, "\n")
      for (i = 1; i <= m; i++)
        if (d[i] != "" && !(d[i] in rank)) { printf "%s/%s: a folder the layer table does not rank\n", src, d[i]; bad = 1 }
    }
    $0 != "" {
      split($0, p, ":")
      file = p[1]
      inc = $0; sub(/^[^"]*"/, "", inc); sub(/".*$/, "", inc)
      from = file; if (!sub(/\/[^\/]*$/, "", from)) from = "."
      to = inc; if (!sub(/\/[^\/]*$/, "", to)) to = from
      if (from == to) next
      if (!(from in rank)) next  # reported above
      if (!(to in rank)) { printf "%s/%s:%s: includes \"%s\" from no ranked folder\n", src, file, p[2], inc; bad = 1; next }
      if (rank[to] >= rank[from]) {
        printf "%s/%s:%s: includes \"%s\": %s (rank %d) may only include ranks below %d, not %s (rank %d)\n",
               src, file, p[2], inc, from, rank[from], rank[from], to, rank[to]
        bad = 1
      }
    }
    END { exit bad }' <<<"$includes"
}

# Each case: file to plant in, header it includes, what it shows.
self_test() {
  local failed=0 cases
  tmp=$(mktemp -d)  # global: the trap runs after the function
  trap 'rm -rf "$tmp"' EXIT
  cp -r src "$tmp/clean"
  if ! check "$tmp/clean" >/dev/null; then echo "self-test: the unchanged tree fails"; exit 1; fi
  cases='storage/store.h|tree/tree.h|storage includes the tree above it
storage/codec/codec.cpp|storage/store.h|a codec includes the stores above it
storage/memory/bytes.cpp|storage/codec/codec.h|working memory includes the codecs above it
cards/cards.cpp|storage/memory/bytes.h|cards include working memory, a folder of their own rank
core/core.cpp|platform/platform.h|core includes the platform beside it
tree/tree_file.cpp|solver/solver.h|the tree file includes the solver above it'
  while IFS='|' read -r file header what; do
    rm -rf "$tmp/planted"
    cp -r src "$tmp/planted"
    printf '#include "%s"\n' "$header" >>"$tmp/planted/$file"
    if out=$(check "$tmp/planted") || ! grep -q "$file" <<<"$out"; then
      echo "self-test: NOT caught: $what ($file includes $header)"
      failed=1
    else
      echo "caught: $what"
    fi
  done <<<"$cases"
  rm -rf "$tmp/planted"
  cp -r src "$tmp/planted"
  mkdir "$tmp/planted/newroom"
  echo '#include "core/core.h"' >"$tmp/planted/newroom/a.cpp"
  if check "$tmp/planted" >/dev/null; then
    echo "self-test: NOT caught: a folder the table does not rank"
    failed=1
  else
    echo "caught: a folder the table does not rank"
  fi
  [ $failed -eq 0 ] || exit 1
  echo "self-test ok"
}

if [ "${1:-}" = "--self-test" ]; then
  self_test
  exit 0
fi
src="${1:-src}"
if ! check "$src"; then
  echo "layering broken: the lines above include a folder the layer table puts at or above their own"
  exit 1
fi
echo "layers ok"
