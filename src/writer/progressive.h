// The progressive writer (MP4_NEW_PROGRESSIVE): tracks of any format from
// MP4AddTrack, samples written as they arrive into one "mdat" in
// interleaved chunks, and the index ("moov") written by the flush behind
// the media or, with MP4_NEW_FASTSTART, in front of it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mp4core.h"
#include "writer/box_writer.h"
#include "writer/metadata.h"

// Results of MP4AddTrack.
constexpr int32_t kAddTrackNullArgument = -99;
constexpr int32_t kAddTrackWrongHandle = -98;
constexpr int32_t kAddTrackTooLate = -97;
constexpr int32_t kAddTrackReserved = -96;
constexpr int32_t kAddTrackBadSpec = -95;
constexpr int32_t kAddTrackBadConfig = -94;
constexpr int32_t kAddTrackNoMemory = -93;
constexpr int32_t kAddTrackTooMany = -92;
// Results of MP4AddTrackFrom (with those of MP4AddTrack for -99 to -92).
constexpr int32_t kFromNotReadHandle = -91;
constexpr int32_t kFromNoTrack = -90;
constexpr int32_t kFromProtected = -89;
constexpr int32_t kFromUnreadable = -88;
// Results of MP4WriteSample.
constexpr int32_t kWriteFailed = -99;
constexpr int32_t kWriteWrongHandle = -98;
constexpr int32_t kWriteNoTrack = -97;
constexpr int32_t kWriteBadInfo = -96;
constexpr int32_t kWriteTimeFalls = -95;
constexpr int32_t kWriteBadSize = -94;
constexpr int32_t kWriteNoMemory = -93;
constexpr int32_t kWriteGivenUp = -92;
// Results of the flush of a progressive handle.
constexpr int32_t kFlushWriteFailed = -99;
constexpr int32_t kFlushFaststartFailed = -98;

// The most tracks a handle takes.
constexpr uint32_t kMaxModernTracks = 4096;
// A chunk holds at most one second of its track's media and 4 MiB.
constexpr uint64_t kChunkBytes = uint64_t(4) << 20;
// The largest configuration a track description may carry.
constexpr uint32_t kMaxSpecConfigBytes = uint32_t(1) << 20;

// One sample of the index: 16 bytes, the bound of the writer's memory per
// sample.
struct IndexedSample {
    uint32_t Size;
    uint32_t Delta;              // decode time less the previous sample's (0 for the first)
    int32_t CompositionOffset;
    uint32_t Flags;              // MP4_SAMPLE_KEY, and the entry in the high bits
};

// IndexedSample.Flags holds the caller's flags in its low 16 bits and the
// sample's entry of "stsd" (from 1) in its high 16: a track takes at most
// 65535 entries, as far as a sample record can name one.
constexpr uint32_t kEntryShift = 16;
constexpr uint32_t kMaxEntries = 0xFFFF;
inline uint32_t EntryOf(const IndexedSample &sample) { return sample.Flags >> kEntryShift; }
inline uint32_t IndexedFlags(const MP4WriteInfo &info) {
    return info.Flags | ((info.DescriptionIndex != 0 ? info.DescriptionIndex : 1) << kEntryShift);
}

struct WrittenChunk {
    uint64_t Offset;             // in the file as written (progressive layout)
    uint32_t FirstSample;        // index of its first sample
    uint32_t SampleCount;
};

// An edit of a copied track, its duration in the movie timescale.
struct CopiedEdit {
    uint64_t Duration;
    int64_t MediaTime;
    uint32_t Rate;
};

// The bytes of "tkhd" from its layer to its height: layer, alternate
// group, volume, reserved, matrix, width and height.
constexpr size_t kHeaderTailBytes = 52;

struct ModernTrack {
    uint32_t TrackId;
    uint32_t TrackType;          // 1 video, 2 audio, 0 other
    char Handler[4];
    uint32_t Timescale;
    uint32_t Width, Height;
    uint32_t Rotation;
    uint32_t MediaStart;         // ticks decoded but not presented (MP4TrackSpec.MediaStart)
    char Language[4];
    uint32_t PcmFrameBytes;      // PCM: the bytes of one frame, each frame a table sample; else 0
    BoxBuffer Entry;             // the sample entries as "stsd" holds them
    uint32_t EntryCount;         // of a copied description; 0 means 1
    // A copied track's header and edits (MP4AddTrackFrom).
    uint8_t CopiedHeader;
    uint32_t HeaderFlags;
    uint8_t HeaderTail[kHeaderTailBytes];
    uint8_t CopiedEdits;
    CopiedEdit *Edits;
    size_t EditCount;
    IndexedSample *Samples;
    size_t SampleCount, SampleCapacity;
    WrittenChunk *Chunks;
    size_t ChunkCount, ChunkCapacity;
    uint64_t FirstDecodeTime;    // the first sample's: time 0 of the track
    uint64_t LastDecodeTime;
    uint32_t LastDuration;       // the duration the caller gave the newest sample, or 0
    uint64_t PcmFrames;          // PCM: frames written
    // The chunk being gathered.
    uint8_t *ChunkBytes;
    size_t ChunkSize, ChunkByteCapacity;
    uint32_t ChunkSamples;
    uint64_t ChunkStart;         // decode time of its first sample
    // A fragmented handle's track: Samples and ChunkBytes hold the samples
    // not yet written, the first of them at PendingTime (from the track's
    // time 0), and Points the first sync sample of each track fragment.
    uint64_t PendingTime;
    uint64_t Written;            // samples gone to the file in fragments
    struct FragmentPoint *Points;
    size_t PointCount, PointCapacity;
    uint32_t ChapterTrackId;     // named by its "tref" "chap"; 0: none
};

