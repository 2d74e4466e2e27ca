// The file edit of `mp4core tag`. The new "moov" is built in memory from
// the old one: its "udta" and "meta" children replaced as the edit says,
// chapter tracks and their "chap" references left out, everything else
// copied byte for byte. It is made live in one of two ways:
//  - in place, when the old "moov" is followed by a "free" atom that holds
//    the new one, or ends the file: the new "moov" is written into that
//    dead space (or behind the end), made durable, and then one 8-byte
//    write turns the old "moov" head into a "free" head that covers
//    everything up to the new "moov". Until that write the file reads as
//    before; a failed write before it cuts the file back to its length.
//  - else rewritten: every top-level atom is copied into a temporary file
//    in the same folder, the chunk offsets of "stco"/"co64" and the
//    auxiliary information offsets of "saio" in the tables, the base
//    offsets of "tfhd" and the "moof" offsets of "tfra" that point behind
//    the old "moov" moved by its change in size, then made durable and
//    renamed over the original.
#include "moov_edit.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Bytes = std::vector<uint8_t>;

// A "moov" or "moof" is read whole; larger ones are refused.
constexpr uint64_t kMaxIndexBytes = uint64_t(256) << 20;
constexpr size_t kSector = 512;
constexpr int kMaxDepth = 8;
// The most atoms one level holds (a file of fragments: two a fragment).
constexpr size_t kMaxAtoms = size_t(1) << 20;

uint32_t Get32(const uint8_t *p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint64_t Get64(const uint8_t *p) { return uint64_t(Get32(p)) << 32 | Get32(p + 4); }
void Set32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (24 - 8 * i));
}
void Set64(uint8_t *p, uint64_t v) {
    Set32(p, uint32_t(v >> 32));
    Set32(p + 4, uint32_t(v));
}
bool Is(const uint8_t *type, const char *name) { return std::memcmp(type, name, 4) == 0; }

struct Atom {
    uint64_t Offset;  // of its head
    uint64_t Size;    // head included
    uint32_t Head;    // 8, or 16 with a 64-bit size
    uint8_t Type[4];
};

// The atoms of a block of bytes; false for a head that runs past it. Up
// to 7 zero bytes at the end (QuickTime's terminator of a "udta") end it.
bool AtomsIn(const uint8_t *bytes, uint64_t size, std::vector<Atom> *atoms) {
    for (uint64_t at = 0; at < size;) {
        if (size - at < 8) return std::all_of(bytes + at, bytes + size, [](uint8_t b) { return b == 0; });
        Atom atom{at, Get32(bytes + at), 8, {}};
        std::memcpy(atom.Type, bytes + at + 4, 4);
        if (atom.Size == 1) {
            if (size - at < 16) return false;
            atom.Size = Get64(bytes + at + 8);
            atom.Head = 16;
        } else if (atom.Size == 0) {
            atom.Size = size - at;
        }
        if (atom.Size < atom.Head || atom.Size > size - at || atoms->size() >= kMaxAtoms) return false;
        atoms->push_back(atom);
        at += atom.Size;
    }
    return true;
}

// The top-level atoms of a file, read head by head.
bool TopAtoms(int fd, uint64_t fileSize, std::vector<Atom> *atoms) {
    for (uint64_t at = 0; at < fileSize;) {
        uint8_t head[16];
        const uint64_t want = fileSize - at < 16 ? fileSize - at : 16;
        if (want < 8 || pread(fd, head, want, off_t(at)) != ssize_t(want)) return false;
        Atom atom{at, Get32(head), 8, {}};
        std::memcpy(atom.Type, head + 4, 4);
        if (atom.Size == 1) {
            if (want < 16) return false;
            atom.Size = Get64(head + 8);
            atom.Head = 16;
        } else if (atom.Size == 0) {
            atom.Size = fileSize - at;
        }
        if (atom.Size < atom.Head || atom.Size > fileSize - at || atoms->size() >= kMaxAtoms) return false;
        atoms->push_back(atom);
        at += atom.Size;
    }
    return true;
}

size_t OpenAtom(Bytes *out, const uint8_t *type) {
    const size_t start = out->size();
    out->resize(start + 8);
    std::memcpy(out->data() + start + 4, type, 4);
    return start;
}

void CloseAtom(Bytes *out, size_t start) { Set32(out->data() + start, uint32_t(out->size() - start)); }

void Append(Bytes *out, const uint8_t *bytes, uint64_t size) { out->insert(out->end(), bytes, bytes + size); }

// Offsets at or behind `From` move by `Delta`.
struct Shift {
    uint64_t From;
    int64_t Delta;
    bool Overflow;
};

