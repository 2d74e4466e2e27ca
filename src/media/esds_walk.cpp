// Bit fields at a position, and the walk through the descriptors of an
// "esds" atom to its decoder configuration.
#include "atoms/fields.h"
#include "frame/frame.h"
#include "media/media.h"

namespace {

constexpr uint8_t kLengthContinuation = 0x80;
constexpr size_t kLongLengthExtra = 3;   // 80 80 80 in front of the length byte

// The long length form: three 0x80 bytes at `offset`, all inside the atom.
bool IsLongLength(const uint8_t *esds, size_t length, size_t offset) {
    return offset + kLongLengthExtra <= length && esds[offset] == kLengthContinuation &&
           esds[offset + 1] == kLengthContinuation && esds[offset + 2] == kLengthContinuation;
}

// Positions inside the AudioSpecificConfig, counted in bits from the length
// byte in front of it.
constexpr uint32_t kObjectTypeBit = 8;
constexpr uint32_t kFrequencyIndexBit = 13;
constexpr uint32_t kChannelConfigBit = 17;

}  // namespace

int32_t GetBitField(const uint8_t *buffer, size_t length, uint32_t *value, uint32_t count,
                    uint32_t position) {
    *value = 0;
    if (count > 32 || buffer == nullptr) return -1;
    if (uint64_t(position) + count > uint64_t(length) * 8) return -1;
    uint32_t result = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t bit = position + i;
        result = (result << 1) | ((buffer[bit / 8] >> (7 - bit % 8)) & 1u);
    }
    *value = result;
    return 1;
}

int32_t FindDecoderConfig(const uint8_t *esds, size_t length, DecoderConfigPlace *place) {
    if (esds == nullptr) return -1;
    // The ES descriptor: tag at 12, its length, ES ID and flags.
    size_t p = field::kEsdsDescriptors + 1;
    p += IsLongLength(esds, length, p) ? 7 : 4;
    // p stands on the decoder configuration tag; step onto its length.
    ++p;
    DecoderConfigPlace found{};
    if (IsLongLength(esds, length, p)) {
        found.ObjectTypeOffset = p + 4;
        found.MaxBitRateOffset = p + 9;
    } else {
        found.ObjectTypeOffset = p + 1;
        found.MaxBitRateOffset = p + 6;
    }
    found.AvgBitRateOffset = found.MaxBitRateOffset + 4;
    found.SpecificLengthOffset = found.MaxBitRateOffset + 9;
    if (IsLongLength(esds, length, found.SpecificLengthOffset))
        found.SpecificLengthOffset += kLongLengthExtra;
    found.SpecificOffset = found.SpecificLengthOffset + 1;
    if (found.AvgBitRateOffset + 4 > length) return -1;
    *place = found;
    return 1;
}

int32_t ReadAacConfig(const uint8_t *esds, size_t length, AacConfig *config) {
    DecoderConfigPlace place;
    if (FindDecoderConfig(esds, length, &place) != 1) return -1;
    AacConfig read{};
    read.ObjectTypeIndication = esds[place.ObjectTypeOffset];
    read.MaxBitRate = GetBE32(esds, place.MaxBitRateOffset);
    read.AvgBitRate = GetBE32(esds, place.AvgBitRateOffset);
    if (place.SpecificLengthOffset >= length) return -1;
    const uint8_t *from = esds + place.SpecificLengthOffset;
    const size_t rest = length - place.SpecificLengthOffset;
    if (GetBitField(from, rest, &read.AudioObjectType, 5, kObjectTypeBit) != 1 ||
        GetBitField(from, rest, &read.FrequencyIndex, 4, kFrequencyIndexBit) != 1 ||
        GetBitField(from, rest, &read.ChannelConfiguration, 4, kChannelConfigBit) != 1)
        return -1;
    *config = read;
    return 1;
}

int32_t ReadPceChannelCount(const uint8_t *pce, size_t length, uint32_t *channels) {
    uint32_t front = 0, side = 0, back = 0, lfe = 0;
    if (GetBitField(pce, length, &front, 4, 10) != 1 || GetBitField(pce, length, &side, 4, 14) != 1 ||
        GetBitField(pce, length, &back, 4, 18) != 1 || GetBitField(pce, length, &lfe, 2, 22) != 1)
        return -1;
    uint32_t mono = 0, stereo = 0, matrix = 0;
    uint32_t position = 0;
    if (GetBitField(pce, length, &mono, 1, 31) != 1) return -1;
    if (mono) {
        if (GetBitField(pce, length, &stereo, 1, 36) != 1) return -1;
        position = 37;
    } else {
        if (GetBitField(pce, length, &stereo, 1, 32) != 1) return -1;
        position = 33;
    }
    if (stereo) position += 4;
    if (GetBitField(pce, length, &matrix, 1, position) != 1) return -1;
    position += 1;
    if (matrix) position += 3;

    // At most 45 elements of 5 bits: the positions stay far below overflow.
    uint32_t count = 0;
    for (uint32_t element = 0; element < front + side + back; ++element) {
        uint32_t isPair = 0;
        if (GetBitField(pce, length, &isPair, 1, position) != 1) return -1;
        count += isPair + 1;
        position += 5;
    }
    *channels = count + lfe;
    return 1;
}
