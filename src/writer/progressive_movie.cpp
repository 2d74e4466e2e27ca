// The index of a progressive file: "moov" with a "trak" per track, each
// atom's layout written once below through the box writer, and the end
// of the file: the "mdat" size, "moov" behind the media, and with
// MP4_NEW_FASTSTART the finished file written beside the output with
// "moov" in front, then renamed over it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "writer/progressive.h"

namespace {

constexpr uint32_t kMovieTimescale = 1000;
constexpr uint32_t kFixedOne = 0x00010000;
constexpr uint32_t kTrackEnabledInMovie = 0x3;
constexpr size_t kCopyBytes = size_t(1) << 20;
constexpr uint64_t kKernelCopyBytes = uint64_t(1) << 30;

uint8_t VersionFor(uint64_t value) { return value > UINT32_MAX ? 1 : 0; }

// Puts a 32- or 64-bit value as the atom's version says.
void PutSized(BoxBuffer *out, uint8_t version, uint64_t value) {
    if (version == 1) {
        Put64(out, value);
    } else {
        Put32(out, uint32_t(value));
    }
}

uint64_t Rescale(uint64_t value, uint32_t from, uint32_t to) {
    return uint64_t((unsigned __int128)value * to / from);
}

// The duration of sample i: up to the next sample's decode time; the
// last lasts what the caller gave it, else as long as the one before.
uint32_t DurationOf(const ModernTrack &track, size_t i) {
    if (i + 1 < track.SampleCount) return track.Samples[i + 1].Delta;
    if (track.LastDuration != 0) return track.LastDuration;
    return i > 0 ? track.Samples[i].Delta : 0;
}

uint64_t MediaDuration(const ModernTrack &track) {
    if (track.PcmFrameBytes != 0) return track.PcmFrames;
    uint64_t total = 0;
    for (size_t i = 0; i < track.SampleCount; ++i) total += DurationOf(track, i);
    return total;
}

// The earliest presentation time (decode times from 0), which an edit
// list moves to 0 when it lies later.
int64_t EarliestPresentation(const ModernTrack &track) {
    if (track.SampleCount == 0 || track.PcmFrameBytes != 0) return 0;
    int64_t decode = 0, earliest = INT64_MAX;
    for (size_t i = 0; i < track.SampleCount; ++i) {
        decode += track.Samples[i].Delta;
        const int64_t presentation = decode + track.Samples[i].CompositionOffset;
        if (presentation < earliest) earliest = presentation;
    }
    return earliest;
}

// Where the presentation starts in the media: the earliest presentation
// time when it lies after the first decode time (B-frames), and beyond it
// the ticks the caller said are decoded but not presented (MediaStart).
int64_t EditStart(const ModernTrack &track) {
    const int64_t earliest = EarliestPresentation(track);
    return (earliest > 0 ? earliest : 0) + int64_t(track.MediaStart);
}

// The end of the latest presentation: decode time plus offset plus
// duration; PCM ends with its frames.
int64_t PresentationEnd(const ModernTrack &track) {
    if (track.PcmFrameBytes != 0) return int64_t(track.PcmFrames);
    int64_t decode = 0, end = 0;
    for (size_t i = 0; i < track.SampleCount; ++i) {
        decode += track.Samples[i].Delta;
        const int64_t last = decode + track.Samples[i].CompositionOffset + DurationOf(track, i);
        if (last > end) end = last;
    }
    return end;
}

// The presentation's length in movie ticks: a copied track's edits, else
// the media less the start its generated edit skips (0 when the start
// lies past the end).
uint64_t PresentedDuration(const ModernTrack &track) {
    if (track.CopiedEdits != 0 && track.EditCount > 0) {
        uint64_t total = 0;
        for (size_t i = 0; i < track.EditCount; ++i) total += track.Edits[i].Duration;
        return total;
    }
    const int64_t start = EditStart(track);
    if (start <= 0) return Rescale(MediaDuration(track), track.Timescale, kMovieTimescale);
    const int64_t end = PresentationEnd(track);
    return end > start ? Rescale(uint64_t(end - start), track.Timescale, kMovieTimescale) : 0;
}

void PutMatrix(BoxBuffer *out, uint32_t rotation, uint32_t width, uint32_t height) {
    const uint32_t kMinusOne = 0xFFFF0000, kW = 0x40000000;
    uint32_t m[9] = {kFixedOne, 0, 0, 0, kFixedOne, 0, 0, 0, kW};
    if (rotation == 90) {
        const uint32_t r[9] = {0, kFixedOne, 0, kMinusOne, 0, 0, height << 16, 0, kW};
        std::memcpy(m, r, sizeof m);
    } else if (rotation == 180) {
        const uint32_t r[9] = {kMinusOne, 0, 0, 0, kMinusOne, 0, width << 16, height << 16, kW};
        std::memcpy(m, r, sizeof m);
    } else if (rotation == 270) {
        const uint32_t r[9] = {0, kMinusOne, 0, kFixedOne, 0, 0, 0, width << 16, kW};
        std::memcpy(m, r, sizeof m);
    }
    for (uint32_t value : m) Put32(out, value);
}

void PutMovieHeader(BoxBuffer *out, uint64_t duration, uint32_t nextTrackId, const WriterMetadata &meta) {
    const uint8_t version = VersionFor(duration) | VersionFor(meta.Created) | VersionFor(meta.Modified);
    const size_t box = OpenFullBox(out, "mvhd", version, 0);
    PutSized(out, version, meta.Created);  // 0: unknown
    PutSized(out, version, meta.Modified);
    Put32(out, kMovieTimescale);
    PutSized(out, version, duration);
    Put32(out, kFixedOne);      // rate
    Put16(out, 0x0100);         // volume
    PutZeros(out, 10);
    PutMatrix(out, 0, 0, 0);
    PutZeros(out, 24);          // pre-defined
    Put32(out, nextTrackId);
    CloseBox(out, box);
}

void PutTrackHeader(BoxBuffer *out, const ModernTrack &track, uint64_t duration) {
    const uint8_t version = VersionFor(duration);
    const size_t box =
        OpenFullBox(out, "tkhd", version, track.CopiedHeader ? track.HeaderFlags : kTrackEnabledInMovie);
    PutSized(out, version, 0);
    PutSized(out, version, 0);
    Put32(out, track.TrackId);
    Put32(out, 0);
    PutSized(out, version, duration);
    PutZeros(out, 8);
    if (track.CopiedHeader != 0) {
        PutBytes(out, track.HeaderTail, kHeaderTailBytes);
        CloseBox(out, box);
        return;
    }
    Put16(out, 0);              // layer
    Put16(out, 0);              // alternate group
    Put16(out, track.TrackType == MP4_TRACK_AUDIO ? 0x0100 : 0);
    Put16(out, 0);
    PutMatrix(out, track.Rotation, track.Width, track.Height);
    Put32(out, track.Width << 16);
    Put32(out, track.Height << 16);
    CloseBox(out, box);
}

void PutCopiedEdits(BoxBuffer *out, const ModernTrack &track) {
    if (track.EditCount == 0) return;
    uint8_t version = 0;
    for (size_t i = 0; i < track.EditCount; ++i) {
        const CopiedEdit &edit = track.Edits[i];
        version |= VersionFor(edit.Duration) | (edit.MediaTime > INT32_MAX || edit.MediaTime < INT32_MIN);
    }
    const size_t edts = OpenBox(out, "edts");
    const size_t elst = OpenFullBox(out, "elst", version, 0);
    Put32(out, uint32_t(track.EditCount));
    for (size_t i = 0; i < track.EditCount; ++i) {
        const CopiedEdit &edit = track.Edits[i];
        PutSized(out, version, edit.Duration);
        PutSized(out, version, version == 1 ? uint64_t(edit.MediaTime) : uint32_t(int32_t(edit.MediaTime)));
        Put32(out, edit.Rate);
    }
    CloseBox(out, elst);
    CloseBox(out, edts);
}

// An edit that starts the presentation where EditStart says; a copied
// track's own edits instead. A fragmented file's "moov" is written before
// the track's length is known: its edit has duration 0, which runs to the
// end of the media.
void PutEdits(BoxBuffer *out, const ModernTrack &track, bool fragmented) {
    if (track.CopiedEdits != 0) return PutCopiedEdits(out, track);
    const int64_t start = EditStart(track);
    if (start <= 0) return;
    const uint64_t duration = fragmented ? 0 : PresentedDuration(track);
    const uint8_t version = VersionFor(duration) | VersionFor(uint64_t(start));
    const size_t edts = OpenBox(out, "edts");
    const size_t elst = OpenFullBox(out, "elst", version, 0);
    Put32(out, 1);
    PutSized(out, version, duration);
    PutSized(out, version, uint64_t(start));
    Put32(out, kFixedOne);
    CloseBox(out, elst);
    CloseBox(out, edts);
}

void PutMediaHeader(BoxBuffer *out, const ModernTrack &track) {
    const uint64_t duration = MediaDuration(track);
    const uint8_t version = VersionFor(duration);
    const size_t box = OpenFullBox(out, "mdhd", version, 0);
    PutSized(out, version, 0);
    PutSized(out, version, 0);
    Put32(out, track.Timescale);
    PutSized(out, version, duration);
    const char *l = track.Language;
    Put16(out, uint16_t(((l[0] - 0x60) << 10) | ((l[1] - 0x60) << 5) | (l[2] - 0x60)));
    Put16(out, 0);
    CloseBox(out, box);
}

void PutHandler(BoxBuffer *out, const ModernTrack &track) {
    const size_t box = OpenFullBox(out, "hdlr", 0, 0);
    Put32(out, 0);
    PutName(out, track.Handler);
    PutZeros(out, 12);
    const char *name = track.TrackType == MP4_TRACK_VIDEO   ? "VideoHandler"
                       : track.TrackType == MP4_TRACK_AUDIO ? "SoundHandler"
                                                            : "DataHandler";
    PutBytes(out, name, std::strlen(name) + 1);
    CloseBox(out, box);
}

void PutMediaInformationHeader(BoxBuffer *out, const ModernTrack &track) {
    if (track.TrackType == MP4_TRACK_VIDEO) {
        const size_t box = OpenFullBox(out, "vmhd", 0, 1);
        PutZeros(out, 8);  // graphics mode and colour
        CloseBox(out, box);
    } else if (track.TrackType == MP4_TRACK_AUDIO) {
        const size_t box = OpenFullBox(out, "smhd", 0, 0);
        PutZeros(out, 4);  // balance
        CloseBox(out, box);
    } else {
        CloseBox(out, OpenFullBox(out, "nmhd", 0, 0));
    }
    const size_t dinf = OpenBox(out, "dinf");
    const size_t dref = OpenFullBox(out, "dref", 0, 0);
    Put32(out, 1);
    CloseBox(out, OpenFullBox(out, "url ", 0, 1));  // the media is in this file
    CloseBox(out, dref);
    CloseBox(out, dinf);
}

// Run-length pairs (count, value) of a sequence; `put` writes one pair.
template <typename ValueOf, typename PutPair>
uint32_t PutRuns(size_t count, ValueOf valueOf, PutPair put) {
    uint32_t runs = 0;
    for (size_t i = 0; i < count;) {
        const auto value = valueOf(i);
        size_t end = i + 1;
        while (end < count && valueOf(end) == value) ++end;
        put(uint32_t(end - i), value);
        ++runs;
        i = end;
    }
    return runs;
}

// "stts", "ctts", "stss", "stsz": the table entries of each sample.
void PutSampleTimes(BoxBuffer *out, const ModernTrack &track) {
    const bool pcm = track.PcmFrameBytes != 0;
    size_t box = OpenFullBox(out, "stts", 0, 0);
    const size_t countAt = out->Size;
    Put32(out, 0);
    uint32_t runs = 0;
    if (pcm && track.PcmFrames > 0) {
        Put32(out, uint32_t(track.PcmFrames));
        Put32(out, 1);
        runs = 1;
    } else if (!pcm) {
        runs = PutRuns(track.SampleCount, [&](size_t i) { return DurationOf(track, i); },
                       [&](uint32_t n, uint32_t d) { Put32(out, n); Put32(out, d); });
    }
    if (!out->Failed) PutBE32(out->Bytes, countAt, runs);
    CloseBox(out, box);

    bool offsets = false, negative = false, allKeys = true;
    for (size_t i = 0; i < track.SampleCount; ++i) {
        offsets = offsets || track.Samples[i].CompositionOffset != 0;
        negative = negative || track.Samples[i].CompositionOffset < 0;
        allKeys = allKeys && (track.Samples[i].Flags & MP4_SAMPLE_KEY) != 0;
    }
    if (offsets && !pcm) {
        box = OpenFullBox(out, "ctts", negative ? 1 : 0, 0);
        const size_t at = out->Size;
        Put32(out, 0);
        const uint32_t n = PutRuns(track.SampleCount,
                                   [&](size_t i) { return track.Samples[i].CompositionOffset; },
                                   [&](uint32_t c, int32_t o) { Put32(out, c); Put32(out, uint32_t(o)); });
        if (!out->Failed) PutBE32(out->Bytes, at, n);
        CloseBox(out, box);
    }
    if (!allKeys && !pcm) {
        box = OpenFullBox(out, "stss", 0, 0);
        const size_t at = out->Size;
        Put32(out, 0);
        uint32_t keys = 0;
        for (size_t i = 0; i < track.SampleCount; ++i) {
            if ((track.Samples[i].Flags & MP4_SAMPLE_KEY) == 0) continue;
            Put32(out, uint32_t(i + 1));
            ++keys;
        }
        if (!out->Failed) PutBE32(out->Bytes, at, keys);
        CloseBox(out, box);
    }

    box = OpenFullBox(out, "stsz", 0, 0);
    bool same = true;
    for (size_t i = 1; i < track.SampleCount && same; ++i)
        same = track.Samples[i].Size == track.Samples[0].Size;
    if (pcm) {
        Put32(out, track.PcmFrameBytes);
        Put32(out, uint32_t(track.PcmFrames));
    } else if (same) {
        Put32(out, track.SampleCount > 0 ? track.Samples[0].Size : 0);
        Put32(out, uint32_t(track.SampleCount));
    } else {
        Put32(out, 0);
        Put32(out, uint32_t(track.SampleCount));
        for (size_t i = 0; i < track.SampleCount; ++i) Put32(out, track.Samples[i].Size);
    }
    CloseBox(out, box);
}

// Table samples in a chunk: PCM counts frames.
uint32_t ChunkSamples(const ModernTrack &track, const WrittenChunk &chunk) {
    if (track.PcmFrameBytes == 0) return chunk.SampleCount;
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < chunk.SampleCount; ++i) bytes += track.Samples[chunk.FirstSample + i].Size;
    return uint32_t(bytes / track.PcmFrameBytes);
}

