// Authoring: new files, their tracks, and the intake of frames.
#pragma once

#include <cstddef>

#include "tracks/tracks.h"

// Slots of the sample table of each block of a video or audio track, and
// of the one block of an object descriptor or scene description track.
constexpr uint32_t kMediaBlockSlots = 2000;
constexpr uint32_t kSystemBlockSlots = 100;
// Bytes of the stream buffer of each temp file: frames reach the temp
// file in runs of this size rather than one page at a time. A frame of at
// least this size goes to the file at once, so a failed write of it is
// reported by its own call.
constexpr size_t kTempStreamBufferBytes = size_t(64) << 10;
// The largest decoder configuration a track holds.
constexpr uint32_t kMaxConfigBytes = sizeof(TrackNode::ConfigBytes);

// Gives a block its tables of n slots (n / 2 key frame slots), hanging a
// new block behind the chain when the given one already has tables.
// 1; -97 n below 1; -98 no block; -96 no sample table; -95 no key frame
// table. A failure releases all that the call made.
int32_t AddTrackBlock(TrackNode **block, uint32_t slots);

// One frame as the intake calls hand it over.
struct IntakeFrame {
    uint32_t size;
    const uint8_t *data;
    uint32_t timeStamp;
    bool keyFrame;
    bool hasCompositionOffset;
    uint32_t compositionOffset;
};

// ---- Fragmented intake (fragment_intake.cpp) ------------------------------

// Takes a frame into track `track` (0 video, 1 audio) of a fragmented
// handle, whose track exists, and writes the fragments it completes.
// `call` names the call in the messages; `fallingMessage` is the call's
// own. 1, or -99 after a message.
int32_t TakeFragmentFrame(MP4_local_file *file, size_t track, const IntakeFrame &frame,
                          const char *call, const char *fallingMessage);
// The end of a fragmented handle's intake, for the flush: the frames still
// held go out as the last fragment (after the one a pending cut ends),
// then the index; a handle without frames gets its header first. Nothing
// is written once a write has failed. 1, or -99 after a message.
int32_t EndFragmentedIntake(MP4_local_file *file);

// ---- Progressive handles (modern_calls.cpp) --------------------------------

// MP4FileFlush of a progressive handle: ends the file and releases the
// handle. 1, or the flush results of writer/progressive.h.
int32_t FlushProgressiveFile(MP4_local_file *file);
// The writer of the modern calls' tracks: a progressive handle's, or a
// fragmented handle's (made on the first MP4AddTrack or MP4AddTrackFrom
// when `make`, unless CreateTrack made tracks or the header is written);
// null for any other handle.
ProgressiveWriter *ModernWriterOf(MP4_local_file *file, bool make);
// MP4AddTrack's result when ModernWriterOf gives null.
int32_t ModernRefusal(MP4_local_file *file);
