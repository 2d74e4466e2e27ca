#!/usr/bin/env python3
"""Helpers of make_modern_fixtures.sh: the expected listings of the modern
fixtures, checked as they are made against the file's own atoms (README.md
beside this file has the formats and the checks).

  modern_tool.py samples FILE    the per-sample listing (FILE.samples)
  modern_tool.py streams FILE    the per-stream facts (FILE.streams)
  modern_tool.py describe FILE   one line: top-level atoms, each track's headers
  modern_tool.py atoms FILE      the atom tree, one line per atom (for eyes)
  modern_tool.py cut FILE ATOM OUT   FILE cut in the middle of its last
                                 top-level ATOM (a recording cut short)
"""
import os
import struct
import sys
import zlib

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from mp4atoms import atoms, probe  # noqa: E402

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


def descriptor(data, pos):
    """(tag, body start, body end) of an MPEG-4 descriptor at pos."""
    tag, length = data[pos], 0
    for b in data[pos + 1:pos + 5]:
        pos, length = pos + 1, (length << 7) | (b & 0x7F)
        if not b & 0x80:
            break
    return tag, pos + 1, pos + 1 + length


def esds_dsi(body):
    """The DecoderSpecificInfo of an "esds" payload (after version/flags), or None."""
    tag, pos, end = descriptor(body, 0)
    if tag != 3:
        return None
    flags = body[pos + 2]
    pos += 3 + (2 if flags & 0x80 else 0)
    pos += 1 + body[pos] if flags & 0x40 else 0
    tag, pos, end = descriptor(body, pos + (2 if flags & 0x20 else 0))
    if tag != 4 or pos + 13 >= end:
        return None
    tag, pos, end = descriptor(body, pos + 13)
    return body[pos:end] if tag == 5 else None


class Track:
    """What the atoms of one "trak" say."""

    def __init__(self, data, trak, movie_timescale):
        tkhd, mdhd = trak.find("tkhd").body(data), trak.find("mdia", "mdhd").body(data)
        self.id = u(">I", tkhd, 20 if tkhd[0] else 12)
        self.versions = (tkhd[0], mdhd[0])
        self.timescale = u(">I", mdhd, 20 if mdhd[0] else 12)
        code = u(">H", mdhd, len(mdhd) - 4)  # packed ISO 639-2; QuickTime's 0x7FFF: none
        self.language = "und" if code == 0x7FFF else \
            "".join(chr(0x60 + ((code >> s) & 31)) for s in (10, 5, 0))
        # Degrees clockwise on the screen from the matrix's a, b, c, d (16.16):
        # x' = a x + c y, y' = b x + d y, y downwards; any other matrix is 0.
        a, b, _, c, d = struct.unpack_from(">5i", tkhd, 52 if tkhd[0] else 40)
        one = 0x10000
        self.rotation = {(one, 0, 0, one): 0, (0, one, -one, 0): 90, (-one, 0, 0, -one): 180,
                         (0, -one, one, 0): 270}.get((a, b, c, d), 0)
        self.handler = trak.find("mdia", "hdlr").body(data)[8:12]
        stbl = trak.find("mdia", "minf", "stbl")
        entry = (stbl.find("stsd").children or [None])[0]
        self.format = entry.name if entry else b"\0\0\0\0"
        self.scheme, self.pasp, self.config, self.config_atom = None, (1, 1), None, None
        # A protected entry ("encv", ...): the original format in "sinf/frma",
        # the scheme in "sinf/schm".
        for c in (entry.children if entry else []):
            body = c.body(data)
            if c.name == b"sinf" and c.find("frma"):
                self.format = c.find("frma").body(data)[:4]
            if c.name == b"sinf" and c.find("schm"):
                self.scheme = c.find("schm").body(data)[4:8].decode("latin-1")
            if c.name == b"pasp":
                self.pasp = struct.unpack(">II", body[:8])
            if c.name in CONFIG_ATOMS and self.config_atom is None:
                self.config_atom = c.name
                self.config = esds_dsi(body[4:]) if c.name == b"esds" else \
                    body[4:] if c.name in FULL_CONFIG else body
        stts = stbl.find("stts").body(data)
        self.duration = sum(c * d for c, d in struct.iter_unpack(">II", stts[8:8 + 8 * u(">I", stts, 4)]))
        sizes = stbl.find("stsz") or stbl.find("stz2")
        self.sample_size = u(">I", sizes.body(data), 4) if sizes.name == b"stsz" else 0
        self.count = self.stored = u(">I", sizes.body(data), 8)  # fragments' samples follow
        self.has_stss = stbl.find("stss") is not None
        ctts = stbl.find("ctts")
        self.ctts_version = ctts.body(data)[0] if ctts else None
        self.offsets = [0] * self.count  # composition offsets: signed in version 1
        if ctts is not None:
            body, at = ctts.body(data), 0
            for c, off in struct.iter_unpack(">Ii" if body[0] else ">II", body[8:8 + 8 * u(">I", body, 4)]):
                self.offsets[at:at + c] = [off] * c
                at += c
        # The first non-empty edit's media time (-1 without a list) and the
        # leading empty edits in media ticks.
        self.edit_media_time, self.edit_delay = -1, 0
        elst = trak.find("edts", "elst")
        body = elst.body(data) if elst else bytes(8)
        for i in range(u(">I", body, 4)):
            dur, media = struct.unpack_from(">Qq" if body[0] else ">Ii", body, 8 + i * (20 if body[0] else 12))
            if media != -1:
                self.edit_media_time = media
                break
            self.edit_delay += dur * self.timescale // movie_timescale


