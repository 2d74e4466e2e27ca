// The MPEG-4 video header parser on arbitrary input: ParseVolHeader over a
// block of exactly the input's size, and GetM4vHeaderSize over the input as
// a file.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "media/media.h"
#include "memory_file.h"
#include "mp4core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A copy of exactly `size` bytes, so that a read behind it shows.
    std::unique_ptr<uint8_t[]> block(new uint8_t[size ? size : 1]);
    if (size) memcpy(block.get(), data, size);
    uint32_t width = 0, height = 0, headerSize = 0;
    const int32_t result = ParseVolHeader(block.get(), size, &width, &height, &headerSize);
    if (result == 1 && headerSize > size) __builtin_trap();

    if (const char *path = InputFile(data, size)) GetM4vHeaderSize(path, &width, &height);
    return 0;
}