void PutChunks(BoxBuffer *out, const ModernTrack &track, uint64_t shift, bool wide) {
    size_t box = OpenFullBox(out, "stsc", 0, 0);
    const size_t at = out->Size;
    Put32(out, 0);
    uint32_t entries = 0, previous = 0, previousEntry = 0;
    for (size_t i = 0; i < track.ChunkCount; ++i) {
        const uint32_t samples = ChunkSamples(track, track.Chunks[i]);
        const uint32_t entry = EntryOf(track.Samples[track.Chunks[i].FirstSample]);
        if (i > 0 && samples == previous && entry == previousEntry) continue;
        Put32(out, uint32_t(i + 1));
        Put32(out, samples);
        Put32(out, entry);
        previous = samples;
        previousEntry = entry;
        ++entries;
    }
    if (!out->Failed) PutBE32(out->Bytes, at, entries);
    CloseBox(out, box);
    box = OpenFullBox(out, wide ? "co64" : "stco", 0, 0);
    Put32(out, uint32_t(track.ChunkCount));
    for (size_t i = 0; i < track.ChunkCount; ++i) {
        const uint64_t offset = track.Chunks[i].Offset + shift;
        if (wide) {
            Put64(out, offset);
        } else {
            Put32(out, uint32_t(offset));
        }
    }
    CloseBox(out, box);
}

