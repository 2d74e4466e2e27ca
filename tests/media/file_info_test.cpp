#include <gtest/gtest.h>

#include <sstream>

#include "mp4core.h"
#include "support/mini_mp4.h"
#include "support/test_support.h"

using namespace testing_support;

namespace {

const Bytes kVideoHeader = Hex("00 00 01 00 00 00 01 20 01 88 40 06 68 2C 20 90 A2 1F");

Bytes Esds(const Bytes &body) { return FullAtom("esds", 0, {body}); }

// A video "esds" as this library writes it: lengths in the long form and a
// decoder specific info that opens with a visual object sequence.
Bytes VideoEsds(uint32_t maxBitRate, uint32_t avgBitRate, uint8_t profile) {
    return Esds(Cat({Hex("03 80 80 80 32 00 01 00 04 80 80 80 24 20 11 00 10 00"), U32(maxBitRate),
                     U32(avgBitRate), Hex("05 80 80 80 16 00 00 01 B0"), U8(profile), kVideoHeader,
                     Hex("06 80 80 80 01 02")}));
}

// An audio "esds" with one-byte lengths.
Bytes AudioEsds(uint8_t objectTypeIndication, const Bytes &config) {
    return Esds(Cat({Hex("03 19 00 02 00 04 11"), U8(objectTypeIndication),
                     Hex("15 00 00 00 00 01 F4 00 00 00 FA 00 05"), U8(uint8_t(config.size())), config,
                     Hex("06 01 02")}));
}

// An MPEG-1/2 audio "esds" as FFmpeg writes it: no decoder specific info.
Bytes MpegAudioEsds(uint8_t objectTypeIndication) {
    return Esds(Cat({Hex("03 15 00 02 00 04 0D"), U8(objectTypeIndication),
                     Hex("15 00 00 00 00 01 F4 00 00 00 FA 00 06 01 02")}));
}

Bytes AudioEntry(const char *name, const Bytes &child) {
    return Atom(name, {Zeros(6), U16(1), Zeros(8), U16(1), U16(16), U16(0), U16(0), U16(8000),
                       U16(0), child});
}
Bytes Damr() { return Atom("damr", {Text("FFMP"), U8(0), U16(0x81FF), U8(0), U8(1)}); }

MiniTrack Video(uint32_t id, const Bytes &entry, uint32_t count, uint32_t timescale,
                uint32_t delta) {
    MiniTrack track;
    track.trackId = id;
    track.timescale = timescale;
    track.delta = delta;
    for (uint32_t i = 0; i < count; ++i) track.samples.push_back(Vop(i == 0 ? 0 : 1, 0, 10));
    track.sampleEntry = entry;
    return track;
}

MiniTrack Audio(uint32_t id, const Bytes &entry, std::vector<Bytes> samples, uint32_t timescale,
                uint32_t delta) {
    MiniTrack track;
    track.handler = "soun";
    track.trackId = id;
    track.timescale = timescale;
    track.delta = delta;
    track.samples = std::move(samples);
    track.sampleEntry = entry;
    return track;
}

struct Summary {
    int32_t result;
    FileInfo info;
    std::string output;
};

Summary Describe(const Bytes &file) {
    TempFile temp(file);
    Summary s{};
    CaptureStream out(stdout);
    s.result = GetFileInfo(temp.c_str(), &s.info);
    // Only the lines of the summary: the open has diagnostics of its own.
    std::istringstream lines(out.Text());
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("VIDEO:", 0) == 0 || line.rfind("AUDIO:", 0) == 0) s.output += line + "\n";
    }
    return s;
}

TEST(FileInfo, ArgumentsAndOpenFailures) {
    TempPath missing;
    FileInfo info;
    EXPECT_EQ(GetFileInfo(missing.c_str(), nullptr), -11);
    EXPECT_EQ(GetFileInfo(nullptr, &info), -11);
    TempFile empty;
    EXPECT_EQ(GetFileInfo(empty.c_str(), nullptr), -12);
    CaptureStream out(stdout);
    const int32_t result = GetFileInfo(empty.c_str(), &info);
    const std::string printed = out.Text();
    EXPECT_EQ(result, -21);
    ASSERT_GE(printed.size(), 20u);
    EXPECT_EQ(printed.substr(printed.size() - 20), "mp4 file open error!");
}

TEST(FileInfo, VideoFields) {
    struct Case {
        const char *name;
        MiniTrack track;
        uint32_t width, height, frames, rate, avg, max, profile;
    };
    const Case cases[] = {
        {"esds bit rates and profile", Video(1, Mp4vEntry(176, 144, VideoEsds(64000, 50000, 1)), 25, 1000, 40),
         176, 144, 25, 25, 50000, 64000, 1},
        {"29.97 frames per second are cut to 29", Video(1, Mp4vEntry(176, 144, VideoEsds(1, 1, 3)), 30, 30000, 1001),
         176, 144, 30, 29, 1, 1, 3},
        // 10 samples of 15 bytes in 1 s: 1200 bits per second.
        {"s263: size of the entry, rates of the samples", Video(1, S263Entry(128, 96), 10, 1000, 100),
         128, 96, 10, 10, 1200, 1200, 100},
        {"timescale 0", Video(1, S263Entry(128, 96), 10, 0, 100), 128, 96, 10, 0, 0, 0, 100},
    };
    for (const Case &c : cases) {
        Summary s = Describe(BuildMiniMp4({c.track}));
        ASSERT_EQ(s.result, 1) << c.name << s.output;
        EXPECT_EQ(s.info.VideoWidth, c.width) << c.name;
        EXPECT_EQ(s.info.VideoHeight, c.height) << c.name;
        EXPECT_EQ(s.info.VideoFrameCount, c.frames) << c.name;
        EXPECT_EQ(s.info.VideoFrameRate, c.rate) << c.name;
        EXPECT_EQ(s.info.VideoAvgBitRate, c.avg) << c.name;
        EXPECT_EQ(s.info.VideoMaxBitRate, c.max) << c.name;
        EXPECT_EQ(s.info.VideoProfile, c.profile) << c.name;
        EXPECT_EQ(s.info.AudioFormat, 0u) << c.name;
        EXPECT_EQ(s.output, "VIDEO:Track ID[1] Track type[1] 1th\n") << c.name;
    }
}

