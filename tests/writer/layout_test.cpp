// The layout of written files: the top level, "mdat" and chunk offsets, the
// order of tracks, the generated samples, merged block chains, and the
// temp files.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "frame/frame.h"
#include "support/test_support.h"
#include "writer/written_file.h"

namespace {

using namespace testing_support;
using namespace writer_test;


// Offset of the first media byte: everything before it is "ftyp", "moov"
// and the "mdat" header.
size_t DataBase(const Bytes &file) { return size_t(AtomOffset(file, "mdat")) + 8; }

TEST(Layout, FileWithoutTracksIs186BytesOfFtypMoovAndMdatHeader) {
    WriteSession session;
    const Bytes expected = Cat({
        Atom("ftyp", {Text("isom"), U32(0), Text("mp41")}),
        Atom("moov", {FullAtom("mvhd", 0,
                               {U32(0x12345678), U32(0x12345678), U32(0), U32(0), U32(0x00010000),
                                U16(0x0100), Zeros(10), kMatrix, Zeros(24), U32(1)}),
                      FullAtom("iods", 0,
                               {Hex("10 80 80 80 19 00 4F FF FF 0F 01 FF"),
                                Hex("0E 80 80 80 04 00 00 00 02 0E 80 80 80 04 00 00 00 03")})}),
        Atom("mdat"),
    });
    ASSERT_EQ(expected.size(), 186u);
    EXPECT_EQ(session.Flush(), expected);
}

TEST(Layout, MdatCountsBothTempFilesAndChunkOffsetsPointIntoIt) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    ASSERT_EQ(session.Audio(), 1);
    const Bytes v1 = Pattern(60, 1), v2 = Pattern(40, 2);
    const Bytes a1 = Pattern(20, 3), a2 = Pattern(20, 4), a3 = Pattern(20, 5);
    ASSERT_EQ(session.AddVideo(v1, 0, true), 1);
    ASSERT_EQ(session.AddVideo(v2, 40, false), 1);
    ASSERT_EQ(session.AddAudio(a1, 0), 1);
    ASSERT_EQ(session.AddAudio(a2, 1024), 1);
    ASSERT_EQ(session.AddAudio(a3, 2048), 1);
    const Bytes file = session.Flush();

    const Bytes mdat = FindAtom(file, "mdat");
    ASSERT_EQ(mdat.size(), 168u);
    EXPECT_EQ(mdat, Atom("mdat", {v1, v2, a1, a2, a3}));
    const size_t base = DataBase(file);
    EXPECT_EQ(base, 20 + FindAtom(file, "moov").size() + 8);
    EXPECT_EQ(TableWords(FindAtom(file, "moov/trak#1/mdia/minf/stbl/stco")),
              (std::vector<uint32_t>{1, uint32_t(base)}));
    EXPECT_EQ(TableWords(FindAtom(file, "moov/trak#2/mdia/minf/stbl/stco")),
              (std::vector<uint32_t>{1, uint32_t(base + 100)}));
    EXPECT_FALSE(FileExists(session.videoTemp()));
    EXPECT_FALSE(FileExists(session.audioTemp()));
}

