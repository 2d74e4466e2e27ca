// mp4core: command-line front end of the library.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

// The subcommands, in the order `mp4core --help` lists them.
const CommandRow *const kCommands[] = {
    &kDumpCommand, &kSamplesCommand, &kM4vHeaderCommand, &kMuxCommand,
    &kInfoCommand, &kExtractCommand, &kIodCommand, &kRemuxCommand, &kTagCommand,
};

void PrintOverview(FILE *out) {
    std::fprintf(out,
                 "usage: mp4core COMMAND [ARGUMENTS]\n"
                 "       mp4core COMMAND --help\n"
                 "\ncommands:\n");
    for (const CommandRow *command : kCommands)
        std::fprintf(out, "  %-11s%s\n", command->name, command->summary);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        PrintOverview(stderr);
        return 2;
    }
    if (IsHelpWord(argv[1])) {
        PrintOverview(stdout);
        return 0;
    }
    for (const CommandRow *command : kCommands) {
        if (std::strcmp(argv[1], command->name) == 0) return RunCommand(*command, argc - 2, argv + 2);
    }
    std::fprintf(stderr, "mp4core: unknown %s '%s'\n", argv[1][0] == '-' ? "option" : "command",
                 argv[1]);
    PrintOverview(stderr);
    return 2;
}
