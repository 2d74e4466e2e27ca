// Placeholder until implemented.
#include "mp4core.h"

int32_t EncryptMp4Iod(MP4_local_file *, uint8_t **, const uint8_t *, uint8_t) { return 0; }
int32_t DecryptMp4Iod(IodConfigs *, uint8_t **) { return 0; }
