// Placeholder until implemented.
#include "mp4core.h"
#include "media/media.h"

int32_t ParseVolHeader(const uint8_t *, size_t, uint32_t *, uint32_t *, uint32_t *) { return -1; }
uint32_t GetM4vHeaderSize(const char *, uint32_t *, uint32_t *) { return 0xFFFFFFFFu; }
