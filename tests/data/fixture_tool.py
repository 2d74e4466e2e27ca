#!/usr/bin/env python3
"""Helpers of make_fixtures.sh.

  fixture_tool.py check FILE         the file stays within what mp4core reads:
                                     32-bit atom sizes, version 0 headers,
                                     "stco" chunk offsets; prints where "moov" is
  fixture_tool.py listing FILE [--keys-from ORIGINAL] [--name NAME]
                                     the expected sample listing, from ffprobe
  fixture_tool.py strip-stss IN OUT  a copy of IN whose "stss" atoms are renamed
                                     "skip", so that a reader finds none
  fixture_tool.py m4v FILE           header size and picture size of a raw
                                     MPEG-4 visual stream

Listing format (read by tests/support/listing.cpp):

  # comment lines
  track ID video|audio CODEC timescale N samples COUNT keys stss|vop|none
  TIME SIZE KEY CRC32        one line per sample, in decoding order

TIME is the decoding time less that of the track's first sample, in ticks of
the track's timescale; KEY is ffprobe's key flag (for "keys vop" it is the
flag of the unmodified original, which is the I-VOP mark); CRC32 is the
zlib/IEEE CRC-32 of the sample's bytes, as ffprobe's "CRC32" data hash.
"""
import json
import struct
import subprocess
import sys

CONTAINERS = {b"moov", b"trak", b"mdia", b"minf", b"stbl", b"edts", b"dinf", b"udta"}
VERSIONED = {b"mvhd", b"tkhd", b"mdhd", b"elst", b"stts", b"stsc", b"stsz", b"stco",
             b"stss", b"ctts", b"hdlr", b"stsd"}


def walk(data, start, end, path, out):
    pos = start
    while pos + 8 <= end:
        size, name = struct.unpack(">I4s", data[pos:pos + 8])
        if size == 1:
            raise SystemExit("64-bit size of %r at %d" % (name, pos))
        if size == 0:
            size = end - pos
        if size < 8 or pos + size > end:
            raise SystemExit("bad size %d of %r at %d" % (size, name, pos))
        out.append((path + [name], pos, size))
        if name in CONTAINERS:
            walk(data, pos + 8, pos + size, path + [name], out)
        pos += size


def atoms(data):
    out = []
    walk(data, 0, len(data), [], out)
    return out


def check(path):
    data = open(path, "rb").read()
    found = atoms(data)
    order = [p[0] for p, _, _ in found if len(p) == 1]
    for p, pos, size in found:
        name = p[-1]
        if name == b"co64":
            raise SystemExit("%s: co64 at %d" % (path, pos))
        if name in VERSIONED and data[pos + 8] != 0:
            raise SystemExit("%s: %r of version %d at %d" % (path, name, data[pos + 8], pos))
    where = "start" if order.index(b"moov") < order.index(b"mdat") else "end"
    print("%s: %d bytes, moov at the %s, top level %s" %
          (path, len(data), where, " ".join(n.decode() for n in order)))


def tracks_of(path):
    """(track id, has stss) for each "trak", in file order."""
    data = open(path, "rb").read()
    result = []
    for p, pos, size in atoms(data):
        if p[-1] == b"tkhd":
            result.append([struct.unpack(">I", data[pos + 20:pos + 24])[0], False])
        if p[-1] == b"stss" and p[-2] == b"stbl":
            result[-1][1] = True
    return result


def ffprobe(path, what):
    cmd = ["ffprobe", "-v", "error", "-ignore_editlist", "1", "-of", "json"] + what + [path]
    return json.loads(subprocess.check_output(cmd))


def listing(path, keys_from=None, name=None):
    streams = ffprobe(path, ["-show_streams"])["streams"]
    packets = ffprobe(keys_from or path, ["-show_packets", "-show_data_hash", "CRC32"])["packets"]
    stss = dict((tid, has) for tid, has in tracks_of(path))
    lines = ["# expected samples of %s" % (name or path.split("/")[-1]),
             "# from ffprobe -ignore_editlist 1 -show_packets -show_data_hash CRC32",
             "# track ID TYPE CODEC timescale N samples COUNT keys stss|vop|none",
             "# TIME SIZE KEY CRC32 (time less the first, in ticks of the timescale)"]
    for s in streams:
        kind = s["codec_type"]
        if kind not in ("video", "audio"):
            continue
        tid = int(s["id"], 16)
        num, den = s["time_base"].split("/")
        assert num == "1", s["time_base"]
        mine = [p for p in packets if p["stream_index"] == s["index"]]
        mine.sort(key=lambda p: int(p["dts"]))
        if stss[tid]:
            keys = "stss"
        elif kind == "video":
            keys = "vop" if keys_from else "none"
        else:
            keys = "none"
        lines.append("track %d %s %s timescale %s samples %d keys %s" %
                     (tid, kind, s["codec_name"], den, len(mine), keys))
        first = int(mine[0]["dts"]) if mine else 0
        for p in mine:
            crc = p["data_hash"].split(":")[1]
            lines.append("%d %s %d %s" % (int(p["dts"]) - first, p["size"],
                                          1 if p["flags"].startswith("K") else 0, crc))
    print("\n".join(lines))


def strip_stss(src, dst):
    data = bytearray(open(src, "rb").read())
    for p, pos, size in atoms(bytes(data)):
        if p[-1] == b"stss":
            data[pos + 4:pos + 8] = b"skip"
    open(dst, "wb").write(bytes(data))


def m4v(path):
    data = open(path, "rb").read()
    vol = data.find(b"\x00\x00\x01\x20")
    pos = vol + 4
    while True:
        pos = data.find(b"\x00\x00\x01", pos)
        if data[pos + 3] != 0xB2:
            break
        pos += 3
    s = ffprobe(path, ["-show_streams"])["streams"][0]
    print("%d %dx%d" % (pos, s["width"], s["height"]))


def main(argv):
    if len(argv) >= 2 and argv[0] == "check":
        check(argv[1])
    elif len(argv) >= 2 and argv[0] == "listing":
        keys_from = argv[argv.index("--keys-from") + 1] if "--keys-from" in argv else None
        name = argv[argv.index("--name") + 1] if "--name" in argv else None
        listing(argv[1], keys_from, name)
    elif len(argv) == 3 and argv[0] == "strip-stss":
        strip_stss(argv[1], argv[2])
    elif len(argv) == 2 and argv[0] == "m4v":
        m4v(argv[1])
    else:
        raise SystemExit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
