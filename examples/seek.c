/* seek FILE TRACK_ID MILLISECONDS: seek a video track to a time and step
 * through its key frames from there.
 *
 * Times at the interface are ticks of the track's own timescale, which
 * RetMp4MediaInfo tells; the example converts the milliseconds with it. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "mp4core.h"

static void print_sample(const char *call, const MP4Sample *sample, uint32_t timescale) {
    printf("%-13s time %u (%.3f s), %u bytes, key frame %u\n", call, sample->Time,
           (double)sample->Time / timescale, sample->Size, (unsigned)sample->IsKeyFrame);
}

/* The track's timescale, or 0 if the track can't be described. */
static uint32_t track_timescale(MP4_local_file *file, uint32_t track_id) {
    Mp4MediaInfo *info = NULL;
    int32_t result = RetMp4MediaInfo(file, track_id, MP4_TRACK_VIDEO, &info);
    if (result != 1) {
        fprintf(stderr, "RetMp4MediaInfo gave %d\n", (int)result);
        return 0;
    }
    uint32_t timescale = info->Timescale;
    /* The record and each data block are separate blocks: the data first. */
    void *blocks[] = {info->EsdsData, info->D263Data, info->DamrData, info};
    for (int i = 0; i < 4; i++) MP4freeData(&blocks[i]);
    return timescale;
}

static int seek(MP4_local_file *file, uint32_t track_id, long milliseconds) {
    uint32_t timescale = track_timescale(file, track_id);
    if (timescale == 0) return 1;
    int32_t ticks = (int32_t)((int64_t)milliseconds * timescale / 1000);

    /* Where would a seek land? No sample is read; the cursor stays on the
     * key frame, so the next GetNextSample would give it. */
    uint32_t position = 0;
    int32_t result = SeekTrackPos(file, track_id, MP4_TRACK_VIDEO, ticks, &position);
    if (result != 1) {
        fprintf(stderr, "SeekTrackPos gave %d\n", (int)result);
        return 1;
    }
    printf("SeekTrackPos  time %d lands on the key frame at %u\n", (int)ticks, position);

    /* SeekTrack lands on the same key frame, reads it and leaves the
     * cursor behind it. */
    MP4Sample *sample = NULL;
    result = SeekTrack(file, track_id, MP4_TRACK_VIDEO, ticks, &sample);
    if (result != 1) {
        fprintf(stderr, "SeekTrack gave %d\n", (int)result);
        return 1;
    }
    print_sample("SeekTrack", sample, timescale);
    SampleDataFree(&sample);

    /* Both steps start from the cursor, the sample that would be read
     * next. NextKeyFrame goes on to the next key frame. PrevKeyFrame skips
     * the key frame nearest behind the cursor and gives the one before it:
     * here, with the cursor on a frame behind the next key frame, the key
     * frame that SeekTrack found. */
    result = NextKeyFrame(file, track_id, MP4_TRACK_VIDEO, &sample);
    if (result != 1) {
        fprintf(stderr, "NextKeyFrame gave %d\n", (int)result);
        return 1;
    }
    print_sample("NextKeyFrame", sample, timescale);
    SampleDataFree(&sample);

    result = PrevKeyFrame(file, track_id, MP4_TRACK_VIDEO, &sample);
    if (result != 1) {
        fprintf(stderr, "PrevKeyFrame gave %d\n", (int)result);
        return 1;
    }
    print_sample("PrevKeyFrame", sample, timescale);
    SampleDataFree(&sample);
    return 0;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s FILE.mp4 VIDEO_TRACK_ID MILLISECONDS\n", argv[0]);
        return 2;
    }
    uint32_t track_id = (uint32_t)strtoul(argv[2], NULL, 10);
    long milliseconds = strtol(argv[3], NULL, 10);

    /* MP4_TABLE_KEYFRAMES keeps a key frame table, so seeks and key frame
     * steps search it instead of walking the samples. */
    MP4_local_file *file = NULL;
    int32_t opened = MP4FileOpen(&file, argv[1], MP4_TABLE_KEYFRAMES);
    if (opened != 1) {
        fprintf(stderr, "MP4FileOpen(%s) gave %d\n", argv[1], (int)opened);
        return 1;
    }
    int status = seek(file, track_id, milliseconds);
    MP4FileClose(&file);
    return status;
}
