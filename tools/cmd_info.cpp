// mp4core info: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunInfo(int, char **) {
    std::fprintf(stderr, "mp4core info: not available yet\n");
    return 1;
}
