#!/bin/sh
# Makes two_entries_hdr.mp4 by hand (FFmpeg writes neither several sample
# entries nor "mdcv"/"clli"): one video track of two samples whose "stsd"
# holds two "avc1" entries, the "stsc" switching from entry 1 to entry 2
# with the second chunk; the first entry carries "colr" (BT.2020, PQ),
# "mdcv" and "clli"; the "tkhd" matrix mirrors the picture.
# Run from anywhere: sh tests/data/describe/make_two_entries.sh
set -e
cd "$(dirname "$0")"
# atom NAME HEX...: size, name, body; full NAME FLAGS HEX...: with version 0.
atom() {
    name=$1; shift
    body=$(echo "$@" | tr -d ' ')
    printf '%08x%s%s' $((${#body} / 2 + 8)) "$(printf '%s' "$name" | xxd -p)" "$body"
}
full() { name=$1; flags=$2; shift 2; atom "$name" "$(printf '%08x' "$flags")" "$@"; }
zeros() { head -c "$1" /dev/zero | xxd -p | tr -d '\n'; }
entry() {  # a 64x48 "avc1" entry with these children
    atom avc1 "$(zeros 6) 0001 $(zeros 16) 0040 0030 00480000 00480000 00000000 0001 $(zeros 32) 0018 ffff" "$@"
}
matrix="ffff0000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000"
stbl=$(atom stbl \
    "$(full stsd 0 00000002 \
        "$(entry "$(atom avcC 0164000affe000)" "$(atom colr 6e636c78 0009 0010 0009 00)" \
                 "$(atom mdcv 8a48 3908 2134 9d08 1d4c 0bb8 3d13 4042 00989680 00000032)" \
                 "$(atom clli 03e8 0190)")" \
        "$(entry "$(atom avcC 014d001effe000)")")" \
    "$(full stts 0 00000001 00000002 0000000a)" \
    "$(full stsc 0 00000002 00000001 00000001 00000001 00000002 00000001 00000002)" \
    "$(full stsz 0 00000000 00000002 00000004 00000004)" \
    "$(full stco 0 00000002 0000001c 00000020)")
minf=$(atom minf "$(full vmhd 1 $(zeros 8))" "$(atom dinf "$(full dref 0 00000001 "$(full 'url ' 1)")")" "$stbl")
mdia=$(atom mdia "$(full mdhd 0 00000000 00000000 000003e8 00000014 55c4 0000)" \
    "$(full hdlr 0 00000000 76696465 $(zeros 12) 00)" "$minf")
trak=$(atom trak "$(full tkhd 7 00000000 00000000 00000001 $(zeros 20) 0000 0000 $matrix 00400000 00300000)" "$mdia")
moov=$(atom moov "$(full mvhd 0 00000000 00000000 000003e8 00000014 00010000 0100 $(zeros 10) $matrix $(zeros 24) 00000002)" "$trak")
printf '%s%s%s' "$(atom ftyp 69736f6d 00000200 69736f6d)" "$(atom mdat 00000001 00000002)" "$moov" | xxd -r -p > two_entries_hdr.mp4
