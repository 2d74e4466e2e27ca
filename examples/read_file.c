/* read_file FILE [SECONDS]: what most programs do with an MP4 file. Open
 * it with the modern reader, list its tracks, read every sample of every
 * track in batches into one buffer, seek each track to the key frame shown
 * at or before SECONDS (default 1) and read it, and step through the first
 * samples in the order the file stores them.
 *
 * Failures are reported with the library's own words (MP4ResultText), and
 * whatever the library would print goes through this program's
 * diagnostics function instead. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "mp4core.h"

/* Every message of the library, marked as such, on standard error. */
static void library_says(int channel, const char *text, void *context) {
    (void)context;
    fprintf(stderr, "mp4core (%s): %s", channel == 1 ? "output" : "debug", text);
}

static int failed(const char *call, int32_t result) {
    fprintf(stderr, "%s failed (%d): %s\n", call, (int)result, MP4ResultText(call, result));
    return 1;
}

/* Reads every sample of a track, a batch at a time: as many samples as fit
 * in the buffer, each described in infos. A sample larger than the whole
 * buffer makes it grow. */
static int read_track(MP4_local_file *file, const MP4TrackInfo *track) {
    enum { kBatch = 256 };
    MP4SampleInfo infos[kBatch];
    uint64_t capacity = 1 << 20, bytes = 0;
    uint32_t keys = 0;
    uint8_t *buffer = malloc(capacity);
    if (buffer == NULL) return 1;
    for (uint32_t next = 0; next < track->SampleCount;) {
        uint32_t want = track->SampleCount - next < kBatch ? track->SampleCount - next : kBatch;
        uint32_t done = 0;
        int32_t result = MP4ReadSamples(file, track->TrackId, track->TrackType, next, want,
                                        buffer, capacity, infos, &done);
        if (result == -91) { /* infos[0].Size is what the next sample needs */
            uint8_t *larger = realloc(buffer, infos[0].Size);
            if (larger == NULL) break;
            buffer = larger;
            capacity = infos[0].Size;
            continue;
        }
        if (result != 1) {
            free(buffer);
            return failed("MP4ReadSamples", result);
        }
        /* Sample next + i is infos[i]; its bytes follow those before it. */
        for (uint32_t i = 0; i < done; i++) {
            bytes += infos[i].Size;
            keys += infos[i].IsKeyFrame;
        }
        next += done;
    }
    free(buffer);
    printf("track %u: %.4s, %u samples, %llu bytes, %u key frames\n", track->TrackId,
           track->Format, track->SampleCount, (unsigned long long)bytes, keys);
    return 0;
}

/* The key frame shown at or before `seconds`, read into a buffer of ours. */
static int seek_track(MP4_local_file *file, const MP4TrackInfo *track, double seconds) {
    uint64_t time = (uint64_t)(seconds * track->Timescale);
    uint32_t number = 0;
    int32_t result = MP4FindSample(file, track->TrackId, track->TrackType, time,
                                   MP4_FIND_PRESENTATION | MP4_FIND_KEY, &number);
    if (result != 1) return failed("MP4FindSample", result);
    uint8_t small[64];
    MP4SampleInfo info;
    result = MP4ReadSampleInto(file, track->TrackId, track->TrackType, number, small,
                               sizeof small, &info);
    uint8_t *data = small;
    if (result == -91) { /* too large for our buffer: info.Size says how large */
        data = malloc(info.Size);
        if (data == NULL) return 1;
        result = MP4ReadSampleInto(file, track->TrackId, track->TrackType, number, data,
                                   info.Size, &info);
    }
    if (data != small) free(data);
    if (result != 1) return failed("MP4ReadSampleInto", result);
    printf("track %u at %.2f s: sample %u, decoded at %llu, %u bytes\n", track->TrackId, seconds,
           number, (unsigned long long)info.DecodeTime, info.Size);
    return 0;
}

int main(int argc, char **argv) {
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: %s FILE [SECONDS]\n", argv[0]);
        return 2;
    }
    double seconds = argc == 3 ? atof(argv[2]) : 1.0;
    MP4SetDiagnostics(library_says, NULL);

    MP4_local_file *file = NULL;
    int32_t opened = MP4FileOpenEx(&file, argv[1], MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    if (opened != 1) return failed("MP4FileOpenEx", opened);

    int status = 0;
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t index = 0; index < count && status == 0; index++) {
        MP4TrackInfo track;
        if (MP4GetTrackInfo(file, index, &track) != 1 || track.SampleCount == 0) continue;
        status = read_track(file, &track);
        if (status == 0) status = seek_track(file, &track, seconds);
    }

    /* The first samples as the file stores them, across the tracks:
     * UINT32_MAX in trackIndex starts from the beginning. */
    uint32_t trackIndex = UINT32_MAX, sample = 0;
    printf("file order:");
    for (int n = 0; n < 8 && MP4NextInFileOrder(file, &trackIndex, &sample) == 1; n++)
        printf(" %u:%u", trackIndex, sample);
    printf("\n");

    MP4FileClose(&file);
    return status;
}
