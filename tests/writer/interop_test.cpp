// Written files against FFmpeg and against mp4core's own reader: clean
// probes and decodes, frames read back byte for byte with their times, and
// `mp4core mux` of FFmpeg-made raw streams decoding to the same pictures
// and samples.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/listing.h"
#include "support/test_support.h"
#include "writer/written_file.h"

namespace {

using namespace testing_support;
using namespace writer_test;

// Standard output and standard error of a shell command.
std::string Shell(const std::string &command) { return RunCommand(command + " 2>&1"); }

struct Frame {
    Bytes bytes;
    uint32_t time;
    bool key;
};

struct Stream {
    Bytes config;
    std::vector<Frame> frames;
};

// Frames of a raw MPEG-4 video stream, from plane start code to plane start
// code; whatever lies in between goes with the plane before.
Stream SplitVideo(const Bytes &s) {
    Stream stream;
    std::vector<size_t> planes;
    for (size_t i = 0; i + 4 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1 && s[i + 3] == 0xB6) planes.push_back(i);
    }
    if (planes.empty()) return stream;
    stream.config.assign(s.begin(), s.begin() + long(planes[0]));
    for (size_t p = 0; p < planes.size(); ++p) {
        const size_t end = p + 1 < planes.size() ? planes[p + 1] : s.size();
        // Steps of 40 ticks, with one step of 20 so that "stts" has runs.
        const uint32_t time = uint32_t(p * 40 - (p > 20 ? 20 : 0));
        stream.frames.push_back({Bytes(s.begin() + long(planes[p]), s.begin() + long(end)), time,
                                 (s[planes[p] + 4] >> 6) == 0});
    }
    return stream;
}

// Raw AAC frames of an ADTS stream, header and CRC stripped.
Stream SplitAdts(const Bytes &s) {
    Stream stream;
    for (size_t at = 0; at + 7 <= s.size();) {
        const size_t length = (size_t(s[at + 3] & 3) << 11) | (size_t(s[at + 4]) << 3) | (s[at + 5] >> 5);
        const size_t header = (s[at + 1] & 1) ? 7 : 9;
        if (length < header || at + length > s.size()) break;
        if (stream.config.empty()) stream.config.assign(s.begin() + long(at), s.begin() + long(at) + 7);
        stream.frames.push_back({Bytes(s.begin() + long(at + header), s.begin() + long(at + length)),
                                 uint32_t(stream.frames.size() * 1024), false});
        at += length;
    }
    return stream;
}

struct Packet {
    int stream;
    uint32_t dts;
    uint32_t size;
    std::string hash;
};

std::vector<Packet> FfprobePackets(const std::string &path) {
    std::vector<Packet> packets;
    std::istringstream lines(Shell("ffprobe -v error -show_packets -show_data_hash CRC32 -of csv=p=0 "
                                 "-show_entries packet=stream_index,dts,size,data_hash '" +
                                 path + "'"));
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> fields;
        std::istringstream parts(line);
        std::string field;
        while (std::getline(parts, field, ',')) fields.push_back(field);
        if (fields.size() < 4) continue;
        packets.push_back({std::stoi(fields[0]), uint32_t(std::stoul(fields[1])),
                           uint32_t(std::stoul(fields[2])), fields.back()});
    }
    return packets;
}

std::string CrcText(const Bytes &bytes) {
    char text[16];
    std::snprintf(text, sizeof text, "CRC32:%08x", Crc32(bytes.data(), bytes.size()));
    return text;
}

class Interop : public ::testing::Test {
protected:
    void SetUp() override {
        video_ = SplitVideo(ReadWholeFile(FixturePath("sample.m4v")));
        audio_ = SplitAdts(ReadWholeFile(FixturePath("sample.aac")));
        ASSERT_GT(video_.frames.size(), 10u);
        ASSERT_GT(audio_.frames.size(), 10u);
    }

    // Writes both streams through the API and gives the file's path.
    void Write(WriteSession &session) {
        ASSERT_EQ(session.Video(176, 144, video_.config), 1);
        ASSERT_EQ(session.Audio(44100, audio_.config), 1);
        for (const Frame &f : video_.frames) ASSERT_EQ(session.AddVideo(f.bytes, f.time, f.key), 1);
        for (const Frame &f : audio_.frames) ASSERT_EQ(session.AddAudio(f.bytes, f.time), 1);
        session.Flush();
    }

    Stream video_, audio_;
};

