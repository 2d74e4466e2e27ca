#!/usr/bin/env bash
# Makes the fixtures of `mp4core extract` that tests/data/modern lacks: the
# PCM layouts of QuickTime in one small .mov (FFmpeg), then the hand-built
# files of fixtures.rows ("ipcm"/"fpcm", HE-AAC, AMR), written by
# ../modern/build_fixtures.py.
#
#   make_stream_fixtures.sh
#
# Needs ffmpeg (FFmpeg 5.1 as Debian 12 ships it) and python3. README.md
# says what each file holds.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$here"

exact=(-fflags +bitexact -flags:a +bitexact -map_metadata -1 -threads 1)
ff() { ffmpeg -hide_banner -nostdin -v error -y "$@"; }

# Two tones of 20 ms at 8000 Hz, computed in double precision so that every
# bit of the wider layouts is used, in ten PCM layouts, one track each; and
# 5 ms of them at 96 kHz in three channels, which FFmpeg writes as "lpcm" (a
# version 2 sound description): tracks 1 to 11 in the order of the -c:a list.
tones="0.6*sin(440*2*PI*t)+0.3*sin(1234*2*PI*t)"
ff -f lavfi -i "aevalsrc=$tones:s=8000:d=0.02" -f lavfi -i "aevalsrc=$tones:s=96000:d=0.005" \
   -filter_complex "[0:a]asplit=10[a1][a2][a3][a4][a5][a6][a7][a8][a9][a10];[a4]aformat=channel_layouts=stereo[s4];[1:a]aformat=channel_layouts=3.0[s11]" \
   -map "[a1]" -map "[a2]" -map "[a3]" -map "[s4]" -map "[a5]" -map "[a6]" -map "[a7]" \
   -map "[a8]" -map "[a9]" -map "[a10]" -map "[s11]" \
   -c:a:0 pcm_s16be -c:a:1 pcm_s8 -c:a:2 pcm_u8 -c:a:3 pcm_s24le -c:a:4 pcm_s24be \
   -c:a:5 pcm_s32be -c:a:6 pcm_f32le -c:a:7 pcm_f64be -c:a:8 pcm_alaw -c:a:9 pcm_mulaw \
   -c:a:10 pcm_s16le "${exact[@]}" pcm_variants.mov

python3 "$here/../modern/build_fixtures.py" "$here/fixtures.rows" "$here"
ls -l ./*.mov ./*.mp4
