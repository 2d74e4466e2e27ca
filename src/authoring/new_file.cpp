// New files and their tracks: the write form of the handle, the top-level
// atoms, and for each track its TrackNode, its "trak" tree and its temp
// file.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "authoring/authoring.h"
#include "media/media.h"
#include "writer/progressive.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;
// MP4FileNewEx: flag bits it doesn't know, checked before anything else.
constexpr int32_t kNewUnknownFlags = -100;
constexpr uint32_t kKnownNewFlags =
    MP4_NEW_FRAGMENTED | MP4_NEW_SYNC | MP4_NEW_PROGRESSIVE | MP4_NEW_FASTSTART;

// A configuration that starts with a visual object sequence header has
// its video object start code this many bytes further on: the sequence
// start code with its profile byte, and a visual object start code with
// its one byte.
constexpr uint32_t kSequenceHeaderBytes = 10;
// The built video object layer header holds 13 bits of width and height.
constexpr uint32_t kMaxBuiltPictureSide = 8191;

void ReleaseHandle(MP4_local_file *file) {
    ReleaseFragmentWriter(file->write.Fragments);
    ReleaseProgressiveWriter(file->write.Progressive);
    if (file->RootAtom != nullptr) {
        ReleaseAtomList(file->RootAtom->FirstAtom);
        if (file->RootAtom->FileStream != nullptr) std::fclose(file->RootAtom->FileStream);
        std::free(file->RootAtom);
    }
    std::free(file);
}

// The handle's slot of a track type; null for a type that has none.
template <typename Form>
auto TrackSlot(Form &form, uint32_t trackType) -> decltype(&form.VideoTrack) {
    switch (trackType) {
    case MP4_TRACK_VIDEO: return &form.VideoTrack;
    case MP4_TRACK_AUDIO: return &form.AudioTrack;
    case MP4_TRACK_OD: return &form.OdTrack;
    case MP4_TRACK_SCENE: return &form.SceneTrack;
    default: return nullptr;
    }
}

// The types that CreateTrack makes are those with a slot in the handle.
bool IsCreatable(uint32_t trackType) {
    WriteForm none{};
    return TrackSlot(none, trackType) != nullptr;
}

// The checks that the library adds in front of the track's creation. They
// come before an ID is given, so a refused call uses none up. Gives the
// message of the refusal, or null.
const char *RefusalOf(const MP4_local_file *file, uint32_t trackType, uint32_t width,
                      uint32_t height, uint32_t timescale, uint32_t configSize,
                      const uint8_t *config, const char *tempFileName) {
    if (file->Form == HandleForm::ProgressiveWrite)
        return "A progressive file takes its tracks from MP4AddTrack in CreateTrack(...) \n";
    const WriteForm &form = file->write;
    const bool media = trackType == MP4_TRACK_VIDEO || trackType == MP4_TRACK_AUDIO;
    // A fragmented file's header, with its tracks, is written at the first
    // frame, and its fragments hold the frames of media tracks only.
    if (const FragmentWriter *fragments = form.Fragments) {
        if (fragments->Failed != 0)
            return "The file was given up after a failed write in CreateTrack(...) \n";
        if (form.Progressive != nullptr)
            return "The fragmented file takes its tracks from MP4AddTrack in CreateTrack(...) \n";
        if (fragments->HeaderWritten != 0)
            return "Tracks must be created before the first frame of a fragmented file in "
                   "CreateTrack(...) \n";
        if (!media)
            return "A fragmented file takes video and audio tracks only in CreateTrack(...) \n";
    }
    if (*TrackSlot(form, trackType) != nullptr)
        return "A track of this type already exists in CreateTrack(...) \n";
    if (media && (form.OdTrack != nullptr || form.SceneTrack != nullptr))
        return "Media tracks must be created before the object descriptor and scene tracks in "
               "CreateTrack(...) \n";
    if (!media) return nullptr;
    // Frames divide their time stamps by the timescale; the one generated
    // sample of an object descriptor or scene track does not.
    if (timescale == 0) return "The timescale of a track must not be 0 in CreateTrack(...) \n";
    if (configSize > kMaxConfigBytes || (config == nullptr && configSize != 0))
        return "The decoder configuration is too long or missing in CreateTrack(...) \n";
    // The frames of a fragmented file go to the file itself.
    if (form.Fragments == nullptr) {
        if (tempFileName == nullptr) return "No temp file name in CreateTrack(...) \n";
        const IntakeState &other =
            trackType == MP4_TRACK_VIDEO ? form.AudioIntake : form.VideoIntake;
        if ((other.TempFileName != nullptr && std::strcmp(other.TempFileName, tempFileName) == 0) ||
            std::strcmp(file->RootAtom->FilePath, tempFileName) == 0)
            return "The temp file name is already in use in CreateTrack(...) \n";
    }
    if (trackType == MP4_TRACK_VIDEO && configSize == 0 &&
        (width > kMaxBuiltPictureSide || height > kMaxBuiltPictureSide))
        return "Width and height above 8191 need a decoder configuration in CreateTrack(...) \n";
    return nullptr;
}

