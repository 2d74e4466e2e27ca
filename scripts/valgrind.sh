#!/usr/bin/env bash
# Runs the test suite under valgrind's memcheck: any memory error or leak
# fails the run. Uses its own optimised-with-debug-info build (valgrind and
# the sanitizers do not mix). Extra arguments go to the test binary, e.g.
# --gtest_filter=Access*.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${VALGRIND_BUILD:-build-valgrind}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)"
memcheck="valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
  --show-leak-kinds=definite,indirect,possible --errors-for-leak-kinds=definite,indirect,possible
  --track-origins=yes --quiet"
# shellcheck disable=SC2086
$memcheck "$build/tests/mp4core_tests" --gtest_brief=1 "$@"
# The example programs, through the same checker.
MP4CORE_EXAMPLE_WRAPPER="$memcheck" ctest --test-dir "$build" -R '^example\.' --output-on-failure
