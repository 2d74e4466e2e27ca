// Helpers for the tests of the write path: a write session with its temp
// files, and a look into the bytes of a written file by atom path.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mp4core.h"
#include "support/test_support.h"

namespace writer_test {

using testing_support::Bytes;

// Atom at `path` in `file`, e.g. "moov/trak#2/mdia/minf/stbl/stco": names
// separated by '/', "#n" picks the n-th atom of that name among its
// siblings (from 1). Returns the atom's bytes, or an empty vector.
Bytes FindAtom(const Bytes &file, const std::string &path);
// File offset of the atom at `path`, or -1.
long AtomOffset(const Bytes &file, const std::string &path);
// The u32 words of a table atom from its EntryCount (offset 12) on: the
// count, then the entries flattened.
std::vector<uint32_t> TableWords(const Bytes &atom);

// A write handle with its output and temp file names, all removed at the
// end. Flush() ends the handle; the destructor flushes a handle that is
// still open.
class WriteSession {
public:
    WriteSession();
    ~WriteSession();
    WriteSession(const WriteSession &) = delete;
    WriteSession &operator=(const WriteSession &) = delete;

    MP4_local_file *file() const { return file_; }
    int32_t Video(uint32_t width = 176, uint32_t height = 144, const Bytes &config = {},
                  uint32_t timescale = 1000, uint8_t compositionTimes = 0,
                  uint32_t profileLevel = 3, uint16_t timeResolution = 25);
    int32_t Audio(uint32_t timescale = 44100, const Bytes &config = {}, uint32_t profile = 0,
                  uint32_t channels = 0, uint32_t sampleRate = 0);
    int32_t Od();
    int32_t Scene();
    int32_t AddVideo(const Bytes &frame, uint32_t time, bool key);
    int32_t AddAudio(const Bytes &frame, uint32_t time);
    // Flushes and gives the written file.
    Bytes Flush();

    const std::string &output() const { return output_.path(); }
    const std::string &videoTemp() const { return videoTemp_.path(); }
    const std::string &audioTemp() const { return audioTemp_.path(); }

private:
    testing_support::TempPath output_{".mp4"};
    testing_support::TempPath videoTemp_{".video"};
    testing_support::TempPath audioTemp_{".audio"};
    MP4_local_file *file_ = nullptr;
};

// The big-endian word at `at`.
inline uint32_t Be32At(const Bytes &b, size_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) |
           b[at + 3];
}

// The unity matrix of "mvhd" and "tkhd".
inline const Bytes kMatrix = testing_support::Cat(
    {testing_support::U32(0x00010000), testing_support::U32(0), testing_support::U32(0),
     testing_support::U32(0), testing_support::U32(0x00010000), testing_support::U32(0),
     testing_support::U32(0), testing_support::U32(0), testing_support::U32(0x40000000)});

// `count` bytes of a recognisable pattern that starts at `seed`.
Bytes Pattern(size_t count, uint8_t seed);

}  // namespace writer_test
