/* Built against an installed mp4core from C: summarises a file and reads
 * its first video sample. Prints one line starting "consumer:"; exits 0
 * only when every call succeeded. */
#include <mp4core.h>
#include <stdio.h>

int main(int argc, char **argv) {
    FileInfo info;
    MP4_local_file *file = NULL;
    MP4Sample *sample = NULL;
    if (argc != 2 || GetFileInfo(argv[1], &info) != 1 || MP4FileOpen(&file, argv[1], MP4_TABLE_KEYFRAMES) != 1 ||
        GetNextSample(file, 1, MP4_TRACK_VIDEO, &sample) != 1) {
        fprintf(stderr, "usage: %s FILE.mp4, of a file whose first video sample reads\n", argv[0]);
        MP4FileClose(&file);
        return 1;
    }
    printf("consumer: %ux%u, %u frames, first sample %u bytes, key %u\n", (unsigned)info.VideoWidth,
           (unsigned)info.VideoHeight, (unsigned)info.VideoFrameCount, (unsigned)sample->Size,
           (unsigned)sample->IsKeyFrame);
    SampleDataFree(&sample);
    MP4FileClose(&file);
    return file == NULL && sample == NULL ? 0 : 1;
}
