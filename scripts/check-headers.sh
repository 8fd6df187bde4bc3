#!/usr/bin/env bash
# Every public header compiles on its own (it includes what it uses), with the warnings of
# the build as errors, seeing only its own layer and the layers below it (see layers.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/layers.sh
# The umbrella names every public header but the device backend's, the testing library's and
# its own.
expected="$(git ls-files 'include/quorvel/*.h' |
  grep -v -e '/device/' -e '/testing/' -e '^include/quorvel/quorvel.h$' | sed 's|^include/||' | sort)"
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
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
for layer in $(layer_names); do layer_view "$layer" "$scratch/$layer"; done
ln -s "$PWD/include" "$scratch/all"
cxx="${CXX:-c++}"
check() {
  local header="$1" scratch="$2" layer view
  layer="$(echo "$header" | sed -n 's|^include/quorvel/\([^/]*\)/.*|\1|p')"
  view="$scratch/${layer:-all}"
  [ -n "$layer" ] && view="$view/include"
  if ! echo "#include \"${header#include/}\"" |
    "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror -I"$view" -x c++ - \
      2>"$scratch/$(echo "$header" | tr / _).err"; then
    echo "not self-contained in its layer: $header" >&2
    cat "$scratch/$(echo "$header" | tr / _).err" >&2
    return 1
  fi
}
export -f check
export cxx
git ls-files 'include/*.h' | xargs -P "$(nproc)" -I{} bash -c 'check "$1" "$2"' _ {} "$scratch"
echo "public headers: each compiles alone in its layer ($(git ls-files 'include/*.h' | wc -l) headers)"
