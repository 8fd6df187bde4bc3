#!/usr/bin/env bash
# Generates the API reference from the public headers into build-docs/html. Fails on any
# warning, an undocumented public member included.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh doxygen
doxygen docs/Doxyfile
echo "API reference: build-docs/html/index.html"
