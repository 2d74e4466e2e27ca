// Placeholder until implemented.
#include "mp4core.h"

int32_t SeekTrack(MP4_local_file *, uint32_t, int32_t, int32_t, MP4Sample **) { return -99; }
int32_t SeekTrackPos(MP4_local_file *, uint32_t, int32_t, int32_t, uint32_t *) { return -99; }
