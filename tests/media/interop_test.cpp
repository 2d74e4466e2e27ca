// The media description against FFmpeg, over its fixtures: every track
// `mp4core extract` writes as a raw stream decodes to what FFmpeg decodes
// from the MP4 itself, and GetFileInfo agrees with ffprobe. Slow (FFmpeg
// runs some 40 times); skipped without ffmpeg and ffprobe.
#include <sstream>
#include <string>

#include "media/media_support.h"
#include "mp4core.h"

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

// The audio track and its raw format, and whether track 1 is MPEG-4 video
// that the reader hands samples out of: not the track of exactly one
// sample (it yields none), nor the all-intra one without "stss" (its
// tables are given up at the open). H.263 has no raw form here.
TEST(SlowFfmpegInterop, ExtractedStreamsDecodeAlikeAndFileInfoAgreesWithFfprobe) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    const struct Case {
        const char *file;
        uint32_t audioTrack;
        std::string audio;
        bool video;
    } cases[] = {
        {"mpeg4_aac.mp4", 2, "aac", true},    {"mpeg4_aac_moov_end.mp4", 2, "aac", true}, {"mpeg4_one_frame.mp4", 2, "aac", false},
        {"aac_mono_8000.mp4", 1, "aac", false}, {"aac_stereo_22050.mp4", 1, "aac", false}, {"aac_mono_44100.mp4", 1, "aac", false},
        {"aac_stereo_48000.mp4", 1, "aac", false}, {"h263_aac.3gp", 2, "aac", false},      {"mp3_stereo_44100.mp4", 1, "mp3", false},
        {"mpeg4_gop12.mp4", 0, "", true},     {"mpeg4_gop12_no_stss.mp4", 0, "", true},   {"mpeg4_bframes.mp4", 0, "", true},
        {"mpeg4_gop250.mp4", 0, "", true},    {"mpeg4_gop1.mp4", 0, "", false},           {"h263.3gp", 0, "", false},
    };
    for (const Case &c : cases) {
        const std::string mp4 = FixturePath(c.file);
        FileInfo i;
        CaptureStream quiet(stdout);
        ASSERT_EQ(GetFileInfo(mp4.c_str(), &i), 1) << c.file;
        quiet.Text();
        auto line = [](const char *kind, uint32_t a, uint32_t b, uint32_t count) {
            return std::string(kind) + "," + std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(count) + "\n";
        };
        EXPECT_EQ(RunCommand("ffprobe -v error -show_entries stream=codec_type,width,height,sample_rate,channels,nb_frames "
                             "-of csv=p=0 " + Quote(mp4)),
                  (i.VideoFrameCount ? line("video", i.VideoWidth, i.VideoHeight, i.VideoFrameCount) : "") +
                      (i.AudioFormat ? line("audio", i.AudioSampleRate, i.AudioChannels, i.AudioSampleCount) : ""))
            << c.file;
        for (const std::string &format : {c.video ? std::string("m4v") : "", c.audio}) {
            if (format.empty()) continue;
            const bool video = format == "m4v";
            TempPath out("." + format);
            EXPECT_EQ(RunCommand(Quote(MP4CORE_TOOL) + " extract " + Quote(mp4) + " --track " +
                                 std::to_string(video ? 1 : c.audioTrack) + " -o " + out.path() + " >/dev/null 2>&1 && echo ok"), "ok\n");
            // The MP4's edit list trims the encoder delay; a raw stream has
            // none, so the MP4 is decoded without it.
            const std::string expected = Decoded(mp4, video ? "" : "-ignore_editlist 1", video);
            EXPECT_NE(expected, "") << c.file;
            EXPECT_EQ(Decoded(out.path(), "-f " + format, video), expected) << c.file << " " << format;
        }
    }
}

}  // namespace
