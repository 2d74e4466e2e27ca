// The raw streams that mux takes, read as their bytes arrive: MPEG-4 Part 2
// video split into frames at its planes, and ADTS AAC split into raw AAC
// frames. A stream comes from a file, or from standard input for "-"; a
// frame is handed on as soon as its last byte is known, and the bytes of
// the frames handed on are let go, so memory stays flat however long the
// stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

// The bytes of a file descriptor as they come; those before `kept` are let
// go at the next read.
struct ByteStream {
    int fd = -1;
    bool owned = false;   // opened here, closed by CloseByteStream
    Bytes bytes;
    bool ended = false;   // no more bytes will come
    bool failed = false;  // a read failed (ended is set too)
    uint64_t consumed = 0;  // bytes let go so far
};

// "-" is standard input. false: the file can't be opened.
bool OpenByteStream(const char *path, ByteStream *stream);
void CloseByteStream(ByteStream *stream);
// The bytes read so far, let go or held.
inline uint64_t BytesRead(const ByteStream &stream) { return stream.consumed + stream.bytes.size(); }

struct RawFrame {
    const uint8_t *data;  // valid until the next call on the stream
    size_t size;
    bool key;
};

struct VideoTiming {
    uint32_t resolution = 0;
    uint32_t fixedIncrement = 0;  // 0: the stream has no fixed rate
};

// Video: the configuration is every byte in front of the first plane (VOP
// start code 00 00 01 B6) but user data; each frame runs from a plane, or
// from the headers in front of it, to the next start code behind its
// plane; a plane coded as I is a key frame.
struct VideoStream {
    ByteStream in;
    Bytes config;
    VideoTiming timing;
    uint8_t profile = 0x01;
    uint32_t width = 0;
    uint32_t height = 0;
    size_t frameStart = 0;  // where the frame being read begins
    size_t plane = 0;       // its plane's start code, or SIZE_MAX before it comes
    size_t scan = 0;        // where the search for the next start code goes on
};

// Reads up to the first plane: configuration, timing, profile and picture
// size. false: the stream ended (or failed) without a video object layer
// and a plane.
bool ReadVideoHeader(VideoStream *video);
// The next frame. false: no frame is left (or a read failed).
bool NextVideoFrame(VideoStream *video, RawFrame *frame);

// Audio: each ADTS frame gives one raw AAC frame, its header (and CRC)
// stripped; the first header gives the configuration.
struct AudioStream {
    ByteStream in;
    uint8_t header[7] = {};
    size_t next = 0;     // where the next frame begins
    bool broken = false;  // the bytes at `next` are no whole ADTS frame
};

// Reads the first frame's header. false: the stream doesn't begin with a
// whole ADTS frame.
bool ReadAudioHeader(AudioStream *audio);
// The next frame. false: the stream ended (fewer than 7 bytes left), a read
// failed, or the bytes are no whole ADTS frame (broken).
bool NextAudioFrame(AudioStream *audio, RawFrame *frame);
