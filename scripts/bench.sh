#!/usr/bin/env bash
# Builds the SDK and runs its benchmarks: the store import (against plain SQLite), the
# end-to-end fetch from a loopback HTTPS server and one ranging report through the beacon
# manager. Each prints its figures and a "ratios:" line.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target bench_import bench_fetch bench_ranging
./build/bench_import
./build/bench_fetch
./build/bench_ranging
