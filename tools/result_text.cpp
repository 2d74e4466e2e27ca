// The tool's report of a failed call, with the meaning the library gives
// its result (MP4ResultText).
#include "result_text.h"

#include <cstdio>

#include "mp4core.h"

int ReportFailure(const char *command, const char *call, int32_t code, const char *context) {
    // What the tool printed so far comes first where both streams meet.
    std::fflush(stdout);
    std::fprintf(stderr, "mp4core %s: %s%s%s failed (%d): %s\n", command, context ? context : "",
                 context ? ": " : "", call, int(code), MP4ResultText(call, code));
    return 1;
}
