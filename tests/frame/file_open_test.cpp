// MP4FileOpen and MP4FileClose: every result code and the order of the
// checks, and the close. Every prefix of a file is opened in
// robustness_test.cpp.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "mp4core.h"
#include "support/mini_mp4.h"
#include "tracks/tracks.h"

namespace {

using namespace testing_support;

// A small file with one complete video track of two samples, which opens
// without a message.
Bytes SmallValidFile() {
    MiniTrack track;
    track.samples = {Vop(0), Vop(1)};
    track.withStss = true;
    track.syncSamples = {1};
    return BuildMiniMp4({track});
}

struct Opened {
    int32_t result;
    MP4_local_file *file;
    std::string printed;
};

Opened Open(const char *path, int32_t mode) {
    MP4_local_file *file = reinterpret_cast<MP4_local_file *>(0x1);  // must be overwritten
    CaptureStream out(stdout);
    int32_t result = MP4FileOpen(&file, path, mode);
    return {result, file, out.Text()};
}

TEST(FileOpen, ResultCodesInTheOrderOfTheChecks) {
    TempFile good(SmallValidFile());
    TempFile empty(Bytes{});
    TempFile shortHead(Cat({Atom("ftyp", {Zeros(12)}), Zeros(4)}));
    TempFile noMoov(Cat({Atom("ftyp", {Zeros(12)}), Atom("mdat", {Zeros(8)})}));
    TempPath missing;
    const std::string longPath(kFilePathBytes, 'a');
    const std::string longestMissing = "/" + std::string(kFilePathBytes - 2, 'b');

    struct Case {
        const char *what;
        const char *path;
        int32_t mode;
        int32_t result;
    };
    const Case kCases[] = {
        {"good file", good.c_str(), 1, 1},
        {"good file, mode 2", good.c_str(), 2, 1},
        {"good file, mode 3", good.c_str(), 3, 1},
        {"null path", nullptr, 1, -99},
        {"path of 256 characters", longPath.c_str(), 1, -99},
        {"path of 255 characters is tried", longestMissing.c_str(), 1, -96},
        {"missing file", missing.c_str(), 1, -96},
        {"empty file", empty.c_str(), 1, -95},
        {"mode 0 on a good file", good.c_str(), 0, -94},
        {"mode 4 on a good file", good.c_str(), 4, -94},
        {"mode 0 on a missing file", missing.c_str(), 0, -96},
        {"mode 4 on an empty file", empty.c_str(), 4, -95},
        {"file ends inside a top-level head", shortHead.c_str(), 1, -96},
        {"no moov", noMoov.c_str(), 1, 1},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        Opened opened = Open(c.path, c.mode);
        EXPECT_EQ(opened.result, c.result);
        EXPECT_EQ(opened.file == nullptr, c.result != 1);
        if (c.path == shortHead.c_str()) {
            EXPECT_EQ(opened.printed, "Read data from file error!\n");
        }
        EXPECT_EQ(MP4FileClose(&opened.file), 1u);
        EXPECT_EQ(opened.file, nullptr);
    }
}

TEST(FileOpen, GoodFileHoldsItsTreeAndRecords) {
    const Bytes bytes = SmallValidFile();
    TempFile good(bytes);
    Opened opened = Open(good.c_str(), 1);
    ASSERT_EQ(opened.result, 1);
    EXPECT_EQ(opened.printed, "");
    Root_atom *root = opened.file->RootAtom;
    EXPECT_STREQ(root->FilePath, good.c_str());
    EXPECT_EQ(root->FileSize, bytes.size());
    EXPECT_EQ(opened.file->read.TableMode, 1);
    EXPECT_EQ(opened.file->read.IodBuffer, nullptr);
    const char *const path[] = {"trak", "mdia", "minf", "stbl", "stsz"};
    const char *missing = nullptr;
    const AtomNode *moov = root->FirstAtom->NextSibling->NextSibling;
    ASSERT_STREQ(moov->AtomName, "moov");
    const AtomNode *stsz = WalkPath(moov, path, 5, &missing);
    ASSERT_NE(stsz, nullptr);
    EXPECT_EQ(missing, nullptr);
    // The track kept its tables: the entries are in them, the atom keeps
    // its head.
    EXPECT_EQ(GetRecordPointer(stsz), nullptr);
    EXPECT_EQ(GetBE32(stsz->realStructure, field::kStszSampleCount), 2u);
    ASSERT_NE(opened.file->read.VideoFirst, nullptr);
    ASSERT_NE(opened.file->read.VideoFirst->Track, nullptr);
    EXPECT_EQ(opened.file->read.VideoFirst->Track->SampleCount, 2u);
    MP4FileClose(&opened.file);
}

// The close releases the descriptor buffer with the handle (the leak
// check would see it otherwise) and finds null the second time.
TEST(FileOpen, CloseReleasesTheIodBufferAndFindsNullTheSecondTime) {
    TempFile good(SmallValidFile());
    Opened opened = Open(good.c_str(), 2);
    ASSERT_EQ(opened.result, 1);
    opened.file->read.IodBuffer = static_cast<uint8_t *>(ZeroAlloc(32));
    EXPECT_EQ(MP4FileClose(&opened.file), 1u);
    EXPECT_EQ(opened.file, nullptr);
    EXPECT_EQ(MP4FileClose(&opened.file), 1u);
    EXPECT_EQ(MP4FileClose(nullptr), 1u);
}

TEST(FileOpen, FileOfTwoGibibytesGives95) {
    TempPath path(".mp4");
    FILE *stream = std::fopen(path.c_str(), "wb");
    ASSERT_NE(stream, nullptr);
    const Bytes ftyp = Atom("ftyp", {Zeros(12)});
    std::fwrite(ftyp.data(), 1, ftyp.size(), stream);
    std::fclose(stream);
    if (truncate(path.c_str(), off_t(1) << 31) != 0) GTEST_SKIP() << "no sparse file here";
    Opened opened = Open(path.c_str(), 1);
    EXPECT_EQ(opened.result, -95);
    EXPECT_EQ(opened.file, nullptr);
}

}  // namespace
