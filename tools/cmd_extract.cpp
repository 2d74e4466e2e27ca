// mp4core extract FILE --track ID -o OUT: one track as a raw stream, in
// the form its help text (kExtractCommand) lists. The file is opened with
// the modern reader and the samples are read by number; the forms and
// their converters are the library's (src/streams).
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "mp4core.h"
#include "progress.h"
#include "result_text.h"
#include "streams/streams.h"

namespace {

struct Options {
    const char *path = nullptr;
    const char *output = nullptr;
    uint32_t track = 0;
};

// The track with this "tkhd" ID, among all tracks.
bool FindTrack(MP4_local_file *file, uint32_t trackId, MP4TrackInfo *info) {
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t index = 0; index < count; ++index)
        if (MP4GetTrackInfo(file, index, info) == 1 && info->TrackId == trackId) return true;
    return false;
}

// Writes what the converters appended, and empties the buffer; a failure
// is reported on a clean line (the progress line, if any, ended).
bool Flush(StreamBuffer *buffer, FILE *out, Progress *progress) {
    const bool written = buffer->Size == 0 || std::fwrite(buffer->Data, 1, buffer->Size, out) == buffer->Size;
    buffer->Size = 0;
    if (!written && progress != nullptr) EndProgress(progress);
    if (!written)
        std::fprintf(stderr, "mp4core %s: can't write the output: %s\n", kExtractCommand.name,
                     std::strerror(errno));
    return written;
}

// What became of one sample.
enum class Outcome {
    kWhole,       // converted and written
    kPartial,     // damaged: what was whole of it is written
    kPassedOver,  // it can't be read
    kStop,        // the stream can't go on (no memory, the output can't be written)
};

// One sample through the converter. An empty sample (size 0) goes in
// empty; one that can't be read is reported (on a clean line) and passed
// over.
Outcome ConvertSample(MP4_local_file *file, const StreamTrack &track, uint32_t number,
                      StreamState *state, StreamBuffer *buffer, Progress *progress) {
    const char *name = kExtractCommand.name;
    char context[32];
    std::snprintf(context, sizeof context, "sample %u", number);
    MP4SampleInfo info{}, next{};
    int32_t result = MP4GetSampleInfo(file, track.TrackId, track.TrackType, number, &info);
    if (result != 1) {
        EndProgress(progress);
        ReportFailure(name, "MP4GetSampleInfo", result, context);
        return Outcome::kPassedOver;
    }
    StreamSample sample{nullptr, 0, info.DecodeTime, 0, info.IsKeyFrame != 0};
    const bool last = number + 1 >= track.SampleCount ||
                      MP4GetSampleInfo(file, track.TrackId, track.TrackType, number + 1, &next) != 1;
    sample.Duration = (last ? track.Duration : next.DecodeTime) - info.DecodeTime;
    MP4Sample *read = nullptr;
    result = MP4ReadSample(file, track.TrackId, track.TrackType, number, &read);
    if (result == 1) {
        sample.Data = read->Data;
        sample.Size = read->Size;
    } else if (result != -94) {
        EndProgress(progress);
        ReportFailure(name, "MP4ReadSample", result, context);
        return Outcome::kPassedOver;
    }
    result = AddStreamSample(state, sample, buffer);
    SampleDataFree(&read);
    if (result == kStreamDone) return Outcome::kWhole;
    EndProgress(progress);
    std::fprintf(stderr, "mp4core %s: %s: %s\n", name, context,
                 result == kStreamNoMemory ? "no memory for the converted sample" : state->Message);
    return result == kStreamNoMemory ? Outcome::kStop : Outcome::kPartial;
}

// Writes the stream behind the form's start: every sample, then the
// form's finish. False when a sample was left out or damaged, or the
// stream could not be written.
bool WriteStream(MP4_local_file *file, const StreamTrack &track, StreamState *state, FILE *out,
                 uint32_t *written) {
    StreamBuffer buffer{};
    bool complete = true;
    Outcome outcome = Outcome::kWhole;
    Progress progress = StartProgress(kExtractCommand.name, "samples", track.SampleCount);
    for (uint32_t number = 0; outcome != Outcome::kStop && number < track.SampleCount; ++number) {
        UpdateProgress(&progress, number);
        outcome = ConvertSample(file, track, number, state, &buffer, &progress);
        if (!Flush(&buffer, out, &progress)) outcome = Outcome::kStop;
        if (outcome == Outcome::kWhole || outcome == Outcome::kPartial) ++*written;
        complete = complete && outcome == Outcome::kWhole;
    }
    EndProgress(&progress);
    bool ok = outcome != Outcome::kStop;
    if (ok && FinishStream(state, &buffer) != kStreamDone) {
        std::fprintf(stderr, "mp4core %s: no memory for the end of the stream\n", kExtractCommand.name);
        ok = false;
    }
    ok = ok && Flush(&buffer, out, nullptr);
    FreeStreamBuffer(&buffer);
    return ok && complete;
}

