// mp4core dump: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunDump(int, char **) {
    std::fprintf(stderr, "mp4core dump: not available yet\n");
    return 1;
}
