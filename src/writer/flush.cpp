// MP4FileFlush: ends a write handle. The block chains are merged, every
// record is filled and sized in memory, the tracks go under "moov", and
// the file is written in one forward pass. The temp files are removed and
// the handle is released whatever the steps reported.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "authoring/authoring.h"
#include "writer/progressive.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;

// Merges one chain into a single block with the track's whole tables. On
// failure the chain stays as it was.
int32_t MergeChain(TrackNode **slot, const IntakeState &intake, bool video) {
    TrackNode *head = *slot;
    TrackNode *merged = static_cast<TrackNode *>(std::malloc(sizeof(TrackNode)));
    if (merged == nullptr) return kFailed;
    *merged = *head;
    merged->SampleCount = intake.TotalSamples;
    merged->SampleCapacity = intake.TotalSamples;
    merged->NextBlock = nullptr;
    merged->KeyFrameCount = video ? intake.TotalKeyFrames : 0;
    merged->KeyFrameCapacity = merged->KeyFrameCount;
    merged->SampleRecords = static_cast<SampleRecord *>(
        ZeroAlloc(sizeof(SampleRecord) * size_t(intake.TotalSamples)));
    merged->KeyFrameRecords =
        video ? static_cast<KeyFrameRecord *>(
                    ZeroAlloc(sizeof(KeyFrameRecord) * size_t(intake.TotalKeyFrames)))
              : nullptr;
    bool ok = merged->SampleRecords != nullptr && (!video || merged->KeyFrameRecords != nullptr);
    // Each block lands at its base; a block that would reach past the
    // track's totals means the chain is broken.
    for (const TrackNode *block = head; ok && block != nullptr; block = block->NextBlock) {
        if (uint64_t(block->SampleBase) + block->SampleCount > intake.TotalSamples ||
            block->SampleCount > block->SampleCapacity) {
            ok = false;
            break;
        }
        if (block->SampleCount > 0)
            std::memcpy(merged->SampleRecords + block->SampleBase, block->SampleRecords,
                        sizeof(SampleRecord) * block->SampleCount);
        if (!video || block->KeyFrameCount == 0) continue;
        if (uint64_t(block->KeyFrameBase) + block->KeyFrameCount > intake.TotalKeyFrames ||
            block->KeyFrameCount > block->KeyFrameCapacity) {
            ok = false;
            break;
        }
        std::memcpy(merged->KeyFrameRecords + block->KeyFrameBase, block->KeyFrameRecords,
                    sizeof(KeyFrameRecord) * block->KeyFrameCount);
    }
    if (!ok) {
        FreeIfSet(merged->SampleRecords);
        FreeIfSet(merged->KeyFrameRecords);
        std::free(merged);
        return kFailed;
    }
    ReleaseTrackChain(head);
    *slot = merged;
    return 1;
}

// The stream's buffer is freed only after the stream is closed: the
// close writes out what the buffer still holds.
void CloseTempStream(IntakeState &intake) {
    if (intake.TempFile != nullptr) std::fclose(intake.TempFile);
    intake.TempFile = nullptr;
    std::free(intake.TempBuffer);
    intake.TempBuffer = nullptr;
}

// The temp files go by name, video first, and the output is closed.
void FinishFiles(MP4_local_file *file) {
    WriteForm &form = file->write;
    CloseTempStream(form.VideoIntake);
    CloseTempStream(form.AudioIntake);
    if (form.VideoTrack != nullptr && form.VideoIntake.TempFileName != nullptr)
        std::remove(form.VideoIntake.TempFileName);
    if (form.AudioTrack != nullptr && form.AudioIntake.TempFileName != nullptr)
        std::remove(form.AudioIntake.TempFileName);
    Root_atom *root = file->RootAtom;
    if (root != nullptr && root->FileStream != nullptr) {
        if (std::fclose(root->FileStream) != 0) PrintDiagnostic("error in writing the output file!\n");
        root->FileStream = nullptr;
    }
}

void ReleaseTrack(TrackNode *track) {
    if (track == nullptr) return;
    // A tree that never got under "moov" belongs to the track alone.
    if (track->TrakAtom != nullptr && track->TrakAtom->ParentAtom == nullptr)
        ReleaseWrittenTree(track->TrakAtom);
    ReleaseTrackChain(track);
}