uint64_t Moved(Shift *shift, uint64_t offset, uint64_t limit) {
    if (offset < shift->From) return offset;
    const uint64_t moved = offset + uint64_t(shift->Delta);
    if (moved > limit) shift->Overflow = true;
    return moved;
}

// "stco" or "co64" with its offsets moved; false when malformed.
bool ShiftChunkOffsets(Bytes *out, const uint8_t *body, uint64_t size, bool wide, Shift *shift) {
    const uint64_t entry = wide ? 8 : 4;
    if (size < 8 || Get32(body + 4) > (size - 8) / entry) return false;
    const size_t start = out->size();
    Append(out, body, size);
    uint8_t *table = out->data() + start + 8;
    for (uint32_t i = 0; i < Get32(body + 4); ++i) {
        if (wide) {
            Set64(table + i * 8, Moved(shift, Get64(table + i * 8), UINT64_MAX / 2));
        } else {
            Set32(table + i * 4, uint32_t(Moved(shift, Get32(table + i * 4), UINT32_MAX)));
        }
    }
    return true;
}

// "saio" of a track's tables: file offsets of the samples' auxiliary
// information (encryption), moved like chunk offsets; false when malformed.
bool ShiftAuxOffsets(Bytes *out, const uint8_t *body, uint64_t size, Shift *shift) {
    const uint64_t at = size >= 4 && (Get32(body) & 1) != 0 ? 12 : 4, entry = size >= 1 && body[0] == 1 ? 8 : 4;
    if (size < at + 4 || Get32(body + at) > (size - at - 4) / entry) return false;
    const size_t start = out->size();
    Append(out, body, size);
    uint8_t *table = out->data() + start + at + 4;
    for (uint32_t i = 0; i < Get32(body + at); ++i) {
        if (entry == 8) {
            Set64(table + i * 8, Moved(shift, Get64(table + i * 8), UINT64_MAX / 2));
        } else {
            Set32(table + i * 4, uint32_t(Moved(shift, Get32(table + i * 4), UINT32_MAX)));
        }
    }
    return true;
}

uint32_t TrackIdOf(const uint8_t *trak, uint64_t size) {
    std::vector<Atom> children;
    if (!AtomsIn(trak, size, &children)) return 0;
    for (const Atom &c : children) {
        const uint8_t *p = trak + c.Offset + c.Head;
        const uint64_t n = c.Size - c.Head;
        if (!Is(c.Type, "tkhd") || n < 24) continue;
        return Get32(p + (p[0] == 1 ? 20 : 12));
    }
    return 0;
}

bool Dropped(const MovieEdit &edit, uint32_t id) {
    return std::find(edit.DropTracks.begin(), edit.DropTracks.end(), id) != edit.DropTracks.end();
}

// "tref" without the references to the tracks left out; nothing when
// none is left.
void PutReferences(Bytes *out, const uint8_t *body, uint64_t size, const MovieEdit &edit) {
    std::vector<Atom> kinds;
    if (!AtomsIn(body, size, &kinds)) return Append(out, body - 8, size + 8);
    Bytes kept;
    for (const Atom &kind : kinds) {
        const uint8_t *ids = body + kind.Offset + kind.Head;
        const size_t start = OpenAtom(&kept, kind.Type);
        for (uint64_t i = 0; i + 4 <= kind.Size - kind.Head; i += 4)
            if (!Is(kind.Type, "chap") || !Dropped(edit, Get32(ids + i))) Append(&kept, ids + i, 4);
        if (kept.size() == start + 8) {
            kept.resize(start);
        } else {
            CloseAtom(&kept, start);
        }
    }
    if (kept.empty()) return;
    const size_t tref = OpenAtom(out, reinterpret_cast<const uint8_t *>("tref"));
    Append(out, kept.data(), kept.size());
    CloseAtom(out, tref);
}

void PatchTimes(uint8_t *body, uint64_t size, const MovieEdit &edit) {
    const bool wide = size >= 28 && body[0] == 1;
    if (!wide && size < 16) return;
    if (edit.SetCreated && (wide || edit.Created <= UINT32_MAX)) {
        if (wide) Set64(body + 4, edit.Created); else Set32(body + 4, uint32_t(edit.Created));
    }
    if (edit.SetModified && (wide || edit.Modified <= UINT32_MAX)) {
        if (wide) Set64(body + 12, edit.Modified); else Set32(body + 8, uint32_t(edit.Modified));
    }
}

