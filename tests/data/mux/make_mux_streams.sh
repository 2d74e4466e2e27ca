#!/usr/bin/env bash
# The elementary streams the main job (scripts/demo.sh) muxes, made by
# FFmpeg 5.1 (Debian 12), bit-exact and single-threaded so that a re-run
# gives the same bytes: two seconds of a test picture (160x120, 25 fps)
# as H.264 Annex B (libx264, B-frames) and as MPEG-4 video, and of a tone
# as ADTS AAC (44100 Hz, mono). Then the audio streams of tools/mux.txt:
# MP3 at 128 kbit/s with LAME's Info frame, 3-channel Opus (a channel
# mapping table) of 60 ms SILK packets, and FLAC at 1 kHz (a rate in kHz in
# each frame header) in frames of 300 samples (a block size of two bytes),
# 135 of them (frame numbers of two bytes), the last of 250 (one byte).
set -euo pipefail
cd "$(dirname "$0")"
common=(-fflags +bitexact -flags +bitexact -map_metadata -1 -threads 1)
picture=(-f lavfi -i testsrc=size=160x120:rate=25 -t 2)
ffmpeg -v error -y "${picture[@]}" "${common[@]}" -c:v libx264 -preset veryfast -bf 2 -g 25 -x264-params threads=1 -bsf:v h264_mp4toannexb -f h264 demo.h264
ffmpeg -v error -y "${picture[@]}" "${common[@]}" -c:v mpeg4 -g 25 -f m4v demo.m4v
ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=44100 -t 2 "${common[@]}" -c:a aac -b:a 48k -f adts demo.aac
ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=44100 -t 0.2 "${common[@]}" -c:a libmp3lame -b:a 128k tone.mp3
ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000 -t 0.3 -af aformat=channel_layouts=3.0 "${common[@]}" -c:a libopus -b:a 8k -application voip -frame_duration 60 tone.opus
ffmpeg -v error -y -f lavfi -i sine=frequency=100:sample_rate=1000 -t 40.45 "${common[@]}" -c:a flac -frame_size 300 tone.flac
