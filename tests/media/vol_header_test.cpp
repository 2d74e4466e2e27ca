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

// The example header: a video object, a layer of 176x144, then the next
// start code.
const Bytes kQcifHeader = Hex("00 00 01 00 00 00 01 20 01 88 40 06 68 2C 20 90 A2 1F");
const Bytes kVopStart = Hex("00 00 01 B6");
const Bytes kSequenceInFront = Hex("00 00 01 B0 01 00 00 01 B5 09");

struct Layer {
    bool identifier = false;
    uint32_t version = 1;
    uint32_t aspect = 1;
    bool controlParameters = false;
    bool bufferParameters = false;
    uint32_t shape = 0;
    uint32_t resolution = 30;
    bool fixedRate = false;
    uint32_t width = 320;
    uint32_t height = 240;
    uint32_t spriteMode = 0;
    uint32_t warpingPoints = 0;
    bool not8Bit = false;
    bool quantType = false;
    bool intraMatrix = false;
    bool interMatrix = false;
    bool complexityDisabled = true;
    bool dataPartitioned = false;
    bool newpred = false;
    bool reducedResolution = false;
};

// The bits of the header from the video object start code to the stuffing.
Bytes BuildLayer(const Layer &l) {
    BitWriter w;
    w.Put(0x00000100, 32);
    w.Put(0x00000120, 32);
    w.Put(0, 1);
    w.Put(1, 8);
    w.Put(l.identifier, 1);
    if (l.identifier) {
        w.Put(l.version, 4);
        w.Put(1, 3);
    }
    w.Put(l.aspect, 4);
    if (l.aspect == 15) w.Put(0xFFFF, 16);
    w.Put(l.controlParameters, 1);
    if (l.controlParameters) {
        w.Put(1, 2);
        w.Put(1, 1);
        w.Put(l.bufferParameters, 1);
        if (l.bufferParameters) w.Skip(79);
    }
    w.Put(l.shape, 2);
    w.Put(1, 1);
    w.Put(l.resolution, 16);
    w.Put(1, 1);
    w.Put(l.fixedRate, 1);
    if (l.fixedRate) {
        uint32_t n = 1;
        while ((1u << n) < l.resolution) ++n;
        w.Put((1u << n) - 1, n);  // all ones: a misread shows in the size
    }
    w.Put(1, 1);
    w.Put(l.width, 13);
    w.Put(1, 1);
    w.Put(l.height, 13);
    w.Put(1, 1);
    w.Put(0, 2);
    w.Put(l.spriteMode, l.version == 1 ? 1 : 2);
    if (l.spriteMode == 2) {
        w.Put(l.warpingPoints, 6);
        w.Put(0, 3);
    }
    w.Put(l.not8Bit, 1);
    w.Put(l.quantType, 1);
    if (l.quantType) {
        w.Put(l.intraMatrix, 1);
        if (l.intraMatrix) w.Skip(512);
        w.Put(l.interMatrix, 1);
        if (l.interMatrix) w.Skip(512);
    }
    if (l.version != 1) w.Put(0, 1);
    w.Put(l.complexityDisabled, 1);
    w.Put(1, 1);
    w.Put(l.dataPartitioned, 1);
    if (l.dataPartitioned) w.Put(0, 1);
    if (l.version != 1) {
        w.Put(l.newpred, 1);
        w.Put(l.reducedResolution, 1);
    }
    w.Put(0, 1);
    w.Stuff();
    return w.bytes;
}

// The default layer with one change.
template <typename Change>
Layer With(Change change) {
    Layer l;
    change(l);
    return l;
}

struct ParseOutcome {
    int32_t result;
    uint32_t width, height, headerSize;
};

ParseOutcome Parse(const Bytes &bytes) {
    ParseOutcome o{0, 0xAAAA, 0xBBBB, 0xCCCC};
    o.result = ParseVolHeader(bytes.data(), bytes.size(), &o.width, &o.height, &o.headerSize);
    return o;
}

