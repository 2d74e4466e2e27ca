// The media description against FFmpeg: streams that `mp4core extract`
// writes decode to what FFmpeg decodes from the MP4 itself, and
// GetFileInfo agrees with ffprobe. Skipped without ffmpeg and ffprobe.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "mp4core.h"
#include "support/test_support.h"

using namespace testing_support;

namespace {

std::string Quote(const std::string &path) { return "'" + path + "'"; }

// What FFmpeg decodes from the first stream of a kind: the picture hashes
// of a framemd5 listing without times and sizes, or the PCM's MD5.
std::string Decoded(const std::string &input, const std::string &options, bool video) {
    std::istringstream lines(RunCommand("ffmpeg -v error " + options + " -i " + Quote(input) +
                                        (video ? " -map 0:v:0 -f framemd5 -" : " -map 0:a:0 -f md5 -") + " 2>/dev/null"));
    std::string hashes;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#') hashes += line.substr(line.find_last_of(" =") + 1) + "\n";
    return hashes;
}

// Every AAC, MP3 and MPEG-4 video track of the fixtures that the reader
// hands samples out of: not the video track of exactly one sample (it
// yields none), nor the all-intra track without "stss" (its tables are
// given up at the open).
TEST(ExtractInterop, TracksBecomeRawStreamsThatDecodeToTheSamePcmOrPictures) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    const struct Case {
        const char *file;
        uint32_t track;
        std::string format;
    } cases[] = {
        {"mpeg4_aac.mp4", 2, "aac"},          {"mpeg4_aac_moov_end.mp4", 2, "aac"},
        {"mpeg4_one_frame.mp4", 2, "aac"},    {"aac_mono_8000.mp4", 1, "aac"},
        {"aac_stereo_22050.mp4", 1, "aac"},   {"aac_mono_44100.mp4", 1, "aac"},
        {"aac_stereo_48000.mp4", 1, "aac"},   {"h263_aac.3gp", 2, "aac"},
        {"mp3_stereo_44100.mp4", 1, "mp3"},   {"mpeg4_aac.mp4", 1, "m4v"},
        {"mpeg4_aac_moov_end.mp4", 1, "m4v"}, {"mpeg4_gop12.mp4", 1, "m4v"},
        {"mpeg4_gop12_no_stss.mp4", 1, "m4v"}, {"mpeg4_bframes.mp4", 1, "m4v"},
        {"mpeg4_gop250.mp4", 1, "m4v"},
    };
    for (const Case &c : cases) {
        const std::string mp4 = FixturePath(c.file);
        TempPath out("." + c.format);
        EXPECT_EQ(RunCommand(Quote(MP4CORE_TOOL) + " extract " + Quote(mp4) + " --track " + std::to_string(c.track) +
                             " -o " + out.path() + " >/dev/null 2>&1 && echo ok"), "ok\n") << c.file;
        // The MP4's edit list trims the encoder delay; a raw stream has
        // none, so the MP4 is decoded without it.
        const bool video = c.format == "m4v";
        const std::string expected = Decoded(mp4, video ? "" : "-ignore_editlist 1", video);
        EXPECT_NE(expected, "") << c.file;
        EXPECT_EQ(Decoded(out.path(), "-f " + c.format, video), expected) << c.file << " track " << c.track;
    }
}

// ffprobe's picture size, sample rate, channels and frame counts, one
// line per stream, against GetFileInfo's summary of the last track of each
// kind (the fixtures have at most one).
TEST(FileInfoInterop, AgreesWithFfprobe) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    for (const char *name : {"mpeg4_aac.mp4", "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4", "mpeg4_bframes.mp4",
                             "mpeg4_gop1.mp4", "mpeg4_gop250.mp4", "mpeg4_one_frame.mp4", "aac_mono_8000.mp4",
                             "aac_stereo_22050.mp4", "aac_mono_44100.mp4", "aac_stereo_48000.mp4",
                             "mp3_stereo_44100.mp4", "h263.3gp", "h263_aac.3gp"}) {
        FileInfo i;
        CaptureStream quiet(stdout);
        ASSERT_EQ(GetFileInfo(FixturePath(name).c_str(), &i), 1) << name;
        quiet.Text();
        auto line = [](const char *kind, uint32_t a, uint32_t b, uint32_t count) {
            return std::string(kind) + "," + std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(count) + "\n";
        };
        EXPECT_EQ(RunCommand("ffprobe -v error -show_entries stream=codec_type,width,height,sample_rate,channels,nb_frames "
                             "-of csv=p=0 " + Quote(FixturePath(name))),
                  (i.VideoFrameCount ? line("video", i.VideoWidth, i.VideoHeight, i.VideoFrameCount) : "") +
                      (i.AudioFormat ? line("audio", i.AudioSampleRate, i.AudioChannels, i.AudioSampleCount) : ""))
            << name;
    }
}

}  // namespace
