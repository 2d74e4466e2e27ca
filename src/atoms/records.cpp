// Payload records: the head of each atom copied from the file as it
// stands (big-endian), the tables and strings behind some heads, and
// their release.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"

namespace {

// What lies behind the head of an atom and is loaded from the file. Atoms
// not listed load nothing; their pointer field, if any, stays null on the
// read side.
enum class VariablePart { kCountedTable, kSampleSizes, kPackedSizes, kString };

struct VariablePartRow {
    char name[5];
    VariablePart kind;
};

constexpr VariablePartRow kVariableParts[] = {
    {"stts", VariablePart::kCountedTable}, {"ctts", VariablePart::kCountedTable},
    {"stsc", VariablePart::kCountedTable}, {"stco", VariablePart::kCountedTable},
    {"co64", VariablePart::kCountedTable}, {"stss", VariablePart::kCountedTable},
    {"stsh", VariablePart::kCountedTable}, {"stdp", VariablePart::kCountedTable},
    {"elst", VariablePart::kCountedTable}, {"trun", VariablePart::kCountedTable},
    {"stsz", VariablePart::kSampleSizes},
    {"stz2", VariablePart::kPackedSizes},
    {"sdp ", VariablePart::kString},       {"url ", VariablePart::kString},
    {"urn ", VariablePart::kString},
};

const VariablePartRow *FindVariablePart(const AtomNode *node) {
    for (const VariablePartRow &row : kVariableParts) {
        if (AtomNameEquals(node->AtomName, row.name)) return &row;
    }
    return nullptr;
}

// Loads `length` bytes from behind the head of `node` into a new zeroed
// block. The amount read is not checked: a file cut inside the block
// leaves a zeroed tail. A block longer than the whole file can't be the
// tail of a truncated atom, only a hostile size, and gets no memory.
uint8_t *LoadBehindHead(const AtomSchema *schema, uint64_t length, const AtomNode *node,
                        FILE *stream) {
    if (length > FileSizeNow(stream)) return nullptr;
    uint8_t *block = static_cast<uint8_t *>(ZeroAlloc(size_t(length)));
    if (block == nullptr) return nullptr;
    const uint64_t start = uint64_t(node->AtomOffset) + RecordHeadLength(*schema);
    if (length > 0 && std::fseek(stream, long(start), SEEK_SET) == 0) {
        size_t ignored = std::fread(block, 1, size_t(length), stream);
        (void)ignored;
    }
    return block;
}

void ExtractRecord(AtomNode *node, FILE *stream) {
    if (node->realStructure == nullptr) return;
    AtomSchema schema{};
    const bool known = GetAtomSchema(node, &schema) > 0;
    ReadRecordHead(known ? RecordHeadLength(schema) : kBareHeadLength, node, stream,
                   node->realStructure);
    if (known && schema.EntrySize != 0) ExtractVariablePart(node, &schema, stream);
}

}  // namespace

int32_t ReadRecordHead(uint32_t byteCount, AtomNode *node, FILE *stream, uint8_t *record) {
    size_t got = 0;
    if (std::fseek(stream, long(node->AtomOffset), SEEK_SET) == 0) {
        got = std::fread(record, 1, byteCount, stream);
    }
    if (got < byteCount) {
        char name[5];
        CopyAtomName(name, node->AtomName);
        PrintDiagnostic("Read atom[%s] data from file error!\n", name);
        return -99;
    }
    return 1;
}

void *LoadTable(const AtomSchema *schema, uint32_t count, AtomNode *node, FILE *stream) {
    // Head and table fill the atom exactly. The product is 64-bit, so that
    // a count too large for 32 bits can't wrap into a fit.
    // A table longer than the whole file is refused the same way.
    const uint64_t tableBytes = uint64_t(schema->EntrySize) * count;
    if (tableBytes + RecordHeadLength(*schema) != node->AtomSize ||
        tableBytes > FileSizeNow(stream)) {
        char name[5];
        CopyAtomName(name, node->AtomName);
        PrintDiagnostic("error to read atom[%s] data from file\n", name);
        return nullptr;
    }
    return LoadBehindHead(schema, tableBytes, node, stream);
}

