// Samples in bulk: MP4ReadSampleInto, MP4GetSampleInfos and MP4ReadSamples.
#include "access/access.h"

int32_t MP4ReadSampleInto(MP4_local_file *, uint32_t, int32_t, uint32_t, uint8_t *, uint32_t,
                          MP4SampleInfo *) {
    return -99;
}

int32_t MP4GetSampleInfos(MP4_local_file *, uint32_t, int32_t, uint32_t, uint32_t,
                          MP4SampleInfo *) {
    return -99;
}

int32_t MP4ReadSamples(MP4_local_file *, uint32_t, int32_t, uint32_t, uint32_t, uint8_t *, uint64_t,
                       MP4SampleInfo *, uint32_t *) {
    return -99;
}
