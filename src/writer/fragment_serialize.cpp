// Serialisation of a fragmented file's fragments ("moof" with a "traf" per
// track, and the head of its "mdat") and of its index ("mfra"). Layouts
// come from the catalogue: heads, the fields that the flags of "tfhd" and
// "trun" switch on, and the version 1 forms of "tfdt" and "tfra".
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "writer/writer.h"

namespace {

// Each track fragment's data offset counts from its "moof".
constexpr uint32_t kTfhdFlags = flag::kTfhdDefaultBaseIsMoof;
constexpr uint32_t kKeyFlags = flag::kSampleDependsOnNone;
// "tfra" entries: one byte each for the traf and trun numbers, four for the
// sample number (a stored length is the bytes less one).
constexpr uint32_t kTrafNumberBytes = 1;
constexpr uint32_t kTrunNumberBytes = 1;
constexpr uint32_t kSampleNumberBytes = 4;
constexpr uint32_t kLengthSizes =
    ((kTrafNumberBytes - 1) << 4) | ((kTrunNumberBytes - 1) << 2) | (kSampleNumberBytes - 1);

AtomSchema SchemaOf(const char *name) {
    AtomSchema schema{};
    GetAtomSchemaByName(name, &schema, kModernReader);
    return schema;
}

// The bytes in front of a container's first child, or a leaf's whole head.
uint32_t HeadOf(const char *name) {
    const AtomSchema schema = SchemaOf(name);
    return schema.ChildOffset != 0 ? schema.ChildOffset : RecordHeadLength(schema);
}

uint32_t FullHeadOf(const char *name, uint8_t version) {
    return ModernHeadLength(SchemaOf(name), version, 0);
}

// The run of a track: which fields each sample has, and where.
struct RunLayout {
    uint32_t flags;
    uint32_t head;
    uint32_t entry;
    int32_t dataOffset;
    int32_t duration;
    int32_t size;
    int32_t sampleFlags;
    int32_t composition;
};

RunLayout RunLayoutOf(const TrackNode &track) {
    const AtomSchema trun = SchemaOf("trun");
    uint32_t flags = flag::kTrunDataOffset | flag::kTrunDuration | flag::kTrunSize;
    if (track.TrackType == MP4_TRACK_VIDEO) flags |= flag::kTrunFlags;
    if (track.CompositionTimes != 0) flags |= flag::kTrunCompositionOffset;
    return {flags,
            ModernHeadLength(trun, 0, flags),
            ModernEntrySize(trun, 0, flags),
            FlaggedFieldOffset(trun, flags, flag::kTrunDataOffset, false),
            FlaggedFieldOffset(trun, flags, flag::kTrunDuration, true),
            FlaggedFieldOffset(trun, flags, flag::kTrunSize, true),
            FlaggedFieldOffset(trun, flags, flag::kTrunFlags, true),
            FlaggedFieldOffset(trun, flags, flag::kTrunCompositionOffset, true)};
}

// A track's default sample flags ("trex"): video samples are predicted
// pictures unless a run says otherwise; audio samples are all sync samples.
uint32_t DefaultSampleFlags(const TrackNode &track) {
    return track.TrackType == MP4_TRACK_VIDEO ? flag::kSampleDependsOnOthers | flag::kSampleIsNonSync
                                              : 0;
}

uint8_t VersionFor(uint64_t value) { return value > UINT32_MAX ? 1 : 0; }

// Size and name of an atom at `at`; the rest of its head is zero.
size_t PutHead(uint8_t *out, size_t at, uint64_t size, const char *name, uint32_t head) {
    std::memset(out + at, 0, head);
    PutBE32(out, at + field::kHeadSize, uint32_t(size));
    std::memcpy(out + at + field::kHeadName, name, 4);
    return at + head;
}

void PutVersionFlags(uint8_t *out, size_t at, uint8_t version, uint32_t flags) {
    PutBE32(out, at + field::kVersionFlags, (uint32_t(version) << 24) | flags);
}

// A frame lasts up to its track's next frame; the last frame held, which
// only the flush writes, lasts as long as the frame before it.
uint32_t DurationOf(const RecordingTrack &track, size_t i) {
    if (i + 1 < track.FrameCount) return uint32_t(track.Frames[i + 1].Time - track.Frames[i].Time);
    return track.LastDuration;
}

uint64_t DataBytes(const RecordingTrack &track, size_t count) {
    uint64_t bytes = 0;
    for (size_t i = 0; i < count; ++i) bytes += track.Frames[i].Size;
    return bytes;
}

// Fills one "traf" at `at`; gives where it ends.
size_t PutTrackFragment(uint8_t *out, size_t at, const RecordingTrack &track, size_t count,
                        uint64_t trafSize, uint64_t dataOffset) {
    const TrackNode &node = *track.Track;
    const RunLayout run = RunLayoutOf(node);
    at = PutHead(out, at, trafSize, "traf", HeadOf("traf"));
    const uint32_t tfhdSize = ModernHeadLength(SchemaOf("tfhd"), 0, kTfhdFlags);
    PutHead(out, at, tfhdSize, "tfhd", tfhdSize);
    PutVersionFlags(out, at, 0, kTfhdFlags);
    PutBE32(out, at + field::kTfhdTrackId, node.TrackId);
    at += tfhdSize;
    const uint8_t version = VersionFor(track.Frames[0].Time);
    const uint32_t tfdtSize = FullHeadOf("tfdt", version);
    PutHead(out, at, tfdtSize, "tfdt", tfdtSize);
    PutVersionFlags(out, at, version, 0);
    if (version == 1) {
        PutBE64(out, at + field::kTfdtDecodeTime, track.Frames[0].Time);
    } else {
        PutBE32(out, at + field::kTfdtDecodeTime, uint32_t(track.Frames[0].Time));
    }
    at += tfdtSize;
    PutHead(out, at, run.head + uint64_t(count) * run.entry, "trun", run.head);
    PutVersionFlags(out, at, 0, run.flags);
    PutBE32(out, at + field::kTrunSampleCount, uint32_t(count));
    PutBE32(out, at + size_t(run.dataOffset), uint32_t(dataOffset));
    at += run.head;
    for (size_t i = 0; i < count; ++i, at += run.entry) {
        const PendingFrame &frame = track.Frames[i];
        PutBE32(out, at + size_t(run.duration), DurationOf(track, i));
        PutBE32(out, at + size_t(run.size), frame.Size);
        if (run.sampleFlags >= 0)
            PutBE32(out, at + size_t(run.sampleFlags), frame.Key ? kKeyFlags : DefaultSampleFlags(node));
        if (run.composition >= 0) PutBE32(out, at + size_t(run.composition), frame.CompositionOffset);
    }
    return at;
}

uint64_t TrackFragmentSize(const RecordingTrack &track, size_t count) {
    const RunLayout run = RunLayoutOf(*track.Track);
    return HeadOf("traf") + ModernHeadLength(SchemaOf("tfhd"), 0, kTfhdFlags) +
           FullHeadOf("tfdt", VersionFor(track.Frames[0].Time)) + run.head +
           uint64_t(count) * run.entry;
}

// Drops the first `count` frames and their bytes from a track.
void Consume(RecordingTrack &track, size_t count, uint64_t bytes) {
    track.FrameCount -= count;
    if (track.FrameCount > 0)
        std::memmove(track.Frames, track.Frames + count, track.FrameCount * sizeof(PendingFrame));
    track.ByteCount -= size_t(bytes);
    if (track.ByteCount > 0) std::memmove(track.Bytes, track.Bytes + bytes, track.ByteCount);
}

}  // namespace

