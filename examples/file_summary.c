/* file_summary FILE: what GetFileInfo tells about a file: size, the last
 * video track and the last audio track. It needs no handle: the call opens
 * and closes the file itself. */
#include <stdint.h>
#include <stdio.h>

#include "mp4core.h"

static const char *audio_format_name(uint32_t format) {
    switch (format) {
    case MP4_AUDIO_AAC: return "AAC";
    case MP4_AUDIO_MPEG: return "MPEG-1/2 audio";
    case MP4_AUDIO_AMR_NB: return "AMR narrow band";
    case MP4_AUDIO_AMR_WB: return "AMR wide band";
    default: return "none";
    }
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE.mp4\n", argv[0]);
        return 2;
    }
    FileInfo info; /* the caller's record; the call zeroes it */
    int32_t result = GetFileInfo(argv[1], &info);
    if (result != 1) {
        /* -11: the file can't be opened; -21: it is no MP4 file that opens */
        fprintf(stderr, "GetFileInfo(%s) gave %d\n", argv[1], (int)result);
        return 1;
    }
    printf("file size: %u bytes\n", info.FileSize);
    if (info.VideoFrameCount != 0 || info.VideoWidth != 0) {
        printf("video: %ux%u, %u frames, %u frames/s, bit rate %u (max %u), profile %u\n",
               info.VideoWidth, info.VideoHeight, info.VideoFrameCount, info.VideoFrameRate,
               info.VideoAvgBitRate, info.VideoMaxBitRate, info.VideoProfile);
    }
    if (info.AudioFormat != MP4_AUDIO_NONE || info.AudioSampleCount != 0) {
        printf("audio: %s, %u Hz, %u channels, %u frames, bit rate %u (max %u)\n",
               audio_format_name(info.AudioFormat), info.AudioSampleRate, info.AudioChannels,
               info.AudioSampleCount, info.AudioAvgBitRate, info.AudioMaxBitRate);
        if (info.AudioHasConfig)
            printf("audio object type %u (profile %u)\n", info.AudioObjectType,
                   info.AudioProfile);
    }
    return 0;
}
