#!/usr/bin/env bash
# Builds and runs the whole suite four ways: native x86_64, 32-bit x86, with
# AddressSanitizer + UndefinedBehaviorSanitizer and with ThreadSanitizer; then
# runs each fuzz target briefly (scripts/fuzz.sh). Fails loudly when any build
# fails, any test fails, a build runs no test, or a fuzz target finds a fault.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

jobs=$(nproc)
passed=0
failed=0
declare -a summary

run() {
   local name=$1
   shift
   local dir=build/$name
   echo "=== $name: configure and build"
   cmake -S . -B "$dir" -DMCASTFIB_TESTS=ON "$@" >/dev/null
   cmake --build "$dir" -j"$jobs"
   echo "=== $name: test"
   local log=$dir/ctest.log rc=0
   (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 300 ${CTEST_ARGS:-}) | tee "$log" || rc=$?
   local total fails
   total=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2/p' "$log" | tail -1)
   fails=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -1)
   if [[ -z "$total" || "$total" -eq 0 ]]; then
      echo "!!! $name ran no test" >&2
      exit 1
   fi
   passed=$((passed + total - fails))
   failed=$((failed + fails))
   summary+=("$name: $((total - fails)) of $total passed")
   if [[ $rc -ne 0 || $fails -ne 0 ]]; then
      echo "!!! $name: $fails of $total tests failed" >&2
      printf '%s\n' "${summary[@]}"
      echo "$passed passed, $failed failed"
      exit 1
   fi
}

run native -DCMAKE_BUILD_TYPE=Release -DMCASTFIB_BENCH=ON
run m32 -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-m32
run asan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
   "-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
# Everything under ThreadSanitizer but the trace ring's two-thread test: the
# ring lets two threads garble a line rather than lock, a race it accepts.
CTEST_ARGS="-E ^FlashlogRing.TwoThreads" run tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS=-fsanitize=thread"

# The upcall parsers' fuzzers, 20 seconds each: enough to replay the seeds
# and catch a fault a change makes shallow.
if ! scripts/fuzz.sh 20; then
   printf '%s\n' "${summary[@]}"
   echo "!!! fuzz targets failed" >&2
   exit 1
fi
summary+=("fuzz: every target ran clean")

printf '%s\n' "${summary[@]}"
echo "$passed passed, $failed failed"
