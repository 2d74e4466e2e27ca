// Track discovery: the "trak" atoms of a file, the type of each track, and
// what the access calls need from "mdhd", "stsd" and "stsz".
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "media/media.h"
#include "tracks/tracks.h"

namespace {

// FindTracks
constexpr int32_t kFindNoAtoms = -99;
constexpr int32_t kFindNoMoov = -98;
constexpr int32_t kFindTrakEmpty = -95;
constexpr int32_t kFindNoTkhd = -96;
constexpr int32_t kFindNoMemory = -94;
constexpr int32_t kFindTkhdWithoutRecord = -93;
// GetTrackType, ReadVideoTrackInfo, ReadAudioTrackInfo
constexpr int32_t kTrackInfoFailed = -99;

struct HandlerRow {
    char name[5];
    int32_t type;
};

constexpr HandlerRow kHandlers[] = {{"vide", MP4_TRACK_VIDEO},
                                    {"soun", MP4_TRACK_AUDIO},
                                    {"hint", MP4_TRACK_HINT},
                                    {"odsm", MP4_TRACK_OD},
                                    {"sdsm", MP4_TRACK_SCENE}};

// The pattern in front of a video object layer: a start code (the video
// object's) directly followed by the layer's start code 00 00 01 20.
constexpr size_t kVolPatternBytes = 8;

void FreeTrackList(TrackListEntry *entry) {
    while (entry != nullptr) {
        TrackListEntry *next = entry->Next;
        std::free(entry);
        entry = next;
    }
}

bool IsTrak(const AtomNode *atom) {
    if (atom != nullptr && AtomNameEquals(atom->AtomName, "trak")) return true;
    PrintDiagnostic("This atom not a track atom\n");
    return false;
}

// Follows `names` down from `atom`; prints the name that was not found.
const AtomNode *WalkOrReport(const AtomNode *atom, std::initializer_list<const char *> names) {
    const char *missing = nullptr;
    const AtomNode *found = WalkPath(atom, names.begin(), names.size(), &missing);
    if (found == nullptr) PrintDiagnostic("Can't find [%s] atom\n", missing != nullptr ? missing : "");
    return found;
}

// The time scale and duration of a track from its "mdhd"; false when the
// atom is not a "trak" or the header is missing. A header without a record
// leaves both untouched.
bool ReadMediaTimes(const AtomNode *trakAtom, uint32_t *timescale, uint32_t *duration) {
    if (!IsTrak(trakAtom)) return false;
    const AtomNode *mdhd = WalkOrReport(trakAtom, {"mdia", "mdhd"});
    if (mdhd == nullptr) return false;
    if (mdhd->realStructure != nullptr) {
        *timescale = GetBE32(mdhd->realStructure, field::kMdhdTimescale);
        *duration = GetBE32(mdhd->realStructure, field::kMdhdDuration);
    }
    return true;
}

bool LooksLikeVolStart(const uint8_t *p) {
    return p[0] == 0 && p[1] == 0 && p[2] == 1 && p[4] == 0 && p[5] == 0 && p[6] == 1 &&
           p[7] == 0x20;
}

// Scans the first child of an "mp4v" entry for a video object layer and
// lets its header overwrite the picture size. The scan stays inside the
// child's record and inside the atom's own bytes; the last match wins.
void ScanForVolHeader(const AtomNode *entry, VideoTrackNode *record) {
    const AtomNode *child = entry->FirstChild;
    if (child == nullptr || child->realStructure == nullptr) return;
    size_t end = std::min<size_t>(child->AtomSize, NodeHeadLength(child));
    const uint8_t *bytes = child->realStructure;
    for (size_t at = kBareHeadLength; at + kVolPatternBytes <= end; ++at) {
        if (!LooksLikeVolStart(bytes + at)) continue;
        uint32_t headerSize = 0;
        ParseVolHeader(bytes + at, end - at, &record->TrackWidth, &record->TrackHeight,
                       &headerSize);
    }
}

}  // namespace

