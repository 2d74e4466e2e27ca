// The ADTS header of an AAC frame, made from the track's "esds" atom.
#include <cstdio>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "media/media.h"
#include "mp4core.h"

namespace {

constexpr uint32_t kAdtsHeaderBytes = 7;
constexpr size_t kPceOffsetInConfig = 2;

// The header as one 56-bit number: where each field's lowest bit lands,
// counted from the header's last bit. The fixed fields are the sync word,
// the MPEG-2 ID, layer 0, no CRC and a buffer fullness of 0x7FF.
constexpr uint64_t kAdtsFixedFields =
    (uint64_t(0xFFF) << 44) | (uint64_t(1) << 43) | (uint64_t(1) << 40) | (uint64_t(0x7FF) << 2);
constexpr unsigned kProfileShift = 38;
constexpr unsigned kFrequencyShift = 34;
constexpr unsigned kChannelShift = 30;
constexpr unsigned kFrameLengthShift = 13;

}  // namespace

int32_t MakeAdtsHeader(const uint8_t *esds, size_t length, uint32_t frameSize, uint8_t *header,
                       uint32_t *headerSize) {
    if (esds == nullptr) {
        PrintDiagnostic("No EsdsData given!");
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
    // No field is masked to its width: a profile above 3 (object type 0
    // wraps to all ones), a channel count above 7 or a frame length above
    // 8191 spill into the bits in front of their field, and whatever passes
    // the header's first bit falls off.
    const uint32_t profile = config.AudioObjectType - 1;
    const uint32_t frameLength = frameSize + kAdtsHeaderBytes;
    const uint64_t bits = kAdtsFixedFields | (uint64_t(profile) << kProfileShift) |
                          (uint64_t(config.FrequencyIndex) << kFrequencyShift) |
                          (uint64_t(channels) << kChannelShift) |
                          (uint64_t(frameLength) << kFrameLengthShift);
    for (uint32_t i = 0; i < kAdtsHeaderBytes; ++i) {
        header[i] = uint8_t(bits >> (8 * (kAdtsHeaderBytes - 1 - i)));
    }
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
