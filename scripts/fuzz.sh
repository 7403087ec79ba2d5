#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UBSan) in
# build/fuzz and runs each for [seconds] (default 30) over a copy of its seed
# corpus, fuzz/corpus/<target>/. Fails when a target cannot be built or run,
# crashes, leaks, hangs, or a sanitizer reports; the input that did it is
# left in build/fuzz/artifacts/<target>/. Only the library and the targets
# are built. See docs/fuzzing.md.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
start=$SECONDS

# Debian: clang, and the runtimes it links for -fsanitize=fuzzer,address,undefined.
scripts/deps.sh clang libclang-rt-dev
if [[ -z ${CMAKE_CXX_COMPILER_LAUNCHER:-} ]] && command -v ccache >/dev/null; then
   export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

dir=build/fuzz
echo "=== fuzz: configure and build"
CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMCASTFIB_FUZZ=ON -DMCASTFIB_TESTS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target fuzz

# A UBSan finding (fatal: the library is built not to recover) with its stack.
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

declare -a summary
failed=0
for source in fuzz/*.cpp; do
   target=$(basename "$source" .cpp)
   exe=$dir/fuzz/fuzz_$target
   work=$dir/corpus/$target
   artifacts=$dir/artifacts/$target
   log=$dir/fuzz_$target.log
   # A copy, so that what a run adds never lands in the checked-in seeds.
   rm -rf "$work" "$artifacts"
   mkdir -p "$work" "$artifacts"
   if [[ -d fuzz/corpus/$target ]]; then cp fuzz/corpus/"$target"/* "$work"/; fi
   echo "=== fuzz: $target for ${seconds}s"
   rc=0
   "$exe" -max_total_time="$seconds" -max_len=2048 -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$artifacts"/ "$work" >"$log" 2>&1 || rc=$?
   done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1 || true)
   if [[ $rc -ne 0 || -z "$done_line" ]] || grep -qE '^==[0-9]+==ERROR|^SUMMARY: ' "$log"; then
      tail -60 "$log" >&2
      echo "!!! fuzz: $target failed (exit $rc); input in $artifacts/, log in $log" >&2
      summary+=("fuzz $target: FAILED")
      failed=$((failed + 1))
      continue
   fi
   runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
   execs=$(sed -n 's/.* exec\/s: \([0-9]*\).*/\1/p' <<<"$done_line")
   cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
   summary+=("fuzz $target: clean, $runs runs, $execs exec/s, $cov edges")
done

printf '%s\n' "${summary[@]}"
echo "fuzz: $((SECONDS - start))s in all"
exit $((failed != 0))
