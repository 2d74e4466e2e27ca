// The ADTS header of an AAC frame, made from the track's "esds" atom.
#include <cstdio>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "media/media.h"
#include "mp4core.h"

namespace {

constexpr uint32_t kAdtsHeaderBytes = 7;
constexpr uint32_t kMaxProfile = 3;          // 2 bits
constexpr uint32_t kMaxChannels = 7;         // 3 bits
constexpr uint32_t kMaxFrameLength = 8191;   // 13 bits, header included
constexpr size_t kPceOffsetInConfig = 2;

}  // namespace

int32_t MakeAdtsHeader(const uint8_t *esds, size_t length, uint32_t frameSize, uint8_t *header,
                       uint32_t *headerSize) {
    if (esds == nullptr) {
        printf("No EsdsData given!");
        return kAdtsNoEsds;
    }
    if (header == nullptr || headerSize == nullptr) return kAdtsNoOutput;
    AacConfig config;
    if (ReadAacConfig(esds, length, &config) != 1) return kAdtsEsdsTooShort;

    uint32_t channels = config.ChannelConfiguration;
    if (channels == 0) {
        DecoderConfigPlace place;
        FindDecoderConfig(esds, length, &place);
        const size_t pceOffset = place.SpecificOffset + kPceOffsetInConfig;
        if (pceOffset >= length ||
            ReadPceChannelCount(esds + pceOffset, length - pceOffset, &channels) != 1)
            return kAdtsEsdsTooShort;
    }
    // Object type 0 has no profile: it would wrap to all ones.
    if (config.AudioObjectType == 0 || config.AudioObjectType - 1 > kMaxProfile)
        return kAdtsProfileTooHigh;
    if (channels > kMaxChannels) return kAdtsTooManyChannels;
    if (frameSize > kMaxFrameLength - kAdtsHeaderBytes) return kAdtsFrameTooLong;

    const uint32_t profile = config.AudioObjectType - 1;
    const uint32_t frameLength = frameSize + kAdtsHeaderBytes;
    header[0] = 0xFF;
    header[1] = 0xF9;  // MPEG-2 ID, layer 0, no CRC
    header[2] = uint8_t((profile << 6) | (config.FrequencyIndex << 2) | (channels >> 2));
    header[3] = uint8_t(((channels & 3) << 6) | (frameLength >> 11));
    header[4] = uint8_t(frameLength >> 3);
    header[5] = uint8_t(((frameLength & 7) << 5) | 0x1F);  // buffer fullness 0x7FF
    header[6] = 0xFC;
    *headerSize = kAdtsHeaderBytes;
    return kAdtsDone;
}

int32_t AAC_EsdsToAdtsHead(const uint8_t *esds, uint32_t frameSize, uint8_t *header,
                           uint32_t *headerSize) {
    if (esds == nullptr) return MakeAdtsHeader(nullptr, 0, frameSize, header, headerSize);
    // The call gets no length: trust the atom's own size field, but never
    // beyond what an "esds" record holds, which is the most that
    // RetMp4MediaInfo hands out.
    AtomSchema schema{};
    size_t bound = field::kEsdsDescriptors;
    if (GetAtomSchemaByName("esds", &schema) == 1) bound = RecordHeadLength(schema);
    size_t length = GetBE32(esds, field::kHeadSize);
    if (length > bound) length = bound;
    return MakeAdtsHeader(esds, length, frameSize, header, headerSize);
}
