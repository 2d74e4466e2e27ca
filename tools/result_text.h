// What a library call's result means, for the tool's error messages. The
// same number means different things in different calls, so a meaning is
// looked up by call and result together.
#pragma once

#include <cstdint>

// The meaning of `code` as `call` gives it; a general text for a code the
// table does not know.
const char *ResultMeaning(const char *call, int32_t code);

// Reports a failed call on standard error:
//   "mp4core COMMAND: [CONTEXT: ]CALL failed (CODE): MEANING"
// `context` (which track, which frame) may be null. Returns the exit
// status 1.
int ReportFailure(const char *command, const char *call, int32_t code, const char *context = nullptr);
