// Written files against FFmpeg and against mp4core's own reader: frames of
// FFmpeg-made raw streams written through the API read back byte for byte
// with their times by both, and `mp4core mux` of those streams decoding to
// the same pictures and samples. The FFmpeg halves skip without ffmpeg.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "media/media_support.h"
#include "mp4core.h"
#include "support/listing.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

std::string Shell(const std::string &command) { return RunCommand(command + " 2>&1"); }

struct Frame {
    Bytes bytes;
    uint32_t time;
    bool key;
};

// Frames of a raw MPEG-4 video stream, from plane start code to plane start
// code, after the configuration in front of the first; steps of 40 ticks
// with one of 20, so that "stts" has runs.
std::vector<Frame> SplitVideo(const Bytes &s, Bytes *config) {
    std::vector<size_t> planes;
    for (size_t i = 0; i + 4 < s.size(); ++i)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1 && s[i + 3] == 0xB6) planes.push_back(i);
    std::vector<Frame> frames;
    if (planes.empty()) return frames;
    config->assign(s.begin(), s.begin() + long(planes[0]));
    planes.push_back(s.size());
    for (size_t p = 0; p + 1 < planes.size(); ++p)
        frames.push_back({Bytes(s.begin() + long(planes[p]), s.begin() + long(planes[p + 1])),
                          uint32_t(p * 40 - (p > 20 ? 20 : 0)), (s[planes[p] + 4] >> 6) == 0});
    return frames;
}

// Raw AAC frames of an ADTS stream, header and CRC stripped; the first
// header is the configuration.
std::vector<Frame> SplitAdts(const Bytes &s, Bytes *config) {
    std::vector<Frame> frames;
    for (size_t at = 0; at + 7 <= s.size();) {
        const size_t length = (size_t(s[at + 3] & 3) << 11) | (size_t(s[at + 4]) << 3) | (s[at + 5] >> 5);
        const size_t header = (s[at + 1] & 1) ? 7 : 9;
        if (length < header || at + length > s.size()) break;
        if (config->empty()) config->assign(s.begin() + long(at), s.begin() + long(at) + 7);
        frames.push_back({Bytes(s.begin() + long(at + header), s.begin() + long(at + length)),
                          uint32_t(frames.size() * 1024), false});
        at += length;
    }
    return frames;
}

// One line per frame: stream, time, size, CRC and (for mp4core) the key mark.
std::string Line(int stream, uint32_t time, const Bytes &bytes, int key) {
    return Format("%d,%u,%zu,CRC32:%08x%s\n", stream, time, bytes.size(), Crc32(bytes.data(), bytes.size()),
                  key < 0 ? "" : key ? ",K" : "");
}

TEST(SlowWriterInterop, FramesReadBackByMp4coreAndFfprobe) {
    Bytes videoConfig, audioConfig;
    const std::vector<Frame> streams[2] = {
        SplitVideo(ReadWholeFile(FixturePath("sample.m4v")), &videoConfig),
        SplitAdts(ReadWholeFile(FixturePath("sample.aac")), &audioConfig)};
    ASSERT_GT(streams[0].size(), 10u);
    ASSERT_GT(streams[1].size(), 10u);
    TempPath out(".mp4"), videoTemp(".video"), audioTemp(".audio");
    MP4_local_file *file = nullptr;
    ASSERT_EQ(MP4FileNew(&file, out.c_str()), 1);
    ASSERT_EQ(CreateTrack(file, MP4_TRACK_VIDEO, 176, 144, 25, 1000, 3, 0, 0, 0, uint32_t(videoConfig.size()),
                          videoConfig.data(), videoTemp.c_str(), 0), 1);
    ASSERT_EQ(CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, 44100, 0, 0, 0, 0, uint32_t(audioConfig.size()),
                          audioConfig.data(), audioTemp.c_str(), 0), 1);
    std::string expected, expectedByFfprobe;
    for (int s = 0; s < 2; ++s) {
        for (const Frame &f : streams[s]) {
            ASSERT_EQ(s == 0 ? AddVideoFrame(file, uint32_t(f.bytes.size()), f.bytes.data(), 0, f.time, f.key, 0)
                             : AddAudioFrame(file, uint32_t(f.bytes.size()), f.bytes.data(), f.time), 1);
            expected += Line(s, f.time, f.bytes, s == 0 ? f.key : 0);
            expectedByFfprobe += Line(s, f.time, f.bytes, -1);
        }
    }
    ASSERT_EQ(MP4FileFlush(file), 1);

    {
        CaptureStream quiet(stdout);
        ASSERT_EQ(MP4FileOpen(&file, out.c_str(), 1), 1);
    }
    std::string read;
    for (int s = 0; s < 2; ++s) {
        MP4Sample *sample = nullptr;
        while (GetNextSample(file, uint32_t(s + 1), s + 1, &sample) == 1) {
            read += Line(s, sample->Time, Bytes(sample->Data, sample->Data + sample->Size), sample->IsKeyFrame);
            SampleDataFree(&sample);
        }
    }
    MP4FileClose(&file);
    EXPECT_EQ(read, expected);

    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    EXPECT_EQ(Shell("ffprobe -v warning '" + out.path() + "'"), "");
    EXPECT_EQ(Shell("ffmpeg -nostdin -v error -i '" + out.path() + "' -f null -"), "");
    // ffprobe interleaves the streams; each keeps its order.
    std::istringstream probed(Shell("ffprobe -v error -show_data_hash CRC32 -of csv=p=0 -show_entries "
                                    "packet=stream_index,dts,size,data_hash '" + out.path() + "'"));
    std::string byStream[2];
    for (std::string line; std::getline(probed, line);) byStream[line.rfind("1,", 0) == 0] += line + "\n";
    EXPECT_EQ(byStream[0] + byStream[1], expectedByFfprobe);
}

// tests/data/written/fragmented_ffmpeg.txt: the classic and fragmented files
// of `mp4core mux` against ffprobe and ffmpeg, and the one against the other.
// mux_ffmpeg.txt: streams FFmpeg encodes in every audio form mux takes,
// muxed in both layouts and decoded by ffmpeg as the streams themselves, and
// its B-frame video presenting at FFmpeg's own times.
TEST(SlowFragmentedInterop, FfmpegReadsTheClassicFilesPacketsAndDecodesThem) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    media_support::ExpectTranscript("written/fragmented_ffmpeg.txt");
    media_support::ExpectTranscript("written/mux_ffmpeg.txt");
}

}  // namespace
