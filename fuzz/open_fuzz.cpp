// MP4FileOpen and MP4FileClose on arbitrary input: the tree reader, the
// validation, the records and the track loop, in every table mode and
// with two bad ones. ExerciseHandle is where further calls on an open
// handle go.
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

// Calls on a handle that opened with 1. Nothing yet beyond the open itself.
void ExerciseHandle(MP4_local_file *file, int32_t tableMode) {
    (void)file;
    (void)tableMode;
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
    for (int32_t tableMode : {1, 2, 3, 0, 4}) {
        MP4_local_file *file = nullptr;
        const int32_t result = MP4FileOpen(&file, g_path.c_str(), tableMode);
        if (result == 1) {
            ExerciseHandle(file, tableMode);
        } else if (file != nullptr) {
            __builtin_trap();  // a failed open leaves no handle
        }
        MP4FileClose(&file);
        if (file != nullptr) __builtin_trap();
    }
    return 0;
}
