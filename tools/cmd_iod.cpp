// mp4core iod FILE: the initial object descriptor that EncryptMp4Iod writes
// for the file, in hex, and the two configurations DecryptMp4Iod reads back.
#include <cstdio>

#include "commands.h"
#include "mp4core.h"

namespace {

void PrintHex(const char *label, const uint8_t *bytes, uint32_t size) {
    std::printf("%s (%u bytes):", label, size);
    for (uint32_t i = 0; i < size; ++i) std::printf("%s%02X", i % 16 == 0 ? "\n  " : " ", bytes[i]);
    std::printf("\n");
}

}  // namespace

int RunIod(int argc, char **argv) {
    if (argc != 1) {
        std::fprintf(stderr, "usage: mp4core iod FILE\n");
        return 2;
    }
    MP4_local_file *file = nullptr;
    const int32_t opened = MP4FileOpen(&file, argv[0], MP4_TABLE_MARKS);
    if (opened != 1) {
        std::fprintf(stderr, "mp4core iod: MP4FileOpen gave %d\n", int(opened));
        return 1;
    }
    uint8_t *iod = nullptr;
    const int32_t count = EncryptMp4Iod(file, &iod, nullptr, 0);
    int status = 1;
    if (count <= 0) {
        std::fprintf(stderr, "mp4core iod: EncryptMp4Iod gave %d\n", int(count));
    } else {
        PrintHex("initial object descriptor", iod, uint32_t(count));
        IodConfigs configs{};
        const int32_t read = DecryptMp4Iod(&configs, &iod);
        std::printf("DecryptMp4Iod: %d\n", int(read));
        if (configs.VideoConfig) PrintHex("video configuration", configs.VideoConfig, configs.VideoConfigSize);
        if (configs.AudioConfig) PrintHex("audio configuration", configs.AudioConfig, configs.AudioConfigSize);
        void *blocks[] = {configs.VideoConfig, configs.AudioConfig};
        for (void *&block : blocks) MP4freeData(&block);
        status = read >= 0 ? 0 : 1;
    }
    MP4FileClose(&file);  // releases the descriptor too
    return status;
}
