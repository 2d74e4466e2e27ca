// The calls of the modern writing family on a progressive handle:
// MP4AddTrack, MP4WriteSample and the end of MP4FileFlush. A handle of any
// other form is refused with each call's own code.
#include <cstdio>
#include <cstdlib>

#include "authoring/authoring.h"
#include "frame/frame.h"
#include "writer/progressive.h"

namespace {

ProgressiveWriter *ProgressiveOf(MP4_local_file *file) {
    return file->Form == HandleForm::ProgressiveWrite ? file->write.Progressive : nullptr;
}

}  // namespace

int32_t MP4AddTrack(MP4_local_file *file, const MP4TrackSpec *trackSpec, uint32_t *trackId) {
    if (file == nullptr || trackSpec == nullptr || trackId == nullptr) return kAddTrackNullArgument;
    ProgressiveWriter *writer = ProgressiveOf(file);
    if (writer == nullptr) return kAddTrackWrongHandle;
    for (uint32_t word : trackSpec->Reserved)
        if (word != 0) return kAddTrackReserved;
    return AddProgressiveTrack(writer, *trackSpec, trackId);
}

int32_t MP4WriteSample(MP4_local_file *file, uint32_t trackId, const MP4WriteInfo *info,
                       const uint8_t *data) {
    if (file == nullptr || info == nullptr) return kWriteFailed;
    ProgressiveWriter *writer = ProgressiveOf(file);
    if (writer == nullptr) return kWriteWrongHandle;
    return WriteProgressiveSample(writer, trackId, *info, data);
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