int32_t FindTracks(Root_atom *root, TrackListEntry **list) {
    *list = nullptr;
    if (root == nullptr || root->FirstAtom == nullptr) return kFindNoAtoms;
    const AtomNode *moov = root->FirstAtom;
    while (moov != nullptr && !AtomNameEquals(moov->AtomName, "moov")) moov = moov->NextSibling;
    if (moov == nullptr) return kFindNoMoov;

    TrackListEntry *first = nullptr;
    TrackListEntry **tail = &first;
    int32_t count = 0;
    for (AtomNode *trak = moov->FirstChild; trak != nullptr; trak = trak->NextSibling) {
        if (!AtomNameEquals(trak->AtomName, "trak")) continue;
        int32_t failure = 0;
        const AtomNode *tkhd = FindChild(trak, "tkhd");
        TrackListEntry *entry = nullptr;
        if (trak->FirstChild == nullptr) {
            failure = kFindTrakEmpty;
        } else if (tkhd == nullptr) {
            failure = kFindNoTkhd;
        } else if ((entry = static_cast<TrackListEntry *>(ZeroAlloc(sizeof *entry))) == nullptr) {
            failure = kFindNoMemory;
        } else if (tkhd->realStructure == nullptr) {
            std::free(entry);
            failure = kFindTkhdWithoutRecord;
        }
        if (failure != 0) {
            FreeTrackList(first);
            return failure;
        }
        entry->TrakAtom = trak;
        entry->TrackId = GetBE32(tkhd->realStructure, field::kTkhdTrackId);
        *tail = entry;
        tail = &entry->Next;
        ++count;
    }
    *list = first;
    return count;
}

int32_t HandlerTrackType(const char *handler) {
    for (const HandlerRow &row : kHandlers)
        if (AtomNameEquals(handler, row.name)) return row.type;
    return 0;
}

int32_t GetTrackType(AtomNode *trakAtom, int32_t *type) {
    if (!IsTrak(trakAtom)) return kTrackInfoFailed;
    const AtomNode *hdlr = WalkOrReport(trakAtom, {"mdia", "hdlr"});
    if (hdlr == nullptr) return kTrackInfoFailed;
    if (hdlr->realStructure == nullptr) return kTrackInfoFailed;
    const char *handler = reinterpret_cast<const char *>(hdlr->realStructure) +
                          field::kHdlrHandlerType;
    *type = HandlerTrackType(handler);
    if (*type != 0) return 1;
    char name[5];
    CopyAtomName(name, handler);
    PrintDiagnostic("Unknown media type [%s]\n", name);
    *type = kTrackInfoFailed;
    return kTrackInfoFailed;
}

int32_t ReadVideoTrackInfo(AtomNode *trakAtom, VideoTrackNode *record) {
    if (!ReadMediaTimes(trakAtom, &record->Timescale, &record->TrackDuration)) {
        return kTrackInfoFailed;
    }
    const AtomNode *stsd = WalkOrReport(trakAtom, {"mdia", "minf", "stbl", "stsd"});
    if (stsd == nullptr) return kTrackInfoFailed;

    // A sample description without a readable entry is taken like one of
    // another format: the picture size stays unknown, the samples are
    // there all the same. (Entries the catalogue doesn't know, such as
    // "avc1", never reach the tree, and their tracks land here.)
    const AtomNode *entry = stsd->FirstChild;
    if (entry != nullptr && entry->realStructure != nullptr) {
        bool isMp4v = AtomNameEquals(entry->AtomName, "mp4v");
        if (isMp4v || AtomNameEquals(entry->AtomName, "s263")) {
            record->TrackWidth = GetBE16(entry->realStructure, field::kVisualWidth);
            record->TrackHeight = GetBE16(entry->realStructure, field::kVisualHeight);
        }
        if (isMp4v) ScanForVolHeader(entry, record);
    }

    const AtomNode *stsz = FindChild(stsd->ParentAtom, "stsz");
    if (stsz == nullptr || stsz->realStructure == nullptr) {
        PrintDiagnostic("Can't find [%s] atom\n", "stsz");
        return kTrackInfoFailed;
    }
    record->SampleCount = GetBE32(stsz->realStructure, field::kStszSampleCount);
    return 1;
}

int32_t ReadAudioTrackInfo(AtomNode *trakAtom, AudioTrackNode *record) {
    if (!ReadMediaTimes(trakAtom, &record->Timescale, &record->TrackDuration)) {
        return kTrackInfoFailed;
    }
    const AtomNode *stbl = WalkOrReport(trakAtom, {"mdia", "minf", "stbl"});
    if (stbl == nullptr) return kTrackInfoFailed;
    const AtomNode *stsz = FindChild(stbl, "stsz");
    if (stsz == nullptr || stsz->realStructure == nullptr) {
        PrintDiagnostic("Can't find [%s] atom\n", "stsz");
        return kTrackInfoFailed;
    }
    record->SampleCount = GetBE32(stsz->realStructure, field::kStszSampleCount);
    record->ConstantSampleSize = GetBE32(stsz->realStructure, field::kStszSampleSize);
    return 1;
}
