// Placeholder until implemented.
#include "mp4core.h"

int32_t AddVideoFrame(MP4_local_file *, uint32_t, const uint8_t *, uint32_t, uint32_t, uint32_t, uint8_t) { return -99; }
int32_t AddAudioFrame(MP4_local_file *, uint32_t, const uint8_t *, uint32_t) { return -99; }
