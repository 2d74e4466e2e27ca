// Serialisation of the sample tables of "stbl": each turns the track's one
// block of SampleRecords and KeyFrameRecords into its table, big-endian,
// hung on the record's pointer field. Chunk offsets are temp file offsets
// here; the flush shifts them to file offsets.
#include <cstdio>
#include <cstdlib>

#include "atoms/atoms.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;
constexpr int32_t kNotHandled = -1;

constexpr uint32_t kTableHead = 16;
constexpr uint32_t kStszHead = 20;
constexpr uint32_t kSttsEntry = 8;
constexpr uint32_t kCttsEntry = 8;
constexpr uint32_t kStscEntry = 12;
constexpr uint32_t kOffsetEntry = 4;
// Tracks other than video put this many samples in a chunk, and the rest
// in a last, shorter one.
constexpr uint32_t kSamplesPerChunk = 30;

// The samples and key frames of the track's block. After the merge of the
// flush this is the whole track.
struct Samples {
    const SampleRecord *records;
    uint32_t n;
    const KeyFrameRecord *keys;
    uint32_t k;
};

Samples SamplesOf(const TrackNode *track) {
    const uint32_t k = track->KeyFrameRecords != nullptr ? track->KeyFrameCount : 0;
    return {track->SampleRecords, track->SampleRecords != nullptr ? track->SampleCount : 0,
            track->KeyFrameRecords, k};
}

// Allocates a table of `bytes` and hangs it on the atom; a table an
// earlier run left is released first.
uint8_t *HangTable(AtomNode *node, uint64_t bytes) {
    if (bytes > UINT32_MAX) return nullptr;
    uint8_t *table = static_cast<uint8_t *>(ZeroAlloc(size_t(bytes)));
    if (table == nullptr) return nullptr;
    FreeIfSet(GetRecordPointer(node));
    SetRecordPointer(node, table);
    return table;
}

int32_t Finish(AtomNode *node, uint64_t size) {
    if (size > INT32_MAX) return kFailed;
    PutBE32(node->realStructure, field::kHeadSize, uint32_t(size));
    node->AtomSize = uint32_t(size);
    return int32_t(size);
}

int32_t FinishTable(AtomNode *node, uint32_t entryCount, uint32_t entryBytes) {
    PutBE32(node->realStructure, field::kTableEntryCount, entryCount);
    return Finish(node, kTableHead + uint64_t(entryCount) * entryBytes);
}

bool KeyFramesValid(const Samples &s) {
    for (uint32_t i = 0; i < s.k; ++i) {
        if (s.keys[i].SampleIndex >= s.n) return false;
        if (i > 0 && s.keys[i].SampleIndex < s.keys[i - 1].SampleIndex) return false;
    }
    return true;
}

uint32_t ChunkCount(int32_t trackType, const Samples &s) {
    if (trackType == MP4_TRACK_VIDEO) return s.k;
    return s.n / kSamplesPerChunk + (s.n % kSamplesPerChunk != 0 ? 1 : 0);
}

bool HasChunkPolicy(int32_t trackType) {
    return trackType == MP4_TRACK_VIDEO || trackType == MP4_TRACK_AUDIO ||
           trackType == MP4_TRACK_OD || trackType == MP4_TRACK_SCENE;
}

}  // namespace

// Durations are the differences of neighbouring time stamps, run-length
// coded. The last sample has no successor and counts with the last delta.
int32_t SerializeStts(AtomNode *node, TrackNode *track) {
    const Samples s = SamplesOf(track);
    uint8_t *table = HangTable(node, uint64_t(s.n) * kSttsEntry);
    if (table == nullptr) return kFailed;
    uint32_t entries = 0;
    if (s.n == 1) {
        PutBE32(table, 0, 1);
        PutBE32(table, 4, 0);
        entries = 1;
    } else if (s.n > 1) {
        uint32_t runCount = 0;
        uint32_t runDelta = 0;
        for (uint32_t i = 0; i + 1 < s.n; ++i) {
            const uint32_t delta = s.records[i + 1].Time - s.records[i].Time;
            if (runCount > 0 && delta == runDelta) {
                ++runCount;
                continue;
            }
            if (runCount > 0) {
                PutBE32(table, kSttsEntry * entries, runCount);
                PutBE32(table, kSttsEntry * entries + 4, runDelta);
                ++entries;
            }
            runCount = 1;
            runDelta = delta;
        }
        PutBE32(table, kSttsEntry * entries, runCount + 1);
        PutBE32(table, kSttsEntry * entries + 4, runDelta);
        ++entries;
    }
    uint32_t duration = 0;
    for (uint32_t e = 0; e < entries; ++e)
        duration += GetBE32(table, kSttsEntry * e) * GetBE32(table, kSttsEntry * e + 4);
    track->TrackDuration = duration;
    return FinishTable(node, entries, kSttsEntry);
}

