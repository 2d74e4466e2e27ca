// The video object layer parser and the header size of raw MPEG-4 video
// files.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "media/bit_writer.h"
#include "media/media.h"
#include "mp4core.h"
#include "support/test_support.h"

using namespace testing_support;

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
    w.Put(l.newpred, v1 ? 0 : 1).Put(l.reduced, v1 ? 0 : 1).Put(0, 1);
    w.Put(0, 1);
    while (w.bits % 8) w.Put(1, 1);  // stuffing: a 0, then ones
    return w.bytes;
}
template <typename Change>
Layer With(Change change) {
    Layer l;
    change(l);
    return l;
}

// The parse of the header followed by a picture's start code: its result,
// and the outputs with 0xAAAA, 0xBBBB and 0xCCCC where untouched.
TEST(VolHeader, StepsAndOptionalFields) {
    const struct Case {
        const char *name;
        Layer layer;
        int32_t result;  // -1 writes no picture size, other failures do
    } cases[] = {
        {"plain", Layer{}, 1},
        {"identifier version 2", With([](Layer &l) { l.version = 2; }), 1},
        {"identifier version 1: newpred not read", With([](Layer &l) { l.version = 1; }), 1},
        {"extended aspect ratio", With([](Layer &l) { l.aspect = 15; }), 1},
        {"control parameters", With([](Layer &l) { l.control = true; }), 1},
        {"buffer parameters", With([](Layer &l) { l.control = l.buffer = true; }), 1},
        {"fixed rate 25", With([](Layer &l) { l.fixedRate = true, l.resolution = 25; }), 1},
        {"fixed rate 16", With([](Layer &l) { l.fixedRate = true, l.resolution = 16; }), 1},
        {"fixed rate 1", With([](Layer &l) { l.fixedRate = true, l.resolution = 1; }), 1},
        {"fixed rate 0", With([](Layer &l) { l.fixedRate = true, l.resolution = 0; }), 1},
        {"fixed rate 65535", With([](Layer &l) { l.fixedRate = true, l.resolution = 65535; }), 1},
        {"both matrices", With([](Layer &l) { l.quant = l.intra = l.inter = true; }), 1},
        {"inter matrix only", With([](Layer &l) { l.quant = l.inter = true; }), 1},
        {"data partitioned", With([](Layer &l) { l.partitioned = true; }), 1},
        {"3 warping points", With([](Layer &l) { l.version = 2, l.sprite = 2, l.warpingPoints = 3; }), 1},
        {"4 warping points", With([](Layer &l) { l.version = 2, l.sprite = 2, l.warpingPoints = 4; }), -2},
        {"static sprite", With([](Layer &l) { l.sprite = 1; }), -2},
        {"shape binary", With([](Layer &l) { l.shape = 1; }), -1},
        {"shape grayscale", With([](Layer &l) { l.shape = 3; }), -1},
        {"not 8 bit", With([](Layer &l) { l.not8Bit = true; }), -3},
        {"complexity estimation", With([](Layer &l) { l.complexity = true; }), -5},
        {"newpred", With([](Layer &l) { l.version = 2, l.newpred = true; }), -6},
        {"reduced resolution", With([](Layer &l) { l.version = 2, l.reduced = true; }), -7},
    };
    for (const Case &c : cases) {
        const Bytes layer = Build(c.layer), bytes = Cat({layer, kVop});
        uint32_t width = 0xAAAA, height = 0xBBBB, size = 0xCCCC;
        EXPECT_EQ(ParseVolHeader(bytes.data(), bytes.size(), &width, &height, &size), c.result) << c.name;
        EXPECT_EQ(width, c.result == -1 ? 0xAAAA : 320u) << c.name;
        EXPECT_EQ(height, c.result == -1 ? 0xBBBB : 240u) << c.name;
        EXPECT_EQ(size, c.result == 1 ? layer.size() : 0xCCCC) << c.name;
    }
}

