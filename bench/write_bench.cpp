// Writing: 100,000 MPEG-4 video frames (25 per second, a key frame every
// 25) and 150,000 AAC frames (44.1 kHz), with synthetic payloads of
// realistic sizes, interleaved in time order, through the public write API
// and MP4FileFlush. Beside it in the same run:
//  - the floor of this design: the same bytes written twice with plain
//    stdio, the way the library moves them and through buffers of the same
//    sizes: each frame to its track's temp file (video and audio apart),
//    then both temp files, copied through a bounded buffer, to the final
//    file;
//  - libavformat's mp4 muxer (avformat_write_header, av_write_frame,
//    av_write_trailer) writing the same packets.
// All three write to the same folder, so to the same file system. Then the
// peak memory of each, at a quarter of the frames and at all of them: media
// bytes must never be held in memory.
//
// Targets: within 1.25x of the copy floor, within 1.5x of libavformat.
//
// The fragmented writer (MP4FileNewEx with MP4_NEW_FRAGMENTED), which writes
// each media byte once, against libavformat's mp4 muxer with
// -movflags frag_keyframe and in its default layout, all three writing the
// same packets to a tmpfs (/dev/shm) so that no disk decides; five runs
// each, their medians compared. Target: at most 0.85x of frag_keyframe.
#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "authoring/authoring.h"
#include "bench_support.h"
#include "mp4core.h"
#include "writer/writer.h"

#if MP4CORE_HAVE_LIBAV
extern "C" {
#include <libavformat/avformat.h>
}
#endif

namespace {

using bench_support::Ratio;

const uint32_t kVideoFrames = 100000;
const uint32_t kAudioFrames = 150000;
const uint32_t kVideoTimescale = 90000;
const uint32_t kVideoDelta = 3600;  // 25 frames per second
const uint32_t kAudioRate = 44100;
const uint32_t kAudioDelta = 1024;
const uint32_t kKeyInterval = 25;
const uint32_t kWidth = 320;
const uint32_t kHeight = 240;

// A video object layer header, the video track's configuration.
const uint8_t kVideoConfig[] = {0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x20, 0x01,
                                0x88, 0x40, 0x06, 0x68, 0x2C, 0x20, 0x90, 0xA2, 0x1F};
// AudioSpecificConfig: AAC LC, 44100 Hz, stereo.
const uint8_t kAudioConfig[] = {0x12, 0x10};

struct Frame {
    bool video;
    bool key;
    uint32_t time;  // in the track's timescale
    uint32_t size;
    const uint8_t *data;
};

// All frames in the order they are written: by time, video first on ties.
struct Workload {
    std::vector<uint8_t> pool;  // payload bytes the frames point into
    std::vector<Frame> frames;
    uint64_t bytes = 0;
};

uint32_t Hash(uint32_t i) {
    uint32_t h = i * 2654435761u;
    return h ^ (h >> 13);
}

Workload MakeWorkload(uint32_t videoFrames, uint32_t audioFrames) {
    Workload work;
    const size_t poolSize = 1 << 20;
    work.pool.resize(poolSize + 16384);
    for (size_t i = 0; i < work.pool.size(); ++i) work.pool[i] = uint8_t(Hash(uint32_t(i)) >> 7);
    auto payload = [&work, poolSize](uint32_t i) {
        return work.pool.data() + (size_t(Hash(i)) % poolSize);
    };
    work.frames.reserve(videoFrames + audioFrames);
    uint32_t v = 0, a = 0;
    while (v < videoFrames || a < audioFrames) {
        // Compare the times in seconds without rounding: v/25 against a*1024/44100.
        bool takeVideo = a >= audioFrames ||
                         (v < videoFrames && uint64_t(v) * kVideoDelta * kAudioRate <=
                                                 uint64_t(a) * kAudioDelta * kVideoTimescale);
        Frame frame;
        if (takeVideo) {
            frame.video = true;
            frame.key = v % kKeyInterval == 0;
            frame.time = v * kVideoDelta;
            // Key frames about 8 KB, the others about 1.2 KB.
            frame.size = frame.key ? 7000 + Hash(v) % 2000 : 800 + Hash(v) % 800;
            frame.data = payload(v);
            ++v;
        } else {
            frame.video = false;
            frame.key = false;
            frame.time = a * kAudioDelta;
            frame.size = 180 + Hash(a + 7) % 220;  // about 64 kbit/s
            frame.data = payload(a + 3);
            ++a;
        }
        work.bytes += frame.size;
        work.frames.push_back(frame);
    }
    return work;
}

// A tmpfs where there is one, so that the fragmented comparison measures
// the writers, not a disk.
std::string MemoryDir() {
    struct stat status;
    if (stat("/dev/shm", &status) == 0 && S_ISDIR(status.st_mode)) return "/dev/shm";
    return bench_support::CacheDir();
}

struct Paths {
    std::string output, videoTemp, audioTemp;
    explicit Paths(const std::string &dir = bench_support::CacheDir()) {
        std::string base = dir + "/write_" + std::to_string(getpid());
        output = base + ".mp4";
        videoTemp = base + ".video.tmp";
        audioTemp = base + ".audio.tmp";
    }
    void Remove() const {
        for (const std::string *path : {&output, &videoTemp, &audioTemp})
            std::remove(path->c_str());
    }
};

// The public write API from new file to flush, on a classic handle or
// (flags) a fragmented one, which takes no temp files. Gives 1 or the first
// failure.
int32_t Mp4coreWrite(const Workload &work, const Paths &paths, uint32_t flags = 0) {
    MP4_local_file *file = nullptr;
    int32_t result = MP4FileNewEx(&file, paths.output.c_str(), flags);
    if (result != 1) return result;
    const bool temps = flags == 0;
    result = CreateTrack(file, MP4_TRACK_VIDEO, kWidth, kHeight, 25, kVideoTimescale, 0x03, 0, 0,
                         0, sizeof kVideoConfig, kVideoConfig,
                         temps ? paths.videoTemp.c_str() : nullptr, 0);
    if (result == 1)
        result = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, kAudioRate, 0, 1, 2, kAudioRate,
                             sizeof kAudioConfig, kAudioConfig,
                             temps ? paths.audioTemp.c_str() : nullptr, 0);
    for (size_t i = 0; result == 1 && i < work.frames.size(); ++i) {
        const Frame &frame = work.frames[i];
        result = frame.video ? AddVideoFrame(file, frame.size, frame.data, 0, frame.time,
                                             frame.key ? 1 : 0, 0)
                             : AddAudioFrame(file, frame.size, frame.data, frame.time);
    }
    int32_t flushed = MP4FileFlush(file);  // releases the handle in any case
    return result == 1 ? flushed : result;
}

