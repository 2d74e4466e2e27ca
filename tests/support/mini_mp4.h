// Minimal MP4 files described in one line of text: "ftyp", "mdat" with the
// samples of every track, then "moov" with one "trak" per track. Each child
// of "stbl" is generated from the track's samples and can be replaced or
// dropped, so that a row varies one table at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "mp4core.h"
#include "support/test_support.h"

namespace testing_support {

struct MiniTrack {
    std::string handler = "vide";
    uint32_t trackId = 1;
    uint32_t delta = 10;                // generated "stts": one entry (count, delta)
    std::vector<Bytes> samples;         // laid out back to back in "mdat"
    uint32_t samplesPerChunk = 1;       // generated "stsc": one entry (1, spc, 1)
    std::vector<uint32_t> syncSamples;  // generated "stss", numbers from 1
    bool withStss = false;
    Bytes sampleEntry;                  // empty: "mp4v" 176x144 or "mp4a"
    std::map<std::string, Bytes> replace;  // for the generated child; empty drops it
};

// A visual sample entry of this size, its children behind the fixed fields.
Bytes VisualEntry(const char *name, uint16_t width, uint16_t height, const Bytes &children = {});
// An "esds" whose decoder-specific info is `config` (hex), in one-byte lengths.
Bytes Esds(const std::string &config);

// The file of one line, tracks separated by ';' (the notation of the
// rows in tests/data/read/*.rows, described in tests/data/read/README.md).
Bytes MiniFile(const std::string &line, std::vector<MiniTrack> *tracks = nullptr);

// A file image written to a temp file and opened with MP4FileOpen (with
// MP4FileOpenEx when `flags` are given), with what the open printed on
// standard output; closed when the object goes.
struct OpenedFile {
    explicit OpenedFile(const Bytes &bytes, int32_t mode = MP4_TABLE_MARKS, int64_t flags = -1);
    ~OpenedFile();
    OpenedFile(const OpenedFile &) = delete;
    OpenedFile &operator=(const OpenedFile &) = delete;
    TempFile file;
    MP4_local_file *handle = nullptr;
    int32_t result = 0;
    std::string output;
};

// The same opened by MP4FileOpenEx, by default with the modern reader.
struct OpenedModern : OpenedFile {
    explicit OpenedModern(const Bytes &bytes, uint32_t flags = MP4_OPEN_MODERN, int32_t mode = MP4_TABLE_KEYFRAMES)
        : OpenedFile(bytes, mode, flags) {}
};

}  // namespace testing_support
