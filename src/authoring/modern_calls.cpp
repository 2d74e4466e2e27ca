// The calls of the modern writing family on a progressive handle:
// MP4AddTrack, MP4WriteSample and the end of MP4FileFlush. A handle of any
// other form is refused with each call's own code.
#include <cstdio>
#include <cstdlib>

#include "authoring/authoring.h"
#include "frame/frame.h"
#include "writer/progressive.h"
#include "writer/writer.h"

ProgressiveWriter *ModernWriterOf(MP4_local_file *file, bool make) {
    if (file->Form == HandleForm::ProgressiveWrite) return file->write.Progressive;
    if (file->Form != HandleForm::FragmentedWrite) return nullptr;
    WriteForm &form = file->write;
    // The tracks of a fragmented handle come from CreateTrack or from the
    // modern calls, never from both.
    if (form.Progressive == nullptr && make && form.VideoTrack == nullptr && form.AudioTrack == nullptr &&
        form.Fragments->HeaderWritten == 0) {
        form.Progressive = NewProgressiveWriter(form.Fragments->Fd, file->RootAtom->FilePath, 0);
        if (form.Progressive != nullptr) form.Progressive->Fragmented = 1;
    }
    return form.Progressive;
}

int32_t MP4AddTrack(MP4_local_file *file, const MP4TrackSpec *trackSpec, uint32_t *trackId) {
    if (file == nullptr || trackSpec == nullptr || trackId == nullptr) return kAddTrackNullArgument;
    if (file->Form != HandleForm::ProgressiveWrite && file->Form != HandleForm::FragmentedWrite)
        return kAddTrackWrongHandle;
    for (uint32_t word : trackSpec->Reserved)
        if (word != 0) return kAddTrackReserved;
    ProgressiveWriter *writer = ModernWriterOf(file, true);
    if (writer == nullptr) return ModernRefusal(file);
    return AddProgressiveTrack(writer, *trackSpec, trackId);
}

int32_t MP4WriteSample(MP4_local_file *file, uint32_t trackId, const MP4WriteInfo *info,
                       const uint8_t *data) {
    if (file == nullptr || info == nullptr) return kWriteFailed;
    if (file->Form == HandleForm::FragmentedWrite) {
        ProgressiveWriter *writer = ModernWriterOf(file, false);
        if (writer == nullptr) return kWriteNoTrack;
        return WriteFragmentedSample(writer, file->write.Fragments, trackId, *info, data);
    }
    ProgressiveWriter *writer = ModernWriterOf(file, false);
    if (writer == nullptr) return kWriteWrongHandle;
    return WriteProgressiveSample(writer, trackId, *info, data);
}

int32_t ModernRefusal(MP4_local_file *file) {
    if (file->Form != HandleForm::FragmentedWrite) return kAddTrackWrongHandle;
    const WriteForm &form = file->write;
    if (form.VideoTrack != nullptr || form.AudioTrack != nullptr) return kAddTrackWrongHandle;
    if (form.Fragments->HeaderWritten != 0) return kAddTrackTooLate;
    return kAddTrackNoMemory;
}

int32_t FlushProgressiveFile(MP4_local_file *file) {
    ProgressiveWriter *writer = file->write.Progressive;
    const int32_t result = FinishProgressiveFile(writer);
    ReleaseProgressiveWriter(writer);
    if (file->RootAtom != nullptr) {
        if (file->RootAtom->FileStream != nullptr) std::fclose(file->RootAtom->FileStream);
        std::free(file->RootAtom);
    }
    std::free(file);
    return result;
}
