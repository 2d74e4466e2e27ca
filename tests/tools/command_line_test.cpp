// The mp4core tool's command line: help for every command, usage errors,
// the messages of failed library calls, and the progress line that only a
// terminal sees.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/test_support.h"

namespace {

using namespace testing_support;

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

std::string Quote(const std::string &text) { return "'" + text + "'"; }

std::string ReadText(const std::string &path) {
    const Bytes bytes = ReadWholeFile(path);
    return std::string(bytes.begin(), bytes.end());
}

// Runs the tool with standard error on a pipe and standard output in a file.
ToolRun RunTool(const std::string &arguments) {
    TempPath out(".out");
    const std::string command =
        Quote(MP4CORE_TOOL) + " " + arguments + " 2>&1 >" + Quote(out.path());
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, "", "popen failed"};
    std::string err;
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) err.append(buffer, got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(out.path()), err};
}

bool StartsWith(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

const char *const kCommands[] = {"dump", "samples", "m4vheader", "mux", "info", "extract", "iod"};

TEST(ToolCommandLine, OverviewListsEveryCommand) {
    for (const char *help : {"--help", "-h"}) {
        const ToolRun run = RunTool(help);
        EXPECT_EQ(run.status, 0) << help;
        EXPECT_EQ(run.err, "") << help;
        EXPECT_TRUE(StartsWith(run.out, "usage: mp4core COMMAND")) << run.out;
        for (const char *command : kCommands)
            EXPECT_NE(run.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
    }
    // No arguments: the same list, as a usage error.
    const ToolRun bare = RunTool("");
    EXPECT_EQ(bare.status, 2);
    EXPECT_EQ(bare.out, "");
    EXPECT_TRUE(StartsWith(bare.err, "usage: mp4core COMMAND")) << bare.err;

    const ToolRun unknown = RunTool("frobnicate x");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_TRUE(StartsWith(unknown.err, "mp4core: unknown command 'frobnicate'\nusage:")) << unknown.err;
    EXPECT_TRUE(StartsWith(RunTool("--frobnicate").err, "mp4core: unknown option '--frobnicate'\n"));
}

TEST(ToolCommandLine, EveryCommandHasHelpAndRefusesUnknownOptions) {
    for (const char *command : kCommands) {
        const std::string usage = std::string("usage: mp4core ") + command;
        for (const char *help : {" --help", " -h", " FILE --help"}) {
            const ToolRun run = RunTool(command + std::string(help));
            EXPECT_EQ(run.status, 0) << command << help;
            EXPECT_EQ(run.err, "") << command << help;
            EXPECT_TRUE(StartsWith(run.out, usage)) << run.out;
            EXPECT_NE(run.out.find("\noptions:\n"), std::string::npos) << run.out;
        }
        const ToolRun run = RunTool(command + std::string(" --no-such-option"));
        EXPECT_EQ(run.status, 2) << command;
        EXPECT_EQ(run.out, "") << command;
        EXPECT_TRUE(StartsWith(run.err, std::string("mp4core ") + command +
                                            ": unknown option '--no-such-option'\n" + usage))
            << run.err;
    }
}

TEST(ToolCommandLine, BadValuesAndMissingArgumentsAreUsageErrors) {
    struct Case {
        std::string arguments;
        std::string err;  // what standard error starts with
    };
    const Case kCases[] = {
        {"samples f --mode 7", "mp4core samples: --mode takes 1, 2 or 3, not '7'\nusage: "},
        {"samples f --track x1", "mp4core samples: --track takes a track ID above 0, not 'x1'\n"},
        {"samples f --seek 1s", "mp4core samples: --seek takes a time in ticks, not '1s'\n"},
        {"samples f --track", "mp4core samples: option --track needs a value (ID)\n"},
        {"extract f --track 0 -o g", "mp4core extract: --track takes a track ID above 0, not '0'\n"},
        {"mux -o f --fps 0", "mp4core mux: --fps takes a whole number above 0, not '0'\n"},
        {"info f g", "mp4core info: unexpected argument 'g'\nusage: mp4core info FILE\n"},
        // Something missing: the usage line alone says what is needed.
        {"dump", "usage: mp4core dump FILE\n"},
        {"extract f -o g", "usage: mp4core extract FILE --track ID -o OUT\n"},
    };
    for (const Case &c : kCases) {
        const ToolRun run = RunTool(c.arguments);
        EXPECT_EQ(run.status, 2) << c.arguments;
        EXPECT_TRUE(StartsWith(run.err, c.err)) << c.arguments << "\n" << run.err;
    }
}

TEST(ToolCommandLine, FailedCallGivesCallResultAndMeaning) {
    TempFile empty(Bytes{});
    TempFile shortFile(Text("xyz"));  // too short for an atom head
    TempPath missing(".mp4");
    TempPath out(".out");
    const std::string audio = FixturePath("sample.aac");
    struct Case {
        std::string arguments;
        std::string message;  // a line of standard error
    };
    const Case kCases[] = {
        {"info " + missing.path(),
         "mp4core info: GetFileInfo failed (-11): the file can't be opened for reading"},
        {"info " + shortFile.path(), "mp4core info: GetFileInfo failed (-21): MP4FileOpen failed on the file"},
        {"dump " + empty.path(),
         "mp4core dump: MP4FileOpen failed (-95): the file is empty or 2 GiB or larger, or no "
         "memory for an atom's record"},
        {"dump " + shortFile.path(),
         "mp4core dump: MP4FileOpen failed (-96): the file can't be opened, or its top-level atoms "
         "can't be read"},
        {"samples " + missing.path(), "mp4core samples: MP4FileOpen failed (-96): "},
        {"extract " + missing.path() + " --track 1 -o " + out.path(),
         "mp4core extract: MP4FileOpen failed (-96): "},
        {"iod " + missing.path(), "mp4core iod: MP4FileOpen failed (-96): "},
        {"m4vheader " + audio,
         "mp4core m4vheader: GetM4vHeaderSize failed (-1): the file can't be opened, or it holds no "
         "video object layer header that can be parsed"},
        {"samples " + FixturePath("mpeg4_aac.mp4") + " --track 2 --next-key",
         "mp4core samples: audio track 2: NextKeyFrame failed (-95): audio tracks have no key frames"},
        {"mux -o /nonexistent-directory/out.mp4 --audio " + audio,
         "mp4core mux: MP4FileNew failed (-99): the file can't be created, its path has 256 "
         "characters or more, or no memory"},
    };
    for (const Case &c : kCases) {
        const ToolRun run = RunTool(c.arguments);
        EXPECT_EQ(run.status, 1) << c.arguments;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << c.arguments << "\n" << run.err;
    }
}

TEST(ToolProgress, NoneWhenStandardErrorIsAPipe) {
    TempPath mp4(".mp4"), aac(".aac");
    const ToolRun mux = RunTool("mux -o " + mp4.path() + " --video " + FixturePath("sample.m4v") +
                            " --audio " + FixturePath("sample.aac") + " --fps 25");
    EXPECT_EQ(mux.status, 0);
    EXPECT_EQ(mux.out + mux.err, "");
    const ToolRun extract = RunTool("extract " + mp4.path() + " --track 2 -o " + aac.path());
    EXPECT_EQ(extract.status, 0);
    EXPECT_EQ(extract.err, "");
    EXPECT_EQ(extract.out, "track 2: 88 samples written to " + aac.path() + "\n");
}

// Reads what the tool wrote to a terminal: its standard error goes to the
// slave side of a pseudo terminal, whose master side the test reads.
TEST(ToolProgress, DrawnAndClearedOnATerminal) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 || ptsname(master) == nullptr) {
        if (master >= 0) close(master);
        GTEST_SKIP() << "no pseudo terminal here";
    }
    const std::string slavePath = ptsname(master);
    // Held open so that the master side keeps its data after the tool ends.
    const int slave = open(slavePath.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);

    TempPath mp4(".mp4");
    const std::string command = Quote(MP4CORE_TOOL) + " mux -o " + Quote(mp4.path()) +
                                " --video " + Quote(FixturePath("sample.m4v")) + " --fps 25 >/dev/null 2>" +
                                Quote(slavePath);
    EXPECT_EQ(std::system(command.c_str()), 0);

    std::string seen;
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    char buffer[4096];
    ssize_t got;
    while ((got = read(master, buffer, sizeof buffer)) > 0) seen.append(buffer, size_t(got));
    close(slave);
    close(master);

    EXPECT_TRUE(StartsWith(seen, "\rmux: 0 frames, 0%")) << seen;
    EXPECT_NE(seen.find("frames, 100%, writing the file"), std::string::npos) << seen;
    // The line is blanked at the end and the cursor left at its start.
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), '\r');
    EXPECT_EQ(seen.find('\n'), std::string::npos) << seen;
}

}  // namespace
