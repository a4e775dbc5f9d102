#!/usr/bin/env bash
# The main job: builds libztuvc and its tool, then captures fingerprint images
# from a simulated 1280 x 1024 reader into PNG files.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build="${BUILD_DIR:-build}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)"
out="$PWD/captures"
mkdir -p "$out"
if [ -x "$build/sim/ztuvc-sim" ] && [ -x "$build/tools/ztuvc" ]; then
  "$build/sim/ztuvc-sim" --model 30 -- "$build/tools/ztuvc" capture -n 5 -o "$out/frame-%03d.png"
  echo "Captured images are in $out"
else
  echo "Built $(readlink -f "$build"/libztuvc.so.3)"
fi
