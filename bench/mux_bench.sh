#!/usr/bin/env bash
# `mp4core mux` against `ffmpeg -c copy` on one hour of elementary streams:
# 160x120 video at 25 pictures a second (H.264 Annex B; MPEG-4 video while
# the tool takes no H.264) and 48 kHz ADTS AAC, generated into DIR (not
# committed), each muxed RUNS times (default 3) by both; prints the median
# wall times and their ratio.
#   bench/mux_bench.sh BUILD_DIR DIR [RUNS]
set -euo pipefail
tool=${1:?usage: mux_bench.sh BUILD_DIR DIR [RUNS]}/mp4core
dir=${2:?usage: mux_bench.sh BUILD_DIR DIR [RUNS]}
runs=${3:-3}
mkdir -p "$dir"
ff() { ffmpeg -hide_banner -nostdin -v error -y "$@"; }
picture=(-f lavfi -i "testsrc=size=160x120:rate=25:duration=3600")
[ -e "$dir/v.h264" ] || ff "${picture[@]}" -c:v libx264 -preset ultrafast -g 250 -bsf:v h264_mp4toannexb -f h264 "$dir/v.h264"
[ -e "$dir/v.m4v" ] || ff "${picture[@]}" -c:v mpeg4 -g 250 -f m4v "$dir/v.m4v"
[ -e "$dir/a.aac" ] || ff -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=3600" -c:a aac -b:a 64k -f adts "$dir/a.aac"
video=$dir/v.h264
"$tool" mux -o "$dir/probe.mp4" "$video" 2>/dev/null || video=$dir/v.m4v

# median COMMAND...: the median wall time of RUNS runs, in seconds.
median() {
  local times=() start end
  for _ in $(seq "$runs"); do
    start=$(date +%s.%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s.%N)
    times+=("$(echo "$end - $start" | bc)")
  done
  printf "%s\n" "${times[@]}" | sort -n | sed -n "$(( (runs + 1) / 2 ))p"
}
ours=$(median "$tool" mux -o "$dir/mux.mp4" "$video" "$dir/a.aac")
theirs=$(median ffmpeg -nostdin -v error -y -i "$video" -i "$dir/a.aac" -c copy "$dir/ffmpeg.mp4")
echo "video $(basename "$video"), $(stat -c %s "$video") + $(stat -c %s "$dir/a.aac") bytes"
echo "mp4core mux: ${ours} s; ffmpeg -c copy: ${theirs} s; ratio $(echo "scale=3; $ours / $theirs" | bc)"
