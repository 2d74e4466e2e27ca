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
#include "result_text.h"
#include "tracks/tracks.h"

namespace {

template <typename Record>
bool KeepsTables(const Record *first, const AtomNode *trak) {
    for (const Record *record = first; record != nullptr; record = record->NextTrack) {
        if (record->Track != nullptr && record->Track->TrakAtom == trak) return true;
    }
    return false;
}

// Whether the atom lies in a "trak" whose track kept its tables: the open
// has then expanded the entries of its sample atoms into those tables and
// freed them.
bool InExpandedTrack(const MP4_local_file *file, const AtomNode *node) {
    const AtomNode *trak = node;
    while (trak != nullptr && !AtomNameEquals(trak->AtomName, "trak")) trak = trak->ParentAtom;
    if (trak == nullptr) return false;
    const ReadForm &form = file->read;
    return KeepsTables(form.VideoFirst, trak) || KeepsTables(form.AudioFirst, trak);
}

// What follows an entry count whose table the record does not hold.
const char *MissingTableNote(const MP4_local_file *file, const AtomNode *node) {
    return InExpandedTrack(file, node) ? " (expanded into the track's tables)"
                                       : " (table not loaded)";
}

// Entry count of a table atom as its record holds it, and whether the
// table came with it.
void PrintTable(const MP4_local_file *file, const AtomNode *node, const AtomSchema &schema) {
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
        std::printf("  samples=%u%s", count, loaded ? "" : MissingTableNote(file, node));
        return;
    }
    if (node->AtomSize < 16) return;
    std::printf("  entries=%u%s", GetBE32(record, field::kTableEntryCount),
                loaded ? "" : MissingTableNote(file, node));
}

void PrintAtom(const MP4_local_file *file, const AtomNode *node, uint32_t depth) {
    std::printf("%*s[%s] offset=%llu size=%llu depth=%u", int(depth * 2), "", node->AtomName,
                static_cast<unsigned long long>(node->AtomOffset),
                static_cast<unsigned long long>(node->AtomSize), depth);
    AtomSchema schema{};
    const int32_t known = GetAtomSchema(node, &schema);
    if (known > 0) {
        PrintTable(file, node, schema);
    } else if (IsKnownAtomName(node->AtomName) >= 0) {
        std::printf("  (known, no layout: 8-byte head)");
    } else {
        std::printf("  (unknown)");
    }
    std::printf("\n");
}

// The tree's depth is bounded by the reader, so plain recursion serves.
void PrintTree(const MP4_local_file *file, const AtomNode *first, uint32_t depth) {
    for (const AtomNode *node = first; node != nullptr; node = node->NextSibling) {
        PrintAtom(file, node, depth);
        PrintTree(file, node->FirstChild, depth + 1);
    }
}

int RunDump(const Arguments &arguments) {
    MP4_local_file *file = nullptr;
    const int32_t result = MP4FileOpen(&file, arguments.operands[0], MP4_TABLE_KEYFRAMES);
    std::printf("\nMP4FileOpen: %d\n", result);
    if (result != 1) return ReportFailure(kDumpCommand.name, "MP4FileOpen", result);
    std::printf("file size: %llu\n", static_cast<unsigned long long>(file->RootAtom->FileSize));
    PrintTree(file, file->RootAtom->FirstAtom, 0);
    MP4FileClose(&file);
    return 0;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file to read"}};

}  // namespace

extern const CommandRow kDumpCommand = {
    "dump",
    "the atom tree as read, with the open's diagnostics",
    kOperands, CountOf(kOperands), nullptr, 0,
    "\nOpens FILE as the library reads it (key frame tables kept), then prints the\n"
    "open's own diagnostics, its result (\"MP4FileOpen: 1\"), the file size, and one\n"
    "line per atom: depth, name, offset and size, with the entry counts of the\n"
    "atoms that hold tables. Atoms the catalogue does not know say so.\n",
    RunDump,
};
