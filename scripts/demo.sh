#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds ndmpc and runs `ndmpc demo`: a
# simulated NDMP server on a loopback port, queried and driven by the tool.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNDMPC_BUILD_TESTS=OFF >/dev/null
cmake --build build/release --target ndmpc_cli
exec build/release/tools/ndmpc demo "$@"
