// mp4core samples FILE: every sample of every track, or the answers of the
// cursor calls, in the line forms its help text (kSamplesCommand)
// describes. This file holds the command and the classic view; the modern
// listing is in samples_modern.cpp.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "mp4core.h"
#include "result_text.h"
#include "tracks/tracks.h"
#include "views.h"

namespace {

// A call that moves the cursor, tried from the command line.
struct CursorCall {
    enum Kind { Seek, NextKey, PrevKey } kind;
    int32_t time;  // for Seek
};

struct Options {
    const char *path = nullptr;
    uint32_t track = 0;  // 0: all tracks
    int32_t mode = MP4_TABLE_MARKS;
    bool classic = false;
    std::vector<CursorCall> calls;
};

// Fills `options`; a value that isn't a number of the right kind is a
// usage error, whose exit status comes back in `status`.
bool ReadOptions(const Arguments &arguments, Options *options, int *status) {
    options->path = arguments.operands[0];
    options->classic = WantsClassic(arguments);
    for (const GivenOption &given : arguments.options) {
        const std::string name = given.option->name;
        if (name == "--track") {
            if (!ParseU32(given.value, &options->track) || options->track == 0) {
                *status = UsageError(kSamplesCommand, "--track takes a track ID above 0, not '%s'",
                                     given.value);
                return false;
            }
        } else if (name == "--mode") {
            if (!ParseI32(given.value, &options->mode) || options->mode < 1 || options->mode > 3) {
                *status = UsageError(kSamplesCommand, "--mode takes 1, 2 or 3, not '%s'", given.value);
                return false;
            }
        } else if (name == "--seek") {
            int32_t time = 0;
            if (!ParseI32(given.value, &time)) {
                *status = UsageError(kSamplesCommand, "--seek takes a time in ticks, not '%s'",
                                     given.value);
                return false;
            }
            options->calls.push_back({CursorCall::Seek, time});
        } else if (name == "--next-key") {
            options->calls.push_back({CursorCall::NextKey, 0});
        } else if (name == "--prev-key") {
            options->calls.push_back({CursorCall::PrevKey, 0});
        }
    }
    return true;
}

// The file offset of a sample is not part of MP4Sample; MP4GetSampleInfo
// gives it (0 for a sample it can't describe).
uint32_t OffsetOf(MP4_local_file *file, uint32_t trackId, int32_t type, uint32_t number) {
    MP4SampleInfo info{};
    if (MP4GetSampleInfo(file, trackId, type, number, &info) != 1) return 0;
    return uint32_t(info.FileOffset);
}

// Lists a track; false if a call failed.
bool ListTrack(MP4_local_file *file, uint32_t trackId, int32_t type, uint32_t sampleCount) {
    const char *name = type == MP4_TRACK_VIDEO ? "video" : "audio";
    bool ok = true;
    uint32_t number = 0;
    SampleErrors errors("GetNextSample", trackId, name);
    // -82 moves the cursor on, so every turn either moves on or ends; the
    // bound keeps a listing finite whatever a track holds.
    for (uint64_t turn = 0; turn <= uint64_t(sampleCount) + 1; ++turn) {
        MP4Sample *sample = nullptr;
        int32_t result = GetNextSample(file, trackId, type, &sample);
        if (result == 1) {
            std::printf("%u %s %u %u %u %u %u %08x\n", trackId, name, number, sample->Time,
                        sample->Size, unsigned(sample->IsKeyFrame), OffsetOf(file, trackId, type, number),
                        Crc32(sample->Data, sample->Size));
            SampleDataFree(&sample);
        } else if (result == 0) {
            if (number == 0) std::printf("%u %s no samples\n", trackId, name);
            return ok;
        } else {
            errors.Add(number, result);
            ok = false;
            if (result != -82) return ok;
        }
        ++number;
    }
    return ok;
}

// Makes the calls in order on one track; false if one failed. The track's
// cursor (the video or the audio one) stands behind the sample a call
// returned.
bool RunCursorCalls(MP4_local_file *file, uint32_t trackId, int32_t type, const int32_t *videoCursor, const uint32_t *audioCursor,
                    const std::vector<CursorCall> &calls) {
    const char *name = type == MP4_TRACK_VIDEO ? "video" : "audio";
    bool ok = true;
    for (const CursorCall &call : calls) {
        MP4Sample *sample = nullptr;
        int32_t result = 0;
        const char *callName = nullptr;
        if (call.kind == CursorCall::Seek) {
            callName = "SeekTrack";
            result = SeekTrack(file, trackId, type, call.time, &sample);
            std::printf("seek %d: ", int(call.time));
        } else if (call.kind == CursorCall::NextKey) {
            callName = "NextKeyFrame";
            result = NextKeyFrame(file, trackId, type, &sample);
            std::printf("next-key: ");
        } else {
            callName = "PrevKeyFrame";
            result = PrevKeyFrame(file, trackId, type, &sample);
            std::printf("prev-key: ");
        }
        if (result != 1) {
            // 0: the track has no samples, which is an answer, not a failure.
            std::printf("%u %s error %d\n", trackId, name, int(result));
            if (result < 0) {
                ReportSampleCall(callName, result, trackId, name);
                ok = false;
            }
            continue;
        }
        uint32_t cursor = videoCursor != nullptr ? uint32_t(*videoCursor) : *audioCursor;
        uint32_t number = cursor - 1;
        if (file->read.Modern)
            PrintModernSampleLine(file, trackId, type, number, sample);
        else
            std::printf("%u %s %u %u %u %u %u %08x\n", trackId, name, number, sample->Time,
                        sample->Size, unsigned(sample->IsKeyFrame), OffsetOf(file, trackId, type, number),
                        Crc32(sample->Data, sample->Size));
        SampleDataFree(&sample);
    }
    return ok;
}

int RunSamples(const Arguments &arguments) {
    Options options;
    int status = 0;
    if (!ReadOptions(arguments, &options, &status)) return status;
    MP4_local_file *file = nullptr;
    const int opened =
        OpenWithReader(kSamplesCommand.name, options.path, options.mode, options.classic, &file);
    if (opened != 0) return opened;
    bool ok = true;
    bool found = false;
    if (!options.classic && options.calls.empty()) {
        std::printf("# track type number dts cts_offset size key offset crc32\n");
        ok = ListModernSamples(file, options.track, &found) == 0;
        MP4FileClose(&file);
        if (options.track != 0 && !found) {
            std::fprintf(stderr, "mp4core %s: no track %u\n", kSamplesCommand.name, options.track);
            return 1;
        }
        return ok ? 0 : 1;
    }
    std::printf(options.classic ? "# track type number time size key offset crc32\n"
                                : "# track type number dts cts_offset size key offset crc32\n");
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack) {
        if (options.track != 0 && options.track != v->TrackId) continue;
        found = true;
        if (!options.calls.empty())
            ok &= RunCursorCalls(file, v->TrackId, MP4_TRACK_VIDEO, &v->SampleCursor,
                                 nullptr, options.calls);
        else
            ok &= ListTrack(file, v->TrackId, MP4_TRACK_VIDEO, v->SampleCount);
    }
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack) {
        if (options.track != 0 && options.track != a->TrackId) continue;
        found = true;
        if (!options.calls.empty())
            ok &= RunCursorCalls(file, a->TrackId, MP4_TRACK_AUDIO, nullptr,
                                 &a->SampleCursor, options.calls);
        else
            ok &= ListTrack(file, a->TrackId, MP4_TRACK_AUDIO, a->SampleCount);
    }
    MP4FileClose(&file);
    if (options.track != 0 && !found) {
        std::fprintf(stderr, "mp4core %s: no video or audio track %u\n", kSamplesCommand.name,
                     options.track);
        return 1;
    }
    return ok ? 0 : 1;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file to read"}};