int32_t ExtractVariablePart(AtomNode *node, const AtomSchema *schema, FILE *stream) {
    const VariablePartRow *row = FindVariablePart(node);
    if (row == nullptr) return 1;
    const uint8_t *record = node->realStructure;
    SetRecordPointer(node, nullptr);
    void *block = nullptr;
    switch (row->kind) {
    case VariablePart::kCountedTable:
        block = LoadTable(schema, GetBE32(record, field::kTableEntryCount), node, stream);
        break;
    case VariablePart::kSampleSizes:
        // A constant sample size leaves no table to load.
        if (GetBE32(record, field::kStszSampleSize) != 0) return 1;
        block = LoadTable(schema, GetBE32(record, field::kStszSampleCount), node, stream);
        break;
    case VariablePart::kPackedSizes:
        return 1;  // the classic reader has no such atom
    case VariablePart::kString: {
        // Everything from the end of the head to the end of the atom, with
        // no terminator. An atom shorter than its head has no string.
        const uint32_t head = RecordHeadLength(*schema);
        if (node->AtomSize <= head) return 1;
        SetRecordPointer(node, LoadBehindHead(schema, node->AtomSize - head, node, stream));
        return 1;
    }
    }
    if (block == nullptr) return -99;
    SetRecordPointer(node, block);
    return 1;
}

int32_t ExtractChildRecords(AtomNode *node, FILE *stream) {
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        if (child->FirstChild != nullptr) ExtractChildRecords(child, stream);
        ExtractRecord(child, stream);
    }
    return 1;
}

int32_t ExtractTreeRecords(Root_atom *root) {
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        ExtractChildRecords(atom, root->FileStream);
        ExtractRecord(atom, root->FileStream);
    }
    return 1;
}

