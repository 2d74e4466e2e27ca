// File writer: turning the collected tracks into the atoms and bytes of the
// finished file.
#pragma once

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
