// File writer: turning the collected tracks into the atoms and bytes of the
// finished file.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "tracks/tracks.h"

// ---- Generated samples (generated_samples.cpp) ----------------------------

// The one sample of an object descriptor (type 4) or scene description
// (type 5) track, by the media tracks that exist. Size 0 and null bytes for
// any other type.
struct GeneratedSample {
    const uint8_t *Bytes;
    uint32_t Size;
};
GeneratedSample GetGeneratedSample(int32_t trackType, bool hasVideo, bool hasAudio);

// ---- Headers and containers (serialize_headers.cpp) ------------------------

// Fills the record of `node` (at or below "trak") and everything below it
// from `track`. Result: the atom's size; -1 for an atom it doesn't handle;
// -99 after a message.
int32_t SerializeTrackAtom(AtomNode *node, TrackNode *track);
// Fills a top-level atom or a child of "moov". Result: the bytes the atom
// adds in front of the media data (8 for "mdat"); -1 unhandled; -99.
int32_t SizeFileAtom(AtomNode *node, MP4_local_file *file);

// ---- Elementary stream descriptors (esds.cpp) ------------------------------

int32_t SerializeEsds(AtomNode *node, TrackNode *track);

// ---- Sample tables (serialize_tables.cpp) ----------------------------------

int32_t SerializeStts(AtomNode *node, TrackNode *track);
int32_t SerializeCtts(AtomNode *node, TrackNode *track);
int32_t SerializeStsz(AtomNode *node, TrackNode *track);
int32_t SerializeStsc(AtomNode *node, TrackNode *track);
int32_t SerializeStco(AtomNode *node, TrackNode *track);
int32_t SerializeStss(AtomNode *node, TrackNode *track);

// ---- Flush driver (flush.cpp, assemble.cpp, write_output.cpp) --------------

// Merges the block chains of the video and audio tracks into one block
// each. 1, or -99 when a merged table can't be allocated (the chain then
// stays as it was).
int32_t MergeTrackBlocks(MP4_local_file *file);
int32_t SerializeTrack(TrackNode *track);
int32_t AssembleMovie(Root_atom *root, MP4_local_file *file);
int32_t ShiftChunkOffsets(AtomNode *trak, uint32_t delta);
int32_t PatchTrackDuration(AtomNode *trak, uint32_t duration);
int32_t WriteOutputFile(MP4_local_file *file);
int32_t WriteAtoms(AtomNode *first, Root_atom *root);
// Frees all descendants of `node` with their records and built tables.
void ReleaseWrittenAtoms(AtomNode *node);
// Frees `node` itself after its descendants; for subtrees that belong to
// nothing, such as a track tree not linked under "moov".
void ReleaseWrittenTree(AtomNode *node);
// Frees every block of a chain with its tables.
void ReleaseTrackChain(TrackNode *head);

// Temp files are copied to the output through a buffer of this size.
constexpr size_t kCopyBufferBytes = size_t(1) << 20;

// ---- Fragmented files (fragment_movie.cpp, fragment_serialize.cpp,
// fragment_output.cpp) -------------------------------------------------------

// A frame of a fragmented file that waits for its fragment.
struct PendingFrame {
    uint64_t Time;               // decoding time in track ticks from the track's first frame
    uint32_t Size;
    uint32_t CompositionOffset;
    uint8_t Key;                 // a sync sample
};

// An entry of a track's "tfra": the first sync sample of one of its track
// fragments.
struct RandomAccessPoint {
    uint64_t Time;
    uint64_t MoofOffset;
    uint32_t TrafNumber;         // from 1, in its "moof"
    uint32_t SampleNumber;       // from 1, in its run
};

// A video or audio track of a fragmented handle: the frames not yet
// written with their bytes, and the index of the fragments written.
struct RecordingTrack {
    TrackNode *Track;            // the handle's track; null: there is none
    PendingFrame *Frames;        // oldest first
    size_t FrameCount;
    size_t FrameCapacity;
    uint8_t *Bytes;              // the bytes of Frames, in their order
    size_t ByteCount;
    size_t ByteCapacity;
    uint8_t Started;             // a frame was taken
    uint32_t FirstStamp;         // the first frame's time stamp: time 0 of the track
    uint32_t LastStamp;          // the last frame's time stamp
    uint32_t LastDuration;       // the last distance between two frames
    RandomAccessPoint *Index;
    size_t IndexCount;
    size_t IndexCapacity;
};

// The state of a fragmented handle (WriteForm::Fragments).
struct FragmentWriter {
    RecordingTrack Tracks[2];     // video, audio: the order of "trak", "trex" and "traf"
    int Fd;                      // the output's descriptor; its stream is never written
    uint8_t Sync;                // MP4_NEW_SYNC: every write is made durable
    uint8_t HeaderWritten;       // "ftyp" and "moov" are in the file
    uint8_t Failed;              // a write failed: the file ends at FileEnd for good
    uint64_t FileEnd;            // the end of the last whole atom in the file
    uint32_t Sequence;           // of the last "moof" written
    // The cut rule of the intake, in ticks of the leading track (video,
    // else audio), which is Tracks[Leading].
    size_t Leading;
    uint64_t FragmentStart;      // time of the leading track's first frame not written
    uint8_t CutPending;          // the fragment ends before CutTime
    uint64_t CutTime;
    uint8_t *Head;               // the "moof" and "mdat" head being written; reused
    size_t HeadCapacity;
};

// Results of the writes of a fragmented handle.
constexpr int32_t kFragmentDone = 1;
// Nothing was written and the frames are still held: a later call tries
// again.
constexpr int32_t kFragmentNoMemory = -98;
// The write failed: the file is cut back to FileEnd and Failed is set.
constexpr int32_t kFragmentWriteFailed = -97;

// The writer of a new fragmented handle on the output's descriptor; null
// without memory.
FragmentWriter *NewFragmentWriter(int fd, bool sync);
// Frees the writer with the frames it holds; null is fine.
void ReleaseFragmentWriter(FragmentWriter *writer);
// Writes "ftyp" and "moov": the tracks with empty sample tables (their
// samples come in fragments), and "mvex" with a "trex" for each.
int32_t WriteMovieHeader(MP4_local_file *file);
// Writes one fragment of the first counts[t] held frames of each track
// (none: nothing is written). A frame lasts up to its track's next frame;
// the track's last frame, at the flush, the track's last duration. The
// frames written leave the track.
int32_t WriteFragment(FragmentWriter *writer, const size_t counts[2]);
// The default flags of a track's samples in its "trex".
uint32_t TrexDefaultSampleFlags(const TrackNode &track);
// Writes "mfra" with a "tfra" for each track, and "mfro".
int32_t WriteFragmentIndex(FragmentWriter *writer);
// Writes the blocks behind FileEnd with one positioned write, made durable
// with Sync. A write that fails or is taken in part cuts the file back to
// FileEnd and gives the writer up.
int32_t WriteAtFileEnd(FragmentWriter *writer, const struct iovec *blocks, int count);
// Makes the folder entry of a new file durable, where the file system
// allows: a file made just before a power cut could otherwise be lost with
// all it holds.
void SyncFolderOf(const char *path);