// The modern writer (MP4_NEW_PROGRESSIVE, or MP4_NEW_FRAGMENTED with the
// same calls): the same frames through MP4AddTrack and MP4WriteSample, each
// media byte written once.
int32_t Mp4coreProgressive(const Workload &work, const Paths &paths, uint32_t flags = MP4_NEW_PROGRESSIVE) {
    MP4_local_file *file = nullptr;
    int32_t result = MP4FileNewEx(&file, paths.output.c_str(), flags);
    if (result != 1) return result;
    MP4TrackSpec video{}, audio{};
    video.TrackType = MP4_TRACK_VIDEO;
    std::memcpy(video.Format, "mp4v", 4);
    video.Timescale = kVideoTimescale;
    video.Width = kWidth;
    video.Height = kHeight;
    video.Config = kVideoConfig;
    video.ConfigSize = sizeof kVideoConfig;
    audio.TrackType = MP4_TRACK_AUDIO;
    std::memcpy(audio.Format, "mp4a", 4);
    audio.Timescale = audio.SampleRate = kAudioRate;
    audio.Channels = 2;
    audio.Config = kAudioConfig;
    audio.ConfigSize = sizeof kAudioConfig;
    uint32_t ids[2] = {0, 0};
    result = MP4AddTrack(file, &video, &ids[0]);
    if (result == 1) result = MP4AddTrack(file, &audio, &ids[1]);
    for (size_t i = 0; result == 1 && i < work.frames.size(); ++i) {
        const Frame &frame = work.frames[i];
        const MP4WriteInfo info = {frame.time, 0, 0, frame.size,
                                   frame.key || !frame.video ? uint32_t(MP4_SAMPLE_KEY) : 0u, 0, {}};
        result = MP4WriteSample(file, ids[frame.video ? 0 : 1], &info, frame.data);
    }
    int32_t flushed = MP4FileFlush(file);
    return result == 1 ? flushed : result;
}

void BM_Mp4coreProgressive(benchmark::State &state, const Workload *work, uint32_t flags) {
    Paths paths(MemoryDir());
    for (auto _ : state) {
        int32_t result = Mp4coreProgressive(*work, paths, flags);
        if (result != 1) {
            state.SkipWithError(("write failed with " + std::to_string(result)).c_str());
            break;
        }
    }
    paths.Remove();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(work->bytes));
}

