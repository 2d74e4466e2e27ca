// mp4core extract FILE --track ID -o OUT: one track as a raw stream, in
// the form its help text (kExtractCommand) lists.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "atoms/atoms.h"
#include "commands.h"
#include "media/media.h"
#include "mp4core.h"
#include "progress.h"
#include "result_text.h"
#include "tracks/tracks.h"

namespace {

struct Options {
    const char *path = nullptr;
    const char *output = nullptr;
    uint32_t track = 0;
};

enum class StreamKind { kUnknown, kAdts, kMpegAudio, kMpeg4Video, kH263, kAmrNarrow, kAmrWide };

struct Track {
    int32_t Type = 0;
    const TrackNode *Node = nullptr;
    uint32_t SampleCount = 0;
};

Track FindTrack(MP4_local_file *file, uint32_t trackId) {
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        if (v->TrackId == trackId) return {MP4_TRACK_VIDEO, v->Track, v->SampleCount};
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
        if (a->TrackId == trackId) return {MP4_TRACK_AUDIO, a->Track, a->SampleCount};
    return {};
}

StreamKind KindOf(const AtomNode *entry, const Mp4MediaInfo *info) {
    if (entry == nullptr) return StreamKind::kUnknown;
    if (AtomNameEquals(entry->AtomName, "mp4v")) return StreamKind::kMpeg4Video;
    if (AtomNameEquals(entry->AtomName, "s263")) return StreamKind::kH263;
    if (AtomNameEquals(entry->AtomName, "samr")) return StreamKind::kAmrNarrow;
    if (AtomNameEquals(entry->AtomName, "sawb")) return StreamKind::kAmrWide;
    if (AtomNameEquals(entry->AtomName, "mp4a") && info != nullptr && info->EsdsSize != 0) {
        DecoderConfigPlace place;
        if (FindDecoderConfig(info->EsdsData, info->EsdsSize, &place) != 1) return StreamKind::kUnknown;
        const uint8_t objectType = info->EsdsData[place.ObjectTypeOffset];
        return objectType == 0x6B || objectType == 0x69 ? StreamKind::kMpegAudio : StreamKind::kAdts;
    }
    return StreamKind::kUnknown;
}

bool WriteAll(const uint8_t *bytes, size_t size, FILE *out) {
    return std::fwrite(bytes, 1, size, out) == size;
}

// The whole decoder specific info of an "mp4v" entry: the stream header
// that goes in front of the first picture. The media information holds
// only its first 18 bytes, so this reads the track's "esds" record.
bool WriteVideoConfig(const AtomNode *entry, FILE *out) {
    const AtomNode *esds = entry->FirstChild;
    if (esds == nullptr || !AtomNameEquals(esds->AtomName, "esds")) return false;
    size_t offset = 0, size = 0;
    if (FindDecoderSpecificInfo(esds->realStructure, AtomRecordBytes(esds), &offset, &size) != 1)
        return false;
    return WriteAll(esds->realStructure + offset, size, out);
}

// Writes the samples; false if one could not be read or written. A
// sample that can't be read (-82) is reported and passed over, and the
// rest still goes out.
bool WriteSamples(MP4_local_file *file, uint32_t trackId, const Track &track, StreamKind kind,
                  const Mp4MediaInfo *info, FILE *out, uint32_t *written) {
    Progress progress = StartProgress(kExtractCommand.name, "samples", track.SampleCount);
    bool complete = true;
    // Every turn reads one sample or ends, so the bound only keeps the
    // loop finite whatever the track holds.
    for (uint64_t number = 0; number <= uint64_t(track.SampleCount) + 1; ++number) {
        UpdateProgress(&progress, number);
        MP4Sample *sample = nullptr;
        const int32_t result = GetNextSample(file, trackId, track.Type, &sample);
        if (result == 0) break;
        char context[48];
        std::snprintf(context, sizeof context, "sample %llu", static_cast<unsigned long long>(number));
        if (result != 1) {
            EndProgress(&progress);
            ReportFailure(kExtractCommand.name, "GetNextSample", result, context);
            complete = false;
            if (result == -82) continue;
            return false;
        }
        bool ok = true;
        if (kind == StreamKind::kAdts) {
            uint8_t header[7];
            uint32_t headerSize = 0;
            const int32_t made = AAC_EsdsToAdtsHead(info->EsdsData, sample->Size, header, &headerSize);
            if (made != 1) {
                SampleDataFree(&sample);
                EndProgress(&progress);
                ReportFailure(kExtractCommand.name, "AAC_EsdsToAdtsHead", made, context);
                return false;
            }
            ok = WriteAll(header, headerSize, out);
        }
        ok = ok && WriteAll(sample->Data, sample->Size, out);
        SampleDataFree(&sample);
        if (!ok) {
            EndProgress(&progress);
            std::fprintf(stderr, "mp4core %s: can't write the output: %s\n", kExtractCommand.name,
                         std::strerror(errno));
            return false;
        }
        ++*written;
    }
    EndProgress(&progress);
    return complete;
}

int Extract(MP4_local_file *file, const Options &options) {
    const char *name = kExtractCommand.name;
    const Track track = FindTrack(file, options.track);
    if (track.Type == 0) {
        std::fprintf(stderr, "mp4core %s: no video or audio track %u\n", name, options.track);
        return 1;
    }
    Mp4MediaInfo *info = nullptr;
    const int32_t described = RetMp4MediaInfo(file, options.track, track.Type, &info);
    const AtomNode *entry = TrackSampleEntry(track.Node);
    const StreamKind kind = KindOf(entry, info);
    int status = 1;
    FILE *out = nullptr;
    if (kind == StreamKind::kUnknown) {
        // Only an audio track's stream form needs the media information.
        if (described != 1) ReportFailure(name, "RetMp4MediaInfo", described);
        std::fprintf(stderr, "mp4core %s: track %u has no stream form this tool writes\n", name,
                     options.track);
    } else if ((out = std::fopen(options.output, "wb")) == nullptr) {
        std::fprintf(stderr, "mp4core %s: can't create %s: %s\n", name, options.output,
                     std::strerror(errno));
    } else {
        bool ok = true;
        if (kind == StreamKind::kAmrNarrow) ok = std::fputs("#!AMR\n", out) >= 0;
        if (kind == StreamKind::kAmrWide) ok = std::fputs("#!AMR-WB\n", out) >= 0;
        if (kind == StreamKind::kMpeg4Video && !WriteVideoConfig(entry, out)) {
            std::fprintf(stderr, "mp4core %s: track %u has no decoder configuration\n", name,
                         options.track);
            ok = false;
        }
        uint32_t written = 0;
        ok = ok && WriteSamples(file, options.track, track, kind, info, out, &written);
        const bool closed = std::fclose(out) == 0;
        if (!closed) std::fprintf(stderr, "mp4core %s: can't write %s\n", name, options.output);
        std::printf("track %u: %u samples written to %s\n", options.track, written, options.output);
        status = ok && closed ? 0 : 1;
    }
    if (info != nullptr) {
        void *blocks[] = {info->EsdsData, info->D263Data, info->DamrData, info};
        for (void *&block : blocks) MP4freeData(&block);
    }
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
    const int32_t opened = MP4FileOpen(&file, options.path, MP4_TABLE_MARKS);
    if (opened != 1) return ReportFailure(kExtractCommand.name, "MP4FileOpen", opened);
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
    "  AAC             ADTS: a header from AAC_EsdsToAdtsHead before each frame\n"
    "  MPEG-1/2 audio  the frames as they are\n"
    "  MPEG-4 video    the decoder configuration, then the samples (.m4v)\n"
    "  H.263           the samples (.263)\n"
    "  AMR             \"#!AMR\\n\" or \"#!AMR-WB\\n\", then the samples (.amr)\n"
    "On a terminal, standard error shows the progress.\n",
    RunExtract,
};
