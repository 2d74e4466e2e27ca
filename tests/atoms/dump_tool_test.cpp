// mp4core dump: the tree as read, with the open's diagnostics first.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/test_support.h"

namespace {

using namespace testing_support;

std::string RunTool(const std::string &arguments) {
    return RunCommand(std::string(MP4CORE_TOOL) + " " + arguments);
}

TEST(DumpTool, PrintsTheTreeWithTablesAndUnknownAtoms) {
    TempFile file(Cat({Atom("abcd"),
                       Atom("moov", {Atom("stbl", {FullAtom("stts", 0, {U32(1), U32(1), U32(5)}),
                                                   FullAtom("stsz", 0, {U32(4), U32(9)})})}),
                       Atom("free")}));
    EXPECT_EQ(RunTool("dump " + file.path()),
              "There could be have illegal atoms!\n"
              " This atom[stbl] must have such type of atom[stsd] \n"
              "\n There exist at lest one atom not belong to this atom[moov] \n"
              "\nMP4FileOpen: 1\n"
              "file size: 76\n"
              "[abcd] offset=0 size=8 depth=0  (unknown)\n"
              "[moov] offset=8 size=60 depth=0\n"
              "  [stbl] offset=16 size=52 depth=1\n"
              "    [stts] offset=24 size=24 depth=2  entries=1\n"
              "    [stsz] offset=48 size=20 depth=2  samples=9 constant-size=4\n"
              "[free] offset=68 size=8 depth=0  (known, no layout: 8-byte head)\n");
}

TEST(DumpTool, FailedOpenGivesItsResultAndStatus) {
    TempFile empty(Bytes{});
    EXPECT_EQ(RunTool("dump " + empty.path() + "; echo status=$?"),
              "\nMP4FileOpen: -95\nstatus=1\n");
}

}  // namespace
