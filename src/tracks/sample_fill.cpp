// Filling a track's SampleTable from its sample atoms: finding the atoms,
// times and sizes from "stts" and "stsz", file offsets from "stsc" and
// "stco". Key frames are the business of keyframes.cpp.
#include <cstdint>
#include <initializer_list>

#include "tracks/sample_atoms.h"

namespace {

constexpr size_t kSttsEntryBytes = 8;
constexpr size_t kStscEntryBytes = 12;
constexpr size_t kWordEntryBytes = 4;

uint32_t Entry(const TableView &table, uint32_t index, size_t entryBytes, size_t field = 0) {
    return GetBE32(table.Entries, size_t(index) * entryBytes + field);
}

TableView ViewTable(const AtomNode *atom, uint32_t count) {
    const void *entries = GetRecordPointer(atom);
    return {static_cast<const uint8_t *>(entries), entries != nullptr ? count : 0};
}

// Stage 1, steps 2 to 6. Follows "mdia", "minf", "stbl" from the "trak"
// atom and collects the sample atoms; of two atoms of one name the later
// one counts.
int32_t FindSampleAtoms(const AtomNode *trak, SampleAtoms *atoms) {
    if (!AtomNameEquals(trak->AtomName, "trak")) return kFillNotTrak;
    const AtomNode *level = trak;
    for (const char *name : {"mdia", "minf", "stbl"}) {
        if (level->FirstChild == nullptr) return kFillEmptyLevel;
        level = FindChild(level, name);
        if (level == nullptr) return kFillNameNotFound;
    }
    if (level->FirstChild == nullptr) return kFillMissingAtom;

    *atoms = SampleAtoms{};
    for (const AtomNode *child = level->FirstChild; child != nullptr;
         child = child->NextSibling) {
        const uint8_t *record = child->realStructure;
        if (record == nullptr) continue;
        if (AtomNameEquals(child->AtomName, "stsz")) {
            atoms->HasStsz = true;
            atoms->ConstantSize = GetBE32(record, field::kStszSampleSize);
            atoms->StszCount = GetBE32(record, field::kStszSampleCount);
            atoms->Sizes = ViewTable(child, atoms->StszCount);
        } else if (AtomNameEquals(child->AtomName, "stts")) {
            atoms->Times = ViewTable(child, GetBE32(record, field::kTableEntryCount));
        } else if (AtomNameEquals(child->AtomName, "stsc")) {
            atoms->Chunks = ViewTable(child, GetBE32(record, field::kTableEntryCount));
        } else if (AtomNameEquals(child->AtomName, "stco")) {
            atoms->Offsets = ViewTable(child, GetBE32(record, field::kTableEntryCount));
        } else if (AtomNameEquals(child->AtomName, "stss")) {
            atoms->Syncs = ViewTable(child, GetBE32(record, field::kTableEntryCount));
        }
    }
    bool sizesKnown = atoms->HasStsz && (atoms->ConstantSize != 0 || atoms->Sizes.Entries);
    if (!sizesKnown || atoms->Times.Entries == nullptr || atoms->Chunks.Entries == nullptr ||
        atoms->Offsets.Entries == nullptr)
        return kFillMissingAtom;
    return 1;
}

// Stage 1 for both kinds of track: arguments, atoms, and the sample count,
// which the table made from the track's first "stsz" must hold.
int32_t BeginFill(TrackNode *node, SampleAtoms *atoms) {
    int32_t result = FindSampleAtoms(node->TrakAtom, atoms);
    if (result != 1) return result;
    if (atoms->StszCount > node->SampleCapacity) return kFillTableRunsOut;
    node->SampleCount = atoms->StszCount;
    node->KeyFrameCount = atoms->Syncs.Count;
    return 1;
}

// Stage 2. The first "stts" entry serves one sample more than its count:
// sample 0, which has no delta before it. An entry of count 0 serves no
// sample (the first still serves sample 0).
int32_t FillTimesAndSizes(TrackNode *node, const SampleAtoms &atoms) {
    uint32_t next = 0;   // the "stts" entry after the current one
    uint64_t left = 0;   // samples the current entry still serves
    uint32_t delta = 0;
    uint32_t time = 0;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        while (left == 0) {
            if (next >= atoms.Times.Count) return kFillTableRunsOut;
            left = uint64_t(Entry(atoms.Times, next, kSttsEntryBytes)) + (next == 0 ? 1 : 0);
            delta = Entry(atoms.Times, next, kSttsEntryBytes, 4);
            ++next;
        }
        time = i == 0 ? 0 : time + delta;  // wraps at 32 bits
        SampleRecord &record = node->SampleRecords[i];
        record.Time = time;
        record.Size = atoms.ConstantSize != 0 ? atoms.ConstantSize
                                              : Entry(atoms.Sizes, i, kWordEntryBytes);
        record.IsKeyFrame = 0;
        --left;
    }
    return 1;
}

