// Sample access: what the access calls share (finding a track, the time
// search, reading the sample under the cursor).
#pragma once

#include <cstdint>
#include <memory>

#include "tracks/tracks.h"

// ---- Finding a track (track_lookup.cpp) ------------------------------------

// The track an access call works on: exactly one of the two is set.
struct AccessTrack {
    VideoTrackNode *Video;
    AudioTrackNode *Audio;
};

// Results of finding a track, the first step of every access call.
constexpr int32_t kFindBadArguments = -99;       // file null or trackId 0
constexpr int32_t kFindVideoListEmpty = -98;
constexpr int32_t kFindVideoNotFoundFromNull = -97;
constexpr int32_t kFindVideoNotFoundFromOther = -96;
constexpr int32_t kFindAudioListEmpty = -95;
constexpr int32_t kFindAudioNotFoundFromNull = -94;
constexpr int32_t kFindAudioNotFoundFromOther = -93;
constexpr int32_t kFindBadTrackType = -92;

// Looks the ID up through the list's Current cache, which moves to the
// record found even when that record then fails for want of a Track.
// Results: 1, -99, and -98..-96 for video, -95..-93 for audio.
int32_t FindVideoTrack(MP4_local_file *file, uint32_t trackId, VideoTrackNode **record);
int32_t FindAudioTrack(MP4_local_file *file, uint32_t trackId, AudioTrackNode **record);
// By trackType: 1, -99..-93 as above, -92 for a type that is neither 1 nor 2.
int32_t FindTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType, AccessTrack *track);

TrackNode *TrackOf(const AccessTrack &track);
// The cursor as an index; a negative video cursor reads as one past any
// table.
uint32_t CursorOf(const AccessTrack &track);
void SetCursor(const AccessTrack &track, uint32_t cursor);

// The codes with which a call reports a record without Track, or a
// TrackNode without SampleRecords.
struct TableCodes {
    int32_t NoTrack;
    int32_t NoRecords;
};
// 1 with *node set, or one of the two codes.
int32_t CheckTrackTables(const AccessTrack &track, const TableCodes &codes, TrackNode **node);

// ---- Time search (time_search.cpp) -----------------------------------------

// The last entry at or before `time` by bisection over rising times,
// compared as signed 32-bit numbers: an index from -1 (time before the
// first entry, or no entries) to count - 1.
int32_t SearchSampleTime(const SampleRecord *records, uint32_t count, int32_t time);
int32_t SearchKeyFrameTime(const KeyFrameRecord *records, uint32_t count, int32_t time);
// The same over a track's samples and its KeyFrameTable (`count` records
// in use), by SampleTimeKey: on a classic handle exactly the searches
// above, on a modern one over 64-bit times.
int32_t SearchTrackTime(const TrackNode *node, int64_t time);
int32_t SearchTrackKeyFrames(const TrackNode *node, uint32_t count, int64_t time);
// The sample that GetSample chooses for `time`: 0 for a time at or below
// 0, the last sample for a time at or above its time, else the search.
// Needs SampleCount of at least 1.
uint32_t ChooseSampleAtTime(const TrackNode *node, int64_t time);

// The sample presented last at or before `time` on a track's presentation
// timeline (the edit list's leading empty edits `delay` and first media
// time `mediaTime`, -1 for none, applied at rate 1): of equal presentation
// times the last in decoding order; the first sample presented for a time
// inside the delay or before every sample. It searches decoding order for
// the last sample that can be presented at or before the time, then steps
// back over the track's reorder depth. The first search on a node walks
// its samples once to learn their composition offsets' spread. Needs
// SampleCount of at least 1.
uint32_t SearchPresentation(TrackNode *node, int64_t mediaTime, uint64_t delay, uint64_t time);

// ---- Reading the sample under the cursor (sample_read.cpp) -----------------

// Frees an MP4Sample with its Data.
struct SampleRelease {
    void operator()(MP4Sample *sample) const;
};
using SampleHolder = std::unique_ptr<MP4Sample, SampleRelease>;
// A zeroed MP4Sample from malloc, or an empty holder.
SampleHolder NewSample();

struct ReadCodes {
    int32_t ZeroSize;   // the sample's Size is 0
    int32_t NoMemory;   // no memory for Data
    int32_t ShortRead;  // the file gave fewer than Size bytes
};

// Reads the sample under the cursor into `sample`, which must be zeroed,
// and moves the cursor behind it. 1; 0 at the end of the track (cursor not
// below SampleCount); a code of `codes`. The cursor stays for a Size of 0
// and for no memory, and moves on past a sample that the file can't give
// whole. A sample that reaches past the end of the file is not allocated.
int32_t ReadSampleAtCursor(MP4_local_file *file, const AccessTrack &track, TrackNode *node,
                           const ReadCodes &codes, MP4Sample *sample);

// The codes of GetNextSample, GetSample and SeekTrack.
constexpr int32_t kSampleNoMemory = -91;
constexpr TableCodes kVideoTableCodes{-90, -89};
constexpr ReadCodes kVideoReadCodes{-87, -88, -82};
constexpr TableCodes kAudioTableCodes{-86, -85};
constexpr ReadCodes kAudioReadCodes{-83, -84, -82};
inline const TableCodes &SampleTableCodes(const AccessTrack &track) {
    return track.Video != nullptr ? kVideoTableCodes : kAudioTableCodes;
}
inline const ReadCodes &SampleReadCodes(const AccessTrack &track) {
    return track.Video != nullptr ? kVideoReadCodes : kAudioReadCodes;
}

// ---- Choosing a key frame (key_frame_choice.cpp) ---------------------------

// Whether a video track's key frames are searched in its KeyFrameTable
// (TableMode 1 with a table); otherwise the IsKeyFrame marks are walked.
bool HasKeyFrameTable(const TrackNode *node);
// The KeyFrameRecords in use: KeyFrameCount, never more than the table
// holds.
uint32_t UsedKeyFrames(const TrackNode *node);
// Lands a video cursor through the KeyFrameTable. `time` decides the ends:
// at or below 0 the first key frame, at or above the last sample's Time the
// last key frame; in between key frame record `chosen`, with KeyFrameCursor
// `search` + 1 (`search` is the time search's answer). A track without key
// frames, or a `chosen` outside the records in use, lands on sample 0.
// Needs SampleCount of at least 1.
void LandOnKeyFrameRecord(VideoTrackNode *record, const TrackNode *node, int64_t time,
                          int32_t search, int32_t chosen);
// The nearest sample at or before `from` marked IsKeyFrame, or -1.
int32_t LastKeyMarkAtOrBefore(const TrackNode *node, int32_t from);

// ---- The calls by track and sample number (sample_info.cpp) ----------------

// A track named by ID and type, with its tables: Access is set for the
// video and audio tracks, whose cursor the reading calls move.
struct NumberedTrack {
    TrackNode *Node = nullptr;
    AccessTrack Access{};
};
// Finds a track of any type by ID without moving the track in use: 1, or
// -98 (no such track) / -97 (no tables) shifted by `shift`.
int32_t FindNumberedTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                          NumberedTrack *track, int32_t shift = 0);
// Sets the cursor of a video or audio track; other tracks have none.
void MoveNumberedCursor(const NumberedTrack &track, uint32_t cursor);
