// The tree reader: turns an open file into the tree of AtomNodes under the
// Root_atom. It reads atom heads only (8 bytes: big-endian size, name, and
// on the modern path a 64-bit size behind them) and skips bodies by
// position. The reader's rules (TreeRules) say what ends a scan and which
// sizes it takes.
#include <cstdio>

#include "atoms/atoms.h"

namespace {

constexpr uint32_t kHeadBytes = 8;
constexpr uint32_t kLargeHeadBytes = 16;
// Size field values with a meaning of their own on the modern path.
constexpr uint32_t kSizeToEnd = 0;
constexpr uint32_t kSizeLarge = 1;

enum class HeadRead { kOk, kShort };

// Where the heads come from: the classic reader seeks and reads the
// stream for each head; the modern one reads through the handle's
// read-ahead window, so that the thousands of small atoms of a fragmented
// file cost a positioned read per window rather than a seek per atom.
struct HeadSource {
    Root_atom *Root;
    ReadAhead **Window;  // null: the stream
    // Nodes the scans below the top level may still make; null: no bound.
    // Atoms that nest as they should hold at most one head per 8 bytes of
    // the file. A child may reach past its parent, over the parent's later
    // siblings, which are then read again inside it: a few KB of such atoms
    // nested 32 deep would make millions of nodes. The bound ends the scans
    // of a file like that, silently, as the depth bound does.
    uint64_t *NodesLeft;
};

// One read per head. Positions are 64-bit: a position plus a stored size
// may pass 32 bits, and such an atom then simply reaches past the end of
// the file.
HeadRead ReadHead(const HeadSource &source, uint64_t position, uint8_t *head, size_t count) {
    if (source.Window != nullptr)
        return ReadAheadAt(source.Window, source.Root, position, head, count) == count
                   ? HeadRead::kOk
                   : HeadRead::kShort;
    FILE *stream = source.Root->FileStream;
    if (std::fseek(stream, long(position), SEEK_SET) != 0) return HeadRead::kShort;
    if (std::fread(head, 1, count, stream) != count) return HeadRead::kShort;
    return HeadRead::kOk;
}

// A head as the rules read it: the atom's size (0 when it can't be taken)
// and the bytes of its head.
struct Head {
    uint8_t Bytes[kLargeHeadBytes];
    uint64_t Size;
    uint8_t LargeHead;
};

// Reads the head at `position`, inside a parent (or file) that ends at
// `end`. On the classic path the size is the 32-bit field. On the modern
// path a size of 1 takes the 64-bit size behind the name and a size of 0
// runs to `end`. A size shorter than the head itself comes back as 0.
HeadRead ReadSizedHead(const HeadSource &source, uint64_t position, uint64_t end, const TreeRules &rules,
                       Head *head) {
    if (ReadHead(source, position, head->Bytes, kHeadBytes) != HeadRead::kOk)
        return HeadRead::kShort;
    head->LargeHead = 0;
    head->Size = ReadBE32(head->Bytes);
    if (!rules.WideSizes) return HeadRead::kOk;
    if (head->Size == kSizeToEnd) {
        head->Size = end > position ? end - position : 0;
    } else if (head->Size == kSizeLarge) {
        if (ReadHead(source, position + kHeadBytes, head->Bytes + kHeadBytes, 8) != HeadRead::kOk)
            return HeadRead::kShort;
        head->Size = GetBE64(head->Bytes, kHeadBytes);
        head->LargeHead = kLargeHeadBytes - kHeadBytes;
        if (head->Size < kLargeHeadBytes) head->Size = 0;
    }
    if (head->Size < kHeadBytes) head->Size = 0;
    return HeadRead::kOk;
}

AtomNode *MakeNode(const Head &head, uint64_t position, AtomNode *parent,
                   const TreeRules &rules) {
    AtomNode *node = static_cast<AtomNode *>(ZeroAlloc(sizeof(AtomNode)));
    if (node == nullptr) return nullptr;
    node->AtomSize = rules.WideSizes ? head.Size : ReadBE32(head.Bytes);
    CopyAtomName(node->AtomName, reinterpret_cast<const char *>(head.Bytes + 4));
    node->Reader = rules.Reader;
    node->LargeHead = head.LargeHead;
    node->AtomOffset = rules.WideSizes ? position : uint32_t(position);
    node->ParentAtom = parent;
    return node;
}

uint32_t DepthOf(const AtomNode *node) {
    uint32_t depth = 0;
    for (const AtomNode *up = node->ParentAtom; up != nullptr; up = up->ParentAtom) ++depth;
    return depth;
}

// Where the children of a sample entry of text or metadata begin: behind
// the zero-terminated strings that follow its fixed fields. Strings that
// don't end inside the atom, or within kMaxEntryStringBytes, leave it
// without children.
uint64_t StringsEnd(const HeadSource &source, const AtomNode *node, uint64_t fixed) {
    AtomSchema schema{};
    GetAtomLayout(node, &schema);
    uint8_t bytes[kMaxEntryStringBytes];
    const uint64_t room = node->AtomSize > fixed ? node->AtomSize - fixed : 0;
    const size_t want = size_t(room < sizeof bytes ? room : sizeof bytes);
    if (ReadHead(source, node->AtomOffset + fixed, bytes, want) != HeadRead::kOk) return 0;
    uint32_t strings = 0;
    for (size_t at = 0; at < want; ++at) {
        if (bytes[at] == 0 && ++strings == schema.StringCount) return fixed + at + 1;
    }
    return 0;
}

// The form of the entries of a modern "stsd": its version, and the handler
// of the "mdia" above it, from the heads of that "mdia"'s children (its
// "hdlr" may stand behind "minf", whose children are being read). At most
// kMaxHandlerProbes heads are looked at.
constexpr uint32_t kMaxHandlerProbes = 16;

SampleEntryForm StsdEntryForm(const HeadSource &source, const AtomNode *stsd,
                              const TreeRules &rules) {
    const AtomNode *mdia = stsd;
    for (int up = 0; up < 3 && mdia != nullptr; ++up) mdia = mdia->ParentAtom;
    uint8_t version = 0;
    if (mdia == nullptr || !AtomNameEquals(mdia->AtomName, "mdia") ||
        ReadHead(source, stsd->AtomOffset + stsd->LargeHead + field::kVersionFlags, &version, 1) !=
            HeadRead::kOk)
        return kEntryByName;
    const uint64_t end = mdia->AtomOffset + mdia->AtomSize;
    uint64_t position = mdia->AtomOffset + mdia->LargeHead + kHeadBytes;
    for (uint32_t probe = 0; probe < kMaxHandlerProbes && position < end; ++probe) {
        Head head;
        if (ReadSizedHead(source, position, end, rules, &head) != HeadRead::kOk || head.Size == 0)
            break;
        uint8_t handler[4];
        if (AtomNameEquals(reinterpret_cast<const char *>(head.Bytes + 4), "hdlr"))
            return ReadHead(source, position + head.LargeHead + field::kHdlrHandlerType, handler,
                            4) == HeadRead::kOk
                       ? EntryFormOf(reinterpret_cast<const char *>(handler), version)
                       : kEntryByName;
        position += head.Size;
    }
    return kEntryByName;
}

// Where the children of `node` begin, or 0 for none. Some containers of the
// modern set place them by what they hold: a sound sample entry by its
// version (QuickTime adds 16 or 36 bytes of fields), a "meta" by whether it
// is a full atom (ISO) or a plain container (QuickTime, with "hdlr" first).
// Offsets count from the atom's first byte, so a 64-bit size (LargeHead,
// only ever set by the modern reader) moves every child 8 bytes on.
uint64_t ChildStart(const HeadSource &source, const AtomNode *node) {
    AtomSchema schema{};
    if (GetAtomLayout(node, &schema) <= 0 || schema.ChildOffset == 0) return 0;
    const uint64_t fixed = node->LargeHead + uint64_t(schema.ChildOffset);
    if (node->Reader != kModernReader || schema.Placement == ChildPlacement::kFixed) return fixed;
    const uint64_t body = node->AtomOffset + node->LargeHead;
    uint8_t probe[8];
    if (schema.Placement == ChildPlacement::kBehindStrings) return StringsEnd(source, node, fixed);
    if (schema.Placement == ChildPlacement::kSoundVersion) {
        if (ReadHead(source, body + 16, probe, 2) != HeadRead::kOk) return fixed;
        const uint16_t version = GetBE16(probe, 0);
        return node->LargeHead + (version == 1 ? 52u : version == 2 ? 72u : schema.ChildOffset);
    }
    if (ReadHead(source, body + 8, probe, 8) != HeadRead::kOk) return fixed;
    const bool plain = probe[4] == 'h' && probe[5] == 'd' && probe[6] == 'l' && probe[7] == 'r';
    return node->LargeHead + (plain ? kHeadBytes : schema.ChildOffset);
}

// Children of `parent`, which stands at `depth` (top level is 0). Beyond
// kMaxAtomDepth a container's scan ends before it starts: no valid file
// nests that deep, and the bound keeps the recursion off the end of the
// stack on a hostile one.
int32_t ReadChildrenAt(const HeadSource &source, AtomNode *parent, uint64_t childOffset,
                       uint32_t depth, const TreeRules &rules) {
    const uint64_t parentEnd = parent->AtomOffset + parent->AtomSize;
    uint64_t position = parent->AtomOffset + childOffset;
    if (position >= parentEnd) return 1;
    if (depth >= kMaxAtomDepth) return 1;

    const SampleEntryForm form = rules.Reader == kModernReader && AtomNameEquals(parent->AtomName, "stsd")
                                     ? StsdEntryForm(source, parent, rules)
                                     : kEntryByName;
    AtomNode *last = nullptr;
    for (;;) {
        Head head;
        if (ReadSizedHead(source, position, parentEnd, rules, &head) != HeadRead::kOk) {
            if (!rules.Quiet) PrintDiagnostic("Read data from file error!\n");
            return -99;
        }
        const char *name = reinterpret_cast<const char *>(head.Bytes + 4);
        const bool known = form != kEntryByName || IsKnownAtomName(name, rules.Reader) >= 0;
        if (!known && rules.UnknownEndsScan) return -1;
        // A stored size below the head's own 8 bytes would not move the
        // scan on (0) or would land inside the head (1 to 7), and a 64-bit
        // size can pass the end of 64-bit positions and land before the
        // head: each ends the container's scan as an unknown atom does.
        if (rules.WideSizes ? head.Size == 0 : ReadBE32(head.Bytes) < kHeadBytes) return -1;
        if (head.Size > UINT64_MAX - position) return -1;
        if (source.NodesLeft != nullptr) {
            if (*source.NodesLeft == 0) return 1;
            --*source.NodesLeft;
        }
        AtomNode *node = MakeNode(head, position, parent, rules);
        if (node == nullptr) return -99;  // no memory: the scan ends here
        node->EntryForm = form;
        if (last == nullptr) {
            parent->FirstChild = node;
        } else {
            last->NextSibling = node;
        }
        last = node;

        const uint64_t next = position + node->AtomSize;
        const uint64_t children = known ? ChildStart(source, node) : 0;
        if (children > 0) ReadChildrenAt(source, node, children, depth + 1, rules);
        position = next;
        if (position >= parentEnd) return 1;
    }
}

}  // namespace

