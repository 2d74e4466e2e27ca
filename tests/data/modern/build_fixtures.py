#!/usr/bin/env python3
"""Builds the hand-made files of tests/data/modern, atom by atom, with their
expected listings (NAME.samples, NAME.streams).

  build_fixtures.py DIR

The samples and sample entries come from the FFmpeg files of DIR (their
committed listings say where each sample lies), so every file holds real
frames; the tables, headers and extra atoms are written here. The listings
are what a reader that follows ISO/IEC 14496-12 must give, computed from
what was written; each file is then read by ffprobe and every difference
between the two is printed, and written into the listing as a '#' note
when it is one of FFmpeg's known departures (see README.md).
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import zlib

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import modern_tool  # noqa: E402

IDENTITY = struct.pack(">9I", 0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000)


def box(name, *parts):
    payload = b"".join(parts)
    return struct.pack(">I4s", 8 + len(payload), name.encode("latin-1")) + payload


def full(name, version, flags, *parts):
    return box(name, struct.pack(">I", (version << 24) | flags), *parts)


def uuid(kind, payload):
    return box("uuid", kind, payload)


def runs(values):
    out = []
    for v in values:
        if out and out[-1][1] == v:
            out[-1][0] += 1
        else:
            out.append([1, v])
    return out


class Donor:
    """One track of an FFmpeg file: its sample entry, samples and facts."""

    def __init__(self, path, track_id):
        data = open(path, "rb").read()
        moov = next(a for a in modern_tool.atoms(data) if a.name == b"moov")
        info = modern_tool.tracks(data)
        index = [t.id for t in info].index(track_id)
        info = info[index]
        entry = moov.all("trak")[index].find("mdia", "minf", "stbl", "stsd").children[0]
        self.entry = data[entry.pos:entry.pos + entry.size]
        self.timescale = info.timescale
        self.handler = info.handler.decode()
        # The track's lines of the listing: DTS SIZE POS KEY CTS_OFFSET CRC32.
        lines, mine = [], False
        for line in open(path + ".samples"):
            if line.startswith("track "):
                mine = line.split()[1] == str(track_id)
                if mine:
                    self.codec = line.split()[3]
            elif mine and line[0].isdigit():
                lines.append(line.split())
        dts = [int(f[0]) for f in lines]
        self.samples = [data[int(f[2]):int(f[2]) + int(f[1])] for f in lines]
        self.durations = [b - a for a, b in zip(dts, dts[1:])] + [info.duration - dts[-1]]
        self.offsets = [int(f[4]) for f in lines]
        self.keys = [f[3] == "1" for f in lines]
        stream = next(l for l in open(path + ".streams")
                      if l.startswith("stream 0x%x " % track_id)).split()
        self.stream = dict(zip(stream[4::2], stream[5::2]))
        self.kind = stream[2]


class Track:
    def __init__(self, tid, donor=None, count=None, **kw):
        self.id = tid
        if donor is not None:
            n = count or len(donor.samples)
            self.entry, self.timescale, self.handler = donor.entry, donor.timescale, donor.handler
            self.kind, self.codec = donor.kind, donor.codec
            self.samples = donor.samples[:n]
            self.durations = donor.durations[:n]
            self.offsets = donor.offsets[:n]
            self.keys = donor.keys[:n]
            self.stream = dict(donor.stream)
        self.per_chunk = 5
        self.sizes = "stsz"          # or 4, 8, 16: "stz2" with that field size
        self.co64 = False
        self.v1 = False              # version-1 "tkhd" and "mdhd"
        self.ctts_version = 0
        self.edits = None            # [(duration in movie ticks, media time)], v1 flag
        self.edits_v1 = False
        self.front = {}              # "trak"/"mdia"/"minf"/"stbl": atoms put first
        self.__dict__.update(kw)

    @property
    def format(self):
        """The sample entry's format, or for a protected one the original ("frma")."""
        at = self.entry.find(b"frma")
        return (self.entry[at + 4:at + 8] if at > 0 else self.entry[4:8]).decode("latin-1")

    def media_duration(self):
        return sum(self.durations)


