// The modern reader: open + read of every sample through MP4FileOpenEx
// (MP4_OPEN_MODERN) and MP4ReadSample beside libavformat on the same files
// in the same run: a synthetic file of a million small samples, a long
// FFmpeg H.264/AAC file of small samples (100000 pictures of 160x120 and
// 48 kHz AAC), the same kind fragmented with one fragment per picture
// (60000 pictures), and an FFmpeg H.264/AAC file of 1920x1080 pictures,
// where both sides mostly copy bytes, and ten minutes of 48 kHz stereo PCM in
// QuickTime (28.8 million frames, read in samples of 1024 frames); then the
// heap that the modern open keeps per sample and per byte of sample tables,
// and the open of the sparse 5 GiB file. The FFmpeg files are made
// once by bench/make_bench_files.sh into the cache folder.
//
// Targets (reported, not enforced): open + read at least 3x faster than
// libavformat on the long FFmpeg files of small samples, plain and
// fragmented; a file of a million one-byte fragments opens in time and
// memory in proportion to its size; at most 32 bytes of
// heap per sample after the open; the 5 GiB file opens in milliseconds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "mp4core.h"

namespace {

using bench_support::Ratio;

// Reads every sample of every track by number; gives the count, or -1
// when the file does not open.
int64_t ModernReadAll(const std::string &path) {
    MP4_local_file *file = nullptr;
    if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN) != 1) return -1;
    int64_t read = 0;
    uint32_t tracks = 0;
    MP4GetTrackCount(file, &tracks);
    for (uint32_t i = 0; i < tracks; ++i) {
        MP4TrackInfo info;
        MP4GetTrackInfo(file, i, &info);
        for (uint32_t n = 0; n < info.SampleCount; ++n) {
            MP4Sample *sample = nullptr;
            if (MP4ReadSample(file, info.TrackId, info.TrackType, n, &sample) != 1) continue;
            benchmark::DoNotOptimize(sample->Data);
            SampleDataFree(&sample);
            ++read;
        }
    }
    MP4FileClose(&file);
    return read;
}

void ModernOpenReadAll(benchmark::State &state, std::string path) {
    int64_t count = 0;
    for (auto _ : state) count = ModernReadAll(path);
    if (count < 0) state.SkipWithError("open failed");
    state.counters["samples"] = double(count);
}

void LibavOpenReadAll(benchmark::State &state, std::string path) {
    int64_t count = 0;
    for (auto _ : state) count = bench_support::LibavReadAll(path);
    if (count < 0) state.SkipWithError("open failed");
    state.counters["samples"] = double(count);
}

double SecondsToOpen(const std::string &path) {
    const auto start = std::chrono::steady_clock::now();
    MP4_local_file *file = nullptr;
    const int32_t result = MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    MP4FileClose(&file);
    return result == 1 ? seconds : -1;
}

// The median of five opens: the first open after a file was written can
// meet the kernel still writing it back.
double MedianSecondsToOpen(const std::string &path) {
    std::vector<double> runs;
    for (int run = 0; run < 5; ++run) runs.push_back(SecondsToOpen(path));
    std::sort(runs.begin(), runs.end());
    return runs[runs.size() / 2];
}

// The bytes of the sample table atoms of a file ("stts", "ctts", "stsc",
// "stsz", "stz2", "stco", "co64", "stss"), by a walk of its boxes.
uint64_t TableBytes(FILE *file, uint64_t from, uint64_t to) {
    static const char *const kContainers[] = {"moov", "trak", "mdia", "minf", "stbl"};
    static const char *const kTables[] = {"stts", "ctts", "stsc", "stsz", "stz2", "stco", "co64", "stss"};
    uint64_t bytes = 0;
    while (from + 8 <= to) {
        unsigned char head[16];
        if (fseeko(file, off_t(from), SEEK_SET) != 0 || std::fread(head, 1, 16, file) < 8) break;
        uint64_t size = uint64_t(head[0]) << 24 | head[1] << 16 | head[2] << 8 | head[3];
        uint64_t body = 8;
        if (size == 1) {
            size = 0;
            for (int i = 8; i < 16; ++i) size = size << 8 | head[i];
            body = 16;
        }
        if (size == 0) size = to - from;
        if (size < body || size > to - from) break;
        const std::string name(reinterpret_cast<char *>(head) + 4, 4);
        for (const char *table : kTables) bytes += name == table ? size : 0;
        for (const char *container : kContainers)
            if (name == container) bytes += TableBytes(file, from + body, from + size);
        from += size;
    }
    return bytes;
}