// Reads the picture size from a video configuration: past a visual object
// sequence header if there is one, then from a video object start code.
void ReadPictureSize(TrackNode *track, const uint8_t *config, uint32_t configSize) {
    const uint8_t *p = config;
    uint32_t left = configSize;
    if (left < 4) return;
    if (p[3] == 0xB0) {
        if (left < kSequenceHeaderBytes + 4) return;
        p += kSequenceHeaderBytes;
        left -= kSequenceHeaderBytes;
    }
    if (p[3] >= 0x20) return;
    uint32_t width = 0, height = 0, headerSize = 0;
    ParseVolHeader(p, left, &width, &height, &headerSize);
    track->TrackWidth = uint16_t(width);
    track->TrackHeight = uint16_t(height);
}

// Releases a track that is not in the handle yet: its blocks and its tree.
void DiscardTrack(TrackNode *track) {
    if (track->TrakAtom != nullptr) ReleaseWrittenTree(track->TrakAtom);
    ReleaseTrackChain(track);
}

// A track's temp file, with a large stream buffer where there is memory
// for one.
bool OpenTempFile(IntakeState &intake, const char *name) {
    FILE *temp = std::fopen(name, "wb");
    if (temp == nullptr) return false;
    intake = IntakeState{};
    intake.TempFile = temp;
    intake.TempFileName = name;
    // Frames are a few hundred bytes to a few kilobytes: through the
    // default stream buffer of one page each would cost a system call.
    // Without the larger buffer the stream keeps its own, and works alike.
    intake.TempBuffer = static_cast<char *>(std::malloc(kTempStreamBufferBytes));
    if (intake.TempBuffer != nullptr &&
        std::setvbuf(temp, intake.TempBuffer, _IOFBF, kTempStreamBufferBytes) != 0) {
        std::free(intake.TempBuffer);
        intake.TempBuffer = nullptr;
    }
    return true;
}

// Steps 3 to 7 of the track's creation: tables, tree and records.
int32_t BuildTrack(TrackNode *track, uint32_t trackType, uint8_t compositionTimes) {
    const bool media = trackType == MP4_TRACK_VIDEO || trackType == MP4_TRACK_AUDIO;
    if (AddTrackBlock(&track, media ? kMediaBlockSlots : kSystemBlockSlots) != 1) {
        OutputDebugStringA("Can't create Sample and KeyFrame table in CreateTrack(...) \n");
        return kFailed;
    }
    AtomNode *trak = nullptr;
    if (CreateTrackTree(&trak, int32_t(trackType), nullptr, nullptr, compositionTimes) != 1) {
        OutputDebugStringA("Can't create atom HierarchySubTree in CreateTrack(...) \n");
        return kFailed;
    }
    track->TrakAtom = trak;
    CheckAtom(trak);
    if (AllocChildRecords(trak) != 1) {
        OutputDebugStringA("Can't allocate atom subtree's realstructure in CreateTrack(...) \n");
        return kFailed;
    }
    if (AllocNodeRecord(trak) != 1) {
        OutputDebugStringA("atom[trak] allocate error\n");
        return kFailed;
    }
    return 1;
}

}  // namespace

