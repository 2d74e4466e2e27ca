// File writer: turning the collected tracks into the atoms and bytes of the
// finished file.
#pragma once

#include "tracks/tracks.h"