# Fields that the flags of "tfhd" and "trun" switch on, in their order: (flag, bytes).
TFHD_FIELDS = [(0x1, 8), (0x2, 4), (0x8, 4), (0x10, 4), (0x20, 4)]
TRUN_HEAD = [(0x1, 4), (0x4, 4)]
TRUN_ENTRY = [(0x100, 4), (0x200, 4), (0x400, 4), (0x800, 4)]


def flagged(body, at, flags, fields):
    """The values of the fields the flags switch on, from body[at:], and where they end."""
    values = {}
    for flag, size in fields:
        if flags & flag:
            values[flag] = int.from_bytes(body[at:at + size], "big")
            at += size
    return values, at


def fragments(data, top, moov, next_time):
    """The samples of a file's whole "moof" atoms per track ID, placed as the
    atoms say ([dts, duration, size, pos, sync, cto] each), and the number of
    track fragments per track ID."""
    samples, count, trex = {}, {}, {}
    for t in (moov.find("mvex").all("trex") if moov.find("mvex") else []):
        tid, _, dur, size, flags = struct.unpack(">5I", t.body(data)[4:24])
        trex[tid] = (dur, size, flags)
    for moof in (a for a in top if a.name == b"moof" and not a.cut):
        previous_end = moof.pos
        for traf in moof.all("traf"):
            b = traf.find("tfhd").body(data)
            flags, tid = int.from_bytes(b[1:4], "big"), u(">I", b, 4)
            v, _ = flagged(b, 8, flags, TFHD_FIELDS)
            dur0, size0, flags0 = trex.get(tid, (0, 0, 0))
            dur0, size0, flags0 = v.get(0x8, dur0), v.get(0x10, size0), v.get(0x20, flags0)
            base = v[0x1] if 0x1 in v else moof.pos if flags & 0x020000 else previous_end
            time = next_time.get(tid, 0)
            if traf.find("tfdt"):
                tb = traf.find("tfdt").body(data)
                time = u(">Q" if tb[0] == 1 else ">I", tb, 4)
            out = samples.setdefault(tid, [])
            count[tid] = count.get(tid, 0) + 1
            run_end = base
            for trun in traf.all("trun"):
                r = trun.body(data)
                version, rflags = r[0], int.from_bytes(r[1:4], "big")
                head, at = flagged(r, 8, rflags, TRUN_HEAD)
                pos = base + u(">i", head[0x1].to_bytes(4, "big"), 0) if 0x1 in head else run_end
                for k in range(u(">I", r, 4)):
                    e, at = flagged(r, at, rflags, TRUN_ENTRY)
                    size, duration = e.get(0x200, size0), e.get(0x100, dur0)
                    sflags = e.get(0x400, head.get(0x4, flags0) if k == 0 else flags0)
                    cto = e.get(0x800, 0)
                    cto -= 1 << 32 if version == 1 and cto >= 1 << 31 else 0
                    out.append([time, duration, size, pos, not sflags & 0x00010000, cto])
                    time, pos = time + duration, pos + size
                run_end = pos
            next_time[tid] = time
            previous_end = run_end
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


