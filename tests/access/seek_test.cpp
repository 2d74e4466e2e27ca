// Moving a video track's cursor: where SeekTrack, SeekTrackPos,
// NextKeyFrame and PrevKeyFrame land from each cursor, on the key frame
// table and on the key frame marks, how the steps wrap around the ends,
// what each call returns and where the cursor ends. The FFmpeg fixtures are
// swept in fixture_read_test.cpp.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "seek_support.h"

using namespace testing_support;
using namespace seek_support;

namespace {

const int32_t kModes[] = {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT};
const int32_t kTable = MP4_TABLE_KEYFRAMES, kMarks = MP4_TABLE_MARKS;

enum class Call { Seek, Pos, Next, Prev };

// SeekTrackPos gives only a time, reported as `time` and `number`.
Got Invoke(Call call, MP4_local_file *handle, uint32_t id, int32_t type, int32_t time = 0) {
    MP4Sample *sample = kUntouched;
    switch (call) {
    case Call::Seek: return Take(SeekTrack(handle, id, type, time, &sample), &sample);
    case Call::Next: return Take(NextKeyFrame(handle, id, type, &sample), &sample);
    case Call::Prev: return Take(PrevKeyFrame(handle, id, type, &sample), &sample);
    case Call::Pos: break;
    }
    uint32_t position = 0xDEADBEEF;
    Got got;
    got.result = SeekTrackPos(handle, id, type, time, &position);
    got.untouched = position == 0xDEADBEEF;
    got.time = position;
    got.number = position / 10;
    return got;
}

struct Case {
    int32_t cursorBefore;
    Call call;
    int32_t time;     // for the seeks
    uint32_t sample;  // the sample returned, or whose time is given
    int32_t cursorAfter;
};

// Every case from its own cursor.
void RunCases(const MiniTrack &track, int32_t mode, const std::vector<Case> &cases) {
    OpenedFile opened(BuildMiniMp4({track}), mode);
    ASSERT_EQ(opened.result, 1);
    VideoTrackNode *video = FirstVideo(opened.handle);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << mode << ", cursor " << c.cursorBefore
                                        << ", call " << int(c.call) << ", time " << c.time);
        video->SampleCursor = c.cursorBefore;
        Got got = Invoke(c.call, opened.handle, 1, MP4_TRACK_VIDEO, c.time);
        ASSERT_EQ(got.result, 1);
        EXPECT_EQ(got.number, c.sample);
        EXPECT_EQ(got.time, c.sample * 10);
        EXPECT_EQ(video->SampleCursor, c.cursorAfter);
    }
}

const Call S = Call::Seek, P = Call::Pos, N = Call::Next, V = Call::Prev;

TEST(SeekTrackTest, LandsOnTheLastKeyFrameAtOrBeforeTheTimeInEveryMode) {
    // Key frames at times 0, 100, 200; the last sample at 290.
    const std::vector<Case> cases = {
        {0, S, 150, 10, 11},  {0, P, 150, 10, 10},  {25, S, 100, 10, 11}, {25, S, 99, 0, 1},
        {5, P, 99, 0, 0},     {7, S, 0, 0, 1},      {7, S, -5, 0, 1},     {0, S, INT32_MIN, 0, 1},
        {0, S, 1, 0, 1},      {0, S, 199, 10, 11},  {0, S, 201, 20, 21},  {0, S, 289, 20, 21},
        {0, S, 290, 20, 21},  {0, P, 290, 20, 20},  {3, S, 1000, 20, 21}, {30, P, INT32_MAX, 20, 20},
        {-4, P, 205, 20, 20},
    };
    for (int32_t mode : kModes) RunCases(ThirtySamplesKeysAt0And100And200(), mode, cases);
    // The next sample follows the key frame SeekTrack gave, or is the key
    // frame SeekTrackPos named.
    OpenedFile opened(BuildMiniMp4({ThirtySamplesKeysAt0And100And200()}));
    EXPECT_EQ(Invoke(S, opened.handle, 1, 1, 150).time, 100u);
    MP4Sample *sample = kUntouched;
    EXPECT_EQ(Take(GetNextSample(opened.handle, 1, 1, &sample), &sample).time, 110u);
    EXPECT_EQ(Invoke(P, opened.handle, 1, 1, 150).time, 100u);
    sample = kUntouched;
    Got next = Take(GetNextSample(opened.handle, 1, 1, &sample), &sample);
    EXPECT_EQ(next.time, 100u);
    EXPECT_EQ(next.key, 1);
}

