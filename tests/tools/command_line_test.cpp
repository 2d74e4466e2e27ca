// The mp4core tool's command line: help, usage errors (exit 2), the
// messages of failed library calls, and the progress line that only a
// terminal sees.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <sstream>
#include <string>

#include "media/golden.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

std::string Replace(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

std::string Quote(const std::string &text) { return "'" + text + "'"; }

// A stream's text, marked where it ends without a line end.
std::string Section(const std::string &head, const std::string &text) {
    if (text.empty()) return "";
    return head + text + (text.back() == '\n' ? "" : "\n[no line end]\n");
}

// tests/data/tools/command_line.txt is a transcript: each "$ " line is run
// by the shell in a fresh folder ("mp4core" standing for the tool, {data}
// for tests/data), followed by its standard output, its standard error and
// its exit status. The commands are taken from the file itself, so a new
// case is a new "$ " line and a regeneration.
TEST(ToolCommandLine, TranscriptOfHelpUsageErrorsAndFailedCalls) {
    char folder[] = "/tmp/mp4core-tool-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string data = MP4CORE_TEST_DATA_DIR;
    std::istringstream golden(ReadText(FixturePath("tools/command_line.txt")));
    std::string transcript;
    for (std::string line; std::getline(golden, line);) {
        if (line.rfind("$ ", 0) != 0) continue;
        std::string command = Replace(line.substr(2), "{data}", data) + " ";
        if (command.rfind("mp4core ", 0) == 0) command = Quote(MP4CORE_TOOL) + command.substr(7);
        const std::string status = RunCommand("cd " + Quote(folder) + " && { " + command +
                                              "; } >.out 2>.err </dev/null; echo $?");
        const std::string out = ReadText(std::string(folder) + "/.out");
        const std::string err = ReadText(std::string(folder) + "/.err");
        transcript += line + "\n" + Replace(Section("", out) + Section("[stderr]\n", err), data, "{data}") +
                      "[exit " + status.substr(0, status.size() - 1) + "]\n\n";
    }
    RunCommand("rm -rf " + Quote(folder));
    ExpectGolden("tools/command_line.txt", transcript);
}

// On a terminal (a pseudo terminal from script(1)) the progress line is
// drawn from 0%, ends on the last step, and is blanked at the end with the
// cursor back at its start; no line is ever ended.
TEST(ToolProgress, DrawnAndClearedOnATerminal) {
    if (RunCommand("script -qec true /dev/null </dev/null >/dev/null 2>&1 && echo ok") != "ok\n")
        GTEST_SKIP() << "script(1) not available";
    TempPath mp4(".mp4");
    const std::string seen = RunCommand(
        "script -qec \"" + std::string(MP4CORE_TOOL) + " mux -o " + mp4.path() + " --video " +
        FixturePath("sample.m4v") + " --fps 25 >/dev/null\" /dev/null </dev/null");
    EXPECT_EQ(seen.rfind("\rmux: 0 frames, 0%", 0), 0u) << seen;
    EXPECT_NE(seen.find("frames, 100%, writing the file"), std::string::npos) << seen;
    EXPECT_EQ(seen.substr(seen.size() < 81 ? 0 : seen.size() - 81), "\r" + std::string(79, ' ') + "\r");
    EXPECT_EQ(seen.find('\n'), std::string::npos) << seen;
}

}  // namespace
