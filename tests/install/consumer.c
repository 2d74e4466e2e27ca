/* Built against an installed mp4core from C: summarises a file and reads
 * its first video sample. Prints one line starting "consumer:"; exits 0
 * only when every call succeeded. */
#include <mp4core.h>
#include <stdio.h>

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE.mp4\n", argv[0]);
        return 2;
    }
    FileInfo info;
    if (GetFileInfo(argv[1], &info) != 1) {
        fprintf(stderr, "GetFileInfo failed\n");
        return 1;
    }
    MP4_local_file *file = NULL;
    int32_t result = MP4FileOpen(&file, argv[1], MP4_TABLE_KEYFRAMES);
    if (result != 1) {
        fprintf(stderr, "MP4FileOpen failed: %d\n", (int)result);
        return 1;
    }
    MP4Sample *sample = NULL;
    result = GetNextSample(file, 1, MP4_TRACK_VIDEO, &sample);
    if (result != 1) {
        fprintf(stderr, "GetNextSample failed: %d\n", (int)result);
        MP4FileClose(&file);
        return 1;
    }
    printf("consumer: %ux%u, %u frames, first sample %u bytes, key %u\n",
           (unsigned)info.VideoWidth, (unsigned)info.VideoHeight,
           (unsigned)info.VideoFrameCount, (unsigned)sample->Size,
           (unsigned)sample->IsKeyFrame);
    SampleDataFree(&sample);
    MP4FileClose(&file);
    return file == NULL && sample == NULL ? 0 : 1;
}
