#!/usr/bin/env bash
# mp4core remux against ffmpeg's stream copy on an hour of H.264 + AAC
# (make_bench_files.sh hour, made once into the cache folder), wall time,
# the median of three runs each, the outputs on a tmpfs (/dev/shm) so that
# no disk decides:
#   mp4core remux IN -o OUT               against  ffmpeg -i IN -map 0 -c copy OUT
#   mp4core remux IN -o OUT --faststart   against  the same with -movflags +faststart
#   mp4core remux IN -o OUT --fragmented  against  the same with -movflags frag_keyframe
# Targets (reported): at most 0.5x plain, 0.6x faststart.
#
#   remux_bench.sh MP4CORE_TOOL
set -euo pipefail
tool=${1:?usage: remux_bench.sh PATH/TO/mp4core}
here=$(cd "$(dirname "$0")" && pwd)
cache=${TMPDIR:-/tmp}/mp4core_bench
out=/dev/shm
[ -d "$out" ] || out=$cache
in=$cache/hour_h264_aac.mp4
[ -f "$in" ] || bash "$here/make_bench_files.sh" hour "$cache"
cat "$in" > /dev/null  # into the page cache before the first run

# median SECONDS...: the middle one
median() { printf '%s\n' "$@" | sort -g | sed -n "$(( ($# + 1) / 2 ))p"; }
# seconds COMMAND...: the wall time of one run, its output removed after
seconds() {
    local start end
    start=$(date +%s.%N)
    "$@" >/dev/null 2>&1 || { echo "remux_bench.sh: failed: $*" >&2; exit 1; }
    end=$(date +%s.%N)
    rm -f "$out"/remux_bench.*.mp4
    echo "$end - $start" | bc -l
}
timed() { local runs=(); for _ in 1 2 3; do runs+=("$(seconds "$@")"); done; median "${runs[@]}"; }

samples=$(ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$in" | paste -sd+ | bc)
echo "== remux of $(basename "$in"): $(du -m "$in" | cut -f1) MB, $samples samples; outputs in $out; median of 3 runs"
ff=(ffmpeg -hide_banner -nostdin -v error -y -i "$in" -map 0 -c copy)
for layout in plain faststart fragmented; do
    case $layout in
        plain) mine=(); theirs=() ;;
        faststart) mine=(--faststart); theirs=(-movflags +faststart) ;;
        fragmented) mine=(--fragmented); theirs=(-movflags frag_keyframe) ;;
    esac
    m=$(timed "$tool" remux "$in" -o "$out/remux_bench.mine.mp4" "${mine[@]}")
    f=$(timed "${ff[@]}" "${theirs[@]}" "$out/remux_bench.ffmpeg.mp4")
    printf '%-10s mp4core %.2f s, ffmpeg %.2f s: %.2fx\n' "$layout" "$m" "$f" "$(echo "$m / $f" | bc -l)"
done
/usr/bin/time -f %M -o "$out/remux_bench.peak" "$tool" remux "$in" -o "$out/remux_bench.mine.mp4" >/dev/null 2>&1
peak=$(cat "$out/remux_bench.peak")
rm -f "$out"/remux_bench.*
echo "mp4core remux peak resident: ${peak} KiB ($(echo "$peak * 1024 / $samples" | bc) bytes per sample, reader and writer)"
