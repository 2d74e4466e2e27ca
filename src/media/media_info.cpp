// RetMp4MediaInfo: a track's time scale, duration and the decoder
// configuration bytes of its sample entry, from the tree and the track
// records alone.
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "media/media.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

constexpr int32_t kInfoDone = 1;
constexpr int32_t kInfoBadArguments = -99;
constexpr int32_t kInfoNoVideoTracks = -98;
constexpr int32_t kInfoVideoNotFound = -97;
constexpr int32_t kInfoVideoNotFoundPastCurrent = -96;
constexpr int32_t kInfoNoAudioTracks = -95;
constexpr int32_t kInfoAudioNotFound = -94;
constexpr int32_t kInfoAudioNotFoundPastCurrent = -93;
constexpr int32_t kInfoBadTrackType = -92;
constexpr int32_t kInfoNoSampleDescription = -91;
constexpr int32_t kInfoUnknownEntry = -90;
constexpr int32_t kInfoNoMemoryForRecord = -88;
constexpr int32_t kInfoNoMemoryForData = -87;

// Bytes of an "mp4v" configuration: video object start code, video object
// layer start code and the layer fields up to the picture size.
constexpr uint32_t kVideoConfigBytes = 18;
// The scan for a start code begins behind the atom's size and name.
constexpr size_t kScanStart = 8;

enum class DataField { kNone, kEsds, kD263, kDamr, kVideoScan };

// What each sample entry gives, in the order the names are compared.
struct EntryRow {
    char Entry[5];
    char Child[5];    // required first child; empty: none looked at
    int32_t TrackType;
    DataField Field;
};
constexpr EntryRow kEntries[] = {
    {"mp4v", "esds", MP4_TRACK_VIDEO, DataField::kVideoScan},
    {"mp4a", "esds", MP4_TRACK_AUDIO, DataField::kEsds},
    {"s263", "d263", MP4_TRACK_VIDEO, DataField::kD263},
    {"samr", "damr", MP4_TRACK_AUDIO, DataField::kDamr},
    {"sawb", "", MP4_TRACK_AUDIO, DataField::kNone},
};

template <typename Record>
int32_t FindRecord(Record *&current, Record *first, uint32_t trackId, int32_t noTracks,
                   int32_t notFound, int32_t notFoundPastCurrent, Record **found) {
    if (current != nullptr && current->TrackId == trackId) {
        // A cached record whose tables were given up has nothing to show.
        if (current->Track == nullptr) return notFoundPastCurrent;
        *found = current;
        return kInfoDone;
    }
    if (current == nullptr && first == nullptr) return noTracks;
    const int32_t missing = current == nullptr ? notFound : notFoundPastCurrent;
    for (Record *record = first; record != nullptr; record = record->NextTrack) {
        if (record->TrackId != trackId) continue;
        current = record;
        if (record->Track == nullptr) return missing;
        *found = record;
        return kInfoDone;
    }
    return missing;
}

const EntryRow *FindEntryRow(const AtomNode *entry) {
    for (const EntryRow &row : kEntries) {
        if (AtomNameEquals(entry->AtomName, row.Entry)) return &row;
    }
    return nullptr;
}

// The last 18-byte window of the "esds" record that starts with one of the
// video object start codes 00 00 01 00, 01 or 0B. Positions run over the
// atom as its size states, but never so far that the 18 bytes would leave
// the record.
void ScanVideoConfig(const uint8_t *record, size_t recordLength, uint8_t *out) {
    const uint32_t stated = GetBE32(record, field::kHeadSize);
    if (stated <= 4 || recordLength < kVideoConfigBytes) return;
    const uint64_t lastByStatedSize = kScanStart + uint64_t(stated) - 5;
    const uint64_t lastInRecord = recordLength - kVideoConfigBytes;
    const uint64_t last = lastByStatedSize < lastInRecord ? lastByStatedSize : lastInRecord;
    for (uint64_t p = kScanStart; p <= last; ++p) {
        const uint8_t *at = record + p;
        if (at[0] == 0 && at[1] == 0 && at[2] == 1 && (at[3] == 0x00 || at[3] == 0x01 || at[3] == 0x0B))
            memcpy(out, at, kVideoConfigBytes);
    }
}

