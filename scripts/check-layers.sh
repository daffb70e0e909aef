#!/usr/bin/env bash
# The layers point one way: the shell stands on everything, nothing below it
# includes a shell header (only the *_commands units may), and the core and
# platform base include nothing above themselves.
set -euo pipefail
cd "$(dirname "$0")/.."
bad=0
for f in $(find src/cards src/tree src/storage src/solver src/analysis src/core src/platform -name '*.h' -o -name '*.cpp'); do
  case "$f" in *_commands.cpp) continue ;; esac
  if grep -Hn '#include "shell/' "$f"; then bad=1; fi
done
for f in $(find src/core src/platform -name '*.h' -o -name '*.cpp'); do
  if grep -Hn '#include "\(cards\|tree\|storage\|solver\|analysis\|shell\)/' "$f"; then bad=1; fi
done
if [ $bad -ne 0 ]; then echo "layering broken: the lines above include a higher layer"; exit 1; fi
echo "layers ok"
