#!/usr/bin/env python3
"""Helpers of make_fixtures.sh (README.md beside it has the listing format).

  fixture_tool.py check FILE         the file stays within what mp4core reads
                                     (32-bit sizes, version 0 headers, "stco")
  fixture_tool.py listing FILE [--keys-from ORIGINAL]   the expected samples
  fixture_tool.py strip-stss IN OUT  IN with its "stss" atoms renamed "skip"
  fixture_tool.py m4v FILE           header size and picture size of a raw
                                     MPEG-4 visual stream
"""
import os
import struct
import sys

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from mp4atoms import atoms, ffprobe, probe, walk  # noqa: E402

VERSIONED = {b"mvhd", b"tkhd", b"mdhd", b"elst", b"stts", b"stsc", b"stsz", b"stco",
             b"stss", b"ctts", b"hdlr", b"stsd"}


def check(path):
    data = open(path, "rb").read()
    top = atoms(data)
    for a in walk(top):
        if a.name == b"co64" or data[a.pos:a.pos + 4] == b"\0\0\0\1" or \
                (a.name in VERSIONED and data[a.pos + 8] != 0):
            raise SystemExit("%s: %r at %d: co64, 64-bit size or version 1" % (path, a.name, a.pos))
    order = [a.name for a in top]
    where = "start" if order.index(b"moov") < order.index(b"mdat") else "end"
    print("%s: %d bytes, moov at the %s, top level %s" %
          (path, len(data), where, " ".join(n.decode() for n in order)))


def listing(path, keys_from=None):
    data, stss, tid = open(path, "rb").read(), {}, None
    for a in walk(atoms(data)):  # does each track have an "stss"?
        if a.name == b"tkhd":
            tid = struct.unpack(">I", a.body(data)[12:16])[0]
        if a.name in (b"tkhd", b"stss"):
            stss[tid] = a.name == b"stss"
    lines = ["# expected samples of %s" % os.path.basename(path),
             "# from ffprobe -ignore_editlist 1 -show_packets -show_data_hash CRC32",
             "# track ID TYPE CODEC timescale N samples COUNT keys stss|vop|none",
             "# TIME SIZE KEY CRC32 (time less the first, in ticks of the timescale)"]
    for s, mine in probe(path, keys_from):
        kind, tid = s["codec_type"], int(s["id"], 16)
        if kind not in ("video", "audio"):
            continue
        num, den = s["time_base"].split("/")
        assert num == "1", s["time_base"]
        keys = "stss" if stss[tid] else "vop" if kind == "video" and keys_from else "none"
        lines.append("track %d %s %s timescale %s samples %d keys %s" %
                     (tid, kind, s["codec_name"], den, len(mine), keys))
        first = int(mine[0]["dts"]) if mine else 0
        lines += ["%d %s %d %s" % (int(p["dts"]) - first, p["size"], p["flags"].startswith("K"),
                                   p["data_hash"].split(":")[1]) for p in mine]
    print("\n".join(lines))


def strip_stss(src, dst):
    data = bytearray(open(src, "rb").read())
    for a in walk(atoms(bytes(data))):
        if a.name == b"stss":
            data[a.pos + 4:a.pos + 8] = b"skip"
    open(dst, "wb").write(bytes(data))


def m4v(path):
    data = open(path, "rb").read()
    pos = data.find(b"\x00\x00\x01\x20") + 4
    while True:
        pos = data.find(b"\x00\x00\x01", pos)
        if data[pos + 3] != 0xB2:
            break
        pos += 3
    s = ffprobe(path, "-show_streams")["streams"][0]
    print("%d %dx%d" % (pos, s["width"], s["height"]))


if __name__ == "__main__":
    argv = sys.argv[1:]
    if len(argv) >= 2 and argv[0] == "check":
        check(argv[1])
    elif len(argv) >= 2 and argv[0] == "listing":
        listing(argv[1], argv[argv.index("--keys-from") + 1] if "--keys-from" in argv else None)
    elif len(argv) == 3 and argv[0] == "strip-stss":
        strip_stss(argv[1], argv[2])
    elif len(argv) == 2 and argv[0] == "m4v":
        m4v(argv[1])
    else:
        raise SystemExit(__doc__)
