// New files and tracks: the handle and its tree, the checks in front of a
// track's creation, track IDs, picture sizes read from configurations, the
// sizes of generated samples, and the blocks of a chain.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
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
    const std::string kStdout = "stdout:";
    struct Case {
        const char *what;
        std::function<int32_t(WriteSession &)> call;
        std::string message;  // on standard error unless it starts with "stdout:"
        uint32_t nextTrackId;
    };
    const Bytes config = Pattern(53, 0);
    const Case kCases[] = {
        {"hint tracks are not creatable",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 3, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
         },
         kStdout + "unsupport track type\n", 1},
        {"type 0",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 0, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
         },
         kStdout + "unsupport track type\n", 1},
        {"type 6",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 6, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
         },
         kStdout + "unsupport track type\n", 1},
        {"a second video track",
         [](WriteSession &s) {
             EXPECT_EQ(s.Video(), 1);
             return s.Video();
         },
         "A track of this type already exists in CreateTrack(...) \n", 2},
        {"a second object descriptor track",
         [](WriteSession &s) {
             EXPECT_EQ(s.Od(), 1);
             return s.Od();
         },
         "A track of this type already exists in CreateTrack(...) \n", 2},
        {"a media track after the object descriptor track",
         [](WriteSession &s) {
             EXPECT_EQ(s.Od(), 1);
             return s.Audio();
         },
         "Media tracks must be created before the object descriptor and scene tracks in "
         "CreateTrack(...) \n",
         2},
        {"timescale 0",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, nullptr,
                                s.audioTemp().c_str(), 0);
         },
         "The timescale of a track must not be 0 in CreateTrack(...) \n", 1},
        {"53 bytes of configuration", [&](WriteSession &s) { return s.Video(176, 144, config); },
         "The decoder configuration is too long or missing in CreateTrack(...) \n", 1},
        {"configuration size without bytes",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 1, 176, 144, 25, 1000, 0, 0, 0, 0, 4, nullptr,
                                s.videoTemp().c_str(), 0);
         },
         "The decoder configuration is too long or missing in CreateTrack(...) \n", 1},
        {"no temp file name",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 2, 0, 0, 0, 44100, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
         },
         "No temp file name in CreateTrack(...) \n", 1},
        {"the video track's temp file name for audio",
         [](WriteSession &s) {
             EXPECT_EQ(s.Video(), 1);
             return CreateTrack(s.file(), 2, 0, 0, 0, 44100, 0, 0, 0, 0, 0, nullptr,
                                s.videoTemp().c_str(), 0);
         },
         "The temp file name is already in use in CreateTrack(...) \n", 2},
        {"the output file's name as temp file name",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 2, 0, 0, 0, 44100, 0, 0, 0, 0, 0, nullptr,
                                s.output().c_str(), 0);
         },
         "The temp file name is already in use in CreateTrack(...) \n", 1},
        {"a width above 8191 without configuration", [](WriteSession &s) { return s.Video(8192, 144); },
         "Width and height above 8191 need a decoder configuration in CreateTrack(...) \n", 1},
        {"a height above 8191 without configuration", [](WriteSession &s) { return s.Video(64, 9000); },
         "Width and height above 8191 need a decoder configuration in CreateTrack(...) \n", 1},
        // The temp file is created after the track got its ID.
        {"a temp file that can't be created",
         [](WriteSession &s) {
             return CreateTrack(s.file(), 1, 176, 144, 25, 1000, 0, 0, 0, 0, 0, nullptr,
                                "/nonexistent-folder/video.tmp", 0);
         },
         "Can not create temp file in CreateTrack(...) \n", 2},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        const bool toStdout = c.message.rfind(kStdout, 0) == 0;
        CaptureStream out(stdout);
        CaptureStream err(stderr);
        const int32_t result = c.call(session);
        const std::string printedErr = err.Text();
        const std::string printedOut = out.Text();
        EXPECT_EQ(result, -99);
        if (toStdout) {
            EXPECT_EQ(printedOut, c.message.substr(kStdout.size()));
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

TEST(CreateTrack, GeneratedSampleSizeFollowsTheMediaTracksThatExist) {
    struct Case {
        bool video, audio;
        uint32_t od, scene;
    };
    const Case kCases[] = {{true, true, 33, 16}, {true, false, 10, 38}, {false, true, 10, 17},
                           {false, false, 10, 0}};
    for (const Case &c : kCases) {
        WriteSession session;
        if (c.video) {
            ASSERT_EQ(session.Video(), 1);
        }
        if (c.audio) {
            ASSERT_EQ(session.Audio(), 1);
        }
        ASSERT_EQ(session.Od(), 1);
        ASSERT_EQ(session.Scene(), 1);
        const WriteForm &form = session.file()->write;
        for (const TrackNode *track : {form.OdTrack, form.SceneTrack}) {
            EXPECT_EQ(track->SampleCount, 1u);
            EXPECT_EQ(track->KeyFrameCount, 1u);
            EXPECT_EQ(track->SampleRecords[0].Time, 0u);
            EXPECT_EQ(track->SampleRecords[0].TempOffset, 0u);
            EXPECT_EQ(track->KeyFrameRecords[0].SampleIndex, 0u);
        }
        EXPECT_EQ(form.OdTrack->SampleRecords[0].Size, c.od);
        EXPECT_EQ(form.SceneTrack->SampleRecords[0].Size, c.scene);
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
