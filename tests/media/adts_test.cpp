// ADTS headers from an "esds" atom, and the walk through its descriptors
// to the decoder configuration under them, over atoms that each vary one
// thing and every prefix of each: one listing, tests/data/media/adts.txt.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>

#include "media/bit_writer.h"
#include "media/golden.h"
#include "media/media.h"
#include "mp4core.h"

using namespace testing_support;

namespace {

// Which descriptor lengths take the form 80 80 80 nn.
struct Forms {
    bool es = false, decoder = false, specific = false;
};
Bytes Length(size_t value, bool longForm) {
    return longForm ? Cat({Hex("80 80 80"), U8(uint8_t(value))}) : U8(uint8_t(value));
}

// ES descriptor, decoder configuration of `objectType` with bit rates
// 128000/96000, and `config` as its decoder specific info.
Bytes Esds(const Bytes &config, Forms forms = {}, uint8_t objectType = 0x40) {
    const Bytes specific = Cat({U8(5), Length(config.size(), forms.specific), config});
    const Bytes decoder = Cat({U8(4), Length(13 + specific.size(), forms.decoder), U8(objectType), U8(0x15),
                               Hex("00 18 00"), U32(128000), U32(96000), specific});
    return FullAtom("esds", 0, {U8(3), Length(6 + decoder.size(), forms.es), U16(1), U8(0), decoder, Hex("06 01 02")});
}
Bytes Patch(Bytes bytes, size_t at, const Bytes &with) {
    std::copy(with.begin(), with.end(), bytes.begin() + at);
    return bytes;
}

Bytes AudioConfig(uint32_t objectType, uint32_t frequencyIndex, uint32_t channels) {
    return BitWriter().Put(objectType, 5).Put(frequencyIndex, 4).Put(channels, 4).Put(0, 3).bytes;
}

// Channel configuration 0 and a program configuration element; each
// element a channel pair (true) or not.
struct Pce {
    std::vector<bool> front, side, back;
    uint32_t lfe;
    bool mono, stereo, matrix;
};
Bytes PceConfig(const Pce &p) {
    BitWriter w;
    w.Put(2, 5).Put(4, 4).Put(0, 4).Put(0, 3).Put(0x5, 4).Put(1, 2).Put(4, 4);
    w.Put(p.front.size(), 4).Put(p.side.size(), 4).Put(p.back.size(), 4).Put(p.lfe, 2).Put(0, 3).Put(0, 4);
    w.Put(p.mono, 1).Put(p.mono ? 0x9 : 0, p.mono ? 4 : 0);
    w.Put(p.stereo, 1).Put(p.stereo ? 0x6 : 0, p.stereo ? 4 : 0);
    w.Put(p.matrix, 1).Put(p.matrix ? 0x5 : 0, p.matrix ? 3 : 0);
    for (const auto *list : {&p.front, &p.side, &p.back})
        for (bool pair : *list) w.Put(pair, 1).Put(0xA, 4);
    return w.Put(0xF, 4 * p.lfe).Put(0, 8).bytes;
}

// The bytes in a block of exactly their size, so that the sanitizers see
// a read behind them.
std::unique_ptr<uint8_t[]> Block(const Bytes &bytes, size_t length) {
    std::unique_ptr<uint8_t[]> block(new uint8_t[length + 1]);
    memcpy(block.get(), bytes.data(), length);
    return block;
}

std::string Header(int32_t result, const uint8_t *header) {
    return std::to_string(result) + (result == 1 ? HexBytes(header, 7) : "");
}

void Describe(std::ostream &out, const std::string &name, const Bytes &esds, uint32_t frameSize = 100) {
    uint8_t header[7];
    uint32_t size = 0;
    auto block = Block(esds, esds.size());
    out << "== " << name << "\n  header " << Header(MakeAdtsHeader(block.get(), esds.size(), frameSize, header, &size), header);
    out << "; from the size field " << Header(AAC_EsdsToAdtsHead(block.get(), frameSize, header, &size), header);
    AacConfig c{};
    out << "\n  config " << ReadAacConfig(block.get(), esds.size(), &c) << ": " << c.ObjectTypeIndication << " "
        << c.MaxBitRate << " " << c.AvgBitRate << " " << c.AudioObjectType << " " << c.FrequencyIndex << " "
        << c.ChannelConfiguration;
    size_t offset = 0, bytes = 0;
    out << "; specific info " << FindDecoderSpecificInfo(block.get(), esds.size(), &offset, &bytes) << ": " << offset
        << " " << bytes << "\n  prefixes ";
    for (size_t length = 0; length <= esds.size(); ++length) {
        auto cut = Block(esds, length);
        int digit = (MakeAdtsHeader(cut.get(), length, 10, header, &size) == 1) +
                    2 * (ReadAacConfig(cut.get(), length, &c) == 1);
        if (length >= 4) {
            memcpy(cut.get(), U32(uint32_t(length)).data(), 4);
            digit += 4 * (AAC_EsdsToAdtsHead(cut.get(), 10, header, &size) == 1);
        }
        out << digit;
    }
    out << "\n";
}

TEST(AdtsHeader, ListingOfEsdsAtomsAndTheirPrefixes) {
    const Bytes lc = Esds(AudioConfig(2, 4, 2));
    Bytes unbounded = lc;  // states 4 GiB; the export reads no more than a record's 228 bytes
    unbounded.resize(228, 0);
    const struct Case {
        const char *name;
        Bytes esds;
        uint32_t frameSize;
    } cases[] = {
        {"LC 44.1 kHz stereo", lc, 100},
        {"LC 48 kHz mono", Esds(AudioConfig(2, 3, 1)), 1000},
        {"largest frame", lc, 8184},
        {"frame of 8185 bytes spills into the copyright bits", lc, 8185},
        {"frame length wraps in 32 bits", lc, 0xFFFFFFFFu},
        {"main profile", Esds(AudioConfig(1, 4, 2)), 100},
        {"LTP 7 channels, frame 0", Esds(AudioConfig(4, 11, 7)), 0},
        {"object type 0: profile of all ones", Esds(AudioConfig(0, 4, 2)), 100},
        {"object type 5: profile spills into the CRC bit", Esds(AudioConfig(5, 4, 2)), 100},
        {"escape object type", Esds(AudioConfig(31, 4, 2)), 100},
        {"channel configuration 8 sets the private bit", Esds(AudioConfig(2, 4, 8)), 100},
        {"MPEG-2 audio object type indication", Esds(AudioConfig(2, 4, 2), {}, 0x67), 100},
        {"PCE: one front pair and an LFE", Esds(PceConfig({{true}, {}, {}, 1, false, false, false})), 100},
        {"PCE: mono mixdown", Esds(PceConfig({{true, false}, {}, {}, 0, true, false, false})), 100},
        {"PCE: stereo mixdown", Esds(PceConfig({{true}, {false}, {}, 0, false, true, false})), 100},
        {"PCE: matrix mixdown", Esds(PceConfig({{false}, {}, {true}, 0, false, false, true})), 100},
        {"PCE: every mixdown", Esds(PceConfig({{true, false}, {true}, {false}, 2, true, true, true})), 100},
        {"PCE: side and back elements", Esds(PceConfig({{}, {true, true}, {false, true, false}, 3, false, false, false})), 100},
        {"PCE of 8 channels", Esds(PceConfig({{true, true, true, true}, {}, {}, 0, false, false, false})), 100},
        {"ES length 80 80 05 80 is one byte", Patch(lc, 13, Hex("80 80 05 80")), 100},
        {"ES length 80 05 80 is one byte", Patch(lc, 13, Hex("80 05 80")), 100},
        {"ES length 05 80 80 is one byte", Patch(lc, 13, Hex("05 80 80")), 100},
        {"size field of 4 GiB", Patch(unbounded, 0, Hex("FF FF FF FF")), 100},
    };
    std::ostringstream out;
    out << "header: result and bytes; config: object type indication, bit rates, audio object type,\n"
           "frequency index, channels; prefixes: per length 1 header, 2 config, 4 header by size field\n";
    for (const Case &c : cases) Describe(out, c.name, c.esds, c.frameSize);
    for (int mask = 0; mask < 8; ++mask) {
        const Forms forms{(mask & 1) != 0, (mask & 2) != 0, (mask & 4) != 0};
        Describe(out, "long lengths in ES " + std::to_string(forms.es) + ", decoder " + std::to_string(forms.decoder) +
                          ", specific " + std::to_string(forms.specific), Esds(AudioConfig(2, 7, 1), forms));
    }
    Describe(out, "long lengths, PCE", Esds(PceConfig({{true, false, true}, {}, {}, 1, false, false, false}), {1, 1, 1}));
    ExpectGolden("media/adts.txt", out.str());
}

TEST(AdtsHeader, MissingArguments) {
    uint8_t header[7] = {};
    uint32_t size = 0;
    CaptureStream out(stdout);
    EXPECT_EQ(AAC_EsdsToAdtsHead(nullptr, 100, header, &size), -21);
    EXPECT_EQ(out.Text(), "No EsdsData given!");
    const Bytes esds = Esds(AudioConfig(2, 4, 2));
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, nullptr, &size), -20);
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, header, nullptr), -20);
}

TEST(BitField, ReadsAtAnyPositionAndRefusesFieldsPastTheEnd) {
    const Bytes buffer = Hex("A5 0F F0 81");
    const struct Case {
        uint32_t count, position;
        int32_t result;
        uint32_t value;
    } cases[] = {
        {0, 0, 1, 0},    {1, 0, 1, 1},     {4, 0, 1, 0xA},  {8, 4, 1, 0x50},  {12, 4, 1, 0x50F},     {32, 0, 1, 0xA50FF081},
        {1, 31, 1, 1},   {0, 32, 1, 0},    {1, 32, -1, 0},  {2, 31, -1, 0},   {33, 0, -1, 0},        {16, 0xFFFFFFF8u, -1, 0},
    };
    for (const Case &c : cases) {
        uint32_t value = 0xDEAD;
        EXPECT_EQ(GetBitField(buffer.data(), buffer.size(), &value, c.count, c.position), c.result) << c.count << "@" << c.position;
        EXPECT_EQ(value, c.value) << c.count << "@" << c.position;
    }
}

}  // namespace
