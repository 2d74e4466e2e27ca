// Placeholder until implemented.
#include "mp4core.h"

int32_t MP4FileFlush(MP4_local_file *) { return -99; }
