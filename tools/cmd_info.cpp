// mp4core info FILE: every track as the modern reader describes it
// (info_modern.cpp); with --classic the file summary of GetFileInfo, then
// the media information of every video and audio track, with its
// configuration bytes in hex.
#include <cstdio>
#include <cstdlib>

#include "atoms/atoms.h"
#include "commands.h"
#include "media/media.h"
#include "mp4core.h"
#include "result_text.h"
#include "tracks/tracks.h"
#include "views.h"

namespace {

const char *AudioFormatName(uint32_t format) {
    switch (format) {
    case MP4_AUDIO_AAC: return "MPEG-4 AAC";
    case MP4_AUDIO_MPEG: return "MPEG-1/2 audio";
    case MP4_AUDIO_AMR_NB: return "AMR narrow band";
    case MP4_AUDIO_AMR_WB: return "AMR wide band";
    default: return "none";
    }
}

void PrintHex(const char *label, const uint8_t *bytes, uint32_t size) {
    if (bytes == nullptr || size == 0) return;
    PrintHexBlock(label, bytes, size, 4);
}

void PrintSummary(const FileInfo &info) {
    std::printf("file size %u bytes\n", info.FileSize);
    if (info.VideoFrameCount || info.VideoWidth || info.VideoHeight) {
        std::printf("video: %ux%u, %u frames, %u frames/s, bit rate avg %u max %u, profile %u\n",
                    info.VideoWidth, info.VideoHeight, info.VideoFrameCount, info.VideoFrameRate,
                    info.VideoAvgBitRate, info.VideoMaxBitRate, info.VideoProfile);
    }
    if (info.AudioFormat || info.AudioSampleCount) {
        std::printf("audio: %s, %u Hz, %u channels, %u samples, bit rate avg %u max %u",
                    AudioFormatName(info.AudioFormat), info.AudioSampleRate, info.AudioChannels,
                    info.AudioSampleCount, info.AudioAvgBitRate, info.AudioMaxBitRate);
        if (info.AudioHasConfig)
            std::printf(", object type %u (profile %u)", info.AudioObjectType, info.AudioProfile);
        if (info.AudioFormat == MP4_AUDIO_MPEG)
            std::printf(", channel mode %u, emphasis %u", info.AudioChannelMode, info.AudioEmphasis);
        std::printf("\n");
    }
}

void PrintTrack(MP4_local_file *file, uint32_t trackId, int32_t type, const TrackNode *track,
                uint32_t sampleCount) {
    const AtomNode *entry = TrackSampleEntry(track);
    std::printf("track %u: %s, sample entry \"%s\", %u samples\n", trackId,
                type == MP4_TRACK_VIDEO ? "video" : "audio", entry ? entry->AtomName : "?",
                sampleCount);
    Mp4MediaInfo *info = nullptr;
    const int32_t result = RetMp4MediaInfo(file, trackId, type, &info);
    if (result != 1) {
        // One track without media information does not fail the listing.
        std::printf("    RetMp4MediaInfo failed (%d): %s\n", int(result),
                    ResultMeaning("RetMp4MediaInfo", result));
        return;
    }
    std::printf("    timescale %u, duration %u", info->Timescale, info->TrackDuration);
    if (info->Timescale) std::printf(" (%.3f s)", double(info->TrackDuration) / info->Timescale);
    std::printf("\n");
    PrintHex("esds data", info->EsdsData, info->EsdsSize);
    PrintHex("d263 data", info->D263Data, info->D263Size);
    PrintHex("damr data", info->DamrData, info->DamrSize);
    void *blocks[] = {info->EsdsData, info->D263Data, info->DamrData, info};
    for (void *&block : blocks) MP4freeData(&block);
}

// GetFileInfo's result when its own open failed; the library's message for
// that has no line end.
constexpr int32_t kFileInfoOpenFailed = -21;

int RunModern(const char *path) {
    MP4_local_file *file = nullptr;
    const int opened = OpenWithReader(kInfoCommand.name, path, MP4_TABLE_MARKS, false, &file);
    if (opened != 0) return opened;
    const int status = PrintModernInfo(file);
    MP4FileClose(&file);
    return status;
}

int RunInfo(const Arguments &arguments) {
    const char *path = arguments.operands[0];
    if (!WantsClassic(arguments)) return RunModern(path);
    FileInfo summary;
    const int32_t result = GetFileInfo(path, &summary);
    if (result != 1) {
        if (result == kFileInfoOpenFailed) std::printf("\n");
        return ReportFailure(kInfoCommand.name, "GetFileInfo", result);
    }
    PrintSummary(summary);

    MP4_local_file *file = nullptr;
    const int32_t opened = MP4FileOpen(&file, path, MP4_TABLE_MARKS);
    if (opened != 1) return ReportFailure(kInfoCommand.name, "MP4FileOpen", opened);
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        PrintTrack(file, v->TrackId, MP4_TRACK_VIDEO, v->Track, v->SampleCount);
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
        PrintTrack(file, a->TrackId, MP4_TRACK_AUDIO, a->Track, a->SampleCount);
    MP4FileClose(&file);
    return 0;
}

constexpr OperandRow kOperands[] = {{"FILE", "the MP4 file to describe"}};
constexpr OptionRow kOptions[] = {MP4CORE_CLASSIC_OPTION};

}  // namespace

extern const CommandRow kInfoCommand = {
    "info",
    "every track: codec, picture or sound, duration, bit rate, configuration",
    kOperands, CountOf(kOperands), kOptions, CountOf(kOptions),
    "\nOpens FILE with the modern reader and prints, for every track in the file's\n"
    "order, what MP4GetTrackInfo gives: type, codec (the sample entry's format),\n"
    "handler, picture size and rotation (video) or rate and channels (audio),\n"
    "sample count (and the fragments of a fragmented file), timescale and\n"
    "duration (and the \"mdhd\" duration where it differs), language, edit list\n"
    "and protection; a mirrored or disabled track, the formats of several sample\n"
    "entries, and the first entry's colour atoms (\"colr\", \"mdcv\", \"clli\",\n"
    "through MP4GetAtom);\n"
    "the average bit rate over the duration, from the sample sizes; and the\n"
    "decoder configuration in hex, as MP4GetDecoderConfig gives it. Then the tags\n"
    "(key = value (type, the atom it came from); a cover as its type and size)\n"
    "and the chapters (start to end, title), as MP4GetMetadata and MP4GetChapters\n"
    "give them.\n"
    "With --classic it prints the summary GetFileInfo gives (size, picture, frame\n"
    "rate, audio format, bit rates), then for every video and audio track its\n"
    "sample entry, sample count, timescale and duration, and its configuration\n"
    "bytes in hex, as RetMp4MediaInfo gives them. A track without media\n"
    "information says why.\n",
    RunInfo,
};
