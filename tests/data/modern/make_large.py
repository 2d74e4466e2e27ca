#!/usr/bin/env python3
"""Makes, at test time, a sparse MP4 file above 4 GiB and its expected listings.

  make_large.py DIR     writes DIR/large_co64.mp4 (about 5 GiB apparent size,
                        some 20 KB on disk), DIR/large_co64.mp4.samples and
                        DIR/large_co64.mp4.streams; and DIR/large_frag.mp4,
                        fragmented, with its listings

The file: "ftyp", "moov", then an "mdat" with size field 1 and a 64-bit
size. It holds the H.264 and AAC samples of h264_aac.mp4 (beside this
script) in chunks of 5, the two tracks' chunks in turn; behind the first
chunk of each track lies a hole of 5 GiB that no sample uses (never
written, so the file system stores nothing there), so the other samples lie
past 5 GiB and "co64" holds their offsets. large_frag.mp4 holds the same
samples in fragments of 12 and 21 whose "tfhd" gives 64-bit base data
offsets; a "free" with a 64-bit size and a 5 GiB body that is never written
stands in front of the second fragment. The listings have the formats of
README.md. Needs python3 only, and a file system with sparse files.
"""
import os
import sys

here = os.path.dirname(os.path.abspath(__file__))
sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, here)
import build_fixtures as b  # noqa: E402

HOLE = 5 << 30


def main(directory):
    os.makedirs(directory, exist_ok=True)
    source = os.path.join(here, "h264_aac.mp4")
    tracks = [b.Track(1, b.Donor(source, 1), co64=True), b.Track(2, b.Donor(source, 2), co64=True)]
    movie = b.Movie(tracks, mdat="large", hole_after=2, hole=HOLE)
    b.make(directory, "large_co64.mp4", movie, check=False)
    # The same samples in fragments with 64-bit base data offsets ("tfhd"),
    # all but the first fragment behind a "free" of 5 GiB.
    tracks = [b.Track(1, b.Donor(source, 1)), b.Track(2, b.Donor(source, 2))]
    movie = b.Fragmented(tracks, {1: 12, 2: 21}, base="explicit", hole_before=1, hole=HOLE)
    b.make(directory, "large_frag.mp4", movie, check=False)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    main(sys.argv[1])
