#!/usr/bin/env bash
# The layers hold: no layer includes one above it or one it does not name (a scan of every
# include, and a build of each layer target on its own), and the graph in
# docs/architecture.md is the one CMakeLists.txt declares. --write redraws the graph.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/layers.sh
layers=($(layer_names))

graph() {
  echo '```mermaid'
  echo 'flowchart BT'
  local layer below
  for layer in "${layers[@]}"; do
    for below in $(layer_below "$layer"); do echo "  quorvel_$layer --> quorvel_$below"; done
  done
  echo '```'
  echo
  echo '| target | folders | may include |'
  echo '|---|---|---|'
  for layer in "${layers[@]}"; do
    below="$(layer_below "$layer" | sed -E 's/([a-z]+)/`\1`/g; s/ /, /g')"
    echo "| \`quorvel_$layer\` | \`include/quorvel/$layer/\`, \`src/$layer/\` | ${below:-nothing but the standard and third-party libraries} |"
  done
}
doc=docs/architecture.md
drawn="$(awk '/<!-- layer-graph:begin/{on=1;next} /<!-- layer-graph:end/{on=0} on' "$doc")"
if [ "${1:-}" = --write ]; then
  graph >"$doc.graph"
  awk -v graph="$doc.graph" '
    /<!-- layer-graph:begin/{print; while ((getline line < graph) > 0) print line; skip=1; next}
    /<!-- layer-graph:end/{skip=0} !skip' "$doc" >"$doc.new"
  mv "$doc.new" "$doc"
  rm "$doc.graph"
  exit 0
fi
if [ "$drawn" != "$(graph)" ]; then
  echo "$doc: the layer graph is stale; run scripts/check-layers.sh --write" >&2
  exit 1
fi

# Each layer names only layers before it.
failed=0
for i in "${!layers[@]}"; do
  for below in $(layer_below "${layers[$i]}"); do
    if ! printf '%s\n' "${layers[@]:0:$i}" | grep -qx "$below"; then
      echo "layer ${layers[$i]} names $below, which is not below it" >&2
      failed=1
    fi
  done
done
# Every include of a layer's folder, in sources and public headers alike.
pattern="$(IFS='|'; echo "${layers[*]}")"
for layer in "${layers[@]}"; do
  allowed=" $layer $(layer_below "$layer") "
  while IFS=: read -r file line target; do
    if [[ "$allowed" != *" $target "* ]]; then
      echo "$file:$line: layer $layer includes $target" >&2
      failed=1
    fi
  done < <(git grep -n -o -E "#include \"(quorvel/)?($pattern)/" -- "src/$layer" "include/quorvel/$layer" |
    sed -E 's|#include "(quorvel/)?([a-z]+)/$|\2|')
done
[ "$failed" = 0 ] || exit 1

# Each layer target builds on its own.
build=build-layers
cmake -S . -B "$build" -G Ninja -DQVL_BUILD_TESTS=OFF -DQVL_BUILD_BENCH=OFF -DQVL_BUILD_TOOLS=OFF \
  -DQVL_WERROR="${QVL_WERROR:-OFF}" >/dev/null
for layer in "${layers[@]}"; do
  cmake --build "$build" -j"$(nproc)" --target "quorvel_$layer" >/dev/null ||
    { cmake --build "$build" -j1 --target "quorvel_$layer"; exit 1; }
done
echo "layers: ${layers[*]}: no upward include; each target builds alone"