// A fragmented file's "moov" goes out with the first fragment's samples
// held: its tables stay empty and its durations 0, and only its edit looks
// at the samples held.
ModernTrack WithoutSamples(const ModernTrack &track) {
    ModernTrack empty = track;
    empty.SampleCount = 0;
    empty.ChunkCount = 0;
    empty.PcmFrames = 0;
    return empty;
}

void PutTrack(BoxBuffer *out, const ModernTrack &held, uint64_t shift, bool wide, bool fragmented) {
    const ModernTrack track = fragmented ? WithoutSamples(held) : held;
    const size_t trak = OpenBox(out, "trak");
    PutTrackHeader(out, track, PresentedDuration(track));
    if (track.ChapterTrackId != 0) {
        const size_t tref = OpenBox(out, "tref");
        const size_t chap = OpenBox(out, "chap");
        Put32(out, track.ChapterTrackId);
        CloseBox(out, chap);
        CloseBox(out, tref);
    }
    PutEdits(out, held, fragmented);
    const size_t mdia = OpenBox(out, "mdia");
    PutMediaHeader(out, track);
    PutHandler(out, track);
    const size_t minf = OpenBox(out, "minf");
    PutMediaInformationHeader(out, track);
    const size_t stbl = OpenBox(out, "stbl");
    const size_t stsd = OpenFullBox(out, "stsd", 0, 0);
    Put32(out, track.EntryCount != 0 ? track.EntryCount : 1);
    PutBytes(out, track.Entry.Bytes, track.Entry.Size);
    CloseBox(out, stsd);
    PutSampleTimes(out, track);
    PutChunks(out, track, shift, wide);
    CloseBox(out, stbl);
    CloseBox(out, minf);
    CloseBox(out, mdia);
    CloseBox(out, trak);
}

