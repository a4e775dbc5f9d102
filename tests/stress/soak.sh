#!/usr/bin/env bash
# Long version of the fault and load tests: the same cases with N rounds per
# unplug case and N*25 frames per reader under load, each case in its own
# process under umockdev-wrapper, as in CI but without CI's time limits.
# Usage: tests/stress/soak.sh N [build-dir] [passes]
#   build-dir defaults to build-stress (configured and built when missing);
#   a sanitizer build dir (configured with -DZTUVC_SANITIZE=thread or
#   address,undefined) soaks under that sanitizer.
# ZTUVC_STRESS_SEED=<seed> replays a seed that a failing case printed.
set -euo pipefail
n="${1:?usage: soak.sh N [build-dir] [passes]}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${2:-$root/build-stress}"
passes="${3:-1}"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja
fi
cmake --build "$build" -j2 --target stress_unplug_test stress_load_test

export ZTUVC_STRESS_ROUNDS="$n"
export ZTUVC_STRESS_FRAMES=$((n * 25))
export HOME="$build/test-home" TMPDIR="$build/test-tmp"
export ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1"
mkdir -p "$TMPDIR"

bins=(stress_unplug_test stress_load_test)
failed=0
for ((p = 1; p <= passes; p++)); do
  echo "=== pass $p of $passes: $ZTUVC_STRESS_ROUNDS rounds, $ZTUVC_STRESS_FRAMES frames per reader"
  for b in "${bins[@]}"; do
    exe="$build/tests/stress/$b"
    for t in $("$exe" --gtest_list_tests | awk '/^[^ ]/ {s=$1} /^  / {print s $1}'); do
      start=$(date +%s)
      if umockdev-wrapper "$exe" --gtest_filter="$t" >"$TMPDIR/soak-$t.log" 2>&1; then
        echo "ok    $t ($(( $(date +%s) - start )) s)"
        grep -h '^\[ stress \]' "$TMPDIR/soak-$t.log" | grep -v SEED || true
      else
        echo "FAIL  $t: see $TMPDIR/soak-$t.log"
        grep -h -A12 -E 'Failure|ERROR: |WARNING: ThreadSanitizer|watchdog' "$TMPDIR/soak-$t.log" | head -40
        failed=1
      fi
    done
  done
done
exit $failed