def kind_of(stream):
    return stream["codec_type"] if stream["codec_type"] in ("video", "audio") else "other"


def matched(path):
    """The file's bytes, and ffprobe's streams with their packets beside the
    file's tracks; checks ids and time bases."""
    data, streams = open(path, "rb").read(), probe(path)
    mine = tracks(data)
    if len(mine) != len(streams):
        raise SystemExit("%s: %d tracks, ffprobe %d streams" % (path, len(mine), len(streams)))
    for t, (s, _) in zip(mine, streams):
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
        SAMPLES_HEAD + ["# pcm FRAME_BYTES TOTAL_BYTES CRC32   (PCM: all the track's bytes)"]
    for s, own, t in streams:
        for p in own:
            pos, size = int(p["pos"]), int(p["size"])
            if zlib.crc32(data[pos:pos + size]) != int(p["data_hash"].split(":")[1], 16):
                raise SystemExit("%s: packet at %d: CRC differs from the file's bytes" % (path, pos))
        lines.append("track %d %s %s timescale %d samples %d" %
                     (t.id, kind_of(s), s["codec_name"], t.timescale, t.count))
        head = len(lines)
        if s["codec_name"].startswith("pcm_"):
            blob = b"".join(data[int(p["pos"]):int(p["pos"]) + int(p["size"])] for p in own)
            if t.sample_size == 0 or len(blob) != t.sample_size * t.count:
                raise SystemExit("%s: PCM bytes %d, stsz %d x %d" % (path, len(blob),
                                                                    t.sample_size, t.count))
            lines.append("pcm %d %d %08x" % (t.sample_size, len(blob), zlib.crc32(blob)))
            continue
        # Samples of fragments past the end of a cut file can't be read
        # (ffprobe gives the first of them partly, then stops).
        frag = t.fragment_samples
        past = [f for f in frag if f[3] + f[2] > len(data)]
        readable = t.count - len(past)
        if (past and frag[-len(past):] != past) or not readable <= len(own) <= readable + bool(past):
            raise SystemExit("%s: track %d: %d packets, %d samples, %d past the end not last" % (
                path, t.id, len(own), t.count, len(past)))
        if len(own) > readable:
            text = "ffprobe gives the first sample past the end partly (%s bytes)" % own[-1]["size"]
            note(path, "track %d: %s" % (t.id, text))
            lines.insert(head, "# " + text)
        own = own[:readable]
        first = int(own[0]["dts"]) if own else 0
        mine_first = frag[0][0] if frag and t.stored == 0 else 0
        differs = []
        for i, (p, offset) in enumerate(zip(own, t.offsets)):
            dts, key = int(p["dts"]), 1 if p["flags"].startswith("K") else 0
            f = frag[i - t.stored] if i >= t.stored else None
            got = (dts - first, int(p["size"]), int(p["pos"]), key)
            if f and got != (f[0] - mine_first, f[2], f[3], 1 if f[4] else 0):
                text = "track %d sample %d: ffprobe %r, fragments %r" % (
                    t.id, i, got, (f[0] - mine_first, f[2], f[3], 1 if f[4] else 0))
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


def extradata(stream):
    """ffprobe's extradata hexdump as bytes (None without)."""
    text = stream.get("extradata", "").strip("\n")
    return bytes.fromhex("".join(line[10:49] for line in text.split("\n")).replace(" ", "")) \
        if text else None


