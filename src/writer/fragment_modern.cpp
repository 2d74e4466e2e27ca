// The fragments of a fragmented handle whose tracks come from MP4AddTrack
// or MP4AddTrackFrom: the cut rule of the classic fragmented intake over
// any number of tracks, each sample with its own duration, flags and
// composition offset, and the "moof", "mdat" and "mfra" written through
// the box writer. The output (one positioned write per fragment, the file
// cut back to its last whole fragment after a failed write) is the
// classic fragmented writer's.
//
// The fragment that began at the leading track's time B ends before the
// first of its samples that is a sync sample at B + S or later, or any of
// its samples at B + 2S or later (S the fragment length, one second
// unless set): that sample's time is the cut T. The fragment holds the
// samples of every track that lie before T, and is written once every
// track holds a sample at or after T (so that the durations of its
// samples before T are known), or once the leading track has passed T by
// 2S (a stalled track's later samples go into later fragments). A track
// that holds 4S of samples, 65536 samples, or a held total past 1 GiB
// sends every sample whose duration is known.
#include <sys/uio.h>

#include <cstdlib>
#include <cstring>

#include "atoms/fields.h"
#include "frame/frame.h"
#include "writer/progressive.h"
#include "writer/writer.h"

namespace {

using Wide = unsigned __int128;

constexpr uint32_t kSyncSampleFlags = 0x02000000;      // depends on no other sample
constexpr uint32_t kOtherSampleFlags = 0x01010000;     // depends on others, not a sync sample
constexpr uint32_t kMaxSampleBytes = uint32_t(1) << 28;
constexpr size_t kMaxHeldBytes = size_t(1) << 30;
constexpr size_t kMaxHeldSamples = size_t(1) << 16;
constexpr uint32_t kDefaultFragmentMilliseconds = 1000;
constexpr int kMaxPasses = 8;
// "tfra" entries: four bytes for the traf number (a file may hold 4096
// tracks), one for the run, four for the sample.
constexpr uint32_t kPointLengths = (3u << 4) | (0u << 2) | 3u;

const char *const kFragmentBrands[] = {"iso6", "isom", "iso2", "mp41"};

uint8_t VersionFor(uint64_t value) { return value > UINT32_MAX ? 1 : 0; }

bool IsKey(const IndexedSample &sample) { return (sample.Flags & MP4_SAMPLE_KEY) != 0; }

// Whether sample i's duration is known: a PCM sample's follows from its
// frames, any other's from the next sample's decode time.
size_t KnownSamples(const ModernTrack &track) {
    if (track.PcmFrameBytes != 0 || track.SampleCount == 0) return track.SampleCount;
    return track.SampleCount - 1;
}

// The duration of held sample i; the newest, which only the flush writes,
// lasts what the caller gave it, else as long as the one before.
uint32_t HeldDuration(const ModernTrack &track, size_t i) {
    if (track.PcmFrameBytes != 0) return track.Samples[i].Size / track.PcmFrameBytes;
    if (i + 1 < track.SampleCount) return track.Samples[i + 1].Delta;
    if (track.LastDuration != 0) return track.LastDuration;
    return track.Samples[i].Delta;
}

uint64_t HeldTime(const ModernTrack &track, size_t i) {
    uint64_t time = track.PendingTime;
    for (size_t k = 0; k < i; ++k) time += HeldDuration(track, k);
    return time;
}

// The time of the newest held sample, which HeldTime would sum up to:
// every sample written so far lasted up to the next one's decode time (or,
// PCM, its frames), so it is the newest decode time from the first, or the
// frames before the newest sample's.
uint64_t NewestTime(const ModernTrack &track) {
    if (track.PcmFrameBytes != 0) return track.PcmFrames - track.Samples[track.SampleCount - 1].Size / track.PcmFrameBytes;
    return track.LastDecodeTime - track.FirstDecodeTime;
}

bool AtOrAfter(uint64_t a, uint64_t aClock, uint64_t b, uint64_t bClock) {
    return Wide(a) * bClock >= Wide(b) * aClock;
}

// Ticks of the leading track in n fragment lengths.
uint64_t Lengths(const ProgressiveWriter &writer, uint64_t n) {
    return uint64_t(Wide(writer.Tracks[writer.Leading].Timescale) * writer.FragmentMilliseconds * n / 1000);
}

size_t SamplesBefore(const ProgressiveWriter &writer, const ModernTrack &track, bool hasCut) {
    const size_t known = KnownSamples(track);
    if (!hasCut) return known;
    const uint64_t leadClock = writer.Tracks[writer.Leading].Timescale;
    size_t count = 0;
    uint64_t time = track.PendingTime;
    while (count < known && !AtOrAfter(time, track.Timescale, writer.CutTime, leadClock))
        time += HeldDuration(track, count++);
    return count;
}

// The next cut among the leading track's held samples: by the rule of
// lengths, or once the caller has named one, only at a sample that
// carries MP4_SAMPLE_NEW_FRAGMENT.
void FindCut(ProgressiveWriter &writer) {
    const ModernTrack &lead = writer.Tracks[writer.Leading];
    uint64_t time = lead.PendingTime;
    for (size_t i = 0; i < lead.SampleCount && writer.CutPending == 0; ++i) {
        const uint64_t elapsed = time - writer.FragmentStart;
        const bool cut = writer.CallerCuts != 0
                             ? elapsed > 0 && (lead.Samples[i].Flags & MP4_SAMPLE_NEW_FRAGMENT) != 0
                             : (IsKey(lead.Samples[i]) && elapsed >= Lengths(writer, 1)) ||
                                   elapsed >= Lengths(writer, 2);
        if (cut) {
            writer.CutPending = 1;
            writer.CutTime = time;
        }
        time += HeldDuration(lead, i);
    }
}

// A track fragment: held samples [first, first + count) of a track, all
// of one sample entry, which "tfhd" names when it is not the first.
struct TrackRun {
    size_t Track, First, Count;
    size_t Bytes;                // of its samples
    size_t OffsetAt;             // where its "trun" data offset lies in the head
};

void PutTrackFragment(BoxBuffer *out, const ModernTrack &track, TrackRun *run) {
    bool offsets = false, negative = false, flagged = false;
    const uint32_t defaults = ModernDefaultSampleFlags(track);
    const IndexedSample *samples = track.Samples + run->First;
    for (size_t i = 0; i < run->Count; ++i) {
        const IndexedSample &sample = samples[i];
        offsets = offsets || sample.CompositionOffset != 0;
        negative = negative || sample.CompositionOffset < 0;
        flagged = flagged || (IsKey(sample) ? kSyncSampleFlags : kOtherSampleFlags) != defaults;
    }
    const uint32_t entry = EntryOf(samples[0]);
    const size_t traf = OpenBox(out, "traf");
    const size_t tfhd = OpenFullBox(out, "tfhd", 0, flag::kTfhdDefaultBaseIsMoof |
                                                        (entry != 1 ? flag::kTfhdDescriptionIndex : 0));
    Put32(out, track.TrackId);
    if (entry != 1) Put32(out, entry);
    CloseBox(out, tfhd);
    const uint64_t time = HeldTime(track, run->First);
    const uint8_t version = VersionFor(time);
    const size_t tfdt = OpenFullBox(out, "tfdt", version, 0);
    if (version == 1) {
        Put64(out, time);
    } else {
        Put32(out, uint32_t(time));
    }
    CloseBox(out, tfdt);
    const uint32_t flags = flag::kTrunDataOffset | flag::kTrunDuration | flag::kTrunSize |
                           (flagged ? flag::kTrunFlags : 0) | (offsets ? flag::kTrunCompositionOffset : 0);
    const size_t trun = OpenFullBox(out, "trun", negative ? 1 : 0, flags);
    Put32(out, uint32_t(run->Count));
    run->OffsetAt = out->Size;
    Put32(out, 0);  // the data offset, filled in once "moof" is whole
    for (size_t i = 0; i < run->Count; ++i) {
        const IndexedSample &sample = samples[i];
        Put32(out, HeldDuration(track, run->First + i));
        Put32(out, sample.Size);
        if (flagged) Put32(out, IsKey(sample) ? kSyncSampleFlags : kOtherSampleFlags);
        if (offsets) Put32(out, uint32_t(sample.CompositionOffset));
    }
    CloseBox(out, trun);
    CloseBox(out, traf);
}

// Splits the first counts[t] held samples of each track into runs of one
// entry; gives how many.
size_t SplitRuns(const ProgressiveWriter &writer, const size_t *counts, TrackRun *runs) {
    size_t n = 0;
    for (size_t t = 0; t < writer.TrackCount; ++t) {
        const ModernTrack &track = writer.Tracks[t];
        for (size_t i = 0; i < counts[t]; ++i) {
            if (i == 0 || EntryOf(track.Samples[i]) != EntryOf(track.Samples[i - 1]))
                runs[n++] = {t, i, 0, 0, 0};
            ++runs[n - 1].Count;
            runs[n - 1].Bytes += track.Samples[i].Size;
        }
    }
    return n;
}

// Drops the first `count` held samples of a track.
void Consume(ModernTrack &track, size_t count, size_t bytes) {
    for (size_t i = 0; i < count; ++i) track.PendingTime += HeldDuration(track, i);
    track.SampleCount -= count;
    track.Written += count;
    if (track.SampleCount > 0)
        std::memmove(track.Samples, track.Samples + count, track.SampleCount * sizeof(IndexedSample));
    track.ChunkSize -= bytes;
    if (track.ChunkSize > 0) std::memmove(track.ChunkBytes, track.ChunkBytes + bytes, track.ChunkSize);
}

int32_t BeginFile(ProgressiveWriter &writer, FragmentWriter &output);

// Writes one fragment of the first counts[t] held samples of each track:
// a "traf" for each run of samples of one entry.
int32_t WriteModernFragment(ProgressiveWriter &writer, FragmentWriter &output, const size_t *counts) {
    const size_t tracks = writer.TrackCount;
    size_t samples = 0;
    for (size_t t = 0; t < tracks; ++t) samples += counts[t];
    if (samples == 0) return kFragmentDone;
    const int32_t begun = BeginFile(writer, output);
    if (begun != kFragmentDone) return begun;
    auto *runs = static_cast<TrackRun *>(std::calloc(samples, sizeof(TrackRun)));
    auto *bytes = static_cast<size_t *>(std::calloc(tracks, sizeof(size_t)));
    iovec *blocks = static_cast<iovec *>(std::calloc(tracks + 1, sizeof(iovec)));
    BoxBuffer head{};
    int32_t result = kFragmentNoMemory;
    if (runs != nullptr && bytes != nullptr && blocks != nullptr) {
        const size_t runCount = SplitRuns(writer, counts, runs);
        const size_t moof = OpenBox(&head, "moof");
        const size_t mfhd = OpenFullBox(&head, "mfhd", 0, 0);
        Put32(&head, output.Sequence + 1);
        CloseBox(&head, mfhd);
        uint64_t total = 0;
        for (size_t r = 0; r < runCount; ++r) {
            ModernTrack &track = writer.Tracks[runs[r].Track];
            if (!GrowRecords(&track.Points, &track.PointCapacity, track.PointCount + runCount)) head.Failed = true;
            PutTrackFragment(&head, track, &runs[r]);
            bytes[runs[r].Track] += runs[r].Bytes;
            total += runs[r].Bytes;
        }
        CloseBox(&head, moof);
        Put32(&head, uint32_t(8 + total));
        PutName(&head, "mdat");
        if (!head.Failed) {
            int count = 1;
            blocks[0] = {head.Bytes, head.Size};
            uint64_t dataOffset = head.Size;
            for (size_t r = 0; r < runCount; ++r) {
                PutBE32(head.Bytes, runs[r].OffsetAt, uint32_t(dataOffset));
                dataOffset += runs[r].Bytes;
            }
            for (size_t t = 0; t < tracks; ++t)
                if (bytes[t] > 0) blocks[count++] = {writer.Tracks[t].ChunkBytes, bytes[t]};
            const uint64_t moofOffset = output.FileEnd;
            result = WriteAtFileEnd(&output, blocks, count);
            if (result == kFragmentDone) {
                ++output.Sequence;
                for (size_t r = 0; r < runCount; ++r) {
                    ModernTrack &track = writer.Tracks[runs[r].Track];
                    uint64_t time = HeldTime(track, runs[r].First);
                    for (size_t i = runs[r].First; i < runs[r].First + runs[r].Count; time += HeldDuration(track, i), ++i) {
                        if (!IsKey(track.Samples[i])) continue;
                        track.Points[track.PointCount++] = {time, moofOffset, uint32_t(r + 1),
                                                            uint32_t(i - runs[r].First + 1)};
                        break;
                    }
                }
                for (size_t t = 0; t < tracks; ++t)
                    if (counts[t] > 0) Consume(writer.Tracks[t], counts[t], bytes[t]);
            }
        }
    }
    ReleaseBoxBuffer(&head);
    std::free(runs);
    std::free(bytes);
    std::free(blocks);
    return result;
}

// Writes the fragment that ends before the cut (without one: at the known
// durations) and begins the next.
int32_t WriteUpTo(ProgressiveWriter &writer, FragmentWriter &output, bool hasCut) {
    size_t *counts = static_cast<size_t *>(std::calloc(writer.TrackCount, sizeof(size_t)));
    if (counts == nullptr) return kFragmentNoMemory;
    for (size_t t = 0; t < writer.TrackCount; ++t) counts[t] = SamplesBefore(writer, writer.Tracks[t], hasCut);
    const int32_t written = WriteModernFragment(writer, output, counts);
    std::free(counts);
    if (written != kFragmentDone) return written;
    // The next fragment starts at the leading track's first sample not
    // written, held or still to come.
    writer.FragmentStart = writer.Tracks[writer.Leading].PendingTime;
    writer.CutPending = 0;
    FindCut(writer);
    return kFragmentDone;
}

bool CutComplete(const ProgressiveWriter &writer) {
    const ModernTrack &lead = writer.Tracks[writer.Leading];
    if (NewestTime(lead) - writer.CutTime >= Lengths(writer, 2)) return true;
    for (size_t t = 0; t < writer.TrackCount; ++t) {
        const ModernTrack &other = writer.Tracks[t];
        if (t == writer.Leading) continue;
        if (other.SampleCount == 0 ||
            !AtOrAfter(NewestTime(other), other.Timescale, writer.CutTime, lead.Timescale))
            return false;
    }
    return true;
}

bool HoldsTooLong(const ProgressiveWriter &writer) {
    if (writer.CallerCuts != 0) return false;
    const uint64_t hold = uint64_t(writer.FragmentMilliseconds) * 4;
    for (size_t t = 0; t < writer.TrackCount; ++t) {
        const ModernTrack &other = writer.Tracks[t];
        if (t == writer.Leading || other.SampleCount == 0) continue;
        if (Wide(NewestTime(other) - other.PendingTime) * 1000 >= Wide(hold) * other.Timescale) return true;
    }
    return false;
}

int32_t WriteCompleteFragments(ProgressiveWriter &writer, FragmentWriter &output) {
    for (int pass = 0; pass < kMaxPasses; ++pass) {
        int32_t written = kFragmentDone;
        if (writer.CutPending != 0 && CutComplete(writer)) {
            written = WriteUpTo(writer, output, true);
        } else if (HoldsTooLong(writer)) {
            written = WriteUpTo(writer, output, writer.CutPending != 0);
        } else {
            break;
        }
        if (written != kFragmentDone) return written;
    }
    return kFragmentDone;
}

// "ftyp" and "moov" with one write, in front of the first fragment (or
// at the flush of a handle without one): the samples of the first fragment
// are held then, so a track whose first presentation lies after its first
// decode time (B-frames) gets its edit. The chapter track's samples follow
// in an "mdat" of their own; "moov" is built twice, the second time with
// their offset, which the first gave (the size does not change with it).
int32_t BeginFile(ProgressiveWriter &writer, FragmentWriter &output) {
    if (output.HeaderWritten != 0) return kFragmentDone;
    if (!HoldChapterTrack(&writer)) return kFragmentNoMemory;
    BoxBuffer head{};
    const size_t ftyp = OpenBox(&head, "ftyp");
    PutName(&head, kFragmentBrands[0]);
    Put32(&head, 0);
    for (const char *brand : kFragmentBrands) PutName(&head, brand);
    CloseBox(&head, ftyp);
    const size_t moov = head.Size;
    BuildMovie(writer, 0, false, &head);
    const ModernTrack &chapters = writer.ChapterTrack;
    if (chapters.TrackId != 0 && !head.Failed) {
        const uint64_t samplesAt = output.FileEnd + head.Size + 8;
        head.Size = moov;
        BuildMovie(writer, samplesAt, false, &head);
        const size_t mdat = OpenBox(&head, "mdat");
        PutBytes(&head, chapters.ChunkBytes, chapters.ChunkSize);
        CloseBox(&head, mdat);
    }
    int32_t result = kFragmentNoMemory;
    if (!head.Failed) {
        const iovec block = {head.Bytes, head.Size};
        result = WriteAtFileEnd(&output, &block, 1);
    }
    ReleaseBoxBuffer(&head);
    if (result == kFragmentDone) output.HeaderWritten = 1;
    return result;
}

int32_t WriteIndex(const ProgressiveWriter &writer, FragmentWriter &output) {
    BoxBuffer out{};
    const size_t mfra = OpenBox(&out, "mfra");
    for (size_t t = 0; t < writer.TrackCount; ++t) {
        const ModernTrack &track = writer.Tracks[t];
        uint8_t version = 0;
        for (size_t i = 0; i < track.PointCount; ++i)
            version |= VersionFor(track.Points[i].Time) | VersionFor(track.Points[i].MoofOffset);
        const size_t tfra = OpenFullBox(&out, "tfra", version, 0);
        Put32(&out, track.TrackId);
        Put32(&out, kPointLengths);
        Put32(&out, uint32_t(track.PointCount));
        for (size_t i = 0; i < track.PointCount; ++i) {
            const FragmentPoint &point = track.Points[i];
            if (version == 1) {
                Put64(&out, point.Time);
                Put64(&out, point.MoofOffset);
            } else {
                Put32(&out, uint32_t(point.Time));
                Put32(&out, uint32_t(point.MoofOffset));
            }
            Put32(&out, point.TrafNumber);
            Put8(&out, 1);  // one run per track fragment
            Put32(&out, point.SampleNumber);
        }
        CloseBox(&out, tfra);
    }
    const size_t mfro = OpenFullBox(&out, "mfro", 0, 0);
    Put32(&out, uint32_t(out.Size - mfra + 4));
    CloseBox(&out, mfro);
    CloseBox(&out, mfra);
    int32_t result = kFragmentNoMemory;
    if (!out.Failed) {
        const iovec block = {out.Bytes, out.Size};
        result = WriteAtFileEnd(&output, &block, 1);
    }
    ReleaseBoxBuffer(&out);
    return result;
}

int32_t ResultOf(int32_t written) {
    if (written == kFragmentDone) return 1;
    return written == kFragmentNoMemory ? kWriteNoMemory : kWriteFailed;
}

}  // namespace

