// A reader of bit fields, most significant bit first, over a block of
// memory whose end it knows. Its state is a plain record that lives on the
// caller's stack, so parses never share anything.
#pragma once

#include <cstddef>
#include <cstdint>

struct BitReader {
    const uint8_t *Data;
    size_t Length;      // bytes in Data
    size_t Position;    // bits read so far
    bool Exhausted;     // a read asked for more bits than were left
};

BitReader MakeBitReader(const uint8_t *data, size_t length);

// Reads `count` bits and gives them right-aligned. For counts above 32 the
// reader moves on all the same and only the last 32 bits are kept. A read
// that would pass the end moves the reader to the end, sets Exhausted and
// gives 0.
uint32_t ReadBits(BitReader *reader, uint32_t count);

// Bits up to the next byte boundary; a whole byte if the reader stands on
// one.
uint32_t BitsLeftInByte(const BitReader *reader);

// Bytes whose last bit has been read.
inline size_t BytesPassed(const BitReader *reader) { return reader->Position / 8; }

// Exp-Golomb codes as H.264 and HEVC headers use them: unsigned (ue) and
// signed (se). More than 31 leading zeros fit no 32-bit value: the reader
// is then exhausted and 0 comes back.
uint32_t ReadUe(BitReader *reader);
int32_t ReadSe(BitReader *reader);