uint32_t TrexDefaultSampleFlags(const TrackNode &track) { return DefaultSampleFlags(track); }

// The intake keeps a fragment's data below 1 GiB and its runs below 65536
// samples, so the "mdat" size and every data offset fit their 32 bits.
int32_t WriteFragment(FragmentWriter *writer, const size_t counts[2]) {
    uint64_t trafSizes[2] = {0, 0}, bytes[2] = {0, 0};
    const uint32_t moofHead = HeadOf("moof"), mfhdSize = HeadOf("mfhd"), mdatHead = HeadOf("mdat");
    uint64_t moofSize = moofHead + mfhdSize;
    size_t points = 0;
    for (size_t t = 0; t < 2; ++t) {
        const RecordingTrack &track = writer->Tracks[t];
        if (counts[t] == 0 || track.Track == nullptr) continue;
        trafSizes[t] = TrackFragmentSize(track, counts[t]);
        bytes[t] = DataBytes(track, counts[t]);
        moofSize += trafSizes[t];
        RecordingTrack &indexed = writer->Tracks[t];
        if (!GrowRecords(&indexed.Index, &indexed.IndexCapacity, indexed.IndexCount + 1))
            return kFragmentNoMemory;
        ++points;
    }
    if (points == 0) return kFragmentDone;
    const uint64_t headBytes = moofSize + mdatHead;
    if (!GrowBlock(reinterpret_cast<void **>(&writer->Head), &writer->HeadCapacity, size_t(headBytes), 1))
        return kFragmentNoMemory;

    uint8_t *out = writer->Head;
    size_t at = PutHead(out, 0, moofSize, "moof", moofHead);
    PutHead(out, at, mfhdSize, "mfhd", mfhdSize);
    PutBE32(out, at + field::kMfhdSequence, writer->Sequence + 1);
    at += mfhdSize;
    uint64_t dataOffset = headBytes;
    uint32_t trafNumber = 0;
    RandomAccessPoint found[2] = {};
    bool hasPoint[2] = {false, false};
    for (size_t t = 0; t < 2; ++t) {
        if (trafSizes[t] == 0) continue;
        const RecordingTrack &track = writer->Tracks[t];
        ++trafNumber;
        // The track's random access point here: its first sync sample.
        for (size_t i = 0; i < counts[t] && !hasPoint[t]; ++i) {
            if (track.Frames[i].Key == 0) continue;
            found[t] = {track.Frames[i].Time, writer->FileEnd, trafNumber, uint32_t(i + 1)};
            hasPoint[t] = true;
        }
        at = PutTrackFragment(out, at, track, counts[t], trafSizes[t], dataOffset);
        dataOffset += bytes[t];
    }
    PutHead(out, at, mdatHead + bytes[0] + bytes[1], "mdat", mdatHead);

    iovec blocks[3] = {{out, size_t(headBytes)}, {}, {}};
    int count = 1;
    for (size_t t = 0; t < 2; ++t)
        if (bytes[t] > 0) blocks[count++] = {writer->Tracks[t].Bytes, size_t(bytes[t])};
    const int32_t written = WriteAtFileEnd(writer, blocks, count);
    if (written != kFragmentDone) return written;

    ++writer->Sequence;
    for (size_t t = 0; t < 2; ++t) {
        RecordingTrack &track = writer->Tracks[t];
        if (hasPoint[t]) track.Index[track.IndexCount++] = found[t];
        if (trafSizes[t] != 0) Consume(track, counts[t], bytes[t]);
    }
    return kFragmentDone;
}

