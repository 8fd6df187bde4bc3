# Sourced by the layer checks: the layers and what each may use, as CMakeLists.txt says.
# layer_names: the layers in order; layer_below <layer>: the layers it may include.
layer_names() {
  sed -n 's/^set(QVL_LAYERS \(.*\))$/\1/p' CMakeLists.txt
}
layer_below() {
  sed -n "s/^set(QVL_LAYER_BELOW_$1 *\(.*\))\$/\1/p" CMakeLists.txt | tr -d '"'
}
# layer_view <layer> <dir>: a tree under <dir> with only the folders <layer> may include.
layer_view() {
  local layer="$1" view="$2" visible part
  mkdir -p "$view/include/quorvel" "$view/src"
  ln -sfn "$PWD/include/quorvel/Export.h" "$view/include/quorvel/Export.h"
  for visible in "$layer" $(layer_below "$layer"); do
    for part in include/quorvel src; do
      if [ -d "$part/$visible" ]; then ln -sfn "$PWD/$part/$visible" "$view/$part/$visible"; fi
    done
  done
}
