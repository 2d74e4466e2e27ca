// What the library tells of a track's media: RetMp4MediaInfo's copies of
// the sample entry's configuration, and GetFileInfo's summary of a file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "frame/frame.h"
#include "mp4core.h"
#include "support/mini_mp4.h"
#include "support/test_support.h"
#include "tracks/tracks.h"

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

// Samples of 15 bytes: an intra plane, then predicted ones.
MiniTrack Video(uint32_t id, const Bytes &entry = Mp4vEntry(176, 144, Esds(kVideoHeader)),
                uint32_t count = 3, uint32_t timescale = 1000, uint32_t delta = 10) {
    MiniTrack track;
    track.trackId = id;
    track.timescale = timescale;
    track.delta = delta;
    for (uint32_t i = 0; i < count; ++i) track.samples.push_back(Vop(i == 0 ? 0 : 1, 0, 10));
    track.sampleEntry = entry;
    return track;
}

MiniTrack Audio(uint32_t id, const Bytes &entry = {},
                std::vector<Bytes> samples = {Bytes(20, 0x11), Bytes(20, 0x22)},
                uint32_t timescale = 8000, uint32_t delta = 160) {
    MiniTrack track;
    track.handler = "soun";
    track.trackId = id;
    track.timescale = timescale;
    track.delta = delta;
    track.samples = std::move(samples);
    track.sampleEntry = entry;
    return track;
}

struct Info {
    int32_t result = 0;
    Mp4MediaInfo *record = nullptr;
    Info() = default;
    Info(const Info &) = delete;
    ~Info() {
        if (record == nullptr) return;
        free(record->EsdsData), free(record->D263Data), free(record->DamrData), free(record);
    }
    Bytes Esds() const { return Bytes(record->EsdsData, record->EsdsData + record->EsdsSize); }
};

void Ask(MP4_local_file *handle, uint32_t id, int32_t type, Info *info) {
    info->result = RetMp4MediaInfo(handle, id, type, &info->record);
}

TEST(MediaInfo, DataOfEachSampleEntry) {
    const Bytes audioEsds = Esds(Hex("03 19 00 02 00 04 11 40 15 00 00 00 00 00 FA 00 00 00 7D 00"
                                     "05 02 12 10 06 01 02"));
    const Bytes d263 = Atom("d263", {Text("FFMP"), U8(0), U8(10), U8(0)});
    struct Case {
        const char *name;
        MiniTrack track;
        int32_t type;
        Bytes esds, d263, damr;
        uint32_t timescale, duration;
    };
    const Case cases[] = {
        {"mp4v: the 18 bytes from the video object start code",
         Video(1, Mp4vEntry(176, 144, Esds(Cat({Hex("03 22 00 01 00"), kVideoHeader, Hex("00 00 01 B2 41")})))),
         1, kVideoHeader, {}, {}, 1000, 30},
        {"mp4v without start code: 18 zeros", Video(1, Mp4vEntry(176, 144, Esds(Hex("03 05 00 01 00 04 00")))),
         1, Zeros(18), {}, {}, 1000, 30},
        {"mp4v: 00 00 01 20 itself does not match",
         Video(1, Mp4vEntry(176, 144, Esds(Cat({Hex("00 00 01 00 AA BB CC DD 00 00 01 20"), Zeros(10)})))),
         1, Cat({Hex("00 00 01 00 AA BB CC DD 00 00 01 20"), Zeros(6)}), {}, {}, 1000, 30},
        {"mp4v: the last match wins",
         Video(1, Mp4vEntry(176, 144, Esds(Cat({Hex("00 00 01 01 77"), kVideoHeader})))),
         1, kVideoHeader, {}, {}, 1000, 30},
        {"mp4a: the whole esds atom", Audio(1, AudioEntry("mp4a", audioEsds)), 2, audioEsds, {}, {},
         8000, 320},
        {"s263: the whole d263 atom", Video(1, S263Entry(176, 144)), 1, {}, d263, {}, 1000, 30},
        {"samr: the whole damr atom", Audio(1, AudioEntry("samr", Damr())), 2, {}, {}, Damr(), 8000, 320},
        {"sawb: a record of zeros", Audio(1, AudioEntry("sawb", Damr())), 2, {}, {}, {}, 0, 0},
    };
    for (const Case &c : cases) {
        OpenedFile opened(BuildMiniMp4({c.track}));
        ASSERT_EQ(opened.result, 1) << c.name << opened.output;
        Info info;
        Ask(opened.handle, 1, c.type, &info);
        ASSERT_EQ(info.result, 1) << c.name;
        EXPECT_EQ(info.record->Timescale, c.timescale) << c.name;
        EXPECT_EQ(info.record->TrackDuration, c.duration) << c.name;
        EXPECT_EQ(info.Esds(), c.esds) << c.name;
        EXPECT_EQ(Bytes(info.record->D263Data, info.record->D263Data + info.record->D263Size), c.d263) << c.name;
        EXPECT_EQ(Bytes(info.record->DamrData, info.record->DamrData + info.record->DamrSize), c.damr) << c.name;
        EXPECT_EQ(info.record->EsdsData == nullptr, c.esds.empty()) << c.name;
    }
}