// The children of `parent` (a body of `size` bytes) rebuilt into `out`.
bool Rebuild(const uint8_t *body, uint64_t size, const char *parent, const MovieEdit &edit, Shift *shift,
             Bytes *out, int depth) {
    std::vector<Atom> children;
    if (depth > kMaxDepth || !AtomsIn(body, size, &children)) return false;
    const bool movie = std::strcmp(parent, "moov") == 0;
    bool userData = false;
    for (const Atom &c : children) {
        const uint8_t *whole = body + c.Offset;
        const uint8_t *p = whole + c.Head;
        const uint64_t n = c.Size - c.Head;
        if (Is(c.Type, "stco") || Is(c.Type, "co64")) {
            const size_t start = OpenAtom(out, c.Type);
            if (!ShiftChunkOffsets(out, p, n, Is(c.Type, "co64"), shift)) return false;
            CloseAtom(out, start);
        } else if (Is(c.Type, "saio")) {
            const size_t start = OpenAtom(out, c.Type);
            if (!ShiftAuxOffsets(out, p, n, shift)) return false;
            CloseAtom(out, start);
        } else if (Is(c.Type, "trak") || Is(c.Type, "mdia") || Is(c.Type, "minf") || Is(c.Type, "stbl")) {
            if (Is(c.Type, "trak") && Dropped(edit, TrackIdOf(p, n))) continue;
            const size_t start = OpenAtom(out, c.Type);
            if (!Rebuild(p, n, "", edit, shift, out, depth + 1)) return false;
            CloseAtom(out, start);
        } else if (Is(c.Type, "tref") && !edit.DropTracks.empty()) {
            PutReferences(out, p, n, edit);
        } else if (movie && Is(c.Type, "mvhd")) {
            const size_t start = out->size();
            Append(out, whole, c.Size);
            PatchTimes(out->data() + start + c.Head, n, edit);
        } else if (movie && Is(c.Type, "udta")) {
            // Every "udta" is filtered; the first one takes the new atoms.
            const bool first = !userData;
            userData = true;
            std::vector<Atom> items;
            if (!AtomsIn(p, n, &items)) return false;
            const size_t start = OpenAtom(out, c.Type);
            for (const Atom &item : items) {
                const std::string type(reinterpret_cast<const char *>(item.Type), 4);
                if ((type == "meta" && edit.DropUserMeta) ||
                    std::find(edit.DropUserData.begin(), edit.DropUserData.end(), type) != edit.DropUserData.end())
                    continue;
                Append(out, p + item.Offset, item.Size);
            }
            if (first) Append(out, edit.UserData.data(), edit.UserData.size());
            if (out->size() == start + 8) {
                out->resize(start);
            } else {
                CloseAtom(out, start);
            }
        } else if (!(movie && Is(c.Type, "meta") && edit.DropMovieMeta)) {
            Append(out, whole, c.Size);
        }
    }
    if (movie && !userData && !edit.UserData.empty()) {
        const size_t start = OpenAtom(out, reinterpret_cast<const uint8_t *>("udta"));
        Append(out, edit.UserData.data(), edit.UserData.size());
        CloseAtom(out, start);
    }
    if (movie) Append(out, edit.MovieMeta.data(), edit.MovieMeta.size());
    return true;
}

bool BuildMovie(const Bytes &old, const Atom &moov, const MovieEdit &edit, Shift *shift, Bytes *out) {
    out->clear();
    const size_t start = OpenAtom(out, moov.Type);
    if (!Rebuild(old.data() + moov.Head, moov.Size - moov.Head, "moov", edit, shift, out, 0)) return false;
    CloseAtom(out, start);
    return !shift->Overflow;
}

bool WriteAll(int fd, const uint8_t *bytes, uint64_t size, uint64_t at) {
    while (size > 0) {
        const ssize_t written = pwrite(fd, bytes, size, off_t(at));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= uint64_t(written);
        at += uint64_t(written);
    }
    return true;
}

bool ReadAll(int fd, Bytes *bytes, uint64_t size, uint64_t at) {
    bytes->resize(size);
    return pread(fd, bytes->data(), size, off_t(at)) == ssize_t(size);
}

bool CopyRange(int in, uint64_t from, int out, uint64_t to, uint64_t count) {
    loff_t inAt = loff_t(from), outAt = loff_t(to);
    while (count > 0) {
        const ssize_t copied = copy_file_range(in, &inAt, out, &outAt, size_t(std::min<uint64_t>(count, 1u << 30)), 0);
        if (copied < 0 && errno == EINTR) continue;
        if (copied <= 0) break;
        count -= uint64_t(copied);
    }
    Bytes buffer(1 << 20);
    while (count > 0) {
        const ssize_t got = pread(in, buffer.data(), size_t(std::min<uint64_t>(count, buffer.size())), inAt);
        if (got <= 0 || !WriteAll(out, buffer.data(), uint64_t(got), uint64_t(outAt))) return false;
        inAt += got;
        outAt += got;
        count -= uint64_t(got);
    }
    return true;
}

