// Listing the tracks of a read handle: MP4GetTrackCount and
// MP4GetTrackInfo, from the atom tree and the track records, on classic
// and modern handles alike.
#include <cstring>
#include <initializer_list>

#include "media/media.h"
#include "tracks/tracks.h"

namespace {

constexpr int32_t kInfoBadArguments = -99;
constexpr int32_t kInfoNoSuchTrack = -98;

const AtomNode *FindMoov(const Root_atom *root) {
    const AtomNode *moov = root->FirstAtom;
    while (moov != nullptr && !AtomNameEquals(moov->AtomName, "moov")) moov = moov->NextSibling;
    return moov;
}

// The table block that the handle built for a "trak", or null.
template <typename Record>
const TrackNode *TablesIn(const Record *record, const AtomNode *trak) {
    for (; record != nullptr; record = record->NextTrack) {
        if (record->Track != nullptr && record->Track->TrakAtom == trak &&
            HasSampleTables(record->Track))
            return record->Track;
    }
    return nullptr;
}

const TrackNode *TablesOf(const MP4_local_file *file, const AtomNode *trak) {
    const ReadForm &form = file->read;
    if (const TrackNode *node = TablesIn(form.VideoFirst, trak)) return node;
    if (const TrackNode *node = TablesIn(form.AudioFirst, trak)) return node;
    return TablesIn(form.OtherFirst, trak);
}

const AtomNode *NodeAt(const AtomNode *atom, std::initializer_list<const char *> path) {
    return WalkPath(atom, path.begin(), path.size(), nullptr);
}

const uint8_t *RecordAt(const AtomNode *atom, std::initializer_list<const char *> path) {
    const AtomNode *found = NodeAt(atom, path);
    return found != nullptr ? found->realStructure : nullptr;
}

const uint8_t *EntriesAt(const AtomNode *atom) {
    return atom != nullptr ? static_cast<const uint8_t *>(GetRecordPointer(atom)) : nullptr;
}

bool IsVersion1(const AtomNode *atom) { return NodeVersion(atom) == 1; }

// The rotation that the a, b, c, d of a "tkhd" matrix describe; 0 for a
// matrix that is no quarter turn.
uint32_t RotationOf(const uint8_t *matrix) {
    const int32_t a = int32_t(GetBE32(matrix, 0));
    const int32_t b = int32_t(GetBE32(matrix, 4));
    const int32_t c = int32_t(GetBE32(matrix, 12));
    const int32_t d = int32_t(GetBE32(matrix, 16));
    if (a == 0 && d == 0 && b > 0 && c < 0) return 90;
    if (a < 0 && d < 0 && b == 0 && c == 0) return 180;
    if (a == 0 && d == 0 && b < 0 && c > 0) return 270;
    return 0;
}

// Whether the a, b, c, d of a "tkhd" matrix mirror the picture: a
// negative determinant.
bool MirrorsPicture(const uint8_t *matrix) {
    const int64_t a = int32_t(GetBE32(matrix, 0));
    const int64_t b = int32_t(GetBE32(matrix, 4));
    const int64_t c = int32_t(GetBE32(matrix, 12));
    const int64_t d = int32_t(GetBE32(matrix, 16));
    return a * d - b * c < 0;
}

// The packed ISO 639-2 letters of "mdhd"; "und" for anything but three
// lower-case letters.
void LanguageOf(uint16_t packed, char language[4]) {
    std::memcpy(language, "und", 4);
    char letters[3];
    for (int i = 0; i < 3; ++i) {
        letters[i] = char(((packed >> (10 - 5 * i)) & 0x1F) + 0x60);
        if (letters[i] < 'a' || letters[i] > 'z') return;
    }
    std::memcpy(language, letters, 3);
}

void FillHeaders(const AtomNode *trak, MP4TrackInfo *info) {
    const AtomNode *tkhdAtom = NodeAt(trak, {"tkhd"});
    if (const uint8_t *tkhd = RecordAt(trak, {"tkhd"})) {
        const bool wide = IsVersion1(tkhdAtom);
        info->TrackId = GetBE32(tkhd, wide ? field::kTkhdTrackIdV1 : field::kTkhdTrackId);
        info->Rotation = RotationOf(tkhd + (wide ? field::kTkhdMatrixV1 : field::kTkhdMatrix));
        if (MirrorsPicture(tkhd + (wide ? field::kTkhdMatrixV1 : field::kTkhdMatrix)))
            info->Flags |= MP4_TRACK_MIRRORED;
        // Both readers keep the flags as the file has them.
        if ((GetBE32(tkhd, field::kVersionFlags) & field::kTkhdEnabled) == 0)
            info->Flags |= MP4_TRACK_DISABLED;
    }
    const AtomNode *mdhdAtom = NodeAt(trak, {"mdia", "mdhd"});
    if (const uint8_t *mdhd = RecordAt(trak, {"mdia", "mdhd"})) {
        const bool wide = IsVersion1(mdhdAtom);
        info->Timescale = GetBE32(mdhd, wide ? field::kMdhdTimescaleV1 : field::kMdhdTimescale);
        LanguageOf(GetBE16(mdhd, wide ? field::kMdhdLanguageV1 : field::kMdhdLanguage),
                   info->Language);
        info->HeaderDuration = wide ? GetBE64(mdhd, field::kMdhdDurationV1)
                                    : GetBE32(mdhd, field::kMdhdDuration);
        if (!wide && info->HeaderDuration == UINT32_MAX) info->HeaderDuration = UINT64_MAX;
    }
    if (const uint8_t *hdlr = RecordAt(trak, {"mdia", "hdlr"}))
        std::memcpy(info->Handler, hdlr + field::kHdlrHandlerType, 4);
}

// The first non-empty edit's media time and the leading empty edits,
// converted from the movie's timescale to the track's.
void FillEdits(const AtomNode *moov, const AtomNode *trak, MP4TrackInfo *info) {
    info->EditMediaTime = -1;
    const AtomNode *elst = NodeAt(trak, {"edts", "elst"});
    const uint8_t *entries = EntriesAt(elst);
    const uint8_t *mvhd = RecordAt(moov, {"mvhd"});
    if (entries == nullptr || mvhd == nullptr) return;
    const bool wide = IsVersion1(elst);
    const uint32_t count = GetBE32(elst->realStructure, field::kTableEntryCount);
    const uint32_t movieScale =
        GetBE32(mvhd, IsVersion1(NodeAt(moov, {"mvhd"})) ? field::kMvhdTimescaleV1
                                                         : field::kMvhdTimescale);
    uint64_t empty = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *entry = entries + size_t(i) * (wide ? 20 : 12);
        const uint64_t duration = wide ? GetBE64(entry, 0) : GetBE32(entry, 0);
        const int64_t mediaTime = wide ? int64_t(GetBE64(entry, 8)) : int32_t(GetBE32(entry, 4));
        if (mediaTime == -1) {
            empty += duration;
            continue;
        }
        info->EditMediaTime = mediaTime;
        break;
    }
    if (movieScale != 0)
        info->EditDelay = uint64_t((unsigned __int128)empty * info->Timescale / movieScale);
}

}  // namespace