int32_t ReadChildAtoms(FILE *stream, AtomNode *parent, uint32_t childOffset) {
    Root_atom file{};
    file.FileStream = stream;
    return ReadChildrenAt(HeadSource{&file, nullptr, nullptr}, parent, childOffset,
                          DepthOf(parent), kClassicTreeRules);
}

int32_t ReadTopLevelAtoms(Root_atom *root, const TreeRules &rules, ReadAhead **window) {
    const HeadSource source{root, window, nullptr};
    uint64_t position = 0;
    AtomNode *last = nullptr;
    root->FirstAtom = nullptr;
    // Under CutEndsFile a head that can't be taken ends the file where it
    // starts, once a whole atom stands before it.
    const auto cut = [&]() -> int32_t {
        if (rules.CutEndsFile && last != nullptr) return 1;
        if (!rules.Quiet) PrintDiagnostic("Read data from file error!\n");
        return -99;
    };
    for (;;) {
        Head head;
        if (ReadSizedHead(source, position, root->FileSize, rules, &head) != HeadRead::kOk)
            return cut();
        if (IsKnownAtomName(reinterpret_cast<const char *>(head.Bytes + 4), rules.Reader) < 0 &&
            !rules.Quiet) {
            PrintDiagnostic("There could be have illegal atoms!");
        }
        // A stored size below 8 can't be stepped over: it is taken as a
        // short read.
        if (rules.WideSizes ? head.Size == 0 : ReadBE32(head.Bytes) < kHeadBytes) return cut();
        // An atom that reaches past the end was cut while it was written.
        if (rules.CutEndsFile && head.Size > root->FileSize - position) return cut();
        AtomNode *node = MakeNode(head, position, nullptr, rules);
        if (node == nullptr) return -99;
        if (last == nullptr) {
            root->FirstAtom = node;
        } else {
            last->NextSibling = node;
        }
        last = node;

        position += node->AtomSize;
        if (position >= root->FileSize) return 1;
    }
}

int32_t ReadAtomTree(Root_atom *root, const TreeRules &rules, ReadAhead **window) {
    if (ReadTopLevelAtoms(root, rules, window) < 0) return -99;
    uint64_t nodesLeft = root->FileSize / kHeadBytes;
    const HeadSource source{root, window, &nodesLeft};
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        const bool known = IsKnownAtomName(atom->AtomName, rules.Reader) >= 0;
        const uint64_t children = known ? ChildStart(source, atom) : 0;
        if (children > 0) ReadChildrenAt(source, atom, children, 0, rules);
    }
    return 1;
}