// A copy of the atom from its size field, as long as the atom states but
// cut to the record that holds it.
uint8_t *CopyAtomRecord(const AtomNode *atom, uint32_t *size) {
    const uint32_t recordLength = NodeHeadLength(atom);
    uint32_t bytes = GetBE32(atom->realStructure, field::kHeadSize);
    if (bytes > recordLength) bytes = recordLength;
    uint8_t *copy = static_cast<uint8_t *>(malloc(bytes ? bytes : 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, atom->realStructure, bytes);
    *size = bytes;
    return copy;
}

int32_t FillData(const EntryRow &row, const AtomNode *child, Mp4MediaInfo *info) {
    if (row.Field == DataField::kNone) return kInfoDone;
    if (row.Field == DataField::kVideoScan) {
        uint8_t *block = static_cast<uint8_t *>(ZeroAlloc(kVideoConfigBytes));
        if (block == nullptr) return kInfoNoMemoryForData;
        ScanVideoConfig(child->realStructure, NodeHeadLength(child), block);
        info->EsdsData = block;
        info->EsdsSize = kVideoConfigBytes;
        return kInfoDone;
    }
    uint32_t size = 0;
    uint8_t *block = CopyAtomRecord(child, &size);
    if (block == nullptr) return kInfoNoMemoryForData;
    if (row.Field == DataField::kEsds) {
        info->EsdsData = block, info->EsdsSize = size;
    } else if (row.Field == DataField::kD263) {
        info->D263Data = block, info->D263Size = size;
    } else {
        info->DamrData = block, info->DamrSize = size;
    }
    return kInfoDone;
}

}  // namespace

void FreeMediaInfo(Mp4MediaInfo *info) {
    if (info == nullptr) return;
    free(info->EsdsData);
    free(info->D263Data);
    free(info->DamrData);
    free(info);
}

int32_t RetMp4MediaInfo(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                        Mp4MediaInfo **info) {
    if (file == nullptr || trackId == 0 || info == nullptr) return kInfoBadArguments;
    ReadForm &form = file->read;
    VideoTrackNode *video = nullptr;
    AudioTrackNode *audio = nullptr;
    TrackNode *track = nullptr;
    int32_t found = kInfoBadTrackType;
    if (trackType == MP4_TRACK_VIDEO) {
        found = FindRecord(form.VideoCurrent, form.VideoFirst, trackId, kInfoNoVideoTracks,
                           kInfoVideoNotFound, kInfoVideoNotFoundPastCurrent, &video);
        if (found == kInfoDone) track = video->Track;
    } else if (trackType == MP4_TRACK_AUDIO) {
        found = FindRecord(form.AudioCurrent, form.AudioFirst, trackId, kInfoNoAudioTracks,
                           kInfoAudioNotFound, kInfoAudioNotFoundPastCurrent, &audio);
        if (found == kInfoDone) track = audio->Track;
    }
    if (found != kInfoDone) return found;

    static const char *const kPath[] = {"mdia", "minf", "stbl", "stsd"};
    const AtomNode *stsd = track->TrakAtom ? WalkPath(track->TrakAtom, kPath, 4, nullptr) : nullptr;
    if (stsd == nullptr) return kInfoNoSampleDescription;

    Mp4MediaInfo *record = static_cast<Mp4MediaInfo *>(ZeroAlloc(sizeof(Mp4MediaInfo)));
    if (record == nullptr) return kInfoNoMemoryForRecord;

    // The entry must be known, belong to the kind of track asked for, and
    // open with the child that holds its data, which must have a record.
    const AtomNode *entry = stsd->FirstChild;
    const EntryRow *row = entry ? FindEntryRow(entry) : nullptr;
    const AtomNode *child = nullptr;
    bool usable = row != nullptr && row->TrackType == trackType;
    if (usable && row->Child[0] != '\0') {
        child = entry->FirstChild;
        usable = child != nullptr && AtomNameEquals(child->AtomName, row->Child) &&
                 child->realStructure != nullptr;
    }
    if (!usable) {
        free(record);
        return kInfoUnknownEntry;
    }
    const int32_t filled = FillData(*row, child, record);
    if (filled != kInfoDone) {
        free(record);
        return filled;
    }
    // "sawb" describes nothing, not even the track's time scale.
    if (row->Field != DataField::kNone) {
        record->Timescale = video ? video->Timescale : audio->Timescale;
        record->TrackDuration = video ? video->TrackDuration : audio->TrackDuration;
    }
    *info = record;
    return kInfoDone;
}
