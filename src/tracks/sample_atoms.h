// The sample atoms of one track as the fill operations see them, and the
// key frame stages that work on them. Internal to the track model.
#pragma once

#include <cstdint>

#include "tracks/tracks.h"

// Results of the fill operations, beside 1.
constexpr int32_t kFillBadArguments = -99;
constexpr int32_t kFillNotTrak = -98;
constexpr int32_t kFillNameNotFound = -97;
constexpr int32_t kFillEmptyLevel = -96;
constexpr int32_t kFillMissingAtom = -95;
constexpr int32_t kFillStssOutOfRangeKeyTable = -94;
constexpr int32_t kFillStssOutOfRangeMarks = -93;
// A table runs out before the samples do, or cannot describe them: "stts"
// or "stco" entries used up, "stsc" without entries or with 0 samples per
// chunk, "stsz" counting more samples than the track's table has room for.
constexpr int32_t kFillTableRunsOut = -92;
// No memory to grow the key frame table.
constexpr int32_t kFillNoMemoryForKeyFrames = -91;
// The key frame scan stopped.
constexpr int32_t kFillScanStopped = 0;

// One loaded table: its entries, big-endian as in the file, and how many
// there are. Entries is null when the atom is missing or its table did not
// load; such an atom counts as missing.
struct TableView {
    const uint8_t *Entries;
    uint32_t Count;
};

struct SampleAtoms {
    bool HasStsz;
    uint32_t ConstantSize;   // "stsz" SampleSize; 0: sizes come from Sizes
    uint32_t StszCount;      // "stsz" SampleCount
    TableView Sizes;         // "stsz", 4-byte entries
    TableView Times;         // "stts", 8-byte entries
    TableView Chunks;        // "stsc", 12-byte entries
    TableView Offsets;       // "stco", 4-byte entries
    TableView Syncs;         // "stss", 4-byte entries
};

// Stage 3: key frames from "stss".
int32_t MarkKeyFramesFromStss(TrackNode *node, const TableView &syncs, int32_t mode);
// Stage 5: key frames from the coding type of each plane, for video
// without "stss".
int32_t ScanKeyFrames(TrackNode *node, Root_atom *root, int32_t mode);
