// What dump, samples and info share: the choice of reader (modern by
// default, --classic for the 22 calls' own view), and the output forms the
// views have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

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

// The unreadable samples of one track in a listing of samples. The first
// kShownErrors get their line each ("TRACK TYPE NUMBER error RESULT", and
// the call's report on standard error); the others are counted by result,
// and when the object goes each result gets one summary line, a comment:
//   # track TRACK TYPE: N more samples unreadable (A, B, C, D, E, ...): error RESULT
// with the first kSummaryNumbers of their numbers, and one report.
class SampleErrors {
public:
    static constexpr uint32_t kShownErrors = 3;
    static constexpr uint32_t kSummaryNumbers = 5;
    SampleErrors(const char *call, uint32_t trackId, const char *name)
        : call_(call), trackId_(trackId), name_(name) {}
    ~SampleErrors();
    SampleErrors(const SampleErrors &) = delete;
    SampleErrors &operator=(const SampleErrors &) = delete;
    void Add(uint32_t number, int32_t result);

private:
    struct Tally {
        int32_t result;
        uint64_t count;
        uint32_t numbers[kSummaryNumbers];
    };
    const char *call_;
    uint32_t trackId_;
    const char *name_;
    uint32_t shown_ = 0;
    std::vector<Tally> tallies_;
};

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
// info_tags.cpp: the tags and chapters of a read handle; false when a call
// failed.
bool PrintTagsAndChapters(MP4_local_file *file);
