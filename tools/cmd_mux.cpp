// mp4core mux: elementary streams into an MP4 file through the public
// write calls alone (MP4FileNewEx, MP4AddTrack, MP4WriteSample,
// MP4FileFlush). Each input is a file or standard input, read as its bytes
// come; its format is found by the probes of the stream readers
// (src/mux) on its first bytes, and it becomes one track. The samples of
// all inputs go to the library in decoding-time order, each as soon as its
// reader has it. --od and --scene take the classic writer's path
// (mux_classic.cpp), the one that makes those tracks.
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "mp4core.h"
#include "mux/mux.h"
#include "mux_classic.h"
#include "progress.h"
#include "result_text.h"

namespace {

constexpr size_t kProbeBytes = 4096;

struct Input {
    const char *path = nullptr;
    int32_t trackType = 0;  // 1 --video, 2 --audio, 0 an operand (any format)
    mux::ByteStream in;
    const mux::Format *format = nullptr;
    mux::Reader *reader = nullptr;
    mux::TrackDescription track;
    uint32_t trackId = 0;
    mux::Sample sample;
    bool pending = false;  // `sample` waits to be written
    bool done = false;
    uint64_t written = 0;
};

// "N" or "N/D", both above 0.
bool ParseFps(const char *text, mux::Options *options) {
    std::string whole(text);
    const size_t slash = whole.find('/');
    uint32_t numerator = 0, denominator = 1;
    if (!ParseU32(whole.substr(0, slash).c_str(), &numerator) ||
        (slash != std::string::npos && !ParseU32(whole.substr(slash + 1).c_str(), &denominator)))
        return false;
    options->fpsNumerator = numerator;
    options->fpsDenominator = denominator;
    return numerator != 0 && denominator != 0;
}

// The first format of the input's type whose probe takes its first bytes.
const mux::Format *ProbeFormat(Input *input) {
    mux::Hold(&input->in, kProbeBytes);
    const mux::Bytes &head = input->in.bytes;
    for (size_t i = 0; i < mux::kFormatCount; ++i) {
        const mux::Format &format = mux::kFormats[i];
        if (input->trackType != 0 && format.trackType != input->trackType) continue;
        if (format.probe(head.data(), head.size() < kProbeBytes ? head.size() : kProbeBytes)) return &format;
    }
    return nullptr;
}

int Fail(const Input &input, const char *format, const char *why) {
    std::fprintf(stderr, "mp4core mux: %s: ", input.path);
    std::fprintf(stderr, format, why);
    std::fprintf(stderr, "\n");
    return 1;
}

// Opens every input as far as its track's description; false after a report.
bool OpenInputs(std::vector<Input> &inputs, const mux::Options &options) {
    for (Input &input : inputs) {
        if (!mux::OpenByteStream(input.path, &input.in)) return Fail(input, "%s", "can't be opened"), false;
        input.format = ProbeFormat(&input);
        if (input.format == nullptr) {
            const char *kind = input.trackType == 1 ? "video " : input.trackType == 2 ? "audio " : "";
            std::string why = std::string("no ") + kind + "stream format begins its first bytes (mux takes:";
            for (size_t i = 0; i < mux::kFormatCount; ++i) why += std::string(i ? ", " : " ") + mux::kFormats[i].name;
            return Fail(input, "%s)", why.c_str()), false;
        }
        mux::Failure failure;
        input.reader = input.format->open(&input.in, options, &input.track, &failure);
        if (input.reader == nullptr) {
            std::fprintf(stderr, "mp4core mux: %s: byte %llu: %s\n", input.path,
                         static_cast<unsigned long long>(failure.offset), failure.why.c_str());
            return false;
        }
        if (!input.track.notice.empty()) std::fprintf(stderr, "mp4core mux: %s\n", input.track.notice.c_str());
    }
    return true;
}

bool AddTracks(MP4_local_file *file, std::vector<Input> &inputs) {
    for (Input &input : inputs) {
        MP4TrackSpec entry = input.track.entry;
        entry.Config = input.track.config.empty() ? nullptr : input.track.config.data();
        entry.ConfigSize = uint32_t(input.track.config.size());
        const int32_t result = MP4AddTrack(file, &entry, &input.trackId);
        if (result != 1) return ReportFailure("mux", "MP4AddTrack", result, input.path) == 0;
    }
    return true;
}

// Bytes of the inputs, for the progress line; 0 (unknown) when one is
// standard input or not a file.
uint64_t InputBytes(const std::vector<Input> &inputs) {
    uint64_t total = 0;
    for (const Input &input : inputs) {
        struct stat status;
        if (!input.in.seekable || fstat(input.in.fd, &status) != 0) return 0;
        total += uint64_t(status.st_size);
    }
    return total;
}

// Why the run stopped early, if it did.
struct Stop {
    const Input *input = nullptr;  // the input that broke off
    mux::Failure failure;
    bool writeFailed = false;
};

// Hands every sample on, the earliest decode time (in seconds) first, the
// inputs in their order at equal times. Counts the samples written.
void WriteSamples(MP4_local_file *file, std::vector<Input> &inputs, bool verbose, Progress *progress,
                  uint64_t *written, Stop *stop) {
    for (;;) {
        Input *next = nullptr;
        uint64_t read = 0;
        for (Input &input : inputs) {
            read += input.in.consumed;
            if (input.done) continue;
            if (!input.pending) {
                const mux::Step step = input.format->next(input.reader, &input.sample, &stop->failure);
                if (step == mux::Step::kFailed) {
                    stop->input = &input;
                    return;
                }
                input.pending = step == mux::Step::kSample;
                input.done = step == mux::Step::kEnd;
                if (input.done) continue;
            }
            using Wide = unsigned __int128;
            if (next == nullptr || Wide(input.sample.decodeTime) * next->track.entry.Timescale <
                                       Wide(next->sample.decodeTime) * input.track.entry.Timescale)
                next = &input;
        }
        UpdateProgressShare(progress, *written, read);
        if (next == nullptr) return;
        const mux::Sample &s = next->sample;
        MP4WriteInfo info{};
        info.DecodeTime = s.decodeTime;
        info.CompositionOffset = s.compositionOffset;
        info.Duration = s.duration;
        info.Size = uint32_t(s.size);
        info.Flags = s.key ? MP4_SAMPLE_KEY : 0;
        const int32_t result = MP4WriteSample(file, next->trackId, &info, s.data);
        if (result != 1) {
            EndProgress(progress);
            char context[300];
            std::snprintf(context, sizeof context, "%s sample %llu", next->path,
                          static_cast<unsigned long long>(next->written));
            ReportFailure("mux", "MP4WriteSample", result, context);
            stop->writeFailed = true;
            return;
        }
        if (verbose)
            std::fprintf(stderr, "mp4core mux: %s frame %llu at %llu, %zu bytes%s\n",
                         next->track.entry.TrackType == MP4_TRACK_VIDEO ? "video" : "audio",
                         static_cast<unsigned long long>(next->written),
                         static_cast<unsigned long long>(s.decodeTime), s.size, s.key ? ", key" : "");
        ++next->written;
        ++*written;
        next->pending = false;
    }
}

int RunMux(const Arguments &arguments) {
    const char *output = OptionValue(arguments, "-o");
    const bool fragmented = HasOption(arguments, "--fragmented");
    mux::Options options;
    const char *fps = OptionValue(arguments, "--fps");
    if (fps != nullptr && !ParseFps(fps, &options))
        return UsageError(kMuxCommand, "--fps takes a whole number above 0 or a fraction such as 30000/1001, not '%s'", fps);
    if (HasOption(arguments, "--od") || HasOption(arguments, "--scene")) {
        if (!arguments.operands.empty() || HasOption(arguments, "--faststart") || options.fpsDenominator > 1)
            return UsageError(kMuxCommand, "--od and --scene take --video, --audio, a whole --fps and --fragmented only");
        return RunClassicMux(arguments, options.fpsNumerator);
    }
    if (fragmented && HasOption(arguments, "--faststart"))
        return UsageError(kMuxCommand, "--faststart and --fragmented exclude each other");
    std::vector<const char *> paths;
    std::vector<int32_t> types;
    for (const char *option : {"--video", "--audio"}) {
        if (const char *path = OptionValue(arguments, option)) {
            paths.push_back(path);
            types.push_back(option[2] == 'v' ? MP4_TRACK_VIDEO : MP4_TRACK_AUDIO);
        }
    }
    for (const char *operand : arguments.operands) paths.push_back(operand), types.push_back(0);
    if (paths.empty()) return UsageError(kMuxCommand, "no input given");
    std::vector<Input> inputs(paths.size());
    for (size_t i = 0; i < paths.size(); ++i) inputs[i].path = paths[i], inputs[i].trackType = types[i];
    struct Closer {
        std::vector<Input> &inputs;
        ~Closer() {
            for (Input &input : inputs) {
                if (input.reader != nullptr) input.format->close(input.reader);
                mux::CloseByteStream(&input.in);
            }
        }
    } closer{inputs};
    if (!OpenInputs(inputs, options)) return 1;
    // A file-size limit then makes a write fail, which the library reports,
    // instead of ending the process.
    signal(SIGXFSZ, SIG_IGN);

    const uint32_t flags = fragmented ? MP4_NEW_FRAGMENTED
                                      : MP4_NEW_PROGRESSIVE | (HasOption(arguments, "--faststart") ? MP4_NEW_FASTSTART : 0);
    MP4_local_file *file = nullptr;
    const int32_t created = MP4FileNewEx(&file, output, flags);
    if (created != 1) return ReportFailure("mux", "MP4FileNewEx", created, output);
    Progress progress = StartProgress("mux", "frames", InputBytes(inputs));
    uint64_t written = 0;
    Stop stop;
    const bool added = AddTracks(file, inputs);
    if (added) WriteSamples(file, inputs, HasOption(arguments, "--verbose"), &progress, &written, &stop);
    const bool ok = added && stop.input == nullptr && !stop.writeFailed;
    if (ok) NoteProgress(&progress, written, InputBytes(inputs), "writing the file");
    const int32_t flushed = MP4FileFlush(file);
    EndProgress(&progress);
    // A fragmented file keeps the fragments written before a failure; an
    // unfinished progressive file is removed, a finished one whose index
    // could not be moved in front (-98) is kept.
    const bool keep = (fragmented && written > 0) || (ok && flushed == -98);
    if (stop.input != nullptr)
        std::fprintf(stderr, "mp4core mux: %s: byte %llu: %s; %s\n", stop.input->path,
                     static_cast<unsigned long long>(stop.failure.offset), stop.failure.why.c_str(),
                     keep ? "the file holds the samples before" : "no file is left");
    if (ok && flushed != 1) ReportFailure("mux", "MP4FileFlush", flushed);
    if (ok && flushed == 1) return 0;
    if (!keep) std::remove(output);
    return 1;
}

constexpr OperandRow kOperands[] = {
    {"INPUT", "a stream file, or - for standard input; its format is found from its first bytes"},
};

constexpr OptionRow kOptions[] = {
    {"-o", "OUT.mp4", true, false, "the MP4 file to write"},
    {"--video", "IN", false, false, "a video stream, as an INPUT taken first"},
    {"--audio", "IN", false, false, "an audio stream, as an INPUT taken behind --video"},
    {"--fps", "RATE", false, false, "frames per second of a video stream without its own rate: N or N/D (30000/1001)"},
    {"--fragmented", nullptr, false, false, "write the file in fragments while the samples come"},
    {"--faststart", nullptr, false, false, "put the index (moov) in front of the media"},
    {"--od", nullptr, false, false, "add an object descriptor track (the classic writer; --video/--audio only)"},
    {"--scene", nullptr, false, false, "add a scene description track (the classic writer; --video/--audio only)"},
    {"--verbose", nullptr, false, false, "one line per sample handed to the library, on standard error"},
};

}  // namespace