// "moof" with the explicit base offsets of its "tfhd" atoms moved.
bool PatchFragment(Bytes *moof, uint32_t head, Shift *shift) {
    std::vector<Atom> trafs;
    if (!AtomsIn(moof->data() + head, moof->size() - head, &trafs)) return false;
    for (const Atom &traf : trafs) {
        if (!Is(traf.Type, "traf")) continue;
        uint8_t *t = moof->data() + head + traf.Offset + traf.Head;
        std::vector<Atom> boxes;
        if (!AtomsIn(t, traf.Size - traf.Head, &boxes)) return false;
        for (const Atom &box : boxes) {
            uint8_t *p = t + box.Offset + box.Head;
            if (!Is(box.Type, "tfhd") || (Get32(p) & 1) == 0) continue;
            if (box.Size - box.Head < 16) return false;
            Set64(p + 8, Moved(shift, Get64(p + 8), UINT64_MAX / 2));
        }
    }
    return true;
}

// "mfra" with the "moof" offsets of its "tfra" entries moved.
bool PatchFragmentIndex(Bytes *mfra, uint32_t head, Shift *shift) {
    std::vector<Atom> boxes;
    if (!AtomsIn(mfra->data() + head, mfra->size() - head, &boxes)) return false;
    for (const Atom &box : boxes) {
        if (!Is(box.Type, "tfra")) continue;
        uint8_t *p = mfra->data() + head + box.Offset + box.Head;
        const uint64_t n = box.Size - box.Head;
        if (n < 16) return false;
        const bool wide = p[0] == 1;
        const uint32_t lengths = Get32(p + 8);
        const uint64_t entry = (wide ? 16 : 8) + ((lengths >> 4) & 3) + 1 + ((lengths >> 2) & 3) + 1 + (lengths & 3) + 1;
        const uint32_t count = Get32(p + 12);
        if (count > (n - 16) / entry) return false;
        for (uint32_t i = 0; i < count; ++i) {
            uint8_t *e = p + 16 + i * entry;
            if (wide) {
                Set64(e + 8, Moved(shift, Get64(e + 8), UINT64_MAX / 2));
            } else {
                Set32(e + 4, uint32_t(Moved(shift, Get32(e + 4), UINT32_MAX)));
            }
        }
    }
    return true;
}

bool Fail(const char *path, const char *what) {
    std::fprintf(stderr, "mp4core tag: %s: %s; the file is unchanged\n", path, what);
    return false;
}

// The in-place edit: true when done; false with *tried unset when it
// does not apply, set after a failure (the file read as before).
bool EditInPlace(int fd, const char *shown, uint64_t fileSize, const Atom &moov, const Atom *next, const Bytes &fresh,
                 bool *tried) {
    uint64_t at = 0;
    if (next == nullptr) {
        at = fileSize + 8;  // behind an 8-byte head that holds it
    } else if ((Is(next->Type, "free") || Is(next->Type, "skip")) && next->Size >= fresh.size() + next->Head) {
        at = next->Offset + next->Size - fresh.size();
    } else {
        return false;
    }
    const uint64_t cover = at - moov.Offset;
    if (cover > UINT32_MAX || moov.Head != 8 || moov.Offset % kSector > kSector - 8) return false;
    *tried = true;
    uint8_t head[8];
    Set32(head, uint32_t(fresh.size() + 8));
    std::memcpy(head + 4, "free", 4);
    // Behind the end: the new "moov" first, then the "free" head in front
    // of it (an all-zero head reads as an atom up to the end).
    bool ok = WriteAll(fd, fresh.data(), fresh.size(), at);
    if (ok && next == nullptr) ok = WriteAll(fd, head, 8, fileSize);
    ok = ok && fsync(fd) == 0;
    if (!ok) {
        if (next == nullptr && ftruncate(fd, off_t(fileSize)) == 0) fsync(fd);
        return Fail(shown, std::strerror(errno));
    }
    Set32(head, uint32_t(cover));
    if (!WriteAll(fd, head, 8, moov.Offset) || fsync(fd) != 0) return Fail(shown, std::strerror(errno));
    return true;
}

