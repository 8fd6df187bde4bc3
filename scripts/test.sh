#!/usr/bin/env bash
# Builds the library and its tests and runs every test.
#   scripts/test.sh            release build in build/
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
#   scripts/test.sh tsan       ThreadSanitizer build in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
mode="${1:-release}"
case "$mode" in
  release) dir=build; extra=() ;;
  asan) dir=build-asan; extra=(-DQVL_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug -DQVL_BUILD_BENCH=OFF) ;;
  tsan) dir=build-tsan; extra=(-DQVL_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug -DQVL_BUILD_BENCH=OFF) ;;
  *) echo "usage: $0 [release|asan|tsan]" >&2; exit 2 ;;
esac
# CI sets QVL_WERROR=ON: every warning fails the build.
cmake -S . -B "$dir" -G Ninja "${extra[@]}" -DQVL_WERROR="${QVL_WERROR:-OFF}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
