// The initial object descriptor: DecryptMp4Iod over arbitrary bytes in a
// buffer of the size EncryptMp4Iod keeps, and EncryptMp4Iod with an
// arbitrary video configuration read back by DecryptMp4Iod.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "frame/frame.h"
#include "iod/iod.h"
#include "mp4core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> input(IodBufferBytes(), 0);
    memcpy(input.data(), data, size < input.size() ? size : input.size());
    uint8_t *iod = input.data();
    IodConfigs configs{};
    DecryptMp4Iod(&configs, &iod);
    free(configs.VideoConfig);
    free(configs.AudioConfig);

    // A read handle without tracks and the input as its video configuration.
    MP4_local_file file{};
    const uint8_t configSize = uint8_t(size > 255 ? 255 : size);
    uint8_t *out = nullptr;
    const int32_t count = EncryptMp4Iod(&file, &out, data, configSize);
    if (count > 0) {
        if (count != int32_t(116 + configSize)) __builtin_trap();
        IodConfigs back{};
        const int32_t read = DecryptMp4Iod(&back, &out);
        if (configSize != 0 && (read != 1 || back.VideoConfigSize != configSize ||
                                memcmp(back.VideoConfig, data, configSize) != 0))
            __builtin_trap();
        free(back.VideoConfig);
        free(back.AudioConfig);
    }
    free(file.read.IodBuffer);
    return 0;
}
