// Elementary streams into tracks: the inverse of src/streams. Each stream
// format is a row of one table (formats.cpp) whose reader takes the
// stream's bytes as they come (a file, or standard input as it arrives)
// and gives the track's description for MP4AddTrack and then its samples
// with decode times, composition offsets and durations. The readers do no
// writing: `mp4core mux` hands what they give to the public writer calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mp4core.h"

namespace mux {

using Bytes = std::vector<uint8_t>;

// The bytes of a file or of standard input as they come. bytes[0] sits at
// offset `consumed` of the stream.
struct ByteStream {
    int fd = -1;
    bool owned = false;     // opened here, closed by CloseByteStream
    bool seekable = false;  // a regular file: a reader may scan it ahead with pread
    Bytes bytes;
    bool ended = false;     // no more bytes will come
    bool failed = false;    // a read failed (ended is set too)
    uint64_t consumed = 0;  // bytes let go so far
};

// "-" is standard input. false: the file can't be opened.
bool OpenByteStream(const char *path, ByteStream *stream);
void CloseByteStream(ByteStream *stream);
// Reads what arrives (at least one byte) behind the bytes held. false at
// the end of the input or after a failed read.
bool ReadMore(ByteStream *stream);
// Reads until at least `count` bytes are held. false: the input ended first.
bool Hold(ByteStream *stream, size_t count);
// Lets the first `count` held bytes go (in large runs, so bytes move
// rarely); gives how far the held bytes moved.
size_t LetGo(ByteStream *stream, size_t count);

// What the command line sets for every reader.
struct Options {
    uint32_t fpsNumerator = 0;    // --fps 30000/1001; 0: not given
    uint32_t fpsDenominator = 0;
};

// A track as its reader describes it. entry.Config points into config.
struct TrackDescription {
    MP4TrackSpec entry{};
    Bytes config;
    std::string notice;  // printed by the tool when not empty, e.g. that
                         // the stream has no timing and 25 fps was taken
};

// One sample. data stays valid until the next call on the reader.
struct Sample {
    const uint8_t *data = nullptr;
    size_t size = 0;
    uint64_t decodeTime = 0;        // track ticks, from 0
    int32_t compositionOffset = 0;  // presentation minus decode time
    uint32_t duration = 0;          // 0: up to the next sample's decode time
    bool key = false;
};

// Why a stream can't go on, and where.
struct Failure {
    uint64_t offset = 0;  // byte of the input
    std::string why;
};

enum class Step { kSample, kEnd, kFailed };

struct Reader;  // a format's own state

struct Format {
    const char *name;         // as the tool lists it, e.g. "H.264 Annex B"
    int32_t trackType;        // 1 video, 2 audio
    // Whether the first bytes (up to 4096, fewer when the stream is
    // shorter) begin a stream of this format.
    bool (*probe)(const uint8_t *head, size_t size);
    // Reads as far as the track's description needs. null: Failure says why.
    Reader *(*open)(ByteStream *in, const Options &options, TrackDescription *track,
                    Failure *failure);
    Step (*next)(Reader *reader, Sample *sample, Failure *failure);
    void (*close)(Reader *reader);
};

// Every format, in the order the probes are tried.
extern const Format kFormats[];
extern const size_t kFormatCount;

}  // namespace mux