TEST(Layout, GeneratedSamplesFollowTheMediaTracksThatExist) {
    struct Case {
        bool video;
        bool audio;
        Bytes od;
        Bytes scene;
    };
    const Case kCases[] = {
        {true, true,
         Hex("01 80 80 80 1C 11 80 80 80 09 05 1F 0F 80 80 80 02 00 01 11 80 80 80 09 02 9F 0F 80 "
             "80 80 02 00 02"),
         Hex("C0 10 12 81 30 2A 05 72 61 04 88 50 45 05 3F 00")},
        {true, false, Hex("01 08 01 06 00 DF 0F 02 00 01"),
         Hex("C0 10 13 01 40 00 00 00 00 00 00 00 01 2E 08 50 3B FF 00 00 00 00 00 00 04 50 0F A0 "
             "83 F8 00 00 03 F8 00 00 0F C0")},
        {false, true, Hex("01 08 01 06 01 1F 0F 02 00 01"),
         Hex("C0 10 12 81 30 2A 02 56 FF C0 00 00 00 00 00 03 C0")},
        // Without media tracks: ten zero bytes, and an empty scene sample.
        {false, false, Zeros(10), Bytes{}},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(std::to_string(c.video) + std::to_string(c.audio));
        WriteSession session;
        const Bytes v = Pattern(50, 9), a = Pattern(30, 8);
        if (c.video) {
            ASSERT_EQ(session.Video(), 1);
            ASSERT_EQ(session.AddVideo(v, 0, true), 1);
        }
        if (c.audio) {
            ASSERT_EQ(session.Audio(), 1);
            ASSERT_EQ(session.AddAudio(a, 0), 1);
        }
        ASSERT_EQ(session.Od(), 1);
        ASSERT_EQ(session.Scene(), 1);
        const Bytes file = session.Flush();

        const size_t media = (c.video ? v.size() : 0) + (c.audio ? a.size() : 0);
        const Bytes mdat = FindAtom(file, "mdat");
        ASSERT_EQ(mdat.size(), 8 + media + c.od.size() + c.scene.size());
        EXPECT_EQ(Bytes(mdat.begin() + 8 + long(media), mdat.end()), Cat({c.od, c.scene}));

        const int tracks = int(c.video) + int(c.audio);
        const std::string od = "moov/trak#" + std::to_string(tracks + 1) + "/mdia/minf/stbl/";
        const std::string scene = "moov/trak#" + std::to_string(tracks + 2) + "/mdia/minf/stbl/";
        const size_t base = DataBase(file);
        EXPECT_EQ(TableWords(FindAtom(file, od + "stco")),
                  (std::vector<uint32_t>{1, uint32_t(base + media)}));
        EXPECT_EQ(TableWords(FindAtom(file, scene + "stco")),
                  (std::vector<uint32_t>{1, uint32_t(base + media + c.od.size())}));
        EXPECT_EQ(FindAtom(file, od + "stsz"),
                  FullAtom("stsz", 0, {U32(uint32_t(c.od.size())), U32(1)}));
        // A size of 0 can't stand as the common size, which would mean
        // "sizes follow": the one sample gets a table entry.
        EXPECT_EQ(FindAtom(file, scene + "stsz"),
                  c.scene.empty() ? FullAtom("stsz", 0, {U32(0), U32(1), U32(0)})
                                  : FullAtom("stsz", 0, {U32(uint32_t(c.scene.size())), U32(1)}));
        EXPECT_EQ(FindAtom(file, od + "stsc"), FullAtom("stsc", 0, {U32(1), U32(1), U32(1), U32(1)}));
        EXPECT_EQ(FindAtom(file, od + "stts"), FullAtom("stts", 0, {U32(1), U32(1), U32(0)}));
    }
}

TEST(Layout, VideoComesFirstInMoovAndMdatWhateverTheCreationOrder) {
    WriteSession session;
    ASSERT_EQ(session.Audio(), 1);
    ASSERT_EQ(session.Video(), 1);
    const Bytes v = Pattern(33, 1), a = Pattern(22, 2);
    ASSERT_EQ(session.AddAudio(a, 0), 1);
    ASSERT_EQ(session.AddVideo(v, 0, true), 1);
    const Bytes file = session.Flush();
    const Bytes hdlr = FindAtom(file, "moov/trak#1/mdia/hdlr");
    ASSERT_EQ(hdlr.size(), 36u);
    EXPECT_EQ(std::string(hdlr.begin() + 16, hdlr.begin() + 20), "vide");
    EXPECT_EQ(Be32At(FindAtom(file, "moov/trak#1/tkhd"), 20), 2u) << "video has the higher ID";
    EXPECT_EQ(Be32At(FindAtom(file, "moov/trak#2/tkhd"), 20), 1u);
    EXPECT_EQ(FindAtom(file, "mdat"), Atom("mdat", {v, a}));
    // Both were created first, so "iods" names 3 and 4.
    const Bytes iods = FindAtom(file, "moov/iods");
    EXPECT_EQ(iods[32], 3);
    EXPECT_EQ(iods[41], 4);
}

TEST(Layout, TwentyFiveHundredFramesOverTwoBlocksEndInOneTableInOrder) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    std::vector<uint32_t> sizes, keys;
    Bytes media;
    for (uint32_t i = 0; i < 2500; ++i) {
        const Bytes frame = Pattern(1 + i % 13, uint8_t(i));
        const bool key = i % 100 == 0;
        ASSERT_EQ(session.AddVideo(frame, i * 40, key), 1);
        sizes.push_back(uint32_t(frame.size()));
        if (key) keys.push_back(i + 1);
        media.insert(media.end(), frame.begin(), frame.end());
    }
    const Bytes file = session.Flush();
    const std::string stbl = "moov/trak#1/mdia/minf/stbl/";
    const Bytes stsz = FindAtom(file, stbl + "stsz");
    ASSERT_EQ(stsz.size(), 20u + 4 * 2500);
    std::vector<uint32_t> written;
    for (size_t at = 20; at < stsz.size(); at += 4) written.push_back(Be32At(stsz, at));
    EXPECT_EQ(written, sizes);
    std::vector<uint32_t> stss = TableWords(FindAtom(file, stbl + "stss"));
    EXPECT_EQ(stss.front(), 25u);
    EXPECT_EQ(std::vector<uint32_t>(stss.begin() + 1, stss.end()), keys);
    EXPECT_EQ(stss.size(), 26u);
    EXPECT_EQ(FindAtom(file, stbl + "stts"), FullAtom("stts", 0, {U32(1), U32(2500), U32(40)}));
    EXPECT_EQ(FindAtom(file, "mdat"), Atom("mdat", {media}));
}

