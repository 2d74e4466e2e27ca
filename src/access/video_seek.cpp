// Placeholder until implemented.
#include "mp4core.h"

int32_t Mp4VideoSeek(MP4_local_file *, uint32_t, int32_t, uint32_t *, void *, void *, uintptr_t, uintptr_t, uintptr_t, uintptr_t) { return -1; }
