#!/usr/bin/env python3
"""Writes the hand-built files a .rows file describes (its head says how),
atom by atom, with the listings a reader that follows ISO/IEC 14496-12 must
give (NAME.samples, NAME.streams), then compares them with ffprobe's.

  build_fixtures.py ROWS DIR
"""
import copy
import itertools
import os
import random
import struct
import subprocess
import sys
import zlib

sys.dont_write_bytecode = True  # nothing written beside the sources
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import fixture_tool as tool  # noqa: E402
from mp4atoms import atoms, box, encode, full, tokens, walk  # noqa: E402

IDENTITY = struct.pack(">9I", 0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000)
# Sample flags as FFmpeg writes them: a sync sample depends on no other;
# any other sample depends on others and is not a sync sample.
SYNC_FLAGS, NON_SYNC_FLAGS = 0x02000000, 0x01010000
FIELDS = ("duration", "size", "flags", "cto")
FFMPEG = ["ffmpeg", "-hide_banner", "-nostdin", "-v", "error", "-y"]


def read_rows(path):
    """[{"file": [NAME, KIND], "tracks": [{KEYWORD: tokens}], "note": [TEXT], KEYWORD: tokens}]"""
    files = []
    for key, _, rest in (line.strip().partition(" ") for line in open(path, encoding="utf-8")):
        if key in ("file", "track"):
            target = {key: tokens(rest), "tracks": [], "note": [], "stream-note": []}
            (files if key == "file" else files[-1]["tracks"]).append(target)
        elif key in ("note", "stream-note"):
            files[-1][key].append(rest)
        elif key and key[0] != "#":
            target[key] = tokens(rest)
    return files


def number(o, key, default=0, at=0):
    return int(o[key][at], 0) if len(o.get(key, ())) > at else default


def named(o, key):
    return {k: int(v, 0) for k, v in (x.split("=") for x in o.get(key, []))}


def donor(path, tid):
    """A track of an FFmpeg file: its sample entry, its samples where its listing says."""
    data = open(path, "rb").read()
    moov = next(a for a in atoms(data) if a.name == b"moov")
    info, trak = next((t, a) for t, a in zip(tool.tracks(data), moov.all("trak")) if t.id == tid)
    e = trak.find("mdia", "minf", "stbl", "stsd").children[0]
    block = next(b for b in open(path + ".samples").read().split("\ntrack ")[1:]
                 if b.split()[0] == str(tid)).split("\n")  # the track's lines of the listing
    codec, lines = block[0].split()[2], [x.split() for x in block[1:] if x[:1].isdigit()]
    dts = [int(f[0]) for f in lines]
    stream = next(x for x in open(path + ".streams") if x.startswith("stream 0x%x " % tid)).split()
    return dict(entry=data[e.pos:e.pos + e.size], timescale=info.timescale,
                handler=info.handler.decode(), kind=stream[2], codec=codec,
                samples=[data[int(f[2]):int(f[2]) + int(f[1])] for f in lines],
                durations=[b - a for a, b in zip(dts, dts[1:])] + [info.duration - dts[-1]],
                offsets=[int(f[4]) for f in lines], keys=[f[3] == "1" for f in lines],
                stream=dict(zip(stream[4::2], stream[5::2])))


def source(args, o, folder, cache):
    """The samples and facts of a track's source (the rows' head lists them)."""
    if ":" in args[0]:
        if args[0] not in cache:
            cache[args[0]] = donor(os.path.join(folder, args[0].split(":")[0]),
                                   int(args[0].split(":")[1]))
        return cache[args[0]]
    if args[0] == "frames":
        samples = [bytes.fromhex(args[1])] * number(o, "count")
    elif args[0] == "text":  # a 16-bit length and the text
        samples = [struct.pack(">H", len(b)) + b for b in (encode([x]) for x in args[1:])]
    elif args[0] == "pcm":
        data = subprocess.check_output(FFMPEG + ["-i", os.path.join(folder, args[1]), "-map", "0:a:"
                                                 + args[2], "-c", "copy", "-f", args[3], "-"])
        samples = [data[i:i + int(args[4])] for i in range(0, len(data), int(args[4]))]
    else:  # amr SEED MODE BYTES: a storage-format header byte and seeded random bits
        rng, mode, payload = random.Random(int(args[1])), int(args[2]), int(args[3])
        samples = [bytes([mode << 3 | 4]) + bytes(rng.getrandbits(8) for _ in range(payload))
                   for _ in range(number(o, "count"))]
    handler, kind, codec, timescale = o["media"]
    return dict(entry=b"", timescale=int(timescale), handler=handler, kind=kind, codec=codec,
                samples=samples, durations=[number(o, "duration", 1)] * len(samples),
                offsets=[0] * len(samples), keys=[True] * len(samples),
                stream=dict(dict(width=0, height=0, rate=0, channels=0, extradata="-", config="-"),
                            **dict(x.split("=") for x in o.get("stream", []))))


