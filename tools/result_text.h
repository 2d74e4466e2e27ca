// The tool's error messages, with what a library call's result means
// (MP4ResultText).
#pragma once

#include <cstdint>

// Reports a failed call on standard error:
//   "mp4core COMMAND: [CONTEXT: ]CALL failed (CODE): MEANING"
// `context` (which track, which frame) may be null. Returns the exit
// status 1.
int ReportFailure(const char *command, const char *call, int32_t code, const char *context = nullptr);
