// The read path on arbitrary input, through both readers: open in every
// table mode and two bad ones, read every sample of every video and audio
// track by cursor and a few by time, then every track by number with its
// sample descriptions, decoder configuration and a search past 32-bit
// times; its tags and chapters; close.
#include <cstdint>
#include <initializer_list>
#include <string>

#include "heap_ceiling.h"
#include "memory_file.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

void ReadByCursor(MP4_local_file *file, uint32_t trackId, int32_t type, uint32_t count) {
    // -82 moves the cursor on, on a modern handle -87 and -83 too; any
    // other result but 1 ends the track.
    for (uint64_t turn = 0; turn <= uint64_t(count) + 1; ++turn) {
        MP4Sample *sample = nullptr;
        const int32_t result = GetNextSample(file, trackId, type, &sample);
        if (result == 1) SampleDataFree(&sample);
        else if (result != -82 && result != -87 && result != -83) break;
    }
    for (int32_t time : {-1, 0, 1000, 1 << 24, INT32_MAX}) {
        MP4Sample *sample = nullptr;
        if (GetSample(file, trackId, type, time, &sample) == 1) SampleDataFree(&sample);
    }
}

void ReadByNumber(MP4_local_file *file) {
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t i = 0; i < count; ++i) {
        MP4TrackInfo info;
        if (MP4GetTrackInfo(file, i, &info) != 1) __builtin_trap();
        // A track without tables still counts what its "stsz" claims.
        for (uint32_t n = 0; n < info.SampleCount; ++n) {
            MP4SampleInfo described;
            MP4Sample *sample = nullptr;
            if (MP4GetSampleInfo(file, info.TrackId, info.TrackType, n, &described) != 1) break;
            if (MP4ReadSample(file, info.TrackId, info.TrackType, n, &sample) == 1)
                SampleDataFree(&sample);
        }
        uint32_t found = 0;
        for (uint64_t time : {uint64_t(0), uint64_t(1) << 33, UINT64_MAX})
            MP4FindSample(file, info.TrackId, info.TrackType, time, MP4_FIND_KEY, &found);
        uint8_t *config = nullptr;
        uint32_t size = 0;
        if (MP4GetDecoderConfig(file, info.TrackId, info.TrackType, &config, &size) == 1)
            MP4freeData(reinterpret_cast<void **>(&config));
    }
}

// Tags and chapters: the block of each list stays under the ceiling of the
// open, and every text ends with its NUL.
void ReadMetadata(MP4_local_file *file, size_t inputSize) {
    const size_t heap = HeapInUse();
    MP4Tag *tags = nullptr;
    uint32_t count = 0;
    if (MP4GetMetadata(file, &tags, &count) == 1) {
        CheckHeapCeiling(heap, inputSize);
        for (uint32_t i = 0; i < count; ++i)
            if (tags[i].Key[0] == 0 || (tags[i].Type == MP4_TAG_TEXT && tags[i].Value[tags[i].Size] != 0))
                __builtin_trap();
        MP4FreeMetadata(tags);
    }
    MP4Chapter *chapters = nullptr;
    if (MP4GetChapters(file, &chapters, &count) == 1) {
        CheckHeapCeiling(heap, inputSize);
        for (uint32_t i = 0; i < count; ++i)
            if (chapters[i].Timescale == 0 || chapters[i].End < chapters[i].Start) __builtin_trap();
        MP4FreeChapters(chapters);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *path = InputFile(data, size);
    if (path == nullptr) return 0;
    for (uint32_t flags : {0u, uint32_t(MP4_OPEN_MODERN)}) {
        for (int32_t mode : {1, 2, 3, 0, 4}) {
            MP4_local_file *file = nullptr;
            const size_t heap = HeapInUse();
            const int32_t result = flags == 0 ? MP4FileOpen(&file, path, mode)
                                              : MP4FileOpenEx(&file, path, mode, flags);
            if (result != 1) {
                if (file != nullptr) __builtin_trap();  // a failed open leaves no handle
                continue;
            }
            if (flags != 0) CheckHeapCeiling(heap, size);
            for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
                ReadByCursor(file, v->TrackId, MP4_TRACK_VIDEO, v->SampleCount);
            for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
                ReadByCursor(file, a->TrackId, MP4_TRACK_AUDIO, a->SampleCount);
            ReadByNumber(file);
            ReadMetadata(file, size);
            // Atom paths: fixed ones, the input's first bytes, and names at its first offsets.
            const std::string raw(reinterpret_cast<const char *>(data), size < 300 ? size : 300);
            const std::string names = raw.size() < 24 ? raw : raw.substr(4, 4) + "/" + raw.substr(12, 4) + "[2]/*/" + raw.substr(20, 4);
            for (const char *path : {raw.c_str(), names.c_str(), "moov/trak[1]/mdia/minf/stbl/stsd/*[1]/*", "*[2]/*[1]/*", "moov/trak[0]", "mdat"}) {
                uint8_t *payload = nullptr;
                uint64_t bytes = 0;
                if (MP4GetAtom(file, path, &payload, &bytes) == 1) MP4freeData(reinterpret_cast<void **>(&payload));
            }
            MP4FileClose(&file);
            if (file != nullptr) __builtin_trap();
        }
    }
    return 0;
}
