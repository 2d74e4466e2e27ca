#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the fuzzers and the
# benchmarks need, if any is missing. Needs root only when something is.
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libbenchmark-dev
          pkg-config ffmpeg libavformat-dev libavcodec-dev libavutil-dev binutils valgrind python3
          gstreamer1.0-tools gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav
          mediainfo libimage-exiftool-perl python3-mutagen)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
