// Assembly of the movie: the track trees go under "moov", the sizes give
// where the media data begins, and the chunk offsets and durations that
// depend on it are patched into the records.
#include <cstdio>

#include "atoms/atoms.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;

bool IsTrak(const AtomNode *atom) {
    if (atom != nullptr && AtomNameEquals(atom->AtomName, "trak")) return true;
    PrintDiagnostic("This atom not a track atom\n");
    return false;
}

void AppendTrack(AtomNode *moov, AtomNode **last, const TrackNode *track) {
    if (track == nullptr || track->TrakAtom == nullptr) return;
    AtomNode *trak = track->TrakAtom;
    trak->ParentAtom = moov;
    trak->NextSibling = nullptr;
    if (*last == nullptr) {
        moov->FirstChild = trak;
    } else {
        (*last)->NextSibling = trak;
    }
    *last = trak;
}

// A child by name, or null after the message that names it and `owner`,
// the atom the search is reported against ("trak" also for the "mdhd" of
// its "mdia").
AtomNode *FindChildOrReport(AtomNode *parent, const char *name, const char *owner) {
    AtomNode *child = FindChild(parent, name);
    if (child == nullptr) PrintDiagnostic("no [%s] atom in input [%s] atom's child!!\n", name, owner);
    return child;
}

uint32_t GeneratedSize(const TrackNode *track) {
    return track != nullptr ? track->SampleRecords[0].Size : 0;
}

}  // namespace

int32_t AssembleMovie(Root_atom *root, MP4_local_file *file) {
    AtomNode *moov = nullptr;
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        if (AtomNameEquals(atom->AtomName, "moov")) {
            moov = atom;
            break;
        }
    }
    if (moov == nullptr) {
        PrintDiagnostic("Can't find [moov] atom from input Root_Atom!\n");
        return kFailed;
    }

    // The order in "moov" is fixed, whatever the order of creation.
    WriteForm &form = file->write;
    AtomNode *last = moov->FirstChild;
    while (last != nullptr && last->NextSibling != nullptr) last = last->NextSibling;
    AppendTrack(moov, &last, form.VideoTrack);
    AppendTrack(moov, &last, form.AudioTrack);
    AppendTrack(moov, &last, form.OdTrack);
    AppendTrack(moov, &last, form.SceneTrack);

    // The sum of what the top-level atoms put in front of the media data
    // ("mdat" counts only its header) is where the data begins.
    uint64_t base = 0;
    for (AtomNode *atom = root->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        const int32_t size = SizeFileAtom(atom, file);
        if (size < 0) {
            char name[5];
            CopyAtomName(name, atom->AtomName);
            PrintDiagnostic("There is error in [%s] atom\n", name);
            return kFailed;
        }
        base += uint32_t(size);
    }

    const uint64_t videoOffset = base;
    const uint64_t audioOffset = videoOffset + form.VideoIntake.TotalBytes;
    const uint64_t odOffset = audioOffset + form.AudioIntake.TotalBytes;
    const uint64_t sceneOffset = odOffset + GeneratedSize(form.OdTrack);
    const uint64_t end = sceneOffset + GeneratedSize(form.SceneTrack);
    if (end > UINT32_MAX) {
        PrintDiagnostic("the file passes 4 GiB and can't be described\n");
        return kFailed;
    }
    if (form.VideoTrack != nullptr) {
        ShiftChunkOffsets(form.VideoTrack->TrakAtom, uint32_t(videoOffset));
        PatchTrackDuration(form.VideoTrack->TrakAtom, form.VideoTrack->TrackDuration);
    }
    if (form.AudioTrack != nullptr) {
        ShiftChunkOffsets(form.AudioTrack->TrakAtom, uint32_t(audioOffset));
        PatchTrackDuration(form.AudioTrack->TrakAtom, form.AudioTrack->TrackDuration);
    }
    if (form.OdTrack != nullptr) ShiftChunkOffsets(form.OdTrack->TrakAtom, uint32_t(odOffset));
    if (form.SceneTrack != nullptr)
        ShiftChunkOffsets(form.SceneTrack->TrakAtom, uint32_t(sceneOffset));

    // The movie takes the video track's time, else the audio track's.
    AtomNode *mvhd = FindChildOrReport(moov, "mvhd", "moov");
    if (mvhd == nullptr) return 1;
    const TrackNode *timed = form.VideoTrack != nullptr ? form.VideoTrack : form.AudioTrack;
    if (timed != nullptr) {
        PutBE32(mvhd->realStructure, field::kMvhdTimescale, timed->Timescale);
        PutBE32(mvhd->realStructure, field::kMvhdDuration, timed->TrackDuration);
    }
    return 1;
}

int32_t ShiftChunkOffsets(AtomNode *trak, uint32_t delta) {
    if (!IsTrak(trak)) return kFailed;
    static const char *const kPath[] = {"mdia", "minf", "stbl", "stco"};
    const char *missing = nullptr;
    AtomNode *stco = WalkPath(trak, kPath, 4, &missing);
    if (stco == nullptr) {
        PrintDiagnostic("Can't find [%s] atom\n", missing != nullptr ? missing : "stco");
        return kFailed;
    }
    uint8_t *table = static_cast<uint8_t *>(GetRecordPointer(stco));
    const int32_t count = int32_t(GetBE32(stco->realStructure, field::kTableEntryCount));
    if (table == nullptr) return count < 1 ? 1 : kFailed;
    for (int32_t i = 0; i < count; ++i)
        PutBE32(table, 4 * size_t(i), GetBE32(table, 4 * size_t(i)) + delta);
    return 1;
}

int32_t PatchTrackDuration(AtomNode *trak, uint32_t duration) {
    if (!IsTrak(trak)) return kFailed;
    AtomNode *tkhd = FindChildOrReport(trak, "tkhd", "trak");
    if (tkhd == nullptr) return kFailed;
    PutBE32(tkhd->realStructure, field::kTkhdDuration, duration);
    AtomNode *mdia = FindChildOrReport(trak, "mdia", "trak");
    AtomNode *mdhd = mdia != nullptr ? FindChildOrReport(mdia, "mdhd", "trak") : nullptr;
    if (mdhd == nullptr) return kFailed;
    PutBE32(mdhd->realStructure, field::kMdhdDuration, duration);
    return 1;
}
