// Placeholder until implemented.
#include "mp4core.h"
#include "frame/frame.h"

int32_t MP4FileOpen(MP4_local_file **file, const char *, int32_t) { if (file) *file = nullptr; return -96; }
uint32_t MP4FileClose(MP4_local_file **file) { if (file) *file = nullptr; return 1; }
