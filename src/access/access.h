// Sample access: what the access calls share (finding a track, the time
// search, reading the sample under the cursor).
#pragma once

#include "tracks/tracks.h"
