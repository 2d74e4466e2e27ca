// Raw MPEG-4 visual (VOP) video split into frames at its planes, read as its
// bytes arrive: the classic writer's path of `mp4core mux` (--od,
// --scene) and the fixed-timing MPEG-4 reader take it.
#pragma once

#include "mux/mux.h"

namespace mux {

struct RawFrame {
    const uint8_t *data;  // valid until the next call on the stream
    size_t size;
    bool key;
};

struct VideoTiming {
    uint32_t resolution = 0;
    uint32_t fixedIncrement = 0;  // 0: the stream has no fixed rate
};

// The configuration is every byte in front of the first plane (VOP start
// code 00 00 01 B6) but user data; each frame runs from a plane, or from
// the headers in front of it, to the next start code behind its plane; a
// plane coded as I is a key frame.
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

}  // namespace mux
