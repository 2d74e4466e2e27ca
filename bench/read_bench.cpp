// Reading: open a file and read every sample, mp4core (MP4FileOpen,
// GetNextSample, SampleDataFree) beside libavformat (avformat_open_input,
// av_read_frame) on the same files in the same run: the long FFmpeg fixture
// and a synthetic file of a million samples. Then the open alone, and the
// memory that the open keeps per sample.
//
// Targets: open + read all at least 1.5x faster than libavformat; at most
// 24 bytes of heap per sample after the open.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench_support.h"
#include "mp4core.h"

#if MP4CORE_HAVE_LIBAV
extern "C" {
#include <libavformat/avformat.h>
}
#endif

namespace {

using bench_support::Ratio;

struct TestFile {
    std::string label;  // "long", "synthetic"
    std::string path;
    uint32_t trackId;
    uint32_t samples;
};

// Reads every sample of the file's video track; gives the count, or -1 when
// the file does not open.
int64_t Mp4coreReadAll(const TestFile &file, int32_t mode) {
    MP4_local_file *handle = nullptr;
    if (MP4FileOpen(&handle, file.path.c_str(), mode) != 1) return -1;
    int64_t count = 0;
    MP4Sample *sample = nullptr;
    while (GetNextSample(handle, file.trackId, MP4_TRACK_VIDEO, &sample) == 1) {
        benchmark::DoNotOptimize(sample->Data);
        SampleDataFree(&sample);
        ++count;
    }
    MP4FileClose(&handle);
    return count;
}

void Mp4coreOpenReadAll(benchmark::State &state, TestFile file, int32_t mode) {
    int64_t count = 0;
    for (auto _ : state) count = Mp4coreReadAll(file, mode);
    if (count != file.samples)
        state.SkipWithError(("read " + std::to_string(count) + " samples").c_str());
    state.counters["samples"] = double(count);
}

void LibavOpenReadAll(benchmark::State &state, TestFile file) {
    int64_t count = 0;
    for (auto _ : state) count = bench_support::LibavReadAll(file.path);
    if (count != file.samples)
        state.SkipWithError(("read " + std::to_string(count) + " packets").c_str());
    state.counters["samples"] = double(count);
}

void Mp4coreOpenOnly(benchmark::State &state, TestFile file, int32_t mode) {
    for (auto _ : state) {
        MP4_local_file *handle = nullptr;
        if (MP4FileOpen(&handle, file.path.c_str(), mode) != 1) {
            state.SkipWithError("open failed");
            break;
        }
        MP4FileClose(&handle);
    }
}

#if MP4CORE_HAVE_LIBAV
void LibavOpenOnly(benchmark::State &state, TestFile file) {
    for (auto _ : state) {
        AVFormatContext *context = nullptr;
        if (avformat_open_input(&context, file.path.c_str(), nullptr, nullptr) != 0) {
            state.SkipWithError("open failed");
            break;
        }
        avformat_close_input(&context);
    }
}
#endif

// Heap that an open leaves in use, and the peak resident growth during it,
// each measured in a child process of its own.
struct OpenMemory {
    bench_support::ChildResult mp4core;
    bench_support::ChildResult libav;
};

OpenMemory MeasureOpenMemory(const TestFile &file, int32_t mode) {
    OpenMemory memory;
    memory.mp4core = bench_support::RunInChild([&file, mode]() -> int64_t {
        size_t before = bench_support::HeapInUse();
        MP4_local_file *handle = nullptr;
        if (MP4FileOpen(&handle, file.path.c_str(), mode) != 1) return -1;
        return int64_t(bench_support::HeapInUse() - before);
    });
#if MP4CORE_HAVE_LIBAV
    memory.libav = bench_support::RunInChild([&file]() -> int64_t {
        size_t before = bench_support::HeapInUse();
        AVFormatContext *context = nullptr;
        if (avformat_open_input(&context, file.path.c_str(), nullptr, nullptr) != 0) return -1;
        return int64_t(bench_support::HeapInUse() - before);
    });
#endif
    return memory;
}

std::string PerSample(const bench_support::ChildResult &result, size_t growth, uint32_t samples) {
    if (!result.ok || result.value < 0) return "n/a";
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", double(growth) / samples);
    return text;
}

std::string Millis(double seconds) {
    if (seconds <= 0) return "n/a";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    std::vector<TestFile> files;
    std::string longPath = bench_support::LongFixture();
    if (!longPath.empty()) files.push_back({"long", longPath, 1, bench_support::ListedSamples(longPath)});
    else std::printf("long fixture: not made (ffmpeg, ffprobe or python3 missing)\n");
    bench_support::SyntheticShape shape;
    std::string synthetic = bench_support::SyntheticFile(shape);
    if (!synthetic.empty()) files.push_back({"synthetic", synthetic, 1, shape.samples});
    else std::printf("synthetic file: could not be written\n");

    for (const TestFile &file : files) {
        benchmark::RegisterBenchmark(("mp4core/open+read/" + file.label + "/mode1").c_str(),
                                     Mp4coreOpenReadAll, file, MP4_TABLE_KEYFRAMES)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("mp4core/open+read/" + file.label + "/mode2").c_str(),
                                     Mp4coreOpenReadAll, file, MP4_TABLE_MARKS)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("libav/open+read/" + file.label).c_str(), LibavOpenReadAll,
                                     file)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("mp4core/open/" + file.label + "/mode1").c_str(),
                                     Mp4coreOpenOnly, file, MP4_TABLE_KEYFRAMES)
            ->Unit(benchmark::kMillisecond);
