// New files and tracks: the handle and its tree, the checks in front of a
// track's creation, track IDs, picture sizes read from configurations, and
// the blocks of a chain. The generated samples are checked in the written
// file (layout_test.cpp).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "authoring/authoring.h"
#include "frame/frame.h"
#include "support/test_support.h"
#include "writer/written_file.h"

namespace {

using namespace testing_support;
using namespace writer_test;

TEST(NewFile, CreatesTheEmptyFileAndTheTopLevelWithRecords) {
    TempPath path(".mp4");
    MP4_local_file *file = nullptr;
    ASSERT_EQ(MP4FileNew(&file, path.c_str()), 1);
    ASSERT_NE(file, nullptr);
    EXPECT_TRUE(FileExists(path.path()));
    EXPECT_EQ(file->write.NextTrackId, 1u);
    EXPECT_STREQ(file->RootAtom->FilePath, path.c_str());
    std::string names;
    for (AtomNode *atom = file->RootAtom->FirstAtom; atom != nullptr; atom = atom->NextSibling) {
        names += std::string(atom->AtomName) + " ";
        EXPECT_NE(atom->realStructure, nullptr);
    }
    EXPECT_EQ(names, "ftyp moov mdat ");
    EXPECT_EQ(MP4FileFlush(file), 1);
}

TEST(NewFile, RefusesNamesThatCantBeCreated) {
    const std::string tooLong = "/tmp/" + std::string(251, 'x');
    struct Case {
        const char *what;
        const char *path;
    };
    const Case kCases[] = {
        {"missing folder", "/nonexistent-folder/out.mp4"},
        {"null name", nullptr},
        {"256 characters do not fit the path", tooLong.c_str()},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        MP4_local_file *file = reinterpret_cast<MP4_local_file *>(1);
        CaptureStream err(stderr);
        EXPECT_EQ(MP4FileNew(&file, c.path), -99);
        EXPECT_EQ(err.Text(), "Can not create new file in MP4FileNew(...) \n");
        EXPECT_EQ(file, nullptr);
    }
    EXPECT_FALSE(FileExists(tooLong));
    EXPECT_EQ(MP4FileNew(nullptr, "/tmp/x.mp4"), -99);
}

TEST(CreateTrack, RefusalsLeaveTheHandleAsItWas) {
    // What a case does before the refused call, and the call's arguments.
    enum Before { kNothing, kVideo, kOd };
    enum Temp { kNoTemp, kVideoTemp, kAudioTemp, kOutput, kMissingFolder };
    struct Case {
        const char *what;
        Before before;
        uint32_t type, width, height, timescale, configSize;
        Temp temp;
        std::string message;  // on standard error unless it starts with "stdout:"
        uint32_t nextTrackId;
    };
    const std::string kUnsupported = "stdout:unsupport track type\n";
    const std::string kExists = "A track of this type already exists in CreateTrack(...) \n";
    const std::string kConfig =
        "The decoder configuration is too long or missing in CreateTrack(...) \n";
    const std::string kInUse = "The temp file name is already in use in CreateTrack(...) \n";
    const std::string kTooWide =
        "Width and height above 8191 need a decoder configuration in CreateTrack(...) \n";
    const Case kCases[] = {
        {"hint tracks are not creatable", kNothing, 3, 0, 0, 1000, 0, kNoTemp, kUnsupported, 1},
        {"type 0", kNothing, 0, 0, 0, 1000, 0, kNoTemp, kUnsupported, 1},
        {"type 6", kNothing, 6, 0, 0, 1000, 0, kNoTemp, kUnsupported, 1},
        {"a second video track", kVideo, 1, 176, 144, 1000, 0, kAudioTemp, kExists, 2},
        {"a second object descriptor track", kOd, 4, 0, 0, 1000, 0, kNoTemp, kExists, 2},
        {"a media track after the object descriptor track", kOd, 2, 0, 0, 44100, 0, kAudioTemp,
         "Media tracks must be created before the object descriptor and scene tracks in "
         "CreateTrack(...) \n",
         2},
        {"timescale 0", kNothing, 2, 0, 0, 0, 0, kAudioTemp,
         "The timescale of a track must not be 0 in CreateTrack(...) \n", 1},
        {"53 bytes of configuration", kNothing, 1, 176, 144, 1000, 53, kVideoTemp, kConfig, 1},
        {"configuration size without bytes", kNothing, 1, 176, 144, 1000, 4, kVideoTemp, kConfig,
         1},
        {"no temp file name", kNothing, 2, 0, 0, 44100, 0, kNoTemp,
         "No temp file name in CreateTrack(...) \n", 1},
        {"the video track's temp file name for audio", kVideo, 2, 0, 0, 44100, 0, kVideoTemp,
         kInUse, 2},
        {"the output file's name as temp file name", kNothing, 2, 0, 0, 44100, 0, kOutput, kInUse,
         1},
        {"a width above 8191 without configuration", kNothing, 1, 8192, 144, 1000, 0, kVideoTemp,
         kTooWide, 1},
        {"a height above 8191 without configuration", kNothing, 1, 64, 9000, 1000, 0, kVideoTemp,
         kTooWide, 1},
        // The temp file is created after the track got its ID.
        {"a temp file that can't be created", kNothing, 1, 176, 144, 1000, 0, kMissingFolder,
         "Can not create temp file in CreateTrack(...) \n", 2},
    };
    const Bytes config = Pattern(53, 0);
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        if (c.before != kNothing) {
            ASSERT_EQ(c.before == kVideo ? session.Video() : session.Od(), 1);
        }
        const std::string temps[] = {"", session.videoTemp(), session.audioTemp(),
                                     session.output(), "/nonexistent-folder/video.tmp"};
        const char *temp = c.temp == kNoTemp ? nullptr : temps[c.temp].c_str();
        // The configuration's bytes go only with its 53 bytes.
        const uint8_t *bytes = c.configSize == 53 ? config.data() : nullptr;
        CaptureStream out(stdout);
        CaptureStream err(stderr);
        const int32_t result = CreateTrack(session.file(), c.type, c.width, c.height, 25,
                                           c.timescale, 0, 0, 0, 0, c.configSize, bytes, temp, 0);
        const std::string printedErr = err.Text();
        const std::string printedOut = out.Text();
        EXPECT_EQ(result, -99);
        if (c.message.rfind("stdout:", 0) == 0) {
            EXPECT_EQ(printedOut, c.message.substr(7));
        } else {
            EXPECT_EQ(printedErr, c.message);
        }
        EXPECT_EQ(session.file()->write.NextTrackId, c.nextTrackId);
    }
}