// Ten samples, key frames at 0, 4 and 7.
TEST(KeyFrameStepTest, BothPathsAgreeAwayFromTheEnds) {
    const std::vector<Case> cases = {
        {0, N, 0, 0, 1}, {1, N, 0, 4, 5}, {2, N, 0, 4, 5}, {4, N, 0, 4, 5}, {5, N, 0, 7, 8},
        {7, N, 0, 7, 8},
        {8, N, 0, 0, 1},  // past the last key frame: round to sample 0
        {5, V, 0, 0, 1},  // the key frame before the nearest one behind
        {6, V, 0, 0, 1}, {4, V, 0, 4, 5}, {7, V, 0, 7, 8}, {8, V, 0, 4, 5},
        {2, V, 0, 7, 8},  // before key frame 0: round to the last
        {1, V, 0, 7, 8}, {-3, N, 0, 0, 1}, {-3, V, 0, 0, 1},
    };
    for (int32_t mode : kModes) RunCases(TenSamplesKeysAt0And4And7(), mode, cases);
    // At the last sample (cursor 10 and beyond is brought back to it) the
    // table gives the last key frame and the marks walk on.
    RunCases(TenSamplesKeysAt0And4And7(), kTable,
             {{9, N, 0, 7, 8}, {9, V, 0, 7, 8}, {10, N, 0, 7, 8}, {10, V, 0, 7, 8},
              {500, N, 0, 7, 8}});
    RunCases(TenSamplesKeysAt0And4And7(), kMarks,
             {{9, N, 0, 0, 1}, {9, V, 0, 4, 5}, {10, N, 0, 0, 1}, {10, V, 0, 4, 5},
              {500, V, 0, 4, 5}});
}

TEST(KeyFrameStepTest, NextThreeTimesVisitsEachKeyFrameThenWrapsAndAllKeyTrackStays) {
    for (int32_t mode : {kTable, kMarks}) {
        SCOPED_TRACE(mode);
        OpenedFile opened(BuildMiniMp4({TenSamplesKeysAt0And4And7()}), mode);
        std::vector<uint32_t> seen;
        for (int i = 0; i < 4; ++i) seen.push_back(Invoke(N, opened.handle, 1, 1).number);
        EXPECT_EQ(seen, (std::vector<uint32_t>{0, 4, 7, 0}));
        // Where every sample is a key frame, each one stays under the
        // cursor, so Prev walks forward.
        OpenedFile all(BuildMiniMp4({KeyFrameVideo(5, {0, 1, 2, 3, 4})}), mode);
        seen.clear();
        for (int i = 0; i < 7; ++i) seen.push_back(Invoke(V, all.handle, 1, 1).number);
        EXPECT_EQ(seen, (std::vector<uint32_t>{0, 1, 2, 3, 4, 4, 4}));
    }
}