int32_t SerializeCtts(AtomNode *node, TrackNode *track) {
    if (track->CompositionTimes == 0) return kNotHandled;
    const Samples s = SamplesOf(track);
    uint8_t *table = HangTable(node, uint64_t(s.n) * kCttsEntry);
    if (table == nullptr) return kFailed;
    for (uint32_t i = 0; i < s.n; ++i) {
        PutBE32(table, kCttsEntry * i, 1);
        PutBE32(table, kCttsEntry * i + 4, s.records[i].CompositionOffset);
    }
    return FinishTable(node, s.n, kCttsEntry);
}

// One common size needs no table. A common size of 0 keeps the table:
// SampleSize 0 means "sizes follow" to every reader.
int32_t SerializeStsz(AtomNode *node, TrackNode *track) {
    const Samples s = SamplesOf(track);
    uint8_t *r = node->realStructure;
    bool common = s.n > 0 && s.records[0].Size != 0;
    for (uint32_t i = 1; common && i < s.n; ++i) common = s.records[i].Size == s.records[0].Size;
    PutBE32(r, field::kStszSampleCount, s.n);
    if (common) {
        PutBE32(r, field::kStszSampleSize, s.records[0].Size);
        return Finish(node, kStszHead);
    }
    uint8_t *table = HangTable(node, uint64_t(s.n) * kOffsetEntry);
    if (table == nullptr) return kFailed;
    for (uint32_t i = 0; i < s.n; ++i) PutBE32(table, kOffsetEntry * i, s.records[i].Size);
    return Finish(node, kStszHead + uint64_t(s.n) * kOffsetEntry);
}

// Video: one chunk per key frame, up to the next one. Other tracks: 30
// samples per chunk and the rest in a last one; a track without samples
// has no chunk and no entry.
int32_t SerializeStsc(AtomNode *node, TrackNode *track) {
    if (!HasChunkPolicy(track->TrackType)) return kFailed;
    const Samples s = SamplesOf(track);
    if (track->TrackType == MP4_TRACK_VIDEO) {
        if (!KeyFramesValid(s)) return kFailed;
        uint8_t *table = HangTable(node, uint64_t(s.k) * kStscEntry);
        if (table == nullptr) return kFailed;
        for (uint32_t i = 0; i < s.k; ++i) {
            const uint32_t end = i + 1 < s.k ? s.keys[i + 1].SampleIndex : s.n;
            PutBE32(table, kStscEntry * i, i + 1);
            PutBE32(table, kStscEntry * i + 4, end - s.keys[i].SampleIndex);
            PutBE32(table, kStscEntry * i + 8, 1);
        }
        return FinishTable(node, s.k, kStscEntry);
    }
    const uint32_t full = s.n / kSamplesPerChunk;
    const uint32_t rest = s.n % kSamplesPerChunk;
    uint8_t *table = HangTable(node, 2 * kStscEntry);
    if (table == nullptr) return kFailed;
    uint32_t entries = 0;
    if (full > 0) {
        PutBE32(table, 0, 1);
        PutBE32(table, 4, kSamplesPerChunk);
        PutBE32(table, 8, 1);
        entries = 1;
    }
    if (rest > 0) {
        PutBE32(table, kStscEntry * entries, full + 1);
        PutBE32(table, kStscEntry * entries + 4, rest);
        PutBE32(table, kStscEntry * entries + 8, 1);
        ++entries;
    }
    return FinishTable(node, entries, kStscEntry);
}

int32_t SerializeStco(AtomNode *node, TrackNode *track) {
    if (!HasChunkPolicy(track->TrackType)) return kFailed;
    const Samples s = SamplesOf(track);
    const bool video = track->TrackType == MP4_TRACK_VIDEO;
    if (video && !KeyFramesValid(s)) return kFailed;
    const uint32_t chunks = ChunkCount(track->TrackType, s);
    uint8_t *table = HangTable(node, uint64_t(chunks) * kOffsetEntry);
    if (table == nullptr) return kFailed;
    for (uint32_t j = 0; j < chunks; ++j) {
        const uint32_t first = video ? s.keys[j].SampleIndex : kSamplesPerChunk * j;
        PutBE32(table, kOffsetEntry * j, s.records[first].TempOffset);
    }
    return FinishTable(node, chunks, kOffsetEntry);
}

// Sample numbers in the file count from 1.
int32_t SerializeStss(AtomNode *node, TrackNode *track) {
    const Samples s = SamplesOf(track);
    uint8_t *table = HangTable(node, uint64_t(s.k) * kOffsetEntry);
    if (table == nullptr) return kFailed;
    for (uint32_t i = 0; i < s.k; ++i) PutBE32(table, kOffsetEntry * i, s.keys[i].SampleIndex + 1);
    return FinishTable(node, s.k, kOffsetEntry);
}
