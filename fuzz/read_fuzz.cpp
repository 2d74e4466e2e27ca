// The read path on arbitrary input, through both readers: open in each
// table mode, read every sample of every video and audio track, take a few
// samples by time, close. On a modern handle also every sample of every
// track by number, and a search past 32-bit times.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "memory_file.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

// The input lives in an anonymous in-memory file that the library opens by
// its /proc path, so that no run touches the disk.
int g_fd = -1;
std::string g_path;

void ReadTrack(MP4_local_file *file, uint32_t trackId, int32_t type, uint32_t count) {
    // -82 moves the cursor on, on a modern handle -87 and -83 too; any
    // other result but 1 ends the track.
    for (uint64_t turn = 0; turn <= uint64_t(count) + 1; ++turn) {
        MP4Sample *sample = nullptr;
        int32_t result = GetNextSample(file, trackId, type, &sample);
        if (result == 1) {
            SampleDataFree(&sample);
        } else if (result != -82 && result != -87 && result != -83) {
            break;
        }
    }
    for (int32_t time : {-1, 0, 1000, 1 << 24, INT32_MAX}) {
        MP4Sample *sample = nullptr;
        if (GetSample(file, trackId, type, time, &sample) == 1) SampleDataFree(&sample);
    }
}

// Every track by number, with its sample descriptions and a search past
// 32-bit times.
void ReadByNumber(MP4_local_file *file) {
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t i = 0; i < count; ++i) {
        MP4TrackInfo info;
        if (MP4GetTrackInfo(file, i, &info) != 1) __builtin_trap();
        for (uint32_t n = 0; n < info.SampleCount; ++n) {
            MP4SampleInfo described;
            MP4Sample *sample = nullptr;
            // A track without tables still counts what its "stsz" claims.
            if (MP4GetSampleInfo(file, info.TrackId, info.TrackType, n, &described) != 1) break;
            if (MP4ReadSample(file, info.TrackId, info.TrackType, n, &sample) == 1)
                SampleDataFree(&sample);
        }
        uint32_t found = 0;
        for (uint64_t time : {uint64_t(0), uint64_t(1) << 33, UINT64_MAX})
            MP4FindSample(file, info.TrackId, info.TrackType, time, MP4_FIND_KEY, &found);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_fd = memfd_create("read_fuzz", 0);
    if (g_fd < 0) return 1;
    g_path = "/proc/self/fd/" + std::to_string(g_fd);
    // The open's diagnostics would drown the fuzzer's own output.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (g_fd < 0 || !WriteInput(g_fd, data, size)) return 0;
    for (uint32_t flags : {0u, uint32_t(MP4_OPEN_MODERN)}) {
        for (int32_t mode = 1; mode <= 3; ++mode) {
            MP4_local_file *file = nullptr;
            if (MP4FileOpenEx(&file, g_path.c_str(), mode, flags) != 1) continue;
            for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
                ReadTrack(file, v->TrackId, MP4_TRACK_VIDEO, v->SampleCount);
            for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
                ReadTrack(file, a->TrackId, MP4_TRACK_AUDIO, a->SampleCount);
            if (flags != 0) ReadByNumber(file);
            MP4FileClose(&file);
        }
    }
    return 0;
}