def stbl(t, offsets):
    n = len(t.samples)
    parts = [t.front.get("stbl", b""), full("stsd", 0, 0, struct.pack(">I", 1), t.entry)]
    stts = runs(t.durations)
    parts.append(full("stts", 0, 0, struct.pack(">I", len(stts)),
                      b"".join(struct.pack(">II", c, d) for c, d in stts)))
    if any(t.offsets):
        ctts = runs(t.offsets)
        form = ">Ii" if t.ctts_version == 1 else ">II"
        parts.append(full("ctts", t.ctts_version, 0, struct.pack(">I", len(ctts)),
                          b"".join(struct.pack(form, c, o) for c, o in ctts)))
    if not all(t.keys):
        keys = [i + 1 for i, k in enumerate(t.keys) if k]
        parts.append(full("stss", 0, 0, struct.pack(">I", len(keys)),
                          b"".join(struct.pack(">I", k) for k in keys)))
    chunks = [t.samples[i:i + t.per_chunk] for i in range(0, n, t.per_chunk)]
    stsc = []
    for i, c in enumerate(chunks):
        if not stsc or stsc[-1][1] != len(c):
            stsc.append((i + 1, len(c), 1))
    parts.append(full("stsc", 0, 0, struct.pack(">I", len(stsc)),
                      b"".join(struct.pack(">III", *e) for e in stsc)))
    sizes = [len(s) for s in t.samples]
    if t.sizes == "stsz":
        parts.append(full("stsz", 0, 0, struct.pack(">II", 0, n),
                          b"".join(struct.pack(">I", s) for s in sizes)))
    else:
        bits = t.sizes
        assert max(sizes) < (1 << bits), (bits, max(sizes))
        if bits == 4:
            padded = sizes + [0] * (n % 2)
            table = bytes((padded[i] << 4) | padded[i + 1] for i in range(0, n + n % 2, 2))
        else:
            table = b"".join(struct.pack(">B" if bits == 8 else ">H", s) for s in sizes)
        parts.append(full("stz2", 0, 0, struct.pack(">II", bits, n), table))
    if t.co64:
        parts.append(full("co64", 0, 0, struct.pack(">I", len(offsets)),
                          b"".join(struct.pack(">Q", o) for o in offsets)))
    else:
        parts.append(full("stco", 0, 0, struct.pack(">I", len(offsets)),
                          b"".join(struct.pack(">I", o) for o in offsets)))
    return box("stbl", *parts)


def trak(t, offsets, movie_timescale):
    media = t.media_duration()
    if t.edits:
        movie = sum(d for d, _ in t.edits)
    else:
        movie = media * movie_timescale // t.timescale
    video = t.kind == "video"
    width = int(t.stream.get("width", 0)) if video else 0
    height = int(t.stream.get("height", 0)) if video else 0
    if t.v1:
        times = struct.pack(">QQIIQ", 0, 0, t.id, 0, movie)
    else:
        times = struct.pack(">IIIII", 0, 0, t.id, 0, movie)
    tkhd = full("tkhd", 1 if t.v1 else 0, 3, times,
                struct.pack(">8xhhH2x", 0, 0, 0x100 if t.kind == "audio" else 0),
                IDENTITY, struct.pack(">II", width << 16, height << 16))
    if t.v1:
        mdhd = full("mdhd", 1, 0, struct.pack(">QQIQHH", 0, 0, t.timescale, media, 0x55C4, 0))
    else:
        mdhd = full("mdhd", 0, 0, struct.pack(">IIIIHH", 0, 0, t.timescale, media, 0x55C4, 0))
    hdlr = full("hdlr", 0, 0, struct.pack(">I4s12x", 0, t.handler.encode()), b"Handler\0")
    if t.handler == "vide":
        head = full("vmhd", 0, 1, bytes(8))
    elif t.handler == "soun":
        head = full("smhd", 0, 0, bytes(4))
    else:
        head = full("nmhd", 0, 0)
    dinf = box("dinf", full("dref", 0, 0, struct.pack(">I", 1), full("url ", 0, 1)))
    minf = box("minf", t.front.get("minf", b""), head, dinf, stbl(t, offsets))
    mdia = box("mdia", t.front.get("mdia", b""), mdhd, hdlr, minf)
    edts = b""
    if t.edits:
        if t.edits_v1:
            rows = b"".join(struct.pack(">QqI", d, m, 0x10000) for d, m in t.edits)
        else:
            rows = b"".join(struct.pack(">IiI", d, m, 0x10000) for d, m in t.edits)
        edts = box("edts", full("elst", 1 if t.edits_v1 else 0, 0,
                                struct.pack(">I", len(t.edits)), rows))
    return box("trak", t.front.get("trak", b""), tkhd, edts, mdia)


