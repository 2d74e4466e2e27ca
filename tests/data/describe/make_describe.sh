#!/bin/sh
# Makes hdr_hevc_aac_truehd.mp4 (FFmpeg 5.1, bit-exact): an HEVC track with
# a "colr" of BT.2020 primaries and the PQ transfer, an AAC track and a
# TrueHD ("mlpa") track; and beside it
#   .streams  ffprobe -show_streams, the facts MP4GetTrackInfo is checked
#             against (size, rate, channels), also of ../streams/he_aac.mp4;
#   .atoms    PATH HEX per line: the payload of an atom, found by its name's
#             bytes in the file and cut out with xxd by the size in front of
#             it, for MP4GetAtom and HeaderDuration.
# Run from anywhere: sh tests/data/describe/make_describe.sh
set -e
cd "$(dirname "$0")"
f=hdr_hevc_aac_truehd.mp4
common="-hide_banner -loglevel error -y"
ffmpeg $common -f lavfi -i testsrc2=size=64x48:rate=25:duration=0.2 \
    -f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.2 \
    -map 0:v -map 1:a -map 1:a \
    -c:v libx265 -x265-params pools=none:frame-threads=1:log-level=error -tag:v hvc1 -pix_fmt yuv420p10le \
    -color_primaries bt2020 -color_trc smpte2084 -colorspace bt2020nc \
    -c:a:0 aac -ac:a:0 2 -c:a:1 truehd -strict -2 \
    -fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 -threads 1 "$f"
ffprobe -hide_banner -loglevel error -show_streams "$f" > "$f.streams"
# HE-AAC signalled explicitly (object types 5 and 29) as FFmpeg decodes it.
ffprobe -hide_banner -loglevel error -show_streams ../streams/he_aac.mp4 > he_aac.mp4.streams
# PATH NAME N: the Nth atom of that name in the file.
atom() {
    at=$(grep -boa "$2" "$f" | sed -n "${3}p" | cut -d: -f1)
    size=$(printf '%d' "0x$(xxd -s $((at - 4)) -l 4 -p "$f")")
    echo "$1 $(xxd -s $((at + 4)) -l $((size - 8)) -p "$f" | tr -d '\n')"
}
{
    atom "moov/trak[1]/mdia/mdhd" mdhd 1
    atom "moov/trak[2]/mdia/mdhd" mdhd 2
    atom "moov/trak[3]/mdia/mdhd" mdhd 3
    atom "moov/trak[1]/mdia/minf/stbl/stsd/hvc1/colr" colr 1
    atom "moov/trak[1]/mdia/minf/stbl/stsd/*[1]/hvcC" hvcC 1
    atom "moov/trak[3]/mdia/minf/stbl/stsd/mlpa/dmlp" dmlp 1
    atom "moov/trak[2]/tkhd" tkhd 2
} > "$f.atoms"
