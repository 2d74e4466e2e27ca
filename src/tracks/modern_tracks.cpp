// The track loop of the modern reader: one record per "trak" with a
// "tkhd", on the list of its kind whatever its handler or sample format,
// with tables from the 64-bit aware fill. It prints nothing.
#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "tracks/tracks.h"

namespace {

// The entries the fill expands; once a track has its tables nothing reads
// them again, so that the open keeps a sample's record and not its table
// entries beside it. "elst" stays for the track information.
constexpr const char *kExpandedAtoms[] = {"stts", "ctts", "stsz", "stz2",
                                          "stsc", "stco", "co64", "stss"};

void ReleaseExpandedEntries(const AtomNode *trak) {
    ReleaseSampleEntries(trak, kExpandedAtoms, std::size(kExpandedAtoms));
}

template <typename Record>
void Append(Record *record, Record **first, Record **last, Record **current) {
    if (*first == nullptr) {
        *first = record;
        *current = record;
    } else {
        (*last)->NextTrack = record;
    }
    *last = record;
}

// Tables for one track, sized by its plan (the samples of its "stbl" and
// of its fragments), with the "stbl" samples filled in. A track whose
// count the file can't hold, whose tables can't describe its samples, or
// whose tables would take more than what is left of the open's budget,
// keeps its record with Track null.
void BuildModernTables(Root_atom *root, FragmentTrack &track, int32_t mode, uint64_t *budget) {
    TrackNode **holder = track.Holder;
    TrackNode *node = *holder;
    const TablePlan &plan = track.Plan;
    const bool keyTable = node->TrackType == MP4_TRACK_VIDEO && mode == MP4_TABLE_KEYFRAMES;
    const uint64_t bytes = PlanBytes(plan, keyTable);
    const bool created = plan.Usable && plan.Samples >= 1 && plan.Samples <= INT32_MAX &&
                         bytes <= *budget && CreateModernTables(node, plan, mode) == 1;
    if (!created || FillModernTables(root, node) != 1) {
        ReleaseTrackNodes(holder);
        return;
    }
    *budget -= bytes;
    ReleaseExpandedEntries(node->TrakAtom);
}

// Once the fragments are in: the marks and key frame table over all the
// samples, or the track given up when it ran out of memory on the way.
void FinishTables(FragmentTrack &track, int32_t mode) {
    TrackNode *node = *track.Holder;
    if (node == nullptr) return;
    if (track.Failed || FinishModernTables(node, node->TrackType, mode) != 1) {
        ReleaseTrackNodes(track.Holder);
        return;
    }
    node->FragmentCount = track.Fragments;
}

struct FreeTracks {
    void operator()(FragmentTrack *tracks) const { std::free(tracks); }
};

const uint8_t *VisualEntryRecord(const AtomNode *trak) {
    const char *const path[] = {"mdia", "minf", "stbl", "stsd"};
    const AtomNode *stsd = WalkPath(trak, path, 4, nullptr);
    if (stsd == nullptr || stsd->FirstChild == nullptr) return nullptr;
    const AtomNode *entry = stsd->FirstChild;
    // Only entries of a visual layout have the picture size.
    return RecordHolds(entry, field::kVisualHeight + 2) ? entry->realStructure : nullptr;
}

void ReadMediaHeader(const AtomNode *trak, uint32_t *timescale, uint32_t *duration) {
    const char *const path[] = {"mdia", "mdhd"};
    const AtomNode *mdhd = WalkPath(trak, path, 2, nullptr);
    if (mdhd == nullptr || mdhd->realStructure == nullptr) return;
    const uint8_t *record = mdhd->realStructure;
    const bool wide = NodeVersion(mdhd) == 1;
    *timescale = GetBE32(record, wide ? field::kMdhdTimescaleV1 : field::kMdhdTimescale);
    *duration = wide ? uint32_t(GetBE64(record, field::kMdhdDurationV1))
                     : GetBE32(record, field::kMdhdDuration);
}

// The budget's terms: bytes of the heap per byte parsed, the slack every
// open has, and what one block of the heap costs beyond what it holds.
constexpr uint64_t kHeapPerParsedByte = 16;
constexpr uint64_t kBudgetSlack = 1 << 20;
constexpr uint64_t kBlockOverhead = 16;
// The handle, its read-ahead window and the track records.
constexpr uint64_t kHandleBytes = 192 * 1024;

// What the reader parsed of the atoms from `atom` on, and what their nodes
// hold on the heap. A container counts the bytes before its first child;
// a leaf that the catalogue describes its whole atom; media data, free
// space and unknown atoms their head alone, since the reader passes over
// their payload.
void MeasureAtoms(const AtomNode *atom, const Root_atom *root, uint64_t *parsed, uint64_t *held) {
    for (; atom != nullptr; atom = atom->NextSibling) {
        const uint64_t head = 8 + atom->LargeHead;
        const bool inFile = atom->AtomOffset <= root->FileSize &&
                            atom->AtomSize <= root->FileSize - atom->AtomOffset;
        uint64_t bytes = head;
        AtomSchema schema{};
        if (atom->FirstChild != nullptr) {
            if (atom->FirstChild->AtomOffset > atom->AtomOffset)
                bytes = std::max(head, atom->FirstChild->AtomOffset - atom->AtomOffset);
        } else if (inFile && !AtomNameEquals(atom->AtomName, "mdat") &&
                   GetAtomLayout(atom, &schema) == 1) {
            bytes = atom->AtomSize;
        }
        *parsed += std::min(bytes, atom->AtomSize > head ? atom->AtomSize : head);
        *held += sizeof(AtomNode) + NodeAllocSize(atom) + 2 * kBlockOverhead;
        // Loaded entries count, also those the fill frees once a track has
        // its tables (a track given up keeps them); those of "trun" are
        // freed as they are read.
        if (GetRecordPointer(atom) != nullptr && inFile && !AtomNameEquals(atom->AtomName, "trun"))
            *held += atom->AtomSize + kBlockOverhead;
        MeasureAtoms(atom->FirstChild, root, parsed, held);
    }
}

int32_t FailOpen(MP4_local_file **file, TrackNode *node, int32_t code) {
    ReleaseTrackNodes(&node);
    MP4FileClose(file);
    return code;
}

}  // namespace

