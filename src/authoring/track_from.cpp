// MP4AddTrackFrom: a track of a progressive handle that copies a read
// handle's track description as the file holds it: every sample entry with
// all its child atoms, the handler, timescale and language, the "tkhd"
// flags, matrix and size, and the edit list with its durations rescaled to
// the new movie timescale. Read through the public calls (MP4GetTrackInfo,
// MP4GetAtom); the frame size of uncompressed audio from the source's tree.
#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "authoring/authoring.h"
#include "frame/frame.h"
#include "media/media.h"
#include "writer/progressive.h"

namespace {

constexpr uint32_t kMovieTimescale = 1000;
// "tkhd" payload: where the layer begins, by version.
constexpr size_t kTkhdTailAt[2] = {32, 44};
// "mvhd" payload: where the timescale is, by version.
constexpr size_t kMvhdTimescaleAt[2] = {12, 20};
// "stsd" payload: version, flags and the entry count before the entries.
constexpr size_t kStsdHead = 8;

// An atom's payload through MP4GetAtom; null when there is none.
struct Payload {
    uint8_t *Bytes = nullptr;
    uint64_t Size = 0;
    ~Payload() { MP4freeData(reinterpret_cast<void **>(&Bytes)); }
};

bool ReadAtom(MP4_local_file *source, uint32_t trak, const char *below, Payload *out) {
    char path[96];
    if (trak == 0) {
        std::snprintf(path, sizeof path, "moov/%s", below);
    } else {
        std::snprintf(path, sizeof path, "moov/trak[%u]/%s", trak, below);
    }
    return MP4GetAtom(source, path, &out->Bytes, &out->Size) == 1;
}

// The first sample entry of the trak at `index` (from 0) in the source's
// tree; null when the tree does not hold it.
const AtomNode *FirstEntryOf(MP4_local_file *source, uint32_t index) {
    const AtomNode *moov = source->RootAtom->FirstAtom;
    while (moov != nullptr && !AtomNameEquals(moov->AtomName, "moov")) moov = moov->NextSibling;
    if (moov == nullptr) return nullptr;
    const AtomNode *trak = moov->FirstChild;
    for (uint32_t seen = 0; trak != nullptr; trak = trak->NextSibling) {
        if (!AtomNameEquals(trak->AtomName, "trak")) continue;
        if (seen++ == index) break;
    }
    const AtomNode *node = trak;
    for (const char *name : {"mdia", "minf", "stbl", "stsd"})
        node = node != nullptr ? FindChild(node, name) : nullptr;
    return node != nullptr ? node->FirstChild : nullptr;
}

// The source's track index of an ID and type; -1 for none.
int64_t FindTrack(MP4_local_file *source, uint32_t trackId, int32_t trackType, MP4TrackInfo *info) {
    uint32_t count = 0;
    if (MP4GetTrackCount(source, &count) != 1) return -1;
    for (uint32_t i = 0; i < count; ++i)
        if (MP4GetTrackInfo(source, i, info) == 1 && info->TrackId == trackId &&
            info->TrackType == trackType)
            return i;
    return -1;
}

// The edits, rescaled from the source's movie timescale. false without
// memory; an "elst" cut short keeps the entries it holds.
bool CopyEdits(const Payload &elst, uint32_t movieTimescale, ModernTrack *track) {
    track->CopiedEdits = 1;
    if (elst.Bytes == nullptr || elst.Size < 8 || movieTimescale == 0) return true;
    const uint8_t version = elst.Bytes[0] == 1 ? 1 : 0;
    const size_t entrySize = version == 1 ? 20 : 12;
    const uint64_t count = std::min<uint64_t>(GetBE32(elst.Bytes, 4), (elst.Size - 8) / entrySize);
    if (count == 0) return true;
    track->Edits = static_cast<CopiedEdit *>(ZeroAlloc(sizeof(CopiedEdit) * size_t(count)));
    if (track->Edits == nullptr) return false;
    for (uint64_t i = 0; i < count; ++i) {
        const uint8_t *e = elst.Bytes + 8 + i * entrySize;
        CopiedEdit &edit = track->Edits[i];
        const uint64_t duration = version == 1 ? GetBE64(e, 0) : GetBE32(e, 0);
        edit.Duration = uint64_t((unsigned __int128)duration * kMovieTimescale / movieTimescale);
        edit.MediaTime = version == 1 ? int64_t(GetBE64(e, 8)) : int64_t(int32_t(GetBE32(e, 4)));
        edit.Rate = GetBE32(e, version == 1 ? 16 : 8);
    }
    track->EditCount = size_t(count);
    return true;
}

int32_t CopyDescription(MP4_local_file *source, uint32_t index, const MP4TrackInfo &info,
                        ModernTrack *track) {
    Payload stsd, tkhd, mvhd, elst;
    const uint32_t trak = index + 1;
    if (!ReadAtom(source, trak, "mdia/minf/stbl/stsd", &stsd) || stsd.Size <= kStsdHead ||
        GetBE32(stsd.Bytes, 4) == 0)
        return kFromUnreadable;
    PutBytes(&track->Entry, stsd.Bytes + kStsdHead, size_t(stsd.Size - kStsdHead));
    track->EntryCount = GetBE32(stsd.Bytes, 4);
    track->TrackType = info.TrackType == MP4_TRACK_VIDEO || info.TrackType == MP4_TRACK_AUDIO
                           ? uint32_t(info.TrackType)
                           : 0;
    std::memcpy(track->Handler, info.Handler, 4);
    track->Timescale = info.Timescale != 0 ? info.Timescale : 1;
    const bool letters = info.Language[0] >= 'a' && info.Language[0] <= 'z';
    std::memcpy(track->Language, letters ? info.Language : "und", 4);
    track->Width = info.Width;
    track->Height = info.Height;
    if (ReadAtom(source, trak, "tkhd", &tkhd) && tkhd.Size >= 4) {
        const uint8_t version = tkhd.Bytes[0] == 1 ? 1 : 0;
        if (tkhd.Size >= kTkhdTailAt[version] + kHeaderTailBytes) {
            track->CopiedHeader = 1;
            track->HeaderFlags = GetBE32(tkhd.Bytes, 0) & 0xFFFFFF;
            std::memcpy(track->HeaderTail, tkhd.Bytes + kTkhdTailAt[version], kHeaderTailBytes);
        }
    }
    uint32_t movieTimescale = 0;
    if (ReadAtom(source, 0, "mvhd", &mvhd) && mvhd.Size >= 4) {
        const uint8_t version = mvhd.Bytes[0] == 1 ? 1 : 0;
        if (mvhd.Size >= kMvhdTimescaleAt[version] + 4)
            movieTimescale = GetBE32(mvhd.Bytes, kMvhdTimescaleAt[version]);
    }
    ReadAtom(source, trak, "edts/elst", &elst);
    if (!CopyEdits(elst, movieTimescale, track) || track->Entry.Failed) return kAddTrackNoMemory;
    bool byteFrames = false;
    if (info.TrackType == MP4_TRACK_AUDIO)
        track->PcmFrameBytes = PcmFrameBytes(source->RootAtom, FirstEntryOf(source, index), &byteFrames);
    return 1;
}

}  // namespace