// A run of chunks is what one "stsc" entry covers: from its FirstChunk to
// the next entry's, (FirstChunk[r + 1] - FirstChunk[r]) x SamplesPerChunk
// samples in 32-bit arithmetic, so that a FirstChunk that does not rise
// gives a run that wraps around to a length no track reaches. The last
// entry's run reaches to the end of the track.
struct ChunkRun {
    uint32_t Entry;
    uint32_t SamplesPerChunk;
    uint64_t Start;  // first sample of the run
    uint64_t End;    // first sample behind it, held in 64 bits
};

int32_t EnterRun(const TableView &chunks, uint32_t entry, uint64_t start, ChunkRun *run) {
    run->Entry = entry;
    run->Start = start;
    run->SamplesPerChunk = Entry(chunks, entry, kStscEntryBytes, 4);
    if (run->SamplesPerChunk == 0) return kFillTableRunsOut;
    if (entry + 1 >= chunks.Count) {
        run->End = UINT64_MAX;
        return 1;
    }
    const uint32_t first = Entry(chunks, entry, kStscEntryBytes);
    const uint32_t following = Entry(chunks, entry + 1, kStscEntryBytes);
    const uint32_t length = (following - first) * run->SamplesPerChunk;
    run->End = start + length;
    return 1;
}

// Stage 4. Samples and chunks are walked together; the walk starts at the
// first "stco" entry whatever the first FirstChunk says, and within a
// chunk the samples lie back to back. The walk goes to the next "stsc"
// entry when the sample number equals the run's end, so a run of length 0
// is never left; the "stco" bound keeps every walk inside the tables.
int32_t FillFileOffsets(TrackNode *node, const SampleAtoms &atoms) {
    if (node->SampleCount == 0) return 1;
    if (atoms.Chunks.Count == 0) return kFillTableRunsOut;
    ChunkRun run{};
    int32_t result = EnterRun(atoms.Chunks, 0, 0, &run);
    if (result != 1) return result;
    uint32_t chunk = 0;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        SampleRecord &record = node->SampleRecords[i];
        if (i != 0 && i == run.End) {
            result = EnterRun(atoms.Chunks, run.Entry + 1, run.End, &run);
            if (result != 1) return result;
            ++chunk;
        } else if (i != run.Start && (i - run.Start) % run.SamplesPerChunk == 0) {
            ++chunk;
        }
        if (i == run.Start || (i - run.Start) % run.SamplesPerChunk == 0) {
            if (chunk >= atoms.Offsets.Count) return kFillTableRunsOut;
            record.FileOffset = Entry(atoms.Offsets, chunk, kWordEntryBytes);
        } else {
            const SampleRecord &before = node->SampleRecords[i - 1];
            record.FileOffset = before.FileOffset + before.Size;
        }
    }
    return 1;
}

}  // namespace

int32_t FillVideoTables(TrackNode **holder, Root_atom *root, int32_t mode) {
    if (holder == nullptr || *holder == nullptr) return kFillBadArguments;
    TrackNode *node = *holder;
    if (root == nullptr || root->FileStream == nullptr || node->SampleRecords == nullptr ||
        (mode == MP4_TABLE_KEYFRAMES && node->KeyFrameRecords == nullptr) ||
        node->TrakAtom == nullptr)
        return kFillBadArguments;
    SampleAtoms atoms;
    int32_t result = BeginFill(node, &atoms);
    if (result == 1) result = FillTimesAndSizes(node, atoms);
    if (result == 1 && atoms.Syncs.Entries != nullptr)
        result = MarkKeyFramesFromStss(node, atoms.Syncs, mode);
    if (result == 1) result = FillFileOffsets(node, atoms);
    if (result == 1 && atoms.Syncs.Entries == nullptr) result = ScanKeyFrames(node, root, mode);
    return result;
}

// Audio keeps only the count of "stss": no sample is marked, no sample data
// is read.
int32_t FillAudioTables(TrackNode **holder, int32_t) {
    if (holder == nullptr || *holder == nullptr) return kFillBadArguments;
    TrackNode *node = *holder;
    if (node->SampleRecords == nullptr || node->TrakAtom == nullptr) return kFillBadArguments;
    SampleAtoms atoms;
    int32_t result = BeginFill(node, &atoms);
    if (result == 1) result = FillTimesAndSizes(node, atoms);
    if (result == 1) result = FillFileOffsets(node, atoms);
    return result;
}
