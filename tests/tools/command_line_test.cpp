// The mp4core tool's command line: its transcripts (help, usage errors,
// the messages of failed library calls, extraction and its decodes by
// FFmpeg), and the progress line that only a terminal sees.
#include <string>

#include "media/media_support.h"

using namespace testing_support;
using namespace media_support;

namespace {

// The transcripts under tests/data: each command with what it printed and
// returned. command_line.txt: help, usage errors and failed calls;
// extract.txt: mp4core extract over a fixture of every stream form, the
// refusals and a file cut short, with the CRC of each stream; mux.txt:
// extract, mux and extract again of every audio form, and mux's failures.
TEST(ToolCommandLine, TranscriptOfHelpUsageErrorsAndFailedCalls) { ExpectTranscript("tools/command_line.txt"); }
TEST(ToolExtract, TranscriptOfEveryStreamForm) { ExpectTranscript("tools/extract.txt"); }
TEST(ToolMux, TranscriptOfRoundTripsAndFailures) { ExpectTranscript("tools/mux.txt"); }

// Slow (FFmpeg runs some 130 times; skipped without FFmpeg):
// ffmpeg_interop.txt, ffprobe's streams beside GetFileInfo's summary and
// raw streams of `mp4core extract` decoded alike; extract_interop.txt, every
// stream form decoded by FFmpeg against its decode of the track itself.
TEST(SlowFfmpegInterop, ProbedStreamsAndDecodesOfExtractedTracks) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    ExpectTranscript("media/ffmpeg_interop.txt");
}
TEST(SlowExtractInterop, EveryStreamFormDecodesAsItsTrack) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    ExpectTranscript("media/extract_interop.txt");
}

// On a terminal (a pseudo terminal from script(1)) the progress line is
// drawn from 0%, ends on the last step, and is blanked at the end with the
// cursor back at its start; no line is ever ended.
TEST(ToolProgress, DrawnAndClearedOnATerminal) {
    if (RunCommand("script -qec true /dev/null </dev/null >/dev/null 2>&1 && echo ok") != "ok\n")
        GTEST_SKIP() << "script(1) not available";
    TempPath mp4(".mp4");
    const std::string seen = RunCommand("script -qec \"" MP4CORE_TOOL " mux -o " + mp4.path() + " --video " +
                                        FixturePath("sample.m4v") + " --fps 25 >/dev/null\" /dev/null </dev/null");
    EXPECT_EQ(seen.rfind("\rmux: 0 frames, 0%", 0), 0u) << seen;
    EXPECT_NE(seen.find("frames, 100%, writing the file"), std::string::npos) << seen;
    EXPECT_EQ(seen.substr(seen.size() < 81 ? 0 : seen.size() - 81), "\r" + std::string(79, ' ') + "\r");
    EXPECT_EQ(seen.find('\n'), std::string::npos) << seen;
}

}  // namespace
