// Samples in bulk, into the caller's memory: MP4ReadSampleInto,
// MP4GetSampleInfos and MP4ReadSamples. They find a track as the calls by
// number do, describe samples with one walk over its tables, and read
// through the handle's read-ahead; nothing is allocated.
#include <algorithm>

#include "access/access.h"

namespace {

constexpr int32_t kBulkBadArguments = -99;
constexpr int32_t kBulkPastEnd = -96;
constexpr int32_t kBulkShortRead = -92;
constexpr int32_t kBulkTooSmall = -91;

// The track of a bulk call, with a run of `count` samples from `first`
// checked to lie in it.
int32_t FindRun(MP4_local_file *file, uint32_t trackId, int32_t trackType, uint32_t first,
                uint32_t count, NumberedTrack *track) {
    const int32_t result = FindNumberedTrack(file, trackId, trackType, track);
    if (result != 1) return result;
    if (uint64_t(first) + count > track->Node->SampleCount) return kBulkPastEnd;
    return 1;
}

// Whether the file holds bytes up to `end`: the size measured at the open,
// or, for a file another process may still be appending to, its size now.
bool FileHolds(const Root_atom *root, uint64_t end) {
    return end <= root->FileSize || end <= FileSizeNow(root->FileStream);
}

// Reads up to `size` bytes at `offset` into `bytes`, as far as the file
// holds them: the bytes read.
uint64_t ReadSpan(MP4_local_file *file, uint64_t offset, uint8_t *bytes, uint64_t size) {
    Root_atom *root = file->RootAtom;
    if (!FileHolds(root, offset + size)) {
        const uint64_t now = FileSizeNow(root->FileStream);
        size = now > offset ? std::min(size, now - offset) : 0;
    }
    if (size == 0) return 0;
    return ReadAheadAt(&file->read.SampleWindow, root, offset, bytes, size_t(size));
}

}  // namespace

int32_t MP4ReadSampleInto(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                          uint32_t sampleNumber, uint8_t *buffer, uint32_t capacity,
                          MP4SampleInfo *info) {
    if (file == nullptr || info == nullptr || (buffer == nullptr && capacity > 0) || trackId == 0)
        return kBulkBadArguments;
    NumberedTrack track;
    const int32_t result = FindRun(file, trackId, trackType, sampleNumber, 1, &track);
    if (result != 1) return result;
    SampleWalk walk = StartSampleWalk(track.Node, sampleNumber);
    StepSampleWalk(&walk, info);
    if (info->Size > capacity) return kBulkTooSmall;
    MoveNumberedCursor(track, sampleNumber + 1);
    if (info->Size == 0) return 1;
    return ReadSpan(file, info->FileOffset, buffer, info->Size) == info->Size ? 1
                                                                                : kBulkShortRead;
}

int32_t MP4GetSampleInfos(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                          uint32_t first, uint32_t count, MP4SampleInfo *infos) {
    if (file == nullptr || (infos == nullptr && count > 0) || trackId == 0)
        return kBulkBadArguments;
    NumberedTrack track;
    const int32_t result = FindRun(file, trackId, trackType, first, count, &track);
    if (result != 1) return result;
    SampleWalk walk = StartSampleWalk(track.Node, first);
    for (uint32_t i = 0; i < count; ++i) StepSampleWalk(&walk, &infos[i]);
    return 1;
}

int32_t MP4ReadSamples(MP4_local_file *file, uint32_t trackId, int32_t trackType, uint32_t first,
                       uint32_t count, uint8_t *buffer, uint64_t capacity, MP4SampleInfo *infos,
                       uint32_t *done) {
    if (file == nullptr || infos == nullptr || done == nullptr ||
        (buffer == nullptr && capacity > 0) || trackId == 0)
        return kBulkBadArguments;
    NumberedTrack track;
    const int32_t result = FindRun(file, trackId, trackType, first, count, &track);
    if (result != 1) return result;
    *done = 0;
    if (count == 0) return 1;

    // Describe the samples that fit; a run of them that lies back to back
    // in the file (a chunk) is read with one read, straight into place.
    SampleWalk walk = StartSampleWalk(track.Node, first);
    uint32_t taken = 0;
    uint64_t used = 0;       // buffer bytes the samples taken fill
    uint32_t spanFirst = 0;  // first sample of the span not yet read
    uint64_t spanStart = 0;  // its buffer position
    uint32_t read = 0;       // samples whose bytes are in the buffer
    // Reads the span of samples spanFirst to end - 1; the samples that
    // arrived whole count, and the batch ends at the first that did not.
    auto readSpan = [&](uint32_t end) {
        const uint64_t size = used - spanStart;
        const uint64_t got = ReadSpan(file, infos[spanFirst].FileOffset, buffer + spanStart, size);
        for (uint64_t at = spanStart; read < end && at + infos[read].Size <= spanStart + got;)
            at += infos[read++].Size;
        return got == size;
    };
    bool whole = true;
    while (taken < count) {
        StepSampleWalk(&walk, &infos[taken]);
        const MP4SampleInfo &info = infos[taken];
        if (info.Size > capacity - used) break;
        const MP4SampleInfo *before = taken > spanFirst ? &infos[taken - 1] : nullptr;
        if (before != nullptr && before->FileOffset + before->Size != info.FileOffset) {
            if (!(whole = readSpan(taken))) break;
            spanFirst = taken;
            spanStart = used;
        }
        used += info.Size;
        ++taken;
    }
    if (whole && taken > spanFirst) readSpan(taken);
    if (read == 0 && taken == 0) return kBulkTooSmall;
    if (read == 0) {
        MoveNumberedCursor(track, first + 1);
        return kBulkShortRead;
    }
    MoveNumberedCursor(track, first + read);
    *done = read;
    return 1;
}
