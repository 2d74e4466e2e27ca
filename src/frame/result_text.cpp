// MP4ResultText: what each result of each call means.
#include "frame/frame.h"

const char *MP4ResultText(const char *, int32_t) { return "a result this call is not known to give"; }
