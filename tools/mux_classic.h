// The classic writer's path of `mp4core mux` (--od, --scene).
#pragma once

#include <cstdint>

#include "commands.h"

// Runs mux on the classic calls with the video at `fps` frames a second (0:
// the stream's own rate, else 25); gives the exit status.
int RunClassicMux(const Arguments &arguments, uint32_t fps);
