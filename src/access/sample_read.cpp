// Reading the sample under a track's cursor: the one place where the
// access calls copy sample bytes out of the file.
#include <cstdlib>

#include "access/access.h"

void SampleRelease::operator()(MP4Sample *sample) const {
    if (sample == nullptr) return;
    std::free(sample->Data);
    std::free(sample);
}

SampleHolder NewSample() {
    return SampleHolder(static_cast<MP4Sample *>(std::calloc(1, sizeof(MP4Sample))));
}

int32_t ReadSampleAtCursor(MP4_local_file *file, const AccessTrack &track, TrackNode *node,
                           const ReadCodes &codes, MP4Sample *sample) {
    const uint32_t cursor = CursorOf(track);
    if (cursor >= node->SampleCount || cursor >= node->SampleCapacity) return 0;
    const SampleView record = ViewSample(node, cursor);
    sample->Time = uint32_t(record.Time);
    sample->Size = record.Size;
    sample->IsKeyFrame = record.IsKeyFrame;
    // On a modern handle an empty sample is passed over like one the file
    // can't give, so that a reading loop moves on.
    if (record.Size == 0) {
        if (node->Modern) SetCursor(track, cursor + 1);
        return codes.ZeroSize;
    }

    // A sample that the file can't hold whole would only come back short:
    // it is passed over without allocating its size. A sample past the size
    // measured at the open asks the file again, since another process may
    // still be appending to it.
    Root_atom *root = file->RootAtom;
    const uint64_t offset = record.Offset;
    const uint64_t end = offset + record.Size;
    if (end > root->FileSize && end > FileSizeNow(root->FileStream)) {
        SetCursor(track, cursor + 1);
        return codes.ShortRead;
    }
    sample->Data = static_cast<uint8_t *>(std::malloc(record.Size));
    if (sample->Data == nullptr) return codes.NoMemory;
    SetCursor(track, cursor + 1);
    // Samples lie mostly in file order: the handle's read-ahead window serves
    // a run of them with one read of the file.
    if (ReadAheadAt(&file->read.SampleWindow, root, offset, sample->Data,
                    record.Size) != record.Size)
        return codes.ShortRead;
    return 1;
}
