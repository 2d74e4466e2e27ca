// mp4core remux: copies the tracks of a file sample for sample into a new
// progressive file through the public calls alone (MP4FileOpenEx,
// MP4AddTrackFrom, MP4GetSampleInfo, MP4ReadSample, MP4WriteSample), the
// tracks interleaved in decoding-time order; with --faststart the index
// goes in front of the media; with --fragmented the file is written in
// fragments. The file's tags and chapters are carried through
// MP4GetMetadata and MP4GetChapters to MP4SetMetadata and MP4SetChapters.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "commands.h"
#include "mp4core.h"
#include "result_text.h"
#include "tag_copy.h"

namespace {

struct Source {
    MP4TrackInfo info;
    uint32_t outId;
    uint32_t next;     // the next sample to copy
    uint64_t time;     // its decode time
    uint64_t written;  // the decode time and duration of the last sample written
    uint32_t duration;
    bool moved;        // a sample was moved to make decode times rise
};

// Decode times must rise, but a fragmented source may repeat one (rounded
// "tfdt" times): such a sample goes one of the previous sample's durations
// (at least a tick) behind it, which is said once per track.
void MakeTimeRise(Source &s, uint32_t n, MP4WriteInfo *info) {
    if (n == 0 || info->DecodeTime > s.written) return;
    info->DecodeTime = s.written + (s.duration != 0 ? s.duration : 1);
    if (!s.moved)
        std::fprintf(stderr, "mp4core remux: track %u sample %u does not come after the one before; "
                     "it and any like it are moved behind it\n", s.info.TrackId, n);
    s.moved = true;
}

bool Named(const Arguments &arguments, uint32_t id, bool *any) {
    bool named = false;
    for (const GivenOption &given : arguments.options) {
        uint32_t value = 0;
        if (std::strcmp(given.option->name, "--track") != 0 || !ParseU32(given.value, &value)) continue;
        *any = true;
        named = named || value == id;
    }
    return named;
}

// Adds the tracks to copy; false after a report.
bool AddTracks(const Arguments &arguments, MP4_local_file *in, MP4_local_file *out,
               std::vector<Source> *sources) {
    uint32_t count = 0;
    MP4GetTrackCount(in, &count);
    // A chapter track's titles go through MP4SetChapters, which writes
    // the output's own chapter track.
    const std::vector<uint32_t> chapterTracks = ChapterTrackIds(in);
    for (uint32_t i = 0; i < count; ++i) {
        Source s{};
        if (MP4GetTrackInfo(in, i, &s.info) != 1) continue;
        if (std::find(chapterTracks.begin(), chapterTracks.end(), s.info.TrackId) != chapterTracks.end()) continue;
        bool any = false;
        const bool named = Named(arguments, s.info.TrackId, &any);
        if (any && !named) continue;
        const int32_t added = MP4AddTrackFrom(out, in, s.info.TrackId, s.info.TrackType, &s.outId);
        if (added == -89 && !any) {
            std::fprintf(stderr, "mp4core remux: track %u is protected and is not copied\n", s.info.TrackId);
            continue;
        }
        char context[32];
        std::snprintf(context, sizeof context, "track %u", s.info.TrackId);
        if (added != 1) return ReportFailure("remux", "MP4AddTrackFrom", added, context), false;
        sources->push_back(s);
    }
    return true;
}

// Where --fragment-seconds cuts: the first key sample of the leading track
// (the first video track, else the first) at or after each multiple of
// `seconds` of its decode time.
struct Cuts {
    double seconds;      // 0: the writer's own rule
    const Source *lead;
    double next;         // the next multiple, in the leading track's ticks
};

bool CutsAt(Cuts &cuts, const Source &s, const MP4SampleInfo &sample) {
    if (cuts.seconds <= 0 || &s != cuts.lead || !sample.IsKeyFrame || double(sample.DecodeTime) < cuts.next)
        return false;
    const double length = cuts.seconds * s.info.Timescale;
    cuts.next = (std::floor(double(sample.DecodeTime) / length) + 1) * length;
    return true;
}

// Copies every sample, the earliest decode time (in seconds) first.
bool CopySamples(MP4_local_file *in, MP4_local_file *out, std::vector<Source> &sources, double seconds) {
    Cuts cuts = {seconds, sources.empty() ? nullptr : &sources[0], 0};
    for (const Source &s : sources)
        if (s.info.TrackType == MP4_TRACK_VIDEO) {
            cuts.lead = &s;
            break;
        }
    MP4SampleInfo sample{};
    for (Source &s : sources)
        if (s.info.SampleCount > 0 && MP4GetSampleInfo(in, s.info.TrackId, s.info.TrackType, 0, &sample) == 1)
            s.time = sample.DecodeTime;
    for (;;) {
        Source *best = nullptr;
        for (Source &s : sources) {
            if (s.next >= s.info.SampleCount) continue;
            if (best == nullptr || (unsigned __int128)s.time * best->info.Timescale <
                                       (unsigned __int128)best->time * s.info.Timescale)
                best = &s;
        }
        if (best == nullptr) return true;
        const uint32_t n = best->next++;
        MP4Sample *bytes = nullptr;
        int32_t result = MP4GetSampleInfo(in, best->info.TrackId, best->info.TrackType, n, &sample);
        const char *call = "MP4GetSampleInfo";
        if (result == 1) {
            call = "MP4ReadSample";
            result = MP4ReadSample(in, best->info.TrackId, best->info.TrackType, n, &bytes);
        }
        if (result == 1) {
            MP4WriteInfo info{};
            info.DecodeTime = sample.DecodeTime;
            info.CompositionOffset = sample.CompositionOffset;
            info.Duration = sample.Duration;
            info.Size = bytes->Size;
            info.Flags = (sample.IsKeyFrame ? MP4_SAMPLE_KEY : 0) |
                         (CutsAt(cuts, *best, sample) ? MP4_SAMPLE_NEW_FRAGMENT : 0);
            info.DescriptionIndex = sample.DescriptionIndex;
            MakeTimeRise(*best, n, &info);
            best->written = info.DecodeTime;
            best->duration = sample.Duration;
            call = "MP4WriteSample";
            result = MP4WriteSample(out, best->outId, &info, bytes->Data);
            SampleDataFree(&bytes);
        }
        MP4SampleInfo following{};
        if (best->next < best->info.SampleCount &&
            MP4GetSampleInfo(in, best->info.TrackId, best->info.TrackType, best->next, &following) == 1)
            best->time = following.DecodeTime;
        // A cut file ends the track at its first sample past the end.
        if (result == -92 && std::strcmp(call, "MP4ReadSample") == 0) {
            std::fprintf(stderr, "mp4core remux: track %u ends at sample %u, past the end of the file\n",
                         best->info.TrackId, n);
            best->next = best->info.SampleCount;
            continue;
        }
        if (result != 1) {
            char context[48];
            std::snprintf(context, sizeof context, "track %u sample %u", best->info.TrackId, n);
            ReportFailure("remux", call, result, context);
            return false;
        }
    }
}

// The file's tags (not the tracks': their headers are copied) and
// chapters, set before the first sample (a fragmented output writes its
// "moov" then); false after a report.
bool CopyMetadata(MP4_local_file *in, MP4_local_file *out) {
    MP4Tag *tags = nullptr;
    MP4Chapter *chapters = nullptr;
    uint32_t tagCount = 0, chapterCount = 0, kept = 0;
    std::vector<MP4Tag> fileTags;
    if (MP4GetMetadata(in, &tags, &tagCount) == 1)
        for (uint32_t i = 0; i < tagCount; ++i) {
            if (CarriedTag(tags[i])) {
                fileTags.push_back(tags[i]);
            } else if (tags[i].TrackId == 0) {
                std::fprintf(stderr, "mp4core remux: tag %s (from %s) is not copied\n", tags[i].Key, tags[i].Source);
            }
        }
    int32_t result = SetWritableTags(out, fileTags, "remux", &kept);
    const char *call = "MP4SetMetadata";
    if (result == 1 && MP4GetChapters(in, &chapters, &chapterCount) == 1 && chapterCount > 0) {
        call = "MP4SetChapters";
        result = MP4SetChapters(out, chapters, chapterCount);
    }
    MP4FreeMetadata(tags);
    MP4FreeChapters(chapters);
    if (result != 1) return ReportFailure("remux", call, result) == 0;
    if (kept + chapterCount > 0)
        std::fprintf(stderr, "mp4core remux: %u tags and %u chapters kept (read and written again by the library)\n",
                     kept, chapterCount);
    return true;
}

int RunRemux(const Arguments &arguments) {
    const char *input = arguments.operands[0];
    const char *output = OptionValue(arguments, "-o");
    const bool fragmented = HasOption(arguments, "--fragmented");
    if (fragmented && HasOption(arguments, "--faststart"))
        return std::fprintf(stderr, "mp4core remux: --faststart and --fragmented exclude each other\n"), 2;
    double seconds = 0;
    if (const char *text = OptionValue(arguments, "--fragment-seconds")) {
        char *end = nullptr;
        seconds = std::strtod(text, &end);
        if (!fragmented || end == text || *end != '\0' || !(seconds > 0 && seconds <= 86400))
            return std::fprintf(stderr, "mp4core remux: --fragment-seconds takes a number of seconds above 0 "
                                        "(at most 86400), with --fragmented\n"), 2;
    }
    const uint32_t flags = fragmented ? MP4_NEW_FRAGMENTED
                                      : MP4_NEW_PROGRESSIVE | (HasOption(arguments, "--faststart") ? MP4_NEW_FASTSTART : 0);
    MP4_local_file *in = nullptr, *out = nullptr;
    int32_t result = MP4FileOpenEx(&in, input, MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN);
    if (result != 1) return ReportFailure("remux", "MP4FileOpenEx", result, input);
    result = MP4FileNewEx(&out, output, flags);
    if (result != 1) {
        MP4FileClose(&in);
        return ReportFailure("remux", "MP4FileNewEx", result, output);
    }
    std::vector<Source> sources;
    bool ok = AddTracks(arguments, in, out, &sources) && CopyMetadata(in, out) &&
              CopySamples(in, out, sources, seconds);
    MP4FileClose(&in);
    result = MP4FileFlush(out);
    if (ok && result != 1) ok = ReportFailure("remux", "MP4FileFlush", result) == 0;
    if (!ok) std::remove(output);
    return ok ? 0 : 1;
}

constexpr OperandRow kOperands[] = {{"IN", "the file to copy (any MP4 or QuickTime file the modern reader opens)"}};

constexpr OptionRow kOptions[] = {
    {"-o", "OUT.mp4", true, false, "the file to write"},
    {"--faststart", nullptr, false, false, "put the index (moov) in front of the media"},
    {"--fragmented", nullptr, false, false, "write a fragmented file (moof/mdat pairs, mfra at the end)"},
    {"--fragment-seconds", "S", false, false, "with --fragmented: a fragment at the first key frame at or after each S seconds (e.g. 0.5, 4)"},
    {"--track", "ID", false, true, "copy this track (by its ID); repeat for more; default: every track"},
};

}  // namespace

