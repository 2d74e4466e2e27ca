// ADTS headers from an "esds", the bit field reader and the walk to the
// decoder configuration under them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "media/bit_writer.h"
#include "media/media.h"
#include "mp4core.h"
#include "support/test_support.h"

using namespace testing_support;

namespace {

// A descriptor length in one byte or in the form 80 80 80 nn.
Bytes Length(size_t value, bool longForm) {
    return longForm ? Cat({Hex("80 80 80"), U8(uint8_t(value))}) : U8(uint8_t(value));
}

struct Forms {
    bool es = false, decoder = false, specific = false;
};

// An "esds" atom with an ES descriptor, a decoder configuration of
// `objectType` with bit rates 128000/96000, and `config` as its decoder
// specific info.
Bytes Esds(const Bytes &config, Forms forms = {}, uint8_t objectType = 0x40) {
    const Bytes specific = Cat({U8(5), Length(config.size(), forms.specific), config});
    const Bytes decoder = Cat({U8(4), Length(13 + specific.size(), forms.decoder), U8(objectType),
                               U8(0x15), Hex("00 18 00"), U32(128000), U32(96000), specific});
    const Bytes es = Cat({U8(3), Length(3 + decoder.size() + 3, forms.es), U16(1), U8(0), decoder,
                          Hex("06 01 02")});
    return FullAtom("esds", 0, {es});
}

Bytes AudioConfig(uint32_t objectType, uint32_t frequencyIndex, uint32_t channels) {
    BitWriter w;
    w.Put(objectType, 5);
    w.Put(frequencyIndex, 4);
    w.Put(channels, 4);
    w.Put(0, 3);
    return w.bytes;
}

// A configuration with channel configuration 0 and a program configuration
// element with the given elements (true: a channel pair).
Bytes PceConfig(const std::vector<bool> &front, uint32_t lfe, bool mono = false,
                bool stereo = false, bool matrix = false) {
    BitWriter w;
    w.Put(2, 5);
    w.Put(4, 4);
    w.Put(0, 4);
    w.Put(0, 3);
    w.Put(0, 4);  // element instance tag
    w.Put(1, 2);  // object type
    w.Put(4, 4);  // frequency index
    w.Put(front.size(), 4);
    w.Put(0, 4);
    w.Put(0, 4);
    w.Put(lfe, 2);
    w.Put(0, 3);
    w.Put(0, 4);
    w.Put(mono, 1);
    if (mono) w.Put(0, 4);
    w.Put(stereo, 1);
    if (stereo) w.Put(0, 4);
    w.Put(matrix, 1);
    if (matrix) w.Put(0, 3);
    for (bool pair : front) {
        w.Put(pair, 1);
        w.Put(0, 4);
    }
    for (uint32_t i = 0; i < lfe; ++i) w.Put(0, 4);
    w.Put(0, 8);
    return w.bytes;
}

struct Header {
    int32_t result;
    Bytes bytes;
    uint32_t size;
};

Header Make(const Bytes &esds, uint32_t frameSize) {
    Header h{0, Bytes(7, 0xEE), 0};
    h.result = AAC_EsdsToAdtsHead(esds.data(), frameSize, h.bytes.data(), &h.size);
    return h;
}

// Known headers, and values too wide for their field, which spill into the
// field in front rather than being refused or masked.
TEST(AdtsHeader, KnownHeadersAndFieldsTooWide) {
    struct Case {
        const char *name;
        Bytes esds;
        uint32_t frameSize;
        int32_t result;
        Bytes expected;
    };
    const Case cases[] = {
        {"LC 44.1 kHz stereo", Esds(AudioConfig(2, 4, 2)), 100, 1, Hex("FF F9 50 80 0D 7F FC")},
        {"LC 48 kHz mono", Esds(AudioConfig(2, 3, 1)), 1000, 1, Hex("FF F9 4C 40 7D FF FC")},
        {"largest frame", Esds(AudioConfig(2, 4, 2)), 8184, 1, Hex("FF F9 50 83 FF FF FC")},
        {"main profile", Esds(AudioConfig(1, 4, 2)), 100, 1, Hex("FF F9 10 80 0D 7F FC")},
        {"LTP 7 channels", Esds(AudioConfig(4, 11, 7)), 0, 1, Hex("FF F9 ED C0 00 FF FC")},
        {"one front pair and an LFE", Esds(PceConfig({true}, 1)), 100, 1,
         Hex("FF F9 50 C0 0D 7F FC")},
        {"PCE with every mixdown", Esds(PceConfig({true, false}, 0, true, true, true)), 100, 1,
         Hex("FF F9 50 C0 0D 7F FC")},
        {"object type 0: profile of all ones", Esds(AudioConfig(0, 4, 2)), 100, 1,
         Hex("FF FF D0 80 0D 7F FC")},
        {"object type 5: profile spills into the CRC bit", Esds(AudioConfig(5, 4, 2)), 100, 1,
         Hex("FF F9 10 80 0D 7F FC")},
        {"escape object type", Esds(AudioConfig(31, 4, 2)), 100, 1, Hex("FF FF 90 80 0D 7F FC")},
        {"channel configuration 8 sets the private bit", Esds(AudioConfig(2, 4, 8)), 100, 1,
         Hex("FF F9 52 00 0D 7F FC")},
        {"PCE of 8 channels", Esds(PceConfig({true, true, true, true}, 0)), 100, 1,
         Hex("FF F9 52 00 0D 7F FC")},
        {"frame of 8185 bytes spills into the copyright bits", Esds(AudioConfig(2, 4, 2)), 8185, 1,
         Hex("FF F9 50 84 00 1F FC")},
        {"frame length wraps in 32 bits", Esds(AudioConfig(2, 4, 2)), 0xFFFFFFFFu, 1,
         Hex("FF F9 50 80 00 DF FC")},
    };
    for (const Case &c : cases) {
        Header h = Make(c.esds, c.frameSize);
        EXPECT_EQ(h.result, c.result) << c.name;
        EXPECT_EQ(h.bytes, c.expected) << c.name;
        EXPECT_EQ(h.size, c.result == 1 ? 7u : 0u) << c.name;
    }
}

// The walk to the decoder configuration takes both descriptor length
// forms in any mix, for the header and for the configuration's fields.
TEST(AdtsHeader, EveryMixOfLengthFormsGivesTheSameHeaderAndConfiguration) {
    for (int mask = 0; mask < 8; ++mask) {
        const Forms forms{(mask & 1) != 0, (mask & 2) != 0, (mask & 4) != 0};
        Header h = Make(Esds(AudioConfig(2, 4, 2), forms), 100);
        EXPECT_EQ(h.result, 1) << mask;
        EXPECT_EQ(h.bytes, Hex("FF F9 50 80 0D 7F FC")) << mask;
        const Bytes esds = Esds(AudioConfig(2, 7, 1), forms);
        AacConfig config{};
        ASSERT_EQ(ReadAacConfig(esds.data(), esds.size(), &config), 1) << mask;
        EXPECT_EQ(config.ObjectTypeIndication, 0x40u) << mask;
        EXPECT_EQ(config.MaxBitRate, 128000u) << mask;
        EXPECT_EQ(config.AvgBitRate, 96000u) << mask;
        EXPECT_EQ(config.AudioObjectType, 2u) << mask;
        EXPECT_EQ(config.FrequencyIndex, 7u) << mask;
        EXPECT_EQ(config.ChannelConfiguration, 1u) << mask;
    }
}

TEST(AdtsHeader, NullEsdsGivesMinus21AndItsMessage) {
    uint8_t header[7] = {};
    uint32_t size = 0;
    CaptureStream out(stdout);
    EXPECT_EQ(AAC_EsdsToAdtsHead(nullptr, 100, header, &size), -21);
    EXPECT_EQ(out.Text(), "No EsdsData given!");
    const Bytes esds = Esds(AudioConfig(2, 4, 2));
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, nullptr, &size), -20);
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, header, nullptr), -20);
}

