// Drives the write API with a script taken from the input: a classic or a
// fragmented handle (MP4FileNewEx, written into an in-memory file), tracks
// of any type with fuzzer-chosen sizes, clocks and configurations, frames
// of any size, time stamp and key flag, runs of frames across block
// boundaries and fragments; then flushes and reads the file back. A file
// that is written must open and hand out its samples; the temp files must
// be gone.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mp4core.h"

namespace {

// Reads the input front to back; past its end everything is 0.
struct Script {
    const uint8_t *data;
    size_t size;
    size_t at = 0;
    bool Done() const { return at >= size; }
    uint8_t U8() { return at < size ? data[at++] : 0; }
    uint16_t U16() { return uint16_t((U8() << 8) | U8()); }
    uint32_t U32() { return (uint32_t(U16()) << 16) | U16(); }
    // Up to `count` bytes of the input itself.
    const uint8_t *Take(size_t count, size_t *taken) {
        *taken = at < size ? (size - at < count ? size - at : count) : 0;
        const uint8_t *p = data + (at < size ? at : size);
        at += *taken;
        return p;
    }
};

std::string gOutput, gVideoTemp, gAudioTemp, gFragmentedOutput;
uint8_t gPattern[4096];

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }
[[noreturn]] void Fail(const char *what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

void CreateFromScript(MP4_local_file *file, Script &s) {
    const uint32_t type = s.U8() % 7;
    const uint32_t width = s.U8() & 1 ? s.U16() : s.U8() * 16;
    const uint32_t height = s.U8() & 1 ? s.U16() : s.U8() * 16;
    const uint16_t resolution = s.U16();
    const uint8_t clock = s.U8();
    const uint32_t timescale = clock == 0 ? 0 : clock == 1 ? s.U32() : clock * 1000u;
    const uint32_t profileLevel = s.U8();
    const uint32_t audioProfile = s.U8() % 5;
    const uint32_t channels = s.U8() % 9;
    const uint32_t rates[] = {0, 44100, 48000, 8000, 7350, 44000, 96000, 1};
    const uint32_t rate = rates[s.U8() % 8];
    size_t configSize = s.U8() % 64;
    const uint8_t *config = s.Take(configSize, &configSize);
    const bool nullConfig = configSize == 0 && (s.U8() & 1);
    const uint8_t composition = s.U8() & 1;
    const char *temp = type == 1 ? gVideoTemp.c_str() : gAudioTemp.c_str();
    CreateTrack(file, type, width, height, resolution, timescale, profileLevel, audioProfile,
                channels, rate, uint32_t(configSize), nullConfig ? nullptr : config, temp,
                composition);
}

void AddFromScript(MP4_local_file *file, Script &s, uint32_t *videoTime, uint32_t *audioTime) {
    const uint8_t op = s.U8();
    const bool video = op & 1;
    uint32_t &time = video ? *videoTime : *audioTime;
    if (op & 2) {
        // A run of equal frames, long enough to cross block boundaries.
        const uint32_t count = s.U16() % 2600;
        const uint32_t step = s.U8();
        const uint32_t keyEvery = s.U8() % 8;
        const uint32_t size = s.U8();
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t key = keyEvery == 0 ? 0 : (i % keyEvery == 0 ? 1 : 0);
            video ? AddVideoFrame(file, size, gPattern, i, time, key, uint8_t(i & 1)) : AddAudioFrame(file, size, gPattern, time);
            time += step;
        }
        return;
    }
    size_t size = s.U16() % 600;
    const uint8_t *bytes = s.Take(size, &size);
    const uint8_t jump = s.U8();
    // Mostly forward; now and then back, which the intake refuses.
    time = jump == 0xFF ? time - s.U16() : time + jump * uint32_t(s.U8() + 1);
    const uint32_t key = s.U8() % 3;
    video ? AddVideoFrame(file, uint32_t(size), bytes, s.U16(), time, key, s.U8() & 1)
          : AddAudioFrame(file, uint32_t(size), bytes, time);
}

