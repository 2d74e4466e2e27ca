// mp4core dump FILE: opens the file as the library reads it, then prints
// its atom tree: one line per atom with depth, name, offset and size, the
// entry counts of the atoms with tables, and the catalogue's view of atoms
// it does not know. With --classic the classic reader's own diagnostics
// come first, on the same standard output; the modern reader prints none.
#include <cstdio>
#include <string>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "mp4core.h"
#include "commands.h"
#include "result_text.h"
#include "tracks/tracks.h"
#include "views.h"

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
    // Only the modern reader gives the tracks of other handlers tables.
    return KeepsTables(form.VideoFirst, trak) || KeepsTables(form.AudioFirst, trak) ||
           (form.Modern && KeepsTables(form.OtherFirst, trak));
}

// What follows an entry count whose table the record does not hold.
const char *MissingTableNote(const MP4_local_file *file, const AtomNode *node) {
    return InExpandedTrack(file, node) ? " (expanded into the track's tables)"
                                       : " (table not loaded)";
}

// Entry count of a table atom as its record holds it, and whether the
// table came with it.
void PrintTable(const MP4_local_file *file, const AtomNode *node, const AtomSchema &schema) {
    // A run of a fragment: its samples went to its track's table.
    if (AtomNameEquals(node->AtomName, "trun") && RecordHolds(node, field::kTrunSampleCount + 4)) {
        std::printf("  samples=%u", GetBE32(node->realStructure, field::kTrunSampleCount));
        return;
    }
    if (node->realStructure == nullptr || schema.EntrySize == 0 || schema.HasString) return;
    const uint8_t *record = node->realStructure;
    const bool loaded = GetRecordPointer(node) != nullptr;
    if (AtomNameEquals(node->AtomName, "stz2")) {
        std::printf("  samples=%u bits=%u%s", GetBE32(record, field::kStszSampleCount),
                    unsigned(record[field::kStz2FieldSize]),
                    loaded ? "" : MissingTableNote(file, node));
        return;
    }
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

// What only the modern reader reads: a 64-bit size, the type of a "uuid".
void PrintModernHead(const AtomNode *node) {
    if (node->LargeHead != 0) std::printf("  (64-bit size)");
    constexpr size_t kUuidType = 8, kUuidBytes = 16;
    if (AtomNameEquals(node->AtomName, "uuid") && RecordHolds(node, kUuidType + kUuidBytes)) {
        std::printf("  type=");
        for (size_t i = 0; i < kUuidBytes; ++i)
            std::printf("%s%02x", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "",
                        node->realStructure[kUuidType + i]);
    }
}

// The name as the file has it; of a node of the modern reader, which keeps
// any name ("\xA9too" in "ilst"), a byte that isn't printable as \xNN.
std::string AtomNameText(const AtomNode *node) {
    if (node->Reader != kModernReader) return node->AtomName;
    std::string text;
    for (size_t i = 0; i < 4; ++i) {
        const unsigned char c = static_cast<unsigned char>(node->AtomName[i]);
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, c >= 0x20 && c < 0x7F ? "%c" : "\\x%02X", c);
        text += escaped;
    }
    return text;
}

void PrintAtom(const MP4_local_file *file, const AtomNode *node, uint32_t depth) {
    std::printf("%*s[%s] offset=%llu size=%llu depth=%u", int(depth * 2), "",
                AtomNameText(node).c_str(),
                static_cast<unsigned long long>(node->AtomOffset),
                static_cast<unsigned long long>(node->AtomSize), depth);
    if (node->Reader == kModernReader) PrintModernHead(node);
    AtomSchema schema{};
    const int32_t known = GetAtomSchema(node, &schema);
    if (known > 0) {
        PrintTable(file, node, schema);
    } else if (IsKnownAtomName(node->AtomName, AtomReader(node->Reader)) >= 0) {
        std::printf("  (known, no layout: 8-byte head)");
    } else {
        std::printf(node->Reader == kModernReader ? "  (opaque: passed over by its size)"
                                                  : "  (unknown)");
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
    const bool classic = WantsClassic(arguments);
    const char *call = classic ? "MP4FileOpen" : "MP4FileOpenEx";
    const int32_t result = classic
        ? MP4FileOpen(&file, arguments.operands[0], MP4_TABLE_KEYFRAMES)
        : MP4FileOpenEx(&file, arguments.operands[0], MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN);
    // The blank line sets the classic open's diagnostics apart.
    std::printf(classic ? "\n%s: %d\n" : "%s (modern reader): %d\n", call, int(result));
    if (result != 1) return ReportFailure(kDumpCommand.name, call, result);
    int status = 0;
    if (const char *path = OptionValue(arguments, "--payload")) {
        uint8_t *data = nullptr;
        uint64_t size = 0;
        const int32_t got = MP4GetAtom(file, path, &data, &size);
        if (got == 1) {
            PrintHexBlock(path, data, uint32_t(size), 0);
        } else {
            status = ReportFailure(kDumpCommand.name, "MP4GetAtom", got, path);
        }
        void *block = data;
        MP4freeData(&block);
    } else {
        std::printf("file size: %llu\n", static_cast<unsigned long long>(file->RootAtom->FileSize));
        PrintTree(file, file->RootAtom->FirstAtom, 0);
    }
    MP4FileClose(&file);
    return status;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file to read"}};
constexpr OptionRow kOptions[] = {
    MP4CORE_CLASSIC_OPTION,
    {"--payload", "PATH", false, false,
     "print the payload of the atom at PATH (\"moov/trak[1]/tkhd\") in hex, not the tree"},
};

}  // namespace

extern const CommandRow kDumpCommand = {
    "dump",
    "the atom tree as read, with the open's diagnostics",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nOpens FILE with the modern reader (MP4FileOpenEx with MP4_OPEN_MODERN, key\n"
    "frame tables kept), then prints its result (\"MP4FileOpenEx (modern reader): 1\"),\n"
    "the file size, and one line per atom: depth, name, offset and size, with the\n"
    "entry counts of the atoms that hold tables, a 64-bit size and the type of a\n"
    "\"uuid\". Atoms the catalogue does not know are passed over and say so.\n"
    "With --classic it opens FILE with MP4FileOpen and prints that open's own\n"
    "diagnostics first, then its result (\"MP4FileOpen: 1\"); an atom the classic\n"
    "reader does not know ends its container's scan.\n"
    "With --payload PATH it prints, behind the open's result, the payload of one\n"
    "atom (MP4GetAtom: names joined by \"/\", each with an optional 1-based index\n"
    "among its siblings of that name, \"*\" for any name) in hex, instead of the tree.\n",
    RunDump,
};
