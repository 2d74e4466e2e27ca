// The forms whose stream is the samples as they are: MPEG audio, AC-3,
// E-AC-3, H.263, AMR behind its magic line, FLAC frames, and MPEG-4 video
// behind its decoder configuration.
#include <cstring>

#include "streams/streams.h"

int32_t StartRaw(StreamState *state, StreamBuffer *out) {
    const char *tag = state->Form->Tag;
    if (tag != nullptr && !AppendBytes(out, tag, std::strlen(tag))) return kStreamNoMemory;
    return kStreamDone;
}

// The decoder specific info of the "esds" (the video object sequence and
// layer headers) goes in front of the first picture.
int32_t StartWithConfig(StreamState *state, StreamBuffer *out) {
    const StreamTrack &track = state->Track;
    if (track.ConfigSize == 0)
        return StreamMessage(state, kStreamRefused, "its \"esds\" has no decoder specific info");
    return AppendBytes(out, track.Config, track.ConfigSize) ? kStreamDone : kStreamNoMemory;
}

int32_t CopySample(StreamState *, const StreamSample &sample, StreamBuffer *out) {
    return AppendBytes(out, sample.Data, sample.Size) ? kStreamDone : kStreamNoMemory;
}
