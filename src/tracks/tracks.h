// Track model: the track records of a read handle, the shared sample and
// key frame records, and the expansion of a track's sample atoms into
// tables.
#pragma once

#include <cstdint>

#include "atoms/atoms.h"
#include "frame/frame.h"

// One per sample, on both sides, 24 bytes. Read side: Time, FileOffset,
// Size, IsKeyFrame; a modern handle also fills CompositionOffset (a signed
// offset), FileOffsetHigh (the upper half of a 64-bit offset) and IsSync
// (the real sync flag, audio included; IsKeyFrame keeps the classic mark).
// Write side: Time, CompositionOffset, TempOffset, Size.
struct SampleRecord {
    uint32_t Time;               // read side: the low 32 bits of the decoding time
    uint32_t CompositionOffset;
    uint32_t FileOffset;
    union {
        uint32_t TempOffset;     // write side
        uint32_t FileOffsetHigh; // read side; 0 on a classic handle
    };
    uint32_t Size;
    uint8_t IsKeyFrame;
    uint8_t IsSync;
};
static_assert(sizeof(SampleRecord) == 24, "a sample record stays 24 bytes");

inline uint64_t SampleFileOffset(const SampleRecord &record) {
    return (uint64_t(record.FileOffsetHigh) << 32) | record.FileOffset;
}

// From sample FirstSample on, the decoding times' high 32 bits are High.
struct TimeHigh {
    uint32_t FirstSample;
    uint32_t High;
};

// One entry of a sparse list kept in rising FirstSample: a value that holds
// from FirstSample on (a sample description index), or for that one record
// only (a record's duration where the next record's time can't tell it).
struct SampleMark {
    uint32_t FirstSample;
    uint32_t Value;
};
// A list of marks with room for Capacity of them, made at the open from the
// table entries that can cause one (see TablePlan), so that it never grows.
struct MarkList {
    SampleMark *Marks;
    uint32_t Count;
    uint32_t Capacity;
};

// A stretch of samples a modern handle keeps without a record per sample:
// Units units (PCM frames, or whole samples when Group is 1) of UnitSize
// bytes and UnitDuration ticks each, back to back in the file from
// FirstOffset and in time from FirstTime, grouped into samples of Group
// units (the last one of the run may hold fewer). Group 0 marks a run of
// records instead: its samples are the Units records from record number
// FirstOffset on. A run begins wherever a chunk, a time or composition
// table entry or a "trun" begins, so that each costs a table entry of the
// file.
struct SampleRun {
    uint32_t FirstSample;  // number of its first sample in the track
    uint32_t Units;
    uint64_t FirstOffset;
    uint64_t FirstTime;
    uint32_t UnitSize;
    uint32_t UnitDuration;
    uint32_t CompositionOffset;
    uint16_t Group;
    uint8_t IsSync;
    uint8_t Reserved;
};
static_assert(sizeof(SampleRun) == 40, "a run stays 40 bytes");

// The samples a run holds.
inline uint32_t RunSamples(const SampleRun &run) {
    return run.Group == 0 ? run.Units : run.Units / run.Group + (run.Units % run.Group != 0);
}

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

    // Read side, modern handle only. Decoding times are 64 bits: a
    // record keeps the low half, and TimeHighs lists, by rising sample,
    // where the high half changes (a track's times pass 2^32 rarely, and a
    // fragment's own decoding time may jump either way). DecodeDuration is
    // the sum of all sample durations; FragmentCount the track's fragments
    // ("traf") in the file's whole "moof" atoms.
    uint8_t Modern;
    TimeHigh *TimeHighs;
    uint32_t TimeHighCount;
    uint64_t DecodeDuration;
    uint32_t FragmentCount;
    // Without Runs, sample i is record i. With them, the runs cover every
    // sample in order and the records are those their record runs name
    // (RecordCount of them; TimeHighs then count records, not samples).
    SampleRun *Runs;
    uint32_t RunCount;
    uint32_t RunCapacity;
    uint32_t RecordCount;
    uint32_t RecordCapacity;
    // Sample description indexes: from each mark's sample on, its value
    // ("stsc" entries, "tfhd" or "trex"); 1 before the first mark.
    MarkList Descriptions;
    // Durations of records: record i lasts until record i + 1 begins,
    // unless a mark for record i gives its duration: the last record, one
    // behind which a run or a jump of "tfdt" follows. While the last record
    // appended is open, OpenEnd is where its duration says the next begins.
    MarkList Durations;
    uint8_t RecordOpen;
    uint32_t OpenDuration;
    uint64_t OpenEnd;
    // Learnt by the first presentation search (MP4_FIND_PRESENTATION), on
    // either handle: the least and greatest composition offsets and the
    // sample presented first (of equal ones the first in decoding order).
    uint8_t SpreadKnown;
    int32_t LeastComposition;
    int32_t MostComposition;
    uint32_t FirstPresented;

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
    uint32_t TrackType;  // 3, 4, 5; on a modern handle also 0 (another handler)
    TrackNode *Track;
    OtherTrackNode *NextTrack;
};

