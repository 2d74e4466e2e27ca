// The track loop of MP4FileOpen: one record per "trak", on the list of its
// kind, with its tables built. A damaged track is skipped or kept without
// tables; only exhausted memory ends the open.
#include <cstdlib>
#include <iterator>

#include "tracks/tracks.h"

namespace {


// A "stsz" table entry takes this many bytes of the file.
constexpr uint64_t kStszEntryBytes = 4;

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

// Ends the open: what is left of the list, then the handle.
int32_t FailOpen(MP4_local_file **file, TrackListEntry *rest, TrackNode *node, int32_t code) {
    while (rest != nullptr) {
        TrackListEntry *next = rest->Next;
        std::free(rest);
        rest = next;
    }
    ReleaseTrackNodes(&node);
    MP4FileClose(file);
    return code;
}

// The sample atoms whose entries the fill expands into a track's tables.
constexpr const char *kExpandedAtoms[] = {"stts", "stsz", "stsc", "stco", "stss"};

// Once a track has its tables, they hold all that the entries of its sample
// atoms said, and nothing reads those entries again: they are freed, so that
// the open keeps a sample's record and not its "stsz" entry beside it. The
// atoms and their heads (entry counts, constant size) stay in the tree.
void ReleaseExpandedEntries(const AtomNode *trak) {
    ReleaseSampleEntries(trak, kExpandedAtoms, std::size(kExpandedAtoms));
}

// Tables for a track whose description has been read. A track whose count
// the file can't hold, or whose tables can't be made or filled, is given up:
// its record stays, with Track null.
template <typename Record, typename Create, typename Fill>
void BuildTables(Record *record, uint32_t fileSize, int32_t mode, Create create, Fill fill) {
    if (!SampleCountFitsFile(record->Track->TrakAtom, fileSize) ||
        create(&record->Track, int32_t(record->SampleCount), mode) != 1) {
        ReleaseTrackNodes(&record->Track);
        return;
    }
    record->Track->TrackId = record->TrackId;
    if (fill(&record->Track) < 1) {
        ReleaseTrackNodes(&record->Track);
        return;
    }
    ReleaseExpandedEntries(record->Track->TrakAtom);
}

}  // namespace

bool SampleCountFitsFile(const AtomNode *trakAtom, uint32_t fileSize) {
    const char *const path[] = {"mdia", "minf", "stbl", "stsz"};
    const AtomNode *stsz = WalkPath(trakAtom, path, 4, nullptr);
    if (stsz == nullptr || stsz->realStructure == nullptr) return false;
    uint64_t count = GetBE32(stsz->realStructure, field::kStszSampleCount);
    if (GetBE32(stsz->realStructure, field::kStszSampleSize) == 0) {
        // The sizes are a table in the file, four bytes a sample.
        return GetRecordPointer(stsz) != nullptr && count * kStszEntryBytes <= fileSize;
    }
    // Every sample takes at least one byte. A constant size is not held
    // against the file: a cut file keeps the samples it still holds whole.
    return count <= fileSize;
}

void ReleaseSampleEntries(const AtomNode *trak, const char *const *names, size_t count) {
    const char *const path[] = {"mdia", "minf", "stbl"};
    const AtomNode *stbl = WalkPath(trak, path, 3, nullptr);
    if (stbl == nullptr) return;
    for (AtomNode *child = stbl->FirstChild; child != nullptr; child = child->NextSibling) {
        for (size_t i = 0; i < count; ++i)
            if (AtomNameEquals(child->AtomName, names[i])) ReleaseVariablePart(child);
    }
}

int32_t OtherNoMemoryCode(int32_t type) {
    if (type == MP4_TRACK_HINT) return kLoopNoMemoryForHint;
    if (type == MP4_TRACK_OD) return kLoopNoMemoryForOd;
    return kLoopNoMemoryForScene;
}

int32_t RunTrackLoop(MP4_local_file **file) {
    MP4_local_file *handle = *file;
    Root_atom *root = handle->RootAtom;
    ReadForm &form = handle->read;
    const int32_t mode = form.TableMode;

    TrackListEntry *entry = nullptr;
    if (FindTracks(root, &entry) < 1) return kLoopDone;

    while (entry != nullptr) {
        TrackNode *node = static_cast<TrackNode *>(ZeroAlloc(sizeof(TrackNode)));
        if (node == nullptr) return FailOpen(file, entry, nullptr, kLoopNoMemoryForVideo);
        AtomNode *trak = entry->TrakAtom;
        uint32_t trackId = entry->TrackId;
        TrackListEntry *next = entry->Next;
        std::free(entry);
        entry = next;

        if (GetTrackType(trak, &node->TrackType) != 1) {
            std::free(node);
            continue;
        }
        node->TrakAtom = trak;

        if (node->TrackType == MP4_TRACK_VIDEO) {
            auto *record = static_cast<VideoTrackNode *>(ZeroAlloc(sizeof(VideoTrackNode)));
            if (record == nullptr) return FailOpen(file, entry, node, kLoopNoMemoryForVideo);
            record->TrackType = MP4_TRACK_VIDEO;
            Append(record, &form.VideoFirst, &form.VideoLast, &form.VideoCurrent);
            record->TrackId = trackId;
            record->Track = node;
            if (ReadVideoTrackInfo(trak, record) != 1) continue;
            BuildTables(record, root->FileSize, mode, CreateVideoTables,
                        [&](TrackNode **holder) {
                            // A video track of one sample is left unfilled:
                            // its count stays 0 and nothing is read from it.
                            if ((*holder)->SampleCapacity == 1) return 1;
                            return FillVideoTables(holder, root, mode);
                        });
        } else if (node->TrackType == MP4_TRACK_AUDIO) {
            auto *record = static_cast<AudioTrackNode *>(ZeroAlloc(sizeof(AudioTrackNode)));
            if (record == nullptr) return FailOpen(file, entry, node, kLoopNoMemoryForAudio);
            record->TrackType = MP4_TRACK_AUDIO;
            Append(record, &form.AudioFirst, &form.AudioLast, &form.AudioCurrent);
            record->TrackId = trackId;
            record->Track = node;
            if (ReadAudioTrackInfo(trak, record) != 1) continue;
            BuildTables(record, root->FileSize, mode, CreateAudioTables,
                        [&](TrackNode **holder) { return FillAudioTables(holder, mode); });
        } else {
            auto *record = static_cast<OtherTrackNode *>(ZeroAlloc(sizeof(OtherTrackNode)));
            if (record == nullptr) {
                int32_t code = OtherNoMemoryCode(node->TrackType);
                return FailOpen(file, entry, node, code);
            }
            record->TrackType = uint32_t(node->TrackType);
            Append(record, &form.OtherFirst, &form.OtherLast, &form.OtherCurrent);
            record->Track = node;
            record->TrackId = trackId;
        }
    }
    return kLoopDone;
}
