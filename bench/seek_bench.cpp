// Seeking on a video track of a million samples (a key frame every 50):
// SeekTrackPos (no read) and SeekTrack (with the sample's bytes) in table
// mode 1 (key frame table) and mode 2 (marks), against libavformat's
// av_seek_frame + one av_read_frame on the same file, to the same spread of
// times.
//
// Target: mode 1 seeks in microseconds and well ahead of libavformat.
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

const uint32_t kTrackId = 1;

// A fixed spread of times over the whole track, the same for every contender.
std::vector<int32_t> SeekTimes(const bench_support::SyntheticShape &shape) {
    std::vector<int32_t> times(4096);
    const uint64_t duration = uint64_t(shape.samples) * shape.sampleDelta;
    uint64_t state = 88172645463325252ull;
    for (auto &time : times) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        time = int32_t(state % duration);
    }
    return times;
}

class ReadHandle {
public:
    ReadHandle(const std::string &path, int32_t mode) {
        if (MP4FileOpen(&file_, path.c_str(), mode) != 1) file_ = nullptr;
    }
    ~ReadHandle() {
        if (file_ != nullptr) MP4FileClose(&file_);
    }
    MP4_local_file *get() const { return file_; }

private:
    MP4_local_file *file_ = nullptr;
};

void Mp4coreSeekTrackPos(benchmark::State &state, std::string path, int32_t mode,
                         std::vector<int32_t> times) {
    ReadHandle handle(path, mode);
    if (handle.get() == nullptr) {
        state.SkipWithError("open failed");
        return;
    }
    size_t i = 0;
    for (auto _ : state) {
        uint32_t position = 0;
        if (SeekTrackPos(handle.get(), kTrackId, MP4_TRACK_VIDEO, times[i++ % times.size()],
                         &position) != 1) {
            state.SkipWithError("SeekTrackPos failed");
            break;
        }
        benchmark::DoNotOptimize(position);
    }
}

void Mp4coreSeekTrack(benchmark::State &state, std::string path, int32_t mode,
                      std::vector<int32_t> times) {
    ReadHandle handle(path, mode);
    if (handle.get() == nullptr) {
        state.SkipWithError("open failed");
        return;
    }
    size_t i = 0;
    for (auto _ : state) {
        MP4Sample *sample = nullptr;
        if (SeekTrack(handle.get(), kTrackId, MP4_TRACK_VIDEO, times[i++ % times.size()],
                      &sample) != 1) {
            state.SkipWithError("SeekTrack failed");
            break;
        }
        benchmark::DoNotOptimize(sample->Data);
        SampleDataFree(&sample);
    }
}

#if MP4CORE_HAVE_LIBAV
// Seeks to the key frame at or before the time and reads the packet there;
// gives its time stamp, or -1.
int64_t LibavSeekRead(AVFormatContext *context, AVPacket *packet, int32_t time) {
    if (av_seek_frame(context, 0, time, AVSEEK_FLAG_BACKWARD) < 0) return -1;
    if (av_read_frame(context, packet) < 0) return -1;
    int64_t dts = packet->dts;
    av_packet_unref(packet);
    return dts;
}

void LibavSeek(benchmark::State &state, std::string path, std::vector<int32_t> times) {
    AVFormatContext *context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) != 0) {
        state.SkipWithError("open failed");
        return;
    }
    AVPacket *packet = av_packet_alloc();
    size_t i = 0;
    for (auto _ : state) {
        if (LibavSeekRead(context, packet, times[i++ % times.size()]) < 0) {
            state.SkipWithError("seek failed");
            break;
        }
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
}

// Where both land for the first times of the spread: the number of times on
// which mp4core's mode 1 and libavformat agree, of those compared.
std::pair<int, int> CompareLandings(const std::string &path, const std::vector<int32_t> &times) {
    ReadHandle handle(path, MP4_TABLE_KEYFRAMES);
    AVFormatContext *context = nullptr;
    if (handle.get() == nullptr ||
        avformat_open_input(&context, path.c_str(), nullptr, nullptr) != 0)
        return {0, 0};
    AVPacket *packet = av_packet_alloc();
    int agree = 0, compared = 0;
    for (size_t i = 0; i < 500 && i < times.size(); ++i) {
        uint32_t position = 0;
        if (SeekTrackPos(handle.get(), kTrackId, MP4_TRACK_VIDEO, times[i], &position) != 1)
            continue;
        int64_t theirs = LibavSeekRead(context, packet, times[i]);
        ++compared;
        if (theirs == int64_t(position)) ++agree;
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return {agree, compared};
}
#endif

std::string Micros(double seconds) {
    if (seconds <= 0) return "n/a";
    char text[32];
    std::snprintf(text, sizeof text, "%.3f us", seconds * 1e6);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    bench_support::SyntheticShape shape;
    std::string path = bench_support::SyntheticFile(shape);
    if (path.empty()) {
        std::printf("synthetic file: could not be written\n");
        return 1;
    }
    std::vector<int32_t> times = SeekTimes(shape);

    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
        std::string suffix = "/mode" + std::to_string(mode);
        benchmark::RegisterBenchmark(("mp4core/SeekTrackPos" + suffix).c_str(),
                                     Mp4coreSeekTrackPos, path, mode, times)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("mp4core/SeekTrack" + suffix).c_str(), Mp4coreSeekTrack,
                                     path, mode, times)
            ->Unit(benchmark::kMicrosecond);
    }
#if MP4CORE_HAVE_LIBAV
    benchmark::RegisterBenchmark("libav/av_seek_frame+av_read_frame", LibavSeek, path, times)
        ->Unit(benchmark::kMicrosecond);
#endif

    bench_support::TimeCollector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    double theirs = collector.Seconds("libav/av_seek_frame+av_read_frame");
    std::printf("\n== Summary: seeking a %u-sample video track (key frame every %u), same run\n",
                shape.samples, shape.keyInterval);
    std::printf("libavformat av_seek_frame + av_read_frame: %s per seek\n", Micros(theirs).c_str());
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
        std::string suffix = "/mode" + std::to_string(mode);
        double pos = collector.Seconds("mp4core/SeekTrackPos" + suffix);
        double seek = collector.Seconds("mp4core/SeekTrack" + suffix);
        std::printf("mode %d: SeekTrackPos %s (speed against libavformat %s), SeekTrack %s (speed "
                    "against libavformat %s)\n",
                    mode, Micros(pos).c_str(), Ratio(theirs, pos).c_str(), Micros(seek).c_str(),
                    Ratio(theirs, seek).c_str());
    }
#if MP4CORE_HAVE_LIBAV
    std::pair<int, int> landings = CompareLandings(path, times);
    std::printf("landing sample, mode 1 against libavformat: %d of %d times agree\n",
                landings.first, landings.second);
#else
    std::printf("libavformat not built in: no comparison\n");
#endif
    benchmark::Shutdown();
    return 0;
}
