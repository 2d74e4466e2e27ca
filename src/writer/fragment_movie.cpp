// The header of a fragmented file, written when the first frame comes:
// "ftyp" with the brands of a fragmented file, and "moov" with the tracks
// created so far (serialised as the classic writer does, their sample
// tables empty: the samples come in fragments) and "mvex" with a "trex"
// for each track.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "atoms/atoms.h"
#include "writer/writer.h"

namespace {

// Fragments that "tfdt" times and whose data offsets count from their
// "moof", in a file of the ISO base format that carries MPEG-4 streams.
constexpr char kMajorBrand[] = "iso6";
constexpr const char *kCompatibleBrands[] = {"iso6", "isom", "mp41"};
constexpr size_t kFileTypeSize = field::kFtypCompatibleBrand + 4 * std::size(kCompatibleBrands);

void PutFileType(uint8_t *out) {
    PutBE32(out, field::kHeadSize, kFileTypeSize);
    std::memcpy(out + field::kHeadName, "ftyp", 4);
    std::memcpy(out + field::kFtypMajorBrand, kMajorBrand, 4);
    PutBE32(out, field::kFtypMinorVersion, 0);
    for (size_t i = 0; i < std::size(kCompatibleBrands); ++i)
        std::memcpy(out + field::kFtypCompatibleBrand + 4 * i, kCompatibleBrands[i], 4);
}

void AppendChild(AtomNode *parent, AtomNode *child) {
    child->ParentAtom = parent;
    child->NextSibling = nullptr;
    AtomNode **slot = &parent->FirstChild;
    while (*slot != nullptr) slot = &(*slot)->NextSibling;
    *slot = child;
}

// A new atom with its record as the catalogue sizes it; null without
// memory.
AtomNode *NewAtom(const char *name) {
    AtomNode *node = static_cast<AtomNode *>(ZeroAlloc(sizeof(AtomNode)));
    if (node == nullptr) return nullptr;
    CopyAtomName(node->AtomName, name);
    if (AllocNodeRecord(node) == 1) return node;
    std::free(node);
    return nullptr;
}

// "mvex" with a "trex" per track: a track's samples in fragments take its
// first sample description and, unless a run says otherwise, its default
// flags. Made whole before it joins "moov", so that a try that runs out of
// memory leaves nothing behind.
bool AppendMovieExtends(AtomNode *moov, const FragmentWriter &writer) {
    AtomNode *mvex = NewAtom("mvex");
    if (mvex == nullptr) return false;
    for (const RecordingTrack &track : writer.Tracks) {
        if (track.Track == nullptr) continue;
        AtomNode *trex = NewAtom("trex");
        if (trex == nullptr) {
            ReleaseWrittenTree(mvex);
            return false;
        }
        PutBE32(trex->realStructure, field::kTrexTrackId, track.Track->TrackId);
        PutBE32(trex->realStructure, field::kTrexDescriptionIndex, 1);
        PutBE32(trex->realStructure, field::kTrexFlags, TrexDefaultSampleFlags(*track.Track));
        AppendChild(mvex, trex);
    }
    AppendChild(moov, mvex);
    return true;
}

// "ftyp" and the atoms from "moov" on into one block of memory.
bool SerialiseHeader(AtomNode *moov, uint8_t **bytes, size_t *size) {
    Root_atom memory{};
    memory.FileStream = open_memstream(reinterpret_cast<char **>(bytes), size);
    if (memory.FileStream == nullptr) return false;
    uint8_t fileType[kFileTypeSize];
    PutFileType(fileType);
    bool ok = std::fwrite(fileType, 1, sizeof fileType, memory.FileStream) == sizeof fileType;
    ok = WriteAtoms(moov, &memory) == 1 && ok;
    ok = std::fclose(memory.FileStream) == 0 && ok;
    if (!ok) {
        std::free(*bytes);
        *bytes = nullptr;
    }
    return ok;
}

}  // namespace

int32_t WriteMovieHeader(MP4_local_file *file) {
    FragmentWriter &writer = *file->write.Fragments;
    AtomNode *moov = file->RootAtom->FirstAtom;
    // A try that ran out of memory may have done the first steps; they
    // are done again or passed over.
    for (const RecordingTrack &track : writer.Tracks) {
        if (track.Track == nullptr) continue;
        if (SerializeTrack(track.Track) < 1) return kFragmentNoMemory;
    }
    for (const RecordingTrack &track : writer.Tracks)
        if (track.Track != nullptr && track.Track->TrakAtom->ParentAtom == nullptr)
            AppendChild(moov, track.Track->TrakAtom);
    const bool hasTracks = writer.Tracks[0].Track != nullptr || writer.Tracks[1].Track != nullptr;
    if (hasTracks && FindChild(moov, "mvex") == nullptr && !AppendMovieExtends(moov, writer))
        return kFragmentNoMemory;
    if (SizeFileAtom(moov, file) < 1) return kFragmentNoMemory;
    // The movie takes the leading track's clock; its duration stays 0, as
    // the fragments carry the time.
    AtomNode *mvhd = FindChild(moov, "mvhd");
    if (hasTracks)
        PutBE32(mvhd->realStructure, field::kMvhdTimescale,
                writer.Tracks[writer.Leading].Track->Timescale);

    uint8_t *bytes = nullptr;
    size_t size = 0;
    if (!SerialiseHeader(moov, &bytes, &size)) return kFragmentNoMemory;
    const iovec block = {bytes, size};
    const int32_t written = WriteAtFileEnd(&writer, &block, 1);
    std::free(bytes);
    if (written != kFragmentDone) return written;
    if (writer.Sync != 0) SyncFolderOf(file->RootAtom->FilePath);
    writer.HeaderWritten = 1;
    return kFragmentDone;
}