// The tracks go first: whether a track's tree is linked under "moov" must
// be read before "moov" is released.
void ReleaseHandle(MP4_local_file *file) {
    WriteForm &form = file->write;
    ReleaseFragmentWriter(form.Fragments);
    ReleaseProgressiveWriter(form.Progressive);
    ReleaseTrack(form.VideoTrack);
    ReleaseTrack(form.AudioTrack);
    ReleaseTrack(form.OdTrack);
    ReleaseTrack(form.SceneTrack);
    Root_atom *root = file->RootAtom;
    if (root != nullptr) {
        while (root->FirstAtom != nullptr) {
            AtomNode *atom = root->FirstAtom;
            root->FirstAtom = atom->NextSibling;
            ReleaseWrittenTree(atom);
        }
        std::free(root);
    }
    std::free(file);
}

}  // namespace

void ReleaseWrittenAtoms(AtomNode *node) {
    AtomNode *child = node->FirstChild;
    while (child != nullptr) {
        AtomNode *next = child->NextSibling;
        ReleaseWrittenTree(child);
        child = next;
    }
    node->FirstChild = nullptr;
}

void ReleaseWrittenTree(AtomNode *node) {
    ReleaseWrittenAtoms(node);
    if (node->realStructure != nullptr) {
        FreeIfSet(GetRecordPointer(node));
        std::free(node->realStructure);
    }
    std::free(node);
}

void ReleaseTrackChain(TrackNode *head) {
    while (head != nullptr) {
        TrackNode *next = head->NextBlock;
        FreeIfSet(head->SampleRecords);
        FreeIfSet(head->KeyFrameRecords);
        std::free(head);
        head = next;
    }
}

int32_t MergeTrackBlocks(MP4_local_file *file) {
    WriteForm &form = file->write;
    int32_t result = 1;
    if (form.VideoTrack != nullptr) {
        if (MergeChain(&form.VideoTrack, form.VideoIntake, true) != 1) result = kFailed;
        CloseTempStream(form.VideoIntake);
    }
    if (form.AudioTrack != nullptr) {
        if (MergeChain(&form.AudioTrack, form.AudioIntake, false) != 1) result = kFailed;
        CloseTempStream(form.AudioIntake);
    }
    return result;
}

int32_t SerializeTrack(TrackNode *track) {
    if (track == nullptr) {
        OutputDebugStringA("The input TrackNode is empty\n");
        return kFailed;
    }
    if (track->TrakAtom == nullptr || !AtomNameEquals(track->TrakAtom->AtomName, "trak")) {
        OutputDebugStringA("This atom is not a track atom\n");
        return kFailed;
    }
    return SerializeTrackAtom(track->TrakAtom, track);
}

int32_t MP4FileFlush(MP4_local_file *file) {
    if (file == nullptr) {
        OutputDebugStringA("the input localfile is empty!\n");
        return kFailed;
    }
    if (file->Form == HandleForm::ProgressiveWrite) return FlushProgressiveFile(file);
    WriteForm &form = file->write;
    // A fragmented file is written already but for its last fragment and
    // its index.
    if (form.Fragments != nullptr) {
        const int32_t result = form.Progressive != nullptr
                                   ? FinishFragmentedTracks(form.Progressive, form.Fragments)
                                   : EndFragmentedIntake(file);
        FinishFiles(file);
        ReleaseHandle(file);
        return result;
    }
    // A step that fails leaves records unfilled or a chain unmerged; such
    // a file is not written rather than written with garbage.
    bool intact = MergeTrackBlocks(file) == 1;
    if (form.VideoTrack != nullptr) intact = SerializeTrack(form.VideoTrack) > 0 && intact;
    if (form.AudioTrack != nullptr) intact = SerializeTrack(form.AudioTrack) > 0 && intact;
    if (form.OdTrack != nullptr) {
        if (form.VideoTrack != nullptr) form.OdTrack->VideoTrackId = form.VideoTrack->TrackId;
        if (form.AudioTrack != nullptr) form.OdTrack->AudioTrackId = form.AudioTrack->TrackId;
        intact = SerializeTrack(form.OdTrack) > 0 && intact;
    }
    if (form.SceneTrack != nullptr) intact = SerializeTrack(form.SceneTrack) > 0 && intact;
    if (file->RootAtom == nullptr || AssembleMovie(file->RootAtom, file) != 1) intact = false;

    if (intact) {
        WriteOutputFile(file);
    } else {
        PrintDiagnostic("the file is not written\n");
    }
    FinishFiles(file);
    ReleaseHandle(file);
    return 1;
}
