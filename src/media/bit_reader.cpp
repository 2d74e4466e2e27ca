#include "media/bit_reader.h"

BitReader MakeBitReader(const uint8_t *data, size_t length) {
    BitReader reader{};
    reader.Data = data;
    reader.Length = data ? length : 0;
    return reader;
}

uint32_t ReadBits(BitReader *reader, uint32_t count) {
    const size_t totalBits = reader->Length * 8;
    if (reader->Exhausted || count > totalBits - reader->Position) {
        reader->Position = totalBits;
        reader->Exhausted = true;
        return 0;
    }
    uint32_t value = 0;
    while (count > 0) {
        const size_t byteIndex = reader->Position / 8;
        const uint32_t bitsInByte = 8 - uint32_t(reader->Position % 8);
        const uint32_t take = count < bitsInByte ? count : bitsInByte;
        const uint32_t shift = bitsInByte - take;
        const uint32_t bits = (uint32_t(reader->Data[byteIndex]) >> shift) & ((1u << take) - 1);
        value = (value << take) | bits;
        reader->Position += take;
        count -= take;
    }
    return value;
}

uint32_t BitsLeftInByte(const BitReader *reader) {
    return 8 - uint32_t(reader->Position % 8);
}

uint32_t ReadUe(BitReader *reader) {
    uint32_t zeros = 0;
    while (!reader->Exhausted && ReadBits(reader, 1) == 0) {
        if (++zeros > 31) {
            reader->Position = reader->Length * 8;
            reader->Exhausted = true;
        }
    }
    if (reader->Exhausted) return 0;
    return uint32_t((uint64_t(1) << zeros) - 1 + ReadBits(reader, zeros));
}

int32_t ReadSe(BitReader *reader) {
    const uint32_t code = ReadUe(reader);
    // 1, 2, 3, 4 ... give 1, -1, 2, -2 ...
    return (code & 1) ? int32_t((code >> 1) + 1) : -int32_t(code >> 1);
}