TEST(Layout, TrackWithoutFramesHasEmptyTablesAndItsTempFileGoes) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    ASSERT_EQ(session.Audio(), 1);
    ASSERT_TRUE(FileExists(session.videoTemp()));
    const Bytes file = session.Flush();
    const std::string stbl = "moov/trak#1/mdia/minf/stbl/";
    EXPECT_EQ(FindAtom(file, stbl + "stts"), FullAtom("stts", 0, {U32(0)}));
    EXPECT_EQ(FindAtom(file, stbl + "stsz"), FullAtom("stsz", 0, {U32(0), U32(0)}));
    EXPECT_EQ(FindAtom(file, stbl + "stsc"), FullAtom("stsc", 0, {U32(0)}));
    EXPECT_EQ(FindAtom(file, stbl + "stco"), FullAtom("stco", 0, {U32(0)}));
    // An audio track without frames has no chunk, so "stsc" has no entry.
    EXPECT_EQ(FindAtom(file, "moov/trak#2/mdia/minf/stbl/stsc"), FullAtom("stsc", 0, {U32(0)}));
    EXPECT_EQ(Be32At(FindAtom(file, "moov/trak#1/mdia/mdhd"), 24), 0u);
    EXPECT_EQ(FindAtom(file, "mdat").size(), 8u);
    EXPECT_FALSE(FileExists(session.videoTemp()));
    EXPECT_FALSE(FileExists(session.audioTemp()));
}

TEST(Layout, TempFileGrownBehindTheLibraryIsReportedAndCopiedAtItsLength) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    // Whole blocks of the stream's buffer, so that it is on disk at once.
    const Bytes frame = Pattern(65536, 3);
    ASSERT_EQ(session.AddVideo(frame, 0, true), 1);
    FILE *append = std::fopen(session.videoTemp().c_str(), "ab");
    ASSERT_NE(append, nullptr);
    std::fputs("extra", append);
    std::fclose(append);

    CaptureStream out(stdout);
    const Bytes file = session.Flush();
    EXPECT_EQ(out.Text(), "error in video tempfile!\n");
    const size_t base = DataBase(file);
    EXPECT_EQ(Be32At(file, base - 8), 8u + 65536) << "mdat keeps the counted size";
    ASSERT_EQ(file.size(), base + 65541);
    EXPECT_EQ(std::string(file.end() - 5, file.end()), "extra");
    EXPECT_FALSE(FileExists(session.videoTemp()));
}

TEST(Layout, TempFileGoneBeforeTheFlushLeavesAnEmptyFileAndNoTempFiles) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    ASSERT_EQ(session.Audio(), 1);
    ASSERT_EQ(session.AddVideo(Pattern(10, 1), 0, true), 1);
    ASSERT_EQ(session.AddAudio(Pattern(10, 2), 0), 1);
    ASSERT_EQ(std::remove(session.audioTemp().c_str()), 0);
    CaptureStream out(stdout);
    const Bytes file = session.Flush();
    EXPECT_EQ(out.Text(), "Can't open the audio tempfile!\nthe file is not written\n");
    EXPECT_TRUE(file.empty());
    EXPECT_FALSE(FileExists(session.videoTemp()));
    EXPECT_FALSE(FileExists(session.audioTemp()));
}

TEST(Layout, FileThatWouldPassFourGibIsNotWritten) {
    struct Case {
        uint32_t totalBytes;  // as if that much had gone to the temp file
        const char *printed;
    };
    const Case kCases[] = {
        {0xFFFFFFF9u,
         "the media data passes 4 GiB and can't be described\nThere is error in [mdat] atom\n"
         "the file is not written\n"},
        {0xFFFFFF00u, "the file passes 4 GiB and can't be described\nthe file is not written\n"},
    };
    for (const Case &c : kCases) {
        WriteSession session;
        ASSERT_EQ(session.Video(), 1);
        ASSERT_EQ(session.AddVideo(Pattern(10, 1), 0, true), 1);
        session.file()->write.VideoIntake.TotalBytes = c.totalBytes;
        CaptureStream out(stdout);
        const Bytes file = session.Flush();
        EXPECT_EQ(out.Text(), c.printed);
        EXPECT_TRUE(file.empty());
        EXPECT_FALSE(FileExists(session.videoTemp()));
    }
}

TEST(Layout, FlushOfNullHandleReportsAndGives99) {
    CaptureStream err(stderr);
    EXPECT_EQ(MP4FileFlush(nullptr), -99);
    EXPECT_EQ(err.Text(), "the input localfile is empty!\n");
}

}  // namespace