// The heap the modern open holds (TableMode 2), per sample and per byte of
// sample tables, and the median open time.
void ReportHeap(const std::string &label, const std::string &path) {
    bench_support::ChildResult heap = bench_support::RunInChild([&path]() -> int64_t {
        const size_t before = bench_support::HeapInUse();
        MP4_local_file *file = nullptr;
        if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN) != 1) return -1;
        return int64_t(bench_support::HeapInUse() - before);
    });
    MP4_local_file *file = nullptr;
    uint64_t samples = 0;
    if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN) == 1) {
        uint32_t tracks = 0;
        MP4GetTrackCount(file, &tracks);
        for (uint32_t i = 0; i < tracks; ++i) {
            MP4TrackInfo info{};
            if (MP4GetTrackInfo(file, i, &info) == 1) samples += info.SampleCount;
        }
    }
    MP4FileClose(&file);
    FILE *stream = std::fopen(path.c_str(), "rb");
    uint64_t tables = 0;
    if (stream != nullptr && fseeko(stream, 0, SEEK_END) == 0)
        tables = TableBytes(stream, 0, uint64_t(ftello(stream)));
    if (stream != nullptr) std::fclose(stream);
    if (!heap.ok || heap.value < 0 || samples == 0 || tables == 0) return;
    std::printf("modern open of %s: %llu samples, %llu bytes of sample tables, heap %lld bytes "
                "(%.2f per sample, %.2f per table byte), open %.2f ms\n",
                label.c_str(), (unsigned long long)samples, (unsigned long long)tables,
                (long long)heap.value, double(heap.value) / double(samples),
                double(heap.value) / double(tables), MedianSecondsToOpen(path) * 1e3);
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    bench_support::SyntheticShape shape;
    struct Named {
        std::string label, path, note;
    };
    std::vector<Named> files = {
        {"synthetic", bench_support::SyntheticFile(shape), "1000000 small samples"},
        {"small_h264_aac", bench_support::GeneratedFile("small"),
         "160x120 H.264 + AAC, target >= 3.00x"},
        {"frag_h264_aac", bench_support::GeneratedFile("frag"),
         "160x120 H.264 + AAC, one fragment per picture, target >= 3.00x"},
        {"hd_h264_aac", bench_support::GeneratedFile("hd"),
         "1920x1080 H.264 + AAC, mostly copying bytes"},
        {"pcm_10min", bench_support::GeneratedFile("pcm"),
         "10 minutes of 48 kHz stereo PCM, samples of 1024 frames"}};
    for (const Named &f : files) {
        if (f.path.empty()) continue;
        benchmark::RegisterBenchmark(("modern/open+read/" + f.label).c_str(), ModernOpenReadAll,
                                     f.path)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("libav/open+read/" + f.label).c_str(), LibavOpenReadAll,
                                     f.path)
            ->Unit(benchmark::kMillisecond);
    }
    bench_support::TimeCollector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::printf("\n== Summary: the modern reader against libavformat%s, same run\n",
                bench_support::HaveLibav() ? "" : " (not built: no libavformat found)");
    for (const Named &f : files) {
        const double mine = collector.Seconds("modern/open+read/" + f.label);
        const double theirs = collector.Seconds("libav/open+read/" + f.label);
        std::printf("open + read all, %s: speed modern/libavformat %s (%s)\n", f.label.c_str(),
                    f.path.empty() ? "n/a, not made" : Ratio(theirs, mine).c_str(),
                    f.note.c_str());
    }
    for (const Named &f : files)
        if (!f.path.empty() && (f.label == "small_h264_aac" || f.label == "pcm_10min"))
            ReportHeap(f.label, f.path);
    if (!files[0].path.empty()) {
        const std::string path = files[0].path;
        bench_support::ChildResult heap = bench_support::RunInChild([&path]() -> int64_t {
            const size_t before = bench_support::HeapInUse();
            MP4_local_file *file = nullptr;
            if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN) != 1)
                return -1;
            return int64_t(bench_support::HeapInUse() - before);
        });
        if (heap.ok && heap.value >= 0)
            std::printf("heap in use after the modern open (mode 1), %u samples: %.1f bytes per "
                        "sample (target <= 32)\n",
                        shape.samples, double(heap.value) / shape.samples);
    }
    // A million fragments of one byte: time and memory in proportion to
    // the file's size.
    const std::string tiny = bench_support::TinyFragmentsFile(1000000);
    if (!tiny.empty()) {
        bench_support::ChildResult heap = bench_support::RunInChild([&tiny]() -> int64_t {
            const size_t before = bench_support::HeapInUse();
            MP4_local_file *file = nullptr;
            if (MP4FileOpenEx(&file, tiny.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN) != 1) return -1;
            return int64_t(bench_support::HeapInUse() - before);
        });
        FILE *probe = std::fopen(tiny.c_str(), "rb");
        long size = 0;
        if (probe != nullptr && std::fseek(probe, 0, SEEK_END) == 0) size = std::ftell(probe);
        if (probe != nullptr) std::fclose(probe);
        if (heap.ok && heap.value >= 0 && size > 0)
            std::printf("modern open of a million fragments of one byte (%.1f MB): %.0f ms, heap "
                        "%.1f bytes per byte of the file\n",
                        double(size) / 1e6, MedianSecondsToOpen(tiny) * 1e3, double(heap.value) / double(size));
    }
    const std::string dir = bench_support::CacheDir() + "/large";
    const std::string make = "python3 '" MP4CORE_DATA_DIR "/modern/make_large.py' '" + dir + "'";
    if (std::system(make.c_str()) == 0) {
        const double seconds = MedianSecondsToOpen(dir + "/large_co64.mp4");
        std::printf("modern open of the sparse 5 GiB file: %.3f ms\n", seconds * 1e3);
    }
    return 0;
}
