#!/usr/bin/env bash
# Builds libztuvc with its tests and runs every test (unit and end-to-end
# against simulated readers).  Usage: scripts/test.sh [build-dir] [cmake args...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build="${1:-build}"
shift || true
jobs="$(nproc)"
cmake -S . -B "$build" -G Ninja "$@"
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300 ${ZTUVC_CTEST_ARGS:-}
