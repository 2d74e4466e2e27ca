// The media description against FFmpeg: streams that `mp4core extract`
// writes decode to what FFmpeg decodes from the MP4 itself, and
// GetFileInfo agrees with ffprobe. Needs ffmpeg and ffprobe on the path;
// skipped without them.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "mp4core.h"
#include "support/test_support.h"

using namespace testing_support;

namespace {

std::string Quote(const std::string &path) { return "'" + path + "'"; }

// Extracts one track with the tool; false if the tool failed.
bool Extract(const std::string &mp4, uint32_t track, const std::string &out) {
    const std::string command = Quote(MP4CORE_TOOL) + " extract " + Quote(mp4) + " --track " +
                                std::to_string(track) + " -o " + Quote(out) + " >/dev/null 2>&1 && echo ok";
    return RunCommand(command) == "ok\n";
}

// The picture hashes of a framemd5 listing, without times and sizes.
std::vector<std::string> PictureHashes(const std::string &input, const std::string &options) {
    std::istringstream lines(RunCommand("ffmpeg -v error " + options + " -i " + Quote(input) +
                                 " -map 0:v:0 -f framemd5 - 2>/dev/null"));
    std::vector<std::string> hashes;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        hashes.push_back(line.substr(line.find_last_of(' ') + 1));
    }
    return hashes;
}

std::string PcmHash(const std::string &input, const std::string &options) {
    return RunCommand("ffmpeg -v error " + options + " -i " + Quote(input) + " -map 0:a:0 -f md5 - 2>/dev/null");
}

// Every AAC, MP3 and MPEG-4 video track of the fixtures that the reader
// hands samples out of: not the video track of exactly one sample (it
// yields none), nor the all-intra track without "stss" (its tables are
// given up at the open).
TEST(ExtractInterop, TracksBecomeRawStreamsThatDecodeToTheSamePcmOrPictures) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    struct Case {
        const char *file;
        uint32_t track;
        const char *format;  // of the extracted stream; "m4v" is compared by pictures
    };
    const Case kCases[] = {
        {"mpeg4_aac.mp4", 2, "aac"},          {"mpeg4_aac_moov_end.mp4", 2, "aac"},
        {"mpeg4_one_frame.mp4", 2, "aac"},    {"aac_mono_8000.mp4", 1, "aac"},
        {"aac_stereo_22050.mp4", 1, "aac"},   {"aac_mono_44100.mp4", 1, "aac"},
        {"aac_stereo_48000.mp4", 1, "aac"},   {"h263_aac.3gp", 2, "aac"},
        {"mp3_stereo_44100.mp4", 1, "mp3"},   {"mpeg4_aac.mp4", 1, "m4v"},
        {"mpeg4_aac_moov_end.mp4", 1, "m4v"}, {"mpeg4_gop12.mp4", 1, "m4v"},
        {"mpeg4_gop12_no_stss.mp4", 1, "m4v"}, {"mpeg4_bframes.mp4", 1, "m4v"},
        {"mpeg4_gop250.mp4", 1, "m4v"},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(testing::Message() << c.file << " track " << c.track);
        const std::string mp4 = FixturePath(c.file);
        const std::string format = c.format;
        TempPath out("." + format);
        ASSERT_TRUE(Extract(mp4, c.track, out.path()));
        if (format == "m4v") {
            const std::vector<std::string> expected = PictureHashes(mp4, "");
            ASSERT_FALSE(expected.empty());
            EXPECT_EQ(PictureHashes(out.path(), "-f m4v"), expected);
        } else {
            // The MP4's edit list trims the encoder delay; a raw stream has
            // none, so the MP4 is decoded without it.
            const std::string expected = PcmHash(mp4, "-ignore_editlist 1");
            ASSERT_NE(expected.find("MD5="), std::string::npos);
            EXPECT_EQ(PcmHash(out.path(), "-f " + format), expected);
        }
    }
}

