// Placeholder until implemented.
#include "mp4core.h"

int32_t GetNextSample(MP4_local_file *, uint32_t, int32_t, MP4Sample **) { return -99; }
int32_t GetSample(MP4_local_file *, uint32_t, int32_t, int32_t, MP4Sample **) { return -99; }
int32_t SampleDataFree(MP4Sample **) { return 1; }
int32_t MP4freeData(void **) { return 1; }
