// mp4core extract: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunExtract(int, char **) {
    std::fprintf(stderr, "mp4core extract: not available yet\n");
    return 1;
}