// The frames read back byte for byte with their times by mp4core, and by
// ffprobe, which also decodes the file without complaint.
TEST_F(Interop, FramesReadBackByMp4coreAndFfprobe) {
    WriteSession session;
    Write(session);
    MP4_local_file *file = nullptr;
    {
        CaptureStream quiet(stdout);
        ASSERT_EQ(MP4FileOpen(&file, session.output().c_str(), 1), 1);
    }
    struct Track {
        uint32_t id;
        int32_t type;
        const Stream *stream;
    };
    for (const Track &t : {Track{1, 1, &video_}, Track{2, 2, &audio_}}) {
        SCOPED_TRACE(t.type);
        size_t i = 0;
        MP4Sample *sample = nullptr;
        while (GetNextSample(file, t.id, t.type, &sample) == 1) {
            ASSERT_LT(i, t.stream->frames.size());
            const Frame &f = t.stream->frames[i++];
            EXPECT_EQ(Bytes(sample->Data, sample->Data + sample->Size), f.bytes) << i;
            EXPECT_EQ(sample->Time, f.time) << i;
            if (t.type == 1) {
                EXPECT_EQ(sample->IsKeyFrame, f.key ? 1 : 0) << i;
            }
            SampleDataFree(&sample);
        }
        EXPECT_EQ(i, t.stream->frames.size());
    }
    MP4FileClose(&file);

    if (!HaveFfmpeg()) return;  // the FFmpeg half needs ffmpeg and ffprobe
    const std::string path = session.output();
    EXPECT_EQ(Shell("ffprobe -v warning '" + path + "'"), "");
    EXPECT_EQ(Shell("ffmpeg -nostdin -v error -i '" + path + "' -f null -"), "");

    const std::vector<Packet> packets = FfprobePackets(path);
    size_t index[2] = {0, 0};
    const Stream *streams[2] = {&video_, &audio_};
    for (const Packet &p : packets) {
        ASSERT_TRUE(p.stream == 0 || p.stream == 1);
        const Stream &s = *streams[p.stream];
        ASSERT_LT(index[p.stream], s.frames.size());
        const Frame &f = s.frames[index[p.stream]++];
        EXPECT_EQ(p.dts, f.time);
        EXPECT_EQ(p.size, f.bytes.size());
        EXPECT_EQ(p.hash, CrcText(f.bytes));
    }
    EXPECT_EQ(index[0], video_.frames.size());
    EXPECT_EQ(index[1], audio_.frames.size());
}

std::string VideoHashes(const std::string &input) {
    // Only the hash column: time bases differ between the two inputs.
    return Shell("ffmpeg -nostdin -v error -i '" + input +
               "' -map 0:v -f framemd5 - | grep -v '^#' | awk -F, '{print $NF}'");
}

std::string AudioHash(const std::string &input) {
    return Shell("ffmpeg -nostdin -v error -i '" + input + "' -map 0:a -f md5 -");
}

TEST(Mux, FfmpegStreamsDecodeToTheSamePicturesAndSamples) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    TempPath out(".mp4");
    const std::string video = FixturePath("sample.m4v"), audio = FixturePath("sample.aac");
    const std::string mux = std::string(MP4CORE_TOOL) + " mux -o '" + out.path() + "' --video '" +
                            video + "' --audio '" + audio + "' --fps 25";
    ASSERT_EQ(Shell(mux), "");
    EXPECT_EQ(Shell("ffprobe -v warning '" + out.path() + "'"), "");
    const std::string hashes = VideoHashes(out.path());
    EXPECT_GT(hashes.size(), 33u * 10);
    EXPECT_EQ(hashes, VideoHashes(video));
    EXPECT_EQ(AudioHash(out.path()), AudioHash(audio));
    EXPECT_FALSE(FileExists(out.path() + ".video.tmp"));
    EXPECT_FALSE(FileExists(out.path() + ".audio.tmp"));
}

TEST(Mux, SystemTracksDrawOnlyTheUnsupportedCodecWarning) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    TempPath out(".mp4");
    const std::string mux = std::string(MP4CORE_TOOL) + " mux -o '" + out.path() + "' --video '" +
                            FixturePath("sample.m4v") + "' --audio '" + FixturePath("sample.aac") +
                            "' --od --scene --fps 25";
    ASSERT_EQ(Shell(mux), "");
    EXPECT_EQ(Shell("ffprobe -v warning '" + out.path() + "'"),
              "Unsupported codec with id 0 for input stream 2\n"
              "Unsupported codec with id 0 for input stream 3\n");
}

TEST(Mux, RefusesMissingOutputAndUnreadableStreams) {
    struct Case {
        std::string arguments;
        std::string output;
    };
    const std::string tool = MP4CORE_TOOL;
    TempPath out(".mp4");
    const Case kCases[] = {
        {"mux --video x.m4v",
         "usage: mp4core mux -o OUT.mp4 [--video IN.m4v] [--audio IN.aac] [--od] [--scene] "
         "[--fps N]\n"},
        {"mux -o '" + out.path() + "' --video /nonexistent.m4v",
         "mp4core mux: can't read the video stream\n"},
        {"mux -o '" + out.path() + "' --audio '" + FixturePath("sample.m4v") + "'",
         "mp4core mux: the audio stream is no ADTS stream\n"},
    };
    for (const Case &c : kCases) EXPECT_EQ(Shell(tool + " " + c.arguments), c.output) << c.arguments;
    EXPECT_FALSE(FileExists(out.path()));
}

}  // namespace