#if MP4CORE_HAVE_LIBAV
        benchmark::RegisterBenchmark(("libav/open/" + file.label).c_str(), LibavOpenOnly, file)
            ->Unit(benchmark::kMillisecond);
#endif
    }

    bench_support::TimeCollector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::printf("\n== Summary: mp4core against libavformat%s, same run\n",
                bench_support::HaveLibav() ? "" : " (not built: no libavformat found)");
    for (const TestFile &file : files) {
        double mine = collector.Seconds("mp4core/open+read/" + file.label + "/mode1");
        double mine2 = collector.Seconds("mp4core/open+read/" + file.label + "/mode2");
        double theirs = collector.Seconds("libav/open+read/" + file.label);
        std::printf("open + read all, %s (%u samples): mp4core %s (mode 2: %s), libavformat %s: "
                    "speed mp4core/libavformat %s (target >= 1.50x)\n",
                    file.label.c_str(), file.samples, Millis(mine).c_str(), Millis(mine2).c_str(),
                    Millis(theirs).c_str(), Ratio(theirs, mine).c_str());
        double open = collector.Seconds("mp4core/open/" + file.label + "/mode1");
        double theirOpen = collector.Seconds("libav/open/" + file.label);
        std::printf("open only, %s: mp4core %s (%.0f ns per sample), libavformat %s: speed "
                    "mp4core/libavformat %s\n",
                    file.label.c_str(), Millis(open).c_str(), open * 1e9 / file.samples,
                    Millis(theirOpen).c_str(), Ratio(theirOpen, open).c_str());
    }
    if (!synthetic.empty()) {
        OpenMemory memory = MeasureOpenMemory(files.back(), MP4_TABLE_KEYFRAMES);
        OpenMemory marks = MeasureOpenMemory(files.back(), MP4_TABLE_MARKS);
        const uint32_t n = shape.samples;
        std::printf("heap in use after open, %u samples: mp4core %s bytes per sample (target <= "
                    "24; mode 2: %s), libavformat %s\n",
                    n, PerSample(memory.mp4core, size_t(memory.mp4core.value), n).c_str(),
                    PerSample(marks.mp4core, size_t(marks.mp4core.value), n).c_str(),
                    PerSample(memory.libav, size_t(memory.libav.value), n).c_str());
        std::printf("  of which: the sample table, 24 bytes a sample; in mode 1 the key frame "
                    "table, 8 bytes a key frame (%.2f a sample here, one key frame in %u)\n",
                    8.0 / shape.keyInterval, shape.keyInterval);
        std::printf("peak resident growth during open, %u samples: mp4core %s bytes per sample, "
                    "libavformat %s\n",
                    n, PerSample(memory.mp4core, memory.mp4core.PeakGrowth(), n).c_str(),
                    PerSample(memory.libav, memory.libav.PeakGrowth(), n).c_str());
    }
    std::printf(
        "\n== What mp4core does to read fast, results unchanged\n"
        "- sample bytes come through a 128 KB read-ahead window owned by the handle: one pread\n"
        "  refills it at the sample that is not inside it, so a run of samples in file order\n"
        "  costs one system call, not one each; samples over 64 KB are read straight into\n"
        "  their Data. Each sample is still a new MP4Sample with its own Data.\n"
        "- the key frame scan (video without \"stss\") reads the heads of the samples\n"
        "  through a 64 KB window as well, instead of a seek and single-byte reads each.\n"
        "- once a track's tables are filled, the open frees the entries of its \"stts\",\n"
        "  \"stsz\", \"stsc\", \"stco\" and \"stss\" atoms, which the tables hold in full:\n"
        "  the open keeps 24 bytes a sample, not 28.6.\n");
    benchmark::Shutdown();
    return 0;
}
