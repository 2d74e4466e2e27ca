// ADTS headers from an "esds" atom, and the walk through its descriptors
// to the decoder configuration, over atoms that each vary one thing and
// over every prefix of each: one listing, tests/data/media/adts.txt.
#include <sstream>

#include "media/media.h"
#include "media/media_support.h"
#include "mp4core.h"

using namespace testing_support;
using namespace media_support;

namespace {

// Channel configuration 0 and a program configuration element whose
// elements are each a channel pair (true) or not.
struct Pce {
    std::vector<bool> front, side, back;
    uint32_t lfe;
    bool mono, stereo, matrix;
};
Bytes PceConfig(const Pce &p) {
    BitWriter w;
    w.Put(2, 5).Put(4, 4).Put(0, 7).Put(0x5, 4).Put(1, 2).Put(4, 4);  // ends with tag, object type, frequency
    w.Put(p.front.size(), 4).Put(p.side.size(), 4).Put(p.back.size(), 4).Put(p.lfe, 2).Put(0, 7);
    w.Put(p.mono, 1).Put(0x9, p.mono ? 4 : 0).Put(p.stereo, 1).Put(0x6, p.stereo ? 4 : 0).Put(p.matrix, 1).Put(0x5, p.matrix ? 3 : 0);
    for (const auto *elements : {&p.front, &p.side, &p.back})
        for (bool pair : *elements) w.Put(pair, 1).Put(0xA, 4);
    return w.Put(0xF, 4 * p.lfe).Put(0, 8).bytes;
}
Bytes Patch(Bytes bytes, size_t at, const Bytes &with) {
    return std::copy(with.begin(), with.end(), bytes.begin() + at), bytes;
}

void Describe(std::ostream &out, const std::string &name, const Bytes &esds, uint32_t frameSize = 100) {
    uint8_t header[7];
    uint32_t size = 0;
    auto block = Block(esds, esds.size());
    auto text = [&](int32_t result) { return std::to_string(result) + (result == 1 ? HexBytes(header, 7) : ""); };
    out << "== " << name << "\n  header " << text(MakeAdtsHeader(block.get(), esds.size(), frameSize, header, &size));
    out << "; by the size field " << text(AAC_EsdsToAdtsHead(block.get(), frameSize, header, &size));
    AacConfig c{};
    out << "\n  config " << ReadAacConfig(block.get(), esds.size(), &c) << ": " << c.ObjectTypeIndication << " "
        << c.MaxBitRate << " " << c.AvgBitRate << " " << c.AudioObjectType << " " << c.FrequencyIndex << " "
        << c.ChannelConfiguration;
    size_t offset = 0, bytes = 0;
    out << "; specific info " << FindDecoderSpecificInfo(block.get(), esds.size(), &offset, &bytes) << ": "
        << offset << " " << bytes << "\n  prefixes ";
    for (size_t length = 0; length <= esds.size(); ++length) {
        auto cut = Block(esds, length);
        int digit = (MakeAdtsHeader(cut.get(), length, 10, header, &size) == 1) + 2 * (ReadAacConfig(cut.get(), length, &c) == 1);
        if (length >= 4) memcpy(cut.get(), U32(uint32_t(length)).data(), 4);
        out << digit + 4 * (length >= 4 && AAC_EsdsToAdtsHead(cut.get(), 10, header, &size) == 1);
    }
    out << "\n";
}

TEST(AdtsHeader, ListingOfEsdsAtomsAndTheirPrefixes) {
    const Bytes lc = Esds(AudioConfig(2, 4, 2));
    Bytes big = lc;  // states 4 GiB; the export reads no more than a record's 228 bytes
    big.resize(228, 0);
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
        {"MPEG-2 audio object type indication", Esds(AudioConfig(2, 4, 2), kShortForms, 0x67), 100},
        {"PCE: one front pair and an LFE", Esds(PceConfig({{true}, {}, {}, 1, false, false, false})), 100},
        {"PCE: mono mixdown", Esds(PceConfig({{true, false}, {}, {}, 0, true, false, false})), 100},
        {"PCE: stereo mixdown", Esds(PceConfig({{true}, {false}, {}, 0, false, true, false})), 100},
        {"PCE: matrix mixdown", Esds(PceConfig({{false}, {}, {true}, 0, false, false, true})), 100},
        {"PCE: every mixdown", Esds(PceConfig({{true, false}, {true}, {false}, 2, true, true, true})), 100},
        {"PCE: side and back elements", Esds(PceConfig({{}, {true, true}, {false, true, false}, 3, false, false, false})), 100},
        {"PCE of 8 channels", Esds(PceConfig({{true, true, true, true}, {}, {}, 0, false, false, false})), 100},
        {"PCE behind long lengths", Esds(PceConfig({{true, false, true}, {}, {}, 1, false, false, false}), kLongEs | kLongDecoder | kLongSpecific), 100},
        {"ES length 80 80 05 80 is one byte", Patch(lc, 13, Hex("80 80 05 80")), 100},
        {"ES length 80 05 80 is one byte", Patch(lc, 13, Hex("80 05 80")), 100},
        {"ES length 05 80 80 is one byte", Patch(lc, 13, Hex("05 80 80")), 100},
        {"size field of 4 GiB", Patch(big, 0, Hex("FF FF FF FF")), 100},
    };
    std::ostringstream out;
    for (const Case &c : cases) Describe(out, c.name, c.esds, c.frameSize);
    for (int forms = kShortForms; forms <= (kLongEs | kLongDecoder | kLongSpecific); ++forms)
        Describe(out, "long lengths, 1 ES, 2 decoder, 4 specific: " + std::to_string(forms), Esds(AudioConfig(2, 7, 1), forms));
    ExpectGolden("media/adts.txt", out.str());
}

TEST(AdtsHeader, MissingArgumentsAndBitFieldsOutsideTheBuffer) {
    uint8_t header[7] = {};
    uint32_t size = 0;
    CaptureStream out(stdout);
    EXPECT_EQ(AAC_EsdsToAdtsHead(nullptr, 100, header, &size), -21);
    EXPECT_EQ(out.Text(), "No EsdsData given!");
    const Bytes esds = Esds(AudioConfig(2, 4, 2));
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, nullptr, &size), -20);
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, header, nullptr), -20);
    EXPECT_EQ(GetBitField(esds.data(), 4, &size, 32, 0), 1);
    EXPECT_EQ(size, esds.size());
    EXPECT_EQ(GetBitField(esds.data(), 4, &size, 33, 0), -1);
    EXPECT_EQ(GetBitField(esds.data(), 4, &size, 16, 0xFFFFFFF8u), -1);  // no wrap past the end
    EXPECT_EQ(size, 0u);
}

}  // namespace
