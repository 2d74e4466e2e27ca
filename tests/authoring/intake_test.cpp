// Frame intake: slots and blocks, key frames, the rate window and the bit
// rates, and the refusals that keep tables, temp file and file limits
// consistent.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "frame/frame.h"
#include "support/test_support.h"
#include "tracks/tracks.h"
#include "writer/written_file.h"

namespace {

using namespace testing_support;
using namespace writer_test;

const TrackNode *LastBlock(const TrackNode *head) {
    while (head->NextBlock != nullptr) head = head->NextBlock;
    return head;
}

int BlockCount(const TrackNode *head) {
    int count = 0;
    for (; head != nullptr; head = head->NextBlock) ++count;
    return count;
}

TEST(Intake, TheTwoThousandthFrameOpensTheNextBlockAtOnce) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    const Bytes frame = Pattern(3, 1);
    for (uint32_t i = 0; i < 1999; ++i) ASSERT_EQ(session.AddVideo(frame, i, i % 10 == 0), 1);
    const TrackNode *head = session.file()->write.VideoTrack;
    EXPECT_EQ(BlockCount(head), 1);
    ASSERT_EQ(session.AddVideo(frame, 1999, false), 1);
    ASSERT_EQ(BlockCount(head), 2);
    const TrackNode *second = head->NextBlock;
    EXPECT_EQ(head->SampleCount, 2000u);
    EXPECT_EQ(head->KeyFrameCount, 200u);
    EXPECT_EQ(second->SampleBase, 2000u);
    EXPECT_EQ(second->KeyFrameBase, 200u);
    EXPECT_EQ(second->SampleCount, 0u);
    EXPECT_EQ(second->TrakAtom, head->TrakAtom);
    EXPECT_EQ(second->Timescale, head->Timescale);
    EXPECT_EQ(second->TrackType, 1);

    ASSERT_EQ(session.AddVideo(Pattern(9, 2), 2000, true), 1);
    EXPECT_EQ(second->SampleCount, 1u);
    EXPECT_EQ(second->SampleRecords[0].Size, 9u);
    EXPECT_EQ(second->SampleRecords[0].TempOffset, 6000u);
    EXPECT_EQ(second->KeyFrameRecords[0].SampleIndex, 2000u);
    EXPECT_EQ(second->KeyFrameRecords[0].Time, 2000u);
    const IntakeState &intake = session.file()->write.VideoIntake;
    EXPECT_EQ(intake.TotalSamples, 2001u);
    EXPECT_EQ(intake.TotalKeyFrames, 201u);
    EXPECT_EQ(intake.TotalBytes, 6009u);
    EXPECT_EQ(intake.BlockSample, 1u);
    EXPECT_EQ(intake.BlockKeyFrame, 1u);
}

TEST(Intake, OnlyKeyFrameOneMarksAKeyFrameAndAnEmptyFrameTakesASlot) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    ASSERT_EQ(session.Audio(), 1);
    const Bytes frame = Pattern(4, 1);
    const uint32_t flags[] = {1, 2, 0, 0xFFFFFFFF, 1};
    for (uint32_t i = 0; i < 5; ++i)
        ASSERT_EQ(AddVideoFrame(session.file(), 4, frame.data(), 0, i, flags[i], 0), 1);
    const TrackNode *head = session.file()->write.VideoTrack;
    ASSERT_EQ(head->KeyFrameCount, 2u);
    EXPECT_EQ(head->KeyFrameRecords[0].SampleIndex, 0u);
    EXPECT_EQ(head->KeyFrameRecords[1].SampleIndex, 4u);

    ASSERT_EQ(AddAudioFrame(session.file(), 0, nullptr, 0), 1);
    ASSERT_EQ(session.AddAudio(Pattern(5, 1), 1024), 1);
    const IntakeState &intake = session.file()->write.AudioIntake;
    EXPECT_EQ(intake.TotalSamples, 2u);
    EXPECT_EQ(intake.TotalBytes, 5u);
    EXPECT_EQ(session.file()->write.AudioTrack->SampleRecords[1].TempOffset, 0u);
}