// The floor: every media byte written twice, as this design does, with
// the library's buffer sizes. Gives false on any failure.
bool CopyTwice(const Workload &work, const Paths &paths) {
    const std::string *tempNames[2] = {&paths.videoTemp, &paths.audioTemp};
    FILE *temps[2] = {std::fopen(paths.videoTemp.c_str(), "wb"),
                      std::fopen(paths.audioTemp.c_str(), "wb")};
    std::vector<char> streamBuffers[2];
    bool ok = true;
    for (int t = 0; t < 2; ++t) {
        ok = ok && temps[t] != nullptr;
        streamBuffers[t].resize(kTempStreamBufferBytes);
        if (temps[t] != nullptr)
            std::setvbuf(temps[t], streamBuffers[t].data(), _IOFBF, kTempStreamBufferBytes);
    }
    for (size_t i = 0; ok && i < work.frames.size(); ++i) {
        const Frame &frame = work.frames[i];
        ok = std::fwrite(frame.data, 1, frame.size, temps[frame.video ? 0 : 1]) == frame.size;
    }
    for (FILE *temp : temps)
        if (temp != nullptr) ok = std::fclose(temp) == 0 && ok;

    FILE *out = ok ? std::fopen(paths.output.c_str(), "wb") : nullptr;
    std::vector<uint8_t> buffer(kCopyBufferBytes);
    ok = ok && out != nullptr;
    for (const std::string *name : tempNames) {
        FILE *in = ok ? std::fopen(name->c_str(), "rb") : nullptr;
        ok = ok && in != nullptr;
        size_t got = 0;
        while (ok && (got = std::fread(buffer.data(), 1, buffer.size(), in)) > 0)
            ok = std::fwrite(buffer.data(), 1, got, out) == got;
        if (in != nullptr) std::fclose(in);
    }
    if (out != nullptr) ok = std::fclose(out) == 0 && ok;
    for (const std::string *name : tempNames) std::remove(name->c_str());
    return ok;
}

#if MP4CORE_HAVE_LIBAV
// `movflags` as ffmpeg's -movflags takes them; null: the default layout.
bool LibavWrite(const Workload &work, const Paths &paths, const char *movflags = nullptr) {
    AVFormatContext *context = nullptr;
    if (avformat_alloc_output_context2(&context, nullptr, "mp4", paths.output.c_str()) < 0)
        return false;
    AVStream *video = avformat_new_stream(context, nullptr);
    AVStream *audio = avformat_new_stream(context, nullptr);
    bool ok = video != nullptr && audio != nullptr;
    if (ok) {
        video->time_base = AVRational{1, int(kVideoTimescale)};
        AVCodecParameters *par = video->codecpar;
        par->codec_type = AVMEDIA_TYPE_VIDEO;
        par->codec_id = AV_CODEC_ID_MPEG4;
        par->width = kWidth;
        par->height = kHeight;
        par->extradata = static_cast<uint8_t *>(
            av_mallocz(sizeof kVideoConfig + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(par->extradata, kVideoConfig, sizeof kVideoConfig);
        par->extradata_size = sizeof kVideoConfig;

        audio->time_base = AVRational{1, int(kAudioRate)};
        par = audio->codecpar;
        par->codec_type = AVMEDIA_TYPE_AUDIO;
        par->codec_id = AV_CODEC_ID_AAC;
        par->sample_rate = kAudioRate;
        par->frame_size = kAudioDelta;
        av_channel_layout_default(&par->ch_layout, 2);
        par->extradata = static_cast<uint8_t *>(
            av_mallocz(sizeof kAudioConfig + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(par->extradata, kAudioConfig, sizeof kAudioConfig);
        par->extradata_size = sizeof kAudioConfig;
    }
    ok = ok && avio_open(&context->pb, paths.output.c_str(), AVIO_FLAG_WRITE) >= 0;
    AVDictionary *options = nullptr;
    if (movflags != nullptr) av_dict_set(&options, "movflags", movflags, 0);
    ok = ok && avformat_write_header(context, &options) >= 0;
    av_dict_free(&options);
    // The muxer may have chosen its own time bases.
    const AVRational videoBase{1, int(kVideoTimescale)};
    const AVRational audioBase{1, int(kAudioRate)};
    AVPacket *packet = av_packet_alloc();
    for (size_t i = 0; ok && i < work.frames.size(); ++i) {
        const Frame &frame = work.frames[i];
        AVStream *stream = frame.video ? video : audio;
        packet->data = const_cast<uint8_t *>(frame.data);
        packet->size = int(frame.size);
        packet->stream_index = stream->index;
        packet->pts = packet->dts =
            av_rescale_q(frame.time, frame.video ? videoBase : audioBase, stream->time_base);
        packet->duration = av_rescale_q(frame.video ? kVideoDelta : kAudioDelta,
                                        frame.video ? videoBase : audioBase, stream->time_base);
        packet->flags = frame.key || !frame.video ? AV_PKT_FLAG_KEY : 0;
        ok = av_write_frame(context, packet) >= 0;
    }
    av_packet_free(&packet);
    ok = ok && av_write_trailer(context) >= 0;
    if (context->pb != nullptr) avio_closep(&context->pb);
    avformat_free_context(context);
    return ok;
}
#endif

void BM_Mp4coreWrite(benchmark::State &state, const Workload *work) {
    Paths paths;
    for (auto _ : state) {
        int32_t result = Mp4coreWrite(*work, paths);
        if (result != 1) {
            state.SkipWithError(("write failed with " + std::to_string(result)).c_str());
            break;
        }
    }
    paths.Remove();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(work->bytes));
}

void BM_CopyTwice(benchmark::State &state, const Workload *work) {
    Paths paths;
    for (auto _ : state) {
        if (!CopyTwice(*work, paths)) {
            state.SkipWithError("copy failed");
            break;
        }
    }
    paths.Remove();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(work->bytes));
}

// The fragmented comparison: each side on the tmpfs, five single runs.
void BM_Mp4coreFragmented(benchmark::State &state, const Workload *work) {
    Paths paths(MemoryDir());
    for (auto _ : state) {
        int32_t result = Mp4coreWrite(*work, paths, MP4_NEW_FRAGMENTED);
        if (result != 1) {
            state.SkipWithError(("write failed with " + std::to_string(result)).c_str());
            break;
        }
    }
    paths.Remove();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(work->bytes));
}

#if MP4CORE_HAVE_LIBAV
void BM_LibavOnTmpfs(benchmark::State &state, const Workload *work, const char *movflags) {
    Paths paths(MemoryDir());
    for (auto _ : state) {
        if (!LibavWrite(*work, paths, movflags)) {
            state.SkipWithError("libavformat write failed");
            break;
        }
    }
    paths.Remove();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(work->bytes));
}

