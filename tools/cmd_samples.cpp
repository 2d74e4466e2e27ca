// mp4core samples: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunSamples(int, char **) {
    std::fprintf(stderr, "mp4core samples: not available yet\n");
    return 1;
}
