// Builds bit strings most significant bit first, for hand-made headers and
// decoder configurations.
#pragma once

#include <cstdint>
#include <vector>

struct BitWriter {
    std::vector<uint8_t> bytes;
    size_t bits = 0;
    // `count` may pass 64: the bits above the value are zeros.
    BitWriter &Put(uint64_t value, uint32_t count) {
        for (uint32_t i = count; i-- > 0; ++bits) {
            if (bits % 8 == 0) bytes.push_back(0);
            if (i < 64 && ((value >> i) & 1)) bytes.back() |= uint8_t(0x80 >> (bits % 8));
        }
        return *this;
    }
};
