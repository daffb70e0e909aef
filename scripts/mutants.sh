#!/usr/bin/env bash
# A fixed set of mutants of the core routines: each is applied by sed, the
# test programs that cover it are rebuilt and run (ctest -j1 on their groups
# only), and the file is put back. Prints killed/survived per mutant; the kill
# count must never drop when tests are cut. Needs a configured build/ with
# the tests on. MUTANTS=regex runs only the matching ids.
set -uo pipefail
cd "$(dirname "$0")/.."
out=build/mutants.txt
: >"$out"

ev='^(CardCommands|CardReader|Classifier|EvaluatorTest|FiveCards|HandOrder|Isomorphism|RankTables|SevenCards|BoardRules|Equity)\.'
fse='^(Fse[A-Za-z]*|CodecStreams|ArenaEntropy|ArenaByteStreams)\.'
packed='^(PackedFormat|ArenaPacked|CodecStreams|PackedStoreTest|ArenaPoolTest)\.'
solve='^(KernelsTest|SolverTest|SolverConfigs|Solver|Analysis)\.'
store='^(StoreKernels|FlatStoreTest|PackedStoreTest|RowStoreTest|WideningTest|SolverTest|SolverConfigs|Solver)\.'

# id | file | sed program | build targets | test groups
mutants=(
  "ev-flush-stop|src/cards/evaluator.cpp|s/if (N - int(seen) < 5) return 0;/if (N - int(seen) <= 5) return 0;/|test_cards test_analysis test_tree|$ev"
  "ev-pair-kicker|src/cards/evaluator.cpp|s/((TopFive\[odd\] >> 4) \& 0xFFF0)/((TopFive[odd] >> 4) \& 0xFF00)/|test_cards test_analysis test_tree|$ev"
  "ev-straight-order|src/cards/evaluator.cpp|s/if (!StraightValue\[m\]) StraightValue\[m\] = 0x04000000/StraightValue[m] = 0x04000000/|test_cards test_analysis test_tree|$ev"
  "ev-low-straight|src/cards/evaluator.cpp|s/HandTypePosition\[CAT_STRAIGHT\] > HandTypePosition\[category\]/HandTypePosition[CAT_STRAIGHT] < HandTypePosition[category]/|test_cards test_analysis test_tree|$ev"
  "fse-spread-step|src/storage/codec/fse.cpp|s/(size >> 1) + (size >> 3) + 3;/(size >> 1) + (size >> 3) + 5;/|test_storage_codec test_storage|$fse"
  "fse-reader-bound|src/storage/codec/fse.cpp|s/if (position + bits > size \* 8) return false;/if (position + bits >= size * 8) return false;/|test_storage_codec test_storage|$fse"
  "packed-group-class|src/storage/codec/codec_packed.cpp|s/int(m >= border)/int(m > border)/|test_storage_codec test_storage|$packed"
  "packed-tail-width|src/storage/codec/codec_packed_impl.h|s/(o >= 65536 ? 2 : 0)/(o > 65536 ? 2 : 0)/|test_storage_codec test_storage|$packed"
  "kernel-fold-self|src/solver/kernels/kernels_body.h|s/out\[i\] = total - cs\[card_lo(p)\] - cs\[card_hi(p)\] + value \* reach\[i\];/out[i] = total - cs[card_lo(p)] - cs[card_hi(p)];/|test_solver test_protocol corvanta|$solve"
  "kernel-tie|src/solver/kernels/kernels_body.h|s/float tied = gsum + total;/float tied = total;/|test_solver test_protocol corvanta|$solve"
  "kernel-lanes-tie|src/solver/kernels/kernels_body.h|s/tied = P::add(gsum, total);/tied = total;/|test_solver test_protocol corvanta|$solve"
  "regret-sign|src/storage/store_kernels_impl.h|s/vf neg = d < 0.0f ?/vf neg = d > 0.0f ?/|test_storage test_solver test_protocol corvanta|$store"
  "regret-u16-clamp|src/storage/store_kernels_impl.h|/lowered = lowered < 0 ? vi{} : lowered;/d|test_storage test_solver test_protocol corvanta|$store"
  "best-response-min|src/solver/iteration.cpp|s/o\[i\] = std::max(o\[i\], c\[i\]);/o[i] = std::min(o[i], c[i]);/|test_solver test_protocol corvanta|$solve"
  "river-regret-scale|src/solver/iteration.cpp|s/scale \/= t.max_range_weight\[1 - t.traverser\];/scale \/= t.max_range_weight[t.traverser];/|test_solver test_protocol corvanta|$solve"
)

killed=0
total=0
for m in "${mutants[@]}"; do
  IFS='|' read -r id file prog targets groups <<<"$m"
  [[ -n "${MUTANTS:-}" && ! "$id" =~ $MUTANTS ]] && continue
  cp "$file" "$file.orig"
  sed -i "$prog" "$file"
  if cmp -s "$file" "$file.orig"; then
    echo "$id: NOT APPLIED (sed matched nothing)" | tee -a "$out"
    mv "$file.orig" "$file"
    continue
  fi
  total=$((total + 1))
  log=build/mutant-$id.log
  # shellcheck disable=SC2086
  if ! cmake --build build -j2 --target $targets >"$log" 2>&1; then
    result="killed (build)"
  elif (cd build && ctest -j1 --no-tests=error -R "$groups" >>"../$log" 2>&1); then
    result="survived"
  else
    result="killed by $(grep -cE '^\s+[0-9]+ - ' "$log") tests: $(grep -oE '^\s+[0-9]+ - [A-Za-z0-9_./]+' "$log" | awk '{print $3}' | tr '\n' ' ')"
  fi
  [[ $result == killed* ]] && killed=$((killed + 1))
  echo "$id: $result" | tee -a "$out"
  mv "$file.orig" "$file"
  touch "$file"  # newer than the mutant's objects, so they are rebuilt
done
# Put the programs back in their unmutated state.
cmake --build build -j2 >/dev/null 2>&1
echo "killed $killed of $total" | tee -a "$out"