extern const CommandRow kMuxCommand = {
    "mux",
    "elementary streams (video, AAC, MP3, AC-3, Opus, FLAC, WAV, AMR) into an MP4 file",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nEach input becomes one track, in the order given (--video, --audio, then\n"
    "the INPUTs). Its format is found from its first bytes: MPEG-4 video, ADTS\n"
    "AAC, MPEG audio (MP3), AC-3 and E-AC-3, Ogg Opus, FLAC, WAV (PCM), AMR and\n"
    "AMR-WB. The streams are read as their bytes come, and each sample goes to\n"
    "the library as soon as it is whole, the samples of all inputs in\n"
    "decoding-time order, through MP4FileNewEx, MP4AddTrack, MP4WriteSample and\n"
    "MP4FileFlush: a progressive file (\"moov\" behind the media, in front with\n"
    "--faststart), or with --fragmented one written in fragments of one to two\n"
    "seconds while the samples come, so that a process that is killed leaves\n"
    "every whole fragment readable. --od and --scene take the classic writer\n"
    "(MP4FileNew, CreateTrack, AddVideoFrame, AddAudioFrame), the one that makes\n"
    "those tracks, with --video (MPEG-4) and --audio (ADTS) only.\n"
    "A failed write or an input that breaks off or can't be parsed ends the run\n"
    "with exit status 1 and a message that names the input, the byte and why;\n"
    "a fragmented file then keeps the samples before, a progressive one is\n"
    "removed. On a terminal, standard error shows the progress.\n",
    RunMux,
    true,
};
