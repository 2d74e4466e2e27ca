// The "esds" atom of each track type: the elementary stream descriptor with
// its decoder configuration, and for video and audio the decoder specific
// information built from the track's configuration.
#include <cstdio>
#include <cstring>

#include "atoms/atoms.h"
#include "media/media.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;

// Media "esds" layout. Each length is one byte behind three bytes 0x80.
constexpr size_t kEsdsFixed = 46;  // the atom without decoder specific information
constexpr size_t kEsTag = 12;
constexpr size_t kEsLength = 16;
constexpr size_t kEsId = 17;
constexpr size_t kDecoderConfigTag = 20;
constexpr size_t kDecoderConfigLength = 24;
constexpr size_t kObjectType = 25;
constexpr size_t kStreamType = 26;
constexpr size_t kBufferSize = 27;
constexpr size_t kMaxBitRate = 30;
constexpr size_t kAvgBitRate = 34;
constexpr size_t kSpecificInfoTag = 38;
constexpr size_t kSpecificInfoLength = 42;
constexpr size_t kSpecificInfo = 43;
constexpr uint8_t kSlConfig[] = {0x06, 0x01, 0x02};  // tag, length, predefined 2

struct MediaForm {
    uint8_t tag[4];
    uint16_t esId;
    uint8_t objectType;
    uint8_t streamType;
    uint8_t bufferSize[3];
};

// The ES IDs are constants, not the track IDs.
constexpr MediaForm kVideoForm = {{0x03, 0x80, 0x80, 0x80}, 1, 0x20, 0x11, {0x00, 0x28, 0xFE}};
constexpr MediaForm kAudioForm = {{0x03, 0x80, 0x80, 0x80}, 2, 0x40, 0x15, {0x00, 0x00, 0xF4}};
constexpr uint8_t kDecoderConfigTagBytes[] = {0x04, 0x80, 0x80, 0x80};
constexpr uint8_t kSpecificInfoTagBytes[] = {0x05, 0x80, 0x80, 0x80};

// The constant descriptors of the object descriptor and scene description
// streams, from offset 8, with plain one-byte lengths.
constexpr uint8_t kOdEsds[] = {0x00, 0x00, 0x00, 0x00, 0x03, 0x15, 0x00, 0x03, 0x00,
                               0x04, 0x0D, 0x01, 0x05, 0x00, 0x0C, 0x2F, 0x00, 0x00,
                               0x61, 0x78, 0x00, 0x00, 0x00, 0x00, 0x06, 0x01, 0x02};
constexpr uint8_t kSceneEsds[] = {0x00, 0x00, 0x00, 0x00, 0x03, 0x1A, 0x00, 0x04,
                                  0x00, 0x04, 0x12, 0x02, 0x0D, 0x00, 0x04, 0x00,
                                  0x00, 0x00, 0x01, 0x40, 0x00, 0x00, 0x01, 0x40,
                                  0x05, 0x03, 0x00, 0x00, 0x40, 0x06, 0x01, 0x02};
static_assert(8 + sizeof kOdEsds == 35 && 8 + sizeof kSceneEsds == 40,
              "the constant esds atoms are 35 and 40 bytes");

// A visual object sequence header with a visual object header: the
// sequence start code, the profile byte (filled in), then the visual
// object start code with its one byte.
constexpr uint8_t kSequenceHeader[] = {0x00, 0x00, 0x01, 0xB0, 0x00,
                                       0x00, 0x00, 0x01, 0xB5, 0x09};
constexpr size_t kSequenceProfile = 4;
constexpr uint8_t kSequenceStart[] = {0x00, 0x00, 0x01, 0xB0};
constexpr uint8_t kVideoObjectStart[] = {0x00, 0x00, 0x01, 0x00};

// The video object layer header built for a track without configuration:
// a fixed bit pattern into which the 16 bits of the time increment
// resolution and 13 bits each of width and height go (bytes 20 to 25).
constexpr uint8_t kBuiltHeader[] = {
    0x00, 0x00, 0x01, 0xB0, 0x00, 0x00, 0x00, 0x01, 0xB5, 0x09, 0x00, 0x00, 0x01, 0x00,
    0x00, 0x00, 0x01, 0x20, 0x01, 0x88, 0x40, 0x07, 0x00, 0x00, 0x00, 0x00, 0xA2, 0x1F};
constexpr size_t kBuiltFields = 20;
constexpr uint32_t kPictureSideMask = 0x1FFF;

// Fills the built header at `out` (28 bytes).
size_t BuildVideoHeader(const TrackNode *track, uint8_t *out) {
    std::memcpy(out, kBuiltHeader, sizeof kBuiltHeader);
    out[kSequenceProfile] = uint8_t(track->VideoProfileLevel);
    const uint32_t sizes = 0xA8002000u | ((track->TrackWidth & kPictureSideMask) << 14) |
                           (track->TrackHeight & kPictureSideMask);
    PutBE32(out, kBuiltFields + 2, sizes);
    const uint32_t resolution =
        (GetBE32(out, kBuiltFields) & 0x40003FFFu) | (uint32_t(track->TimeResolution) << 14);
    PutBE32(out, kBuiltFields, resolution);
    return sizeof kBuiltHeader;
}

