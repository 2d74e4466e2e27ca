// Sample retrieval: the sample under the cursor, the sample at a time, and
// giving back what the library handed out.
#include <cstdlib>
#include <utility>

#include "access/access.h"

namespace {

// Steps shared by both calls: the track, a fresh MP4Sample and the tables.
// On 1 the holder has the record and `node` the track's tables.
int32_t PrepareRead(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                    MP4Sample **sample, AccessTrack *track, SampleHolder *holder,
                    TrackNode **node) {
    if (sample == nullptr) return kFindBadArguments;
    int32_t result = FindTrack(file, trackId, trackType, track);
    if (result != 1) return result;
    *holder = NewSample();
    if (!*holder) return kSampleNoMemory;
    return CheckTrackTables(*track, SampleTableCodes(*track), node);
}

int32_t FinishRead(MP4_local_file *file, const AccessTrack &track, TrackNode *node,
                   SampleHolder holder, MP4Sample **sample) {
    int32_t result = ReadSampleAtCursor(file, track, node, SampleReadCodes(track), holder.get());
    if (result == 1) *sample = holder.release();
    return result;
}

}  // namespace

int32_t GetNextSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                      MP4Sample **sample) {
    AccessTrack track;
    SampleHolder holder;
    TrackNode *node = nullptr;
    int32_t result = PrepareRead(file, trackId, trackType, sample, &track, &holder, &node);
    if (result != 1) return result;
    return FinishRead(file, track, node, std::move(holder), sample);
}

int32_t GetSample(MP4_local_file *file, uint32_t trackId, int32_t trackType, int32_t time,
                  MP4Sample **sample) {
    AccessTrack track;
    SampleHolder holder;
    TrackNode *node = nullptr;
    int32_t result = PrepareRead(file, trackId, trackType, sample, &track, &holder, &node);
    if (result != 1) return result;
    // A track without samples has no last sample to compare with.
    if (node->SampleCount == 0) return 0;
    SetCursor(track, ChooseSampleAtTime(node, time));
    return FinishRead(file, track, node, std::move(holder), sample);
}

int32_t SampleDataFree(MP4Sample **sample) {
    if (sample == nullptr) return 1;
    SampleRelease()(*sample);
    *sample = nullptr;
    return 1;
}

int32_t MP4freeData(void **block) {
    if (block == nullptr) return 1;
    std::free(*block);
    *block = nullptr;
    return 1;
}
