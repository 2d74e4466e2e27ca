// The initial object descriptor: EncryptMp4Iod's bytes for the caller's
// video configuration and DecryptMp4Iod's reading of them and of hand-made
// length bytes, in tests/data/media/iod.txt. What it makes of a file's own
// tracks is in the media transcript.
#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "frame/frame.h"
#include "iod/iod.h"
#include "media/media_support.h"
#include "mp4core.h"

using namespace testing_support;
using namespace media_support;

namespace {

// Refusals come first: they leave the out argument and the handle alone.
// Each output then takes the place of the one before in the handle's
// buffer; the last 2 bits of the template lie in one more, uncounted byte.
TEST(Iod, ListingOfOutputsAndWhatReadsBack) {
    MP4_local_file file{};
    std::ostringstream out;
    for (uint32_t size : {101u, 255u, 0u, 1u, 18u, 100u}) {
        Bytes config(size);
        for (uint32_t i = 0; i < size; ++i) config[i] = uint8_t(0xA0 + i);
        uint8_t *iod = nullptr;
        const int32_t count = EncryptMp4Iod(&file, &iod, config.data(), uint8_t(size));
        out << "video block of " << size << ": " << count;
        EXPECT_EQ(iod, count < 0 ? nullptr : file.read.IodBuffer) << size;
        for (int32_t row = 0; count > 0 && row <= count; row += 16) out << "\n " << HexBytes(iod + row, std::min(16, count + 1 - row));
        IodConfigs configs{};
        configs.AudioConfig = config.data();  // no audio block: left alone
        if (count > 0) out << "\n  read back " << DecryptMp4Iod(&configs, &iod) << ":" << HexBytes(configs.VideoConfig, configs.VideoConfigSize);
        EXPECT_EQ(configs.AudioConfig, config.data());
        free(configs.VideoConfig);
        out << "\n";
    }
    free(file.read.IodBuffer);
    // Length bytes in a buffer of the size EncryptMp4Iod keeps; each block
    // read back with one zero byte more.
    for (auto sizes : {std::make_pair(18, 40), {18, 0}, {0, 40}, {100, 99}, {101, 0}, {255, 0}, {10, 101}, {100, 100}}) {
        Bytes input(IodBufferBytes());
        for (size_t i = 0; i < input.size(); ++i) input[i] = uint8_t(i);
        input[81] = uint8_t(sizes.first);
        if (82 + sizes.first + 28 < int(input.size())) input[82 + sizes.first + 28] = uint8_t(sizes.second);
        uint8_t *iod = input.data();
        IodConfigs c{};
        out << "blocks of " << sizes.first << " and " << sizes.second << ": " << DecryptMp4Iod(&c, &iod) << ","
            << HexBytes(c.VideoConfig, c.VideoConfig ? c.VideoConfigSize + 1 : 0) << " |" << HexBytes(c.AudioConfig, c.AudioConfig ? c.AudioConfigSize + 1 : 0) << "\n";
        free(c.VideoConfig), free(c.AudioConfig);
    }
    ExpectGolden("media/iod.txt", out.str());
    IodConfigs configs{};
    uint8_t *iod = nullptr;
    EXPECT_EQ(EncryptMp4Iod(nullptr, &iod, nullptr, 0), -99);
    EXPECT_EQ(EncryptMp4Iod(&file, nullptr, nullptr, 0), -99);
    EXPECT_EQ(DecryptMp4Iod(nullptr, &iod), -99);
    EXPECT_EQ(DecryptMp4Iod(&configs, nullptr), -99);
    EXPECT_EQ(DecryptMp4Iod(&configs, &iod), -99);  // *iod is null
}

}  // namespace
