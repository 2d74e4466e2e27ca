// Finding a track by its ID for the access calls, through the one-record
// caches VideoCurrent and AudioCurrent.
#include "access/access.h"

namespace {

struct LookupCodes {
    int32_t ListEmpty;
    int32_t NotFoundFromNull;
    int32_t NotFoundFromOther;
};

constexpr LookupCodes kVideoLookup{kFindVideoListEmpty, kFindVideoNotFoundFromNull,
                                   kFindVideoNotFoundFromOther};
constexpr LookupCodes kAudioLookup{kFindAudioListEmpty, kFindAudioNotFoundFromNull,
                                   kFindAudioNotFoundFromOther};

// The cache answers when it holds the ID, without a look at its Track.
// Otherwise the list is walked for the first record with the ID, which
// becomes the cache; a record without Track is reported as not found.
template <typename Record>
int32_t Lookup(Record *&current, Record *first, uint32_t trackId, const LookupCodes &codes,
               Record **found) {
    int32_t notFound = codes.NotFoundFromOther;
    if (current == nullptr) {
        if (first == nullptr) return codes.ListEmpty;
        notFound = codes.NotFoundFromNull;
    } else if (current->TrackId == trackId) {
        *found = current;
        return 1;
    }
    Record *record = first;
    while (record != nullptr && record->TrackId != trackId) record = record->NextTrack;
    if (record == nullptr) return notFound;
    current = record;
    if (record->Track == nullptr) return notFound;
    *found = record;
    return 1;
}

}  // namespace

int32_t FindVideoTrack(MP4_local_file *file, uint32_t trackId, VideoTrackNode **record) {
    if (file == nullptr || trackId == 0) return kFindBadArguments;
    ReadForm &form = file->read;
    return Lookup(form.VideoCurrent, form.VideoFirst, trackId, kVideoLookup, record);
}

int32_t FindAudioTrack(MP4_local_file *file, uint32_t trackId, AudioTrackNode **record) {
    if (file == nullptr || trackId == 0) return kFindBadArguments;
    ReadForm &form = file->read;
    return Lookup(form.AudioCurrent, form.AudioFirst, trackId, kAudioLookup, record);
}

int32_t FindTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType, AccessTrack *track) {
    *track = AccessTrack{};
    if (file == nullptr || trackId == 0) return kFindBadArguments;
    if (trackType == MP4_TRACK_VIDEO) return FindVideoTrack(file, trackId, &track->Video);
    if (trackType == MP4_TRACK_AUDIO) return FindAudioTrack(file, trackId, &track->Audio);
    return kFindBadTrackType;
}

TrackNode *TrackOf(const AccessTrack &track) {
    return track.Video != nullptr ? track.Video->Track : track.Audio->Track;
}

uint32_t CursorOf(const AccessTrack &track) {
    return track.Video != nullptr ? uint32_t(track.Video->SampleCursor)
                                  : track.Audio->SampleCursor;
}

void SetCursor(const AccessTrack &track, uint32_t cursor) {
    if (track.Video != nullptr) {
        track.Video->SampleCursor = int32_t(cursor);
    } else {
        track.Audio->SampleCursor = cursor;
    }
}

int32_t CheckTrackTables(const AccessTrack &track, const TableCodes &codes, TrackNode **node) {
    TrackNode *found = TrackOf(track);
    if (found == nullptr) return codes.NoTrack;
    if (!HasSampleTables(found)) return codes.NoRecords;
    *node = found;
    return 1;
}
