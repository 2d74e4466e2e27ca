#!/usr/bin/env bash
# Installs a build of mp4core into a temporary prefix, checks what landed
# there, then builds and runs the two consumer programs against that copy:
# once with flags from pkg-config, once through find_package(mp4core).
# Writes nothing outside the temporary directory, which goes at exit.
set -euo pipefail

if [ -n "${MP4CORE_INSTALL_TEST_SKIP:-}" ]; then
    echo "skipped: $MP4CORE_INSTALL_TEST_SKIP"
    exit 77
fi

if [ $# -ne 6 ]; then
    echo "usage: run.sh BUILD_DIR LIBDIR C_COMPILER CXX_COMPILER CMAKE_GENERATOR FIXTURE" >&2
    exit 2
fi
build=$1 libdir=$2 cc=$3 cxx=$4 generator=$5 fixture=$6
here=$(cd "$(dirname "$0")" && pwd)
source_root=$(cd "$here/../.." && pwd)

# What the consumers print for tests/data/mpeg4_aac.mp4, as its .samples
# listing has it: video track 1 (160x120, 50 frames, first a 3574-byte key
# frame), audio track 2 (88 samples, 7955 bytes in all, 44100 Hz).
audio_track=2
expect_c="consumer: 160x120, 50 frames, first sample 3574 bytes, key 1"
expect_cpp="consumer: 88 audio samples of 88, 7955 bytes, 44100 Hz"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
lib=$prefix/$libdir

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Runs a consumer against the installed library and compares its line.
run_consumer() {
    local program=$1 expected=$2 output
    shift 2
    output=$(LD_LIBRARY_PATH=$lib ldd "$program") || fail "ldd $program failed"
    grep -qF "libmp4core.so.1 => $lib/libmp4core.so.1 " <<<"$output" ||
        fail "$program does not load $lib/libmp4core.so.1: $output"
    output=$(LD_LIBRARY_PATH=$lib "$program" "$@") || fail "$program exited $?: $output"
    grep -qxF "$expected" <<<"$output" || fail "$program printed: $output; expected: $expected"
    echo "ok: $(basename "$program"): ${expected#consumer: }"
}

echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" 2>&1 ||
    { cat "$tmp/install.log"; fail "cmake --install"; }

[ -f "$lib/libmp4core.so.1.0.0" ] && [ ! -L "$lib/libmp4core.so.1.0.0" ] ||
    fail "$lib/libmp4core.so.1.0.0 is not a regular file"
[ "$(readlink "$lib/libmp4core.so.1")" = libmp4core.so.1.0.0 ] ||
    fail "libmp4core.so.1 does not link to libmp4core.so.1.0.0"
[ "$(readlink "$lib/libmp4core.so")" = libmp4core.so.1 ] ||
    fail "libmp4core.so does not link to libmp4core.so.1"
[ "$(ls "$prefix/include")" = mp4core.h ] || fail "include/ holds more than mp4core.h"
if compgen -G "$lib/*.a" >/dev/null; then fail "a static archive was installed"; fi
for f in "$lib/pkgconfig/mp4core.pc" "$lib/cmake/mp4core/mp4coreConfig.cmake" \
         "$lib/cmake/mp4core/mp4coreConfigVersion.cmake"; do
    [ -f "$f" ] || fail "$f is missing"
done
# The package files must describe the installed copy, not the trees it came from.
if grep -rlF -e "$build" -e "$source_root" "$prefix/include" "$lib/pkgconfig" "$lib/cmake"; then
    fail "installed package files name the build or source tree"
fi

"$prefix/bin/mp4core" --help >/dev/null || fail "installed mp4core --help failed"
"$prefix/bin/mp4core" info "$fixture" >"$tmp/info.txt" || fail "installed mp4core info failed"
grep -qF 'track 1: video "mp4v" (handler "vide"), 160x120, rotation 0, 50 samples' "$tmp/info.txt" || fail "mp4core info printed: $(cat "$tmp/info.txt")"
echo "ok: installed tree"

echo "== pkg-config"
export PKG_CONFIG_PATH=$lib/pkgconfig
[ "$(pkg-config --variable=libdir mp4core)" = "$lib" ] ||
    fail "pkg-config libdir is $(pkg-config --variable=libdir mp4core), not $lib"
[ "$(pkg-config --variable=includedir mp4core)" = "$prefix/include" ] ||
    fail "pkg-config includedir is $(pkg-config --variable=includedir mp4core)"
read -r -a flags <<<"$(pkg-config --cflags --libs mp4core)"
"$cc" -std=c99 -Wall -Wextra -Werror -pedantic "$here/consumer.c" -o "$tmp/pc_c" "${flags[@]}"
"$cxx" -std=c++17 -Wall -Wextra -Werror -pedantic "$here/consumer.cpp" -o "$tmp/pc_cpp" "${flags[@]}"
run_consumer "$tmp/pc_c" "$expect_c" "$fixture"
run_consumer "$tmp/pc_cpp" "$expect_cpp" "$fixture" "$audio_track"

echo "== find_package"
cmake -S "$here" -B "$tmp/consumer" -G "$generator" -DCMAKE_C_COMPILER="$cc" \
      -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" -DMP4CORE_PREFIX="$prefix" \
      >"$tmp/configure.log" 2>&1 || { cat "$tmp/configure.log"; fail "consumer configure"; }
cmake --build "$tmp/consumer" >"$tmp/build.log" 2>&1 ||
    { cat "$tmp/build.log"; fail "consumer build"; }
run_consumer "$tmp/consumer/consumer_c" "$expect_c" "$fixture"
run_consumer "$tmp/consumer/consumer_cpp" "$expect_cpp" "$fixture" "$audio_track"
