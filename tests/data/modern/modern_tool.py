#!/usr/bin/env python3
"""Helpers of make_modern_fixtures.sh: the expected listings of the modern
fixtures and the checks made on them at generation time.

  modern_tool.py samples FILE    the per-sample listing (FILE.samples), from
                                 ffprobe -ignore_editlist 1 -show_packets
  modern_tool.py streams FILE    the per-stream facts (FILE.streams), from
                                 ffprobe -ignore_editlist 1 -show_streams
                                 -show_data, with the decoder configuration
                                 and edit list read from the file's atoms
  modern_tool.py describe FILE   one line: top-level atoms, each track's headers
  modern_tool.py atoms FILE      the atom tree, one line per atom (for eyes)
  modern_tool.py cut FILE ATOM OUT   FILE cut in the middle of its last
                                 top-level ATOM (a recording cut short)

Both listings are checked against the file's own atoms as they are made:
ffprobe's stream ids are the "tkhd" track ids in "trak" order, its time base
is the "mdhd" timescale, its packet count is the "stsz"/"stz2" count, each
packet's CRC-32 is that of the bytes at its position, and ffprobe's
extradata equals the decoder configuration for "avcC", "hvcC", "av1C" and
the "esds" DecoderSpecificInfo. Any other difference is printed as a note
on standard error. The formats are in README.md beside this file.
"""
import json
import struct
import subprocess
import sys
import zlib

# Atoms whose payload is a sequence of atoms.
CONTAINERS = {b"moov", b"trak", b"mdia", b"minf", b"stbl", b"edts", b"dinf", b"udta",
              b"mvex", b"moof", b"traf", b"mfra", b"sinf", b"schi", b"wave", b"ilst",
              b"tref", b"gmhd"}
# Sample entry kinds by handler: bytes of fixed fields behind the 8-byte head.
VISUAL_FIELDS = 78
AUDIO_FIELDS = 28
CONFIG_ATOMS = (b"avcC", b"hvcC", b"av1C", b"vpcC", b"dOps", b"dac3", b"dec3", b"dfLa",
                b"alac", b"d263", b"damr", b"esds")
# Configuration atoms that are full atoms: their payload follows version/flags.
FULL_CONFIG = {b"vpcC", b"dfLa", b"alac", b"esds"}


class Atom:
    def __init__(self, name, pos, size, head):
        self.name, self.pos, self.size, self.head = name, pos, size, head
        self.children = []
        self.extra = b""  # the 16-byte type of a "uuid"
        self.cut = False

    def body(self, data):
        return data[self.pos + self.head:self.pos + self.size]

    def find(self, *path):
        """The first descendant along path (names as str)."""
        node = self
        for name in path:
            node = next((c for c in node.children if c.name == name.encode()), None)
            if node is None:
                return None
        return node

    def all(self, name):
        return [c for c in self.children if c.name == name.encode()]


def parse(data, start, end, depth=0):
    out = []
    pos = start
    while pos + 8 <= end:
        size, name = struct.unpack(">I4s", data[pos:pos + 8])
        head = 8
        if size == 1:
            size = struct.unpack(">Q", data[pos + 8:pos + 16])[0]
            head = 16
        elif size == 0:
            size = end - pos
        cut = depth == 0 and size >= head and pos + size > end
        if size < head or (pos + size > end and not cut):
            raise SystemExit("bad size %d of %r at %d" % (size, name, pos))
        atom = Atom(name, pos, size, head)
        atom.cut = cut  # a top-level atom cut by the end of the file: no children
        if cut:
            out.append(atom)
            break
        if name == b"uuid":
            atom.extra = data[pos + head:pos + head + 16]
            atom.head += 16
        out.append(atom)
        if depth < 16:
            body = pos + head
            if name in CONTAINERS:
                atom.children = parse(data, body, pos + size, depth + 1)
            elif name == b"meta":
                # ISO "meta" is a full atom; QuickTime's starts with its "hdlr".
                skip = 0 if data[body + 4:body + 8] == b"hdlr" else 4
                atom.children = parse(data, body + skip, pos + size, depth + 1)
            elif name == b"stsd":
                atom.children = parse(data, body + 8, pos + size, depth + 1)
        pos += size
    return out