// What the handle knows of one sample, from its record or its run: the
// one view every reader of a track's tables goes through. Time is the
// 64-bit decoding time on a modern handle, the record's 32 bits on a
// classic one.
struct SampleView {
    uint64_t Offset;
    uint64_t Time;
    uint32_t Size;
    uint32_t CompositionOffset;  // signed on a modern handle, 0 on a classic one
    uint8_t IsKeyFrame;          // the classic mark (video sync samples)
    uint8_t IsSync;              // the real sync flag (modern handles)
};
// Whether a node has tables that describe its samples (records or runs).
bool HasSampleTables(const TrackNode *node);
// Sample `index` (below SampleCount) of a node with tables: O(1) for a
// node of records, a bisection over the run starts for one of runs.
SampleView ViewSample(const TrackNode *node, uint32_t index);
// The sizes of the first `count` samples added up.
uint64_t SumSampleSizes(const TrackNode *node, uint32_t count);
// The 64-bit decoding time of record `index` of a node (its sample on a
// node without runs).
uint64_t SampleDecodeTime(const TrackNode *node, uint32_t index);
// The samples of a node with tables in rising number from a first one:
// each step describes one as MP4GetSampleInfo does, without a search per
// sample. Duration: a run's unit duration times the sample's units
// (saturating at 2^32 - 1), a record's mark or the next record's time less
// its own; on a classic handle the next record's 32-bit time less its own
// (0 for the last), IsKeyFrame the classic mark, DescriptionIndex 1 (0
// where the file names an entry that is 0 or past 65535).
struct SampleWalk {
    const TrackNode *Node;
    uint32_t Index;                  // the sample the next step describes
    const SampleRun *Run;            // the run holding it (a node with runs)
    const SampleMark *Description;   // the description mark in force, or null
    const TimeHigh *High;            // the high half in force (records), or null
    const SampleMark *Duration;      // the first duration mark not behind it
};
SampleWalk StartSampleWalk(const TrackNode *node, uint32_t first);
// Describes sample walk->Index (below SampleCount) into *info and moves on.
void StepSampleWalk(SampleWalk *walk, MP4SampleInfo *info);
// Marks `value` from sample `first` on (no mark when the value doesn't
// change; a later mark at the same sample replaces it). False when the list
// is full.
bool MarkFrom(MarkList *list, uint32_t first, uint32_t value);
// Ends the open record of a node: its duration is marked unless the next
// sample is a record beginning at `next` (`contiguous`).
void CloseOpenRecord(TrackNode *node, bool contiguous, uint64_t next);
// The time by which a search orders sample `index`: on a classic handle the
// record's 32-bit time taken as signed (the data model's comparison), on a
// modern handle the 64-bit time.
int64_t SampleTimeKey(const TrackNode *node, uint32_t index);

// ---- Track listing (track_info.cpp) ----------------------------------------

// The edit list of a "trak" as MP4GetTrackInfo gives it: the first
// non-empty edit's media time (-1 without an edit list) and the leading
// empty edits in track ticks.
void ReadTrackEdits(const Root_atom *root, const AtomNode *trak, int64_t *mediaTime,
                    uint64_t *delay);