// The rewrite into a temporary file beside the original.
bool Rewrite(int fd, const char *path, const char *shown, const std::vector<Atom> &atoms, const Atom &moov, const Bytes &fresh,
             Shift *shift) {
    char temp[4096];
    if (std::snprintf(temp, sizeof temp, "%s.tag-XXXXXX", path) >= int(sizeof temp)) return Fail(shown, "path too long");
    const int out = mkstemp(temp);
    if (out < 0) return Fail(shown, std::strerror(errno));
    bool ok = true;
    uint64_t to = 0;
    const char *why = nullptr;
    for (const Atom &atom : atoms) {
        if (!ok) break;
        if (&atom == &moov) {
            ok = WriteAll(out, fresh.data(), fresh.size(), to);
            to += fresh.size();
            continue;
        }
        const bool fragment = Is(atom.Type, "moof"), index = Is(atom.Type, "mfra");
        if ((fragment || index) && atom.Offset > moov.Offset) {
            Bytes bytes;
            if (atom.Size > kMaxIndexBytes || !ReadAll(fd, &bytes, atom.Size, atom.Offset)) {
                ok = false;
                break;
            }
            if (!(fragment ? PatchFragment(&bytes, atom.Head, shift) : PatchFragmentIndex(&bytes, atom.Head, shift)) ||
                shift->Overflow) {
                why = "a fragment's offsets can't be moved";
                ok = false;
                break;
            }
            ok = WriteAll(out, bytes.data(), bytes.size(), to);
        } else {
            ok = CopyRange(fd, atom.Offset, out, to, atom.Size);
        }
        to += atom.Size;
    }
    struct stat made {};
    ok = ok && fstat(fd, &made) == 0 && fchmod(out, made.st_mode & 07777) == 0 && fsync(out) == 0;
    const int saved = errno;
    ok = close(out) == 0 && ok;
    ok = ok && std::rename(temp, path) == 0;
    if (!ok) {
        unlink(temp);
        return Fail(shown, why != nullptr ? why : std::strerror(saved != 0 ? saved : errno));
    }
    // The rename itself made durable.
    char folder[4096];
    std::snprintf(folder, sizeof folder, "%s", path);
    const int dir = open(dirname(folder), O_RDONLY | O_DIRECTORY);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return true;
}

}  // namespace

bool EditMovieFile(const char *path, const char *shown, const MovieEdit &edit, EditWay *way) {
    const int fd = open(path, O_RDWR);
    if (fd < 0) return Fail(shown, std::strerror(errno));
    struct stat st {};
    std::vector<Atom> atoms;
    bool ok = fstat(fd, &st) == 0 && TopAtoms(fd, uint64_t(st.st_size), &atoms);
    if (!ok) {
        close(fd);
        return Fail(shown, "its top-level atoms can't be read whole");
    }
    const Atom *moov = nullptr;
    size_t moovCount = 0, moovIndex = 0;
    for (size_t i = 0; i < atoms.size(); ++i) {
        if (!Is(atoms[i].Type, "moov")) continue;
        moov = &atoms[i];
        moovIndex = i;
        ++moovCount;
    }
    const char *refusal = moovCount != 1 ? "it has no single \"moov\"" : nullptr;
    for (size_t i = 0; refusal == nullptr && i < moovIndex; ++i)
        if (Is(atoms[i].Type, "sidx") || Is(atoms[i].Type, "moof"))
            refusal = "a segment index or fragment lies in front of \"moov\"";
    Bytes old, fresh;
    if (refusal == nullptr && (moov->Size > kMaxIndexBytes || !ReadAll(fd, &old, moov->Size, moov->Offset)))
        refusal = "its \"moov\" can't be read";
    Shift none{UINT64_MAX, 0, false};
    if (refusal == nullptr && !BuildMovie(old, *moov, edit, &none, &fresh)) refusal = "its \"moov\" is malformed";
    if (refusal != nullptr) {
        close(fd);
        return Fail(shown, refusal);
    }
    const Atom *next = moovIndex + 1 < atoms.size() ? &atoms[moovIndex + 1] : nullptr;
    bool tried = false;
    ok = EditInPlace(fd, shown, uint64_t(st.st_size), *moov, next, fresh, &tried);
    *way = EditWay::InPlace;
    if (!ok && !tried) {
        *way = EditWay::Rewritten;
        Shift shift{moov->Offset + moov->Size, int64_t(fresh.size()) - int64_t(moov->Size), false};
        ok = BuildMovie(old, *moov, edit, &shift, &fresh) ? Rewrite(fd, path, shown, atoms, *moov, fresh, &shift)
                                                          : Fail(shown, "a chunk offset would pass 4 GiB");
    }
    close(fd);
    return ok;
}
