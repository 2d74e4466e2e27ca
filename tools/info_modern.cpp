// The modern view of mp4core info: every track in the file's order of
// "trak" atoms, as MP4GetTrackInfo describes it, with its average bit rate
// (from MP4GetSampleInfo's sizes) and its decoder configuration in hex
// (MP4GetDecoderConfig).
#include <cinttypes>
#include <cstdio>
#include <string>

#include "result_text.h"
#include "views.h"

namespace {

// Four characters as the file has them; '?' for a byte that isn't
// printable, "none" for four zeros.
std::string FourCc(const char (&code)[4]) {
    if (code[0] == 0 && code[1] == 0 && code[2] == 0 && code[3] == 0) return "none";
    std::string text;
    for (char c : code) text += c >= 0x20 && c < 0x7F ? c : '?';
    return text;
}

// Bits per second over the track's duration: the sum of its sample sizes,
// which MP4GetSampleInfo gives without reading the samples. False if a
// sample can't be described (a track without tables).
bool AverageBitRate(MP4_local_file *file, const MP4TrackInfo &track, uint64_t *bitRate) {
    uint64_t bytes = 0;
    for (uint32_t number = 0; number < track.SampleCount; ++number) {
        MP4SampleInfo info{};
        if (MP4GetSampleInfo(file, track.TrackId, track.TrackType, number, &info) != 1)
            return false;
        bytes += info.Size;
    }
    *bitRate = track.Duration == 0
        ? 0 : uint64_t(double(bytes) * 8 * track.Timescale / double(track.Duration));
    return true;
}

// The decoder configuration in hex; false if the call failed for another
// reason than the entry having none.
bool PrintDecoderConfig(MP4_local_file *file, const MP4TrackInfo &track) {
    uint8_t *data = nullptr;
    uint32_t size = 0;
    const int32_t result =
        MP4GetDecoderConfig(file, track.TrackId, track.TrackType, &data, &size);
    if (result == 1) {
        PrintHexBlock("decoder configuration", data, size, 4);
        void *block = data;
        MP4freeData(&block);
        return true;
    }
    constexpr int32_t kNoConfiguration = -97;
    if (result == kNoConfiguration) {
        std::printf("    no decoder configuration\n");
        return true;
    }
    char context[32];
    std::snprintf(context, sizeof context, "track %u", track.TrackId);
    ReportFailure(kInfoCommand.name, "MP4GetDecoderConfig", result, context);
    return false;
}

bool PrintTrack(MP4_local_file *file, const MP4TrackInfo &track) {
    if (track.TrackId != 0)
        std::printf("track %u", track.TrackId);
    else
        std::printf("track without \"tkhd\"");
    std::printf(": %s \"%s\" (handler \"%s\")", TrackTypeName(track.TrackType),
                FourCc(track.Format).c_str(), FourCc(track.Handler).c_str());
    if (track.TrackType == MP4_TRACK_VIDEO) {
        std::printf(", %ux%u, rotation %u", track.Width, track.Height, track.Rotation);
        if (track.PixelAspectH != track.PixelAspectV)
            std::printf(", pixel aspect %u:%u", track.PixelAspectH, track.PixelAspectV);
    } else if (track.TrackType == MP4_TRACK_AUDIO) {
        std::printf(", %u Hz, %u channels", track.SampleRate, track.Channels);
    }
    std::printf(", %u samples", track.SampleCount);
    if (track.FragmentCount > 0) std::printf(", %u fragments", track.FragmentCount);
    std::printf("\n");

    std::printf("    timescale %u, duration %" PRIu64, track.Timescale, track.Duration);
    if (track.Timescale) std::printf(" (%.3f s)", double(track.Duration) / track.Timescale);
    uint64_t bitRate = 0;
    if (track.TrackId != 0 && AverageBitRate(file, track, &bitRate))
        std::printf(", bit rate avg %" PRIu64 "\n", bitRate);
    else
        std::printf(", no sample table\n");

    std::printf("    language %s", track.Language);
    if (track.EditMediaTime >= 0)
        std::printf(", edit list: media time %" PRId64 ", delay %" PRIu64, track.EditMediaTime,
                    track.EditDelay);
    if (track.Encrypted) std::printf(", encrypted, scheme \"%s\"", FourCc(track.Scheme).c_str());
    std::printf("\n");
    return track.TrackId == 0 || PrintDecoderConfig(file, track);
}

}  // namespace

int PrintModernInfo(MP4_local_file *file) {
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    std::printf("%u tracks\n", count);
    bool ok = true;
    for (uint32_t index = 0; index < count; ++index) {
        MP4TrackInfo track{};
        const int32_t result = MP4GetTrackInfo(file, index, &track);
        if (result == 1) {
            ok &= PrintTrack(file, track);
            continue;
        }
        char context[32];
        std::snprintf(context, sizeof context, "track index %u", index);
        ReportFailure(kInfoCommand.name, "MP4GetTrackInfo", result, context);
        ok = false;
    }
    return ok ? 0 : 1;
}