def streams_lines(path):
    data, streams = matched(path)
    lines = ["# expected track facts of %s" % os.path.basename(path),
             "# from ffprobe -ignore_editlist 1 -show_streams -show_data, and the file's atoms",
             STREAMS_HEAD]
    for s, _, t in streams:
        sid, tag, extra = s["id"], s["codec_tag_string"], extradata(s)
        compared = t.config_atom in (b"avcC", b"hvcC", b"av1C", b"esds")
        if compared and extra != t.config:
            raise SystemExit("%s: stream %s: extradata differs from %r" % (path, sid, t.config_atom))
        rotation = next((int(x.get("rotation", 0)) for x in s.get("side_data_list", [])
                         if x.get("side_data_type") == "Display Matrix"), 0)
        sar, language = s.get("sample_aspect_ratio", "1:1"), s.get("tags", {}).get("language", "und")
        for differs, text in (
                (tag.encode() != t.format, "tag %s, sample entry %r" % (tag, t.format)),
                (not compared and extra != t.config, "FFmpeg's extradata for %s: %s" % (
                    (t.config_atom or b"no configuration").decode(),
                    "%d bytes, %s" % (len(extra), extra.hex()) if extra else "none")),
                (int(s["duration_ts"]) != t.duration, "duration_ts %s, sum of the sample "
                 "durations %d" % (s["duration_ts"], t.duration)),
                (s.get("nb_frames", "N/A") != str(t.count), "nb_frames %s, samples %d" % (
                    s.get("nb_frames", "N/A"), t.count)),
                (-rotation % 360 != t.rotation, "ffprobe's rotation %d, tkhd %d" % (
                    rotation, t.rotation)),
                (kind_of(s) == "video" and sar not in ("0:1", "%d:%d" % t.pasp),
                 "ffprobe's sample aspect %s, pasp %d:%d" % ((sar,) + t.pasp)),
                (language != t.language, "ffprobe's language %s, mdhd %s" % (language, t.language))):
            if differs:
                note(path, "stream %s: %s" % (sid, text))
        lines.append(STREAM % (
            sid, kind_of(s), tag, s.get("width", 0), s.get("height", 0), s.get("sample_rate", "0"),
            s.get("channels", 0), t.duration, t.count, extra.hex() if compared and extra else "-",
            t.config.hex() if t.config else "-", t.edit_media_time, t.edit_delay, t.rotation,
            "%d:%d" % t.pasp, t.language, t.scheme or "-") +
            (" fragments %d" % t.fragments if t.fragments else ""))
    return lines


def describe(path):
    """One line of facts for the README table and the log."""
    data = open(path, "rb").read()
    parts = ["%d:%s/%s n=%d ts=%d tkhd v%d mdhd v%d%s%s" % (
        t.id, t.handler.decode(), t.format.decode("latin-1"), t.count, t.timescale,
        t.versions[0], t.versions[1], " stss" if t.has_stss else "",
        "" if t.ctts_version is None else " ctts v%d" % t.ctts_version) for t in tracks(data)]
    print("%s: %d bytes, top level %s; %s" % (os.path.basename(path), len(data), " ".join(
        a.name.decode("latin-1") for a in atoms(data)), "; ".join(parts)))


def dump(nodes, indent=0):
    for n in nodes:
        print("%s%s %d %d" % ("  " * indent, n.name.decode("latin-1"), n.pos, n.size))
        dump(n.children, indent + 1)


def main(argv):
    if len(argv) == 2 and argv[0] in ("samples", "streams"):
        print("\n".join((samples_lines if argv[0] == "samples" else streams_lines)(argv[1])))
    elif len(argv) == 4 and argv[0] == "cut":
        data = open(argv[1], "rb").read()
        last = [a for a in atoms(data) if a.name == argv[2].encode()][-1]
        open(argv[3], "wb").write(data[:last.pos + last.size // 2])
    elif len(argv) == 2 and argv[0] == "describe":
        describe(argv[1])
    elif len(argv) == 2 and argv[0] == "atoms":
        dump(atoms(open(argv[1], "rb").read()))
    else:
        raise SystemExit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
