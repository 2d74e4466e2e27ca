// Authoring: new files, their tracks, and the intake of frames.
#pragma once

#include "tracks/tracks.h"

// Gives a block its tables of n slots, hanging a new block behind the
// chain when the given one already has tables. 1, or -97..-95.
int32_t AddTrackBlock(TrackNode **block, uint32_t slots);
