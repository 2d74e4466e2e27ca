// Reading every sample of an open file four ways: MP4ReadSample (a new
// record and block per sample), MP4ReadSampleInto (the caller's buffer, one
// call per sample), MP4ReadSamples (batches of 256 samples into a 1 MiB
// buffer), and the descriptions alone, MP4GetSampleInfo per sample against
// MP4GetSampleInfos for a whole track. On the synthetic file of a million
// small samples and on the long FFmpeg H.264/AAC file of small samples,
// both on modern handles (the open is not timed), and the synthetic file
// on a classic handle too.
//
// Reported, not enforced: the ratios of each way to MP4ReadSample, in
// processor time (the machines these run on are shared: wall time there
// says more about the neighbours).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "mp4core.h"

namespace {

using bench_support::Ratio;

struct OpenFile {
    MP4_local_file *file = nullptr;
    std::vector<MP4TrackInfo> tracks;
    OpenFile(const std::string &path, uint32_t flags) {
        if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_MARKS, flags) != 1) return;
        uint32_t count = 0;
        MP4GetTrackCount(file, &count);
        for (uint32_t i = 0; i < count; ++i) {
            MP4TrackInfo info{};
            if (MP4GetTrackInfo(file, i, &info) == 1 && info.SampleCount > 0) tracks.push_back(info);
        }
    }
    ~OpenFile() { MP4FileClose(&file); }
};

enum class Way { ReadSample, ReadSampleInto, ReadSamples, InfoEach, InfoAll };

// One pass over every sample of every track; gives the bytes (or, for the
// descriptions, the sizes) seen.
uint64_t Pass(const OpenFile &open, Way way, std::vector<uint8_t> &buffer,
              std::vector<MP4SampleInfo> &infos) {
    uint64_t bytes = 0;
    for (const MP4TrackInfo &t : open.tracks) {
        const uint32_t count = t.SampleCount;
        if (way == Way::InfoAll) {
            infos.resize(count);
            MP4GetSampleInfos(open.file, t.TrackId, t.TrackType, 0, count, infos.data());
            for (const MP4SampleInfo &info : infos) bytes += info.Size;
            continue;
        }
        for (uint32_t n = 0; n < count;) {
            MP4SampleInfo info;
            if (way == Way::ReadSample) {
                MP4Sample *sample = nullptr;
                if (MP4ReadSample(open.file, t.TrackId, t.TrackType, n, &sample) == 1) {
                    benchmark::DoNotOptimize(sample->Data);
                    bytes += sample->Size;
                }
                SampleDataFree(&sample);
                ++n;
            } else if (way == Way::ReadSampleInto) {
                if (MP4ReadSampleInto(open.file, t.TrackId, t.TrackType, n, buffer.data(),
                                      uint32_t(buffer.size()), &info) == 1)
                    bytes += info.Size;
                ++n;
            } else if (way == Way::InfoEach) {
                if (MP4GetSampleInfo(open.file, t.TrackId, t.TrackType, n, &info) == 1)
                    bytes += info.Size;
                ++n;
            } else {
                uint32_t done = 0;
                infos.resize(256);
                const uint32_t want = std::min<uint32_t>(256, count - n);
                if (MP4ReadSamples(open.file, t.TrackId, t.TrackType, n, want, buffer.data(),
                                   buffer.size(), infos.data(), &done) != 1)
                    done = 1;
                for (uint32_t i = 0; i < done; ++i) bytes += infos[i].Size;
                n += done;
            }
        }
    }
    benchmark::DoNotOptimize(buffer.data());
    return bytes;
}

// Processor seconds per pass, by benchmark name.
std::map<std::string, double> gCpuSeconds;

void ReadAll(benchmark::State &state, std::string name, std::string path, uint32_t flags, Way way) {
    OpenFile open(path, flags);
    if (open.file == nullptr) {
        state.SkipWithError("open failed");
        return;
    }
    std::vector<uint8_t> buffer(1 << 20);
    std::vector<MP4SampleInfo> infos;
    uint64_t bytes = 0;
    const std::clock_t start = std::clock();
    for (auto _ : state) bytes = Pass(open, way, buffer, infos);
    gCpuSeconds[name] =
        double(std::clock() - start) / CLOCKS_PER_SEC / double(state.iterations());
    state.counters["bytes"] = double(bytes);
}

const char *const kWays[] = {"ReadSample", "ReadSampleInto", "ReadSamples", "GetSampleInfo",
                             "GetSampleInfos"};

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    struct Named {
        std::string label, path;
        uint32_t flags;
    };
    const std::vector<Named> files = {
        {"synthetic", bench_support::SyntheticFile(bench_support::SyntheticShape{}), MP4_OPEN_MODERN},
        {"synthetic_classic", bench_support::SyntheticFile(bench_support::SyntheticShape{}), 0},
        {"small_h264_aac", bench_support::GeneratedFile("small"), MP4_OPEN_MODERN}};
    for (const Named &f : files) {
        if (f.path.empty()) continue;
        for (int w = 0; w < 5; ++w) {
            const std::string name = std::string(kWays[w]) + "/" + f.label;
            benchmark::RegisterBenchmark(name.c_str(), ReadAll, name, f.path, f.flags, Way(w))
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    auto cpu = [](const std::string &name) {
        auto found = gCpuSeconds.find(name);
        return found != gCpuSeconds.end() ? found->second : 0.0;
    };

    std::printf("\n== Summary: every sample of an open file, speed against the per-sample call "
                "(processor time)\n");
    for (const Named &f : files) {
        const double each = cpu("ReadSample/" + f.label);
        const double infoEach = cpu("GetSampleInfo/" + f.label);
        std::printf("%s: ReadSampleInto %s, ReadSamples %s (against ReadSample); "
                    "GetSampleInfos %s (against GetSampleInfo)\n",
                    f.label.c_str(), Ratio(each, cpu("ReadSampleInto/" + f.label)).c_str(),
                    Ratio(each, cpu("ReadSamples/" + f.label)).c_str(),
                    Ratio(infoEach, cpu("GetSampleInfos/" + f.label)).c_str());
    }
    return 0;
}
