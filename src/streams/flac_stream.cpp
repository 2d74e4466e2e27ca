// FLAC samples as a native FLAC stream: "fLaC", the metadata blocks of
// "dfLa" (STREAMINFO first) with the last-block flag on the last one only,
// then the frames as they are.
#include "streams/streams.h"

namespace {

constexpr uint8_t kLastBlock = 0x80;
constexpr uint8_t kStreamInfo = 0;
constexpr size_t kBlockHead = 4;  // flag and type, then a 24-bit length

size_t BlockLength(const uint8_t *head) {
    return (size_t(head[1]) << 16) | (size_t(head[2]) << 8) | head[3];
}

}  // namespace

int32_t StartFlac(StreamState *state, StreamBuffer *out) {
    const StreamTrack &track = state->Track;
    if (track.ConfigSize < kBlockHead || (track.Config[0] & ~kLastBlock) != kStreamInfo)
        return StreamMessage(state, kStreamRefused, "its \"dfLa\" does not begin with a STREAMINFO block");
    // The blocks must lie whole in the configuration before any is written.
    for (size_t at = 0; at < track.ConfigSize;) {
        if (track.ConfigSize - at < kBlockHead)
            return StreamMessage(state, kStreamRefused, "its \"dfLa\" ends inside a metadata block");
        const size_t length = BlockLength(track.Config + at);
        if (length > track.ConfigSize - at - kBlockHead)
            return StreamMessage(state, kStreamRefused, "its \"dfLa\" ends inside a metadata block");
        at += kBlockHead + length;
    }
    if (!AppendBytes(out, "fLaC", 4)) return kStreamNoMemory;
    for (size_t at = 0; at < track.ConfigSize;) {
        const size_t length = BlockLength(track.Config + at);
        const bool last = at + kBlockHead + length == track.ConfigSize;
        const uint8_t head = uint8_t((track.Config[at] & ~kLastBlock) | (last ? kLastBlock : 0));
        if (!AppendBytes(out, &head, 1) || !AppendBytes(out, track.Config + at + 1, kBlockHead - 1 + length))
            return kStreamNoMemory;
        at += kBlockHead + length;
    }
    return kStreamDone;
}
