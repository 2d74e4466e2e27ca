// The intake of a progressive handle: tracks from their descriptions, and each
// sample's bytes gathered into its track's chunk, which goes to the file
// once it holds a second of media or 4 MiB, or once its track has fallen
// a second behind the sample being written (a stalled stream). Memory
// holds one chunk per track and 16 bytes per sample of index.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "writer/progressive.h"

namespace {

using Wide = unsigned __int128;

// The file's brands: the ISO base format with MPEG-4 and AVC streams.
constexpr char kMajorBrand[] = "isom";
constexpr uint32_t kMinorVersion = 0x200;
constexpr const char *kCompatibleBrands[] = {"isom", "iso2", "mp41"};
// The "free" atom that a 64-bit "mdat" head takes over, then the head.
constexpr size_t kMdatHeadBytes = 16;

// Whether time a (of clock aClock) lies more than one second before time
// b (of clock bClock).
bool SecondBehind(uint64_t a, uint64_t aClock, uint64_t b, uint64_t bClock) {
    return Wide(a + aClock) * bClock < Wide(b) * aClock;
}

bool WriteChunk(ProgressiveWriter *writer, ModernTrack &track) {
    if (track.ChunkSamples == 0) return true;
    // Without memory for the chunk's index entry the file can't be ended
    // right: the handle is given up as after a failed write.
    if (!GrowRecords(&track.Chunks, &track.ChunkCapacity, track.ChunkCount + 1)) {
        writer->Failed = 1;
        return false;
    }
    const WrittenChunk chunk = {writer->FileEnd, uint32_t(track.SampleCount - track.ChunkSamples),
                                track.ChunkSamples};
    if (!WriteAtEnd(writer, track.ChunkBytes, track.ChunkSize)) return false;
    track.Chunks[track.ChunkCount++] = chunk;
    track.ChunkSize = 0;
    track.ChunkSamples = 0;
    return true;
}

}  // namespace

void ReleaseModernTrack(ModernTrack &track) {
    ReleaseBoxBuffer(&track.Entry);
    std::free(track.Samples);
    std::free(track.Chunks);
    std::free(track.ChunkBytes);
    std::free(track.Edits);
    std::free(track.Points);
}

ModernTrack *NextProgressiveTrack(ProgressiveWriter *writer) {
    if (!GrowRecords(&writer->Tracks, &writer->TrackCapacity, writer->TrackCount + 1)) return nullptr;
    ModernTrack *track = &writer->Tracks[writer->TrackCount];
    *track = ModernTrack{};
    track->TrackId = uint32_t(writer->TrackCount + 1);
    return track;
}

ProgressiveWriter *NewProgressiveWriter(int fd, const char *path, uint32_t flags) {
    auto *writer = static_cast<ProgressiveWriter *>(ZeroAlloc(sizeof(ProgressiveWriter)));
    if (writer == nullptr) return nullptr;
    writer->Fd = fd;
    writer->Flags = flags;
    std::strncpy(writer->Path, path, sizeof writer->Path - 1);
    return writer;
}

void ReleaseProgressiveWriter(ProgressiveWriter *writer) {
    if (writer == nullptr) return;
    for (size_t i = 0; i < writer->TrackCount; ++i) ReleaseModernTrack(writer->Tracks[i]);
    std::free(writer->Tracks);
    ReleaseModernTrack(writer->ChapterTrack);
    ReleaseWriterMetadata(&writer->Metadata);
    std::free(writer);
}

bool WriteAtEnd(ProgressiveWriter *writer, const void *bytes, size_t count) {
    const uint8_t *at = static_cast<const uint8_t *>(bytes);
    while (count > 0 && writer->Failed == 0) {
        const ssize_t written = pwrite(writer->Fd, at, count, off_t(writer->FileEnd));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            writer->Failed = 1;
            break;
        }
        at += written;
        count -= size_t(written);
        writer->FileEnd += uint64_t(written);
    }
    return writer->Failed == 0;
}

bool WriteFileHead(ProgressiveWriter *writer) {
    BoxBuffer head{};
    const size_t ftyp = OpenBox(&head, "ftyp");
    PutName(&head, kMajorBrand);
    Put32(&head, kMinorVersion);
    for (const char *brand : kCompatibleBrands) PutName(&head, brand);
    CloseBox(&head, ftyp);
    const size_t free = OpenBox(&head, "free");
    CloseBox(&head, free);
    // The "mdat" size is filled in by the flush.
    OpenBox(&head, "mdat");
    bool ok = !head.Failed;
    writer->MdatStart = writer->FileEnd + head.Size - kMdatHeadBytes;
    ok = ok && WriteAtEnd(writer, head.Bytes, head.Size);
    ReleaseBoxBuffer(&head);
    writer->Started = 1;
    if (!ok) writer->Failed = 1;
    return ok;
}

bool WriteAllChunks(ProgressiveWriter *writer) {
    for (size_t i = 0; i < writer->TrackCount; ++i)
        if (!WriteChunk(writer, writer->Tracks[i])) return false;
    return true;
}

