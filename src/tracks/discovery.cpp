// Placeholder until implemented.
#include "tracks/tracks.h"

int32_t RunTrackLoop(MP4_local_file **) { return 1; }
