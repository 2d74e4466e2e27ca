// The expected sample listings of the FFmpeg fixtures (tests/data/*.samples,
// written by make_fixtures.sh from ffprobe), and the CRC-32 they hash
// sample bytes with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

struct ExpectedSample {
    uint32_t time = 0;  // decoding time less the first, in track ticks
    uint32_t size = 0;
    bool key = false;   // ffprobe's key flag (see KeySource)
    uint32_t crc = 0;   // Crc32 of the sample's bytes
};

// Where a video track's key frames come from.
enum class KeySource {
    Stss,     // the file's "stss"
    None,     // no "stss" (FFmpeg leaves it out when every sample is a key frame)
    PlaneScan // "stss" removed after encoding; key marks are the I-VOPs
};

struct ExpectedTrack {
    uint32_t id = 0;         // "tkhd" track ID
    int32_t type = 0;        // 1 video, 2 audio
    std::string codec;       // ffprobe's codec name
    uint32_t timescale = 0;
    KeySource keys = KeySource::None;
    std::vector<ExpectedSample> samples;
};

struct Listing {
    std::string error;  // empty when the listing was read
    std::vector<ExpectedTrack> tracks;
};

// Reads a listing file; on any malformed line `error` says where.
Listing LoadListing(const std::string &path);

// The IEEE CRC-32 (reflected 0xEDB88320, initial and final value all ones),
// the one zlib's crc32 and ffprobe's "CRC32" data hash compute.
uint32_t Crc32(const uint8_t *data, size_t size);

}  // namespace testing_support
