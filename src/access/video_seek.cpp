// Decoder-assisted video seek: brings the video track and the caller's
// decoder to a sample given by its number. The steps through the key frames
// go through NextKeyFrame, the samples fed behind the key frame through
// GetNextSample, and every sample fetched is released before the call ends.
#include <cstdio>

#include "access/access.h"

// The decoder entry is the application's. The reference is weak, so that
// the library loads and links without a decoder; its address is then null.
extern "C" int32_t decore(uint32_t command, DecoreFrame *frame, void *context)
    __attribute__((weak, visibility("default")));

namespace {

constexpr int32_t kVideoSeekBadArguments = -1;
constexpr int32_t kVideoSeekNoDecoder = -2;
constexpr int32_t kVideoSeekStepFailed = -31;
constexpr int32_t kVideoSeekKeyFrameDecodeFailed = -32;
constexpr int32_t kVideoSeekFeedFailed = -33;

// Where the target lies among the key frames: the record that names it
// (`exact`), or the last record before it.
struct KeyFrameTarget {
    bool exact;
    int64_t record;  // -1: no key frame at or before the target
};

// Walks the key frame records from the first, comparing their SampleIndex
// with the target.
KeyFrameTarget FindTargetKeyFrame(const TrackNode *node, uint32_t sampleNumber) {
    const uint32_t count = UsedKeyFrames(node);
    for (uint32_t k = 0; k < count; ++k) {
        const uint32_t index = node->KeyFrameRecords[k].SampleIndex;
        if (index == sampleNumber) return {true, k};
        if (index > sampleNumber) return {false, int64_t(k) - 1};
    }
    return {false, int64_t(count) - 1};
}

void PrintVideoTracks(const MP4_local_file *file) {
    int place = 1;
    for (const VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        PrintDiagnostic("VIDEO:Track ID[%d] Track type[%d] %dth\n", int(v->TrackId),
                    int(v->TrackType), place++);
}

int32_t Decode(const MP4Sample *sample, DecoreFrame *frame, void *context) {
    frame->Data = sample->Data;
    return decore(MP4_DECORE_DECODE, frame, context);
}

}  // namespace

int32_t Mp4VideoSeek(MP4_local_file *file, uint32_t reserved, int32_t sampleNumber,
                     uint32_t *result, void *contextWord, void *context, uintptr_t frameWord0,
                     uintptr_t frameWord1, uintptr_t frameWord2, uintptr_t frameWord3) {
    if (decore == nullptr) return kVideoSeekNoDecoder;
    if (file == nullptr || contextWord == nullptr || context == nullptr || result == nullptr ||
        reserved != 0 || sampleNumber < 0)
        return kVideoSeekBadArguments;
    // The call follows one track throughout: the video track last used,
    // which after the open is the first of the list. It needs the
    // KeyFrameTable of TableMode 1.
    VideoTrackNode *record = file->read.VideoCurrent;
    if (record == nullptr || record->Track == nullptr) return kVideoSeekBadArguments;
    const TrackNode *node = record->Track;
    if (!HasKeyFrameTable(node) || !HasSampleTables(node))
        return kVideoSeekBadArguments;
    const uint32_t target = uint32_t(sampleNumber);
    if (target > record->SampleCount) return kVideoSeekBadArguments;
    // Without a key frame at or before the target there is nothing the
    // decoder could start from.
    const KeyFrameTarget found = FindTargetKeyFrame(node, target);
    if (!found.exact && found.record < 0) return kVideoSeekBadArguments;

    static_cast<void **>(context)[MP4_DECORE_CONTEXT_SLOT] = contextWord;
    record->KeyFrameCursor = 0;
    // Key frame k > 0 takes k steps, which from a cursor at 0 reach key
    // frame k - 1; key frame 0 takes the one step that reaches it.
    int64_t steps = found.record + 1;
    if (found.exact && found.record > 0) steps = found.record;
    PrintVideoTracks(file);

    const uint32_t trackId = record->TrackId;
    SampleHolder current;
    for (int64_t step = 0; step < steps; ++step) {
        MP4Sample *next = nullptr;
        int32_t stepped = NextKeyFrame(file, trackId, MP4_TRACK_VIDEO, &next);
        if (stepped < 0) return kVideoSeekStepFailed;
        if (stepped == 1) current.reset(next);
    }
    // Steps that gave no sample leave nothing for the decoder.
    if (!current) return kVideoSeekStepFailed;

    DecoreFrame frame{reinterpret_cast<void *>(frameWord0), frameWord1, frameWord2, frameWord3};
    if (Decode(current.get(), &frame, context) < 0) return kVideoSeekKeyFrameDecodeFailed;
    if (found.exact) {
        *result = uint32_t(frame.Result);
        return 1;
    }

    // Feed the decoder from the key frame before the target up to the
    // sample before it, so that the next GetNextSample gives the target.
    const uint32_t keyIndex = node->KeyFrameRecords[found.record].SampleIndex;
    record->SampleCursor = int32_t(keyIndex);
    for (uint32_t fed = keyIndex; fed < target; ++fed) {
        MP4Sample *next = nullptr;
        // A sample that could not be read must not reach the decoder in
        // place of the one missing.
        if (GetNextSample(file, trackId, MP4_TRACK_VIDEO, &next) != 1)
            return kVideoSeekFeedFailed;
        current.reset(next);
        if (Decode(current.get(), &frame, context) < 0) return kVideoSeekFeedFailed;
    }
    *result = uint32_t(frame.Result);
    return 1;
}
