// The raw streams of the classic writer's path of `mp4core mux` (--od,
// --scene), read as their bytes arrive: MPEG-4 visual (VOP) video split into
// frames at its planes (mux/mpeg4_split.h), and ADTS AAC split into raw
// AAC frames here. A frame is handed on as soon as its last byte is known,
// and the bytes of the frames handed on are let go, so memory stays flat
// however long the stream.
#pragma once

#include "mux/mpeg4_split.h"

using mux::ByteStream;
using mux::CloseByteStream;
using mux::OpenByteStream;
using mux::RawFrame;
using mux::VideoStream;
using mux::VideoTiming;

// The bytes read so far, let go or held.
inline uint64_t BytesRead(const ByteStream &stream) { return stream.consumed + stream.bytes.size(); }

// Each ADTS frame gives one raw AAC frame, its header (and CRC) stripped;
// the first header gives the configuration.
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
