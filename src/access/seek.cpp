// Seeking by time: SeekTrack reads the sample it lands on, SeekTrackPos
// only tells its time and leaves the cursor on it. Video lands on the last
// key frame at or before the time, audio on the last sample.

#include "access/access.h"

namespace {

// The codes of SeekTrackPos for a record without Track and for a TrackNode
// without SampleRecords.
constexpr TableCodes kPositionVideoCodes{-91, -90};
constexpr TableCodes kPositionAudioCodes{-89, -88};

// Sets the cursor for `time`. Needs SampleCount of at least 1.
void ChooseSeekSample(const AccessTrack &track, TrackNode *node, int32_t time) {
    if (track.Video == nullptr) {
        SetCursor(track, ChooseSampleAtTime(node, time));
        return;
    }
    if (HasKeyFrameTable(node)) {
        int32_t search = SearchTrackKeyFrames(node, UsedKeyFrames(node), time);
        LandOnKeyFrameRecord(track.Video, node, time, search, search);
        return;
    }
    // Back from the sample at the time to the nearest key frame; a track
    // without one before it starts over at sample 0, marked or not.
    int32_t at = int32_t(ChooseSampleAtTime(node, time));
    int32_t key = LastKeyMarkAtOrBefore(node, at);
    track.Video->SampleCursor = key < 0 ? 0 : key;
}

}  // namespace

int32_t SeekTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType, int32_t time,
                  MP4Sample **sample) {
    if (sample == nullptr) return kFindBadArguments;
    AccessTrack track;
    int32_t result = FindTrack(file, trackId, trackType, &track);
    if (result != 1) return result;
    SampleHolder holder = NewSample();
    if (!holder) return kSampleNoMemory;
    TrackNode *node = nullptr;
    result = CheckTrackTables(track, SampleTableCodes(track), &node);
    if (result != 1) return result;
    // A track without samples has no last sample to compare with.
    if (node->SampleCount == 0) return 0;
    ChooseSeekSample(track, node, time);
    result = ReadSampleAtCursor(file, track, node, SampleReadCodes(track), holder.get());
    if (result == 1) *sample = holder.release();
    return result;
}

int32_t SeekTrackPos(MP4_local_file *file, uint32_t trackId, int32_t trackType, int32_t time,
                     uint32_t *position) {
    if (position == nullptr) return kFindBadArguments;
    AccessTrack track;
    int32_t result = FindTrack(file, trackId, trackType, &track);
    if (result != 1) return result;
    TrackNode *node = nullptr;
    const TableCodes &codes = track.Video != nullptr ? kPositionVideoCodes : kPositionAudioCodes;
    result = CheckTrackTables(track, codes, &node);
    if (result != 1) return result;
    if (node->SampleCount == 0) return 0;
    ChooseSeekSample(track, node, time);
    // A key frame record that names no sample of the table lands nowhere.
    const uint32_t cursor = CursorOf(track);
    if (cursor >= node->SampleCount) return 0;
    *position = uint32_t(ViewSample(node, cursor).Time);
    return 1;
}
