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

void Describe(std::ostream &out, const std::string &name, const Bytes &esds) {
    uint8_t header[7];
    uint32_t size = 0;
    auto block = Block(esds, esds.size());
    auto text = [&](int32_t result) { return std::to_string(result) + (result == 1 ? HexBytes(header, 7) : ""); };
    out << "== " << name;
    for (uint32_t frameSize : {0u, 100u, 1000u, 8184u, 8185u, 0xFFFFFFFFu})
        out << "\n  frame of " << frameSize << ": " << text(MakeAdtsHeader(block.get(), esds.size(), frameSize, header, &size))
            << "; by the size field " << text(AAC_EsdsToAdtsHead(block.get(), frameSize, header, &size));
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

// The atoms in tests/data/media/esds, each varying one thing as its name
// says: audio object type, frequency, channels, a program configuration
// element, length forms of the descriptors (long in 1 the ES descriptor, 2
// the decoder configuration, 4 the specific info), a size field of 4 GiB.
TEST(AdtsHeader, ListingOfEsdsAtomsAndTheirPrefixes) {
    std::ostringstream out;
    for (const std::string &name : DataFiles("media/esds")) Describe(out, name, ReadWholeFile(FixturePath(name)));
    ExpectGolden("media/adts.txt", out.str());
}

TEST(AdtsHeader, MissingArgumentsAndBitFieldsOutsideTheBuffer) {
    uint8_t header[7] = {};
    uint32_t size = 0;
    CaptureStream out(stdout);
    EXPECT_EQ(AAC_EsdsToAdtsHead(nullptr, 100, header, &size), -21);
    EXPECT_EQ(out.Text(), "No EsdsData given!");
    const Bytes esds = ReadWholeFile(FixturePath("media/esds/00_lc_44_1_khz_stereo.esds"));
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, nullptr, &size), -20);
    EXPECT_EQ(AAC_EsdsToAdtsHead(esds.data(), 100, header, nullptr), -20);
    EXPECT_EQ(GetBitField(esds.data(), 4, &size, 32, 0), 1);
    EXPECT_EQ(size, esds.size());
    EXPECT_EQ(GetBitField(esds.data(), 4, &size, 33, 0), -1);
    EXPECT_EQ(GetBitField(esds.data(), 4, &size, 16, 0xFFFFFFF8u), -1);  // no wrap past the end
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(ReadPceChannelCount(esds.data(), 3, &size), -1);  // cut at the mono mixdown flag
}

}  // namespace
