// MP4SetMetadata and MP4SetChapters: what a progressive or fragmented
// write handle writes as its tags and chapters. The records are checked
// and copied here; the atoms are written with "moov" (writer/metadata.h).
#include "authoring/authoring.h"
#include "frame/frame.h"
#include "writer/metadata.h"
#include "writer/progressive.h"

namespace {

// The writer whose metadata a call may still change, or null with the
// call's code in *refusal.
WriterMetadata *MetadataOf(MP4_local_file *file, bool hasRecords, int32_t *refusal) {
    *refusal = kSetMetaNullArgument;
    if (file == nullptr || !hasRecords) return nullptr;
    *refusal = kSetMetaWrongHandle;
    if (file->Form != HandleForm::ProgressiveWrite && file->Form != HandleForm::FragmentedWrite) return nullptr;
    // A fragmented handle's metadata goes out with its "moov" at the
    // first sample; one whose tracks came from CreateTrack has none.
    ProgressiveWriter *writer = ModernWriterOf(file, true);
    if (writer == nullptr) {
        *refusal = ModernRefusal(file) == kAddTrackTooLate ? kSetMetaTooLate
                   : ModernRefusal(file) == kAddTrackNoMemory ? kSetMetaNoMemory
                                                               : kSetMetaWrongHandle;
        return nullptr;
    }
    *refusal = kSetMetaTooLate;
    if (writer->Failed != 0 || (writer->Fragmented != 0 && writer->Started != 0)) return nullptr;
    return &writer->Metadata;
}

}  // namespace

int32_t MP4SetMetadata(MP4_local_file *file, const MP4Tag *tags, uint32_t count) {
    int32_t refusal = 0;
    WriterMetadata *meta = MetadataOf(file, tags != nullptr || count == 0, &refusal);
    return meta == nullptr ? refusal : ReplaceTags(meta, tags, count);
}

int32_t MP4SetChapters(MP4_local_file *file, const MP4Chapter *chapters, uint32_t count) {
    int32_t refusal = 0;
    WriterMetadata *meta = MetadataOf(file, chapters != nullptr || count == 0, &refusal);
    return meta == nullptr ? refusal : ReplaceChapters(meta, chapters, count);
}
