#!/usr/bin/env bash
# Fails when a tracked C++ file differs from .clang-format's layout.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || {
  sudo=""; [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends clang-format >/dev/null
}
git ls-files -z -- '*.h' '*.cpp' | xargs -0 -r clang-format --dry-run --Werror
echo "clang-format: every tracked C++ file is formatted"