// The tables of each "trak" of the file in order (null for one without),
// into nodes[0..capacity-1]: the number of "trak" atoms.
uint32_t ListTrackTables(const MP4_local_file *file, const TrackNode **nodes, uint32_t capacity);

struct TrackListEntry {
    AtomNode *TrakAtom;
    TrackListEntry *Next;
    uint32_t TrackId;
};

// ---- Discovery (discovery.cpp) -------------------------------------------

int32_t FindTracks(Root_atom *root, TrackListEntry **list);
int32_t GetTrackType(AtomNode *trakAtom, int32_t *type);
// The track type a handler name ("vide", "soun", ...) stands for; 0 for
// any other handler.
int32_t HandlerTrackType(const char *handler);
int32_t ReadVideoTrackInfo(AtomNode *trakAtom, VideoTrackNode *record);
int32_t ReadAudioTrackInfo(AtomNode *trakAtom, AudioTrackNode *record);
// Results of the track loops (both readers).
constexpr int32_t kLoopDone = 1;
constexpr int32_t kLoopNoMemoryForVideo = -94;  // also for a TrackNode
constexpr int32_t kLoopNoMemoryForAudio = -93;
constexpr int32_t kLoopNoMemoryForHint = -92;
constexpr int32_t kLoopNoMemoryForOd = -91;
constexpr int32_t kLoopNoMemoryForScene = -90;  // and any other handler
// Frees the entries of the named sample atoms of a "trak" once its tables
// hold what they said; the atoms and their heads stay in the tree.
void ReleaseSampleEntries(const AtomNode *trak, const char *const *names, size_t count);
// The code for no memory for the record of a track of another type.
int32_t OtherNoMemoryCode(int32_t type);
// The track loop of MP4FileOpen: 1, or -94..-90 after it has closed the
// handle (the caller's pointer is then null).
int32_t RunTrackLoop(MP4_local_file **file);

// ---- The modern reader's tracks (modern_tracks.cpp, modern_fill.cpp) ------

