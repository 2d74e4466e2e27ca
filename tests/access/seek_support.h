// What the seek and key frame tests share: video tracks with key frames at
// chosen samples, and one access call as a test sees it.
#pragma once

#include <cstdint>
#include <vector>

#include "access/access.h"
#include "support/mini_mp4.h"

namespace seek_support {

using testing_support::Bytes;
using testing_support::MiniTrack;

// `count` samples every 10 ticks, key frames at the 0-based `keys` (through
// "stss"). Each sample's bytes name its number.
inline MiniTrack KeyFrameVideo(uint32_t count, const std::vector<uint32_t> &keys,
                               uint32_t id = 1) {
    MiniTrack track;
    track.trackId = id;
    for (uint32_t i = 0; i < count; ++i)
        track.samples.push_back({uint8_t(i), uint8_t(i >> 8), 0xA5, uint8_t(id)});
    track.withStss = true;
    for (uint32_t key : keys) track.syncSamples.push_back(key + 1);
    return track;
}

// The same samples as an audio track.
inline MiniTrack NumberedAudio(uint32_t count, uint32_t id = 1) {
    MiniTrack track = KeyFrameVideo(count, {}, id);
    track.handler = "soun";
    track.withStss = false;
    return track;
}

// Samples every 10 ticks, key frames at times 0, 100 and 200, the last
// sample at 290.
inline MiniTrack ThirtySamplesKeysAt0And100And200() { return KeyFrameVideo(30, {0, 10, 20}); }
// Ten samples every 10 ticks, key frames at samples 0, 4 and 7.
inline MiniTrack TenSamplesKeysAt0And4And7() { return KeyFrameVideo(10, {0, 4, 7}); }

// A sentinel that tells whether an out argument was written.
inline MP4Sample *const kUntouched = reinterpret_cast<MP4Sample *>(0x1);

// The outcome of one call that hands out a sample, given the call's result
// and the address of its out argument; the sample is released.
struct Got {
    int32_t result = 0;
    bool untouched = true;
    uint32_t number = 0;  // the sample's number, from its bytes
    uint32_t time = 0;
    uint8_t key = 0;
};

inline Got Take(int32_t result, MP4Sample **out) {
    MP4Sample *sample = *out;
    Got got;
    got.result = result;
    got.untouched = sample == kUntouched;
    if (!got.untouched && sample != nullptr) {
        got.time = sample->Time;
        got.key = sample->IsKeyFrame;
        if (sample->Size >= 2) got.number = sample->Data[0] | (uint32_t(sample->Data[1]) << 8);
        SampleDataFree(&sample);
    }
    return got;
}

inline VideoTrackNode *FirstVideo(MP4_local_file *handle) { return handle->read.VideoFirst; }

}  // namespace seek_support