class Movie:
    def __init__(self, tracks, **kw):
        self.tracks = tracks
        self.timescale = 1000
        self.v1 = False                 # version-1 "mvhd"
        self.top_front = b""            # atoms between "ftyp" and "moov"
        self.moov_front = b""           # atoms between "mvhd" and the first "trak"
        self.between = b""              # atoms between the tracks
        self.top_end = b""              # atoms behind "mdat"
        self.mdat = "plain"             # or "size0", "large" (size 1, 64-bit size)
        self.hole_after = None          # unreferenced bytes in "mdat" in front of this chunk
        self.hole = 0
        self.__dict__.update(kw)

    def moov(self, offsets):
        duration = max(sum(d for d, _ in t.edits) if t.edits else
                       t.media_duration() * self.timescale // t.timescale for t in self.tracks)
        if self.v1:
            times = struct.pack(">QQIQ", 0, 0, self.timescale, duration)
        else:
            times = struct.pack(">IIII", 0, 0, self.timescale, duration)
        mvhd = full("mvhd", 1 if self.v1 else 0, 0, times, struct.pack(">IH10x", 0x10000, 0x100),
                    IDENTITY, bytes(24), struct.pack(">I", max(t.id for t in self.tracks) + 1))
        traks = [trak(t, offsets[t.id], self.timescale) for t in self.tracks]
        return box("moov", mvhd, self.moov_front, self.between.join(traks))

    def write(self, path):
        """Writes the file; returns, per track, the (offset, sample) of each sample."""
        ftyp = box("ftyp", b"isom", struct.pack(">I", 512), b"isomiso2avc1mp41")
        # Chunks of the tracks in turn, one chunk of each per round.
        rounds = max((len(t.samples) + t.per_chunk - 1) // t.per_chunk for t in self.tracks)
        order = []
        for r in range(rounds):
            for t in self.tracks:
                chunk = t.samples[r * t.per_chunk:(r + 1) * t.per_chunk]
                if chunk:
                    order.append((t, chunk))
        head = 16 if self.mdat == "large" else 8
        dummy = {t.id: [0] * ((len(t.samples) + t.per_chunk - 1) // t.per_chunk)
                 for t in self.tracks}
        base = len(ftyp) + len(self.top_front) + len(self.moov(dummy)) + head
        offsets = {t.id: [] for t in self.tracks}
        where = {t.id: [] for t in self.tracks}
        pos = base
        for i, (t, chunk) in enumerate(order):
            if i == self.hole_after:
                pos += self.hole
            offsets[t.id].append(pos)
            for s in chunk:
                where[t.id].append(pos)
                pos += len(s)
        if self.mdat == "large":
            mdat = struct.pack(">I4sQ", 1, b"mdat", pos - base + 16)
        elif self.mdat == "size0":
            mdat = struct.pack(">I4s", 0, b"mdat")
        else:
            mdat = struct.pack(">I4s", pos - base + 8, b"mdat")
        moov = self.moov(offsets)
        assert len(ftyp) + len(self.top_front) + len(moov) + head == base
        tail = b"" if self.mdat == "size0" else self.top_end
        with open(path, "wb") as f:
            f.write(ftyp + self.top_front + moov + mdat)
            for i, (t, chunk) in enumerate(order):
                if i == self.hole_after:
                    f.seek(self.hole, os.SEEK_CUR)  # never written: a hole in a sparse file
                f.write(b"".join(chunk))
            f.write(tail)
        return where


# Sample flags as FFmpeg writes them: a sync sample depends on no other;
# any other sample depends on others and is not a sync sample.
SYNC_FLAGS = 0x02000000
NON_SYNC_FLAGS = 0x01010000


class Fragmented:
    """A fragmented file: "moov" with each track's first `stored` samples in
    its tables (none by default) and "mvex", then fragments, each with
    `per[tid]` samples of each track. `base` says where a track fragment's
    data is counted from: "moof" (default-base-is-moof, every run with a data
    offset), "explicit" (base_data_offset in "tfhd", runs without data
    offsets) or "implicit" (neither: the first run of the first track
    fragment has a data offset from the "moof", every other run follows the
    data before it). `fields[tid]` names the per-sample fields its runs carry
    (duration, size, flags, cto); the others come from `tfhd[tid]` (defaults
    written in "tfhd") or else `trex[tid]`, and the samples take them."""

    def __init__(self, tracks, per, **kw):
        self.tracks, self.per = tracks, per
        self.timescale = 1000
        self.stored = {}
        self.base = "moof"
        self.fields = {}
        self.tfhd = {}
        self.trex = {}
        self.tfdt = True
        self.tfdt_v1 = False
        self.jumps = {}              # fragment index -> ticks its tfdt and later ones add
        self.trun_version = 0
        self.first_flags = set()     # tracks whose runs carry first_sample_flags
        self.runs = {}               # tid -> runs per track fragment
        self.top_front = b""         # atoms between the stored samples and the fragments
        self.between = b""           # atoms between fragments
        self.description_index = False
        self.mehd = None             # fragment duration in movie ticks (version 1)
        self.__dict__.update(kw)
        for t in self.tracks:
            t.flags = [SYNC_FLAGS if k else NON_SYNC_FLAGS for k in t.keys]
            self.fields.setdefault(t.id, {"duration", "size", "flags", "cto"})

    def default(self, t, name):
        return self.tfhd.get(t.id, {}).get(name, self.trex.get(t.id, {}).get(name, 0))

    def fragments(self):
        """[(fragment index, [(track, first sample, count)])] in file order."""
        out, k = [], 0
        while True:
            parts = []
            for t in self.tracks:
                first = self.stored.get(t.id, 0) + k * self.per[t.id]
                count = min(self.per[t.id], len(t.samples) - first)
                if count > 0:
                    parts.append((t, first, count))
            if not parts:
                return out
            out.append((k, parts))
            k += 1

    def traf(self, t, first, count, k, data_at, moof_at, first_traf):
        """The "traf" of count samples of t from `first`, whose data starts at
        data_at; the samples take the values the file gives them."""
        d = self.tfhd.get(t.id, {})
        flags, values = 0, b""
        if self.base == "explicit":
            flags |= 0x1
            values += struct.pack(">Q", data_at)
        if self.description_index:
            flags |= 0x2
            values += struct.pack(">I", 1)
        for bit, name in ((0x8, "duration"), (0x10, "size"), (0x20, "flags")):
            if name in d:
                flags |= bit
                values += struct.pack(">I", d[name])
        if self.base == "moof":
            flags |= 0x020000
        parts = [full("tfhd", 0, flags, struct.pack(">I", t.id), values)]
        fields = self.fields[t.id]
        for i in range(first, first + count):
            if "duration" not in fields:
                t.durations[i] = self.default(t, "duration")
            if "size" not in fields:
                assert len(t.samples[i]) == self.default(t, "size")
            if "cto" not in fields:
                t.offsets[i] = 0
        if self.tfdt:
            time = sum(t.durations[:first]) + sum(self.jumps.get(j, 0) for j in range(k + 1))
            parts.append(full("tfdt", 1, 0, struct.pack(">Q", time)) if self.tfdt_v1
                         else full("tfdt", 0, 0, struct.pack(">I", time)))
        size = -(-count // self.runs.get(t.id, 1))
        at = data_at
        for a in range(first, first + count, size):
            b = min(a + size, first + count)
            rflags, head = 0, b""
            if self.base == "moof" or (self.base == "implicit" and first_traf and a == first):
                rflags |= 0x1
                head += struct.pack(">i", at - moof_at)
            if t.id in self.first_flags:
                rflags |= 0x4
                head += struct.pack(">I", t.flags[a])
            for bit, name in ((0x100, "duration"), (0x200, "size"), (0x400, "flags"),
                              (0x800, "cto")):
                rflags |= bit if name in fields else 0
            rows = b""
            for i in range(a, b):
                if "flags" not in fields and not (i == a and t.id in self.first_flags):
                    t.flags[i] = self.default(t, "flags")
                t.keys[i] = not t.flags[i] & 0x10000
                if "duration" in fields:
                    rows += struct.pack(">I", t.durations[i])
                if "size" in fields:
                    rows += struct.pack(">I", len(t.samples[i]))
                if "flags" in fields:
                    rows += struct.pack(">I", t.flags[i])
                if "cto" in fields:
                    rows += struct.pack(">i" if self.trun_version else ">I", t.offsets[i])
            parts.append(full("trun", self.trun_version, rflags, struct.pack(">I", b - a), head,
                              rows))
            at += sum(len(x) for x in t.samples[a:b])
        return box("traf", *parts)

    def write(self, path):
        ftyp = box("ftyp", b"iso6", struct.pack(">I", 512), b"iso6isomavc1mp41")
        stored = []
        for t in self.tracks:
            n = self.stored.get(t.id, 0)
            st = Track(t.id, **{k: v for k, v in t.__dict__.items() if k != "id"})
            st.samples, st.durations = t.samples[:n], t.durations[:n]
            st.offsets, st.keys, st.per_chunk = t.offsets[:n], t.keys[:n], max(n, 1)
            stored.append(st)
        movie = Movie(stored, timescale=self.timescale)
        trex = b"".join(full("trex", 0, 0, struct.pack(">5I", t.id, 1, *(
            self.trex.get(t.id, {}).get(name, 0) for name in ("duration", "size", "flags"))))
            for t in self.tracks)
        mehd = full("mehd", 1, 0, struct.pack(">Q", self.mehd)) if self.mehd is not None else b""
        mvex = box("mvex", mehd, trex)

        def moov_of(offsets):
            m = movie.moov(offsets)
            return struct.pack(">I", len(m) + len(mvex)) + m[4:] + mvex

        dummy = {st.id: [0] if st.samples else [] for st in stored}
        pos = len(ftyp) + len(moov_of(dummy)) + 8
        offsets, where = {}, {t.id: [] for t in self.tracks}
        for st in stored:
            offsets[st.id] = [pos] if st.samples else []
            for x in st.samples:
                where[st.id].append(pos)
                pos += len(x)
        out = ftyp + moov_of(offsets) + box("mdat", *[b"".join(st.samples) for st in stored])
        out += self.top_front
        for t in self.tracks:
            t.fragment_count = 0
        for k, parts in self.fragments():
            out += self.between if k > 0 else b""
            moof_at = len(out)
            sizes = [sum(len(x) for x in t.samples[a:a + c]) for t, a, c in parts]

            def moof(data_start):
                trafs, at = [], data_start
                for j, ((t, a, c), size) in enumerate(zip(parts, sizes)):
                    trafs.append(self.traf(t, a, c, k, at, moof_at, j == 0))
                    at += size
                return box("moof", full("mfhd", 0, 0, struct.pack(">I", k + 1)), *trafs)

            # The offsets have fixed widths: the size of the "moof" comes first.
            data_start = moof_at + len(moof(0)) + 8
            out += moof(data_start)
            payload = b""
            for t, a, c in parts:
                t.fragment_count += 1
                for x in t.samples[a:a + c]:
                    where[t.id].append(data_start + len(payload))
                    payload += x
            out += box("mdat", payload)
        open(path, "wb").write(out)
        return where

    def jump_of(self, t, i):
        """Ticks that tfdt jumps put in front of sample i of t."""
        n = self.stored.get(t.id, 0)
        if i < n or not self.tfdt:
            return 0
        return sum(self.jumps.get(j, 0) for j in range((i - n) // self.per[t.id] + 1))


LISTING_HEAD = [
    "# track ID video|audio|other CODEC timescale N samples COUNT",
    "# DTS SIZE POS KEY CTS_OFFSET CRC32   (DTS less the first; CTS_OFFSET from ctts)",
]
STREAMS_HEAD = ("# stream ID video|audio|other TAG width W height H rate R channels C "
                "duration D frames N extradata HEX|- config HEX|- edit MEDIA_TIME DELAY "
                "rotation DEGREES sar H:V language LLL scheme SCHM|-")


def expected(movie, where, name, origin):
    samples = ["# expected samples of %s" % name, "# " + origin] + LISTING_HEAD
    streams = ["# expected track facts of %s" % name, "# " + origin, STREAMS_HEAD]
    for t in movie.tracks:
        samples.append("track %d %s %s timescale %d samples %d" %
                       (t.id, t.kind, t.codec, t.timescale, len(t.samples)))
        dts = 0
        jump = getattr(movie, "jump_of", lambda t, i: 0)
        for i, (s, d, pos, key, off) in enumerate(zip(t.samples, t.durations, where[t.id],
                                                      t.keys, t.offsets)):
            samples.append("%d %d %d %d %d %08x" % (dts + jump(t, i), len(s), pos, key, off,
                                                    zlib.crc32(s)))
            dts += d
        media_time, delay = -1, 0
        for d, m in t.edits or []:
            if m == -1:
                delay += d * t.timescale // movie.timescale
            else:
                media_time = m
                break
        st = t.stream
        streams.append("stream 0x%x %s %s width %s height %s rate %s channels %s duration %d "
                       "frames %d extradata %s config %s edit %d %d rotation 0 sar 1:1 "
                       "language und scheme %s%s" % (
                           t.id, t.kind, t.format, st["width"],
                           st["height"], st["rate"], st["channels"], t.media_duration(),
                           len(t.samples), st["extradata"], st["config"], media_time, delay,
                           st.get("scheme", "-"),
                           " fragments %d" % t.fragment_count
                           if getattr(t, "fragment_count", 0) else ""))
    return samples, streams


def compare(path, mine, theirs, what):
    """Prints each line where ffprobe's view differs; returns the differences."""
    a = [l for l in mine if not l.startswith("#")]
    b = [l for l in theirs if not l.startswith("#")]
    out = []
    for i in range(max(len(a), len(b))):
        x = a[i] if i < len(a) else "(none)"
        y = b[i] if i < len(b) else "(none)"
        if x != y:
            out.append((x, y))
    for x, y in out[:3]:
        sys.stderr.write("%s: %s: built  %s\n%s: %s: ffprobe %s\n" % (
            os.path.basename(path), what, x, os.path.basename(path), what, y))
    if len(out) > 3:
        sys.stderr.write("%s: %s: %d more differences\n" % (os.path.basename(path), what,
                                                            len(out) - 3))
    return out


def make(directory, name, movie, notes=(), stream_notes=(), check=True):
    """Writes the file and its listings; notes are '#' lines for known differences."""
    path = os.path.join(directory, name)
    where = movie.write(path)
    origin = ("hand-built: what an ISO/IEC 14496-12 reader gives" +
              (", checked with ffprobe" if check else ""))
    samples, streams = expected(movie, where, name, origin)
    samples[2:2] = ["# note: " + n for n in notes]
    streams[2:2] = ["# note: " + n for n in stream_notes]
    open(path + ".samples", "w").write("\n".join(samples) + "\n")
    open(path + ".streams", "w").write("\n".join(streams) + "\n")
    if not check:
        return
    theirs = modern_tool.samples_lines(path, name, strict=False)
    compare(path, samples, theirs, "samples")
    compare(path, streams, modern_tool.streams_lines(path, name), "streams")
    modern_tool.describe(path)


def protect(entry, name, scheme):
    """The sample entry renamed to name, with a "sinf" that keeps its format."""
    tenc = full("tenc", 0, 0, bytes(2), bytes([1, 8]), bytes(range(16)))
    sinf = box("sinf", box("frma", entry[4:8]), full("schm", 0, 0, scheme.encode(),
                                                      struct.pack(">I", 0x10000)),
               box("schi", tenc))
    body = entry[8:] + sinf
    return struct.pack(">I4s", 8 + len(body), name.encode()) + body


def claim(path, table, at, count):
    """Overwrites the count at offset at of the table's payload."""
    data = bytearray(open(path, "rb").read())
    node = next(a for a in walk(modern_tool.atoms(bytes(data))) if a.name == table.encode())
    struct.pack_into(">I", data, node.pos + node.head + at, count)
    open(path, "wb").write(bytes(data))


def walk(nodes):
    for n in nodes:
        yield n
        yield from walk(n.children)


def silence_donor():
    """AAC frames of silence (4 bytes each), made by FFmpeg in a scratch folder."""
    scratch = tempfile.mkdtemp()
    path = os.path.join(scratch, "silence.mp4")
    subprocess.check_call(["ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y", "-f",
                           "lavfi", "-i", "anullsrc=r=8000:cl=mono", "-t", "2", "-c:a", "aac",
                           "-b:a", "16k", "-fflags", "+bitexact", "-flags:a", "+bitexact",
                           "-map_metadata", "-1", "-threads", "1", path])
    open(path + ".samples", "w").write("\n".join(modern_tool.samples_lines(path)) + "\n")
    open(path + ".streams", "w").write("\n".join(modern_tool.streams_lines(path)) + "\n")
    donor = Donor(path, 1)
    shutil.rmtree(scratch)
    return donor


def text_track(tid, texts):
    """A timed-text ("tx3g") track of short samples: a 16-bit length and the text."""
    entry = box("tx3g", bytes(6), struct.pack(">H", 1), struct.pack(">IbbI", 0, 1, -1, 0),
                struct.pack(">hhhh", 0, 0, 0, 0),
                struct.pack(">HHHBBI", 0, 0, 1, 0, 18, 0xFFFFFFFF),
                box("ftab", struct.pack(">HHB", 1, 1, 5), b"Serif"))
    t = Track(tid)
    t.entry, t.timescale, t.handler, t.kind, t.codec = entry, 1000, "text", "other", "mov_text"
    t.samples = [struct.pack(">H", len(s)) + s.encode() for s in texts]
    t.durations = [100] * len(texts)
    t.offsets = [0] * len(texts)
    t.keys = [True] * len(texts)
    t.stream = {"width": "0", "height": "0", "rate": "0", "channels": "0",
                "extradata": "-", "config": "-"}
    return t


def main(directory):
    video = Donor(os.path.join(directory, "h264_aac.mp4"), 1)
    audio = Donor(os.path.join(directory, "h264_aac.mp4"), 2)
    opus = Donor(os.path.join(directory, "opus.mp4"), 1)
    tiny = Donor(os.path.join(directory, "timescale_1ghz.mp4"), 1)
    silence = silence_donor()

    def av(**kw):
        return [Track(1, video, **kw), Track(2, audio, **kw)]

    # Atoms no reader of the classic catalogue knows, in front of the tables
    # of both tracks (sample groups and dependency flags as encoders write
    # them, and a made-up name).
    sgpd = full("sgpd", 1, 0, b"roll", struct.pack(">IIh", 2, 1, -1))
    odd = box("qqqq", b"an atom nobody knows")
    tracks = av()
    for t in tracks:
        n = len(t.samples)
        sdtp = full("sdtp", 0, 0, bytes([0x10 if k else 0x20 for k in t.keys]))
        sbgp = full("sbgp", 0, 0, b"roll", struct.pack(">III", 1, n, 1))
        t.front = {"stbl": sdtp + sgpd + sbgp + odd, "minf": odd, "mdia": odd}
    make(directory, "unknown_before_tables.mp4", Movie(tracks))

    # In front of the tracks: an ISO "meta" (full atom, "hdlr" and "ilst"),
    # a "udta" and a made-up name; and one between the tracks.
    meta = full("meta", 0, 0, full("hdlr", 0, 0, struct.pack(">I4s12x", 0, b"mdir"), b"\0"),
                box("ilst", box("\xa9too", box("data", struct.pack(">II", 1, 0), b"builder"))))
    udta = box("udta", box("\xa9cmt", struct.pack(">HH", 5, 0x55C4), b"hello"))
    tracks = av()
    tracks[0].front = {"trak": box("zzzz", bytes(12))}
    make(directory, "unknown_before_tracks.mp4",
         Movie(tracks, moov_front=meta + udta + odd, between=box("xxxx", bytes(4)),
               top_front=box("free", bytes(8)) + box("wxyz", b"top level")))

    # "uuid" atoms (16-byte type behind the name) at the top level, in front
    # of the tracks, in front of a track's header and of its tables.
    kind = bytes.fromhex("be7acfcb97a942e89c71999491e3afac")
    tracks = av()
    for t in tracks:
        t.front = {"trak": uuid(kind, b"track"), "stbl": uuid(kind, b"tables")}
    make(directory, "uuid.mp4", Movie(tracks, top_front=uuid(kind, b"top level"),
                                      moov_front=uuid(kind, b"movie"),
                                      top_end=uuid(kind, b"end")))

    # The last top-level atom, "mdat", with size 0: it runs to the end of the file.
    make(directory, "size0_mdat.mp4", Movie(av(), mdat="size0"))

    # "stz2" with 4-, 8- and 16-bit sizes. 4 bits: AAC silence (4-byte
    # frames) beside timed text of 2 to 15 bytes, odd counts so that the
    # last byte holds one size and a zero pad.
    texts = ["", "a", "hello", "x" * 13, "bc", "defg", "hijklmn", "o" * 10, "p" * 12]
    t1 = Track(1, silence, count=11, sizes=4, per_chunk=4)
    t2 = text_track(2, texts)
    t2.sizes, t2.per_chunk = 4, 3
    make(directory, "stz2_4bit.mp4", Movie([t1, t2]),
         stream_notes=["ffprobe's duration_ts of the text track is the movie's duration "
                       "(1408 ms), not the 900 ticks of its \"stts\""])
    make(directory, "stz2_8bit.mp4", Movie([Track(1, opus, sizes=8, per_chunk=8)]))
    make(directory, "stz2_16bit.mp4", Movie(av(sizes=16)))

    # Leading empty edits: 300 + 200 ms before the video (then its B-frame
    # delay of 512 ticks), 250 ms before the audio; movie timescale 1000.
    tracks = av()
    vd = sum(video.durations) * 1000 // video.timescale
    ad = sum(audio.durations) * 1000 // audio.timescale
    tracks[0].edits = [(300, -1), (200, -1), (vd, 512)]
    tracks[1].edits = [(250, -1), (ad, 1024)]
    make(directory, "edit_empty.mp4", Movie(tracks))

    # "ctts" version 1: the video's offsets less 512, so that some are
    # negative (composition before decoding), as -movflags
    # negative_cts_offsets writes them; the edit starts at 0.
    v = Track(1, video, ctts_version=1)
    v.offsets = [o - 512 for o in v.offsets]
    v.edits = [(sum(video.durations) * 1000 // video.timescale, 0)]
    make(directory, "ctts_v1_negative.mp4", Movie([v]),
         notes=["ffprobe's pts - dts is the \"ctts\" offset plus 512: FFmpeg shifts decoding "
                "times by the most negative offset"])

    # Version-1 "mvhd", "tkhd", "mdhd" and "elst" with small values.
    tracks = av(v1=True, edits_v1=True)
    tracks[0].edits = [(sum(video.durations) * 1000 // video.timescale, 512)]
    tracks[1].edits = [(sum(audio.durations) * 1000 // audio.timescale, 1024)]
    make(directory, "v1_headers.mp4", Movie(tracks, v1=True))

    # "co64" chunk offsets and a 64-bit "mdat" size (size field 1) in a small file.
    make(directory, "co64_large_mdat.mp4", Movie(av(co64=True), mdat="large"))

    # Protected sample entries ("encv", "enca") with "sinf": "frma" names the
    # original format, "schm" the scheme ("cenc"), "schi" holds a "tenc".
    # The samples are stored as they are (this file's bytes are not
    # encrypted, and it has no "senc"): a reader gives them unchanged.
    tracks = av()
    for t, protected in zip(tracks, ("encv", "enca")):
        t.entry = protect(t.entry, protected, "cenc")
        t.stream["scheme"] = "cenc"
    make(directory, "encrypted_cenc.mp4", Movie(tracks))

    # Fragmented files, run by run: the combinations of "tfhd" and "trun"
    # flags that FFmpeg does not write.
    # Explicit base data offsets ("tfhd"), two runs per video track fragment
    # with no data offsets (each follows the data before it), no "tfdt"
    # (times go on from the fragment before), a sample description index;
    # the video's duration and the AAC silence's size, duration and flags as
    # "tfhd" defaults, so that the audio runs carry no per-sample field;
    # "styp" in front of the fragments and "free", "emsg", "prft" between.
    between = (box("free", bytes(4)) +
               full("emsg", 0, 0, b"urn:mp4core:test\0", b"1\0", struct.pack(">IIII", 1000, 0, 0, 1)) +
               full("prft", 0, 0, struct.pack(">IQI", 1, 0, 0)))
    explicit = dict(base="explicit", tfdt=False, description_index=True,
        fields={1: {"size", "flags", "cto"}, 2: set()},
        tfhd={1: {"duration": 512}, 2: {"duration": 1024, "size": 4, "flags": SYNC_FLAGS}},
        top_front=box("styp", b"msdh", bytes(4), b"msdhmsix"), between=between)
    make(directory, "frag_explicit_base.mp4", Fragmented(
        [Track(1, video), Track(2, silence, count=20)], {1: 6, 2: 5}, **explicit))
    # The same with two runs in each video track fragment, the second
    # without a data offset: it follows the first one's data.
    make(directory, "frag_runs_follow.mp4", Fragmented(
        [Track(1, video), Track(2, silence, count=20)], {1: 6, 2: 5}, runs={1: 2}, **explicit),
         notes=["FFmpeg 5.1 puts a run without a data offset at its track fragment's base, "
                "ISO/IEC 14496-12 behind the data of the run before: from each second video "
                "run on, ffprobe gives other positions (and reads other bytes)"])

    # Implicit bases: only the first run of each "moof" has a data offset,
    # every later run and track fragment follows the data before it; the
    # "trex" defaults (video: non-sync flags and duration; audio: sync flags
    # and duration) with the video's key frames in first_sample_flags;
    # "tfdt" version 1.
    make(directory, "frag_implicit_base.mp4", Fragmented(
        av(), {1: 12, 2: 21}, base="implicit", tfdt_v1=True, first_flags={1},
        fields={1: {"size", "cto"}, 2: {"size"}},
        trex={1: {"duration": 512, "flags": NON_SYNC_FLAGS},
              2: {"duration": 1024, "flags": SYNC_FLAGS}}))

    # Samples in both the "stbl" (the first 7 and 12) and the fragments;
    # "trun" version 1 with negative composition offsets (the fragments'
    # video offsets less 512), default-base-is-moof, "mehd".
    tracks = av()
    tracks[0].offsets[7:] = [o - 512 for o in tracks[0].offsets[7:]]
    make(directory, "frag_stored_and_trun_v1.mp4", Fragmented(
        tracks, {1: 6, 2: 11}, stored={1: 7, 2: 12}, trun_version=1, mehd=1000),
         notes=["ffprobe's pts - dts is the composition offset plus 512: FFmpeg shifts "
                "decoding times by the most negative offset"])

    # Decoding times past 2^32 that jump: the 1 GHz donor in fragments of 4
    # samples whose "tfdt" (version 1) leaps 2^33 ticks ahead twice.
    make(directory, "frag_time_jumps.mp4", Fragmented(
        [Track(1, tiny)], {1: 4}, tfdt_v1=True, jumps={1: 1 << 33, 2: 1 << 33}),
         stream_notes=["ffprobe's duration_ts is where the last sample ends (23179869184), "
                       "the duration here the sum of the sample durations"])

    # Files of about 1 KB whose tables claim 10^9 entries: a reader must
    # fail them with a code in milliseconds, allocating nothing for the
    # claim. No listings.
    for name, movie in (("claims_trun_count.mp4", Fragmented([Track(1, tiny, count=3)], {1: 3})),
                        ("claims_trun_defaults_count.mp4", Fragmented(
                            [Track(1, silence, count=3)], {1: 3}, fields={1: set()},
                            tfhd={1: {"duration": 1024, "size": 4, "flags": SYNC_FLAGS}}))):
        path = os.path.join(directory, name)
        movie.write(path)
        claim(path, "trun", 4, 10 ** 9)
        print("%s: %d bytes, \"trun\" claims 10^9 samples" % (name, os.path.getsize(path)))
    for table, at in (("stz2", 8), ("co64", 4), ("ctts", 4)):
        name = "claims_%s_count.mp4" % table
        t = Track(1, tiny, count=3, sizes=16 if table == "stz2" else "stsz",
                  co64=table == "co64")
        path = os.path.join(directory, name)
        Movie([t]).write(path)
        claim(path, table, at, 10 ** 9)
        print("%s: %d bytes, \"%s\" claims 10^9 entries" % (name, os.path.getsize(path), table))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__)))
