#!/usr/bin/env bash
# Builds the benchmarks (Release, clang) in build/bench and runs them with
# five repetitions, printing the medians. Extra arguments go to the
# benchmark program, e.g. --benchmark_filter=RoundTrip.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=clang++ \
  -DNDMPC_BUILD_BENCHMARKS=ON -DNDMPC_BUILD_TESTS=OFF -DNDMPC_BUILD_TOOLS=OFF >/dev/null
cmake --build build/bench --target ndmpc_bench -j "$(nproc)"
build/bench/bench/ndmpc_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
  --benchmark_display_aggregates_only=true "$@" | grep -v -E '_(mean|stddev|cv) '
