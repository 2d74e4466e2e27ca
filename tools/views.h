// What dump, samples and info share: the choice of reader (modern by
// default, --classic for the 22 calls' own view), and the output forms the
// views have in common.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commands.h"
#include "mp4core.h"

// ---- The reader (reader_choice.cpp) --------------------------------------

// The option row of dump, samples and info that selects the classic reader.
#define MP4CORE_CLASSIC_OPTION                                                        \
    {"--classic", nullptr, false, false,                                              \
     "open with MP4FileOpen, the classic reader (default: the modern reader)"}

// Whether the command line asks for the classic reader.
bool WantsClassic(const Arguments &arguments);

// Opens `path` with the chosen reader: MP4FileOpen, or MP4FileOpenEx with
// MP4_OPEN_MODERN. On failure reports the call on standard error and gives
// the exit status 1; on success gives 0 and the handle.
int OpenWithReader(const char *command, const char *path, int32_t tableMode, bool classic,
                   MP4_local_file **file);

// ---- Output forms (listing.cpp) -------------------------------------------

// CRC-32 as zlib and ffprobe's "CRC32" data hash compute it.
uint32_t Crc32(const uint8_t *data, size_t size);

// Reports a failed call of mp4core samples on standard error, beside its
// line: the call, its result and meaning, the track and the sample number.
void ReportSampleCall(const char *call, int32_t result, uint32_t trackId, const char *name,
                      const uint32_t *number = nullptr);

// "video", "audio", "hint", "od", "scene" or "other", by MP4TrackInfo's type.
const char *TrackTypeName(int32_t type);

// "LABEL (N bytes):" indented by `indent` spaces, then the bytes in hex,
// 16 a line, two spaces further in.
void PrintHexBlock(const char *label, const uint8_t *bytes, uint32_t size, int indent);

// ---- The modern views ----------------------------------------------------

// samples_modern.cpp: every sample of the chosen tracks (0: all) of a
// modern handle, one line each; 0, or 1 when a track or sample failed.
int ListModernSamples(MP4_local_file *file, uint32_t trackId, bool *found);

// The line of one sample in the modern form, after its track and type.
void PrintModernSampleLine(MP4_local_file *file, uint32_t trackId, int32_t type,
                           uint32_t number, const MP4Sample *sample);

// info_modern.cpp: every track of a modern handle; 0, or 1 when a call
// failed.
int PrintModernInfo(MP4_local_file *file);