// Every sample of every track the reader finds must come out.
void ReadBack(const std::string &output, bool fragmented) {
    MP4_local_file *file = nullptr;
    if (MP4FileOpenEx(&file, output.c_str(), 1, fragmented ? MP4_OPEN_MODERN : 0) != 1) Fail("a written file does not open");
    for (uint32_t id = 1; id <= 5; ++id)
        for (int32_t type = 1; type <= 2; ++type) {
            MP4Sample *sample = nullptr;
            for (int n = 0; n < 6000 && GetNextSample(file, id, type, &sample) == 1; ++n) SampleDataFree(&sample);
        }
    MP4Tag *tags = nullptr;
    MP4Chapter *chapters = nullptr;
    uint32_t count = 0;
    if (MP4GetMetadata(file, &tags, &count) == 1) MP4FreeMetadata(tags);
    if (MP4GetChapters(file, &chapters, &count) == 1) MP4FreeChapters(chapters);
    MP4FileClose(&file);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const std::string base = "/tmp/mp4core_write_fuzz_" + std::to_string(getpid());
    gOutput = base + ".mp4", gVideoTemp = base + ".video", gAudioTemp = base + ".audio";
    for (size_t i = 0; i < sizeof gPattern; ++i) gPattern[i] = uint8_t(i * 13);
    const int memory = memfd_create("write_fuzz_output", 0);
    gFragmentedOutput = memory < 0 ? gOutput : "/proc/self/fd/" + std::to_string(memory);
    // The library's diagnostics would drown the fuzzer's own output.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Script s{data, size};
    // The new calls for one input in 16, on a progressive or a fragmented handle: tracks of
    // any format from fuzzer-chosen track descriptions, samples of fuzzer-chosen sizes,
    // times, flags and entries, tags and chapters.
    if (size > 0 && (data[0] & 0xF0) == 0xA0) {
        static const char kFormats[][5] = {"avc1", "hvc1", "av01", "vp09", "mp4v", "mp4a", "Opus",
                                           "ac-3", "ec-3", "fLaC", "alac", "ipcm", "fpcm", "sowt",
                                           "twos", "in24", "fl32", "tx3g"};
        s.U8();
        MP4_local_file *file = nullptr;
        const uint8_t layout = s.U8();
        const std::string &output = layout & 2 ? gFragmentedOutput : gOutput;
        const uint32_t flags = layout & 2 ? MP4_NEW_FRAGMENTED : MP4_NEW_PROGRESSIVE | (layout & 1 ? MP4_NEW_FASTSTART : 0);
        if (MP4FileNewEx(&file, output.c_str(), flags) != 1) return 0;
        uint64_t times[8] = {};
        for (int steps = 0; !s.Done() && steps < 256; ++steps) {
            MP4TrackSpec trackSpec{};
            MP4WriteInfo info{};
            uint32_t id = 0;
            size_t taken = 0;
            if (s.U8() % 8 == 0) {
                trackSpec.TrackType = s.U8() % 4;
                std::memcpy(trackSpec.Format, kFormats[s.U8() % 18], 4);
                std::memcpy(trackSpec.Handler, "text", 4);
                trackSpec.Timescale = s.U16(), trackSpec.Width = s.U16(), trackSpec.Height = s.U16();
                trackSpec.SampleRate = s.U8() & 1 ? trackSpec.Timescale : s.U32();
                trackSpec.Channels = s.U8() % 9, trackSpec.BitsPerSample = s.U8() % 72, trackSpec.ObjectType = s.U8();
                trackSpec.Rotation = s.U8() % 4 * 90, trackSpec.PixelAspectH = s.U8(), trackSpec.PixelAspectV = s.U8();
                trackSpec.MediaStart = s.U8() & 1 ? s.U16() : 0;
                trackSpec.Config = s.Take(s.U8(), &taken);
                trackSpec.ConfigSize = uint32_t(taken);
                MP4AddTrack(file, &trackSpec, &id);
                continue;
            }
            if (s.U8() % 8 == 0) {
                // Tags of any key, type and bytes, and chapters in any order.
                static const char *const kKeys[] = {"title", "track", "cover", "location", "creation_time",
                                                    "a:b", "x.y", "tvsh", "\xC2\xA9\x64\x61y", "zz"};
                MP4Tag tags[4] = {};
                MP4Chapter chapters[3] = {};
                for (MP4Tag &tag : tags) {
                    tag.Key = kKeys[s.U8() % 10], tag.Type = s.U8() % 6, tag.Integer = int64_t(s.U32()) - 70000;
                    tag.Total = s.U16(), tag.Mime = s.U8() & 1 ? "image/png" : nullptr;
                    tag.Value = s.Take(s.U8(), &taken), tag.Size = uint32_t(taken);
                }
                for (MP4Chapter &chapter : chapters)
                    chapter = {s.U32(), uint64_t(s.U32()) << (s.U8() % 32), s.U16(), 0, "t", {}};
                MP4SetMetadata(file, tags, s.U8() % 5);
                MP4SetChapters(file, chapters, s.U8() % 4);
                continue;
            }
            const uint32_t track = s.U8() % 8;
            info.DecodeTime = times[track] += s.U8() & 1 ? s.U32() : s.U8();
            info.CompositionOffset = int32_t(s.U16()) - 1000;
            const uint8_t bits = s.U8();
            info.Duration = s.U8(), info.Size = s.U16() % sizeof gPattern, info.Flags = bits % 4, info.DescriptionIndex = bits >> 6;
            MP4WriteSample(file, track, &info, gPattern);
        }
        const int32_t flushed = MP4FileFlush(file);
        if (flushed == 1 || flushed == -98) ReadBack(output, true);
        std::remove(gOutput.c_str());
        return 0;
    }
    // Classic handles half the time; fragmented ones, durable now and then.
    const uint8_t mode = s.U8() % 4;
    const uint32_t flags = mode < 2 ? 0 : mode == 2 ? MP4_NEW_FRAGMENTED : MP4_NEW_FRAGMENTED | MP4_NEW_SYNC;
    const std::string &output = flags != 0 ? gFragmentedOutput : gOutput;
    MP4_local_file *file = nullptr;
    if (MP4FileNewEx(&file, output.c_str(), flags) != 1) return 0;
    uint32_t videoTime = 0, audioTime = 0;
    for (int steps = 0; !s.Done() && steps < 64; ++steps)
        s.U8() % 4 == 0 ? CreateFromScript(file, s) : AddFromScript(file, s, &videoTime, &audioTime);
    MP4FileFlush(file);
    if (Exists(gVideoTemp) || Exists(gAudioTemp)) Fail("a temp file outlived the flush");
    struct stat written {};
    if (stat(output.c_str(), &written) == 0 && written.st_size > 0) ReadBack(output, flags != 0);
    if (flags == 0) std::remove(gOutput.c_str());
    return 0;
}
