#!/usr/bin/env bash
# Builds and runs every test: the normal build, the same suite under
# AddressSanitizer + UndefinedBehaviorSanitizer with leak detection, the
# suite under valgrind's memcheck, and a short bounded run of every fuzz
# target.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-30}

echo "== build and test"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMP4CORE_BENCH=ON >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

# Slow tests (suites named Slow* or *Long*: ffmpeg runs, long files, every
# cut of a file) run once, in the build above, not again below.
echo "== sanitizers (address, undefined, leak)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DMP4CORE_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -E 'Slow|Long'

echo "== valgrind memcheck"
bash scripts/valgrind.sh --gtest_filter='-Slow*:*Long*'

echo "== fuzz (${fuzz_seconds}s per target)"
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DMP4CORE_FUZZ=ON -DMP4CORE_TESTS=OFF >/dev/null
cmake --build build-fuzz -j"$jobs"
bash fuzz/run.sh build-fuzz "$fuzz_seconds"