int32_t AddTrackBlock(TrackNode **block, uint32_t slots) {
    if (slots < 1) return -97;
    if (block == nullptr || *block == nullptr) return -98;
    TrackNode *target = *block;
    TrackNode *added = nullptr;
    if (target->SampleCapacity != 0) {
        added = static_cast<TrackNode *>(ZeroAlloc(sizeof(TrackNode)));
        if (added == nullptr) return -98;
        target = added;
    }
    SampleRecord *samples = static_cast<SampleRecord *>(ZeroAlloc(sizeof(SampleRecord) * slots));
    if (samples == nullptr) {
        std::free(added);
        return -96;
    }
    const uint32_t keySlots = slots / 2;
    KeyFrameRecord *keys =
        static_cast<KeyFrameRecord *>(ZeroAlloc(sizeof(KeyFrameRecord) * keySlots));
    if (keys == nullptr) {
        std::free(samples);
        std::free(added);
        return -95;
    }
    target->SampleCapacity = slots;
    target->SampleRecords = samples;
    target->KeyFrameCapacity = keySlots;
    target->KeyFrameRecords = keys;
    if (added != nullptr) {
        TrackNode *last = *block;
        while (last->NextBlock != nullptr) last = last->NextBlock;
        last->NextBlock = added;
    }
    return 1;
}

namespace {

// MP4FileNew's steps; a fragmented file starts from its own top level.
int32_t NewFile(MP4_local_file **file, const char *path, uint32_t flags) {
    const bool fragmented = (flags & MP4_NEW_FRAGMENTED) != 0;
    if (file == nullptr) return kFailed;
    MP4_local_file *handle = static_cast<MP4_local_file *>(ZeroAlloc(sizeof(MP4_local_file)));
    *file = handle;
    if (handle == nullptr) {
        OutputDebugStringA("Can't allocate memory for MP4_local_file in MP4FileNew(...) \n");
        return kFailed;
    }
    Root_atom *root = static_cast<Root_atom *>(ZeroAlloc(sizeof(Root_atom)));
    if (root == nullptr) {
        OutputDebugStringA("Can't allocate memory for Root_atom in MP4FileNew(...) \n");
        ReleaseHandle(handle);
        *file = nullptr;
        return kFailed;
    }
    handle->RootAtom = root;

    // A name that doesn't fit FilePath is refused rather than cut, so that
    // the file is never created under another name.
    if (path == nullptr || std::strlen(path) >= kFilePathBytes ||
        (root->FileStream = std::fopen(path, (flags & MP4_NEW_PROGRESSIVE) != 0 ? "w+b" : "wb")) ==
         nullptr) {
        OutputDebugStringA("Can not create new file in MP4FileNew(...) \n");
        ReleaseHandle(handle);
        *file = nullptr;
        return kFailed;
    }
    std::strcpy(root->FilePath, path);

    // A progressive file's atoms are written by the box writer alone.
    if ((flags & MP4_NEW_PROGRESSIVE) != 0) {
        handle->Form = HandleForm::ProgressiveWrite;
        handle->write.Progressive = NewProgressiveWriter(fileno(root->FileStream), path, flags);
        if (handle->write.Progressive != nullptr) return 1;
        OutputDebugStringA("Can't allocate memory for the progressive writer in MP4FileNewEx(...) \n");
        ReleaseHandle(handle);
        std::remove(path);
        *file = nullptr;
        return kFailed;
    }
    handle->Form = fragmented ? HandleForm::FragmentedWrite : HandleForm::ClassicWrite;
    if (CreateFileTree(root, fragmented) != 1 || AllocTreeRecords(root) != 1) {
        OutputDebugStringA("Error occur for create atom subtree in MP4FileNew(...) \n");
        ReleaseHandle(handle);
        std::remove(path);
        *file = nullptr;
        return kFailed;
    }
    handle->write.NextTrackId = 1;
    if (!fragmented) return 1;
    handle->write.Fragments =
        NewFragmentWriter(fileno(root->FileStream), (flags & MP4_NEW_SYNC) != 0);
    if (handle->write.Fragments == nullptr) {
        OutputDebugStringA("Can't allocate memory for the fragment writer in MP4FileNewEx(...) \n");
        ReleaseHandle(handle);
        std::remove(path);
        *file = nullptr;
        return kFailed;
    }
    return 1;
}

}  // namespace

int32_t MP4FileNew(MP4_local_file **file, const char *path) { return NewFile(file, path, 0); }

