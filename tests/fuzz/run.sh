#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer (ASan + UBSan) in their own
# CMake configuration and fuzzes each for a while, starting from the
# checked-in corpus.  A crash leaves its input in <build-dir>/artifacts/ and
# fails the script: copy that file into tests/fuzz/corpus/<target>/ so that
# every build replays it from then on (ctest fuzz_<target>_corpus).
#
# Usage: tests/fuzz/run.sh [seconds-per-target] [build-dir]
#   CI: tests/fuzz/run.sh 25          a long run: tests/fuzz/run.sh 3600
# Without clang++ it says so and exits 0.
set -euo pipefail
secs="${1:-25}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${2:-$root/build-fuzz}"

if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ not installed (scripts/deps.sh installs it); skipped"
  exit 0
fi
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZTUVC_SANITIZE=address,undefined \
    -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
    -DZTUVC_FUZZ_ENGINE=ON -DZTUVC_BUILD_TOOLS=OFF -DZTUVC_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j2 --target fuzz_descriptors fuzz_config fuzz_payload

export ZTTRACE_ON=0 HOME="$build/fuzz-home"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
mkdir -p "$HOME" "$build/artifacts"
declare -A maxlen=([descriptors]=16384 [config]=4096 [payload]=4096)
failed=0
for t in descriptors config payload; do
  work="$build/corpus/$t"
  mkdir -p "$work"
  echo "=== fuzz_$t: $secs s"
  if "$build/tests/fuzz/fuzz_$t" -max_total_time="$secs" -max_len="${maxlen[$t]}" -timeout=20 \
       -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" \
       "$work" "$root/tests/fuzz/corpus/$t" >"$build/fuzz_$t.log" 2>&1; then
    grep -E '^stat::(number_of_executed_units|new_units_added)|^Done' "$build/fuzz_$t.log" || true
  else
    echo "FAIL fuzz_$t: see $build/fuzz_$t.log; inputs:"
    ls "$build/artifacts/$t-"* 2>/dev/null || true
    grep -m1 -A15 -E 'ERROR: |runtime error|==ABORTING|deadly signal' "$build/fuzz_$t.log" || true
    failed=1
  fi
done
exit $failed
