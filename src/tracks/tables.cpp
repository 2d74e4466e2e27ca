// Placeholder until implemented.
#include "tracks/tracks.h"

int32_t ReleaseTrackNodes(TrackNode **holder) { if (holder) *holder = nullptr; return 1; }
