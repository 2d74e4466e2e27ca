#!/usr/bin/env bash
# Makes the FFmpeg files the modern reader's benchmark runs on, into DIR:
#
#   make_bench_files.sh small DIR   small_h264_aac.mp4: 100 seconds of 160x120
#                                   H.264 at 1000 pictures per second with
#                                   48 kHz AAC, 104689 small samples
#   make_bench_files.sh frag DIR    frag_h264_aac.mp4: 60 seconds of 160x120
#                                   H.264 at 1000 pictures per second with
#                                   48 kHz AAC, one fragment per picture
#                                   (62814 samples in 60000 fragments)
#   make_bench_files.sh hd DIR      hd_h264_aac.mp4: 12 seconds of 1920x1080
#                                   H.264 at a high quality (about 110 KB a
#                                   picture) with 48 kHz AAC, 864 samples
#   make_bench_files.sh pcm DIR     pcm_10min.mov: 10 minutes of 48 kHz
#                                   stereo 16-bit PCM ("sowt", 115 MB,
#                                   28.8 million frames)
#   make_bench_files.sh hour DIR    hour_h264_aac.mp4: an hour of 320x240
#                                   H.264 at 25 pictures per second (B-frames,
#                                   a key frame every 50) with 48 kHz AAC,
#                                   258750 samples: ten seconds encoded, then
#                                   repeated by copy
#
# Needs ffmpeg with libx264 (Debian's). Not bit-exact: the benchmark needs
# only the shape of the files. Each file is written beside its final name
# and moved there when whole, so a cut-off run leaves nothing half made.
set -euo pipefail
kind=${1:?usage: make_bench_files.sh small|frag|hd|pcm|hour DIR}
dir=${2:?usage: make_bench_files.sh small|frag|hd|pcm|hour DIR}
mkdir -p "$dir"
ff() { ffmpeg -hide_banner -nostdin -v error -y "$@"; }
# tone SECONDS: a 48 kHz tone
tone() { echo -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=48000:duration=$1"; }
x264=(-c:v libx264 -preset ultrafast -pix_fmt yuv420p)

case $kind in
  small)
    out=$dir/small_h264_aac.mp4
    ff -f lavfi -i "testsrc=size=160x120:rate=1000:duration=100" $(tone 100) \
       "${x264[@]}" -c:a aac -b:a 64k -ac 2 -movflags +faststart "$out.part.mp4" ;;
  frag)
    out=$dir/frag_h264_aac.mp4
    ff -f lavfi -i "testsrc=size=160x120:rate=1000:duration=60" $(tone 60) \
       "${x264[@]}" -c:a aac -b:a 64k -ac 2 \
       -movflags +frag_every_frame+empty_moov+default_base_moof "$out.part.mp4" ;;
  hd)
    out=$dir/hd_h264_aac.mp4
    ff -f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=12" $(tone 12) \
       "${x264[@]}" -crf 12 -c:a aac -b:a 128k -ac 2 -movflags +faststart "$out.part.mp4" ;;
  pcm)
    out=$dir/pcm_10min.mov
    ff -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=600" -ac 2 -c:a pcm_s16le \
       "$out.part.mov" ;;
  hour)
    out=$dir/hour_h264_aac.mp4
    ff -f lavfi -i "testsrc=size=320x240:rate=25:duration=10" $(tone 10) \
       -c:v libx264 -preset veryfast -g 50 -bf 2 -pix_fmt yuv420p -c:a aac -b:a 96k -ac 2 "$dir/ten_seconds.mp4"
    ff -stream_loop 359 -i "$dir/ten_seconds.mp4" -map 0 -c copy "$out.part.mp4"
    rm -f "$dir/ten_seconds.mp4" ;;
  *) echo "make_bench_files.sh: unknown kind $kind" >&2; exit 2 ;;
esac
mv "$out.part.${out##*.}" "$out"
