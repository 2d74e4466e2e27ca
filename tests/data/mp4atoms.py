"""Atoms for the fixture scripts of tests/data: written with their sizes
filled in (box, full, and the notation of the .rows files), read back as a
tree (with the sample entries of each "stsd"), and ffprobe's view."""
import ast
import json
import re
import struct
import subprocess

# Atoms whose payload is a sequence of atoms.
CONTAINERS = {b"moov", b"trak", b"mdia", b"minf", b"stbl", b"edts", b"dinf", b"udta",
              b"mvex", b"moof", b"traf", b"mfra", b"sinf", b"schi", b"wave", b"ilst",
              b"tref", b"gmhd", b"meta"}


def box(name, *parts):
    payload = b"".join(parts)
    return struct.pack(">I4s", 8 + len(payload), name.encode("latin-1")) + payload


def full(name, version, flags, *parts):
    return box(name, struct.pack(">I", version << 24 | flags), *parts)


def tokens(text):
    return re.findall(r'"(?:[^"\\]|\\.)*"|[\[\]]|[^\s\[\]"]+', text)


def encode(toks, top=True):
    """The bytes of tokens of the .rows notation (fixtures.rows says it), up to an unmatched "]"."""
    out, toks = b"", list(toks) if top else toks
    while toks and toks[0] != "]":
        tok = toks.pop(0)
        if tok == "[":
            name, *vf = toks.pop(0).split("/")
            body = encode(toks, False)
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
    def __init__(self, name, pos, size, head, cut=False):
        self.name, self.pos, self.size, self.head, self.cut = name, pos, size, head, cut
        self.children = []

    def body(self, data):
        return data[self.pos + self.head:self.pos + self.size]

    def find(self, *path):  # the first descendant along path (names as str), or None
        node = self
        for name in path:
            node = node and next((c for c in node.children if c.name == name.encode()), None)
        return node

    def get(self, data, *path):  # its payload
        node = self.find(*path)
        return node.body(data) if node else None

    def all(self, name):
        return [c for c in self.children if c.name == name.encode()]


def atoms(data, start=0, end=None, depth=0, parent=b"", handler=b""):
    """The atom tree. A top-level atom cut by the end of the file is kept,
    without children. The sample entries of an "stsd" are its children,
    with their atoms behind the fixed fields of the track's handler."""
    out, pos, end = [], start, len(data) if end is None else end
    while pos + 8 <= end:
        size, name = struct.unpack(">I4s", data[pos:pos + 8])
        head = 16 if size == 1 else 8
        size = struct.unpack_from(">Q", data, pos + 8)[0] if size == 1 else \
            end - pos if size == 0 else size
        atom = Atom(name, pos, size, head, depth == 0 and size >= head and pos + size > end)
        if size < head or (pos + size > end and not atom.cut):
            raise SystemExit("bad size %d of %r at %d" % (size, name, pos))
        out.append(atom)
        body = pos + head
        handler = data[body + 8:body + 12] if name == b"hdlr" and parent == b"mdia" else handler
        atom.head += 16 if name == b"uuid" else 0  # the 16-byte type
        if parent == b"stsd" and handler in (b"vide", b"soun") and depth < 16:
            version = struct.unpack(">H", data[pos + 16:pos + 18])[0]
            fields = 78 if handler == b"vide" else 28 + {1: 16, 2: 36}.get(version, 0)
            atom.children = atoms(data, body + fields, pos + size, 8, name, handler)
        elif (name in CONTAINERS or name == b"stsd") and not atom.cut and depth < 16:
            # ISO "meta" is a full atom, QuickTime's starts with its "hdlr".
            meta = name == b"meta" and data[body + 4:body + 8] != b"hdlr"
            skip = 8 if name == b"stsd" else 4 if meta else 0
            atom.children = atoms(data, body + skip, pos + size, depth + 1, name, handler)
        pos += max(size, 8)
    return out


def walk(nodes):
    for n in nodes:
        yield n
        yield from walk(n.children)


def ffprobe(path, *what):
    cmd = ["ffprobe", "-v", "error", "-ignore_editlist", "1", "-of", "json", *what, path]
    return json.loads(subprocess.check_output(cmd))


def probe(path, packets_of=None):
    """ffprobe's streams of path, each with its packets (of packets_of) in decoding order."""
    streams = ffprobe(path, "-show_streams", "-show_data")["streams"]
    packets = ffprobe(packets_of or path, "-show_packets", "-show_data_hash", "CRC32")["packets"]
    return [(s, sorted((p for p in packets if p["stream_index"] == s["index"]),
                       key=lambda p: int(p["dts"]))) for s in streams]
