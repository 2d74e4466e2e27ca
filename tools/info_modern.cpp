// The modern view of mp4core info: every track in the file's order of
// "trak" atoms, as MP4GetTrackInfo describes it, with its average bit rate
// (from MP4GetSampleInfo's sizes) and its decoder configuration in hex
// (MP4GetDecoderConfig).
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "atoms/fields.h"
#include "atoms/atoms.h"

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

// The payload of an atom of track `index` (from 0), by its path below
// "trak"; empty when there is none.
std::vector<uint8_t> TrackAtom(MP4_local_file *file, uint32_t index, const char *below) {
    char path[160];
    std::snprintf(path, sizeof path, "moov/trak[%u]/%s", index + 1, below);
    uint8_t *data = nullptr;
    uint64_t size = 0;
    std::vector<uint8_t> payload;
    if (MP4GetAtom(file, path, &data, &size) == 1) payload.assign(data, data + size);
    void *block = data;
    MP4freeData(&block);
    return payload;
}

uint32_t Be(const std::vector<uint8_t> &bytes, size_t at, size_t count) {
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i) value = value << 8 | bytes[at + i];
    return value;
}

// The formats of a track's sample entries, from the payload of its "stsd"
// (version and flags, count, then the entries' heads and bodies).
void PrintEntries(MP4_local_file *file, uint32_t index, uint32_t count) {
    const std::vector<uint8_t> stsd = TrackAtom(file, index, "mdia/minf/stbl/stsd");
    std::printf("    %u sample entries:", count);
    for (size_t at = 8; at + 8 <= stsd.size();) {
        const uint32_t size = Be(stsd, at, 4);
        const char name[4] = {char(stsd[at + 4]), char(stsd[at + 5]), char(stsd[at + 6]), char(stsd[at + 7])};
        std::printf(" \"%s\"", FourCc(name).c_str());
        if (size < 8) break;
        at += size;
    }
    std::printf("\n");
}

// The colour atoms of the first sample entry: "colr" (coded points, or an
// ICC profile), "mdcv" (mastering display: primaries and white point in
// 0.00002, luminance in 0.0001 cd/m2) and "clli" (content light levels).
void PrintColour(MP4_local_file *file, uint32_t index) {
    namespace f = field;
    constexpr size_t kHead = kBareHeadLength;
    const std::vector<uint8_t> colr = TrackAtom(file, index, "mdia/minf/stbl/stsd/*[1]/colr");
    if (colr.size() >= f::kColrMatrix + 2 - kHead) {
        const std::string type(colr.begin(), colr.begin() + 4);
        if (type == "nclx" || type == "nclc") {
            std::printf("    colour: primaries %u, transfer %u, matrix %u", Be(colr, f::kColrPrimaries - kHead, 2),
                        Be(colr, f::kColrTransfer - kHead, 2), Be(colr, f::kColrMatrix - kHead, 2));
            if (type == "nclx" && colr.size() > f::kColrRange - kHead)
                std::printf(", %s range", (colr[f::kColrRange - kHead] & 0x80) != 0 ? "full" : "limited");
            std::printf("\n");
        } else {
            std::printf("    colour: \"%s\", %zu bytes\n", type.c_str(), colr.size() - 4);
        }
    }
    const std::vector<uint8_t> mdcv = TrackAtom(file, index, "mdia/minf/stbl/stsd/*[1]/mdcv");
    if (mdcv.size() >= f::kMdcvMinLuminance + 4 - kHead) {
        std::printf("    mastering display: primaries");
        for (size_t at = f::kMdcvPrimaries - kHead; at < f::kMdcvMaxLuminance - kHead; at += 4)
            std::printf("%s %.4f,%.4f", at == f::kMdcvWhitePoint - kHead ? ", white point" : "",
                        Be(mdcv, at, 2) * 0.00002, Be(mdcv, at + 2, 2) * 0.00002);
        std::printf(", luminance %.4f to %.4f cd/m2\n", Be(mdcv, f::kMdcvMinLuminance - kHead, 4) * 0.0001,
                    Be(mdcv, f::kMdcvMaxLuminance - kHead, 4) * 0.0001);
    }
    const std::vector<uint8_t> clli = TrackAtom(file, index, "mdia/minf/stbl/stsd/*[1]/clli");
    if (clli.size() >= f::kClliMaxFall + 2 - kHead)
        std::printf("    content light level: max %u, frame average %u cd/m2\n", Be(clli, f::kClliMaxCll - kHead, 2),
                    Be(clli, f::kClliMaxFall - kHead, 2));
}

bool PrintTrack(MP4_local_file *file, uint32_t index, const MP4TrackInfo &track) {
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
        if (track.Flags & MP4_TRACK_MIRRORED) std::printf(", mirrored");
    } else if (track.TrackType == MP4_TRACK_AUDIO) {
        std::printf(", %u Hz, %u channels", track.SampleRate, track.Channels);
    }
    std::printf(", %u samples", track.SampleCount);
    if (track.FragmentCount > 0) std::printf(", %u fragments", track.FragmentCount);
    if (track.Flags & MP4_TRACK_DISABLED) std::printf(", disabled");
    std::printf("\n");
    if (track.EntryCount > 1) PrintEntries(file, index, track.EntryCount);

    std::printf("    timescale %u, duration %" PRIu64, track.Timescale, track.Duration);
    if (track.Timescale) std::printf(" (%.3f s)", double(track.Duration) / track.Timescale);
    if (track.HeaderDuration == UINT64_MAX)
        std::printf(", header duration unknown");
    else if (track.HeaderDuration != track.Duration)
        std::printf(", header duration %" PRIu64, track.HeaderDuration);
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
    if (track.TrackType == MP4_TRACK_VIDEO) PrintColour(file, index);
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
            ok &= PrintTrack(file, index, track);
            continue;
        }
        char context[32];
        std::snprintf(context, sizeof context, "track index %u", index);
        ReportFailure(kInfoCommand.name, "MP4GetTrackInfo", result, context);
        ok = false;
    }
    ok &= PrintTagsAndChapters(file);
    return ok ? 0 : 1;
}
