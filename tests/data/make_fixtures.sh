#!/usr/bin/env bash
# Makes the FFmpeg fixtures of tests/data and, beside each MP4/3GP file, its
# expected sample listing (NAME.samples), taken from ffprobe at generation
# time so that the tests compare without FFmpeg.
#
#   make_fixtures.sh              all committed fixtures, into this folder
#   make_fixtures.sh --long DIR   only the long file (more than 20000 video
#                                 samples) and its listing, into DIR; the
#                                 tests and benchmarks call this at run time
#
# Needs ffmpeg, ffprobe (FFmpeg 5.1 as Debian 12 ships it, with libmp3lame)
# and python3. Every file is checked to stay within what mp4core reads:
# 32-bit sizes, version 0 headers, "stco".
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tool="python3 $here/fixture_tool.py"

# Bit-exact output: no encoder strings, no metadata, no threads.
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 -threads 1)
ff() { ffmpeg -hide_banner -nostdin -v error -y "$@"; }

# video SIZE RATE SECONDS: a moving test picture
video() { echo -f lavfi -i "testsrc=size=$1:rate=$2:duration=$3"; }
# audio RATE SECONDS: a tone
audio() { echo -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=$1:duration=$2"; }

# finish FILE [ORIGINAL]: check the file and write FILE.samples (key flags of ORIGINAL)
finish() {
  local file=$1; shift
  $tool check "$file"
  $tool listing "$file" "$@" >"$file.samples"
}

make_long() {
  local dir=$1
  mkdir -p "$dir"
  # 16x16 pictures at 200 per second: 22000 tiny samples, one key frame in 250.
  ff $(video 16x16 200 110) -c:v mpeg4 -q:v 10 -g 250 "${exact[@]}" \
     -movflags +faststart "$dir/long_mpeg4.mp4"
  finish "$dir/long_mpeg4.mp4"
}

if [ "${1:-}" = "--long" ]; then
  make_long "${2:?usage: make_fixtures.sh --long DIR}"
  exit 0
fi

cd "$here"
fast=(-movflags +faststart)

# MPEG-4 visual (ISO/IEC 14496-2) video with AAC, moov at the start and at the end.
ff $(video 160x120 25 2) $(audio 44100 2) -c:v mpeg4 -q:v 8 -g 12 -bf 0 \
   -c:a aac -b:a 32k -ac 2 "${exact[@]}" "${fast[@]}" mpeg4_aac.mp4
finish mpeg4_aac.mp4
ff $(video 160x120 25 2) $(audio 44100 2) -c:v mpeg4 -q:v 8 -g 12 -bf 0 \
   -c:a aac -b:a 32k -ac 2 "${exact[@]}" mpeg4_aac_moov_end.mp4
finish mpeg4_aac_moov_end.mp4

# Video only: GOP 12 (moov at the end), B-frames, GOP 1, GOP 250.
ff $(video 128x96 25 2) -c:v mpeg4 -q:v 8 -g 12 -bf 0 "${exact[@]}" mpeg4_gop12.mp4
finish mpeg4_gop12.mp4
ff $(video 128x96 25 2) -c:v mpeg4 -q:v 8 -g 12 -bf 2 "${exact[@]}" "${fast[@]}" \
   mpeg4_bframes.mp4
finish mpeg4_bframes.mp4
# Every sample is a key frame, so FFmpeg writes no "stss".
ff $(video 96x64 25 1) -c:v mpeg4 -q:v 12 -g 1 "${exact[@]}" "${fast[@]}" mpeg4_gop1.mp4
finish mpeg4_gop1.mp4
ff $(video 128x96 25 4) -c:v mpeg4 -q:v 10 -g 250 -sc_threshold 1000000000 \
   "${exact[@]}" "${fast[@]}" mpeg4_gop250.mp4
finish mpeg4_gop250.mp4
# GOP 12 with its "stss" renamed: key frames come from the coding type of
# each plane; the expected key marks are ffprobe's on the original.
$tool strip-stss mpeg4_gop12.mp4 mpeg4_gop12_no_stss.mp4
finish mpeg4_gop12_no_stss.mp4 mpeg4_gop12.mp4

# A video track of exactly one sample, beside an AAC track.
ff $(video 160x120 25 0.04) $(audio 22050 1) -c:v mpeg4 -q:v 8 \
   -c:a aac -b:a 24k -ac 1 "${exact[@]}" "${fast[@]}" mpeg4_one_frame.mp4
finish mpeg4_one_frame.mp4

# AAC only, mono and stereo at several rates.
ff $(audio 8000 1) -c:a aac -b:a 16k -ac 1 -ar 8000 "${exact[@]}" "${fast[@]}" aac_mono_8000.mp4
finish aac_mono_8000.mp4
ff $(audio 22050 1) -c:a aac -b:a 32k -ac 2 -ar 22050 "${exact[@]}" aac_stereo_22050.mp4
finish aac_stereo_22050.mp4
ff $(audio 44100 1) -c:a aac -b:a 32k -ac 1 -ar 44100 "${exact[@]}" "${fast[@]}" aac_mono_44100.mp4
finish aac_mono_44100.mp4
ff $(audio 48000 1) -c:a aac -b:a 48k -ac 2 -ar 48000 "${exact[@]}" aac_stereo_48000.mp4
finish aac_stereo_48000.mp4

# MP3 in MP4.
ff $(audio 44100 1.5) -c:a libmp3lame -b:a 64k -ac 2 "${exact[@]}" "${fast[@]}" mp3_stereo_44100.mp4
finish mp3_stereo_44100.mp4

# H.263 in 3GP, alone and with AAC (FFmpeg has no AMR encoder here).
ff $(video 176x144 15 2) -c:v h263 -q:v 10 -g 15 "${exact[@]}" -f 3gp h263.3gp
finish h263.3gp
ff $(video 176x144 15 2) $(audio 8000 2) -c:v h263 -q:v 10 -g 15 -c:a aac -b:a 12k \
   -ac 1 -ar 8000 "${exact[@]}" "${fast[@]}" -f 3gp h263_aac.3gp
finish h263_aac.3gp

# Raw streams for the mux demo: MPEG-4 visual and ADTS AAC, 2 s each.
ff $(video 176x144 25 2) -c:v mpeg4 -q:v 6 -g 12 -bf 0 "${exact[@]}" -f m4v sample.m4v
ff $(audio 44100 2) -c:a aac -b:a 48k -ac 2 "${exact[@]}" -f adts sample.aac

# Raw MPEG-4 visual streams for the header size: with a visual object
# sequence in front (FFmpeg's default), without one (-strict very), and with
# user data behind the layer header (no bitexact: FFmpeg writes its name).
ff $(video 176x144 25 0.2) -c:v mpeg4 -q:v 8 "${exact[@]}" -f m4v m4v_vos_176x144.m4v
ff $(video 320x240 25 0.2) -c:v mpeg4 -q:v 8 -strict very "${exact[@]}" -f m4v \
   m4v_no_vos_320x240.m4v
ff $(video 64x48 30 0.2) -c:v mpeg4 -q:v 8 -threads 1 -map_metadata -1 -f m4v \
   m4v_user_data_64x48.m4v
for f in m4v_*.m4v sample.m4v; do
  echo "$f: header size and picture size $($tool m4v "$f")"
done

du -ch ./*.mp4 ./*.3gp ./*.m4v ./*.aac ./*.samples | tail -n 1