TEST(SeekAndStepTest, SampleZeroWithoutKeyMarkAndTracksWithoutKeyFrames) {
    // Key frames at samples 2 and 5 (times 20 and 50) of 8: sample 0 is
    // none. Only a time at or below 0 on the table path goes to the table's
    // first key frame; the marks round to sample 0 or the last key frame.
    const MiniTrack track = KeyFrameVideo(8, {2, 5});
    for (int32_t mode : kModes)
        RunCases(track, mode,
                 {{6, S, 10, 0, 1}, {6, P, 19, 0, 0}, {0, S, 20, 2, 3}, {0, S, 49, 2, 3},
                  {0, S, 55, 5, 6}, {0, P, 1000, 5, 5}, {0, N, 0, 2, 3}, {1, V, 0, 5, 6},
                  {3, V, 0, 5, 6}, {6, V, 0, 2, 3}});
    RunCases(track, kTable, {{6, S, 0, 2, 3}, {6, P, -1, 2, 2}, {0, V, 0, 2, 3}, {7, N, 0, 5, 6}});
    RunCases(track, kMarks, {{6, S, 0, 0, 1}, {6, P, -1, 0, 0}, {0, V, 0, 5, 6}, {7, N, 0, 0, 1}});
    // Past the last key frame both give sample 0, which is no key frame.
    for (int32_t mode : {kTable, kMarks}) {
        OpenedFile opened(BuildMiniMp4({track}), mode);
        FirstVideo(opened.handle)->SampleCursor = 6;
        Got got = Invoke(N, opened.handle, 1, 1);
        EXPECT_EQ(got.number, 0u);
        EXPECT_EQ(got.key, 0);
    }
    // Without key frames every call lands on sample 0.
    for (int32_t mode : kModes)
        RunCases(KeyFrameVideo(6, {}), mode,
                 {{4, S, 0, 0, 1}, {4, S, 35, 0, 1}, {4, P, 1000, 0, 0}, {4, P, -3, 0, 0},
                  {0, N, 0, 0, 1}, {3, N, 0, 0, 1}, {5, N, 0, 0, 1}, {9, V, 0, 0, 1},
                  {2, V, 0, 0, 1}, {0, V, 0, 0, 1}});
}

TEST(SeekAndStepTest, OneSampleVideoTrackGivesZeroAndKeepsTheCursor) {
    for (int32_t mode : kModes) {
        SCOPED_TRACE(mode);
        OpenedFile opened(BuildMiniMp4({KeyFrameVideo(1, {0})}), mode);
        ASSERT_EQ(opened.result, 1);
        for (Call call : {S, P, N, V}) {
            for (int32_t time : {0, 5, 1000}) {
                FirstVideo(opened.handle)->SampleCursor = call == N || call == V ? 3 : 0;
                const int32_t before = FirstVideo(opened.handle)->SampleCursor;
                Got got = Invoke(call, opened.handle, 1, 1, time);
                EXPECT_EQ(got.result, 0);
                EXPECT_TRUE(got.untouched);
                EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, before);
            }
        }
    }
}

TEST(SeekTrackTest, AudioGivesTheSampleGetSampleGives) {
    MiniTrack audio = NumberedAudio(12);
    OpenedFile opened(BuildMiniMp4({audio}));
    AudioTrackNode *record = opened.handle->read.AudioFirst;
    for (int32_t time : {INT32_MIN, -1, 0, 1, 35, 40, 109, 110, 111, INT32_MAX}) {
        SCOPED_TRACE(time);
        MP4Sample *sample = kUntouched;
        Got wanted = Take(GetSample(opened.handle, 1, 2, time, &sample), &sample);
        const uint32_t cursorWanted = record->SampleCursor;
        Got got = Invoke(S, opened.handle, 1, 2, time);
        ASSERT_EQ(got.result, 1);
        EXPECT_EQ(got.number, wanted.number);
        EXPECT_EQ(got.key, 0);
        EXPECT_EQ(record->SampleCursor, cursorWanted);
        EXPECT_EQ(Invoke(P, opened.handle, 1, 2, time).time, wanted.time);
        EXPECT_EQ(record->SampleCursor, cursorWanted - 1);
    }
}

