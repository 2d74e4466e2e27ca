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

# The Python package, installed as the README says into a venv of Debian's
# interpreter (the python3 first on PATH may lack numpy), with the library
# of the build above; its tests, and the examples on the fixtures.
echo "== python package"
rm -rf build/venv
/usr/bin/python3 -m venv --system-site-packages build/venv
MP4CORE_BUILD_DIR=build build/venv/bin/pip install -q --no-build-isolation --no-index ./python
(cd build && venv/bin/python -m pytest -q -p no:cacheprovider ../python/tests)
build/venv/bin/python examples/python/index_folder.py tests/data --workers 2 -o build/fixtures_index.csv
build/venv/bin/python examples/python/key_frames.py tests/data/modern/h264_aac.mp4 tests/data/modern/hevc_hvc1.mp4 --steps 20

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
