#!/usr/bin/env python3
"""Listings of the fixtures from ffprobe, checked as they are made against
the files' own atoms (the READMEs beside the files give the formats).

  fixture_tool.py listing FILE [ORIGINAL]  NAME.samples in tests/data (ORIGINAL's key flags)
  fixture_tool.py samples|streams FILE     NAME.samples, NAME.streams in tests/data/modern
  fixture_tool.py describe|check FILE      size and top-level atoms; check stops unless the
                                           file keeps to 32-bit sizes, version 0, "stco"
  fixture_tool.py strip-stss IN OUT        IN with "stss" renamed "skip"
  fixture_tool.py m4v FILE                 header size, picture size of MPEG-4 video
  fixture_tool.py cut FILE ATOM OUT        FILE cut in the middle of its last ATOM
"""
import os
import struct
import sys
import zlib

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from mp4atoms import atoms, ffprobe, probe, walk  # noqa: E402

VERSIONED = {b"mvhd", b"tkhd", b"mdhd", b"elst", b"stts", b"stsc", b"stsz", b"stco",
             b"stss", b"ctts", b"hdlr", b"stsd"}
CONFIG_ATOMS = (b"avcC", b"hvcC", b"av1C", b"vpcC", b"dOps", b"dac3", b"dec3", b"dfLa",
                b"alac", b"d263", b"damr", b"esds")
FULL_CONFIG = {b"vpcC", b"dfLa", b"alac", b"esds"}  # payload behind version and flags
SAMPLES_HEAD = [
    "# track ID video|audio|other CODEC timescale N samples COUNT",
    "# DTS SIZE POS KEY CTS_OFFSET CRC32   (DTS less the first; CTS_OFFSET from ctts)"]
STREAMS_HEAD = ("# stream ID video|audio|other TAG width W height H rate R channels C "
                "duration D frames N extradata HEX|- config HEX|- edit MEDIA_TIME DELAY "
                "rotation DEGREES sar H:V language LLL scheme SCHM|-")
STREAM = ("stream %s %s %s width %s height %s rate %s channels %s duration %s frames %s "
          "extradata %s config %s edit %s %s rotation %s sar %s language %s scheme %s")


def u(form, body, at):
    return struct.unpack_from(form, body, at)[0]


def entries(body, form):  # the entries of a table behind its version, flags and count
    return struct.iter_unpack(form, body[8:8 + struct.calcsize(form) * u(">I", body, 4)])


def listing(path, keys_from=None):
    lines = ["# expected samples of %s" % os.path.basename(path),
             "# from ffprobe -ignore_editlist 1 -show_packets -show_data_hash CRC32",
             "# track ID TYPE CODEC timescale N samples COUNT keys stss|vop|none",
             "# TIME SIZE KEY CRC32 (time less the first, in ticks of the timescale)"]
    stss = {t.id: t.has_stss for t in tracks(open(path, "rb").read())}
    for s, mine in probe(path, keys_from):
        kind, tid, first = s["codec_type"], int(s["id"], 16), int(mine[0]["dts"]) if mine else 0
        assert s["time_base"].startswith("1/") and kind in ("video", "audio"), s
        keys = "stss" if stss[tid] else "vop" if kind == "video" and keys_from else "none"
        lines.append("track %d %s %s timescale %s samples %d keys %s" % (
            tid, kind, s["codec_name"], s["time_base"][2:], len(mine), keys))
        lines += ["%d %s %d %s" % (int(p["dts"]) - first, p["size"], p["flags"].startswith("K"),
                                   p["data_hash"].split(":")[1]) for p in mine]
    print("\n".join(lines))


def strip_stss(src, dst):
    data = bytearray(open(src, "rb").read())
    for a in (a for a in walk(atoms(bytes(data))) if a.name == b"stss"):
        data[a.pos + 4:a.pos + 8] = b"skip"
    open(dst, "wb").write(bytes(data))


