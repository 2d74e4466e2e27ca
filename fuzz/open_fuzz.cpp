// MP4FileOpen and MP4FileClose on arbitrary input, and MP4FileOpenEx with
// the modern reader: the tree readers, the validation, the records and the
// track loops, in every table mode and with two bad ones. ExerciseHandle is
// where further calls on an open handle go.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "memory_file.h"
#include "mp4core.h"

namespace {

// The input lives in an anonymous in-memory file that the library opens by
// its /proc path, so that no run touches the disk.
int g_fd = -1;
std::string g_path;

// Calls on a handle that opened with 1: the track listing and the decoder
// configurations, which read the tree (and the file) of either reader.
void ExerciseHandle(MP4_local_file *file, int32_t tableMode) {
    (void)tableMode;
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t i = 0; i < count; ++i) {
        MP4TrackInfo info;
        if (MP4GetTrackInfo(file, i, &info) != 1) __builtin_trap();
        uint8_t *config = nullptr;
        uint32_t size = 0;
        if (MP4GetDecoderConfig(file, info.TrackId, info.TrackType, &config, &size) == 1)
            MP4freeData(reinterpret_cast<void **>(&config));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_fd = memfd_create("open_fuzz", 0);
    if (g_fd < 0) return 1;
    g_path = "/proc/self/fd/" + std::to_string(g_fd);
    // The open's diagnostics would drown the fuzzer's own output.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (!WriteInput(g_fd, data, size)) return 0;
    for (uint32_t flags : {0u, uint32_t(MP4_OPEN_MODERN)}) {
        for (int32_t tableMode : {1, 2, 3, 0, 4}) {
            MP4_local_file *file = nullptr;
            const int32_t result = flags == 0
                                       ? MP4FileOpen(&file, g_path.c_str(), tableMode)
                                       : MP4FileOpenEx(&file, g_path.c_str(), tableMode, flags);
            if (result == 1) {
                ExerciseHandle(file, tableMode);
            } else if (file != nullptr) {
                __builtin_trap();  // a failed open leaves no handle
            }
            MP4FileClose(&file);
            if (file != nullptr) __builtin_trap();
        }
    }
    return 0;
}
