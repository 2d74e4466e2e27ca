// The video object layer parser and the header size of raw MPEG-4 video
// files.
#include <sstream>

#include "media/media.h"
#include "media/media_support.h"
#include "mp4core.h"

using namespace testing_support;
using namespace media_support;

namespace {

// ParseVolHeader's result, picture size and header size ("-" where left
// alone), GetM4vHeaderSize's on a file of the bytes, and the parse of each
// prefix in a block of exactly its size ("+" for 1, else the result's
// digit), so that the sanitizers see a read past it.
void Describe(std::ostream &out, const std::string &name, const Bytes &bytes) {
    auto text = [](uint32_t value, uint32_t untouched) { return value == untouched ? "-" : std::to_string(value); };
    uint32_t width = 0xAAAA, height = 0xBBBB, size = 0xCCCC;
    out << "== " << name << "\n  parse " << ParseVolHeader(bytes.data(), bytes.size(), &width, &height, &size) << ": "
        << text(width, 0xAAAA) << "x" << text(height, 0xBBBB) << ", header " << text(size, 0xCCCC) << " of " << bytes.size();
    TempFile file(bytes, ".m4v");
    width = height = 0xAAAA;
    out << "; file " << int32_t(GetM4vHeaderSize(file.c_str(), &width, &height)) << ": " << text(width, 0xAAAA) << "x"
        << text(height, 0xAAAA) << "\n  prefixes ";
    for (size_t length = 0; length < bytes.size() && length < 200; ++length) {
        const int32_t result = ParseVolHeader(Block(bytes, length).get(), length, &width, &height, &size);
        out << (result == 1 ? '+' : char('0' - result));
    }
    out << "\n";
}

// The headers in tests/data/media/vol, each varying one thing as its name
// says: video object layers of 320x240 with every field the parser steps
// over, the 176x144 header of the examples with its neighbours, and the
// forms a raw stream opens with; then FFmpeg's raw streams.
TEST(VolHeader, ListingOfHeadersFilesAndTheirPrefixes) {
    std::ostringstream out;
    for (const std::string &name : DataFiles("media/vol")) Describe(out, name, ReadWholeFile(FixturePath(name)));
    for (const char *name : {"sample.m4v", "m4v_vos_176x144.m4v", "m4v_no_vos_320x240.m4v", "m4v_user_data_64x48.m4v"})
        Describe(out, name, ReadWholeFile(FixturePath(name)));
    ExpectGolden("media/vol_header.txt", out.str());
    EXPECT_EQ(ParseVolHeader(nullptr, 100, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(GetM4vHeaderSize(nullptr, nullptr, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(GetM4vHeaderSize(FixturePath("sample.m4v").c_str(), nullptr, nullptr), 30u);  // sizes optional
}

}  // namespace