// ffprobe's stream fields, by stream type ("video" or "audio").
std::map<std::string, std::map<std::string, std::string>> ProbeStreams(const std::string &file) {
    std::istringstream lines(RunCommand("ffprobe -v error -show_streams " + Quote(file)));
    std::map<std::string, std::map<std::string, std::string>> streams;
    std::map<std::string, std::string> current;
    for (std::string line; std::getline(lines, line);) {
        if (line == "[/STREAM]") {
            streams[current["codec_type"]] = current;
            current.clear();
        } else if (line.find('=') != std::string::npos) {
            current[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        }
    }
    return streams;
}

TEST(FileInfoInterop, AgreesWithFfprobe) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    const char *files[] = {"mpeg4_aac.mp4", "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4",
                           "mpeg4_bframes.mp4", "mpeg4_gop1.mp4", "mpeg4_gop250.mp4",
                           "mpeg4_one_frame.mp4", "aac_mono_8000.mp4", "aac_stereo_22050.mp4",
                           "aac_mono_44100.mp4", "aac_stereo_48000.mp4", "mp3_stereo_44100.mp4",
                           "h263.3gp", "h263_aac.3gp"};
    for (const char *name : files) {
        const std::string path = FixturePath(name);
        FileInfo info;
        CaptureStream quiet(stdout);
        const int32_t result = GetFileInfo(path.c_str(), &info);
        quiet.Text();
        ASSERT_EQ(result, 1) << name;
        auto streams = ProbeStreams(path);
        if (streams.count("video")) {
            auto &v = streams["video"];
            EXPECT_EQ(std::to_string(info.VideoWidth), v["width"]) << name;
            EXPECT_EQ(std::to_string(info.VideoHeight), v["height"]) << name;
            EXPECT_EQ(std::to_string(info.VideoFrameCount), v["nb_frames"]) << name;
            // Frames over the track's time, cut.
            const double seconds = std::stod(v["duration"]);
            EXPECT_EQ(info.VideoFrameRate, uint32_t(std::stod(v["nb_frames"]) / seconds)) << name;
        } else {
            EXPECT_EQ(info.VideoFrameCount, 0u) << name;
        }
        if (streams.count("audio")) {
            auto &a = streams["audio"];
            EXPECT_EQ(std::to_string(info.AudioSampleRate), a["sample_rate"]) << name;
            EXPECT_EQ(std::to_string(info.AudioChannels), a["channels"]) << name;
            EXPECT_EQ(std::to_string(info.AudioSampleCount), a["nb_frames"]) << name;
            EXPECT_EQ(info.AudioFormat, a["codec_name"] == "aac" ? 100u : 200u) << name;
        } else {
            EXPECT_EQ(info.AudioFormat, 0u) << name;
        }
    }
}

TEST(FileInfoInterop, BitRatesAreTheOnesStoredInTheEsds) {
    // mpeg4_aac.mp4 stores 200000/100104 for video and 32000/31454 for audio.
    FileInfo info;
    CaptureStream quiet(stdout);
    ASSERT_EQ(GetFileInfo(FixturePath("mpeg4_aac.mp4").c_str(), &info), 1);
    quiet.Text();
    EXPECT_EQ(info.VideoMaxBitRate, 200000u);
    EXPECT_EQ(info.VideoAvgBitRate, 100104u);
    EXPECT_EQ(info.AudioMaxBitRate, 32000u);
    EXPECT_EQ(info.AudioAvgBitRate, 31454u);
    EXPECT_EQ(info.AudioObjectType, 2u);
    EXPECT_EQ(info.AudioProfile, 1u);
}

TEST(M4vHeaderInterop, RawStreamsOfFfmpeg) {
    struct Case {
        const char *file;
        uint32_t size, width, height;
    };
    const Case cases[] = {
        {"sample.m4v", 30, 176, 144},
        {"m4v_vos_176x144.m4v", 30, 176, 144},
        {"m4v_no_vos_320x240.m4v", 19, 320, 240},
        {"m4v_user_data_64x48.m4v", 47, 64, 48},
    };
    for (const Case &c : cases) {
        uint32_t width = 0, height = 0;
        EXPECT_EQ(GetM4vHeaderSize(FixturePath(c.file).c_str(), &width, &height), c.size) << c.file;
        EXPECT_EQ(width, c.width) << c.file;
        EXPECT_EQ(height, c.height) << c.file;
    }
}

TEST(IodInterop, DescriptorOfAFileWithVideoAndAudio) {
    MP4_local_file *file = nullptr;
    CaptureStream quiet(stdout);
    ASSERT_EQ(MP4FileOpen(&file, FixturePath("mpeg4_aac.mp4").c_str(), MP4_TABLE_MARKS), 1);
    quiet.Text();
    Mp4MediaInfo *audio = nullptr;
    ASSERT_EQ(RetMp4MediaInfo(file, 2, MP4_TRACK_AUDIO, &audio), 1);
    const uint32_t esdsSize = audio->EsdsSize;
    uint8_t *iod = nullptr;
    const int32_t count = EncryptMp4Iod(file, &iod, nullptr, 0);
    EXPECT_EQ(count, int32_t(116 + 18 + esdsSize));
    EXPECT_EQ(Bytes(iod, iod + 17), Hex("02 81 7F 00 4F 01 01 01 01 01 03 81 12 00 01 40 6E"));
    EXPECT_EQ(iod[81], 18);
    IodConfigs configs{};
    ASSERT_EQ(DecryptMp4Iod(&configs, &iod), 1);
    Mp4MediaInfo *video = nullptr;
    ASSERT_EQ(RetMp4MediaInfo(file, 1, MP4_TRACK_VIDEO, &video), 1);
    EXPECT_EQ(Bytes(configs.VideoConfig, configs.VideoConfig + configs.VideoConfigSize),
              Bytes(video->EsdsData, video->EsdsData + video->EsdsSize));
    EXPECT_EQ(Bytes(configs.AudioConfig, configs.AudioConfig + configs.AudioConfigSize),
              Bytes(audio->EsdsData, audio->EsdsData + audio->EsdsSize));
    void *blocks[] = {configs.VideoConfig, configs.AudioConfig, video->EsdsData, video,
                      audio->EsdsData, audio};
    for (void *&block : blocks) MP4freeData(&block);
    MP4FileClose(&file);  // the descriptor goes with the handle
}

}  // namespace
