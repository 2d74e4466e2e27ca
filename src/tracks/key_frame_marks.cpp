// Key frames of a video track: from "stss" when the track has one, and
// otherwise from the coding type of the video object plane that starts
// each sample.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "tracks/sample_atoms.h"

namespace {

constexpr uint32_t kVopStartCode = 0x000001B6;
// The start code must be complete within this many bytes of a sample;
// the coding type follows in the next byte.
constexpr uint32_t kVopSearchBytes = 20;
constexpr uint32_t kCodingTypeIntra = 0;
constexpr uint32_t kCodingTypeSprite = 3;
constexpr size_t kScanWindowBytes = 64 * 1024;

// Appends one key frame to the table, keeping a zeroed record behind it.
// The table grows by half again, so that the filling stays linear.
int32_t AppendKeyFrame(TrackNode *node, uint32_t sample) {
    uint32_t needed = node->KeyFrameCount + 2;
    if (needed > node->KeyFrameCapacity) {
        uint64_t grown = std::max<uint64_t>(needed, uint64_t(node->KeyFrameCapacity) * 3 / 2);
        grown = std::min<uint64_t>(grown, uint64_t(node->SampleCapacity) / 2 + 1);
        if (ReserveKeyFrames(node, uint32_t(std::max<uint64_t>(grown, needed))) != 1)
            return kFillNoMemoryForKeyFrames;
    }
    KeyFrameRecord &record = node->KeyFrameRecords[node->KeyFrameCount];
    record.SampleIndex = sample;
    record.Time = node->SampleRecords[sample].Time;
    return 1;
}

// Gives back what the growth of the table left unused, keeping the zeroed
// record behind the last key frame.
void TrimKeyFrames(TrackNode *node) {
    uint32_t needed = node->KeyFrameCount + 1;
    if (node->KeyFrameRecords == nullptr || node->KeyFrameCapacity <= needed) return;
    void *trimmed = std::realloc(node->KeyFrameRecords, size_t(needed) * sizeof(KeyFrameRecord));
    if (trimmed == nullptr) return;  // the larger table serves as well
    node->KeyFrameRecords = static_cast<KeyFrameRecord *>(trimmed);
    node->KeyFrameCapacity = needed;
}

// A window on the file that the scan reads the head of each sample from:
// samples lie mostly in file order, so one read serves many of them.
struct ScanWindow {
    std::unique_ptr<uint8_t[]> bytes{new (std::nothrow) uint8_t[kScanWindowBytes]};
    uint64_t start = 0;
    size_t length = 0;
};

// Copies the bytes at `offset` that the scan of one sample may look at: up
// to the search window and the coding type byte, never past the end of the
// file. Gives the number of bytes copied.
size_t ReadSampleHead(Root_atom *root, ScanWindow &window, uint32_t offset, uint8_t *bytes,
                      size_t capacity) {
    if (offset >= root->FileSize) return 0;
    size_t wanted = std::min<size_t>(capacity, root->FileSize - offset);
    if (offset < window.start || offset + wanted > window.start + window.length) {
        size_t span = std::min<size_t>(kScanWindowBytes, root->FileSize - offset);
        window.start = offset;
        window.length = ReadFileAt(root->FileStream, offset, window.bytes.get(), span);
        wanted = std::min(wanted, window.length);
    }
    std::memcpy(bytes, window.bytes.get() + (offset - window.start), wanted);
    return wanted;
}

// The position of the byte that completes the start code of a video object
// plane within the window, or -1. The register starts at 0, so a sample
// that begins with 01 B6 or 00 01 B6 matches as well.
int32_t FindVopStartCode(const uint8_t *bytes, size_t count) {
    uint32_t shifted = 0;
    size_t window = std::min<size_t>(count, kVopSearchBytes);
    for (size_t k = 0; k < window; ++k) {
        shifted = (shifted << 8) | bytes[k];
        if (shifted == kVopStartCode) return int32_t(k);
    }
    return -1;
}

}  // namespace

// Every entry names a sample from 1; an entry of 0 or past the samples gives
// the track up. The table holds exactly the entries and a zeroed record.
int32_t MarkKeyFramesFromStss(TrackNode *node, const TableView &syncs, int32_t mode) {
    if (mode == MP4_TABLE_KEYFRAMES) {
        if (ReserveKeyFrames(node, syncs.Count + 1) != 1) return kFillNoMemoryForKeyFrames;
    }
    for (uint32_t k = 0; k < syncs.Count; ++k) {
        uint32_t sample = GetBE32(syncs.Entries, size_t(k) * 4) - 1;
        if (mode == MP4_TABLE_KEYFRAMES) {
            node->KeyFrameRecords[k].SampleIndex = sample;
            if (sample >= node->SampleCount) return kFillStssOutOfRangeKeyTable;
            node->KeyFrameRecords[k].Time = node->SampleRecords[sample].Time;
        } else if (sample >= node->SampleCount) {
            return kFillStssOutOfRangeMarks;
        }
        node->SampleRecords[sample].IsKeyFrame = 1;
    }
    return 1;
}

// Video without "stss": each sample must start with a video object plane
// within its first 20 bytes, whose coding type says whether it is a key
// frame. Intra planes beyond half the samples, a sprite plane or a sample
// without the start code stop the scan, and the track is given up.
int32_t ScanKeyFrames(TrackNode *node, Root_atom *root, int32_t mode) {
    node->KeyFrameCount = 0;
    uint8_t bytes[kVopSearchBytes + 1];
    ScanWindow window;
    if (!window.bytes) return kFillNoMemoryForKeyFrames;
    for (uint32_t i = 0; i < node->SampleCount; ++i) {
        SampleRecord &sample = node->SampleRecords[i];
        size_t count = ReadSampleHead(root, window, sample.FileOffset, bytes, sizeof bytes);
        int32_t at = FindVopStartCode(bytes, count);
        if (at < 0 || size_t(at) + 1 >= count) return kFillScanStopped;
        uint32_t codingType = bytes[at + 1] >> 6;
        if (codingType == kCodingTypeSprite) return kFillScanStopped;
        if (codingType != kCodingTypeIntra) continue;
        PrintDiagnostic(">>>frame [%d] is Key Frame\n", int(i));
        if (node->KeyFrameCount >= node->SampleCount / 2) return kFillScanStopped;
        if (mode == MP4_TABLE_KEYFRAMES) {
            int32_t result = AppendKeyFrame(node, i);
            if (result != 1) return result;
        }
        sample.IsKeyFrame = 1;
        ++node->KeyFrameCount;
    }
    TrimKeyFrames(node);
    return 1;
}
