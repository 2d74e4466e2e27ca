// The media description of an arbitrary file: GetFileInfo, then on a
// handle of its own RetMp4MediaInfo of every track, an ADTS header from
// each audio configuration, and the initial object descriptor written and
// read back.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "memory_file.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

void FreeInfo(Mp4MediaInfo *info) {
    for (uint8_t *block : {info->EsdsData, info->D263Data, info->DamrData, reinterpret_cast<uint8_t *>(info)}) free(block);
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *path = InputFile(data, size);
    if (path == nullptr) return 0;
    FileInfo summary;
    GetFileInfo(path, &summary);

    MP4_local_file *file = nullptr;
    if (MP4FileOpen(&file, path, MP4_TABLE_MARKS) != 1) return 0;
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
