// The tags and chapters a modern write handle writes (MP4SetMetadata,
// MP4SetChapters): checked and copied when they are set, written into
// "moov" by BuildMovie, the chapter track added by the progressive flush.
#pragma once

#include <cstdint>

#include "mp4core.h"
#include "writer/box_writer.h"

struct ProgressiveWriter;

// Results of MP4SetMetadata and MP4SetChapters.
constexpr int32_t kSetMetaNullArgument = -99;
constexpr int32_t kSetMetaWrongHandle = -98;
constexpr int32_t kSetMetaTooLate = -97;
constexpr int32_t kSetMetaBadRecord = -96;
constexpr int32_t kSetMetaNoMemory = -93;

// The largest value of one tag (the reader's bound on an atom's payload),
// the most tags and chapters, the longest key (the reader's bound on a
// QuickTime key) and chapter title.
constexpr uint32_t kMaxTagValueBytes = uint32_t(16) << 20;
constexpr uint32_t kMaxTags = 4096;
constexpr uint32_t kMaxChapters = 65535;
constexpr size_t kMaxKeyBytes = 128;
constexpr size_t kMaxTitleBytes = 1024;
// The timescale of the chapter track the progressive flush writes.
constexpr uint32_t kChapterTimescale = 1000;

// The copies a writer holds: each one block from malloc with the records,
// their strings and values; null when none are set.
struct WriterMetadata {
    MP4Tag *Tags;
    uint32_t TagCount;
    MP4Chapter *Chapters;
    uint32_t ChapterCount;
    uint64_t Created, Modified;  // "mvhd" times, seconds since 1904; 0: unknown
};

// Checks the records and replaces what `meta` holds with copies of them.
// 1, kSetMetaBadRecord or kSetMetaNoMemory; nothing changes on a failure.
int32_t ReplaceTags(WriterMetadata *meta, const MP4Tag *tags, uint32_t count);
int32_t ReplaceChapters(WriterMetadata *meta, const MP4Chapter *chapters, uint32_t count);
void ReleaseWriterMetadata(WriterMetadata *meta);

// "moov/udta" ("\xA9xyz", "chpl", "meta" with the iTunes items) and
// "moov/meta" (QuickTime metadata by key), each when it has something.
void PutMovieMetadata(const WriterMetadata &meta, BoxBuffer *out);

// The progressive flush: a disabled "text" track of one sample per chapter,
// named by a "tref" "chap" of the first video or audio track (none without
// chapters or without such a track). False after a failed write.
bool AddChapterTrack(ProgressiveWriter *writer);
// A fragmented handle's chapter track, made when its "moov" is built: the
// same track, its samples held as one chunk (at offset 0, which BuildMovie
// moves to the "mdat" behind "moov") in ProgressiveWriter.ChapterTrack.
// False without memory.
bool HoldChapterTrack(ProgressiveWriter *writer);

// Seconds since 1904 of an ISO 8601 time ("2024-05-01", "2024-05-01T10:00:00",
// with seconds' fractions and "Z" or an offset "+02:00"/"+0200"); false
// for text of another form or a time before 1904.
bool ParseIsoTime(const char *text, size_t size, uint64_t *seconds);
