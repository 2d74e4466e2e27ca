// The samples that the flush generates for the object descriptor and scene
// description tracks. Their bytes depend on which media tracks the file
// has; CreateTrack takes the sample size from the same rows.
#include "writer/writer.h"

namespace {

// Object descriptor updates.
constexpr uint8_t kOdVideoAudio[] = {
    0x01, 0x80, 0x80, 0x80, 0x1C, 0x11, 0x80, 0x80, 0x80, 0x09, 0x05, 0x1F, 0x0F, 0x80, 0x80, 0x80,
    0x02, 0x00, 0x01, 0x11, 0x80, 0x80, 0x80, 0x09, 0x02, 0x9F, 0x0F, 0x80, 0x80, 0x80, 0x02, 0x00,
    0x02};
constexpr uint8_t kOdVideo[] = {0x01, 0x08, 0x01, 0x06, 0x00, 0xDF, 0x0F, 0x02, 0x00, 0x01};
constexpr uint8_t kOdAudio[] = {0x01, 0x08, 0x01, 0x06, 0x01, 0x1F, 0x0F, 0x02, 0x00, 0x01};
// Without media tracks the object descriptor sample keeps its ten bytes,
// all zero: there is no stream to describe.
constexpr uint8_t kOdNone[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

// Scene descriptions.
constexpr uint8_t kSceneVideoAudio[] = {0xC0, 0x10, 0x12, 0x81, 0x30, 0x2A, 0x05, 0x72,
                                        0x61, 0x04, 0x88, 0x50, 0x45, 0x05, 0x3F, 0x00};
constexpr uint8_t kSceneVideo[] = {0xC0, 0x10, 0x13, 0x01, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00,
                                   0x00, 0x00, 0x01, 0x2E, 0x08, 0x50, 0x3B, 0xFF, 0x00, 0x00,
                                   0x00, 0x00, 0x00, 0x00, 0x04, 0x50, 0x0F, 0xA0, 0x83, 0xF8,
                                   0x00, 0x00, 0x03, 0xF8, 0x00, 0x00, 0x0F, 0xC0};
constexpr uint8_t kSceneAudio[] = {0xC0, 0x10, 0x12, 0x81, 0x30, 0x2A, 0x02, 0x56, 0xFF,
                                   0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0xC0};

struct SampleRow {
    int32_t trackType;
    bool hasVideo;
    bool hasAudio;
    GeneratedSample sample;
};

template <size_t N>
constexpr GeneratedSample Form(const uint8_t (&bytes)[N]) {
    return {bytes, uint32_t(N)};
}

constexpr SampleRow kSamples[] = {
    {MP4_TRACK_OD, true, true, Form(kOdVideoAudio)},
    {MP4_TRACK_OD, true, false, Form(kOdVideo)},
    {MP4_TRACK_OD, false, true, Form(kOdAudio)},
    {MP4_TRACK_OD, false, false, Form(kOdNone)},
    {MP4_TRACK_SCENE, true, true, Form(kSceneVideoAudio)},
    {MP4_TRACK_SCENE, true, false, Form(kSceneVideo)},
    {MP4_TRACK_SCENE, false, true, Form(kSceneAudio)},
    {MP4_TRACK_SCENE, false, false, {nullptr, 0}},
};

}  // namespace

GeneratedSample GetGeneratedSample(int32_t trackType, bool hasVideo, bool hasAudio) {
    for (const SampleRow &row : kSamples) {
        if (row.trackType == trackType && row.hasVideo == hasVideo && row.hasAudio == hasAudio)
            return row.sample;
    }
    return {nullptr, 0};
}
