#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) in build/fuzz and runs
# each for about a minute on a copy of its seed corpus. Fails on any crash,
# leak, time-out or memory blow-up (rss limit 2 GiB).
#   scripts/fuzz.sh            # every target, 60 s each
#   FUZZ_SECONDS=600 scripts/fuzz.sh packet
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-60}
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(packet stream union server)

cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++ -DNDMPC_SANITIZER=address -DNDMPC_BUILD_FUZZERS=ON \
  -DNDMPC_BUILD_TESTS=OFF -DNDMPC_BUILD_TOOLS=OFF >/dev/null
cmake --build build/fuzz -j "$(nproc)"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for target in "${targets[@]}"; do
  echo "=== fuzz $target (${seconds}s) ==="
  work="build/fuzz/run/$target"
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp fuzz/corpus/"$target"/* "$work/corpus/"
  if ! build/fuzz/fuzz/ndmpc_fuzz_"$target" "$work/corpus" \
      -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=16384 \
      -print_final_stats=1 -artifact_prefix="$work/artifacts/" >"$work/log" 2>&1; then
    tail -n 60 "$work/log"
    echo "fuzz target $target failed; reproducer in $work/artifacts/" >&2
    exit 1
  fi
  grep -E "^stat::(number_of_executed_units|peak_rss_mb)" "$work/log" || true
done
echo "=== fuzzing passed ==="
