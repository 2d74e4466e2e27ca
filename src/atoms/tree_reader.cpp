// The tree reader: turns an open file into the tree of AtomNodes under the
// Root_atom. It reads atom heads only (8 bytes: big-endian size, name) and
// skips bodies by position.
#include <cstdio>

#include "atoms/atoms.h"

namespace {

constexpr uint32_t kHeadBytes = 8;

enum class HeadRead { kOk, kShort };

// One seek and one read per head. Positions are 64-bit: a position plus a
// stored size may pass 32 bits, and such an atom then simply reaches past
// the end of the file.
HeadRead ReadHead(FILE *stream, uint64_t position, uint8_t head[kHeadBytes]) {
    if (std::fseek(stream, long(position), SEEK_SET) != 0) return HeadRead::kShort;
    if (std::fread(head, 1, kHeadBytes, stream) != kHeadBytes) return HeadRead::kShort;
    return HeadRead::kOk;
}

AtomNode *MakeNode(const uint8_t head[kHeadBytes], uint64_t position, AtomNode *parent) {
    AtomNode *node = static_cast<AtomNode *>(ZeroAlloc(sizeof(AtomNode)));
    if (node == nullptr) return nullptr;
    node->AtomSize = ReadBE32(head);
    CopyAtomName(node->AtomName, reinterpret_cast<const char *>(head + 4));
    node->AtomOffset = uint32_t(position);
    node->ParentAtom = parent;
    return node;
}

uint32_t DepthOf(const AtomNode *node) {
    uint32_t depth = 0;
    for (const AtomNode *up = node->ParentAtom; up != nullptr; up = up->ParentAtom) ++depth;
    return depth;
}

// Children of `parent`, which stands at `depth` (top level is 0). Beyond
// kMaxAtomDepth a container's scan ends before it starts: no valid file
// nests that deep, and the bound keeps the recursion off the end of the
// stack on a hostile one.
int32_t ReadChildrenAt(FILE *stream, AtomNode *parent, uint32_t childOffset, uint32_t depth) {
    const uint64_t parentEnd = uint64_t(parent->AtomOffset) + parent->AtomSize;
    uint64_t position = uint64_t(parent->AtomOffset) + childOffset;
    if (position >= parentEnd) return 1;
    if (depth >= kMaxAtomDepth) return 1;

    AtomNode *last = nullptr;
    for (;;) {
        uint8_t head[kHeadBytes];
        if (ReadHead(stream, position, head) != HeadRead::kOk) {
            std::printf("Read data from file error!\n");
            return -99;
        }
        if (IsKnownAtomName(reinterpret_cast<const char *>(head + 4)) < 0) return -1;
        // A stored size below the head's own 8 bytes would not move the
        // scan on (0) or would land inside the head (1 to 7): it ends the
        // container's scan as an unknown atom does.
        if (ReadBE32(head) < kHeadBytes) return -1;
        AtomNode *node = MakeNode(head, position, parent);
        if (node == nullptr) return -99;  // no memory: the scan ends here
        if (last == nullptr) {
            parent->FirstChild = node;
        } else {
            last->NextSibling = node;
        }
        last = node;

        const uint64_t next = position + node->AtomSize;
        AtomSchema schema{};
        if (GetAtomSchema(node, &schema) > 0 && schema.ChildOffset > 0) {
            ReadChildrenAt(stream, node, schema.ChildOffset, depth + 1);
        }
        position = next;
        if (position >= parentEnd) return 1;
    }
}

}  // namespace

int32_t ReadChildAtoms(FILE *stream, AtomNode *parent, uint32_t childOffset) {
    return ReadChildrenAt(stream, parent, childOffset, DepthOf(parent));
}

int32_t ReadTopLevelAtoms(Root_atom *root) {
    FILE *stream = root->FileStream;
    uint64_t position = 0;
    AtomNode *last = nullptr;
    root->FirstAtom = nullptr;
    for (;;) {
        uint8_t head[kHeadBytes];
        if (ReadHead(stream, position, head) != HeadRead::kOk) {
            std::printf("Read data from file error!\n");
            return -99;
        }
        if (IsKnownAtomName(reinterpret_cast<const char *>(head + 4)) < 0) {
            std::printf("There could be have illegal atoms!");
        }
        // A stored size below 8 can't be stepped over: the top-level scan
        // fails as after a short read.
        if (ReadBE32(head) < kHeadBytes) {
            std::printf("Read data from file error!\n");
            return -99;
        }
        AtomNode *node = MakeNode(head, position, nullptr);
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

int32_t ReadAtomTree(Root_atom *root) {
    if (ReadTopLevelAtoms(root) < 0) return -99;
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        AtomSchema schema{};
        if (GetAtomSchema(atom, &schema) > 0 && schema.ChildOffset > 0) {
            ReadChildrenAt(root->FileStream, atom, schema.ChildOffset, 0);
        }
    }
    return 1;
}
