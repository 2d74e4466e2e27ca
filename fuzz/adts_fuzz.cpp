// ADTS headers from arbitrary "esds" bytes: the length-aware form over a
// block of exactly the input's size, and the export over an "esds" record.
// The first 4 bytes of the input give the frame size.
#include <cstdint>
#include <cstring>
#include <memory>

#include "media/media.h"
#include "mp4core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) return 0;
    const uint32_t frameSize = (uint32_t(data[0]) << 24) | (uint32_t(data[1]) << 16) |
                               (uint32_t(data[2]) << 8) | data[3];
    data += 4, size -= 4;
    std::unique_ptr<uint8_t[]> block(new uint8_t[size ? size : 1]);
    if (size) memcpy(block.get(), data, size);

    uint8_t header[7];
    uint32_t headerSize = 0;
    if (MakeAdtsHeader(block.get(), size, frameSize, header, &headerSize) == 1) {
        // Every header made keeps its sync byte, its buffer fullness and the
        // low 13 bits of the frame length; a value too wide for its field
        // only spills into the fields in front of it.
        if (headerSize != 7 || header[0] != 0xFF || (header[1] & 0xF9) != 0xF9 ||
            (header[5] & 0x1F) != 0x1F || header[6] != 0xFC)
            __builtin_trap();
        const uint32_t frameLength = (uint32_t(header[3] & 3) << 11) | (uint32_t(header[4]) << 3) |
                                     (header[5] >> 5);
        if (frameLength != ((frameSize + 7) & 0x1FFF)) __builtin_trap();
    }

    // The export trusts the size field up to an "esds" record of 228 bytes.
    uint8_t record[228] = {};
    memcpy(record, data, size < sizeof record ? size : sizeof record);
    AAC_EsdsToAdtsHead(record, frameSize, header, &headerSize);

    uint32_t value = 0;
    for (uint32_t position = 0; position < 64; position += 7) GetBitField(block.get(), size, &value, 32, position);
    uint32_t channels = 0;
    ReadPceChannelCount(block.get(), size, &channels);
    return 0;
}
