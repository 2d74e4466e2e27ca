/* Writes an H.264 + AAC file from frames with the modern writing calls:
 * MP4FileNewEx with MP4_NEW_PROGRESSIVE (or MP4_NEW_FRAGMENTED), one
 * MP4AddTrack per track
 * (format, clock, picture or sound, and the decoder configuration), then
 * MP4WriteSample for each frame in decoding order, and MP4FileFlush. The
 * frames here come from an existing file (read with the modern reader);
 * an encoder would hand over its own.
 *
 *   write_modern IN.mp4 OUT.mp4 [--faststart | --fragmented]
 */
#include <stdio.h>
#include <string.h>

#include "mp4core.h"

/* Describes track `index` of the input for MP4AddTrack. The configuration
 * block is the caller's to release with MP4freeData. */
static int DescribeTrack(MP4_local_file *in, uint32_t index, MP4TrackInfo *info, MP4TrackSpec *trackSpec,
                         uint8_t **config) {
    if (MP4GetTrackInfo(in, index, info) != 1) return 0;
    memset(trackSpec, 0, sizeof *trackSpec);
    trackSpec->TrackType = (uint32_t)info->TrackType;
    memcpy(trackSpec->Format, info->Format, 4);
    trackSpec->Timescale = info->Timescale;
    trackSpec->Width = info->Width;
    trackSpec->Height = info->Height;
    trackSpec->SampleRate = info->SampleRate;
    trackSpec->Channels = info->Channels;
    memcpy(trackSpec->Language, info->Language, 4);
    *config = NULL;
    if (MP4GetDecoderConfig(in, info->TrackId, info->TrackType, config, &trackSpec->ConfigSize) == 1)
        trackSpec->Config = *config;
    return 1;
}

/* One frame of a track: its bytes, times and key flag. */
static int WriteFrame(MP4_local_file *in, MP4_local_file *out, const MP4TrackInfo *track,
                      uint32_t outId, uint32_t n) {
    MP4SampleInfo sample;
    MP4Sample *bytes = NULL;
    MP4WriteInfo info;
    int32_t result;
    if (MP4GetSampleInfo(in, track->TrackId, track->TrackType, n, &sample) != 1 ||
        MP4ReadSample(in, track->TrackId, track->TrackType, n, &bytes) != 1)
        return 0;
    memset(&info, 0, sizeof info);
    info.DecodeTime = sample.DecodeTime;
    info.CompositionOffset = sample.CompositionOffset;
    info.Size = bytes->Size;
    info.Flags = sample.IsKeyFrame ? MP4_SAMPLE_KEY : 0;
    result = MP4WriteSample(out, outId, &info, bytes->Data);
    SampleDataFree(&bytes);
    return result == 1;
}

int main(int argc, char **argv) {
    MP4_local_file *in = NULL, *out = NULL;
    MP4TrackInfo tracks[2];
    uint32_t ids[2], next[2] = {0, 0}, count = 0, t;
    uint32_t flags = MP4_NEW_PROGRESSIVE;
    int ok = 1;
    if (argc < 3) {
        fprintf(stderr, "usage: write_modern IN.mp4 OUT.mp4 [--faststart | --fragmented]\n");
        return 2;
    }
    /* Progressive: one "mdat", the index at the flush. Fragmented: each
     * fragment of a second or two reaches the file as soon as it is whole,
     * so a recording that stops short keeps all but its last seconds. */
    if (argc > 3 && strcmp(argv[3], "--faststart") == 0) flags |= MP4_NEW_FASTSTART;
    if (argc > 3 && strcmp(argv[3], "--fragmented") == 0) flags = MP4_NEW_FRAGMENTED;
    if (MP4FileOpenEx(&in, argv[1], MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN) != 1) return 1;
    if (MP4GetTrackCount(in, &count) != 1 || count > 2 || MP4FileNewEx(&out, argv[2], flags) != 1) {
        MP4FileClose(&in);
        return 1;
    }

    for (t = 0; t < count && ok; ++t) {
        MP4TrackSpec trackSpec;
        uint8_t *config = NULL;
        ok = DescribeTrack(in, t, &tracks[t], &trackSpec, &config) && MP4AddTrack(out, &trackSpec, &ids[t]) == 1;
        MP4freeData((void **)&config);
    }

    /* The frames in decoding order across the tracks, compared in seconds. */
    while (ok) {
        int best = -1;
        double bestTime = 0;
        for (t = 0; t < count; ++t) {
            MP4SampleInfo sample;
            double time;
            if (next[t] >= tracks[t].SampleCount ||
                MP4GetSampleInfo(in, tracks[t].TrackId, tracks[t].TrackType, next[t], &sample) != 1)
                continue;
            time = (double)sample.DecodeTime / tracks[t].Timescale;
            if (best < 0 || time < bestTime) {
                best = (int)t;
                bestTime = time;
            }
        }
        if (best < 0) break;
        ok = WriteFrame(in, out, &tracks[best], ids[best], next[best]++);
    }
    MP4FileClose(&in);

    /* The flush writes the index (in front with --faststart; fragmented:
     * the last fragment and "mfra") and ends the handle, whatever it
     * reports. */
    if (MP4FileFlush(out) != 1) ok = 0;
    for (t = 0; t < count; ++t)
        printf("track %u: %.4s, %u frames\n", ids[t], tracks[t].Format, next[t]);
    printf(ok ? "wrote %s\n" : "failed to write %s\n", argv[2]);
    return ok ? 0 : 1;
}
