// The modern view of mp4core samples: every track in the file's order of
// "trak" atoms, every sample by number (MP4GetSampleInfo for its place and
// times, MP4ReadSample for its bytes), one line each.
#include <cinttypes>
#include <cstdio>

#include "result_text.h"
#include "views.h"

namespace {

// Lists one track; false if a call failed.
bool ListTrack(MP4_local_file *file, const MP4TrackInfo &track) {
    const char *name = TrackTypeName(track.TrackType);
    if (track.SampleCount == 0) {
        std::printf("%u %s no samples\n", track.TrackId, name);
        return true;
    }
    if (track.FragmentCount > 0)
        std::printf("# track %u %s: %u samples, %u fragments\n", track.TrackId, name,
                    track.SampleCount, track.FragmentCount);
    bool ok = true;
    SampleErrors errors("MP4ReadSample", track.TrackId, name);
    for (uint32_t number = 0; number < track.SampleCount; ++number) {
        MP4Sample *sample = nullptr;
        const int32_t result =
            MP4ReadSample(file, track.TrackId, track.TrackType, number, &sample);
        if (result == 1) {
            PrintModernSampleLine(file, track.TrackId, track.TrackType, number, sample);
            SampleDataFree(&sample);
            continue;
        }
        ok = false;
        // -97: no tables, -98/-99: no such track; nothing of it can be read.
        if (result <= -97) {
            std::printf("%u %s error %d\n", track.TrackId, name, int(result));
            ReportSampleCall("MP4ReadSample", result, track.TrackId, name);
            return ok;
        }
        errors.Add(number, result);
    }
    return ok;
}

}  // namespace

void PrintModernSampleLine(MP4_local_file *file, uint32_t trackId, int32_t type, uint32_t number,
                           const MP4Sample *sample) {
    MP4SampleInfo info{};
    const int32_t result = MP4GetSampleInfo(file, trackId, type, number, &info);
    const char *name = TrackTypeName(type);
    if (result != 1) {
        std::printf("%u %s %u error %d\n", trackId, name, number, int(result));
        ReportSampleCall("MP4GetSampleInfo", result, trackId, name, &number);
        return;
    }
    std::printf("%u %s %u %" PRIu64 " %d %u %u %" PRIu64 " %08x\n", trackId, name, number,
                info.DecodeTime, int(info.CompositionOffset), info.Size,
                unsigned(info.IsKeyFrame), info.FileOffset, Crc32(sample->Data, sample->Size));
}

int ListModernSamples(MP4_local_file *file, uint32_t trackId, bool *found) {
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    bool ok = true;
    for (uint32_t index = 0; index < count; ++index) {
        MP4TrackInfo track{};
        if (MP4GetTrackInfo(file, index, &track) != 1) continue;
        // A "trak" without "tkhd" has no ID to read it by.
        if (track.TrackId == 0 || (trackId != 0 && track.TrackId != trackId)) continue;
        *found = true;
        ok &= ListTrack(file, track);
    }
    return ok ? 0 : 1;
}
