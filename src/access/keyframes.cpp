// Placeholder until implemented.
#include "mp4core.h"

int32_t NextKeyFrame(MP4_local_file *, uint32_t, int32_t, MP4Sample **) { return -99; }
int32_t PrevKeyFrame(MP4_local_file *, uint32_t, int32_t, MP4Sample **) { return -99; }