// Untouched outputs read 0xAAAA, 0xBBBB and 0xCCCC.
TEST(VolHeader, WholeHeadersAndWhereTheInputRunsOut) {
    const Bytes user = Cat({Hex("00 00 01 B2"), Text("Lavc58.134.100")});
    Bytes notALayer = Cat({kQcifHeader, kVopStart});
    notALayer[7] = 0xB6;
    struct Case {
        const char *name;
        Bytes bytes;
        int32_t result;
        uint32_t width, height, headerSize;
    };
    const Case cases[] = {
        {"the QCIF example", Cat({kQcifHeader, kVopStart}), 1, 176, 144, 18},
        // The media info of a track holds exactly these 18 bytes: the
        // picture size is there, the next start code is not.
        {"18 bytes alone", kQcifHeader, -1, 176, 144, 0xCCCC},
        {"user data is counted up to the next start code", Cat({kQcifHeader, user, kVopStart}), 1,
         176, 144, uint32_t(kQcifHeader.size() + user.size())},
        {"user data that never meets a start code", Cat({kQcifHeader, user}), -1, 176, 144, 0xCCCC},
        {"second start code must be a video object layer", notALayer, -1, 0xAAAA, 0xBBBB, 0xCCCC},
    };
    for (const Case &c : cases) {
        ParseOutcome o = Parse(c.bytes);
        EXPECT_EQ(o.result, c.result) << c.name;
        EXPECT_EQ(o.width, c.width) << c.name;
        EXPECT_EQ(o.height, c.height) << c.name;
        EXPECT_EQ(o.headerSize, c.headerSize) << c.name;
    }
}

TEST(VolHeader, EveryTruncationGivesMinusOneWithinTheInput) {
    // Each prefix is copied to a block of exactly its size, so that a read
    // past the end shows under the sanitizers.
    const Bytes full = Cat({kQcifHeader, Hex("00 00 01 B2"), Text("user"), kVopStart});
    ASSERT_EQ(Parse(full).result, 1);
    for (size_t length = 0; length < full.size() - 3; ++length) {
        std::unique_ptr<uint8_t[]> block(new uint8_t[length ? length : 1]);
        memcpy(block.get(), full.data(), length);
        uint32_t w = 0, h = 0, size = 0xCCCC;
        EXPECT_EQ(ParseVolHeader(block.get(), length, &w, &h, &size), -1) << length;
        EXPECT_EQ(size, 0xCCCCu) << length;
    }
    EXPECT_EQ(ParseVolHeader(nullptr, 100, nullptr, nullptr, nullptr), -1);
}

TEST(VolHeader, StepResults) {
    struct Case {
        const char *name;
        Layer layer;
        int32_t result;
        bool sizeWritten;
    };
    const Case cases[] = {
        {"plain", Layer{}, 1, true},
        {"shape binary", With([](Layer &l) { l.shape = 1; }), -1, false},
        {"shape grayscale", With([](Layer &l) { l.shape = 3; }), -1, false},
        {"4 warping points", With([](Layer &l) { l.identifier = true; l.version = 2; l.spriteMode = 2; l.warpingPoints = 4; }), -2, true},
        {"3 warping points", With([](Layer &l) { l.identifier = true; l.version = 2; l.spriteMode = 2; l.warpingPoints = 3; }), 1, true},
        {"static sprite", With([](Layer &l) { l.spriteMode = 1; }), -2, true},
        {"not 8 bit", With([](Layer &l) { l.not8Bit = true; }), -3, true},
        {"complexity estimation", With([](Layer &l) { l.complexityDisabled = false; }), -5, true},
        {"newpred", With([](Layer &l) { l.identifier = true; l.version = 2; l.newpred = true; }), -6, true},
        {"reduced resolution", With([](Layer &l) { l.identifier = true; l.version = 2; l.reducedResolution = true; }), -7, true},
        {"newpred ignored in version 1", With([](Layer &l) { l.identifier = true; l.version = 1; }), 1, true},
    };
    for (const Case &c : cases) {
        ParseOutcome o = Parse(Cat({BuildLayer(c.layer), kVopStart}));
        EXPECT_EQ(o.result, c.result) << c.name;
        if (c.sizeWritten) {
            EXPECT_EQ(o.width, 320u) << c.name;
            EXPECT_EQ(o.height, 240u) << c.name;
        } else {
            EXPECT_EQ(o.width, 0xAAAAu) << c.name;
        }
    }
}