uint64_t LastChunkOffset(const ProgressiveWriter &writer) {
    uint64_t last = 0;
    for (size_t t = 0; t < writer.TrackCount; ++t) {
        const ModernTrack &track = writer.Tracks[t];
        if (track.ChunkCount > 0 && track.Chunks[track.ChunkCount - 1].Offset > last)
            last = track.Chunks[track.ChunkCount - 1].Offset;
    }
    return last;
}

bool Sync(const ProgressiveWriter &writer, int fd) {
    return (writer.Flags & MP4_NEW_SYNC) == 0 || fdatasync(fd) == 0;
}

// Copies `count` bytes at `from` of one file to `to` of another: in the
// kernel where it can, else through a buffer.
bool CopyRange(int in, uint64_t from, int out, uint64_t to, uint64_t count) {
    loff_t inAt = loff_t(from), outAt = loff_t(to);
    while (count > 0) {
        const ssize_t copied = copy_file_range(in, &inAt, out, &outAt, size_t(count < kKernelCopyBytes ? count : kKernelCopyBytes), 0);
        if (copied < 0 && errno == EINTR) continue;
        if (copied <= 0) break;
        count -= uint64_t(copied);
    }
    if (count == 0) return true;
    uint8_t *buffer = static_cast<uint8_t *>(std::malloc(kCopyBytes));
    if (buffer == nullptr) return false;
    bool ok = true;
    while (ok && count > 0) {
        const size_t want = count < kCopyBytes ? size_t(count) : kCopyBytes;
        const ssize_t got = pread(in, buffer, want, off_t(inAt));
        ok = got > 0 && pwrite(out, buffer, size_t(got), off_t(outAt)) == got;
        if (!ok) break;
        inAt += got;
        outAt += got;
        count -= uint64_t(got);
    }
    std::free(buffer);
    return ok;
}

