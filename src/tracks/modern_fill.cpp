// Filling a track's SampleTable on the modern path: 64-bit times and
// offsets, "co64", "stz2", signed composition offsets from "ctts", and sync
// samples from "stss" or, without it, every sample. Each table is read as
// ISO/IEC 14496-12 lays it out; none is trusted beyond its own entries.
#include <algorithm>
#include <cstdlib>

#include "media/media.h"
#include "tracks/tracks.h"

namespace {

constexpr int32_t kModernFillMissingAtom = -99;
constexpr int32_t kModernFillNoMemory = -98;

// One loaded table of the modern tree: its entries, big-endian as in the
// file, how many there are and how wide each is.
struct Table {
    const uint8_t *Entries = nullptr;
    uint32_t Count = 0;
    uint32_t Width = 0;

    uint32_t Word(uint32_t index, uint32_t at = 0) const {
        return GetBE32(Entries, size_t(index) * Width + at);
    }
};

Table ViewCounted(const AtomNode *atom, uint32_t width) {
    Table table;
    if (atom == nullptr || atom->realStructure == nullptr) return table;
    table.Entries = static_cast<const uint8_t *>(GetRecordPointer(atom));
    if (table.Entries != nullptr) table.Count = GetBE32(atom->realStructure, field::kTableEntryCount);
    table.Width = width;
    return table;
}

// The sizes of the samples: one constant, a table of 32-bit words ("stsz")
// or of packed 4, 8 or 16-bit fields ("stz2").
struct Sizes {
    uint32_t Constant = 0;
    const uint8_t *Entries = nullptr;
    uint8_t Bits = 32;

    uint32_t Of(uint32_t index) const {
        if (Entries == nullptr) return Constant;
        switch (Bits) {
        case 4: {
            const uint8_t byte = Entries[index / 2];
            return index % 2 == 0 ? byte >> 4 : byte & 0x0F;
        }
        case 8:
            return Entries[index];
        case 16:
            return GetBE16(Entries, size_t(index) * 2);
        default:
            return GetBE32(Entries, size_t(index) * 4);
        }
    }
};

struct ModernAtoms {
    Sizes SampleSizes;
    uint32_t SampleCount = 0;  // of the same size atom as SampleSizes
    Table Times;    // "stts": count, delta
    Table Offsets;  // "ctts": count, offset (signed in version 1, and so read)
    Table Chunks;   // "stsc": first chunk, samples per chunk, description
    Table ChunkOffsets;  // "stco" (4 bytes) or "co64" (8 bytes)
    Table Syncs;    // "stss"
    bool HasSyncTable = false;
};

// The table atoms of an "stbl" that the fill reads. Of each the first one
// counts, for its count and its entries alike; a later one of the same
// slot ("stz2" behind "stsz", "co64" behind "stco") is passed over.
enum TableSlot { kSlotSizes, kSlotTimes, kSlotOffsets, kSlotChunks, kSlotChunkOffsets, kSlotSyncs,
                 kSlotCount };
struct SlotName {
    char Name[5];
    TableSlot Slot;
};
constexpr SlotName kSlotNames[] = {
    {"stsz", kSlotSizes},  {"stz2", kSlotSizes},  {"stts", kSlotTimes},
    {"ctts", kSlotOffsets}, {"stsc", kSlotChunks}, {"stco", kSlotChunkOffsets},
    {"co64", kSlotChunkOffsets}, {"stss", kSlotSyncs},
};

// The sample atoms of a track. A table whose entries did not load (its
// count claims more than its atom holds) makes the track unusable, for
// "ctts" and "stss" as for the others: reading on without it would give
// wrong times or key frames.
bool FindModernAtoms(const AtomNode *trak, ModernAtoms *atoms) {
    const char *const path[] = {"mdia", "minf", "stbl"};
    const AtomNode *stbl = WalkPath(trak, path, 3, nullptr);
    if (stbl == nullptr) return false;
    bool seen[kSlotCount] = {};
    bool lost = false;
    for (const AtomNode *child = stbl->FirstChild; child != nullptr; child = child->NextSibling) {
        const uint8_t *record = child->realStructure;
        if (record == nullptr) continue;
        const char *name = child->AtomName;
        const SlotName *slot = nullptr;
        for (const SlotName &row : kSlotNames)
            if (AtomNameEquals(name, row.Name)) slot = &row;
        if (slot == nullptr || seen[slot->Slot]) continue;
        seen[slot->Slot] = true;
        switch (slot->Slot) {
        case kSlotSizes: {
            Sizes &sizes = atoms->SampleSizes;
            const bool packed = AtomNameEquals(name, "stz2");
            sizes.Constant = packed ? 0 : GetBE32(record, field::kStszSampleSize);
            sizes.Bits = packed ? record[field::kStz2FieldSize] : 32;
            sizes.Entries = sizes.Constant != 0 ? nullptr
                                                : static_cast<const uint8_t *>(GetRecordPointer(child));
            atoms->SampleCount = GetBE32(record, field::kStszSampleCount);
            lost = lost || (sizes.Constant == 0 && sizes.Entries == nullptr && atoms->SampleCount > 0);
            break;
        }
        case kSlotTimes:
            atoms->Times = ViewCounted(child, 8);
            break;
        case kSlotOffsets:
            atoms->Offsets = ViewCounted(child, 8);
            lost = lost || atoms->Offsets.Entries == nullptr;
            break;
        case kSlotChunks:
            atoms->Chunks = ViewCounted(child, 12);
            break;
        case kSlotChunkOffsets:
            atoms->ChunkOffsets = ViewCounted(child, AtomNameEquals(name, "co64") ? 8 : 4);
            break;
        case kSlotSyncs:
            atoms->Syncs = ViewCounted(child, 4);
            atoms->HasSyncTable = true;
            lost = lost || atoms->Syncs.Entries == nullptr;
            break;
        default:
            break;
        }
    }
    return !lost && seen[kSlotSizes] && atoms->Times.Entries != nullptr &&
           atoms->Chunks.Entries != nullptr && atoms->ChunkOffsets.Entries != nullptr;
}

// Samples of a constant size without "stss" are held as runs. `Unit` is
// what one sample of "stsz" stands for: a sample of its constant size, or
// for uncompressed audio whose samples are single frames a frame, taken
// `Group` to a sample.
struct RunUnits {
    uint32_t Size = 0;
    uint16_t Group = 1;
};

// The entries of "stts" or "ctts" taken unit by unit: the value of the
// current entry and how many units it still serves. Entries of count 0
// serve none; past the last entry, `Endless` says whether its value goes
// on (the last delta of "stts") or 0 does (a "ctts" that ends early).
struct EntryCursor {
    const Table *Entries;
    bool Endless;
    uint32_t Next = 0;
    uint64_t Left = 0;
    uint32_t Value = 0;

