// Built against an installed mp4core from C++: reads an audio track to its
// end and checks the count against the file summary. Prints one line
// starting "consumer:"; exits 0 only when every call succeeded.
#include <mp4core.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char **argv) {
    FileInfo info;
    MP4_local_file *raw = nullptr;
    if (argc != 3 || GetFileInfo(argv[1], &info) != 1 || MP4FileOpen(&raw, argv[1], MP4_TABLE_MARKS) != 1) {
        std::fprintf(stderr, "usage: %s FILE.mp4 AUDIO_TRACK_ID, of a file that opens\n", argv[0]);
        return 1;
    }
    const auto close = [](MP4_local_file *file) { MP4FileClose(&file); };
    std::unique_ptr<MP4_local_file, decltype(close)> file(raw, close);
    const auto track = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    uint32_t count = 0;
    uint64_t bytes = 0;
    int32_t result = 1;
    for (MP4Sample *sample = nullptr; (result = GetNextSample(file.get(), track, MP4_TRACK_AUDIO, &sample)) == 1; ++count) {
        bytes += sample->Size;
        SampleDataFree(&sample);
    }
    std::printf("consumer: %u audio samples of %u, %llu bytes, %u Hz\n", count, info.AudioSampleCount,
                static_cast<unsigned long long>(bytes), info.AudioSampleRate);
    return result == 0 && count == info.AudioSampleCount && count > 0 ? 0 : 1;
}