int32_t ModernTrackType(const AtomNode *trak) {
    const char *const path[] = {"mdia", "hdlr"};
    const AtomNode *hdlr = WalkPath(trak, path, 2, nullptr);
    if (hdlr == nullptr || hdlr->realStructure == nullptr) return kTrackOtherHandler;
    const char *handler =
        reinterpret_cast<const char *>(hdlr->realStructure) + field::kHdlrHandlerType;
    return HandlerTrackType(handler);
}

uint32_t ModernTrackId(const AtomNode *trak) {
    const AtomNode *tkhd = FindChild(trak, "tkhd");
    if (tkhd == nullptr || tkhd->realStructure == nullptr) return 0;
    const uint8_t *record = tkhd->realStructure;
    return GetBE32(record, NodeVersion(tkhd) == 1 ? field::kTkhdTrackIdV1 : field::kTkhdTrackId);
}

uint32_t ModernSampleCount(const AtomNode *trak, uint64_t fileSize, bool *fits) {
    *fits = false;
    const char *const path[] = {"mdia", "minf", "stbl"};
    const AtomNode *stbl = WalkPath(trak, path, 3, nullptr);
    // The first size table counts, "stsz" or "stz2", as for the fill.
    const AtomNode *sizes = stbl != nullptr ? stbl->FirstChild : nullptr;
    while (sizes != nullptr && !AtomNameEquals(sizes->AtomName, "stsz") &&
           !AtomNameEquals(sizes->AtomName, "stz2"))
        sizes = sizes->NextSibling;
    if (sizes == nullptr || sizes->realStructure == nullptr) return 0;
    const uint8_t *record = sizes->realStructure;
    const uint32_t count = GetBE32(record, field::kStszSampleCount);
    const uint32_t constant =
        AtomNameEquals(sizes->AtomName, "stsz") ? GetBE32(record, field::kStszSampleSize) : 0;
    // A table of sizes was loaded only if it lies inside its atom; a
    // constant size puts every sample inside the file.
    *fits = constant == 0 ? GetRecordPointer(sizes) != nullptr
                          : uint64_t(count) * constant <= fileSize;
    return count;
}

uint64_t ModernTableBudget(const Root_atom *root) {
    uint64_t parsed = 0;
    uint64_t held = kHandleBytes;
    MeasureAtoms(root->FirstAtom, root, &parsed, &held);
    const uint64_t allowed = kHeapPerParsedByte * std::min<uint64_t>(parsed, root->FileSize) + kBudgetSlack;
    return allowed > held ? allowed - held : 0;
}

