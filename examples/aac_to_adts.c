/* aac_to_adts IN.mp4 AUDIO_TRACK_ID OUT.aac: turn an AAC track into an
 * ADTS stream, which players and decoders take without the MP4 file.
 *
 * The samples of an AAC track are raw frames; each gets a 7-byte ADTS
 * header in front, made by AAC_EsdsToAdtsHead from the track's "esds" atom
 * (RetMp4MediaInfo hands it out) and the frame's size. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "mp4core.h"

/* Writes every sample of the track with its header; the number of frames,
 * or -1 on a failure. */
static long write_adts(MP4_local_file *file, uint32_t track_id, const uint8_t *esds,
                       FILE *out) {
    long frames = 0;
    for (;;) {
        MP4Sample *sample = NULL;
        int32_t result = GetNextSample(file, track_id, MP4_TRACK_AUDIO, &sample);
        if (result == 0) return frames; /* end of track */
        if (result != 1) {
            fprintf(stderr, "GetNextSample gave %d at frame %ld\n", (int)result, frames);
            return -1;
        }
        uint8_t header[7];
        uint32_t header_size = 0;
        result = AAC_EsdsToAdtsHead(esds, sample->Size, header, &header_size);
        int ok = result == 1 && fwrite(header, 1, header_size, out) == header_size &&
                 fwrite(sample->Data, 1, sample->Size, out) == sample->Size;
        SampleDataFree(&sample);
        if (!ok) {
            fprintf(stderr, "frame %ld: AAC_EsdsToAdtsHead gave %d, or the write failed\n",
                    frames, (int)result);
            return -1;
        }
        frames++;
    }
}

static int convert(MP4_local_file *file, uint32_t track_id, const char *out_path) {
    Mp4MediaInfo *info = NULL;
    int32_t result = RetMp4MediaInfo(file, track_id, MP4_TRACK_AUDIO, &info);
    if (result != 1) {
        fprintf(stderr, "RetMp4MediaInfo gave %d: no audio track %u?\n", (int)result, track_id);
        return 1;
    }
    int status = 1;
    /* An "mp4a" entry carries the whole "esds" atom; AMR tracks have none.
     * (MPEG-1/2 audio in "mp4a" has one too: GetFileInfo's AudioFormat
     * tells it apart.) */
    if (info->EsdsSize == 0) {
        fprintf(stderr, "track %u has no \"esds\": not AAC\n", track_id);
    } else {
        FILE *out = fopen(out_path, "wb");
        if (out == NULL) {
            fprintf(stderr, "can't create %s\n", out_path);
        } else {
            long frames = write_adts(file, track_id, info->EsdsData, out);
            if (fclose(out) == 0 && frames >= 0) {
                printf("%ld ADTS frames written to %s\n", frames, out_path);
                status = 0;
            } else {
                remove(out_path); /* no half-written stream */
            }
        }
    }
    /* The data blocks first, then the record. */
    void *blocks[] = {info->EsdsData, info->D263Data, info->DamrData, info};
    for (int i = 0; i < 4; i++) MP4freeData(&blocks[i]);
    return status;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s IN.mp4 AUDIO_TRACK_ID OUT.aac\n", argv[0]);
        return 2;
    }
    MP4_local_file *file = NULL;
    int32_t opened = MP4FileOpen(&file, argv[1], MP4_TABLE_MARKS);
    if (opened != 1) {
        fprintf(stderr, "MP4FileOpen(%s) gave %d\n", argv[1], (int)opened);
        return 1;
    }
    int status = convert(file, (uint32_t)strtoul(argv[2], NULL, 10), argv[3]);
    MP4FileClose(&file);
    return status;
}
