// mp4core iod: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunIod(int, char **) {
    std::fprintf(stderr, "mp4core iod: not available yet\n");
    return 1;
}