extern const CommandRow kRemuxCommand = {
    "remux",
    "copy the tracks of a file sample for sample into a new MP4 file",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nCopies each track's description as the input holds it (every sample entry\n"
    "with its atoms, handler, timescale, language, matrix, edit list) and its\n"
    "samples with their times, offsets and key flags, through the library's\n"
    "public calls alone, into a progressive file: one \"mdat\" with the tracks in\n"
    "chunks of up to a second, and \"moov\" behind it (in front with\n"
    "--faststart). With --fragmented the file is written in fragments\n"
    "instead, each cut at a key frame of the first video track (of the first\n"
    "track when there is no video) one to two seconds after the last cut,\n"
    "with \"mfra\" at the end; --fragment-seconds S cuts instead at the first key\n"
    "frame of that track at or after each multiple of S seconds of its decoding\n"
    "time (a long GOP makes longer fragments). A fragmented input\n"
    "becomes a progressive file unless --fragmented is given. Protected\n"
    "tracks are left out (a named one is an error), said on standard error.\n"
    "The file's tags and chapters are read (MP4GetMetadata, MP4GetChapters)\n"
    "and written again (MP4SetMetadata, MP4SetChapters) in the writer's places:\n"
    "iTunes items, \"\xC2\xA9" "xyz\", QuickTime keys, \"mvhd\" times, \"chpl\" and a\n"
    "chapter track of its own (a source's chapter track is not copied as a\n"
    "track). A tag under its own key from another place (a 3GPP \"titl\" that an\n"
    "iTunes title outranks, \"mvhd.creation_time\") or without a place in the\n"
    "writer is named on standard error and left out; other \"udta\" atoms and\n"
    "the tracks' own tags are not copied. A failed run\n"
    "removes the output and exits 1.\n",
    RunRemux,
};
