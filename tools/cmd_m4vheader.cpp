// mp4core m4vheader FILE: the header size and picture size of a raw MPEG-4
// video stream, as GetM4vHeaderSize measures them.
#include <cstdio>

#include "commands.h"
#include "mp4core.h"
#include "result_text.h"

namespace {

// GetM4vHeaderSize's results besides a size: all bits set when the file
// can't be opened or parsed, 0 when no buffer could be had.
constexpr uint32_t kHeaderNotFound = 0xFFFFFFFFu;
constexpr uint32_t kHeaderNoMemory = 0;

int RunM4vHeader(const Arguments &arguments) {
    uint32_t width = 0, height = 0;
    const uint32_t size = GetM4vHeaderSize(arguments.operands[0], &width, &height);
    if (size == kHeaderNotFound || size == kHeaderNoMemory) {
        // A size the parser reached before it stopped is still worth showing.
        if (width || height) std::printf("width %u\nheight %u\n", width, height);
        return ReportFailure(kM4vHeaderCommand.name, "GetM4vHeaderSize", int32_t(size));
    }
    std::printf("header size %u\nwidth %u\nheight %u\n", size, width, height);
    return 0;
}

constexpr OperandRow kOperands[] = {{"FILE", "a raw MPEG-4 visual stream (.m4v)"}};

}  // namespace

extern const CommandRow kM4vHeaderCommand = {
    "m4vheader",
    "header size and picture size of a raw MPEG-4 video stream",
    kOperands, CountOf(kOperands), nullptr, 0,
    "\nPrints what GetM4vHeaderSize measures in the first 500 bytes of FILE: the\n"
    "size of the stream headers up to the next start code, and the picture's\n"
    "width and height from the video object layer header.\n",
    RunM4vHeader,
};
