#!/usr/bin/env bash
# Installs, builds and prints the inventory of this host through the Lua runner.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null
cmake --build build -j"$(nproc)" --target assetman assetman-run
exec build/bin/assetman-run examples/inventory.lua "$@"