int32_t WriteFragmentIndex(FragmentWriter *writer) {
    const uint32_t mfraHead = HeadOf("mfra"), tfraHead = HeadOf("tfra"), mfroSize = HeadOf("mfro");
    uint64_t size = mfraHead + mfroSize;
    uint8_t versions[2] = {0, 0};
    uint32_t entrySizes[2] = {0, 0};
    for (size_t t = 0; t < 2; ++t) {
        const RecordingTrack &track = writer->Tracks[t];
        if (track.Track == nullptr) continue;
        for (size_t i = 0; i < track.IndexCount; ++i)
            versions[t] |= VersionFor(track.Index[i].Time) | VersionFor(track.Index[i].MoofOffset);
        entrySizes[t] = (versions[t] == 1 ? 16 : 8) + kTrafNumberBytes + kTrunNumberBytes + kSampleNumberBytes;
        size += tfraHead + uint64_t(track.IndexCount) * entrySizes[t];
    }
    if (!GrowBlock(reinterpret_cast<void **>(&writer->Head), &writer->HeadCapacity, size_t(size), 1))
        return kFragmentNoMemory;
    uint8_t *out = writer->Head;
    size_t at = PutHead(out, 0, size, "mfra", mfraHead);
    for (size_t t = 0; t < 2; ++t) {
        const RecordingTrack &track = writer->Tracks[t];
        if (track.Track == nullptr) continue;
        PutHead(out, at, tfraHead + uint64_t(track.IndexCount) * entrySizes[t], "tfra", tfraHead);
        PutVersionFlags(out, at, versions[t], 0);
        PutBE32(out, at + field::kTfraTrackId, track.Track->TrackId);
        PutBE32(out, at + field::kTfraLengthSizes, kLengthSizes);
        PutBE32(out, at + field::kTfraEntryCount, uint32_t(track.IndexCount));
        at += tfraHead;
        for (size_t i = 0; i < track.IndexCount; ++i) {
            const RandomAccessPoint &point = track.Index[i];
            if (versions[t] == 1) {
                PutBE64(out, at, point.Time);
                PutBE64(out, at + 8, point.MoofOffset);
                at += 16;
            } else {
                PutBE32(out, at, uint32_t(point.Time));
                PutBE32(out, at + 4, uint32_t(point.MoofOffset));
                at += 8;
            }
            out[at] = uint8_t(point.TrafNumber);
            out[at + kTrafNumberBytes] = 1;  // one run per track fragment
            PutBE32(out, at + kTrafNumberBytes + kTrunNumberBytes, point.SampleNumber);
            at += kTrafNumberBytes + kTrunNumberBytes + kSampleNumberBytes;
        }
    }
    PutHead(out, at, mfroSize, "mfro", mfroSize);
    PutBE32(out, at + field::kMfroSize, uint32_t(size));
    const iovec block = {out, size_t(size)};
    return WriteAtFileEnd(writer, &block, 1);
}
