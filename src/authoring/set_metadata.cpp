// MP4SetMetadata and MP4SetChapters: what a write handle is to write as its
// tags and chapters. Not written yet: every handle refuses them.
#include "frame/frame.h"

int32_t MP4SetMetadata(MP4_local_file *file, const MP4Tag *, uint32_t) {
    return file == nullptr ? -99 : -98;
}

int32_t MP4SetChapters(MP4_local_file *file, const MP4Chapter *, uint32_t) {
    return file == nullptr ? -99 : -98;
}
