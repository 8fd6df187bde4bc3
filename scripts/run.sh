#!/usr/bin/env bash
# The main job until the sandbox and demo exist: builds the SDK and runs its benchmarks
# (the store import, the end-to-end fetch against a loopback HTTPS server, a ranging report).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target bench_import bench_fetch bench_ranging
./build/bench_import
./build/bench_fetch
./build/bench_ranging
