#!/usr/bin/env bash
# Installs the Debian packages the project builds with. Idempotent and quiet
# when everything is present; needs root (or sudo) only when something is missing.
#   scripts/setup.sh [package ...]    also installs the packages named (fuzzer, packaging)
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config libsqlite3-dev libcurl4-openssl-dev libssl-dev
  nlohmann-json3-dev libsimdjson-dev libcpp-httplib-dev libgtest-dev libgmock-dev libbenchmark-dev
  zlib1g-dev libsdbus-c++-dev libsystemd-dev dbus-daemon python3-dbusmock
  "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