def m4v(path):  # the first start code behind the video object layer and its user data
    data = open(path, "rb").read()
    pos = data.find(b"\x00\x00\x01", data.find(b"\x00\x00\x01\x20") + 4)
    while data[pos + 3] == 0xB2:
        pos = data.find(b"\x00\x00\x01", pos + 3)
    s = ffprobe(path, "-show_streams")["streams"][0]
    print("%d %dx%d" % (pos, s["width"], s["height"]))


class Track:  # what the atoms of one "trak" say
    def __init__(self, data, trak, movie_timescale):
        tkhd, mdhd, stbl = trak.get(data, "tkhd"), trak.get(data, "mdia", "mdhd"), \
            trak.find("mdia", "minf", "stbl")
        self.id = u(">I", tkhd, 20 if tkhd[0] else 12)
        self.timescale, code = u(">I", mdhd, 20 if mdhd[0] else 12), u(">H", mdhd, len(mdhd) - 4)
        self.language = "und" if code == 0x7FFF else \
            "".join(chr(0x60 + (code >> s & 31)) for s in (10, 5, 0))  # QuickTime's 0x7FFF: none
        # Degrees clockwise on the screen from the matrix's a, b, c, d (16.16):
        # x' = a x + c y, y' = b x + d y, y downwards; any other matrix is 0.
        m = struct.unpack_from(">5i", tkhd, 52 if tkhd[0] else 40)
        self.rotation = {(1, 0, 0, 1): 0, (0, 1, -1, 0): 90, (-1, 0, 0, -1): 180,
                         (0, -1, 1, 0): 270}.get(tuple(x / 0x10000 for x in m[:2] + m[3:]), 0)
        self.handler = trak.get(data, "mdia", "hdlr")[8:12]
        entry = (stbl.find("stsd").children or [None])[0]
        self.format = entry.name if entry else b"\0\0\0\0"
        self.scheme, self.pasp, self.config, self.config_atom = None, (1, 1), None, None
        for c in (entry.children if entry else []):
            body = c.body(data)
            if c.name == b"sinf":  # a protected entry: the original format and the scheme
                self.format = c.get(data, "frma")[:4] if c.find("frma") else self.format
                self.scheme = c.get(data, "schm")[4:8].decode("latin-1") if c.find("schm") else None
            self.pasp = struct.unpack(">II", body[:8]) if c.name == b"pasp" else self.pasp
            if c.name in CONFIG_ATOMS and self.config_atom is None:
                self.config_atom = c.name
                self.config = body[4:] if c.name in FULL_CONFIG else body
        stts, sizes = stbl.get(data, "stts"), stbl.find("stsz") or stbl.find("stz2")
        self.duration = sum(c * d for c, d in entries(stts, ">II"))
        self.sample_size = u(">I", sizes.body(data), 4) if sizes.name == b"stsz" else 0
        self.count = self.stored = u(">I", sizes.body(data), 8)  # fragments' samples follow
        # Uncompressed audio of one frame a sample is read in samples of up
        # to 1024 frames, never across a chunk: the frames of each of them.
        rows = list(entries(stbl.get(data, "stsc") or bytes(8), ">III"))
        offsets = stbl.find("stco") or stbl.find("co64")
        chunks = u(">I", offsets.body(data), 4) if offsets else 0
        self.pcm_groups, left = [], self.count
        for i, (first, per, _) in enumerate(rows):
            for _ in range(first, rows[i + 1][0] if i + 1 < len(rows) else chunks + 1):
                frames, left = min(per, left), left - min(per, left)
                self.pcm_groups += [1024] * (frames // 1024) + [frames % 1024] * (frames % 1024 > 0)
        self.has_stss, ctts = stbl.find("stss") is not None, stbl.get(data, "ctts") or bytes(8)
        self.offsets = []  # composition offsets: signed in version 1
        for c, off in entries(ctts, ">Ii" if ctts[0] else ">II"):
            self.offsets += [off] * c
        self.offsets += [0] * (self.count - len(self.offsets))
        # The first non-empty edit's media time (-1 without) and the leading
        # empty edits in media ticks.
        self.edit_media_time, self.edit_delay = -1, 0
        elst = trak.get(data, "edts", "elst") or bytes(8)
        for dur, media, _ in entries(elst, ">QqI" if elst[0] else ">IiI"):
            if media != -1:
                self.edit_media_time = media
                break
            self.edit_delay += dur * self.timescale // movie_timescale


# Fields that the flags of "tfhd" and "trun" switch on, in their order.
TFHD_FIELDS = [(0x1, ">Q"), (0x2, ">I"), (0x8, ">I"), (0x10, ">I"), (0x20, ">I")]
TRUN_HEAD = [(0x1, ">i"), (0x4, ">I")]


def flagged(body, at, flags, fields):  # the fields switched on, from at; where they end
    values = {}
    for flag, form in fields:
        if flags & flag:
            values[flag], at = u(form, body, at), at + struct.calcsize(form)
    return values, at


def fragments(data, top, moov, next_time):
    """The samples of a file's whole "moof" atoms per track ID, placed as the
    atoms say ([dts, duration, size, pos, sync, cto] each), and the number of
    track fragments per track ID."""
    samples, count, trex = {}, {}, {}
    for t in (moov.find("mvex").all("trex") if moov.find("mvex") else []):
        tid, _, *defaults = struct.unpack(">5I", t.body(data)[4:24])
        trex[tid] = defaults
    for moof in (a for a in top if a.name == b"moof" and not a.cut):
        previous_end = moof.pos
        for traf in moof.all("traf"):
            b = traf.get(data, "tfhd")
            flags, tid = int.from_bytes(b[1:4], "big"), u(">I", b, 4)
            v, _ = flagged(b, 8, flags, TFHD_FIELDS)
            dur0, size0, flags0 = (v.get(bit, d) for bit, d in zip((0x8, 0x10, 0x20),
                                                                   trex.get(tid, (0, 0, 0))))
            base = v[0x1] if 0x1 in v else moof.pos if flags & 0x020000 else previous_end
            tfdt = traf.get(data, "tfdt")
            time = u(">Q" if tfdt[0] == 1 else ">I", tfdt, 4) if tfdt else next_time.get(tid, 0)
            out, count[tid], run_end = samples.setdefault(tid, []), count.get(tid, 0) + 1, base
            for r in (trun.body(data) for trun in traf.all("trun")):
                rflags = int.from_bytes(r[1:4], "big")
                head, at = flagged(r, 8, rflags, TRUN_HEAD)
                pos = base + head[0x1] if 0x1 in head else run_end
                for k in range(u(">I", r, 4)):
                    e, at = flagged(r, at, rflags, [(0x100, ">I"), (0x200, ">I"), (0x400, ">I"),
                                                    (0x800, ">i" if r[0] == 1 else ">I")])
                    duration, size = e.get(0x100, dur0), e.get(0x200, size0)
                    sflags = e.get(0x400, head.get(0x4, flags0) if k == 0 else flags0)
                    out.append([time, duration, size, pos, not sflags & 0x10000, e.get(0x800, 0)])
                    time, pos = time + duration, pos + size
                run_end = pos
            next_time[tid], previous_end = time, run_end
    return samples, count


def tracks(data):
    top = atoms(data)
    moov = next(a for a in top if a.name == b"moov")
    mvhd = moov.find("mvhd").body(data)
    mine = [Track(data, t, u(">I", mvhd, 20 if mvhd[0] else 12)) for t in moov.all("trak")]
    # The fragments' samples follow those of the "stbl", timed on from them.
    samples, count = fragments(data, top, moov, {t.id: t.duration for t in mine})
    for t in mine:
        t.fragment_samples, t.fragments = samples.get(t.id, []), count.get(t.id, 0)
        t.count += len(t.fragment_samples)
        t.duration += sum(f[1] for f in t.fragment_samples)
        t.offsets = t.offsets + [f[5] for f in t.fragment_samples]
    return mine


def note(path, text):
    sys.stderr.write("%s: note: %s\n" % (os.path.basename(path), text))


def matched(path):
    """The file's bytes; ffprobe's streams and packets beside the tracks (same ids, time bases)."""
    data, streams = open(path, "rb").read(), probe(path)
    mine = tracks(data)
    if len(mine) != len(streams):
        raise SystemExit("%s: %d tracks, ffprobe %d streams" % (path, len(mine), len(streams)))
    for t, (s, _) in zip(mine, streams):
        s["kind"] = s["codec_type"] if s["codec_type"] in ("video", "audio") else "other"
        if int(s["id"], 16) != t.id or s["time_base"] != "1/%d" % t.timescale:
            raise SystemExit("%s: stream %s, time base %s: tkhd %d, mdhd timescale %d" % (
                path, s["id"], s["time_base"], t.id, t.timescale))
    return data, [(s, p, t) for (s, p), t in zip(streams, mine)]


def samples_lines(path, strict=True):
    """The listing from ffprobe; a fragment sample where ffprobe and this
    file's own reading of the fragments differ stops it (a note if not strict)."""
    data, streams = matched(path)
    lines = ["# expected samples of %s" % os.path.basename(path),
             "# from ffprobe -ignore_editlist 1 -show_packets -show_data_hash CRC32"] + \
        SAMPLES_HEAD + ["# pcm FIRST_BYTES TOTAL_BYTES CRC32   (PCM: the first sample's bytes, all the track's)"]
    for s, own, t in streams:
        blob = [data[int(p["pos"]):int(p["pos"]) + int(p["size"])] for p in own]
        if any(zlib.crc32(b) != int(p["data_hash"].split(":")[1], 16) for b, p in zip(blob, own)):
            raise SystemExit("%s: track %d: a packet's CRC-32 is not its bytes'" % (path, t.id))
        pcm = s["codec_name"].startswith("pcm_")
        lines.append("track %d %s %s timescale %d samples %d" %
                     (t.id, s["kind"], s["codec_name"], t.timescale,
                      len(t.pcm_groups) if pcm else t.count))
        head = len(lines)
        if pcm:
            blob = b"".join(blob)
            if t.sample_size == 0 or len(blob) != t.sample_size * t.count:
                raise SystemExit("%s: PCM bytes %d, stsz %d x %d" % (path, len(blob),
                                                                    t.sample_size, t.count))
            lines.append("pcm %d %d %08x" % (t.pcm_groups[0] * t.sample_size, len(blob),
                                             zlib.crc32(blob)))
            continue
        # Samples of fragments past the end of a cut file can't be read
        # (ffprobe gives the first of them partly, then stops).
        frag = t.fragment_samples
        past = [f for f in frag if f[3] + f[2] > len(data)]
        n = t.count - len(past)  # readable
        if frag[len(frag) - len(past):] != past or not n <= len(own) <= n + bool(past):
            raise SystemExit("%s: track %d: %d packets, %d samples, %d past the end not last" % (
                path, t.id, len(own), t.count, len(past)))
        if len(own) > n:
            text = "ffprobe gives the first sample past the end partly (%s bytes)" % own[-1]["size"]
            note(path, "track %d: %s" % (t.id, text))
            lines.insert(head, "# " + text)
        own, first, differs = own[:n], int(own[0]["dts"]) if own else 0, []
        mine_first = frag[0][0] if frag and t.stored == 0 else 0
        for i, (p, offset) in enumerate(zip(own, t.offsets)):
            dts, key = int(p["dts"]), 1 if p["flags"].startswith("K") else 0
            got = (dts - first, int(p["size"]), int(p["pos"]), key)
            f = frag[i - t.stored] if i >= t.stored else None
            want = f and (f[0] - mine_first, f[2], f[3], 1 if f[4] else 0)
            if f and got != want:
                text = "track %d sample %d: ffprobe %r, fragments %r" % (t.id, i, got, want)
                if strict:
                    raise SystemExit("%s: %s" % (path, text))
                note(path, text)
            if int(p["pts"]) - dts != offset:
                differs.append((int(p["pts"]) - dts, offset))
            lines.append("%d %s %s %d %d %s" % (dts - first, p["size"], p["pos"], key, offset,
                                                p["data_hash"].split(":")[1]))
        lines.extend("error -92" for _ in past)
        if differs:
            text = ("in %d samples ffprobe's pts - dts is not the \"ctts\" offset (first: %d, "
                    "ctts %d); CTS_OFFSET is the file's" % ((len(differs),) + differs[0]))
            note(path, "track %d: %s" % (t.id, text))
            lines.insert(head, "# " + text)
    return lines


def streams_lines(path):  # the facts of each stream; where ffprobe and the atoms differ, a note
    data, streams = matched(path)
    lines = ["# expected track facts of %s" % os.path.basename(path),
             "# from ffprobe -ignore_editlist 1 -show_streams -show_data, and the file's atoms",
             STREAMS_HEAD]
    for s, _, t in streams:
        text = s.get("extradata", "").strip("\n")  # a hexdump
        extra = bytes.fromhex("".join(x[10:49] for x in text.split("\n")).replace(" ", "")) \
            if text else None
        # ffprobe's extradata of an "esds" is its DecoderSpecificInfo, the decoder configuration.
        t.config = extra if t.config_atom == b"esds" else t.config
        compared = t.config_atom in (b"avcC", b"hvcC", b"av1C", b"esds")
        if compared and extra != t.config:
            raise SystemExit("%s: stream %s: extradata is not %r" % (path, s["id"], t.config_atom))
        rotation = next((int(x.get("rotation", 0)) for x in s.get("side_data_list", [])
                         if x.get("side_data_type") == "Display Matrix"), 0)
        sar = s.get("sample_aspect_ratio", "1:1")
        sar = "%d:%d" % t.pasp if sar == "0:1" or s["kind"] != "video" else sar
        ffmpeg = (s["codec_tag_string"], extra, int(s["duration_ts"]), s.get("nb_frames", "N/A"),
                  -rotation % 360, sar, s.get("tags", {}).get("language", "und"))
        atoms_say = (t.format.decode("latin-1"), extra if compared else t.config, t.duration,
                     str(t.count), t.rotation, "%d:%d" % t.pasp, t.language)
        what = ("tag", "extradata for %s" % (t.config_atom or b"-").decode(), "duration",
                "frames", "rotation", "sample aspect", "language")
        for w, theirs, ours in zip(what, ffmpeg, atoms_say):
            if theirs != ours:
                note(path, "stream %s: ffprobe's %s %s, the atoms' %s" % (
                    s["id"], w, *(x.hex() if isinstance(x, bytes) else x for x in (theirs, ours))))
        lines.append(STREAM % (
            s["id"], s["kind"], s["codec_tag_string"], s.get("width", 0), s.get("height", 0),
            s.get("sample_rate", "0"), s.get("channels", 0), t.duration,
            len(t.pcm_groups) if s["codec_name"].startswith("pcm_") else t.count,
            extra.hex() if compared and extra else "-", t.config.hex() if t.config else "-",
            t.edit_media_time, t.edit_delay, t.rotation, "%d:%d" % t.pasp, t.language,
            t.scheme or "-") + (" fragments %d" % t.fragments if t.fragments else ""))
    return lines


def describe(path, classic=False):
    """One line for the log. A classic file must keep to 32-bit sizes,
    version 0 headers and "stco"."""
    data = open(path, "rb").read()
    for a in walk(atoms(data)) if classic else []:
        if a.name == b"co64" or data[a.pos:a.pos + 4] == b"\0\0\0\1" or \
                (a.name in VERSIONED and data[a.pos + 8] != 0):
            raise SystemExit("%s: %r at %d: co64, 64-bit size or version 1" % (path, a.name, a.pos))
    print("%s: %d bytes, top level %s" % (os.path.basename(path), len(data), " ".join(
        a.name.decode("latin-1") for a in atoms(data))))


def cut(path, name, out):
    data = open(path, "rb").read()
    last = [a for a in atoms(data) if a.name == name.encode()][-1]
    open(out, "wb").write(data[:last.pos + last.size // 2])


COMMANDS = {"check": lambda path: describe(path, True), "listing": listing,
            "strip-stss": strip_stss, "m4v": m4v,
            "samples": lambda path: print("\n".join(samples_lines(path))),
            "streams": lambda path: print("\n".join(streams_lines(path))),
            "describe": describe, "cut": cut}

if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in COMMANDS:
        raise SystemExit(__doc__)
    COMMANDS[sys.argv[1]](*sys.argv[2:])
