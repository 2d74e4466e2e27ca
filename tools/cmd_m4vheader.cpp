// mp4core m4vheader FILE: the header size and picture size of a raw MPEG-4
// video stream, as GetM4vHeaderSize measures them.
#include <cstdio>

#include "commands.h"
#include "mp4core.h"

int RunM4vHeader(int argc, char **argv) {
    if (argc != 1) {
        std::fprintf(stderr, "usage: mp4core m4vheader FILE\n");
        return 2;
    }
    uint32_t width = 0, height = 0;
    const uint32_t size = GetM4vHeaderSize(argv[0], &width, &height);
    if (size == 0xFFFFFFFFu || size == 0) {
        std::fprintf(stderr, "mp4core m4vheader: no video object layer header (%d)\n", int(int32_t(size)));
        if (width || height) std::printf("width %u\nheight %u\n", width, height);
        return 1;
    }
    std::printf("header size %u\nwidth %u\nheight %u\n", size, width, height);
    return 0;
}
