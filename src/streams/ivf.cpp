// AV1 and VP9 samples in an IVF file: a 32-byte file header (the codec's
// four characters, picture size, the track's timescale as time base, the
// frame count) and a 12-byte header in front of each frame (its size and
// its decoding time). An AV1 sample is a temporal unit whose temporal
// delimiter the MP4 form leaves out; the IVF form has each temporal unit
// open with one, so it is put back.
#include <cstring>

#include "streams/streams.h"

namespace {

constexpr size_t kFileHead = 32;
constexpr size_t kFrameHead = 12;
constexpr uint8_t kTemporalDelimiter[2] = {0x12, 0x00};  // OBU type 2, with a size field of 0
constexpr uint32_t kTemporalDelimiterType = 2;

uint16_t Clamp16(uint32_t value) { return value > 0xFFFF ? 0xFFFF : uint16_t(value); }

}  // namespace

int32_t StartIvf(StreamState *state, StreamBuffer *out) {
    const StreamTrack &track = state->Track;
    uint8_t head[kFileHead] = {'D', 'K', 'I', 'F'};
    PutLE(head + 6, kFileHead, 2);
    std::memcpy(head + 8, state->Form->Tag, 4);
    PutLE(head + 12, Clamp16(track.Width), 2);
    PutLE(head + 14, Clamp16(track.Height), 2);
    PutLE(head + 16, track.Timescale, 4);  // time base: 1 / timescale
    PutLE(head + 20, 1, 4);
    PutLE(head + 24, track.SampleCount, 4);
    return AppendBytes(out, head, kFileHead) ? kStreamDone : kStreamNoMemory;
}

namespace {

// A frame header, then `lead` (nothing, or a temporal delimiter), then the
// sample. Sample sizes are 32-bit, so the frame's size field holds them.
int32_t AppendFrame(const StreamSample &sample, const uint8_t *lead, size_t leadSize, StreamBuffer *out) {
    uint8_t head[kFrameHead];
    PutLE(head, sample.Size + leadSize, 4);
    PutLE(head + 4, sample.DecodeTime, 8);
    if (!AppendBytes(out, head, kFrameHead) || !AppendBytes(out, lead, leadSize) ||
        !AppendBytes(out, sample.Data, sample.Size))
        return kStreamNoMemory;
    return kStreamDone;
}

}  // namespace

int32_t IvfSample(StreamState *, const StreamSample &sample, StreamBuffer *out) {
    return AppendFrame(sample, nullptr, 0, out);
}

int32_t Av1IvfSample(StreamState *, const StreamSample &sample, StreamBuffer *out) {
    const bool delimited = sample.Size > 0 && ((sample.Data[0] >> 3) & 0xF) == kTemporalDelimiterType;
    return AppendFrame(sample, kTemporalDelimiter, delimited ? 0 : sizeof kTemporalDelimiter, out);
}
