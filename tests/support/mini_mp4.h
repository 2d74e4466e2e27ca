// A builder of whole minimal MP4 files: "ftyp", "mdat" with the samples of
// every track, then "moov" with one "trak" per track. Each child of "stbl"
// is generated from the track's samples and can be replaced or dropped, so
// that a test varies one table at a time.
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
    uint32_t timescale = 1000;
    uint32_t delta = 10;              // generated "stts": one entry (count, delta)
    std::vector<Bytes> samples;       // laid out back to back in "mdat"
    uint32_t samplesPerChunk = 1;     // generated "stsc": one entry (1, spc, 1)
    std::vector<uint32_t> syncSamples;  // generated "stss", numbers from 1
    bool withStss = false;
    Bytes sampleEntry;                // empty: "mp4v" 176x144 or "mp4a"
    // Whole atoms that stand for the generated child of that name; an
    // empty value drops the child.
    std::map<std::string, Bytes> replace;
};

Bytes BuildMiniMp4(const std::vector<MiniTrack> &tracks);
// The same with "moov" in front of "mdat", so that a cut anywhere in the
// file leaves the index whole or cuts it.
Bytes BuildMiniMp4MoovFirst(const std::vector<MiniTrack> &tracks);
// The file offset of sample `index` of the first track in a built file.
uint32_t MiniSampleOffset(const MiniTrack &track, size_t index);

// `count` samples every 10 ticks whose bytes name their number (low byte,
// high byte), then 0xA5 and the track ID; a video track has its key frames
// at the 0-based `keys` (through "stss").
MiniTrack KeyedVideo(uint32_t count, const std::vector<uint32_t> &keys, uint32_t id = 1);
MiniTrack KeyedAudio(uint32_t count, uint32_t id = 1);

// Sample entries. `child` is the entry's first child (an "esds" atom).
Bytes Mp4vEntry(uint16_t width, uint16_t height, const Bytes &child = {});
Bytes S263Entry(uint16_t width, uint16_t height);
Bytes Mp4aEntry();

// A sample that starts with `lead` bytes of 0x55, then the start code of a
// video object plane and a byte with `codingType` in its top two bits,
// then `payload` bytes.
Bytes Vop(uint8_t codingType, size_t lead = 0, size_t payload = 6);

// A file described in one line (the rows of tests/data/read/*.rows), the
// tracks separated by ';', each a list of words applied in order:
//   video N | audio N | scan T,T.. | scan -   a track of N numbered samples
//       (video: key frame 0 in "stss"), or of planes of these coding types
//       (no "stss"; "-": no samples)
//   keys K,K.. | keys -       the key frames (0-based) through "stss"
//   id I, handler NAME, ticks D, lead L, first F (the first plane's payload)
//   entry mp4v W H [HEX] | entry s263 W H | entry mp4a | entry NAME   the
//       sample entry (HEX: its first child); NAME: 78 zero bytes
//   sample HEX                another sample
//   empty I | cut I           sample I of no bytes | moved to the last two
//       bytes of the file (words after a cut must not change sizes)
//   no NAME | NAME W,W..      the "stbl" child dropped | as these words
//       ("co64" stands for "stco")
//   rename FROM TO N          the Nth name FROM in the file becomes TO
// `tracks` receives the tracks.
Bytes MiniFile(const std::string &line, std::vector<MiniTrack> *tracks = nullptr);

// A full atom whose body is big-endian words: the sample tables, e.g.
// Words("stts", {1, 3, 10}) for one entry of 3 samples of 10 ticks.
Bytes Words(const char *name, const std::vector<uint32_t> &words);

// A file image written to a temp file and opened with MP4FileOpen, with
// what the open printed on standard output; closed when the object goes.
struct OpenedFile {
    explicit OpenedFile(const Bytes &bytes, int32_t mode = MP4_TABLE_MARKS);
    ~OpenedFile();
    OpenedFile(const OpenedFile &) = delete;
    OpenedFile &operator=(const OpenedFile &) = delete;
    TempFile file;
    MP4_local_file *handle = nullptr;
    int32_t result = 0;
    std::string output;
};

}  // namespace testing_support