TEST(MediaInfo, CopiesStayInsideTheRecord) {
    // An "esds" of 300 bytes: its record holds the first 228.
    Bytes big = Esds(Cat({Hex("03 80 80 80 7F 00 02 00"), Bytes(280, 0x42)}));
    ASSERT_EQ(big.size(), 300u);
    {
        OpenedFile opened(BuildMiniMp4({Audio(1, AudioEntry("mp4a", big))}));
        ASSERT_EQ(opened.result, 1) << opened.output;
        Info info;
        Ask(opened.handle, 1, 2, &info);
        ASSERT_EQ(info.result, 1);
        EXPECT_EQ(info.Esds(), Bytes(big.begin(), big.begin() + 228));
    }
    {
        // A video object start code whose 18 bytes would leave the record
        // is not taken; one that fits is.
        Bytes esds = Esds(Cat({Hex("03 00"), Bytes(100, 0x42), kVideoHeader, Bytes(94, 0x42),
                               Hex("00 00 01 00"), Bytes(70, 0x42)}));
        OpenedFile opened(BuildMiniMp4({Video(1, Mp4vEntry(176, 144, esds))}));
        ASSERT_EQ(opened.result, 1) << opened.output;
        Info info;
        Ask(opened.handle, 1, 1, &info);
        ASSERT_EQ(info.result, 1);
        EXPECT_EQ(info.Esds(), kVideoHeader);
    }
}

TEST(MediaInfo, EntriesItCannotDescribeGiveMinus90) {
    struct Case {
        const char *name;
        MiniTrack track;
        int32_t type;
    };
    const Case cases[] = {
        {"mp4v without child", Video(1, Mp4vEntry(176, 144)), 1},
        {"mp4a whose first child is not esds",
         Audio(1, AudioEntry("mp4a", Cat({Atom("free", {Zeros(4)}), Esds(Hex("03 00"))}))), 2},
        {"samr whose first child is not damr", Audio(1, AudioEntry("samr", Esds(Hex("03 00")))), 2},
        {"an entry of no known kind", Audio(1, Atom("mp4s", {Zeros(8), Esds(Hex("03 00"))})), 2},
        {"video track with an mp4a entry", Video(1, AudioEntry("mp4a", Esds(Hex("03 00")))), 1},
        {"audio track with an mp4v entry", Audio(1, Mp4vEntry(176, 144, Esds(kVideoHeader))), 2},
        {"video track with a sawb entry", Video(1, AudioEntry("sawb", Damr())), 1},
    };
    for (const Case &c : cases) {
        OpenedFile opened(BuildMiniMp4({c.track}));
        if (opened.result != 1) {
            ADD_FAILURE() << c.name << ": open gave " << opened.result << opened.output;
            continue;
        }
        Mp4MediaInfo *info = reinterpret_cast<Mp4MediaInfo *>(&opened);
        EXPECT_EQ(RetMp4MediaInfo(opened.handle, 1, c.type, &info), -90) << c.name;
        EXPECT_EQ(info, reinterpret_cast<Mp4MediaInfo *>(&opened)) << c.name;
    }
}