constexpr OptionRow kOptions[] = {
    {"--track", "ID", false, false, "only the track with this \"tkhd\" track ID"},
    {"--mode", "1|2|3", false, false, "the table mode of the open (default 2)"},
    {"--seek", "TIME", false, true, "SeekTrack to TIME, in ticks of the track's timescale"},
    {"--next-key", nullptr, false, true, "NextKeyFrame"},
    {"--prev-key", nullptr, false, true, "PrevKeyFrame"},
    MP4CORE_CLASSIC_OPTION,
};

}  // namespace

extern const CommandRow kSamplesCommand = {
    "samples",
    "one line per sample of every track",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nOpens FILE with the modern reader and lists every sample of every track, in\n"
    "the file's order of tracks, as MP4GetSampleInfo and MP4ReadSample give it,\n"
    "one line each, to set beside `ffprobe -ignore_editlist 1 -show_packets`:\n"
    "  TRACK TYPE NUMBER DTS CTS_OFFSET SIZE KEY OFFSET CRC32\n"
    "DTS is the decoding time in ticks of the track's timescale (64 bits),\n"
    "CTS_OFFSET the composition offset (\"ctts\", signed), KEY the sync flag (audio\n"
    "included), OFFSET the sample's place in the file (64 bits). TYPE is video,\n"
    "audio, hint, od, scene or other. A sample that can't be read gives\n"
    "TRACK TYPE NUMBER error RESULT, a track that can't be listed TRACK TYPE error\n"
    "RESULT, and a track without samples says so in a line of its own. A track\n"
    "with fragments first gets a comment line with its sample and fragment counts.\n"
    "Of a track's unreadable samples the first 3 get their line; the others are\n"
    "summed up at the end of the track, one comment line per result:\n"
    "  # track TRACK TYPE: N more samples unreadable (A, B, C, D, E, ...): error RESULT\n"
    "With --classic it opens FILE with MP4FileOpen and lists the samples of the\n"
    "video and then the audio tracks as GetNextSample gives them:\n"
    "  TRACK TYPE NUMBER TIME SIZE KEY OFFSET CRC32\n"
    "with the classic key frame mark (0 for audio), or, for a sample that can't\n"
    "be read, TRACK TYPE NUMBER error RESULT (summed up past the first 3 as above).\n"
    "A track that gives no sample at all says so in a line of its own.\n"
    "With --seek, --next-key and --prev-key it makes those calls instead, in the\n"
    "order given, on each video and audio track, and prints one line per call:\n"
    "the call, then the sample it gave in the form of the reader in use.\n",
    RunSamples,
};
