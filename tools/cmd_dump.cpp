// mp4core dump FILE: opens the file as the library reads it, then prints
// its atom tree: one line per atom with depth, name, offset and size, the
// entry counts of the atoms with tables, and the catalogue's view of atoms
// it does not know. The open's own diagnostics come first, on the same
// standard output.
#include <cstdio>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "mp4core.h"
#include "commands.h"

namespace {

// Entry count of a table atom as its record holds it, and whether the
// table came with it.
void PrintTable(const AtomNode *node, const AtomSchema &schema) {
    if (node->realStructure == nullptr || schema.EntrySize == 0 || schema.HasString) return;
    const uint8_t *record = node->realStructure;
    const bool loaded = GetRecordPointer(node) != nullptr;
    if (AtomNameEquals(node->AtomName, "stsz")) {
        const uint32_t sampleSize = GetBE32(record, field::kStszSampleSize);
        const uint32_t count = GetBE32(record, field::kStszSampleCount);
        if (sampleSize != 0) {
            std::printf("  samples=%u constant-size=%u", count, sampleSize);
            return;
        }
        std::printf("  samples=%u%s", count, loaded ? "" : " (table not loaded)");
        return;
    }
    if (node->AtomSize < 16) return;
    std::printf("  entries=%u%s", GetBE32(record, field::kTableEntryCount),
                loaded ? "" : " (table not loaded)");
}

void PrintAtom(const AtomNode *node, uint32_t depth) {
    std::printf("%*s[%s] offset=%u size=%u depth=%u", int(depth * 2), "", node->AtomName,
                node->AtomOffset, node->AtomSize, depth);
    AtomSchema schema{};
    const int32_t known = GetAtomSchema(node, &schema);
    if (known > 0) {
        PrintTable(node, schema);
    } else if (IsKnownAtomName(node->AtomName) >= 0) {
        std::printf("  (known, no layout: 8-byte head)");
    } else {
        std::printf("  (unknown)");
    }
    std::printf("\n");
}

// The tree's depth is bounded by the reader, so plain recursion serves.
void PrintTree(const AtomNode *first, uint32_t depth) {
    for (const AtomNode *node = first; node != nullptr; node = node->NextSibling) {
        PrintAtom(node, depth);
        PrintTree(node->FirstChild, depth + 1);
    }
}

}  // namespace

int RunDump(int argc, char **argv) {
    if (argc != 1) {
        std::fprintf(stderr, "usage: mp4core dump FILE\n");
        return 2;
    }
    MP4_local_file *file = nullptr;
    const int32_t result = MP4FileOpen(&file, argv[0], MP4_TABLE_KEYFRAMES);
    std::printf("\nMP4FileOpen: %d\n", result);
    if (result != 1) return 1;
    std::printf("file size: %u\n", file->RootAtom->FileSize);
    PrintTree(file->RootAtom->FirstAtom, 0);
    MP4FileClose(&file);
    return 0;
}
