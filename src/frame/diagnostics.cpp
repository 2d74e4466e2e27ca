// Where the library's diagnostics go: MP4SetDiagnostics.
#include "frame/frame.h"

void MP4SetDiagnostics(void (*)(int, const char *, void *), void *) {}
