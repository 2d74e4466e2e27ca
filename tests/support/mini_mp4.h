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

// The file of one line, tracks separated by ';', each a list of words
// applied in order (the rows of tests/data/read/*.rows):
//   video N | audio N    N samples holding their number (low, high byte),
//                        0xA5 and the track ID; video: key frame 0 in "stss"
//   scan T,T.. | scan -  video of planes of these coding types, no "stss";
//                        lead L: bytes in front of each start code; first F:
//                        the first plane's payload (the others have 6 bytes)
//   keys K,K.. | keys -  the key frames (0-based) in "stss"
//   id I, handler NAME, ticks D, chunk N (samples per chunk), sample HEX
//   entry mp4v W H HEX|- | entry s263 W H | entry mp4a | entry NAME (78 zero
//                        bytes): the sample entry; HEX: the mp4v's first child
//   empty I | cut I      sample I of no bytes | in the last two bytes of the
//                        file (words after a cut must not change sizes)
//   no NAME | NAME W,W.. the "stbl" child dropped | of these words ("co64"
//                        stands for "stco")
//   rename FROM TO N     the Nth name FROM in the file becomes TO
//   moov first           "moov" in front of "mdat", so that cuts reach it
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

}  // namespace testing_support
