// Filling a track's SampleTable on the modern path: 64-bit times and
// offsets, "co64", "stz2", signed composition offsets from "ctts", and sync
// samples from "stss" or, without it, every sample. Each table is read as
// ISO/IEC 14496-12 lays it out; none is trusted beyond its own entries.
#include <cstdlib>

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
    Table Times;    // "stts": count, delta
    Table Offsets;  // "ctts": count, offset (signed in version 1, and so read)
    Table Chunks;   // "stsc": first chunk, samples per chunk, description
    Table ChunkOffsets;  // "stco" (4 bytes) or "co64" (8 bytes)
    Table Syncs;    // "stss"
    bool HasSyncTable = false;
};

// The sample atoms of a track. A table whose entries did not load (its
// count claims more than its atom holds) makes the track unusable, for
// "ctts" and "stss" as for the others: reading on without it would give
// wrong times or key frames.
bool FindModernAtoms(const AtomNode *trak, ModernAtoms *atoms) {
    const char *const path[] = {"mdia", "minf", "stbl"};
    const AtomNode *stbl = WalkPath(trak, path, 3, nullptr);
    if (stbl == nullptr) return false;
    bool haveSizes = false;
    bool lost = false;
    for (const AtomNode *child = stbl->FirstChild; child != nullptr; child = child->NextSibling) {
        const uint8_t *record = child->realStructure;
        if (record == nullptr) continue;
        const char *name = child->AtomName;
        if (AtomNameEquals(name, "stsz") || AtomNameEquals(name, "stz2")) {
            Sizes sizes;
            const bool packed = AtomNameEquals(name, "stz2");
            sizes.Constant = packed ? 0 : GetBE32(record, field::kStszSampleSize);
            sizes.Bits = packed ? record[field::kStz2FieldSize] : 32;
            sizes.Entries = static_cast<const uint8_t *>(GetRecordPointer(child));
            if (sizes.Constant == 0 && sizes.Entries == nullptr) continue;
            if (sizes.Constant != 0) sizes.Entries = nullptr;
            atoms->SampleSizes = sizes;
            haveSizes = true;
        } else if (AtomNameEquals(name, "stts")) {
            atoms->Times = ViewCounted(child, 8);
        } else if (AtomNameEquals(name, "ctts")) {
            atoms->Offsets = ViewCounted(child, 8);
            lost = lost || atoms->Offsets.Entries == nullptr;
        } else if (AtomNameEquals(name, "stsc")) {
            atoms->Chunks = ViewCounted(child, 12);
        } else if (AtomNameEquals(name, "stco")) {
            atoms->ChunkOffsets = ViewCounted(child, 4);
        } else if (AtomNameEquals(name, "co64")) {
            atoms->ChunkOffsets = ViewCounted(child, 8);
        } else if (AtomNameEquals(name, "stss")) {
            atoms->Syncs = ViewCounted(child, 4);
            atoms->HasSyncTable = true;
            lost = lost || atoms->Syncs.Entries == nullptr;
        }
    }
    return !lost && haveSizes && atoms->Times.Entries != nullptr && atoms->Chunks.Entries != nullptr &&
           atoms->ChunkOffsets.Entries != nullptr;
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
    return 1;
}

// File offsets: each "stsc" entry covers the chunks from its first chunk up
// to the next entry's; the samples of a chunk lie back to back from the
// chunk's offset. Entries that don't rise, or give no samples, place
// nothing. Samples that no chunk holds are cut off the track.
void FillOffsets(TrackNode *node, const ModernAtoms &atoms) {
    const Table &chunks = atoms.Chunks;
    const Table &offsets = atoms.ChunkOffsets;
    uint32_t sample = 0;
    uint64_t nextChunk = 0;  // 0-based: chunks before it have been placed
    for (uint32_t e = 0; e < chunks.Count && sample < node->SampleCount; ++e) {
        uint64_t first = chunks.Word(e) > 0 ? chunks.Word(e) - 1 : 0;
        uint64_t end = e + 1 < chunks.Count ? uint64_t(chunks.Word(e + 1)) - (chunks.Word(e + 1) > 0)
                                            : offsets.Count;
        if (first < nextChunk) first = nextChunk;
        if (end > offsets.Count) end = offsets.Count;
        const uint32_t perChunk = chunks.Word(e, 4);
        if (perChunk == 0) continue;
        for (uint64_t c = first; c < end && sample < node->SampleCount; ++c) {
            uint64_t at = offsets.Width == 8 ? (uint64_t(offsets.Word(uint32_t(c))) << 32) |
                                                   offsets.Word(uint32_t(c), 4)
                                             : offsets.Word(uint32_t(c));
            for (uint32_t k = 0; k < perChunk && sample < node->SampleCount; ++k) {
                SampleRecord &record = node->SampleRecords[sample++];
                record.FileOffset = uint32_t(at);
                record.FileOffsetHigh = uint32_t(at >> 32);
                at += record.Size;
            }
        }
        if (end > nextChunk) nextChunk = end;
    }
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

int32_t FillModernTables(TrackNode *node, uint32_t count) {
    node->Modern = 1;
    node->SampleCount = 0;
    // A track whose samples all lie in fragments needs none of the atoms.
    if (count == 0) return 1;
    ModernAtoms atoms;
    if (!FindModernAtoms(node->TrakAtom, &atoms)) return kModernFillMissingAtom;
    node->SampleCount = count < node->SampleCapacity ? count : node->SampleCapacity;
    for (uint32_t i = 0; i < node->SampleCount; ++i)
        node->SampleRecords[i].Size = atoms.SampleSizes.Of(i);
    FillOffsets(node, atoms);
    const int32_t result = FillTimes(node, atoms.Times);
    if (result != 1) return result;
    FillCompositionOffsets(node, atoms.Offsets);
    FillSyncs(node, atoms);
    return 1;
}

// IsKeyFrame is the classic mark, which audio never carries. TableMode 1
// video gets the KeyFrameTable of the sync samples in order.
int32_t FinishModernTables(TrackNode *node, int32_t trackType, int32_t mode) {
    SampleRecord *records = node->SampleRecords;
    uint32_t keys = 0;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        records[i].IsKeyFrame = trackType == MP4_TRACK_VIDEO ? records[i].IsSync : 0;
        keys += records[i].IsKeyFrame;
    }
    node->KeyFrameCount = keys;
    if (trackType != MP4_TRACK_VIDEO || mode != MP4_TABLE_KEYFRAMES) return 1;
    // One record more than the key frames: key frame navigation reads the
    // one behind the last.
    if (ReserveKeyFrames(node, keys + 1) != 1) return kModernFillNoMemory;
    uint32_t k = 0;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        if (records[i].IsKeyFrame != 1) continue;
        node->KeyFrameRecords[k].Time = records[i].Time;
        node->KeyFrameRecords[k].SampleIndex = i;
        ++k;
    }
    return 1;
}