TEST(Intake, RateWindowIsTwoSecondsAndTheClosingFrameCountsNowhere) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);  // timescale 1000
    struct Step {
        uint32_t time;
        int32_t windowSecond, windowBytes, peakBytes;
        uint32_t maxBitRate, avgBitRate;
    };
    // Frames of 100 bytes every 40 ticks; the rows show the state after the
    // frame at `time`, frames in between not listed.
    const Step kSteps[] = {
        {0, 0, 100, 0, 0, 0},
        {960, 0, 2500, 0, 0, 0},
        {1000, 0, 2600, 0, 0, 2600 * 8},
        {1960, 0, 5000, 0, 0, 5000 * 8},
        {2000, 1, 0, 5000, 40000, 5100 * 8 / 2},
        {2040, 1, 100, 5000, 40000, 5200 * 8 / 2},
        {2960, 1, 2400, 5000, 40000, 7500 * 8 / 2},
        {3000, 2, 0, 5000, 40000, 7600 * 8 / 3},
    };
    const Bytes frame = Pattern(100, 1);
    uint32_t time = 0;
    const TrackNode *head = session.file()->write.VideoTrack;
    for (const Step &step : kSteps) {
        for (; time <= step.time; time += 40) ASSERT_EQ(session.AddVideo(frame, time, false), 1);
        SCOPED_TRACE(step.time);
        EXPECT_EQ(head->WindowSecond, step.windowSecond);
        EXPECT_EQ(head->WindowBytes, step.windowBytes);
        EXPECT_EQ(head->PeakBytes, step.peakBytes);
        EXPECT_EQ(head->MaxBitRate, step.maxBitRate);
        EXPECT_EQ(head->AvgBitRate, step.avgBitRate);
    }
}

TEST(Intake, NewBlockWindowStartsAtZeroAndCatchesUpOneSecondPerFrame) {
    WriteSession session;
    ASSERT_EQ(session.Audio(1000), 1);
    const Bytes frame = Pattern(10, 1);
    // 2000 frames, 40 ticks apart: the last one is at second 79 and its
    // window is already the new block's.
    for (uint32_t i = 0; i < 2000; ++i) ASSERT_EQ(session.AddAudio(frame, i * 40), 1);
    const TrackNode *head = session.file()->write.AudioTrack;
    const TrackNode *last = LastBlock(head);
    ASSERT_NE(last, head);
    EXPECT_EQ(last->WindowSecond, 1);
    EXPECT_EQ(last->WindowBytes, 0);
    EXPECT_EQ(head->MaxBitRate, 0u) << "the new block has no closed window";
    EXPECT_EQ(head->AvgBitRate, 20000u * 8 / 79);
    ASSERT_EQ(session.AddAudio(frame, 80000), 1);
    EXPECT_EQ(last->WindowSecond, 2);
    EXPECT_GT(head->PeakBytes, 0) << "the head block keeps its own peak";
    // Audio blocks have no key frames.
    EXPECT_EQ(session.file()->write.AudioIntake.TotalKeyFrames, 0u);
    EXPECT_EQ(BlockCount(head), 2);
    for (const TrackNode *b = head; b != nullptr; b = b->NextBlock) {
        EXPECT_EQ(b->KeyFrameBase, 0u);
        EXPECT_EQ(b->KeyFrameCount, 0u);
        EXPECT_EQ(b->SampleBase, b == head ? 0u : 2000u);
    }
}

TEST(Intake, MaxBitRatePassesThroughSinglePrecision) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    // 16777217 bytes make 134217736 bits, which single precision rounds
    // to 134217728.
    const Bytes big(16777217, 0x55);
    ASSERT_EQ(session.AddVideo(big, 0, true), 1);
    ASSERT_EQ(session.AddVideo(Pattern(1, 1), 2000, false), 1);
    const TrackNode *head = session.file()->write.VideoTrack;
    EXPECT_EQ(head->PeakBytes, 16777217);
    EXPECT_EQ(head->MaxBitRate, 134217728u);
    EXPECT_EQ(head->AvgBitRate, (16777218u * 8) / 2);
    // The rates reach the "esds" of the file.
    const Bytes esds = FindAtom(session.Flush(), "moov/trak#1/mdia/minf/stbl/stsd/mp4v/esds");
    ASSERT_EQ(esds.size(), 74u);
    EXPECT_EQ(Bytes(esds.begin() + 30, esds.begin() + 38),
              Cat({U32(134217728), U32(16777218u * 8 / 2)}));
}

TEST(Intake, AverageBitRateWrapsIn32Bits) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    // As if 600,000,000 bytes had gone before: the product wraps.
    session.file()->write.VideoIntake.TotalBytes = 600000000;
    ASSERT_EQ(session.AddVideo(Pattern(8, 1), 1000, true), 1);
    EXPECT_EQ(session.file()->write.VideoTrack->AvgBitRate, uint32_t(600000008ull * 8));
    session.file()->write.VideoIntake.TotalBytes = 8;
}

TEST(Intake, EveryFrameAKeyFrameOverflowsNoTableAndWritesAFile) {
    WriteSession session;
    ASSERT_EQ(session.Video(), 1);
    const Bytes frame = Pattern(2, 1);
    for (uint32_t i = 0; i < 2500; ++i) ASSERT_EQ(session.AddVideo(frame, i * 40, true), 1);
    const TrackNode *head = session.file()->write.VideoTrack;
    EXPECT_EQ(head->KeyFrameCount, 2000u);
    EXPECT_EQ(head->NextBlock->KeyFrameBase, 2000u);
    EXPECT_EQ(head->NextBlock->KeyFrameCount, 500u);
    const Bytes file = session.Flush();
    const std::vector<uint32_t> stss = TableWords(FindAtom(file, "moov/trak#1/mdia/minf/stbl/stss"));
    ASSERT_EQ(stss.size(), 2501u);
    EXPECT_EQ(stss[2500], 2500u);
    EXPECT_EQ(TableWords(FindAtom(file, "moov/trak#1/mdia/minf/stbl/stsc"))[0], 2500u);
}