TEST(FileInfo, AudioFields) {
    const std::vector<Bytes> frames = {Hex("FF FB 90 64 00 00"), Bytes(100, 0)};
    struct Case {
        const char *name;
        MiniTrack track;
        uint32_t format, rate, channels, avg, max, objectType, hasConfig, mode;
    };
    const Case cases[] = {
        {"AAC LC 44.1 kHz stereo", Audio(1, AudioEntry("mp4a", AudioEsds(0x40, Hex("12 10"))), frames, 44100, 1024),
         100, 44100, 2, 64000, 128000, 2, 1, 0},
        {"frequency index 13 has no rate", Audio(1, AudioEntry("mp4a", AudioEsds(0x40, Hex("16 90"))), frames, 44100, 1024),
         100, 0, 2, 64000, 128000, 2, 1, 0},
        {"MPEG-1 audio from its first frame", Audio(1, AudioEntry("mp4a", MpegAudioEsds(0x6B)), frames, 44100, 1152),
         200, 44100, 2, 64000, 128000, 0, 1, 1},
        {"MPEG audio with a first frame of 3 bytes", Audio(1, AudioEntry("mp4a", MpegAudioEsds(0x69)), {Hex("FF FB 90")}, 44100, 1152),
         200, 0, 0, 64000, 128000, 0, 1, 0},
        // 1000 bytes in one second: 8000 bits per second.
        {"AMR narrow band", Audio(1, AudioEntry("samr", Damr()), {Bytes(500, 1), Bytes(500, 2)}, 8000, 4000),
         300, 8000, 1, 8000, 8000, 0, 0, 0},
        {"AMR wide band", Audio(1, AudioEntry("sawb", Damr()), {Bytes(500, 1), Bytes(500, 2)}, 16000, 8000),
         400, 16000, 1, 8000, 8000, 0, 0, 0},
        {"AMR with duration 0", Audio(1, AudioEntry("samr", Damr()), {Bytes(500, 1)}, 8000, 0),
         300, 8000, 1, 0, 0, 0, 0, 0},
    };
    for (const Case &c : cases) {
        Summary s = Describe(BuildMiniMp4({c.track}));
        ASSERT_EQ(s.result, 1) << c.name << s.output;
        EXPECT_EQ(s.info.AudioFormat, c.format) << c.name;
        EXPECT_EQ(s.info.AudioSampleRate, c.rate) << c.name;
        EXPECT_EQ(s.info.AudioChannels, c.channels) << c.name;
        EXPECT_EQ(s.info.AudioAvgBitRate, c.avg) << c.name;
        EXPECT_EQ(s.info.AudioMaxBitRate, c.max) << c.name;
        EXPECT_EQ(s.info.AudioObjectType, c.objectType) << c.name;
        EXPECT_EQ(s.info.AudioHasConfig, c.hasConfig) << c.name;
        EXPECT_EQ(s.info.AudioChannelMode, c.mode) << c.name;
        EXPECT_EQ(s.info.AudioSampleCount, uint32_t(c.track.samples.size())) << c.name;
        EXPECT_EQ(s.info.VideoFrameCount, 0u) << c.name;
        EXPECT_EQ(s.output, "AUDIO:Track ID[1] Track type[2] 1th\n") << c.name;
    }
}

TEST(FileInfo, TheLastTrackOfEachKindIsDescribed) {
    const Bytes file = BuildMiniMp4(
        {Video(1, Mp4vEntry(176, 144, VideoEsds(1000, 900, 1)), 5, 1000, 100),
         Video(4, S263Entry(128, 96), 10, 1000, 100),
         Audio(2, AudioEntry("mp4a", AudioEsds(0x40, Hex("12 10"))), {Bytes(10, 0)}, 44100, 1024)});
    Summary s = Describe(file);
    ASSERT_EQ(s.result, 1) << s.output;
    EXPECT_EQ(s.output,
              "VIDEO:Track ID[1] Track type[1] 1th\nVIDEO:Track ID[4] Track type[1] 2th\n"
              "AUDIO:Track ID[2] Track type[2] 1th\n");
    EXPECT_EQ(s.info.VideoWidth, 128u);
    EXPECT_EQ(s.info.VideoFrameCount, 10u);
    EXPECT_EQ(s.info.VideoProfile, 100u);
    EXPECT_EQ(s.info.FileSize, uint32_t(file.size()));
    EXPECT_EQ(s.info.AudioFormat, 100u);
}

TEST(FileInfo, VideoEntryItCannotDescribeFallsBackToTheTrackRecord) {
    // An "mp4v" without "esds": RetMp4MediaInfo fails, the sample sizes give
    // the bit rates.
    Summary s = Describe(BuildMiniMp4({Video(1, Mp4vEntry(176, 144), 10, 1000, 100)}));
    ASSERT_EQ(s.result, 1) << s.output;
    EXPECT_EQ(s.info.VideoFrameCount, 10u);
    EXPECT_EQ(s.info.VideoAvgBitRate, 1200u);
    EXPECT_EQ(s.info.VideoProfile, 100u);
}

}  // namespace
