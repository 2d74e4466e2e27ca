// The initial object descriptor: EncryptMp4Iod's bytes and DecryptMp4Iod's
// reading of them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "iod/iod.h"
#include "mp4core.h"
#include "support/test_support.h"

using namespace testing_support;

namespace {

// The descriptor's fixed parts, as they must come out byte for byte.
const Bytes kHead = Hex("02 81 7F 00 4F 01 01 01 01 01 03 81 12 00 01 40 6E");
const Bytes kUrl = Text("data:application/mpeg4-od-au;base64,");
const Bytes kBeforeVideo = Hex("01 38 03 1B 05 1F 03 17 00 C9 24 00 65 04 0D 11 00 17 70"
                               "00 00 FA 00 00 00 C3 50 05");
const Bytes kBetweenBlocks = Hex("06 01 04 01 19 02 9F 03 15 00 65 05 04 0D 40 15 00 07 D0"
                                 "00 00 3E 80 00 00 3E 80 05");
const Bytes kTail = Hex("06 01 03 04 00");

Bytes ExpectedIod(const Bytes &video, const Bytes &audio) {
    return Cat({kHead, kUrl, kBeforeVideo, U8(uint8_t(video.size())), video, kBetweenBlocks,
                U8(uint8_t(audio.size())), audio, kTail});
}

// A read handle without tracks: the descriptor then depends only on the
// caller's video configuration.
struct BareHandle {
    MP4_local_file file{};
    ~BareHandle() { free(file.read.IodBuffer); }
};

// The output is the template with the caller's video configuration, in
// the handle's buffer; a refusal leaves the out argument alone.
TEST(Iod, OutputAndBlockSizesAtTheLimits) {
    struct Case {
        uint32_t size;
        int32_t result;
    };
    const Case cases[] = {{0, 116}, {1, 117}, {5, 121}, {100, 216}, {101, -97}, {255, -97}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        BareHandle handle;
        const Bytes config(c.size, 0x5A);
        uint8_t *iod = reinterpret_cast<uint8_t *>(&handle);
        uint8_t *const before = iod;
        EXPECT_EQ(EncryptMp4Iod(&handle.file, &iod, config.data(), uint8_t(c.size)), c.result);
        if (c.result > 0) {
            ASSERT_EQ(iod, handle.file.read.IodBuffer);
            EXPECT_EQ(Bytes(iod, iod + c.result), ExpectedIod(config, {}));
            EXPECT_EQ(iod[81], c.size);
            // The last 2 bits of the template lie in one more, uncounted byte.
            EXPECT_EQ(iod[c.result], 0);
        } else {
            EXPECT_EQ(iod, before);
            EXPECT_EQ(handle.file.read.IodBuffer, nullptr);
        }
    }
}

TEST(Iod, SecondCallOverwritesTheFirstOutput) {
    BareHandle handle;
    uint8_t *first = nullptr, *second = nullptr;
    const Bytes a = Hex("11 22 33"), b = Hex("44 55");
    ASSERT_EQ(EncryptMp4Iod(&handle.file, &first, a.data(), 3), 119);
    ASSERT_EQ(EncryptMp4Iod(&handle.file, &second, b.data(), 2), 118);
    EXPECT_EQ(second, handle.file.read.IodBuffer);
    EXPECT_EQ(Bytes(second, second + 118), ExpectedIod(b, {}));
}

TEST(Iod, NullArgumentsAreRefused) {
    BareHandle handle;
    uint8_t *iod = nullptr;
    const Bytes config = Hex("01");
    EXPECT_EQ(EncryptMp4Iod(nullptr, &iod, config.data(), 1), -99);
    EXPECT_EQ(EncryptMp4Iod(&handle.file, nullptr, config.data(), 1), -99);
    IodConfigs configs{};
    EXPECT_EQ(DecryptMp4Iod(nullptr, &iod), -99);
    EXPECT_EQ(DecryptMp4Iod(&configs, nullptr), -99);
    EXPECT_EQ(DecryptMp4Iod(&configs, &iod), -99);  // *iod is null
}

TEST(Iod, DecryptReadsBackWhatEncryptWrote) {
    BareHandle handle;
    const Bytes config = Hex("00 00 01 00 00 00 01 20 01 88 40 06 68 2C 20 90 A2 1F");
    uint8_t *iod = nullptr;
    ASSERT_EQ(EncryptMp4Iod(&handle.file, &iod, config.data(), 18), 134);
    IodConfigs configs{};
    configs.Head[0] = 0xCAFE;
    configs.AudioConfig = reinterpret_cast<uint8_t *>(&configs);  // no audio block: kept
    configs.AudioConfigSize = 77;
    ASSERT_EQ(DecryptMp4Iod(&configs, &iod), 1);
    EXPECT_EQ(Bytes(configs.VideoConfig, configs.VideoConfig + configs.VideoConfigSize), config);
    EXPECT_EQ(configs.Head[0], 0xCAFEu);
    EXPECT_EQ(configs.AudioConfig, reinterpret_cast<uint8_t *>(&configs));
    EXPECT_EQ(configs.AudioConfigSize, 77u);
    void *block = configs.VideoConfig;
    EXPECT_EQ(MP4freeData(&block), 1);
}

TEST(Iod, DecryptOfHandMadeBlocks) {
    // Inputs laid out as the descriptor is, in buffers of exactly the size
    // that EncryptMp4Iod keeps, so that a read past it shows.
    struct Case {
        const char *name;
        uint32_t videoSize, audioSize;
        int32_t result;
    };
    const Case cases[] = {
        {"both blocks", 18, 40, 1},
        {"no audio block", 18, 0, 1},
        {"no video block", 0, 40, 0},
        {"largest accepted", 100, 99, 1},
        {"video above 100", 101, 0, -98},
        {"video of 255", 255, 0, -98},
        {"audio above 100", 10, 101, -98},
        {"both at 100", 100, 100, -98},
    };
    for (const Case &c : cases) {
        std::vector<uint8_t> input(IodBufferBytes(), 0xEE);
        input[81] = uint8_t(c.videoSize);
        for (uint32_t i = 0; i < c.videoSize && 82 + i < input.size(); ++i) input[82 + i] = uint8_t(i);
        const size_t audioAt = 82 + c.videoSize + 28;
        if (audioAt < input.size()) input[audioAt] = uint8_t(c.audioSize);
        for (uint32_t i = 0; i < c.audioSize && audioAt + 1 + i < input.size(); ++i)
            input[audioAt + 1 + i] = uint8_t(0x80 + i);
        uint8_t *iod = input.data();
        IodConfigs configs{};
        EXPECT_EQ(DecryptMp4Iod(&configs, &iod), c.result) << c.name;
        if (c.result == 1) {
            ASSERT_EQ(configs.VideoConfigSize, c.videoSize) << c.name;
            EXPECT_EQ(configs.VideoConfig[c.videoSize - 1], uint8_t(c.videoSize - 1)) << c.name;
            EXPECT_EQ(configs.AudioConfigSize, c.audioSize) << c.name;
            if (c.audioSize) {
                EXPECT_EQ(configs.AudioConfig[0], 0x80) << c.name;
            }
        } else {
            EXPECT_EQ(configs.VideoConfig, nullptr) << c.name;
            EXPECT_EQ(configs.AudioConfig, nullptr) << c.name;
        }
        free(configs.VideoConfig);
        free(configs.AudioConfig);
    }
}

}  // namespace