void BM_LibavWrite(benchmark::State &state, const Workload *work) {
    Paths paths;
    for (auto _ : state) {
        if (!LibavWrite(*work, paths)) {
            state.SkipWithError("libavformat write failed");
            break;
        }
    }
    paths.Remove();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(work->bytes));
}
#endif

// Reads the written file back with mp4core: video and audio sample counts,
// -1 each when it does not open.
std::pair<int64_t, int64_t> CountBack(const std::string &path, uint32_t openFlags = 0) {
    MP4_local_file *file = nullptr;
    if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_KEYFRAMES, openFlags) != 1) return {-1, -1};
    int64_t counts[2] = {0, 0};
    for (int32_t type : {MP4_TRACK_VIDEO, MP4_TRACK_AUDIO}) {
        MP4Sample *sample = nullptr;
        // The writer gives the video and audio tracks IDs 1 and 2.
        while (GetNextSample(file, uint32_t(type), type, &sample) == 1) {
            SampleDataFree(&sample);
            ++counts[type - 1];
        }
    }
    MP4FileClose(&file);
    return {counts[0], counts[1]};
}

std::string Megabytes(size_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
    return text;
}

// Peak resident growth of one writer, in a child of its own, for a workload
// of the given share of the frames.
template <typename Writer>
std::string PeakOf(Writer writer, uint32_t divisor) {
    bench_support::ChildResult result = bench_support::RunInChild([&]() -> int64_t {
        Workload work = MakeWorkload(kVideoFrames / divisor, kAudioFrames / divisor);
        Paths paths;
        // Measure from here: the workload's own memory is not the writer's.
        int64_t before = int64_t(bench_support::ResetPeak());
        bool ok = writer(work, paths);
        paths.Remove();
        return ok ? before : -1;
    });
    if (!result.ok || result.value < 0) return "failed";
    size_t growth = result.peakRss > size_t(result.value) ? result.peakRss - size_t(result.value) : 0;
    char perFrame[48];
    std::snprintf(perFrame, sizeof perFrame, " (%.0f bytes per frame)",
                  double(growth) / ((kVideoFrames + kAudioFrames) / divisor));
    return Megabytes(growth) + perFrame;
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    // A run takes a few tenths of a second and the page cache makes single
    // runs uneven: each side gets a few seconds of runs.
    const double kMinSeconds = 3.0;
    static const Workload work = MakeWorkload(kVideoFrames, kAudioFrames);
    benchmark::RegisterBenchmark("mp4core/write+flush", BM_Mp4coreWrite, &work)
        ->Unit(benchmark::kMillisecond)
        ->MinTime(kMinSeconds);
    benchmark::RegisterBenchmark("floor/copy-twice", BM_CopyTwice, &work)
        ->Unit(benchmark::kMillisecond)
        ->MinTime(kMinSeconds);
#if MP4CORE_HAVE_LIBAV
    benchmark::RegisterBenchmark("libav/mp4-muxer", BM_LibavWrite, &work)
        ->Unit(benchmark::kMillisecond)
        ->MinTime(kMinSeconds);
#endif
    // The fragmented comparison: five single runs each, medians compared.
    const int kRuns = 5;
    benchmark::RegisterBenchmark("mp4core/fragmented", BM_Mp4coreFragmented, &work)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(kRuns);
    benchmark::RegisterBenchmark("mp4core/progressive", BM_Mp4coreProgressive, &work, uint32_t(MP4_NEW_PROGRESSIVE))
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(kRuns);
    benchmark::RegisterBenchmark("mp4core/fragmented-modern", BM_Mp4coreProgressive, &work,
                                 uint32_t(MP4_NEW_FRAGMENTED))
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(kRuns);
#if MP4CORE_HAVE_LIBAV
    benchmark::RegisterBenchmark("libav/mp4-frag_keyframe", BM_LibavOnTmpfs, &work, "frag_keyframe")
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(kRuns);
    benchmark::RegisterBenchmark("libav/mp4-default", BM_LibavOnTmpfs, &work, nullptr)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(kRuns);
#endif

    bench_support::TimeCollector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    // The reporter names each run after its benchmark and minimum time.
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "/min_time:%0.3f", kMinSeconds);
    double mine = collector.Seconds(std::string("mp4core/write+flush") + suffix);
    double floor = collector.Seconds(std::string("floor/copy-twice") + suffix);
    double theirs = collector.Seconds(std::string("libav/mp4-muxer") + suffix);
    auto throughput = [&](double seconds) {
        char text[32];
        if (seconds <= 0) return std::string("n/a");
        std::snprintf(text, sizeof text, "%.0f MB/s", work.bytes / seconds / 1e6);
        return std::string(text);
    };
    std::printf("\n== Summary: writing %u video + %u audio frames (%s of media), same run\n",
                kVideoFrames, kAudioFrames, Megabytes(work.bytes).c_str());
    std::printf("all three write the same frames, in the same order, to %s\n",
                bench_support::CacheDir().c_str());
    std::printf("the floor writes them to a video and an audio temp file (%zu KiB stream "
                "buffers),\nthen copies both to the final file through a %zu KiB buffer, as "
                "mp4core does\n",
                kTempStreamBufferBytes >> 10, kCopyBufferBytes >> 10);
    std::printf("throughput: mp4core %s, copy floor %s, libavformat %s\n", throughput(mine).c_str(),
                throughput(floor).c_str(), throughput(theirs).c_str());
    std::printf("mp4core time / copy floor time: %s (target <= 1.25x)\n",
                Ratio(mine, floor).c_str());
    std::printf("mp4core time / libavformat time: %s (target <= 1.50x)\n",
                Ratio(mine, theirs).c_str());

    // What the written file holds, read back with mp4core.
    Paths check;
    if (Mp4coreWrite(work, check) == 1) {
        std::pair<int64_t, int64_t> counts = CountBack(check.output);
        std::printf("read back: %lld video and %lld audio samples (expected %u and %u)\n",
                    static_cast<long long>(counts.first), static_cast<long long>(counts.second),
                    kVideoFrames, kAudioFrames);
    } else {
        std::printf("read back: the write failed\n");
    }
    check.Remove();
    if (Mp4coreWrite(work, check, MP4_NEW_FRAGMENTED) == 1) {
        std::pair<int64_t, int64_t> counts = CountBack(check.output, MP4_OPEN_MODERN);
        std::printf("read back (fragmented, modern reader): %lld video and %lld audio samples\n",
                    static_cast<long long>(counts.first), static_cast<long long>(counts.second));
    }
    check.Remove();

    const std::string runs = "/iterations:1/repeats:" + std::to_string(kRuns);
    const double fragmented = collector.Seconds("mp4core/fragmented" + runs);
    const double libavFragmented = collector.Seconds("libav/mp4-frag_keyframe" + runs);
    const double libavDefault = collector.Seconds("libav/mp4-default" + runs);
    std::printf("\n== Fragmented: the same frames to %s, median of %d runs each\n",
                MemoryDir().c_str(), kRuns);
    std::printf("mp4core fragmented %.0f ms, libavformat frag_keyframe %.0f ms, libavformat default "
                "layout %.0f ms\n",
                fragmented * 1e3, libavFragmented * 1e3, libavDefault * 1e3);
    std::printf("mp4core fragmented / libavformat frag_keyframe: %s (target <= 0.85x)\n",
                Ratio(fragmented, libavFragmented).c_str());
    std::printf("mp4core fragmented / libavformat default layout: %s\n",
                Ratio(fragmented, libavDefault).c_str());

    const double progressive = collector.Seconds("mp4core/progressive" + runs);
    std::printf("mp4core progressive (MP4AddTrack, MP4WriteSample) %.0f ms; / libavformat default "
                "layout: %s (target <= 0.50x)\n",
                progressive * 1e3, Ratio(progressive, libavDefault).c_str());

    const double modernFragments = collector.Seconds("mp4core/fragmented-modern" + runs);
    std::printf("mp4core fragmented (MP4AddTrack, MP4WriteSample) %.0f ms; / libavformat frag_keyframe: "
                "%s (target <= 0.50x)\n",
                modernFragments * 1e3, Ratio(modernFragments, libavFragmented).c_str());
    std::printf("peak resident growth (a quarter of the frames / all of them):\n");
    auto modern = [](const Workload &w, const Paths &p) { return Mp4coreProgressive(w, p) == 1; };
    std::printf("  progressive  %s / %s\n", PeakOf(modern, 4).c_str(), PeakOf(modern, 1).c_str());
    auto modernFragmented = [](const Workload &w, const Paths &p) {
        return Mp4coreProgressive(w, p, MP4_NEW_FRAGMENTED) == 1;
    };
    std::printf("  fragmented (new calls)  %s / %s\n", PeakOf(modernFragmented, 4).c_str(),
                PeakOf(modernFragmented, 1).c_str());
    auto mp4core = [](const Workload &w, const Paths &p) { return Mp4coreWrite(w, p) == 1; };
    std::printf("  mp4core      %s / %s\n", PeakOf(mp4core, 4).c_str(), PeakOf(mp4core, 1).c_str());
    auto fragments = [](const Workload &w, const Paths &p) { return Mp4coreWrite(w, p, MP4_NEW_FRAGMENTED) == 1; };
    std::printf("  fragmented   %s / %s\n", PeakOf(fragments, 4).c_str(), PeakOf(fragments, 1).c_str());
    auto copy = [](const Workload &w, const Paths &p) { return CopyTwice(w, p); };
    std::printf("  copy floor   %s / %s\n", PeakOf(copy, 4).c_str(), PeakOf(copy, 1).c_str());