int32_t AddProgressiveTrack(ProgressiveWriter *writer, const MP4TrackSpec &trackSpec, uint32_t *trackId) {
    if (writer->Started != 0 || writer->Failed != 0) return kAddTrackTooLate;
    if (writer->TrackCount >= kMaxModernTracks) return kAddTrackTooMany;
    ModernTrack *added = NextProgressiveTrack(writer);
    if (added == nullptr) return kAddTrackNoMemory;
    ModernTrack &track = *added;
    const int32_t built = BuildSampleEntry(trackSpec, &track);
    if (built != 1) {
        ReleaseModernTrack(track);
        return built;
    }
    ++writer->TrackCount;
    *trackId = track.TrackId;
    return 1;
}

int32_t CheckModernSample(const ProgressiveWriter &writer, uint32_t trackId, const MP4WriteInfo &info,
                          const uint8_t *data) {
    if (info.Reserved[0] != 0 || info.Reserved[1] != 0 || info.Reserved[2] != 0 ||
        (info.Flags & ~uint32_t(MP4_SAMPLE_KEY | MP4_SAMPLE_NEW_FRAGMENT)) != 0)
        return kWriteBadInfo;
    if (trackId == 0 || trackId > writer.TrackCount) return kWriteNoTrack;
    const ModernTrack &track = writer.Tracks[trackId - 1];
    const uint32_t entries = track.EntryCount != 0 ? track.EntryCount : 1;
    if (info.DescriptionIndex > entries || info.DescriptionIndex > kMaxEntries) return kWriteBadInfo;
    if (data == nullptr && info.Size != 0) return kWriteFailed;
    // PCM frames are table samples, counted in 32 bits.
    if (track.PcmFrameBytes != 0 &&
        (info.Size == 0 || info.Size % track.PcmFrameBytes != 0 ||
         track.PcmFrames + info.Size / track.PcmFrameBytes > UINT32_MAX))
        return kWriteBadSize;
    // Decode times rise: a sample of no duration would have no place of
    // its own on the track's time line.
    if (track.SampleCount + track.Written > 0 && (info.DecodeTime <= track.LastDecodeTime ||
                                  info.DecodeTime - track.LastDecodeTime > UINT32_MAX))
        return kWriteTimeFalls;
    return 1;
}

int32_t WriteProgressiveSample(ProgressiveWriter *writer, uint32_t trackId, const MP4WriteInfo &info,
                               const uint8_t *data) {
    const int32_t checked = CheckModernSample(*writer, trackId, info, data);
    if (checked != 1) return checked;
    ModernTrack &track = writer->Tracks[trackId - 1];
    if (track.SampleCount >= UINT32_MAX) return kWriteNoMemory;
    if (writer->Failed != 0) return kWriteGivenUp;
    if (writer->Started == 0 && !WriteFileHead(writer)) return kWriteFailed;
    // Room first, so that a call without memory leaves nothing written.
    if (!GrowRecords(&track.Samples, &track.SampleCapacity, track.SampleCount + 1) ||
        !GrowRecords(&track.Chunks, &track.ChunkCapacity, track.ChunkCount + 1))
        return kWriteNoMemory;
    // A chunk holds samples of one entry, which "stsc" names.
    const uint32_t flags = IndexedFlags(info);
    const bool full = track.ChunkSamples > 0 &&
                      (info.DecodeTime - track.ChunkStart >= track.Timescale ||
                       track.ChunkSize + info.Size > kChunkBytes ||
                       EntryOf(track.Samples[track.SampleCount - 1]) != flags >> kEntryShift);
    if (full && !WriteChunk(writer, track)) return kWriteFailed;
    void *bytes = track.ChunkBytes;
    if (!GrowBlock(&bytes, &track.ChunkByteCapacity, track.ChunkSize + info.Size, 1))
        return kWriteNoMemory;
    track.ChunkBytes = static_cast<uint8_t *>(bytes);

    if (track.SampleCount == 0) track.FirstDecodeTime = info.DecodeTime;
    const uint32_t delta = track.SampleCount == 0 ? 0 : uint32_t(info.DecodeTime - track.LastDecodeTime);
    track.Samples[track.SampleCount++] = {info.Size, delta, info.CompositionOffset, flags};
    track.LastDecodeTime = info.DecodeTime;
    track.LastDuration = info.Duration;
    if (track.PcmFrameBytes != 0) track.PcmFrames += info.Size / track.PcmFrameBytes;
    if (track.ChunkSamples == 0) track.ChunkStart = info.DecodeTime;
    if (info.Size != 0) std::memcpy(track.ChunkBytes + track.ChunkSize, data, info.Size);
    track.ChunkSize += info.Size;
    ++track.ChunkSamples;

    // A track whose chunk began a second before this sample has stalled:
    // its chunk goes out as it stands.
    for (size_t i = 0; i < writer->TrackCount; ++i) {
        ModernTrack &other = writer->Tracks[i];
        if (&other == &track || other.ChunkSamples == 0) continue;
        if (SecondBehind(other.ChunkStart - other.FirstDecodeTime, other.Timescale,
                         info.DecodeTime - track.FirstDecodeTime, track.Timescale) &&
            !WriteChunk(writer, other))
            return kWriteFailed;
    }
    return 1;
}