    // Units the current entry still serves, never 0 (UINT64_MAX past the end).
    uint64_t Available() {
        while (Left == 0 && Next < Entries->Count) {
            Left = Entries->Word(Next);
            Value = Entries->Word(Next, 4);
            ++Next;
        }
        if (Left > 0) return Left;
        if (!Endless) Value = 0;
        return UINT64_MAX;
    }
    void Take(uint64_t units) {
        if (Left != 0) Left -= units;
    }
};

// The chunks of a track in order: each "stsc" entry covers the chunks from
// its first chunk up to the next entry's, and `visit` takes each chunk's
// offset, its samples and the entry's sample description index, and says
// whether to go on. Entries that don't rise, or give no samples, place
// nothing.
template <typename Visit>
void WalkChunks(const ModernAtoms &atoms, Visit visit) {
    const Table &chunks = atoms.Chunks;
    const Table &offsets = atoms.ChunkOffsets;
    uint64_t nextChunk = 0;  // 0-based: chunks before it have been placed
    for (uint32_t e = 0; e < chunks.Count; ++e) {
        uint64_t first = chunks.Word(e) > 0 ? chunks.Word(e) - 1 : 0;
        uint64_t end = e + 1 < chunks.Count ? uint64_t(chunks.Word(e + 1)) - (chunks.Word(e + 1) > 0)
                                            : offsets.Count;
        if (first < nextChunk) first = nextChunk;
        if (end > offsets.Count) end = offsets.Count;
        const uint32_t perChunk = chunks.Word(e, 4);
        if (perChunk == 0) continue;
        for (uint64_t c = first; c < end; ++c) {
            const uint64_t at = offsets.Width == 8 ? (uint64_t(offsets.Word(uint32_t(c))) << 32) |
                                                         offsets.Word(uint32_t(c), 4)
                                                   : offsets.Word(uint32_t(c));
            if (!visit(at, perChunk, chunks.Word(e, 8))) return;
        }
        if (end > nextChunk) nextChunk = end;
    }
}

// Walks the chunks of a constant-size track and gives `emit` its runs in
// order: a run ends where a chunk, an "stts" or a "ctts" entry ends. Each
// chunk's samples lie back to back from its offset, as in FillOffsets;
// units that no chunk holds are cut off the track. `emit` also takes the
// sample description index of the run's "stsc" entry. Gives the end time.
template <typename Emit>
uint64_t WalkConstantRuns(const ModernAtoms &atoms, uint32_t count, const RunUnits &units, Emit emit) {
    EntryCursor times{&atoms.Times, true};
    EntryCursor compositions{&atoms.Offsets, false};
    if (atoms.Times.Count > 0) times.Value = atoms.Times.Word(0, 4);
    uint64_t time = 0;
    uint32_t placed = 0;
    WalkChunks(atoms, [&](uint64_t at, uint32_t perChunk, uint32_t description) {
        uint64_t left = std::min<uint64_t>(perChunk, count - placed);
        while (left > 0) {
            const uint64_t n = std::min({left, times.Available(), compositions.Available()});
            SampleRun run{};
            run.Units = uint32_t(n);
            run.FirstOffset = at;
            run.FirstTime = time;
            run.UnitSize = units.Size;
            run.UnitDuration = times.Value;
            run.CompositionOffset = compositions.Value;
            run.Group = units.Group;
            run.IsSync = 1;
            if (!emit(run, description)) return false;
            at += n * units.Size;
            time += n * times.Value;
            placed += uint32_t(n);
            left -= n;
            times.Take(n);
            compositions.Take(n);
        }
        return placed < count;
    });
    return time;
}

// Whether the "stbl" samples of a track are held as runs, and what one
// "stsz" sample stands for: samples of one size without "stss". A table of
// sizes that gives every sample of uncompressed audio one frame's size is
// taken as that constant size.
bool HeldAsRuns(Root_atom *root, const AtomNode *trak, const ModernAtoms &atoms, uint32_t count,
                RunUnits *units) {
    if (atoms.HasSyncTable) return false;
    uint32_t constant = atoms.SampleSizes.Constant;
    bool byteFrames = false;
    const uint32_t frameBytes = PcmFrameBytes(root, FirstSampleEntry(trak), &byteFrames);
    if (constant == 0 && frameBytes != 0) {
        const uint32_t first = atoms.SampleSizes.Of(0);
        uint32_t i = 1;
        while (i < count && atoms.SampleSizes.Of(i) == first) ++i;
        if (i == count && (first == frameBytes || (byteFrames && first == 1))) constant = first;
    }
    if (constant == 0) return false;
    units->Size = constant;
    // QuickTime's older sound descriptions count frames of one byte each.
    if (frameBytes != 0 && byteFrames && constant == 1) units->Size = frameBytes;
    if (frameBytes != 0 && units->Size == frameBytes) units->Group = kPcmFramesPerSample;
    return true;
}

// Decoding times: sample i starts at the sum of the deltas before it. Past
// the end of "stts" the last delta goes on.
int32_t FillTimes(TrackNode *node, const Table &times) {
    uint64_t time = 0;
    uint32_t entry = 0;
    uint64_t left = times.Count > 0 ? times.Word(0) : 0;
    uint32_t delta = times.Count > 0 ? times.Word(0, 4) : 0;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        while (left == 0 && entry + 1 < times.Count) {
            ++entry;
            left = times.Word(entry);
            delta = times.Word(entry, 4);
        }
        const int32_t result = SetDecodeTime(node, i, time);
        if (result != 1) return result;
        time += delta;
        if (left > 0) --left;
    }
    node->DecodeDuration = time;
    // The last sample's delta: nothing behind it tells it.
    node->RecordOpen = node->SampleCount > 0;
    node->OpenDuration = delta;
    node->OpenEnd = time;
    return 1;
}

