#!/usr/bin/env bash
# The main job: builds qvl-sandbox and qvl-demo (Release, in build/), starts the sandbox on
# a free port, walks the demo guest through the mall against it, checks what arrived and
# stops the sandbox. Exits with the demo's status. Extra arguments go to qvl-demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$(nproc)" --target qvl-sandbox qvl-demo
exec bash scripts/run-demo.sh build/tools/sandbox/qvl-sandbox build/tools/demo/qvl-demo "$@"
