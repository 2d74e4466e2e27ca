// mp4core: command-line front end of the library.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

struct Command {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *summary;
};

constexpr Command kCommands[] = {
    {"dump", RunDump, "dump FILE: the atom tree as read, with the open's diagnostics"},
    {"samples", RunSamples, "samples FILE [--track ID] [--mode 1|2|3]: one line per sample"},
    {"m4vheader", RunM4vHeader, "m4vheader FILE: header size and picture size of a raw MPEG-4 video stream"},
    {"mux", RunMux, "mux -o OUT.mp4 [--video IN.m4v] [--audio IN.aac] [--od] [--scene]"},
    {"info", RunInfo, "info FILE: file summary and the media information of each track"},
    {"extract", RunExtract, "extract FILE --track ID -o OUT: a track as a raw stream"},
    {"iod", RunIod, "iod FILE: the initial object descriptor in hex, and what reads back"},
};

void PrintUsage(FILE *out) {
    std::fprintf(out, "usage: mp4core COMMAND [ARGS]\n\ncommands:\n");
    for (const Command &command : kCommands) std::fprintf(out, "  %s\n", command.summary);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        PrintUsage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    for (const Command &command : kCommands) {
        if (std::strcmp(argv[1], command.name) == 0) return command.run(argc - 2, argv + 2);
    }
    std::fprintf(stderr, "mp4core: unknown command '%s'\n", argv[1]);
    PrintUsage(stderr);
    return 2;
}