void ReadTrackEdits(const Root_atom *root, const AtomNode *trak, int64_t *mediaTime,
                    uint64_t *delay) {
    MP4TrackInfo info{};
    FillHeaders(trak, &info);
    FillEdits(FindMoov(root), trak, &info);
    *mediaTime = info.EditMediaTime;
    *delay = info.EditDelay;
}

uint32_t ListTrackTables(const MP4_local_file *file, const TrackNode **nodes, uint32_t capacity) {
    const AtomNode *moov = FindMoov(file->RootAtom);
    uint32_t count = 0;
    for (const AtomNode *trak = moov ? moov->FirstChild : nullptr; trak; trak = trak->NextSibling) {
        if (!AtomNameEquals(trak->AtomName, "trak")) continue;
        if (nodes != nullptr && count < capacity) nodes[count] = TablesOf(file, trak);
        ++count;
    }
    return count;
}

namespace {

// Format, picture, pixel aspect and protection from the first sample entry.
void FillEntry(const AtomNode *entry, MP4TrackInfo *info) {
    info->PixelAspectH = 1;
    info->PixelAspectV = 1;
    if (entry == nullptr) return;
    std::memcpy(info->Format, entry->AtomName, 4);
    if (info->TrackType == MP4_TRACK_VIDEO && RecordHolds(entry, field::kVisualHeight + 2)) {
        info->Width = GetBE16(entry->realStructure, field::kVisualWidth);
        info->Height = GetBE16(entry->realStructure, field::kVisualHeight);
    }
    if (const uint8_t *pasp = RecordAt(entry, {"pasp"})) {
        if (GetBE32(pasp, field::kPaspH) != 0 && GetBE32(pasp, field::kPaspV) != 0) {
            info->PixelAspectH = GetBE32(pasp, field::kPaspH);
            info->PixelAspectV = GetBE32(pasp, field::kPaspV);
        }
    }
    if (AtomNameEquals(entry->AtomName, "encv") || AtomNameEquals(entry->AtomName, "enca")) {
        info->Encrypted = 1;
        if (const uint8_t *frma = RecordAt(entry, {"sinf", "frma"}))
            std::memcpy(info->Format, frma + field::kFrmaFormat, 4);
        if (const uint8_t *schm = RecordAt(entry, {"sinf", "schm"}))
            std::memcpy(info->Scheme, schm + field::kSchmType, 4);
    }
}

// Whether the track's samples have composition offsets: a "ctts" with
// entries, or a "trun" with them in one of the track's fragments. The walk
// stops at the first such run.
bool HasCompositionOffsets(const Root_atom *root, const AtomNode *trak, uint32_t trackId) {
    const AtomNode *ctts = NodeAt(trak, {"mdia", "minf", "stbl", "ctts"});
    if (ctts != nullptr && RecordHolds(ctts, field::kTableEntryCount + 4) &&
        GetBE32(ctts->realStructure, field::kTableEntryCount) > 0)
        return true;
    for (const AtomNode *moof = root->FirstAtom; moof != nullptr; moof = moof->NextSibling) {
        if (!AtomNameEquals(moof->AtomName, "moof")) continue;
        for (const AtomNode *traf = moof->FirstChild; traf != nullptr; traf = traf->NextSibling) {
            const AtomNode *tfhd = NodeAt(traf, {"tfhd"});
            if (!AtomNameEquals(traf->AtomName, "traf") || !RecordHolds(tfhd, field::kTfhdTrackId + 4) ||
                GetBE32(tfhd->realStructure, field::kTfhdTrackId) != trackId)
                continue;
            for (const AtomNode *trun = traf->FirstChild; trun != nullptr; trun = trun->NextSibling)
                if (AtomNameEquals(trun->AtomName, "trun") &&
                    (NodeFlags(trun) & flag::kTrunCompositionOffset) != 0)
                    return true;
        }
    }
    return false;
}

// Samples and duration: from the tables the handle built, else from what
// the atoms still hold.
void FillCounts(const MP4_local_file *file, const AtomNode *trak, MP4TrackInfo *info) {
    const TrackNode *node = TablesOf(file, trak);
    if (node != nullptr && node->Modern) {
        info->SampleCount = node->SampleCount;
        info->Duration = node->DecodeDuration;
        info->FragmentCount = node->FragmentCount;
        return;
    }
    bool fits = false;
    info->SampleCount = node != nullptr ? node->SampleCount : ModernSampleCount(trak, 0, &fits);
    const AtomNode *stts = NodeAt(trak, {"mdia", "minf", "stbl", "stts"});
    const uint8_t *entries = EntriesAt(stts);
    if (entries != nullptr) {
        const uint32_t count = GetBE32(stts->realStructure, field::kTableEntryCount);
        for (uint32_t i = 0; i < count; ++i)
            info->Duration +=
                uint64_t(GetBE32(entries, size_t(i) * 8)) * GetBE32(entries, size_t(i) * 8 + 4);
    } else if (const uint8_t *mdhd = RecordAt(trak, {"mdia", "mdhd"})) {
        info->Duration = IsVersion1(NodeAt(trak, {"mdia", "mdhd"})) ? GetBE64(mdhd, field::kMdhdDurationV1)
                                          : GetBE32(mdhd, field::kMdhdDuration);
    }
}

}  // namespace

