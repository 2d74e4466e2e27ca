// The MPEG-4 video header parser on arbitrary input: ParseVolHeader over a
// block of exactly the input's size, and GetM4vHeaderSize over the input as
// a file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "media/media.h"
#include "mp4core.h"

namespace {
int g_fd = -1;
std::string g_path;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_fd = memfd_create("vol_header_fuzz", 0);
    if (g_fd < 0) return 1;
    g_path = "/proc/self/fd/" + std::to_string(g_fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A copy of exactly `size` bytes, so that a read behind it shows.
    std::unique_ptr<uint8_t[]> block(new uint8_t[size ? size : 1]);
    if (size) memcpy(block.get(), data, size);
    uint32_t width = 0, height = 0, headerSize = 0;
    const int32_t result = ParseVolHeader(block.get(), size, &width, &height, &headerSize);
    if (result == 1 && headerSize > size) __builtin_trap();

    if (g_fd >= 0 && ftruncate(g_fd, 0) == 0 && pwrite(g_fd, data, size, 0) == ssize_t(size))
        GetM4vHeaderSize(g_path.c_str(), &width, &height);
    return 0;
}
