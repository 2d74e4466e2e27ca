// Placeholder until implemented.
#include "mp4core.h"
#include "authoring/authoring.h"

int32_t MP4FileNew(MP4_local_file **, const char *) { return -99; }
int32_t CreateTrack(MP4_local_file *, uint32_t, uint32_t, uint32_t, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, const uint8_t *, const char *, uint8_t) { return -99; }
