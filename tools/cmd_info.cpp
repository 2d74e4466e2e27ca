// mp4core info FILE: the file summary of GetFileInfo, then the media
// information of every video and audio track, with its configuration bytes
// in hex.
#include <cstdio>
#include <cstdlib>

#include "atoms/atoms.h"
#include "commands.h"
#include "media/media.h"
#include "mp4core.h"
#include "tracks/tracks.h"

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
    std::printf("    %s (%u bytes):", label, size);
    for (uint32_t i = 0; i < size; ++i) std::printf("%s%02X", i % 16 == 0 ? "\n      " : " ", bytes[i]);
    std::printf("\n");
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
        std::printf("    RetMp4MediaInfo gave %d\n", int(result));
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

}  // namespace

int RunInfo(int argc, char **argv) {
    if (argc != 1) {
        std::fprintf(stderr, "usage: mp4core info FILE\n");
        return 2;
    }
    FileInfo summary;
    const int32_t result = GetFileInfo(argv[0], &summary);
    if (result != 1) {
        std::fprintf(stderr, "\nmp4core info: GetFileInfo gave %d\n", int(result));
        return 1;
    }
    PrintSummary(summary);

    MP4_local_file *file = nullptr;
    if (MP4FileOpen(&file, argv[0], MP4_TABLE_MARKS) != 1) return 1;
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        PrintTrack(file, v->TrackId, MP4_TRACK_VIDEO, v->Track, v->SampleCount);
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
        PrintTrack(file, a->TrackId, MP4_TRACK_AUDIO, a->Track, a->SampleCount);
    MP4FileClose(&file);
    return 0;
}
