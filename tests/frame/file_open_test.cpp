// MP4FileOpen and MP4FileClose: every result code in the order of the
// checks, what a good open holds, and the close. Every prefix of a file is
// opened in robustness_test.cpp.
#include <gtest/gtest.h>

#include <unistd.h>

#include "support/listing.h"
#include "support/mini_mp4.h"

namespace {

using namespace testing_support;

TEST(FileOpen, ResultCodesInTheOrderOfTheChecks) {
    TempFile good(MiniFile("video 2")), empty(Bytes{}), shortHead(Cat({Atom("ftyp", {Zeros(12)}), Zeros(4)}));
    TempFile noMoov(Cat({Atom("ftyp", {Zeros(12)}), Atom("mdat", {Zeros(8)})}));
    TempPath missing, huge(".mp4");
    WriteWholeFile(huge.path(), Atom("ftyp", {Zeros(12)}));
    const bool sparse = truncate(huge.c_str(), off_t(1) << 31) == 0;
    const std::string longPath(kFilePathBytes, 'a'), longestMissing = "/" + std::string(kFilePathBytes - 2, 'b');
    struct Case { const char *what, *path; int32_t mode, result; const char *printed; };
    const Case kCases[] = {
        {"good file", good.c_str(), 1, 1, ""},
        {"good file, mode 2", good.c_str(), 2, 1, ""},
        {"good file, mode 3", good.c_str(), 3, 1, ""},
        {"null path", nullptr, 1, -99, ""},
        {"path of 256 characters", longPath.c_str(), 1, -99, ""},
        {"path of 255 characters is tried", longestMissing.c_str(), 1, -96, ""},
        {"missing file", missing.c_str(), 1, -96, ""},
        {"empty file", empty.c_str(), 1, -95, ""},
        {"2 GiB file", sparse ? huge.c_str() : empty.c_str(), 1, -95, ""},
        {"mode 0 on a good file", good.c_str(), 0, -94, ""},
        {"mode 4 on a good file", good.c_str(), 4, -94, ""},
        {"mode 0 on a missing file", missing.c_str(), 0, -96, ""},
        {"mode 4 on an empty file", empty.c_str(), 4, -95, ""},
        {"file ends inside a top-level head", shortHead.c_str(), 1, -96, "Read data from file error!\n"},
        {"no moov", noMoov.c_str(), 1, 1, ""},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        MP4_local_file *file = reinterpret_cast<MP4_local_file *>(0x1);  // must be overwritten
        CaptureStream out(stdout);
        EXPECT_EQ(MP4FileOpen(&file, c.path, c.mode), c.result);
        EXPECT_EQ(out.Text(), c.printed);
        EXPECT_EQ(file == nullptr, c.result != 1);
        if (file != nullptr && c.result == 1) {
            EXPECT_STREQ(file->RootAtom->FilePath, c.path);
            EXPECT_EQ(file->read.TableMode, c.mode);
            // The close releases the descriptor buffer with the handle (the
            // leak check would see it otherwise).
            file->read.IodBuffer = static_cast<uint8_t *>(ZeroAlloc(32));
        }
        EXPECT_EQ(MP4FileClose(&file), 1u);
        EXPECT_EQ(file, nullptr);
        EXPECT_EQ(MP4FileClose(&file), 1u);
    }
    EXPECT_EQ(MP4FileOpen(nullptr, good.c_str(), 1), -99);
    EXPECT_EQ(MP4FileClose(nullptr), 1u);
}

// The track kept its tables: the entries are in them; the atoms keep their
// heads and give their tables up.
TEST(FileOpen, GoodFileHoldsItsTreeWithTheTablesMovedIntoTheTrack) {
    const Bytes bytes = MiniFile("video 2");
    OpenedFile opened(bytes, 1);
    ASSERT_EQ(opened.result, 1);
    EXPECT_EQ(opened.handle->RootAtom->FileSize, bytes.size());
    ExpectGolden("read/open_tree.txt", ListAtoms(opened.handle->RootAtom->FirstAtom) + ListTracks(opened.handle));
}

// Helpers no reading path calls today, kept for the writers: diagnostics to
// standard error, byte swaps, the child scan from an offset, a leaf's check.
TEST(FileOpen, HelpersOutsideTheReadingPath) {
    EXPECT_EQ(SwapBytes32(0x11223344u), 0x44332211u);
    EXPECT_EQ(SwapBytes16(0x1122), 0x2211);
    CaptureStream errors(stderr);
    OutputDebugStringA("to standard error\n");
    OutputDebugStringA(nullptr);
    // With a sink the debug output goes there, on channel 2, and nowhere else.
    std::string sunk;
    MP4SetDiagnostics([](int channel, const char *text, void *to) {
        *static_cast<std::string *>(to) += std::to_string(channel) + text;
    }, &sunk);
    EXPECT_EQ(AddVideoFrame(nullptr, 0, nullptr, 0, 0, 0, 0), -99);
    MP4SetDiagnostics(nullptr, nullptr);
    EXPECT_EQ(sunk, "2the input parameter for MP4_local_file is empty\n");
    EXPECT_EQ(errors.Text(), "to standard error\n");
    std::string results;
    for (const Bytes &file : {Atom("moov", {Atom("mvhd", {Zeros(100)}), Atom("trak")}), Atom("moov", {Atom("zzzz")}),
                              AtomWithSize(200, "moov", {Atom("trak")}), Atom("moov", {AtomWithSize(4, "trak"), Zeros(4)})}) {
        TempFile temp(file);
        FILE *stream = std::fopen(temp.c_str(), "rb");
        AtomNode parent{};
        parent.AtomSize = ReadBE32(file.data());
        CaptureStream out(stdout);
        results += std::to_string(ReadChildAtoms(stream, &parent, 8)) + " ";
        results += OneLine(out.Text()) + ListAtoms(parent.FirstChild);
        ReleaseChildAtoms(&parent);
        std::fclose(stream);
    }
    EXPECT_EQ(results, "1 [mvhd] @8 size 108\n[trak] @116 size 8\n-1 -99 Read data from file error!/[trak] @8 size 8\n-1 ");
    AtomNode child{}, mdat{};
    CopyAtomName(child.AtomName, "mvhd");
    CopyAtomName(mdat.AtomName, "mdat");
    mdat.FirstChild = &child;
    CaptureStream out(stdout);
    EXPECT_FALSE(CheckAtom(&mdat));
    EXPECT_EQ(out.Text(), "\n This Atom[mdat] is not a container atom \n");
}

}  // namespace
