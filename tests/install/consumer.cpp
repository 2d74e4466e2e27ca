// Built against an installed mp4core from C++: reads an audio track to its
// end and checks the count against the file summary. Prints one line
// starting "consumer:"; exits 0 only when every call succeeded.
#include <mp4core.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

struct CloseFile {
    void operator()(MP4_local_file *file) const { MP4FileClose(&file); }
};

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s FILE.mp4 AUDIO_TRACK_ID\n", argv[0]);
        return 2;
    }
    FileInfo info;
    if (GetFileInfo(argv[1], &info) != 1) {
        std::fprintf(stderr, "GetFileInfo failed\n");
        return 1;
    }
    MP4_local_file *raw = nullptr;
    if (MP4FileOpen(&raw, argv[1], MP4_TABLE_MARKS) != 1) {
        std::fprintf(stderr, "MP4FileOpen failed\n");
        return 1;
    }
    std::unique_ptr<MP4_local_file, CloseFile> file(raw);
    const auto track = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));

    uint32_t count = 0;
    uint64_t bytes = 0;
    for (;;) {
        MP4Sample *sample = nullptr;
        const int32_t result = GetNextSample(file.get(), track, MP4_TRACK_AUDIO, &sample);
        if (result == 0) break;
        if (result != 1) {
            std::fprintf(stderr, "GetNextSample failed at sample %u: %d\n", count,
                         static_cast<int>(result));
            return 1;
        }
        ++count;
        bytes += sample->Size;
        SampleDataFree(&sample);
    }
    std::printf("consumer: %u audio samples of %u, %llu bytes, %u Hz\n", count,
                info.AudioSampleCount, static_cast<unsigned long long>(bytes),
                info.AudioSampleRate);
    return count == info.AudioSampleCount && count > 0 ? 0 : 1;
}
