// Placeholder until implemented.
#include "mp4core.h"

int32_t AAC_EsdsToAdtsHead(const uint8_t *, uint32_t, uint8_t *, uint32_t *) { return -21; }
