// The initial object descriptor: EncryptMp4Iod's bytes for the caller's
// video configuration (tests/data/media/iod.txt), and DecryptMp4Iod's
// reading of them and of hand-made blocks. What it makes of a file's own
// tracks is in the media listing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "frame/frame.h"
#include "iod/iod.h"
#include "media/golden.h"
#include "mp4core.h"

using namespace testing_support;

namespace {

// Refusals first: they leave the out argument and the handle alone; each
// output then overwrites the one before in the handle's buffer, and the
// last 2 bits of the template lie in one more, uncounted byte.
TEST(Iod, OutputForEachVideoBlockSizeAndWhatReadsBack) {
    MP4_local_file file{};
    std::ostringstream out;
    for (uint32_t size : {101u, 255u, 0u, 1u, 18u, 100u}) {
        Bytes config(size);
        for (uint32_t i = 0; i < size; ++i) config[i] = uint8_t(0xA0 + i);
        uint8_t *iod = reinterpret_cast<uint8_t *>(&out);
        const int32_t count = EncryptMp4Iod(&file, &iod, config.data(), uint8_t(size));
        out << "video block of " << size << ": " << count;
        if (count < 0) {
            EXPECT_EQ(iod, reinterpret_cast<uint8_t *>(&out)) << size;
            EXPECT_EQ(file.read.IodBuffer, nullptr) << size;
        }
        for (int32_t row = 0; count > 0 && row <= count; row += 16)
            out << "\n " << HexBytes(iod + row, std::min(16, count + 1 - row));
        out << "\n";
        if (count < 0) continue;
        ASSERT_EQ(iod, file.read.IodBuffer);
        IodConfigs configs{};
        configs.AudioConfig = reinterpret_cast<uint8_t *>(&out);  // no audio block: kept
        EXPECT_EQ(DecryptMp4Iod(&configs, &iod), size ? 1 : 0) << size;
        EXPECT_EQ(Bytes(configs.VideoConfig, configs.VideoConfig + configs.VideoConfigSize), size ? config : Bytes{});
        EXPECT_EQ(configs.AudioConfig, reinterpret_cast<uint8_t *>(&out));
        free(configs.VideoConfig);
    }
    free(file.read.IodBuffer);
    ExpectGolden("media/iod.txt", out.str());
}

TEST(Iod, NullArgumentsAreRefused) {
    MP4_local_file file{};
    uint8_t *iod = nullptr;
    const uint8_t config = 1;
    IodConfigs configs{};
    EXPECT_EQ(EncryptMp4Iod(nullptr, &iod, &config, 1), -99);
    EXPECT_EQ(EncryptMp4Iod(&file, nullptr, &config, 1), -99);
    EXPECT_EQ(DecryptMp4Iod(nullptr, &iod), -99);
    EXPECT_EQ(DecryptMp4Iod(&configs, nullptr), -99);
    EXPECT_EQ(DecryptMp4Iod(&configs, &iod), -99);  // *iod is null
}

// Inputs laid out as the descriptor is, in buffers of the size that
// EncryptMp4Iod keeps, so that a read past it shows.
TEST(Iod, DecryptOfHandMadeBlocks) {
    const struct Case {
        uint32_t videoSize, audioSize;
        int32_t result;
    } cases[] = {{18, 40, 1}, {18, 0, 1}, {0, 40, 0}, {100, 99, 1}, {101, 0, -98}, {255, 0, -98}, {10, 101, -98}, {100, 100, -98}};
    for (const Case &c : cases) {
        std::vector<uint8_t> input(IodBufferBytes(), 0xEE);
        input[81] = uint8_t(c.videoSize);
        for (uint32_t i = 0; i < c.videoSize && 82 + i < input.size(); ++i) input[82 + i] = uint8_t(i);
        const size_t audioAt = 82 + c.videoSize + 28;
        if (audioAt < input.size()) input[audioAt] = uint8_t(c.audioSize);
        for (uint32_t i = 0; i < c.audioSize && audioAt + 1 + i < input.size(); ++i) input[audioAt + 1 + i] = uint8_t(0x80 + i);
        uint8_t *iod = input.data();
        IodConfigs configs{};
        EXPECT_EQ(DecryptMp4Iod(&configs, &iod), c.result) << c.videoSize << "/" << c.audioSize;
        EXPECT_EQ(configs.VideoConfigSize, c.result == 1 ? c.videoSize : 0) << c.videoSize << "/" << c.audioSize;
        EXPECT_EQ(configs.AudioConfigSize, c.result == 1 ? c.audioSize : 0) << c.videoSize << "/" << c.audioSize;
        if (c.result == 1) {
            EXPECT_EQ(configs.VideoConfig[c.videoSize - 1], uint8_t(c.videoSize - 1));
            EXPECT_EQ(configs.VideoConfig[c.videoSize], 0);  // one zero byte more than the block
            EXPECT_TRUE(c.audioSize == 0 || configs.AudioConfig[c.audioSize - 1] == uint8_t(0x80 + c.audioSize - 1));
        }
        free(configs.VideoConfig);
        free(configs.AudioConfig);
    }
}

}  // namespace
