// mp4core mux: placeholder until implemented.
#include <cstdio>

#include "commands.h"

int RunMux(int, char **) {
    std::fprintf(stderr, "mp4core mux: not available yet\n");
    return 1;
}