def _entry_fields(data, pos, handler):
    if handler == b"vide":
        return VISUAL_FIELDS
    version = struct.unpack(">H", data[pos + 16:pos + 18])[0]
    return AUDIO_FIELDS + {0: 0, 1: 16, 2: 36}.get(version, 0)


def atoms(data):
    """The atom tree; sample entries are parsed below the "stsd" of their track."""
    top = parse(data, 0, len(data))
    # A sample entry's fixed fields depend on the track's handler: parse the
    # entries of each "stsd" once the "hdlr" is known.
    for trak in (t for m in top if m.name == b"moov" for t in m.all("trak")):
        hdlr = trak.find("mdia", "hdlr")
        stsd = trak.find("mdia", "minf", "stbl", "stsd")
        if hdlr is None or stsd is None:
            continue
        handler = hdlr.body(data)[8:12]
        stsd.children = []
        pos = stsd.pos + stsd.head + 8
        end = stsd.pos + stsd.size
        while pos + 8 <= end:
            size, name = struct.unpack(">I4s", data[pos:pos + 8])
            entry = Atom(name, pos, size, 8)
            if handler in (b"vide", b"soun"):
                entry.children = parse(data, pos + 8 + _entry_fields(data, pos, handler),
                                       pos + size, 8)
            stsd.children.append(entry)
            pos += max(size, 8)
    return top


def dump(data, nodes, indent=0, out=None):
    for n in nodes:
        out.append("%s%s %d %d" % ("  " * indent, n.name.decode("latin-1"), n.pos, n.size))
        dump(data, n.children, indent + 1, out)
    return out


def descriptor(data, pos):
    """(tag, body start, body end) of an MPEG-4 descriptor at pos."""
    tag = data[pos]
    pos += 1
    length = 0
    for _ in range(4):
        b = data[pos]
        pos += 1
        length = (length << 7) | (b & 0x7F)
        if not b & 0x80:
            break
    return tag, pos, pos + length


def esds_dsi(body):
    """The DecoderSpecificInfo of an "esds" payload (after version/flags), or None."""
    tag, pos, end = descriptor(body, 0)
    if tag != 3:
        return None
    flags = body[pos + 2]
    pos += 3
    if flags & 0x80:
        pos += 2
    if flags & 0x40:
        pos += 1 + body[pos]
    if flags & 0x20:
        pos += 2
    tag, pos, end = descriptor(body, pos)
    if tag != 4:
        return None
    pos += 13
    if pos >= end:
        return None
    tag, pos, end = descriptor(body, pos)
    return body[pos:end] if tag == 5 else None


