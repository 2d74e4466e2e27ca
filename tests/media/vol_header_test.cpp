// The video object layer parser and the header size of raw MPEG-4 video
// files.
#include <sstream>

#include "media/media.h"
#include "media/media_support.h"
#include "mp4core.h"

using namespace testing_support;
using namespace media_support;

namespace {

// A video object, a layer of 176x144, then the next start code.
const Bytes kQcif = Hex("00 00 01 00 00 00 01 20 01 88 40 06 68 2C 20 90 A2 1F");
const Bytes kVop = Hex("00 00 01 B6");
const Bytes kSequence = Hex("00 00 01 B0 01 00 00 01 B5 09");
Bytes Patch(Bytes bytes, size_t at, uint8_t value) { return bytes[at] = value, bytes; }

// A layer of 320x240; every field the parser has to step over.
struct Layer {
    uint32_t version = 0;  // 0: no identifier
    uint32_t aspect = 1, shape = 0, resolution = 30, sprite = 0, warpingPoints = 0;
    bool control = false, buffer = false, fixedRate = false, not8Bit = false, quant = false, intra = false,
         inter = false, complexity = false, partitioned = false, newpred = false, reduced = false;
};

// The header bits from the video object start code to the stuffing.
Bytes Build(const Layer &l) {
    const bool v1 = l.version <= 1;
    BitWriter w;
    w.Put(0x100, 32).Put(0x120, 32).Put(1, 9).Put(l.version != 0, 1).Put(l.version, l.version ? 4 : 0).Put(1, l.version ? 3 : 0);
    w.Put(l.aspect, 4).Put(0xFFFF, l.aspect == 15 ? 16 : 0).Put(l.control, 1);
    if (l.control) w.Put(0x3, 3).Put(l.buffer, 1).Put(0, l.buffer ? 79 : 0);
    w.Put(l.shape, 2).Put(1, 1).Put(l.resolution, 16).Put(1, 1).Put(l.fixedRate, 1);
    uint32_t bits = 1;
    while ((1u << bits) < l.resolution) ++bits;
    w.Put(0xFFFF, l.fixedRate ? bits : 0);  // all ones: a misread shows in the size
    w.Put(1, 1).Put(320, 13).Put(1, 1).Put(240, 13).Put(1, 1).Put(0, 2).Put(l.sprite, v1 ? 1 : 2);
    if (l.sprite == 2) w.Put(l.warpingPoints, 6).Put(0, 3);
    w.Put(l.not8Bit, 1).Put(l.quant, 1);
    if (l.quant) w.Put(l.intra, 1).Put(0, l.intra ? 512 : 0).Put(l.inter, 1).Put(0, l.inter ? 512 : 0);
    w.Put(0, v1 ? 0 : 1).Put(!l.complexity, 1).Put(1, 1).Put(l.partitioned, 1).Put(0, l.partitioned ? 1 : 0);
    w.Put(l.newpred, v1 ? 0 : 1).Put(l.reduced, v1 ? 0 : 1).Put(0, 1).Put(0, 1);
    while (w.bits % 8) w.Put(1, 1);  // stuffing: a 0, then ones
    return w.bytes;
}
// The layer with one change, followed by a picture's start code.
template <typename Change>
Bytes LayerWith(Change change) {
    Layer l;
    change(l);
    return Cat({Build(l), kVop});
}

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

TEST(VolHeader, ListingOfLayersFilesAndTheirPrefixes) {
    const Bytes user = Cat({Hex("00 00 01 B2"), Text("Lavc58")});
    const struct Case {
        const char *name;
        Bytes bytes;
    } cases[] = {
        {"plain layer", LayerWith([](Layer &) {})},
        {"identifier version 2", LayerWith([](Layer &l) { l.version = 2; })},
        {"identifier version 1: newpred not read", LayerWith([](Layer &l) { l.version = 1; })},
        {"extended aspect ratio", LayerWith([](Layer &l) { l.aspect = 15; })},
        {"control parameters", LayerWith([](Layer &l) { l.control = true; })},
        {"buffer parameters", LayerWith([](Layer &l) { l.control = l.buffer = true; })},
        {"fixed rate 25", LayerWith([](Layer &l) { l.fixedRate = true, l.resolution = 25; })},
        {"fixed rate 16", LayerWith([](Layer &l) { l.fixedRate = true, l.resolution = 16; })},
        {"fixed rate 1", LayerWith([](Layer &l) { l.fixedRate = true, l.resolution = 1; })},
        {"fixed rate 65535", LayerWith([](Layer &l) { l.fixedRate = true, l.resolution = 65535; })},
        {"both matrices", LayerWith([](Layer &l) { l.quant = l.intra = l.inter = true; })},
        {"inter matrix only", LayerWith([](Layer &l) { l.quant = l.inter = true; })},
        {"data partitioned", LayerWith([](Layer &l) { l.partitioned = true; })},
        {"3 warping points", LayerWith([](Layer &l) { l.version = 2, l.sprite = 2, l.warpingPoints = 3; })},
        {"4 warping points", LayerWith([](Layer &l) { l.version = 2, l.sprite = 2, l.warpingPoints = 4; })},
        {"static sprite", LayerWith([](Layer &l) { l.sprite = 1; })},
        {"shape binary", LayerWith([](Layer &l) { l.shape = 1; })},
        {"not 8 bit", LayerWith([](Layer &l) { l.not8Bit = true; })},
        {"complexity estimation", LayerWith([](Layer &l) { l.complexity = true; })},
        {"newpred", LayerWith([](Layer &l) { l.version = 2, l.newpred = true; })},
        {"reduced resolution", LayerWith([](Layer &l) { l.version = 2, l.reduced = true; })},
        {"the QCIF header", Cat({kQcif, kVop})},
        {"18 bytes alone, as a track's media information holds them", kQcif},
        {"user data up to the next start code", Cat({kQcif, user, kVop})},
        {"user data that never meets a start code", Cat({kQcif, user})},
        {"second start code not a layer's", Patch(Cat({kQcif, kVop}), 7, 0xB6)},
        {"layer start code 2F", Patch(Cat({kQcif, kVop}), 7, 0x2F)},
        {"object start code 1F", Patch(Cat({kQcif, kVop}), 3, 0x1F)},
        {"sequence in front", Cat({kSequence, kQcif, kVop})},
        {"opens with a picture", Cat({kVop, kQcif})},
        {"opens with start code 20", Cat({Hex("00 00 01 20"), kQcif})},
        {"no start code", Hex("12 34 56 78")},
        {"empty", Bytes{}},
        {"sequence without object", Cat({kSequence, Zeros(40)})},
        {"FFmpeg's sample.m4v", ReadWholeFile(FixturePath("sample.m4v"))},
        {"FFmpeg, sequence in front", ReadWholeFile(FixturePath("m4v_vos_176x144.m4v"))},
        {"FFmpeg, no sequence", ReadWholeFile(FixturePath("m4v_no_vos_320x240.m4v"))},
        {"FFmpeg, user data", ReadWholeFile(FixturePath("m4v_user_data_64x48.m4v"))},
    };
    std::ostringstream out;
    for (const Case &c : cases) Describe(out, c.name, c.bytes);
    ExpectGolden("media/vol_header.txt", out.str());
    EXPECT_EQ(ParseVolHeader(nullptr, 100, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(GetM4vHeaderSize(nullptr, nullptr, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(GetM4vHeaderSize(FixturePath("sample.m4v").c_str(), nullptr, nullptr), 30u);  // sizes optional
}

}  // namespace