TEST(VolHeader, OptionalFieldsAreSkippedByTheirLength) {
    struct Case {
        const char *name;
        Layer layer;
    };
    const Case cases[] = {
        {"identifier version 2", With([](Layer &l) { l.identifier = true; l.version = 2; })},
        {"extended aspect ratio", With([](Layer &l) { l.aspect = 15; })},
        {"control parameters", With([](Layer &l) { l.controlParameters = true; })},
        {"buffer parameters", With([](Layer &l) { l.controlParameters = true; l.bufferParameters = true; })},
        {"fixed rate 25", With([](Layer &l) { l.fixedRate = true; l.resolution = 25; })},
        {"fixed rate 16", With([](Layer &l) { l.fixedRate = true; l.resolution = 16; })},
        {"fixed rate 1", With([](Layer &l) { l.fixedRate = true; l.resolution = 1; })},
        {"fixed rate 0", With([](Layer &l) { l.fixedRate = true; l.resolution = 0; })},
        {"fixed rate 65535", With([](Layer &l) { l.fixedRate = true; l.resolution = 65535; })},
        {"both matrices", With([](Layer &l) { l.quantType = true; l.intraMatrix = l.interMatrix = true; })},
        {"inter matrix only", With([](Layer &l) { l.quantType = true; l.interMatrix = true; })},
        {"data partitioned", With([](Layer &l) { l.dataPartitioned = true; })},
        {"sprite mode 2", With([](Layer &l) { l.identifier = true; l.version = 2; l.spriteMode = 2; l.warpingPoints = 2; })},
    };
    for (const Case &c : cases) {
        const Bytes layer = BuildLayer(c.layer);
        ParseOutcome o = Parse(Cat({layer, kVopStart}));
        EXPECT_EQ(o.result, 1) << c.name;
        EXPECT_EQ(o.width, 320u) << c.name;
        EXPECT_EQ(o.height, 240u) << c.name;
        EXPECT_EQ(o.headerSize, layer.size()) << c.name;
    }
}

TEST(M4vHeaderSize, FileForms) {
    Layer not8Bit;
    not8Bit.not8Bit = true;
    struct Case {
        const char *name;
        Bytes contents;
        uint32_t result;
        uint32_t width, height;
    };
    const Case cases[] = {
        {"object first", Cat({kQcifHeader, kVopStart}), 18, 176, 144},
        {"sequence in front", Cat({kSequenceInFront, kQcifHeader, kVopStart}), 28, 176, 144},
        {"header ending the file", kQcifHeader, 18, 176, 144},
        {"opens with a picture", Cat({kVopStart, kQcifHeader}), 0xFFFFFFFFu, 0, 0},
        {"no start code", Hex("12 34 56 78"), 0xFFFFFFFFu, 0, 0},
        {"empty", Bytes{}, 0xFFFFFFFFu, 0, 0},
        {"sequence without object", Cat({kSequenceInFront, Zeros(40)}), 0xFFFFFFFFu, 0, 0},
        {"size kept when the parser stops behind it", Cat({BuildLayer(not8Bit), kVopStart}),
         0xFFFFFFFFu, 320, 240},
    };
    for (const Case &c : cases) {
        TempFile file(c.contents, ".m4v");
        uint32_t w = 0, h = 0;
        EXPECT_EQ(GetM4vHeaderSize(file.c_str(), &w, &h), c.result) << c.name;
        EXPECT_EQ(w, c.width) << c.name;
        EXPECT_EQ(h, c.height) << c.name;
    }
}

TEST(M4vHeaderSize, MissingFileGivesMinusOne) {
    TempPath path(".m4v");
    uint32_t w = 7, h = 7;
    EXPECT_EQ(GetM4vHeaderSize(path.c_str(), &w, &h), 0xFFFFFFFFu);
    EXPECT_EQ(w, 7u);
    EXPECT_EQ(GetM4vHeaderSize(nullptr, &w, &h), 0xFFFFFFFFu);
}

}  // namespace