size_t LeadingTrack(const ProgressiveWriter &writer) {
    for (size_t t = 0; t < writer.TrackCount; ++t)
        if (writer.Tracks[t].TrackType == MP4_TRACK_VIDEO) return t;
    return 0;
}

uint32_t ModernDefaultSampleFlags(const ModernTrack &track) {
    return track.TrackType == MP4_TRACK_VIDEO ? kOtherSampleFlags : kSyncSampleFlags;
}

int32_t WriteFragmentedSample(ProgressiveWriter *writer, FragmentWriter *output, uint32_t trackId,
                              const MP4WriteInfo &info, const uint8_t *data) {
    const int32_t checked = CheckModernSample(*writer, trackId, info, data);
    if (checked != 1) return checked;
    if ((info.Flags & MP4_SAMPLE_NEW_FRAGMENT) != 0 && trackId - 1 != LeadingTrack(*writer))
        return kWriteBadInfo;
    if (info.Size >= kMaxSampleBytes) return kWriteBadSize;
    if (output->Failed != 0) return kWriteGivenUp;
    ModernTrack &track = writer->Tracks[trackId - 1];
    int32_t written = kFragmentDone;
    size_t held = 0;
    for (size_t t = 0; t < writer->TrackCount; ++t) held += writer->Tracks[t].ChunkSize;
    if (written == kFragmentDone && (track.SampleCount >= kMaxHeldSamples || held + info.Size > kMaxHeldBytes))
        written = WriteUpTo(*writer, *output, false);
    if (written != kFragmentDone) return ResultOf(written);
    void *bytes = track.ChunkBytes;
    if (!GrowRecords(&track.Samples, &track.SampleCapacity, track.SampleCount + 1) ||
        !GrowBlock(&bytes, &track.ChunkByteCapacity, track.ChunkSize + info.Size, 1))
        return kWriteNoMemory;
    track.ChunkBytes = static_cast<uint8_t *>(bytes);
    // The first sample taken closes the list of tracks and fixes the one that leads.
    if (writer->Started == 0) {
        writer->Started = 1;
        writer->Leading = LeadingTrack(*writer);
        writer->FragmentMilliseconds = kDefaultFragmentMilliseconds;
    }

    const bool first = track.SampleCount + track.Written == 0;
    if (first) track.FirstDecodeTime = info.DecodeTime;
    const uint32_t delta = first ? 0 : uint32_t(info.DecodeTime - track.LastDecodeTime);
    // A PCM track's time follows from its frames, so its deltas are not kept.
    track.Samples[track.SampleCount++] = {info.Size, track.PcmFrameBytes != 0 ? 0 : delta,
                                          info.CompositionOffset, IndexedFlags(info)};
    track.LastDecodeTime = info.DecodeTime;
    track.LastDuration = info.Duration;
    if (track.PcmFrameBytes != 0) track.PcmFrames += info.Size / track.PcmFrameBytes;
    if (info.Size != 0) std::memcpy(track.ChunkBytes + track.ChunkSize, data, info.Size);
    track.ChunkSize += info.Size;
    // The first sample that names a cut hands the cuts to the caller; a cut
    // the rule of lengths found and not yet written is found again.
    if ((info.Flags & MP4_SAMPLE_NEW_FRAGMENT) != 0 && writer->CallerCuts == 0) {
        writer->CallerCuts = 1;
        writer->CutPending = 0;
    }
    if (size_t(trackId - 1) == writer->Leading && writer->CutPending == 0) FindCut(*writer);
    return ResultOf(WriteCompleteFragments(*writer, *output));
}

int32_t FinishFragmentedTracks(ProgressiveWriter *writer, FragmentWriter *output) {
    if (output->Failed != 0) return kFlushWriteFailed;
    int32_t written = BeginFile(*writer, *output);
    // Each pending cut writes at least the leading track's first held sample.
    while (written == kFragmentDone && writer->CutPending != 0) written = WriteUpTo(*writer, *output, true);
    if (written == kFragmentDone) {
        size_t *all = static_cast<size_t *>(std::calloc(writer->TrackCount + 1, sizeof(size_t)));
        if (all == nullptr) return kFlushWriteFailed;
        for (size_t t = 0; t < writer->TrackCount; ++t) all[t] = writer->Tracks[t].SampleCount;
        written = WriteModernFragment(*writer, *output, all);
        std::free(all);
    }
    if (written == kFragmentDone) written = WriteIndex(*writer, *output);
    return written == kFragmentDone ? 1 : kFlushWriteFailed;
}