TEST(VolHeader, WholeHeadersAndWhereTheInputRunsOut) {
    const Bytes user = Cat({Hex("00 00 01 B2"), Text("Lavc58.134.100")});
    const struct Case {
        const char *name;
        Bytes bytes;
        int32_t result;
        uint32_t width, height, size;
    } cases[] = {
        {"the QCIF example", Cat({kQcif, kVop}), 1, 176, 144, 18},
        // A track's media information holds exactly these 18 bytes.
        {"18 bytes alone", kQcif, -1, 176, 144, 0xCCCC},
        {"user data up to the next start code", Cat({kQcif, user, kVop}), 1, 176, 144, 36},
        {"user data that never meets a start code", Cat({kQcif, user}), -1, 176, 144, 0xCCCC},
        {"second start code not a layer's", Patch(Cat({kQcif, kVop}), 7, 0xB6), -1, 0xAAAA, 0xBBBB, 0xCCCC},
        {"layer start code 2F", Patch(Cat({kQcif, kVop}), 7, 0x2F), 1, 176, 144, 18},
    };
    for (const Case &c : cases) {
        uint32_t width = 0xAAAA, height = 0xBBBB, size = 0xCCCC;
        EXPECT_EQ(ParseVolHeader(c.bytes.data(), c.bytes.size(), &width, &height, &size), c.result) << c.name;
        EXPECT_EQ(width, c.width) << c.name;
        EXPECT_EQ(height, c.height) << c.name;
        EXPECT_EQ(size, c.size) << c.name;
    }
    // Each prefix in a block of exactly its size, so that the sanitizers
    // see a read past it.
    const Bytes full = Cat({kQcif, user, kVop});
    for (size_t length = 0; length + 3 < full.size(); ++length) {
        std::unique_ptr<uint8_t[]> block(new uint8_t[length + 1]);
        memcpy(block.get(), full.data(), length);
        uint32_t width = 0, height = 0, size = 0xCCCC;
        EXPECT_EQ(ParseVolHeader(block.get(), length, &width, &height, &size), -1) << length;
        EXPECT_EQ(size, 0xCCCCu) << length;
    }
    EXPECT_EQ(ParseVolHeader(nullptr, 100, nullptr, nullptr, nullptr), -1);
}

TEST(M4vHeaderSize, FileForms) {
    const struct Case {
        const char *name;
        Bytes contents;
        uint32_t result, width, height;
    } cases[] = {
        {"object first", Cat({kQcif, kVop}), 18, 176, 144},
        {"object start code 1F", Patch(Cat({kQcif, kVop}), 3, 0x1F), 18, 176, 144},
        {"sequence in front", Cat({kSequence, kQcif, kVop}), 28, 176, 144},
        {"header ending the file", kQcif, 18, 176, 144},
        {"opens with a picture", Cat({kVop, kQcif}), 0xFFFFFFFFu, 0, 0},
        {"opens with start code 20", Cat({Hex("00 00 01 20"), kQcif}), 0xFFFFFFFFu, 0, 0},
        {"no start code", Hex("12 34 56 78"), 0xFFFFFFFFu, 0, 0},
        {"empty", Bytes{}, 0xFFFFFFFFu, 0, 0},
        {"sequence without object", Cat({kSequence, Zeros(40)}), 0xFFFFFFFFu, 0, 0},
        {"size kept when the parser stops behind it", Cat({Build(With([](Layer &l) { l.not8Bit = true; })), kVop}),
         0xFFFFFFFFu, 320, 240},
        {"FFmpeg: sample.m4v", ReadWholeFile(FixturePath("sample.m4v")), 30, 176, 144},
        {"FFmpeg: sequence in front", ReadWholeFile(FixturePath("m4v_vos_176x144.m4v")), 30, 176, 144},
        {"FFmpeg: no sequence", ReadWholeFile(FixturePath("m4v_no_vos_320x240.m4v")), 19, 320, 240},
        {"FFmpeg: user data", ReadWholeFile(FixturePath("m4v_user_data_64x48.m4v")), 47, 64, 48},
    };
    for (const Case &c : cases) {
        TempFile file(c.contents, ".m4v");
        uint32_t width = 0, height = 0;
        EXPECT_EQ(GetM4vHeaderSize(file.c_str(), &width, &height), c.result) << c.name;
        EXPECT_EQ(width, c.width) << c.name;
        EXPECT_EQ(height, c.height) << c.name;
    }
    EXPECT_EQ(GetM4vHeaderSize((FixturePath("sample.m4v") + ".missing").c_str(), nullptr, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(GetM4vHeaderSize(nullptr, nullptr, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(GetM4vHeaderSize(FixturePath("sample.m4v").c_str(), nullptr, nullptr), 30u);  // sizes optional
}

}  // namespace