// Failures before the choice leave the cursor and the out argument alone.
TEST(SeekAndStepTest, ResultCodesOfTheArgumentsAndTheTrack) {
    MiniTrack brokenVideo = KeyFrameVideo(4, {0}, 1);
    brokenVideo.replace["stco"] = {};
    MiniTrack brokenAudio = NumberedAudio(4, 2);
    brokenAudio.replace["stco"] = {};
    MiniTrack audio = NumberedAudio(4, 4);
    OpenedFile opened(BuildMiniMp4({brokenVideo, brokenAudio, KeyFrameVideo(4, {0}, 3), audio}),
                      kTable);
    ASSERT_EQ(opened.result, 1);
    struct Failure {
        const char *name;
        bool nullFile;
        uint32_t id;
        int32_t type;
        int32_t seek, pos, step;
    };
    const Failure kFailures[] = {
        {"null file", true, 3, 1, -99, -99, -99},
        {"ID 0 before the type", false, 0, 2, -99, -99, -99},
        {"type 3", false, 3, 3, -92, -92, -94},
        {"audio type, any ID", false, 77, 2, -93, -93, -95},
        {"unknown video ID", false, 9, 1, -96, -96, -96},
        {"video record without Track", false, 1, 1, -90, -91, -91},
        {"audio record without Track", false, 2, 2, -86, -89, -95},
    };
    for (const Failure &f : kFailures) {
        SCOPED_TRACE(f.name);
        MP4_local_file *file = f.nullFile ? nullptr : opened.handle;
        const int32_t want[] = {f.seek, f.pos, f.step, f.step};
        for (Call call : {S, P, N, V}) {
            Got got = Invoke(call, file, f.id, f.type, 50);
            EXPECT_EQ(got.result, want[int(call)]) << "call " << int(call);
            EXPECT_TRUE(got.untouched);
        }
    }
    // Tables without sample records, on otherwise sound tracks.
    struct NoRecords {
        uint32_t id;
        int32_t type;
        int32_t seek, pos, step;
    };
    for (const NoRecords &f : {NoRecords{3, 1, -89, -90, -90}, NoRecords{4, 2, -85, -88, -95}}) {
        SCOPED_TRACE(f.type);
        ASSERT_EQ(Invoke(P, opened.handle, f.id, f.type, 0).result, 1);
        TrackNode *node = f.type == 1 ? opened.handle->read.VideoCurrent->Track
                                      : opened.handle->read.AudioCurrent->Track;
        SampleRecord *records = node->SampleRecords;
        node->SampleRecords = nullptr;
        const int32_t want[] = {f.seek, f.pos, f.step, f.step};
        for (Call call : {S, P, N, V})
            EXPECT_EQ(Invoke(call, opened.handle, f.id, f.type, 50).result, want[int(call)]);
        node->SampleRecords = records;
    }
    VideoTrackNode *record = opened.handle->read.VideoCurrent;
    record->SampleCursor = 2;
    EXPECT_EQ(SeekTrack(opened.handle, 3, 1, 0, nullptr), -99);
    EXPECT_EQ(SeekTrackPos(opened.handle, 3, 1, 0, nullptr), -99);
    EXPECT_EQ(NextKeyFrame(opened.handle, 3, 1, nullptr), -99);
    EXPECT_EQ(PrevKeyFrame(opened.handle, 3, 1, nullptr), -99);
    EXPECT_EQ(record->SampleCursor, 2);
}

TEST(KeyFrameStepTest, ReadFailuresLeaveTheCursorOnOrBehindTheChosenKeyFrame) {
    // Key frame 4 of 0, 4, 7 is empty: -88, the cursor stays on it.
    MiniTrack empty = TenSamplesKeysAt0And4And7();
    empty.samples[4].clear();
    // Key frame 4 half outside the file: -87, the cursor moves past it.
    MiniTrack cut = TenSamplesKeysAt0And4And7();
    std::vector<uint32_t> offsets;
    for (size_t i = 0; i < cut.samples.size(); ++i)
        offsets.push_back(MiniSampleOffset({cut}, 0, i));
    offsets[4] = uint32_t(BuildMiniMp4({cut}).size()) - 2;
    cut.replace["stco"] = Stco(offsets);
    struct Failure {
        const char *name;
        MiniTrack track;
        int32_t result;
        int32_t cursorAfter;
    };
    for (const Failure &f : {Failure{"empty", empty, -88, 4}, Failure{"cut", cut, -87, 5}}) {
        for (int32_t mode : {kTable, kMarks}) {
            for (Call step : {N, V}) {
                SCOPED_TRACE(testing::Message() << f.name << " mode " << mode);
                OpenedFile opened(BuildMiniMp4({f.track}), mode);
                ASSERT_EQ(opened.result, 1);
                // From 2 the next key frame is 4; from 4 the previous one is 4.
                FirstVideo(opened.handle)->SampleCursor = step == N ? 2 : 4;
                Got got = Invoke(step, opened.handle, 1, 1);
                EXPECT_EQ(got.result, f.result);
                EXPECT_TRUE(got.untouched);
                EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, f.cursorAfter);
            }
        }
    }
}

}  // namespace