int32_t MP4GetTrackCount(MP4_local_file *file, uint32_t *count) {
    if (file == nullptr || count == nullptr) return kInfoBadArguments;
    uint32_t found = 0;
    const AtomNode *moov = FindMoov(file->RootAtom);
    for (const AtomNode *trak = moov ? moov->FirstChild : nullptr; trak; trak = trak->NextSibling)
        found += AtomNameEquals(trak->AtomName, "trak") ? 1 : 0;
    *count = found;
    return 1;
}

int32_t MP4GetTrackInfo(MP4_local_file *file, uint32_t index, MP4TrackInfo *info) {
    if (file == nullptr || info == nullptr) return kInfoBadArguments;
    const AtomNode *moov = FindMoov(file->RootAtom);
    const AtomNode *trak = moov != nullptr ? moov->FirstChild : nullptr;
    for (uint32_t seen = 0; trak != nullptr; trak = trak->NextSibling) {
        if (!AtomNameEquals(trak->AtomName, "trak")) continue;
        if (seen++ == index) break;
    }
    if (trak == nullptr) return kInfoNoSuchTrack;

    *info = MP4TrackInfo{};
    info->TrackType = ModernTrackType(trak);
    FillHeaders(trak, info);
    FillEntry(FirstSampleEntry(trak), info);
    const AtomNode *stsd = NodeAt(trak, {"mdia", "minf", "stbl", "stsd"});
    for (const AtomNode *entry = stsd ? stsd->FirstChild : nullptr; entry; entry = entry->NextSibling)
        ++info->EntryCount;
    if (HasCompositionOffsets(file->RootAtom, trak, info->TrackId)) info->Flags |= MP4_TRACK_COMPOSITION;
    FillEdits(moov, trak, info);
    FillCounts(file, trak, info);
    if (info->TrackType == MP4_TRACK_AUDIO) {
        const TrackNode *node = TablesOf(file, trak);
        const uint64_t first = node != nullptr && node->SampleCount > 0
                                   ? ViewSample(node, 0).Offset
                                   : UINT64_MAX;
        ReadAudioParameters(file->RootAtom, FirstSampleEntry(trak), first, &info->SampleRate,
                            &info->Channels);
    }
    return 1;
}
