#!/usr/bin/env bash
# Builds the fuzz targets with clang under ASan+UBSan in build-fuzz/ and runs the mapping
# fuzzer for a bounded time.
#   scripts/fuzz.sh [seconds]      default 90
# New inputs go to build-fuzz/corpus/mapping (the seeds in fuzz/corpus/mapping stay as
# they are); a crashing input is written to build-fuzz/artifacts/ and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-90}"
bash scripts/setup.sh clang libclang-rt-14-dev

cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQVL_BUILD_FUZZ=ON -DQVL_SANITIZE=address,undefined \
  -DQVL_BUILD_TESTS=OFF -DQVL_BUILD_BENCH=OFF -DQVL_BUILD_TOOLS=OFF >/dev/null
cmake --build build-fuzz -j "${QVL_JOBS:-2}" --target qvl_fuzz_mapping

mkdir -p build-fuzz/corpus/mapping build-fuzz/artifacts
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export ASAN_OPTIONS="detect_leaks=1"
build-fuzz/qvl_fuzz_mapping -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
  -max_len=65536 -print_final_stats=1 -artifact_prefix=build-fuzz/artifacts/ \
  build-fuzz/corpus/mapping fuzz/corpus/mapping
