#!/usr/bin/env bash
# Builds the shared library and the tools, makes the Debian packages, unpacks them into a
# temporary root and builds the example against that root twice (CMake's find_package and
# pkg-config), then runs both, and the installed demo, against the installed sandbox. Checks
# that the shared library exports nothing but the public API.
#   scripts/package.sh          packages end up in build-pkg/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh dpkg-dev file
dir=build-pkg
cmake -S . -B "$dir" -G Ninja -DBUILD_SHARED_LIBS=ON -DCMAKE_BUILD_TYPE=Release \
  -DQVL_BUILD_TESTS=OFF -DQVL_BUILD_BENCH=OFF -DCMAKE_INSTALL_PREFIX=/usr \
  -DQVL_WERROR="${QVL_WERROR:-OFF}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
rm -f "$dir"/*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/*.deb

work="$(mktemp -d)"
sandbox_pid=""
cleanup() {
  [ -n "$sandbox_pid" ] && kill "$sandbox_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
root="$work/root"
for deb in "$dir"/*.deb; do dpkg-deb -x "$deb" "$root"; done
libdir="$(find "$root/usr/lib" -name 'libquorvel.so.*' -printf '%h\n' | head -n1)"
export LD_LIBRARY_PATH="$libdir"

# Only the public API leaves the shared library: its own names, their type information
# and virtual tables; nothing of SQLite, curl, OpenSSL, JSON internals or detail namespaces.
exported="$(nm -D --defined-only -C "$libdir"/libquorvel.so.? | cut -d' ' -f3-)"
leaked="$(echo "$exported" | grep -Ev '^((typeinfo( name)? for |vtable for |(non-)?virtual thunk to )?(QVL|qvl::))' || true)"
leaked+="$(echo "$exported" | sed -E 's/\(.*//' | grep -E 'detail::|sqlite3|curl_|nlohmann::|httplib::' || true)"
if [ -n "$leaked" ]; then
  echo "libquorvel exports more than its public API:" >&2
  echo "$leaked" | head -n 20 >&2
  exit 1
fi
echo "exported symbols: $(echo "$exported" | wc -l), all of the public API"

# The example, once through find_package and once through pkg-config.
cmake -S examples/closest-beacon -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$work/cmake" >/dev/null
pc_flags="$(PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="$root" pkg-config --cflags --libs quorvel-testing quorvel)"
# shellcheck disable=SC2086
g++ -std=c++20 -o "$work/closest-beacon-pc" examples/closest-beacon/main.cpp $pc_flags

# Both run against the installed sandbox and its installed seed.
"$root/usr/bin/qvl-sandbox" --port 0 --state-dir "$work/sandbox" \
  --seed "$root/usr/share/quorvel/sandbox/seed.json" >"$work/sandbox.log" 2>&1 &
sandbox_pid=$!
for _ in $(seq 100); do [ -s "$work/sandbox/sandbox.json" ] && break; sleep 0.1; done
[ -s "$work/sandbox/sandbox.json" ] || { cat "$work/sandbox.log" >&2; exit 1; }
echo "== find_package build"
timeout 60 "$work/cmake/closest-beacon" "$work/sandbox"
echo "== pkg-config build"
timeout 60 "$work/closest-beacon-pc" "$work/sandbox"
echo "== installed qvl-demo"
timeout 120 "$root/usr/bin/qvl-demo" --sandbox-dir "$work/sandbox" \
  --scene "$root/usr/share/quorvel/scenes/mall-walk.json"
