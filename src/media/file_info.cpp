// Placeholder until implemented.
#include "mp4core.h"

int32_t GetFileInfo(const char *, FileInfo *) { return -11; }
