#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then configures, builds
# and runs a separate application against it with find_package(ndmpc).
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="${CXX:-c++}" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"
