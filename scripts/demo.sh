#!/usr/bin/env bash
# The main job on the sample data shipped in the repository: build the
# tool, mux the raw MPEG-4 video and ADTS AAC samples into an MP4 file,
# then show its atom tree, its summary, and extract its audio again; then
# read an H.264/AAC file made by FFmpeg with the modern reader: its tracks
# and the first of its samples.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target mp4core_tool
tool=build/mp4core
mkdir -p out
data=tests/data

echo "== mux $data/sample.m4v + $data/sample.aac -> out/demo.mp4"
$tool mux -o out/demo.mp4 --video $data/sample.m4v --audio $data/sample.aac --od --scene
echo "== dump out/demo.mp4"
$tool dump out/demo.mp4
echo "== info out/demo.mp4"
$tool info out/demo.mp4
echo "== extract the audio track of out/demo.mp4 -> out/demo.aac"
$tool extract out/demo.mp4 --track 2 -o out/demo.aac
echo "== dump $data/mpeg4_aac.mp4 (made by FFmpeg)"
$tool dump $data/mpeg4_aac.mp4
echo "== info $data/modern/h264_aac.mp4 (H.264 with B-frames and AAC, made by FFmpeg)"
$tool info $data/modern/h264_aac.mp4
echo "== samples $data/modern/h264_aac.mp4 (the first lines)"
$tool samples $data/modern/h264_aac.mp4 | sed -n '1,13p'