// Track types beside MP4_TRACK_*: a handler the data model doesn't name.
constexpr int32_t kTrackOtherHandler = 0;
// The type of a "trak" from its handler: 1..5, or 0 for any other handler
// or none.
int32_t ModernTrackType(const AtomNode *trak);
// The track ID of a "tkhd" record by its version; 0 without one.
uint32_t ModernTrackId(const AtomNode *trak);
// The track loop of MP4FileOpenEx with MP4_OPEN_MODERN: every "trak" with
// a "tkhd" gets a record on its list, whatever its handler, and its tables
// built from the 64-bit aware fill. 1, or -94..-90 after it has closed the
// handle.
int32_t RunModernTrackLoop(MP4_local_file **file);
// Fills a node made by CreateModernTables with the "stbl" samples of its
// "trak" (TrakAtom): times, sizes ("stsz" or "stz2"), offsets ("stco" or
// "co64"), composition offsets and sync flags (all samples without
// "stss"); as records, or as runs for a constant size without "stss".
// SampleCount becomes the samples placed. 1, or a negative code when the
// tables can't describe the samples.
int32_t FillModernTables(Root_atom *root, TrackNode *node);
// What every sample of a filled node gives: the classic key frame marks
// (video only), KeyFrameCount, and for TableMode 1 video a KeyFrameTable.
// 1, or a negative code when there is no memory.
int32_t FinishModernTables(TrackNode *node, int32_t trackType, int32_t mode);
// Sets the decoding time of record `index`, the next one of its track
// (records are timed in order). 1, or a negative code when there is no
// memory for the list of high halves.
int32_t SetDecodeTime(TrackNode *node, uint32_t index, uint64_t time);
// Appends the next sample of a node as a record (Time is set from `time`,
// lasting `duration`) or a run, behind those it holds; with Runs a record
// also extends or starts a record run. False when the node has no room or
// no memory.
bool AppendRecord(TrackNode *node, const SampleRecord &record, uint64_t time, uint32_t duration);
bool AppendRun(TrackNode *node, const SampleRun &run);
// The sample count that the first size table ("stsz" or "stz2") of a
// "trak" claims, and whether the file could hold that many samples (a
// table of sizes inside its atom, or a constant size times the count
// inside the file).
uint32_t ModernSampleCount(const AtomNode *trak, uint64_t fileSize, bool *fits);
// What the tables of a track will take: records, runs and samples, from
// its "stbl" (PlanModernTables) and its fragments (CountFragmentSamples).
struct TablePlan {
    uint64_t Records = 0;
    uint64_t Runs = 0;
    uint64_t Samples = 0;
    uint64_t SyncBound = 0;   // at most this many sync samples
    uint64_t RecordRuns = 0;  // runs of records, needed once runs are mixed in
    uint64_t DescriptionMarks = 0;  // at most one per "stsc" entry and "traf"
    uint64_t DurationMarks = 0;     // at most one per "stbl", "traf" and "trun"
    bool Usable = true;       // false: the "stbl" tables can't describe their samples
};
// Adds the "stbl" samples of a track, as records or as runs, to `plan`.
void PlanModernTables(const Root_atom *root, const AtomNode *trak, TablePlan *plan);
// The bytes the tables of `plan` take at the open, key frame table of
// TableMode 1 video included.
uint64_t PlanBytes(const TablePlan &plan, bool keyFrameTable);
// Makes the tables of `plan` on an empty node, with the key frame table's
// first record for TableMode 1 video. 1, or -1 without memory or for a
// video table mode the data model doesn't know.
int32_t CreateModernTables(TrackNode *node, const TablePlan &plan, int32_t mode);
// The heap an open may take: 16 bytes per byte of the atoms the reader
// parsed (heads, fields and tables; not media data nor the payloads it
// passes over) and 1 MiB, less what the atom tree itself holds.
uint64_t ModernTableBudget(const Root_atom *root);

// ---- Fragments (fragments.cpp) ---------------------------------------------

// One track of the modern loop as the fragment reader sees it.
struct FragmentTrack {
    uint32_t TrackId;
    TrackNode **Holder;        // the record's Track field; *Holder null without tables
    uint32_t DefaultDuration;  // "trex" defaults
    uint32_t DefaultSize;
    uint32_t DefaultFlags;
    uint32_t DefaultDescription;  // 1 without "trex"
    bool HasExtends;           // the defaults come from a "trex"
    uint32_t Samples;          // samples its track fragments hold (counted)
    TablePlan Plan;            // its tables: the "stbl" plan and its fragments
    uint32_t Order;            // its place among the "trak" atoms
    uint32_t Fragments;        // its track fragments in whole "moof" atoms
    uint64_t NextTime;         // where its samples so far end
    bool Failed;               // no memory while its samples were appended
};
// Counts the samples and fragments of each track in the file's "moof"
// atoms. `tracks` is sorted by TrackId. A "moof" that reaches past the end
// of the file is left out, and so is a run whose sample count its atom (or,
// without per-sample fields, the file) can't hold.
void CountFragmentSamples(const Root_atom *root, FragmentTrack *tracks, size_t count);
// Appends the samples of the "moof" atoms, in file order, to the nodes of
// `tracks`, behind the samples they hold: sizes, offsets, decoding times,
// composition offsets and sync flags, with the defaults of "tfhd" and of
// the track's "trex"; and frees each run's entries once read. A track
// whose node can't take its samples (no memory) is marked Failed, for the
// caller to give up.
void FillFragmentSamples(const Root_atom *root, FragmentTrack *tracks, size_t count);

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

// ---- Track loop (track_loop.cpp) -----------------------------------------

// Whether the "stsz" of a track can describe its samples within a file of
// `fileSize` bytes, so that a small file can't make the open allocate for a
// huge count: every sample takes at least one byte of the file, and a table
// of sizes must have been loaded and lie in the file.
bool SampleCountFitsFile(const AtomNode *trakAtom, uint32_t fileSize);