// The finished file with "moov" in front: written beside the output and
// renamed over it, so that an interrupted move leaves the plain file.
bool MoveIndexToFront(ProgressiveWriter *writer, uint64_t mediaEnd) {
    const uint64_t last = LastChunkOffset(*writer);
    BoxBuffer moov{};
    bool wide = last > UINT32_MAX;
    BuildMovie(*writer, 0, wide, &moov);
    if (!wide && last + moov.Size > UINT32_MAX) {
        wide = true;
        ReleaseBoxBuffer(&moov);
        BuildMovie(*writer, 0, wide, &moov);
    }
    const uint64_t shift = moov.Size;
    ReleaseBoxBuffer(&moov);
    BuildMovie(*writer, shift, wide, &moov);
    if (moov.Failed) {
        ReleaseBoxBuffer(&moov);
        return false;
    }
    char temp[sizeof writer->Path + 16];
    std::snprintf(temp, sizeof temp, "%s.XXXXXX", writer->Path);
    const int out = mkstemp(temp);
    bool ok = out >= 0;
    ok = ok && CopyRange(writer->Fd, 0, out, 0, writer->MdatStart);
    ok = ok && pwrite(out, moov.Bytes, moov.Size, off_t(writer->MdatStart)) == ssize_t(moov.Size);
    ok = ok && CopyRange(writer->Fd, writer->MdatStart, out, writer->MdatStart + shift,
                         mediaEnd - writer->MdatStart);
    // The output keeps the mode it was created with (mkstemp makes 0600).
    struct stat made {};
    ok = ok && fstat(writer->Fd, &made) == 0 && fchmod(out, made.st_mode & 07777) == 0;
    ok = ok && Sync(*writer, out);
    if (out >= 0) ok = close(out) == 0 && ok;
    ok = ok && std::rename(temp, writer->Path) == 0;
    if (!ok && out >= 0) std::remove(temp);
    ReleaseBoxBuffer(&moov);
    return ok;
}

}  // namespace

