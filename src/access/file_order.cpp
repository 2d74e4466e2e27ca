// MP4NextInFileOrder: every track's samples in the order of the file.
#include "access/access.h"

int32_t MP4NextInFileOrder(MP4_local_file *, uint32_t *, uint32_t *) { return -99; }