class Track:
    """A track to write: its samples and facts, and how its atoms hold them (o: its row)."""

    def __init__(self, o, folder, cache):
        self.o, self.id, self.fragment_count, self.jump = o, int(o["track"][0]), 0, {}
        src = source(o["track"][1:], o, folder, cache)
        n = number(o, "count", len(src["samples"]))
        self.entry, self.timescale, self.handler = src["entry"], src["timescale"], src["handler"]
        self.kind, self.codec, self.stream = src["kind"], src["codec"], dict(src["stream"])
        self.samples, self.durations, self.offsets, self.keys = (
            src[k][:n] for k in ("samples", "durations", "offsets", "keys"))
        self.chunk, self.per, self.stored = (number(o, k, d) for k, d in (
            ("chunk", 5), ("per", 0), ("stored", 0)))
        self.edits = [(sum(self.durations) * 1000 // self.timescale if d == "*" else int(d), int(m))
                      for d, m in (e.split(":") for e in o.get("edits", []))]
        start = number(o, "cto", at=1)
        self.offsets[start:] = [x + number(o, "cto") for x in self.offsets[start:]]
        if "entry" in o:
            name, keep, *items = o["entry"]
            self.entry = box(name, self.entry[8:] if keep == "*" else self.entry[8:8 + int(keep)],
                             encode(items))
        at, sat = self.entry.find(b"frma"), self.entry.find(b"schm")  # a protected entry
        self.format = (self.entry[at + 4:at + 8] if at > 0 else self.entry[4:8]).decode("latin-1")
        self.scheme = self.entry[sat + 8:sat + 12].decode() if sat > 0 else "-"
        self.fields, self.tfhd = set(o.get("fields", FIELDS)), named(o, "tfhd")
        self.trex = named(o, "trex")

    def default(self, name):
        return self.tfhd.get(name, self.trex.get(name, 0))

    def front(self, where):
        return encode(self.o.get(where + "-front", []))


def table(name, rows, form, version=0):
    return full(name, version, 0, struct.pack(">I", len(rows)),
                b"".join(struct.pack(form, *r) for r in rows))


def runs(values):
    return [(len(list(g)), v) for v, g in itertools.groupby(values)]


def stbl(t, offsets):
    n, sizes, bits, v1 = len(t.samples), [len(s) for s in t.samples], number(t.o, "stz2"), \
        int("ctts-v1" in t.o)
    second = number(t.o, "second-entry")  # the chunk from which a copy of the entry serves
    entry = [1 if second == 0 or i + 1 < second else 2 for i in range((n + t.chunk - 1) // t.chunk)]
    parts = [t.front("stbl"), full("stsd", 0, 0, struct.pack(">I", max(entry, default=1)),
                                   t.entry * max(entry, default=1)),
             table("stts", runs(t.durations), ">II")]
    parts += [table("ctts", runs(t.offsets), ">Ii" if v1 else ">II", v1)] if any(t.offsets) else []
    parts += [] if all(t.keys) else [table("stss", [(i + 1,) for i, k in enumerate(t.keys) if k],
                                           ">I")]
    chunks = [len(t.samples[i:i + t.chunk]) for i in range(0, n, t.chunk)]
    parts.append(table("stsc", [(i + 1, c, entry[i]) for i, c in enumerate(chunks)
                                if i == 0 or (chunks[i - 1], entry[i - 1]) != (c, entry[i])], ">III"))
    if bits == 0:
        parts.append(full("stsz", 0, 0, struct.pack(">II", 0, n),
                          b"".join(struct.pack(">I", s) for s in sizes)))
    else:  # 4 bits: two sizes a byte, high nibble first, a zero pad behind an odd count
        assert max(sizes) < (1 << bits), (bits, max(sizes))
        padded = sizes + [0] * (n % 2)
        packed = bytes(padded[i] << 4 | padded[i + 1] for i in range(0, len(padded), 2)) \
            if bits == 4 else b"".join(s.to_bytes(bits // 8, "big") for s in sizes)
        parts.append(full("stz2", 0, 0, struct.pack(">II", bits, n), packed))
    co64 = "co64" in t.o
    parts.append(table("co64" if co64 else "stco", [(o,) for o in offsets], ">Q" if co64 else ">I"))
    return box("stbl", *parts)


def trak(t, offsets, timescale):
    media, v, ev = sum(t.durations), int("v1" in t.o), int("elst-v1" in t.o)
    movie = sum(d for d, _ in t.edits) if t.edits else media * timescale // t.timescale
    width, height = (int(t.stream[k]) if t.kind == "video" else 0 for k in ("width", "height"))
    tkhd = full("tkhd", v, 3, struct.pack(">QQIIQ" if v else ">IIIII", 0, 0, t.id, 0, movie),
                struct.pack(">8xhhH2x", 0, 0, 0x100 if t.kind == "audio" else 0),
                IDENTITY, struct.pack(">II", width << 16, height << 16))
    mdhd = full("mdhd", v, 0, struct.pack(">QQIQHH" if v else ">IIIIHH", 0, 0, t.timescale, media,
                                          0x55C4, 0))
    hdlr = full("hdlr", 0, 0, struct.pack(">I4s12x", 0, t.handler.encode()), b"Handler\0")
    head = {"vide": full("vmhd", 0, 1, bytes(8)), "soun": full("smhd", 0, 0, bytes(4))}.get(
        t.handler, full("nmhd", 0, 0))
    dinf = box("dinf", full("dref", 0, 0, struct.pack(">I", 1), full("url ", 0, 1)))
    minf = box("minf", t.front("minf"), head, dinf, stbl(t, offsets))
    edts = box("edts", table("elst", [(d, m, 0x10000) for d, m in t.edits],
                             ">QqI" if ev else ">IiI", ev)) if t.edits else b""
    return box("trak", t.front("trak"), tkhd, edts, box("mdia", t.front("mdia"), mdhd, hdlr, minf))


class Movie:
    """A file (o: its row): "moov", the tracks' chunks in turn in one "mdat"
    (fragmented: only the first `stored` samples of each), then fragments."""

    def __init__(self, o, tracks):
        self.o, self.tracks, self.timescale = o, tracks, 1000
        self.fragmented = "fragments" in o["file"]
        self.hole_at, self.hole = number(o, "hole", -1), number(o, "hole", 0, 1)

    def atoms(self, key):
        return encode(self.o.get(key, []))

    def moov(self, tracks, offsets, mvex):
        duration = max(sum(d for d, _ in t.edits) if t.edits else
                       sum(t.durations) * self.timescale // t.timescale for t in tracks)
        v = int("v1" in self.o)
        mvhd = full("mvhd", v, 0, struct.pack(">QQIQ" if v else ">IIII", 0, 0, self.timescale,
                                              duration),
                    struct.pack(">IH10x", 0x10000, 0x100), IDENTITY, bytes(24),
                    struct.pack(">I", max(t.id for t in tracks) + 1))
        traks = [trak(t, offsets[t.id], self.timescale) for t in tracks]
        return box("moov", mvhd, self.atoms("moov-front"), self.atoms("between-tracks").join(traks),
                   mvex)

    def write(self, path):
        """Writes the file; returns, per track ID, the offset of each sample."""
        frag, tracks, mvex, mdat = self.fragmented, self.tracks, b"", self.o.get("mdat", [""])[0]
        ftyp = box("ftyp", b"iso6" if frag else b"isom", struct.pack(">I", 512),
                   b"iso6isomavc1mp41" if frag else b"isomiso2avc1mp41")
        if frag:
            tracks = [copy.copy(t) for t in self.tracks]
            for st in tracks:
                st.samples, st.durations, st.offsets, st.keys = (
                    x[:st.stored] for x in (st.samples, st.durations, st.offsets, st.keys))
                st.chunk = max(st.stored, 1)
            mehd = number(self.o, "mehd", -1)
            mvex = box("mvex", full("mehd", 1, 0, struct.pack(">Q", mehd)) if mehd >= 0 else b"",
                       *(full("trex", 0, 0, struct.pack(">5I", t.id, 1, *(
                           t.trex.get(name, 0) for name in FIELDS[:3]))) for t in tracks))
        rounds = max(-(-len(t.samples) // t.chunk) for t in tracks)
        order = [(t, c) for r in range(rounds) for t in tracks
                 for c in [t.samples[r * t.chunk:(r + 1) * t.chunk]] if c]
        dummy = {t.id: [0] * -(-len(t.samples) // t.chunk) for t in tracks}
        base = pos = len(ftyp) + len(self.atoms("top-front")) + \
            len(self.moov(tracks, dummy, mvex)) + (16 if mdat == "large" else 8)
        hole_at = -1 if frag else self.hole_at  # in front of chunk hole_at
        offsets, where = {t.id: [] for t in tracks}, {t.id: [] for t in tracks}
        for i, (t, chunk) in enumerate(order):
            pos += self.hole if i == hole_at else 0
            offsets[t.id].append(pos)
            where[t.id] += itertools.accumulate([pos] + [len(s) for s in chunk[:-1]])
            pos += sum(len(s) for s in chunk)
        with open(path, "wb") as f:
            f.write(ftyp + self.atoms("top-front") + self.moov(tracks, offsets, mvex) + (
                struct.pack(">I4sQ", 1, b"mdat", pos - base + 16) if mdat == "large" else
                struct.pack(">I4s", 0 if mdat == "size0" else pos - base + 8, b"mdat")))
            for i, (t, chunk) in enumerate(order):
                f.seek(self.hole if i == hole_at else 0, os.SEEK_CUR)  # never written: sparse
                f.write(b"".join(chunk))
            f.write(b"" if mdat == "size0" else self.atoms("top-end"))
            if frag:
                self.write_fragments(f, where)
        return where

    def write_fragments(self, f, where):
        for t in self.tracks:
            t.flags = [SYNC_FLAGS if k else NON_SYNC_FLAGS for k in t.keys]
        for k in itertools.count():
            parts = [(t, a, c) for t in self.tracks for a in [t.stored + k * t.per]
                     for c in [min(t.per, len(t.samples) - a)] if c > 0]
            if not parts:
                return
            f.write(self.atoms("between-fragments") if k > 0 else b"")
            if k == self.hole_at:  # a "free" with a 64-bit size whose body is never written
                f.write(struct.pack(">I4sQ", 1, b"free", 16 + self.hole))
                f.seek(self.hole, os.SEEK_CUR)
            moof_at = f.tell()

            def moof(data_at):
                trafs = []
                for j, (t, a, c) in enumerate(parts):
                    trafs.append(self.traf(t, a, c, k, data_at, moof_at, j == 0))
                    data_at += sum(len(x) for x in t.samples[a:a + c])
                return box("moof", full("mfhd", 0, 0, struct.pack(">I", k + 1)), *trafs)

            data_at = moof_at + len(moof(0)) + 8  # fixed widths: the size of "moof" comes first
            f.write(moof(data_at))
            f.write(box("mdat", *(x for t, a, c in parts for x in t.samples[a:a + c])))
            for t, a, c in parts:
                t.fragment_count += 1
                where[t.id] += itertools.accumulate([data_at] + [len(x) for x in
                                                                 t.samples[a:a + c - 1]])
                data_at += sum(len(x) for x in t.samples[a:a + c])

    def traf(self, t, first, count, k, data_at, moof_at, first_traf):
        """The "traf" of count samples of t from `first`, whose data starts at
        data_at; the samples take the values the file gives them."""
        base, tv1, rv1 = self.o.get("base", ["moof"])[0], "tfdt-v1" in self.o, "trun-v1" in self.o
        heads = [(0x1, ">Q", data_at)] if base == "explicit" else []
        heads += [(0x2, ">I", 1)] if "description-index" in self.o else []
        heads += [(bit, ">I", t.tfhd[name]) for bit, name in zip((0x8, 0x10, 0x20), FIELDS)
                  if name in t.tfhd]
        flags = sum(bit for bit, _, _ in heads) | (0x020000 if base == "moof" else 0)
        parts = [full("tfhd", 0, flags, struct.pack(">I", t.id),
                      *(struct.pack(form, v) for _, form, v in heads))]
        tfdt = "no-tfdt" not in self.o
        jump = sum(named(self.o, "jumps").get(str(j), 0) for j in range(k + 1)) if tfdt else 0
        for i in range(first, first + count):  # what the fields leave out takes the defaults
            assert "size" in t.fields or len(t.samples[i]) == t.default("size")
            t.durations[i] = t.durations[i] if "duration" in t.fields else t.default("duration")
            t.offsets[i], t.jump[i] = t.offsets[i] if "cto" in t.fields else 0, jump
        time = sum(t.durations[:first]) + jump
        if tfdt:
            parts.append(full("tfdt", int(tv1), 0, struct.pack(">Q" if tv1 else ">I", time)))
        size, at, first_flags = -(-count // number(t.o, "runs", 1)), data_at, "first-flags" in t.o
        for a in range(first, first + count, size):
            b = min(a + size, first + count)
            heads = [(0x1, ">i", at - moof_at)] if base == "moof" or (
                base == "implicit" and first_traf and a == first) else []
            heads += [(0x4, ">I", t.flags[a])] if first_flags else []
            rflags = sum(bit for bit, _, _ in heads) + sum(
                bit for bit, name in zip((0x100, 0x200, 0x400, 0x800), FIELDS) if name in t.fields)
            rows = b""
            for i in range(a, b):
                if "flags" not in t.fields and not (i == a and first_flags):
                    t.flags[i] = t.default("flags")
                t.keys[i] = not t.flags[i] & 0x10000
                rows += b"".join(struct.pack(form, value) for name, form, value in zip(
                    FIELDS, (">I", ">I", ">I", ">i" if rv1 else ">I"),
                    (t.durations[i], len(t.samples[i]), t.flags[i], t.offsets[i]))
                    if name in t.fields)
            parts.append(full("trun", int(rv1), rflags, struct.pack(">I", b - a),
                              *(struct.pack(form, v) for _, form, v in heads), rows))
            at += sum(len(x) for x in t.samples[a:b])
        return box("traf", *parts)


def expected(movie, where, name, origin, o):
    samples = ["# expected samples of %s" % name, "# " + origin] + \
        ["# note: " + n for n in o["note"]] + tool.SAMPLES_HEAD
    streams = ["# expected track facts of %s" % name, "# " + origin] + \
        ["# note: " + n for n in o["stream-note"]] + [tool.STREAMS_HEAD]
    for t in movie.tracks:
        samples.append("track %d %s %s timescale %d samples %d" %
                       (t.id, t.kind, t.codec, t.timescale, len(t.samples)))
        dts = 0
        for i, (s, d, pos, key, off) in enumerate(zip(t.samples, t.durations, where[t.id],
                                                      t.keys, t.offsets)):
            samples.append("%d %d %d %d %d %08x" % (dts + t.jump.get(i, 0), len(s), pos, key, off,
                                                    zlib.crc32(s)))
            dts += d
        empty = list(itertools.takewhile(lambda e: e[1] == -1, t.edits))
        media_time = t.edits[len(empty)][1] if len(empty) < len(t.edits) else -1
        st = t.stream
        streams.append(tool.STREAM % (
            "0x%x" % t.id, t.kind, t.format, st["width"], st["height"], st["rate"], st["channels"],
            sum(t.durations), len(t.samples), st["extradata"], st["config"], media_time,
            sum(d * t.timescale // movie.timescale for d, _ in empty), 0, "1:1", "und", t.scheme) +
            (" fragments %d" % t.fragment_count if t.fragment_count else ""))
    return samples, streams


def compare(path, mine, theirs, what):
    """Notes the lines where ffprobe's view differs: the first three, and how many."""
    a, b = ([line for line in x if not line.startswith("#")] for x in (mine, theirs))
    out = ["%s: built %s; ffprobe %s" % (what, x, y)
           for x, y in itertools.zip_longest(a, b, fillvalue="(none)") if x != y]
    for text in out[:3] + (["%s: %d lines differ" % (what, len(out))] if len(out) > 3 else []):
        tool.note(path, text)


def make(directory, o, movie):
    """Writes the file, then its listings or the claim that the rows ask for."""
    name = o["file"][0]
    path = os.path.join(directory, name)
    where = movie.write(path)
    if "claim" in o:
        data, atom, at, count = bytearray(open(path, "rb").read()), *o["claim"]
        node = next(a for a in walk(atoms(bytes(data))) if a.name == atom.encode())
        struct.pack_into(">I", data, node.pos + node.head + int(at), int(count))
        open(path, "wb").write(bytes(data))
        print("%s: %d bytes, \"%s\" claims %s entries" % (name, len(data), atom, count))
        return
    listings = o.get("listings", ["checked"])[0]
    if listings == "none":
        return
    origin = ", checked with ffprobe" if listings == "checked" else ""
    samples, streams = expected(movie, where, name, "hand-built: what an ISO/IEC 14496-12 reader "
                                "gives" + origin, o)
    open(path + ".samples", "w").write("\n".join(samples) + "\n")
    open(path + ".streams", "w").write("\n".join(streams) + "\n")
    if listings == "checked":
        compare(path, samples, tool.samples_lines(path, strict=False), "samples")
        compare(path, streams, tool.streams_lines(path), "streams")


def build(rows, directory):
    folder, cache = os.path.dirname(os.path.abspath(rows)), {}
    for o in read_rows(rows):
        make(directory, o, Movie(o, [Track(t, folder, cache) for t in o["tracks"]]))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    build(sys.argv[1], sys.argv[2])