// File offsets: the samples of a chunk lie back to back from the chunk's
// offset. Samples that no chunk holds are cut off the track.
void FillOffsets(TrackNode *node, const ModernAtoms &atoms) {
    uint32_t sample = 0;
    WalkChunks(atoms, [&](uint64_t at, uint32_t perChunk, uint32_t description) {
        // A mark only where the index changes: at most one per "stsc" entry.
        MarkFrom(&node->Descriptions, sample, description);
        for (uint32_t k = 0; k < perChunk && sample < node->SampleCount; ++k) {
            SampleRecord &record = node->SampleRecords[sample++];
            record.FileOffset = uint32_t(at);
            record.FileOffsetHigh = uint32_t(at >> 32);
            at += record.Size;
        }
        return sample < node->SampleCount;
    });
    node->SampleCount = sample;
}

void FillCompositionOffsets(TrackNode *node, const Table &offsets) {
    uint32_t sample = 0;
    for (uint32_t e = 0; e < offsets.Count && sample < node->SampleCount; ++e) {
        const uint32_t count = offsets.Word(e);
        const uint32_t offset = offsets.Word(e, 4);
        for (uint32_t k = 0; k < count && sample < node->SampleCount; ++k)
            node->SampleRecords[sample++].CompositionOffset = offset;
    }
}

