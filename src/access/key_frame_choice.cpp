// Choosing a key frame, shared by the seek calls and the key frame steps:
// the KeyFrameTable path of TableMode 1 and the walk over the IsKeyFrame
// marks of the other modes.
#include <algorithm>

#include "access/access.h"

bool HasKeyFrameTable(const TrackNode *node) {
    return node->TableMode == MP4_TABLE_KEYFRAMES && node->KeyFrameRecords != nullptr;
}

uint32_t UsedKeyFrames(const TrackNode *node) {
    if (node->KeyFrameRecords == nullptr) return 0;
    return std::min(node->KeyFrameCount, node->KeyFrameCapacity);
}

void LandOnKeyFrameRecord(VideoTrackNode *record, const TrackNode *node, int64_t time,
                          int32_t search, int32_t chosen) {
    const KeyFrameRecord *keys = node->KeyFrameRecords;
    const int32_t count = int32_t(std::min<uint32_t>(UsedKeyFrames(node), INT32_MAX));
    const int64_t last = SampleTimeKey(node, node->SampleCount - 1);
    // Without key frames, and before the first one, the track starts over
    // at sample 0, as the walk over the marks does.
    if (count == 0) {
        record->SampleCursor = 0;
        record->KeyFrameCursor = 0;
    } else if (time <= 0) {
        record->SampleCursor = int32_t(keys[0].SampleIndex);
        record->KeyFrameCursor = 1;
    } else if (time >= last) {
        record->SampleCursor = int32_t(keys[count - 1].SampleIndex);
        record->KeyFrameCursor = count - 1;
    } else if (chosen < 0 || chosen >= count) {
        record->SampleCursor = 0;
        record->KeyFrameCursor = search + 1;
    } else {
        record->SampleCursor = int32_t(keys[chosen].SampleIndex);
        record->KeyFrameCursor = search + 1;
    }
}

int32_t LastKeyMarkAtOrBefore(const TrackNode *node, int32_t from) {
    int32_t index = int32_t(std::min<int64_t>(from, int64_t(node->SampleCount) - 1));
    while (index >= 0 && ViewSample(node, uint32_t(index)).IsKeyFrame != 1) --index;
    return index;
}