TEST(MediaInfo, TrackLookupResults) {
    OpenedFile opened(BuildMiniMp4({Video(1), Video(3), Audio(2)}));
    ASSERT_EQ(opened.result, 1) << opened.output;
    ReadForm &form = opened.handle->read;
    ASSERT_NE(form.VideoCurrent, nullptr);
    ASSERT_EQ(form.VideoCurrent->TrackId, 1u);

    Info second;
    Ask(opened.handle, 3, 1, &second);
    EXPECT_EQ(second.result, 1);
    EXPECT_EQ(form.VideoCurrent->TrackId, 3u) << "the track found becomes the current one";

    struct Case {
        const char *name;
        MP4_local_file *handle;
        uint32_t id;
        int32_t type;
        bool clearCurrent;
        int32_t result;
    };
    const Case cases[] = {
        {"null file", nullptr, 1, 1, false, -99},
        {"track ID 0", opened.handle, 0, 1, false, -99},
        {"video: no current and ID not in the list", opened.handle, 9, 1, true, -97},
        {"video: current is another, ID not in the list", opened.handle, 9, 1, false, -96},
        {"audio ID asked as video", opened.handle, 2, 1, false, -96},
        {"audio: current is another, ID not in the list", opened.handle, 9, 2, false, -93},
        {"audio: no current and ID not in the list", opened.handle, 9, 2, true, -94},
        {"video ID asked as audio", opened.handle, 1, 2, false, -93},
        {"hint track type", opened.handle, 1, 3, false, -92},
    };
    for (const Case &c : cases) {
        VideoTrackNode *video = form.VideoCurrent;
        AudioTrackNode *audio = form.AudioCurrent;
        if (c.clearCurrent) form.VideoCurrent = nullptr, form.AudioCurrent = nullptr;
        Mp4MediaInfo *info = nullptr;
        EXPECT_EQ(RetMp4MediaInfo(c.handle, c.id, c.type, &info), c.result) << c.name;
        EXPECT_EQ(info, nullptr) << c.name;
        form.VideoCurrent = video, form.AudioCurrent = audio;
    }
    Mp4MediaInfo *info = nullptr;
    EXPECT_EQ(RetMp4MediaInfo(opened.handle, 1, 1, nullptr), -99);
    // A video track asked for in a file without audio, and the reverse.
    OpenedFile videoOnly(BuildMiniMp4({Video(1)}));
    EXPECT_EQ(RetMp4MediaInfo(videoOnly.handle, 1, 2, &info), -95);
    OpenedFile audioOnly(BuildMiniMp4({Audio(1)}));
    EXPECT_EQ(RetMp4MediaInfo(audioOnly.handle, 1, 1, &info), -98);
}

TEST(MediaInfo, RecordWithoutTablesIsRefusedAlsoWhenCached) {
    OpenedFile opened(BuildMiniMp4({Video(1), Video(3)}));
    ASSERT_EQ(opened.result, 1) << opened.output;
    ReadForm &form = opened.handle->read;
    VideoTrackNode *second = form.VideoFirst->NextTrack;
    ASSERT_NE(second, nullptr);
    TrackNode *tables = second->Track;
    second->Track = nullptr;
    Mp4MediaInfo *info = nullptr;
    EXPECT_EQ(RetMp4MediaInfo(opened.handle, 3, 1, &info), -96);
    EXPECT_EQ(form.VideoCurrent, second) << "a hit becomes current even when it fails";
    EXPECT_EQ(RetMp4MediaInfo(opened.handle, 3, 1, &info), -96) << "the cached record is checked too";
    second->Track = tables;
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