// Sync flags from "stss"; without it every sample is a sync sample.
void FillSyncs(TrackNode *node, const ModernAtoms &atoms) {
    SampleRecord *records = node->SampleRecords;
    if (!atoms.HasSyncTable) {
        for (uint32_t i = 0; i < node->SampleCount; ++i) records[i].IsSync = 1;
        return;
    }
    for (uint32_t e = 0; e < atoms.Syncs.Count; ++e) {
        const uint32_t number = atoms.Syncs.Word(e);
        if (number >= 1 && number <= node->SampleCount) records[number - 1].IsSync = 1;
    }
}

}  // namespace

int32_t SetDecodeTime(TrackNode *node, uint32_t index, uint64_t time) {
    node->SampleRecords[index].Time = uint32_t(time);
    const uint32_t high = uint32_t(time >> 32);
    const uint32_t count = node->TimeHighCount;
    if (high == (count > 0 ? node->TimeHighs[count - 1].High : 0)) return 1;
    // The list's room doubles from 4, so that a track whose time keeps
    // jumping costs amortised constant time per change: it is full at 0, 4
    // and every larger power of two.
    if (count == 0 || (count >= 4 && (count & (count - 1)) == 0)) {
        const size_t capacity = count == 0 ? 4 : size_t(count) * 2;
        void *grown = std::realloc(node->TimeHighs, capacity * sizeof(TimeHigh));
        if (grown == nullptr) return kModernFillNoMemory;
        node->TimeHighs = static_cast<TimeHigh *>(grown);
    }
    node->TimeHighs[count] = TimeHigh{index, high};
    node->TimeHighCount = count + 1;
    return 1;
}

bool AppendRecord(TrackNode *node, const SampleRecord &record, uint64_t time, uint32_t duration) {
    if (node->RecordCount >= node->RecordCapacity || node->SampleCount >= node->SampleCapacity)
        return false;
    const uint32_t index = node->RecordCount;
    SampleRun *last = node->RunCount > 0 ? &node->Runs[node->RunCount - 1] : nullptr;
    const bool extends = last != nullptr && last->Group == 0 && last->FirstOffset + last->Units == index;
    CloseOpenRecord(node, node->Runs == nullptr || extends, time);
    node->SampleRecords[index] = record;
    if (SetDecodeTime(node, index, time) != 1) return false;
    if (node->Runs != nullptr) {
        if (extends) {
            ++last->Units;
        } else {
            SampleRun run{};
            run.Units = 1;
            run.FirstOffset = index;
            if (!AppendRun(node, run)) return false;
            --node->SampleCount;  // counted below, with the record
        }
    }
    node->RecordCount = index + 1;
    ++node->SampleCount;
    node->RecordOpen = 1;
    node->OpenDuration = duration;
    node->OpenEnd = time + duration;
    return true;
}

bool AppendRun(TrackNode *node, const SampleRun &run) {
    const uint32_t samples = RunSamples(run);
    if (samples == 0) return true;
    if (node->RunCount >= node->RunCapacity || samples > node->SampleCapacity - node->SampleCount)
        return false;
    CloseOpenRecord(node, false, 0);
    SampleRun &placed = node->Runs[node->RunCount++];
    placed = run;
    placed.FirstSample = node->SampleCount;
    node->SampleCount += samples;
    return true;
}

