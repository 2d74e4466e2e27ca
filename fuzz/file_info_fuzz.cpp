// The media description of an arbitrary file: GetFileInfo, then on a
// handle of its own RetMp4MediaInfo of every track, an ADTS header from
// each audio configuration, and the initial object descriptor written and
// read back.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

int g_fd = -1;
std::string g_path;

void FreeInfo(Mp4MediaInfo *info) {
    free(info->EsdsData);
    free(info->D263Data);
    free(info->DamrData);
    free(info);
}

void DescribeTrack(MP4_local_file *file, uint32_t trackId, int32_t type) {
    Mp4MediaInfo *info = nullptr;
    if (RetMp4MediaInfo(file, trackId, type, &info) != 1) return;
    // The export trusts the atom's size field up to an "esds" record of 228
    // bytes, so it gets a record of that size.
    if (type == MP4_TRACK_AUDIO && info->EsdsData != nullptr) {
        uint8_t header[7];
        uint32_t headerSize = 0;
        uint8_t record[228] = {};
        for (uint32_t i = 0; i < info->EsdsSize && i < sizeof record; ++i) record[i] = info->EsdsData[i];
        AAC_EsdsToAdtsHead(record, 100, header, &headerSize);
    }
    FreeInfo(info);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_fd = memfd_create("file_info_fuzz", 0);
    if (g_fd < 0) return 1;
    g_path = "/proc/self/fd/" + std::to_string(g_fd);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (g_fd < 0 || ftruncate(g_fd, 0) != 0 || pwrite(g_fd, data, size, 0) != ssize_t(size)) return 0;
    FileInfo summary;
    GetFileInfo(g_path.c_str(), &summary);

    MP4_local_file *file = nullptr;
    if (MP4FileOpen(&file, g_path.c_str(), MP4_TABLE_MARKS) != 1) return 0;
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        DescribeTrack(file, v->TrackId, MP4_TRACK_VIDEO);
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
        DescribeTrack(file, a->TrackId, MP4_TRACK_AUDIO);
    uint8_t *iod = nullptr;
    if (EncryptMp4Iod(file, &iod, nullptr, 0) > 0) {
        IodConfigs configs{};
        DecryptMp4Iod(&configs, &iod);
        free(configs.VideoConfig);
        free(configs.AudioConfig);
    }
    MP4FileClose(&file);
    return 0;
}