#if MP4CORE_HAVE_LIBAV
    auto libav = [](const Workload &w, const Paths &p) { return LibavWrite(w, p); };
    std::printf("  libavformat  %s / %s\n", PeakOf(libav, 4).c_str(), PeakOf(libav, 1).c_str());
#endif
    std::printf(
        "  (mp4core holds its sample tables, 24 bytes a sample, until the flush, which\n"
        "  builds the sample table atoms from them; no media byte is held in memory;\n"
        "  the fragmented writer holds the frames of the fragment being made, a few\n"
        "  seconds, and some 24 bytes of index a fragment)\n");
    std::printf(
        "\n== What mp4core does to write fast, output unchanged\n"
        "- each temp file gets a %zu KiB stream buffer: frames of a few hundred bytes reach\n"
        "  the file in runs of that size, not one system call per page; a frame of at\n"
        "  least that size goes to the file at once.\n"
        "- the intake goes on from the track's last block it saw, instead of walking the\n"
        "  chain of 2000-sample blocks from its head on every frame.\n"
        "- the flush copies each temp file through one %zu KiB buffer, strictly forward:\n"
        "  one read and about two writes a buffer, memory flat however long the media.\n",
        kTempStreamBufferBytes >> 10, kCopyBufferBytes >> 10);
    benchmark::Shutdown();
    return 0;
}
