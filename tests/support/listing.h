// Listings: the expected samples of the FFmpeg fixtures (tests/data/*.samples,
// written by make_fixtures.sh from ffprobe) with the CRC-32 they hash sample
// bytes with, and the text listings of what the reader made of a file,
// compared as a whole against golden files in tests/data/read/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tracks/tracks.h"

namespace testing_support {

struct ExpectedSample {
    uint32_t time = 0;  // decoding time less the first, in track ticks
    uint32_t size = 0;
    bool key = false;   // ffprobe's key flag
    uint32_t crc = 0;   // Crc32 of the sample's bytes
};

struct ExpectedTrack {
    uint32_t id = 0;         // "tkhd" track ID
    int32_t type = 0;        // 1 video, 2 audio
    // Where a video track's key frames come from: "stss"; "none" (FFmpeg
    // leaves "stss" out when every sample is a key frame); "vop": the
    // I-VOPs, "stss" having been removed after encoding.
    std::string keys;
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

// Compares `text` with the file NAME under tests/data in one assertion (with
// a diff); with MP4CORE_UPDATE_GOLDEN=1 in the environment it writes the
// file instead.
void ExpectGolden(const std::string &name, const std::string &text);

// The rows of a table kept under tests/data: one a line, fields separated
// by '|' and trimmed; blank lines and lines from '#' left out.
std::vector<std::vector<std::string>> ReadRows(const std::string &name);

// printf into a string (up to 255 characters).
std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The text on one line: newlines as '/', other unprintable bytes as '.'.
std::string OneLine(std::string text);

// One line per atom, children indented: name, offset, size, the record's
// head as copied, and the table or string loaded behind it (in hex, at
// most 48 bytes, then "+N" for the rest).
std::string ListAtoms(const AtomNode *first, int depth = 0);

// The track records of a read handle: every video, audio and other track
// with its cursor and sizes, then its sample and key frame records.
std::string ListTracks(const MP4_local_file *file);

}  // namespace testing_support
