// mp4core iod FILE: the initial object descriptor that EncryptMp4Iod writes
// for the file, in hex, and the two configurations DecryptMp4Iod reads back.
#include <cstdio>

#include "commands.h"
#include "mp4core.h"
#include "result_text.h"
#include "views.h"

namespace {

void PrintHex(const char *label, const uint8_t *bytes, uint32_t size) {
    PrintHexBlock(label, bytes, size, 0);
}

int RunIod(const Arguments &arguments) {
    MP4_local_file *file = nullptr;
    const int32_t opened = MP4FileOpen(&file, arguments.operands[0], MP4_TABLE_MARKS);
    if (opened != 1) return ReportFailure(kIodCommand.name, "MP4FileOpen", opened);
    uint8_t *iod = nullptr;
    const int32_t count = EncryptMp4Iod(file, &iod, nullptr, 0);
    int status = 1;
    if (count <= 0) {
        ReportFailure(kIodCommand.name, "EncryptMp4Iod", count);
    } else {
        PrintHex("initial object descriptor", iod, uint32_t(count));
        IodConfigs configs{};
        const int32_t read = DecryptMp4Iod(&configs, &iod);
        std::printf("DecryptMp4Iod: %d\n", int(read));
        if (configs.VideoConfig) PrintHex("video configuration", configs.VideoConfig, configs.VideoConfigSize);
        if (configs.AudioConfig) PrintHex("audio configuration", configs.AudioConfig, configs.AudioConfigSize);
        void *blocks[] = {configs.VideoConfig, configs.AudioConfig};
        for (void *&block : blocks) MP4freeData(&block);
        // 0: the descriptor holds no video configuration, which is no failure.
        status = read >= 0 ? 0 : ReportFailure(kIodCommand.name, "DecryptMp4Iod", read);
    }
    MP4FileClose(&file);  // releases the descriptor too
    return status;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file whose descriptor is made"}};

}  // namespace

extern const CommandRow kIodCommand = {
    "iod",
    "the initial object descriptor in hex, and what reads back",
    kOperands, CountOf(kOperands), nullptr, 0,
    "\nPrints the initial object descriptor EncryptMp4Iod writes for FILE's tracks,\n"
    "in hex, then the result of DecryptMp4Iod on it and the video and audio\n"
    "configurations it reads back.\n",
    RunIod,
};