bool StartsWith(const TrackNode *track, const uint8_t (&code)[4]) {
    return track->ConfigSize >= 4 && std::memcmp(track->ConfigBytes, code, 4) == 0;
}

// Decoder specific information of a video track at `out`, which holds at
// least sizeof kSequenceHeader + 52 bytes. Returns its length.
size_t VideoSpecificInfo(const TrackNode *track, uint8_t *out) {
    const size_t m = track->ConfigSize < sizeof track->ConfigBytes ? track->ConfigSize
                                                                    : sizeof track->ConfigBytes;
    if (m == 0) return BuildVideoHeader(track, out);
    if (StartsWith(track, kVideoObjectStart)) {
        std::memcpy(out, kSequenceHeader, sizeof kSequenceHeader);
        out[kSequenceProfile] = uint8_t(track->VideoProfileLevel);
        std::memcpy(out + sizeof kSequenceHeader, track->ConfigBytes, m);
        return sizeof kSequenceHeader + m;
    }
    // A sequence header carries the track's profile; any other start is
    // taken as it stands.
    std::memcpy(out, track->ConfigBytes, m);
    if (StartsWith(track, kSequenceStart) && m > kSequenceProfile)
        out[kSequenceProfile] = uint8_t(track->VideoProfileLevel);
    return m;
}

// The AudioSpecificConfig of an audio track: from profile, channels and
// rate when all are given and the rate has an index; else from the start of
// an ADTS header; else the first two configuration bytes.
size_t AudioSpecificInfo(const TrackNode *track, uint8_t *out) {
    const int32_t frequency = SamplingFrequencyIndex(track->AudioSampleRate);
    uint32_t value;
    if (track->AudioProfile != 0 && track->AudioChannels != 0 && track->AudioSampleRate != 0 &&
        frequency >= 0) {
        value = (track->AudioProfile + 1) * 2048 + uint32_t(frequency) * 128 +
                track->AudioChannels * 8;
    } else if (track->ConfigBytes[2] != 0) {
        const uint32_t c2 = track->ConfigBytes[2];
        const uint32_t c3 = track->ConfigBytes[3];
        value = ((c2 >> 6) + 1) * 2048 + ((c2 >> 2) & 15) * 128 + (c2 & 1) * 32 + (c3 >> 6) * 8;
    } else {
        value = (uint32_t(track->ConfigBytes[0]) << 8) | track->ConfigBytes[1];
    }
    PutBE16(out, 0, uint16_t(value));
    return 2;
}

int32_t FillMediaEsds(AtomNode *node, const TrackNode *track, const MediaForm &form,
                      const uint8_t *info, size_t length) {
    uint8_t *r = node->realStructure;
    const size_t size = kEsdsFixed + length;
    PutBE32(r, field::kVersionFlags, 0);
    std::memcpy(r + kEsTag, form.tag, 4);
    r[kEsLength] = uint8_t(length + 29);
    PutBE16(r, kEsId, form.esId);
    std::memcpy(r + kDecoderConfigTag, kDecoderConfigTagBytes, 4);
    r[kDecoderConfigLength] = uint8_t(length + 18);
    r[kObjectType] = form.objectType;
    r[kStreamType] = form.streamType;
    std::memcpy(r + kBufferSize, form.bufferSize, 3);
    PutBE32(r, kMaxBitRate, track->MaxBitRate);
    PutBE32(r, kAvgBitRate, track->AvgBitRate);
    std::memcpy(r + kSpecificInfoTag, kSpecificInfoTagBytes, 4);
    r[kSpecificInfoLength] = uint8_t(length);
    std::memcpy(r + kSpecificInfo, info, length);
    std::memcpy(r + kSpecificInfo + length, kSlConfig, sizeof kSlConfig);
    PutBE32(r, field::kHeadSize, uint32_t(size));
    node->AtomSize = uint32_t(size);
    return int32_t(size);
}

int32_t FillConstantEsds(AtomNode *node, const uint8_t *bytes, size_t count) {
    std::memcpy(node->realStructure + 8, bytes, count);
    PutBE32(node->realStructure, field::kHeadSize, uint32_t(8 + count));
    node->AtomSize = uint32_t(8 + count);
    return int32_t(8 + count);
}

}  // namespace

int32_t SerializeEsds(AtomNode *node, TrackNode *track) {
    uint8_t info[sizeof kSequenceHeader + sizeof track->ConfigBytes];
    switch (track->TrackType) {
    case MP4_TRACK_VIDEO:
        return FillMediaEsds(node, track, kVideoForm, info, VideoSpecificInfo(track, info));
    case MP4_TRACK_AUDIO:
        return FillMediaEsds(node, track, kAudioForm, info, AudioSpecificInfo(track, info));
    case MP4_TRACK_OD: return FillConstantEsds(node, kOdEsds, sizeof kOdEsds);
    case MP4_TRACK_SCENE: return FillConstantEsds(node, kSceneEsds, sizeof kSceneEsds);
    default:
        PrintDiagnostic("unsupport track type while writing esds atom\n");
        return kFailed;
    }
}