int32_t MP4FileNewEx(MP4_local_file **file, const char *path, uint32_t flags) {
    // Durable writes are those of fragments and of a progressive flush:
    // without either the flag means nothing, and is refused like an unknown
    // one, as are the two layouts together and faststart without its
    // progressive file.
    const bool fragmented = (flags & MP4_NEW_FRAGMENTED) != 0;
    const bool progressive = (flags & MP4_NEW_PROGRESSIVE) != 0;
    if ((flags & ~kKnownNewFlags) != 0 || (fragmented && progressive) ||
        ((flags & MP4_NEW_SYNC) != 0 && !fragmented && !progressive) ||
        ((flags & MP4_NEW_FASTSTART) != 0 && !progressive))
        return kNewUnknownFlags;
    return NewFile(file, path, flags);
}

int32_t CreateTrack(MP4_local_file *file, uint32_t trackType, uint32_t width, uint32_t height,
                    uint16_t timeResolution, uint32_t timescale, uint32_t profileLevel,
                    uint32_t audioProfile, uint32_t audioChannels, uint32_t audioSampleRate,
                    uint32_t configSize, const uint8_t *config, const char *tempFileName,
                    uint8_t compositionTimes) {
    // The type comes first: a bad one is reported whatever the handle.
    if (!IsCreatable(trackType)) {
        PrintDiagnostic("unsupport track type\n");
        return kFailed;
    }
    if (file == nullptr) {
        OutputDebugStringA("the input parameter for MP4_local_file is empty\n");
        return kFailed;
    }
    if (const char *refusal = RefusalOf(file, trackType, width, height, timescale, configSize,
                                        config, tempFileName)) {
        OutputDebugStringA(refusal);
        return kFailed;
    }

    WriteForm &form = file->write;
    TrackNode *track = static_cast<TrackNode *>(ZeroAlloc(sizeof(TrackNode)));
    if (track == nullptr) {
        OutputDebugStringA("Can't allocate memory for TrackNode in CreateTrack(...) \n");
        return kFailed;
    }
    track->TrackId = form.NextTrackId++;
    track->TrackType = int32_t(trackType);
    track->TrackWidth = uint16_t(width);
    track->TrackHeight = uint16_t(height);
    track->TimeResolution = timeResolution;
    track->Timescale = timescale;
    track->CompositionTimes = compositionTimes;
    if (BuildTrack(track, trackType, compositionTimes) != 1) {
        DiscardTrack(track);
        return kFailed;
    }

    if (trackType == MP4_TRACK_OD || trackType == MP4_TRACK_SCENE) {
        // One sample, generated by the flush from the media tracks that
        // exist now; those are created first.
        track->SampleCount = 1;
        track->KeyFrameCount = 1;
        track->SampleRecords[0].Size =
            GetGeneratedSample(int32_t(trackType), form.VideoTrack != nullptr,
                               form.AudioTrack != nullptr)
                .Size;
        *TrackSlot(form, trackType) = track;
        return 1;
    }

    if (configSize != 0) std::memcpy(track->ConfigBytes, config, configSize);
    track->ConfigSize = configSize;
    IntakeState &intake = trackType == MP4_TRACK_VIDEO ? form.VideoIntake : form.AudioIntake;
    if (form.Fragments == nullptr && !OpenTempFile(intake, tempFileName)) {
        OutputDebugStringA("Can not create temp file in CreateTrack(...) \n");
        DiscardTrack(track);
        return kFailed;
    }

    if (trackType == MP4_TRACK_VIDEO) {
        track->VideoTrackId = track->TrackId;
        track->VideoProfileLevel = profileLevel;
        if (config != nullptr && width == 0 && height == 0)
            ReadPictureSize(track, config, configSize);
        form.VideoTrack = track;
    } else {
        track->AudioTrackId = track->TrackId;
        track->AudioProfile = audioProfile;
        track->AudioChannels = audioChannels;
        track->AudioSampleRate = audioSampleRate;
        form.AudioTrack = track;
    }
    if (form.Fragments != nullptr)
        form.Fragments->Tracks[trackType == MP4_TRACK_VIDEO ? 0 : 1].Track = track;
    return 1;
}
