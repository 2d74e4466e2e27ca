#!/usr/bin/env bash
# The elementary streams the main job (scripts/demo.sh) muxes, made by
# FFmpeg 5.1 (Debian 12), bit-exact and single-threaded so that a re-run
# gives the same bytes: two seconds of a test picture (160x120, 25 fps)
# as H.264 Annex B (libx264, B-frames) and as MPEG-4 video, and of a tone
# as ADTS AAC (44100 Hz, mono).
set -euo pipefail
cd "$(dirname "$0")"
common=(-fflags +bitexact -flags +bitexact -map_metadata -1 -threads 1)
picture=(-f lavfi -i testsrc=size=160x120:rate=25 -t 2)
ffmpeg -v error -y "${picture[@]}" "${common[@]}" -c:v libx264 -preset veryfast -bf 2 -g 25 -x264-params threads=1 -bsf:v h264_mp4toannexb -f h264 demo.h264
ffmpeg -v error -y "${picture[@]}" "${common[@]}" -c:v mpeg4 -g 25 -f m4v demo.m4v
ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=44100 -t 2 "${common[@]}" -c:a aac -b:a 48k -f adts demo.aac
