// What the stream readers of src/mux share: where a reader stands in its
// input, how it reports a failure, and the functions of each format, which
// formats.cpp puts in its table.
#pragma once

#include <cstdarg>

#include "mux/mux.h"

namespace mux {

// The base of each format's state; the format's close deletes it.
struct Reader {
    virtual ~Reader() = default;
};

// Where a reader stands: the next unread byte among the bytes held.
struct Cursor {
    ByteStream *in = nullptr;
    size_t at = 0;
    // That byte's offset in the input.
    uint64_t Offset() const { return in->consumed + at; }
    const uint8_t *Here() const { return in->bytes.data() + at; }
    size_t Held() const { return in->bytes.size() - at; }
    // Reads until `count` bytes from here are held; false: the input ended first.
    bool Hold(size_t count) { return mux::Hold(in, at + count); }
    // Lets the bytes before here go (the last sample handed on is done with).
    void Release() { at -= LetGo(in, at); }
};

// Sets `failure` (the byte and why, printf style) and gives kFailed.
Step Fail(Failure *failure, uint64_t offset, const char *format, ...) __attribute__((format(printf, 3, 4)));

// The end of a stream of frames at the cursor: kEnd when no byte is left,
// else kFailed with why (a failed read, or `what` cut short).
Step EndOfFrames(const Cursor &cursor, Failure *failure, const char *what);

// `bytes` (at most 8) little-endian bytes as a number, as RIFF, Ogg and IVF
// store their fields.
inline uint64_t LittleEndian(const uint8_t *at, int bytes) {
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | at[i];
    return value;
}

// A track description's sound fields; timescale = rate.
void DescribeSound(TrackDescription *track, const char *format, uint32_t rate, uint32_t channels);

// ---- The formats, one file each ----------------------------------------

#define MUX_READER(name)                                                                              \
    bool name##Probe(const uint8_t *head, size_t size);                                               \
    Reader *name##Open(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure); \
    Step name##Next(Reader *reader, Sample *sample, Failure *failure);                                \
    void name##Close(Reader *reader);

MUX_READER(Adts)        // adts.cpp
MUX_READER(MpegAudio)   // mpeg_audio.cpp
MUX_READER(Ac3)         // ac3.cpp, AC-3 and E-AC-3
MUX_READER(OggOpus)     // ogg_opus.cpp
MUX_READER(Flac)        // flac.cpp
MUX_READER(Wav)         // wav.cpp
MUX_READER(Amr)         // amr.cpp, AMR and AMR-WB

#undef MUX_READER

}  // namespace mux
