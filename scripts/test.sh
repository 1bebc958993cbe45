#!/usr/bin/env bash
# Sets up a fresh Debian machine and runs every test of ndmpc: a normal
# build (g++), an ASan+UBSan build and a TSan build (clang), each with its
# suites, plus the interop suites against tshark and the ndmjob server.
# Fails on the first failing suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --tests

jobs=$(nproc)
run_build() {  # name, cmake options...
  local name=$1
  shift
  echo "=== $name build ==="
  cmake -S . -B "build/$name" -G Ninja "$@" >/dev/null
  cmake --build "build/$name" -j "$jobs"
}
run_tests() {  # name, ctest options...
  local name=$1
  shift
  echo "=== $name tests ==="
  ctest --test-dir "build/$name" --output-on-failure --timeout 900 -j "$jobs" "$@"
}

run_build release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++
run_tests release

run_build asan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DNDMPC_SANITIZER=address
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_tests asan

run_build tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DNDMPC_SANITIZER=thread
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_tests tsan -L 'unit|tools'

if [ -x scripts/fuzz.sh ]; then
  scripts/fuzz.sh
fi
echo "=== all tests passed ==="
