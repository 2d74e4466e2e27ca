// Key frame navigation: NextKeyFrame and PrevKeyFrame step from the video
// cursor to a key frame and read it, wrapping around the ends of the track
// instead of reporting them.
#include "access/access.h"

namespace {

enum class Direction { Next, Prev };

constexpr int32_t kStepAudioTrack = -95;
constexpr int32_t kStepBadTrackType = -94;
constexpr int32_t kStepNoMemory = -93;
constexpr TableCodes kStepTableCodes{-91, -90};
constexpr ReadCodes kStepReadCodes{-88, -89, -87};

// The table path: `cursor` is within the table, which has a KeyFrameTable.
// A cursor on a key frame lands on that key frame in both directions.
void ChooseByTable(VideoTrackNode *record, const TrackNode *node, int32_t cursor,
                   Direction direction) {
    const int64_t time = SampleTimeKey(node, uint32_t(cursor));
    const int64_t last = SampleTimeKey(node, node->SampleCount - 1);
    const int32_t count = int32_t(UsedKeyFrames(node));
    const int32_t search = SearchTrackKeyFrames(node, uint32_t(count), time);
    const bool onKey = ViewSample(node, uint32_t(cursor)).IsKeyFrame == 1;
    if (onKey || direction == Direction::Next) {
        // Forward from a non-key sample: the key frame behind the one at or
        // before it; none behind the last wraps to sample 0.
        LandOnKeyFrameRecord(record, node, time, search, onKey ? search : search + 1);
        return;
    }
    if (time <= 0 || time >= last || count == 0) {
        LandOnKeyFrameRecord(record, node, time, search, search);
        return;
    }
    // Back: the key frame before the nearest one behind the cursor, and
    // from the first key frame (or before it) round to the last.
    if (search > 0) {
        record->SampleCursor = int32_t(node->KeyFrameRecords[search - 1].SampleIndex);
        record->KeyFrameCursor = int32_t(uint32_t(record->KeyFrameCursor) - 1u);
    } else {
        record->SampleCursor = int32_t(node->KeyFrameRecords[count - 1].SampleIndex);
        record->KeyFrameCursor = count - 2;
    }
}

// The mark path: walks over IsKeyFrame, testing samples of the table only.
int32_t ChooseByMarks(const TrackNode *node, int32_t cursor, Direction direction) {
    const int32_t count = int32_t(node->SampleCount);
    if (ViewSample(node, uint32_t(cursor)).IsKeyFrame == 1) return cursor;
    if (direction == Direction::Next) {
        for (int32_t index = cursor + 1; index < count; ++index)
            if (ViewSample(node, uint32_t(index)).IsKeyFrame == 1) return index;
        return 0;  // past the end: sample 0, key frame or not
    }
    int32_t nearest = LastKeyMarkAtOrBefore(node, cursor);
    int32_t before = nearest < 0 ? -1 : LastKeyMarkAtOrBefore(node, nearest - 1);
    if (before >= 0) return before;
    // Before the first key frame the walk goes round to the last one.
    int32_t lastKey = LastKeyMarkAtOrBefore(node, count - 1);
    return lastKey < 0 ? 0 : lastKey;
}

int32_t StepToKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                       MP4Sample **sample, Direction direction) {
    if (file == nullptr || trackId == 0 || sample == nullptr) return kFindBadArguments;
    if (trackType == MP4_TRACK_AUDIO) return kStepAudioTrack;
    if (trackType != MP4_TRACK_VIDEO) return kStepBadTrackType;
    AccessTrack track{};
    int32_t result = FindVideoTrack(file, trackId, &track.Video);
    if (result != 1) return result;
    SampleHolder holder = NewSample();
    if (!holder) return kStepNoMemory;
    TrackNode *node = nullptr;
    result = CheckTrackTables(track, kStepTableCodes, &node);
    if (result != 1) return result;
    // A track without samples has no sample under the cursor to start from.
    if (node->SampleCount == 0) return 0;

    // The step starts from a sample of the table: past the end is the last
    // sample, before the start sample 0.
    VideoTrackNode *record = track.Video;
    const int64_t count = node->SampleCount;
    int64_t cursor = record->SampleCursor;
    if (cursor >= count) cursor = count - 1;
    if (cursor < 0) cursor = 0;
    record->SampleCursor = int32_t(cursor);

    if (HasKeyFrameTable(node)) {
        ChooseByTable(record, node, int32_t(cursor), direction);
    } else {
        record->SampleCursor = ChooseByMarks(node, int32_t(cursor), direction);
    }
    result = ReadSampleAtCursor(file, track, node, kStepReadCodes, holder.get());
    if (result == 1) *sample = holder.release();
    return result;
}

}  // namespace

int32_t NextKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                     MP4Sample **sample) {
    return StepToKeyFrame(file, trackId, trackType, sample, Direction::Next);
}

int32_t PrevKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                     MP4Sample **sample) {
    return StepToKeyFrame(file, trackId, trackType, sample, Direction::Prev);
}
