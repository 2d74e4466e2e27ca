// Samples by number: MP4GetSampleInfo, MP4ReadSample and MP4FindSample.
// They find a track without moving the handle's track in use, and work on
// any track with tables, of any handler.
#include <cstdlib>

#include "access/access.h"

namespace {

constexpr int32_t kNumberedBadArguments = -99;
constexpr int32_t kNumberedNoTrack = -98;
constexpr int32_t kNumberedNoTables = -97;
constexpr int32_t kNumberedPastEnd = -96;
// MP4ReadSample
constexpr int32_t kReadNoMemoryForRecord = -95;
constexpr int32_t kReadZeroSize = -94;
constexpr int32_t kReadNoMemoryForData = -93;
constexpr int32_t kReadShortRead = -92;
// MP4FindSample: its flag check comes second, so its codes behind the
// arguments stand one lower.
constexpr int32_t kFindUnknownFlags = -98;
constexpr int32_t kFindNoSample = -95;
constexpr uint32_t kKnownFindFlags = MP4_FIND_KEY | MP4_FIND_PRESENTATION;

template <typename Record>
Record *ById(Record *record, uint32_t trackId, int32_t trackType) {
    for (; record != nullptr; record = record->NextTrack) {
        if (record->TrackId == trackId && int32_t(record->TrackType) == trackType) return record;
    }
    return nullptr;
}

}  // namespace

int32_t FindNumberedTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                          NumberedTrack *track, int32_t shift) {
    ReadForm &form = file->read;
    TrackNode *node = nullptr;
    bool found = false;
    if (trackType == MP4_TRACK_VIDEO) {
        track->Access.Video = ById(form.VideoFirst, trackId, trackType);
        found = track->Access.Video != nullptr;
        if (found) node = track->Access.Video->Track;
    } else if (trackType == MP4_TRACK_AUDIO) {
        track->Access.Audio = ById(form.AudioFirst, trackId, trackType);
        found = track->Access.Audio != nullptr;
        if (found) node = track->Access.Audio->Track;
    } else if (OtherTrackNode *other = ById(form.OtherFirst, trackId, trackType)) {
        found = true;
        node = other->Track;
    }
    if (!found) return kNumberedNoTrack + shift;
    if (!HasSampleTables(node)) return kNumberedNoTables + shift;
    track->Node = node;
    return 1;
}

void MoveNumberedCursor(const NumberedTrack &track, uint32_t cursor) {
    if (track.Access.Video != nullptr || track.Access.Audio != nullptr)
        SetCursor(track.Access, cursor);
}

namespace {

bool IsSyncSample(const TrackNode *node, uint32_t index) {
    const SampleView sample = ViewSample(node, index);
    return node->Modern ? sample.IsSync == 1 : sample.IsKeyFrame == 1;
}

int32_t ReadNumbered(MP4_local_file *file, const SampleView &record, MP4Sample *sample) {
    sample->Time = uint32_t(record.Time);
    sample->Size = record.Size;
    sample->IsKeyFrame = record.IsKeyFrame;
    if (record.Size == 0) return kReadZeroSize;
    Root_atom *root = file->RootAtom;
    const uint64_t offset = record.Offset;
    if (offset + record.Size > root->FileSize) return kReadShortRead;
    sample->Data = static_cast<uint8_t *>(std::malloc(record.Size));
    if (sample->Data == nullptr) return kReadNoMemoryForData;
    if (ReadAheadAt(&file->read.SampleWindow, root, offset, sample->Data, record.Size) !=
        record.Size)
        return kReadShortRead;
    return 1;
}

}  // namespace

int32_t MP4GetSampleInfo(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                         uint32_t sampleNumber, MP4SampleInfo *info) {
    if (file == nullptr || info == nullptr || trackId == 0) return kNumberedBadArguments;
    NumberedTrack track;
    int32_t result = FindNumberedTrack(file, trackId, trackType, &track);
    if (result != 1) return result;
    if (sampleNumber >= track.Node->SampleCount) return kNumberedPastEnd;
    SampleWalk walk = StartSampleWalk(track.Node, sampleNumber);
    StepSampleWalk(&walk, info);
    return 1;
}

int32_t MP4ReadSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                      uint32_t sampleNumber, MP4Sample **sample) {
    if (file == nullptr || sample == nullptr || trackId == 0) return kNumberedBadArguments;
    NumberedTrack track;
    int32_t result = FindNumberedTrack(file, trackId, trackType, &track);
    if (result != 1) return result;
    if (sampleNumber >= track.Node->SampleCount) return kNumberedPastEnd;
    SampleHolder holder = NewSample();
    if (!holder) return kReadNoMemoryForRecord;
    result = ReadNumbered(file, ViewSample(track.Node, sampleNumber), holder.get());
    MoveNumberedCursor(track, sampleNumber + 1);
    if (result == 1) *sample = holder.release();
    return result;
}

int32_t MP4FindSample(MP4_local_file *file, uint32_t trackId, int32_t trackType, uint64_t time,
                      uint32_t flags, uint32_t *sampleNumber) {
    if (file == nullptr || sampleNumber == nullptr || trackId == 0) return kNumberedBadArguments;
    if ((flags & ~kKnownFindFlags) != 0) return kFindUnknownFlags;
    NumberedTrack track;
    int32_t result = FindNumberedTrack(file, trackId, trackType, &track, 1);
    if (result != 1) return result;
    TrackNode *node = track.Node;
    if (node->SampleCount == 0) return kFindNoSample;
    const int64_t wanted = time > uint64_t(INT64_MAX) ? INT64_MAX : int64_t(time);
    int64_t found = -1;
    if ((flags & MP4_FIND_PRESENTATION) != 0) {
        int64_t mediaTime = -1;
        uint64_t delay = 0;
        ReadTrackEdits(file->RootAtom, node->TrakAtom, &mediaTime, &delay);
        found = SearchPresentation(node, mediaTime, delay, time);
    } else {
        found = SearchTrackTime(node, wanted);
        // Among equal times the search may stop early: the last one counts.
        while (found >= 0 && found + 1 < int64_t(node->SampleCount) &&
               SampleTimeKey(node, uint32_t(found + 1)) <= wanted)
            ++found;
    }
    if ((flags & MP4_FIND_KEY) != 0) {
        while (found >= 0 && !IsSyncSample(node, uint32_t(found))) --found;
    }
    if (found < 0) return kFindNoSample;
    *sampleNumber = uint32_t(found);
    return 1;
}
