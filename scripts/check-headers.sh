#!/usr/bin/env bash
# Every public header compiles on its own (it includes what it uses), with the warnings of
# the build as errors. Headers of the device backend need no more than the others.
set -euo pipefail
cd "$(dirname "$0")/.."
# The umbrella names every public header but the device backend's and its own.
expected="$(git ls-files 'include/quorvel/*.h' | grep -v -e '/Linux/' -e '^include/quorvel/quorvel.h$' |
  sed 's|^include/||' | sort)"
listed="$(sed -n 's/^#include "\(.*\)"$/\1/p' include/quorvel/quorvel.h | sort)"
if [ "$expected" != "$listed" ]; then
  echo "include/quorvel/quorvel.h does not list exactly the public headers:" >&2
  diff <(echo "$expected") <(echo "$listed") >&2 || true
  exit 1
fi
# No third-party name in an installed header, the device backend's included: hosts build
# against our headers alone, and the library may change what it is built on.
if hits="$(git ls-files 'include/*.h' | xargs grep -nwE 'nlohmann|sqlite3|curl|sdbus')"; then
  echo "third-party names in public headers:" >&2
  echo "$hits" >&2
  exit 1
fi
cxx="${CXX:-c++}"
check() {
  local header="$1"
  if ! echo "#include \"${header#include/}\"" |
    "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror -Iinclude -x c++ - 2>"$2"; then
    echo "not self-contained: $header" >&2
    cat "$2" >&2
    return 1
  fi
}
export -f check
export cxx
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
git ls-files 'include/*.h' |
  xargs -P "$(nproc)" -I{} bash -c 'check "$1" "$2/$(echo "$1" | tr / _).err"' _ {} "$scratch"
echo "public headers: each compiles alone ($(git ls-files 'include/*.h' | wc -l) headers)"
