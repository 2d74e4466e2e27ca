// Big-endian fields, four-character names and zeroed memory.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

namespace {

TEST(Primitives, BigEndianFieldsAreUnsignedAndSwapsReverseTheBytes) {
    const uint8_t bytes[] = {0x80, 0x00, 0x00, 0x01};
    EXPECT_EQ(ReadBE32(bytes), 0x80000001u);
    uint8_t record[8] = {};
    PutBE32(record, 1, 0x01020304u);
    PutBE16(record, 5, 0xA0B0);
    EXPECT_EQ(GetBE32(record, 1), 0x01020304u);
    EXPECT_EQ(GetBE16(record, 5), 0xA0B0);
    EXPECT_EQ(record[1], 0x01);
    EXPECT_EQ(record[6], 0xB0);
    EXPECT_EQ(SwapBytes32(0x11223344u), 0x44332211u);
    EXPECT_EQ(SwapBytes16(0x1122), 0x2211);
}

TEST(Primitives, AtomNameEquals) {
    struct Case {
        const char *a;
        const char *b;
        bool equal;
    };
    const Case kCases[] = {
        {"moov", "moov", true},
        {"moov", "MOOV", false},
        {"moovX", "moovY", true},        // only four bytes count
        {"ab\0x", "ab\0y", true},        // a shared terminator ends the comparison
        {"ab\0x", "abcx", false},
        {"url ", "url", false},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(std::string(c.a, 4) + " / " + c.b);
        EXPECT_EQ(AtomNameEquals(c.a, c.b), c.equal);
    }
}

TEST(Primitives, CopyAtomNameCopiesFourBytesAndATerminator) {
    char destination[6];
    std::memset(destination, 'Z', sizeof destination);
    EXPECT_TRUE(CopyAtomName(destination, "a\0cdEF"));
    EXPECT_EQ(std::memcmp(destination, "a\0cd\0Z", 6), 0);

    std::memset(destination, 'Z', sizeof destination);
    EXPECT_FALSE(CopyAtomName(destination, nullptr));
    EXPECT_EQ(destination[0], 'Z');
    EXPECT_FALSE(CopyAtomName(nullptr, "moov"));
}

TEST(Primitives, ZeroAllocGivesZeroedMemory) {
    uint8_t *block = static_cast<uint8_t *>(ZeroAlloc(64));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(block[i], 0);
    FreeIfSet(block);
    FreeIfSet(nullptr);
}

}  // namespace
