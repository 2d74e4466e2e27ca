/* read_samples FILE: read every sample of every video and audio track with
 * GetNextSample and print, per track, the sample count, the total bytes and
 * the key frames.
 *
 * The interface addresses a track by its "tkhd" ID and its type and has no
 * call that lists the tracks, so the example asks for IDs 1 to
 * MAX_TRACK_ID as video and as audio; the results -98 to -93 mean "no such
 * track of this type". Files name their tracks 1, 2, 3, ... in practice. */
#include <stdint.h>
#include <stdio.h>

#include "mp4core.h"

#define MAX_TRACK_ID 32

static int is_no_such_track(int32_t result) {
    return result <= -93 && result >= -98;
}

/* Reads one track to its end. Returns 1 when the track was read, 0 when
 * the file has no such track, -1 on a failure. */
static int read_track(MP4_local_file *file, uint32_t track_id, int32_t type) {
    const char *name = type == MP4_TRACK_VIDEO ? "video" : "audio";
    uint32_t count = 0, key_frames = 0;
    uint64_t bytes = 0;
    for (;;) {
        MP4Sample *sample = NULL;
        int32_t result = GetNextSample(file, track_id, type, &sample);
        if (result == 0) break; /* end of track */
        if (result != 1) {
            if (count == 0 && is_no_such_track(result)) return 0;
            fprintf(stderr, "track %u %s: GetNextSample gave %d at sample %u\n", track_id, name,
                    (int)result, count);
            return -1;
        }
        count++;
        bytes += sample->Size;
        key_frames += sample->IsKeyFrame;
        SampleDataFree(&sample); /* frees Data and the record */
    }
    printf("track %u %s: %u samples, %llu bytes, %u key frames\n", track_id, name, count,
           (unsigned long long)bytes, key_frames);
    return 1;
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE.mp4\n", argv[0]);
        return 2;
    }
    MP4_local_file *file = NULL;
    int32_t opened = MP4FileOpen(&file, argv[1], MP4_TABLE_MARKS);
    if (opened != 1) {
        fprintf(stderr, "MP4FileOpen(%s) gave %d\n", argv[1], (int)opened);
        return 1;
    }
    int status = 0, tracks = 0;
    for (uint32_t id = 1; id <= MAX_TRACK_ID; id++) {
        for (int32_t type = MP4_TRACK_VIDEO; type <= MP4_TRACK_AUDIO; type++) {
            int r = read_track(file, id, type);
            if (r < 0) status = 1;
            if (r > 0) tracks++;
        }
    }
    MP4FileClose(&file); /* nulls file */
    if (tracks == 0) {
        fprintf(stderr, "%s: no video or audio track\n", argv[1]);
        return 1;
    }
    return status;
}