void PlanModernTables(const Root_atom *root, const AtomNode *trak, TablePlan *plan) {
    bool fits = false;
    const uint32_t count = ModernSampleCount(trak, root->FileSize, &fits);
    // A track whose samples all lie in fragments needs none of the atoms.
    if (count == 0) return;
    ModernAtoms atoms;
    if (!fits || !FindModernAtoms(trak, &atoms)) {
        plan->Usable = false;
        return;
    }
    RunUnits units;
    if (!HeldAsRuns(const_cast<Root_atom *>(root), trak, atoms, count, &units)) {
        plan->Records += count;
        plan->Samples += count;
        plan->RecordRuns += 1;
        plan->SyncBound += atoms.HasSyncTable ? std::min(count, atoms.Syncs.Count) : count;
        plan->DescriptionMarks += atoms.Chunks.Count;
        return;
    }
    plan->DescriptionMarks += atoms.Chunks.Count;
    WalkConstantRuns(atoms, count, units, [&](const SampleRun &run, uint32_t) {
        ++plan->Runs;
        plan->Samples += RunSamples(run);
        plan->SyncBound += RunSamples(run);
        return true;
    });
}

int32_t FillModernTables(Root_atom *root, TrackNode *node) {
    node->Modern = 1;
    node->SampleCount = 0;
    bool fits = false;
    const uint32_t count = ModernSampleCount(node->TrakAtom, root->FileSize, &fits);
    if (count == 0) return 1;
    ModernAtoms atoms;
    if (!FindModernAtoms(node->TrakAtom, &atoms)) return kModernFillMissingAtom;
    RunUnits units;
    if (HeldAsRuns(root, node->TrakAtom, atoms, count, &units)) {
        bool placed = true;
        node->DecodeDuration = WalkConstantRuns(atoms, count, units, [&](const SampleRun &run,
                                                                         uint32_t description) {
            MarkFrom(&node->Descriptions, node->SampleCount, description);
            return placed = AppendRun(node, run);
        });
        return placed ? 1 : kModernFillNoMemory;
    }
    // The "stbl" samples come first: record i is sample i.
    node->SampleCount = std::min(count, node->RecordCapacity);
    for (uint32_t i = 0; i < node->SampleCount; ++i)
        node->SampleRecords[i].Size = atoms.SampleSizes.Of(i);
    FillOffsets(node, atoms);
    const int32_t result = FillTimes(node, atoms.Times);
    if (result != 1) return result;
    FillCompositionOffsets(node, atoms.Offsets);
    FillSyncs(node, atoms);
    node->RecordCount = node->SampleCount;
    if (node->Runs != nullptr && node->RecordCount > 0) {
        SampleRun run{};
        run.Units = node->RecordCount;
        node->Runs[0] = run;
        node->RunCount = 1;
    }
    return 1;
}

// IsKeyFrame is the classic mark, which audio never carries. TableMode 1
// video gets the KeyFrameTable of the sync samples in order.
int32_t FinishModernTables(TrackNode *node, int32_t trackType, int32_t mode) {
    CloseOpenRecord(node, false, 0);
    const bool video = trackType == MP4_TRACK_VIDEO;
    SampleRecord *records = node->SampleRecords;
    uint64_t keys = 0;
    for (uint32_t i = 0; i < node->RecordCount; ++i) {
        records[i].IsKeyFrame = video ? records[i].IsSync : 0;
        keys += records[i].IsKeyFrame;
    }
    for (uint32_t r = 0; r < node->RunCount; ++r) {
        const SampleRun &run = node->Runs[r];
        if (run.Group != 0 && video && run.IsSync) keys += RunSamples(run);
    }
    node->KeyFrameCount = uint32_t(keys);
    if (!video || mode != MP4_TABLE_KEYFRAMES) return 1;
    // One record more than the key frames: key frame navigation reads the
    // one behind the last.
    if (keys >= UINT32_MAX || ReserveKeyFrames(node, uint32_t(keys) + 1) != 1)
        return kModernFillNoMemory;
    uint32_t k = 0;
    for (uint32_t i = 0; i < node->SampleCount && k < keys; ++i) {
        const SampleView sample = ViewSample(node, i);
        if (sample.IsKeyFrame != 1) continue;
        node->KeyFrameRecords[k].Time = uint32_t(sample.Time);
        node->KeyFrameRecords[k].SampleIndex = i;
        ++k;
    }
    return 1;
}
