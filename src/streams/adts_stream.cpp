// AAC samples as an ADTS stream: a 7-byte header without CRC in front of
// each frame, made from the track's AudioSpecificConfig. ADTS carries the
// object types 1 to 4 and a sampling frequency index; HE-AAC (explicit
// signalling, object types 5 and 29) goes out as its core, which the
// decoder extends again when it meets the SBR and PS data in the frames.
#include "media/bit_reader.h"
#include "media/media.h"
#include "streams/streams.h"

namespace {

constexpr uint32_t kHeaderBytes = 7;
constexpr uint32_t kLongestFrame = 8191;  // 13 bits of frame length, header included
constexpr uint32_t kEscapeObjectType = 31;
constexpr uint32_t kExplicitFrequency = 15;
constexpr uint32_t kSbrObjectType = 5;
constexpr uint32_t kPsObjectType = 29;
constexpr uint32_t kLargestChannelConfiguration = 7;  // 3 bits

// The audio object type: 5 bits, or 32 plus 6 more behind the escape 31.
uint32_t ReadObjectType(BitReader *reader) {
    const uint32_t type = ReadBits(reader, 5);
    return type == kEscapeObjectType ? 32 + ReadBits(reader, 6) : type;
}

}  // namespace

int32_t StartAdts(StreamState *state, StreamBuffer *) {
    const StreamTrack &track = state->Track;
    if (track.ConfigSize == 0)
        return StreamMessage(state, kStreamRefused, "it has no AudioSpecificConfig");
    BitReader reader = MakeBitReader(track.Config, track.ConfigSize);
    uint32_t objectType = ReadObjectType(&reader);
    const uint32_t frequency = ReadBits(&reader, 4);
    if (!reader.Exhausted && frequency == kExplicitFrequency)
        return StreamMessage(state, kStreamRefused,
                             "its AudioSpecificConfig gives the sampling rate explicitly (index 15), which ADTS can't carry");
    const uint32_t channels = ReadBits(&reader, 4);
    if (objectType == kSbrObjectType || objectType == kPsObjectType) {
        // The extension's rate, then the core's object type; the core rate
        // is the one read above.
        if (ReadBits(&reader, 4) == kExplicitFrequency) ReadBits(&reader, 24);
        objectType = ReadObjectType(&reader);
    }
    if (reader.Exhausted)
        return StreamMessage(state, kStreamRefused, "its AudioSpecificConfig is cut short");
    if (objectType < 1 || objectType > 4)
        return StreamMessage(state, kStreamRefused,
                             "its audio object type is %u, and ADTS carries 1 to 4 (and HE-AAC as its core)",
                             objectType);
    if (SamplingFrequencyOf(frequency) == 0)
        return StreamMessage(state, kStreamRefused, "its sampling frequency index %u is reserved", frequency);
    if (channels == 0)
        return StreamMessage(state, kStreamRefused,
                             "its channel configuration is 0 (channels given by a program configuration element), which ADTS can't carry");
    if (channels > kLargestChannelConfiguration)
        return StreamMessage(state, kStreamRefused,
                             "its channel configuration is %u, and ADTS carries 1 to 7", channels);
    if (track.LargestSample > kLongestFrame - kHeaderBytes)
        return StreamMessage(state, kStreamRefused,
                             "a frame of %u bytes is longer than an ADTS frame holds (%u bytes)",
                             track.LargestSample, kLongestFrame - kHeaderBytes);
    state->Adts.Profile = uint8_t(objectType - 1);
    state->Adts.FrequencyIndex = uint8_t(frequency);
    state->Adts.ChannelConfiguration = uint8_t(channels);
    return kStreamDone;
}

int32_t AdtsSample(StreamState *state, const StreamSample &sample, StreamBuffer *out) {
    if (sample.Size > kLongestFrame - kHeaderBytes)
        return StreamMessage(state, kStreamDamagedSample,
                             "a frame of %zu bytes is longer than an ADTS frame holds (%u bytes); it is left out",
                             sample.Size, kLongestFrame - kHeaderBytes);
    const AdtsState &adts = state->Adts;
    const uint32_t length = uint32_t(sample.Size) + kHeaderBytes;
    // Sync word, MPEG-4, layer 0, no CRC; profile, frequency index, no
    // private bit, channel configuration, no original, home or copyright
    // bits; frame length; buffer fullness 0x7FF (variable rate); one raw
    // data block.
    const uint8_t header[kHeaderBytes] = {
        0xFF,
        0xF1,
        uint8_t((adts.Profile << 6) | (adts.FrequencyIndex << 2) | (adts.ChannelConfiguration >> 2)),
        uint8_t(((adts.ChannelConfiguration & 3) << 6) | (length >> 11)),
        uint8_t(length >> 3),
        uint8_t(((length & 7) << 5) | 0x1F),
        0xFC,
    };
    if (!AppendBytes(out, header, kHeaderBytes) || !AppendBytes(out, sample.Data, sample.Size))
        return kStreamNoMemory;
    return kStreamDone;
}