TEST(AdtsHeader, EveryTruncatedAtomIsRefusedWithoutReadingPastIt) {
    // Each prefix in a block of exactly its size, with the size field
    // telling the truth where there is one, so that the sanitizers see any
    // read behind it. `needed` is where the last field the header uses ends.
    struct Case {
        const char *name;
        Bytes esds;
        size_t needed;
    };
    const Case cases[] = {
        // 12 + ES 8 + decoder 18 + specific tag and length 5, then 2 bytes.
        {"long lengths", Esds(AudioConfig(2, 4, 2), {true, true, true}), 45},
        // Specific info from 34; the PCE's third element flag is bit 44 of it.
        {"PCE", Esds(PceConfig({true, false, true}, 1)), 34 + 2 + 6},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(Make(c.esds, 10).result, 1) << c.name;
        for (size_t length = 0; length <= c.esds.size(); ++length) {
            std::unique_ptr<uint8_t[]> block(new uint8_t[length + 1]);
            memcpy(block.get(), c.esds.data(), length);
            uint8_t header[7];
            uint32_t size = 0;
            const int32_t expected = length < c.needed ? -19 : 1;
            EXPECT_EQ(MakeAdtsHeader(block.get(), length, 10, header, &size), expected)
                << c.name << " " << length;
            if (length >= 4) {
                block[0] = 0, block[1] = 0, block[2] = 0, block[3] = uint8_t(length);
                EXPECT_EQ(AAC_EsdsToAdtsHead(block.get(), 10, header, &size), expected)
                    << c.name << " " << length;
            }
        }
    }
}

TEST(AdtsHeader, ExportReadsNoMoreThanAnEsdsRecordWhateverTheSizeSays) {
    Bytes esds = Esds(AudioConfig(2, 4, 2));
    esds.resize(228, 0);
    esds[0] = esds[1] = esds[2] = esds[3] = 0xFF;
    std::unique_ptr<uint8_t[]> block(new uint8_t[228]);
    memcpy(block.get(), esds.data(), 228);
    uint8_t header[7];
    uint32_t size = 0;
    EXPECT_EQ(AAC_EsdsToAdtsHead(block.get(), 100, header, &size), 1);
    EXPECT_EQ(Bytes(header, header + 7), Hex("FF F9 50 80 0D 7F FC"));
}

TEST(BitField, ReadsAtAnyPositionAndRefusesFieldsPastTheEnd) {
    const Bytes buffer = Hex("A5 0F F0 81");
    struct Case {
        uint32_t count, position;
        int32_t result;
        uint32_t value;
    };
    const Case cases[] = {
        {0, 0, 1, 0},          {1, 0, 1, 1},          {4, 0, 1, 0xA},
        {8, 4, 1, 0x50},       {12, 4, 1, 0x50F},     {32, 0, 1, 0xA50FF081},
        {1, 31, 1, 1},         {0, 32, 1, 0},         {1, 32, -1, 0},
        {2, 31, -1, 0},        {33, 0, -1, 0},        {16, 0xFFFFFFF8u, -1, 0},
    };
    for (const Case &c : cases) {
        uint32_t value = 0xDEAD;
        EXPECT_EQ(GetBitField(buffer.data(), buffer.size(), &value, c.count, c.position), c.result)
            << c.count << "@" << c.position;
        EXPECT_EQ(value, c.value) << c.count << "@" << c.position;
    }
}

}  // namespace
