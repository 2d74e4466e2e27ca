// mp4core m4vheader: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunM4vHeader(int, char **) {
    std::fprintf(stderr, "mp4core m4vheader: not available yet\n");
    return 1;
}