int Extract(MP4_local_file *file, const Options &options) {
    const char *name = kExtractCommand.name;
    MP4TrackInfo info{};
    if (!FindTrack(file, options.track, &info)) {
        std::fprintf(stderr, "mp4core %s: no track %u\n", name, options.track);
        return 1;
    }
    // Encrypted samples would make a stream no decoder takes.
    if (info.Encrypted) {
        const char scheme[5] = {info.Scheme[0], info.Scheme[1], info.Scheme[2], info.Scheme[3], 0};
        std::fprintf(stderr, "mp4core %s: track %u is protected (scheme \"%s\"): its samples are encrypted, nothing is written\n",
                     name, options.track, scheme[0] != 0 ? scheme : "none");
        return 1;
    }
    StreamTrack track{};
    const int32_t read = ReadStreamTrack(file, info, &track);
    if (read != 1) {
        char context[32];
        std::snprintf(context, sizeof context, "track %u", options.track);
        FreeStreamTrack(&track);
        return ReportFailure(name, "MP4GetSampleInfo", read, context);
    }
    const StreamForm *form = FindStreamForm(track);
    StreamState state{};
    StreamBuffer head{};
    int status = 1;
    FILE *out = nullptr;
    if (form == nullptr) {
        const uint8_t objectType = track.Entry.ObjectType;
        char detail[40] = "";
        if (objectType != 0) std::snprintf(detail, sizeof detail, " (object type 0x%02X)", objectType);
        std::fprintf(stderr, "mp4core %s: track %u is \"%s\"%s: no stream form this tool writes\n", name,
                     options.track, track.Format, detail);
    } else if (const int32_t started = StartStream(&state, form, track, &head); started != kStreamDone) {
        std::fprintf(stderr, "mp4core %s: track %u (\"%s\") can't be written as %s: %s\n", name,
                     options.track, track.Format, form->Name,
                     started == kStreamNoMemory ? "no memory" : state.Message);
    } else if ((out = std::fopen(options.output, "wb")) == nullptr) {
        std::fprintf(stderr, "mp4core %s: can't create %s: %s\n", name, options.output, std::strerror(errno));
    } else {
        uint32_t written = 0;
        const bool ok = Flush(&head, out, nullptr) && WriteStream(file, track, &state, out, &written);
        const bool closed = std::fclose(out) == 0;
        if (!closed) std::fprintf(stderr, "mp4core %s: can't write %s\n", name, options.output);
        std::printf("track %u: %u samples written to %s (%s)\n", options.track, written, options.output,
                    form->Name);
        status = ok && closed ? 0 : 1;
    }
    FreeStreamBuffer(&head);
    EndStream(&state);
    FreeStreamTrack(&track);
    return status;
}

int RunExtract(const Arguments &arguments) {
    Options options;
    options.path = arguments.operands[0];
    options.output = OptionValue(arguments, "-o");
    const char *track = OptionValue(arguments, "--track");
    if (!ParseU32(track, &options.track) || options.track == 0)
        return UsageError(kExtractCommand, "--track takes a track ID above 0, not '%s'", track);
    MP4_local_file *file = nullptr;
    const int32_t opened = MP4FileOpenEx(&file, options.path, MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    if (opened != 1) return ReportFailure(kExtractCommand.name, "MP4FileOpenEx", opened);
    const int status = Extract(file, options);
    MP4FileClose(&file);
    return status;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file to read"}};

constexpr OptionRow kOptions[] = {
    {"--track", "ID", true, false, "the track to extract, by its \"tkhd\" track ID"},
    {"-o", "OUT", true, false, "the raw stream file to write"},
};

}  // namespace

extern const CommandRow kExtractCommand = {
    "extract",
    "a track as a raw stream",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nWrites the samples of one track to OUT in the raw form of its stream:\n"
    "  H.264, HEVC     Annex B: start codes, the parameter sets in front of the\n"
    "                  first picture and of key frames without them (.264, .265);\n"
    "                  Dolby Vision as its base codec\n"
    "  AAC             ADTS (.aac); HE-AAC as its core object type and rate\n"
    "  MPEG-1/2 audio  the frames as they are (.mp3)\n"
    "  AC-3, E-AC-3    the frames as they are (.ac3, .eac3)\n"
    "  Opus            Ogg Opus (.opus)\n"
    "  FLAC            a FLAC stream (.flac)\n"
    "  PCM             WAV (.wav): sowt, twos, raw, in24, in32, fl32, fl64,\n"
    "                  alaw, ulaw, lpcm, ipcm, fpcm\n"
    "  AV1, VP9        IVF (.ivf); Dolby Vision AV1 (\"dav1\") as AV1\n"
    "  MPEG-4 video    the decoder configuration, then the samples (.m4v)\n"
    "  H.263           the samples (.263)\n"
    "  AMR             \"#!AMR\\n\" or \"#!AMR-WB\\n\", then the samples (.amr)\n"
    "Other tracks (ALAC, timed text, ...) are refused, naming their format;\n"
    "protected tracks are refused, naming their scheme.\n"
    "A sample that can't be read or is damaged is reported and passed over\n"
    "(exit status 1). On a terminal, standard error shows the progress.\n",
    RunExtract,
};