void BuildMovie(const ProgressiveWriter &writer, uint64_t shift, bool wide, BoxBuffer *out) {
    const size_t moov = OpenBox(out, "moov");
    uint64_t duration = 0;
    for (size_t t = 0; t < writer.TrackCount; ++t) {
        const uint64_t presented = PresentedDuration(
            writer.Fragmented != 0 ? WithoutSamples(writer.Tracks[t]) : writer.Tracks[t]);
        if (presented > duration) duration = presented;
    }
    // A fragmented handle's chapter track comes last, with its tables: its
    // samples are in the file before any fragment.
    const ModernTrack &chapters = writer.ChapterTrack;
    PutMovieHeader(out, duration, uint32_t(writer.TrackCount + 1 + (chapters.TrackId != 0)), writer.Metadata);
    for (size_t t = 0; t < writer.TrackCount; ++t) PutTrack(out, writer.Tracks[t], shift, wide, writer.Fragmented != 0);
    if (chapters.TrackId != 0) PutTrack(out, chapters, shift, wide, false);
    if (writer.Fragmented != 0) {
        const size_t mvex = OpenBox(out, "mvex");
        for (size_t t = 0; t < writer.TrackCount; ++t) {
            const size_t trex = OpenFullBox(out, "trex", 0, 0);
            Put32(out, writer.Tracks[t].TrackId);
            Put32(out, 1);  // the first sample description
            Put32(out, 0);  // durations and sizes: each run gives them
            Put32(out, 0);
            Put32(out, ModernDefaultSampleFlags(writer.Tracks[t]));
            CloseBox(out, trex);
        }
        CloseBox(out, mvex);
    }
    PutMovieMetadata(writer.Metadata, out);
    CloseBox(out, moov);
}

int32_t FinishProgressiveFile(ProgressiveWriter *writer) {
    if (writer->Failed != 0) return kFlushWriteFailed;
    if (writer->Started == 0 && !WriteFileHead(writer)) return kFlushWriteFailed;
    if (!AddChapterTrack(writer) || !WriteAllChunks(writer)) return kFlushWriteFailed;
    // The "mdat" size: 32 bits in its own head, else 64 bits in a head
    // that takes over the "free" atom in front of it.
    const uint64_t mediaEnd = writer->FileEnd;
    const uint64_t mdatSize = mediaEnd - writer->MdatStart - 8;
    uint8_t head[16];
    size_t headSize = 4;
    uint64_t headAt = writer->MdatStart + 8;
    if (mdatSize <= UINT32_MAX) {
        PutBE32(head, 0, uint32_t(mdatSize));
    } else {
        PutBE32(head, 0, 1);
        std::memcpy(head + 4, "mdat", 4);
        PutBE64(head, 8, mdatSize + 8);
        headSize = 16;
        headAt = writer->MdatStart;
    }
    if (pwrite(writer->Fd, head, headSize, off_t(headAt)) != ssize_t(headSize)) return kFlushWriteFailed;
    BoxBuffer moov{};
    BuildMovie(*writer, 0, LastChunkOffset(*writer) > UINT32_MAX, &moov);
    const bool written = !moov.Failed && WriteAtEnd(writer, moov.Bytes, moov.Size) &&
                         Sync(*writer, writer->Fd);
    ReleaseBoxBuffer(&moov);
    if (!written) return kFlushWriteFailed;
    if ((writer->Flags & MP4_NEW_FASTSTART) != 0 && !MoveIndexToFront(writer, mediaEnd))
        return kFlushFaststartFailed;
    return 1;
}
