// Track model: the track records of a read handle, the shared sample and
// key frame records, and the expansion of a track's sample atoms into
// tables.
#pragma once

#include <cstdint>

#include "atoms/atoms.h"
#include "frame/frame.h"

// One per sample, on both sides. Read side: Time, FileOffset, Size,
// IsKeyFrame. Write side: Time, CompositionOffset, TempOffset, Size.
struct SampleRecord {
    uint32_t Time;
    uint32_t CompositionOffset;
    uint32_t FileOffset;
    uint32_t TempOffset;
    uint32_t Size;
    uint8_t IsKeyFrame;
};

struct KeyFrameRecord {
    uint32_t Time;
    uint32_t SampleIndex;  // 0-based sample number over the whole track
};

// One block of a track's tables. The read side uses the first group of
// fields and always has one block; the write side chains blocks of 2000
// slots and keeps the track's description on the head block.
struct TrackNode {
    uint32_t TrackId;
    int32_t TrackType;
    uint32_t SampleCount;
    uint32_t KeyFrameCount;
    uint32_t SampleCapacity;   // non-zero: the block has its tables
    SampleRecord *SampleRecords;
    KeyFrameRecord *KeyFrameRecords;
    uint32_t KeyFrameCapacity; // records allocated in KeyFrameRecords
    AtomNode *TrakAtom;
    uint32_t TableMode;        // read side
    TrackNode *NextBlock;

    // Write side only.
    uint32_t SampleBase;
    uint32_t KeyFrameBase;
    uint16_t TrackWidth;
    uint16_t TrackHeight;
    uint16_t TimeResolution;
    uint32_t Timescale;
    uint32_t TrackDuration;
    uint8_t ConfigBytes[52];
    uint32_t ConfigSize;
    uint32_t AudioProfile;
    uint32_t AudioChannels;
    uint32_t AudioSampleRate;
    uint32_t VideoProfileLevel;
    uint32_t VideoTrackId;
    uint32_t AudioTrackId;
    uint32_t AvgBitRate;
    uint32_t MaxBitRate;
    int32_t PeakBytes;
    int32_t WindowBytes;
    int32_t WindowSecond;
    uint8_t CompositionTimes;
};

struct VideoTrackNode {
    uint32_t TrackId;
    uint32_t TrackType;
    int32_t SampleCursor;
    int32_t KeyFrameCursor;
    uint32_t TrackWidth;
    uint32_t TrackHeight;
    uint32_t SampleCount;
    uint32_t Timescale;
    uint32_t TrackDuration;
    TrackNode *Track;
    VideoTrackNode *NextTrack;
};

struct AudioTrackNode {
    uint32_t TrackId;
    uint32_t TrackType;
    uint32_t SampleCursor;
    uint32_t Timescale;
    uint32_t TrackDuration;
    uint32_t SampleCount;
    uint32_t ConstantSampleSize;
    TrackNode *Track;
    AudioTrackNode *NextTrack;
};

struct OtherTrackNode {
    uint32_t TrackId;
    uint32_t TrackType;
    TrackNode *Track;
    OtherTrackNode *NextTrack;
};

struct TrackListEntry {
    AtomNode *TrakAtom;
    TrackListEntry *Next;
    uint32_t TrackId;
};

// ---- Discovery (discovery.cpp) -------------------------------------------

int32_t FindTracks(Root_atom *root, TrackListEntry **list);
int32_t GetTrackType(AtomNode *trakAtom, int32_t *type);
int32_t ReadVideoTrackInfo(AtomNode *trakAtom, VideoTrackNode *record);
int32_t ReadAudioTrackInfo(AtomNode *trakAtom, AudioTrackNode *record);
// The track loop of MP4FileOpen: 1, or -94..-90 after it has closed the
// handle (the caller's pointer is then null).
int32_t RunTrackLoop(MP4_local_file **file);

// ---- Tables (tables.cpp) -------------------------------------------------

int32_t CreateVideoTables(TrackNode **holder, int32_t n, int32_t mode);
int32_t CreateAudioTables(TrackNode **holder, int32_t n, int32_t mode);
int32_t FillVideoTables(TrackNode **holder, Root_atom *root, int32_t mode);
int32_t FillAudioTables(TrackNode **holder, int32_t mode);
int32_t ReleaseTrackNodes(TrackNode **holder);
// Makes room for `records` KeyFrameRecords in a node's key frame table,
// zeroing the new ones; never shrinks below what is in use. 1, or -1 when
// there is no memory (the old table stays).
int32_t ReserveKeyFrames(TrackNode *node, uint32_t records);

// ---- File reads (file_read.cpp) ------------------------------------------

// Reads up to `count` bytes at `offset` of the stream's file in one
// positioned read, without moving the stream or touching its buffer (the
// file is only read, so the two never disagree). Gives the bytes read.
size_t ReadFileAt(FILE *stream, uint64_t offset, uint8_t *bytes, size_t count);

// Reads `count` bytes at `offset` of the root's file through the handle's
// read-ahead window (ReadForm::SampleWindow), which is made on first use:
// a request that the window holds is copied from it; any other one refills
// the window with a single positioned read starting at `offset`. Requests
// of more than half the window, or when there is no memory for it, are
// read directly. Gives the bytes copied, fewer only when the file gives
// fewer.
size_t ReadAheadAt(ReadAhead **window, Root_atom *root, uint64_t offset, uint8_t *bytes,
                   size_t count);
// Frees the window and nulls the pointer; a null window is fine.
void ReleaseReadAhead(ReadAhead **window);

// ---- Track loop (track_loop.cpp) -----------------------------------------

// Whether the "stsz" of a track can describe its samples within a file of
// `fileSize` bytes, so that a small file can't make the open allocate for a
// huge count: every sample takes at least one byte of the file, and a table
// of sizes must have been loaded and lie in the file.
bool SampleCountFitsFile(const AtomNode *trakAtom, uint32_t fileSize);
