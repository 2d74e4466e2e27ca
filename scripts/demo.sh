#!/usr/bin/env bash
# The main job on the sample data shipped in the repository: build the
# tool, mux the raw MPEG-4 video and ADTS AAC samples into an MP4 file,
# then show its atom tree, its summary, and extract its audio again; mux
# a video and an audio stream made by FFmpeg and describe the file; then
# read an H.264/AAC file made by FFmpeg with the modern reader: its tracks
# and the first of its samples; then write the samples again as a
# fragmented file fed from standard input, read fragmented files FFmpeg
# made, and extract an H.264 track as an Annex B stream.
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
echo "== mux $data/mux/demo.h264 + $data/mux/demo.aac (streams made by FFmpeg, formats found from their first bytes) -> out/demo_streams.mp4"
$tool mux -o out/demo_streams.mp4 $data/mux/demo.h264 $data/mux/demo.aac
$tool info out/demo_streams.mp4
echo "== dump $data/mpeg4_aac.mp4 (made by FFmpeg)"
$tool dump $data/mpeg4_aac.mp4
echo "== info $data/modern/h264_aac.mp4 (H.264 with B-frames and AAC, made by FFmpeg)"
$tool info $data/modern/h264_aac.mp4
echo "== samples $data/modern/h264_aac.mp4 (the first lines)"
$tool samples $data/modern/h264_aac.mp4 | sed -n '1,13p'
echo "== mux --fragmented, the video from standard input -> out/demo_fragmented.mp4 (written as the frames arrive)"
$tool mux --fragmented -o out/demo_fragmented.mp4 --video - --fps 25 --audio $data/sample.aac < $data/sample.m4v
$tool info out/demo_fragmented.mp4
echo "== info $data/modern/frag_cmaf_every_frame.mp4 (CMAF made by FFmpeg, one fragment per picture)"
$tool info $data/modern/frag_cmaf_every_frame.mp4 | grep ^track
echo "== extract the H.264 track of $data/modern/frag_empty_moov.mp4 -> out/demo.264 (Annex B)"
$tool extract $data/modern/frag_empty_moov.mp4 --track 1 -o out/demo.264
echo "== remux --faststart $data/modern/h264_aac.mp4 -> out/demo_faststart.mp4 (moov in front of the media)"
$tool remux $data/modern/h264_aac.mp4 -o out/demo_faststart.mp4 --faststart
$tool dump out/demo_faststart.mp4 | grep -E '^\[(ftyp|moov|free|mdat)\]'
echo "== remux --fragmented $data/modern/h264_aac.mp4 -> out/demo_remux_fragmented.mp4 (moof/mdat pairs, mfra at the end)"
$tool remux $data/modern/h264_aac.mp4 -o out/demo_remux_fragmented.mp4 --fragmented
$tool dump out/demo_remux_fragmented.mp4 | grep -oE '^\[(ftyp|moov|moof|mdat|mfra)\]' | uniq -c
