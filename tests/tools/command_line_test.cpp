// The mp4core tool's command line: help, usage errors (exit 2), the
// messages of failed library calls, and the progress line that only a
// terminal sees.
#include <string>

#include "media/media_support.h"

using namespace testing_support;
using namespace media_support;

namespace {

std::string Replace(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) text.replace(at, from.size(), to);
    return text;
}

// tests/data/tools/command_line.txt is a transcript: each "$ " line is run
// by the shell in a fresh folder ("mp4core" standing for the tool, {data}
// for tests/data), followed by its standard output, its standard error and
// its exit status. The commands come from the file itself: a new case is a
// new "$ " line and a regeneration.
TEST(ToolCommandLine, TranscriptOfHelpUsageErrorsAndFailedCalls) {
    char folder[] = "/tmp/mp4core-tool-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string data = MP4CORE_TEST_DATA_DIR, run = std::string(folder) + "/.";
    std::istringstream golden(ReadText(FixturePath("tools/command_line.txt")));
    std::string transcript;
    auto section = [](const std::string &head, const std::string &text) {  // marked where no line end closes it
        return text.empty() ? text : head + text + (text.back() == '\n' ? "" : "\n[no line end]\n");
    };
    for (std::string line; std::getline(golden, line);) {
        if (line.rfind("$ ", 0) != 0) continue;
        std::string command = Replace(line.substr(2), "{data}", data) + " ";
        if (command.rfind("mp4core ", 0) == 0) command = "'" MP4CORE_TOOL "'" + command.substr(7);
        const std::string status = RunCommand("cd " + std::string(folder) + " && { " + command + "; } >.out 2>.err </dev/null; echo $?");
        transcript += line + "\n" + Replace(section("", ReadText(run + "out")) + section("[stderr]\n", ReadText(run + "err")),
                                             data, "{data}") + "[exit " + status.substr(0, status.size() - 1) + "]\n\n";
    }
    RunCommand("rm -rf " + std::string(folder));
    ExpectGolden("tools/command_line.txt", transcript);
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