int32_t RunModernTrackLoop(MP4_local_file **file) {
    MP4_local_file *handle = *file;
    Root_atom *root = handle->RootAtom;
    ReadForm &form = handle->read;
    const AtomNode *moov = root->FirstAtom;
    while (moov != nullptr && !AtomNameEquals(moov->AtomName, "moov")) moov = moov->NextSibling;
    if (moov == nullptr) return kLoopDone;

    // Every track the fragments may name, by its ID; made before the
    // records so that a failed open has nothing half-linked to undo.
    size_t trakCount = 0;
    for (const AtomNode *trak = moov->FirstChild; trak != nullptr; trak = trak->NextSibling)
        trakCount += AtomNameEquals(trak->AtomName, "trak") ? 1 : 0;
    std::unique_ptr<FragmentTrack, FreeTracks> tracks(
        static_cast<FragmentTrack *>(std::calloc(trakCount + 1, sizeof(FragmentTrack))));
    if (tracks == nullptr) return FailOpen(file, nullptr, kLoopNoMemoryForVideo);
    size_t count = 0;

    for (AtomNode *trak = moov->FirstChild; trak != nullptr; trak = trak->NextSibling) {
        if (!AtomNameEquals(trak->AtomName, "trak")) continue;
        const uint32_t trackId = ModernTrackId(trak);
        if (trackId == 0) continue;  // no "tkhd": listed by MP4GetTrackInfo only
        TrackNode *node = static_cast<TrackNode *>(ZeroAlloc(sizeof(TrackNode)));
        if (node == nullptr) return FailOpen(file, nullptr, kLoopNoMemoryForVideo);
        node->TrakAtom = trak;
        node->TrackType = ModernTrackType(trak);
        node->TrackId = trackId;

        TrackNode **holder = nullptr;
        if (node->TrackType == MP4_TRACK_VIDEO) {
            auto *record = static_cast<VideoTrackNode *>(ZeroAlloc(sizeof(VideoTrackNode)));
            if (record == nullptr) return FailOpen(file, node, kLoopNoMemoryForVideo);
            record->TrackType = MP4_TRACK_VIDEO;
            record->TrackId = trackId;
            record->Track = node;
            Append(record, &form.VideoFirst, &form.VideoLast, &form.VideoCurrent);
            ReadMediaHeader(trak, &record->Timescale, &record->TrackDuration);
            if (const uint8_t *entry = VisualEntryRecord(trak)) {
                record->TrackWidth = GetBE16(entry, field::kVisualWidth);
                record->TrackHeight = GetBE16(entry, field::kVisualHeight);
            }
            holder = &record->Track;
        } else if (node->TrackType == MP4_TRACK_AUDIO) {
            auto *record = static_cast<AudioTrackNode *>(ZeroAlloc(sizeof(AudioTrackNode)));
            if (record == nullptr) return FailOpen(file, node, kLoopNoMemoryForAudio);
            record->TrackType = MP4_TRACK_AUDIO;
            record->TrackId = trackId;
            record->Track = node;
            Append(record, &form.AudioFirst, &form.AudioLast, &form.AudioCurrent);
            ReadMediaHeader(trak, &record->Timescale, &record->TrackDuration);
            holder = &record->Track;
        } else {
            auto *record = static_cast<OtherTrackNode *>(ZeroAlloc(sizeof(OtherTrackNode)));
            if (record == nullptr) return FailOpen(file, node, OtherNoMemoryCode(node->TrackType));
            record->TrackType = uint32_t(node->TrackType);
            record->TrackId = trackId;
            record->Track = node;
            Append(record, &form.OtherFirst, &form.OtherLast, &form.OtherCurrent);
            holder = &record->Track;
        }
        FragmentTrack &track = tracks.get()[count++];
        track = FragmentTrack{};
        track.TrackId = trackId;
        track.Holder = holder;
        track.Order = uint32_t(count);
        PlanModernTables(root, trak, &track.Plan);
    }

    // Of two tracks with one ID the first in the file takes the fragments.
    FragmentTrack *first = tracks.get();
    std::stable_sort(first, first + count, [](const FragmentTrack &a, const FragmentTrack &b) {
        return a.TrackId < b.TrackId;
    });
    CountFragmentSamples(root, first, count);
    // Tracks take from the budget in file order, as their "trak" atoms stand.
    std::stable_sort(first, first + count, [](const FragmentTrack &a, const FragmentTrack &b) {
        return a.Order < b.Order;
    });
    uint64_t budget = ModernTableBudget(root);
    for (size_t i = 0; i < count; ++i) BuildModernTables(root, first[i], form.TableMode, &budget);
    std::stable_sort(first, first + count, [](const FragmentTrack &a, const FragmentTrack &b) {
        return a.TrackId < b.TrackId;
    });
    FillFragmentSamples(root, first, count);
    for (size_t i = 0; i < count; ++i) FinishTables(first[i], form.TableMode);

    for (VideoTrackNode *v = form.VideoFirst; v != nullptr; v = v->NextTrack)
        v->SampleCount = v->Track != nullptr ? v->Track->SampleCount : 0;
    for (AudioTrackNode *a = form.AudioFirst; a != nullptr; a = a->NextTrack)
        a->SampleCount = a->Track != nullptr ? a->Track->SampleCount : 0;
    return kLoopDone;
}