namespace {

// Bytes of a packed "stz2" table: `count` fields of 4, 8 or 16 bits. Any
// other field size gives no table (UINT64_MAX never fits an atom).
uint64_t PackedTableBytes(uint8_t fieldBits, uint64_t count) {
    if (fieldBits != 4 && fieldBits != 8 && fieldBits != 16) return UINT64_MAX;
    return (count * fieldBits + 7) / 8;
}

// What the modern extraction reads from: the file through the handle's
// read-ahead window, and the file's size as the open measured it.
struct ModernSource {
    Root_atom *Root;
    ReadAhead **Window;
};

// Reads `length` bytes at `offset` into a new zeroed block; a file cut
// inside the block leaves a zeroed tail.
uint8_t *LoadBlock(const ModernSource &source, uint64_t offset, uint64_t length) {
    uint8_t *block = static_cast<uint8_t *>(ZeroAlloc(size_t(length)));
    if (block == nullptr || length == 0) return block;
    ReadAheadAt(source.Window, source.Root, offset, block, size_t(length));
    return block;
}

// The variable part of a modern node: a table must lie inside its atom
// (and so inside the file), whatever its count says; the atom may hold
// more than the table. A string is the rest of the atom.
void ExtractModernVariablePart(AtomNode *node, const AtomSchema &schema, uint8_t version,
                               uint32_t flags, uint64_t bodyEnd, const ModernSource &source) {
    const VariablePartRow *row = FindVariablePart(node);
    if (row == nullptr) return;
    const uint8_t *record = node->realStructure;
    const uint64_t start =
        node->AtomOffset + node->LargeHead + ModernHeadLength(schema, version, flags);
    const uint64_t room = bodyEnd > start ? bodyEnd - start : 0;
    uint64_t bytes = 0;
    switch (row->kind) {
    case VariablePart::kCountedTable:
        bytes = uint64_t(ModernEntrySize(schema, version, flags)) *
                GetBE32(record, field::kTableEntryCount);
        break;
    case VariablePart::kSampleSizes:
        if (GetBE32(record, field::kStszSampleSize) != 0) return;
        bytes = uint64_t(schema.EntrySize) * GetBE32(record, field::kStszSampleCount);
        break;
    case VariablePart::kPackedSizes:
        bytes = PackedTableBytes(record[field::kStz2FieldSize],
                                 GetBE32(record, field::kStszSampleCount));
        break;
    case VariablePart::kString:
        bytes = room;
        break;
    }
    if (bytes > room || bytes > source.Root->FileSize) return;  // the table stays missing
    SetRecordPointer(node, LoadBlock(source, start, bytes));
}

// One modern node: the 8 bytes of its head (size field and name) and its
// body up to the head of its version and flags, never past the atom's end.
void ExtractModernRecord(AtomNode *node, const ModernSource &source) {
    uint8_t *record = node->realStructure;
    if (record == nullptr) return;
    AtomSchema schema{};
    const bool known = GetAtomLayout(node, &schema) > 0;
    const uint64_t bodyEnd = node->AtomOffset + node->AtomSize;
    const uint64_t body = node->AtomOffset + node->LargeHead + kBareHeadLength;
    if (ReadAheadAt(source.Window, source.Root, node->AtomOffset, record, kBareHeadLength) !=
            kBareHeadLength ||
        !known)
        return;
    constexpr uint32_t kAllFlags = 0xFFFFFF;
    const uint32_t fullHead =
        std::max(RecordHeadLength(schema), ModernHeadLength(schema, 1, kAllFlags));
    const uint64_t room = bodyEnd > body ? bodyEnd - body : 0;
    const size_t want = size_t(std::min<uint64_t>(fullHead - kBareHeadLength, room));
    if (want > 0) ReadAheadAt(source.Window, source.Root, body, record + kBareHeadLength, want);
    const uint8_t version = want > 0 ? record[field::kVersionFlags] : 0;
    const uint32_t flags = want >= 4 ? GetBE32(record, field::kVersionFlags) & kAllFlags : 0;
    // A head of version 0, or with fewer flagged fields, is shorter than
    // the one read: what lies behind it belongs to the body (a table, a
    // child) and is cleared.
    const uint32_t head = ModernHeadLength(schema, version, flags);
    if (head < fullHead) std::memset(record + head, 0, fullHead - head);
    if (schema.EntrySize != 0 || schema.Flagged != nullptr) {
        SetRecordPointer(node, nullptr);
        ExtractModernVariablePart(node, schema, version, flags, bodyEnd, source);
    }
}

// A node before its children, so that the reads follow the file forward
// and the window serves them.
void ExtractModernChildren(AtomNode *node, const ModernSource &source) {
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        ExtractModernRecord(child, source);
        if (child->FirstChild != nullptr) ExtractModernChildren(child, source);
    }
}

}  // namespace

int32_t ExtractModernTreeRecords(Root_atom *root, ReadAhead **window) {
    const ModernSource source{root, window};
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        ExtractModernRecord(atom, source);
        ExtractModernChildren(atom, source);
    }
    return 1;
}

void ReleaseVariablePart(AtomNode *node) {
    if (node->realStructure == nullptr || FindVariablePart(node) == nullptr) return;
    FreeIfSet(GetRecordPointer(node));
    SetRecordPointer(node, nullptr);
}

namespace {

void ReleaseNode(AtomNode *node) {
    if (node->realStructure != nullptr) {
        ReleaseVariablePart(node);
        std::free(node->realStructure);
    }
    std::free(node);
}

}  // namespace

void ReleaseChildAtoms(AtomNode *node) {
    AtomNode *child = node->FirstChild;
    while (child != nullptr) {
        if (child->FirstChild != nullptr) ReleaseChildAtoms(child);
        AtomNode *next = child->NextSibling;
        ReleaseNode(child);
        child = next;
    }
}

void ReleaseAtomList(AtomNode *first) {
    while (first != nullptr) {
        AtomNode *next = first->NextSibling;
        ReleaseChildAtoms(first);
        ReleaseNode(first);
        first = next;
    }
}
