// Builds bit strings most significant bit first, for hand-made headers and
// decoder configurations.
#pragma once

#include <cstdint>
#include <vector>

struct BitWriter {
    std::vector<uint8_t> bytes;
    size_t bits = 0;
    void Put(uint64_t value, uint32_t count) {
        for (uint32_t i = count; i-- > 0;) {
            if (bits % 8 == 0) bytes.push_back(0);
            if ((value >> i) & 1) bytes.back() |= uint8_t(0x80 >> (bits % 8));
            ++bits;
        }
    }
    void Skip(uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) Put(0, 1);
    }
    // MPEG-4 video stuffing: a 0 and ones up to the boundary, a whole byte
    // if on one.
    void Stuff() {
        Put(0, 1);
        while (bits % 8) Put(1, 1);
    }
};
