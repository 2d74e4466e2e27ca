/* list_tracks FILE [TRACK_INDEX SAMPLE]: open a file with the modern reader,
 * list every track, and read one sample of one track by its number (by
 * default sample 0 of the first track).
 *
 * The modern reader reads what today's encoders write (H.264, HEVC, AV1,
 * Opus, ... in files of any size); MP4GetTrackCount and MP4GetTrackInfo list
 * the tracks in the order of the file (with the "mdhd" duration beside the
 * samples' sum, and the second sample entry of a track that has several,
 * through MP4GetAtom), and the calls by number reach any sample without
 * moving a cursor first. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "mp4core.h"

static void print_track(MP4_local_file *file, uint32_t index, const MP4TrackInfo *t) {
    printf("track %u: %.4s %.4s, %u samples, %llu ticks at %u/s", t->TrackId, t->Handler,
           t->Format, t->SampleCount, (unsigned long long)t->Duration, t->Timescale);
    if (t->HeaderDuration != UINT64_MAX)
        printf(" (header %llu)", (unsigned long long)t->HeaderDuration);
    if (t->TrackType == MP4_TRACK_VIDEO) printf(", %ux%u", t->Width, t->Height);
    if (t->TrackType == MP4_TRACK_AUDIO) printf(", %u Hz, %u channels", t->SampleRate, t->Channels);
    printf("\n");
    if (t->EntryCount > 1) {
        /* The second sample entry by its path: "*" is any name, [2] the second. */
        char path[64];
        snprintf(path, sizeof path, "moov/trak[%u]/mdia/minf/stbl/stsd/*[2]", index + 1);
        uint8_t *entry = NULL;
        uint64_t size = 0;
        if (MP4GetAtom(file, path, &entry, &size) == 1) {
            printf("    entry 2 of %u: %llu bytes\n", t->EntryCount, (unsigned long long)size);
            MP4freeData((void **)&entry);
        }
    }
}

int main(int argc, char **argv) {
    if (argc != 2 && argc != 4) {
        fprintf(stderr, "usage: %s FILE [TRACK_INDEX SAMPLE]\n", argv[0]);
        return 2;
    }
    MP4_local_file *file = NULL;
    int32_t opened = MP4FileOpenEx(&file, argv[1], MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    if (opened != 1) {
        fprintf(stderr, "MP4FileOpenEx(%s) gave %d\n", argv[1], (int)opened);
        return 1;
    }
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t index = 0; index < count; index++) {
        MP4TrackInfo track;
        if (MP4GetTrackInfo(file, index, &track) == 1) print_track(file, index, &track);
    }

    uint32_t index = argc == 4 ? (uint32_t)strtoul(argv[2], NULL, 10) : 0;
    uint32_t number = argc == 4 ? (uint32_t)strtoul(argv[3], NULL, 10) : 0;
    MP4TrackInfo track;
    MP4SampleInfo info;
    MP4Sample *sample = NULL;
    int32_t result = MP4GetTrackInfo(file, index, &track);
    if (result == 1)
        result = MP4GetSampleInfo(file, track.TrackId, track.TrackType, number, &info);
    if (result == 1)
        result = MP4ReadSample(file, track.TrackId, track.TrackType, number, &sample);
    if (result != 1) {
        fprintf(stderr, "track index %u, sample %u: %d\n", index, number, (int)result);
        MP4FileClose(&file);
        return 1;
    }
    printf("sample %u of track %u: time %llu (+%d), %u bytes at %llu%s\n", number,
           track.TrackId, (unsigned long long)info.DecodeTime, (int)info.CompositionOffset,
           sample->Size, (unsigned long long)info.FileOffset, info.IsKeyFrame ? ", key" : "");
    SampleDataFree(&sample);
    MP4FileClose(&file);
    return 0;
}
