#!/usr/bin/env bash
# Makes the FFmpeg fixtures of tests/data/modern and, beside each file, its
# expected sample listing (NAME.samples) and track facts (NAME.streams),
# taken from ffprobe at generation time so that the tests compare without
# FFmpeg; then the hand-built files of fixtures.rows (build_fixtures.py)
# with theirs.
#
#   make_modern_fixtures.sh
#
# Needs ffmpeg and ffprobe (FFmpeg 5.1 as Debian 12 ships it, with libx264,
# libx265, libaom, libvpx, libopus and libmp3lame) and python3. README.md
# says what each file holds and the formats of the listings.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tool="python3 $here/../fixture_tool.py"
cd "$here"

# Bit-exact output: no encoder strings, no metadata, one thread (also
# inside the encoders that have pools of their own).
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 -threads 1)
ff() { ffmpeg -hide_banner -nostdin -v error -y "$@"; }

# video SIZE RATE SECONDS: a moving test picture; audio RATE SECONDS: a tone
video() { echo -f lavfi -i "testsrc=size=$1:rate=$2:duration=$3"; }
audio() { echo -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=$1:duration=$2"; }

# H.264 with B-frames in every fixture that carries H.264: fixed B-frame
# placement, so that "ctts" is there whatever the content.
x264=(-c:v libx264 -pix_fmt yuv420p -preset medium -crf 30 -g 12 -bf 2
      -x264-params b-adapt=0:b-pyramid=none)
x265=(-c:v libx265 -pix_fmt yuv420p -preset medium -crf 32 -g 12)
x265p=pools=none:frame-threads=1:info=0:log-level=error:bframes=2:b-adapt=0

# finish FILE: describe the file and write FILE.samples and FILE.streams
finish() {
  $tool describe "$1"
  $tool samples "$1" >"$1.samples"
  $tool streams "$1" >"$1.streams"
}

# H.264 (B-frames) with AAC stereo, "moov" at the end and at the start.
ff $(video 160x120 25 1) $(audio 44100 1) "${x264[@]}" -c:a aac -b:a 32k -ac 2 \
   "${exact[@]}" h264_aac.mp4
finish h264_aac.mp4
ff $(video 160x120 25 1) $(audio 44100 1) "${x264[@]}" -c:a aac -b:a 32k -ac 2 \
   "${exact[@]}" -movflags +faststart h264_aac_faststart.mp4
finish h264_aac_faststart.mp4

# HEVC as "hev1", with the parameter sets also in each key frame (x265's
# repeat-headers), and as "hvc1", with them only in "hvcC".
ff $(video 160x120 25 1) "${x265[@]}" -x265-params "$x265p:repeat-headers=1" -tag:v hev1 \
   "${exact[@]}" hevc_hev1.mp4
finish hevc_hev1.mp4
ff $(video 160x120 25 1) "${x265[@]}" -x265-params "$x265p" -tag:v hvc1 "${exact[@]}" \
   hevc_hvc1.mp4
finish hevc_hvc1.mp4

# Streams for mux: H.264 with 3 B-frames in a pyramid (x264 orders them by
# picture order count type 0); H.264 without B-frames (type 2), 66x50 (the
# picture cropped on both axes), with access unit delimiters, and buffering
# and timing SEI in every picture (HRD parameters in the sequence set); and
# MPEG-4 video with 2 B-frames between references (QCIF, 1 s).
ff $(video 64x48 25 1) -c:v libx264 -pix_fmt yuv420p -preset medium -crf 30 -g 12 -bf 3 \
   -b-pyramid normal -x264-params b-adapt=0 "${exact[@]}" h264_pyramid.mp4
finish h264_pyramid.mp4
ff $(video 66x50 25 1) -c:v libx264 -pix_fmt yuv420p -preset medium -b:v 60k -maxrate 60k \
   -bufsize 60k -g 12 -bf 0 -x264-params aud=1:nal-hrd=vbr "${exact[@]}" h264_no_bframes.mp4
finish h264_no_bframes.mp4
ff $(video 176x144 25 1) -c:v mpeg4 -q:v 10 -g 12 -bf 2 "${exact[@]}" mpeg4_bframes_qcif.mp4
finish mpeg4_bframes_qcif.mp4

# AV1 (libaom) and VP9 (libvpx), single-threaded.
ff $(video 160x120 25 1) -c:v libaom-av1 -cpu-used 8 -crf 45 -b:v 0 -row-mt 0 -g 12 \
   "${exact[@]}" av1.mp4
finish av1.mp4
ff $(video 160x120 25 1) -c:v libvpx-vp9 -deadline good -cpu-used 5 -crf 45 -b:v 0 \
   -row-mt 0 -g 12 "${exact[@]}" vp9.mp4
finish vp9.mp4

# Audio: Opus stereo, AC-3 stereo, E-AC-3 mono, FLAC mono (FFmpeg calls
# FLAC in MP4 experimental), ALAC stereo, MP3 mono.
ff $(audio 48000 1) -c:a libopus -b:a 24k -ac 2 "${exact[@]}" opus.mp4
finish opus.mp4
ff $(audio 48000 1) -c:a ac3 -b:a 96k -ac 2 "${exact[@]}" ac3.mp4
finish ac3.mp4
ff $(audio 48000 1) -c:a eac3 -b:a 64k -ac 1 "${exact[@]}" eac3.mp4
finish eac3.mp4
ff $(audio 16000 1) -c:a flac -ac 1 -strict -2 "${exact[@]}" flac.mp4
finish flac.mp4
ff $(audio 16000 1) -c:a alac -ac 2 "${exact[@]}" alac.mp4
finish alac.mp4
ff $(audio 44100 1) -c:a libmp3lame -b:a 32k -ac 1 "${exact[@]}" mp3.mp4
finish mp3.mp4

# PCM (16-bit little-endian, "sowt") in a QuickTime file beside H.264.
ff $(video 64x48 10 1) $(audio 8000 1) "${x264[@]}" -c:a pcm_s16le -ac 1 \
   "${exact[@]}" pcm_h264.mov
finish pcm_h264.mov
# Stereo PCM alone (16-bit big-endian, "twos"), 2 seconds in one chunk of
# 16000 frames, which the reader groups into 15 samples of 1024 frames and
# one of 640.
ff $(audio 8000 2) -c:a pcm_s16be -ac 2 "${exact[@]}" pcm_twos_stereo.mov
finish pcm_twos_stereo.mov

# Track facts: the "tkhd" matrix of a picture turned 90 degrees clockwise
# (a phone held upright: a, b, c, d = 0, 1, -1, 0; FFmpeg 5.1's "rotate" tag,
# taken only when the stream is copied, counts the other way, hence 270),
# a pixel aspect of 4:3 ("pasp") and languages in "mdhd".
ff $(video 64x48 10 1) $(audio 22050 1) "${x264[@]}" -vf setsar=4/3 -c:a aac -b:a 24k -ac 1 \
   "${exact[@]}" rotated.tmp.mp4
ff -i rotated.tmp.mp4 -c copy -metadata:s:v:0 rotate=270 -metadata:s:v:0 language=deu \
   -metadata:s:a:0 language=fra "${exact[@]}" h264_rot90_sar_lang.mp4
rm rotated.tmp.mp4
finish h264_rot90_sar_lang.mp4

# A 1 GHz video timescale over 6 s: "mdhd" is version 1 and decoding
# times pass 32 bits (5e8 ticks a picture); tiny pictures, 2 a second.
ff $(video 16x16 2 6) "${x264[@]}" -g 4 -video_track_timescale 1000000000 \
   "${exact[@]}" timescale_1ghz.mp4
finish timescale_1ghz.mp4

# Fragmented files as FFmpeg writes them for recorders and for DASH, HLS and
# CMAF: H.264 (B-frames) with AAC, fragments at key frames with an empty
# "moov" and with the first fragment's samples in "moov", with a global
# "sidx", one fragment per picture (CMAF: "trun" version 1), and HEVC; then
# the first cut in the middle of its last fragment's data and in the middle
# of its last "moof".
frag=($(video 160x120 25 1) $(audio 44100 1) "${x264[@]}" -c:a aac -b:a 32k -ac 2 "${exact[@]}")
ff "${frag[@]}" -movflags frag_keyframe+empty_moov frag_empty_moov.mp4
finish frag_empty_moov.mp4
ff "${frag[@]}" -movflags frag_keyframe frag_keyframe.mp4
finish frag_keyframe.mp4
ff "${frag[@]}" -movflags dash+global_sidx frag_dash_sidx.mp4
finish frag_dash_sidx.mp4
ff "${frag[@]}" -movflags cmaf+frag_every_frame frag_cmaf_every_frame.mp4
finish frag_cmaf_every_frame.mp4
ff $(video 160x120 25 1) "${x265[@]}" -x265-params "$x265p" -tag:v hvc1 "${exact[@]}" \
   -movflags frag_keyframe+empty_moov frag_hevc.mp4
finish frag_hevc.mp4
$tool cut frag_empty_moov.mp4 mdat frag_cut_in_data.mp4
finish frag_cut_in_data.mp4
$tool cut frag_empty_moov.mp4 moof frag_cut_in_moof.mp4
finish frag_cut_in_moof.mp4

# The hand-built files (samples and sample entries taken from the files
# above), with their listings.
python3 "$here/build_fixtures.py" "$here/fixtures.rows" "$here"

du -ch ./*.mp4 ./*.mov ./*.samples ./*.streams | tail -n 1
