// Placeholder until implemented.
#include "mp4core.h"

int32_t RetMp4MediaInfo(MP4_local_file *, uint32_t, int32_t, Mp4MediaInfo **) { return -99; }