TEST(CreateTrack, NullHandleIsReported) {
    CaptureStream err(stderr);
    EXPECT_EQ(CreateTrack(nullptr, 1, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, "x", 0), -99);
    EXPECT_EQ(err.Text(), "the input parameter for MP4_local_file is empty\n");
}

TEST(CreateTrack, IdsFollowTheCallsAndAFailedTempFileUsesOneUp) {
    WriteSession session;
    ASSERT_EQ(CreateTrack(session.file(), 1, 176, 144, 25, 1000, 0, 0, 0, 0, 0, nullptr,
                          "/nonexistent-folder/video.tmp", 0),
              -99);
    EXPECT_EQ(session.file()->write.VideoTrack, nullptr);
    ASSERT_EQ(session.Audio(), 1);
    ASSERT_EQ(session.Video(), 1);
    ASSERT_EQ(session.Od(), 1);
    ASSERT_EQ(session.Scene(), 1);
    const WriteForm &form = session.file()->write;
    EXPECT_EQ(form.AudioTrack->TrackId, 2u);
    EXPECT_EQ(form.VideoTrack->TrackId, 3u);
    EXPECT_EQ(form.OdTrack->TrackId, 4u);
    EXPECT_EQ(form.SceneTrack->TrackId, 5u);
    EXPECT_EQ(form.NextTrackId, 6u);
    EXPECT_EQ(form.VideoTrack->VideoTrackId, 3u);
    EXPECT_EQ(form.AudioTrack->AudioTrackId, 2u);
    EXPECT_EQ(form.VideoTrack->SampleCapacity, 2000u);
    EXPECT_EQ(form.OdTrack->SampleCapacity, 100u);
}

TEST(CreateTrack, PictureSizeComesFromTheConfigurationOnlyWhenBothAreZero) {
    // A video object layer of 320 by 240, and the same behind a visual
    // object sequence header with a one-byte visual object.
    const Bytes vol = Hex("00 00 01 00 00 00 01 20 00 C4 8D 88 00 CD 0A 04 1E 14 63 00");
    const Bytes vos = Cat({Hex("00 00 01 B0 01 00 00 01 B5 09"), vol});
    struct Case {
        const char *what;
        uint32_t width, height;
        Bytes config;
        uint16_t expectWidth, expectHeight;
    };
    const Case kCases[] = {
        {"video object start", 0, 0, vol, 320, 240},
        {"sequence header, then ten bytes on", 0, 0, vos, 320, 240},
        {"neither start code keeps 0 by 0", 0, 0, Hex("00 00 01 B3 00 10 07 00 00 01 00"), 0, 0},
        {"a width alone skips the parser", 100, 0, vol, 100, 0},
        {"a cut configuration", 0, 0, Hex("00 00 01"), 0, 0},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        ASSERT_EQ(session.Video(c.width, c.height, c.config), 1);
        const TrackNode *track = session.file()->write.VideoTrack;
        EXPECT_EQ(track->TrackWidth, c.expectWidth);
        EXPECT_EQ(track->TrackHeight, c.expectHeight);
        EXPECT_EQ(track->ConfigSize, c.config.size());
    }
}

TEST(AddTrackBlock, GivesTablesOrHangsANewBlockBehindTheChain) {
    TrackNode head{};
    TrackNode *holder = &head;
    EXPECT_EQ(AddTrackBlock(&holder, 0), -97);
    EXPECT_EQ(head.SampleCapacity, 0u);

    ASSERT_EQ(AddTrackBlock(&holder, 7), 1);
    EXPECT_EQ(head.SampleCapacity, 7u);
    EXPECT_EQ(head.KeyFrameCapacity, 3u);
    ASSERT_NE(head.SampleRecords, nullptr);
    EXPECT_EQ(head.NextBlock, nullptr);

    ASSERT_EQ(AddTrackBlock(&holder, 4), 1);
    ASSERT_EQ(AddTrackBlock(&holder, 2), 1);
    EXPECT_EQ(holder, &head);
    EXPECT_EQ(head.SampleCapacity, 7u);
    ASSERT_NE(head.NextBlock, nullptr);
    EXPECT_EQ(head.NextBlock->SampleCapacity, 4u);
    ASSERT_NE(head.NextBlock->NextBlock, nullptr);
    EXPECT_EQ(head.NextBlock->NextBlock->SampleCapacity, 2u);
    EXPECT_EQ(head.NextBlock->NextBlock->KeyFrameCapacity, 1u);

    TrackNode *block = head.NextBlock;
    while (block != nullptr) {
        TrackNode *next = block->NextBlock;
        std::free(block->SampleRecords);
        std::free(block->KeyFrameRecords);
        std::free(block);
        block = next;
    }
    std::free(head.SampleRecords);
    std::free(head.KeyFrameRecords);
}

}  // namespace