TEST(Intake, RefusalsChangeNothing) {
    struct Case {
        const char *what;
        bool video;
        uint32_t time;
        uint32_t size;
        bool nullData;
        uint32_t totalBytes;  // intake's TotalBytes before the frame
        const char *message;
    };
    const Case kCases[] = {
        {"falling video time stamp", true, 79, 4, false, 0,
         "the time stamp falls below the previous frame's in AddVideoFrame(...) \n"},
        {"falling audio time stamp", false, 0, 4, false, 0,
         "the time stamp falls below the previous frame's in AddAudioFrame(...) \n"},
        {"video temp file past 4 GiB", true, 100, 8, false, 0xFFFFFFFCu,
         "the temp video file would pass 4 GiB in AddVideoFrame(...) \n"},
        {"audio temp file past 4 GiB", false, 100, 8, false, 0xFFFFFFFCu,
         "the temp audio file would pass 4 GiB in AddAudioFrame(...) \n"},
        {"video frame without bytes", true, 100, 8, true, 0,
         "the size of data written to temp video file is error!\n"},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        ASSERT_EQ(c.video ? session.Video() : session.Audio(), 1);
        ASSERT_EQ(c.video ? session.AddVideo(Pattern(4, 1), 80, true)
                          : session.AddAudio(Pattern(4, 1), 80),
                  1);
        IntakeState &intake =
            c.video ? session.file()->write.VideoIntake : session.file()->write.AudioIntake;
        intake.TotalBytes = c.totalBytes == 0 ? intake.TotalBytes : c.totalBytes;
        const Bytes frame = Pattern(c.size, 2);
        const uint8_t *data = c.nullData ? nullptr : frame.data();
        CaptureStream err(stderr);
        const int32_t result = c.video ? AddVideoFrame(session.file(), c.size, data, 0, c.time, 1, 0)
                                       : AddAudioFrame(session.file(), c.size, data, c.time);
        EXPECT_EQ(result, -99);
        EXPECT_EQ(err.Text(), c.message);
        EXPECT_EQ(intake.TotalSamples, 1u);
        intake.TotalBytes = 4;
    }
}

TEST(Intake, FallingTimeIsSeenAcrossABlockBoundary) {
    WriteSession session;
    ASSERT_EQ(session.Audio(), 1);
    const Bytes frame = Pattern(1, 1);
    for (uint32_t i = 0; i < 2000; ++i) ASSERT_EQ(session.AddAudio(frame, 10 + i), 1);
    CaptureStream err(stderr);
    EXPECT_EQ(session.AddAudio(frame, 2008), -99);
    err.Text();
    EXPECT_EQ(session.AddAudio(frame, 2009), 1) << "equal time stamps are taken";
}

TEST(Intake, MissingHandleOrTrackIsReported) {
    struct Case {
        const char *what;
        bool handle;
        bool video;
        const char *message;
    };
    const Case kCases[] = {
        {"null handle, video", false, true, "the input parameter for MP4_local_file is empty\n"},
        {"null handle, audio", false, false, "the input parameter for MP4_local_file is empty\n"},
        {"no video track", true, true, "there is no VideoTrackNode in the input MP4_local_file\n"},
        {"no audio track", true, false, "there is no AudioTrackNode in the input MP4_local_file\n"},
    };
    const Bytes frame = Pattern(4, 1);
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        MP4_local_file *file = c.handle ? session.file() : nullptr;
        CaptureStream err(stderr);
        const int32_t result = c.video ? AddVideoFrame(file, 4, frame.data(), 0, 0, 1, 0)
                                       : AddAudioFrame(file, 4, frame.data(), 0);
        EXPECT_EQ(result, -99);
        EXPECT_EQ(err.Text(), c.message);
    }
}

TEST(Intake, ShortWriteToTheTempFileIsReported) {
    if (!FileExists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    // The temp file is a link to a device that is always full; the flush
    // removes the link, not the device.
    TempPath link(".full");
    ASSERT_EQ(symlink("/dev/full", link.c_str()), 0);
    WriteSession session;
    ASSERT_EQ(CreateTrack(session.file(), 2, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, link.c_str(), 0),
              1);
    const Bytes frame = Pattern(1 << 16, 1);
    CaptureStream err(stderr);
    EXPECT_EQ(session.AddAudio(frame, 0), -99);
    EXPECT_EQ(err.Text(), "the size of data written to temp audio file is error!\n");
    CaptureStream out(stdout);
    session.Flush();
    out.Text();
    EXPECT_TRUE(FileExists("/dev/full"));
}

}  // namespace
