"""Atoms for the fixture scripts of tests/data: writing them with their sizes
filled in (box, full, and the bracket notation of the .rows files), reading
the atom tree of a file, and ffprobe's streams and packets."""
import ast
import json
import re
import struct
import subprocess

# Atoms whose payload is a sequence of atoms.
CONTAINERS = {b"moov", b"trak", b"mdia", b"minf", b"stbl", b"edts", b"dinf", b"udta",
              b"mvex", b"moof", b"traf", b"mfra", b"sinf", b"schi", b"wave", b"ilst",
              b"tref", b"gmhd"}


def box(name, *parts):
    payload = b"".join(parts)
    return struct.pack(">I4s", 8 + len(payload), name.encode("latin-1")) + payload


def full(name, version, flags, *parts):
    return box(name, struct.pack(">I", version << 24 | flags), *parts)


def tokens(text):
    return re.findall(r'"(?:[^"\\]|\\.)*"|[\[\]]|[^\s\[\]"]+', text)


def encode(toks):
    """The bytes a list of tokens of the .rows notation stands for, up to an
    unmatched "]": [NAME ...] an atom, [NAME/VERSION/FLAGS ...] a full atom,
    "text", u32:N (u8, u16, u64; i16, i32 signed), hex bytes (HEX*N: N times)."""
    out = b""
    while toks and toks[0] != "]":
        tok = toks.pop(0)
        if tok == "[":
            name, *vf = toks.pop(0).split("/")
            body = encode(toks)
            toks.pop(0)
            out += full(name, int(vf[0]), int(vf[1], 0), body) if vf else box(name, body)
        elif tok.startswith('"'):
            out += ast.literal_eval(tok).encode("latin-1")
        elif ":" in tok:
            kind, value = tok.split(":")
            out += int(value, 0).to_bytes(int(kind[1:]) // 8, "big", signed=kind[0] == "i")
        else:
            hexes, _, times = tok.partition("*")
            out += bytes.fromhex(hexes) * int(times or 1)
    return out


class Atom:
    def __init__(self, name, pos, size, head):
        self.name, self.pos, self.size, self.head = name, pos, size, head
        self.children, self.cut = [], False

    def body(self, data):
        return data[self.pos + self.head:self.pos + self.size]

    def find(self, *path):
        """The first descendant along path (names as str), or None."""
        node = self
        for name in path:
            node = next((c for c in node.children if c.name == name.encode()), None)
            if node is None:
                return None
        return node

    def all(self, name):
        return [c for c in self.children if c.name == name.encode()]


def parse(data, start, end, depth=0):
    out, pos = [], start
    while pos + 8 <= end:
        size, name = struct.unpack(">I4s", data[pos:pos + 8])
        head = 8
        if size == 1:
            size, head = struct.unpack(">Q", data[pos + 8:pos + 16])[0], 16
        elif size == 0:
            size = end - pos
        atom = Atom(name, pos, size, head)
        # A top-level atom cut by the end of the file: kept, without children.
        atom.cut = depth == 0 and size >= head and pos + size > end
        if size < head or (pos + size > end and not atom.cut):
            raise SystemExit("bad size %d of %r at %d" % (size, name, pos))
        out.append(atom)
        if atom.cut:
            break
        atom.head += 16 if name == b"uuid" else 0  # the 16-byte type
        body = pos + head
        if depth < 16 and name in CONTAINERS:
            atom.children = parse(data, body, pos + size, depth + 1)
        elif depth < 16 and name == b"meta":
            # ISO "meta" is a full atom; QuickTime's starts with its "hdlr".
            skip = 0 if data[body + 4:body + 8] == b"hdlr" else 4
            atom.children = parse(data, body + skip, pos + size, depth + 1)
        pos += size
    return out


def atoms(data):
    """The atom tree; the sample entries of each "stsd" below it, with their
    atoms behind the fixed fields of the track's handler."""
    top = parse(data, 0, len(data))
    for trak in (t for m in top if m.name == b"moov" for t in m.all("trak")):
        hdlr, stsd = trak.find("mdia", "hdlr"), trak.find("mdia", "minf", "stbl", "stsd")
        if hdlr is None or stsd is None:
            continue
        handler = hdlr.body(data)[8:12]
        pos, end = stsd.pos + stsd.head + 8, stsd.pos + stsd.size
        while pos + 8 <= end:
            size, name = struct.unpack(">I4s", data[pos:pos + 8])
            entry = Atom(name, pos, size, 8)
            fields = 78 if handler == b"vide" else \
                28 + {1: 16, 2: 36}.get(struct.unpack(">H", data[pos + 16:pos + 18])[0], 0)
            if handler in (b"vide", b"soun"):
                entry.children = parse(data, pos + 8 + fields, pos + size, 8)
            stsd.children.append(entry)
            pos += max(size, 8)
    return top


def walk(nodes):
    for n in nodes:
        yield n
        yield from walk(n.children)


def ffprobe(path, *what):
    cmd = ["ffprobe", "-v", "error", "-ignore_editlist", "1", "-of", "json", *what, path]
    return json.loads(subprocess.check_output(cmd))


def probe(path, packets_of=None):
    """ffprobe's streams of path, and the packets of each stream (of
    packets_of if given) in decoding order, with their CRC-32."""
    streams = ffprobe(path, "-show_streams", "-show_data")["streams"]
    packets = ffprobe(packets_of or path, "-show_packets", "-show_data_hash", "CRC32")["packets"]
    return [(s, sorted((p for p in packets if p["stream_index"] == s["index"]),
                       key=lambda p: int(p["dts"]))) for s in streams]