int32_t MP4AddTrackFrom(MP4_local_file *file, MP4_local_file *source, uint32_t sourceTrackId,
                        int32_t sourceType, uint32_t *trackId) {
    if (file == nullptr || source == nullptr || trackId == nullptr || sourceTrackId == 0)
        return kAddTrackNullArgument;
    ProgressiveWriter *writer = ModernWriterOf(file, true);
    if (writer == nullptr) return ModernRefusal(file);
    if (writer->Started != 0 || writer->Failed != 0) return kAddTrackTooLate;
    if (source->Form != HandleForm::Read) return kFromNotReadHandle;
    MP4TrackInfo info{};
    const int64_t index = FindTrack(source, sourceTrackId, sourceType, &info);
    if (index < 0) return kFromNoTrack;
    if (info.Encrypted != 0) return kFromProtected;
    if (writer->TrackCount >= kMaxModernTracks) return kAddTrackTooMany;
    ModernTrack *track = NextProgressiveTrack(writer);
    if (track == nullptr) return kAddTrackNoMemory;
    const int32_t copied = CopyDescription(source, uint32_t(index), info, track);
    if (copied != 1) {
        ReleaseModernTrack(*track);
        return copied;
    }
    ++writer->TrackCount;
    *trackId = track->TrackId;
    return 1;
}
