// What a fragmented recording leaves when its process dies: a long raw
// MPEG-4 stream is piped slowly into `mp4core mux --fragmented --video -
// --verbose`, which is killed (SIGKILL) at seeded moments, and the same runs
// once under a file-size limit. Each file left opens in ffprobe and in the
// modern reader, which reads as many frames as ffprobe lists of its whole
// atoms; these are the stream's first frames byte for byte, and of the
// frames the tool had handed to the library at most two seconds' worth and
// one frame are missing. Slow: it needs FFmpeg.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "mp4core.h"
#include "support/mini_mp4.h"

namespace {

using namespace testing_support;

constexpr size_t kFps = 25;
constexpr size_t kMostMissing = 2 * kFps + 1;

// ffprobe's packets of the file's whole atoms: a partial fragment that a
// kill in the middle of a write leaves at the end is cut off first.
std::vector<std::string> WholePackets(const std::string &path, bool *partial) {
    Bytes file = ReadWholeFile(path);
    size_t whole = 0;
    for (size_t size; whole + 8 <= file.size(); whole += size) {
        size = GetU32(file, whole);
        if (size < 8 || whole + size > file.size()) break;
    }
    *partial = whole != file.size();
    file.resize(whole);
    TempFile cut(file);
    std::istringstream probed(RunCommand("ffprobe -v error -show_data_hash CRC32 -show_entries "
                                         "packet=dts,duration,size,flags,data_hash -of csv=p=0 '" + cut.path() + "'"));
    std::vector<std::string> packets;
    for (std::string line; std::getline(probed, line);) packets.push_back(line);
    return packets;
}

// Frames the tool says it handed on: its --verbose lines.
size_t Handed(const std::string &log) {
    const Bytes text = ReadWholeFile(log);
    std::istringstream lines(std::string(text.begin(), text.end()));
    size_t count = 0;
    for (std::string line; std::getline(lines, line);)
        count += line.rfind("mp4core mux: video frame", 0) == 0 && line.find(" bytes") != std::string::npos;
    return count;
}

// Feeds the first `cut` bytes of the stream to the tool through a pipe, a
// small chunk at a time, gives it a moment, and kills it.
void FeedAndKill(const Bytes &stream, size_t cut, const std::string &out, const std::string &log) {
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    const pid_t tool = fork();
    if (tool == 0) {
        dup2(pipeEnds[0], 0);
        close(pipeEnds[1]);
        dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        execl(MP4CORE_TOOL, "mp4core", "mux", "--fragmented", "--verbose", "--fps", "25", "--video", "-", "-o",
              out.c_str(), nullptr);
        _exit(127);
    }
    close(pipeEnds[0]);
    for (size_t at = 0; at < cut;) {
        const ssize_t put = write(pipeEnds[1], stream.data() + at, std::min<size_t>(2048, cut - at));
        ASSERT_GT(put, 0);
        at += size_t(put);
        usleep(500);
    }
    usleep(200000);
    kill(tool, SIGKILL);
    int status = 0;
    waitpid(tool, &status, 0);
    close(pipeEnds[1]);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the tool ended before it was killed";
}

// The file opens in the modern reader and ffprobe, its whole atoms hold the
// first frames of the stream, and at most kMostMissing of those handed on
// are missing.
void ExpectCutFile(const std::string &path, size_t handed, const std::vector<std::string> &all,
                   const std::string &what) {
    SCOPED_TRACE(what);
    EXPECT_EQ(RunCommand("ffprobe -v error '" + path + "' >/dev/null 2>&1; echo $?"), "0\n");
    bool partial = false;
    const std::vector<std::string> packets = WholePackets(path, &partial);
    // The modern reader leaves a partial fragment out and reads the rest.
    OpenedFile read(ReadWholeFile(path), MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN);
    EXPECT_EQ(read.result, 1);
    MP4TrackInfo info{};
    EXPECT_EQ(MP4GetTrackInfo(read.handle, 0, &info), 1);
    EXPECT_EQ(info.SampleCount, packets.size());
    ASSERT_LE(packets.size(), all.size());
    // The last frame in the file lasts up to the next one; the flush alone
    // gives the last frame of the stream the duration before it.
    EXPECT_TRUE(std::equal(packets.begin(), packets.end(), all.begin()));
    EXPECT_LE(packets.size(), handed);
    EXPECT_LE(handed - std::min(handed, packets.size()), kMostMissing);
    std::printf("%s: %zu frames handed on, %zu in the file, %zu missing%s\n", what.c_str(), handed,
                packets.size(), handed - std::min(handed, packets.size()), partial ? ", a partial fragment at the end" : "");
}

TEST(SlowFragmentedCrash, KilledOrLimitedRecordingsKeepEveryWholeFragment) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    TempPath stream(".m4v"), whole(".mp4"), out(".mp4"), log(".log");
    ASSERT_EQ(RunCommand("ffmpeg -v error -f lavfi -i testsrc=size=176x144:rate=25 -t 40 -c:v mpeg4 -g 12 "
                         "-f m4v '" + stream.path() + "' && " MP4CORE_TOOL " mux --fragmented --fps 25 -o '" +
                         whole.path() + "' --video '" + stream.path() + "' && echo made"), "made\n");
    bool partial = false;
    const std::vector<std::string> all = WholePackets(whole.path(), &partial);
    const Bytes bytes = ReadWholeFile(stream.path());
    ASSERT_EQ(all.size(), 40 * kFps);

    std::mt19937 seeded(15);
    std::uniform_int_distribution<size_t> moment(bytes.size() / 20, bytes.size() - bytes.size() / 20);
    std::signal(SIGPIPE, SIG_IGN);
    for (int run = 0; run < 6; ++run) {
        const size_t cut = moment(seeded);
        FeedAndKill(bytes, cut, out.path(), log.path());
        ExpectCutFile(out.path(), Handed(log.path()), all, "killed after " + std::to_string(cut) + " bytes");
    }

    // A limit of 160 KiB: the call that passes it fails; the file keeps its
    // whole fragments and nothing else.
    const std::string limited = RunCommand("bash -c 'ulimit -f 160; " MP4CORE_TOOL " mux --fragmented --verbose --fps 25 --video - -o \"" +
                                           out.path() + "\" <\"" + stream.path() + "\" 2>\"" + log.path() + "\"; echo $?'");
    EXPECT_EQ(limited, "1\n");
    const Bytes said = ReadWholeFile(log.path());
    EXPECT_NE(std::string(said.begin(), said.end()).find("MP4WriteSample failed (-99)"), std::string::npos);
    EXPECT_LE(ReadWholeFile(out.path()).size(), 160u * 1024);
    ExpectCutFile(out.path(), Handed(log.path()), all, "a limit of 160 KiB");
    WholePackets(out.path(), &partial);
    EXPECT_FALSE(partial);
}

}  // namespace