// An entry of a track's "tfra".
struct FragmentPoint {
    uint64_t Time;
    uint64_t MoofOffset;
    uint32_t TrafNumber;         // from 1, in its "moof"
    uint32_t SampleNumber;       // from 1, in its run
};

struct ProgressiveWriter {
    int Fd;
    uint32_t Flags;              // the MP4FileNewEx flags
    char Path[256];
    ModernTrack *Tracks;
    size_t TrackCount, TrackCapacity;
    uint8_t Started;             // the file head is written: no more tracks
    uint8_t Failed;              // a write failed: the handle is given up
    uint64_t FileEnd;
    uint64_t MdatStart;          // where the "free" placeholder and "mdat" head begin
    // A fragmented handle's tracks (MP4_NEW_FRAGMENTED): the cut rule's
    // state, in ticks of the leading track (the first video track, else
    // the first track), and the fragment length in milliseconds.
    uint8_t Fragmented;
    size_t Leading;
    uint64_t FragmentStart;
    uint8_t CutPending;
    uint8_t CallerCuts;          // a sample carried MP4_SAMPLE_NEW_FRAGMENT: only such cut
    uint64_t CutTime;
    uint32_t FragmentMilliseconds;
    WriterMetadata Metadata;     // MP4SetMetadata, MP4SetChapters
    // A fragmented handle's chapter track (HoldChapterTrack), written whole
    // with "moov" and not in fragments; TrackId 0: none.
    ModernTrack ChapterTrack;
};

// ---- Sample entries (sample_entries.cpp) ----------------------------------

// Checks a track description against its format and builds the track's sample entry
// (and handler and PCM frame size). 1, or kAddTrackBadSpec,
// kAddTrackBadConfig, kAddTrackNoMemory.
int32_t BuildSampleEntry(const MP4TrackSpec &trackSpec, ModernTrack *track);

// ---- Intake (progressive_intake.cpp) ----------------------------------

ProgressiveWriter *NewProgressiveWriter(int fd, const char *path, uint32_t flags);
void ReleaseProgressiveWriter(ProgressiveWriter *writer);
int32_t AddProgressiveTrack(ProgressiveWriter *writer, const MP4TrackSpec &trackSpec, uint32_t *trackId);
// Makes room for one more track and gives it zeroed with its ID, not yet
// counted; null without memory.
ModernTrack *NextProgressiveTrack(ProgressiveWriter *writer);
void ReleaseModernTrack(ModernTrack &track);
// The checks of MP4WriteSample that need no writing: 1, or its code.
int32_t CheckModernSample(const ProgressiveWriter &writer, uint32_t trackId,
                          const MP4WriteInfo &info, const uint8_t *data);
int32_t WriteProgressiveSample(ProgressiveWriter *writer, uint32_t trackId,
                               const MP4WriteInfo &info, const uint8_t *data);
// Writes whatever is pending to `fd` at FileEnd; false after a failed
// write (the writer is then given up).
bool WriteAtEnd(ProgressiveWriter *writer, const void *bytes, size_t count);
// Writes every track's gathered chunk; false after a failed write.
bool WriteAllChunks(ProgressiveWriter *writer);
// The file head: "ftyp", then a "free" placeholder and the "mdat" head.
bool WriteFileHead(ProgressiveWriter *writer);

// ---- The index (progressive_movie.cpp) --------------------------------

// Builds "moov" with every chunk offset moved by `shift`; "co64" for every
// track when `wide`. A fragmented writer's "moov" has empty tables and
// "mvex" with a "trex" for each track, and then its chapter track with its
// tables.
void BuildMovie(const ProgressiveWriter &writer, uint64_t shift, bool wide, BoxBuffer *out);
// Ends the file: the last chunks, "moov", the "mdat" size, and with
// MP4_NEW_FASTSTART the move of "moov" in front. 1, kFlushWriteFailed,
// kFlushFaststartFailed.
int32_t FinishProgressiveFile(ProgressiveWriter *writer);

// ---- Fragments of the modern calls (fragment_modern.cpp) ---------------

struct FragmentWriter;
// The track that leads the fragments: the first video track, else the first.
size_t LeadingTrack(const ProgressiveWriter &writer);
// The default sample flags of a track's "trex".
uint32_t ModernDefaultSampleFlags(const ModernTrack &track);
// MP4WriteSample on a fragmented handle: the sample is held until its
// fragment is complete, which goes to the file with one write before the
// call returns. Results as for the progressive handle.
int32_t WriteFragmentedSample(ProgressiveWriter *writer, FragmentWriter *output, uint32_t trackId,
                              const MP4WriteInfo &info, const uint8_t *data);
// The flush: the samples still held, then "mfra". 1, or kFlushWriteFailed.
int32_t FinishFragmentedTracks(ProgressiveWriter *writer, FragmentWriter *output);