class Track:
    """What the atoms of one "trak" say."""

    def __init__(self, data, trak, movie_timescale):
        tkhd = trak.find("tkhd").body(data)
        self.id = struct.unpack(">I", tkhd[12:16] if tkhd[0] == 0 else tkhd[20:24])[0]
        self.versions = {"tkhd": tkhd[0]}
        mdhd = trak.find("mdia", "mdhd").body(data)
        self.versions["mdhd"] = mdhd[0]
        if mdhd[0] == 1:
            self.timescale, self.mdhd_duration = struct.unpack(">IQ", mdhd[20:32])
        else:
            self.timescale, self.mdhd_duration = struct.unpack(">II", mdhd[12:20])
        code = struct.unpack(">H", mdhd[-4:-2])[0]
        # Packed ISO 639-2 letters; QuickTime's 0x7FFF means unspecified.
        self.language = "und" if code == 0x7FFF else \
            "".join(chr(0x60 + ((code >> s) & 31)) for s in (10, 5, 0))
        # Rotation in degrees clockwise on the screen, from the matrix's a, b,
        # c, d (16.16): x' = a x + c y, y' = b x + d y with y downwards, so
        # (0, 1, -1, 0) turns the picture's top to the right (a phone held
        # upright). ffprobe prints the counter-clockwise angle (-90 there).
        # Any other matrix counts as 0.
        at = 40 if tkhd[0] == 0 else 52
        a, b, _, c, d = struct.unpack(">5i", tkhd[at:at + 20])
        one = 0x10000
        self.rotation = {(one, 0, 0, one): 0, (0, one, -one, 0): 90, (-one, 0, 0, -one): 180,
                         (0, -one, one, 0): 270}.get((a, b, c, d), 0)
        self.handler = trak.find("mdia", "hdlr").body(data)[8:12]
        self.pasp = (1, 1)
        stbl = trak.find("mdia", "minf", "stbl")
        entry = stbl.find("stsd").children[0] if stbl.find("stsd").children else None
        self.format = entry.name if entry else b"\0\0\0\0"
        # A protected entry ("encv", "enca", ...): the original format is in
        # "sinf/frma", the scheme in "sinf/schm".
        self.scheme = None
        sinf = next((c for c in entry.children if c.name == b"sinf"), None) if entry else None
        if sinf is not None:
            frma, schm = sinf.find("frma"), sinf.find("schm")
            if frma is not None:
                self.format = frma.body(data)[:4]
            if schm is not None:
                self.scheme = schm.body(data)[4:8].decode("latin-1")
        pasp = next((c for c in entry.children if c.name == b"pasp"), None) if entry else None
        if pasp is not None:
            self.pasp = struct.unpack(">II", pasp.body(data)[:8])
        self.config = None
        self.config_atom = None
        if entry is not None:
            for c in entry.children:
                if c.name in CONFIG_ATOMS:
                    body = c.body(data)
                    self.config_atom = c.name
                    if c.name == b"esds":
                        self.config = esds_dsi(body[4:])
                    else:
                        self.config = body[4:] if c.name in FULL_CONFIG else body
                    break
        stts = stbl.find("stts").body(data)
        n = struct.unpack(">I", stts[4:8])[0]
        self.duration = sum(c * d for c, d in (struct.unpack(">II", stts[8 + 8 * i:16 + 8 * i])
                                               for i in range(n)))
        sizes = stbl.find("stsz") or stbl.find("stz2")
        body = sizes.body(data)
        self.sample_size = struct.unpack(">I", body[4:8])[0] if sizes.name == b"stsz" else 0
        self.count = struct.unpack(">I", body[8:12])[0]
        self.stored = self.count  # samples of the "stbl"; the fragments' follow
        # Uncompressed audio of one frame a sample is read in samples of up
        # to 1024 frames, never across a chunk: the frames of each of them.
        stsc = stbl.find("stsc").body(data)
        offsets = stbl.find("stco") or stbl.find("co64")
        chunks = struct.unpack(">I", offsets.body(data)[4:8])[0]
        rows = [struct.unpack(">II", stsc[8 + 12 * i:16 + 12 * i])
                for i in range(struct.unpack(">I", stsc[4:8])[0])]
        self.pcm_groups, left = [], self.count
        for i, (first, per) in enumerate(rows):
            end = rows[i + 1][0] if i + 1 < len(rows) else chunks + 1
            for _ in range(first, end):
                frames, left = min(per, left), left - min(per, left)
                self.pcm_groups += [1024] * (frames // 1024) + ([frames % 1024] if frames % 1024 else [])
        self.has_stss = stbl.find("stss") is not None
        ctts = stbl.find("ctts")
        self.ctts_version = ctts.body(data)[0] if ctts else None
        # Composition offsets per sample: signed in version 1, unsigned in 0.
        self.offsets = [0] * self.count
        if ctts is not None:
            body = ctts.body(data)
            n = struct.unpack(">I", body[4:8])[0]
            form = ">Ii" if body[0] == 1 else ">II"
            at = 0
            for i in range(n):
                c, off = struct.unpack(form, body[8 + 8 * i:16 + 8 * i])
                self.offsets[at:at + c] = [off] * c
                at += c
        # The edit list: the first non-empty edit's media time (-1 without a
        # list) and the leading empty edits, turned into media ticks.
        self.edit_media_time = -1
        self.edit_delay = 0
        elst = trak.find("edts", "elst")
        if elst is not None:
            body = elst.body(data)
            version = body[0]
            n = struct.unpack(">I", body[4:8])[0]
            pos = 8
            for _ in range(n):
                if version == 1:
                    dur, media = struct.unpack(">Qq", body[pos:pos + 16])
                    pos += 20
                else:
                    dur, media = struct.unpack(">Ii", body[pos:pos + 8])
                    pos += 12
                if media == -1:
                    self.edit_delay += dur * self.timescale // movie_timescale
                else:
                    self.edit_media_time = media
                    break


# Fields that the flags of "tfhd" and "trun" switch on, in their order:
# (flag, bytes). ISO/IEC 14496-12, read here independently of the library.
TFHD_FIELDS = [(0x1, 8), (0x2, 4), (0x8, 4), (0x10, 4), (0x20, 4)]
TRUN_HEAD = [(0x1, 4), (0x4, 4)]
TRUN_ENTRY = [(0x100, 4), (0x200, 4), (0x400, 4), (0x800, 4)]
NON_SYNC = 0x00010000


def flagged(body, at, flags, fields):
    """The values of the fields the flags switch on, from body[at:], and
    where they end."""
    values = {}
    for flag, size in fields:
        if flags & flag:
            values[flag] = int.from_bytes(body[at:at + size], "big")
            at += size
    return values, at


class Fragments:
    """The samples of a file's whole "moof" atoms, per track ID, as ISO/IEC
    14496-12 places them: [dts, duration, size, pos, sync, cto] each, and the
    number of track fragments."""

    def __init__(self, data, top, moov, stored_end):
        self.samples, self.fragments = {}, {}
        trex = {}
        for t in (moov.find("mvex").all("trex") if moov.find("mvex") else []):
            b = t.body(data)
            tid, _, dur, size, flags = struct.unpack(">5I", b[4:24])
            trex[tid] = (dur, size, flags)
        next_time = dict(stored_end)
        for moof in (a for a in top if a.name == b"moof" and not a.cut):
            previous_end = moof.pos
            for traf in moof.all("traf"):
                b = traf.find("tfhd").body(data)
                flags = int.from_bytes(b[1:4], "big")
                tid = struct.unpack(">I", b[4:8])[0]
                v, _ = flagged(b, 8, flags, TFHD_FIELDS)
                dur0, size0, flags0 = trex.get(tid, (0, 0, 0))
                dur0, size0, flags0 = v.get(0x8, dur0), v.get(0x10, size0), v.get(0x20, flags0)
                if 0x1 in v:
                    base = v[0x1]
                elif flags & 0x020000:
                    base = moof.pos
                else:
                    base = previous_end
                tfdt = traf.find("tfdt")
                time = next_time.get(tid, 0)
                if tfdt is not None:
                    tb = tfdt.body(data)
                    time = struct.unpack(">Q" if tb[0] == 1 else ">I", tb[4:12] if tb[0] == 1
                                         else tb[4:8])[0]
                out = self.samples.setdefault(tid, [])
                self.fragments[tid] = self.fragments.get(tid, 0) + 1
                run_end = base
                for trun in traf.all("trun"):
                    r = trun.body(data)
                    version, rflags = r[0], int.from_bytes(r[1:4], "big")
                    count = struct.unpack(">I", r[4:8])[0]
                    head, at = flagged(r, 8, rflags, TRUN_HEAD)
                    pos = base + struct.unpack(">i", head[0x1].to_bytes(4, "big"))[0] \
                        if 0x1 in head else run_end
                    for k in range(count):
                        e, at = flagged(r, at, rflags, TRUN_ENTRY)
                        size = e.get(0x200, size0)
                        duration = e.get(0x100, dur0)
                        sflags = e.get(0x400, head.get(0x4, flags0) if k == 0 else flags0)
                        cto = e.get(0x800, 0)
                        if version == 1 and cto >= 1 << 31:
                            cto -= 1 << 32
                        out.append([time, duration, size, pos, not sflags & NON_SYNC, cto])
                        time += duration
                        pos += size
                    run_end = pos
                next_time[tid] = time
                previous_end = run_end


def tracks(data):
    top = atoms(data)
    moov = next(a for a in top if a.name == b"moov")
    mvhd = moov.find("mvhd").body(data)
    movie_timescale = struct.unpack(">I", mvhd[20:24] if mvhd[0] == 1 else mvhd[12:16])[0]
    mine = [Track(data, t, movie_timescale) for t in moov.all("trak")]
    # The fragments' samples follow those of the "stbl", timed on from them.
    frags = Fragments(data, top, moov, {t.id: t.duration for t in mine})
    for t in mine:
        t.fragment_samples = frags.samples.get(t.id, [])
        t.fragments = frags.fragments.get(t.id, 0)
        t.count += len(t.fragment_samples)
        t.duration += sum(f[1] for f in t.fragment_samples)
        t.offsets = t.offsets + [f[5] for f in t.fragment_samples]
    return mine


def ffprobe(path, what):
    cmd = ["ffprobe", "-v", "error", "-ignore_editlist", "1", "-of", "json"] + what + [path]
    return json.loads(subprocess.check_output(cmd))


def note(path, text):
    sys.stderr.write("%s: note: %s\n" % (path.split("/")[-1], text))


def kind_of(stream):
    kind = stream["codec_type"]
    return kind if kind in ("video", "audio") else "other"


def matched_tracks(path, data, streams):
    """The file's tracks in ffprobe's stream order; checks ids and time bases."""
    mine = tracks(data)
    if len(mine) != len(streams):
        raise SystemExit("%s: %d tracks, ffprobe %d streams" % (path, len(mine), len(streams)))
    for t, s in zip(mine, streams):
        if int(s["id"], 16) != t.id:
            raise SystemExit("%s: stream %d has id %s, tkhd %d" % (path, s["index"], s["id"], t.id))
        num, den = s["time_base"].split("/")
        if num != "1" or int(den) != t.timescale:
            raise SystemExit("%s: time base %s, mdhd timescale %d" % (path, s["time_base"],
                                                                       t.timescale))
    return mine


def samples_lines(path, name=None, strict=True):
    """The listing from ffprobe; a fragment sample where ffprobe and this
    file's own reading of the fragments differ stops it, or with strict
    False is a note."""
    data = open(path, "rb").read()
    streams = ffprobe(path, ["-show_streams"])["streams"]
    packets = ffprobe(path, ["-show_packets", "-show_data_hash", "CRC32"])["packets"]
    mine = matched_tracks(path, data, streams)
    lines = ["# expected samples of %s" % (name or path.split("/")[-1]),
             "# from ffprobe -ignore_editlist 1 -show_packets -show_data_hash CRC32",
             "# track ID video|audio|other CODEC timescale N samples COUNT",
             "# DTS SIZE POS KEY CTS_OFFSET CRC32   (DTS less the first; CTS_OFFSET from ctts)",
             "# pcm FIRST_BYTES TOTAL_BYTES CRC32   (PCM: the first sample's bytes, all the track's)"]
    for s, t in zip(streams, mine):
        own = [p for p in packets if p["stream_index"] == s["index"]]
        own.sort(key=lambda p: int(p["dts"]))
        for p in own:
            pos, size = int(p["pos"]), int(p["size"])
            crc = int(p["data_hash"].split(":")[1], 16)
            if zlib.crc32(data[pos:pos + size]) != crc:
                raise SystemExit("%s: packet at %d: CRC differs from the file's bytes" % (path, pos))
        pcm = s["codec_name"].startswith("pcm_")
        lines.append("track %d %s %s timescale %d samples %d" %
                     (t.id, kind_of(s), s["codec_name"], t.timescale,
                      len(t.pcm_groups) if pcm else t.count))
        head = len(lines)
        if pcm:
            blob = b"".join(data[int(p["pos"]):int(p["pos"]) + int(p["size"])] for p in own)
            if t.sample_size == 0 or len(blob) != t.sample_size * t.count:
                raise SystemExit("%s: PCM bytes %d, stsz %d x %d" % (path, len(blob),
                                                                    t.sample_size, t.count))
            lines.append("pcm %d %d %08x" % (t.pcm_groups[0] * t.sample_size, len(blob),
                                             zlib.crc32(blob)))
            continue
        # Samples of fragments that lie past the end of a cut file can't be
        # read (ffprobe gives the first of them partly, then stops).
        frag = t.fragment_samples
        past = [f for f in frag if f[3] + f[2] > len(data)]
        if past and frag[-len(past):] != past:
            raise SystemExit("%s: track %d: samples past the end are not the last" % (path, t.id))
        readable = t.count - len(past)
        if len(own) < readable or len(own) > readable + (1 if past else 0):
            raise SystemExit("%s: track %d: %d packets, %d samples" % (path, t.id, len(own), t.count))
        if len(own) > readable:
            text = "ffprobe gives the first sample past the end partly (%s bytes)" % own[-1]["size"]
            note(path, "track %d: %s" % (t.id, text))
            lines.insert(head, "# " + text)
        own = own[:readable]
        first = int(own[0]["dts"]) if own else 0
        mine_first = frag[0][0] if frag and t.stored == 0 else 0
        differs = []
        for i, (p, offset) in enumerate(zip(own, t.offsets)):
            key = 1 if p["flags"].startswith("K") else 0
            if i >= t.stored:
                f = frag[i - t.stored]
                got = (int(p["dts"]) - first, int(p["size"]), int(p["pos"]), key)
                want = (f[0] - mine_first, f[2], f[3], 1 if f[4] else 0)
                if got != want:
                    text = "track %d sample %d: ffprobe %r, fragments %r" % (t.id, i, got, want)
                    if strict:
                        raise SystemExit("%s: %s" % (path, text))
                    note(path, text)
            if int(p["pts"]) - int(p["dts"]) != offset:
                differs.append((int(p["pts"]) - int(p["dts"]), offset))
            lines.append("%d %s %s %d %d %s" % (
                int(p["dts"]) - first, p["size"], p["pos"], key,
                offset, p["data_hash"].split(":")[1]))
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
    if not text:
        return None
    out = bytearray()
    for line in text.split("\n"):
        hexpart = line[10:49].replace(" ", "")
        out += bytes.fromhex(hexpart)
    return bytes(out)


def streams_lines(path, name=None):
    data = open(path, "rb").read()
    info = ffprobe(path, ["-show_streams", "-show_data"])["streams"]
    mine = matched_tracks(path, data, info)
    lines = ["# expected track facts of %s" % (name or path.split("/")[-1]),
             "# from ffprobe -ignore_editlist 1 -show_streams -show_data, and the file's atoms",
             "# stream ID video|audio|other TAG width W height H rate R channels C "
             "duration D frames N extradata HEX|- config HEX|- edit MEDIA_TIME DELAY "
             "rotation DEGREES sar H:V language LLL scheme SCHM|-"]
    for s, t in zip(info, mine):
        tag = s["codec_tag_string"]
        if tag.encode() != t.format:
            note(path, "stream %s: tag %s, sample entry %r" % (s["id"], tag, t.format))
        extra = extradata(s)
        compared = t.config_atom in (b"avcC", b"hvcC", b"av1C", b"esds")
        if compared:
            if extra != t.config:
                raise SystemExit("%s: stream %s: extradata differs from %r" %
                                 (path, s["id"], t.config_atom))
        elif extra != t.config:
            note(path, "stream %s: FFmpeg's extradata for %s: %s" % (
                s["id"], (t.config_atom or b"no configuration").decode(),
                "%d bytes, %s" % (len(extra), extra.hex()) if extra else "none"))
        duration = int(s["duration_ts"])
        if duration != t.duration:
            note(path, "stream %s: duration_ts %d, sum of the sample durations %d" %
                 (s["id"], duration, t.duration))
        pcm = s["codec_name"].startswith("pcm_")
        frames = s.get("nb_frames", "N/A")
        if frames != str(t.count):
            note(path, "stream %s: nb_frames %s, samples %d" % (s["id"], frames, t.count))
        rotation = next((int(x.get("rotation", 0)) for x in s.get("side_data_list", [])
                         if x.get("side_data_type") == "Display Matrix"), 0)
        if -rotation % 360 != t.rotation:
            note(path, "stream %s: ffprobe's rotation %d, tkhd %d" % (s["id"], rotation, t.rotation))
        sar = s.get("sample_aspect_ratio", "1:1")
        if kind_of(s) == "video" and sar not in ("0:1", "%d:%d" % t.pasp):
            note(path, "stream %s: ffprobe's sample aspect %s, pasp %d:%d" % ((s["id"], sar) +
                                                                            t.pasp))
        language = s.get("tags", {}).get("language", "und")
        if language != t.language:
            note(path, "stream %s: ffprobe's language %s, mdhd %s" % (s["id"], language,
                                                                        t.language))
        lines.append("stream %s %s %s width %d height %d rate %s channels %d duration %d "
                     "frames %d extradata %s config %s edit %d %d rotation %d sar %d:%d "
                     "language %s scheme %s%s" % (
                         s["id"], kind_of(s), tag, s.get("width", 0), s.get("height", 0),
                         s.get("sample_rate", "0"), s.get("channels", 0), t.duration,
                         len(t.pcm_groups) if pcm else t.count,
                         extra.hex() if compared and extra else "-",
                         t.config.hex() if t.config else "-",
                         t.edit_media_time, t.edit_delay, t.rotation, t.pasp[0], t.pasp[1],
                         t.language, t.scheme or "-",
                         " fragments %d" % t.fragments if t.fragments else ""))
    return lines


def describe(path):
    """One line of facts for the README table and the log."""
    data = open(path, "rb").read()
    top = atoms(data)
    order = " ".join(a.name.decode("latin-1") for a in top)
    parts = []
    for t in tracks(data):
        parts.append("%d:%s/%s n=%d ts=%d tkhd v%d mdhd v%d%s%s" % (
            t.id, t.handler.decode(), t.format.decode("latin-1"), t.count, t.timescale,
            t.versions["tkhd"], t.versions["mdhd"], " stss" if t.has_stss else "",
            "" if t.ctts_version is None else " ctts v%d" % t.ctts_version))
    print("%s: %d bytes, top level %s; %s" % (path.split("/")[-1], len(data), order,
                                              "; ".join(parts)))


def main(argv):
    if len(argv) >= 2 and argv[0] in ("samples", "streams"):
        name = argv[argv.index("--name") + 1] if "--name" in argv else None
        make = samples_lines if argv[0] == "samples" else streams_lines
        print("\n".join(make(argv[1], name)))
    elif len(argv) == 4 and argv[0] == "cut":
        # cut FILE ATOM OUT: FILE up to the middle of its last top-level ATOM
        data = open(argv[1], "rb").read()
        last = [a for a in atoms(data) if a.name == argv[2].encode()][-1]
        open(argv[3], "wb").write(data[:last.pos + last.size // 2])
    elif len(argv) == 2 and argv[0] == "describe":
        describe(argv[1])
    elif len(argv) == 2 and argv[0] == "atoms":
        data = open(argv[1], "rb").read()
        print("\n".join(dump(data, atoms(data), 0, [])))
    else:
        raise SystemExit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
