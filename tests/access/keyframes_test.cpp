// Key frame navigation: where NextKeyFrame and PrevKeyFrame land from each
// cursor, on the key frame table and on the key frame marks, how they wrap
// around the ends, their result codes; and on the FFmpeg fixtures.
#include <gtest/gtest.h>

#include <string>

#include "seek_support.h"
#include "support/listing.h"

using namespace testing_support;
using namespace seek_support;

namespace {

enum class Step { Next, Prev };

Got Invoke(Step step, MP4_local_file *handle, uint32_t id, int32_t type) {
    MP4Sample *sample = kUntouched;
    int32_t result = step == Step::Next ? NextKeyFrame(handle, id, type, &sample)
                                        : PrevKeyFrame(handle, id, type, &sample);
    return Take(result, &sample);
}

struct Case {
    int32_t cursorBefore;
    Step step;
    uint32_t sample;  // the key frame returned
    int32_t cursorAfter;
};

void RunCases(const MiniTrack &track, int32_t mode, const std::vector<Case> &cases) {
    OpenedFile opened(BuildMiniMp4({track}), mode);
    ASSERT_EQ(opened.result, 1);
    VideoTrackNode *video = FirstVideo(opened.handle);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << mode << ", cursor " << c.cursorBefore
                                        << (c.step == Step::Next ? ", Next" : ", Prev"));
        video->SampleCursor = c.cursorBefore;
        Got got = Invoke(c.step, opened.handle, 1, MP4_TRACK_VIDEO);
        ASSERT_EQ(got.result, 1);
        EXPECT_EQ(got.number, c.sample);
        EXPECT_EQ(got.time, c.sample * 10);
        EXPECT_EQ(video->SampleCursor, c.cursorAfter);
    }
}

// Ten samples, key frames at 0, 4 and 7.
TEST(KeyFrameStepTest, BothPathsAgreeAwayFromTheEnds) {
    const std::vector<Case> cases = {
        {0, Step::Next, 0, 1}, {1, Step::Next, 4, 5}, {2, Step::Next, 4, 5},
        {4, Step::Next, 4, 5}, {5, Step::Next, 7, 8}, {7, Step::Next, 7, 8},
        {8, Step::Next, 0, 1},  // past the last key frame: round to sample 0
        {5, Step::Prev, 0, 1},  // the key frame before the nearest one behind
        {6, Step::Prev, 0, 1}, {4, Step::Prev, 4, 5}, {7, Step::Prev, 7, 8},
        {8, Step::Prev, 4, 5}, {2, Step::Prev, 7, 8},  // before key frame 0: round to the last
        {1, Step::Prev, 7, 8}, {-3, Step::Next, 0, 1}, {-3, Step::Prev, 0, 1},
    };
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT})
        RunCases(TenSamplesKeysAt0And4And7(), mode, cases);
}

TEST(KeyFrameStepTest, AtTheLastSampleTheTableGivesTheLastKeyFrameAndTheMarksWalk) {
    // Cursor 10 and beyond is brought back to sample 9, at the last time.
    RunCases(TenSamplesKeysAt0And4And7(), MP4_TABLE_KEYFRAMES,
             {{9, Step::Next, 7, 8}, {9, Step::Prev, 7, 8}, {10, Step::Next, 7, 8},
              {10, Step::Prev, 7, 8}, {500, Step::Next, 7, 8}});
    RunCases(TenSamplesKeysAt0And4And7(), MP4_TABLE_MARKS,
             {{9, Step::Next, 0, 1}, {9, Step::Prev, 4, 5}, {10, Step::Next, 0, 1},
              {10, Step::Prev, 4, 5}, {500, Step::Prev, 4, 5}});
}

TEST(KeyFrameStepTest, SampleZeroWithoutKeyMark) {
    // Eight samples, key frames at 2 and 5: sample 0 at time 0 is none.
    const MiniTrack track = KeyFrameVideo(8, {2, 5});
    const std::vector<Case> common = {{0, Step::Next, 2, 3}, {1, Step::Prev, 5, 6},
                                      {3, Step::Prev, 5, 6}, {6, Step::Prev, 2, 3}};
    RunCases(track, MP4_TABLE_KEYFRAMES, common);
    RunCases(track, MP4_TABLE_MARKS, common);
    // At time 0 the table goes to its first key frame, the marks round to
    // the last; at the last time the table stays on the last key frame.
    RunCases(track, MP4_TABLE_KEYFRAMES, {{0, Step::Prev, 2, 3}, {7, Step::Next, 5, 6}});
    RunCases(track, MP4_TABLE_MARKS, {{0, Step::Prev, 5, 6}, {7, Step::Next, 0, 1}});

    // Past the last key frame both give sample 0, which is no key frame.
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
        OpenedFile opened(BuildMiniMp4({track}), mode);
        FirstVideo(opened.handle)->SampleCursor = 6;
        Got got = Invoke(Step::Next, opened.handle, 1, 1);
        EXPECT_EQ(got.number, 0u);
        EXPECT_EQ(got.key, 0);
    }
}

TEST(KeyFrameStepTest, NextThreeTimesVisitsEachKeyFrameThenWraps) {
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
        SCOPED_TRACE(mode);
        OpenedFile opened(BuildMiniMp4({TenSamplesKeysAt0And4And7()}), mode);
        std::vector<uint32_t> seen;
        for (int i = 0; i < 3; ++i) seen.push_back(Invoke(Step::Next, opened.handle, 1, 1).number);
        EXPECT_EQ(seen, (std::vector<uint32_t>{0, 4, 7}));
        EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, 8);
        EXPECT_EQ(Invoke(Step::Next, opened.handle, 1, 1).number, 0u);
    }
}

TEST(KeyFrameStepTest, EveryKeyFrameTrackStaysOnTheCursorSoPrevWalksForward) {
    const MiniTrack track = KeyFrameVideo(5, {0, 1, 2, 3, 4});
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
        SCOPED_TRACE(mode);
        OpenedFile opened(BuildMiniMp4({track}), mode);
        ASSERT_EQ(opened.result, 1);
        std::vector<uint32_t> seen;
        for (int i = 0; i < 7; ++i) seen.push_back(Invoke(Step::Prev, opened.handle, 1, 1).number);
        EXPECT_EQ(seen, (std::vector<uint32_t>{0, 1, 2, 3, 4, 4, 4}));
    }
}

TEST(KeyFrameStepTest, TrackWithoutKeyFramesGivesSampleZero) {
    const std::vector<Case> cases = {{0, Step::Next, 0, 1}, {3, Step::Next, 0, 1},
                                     {5, Step::Next, 0, 1}, {9, Step::Prev, 0, 1},
                                     {2, Step::Prev, 0, 1}, {0, Step::Prev, 0, 1}};
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS})
        RunCases(KeyFrameVideo(6, {}), mode, cases);
}

TEST(KeyFrameStepTest, OneSampleVideoTrackGivesZeroAndKeepsTheCursor) {
    for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
        OpenedFile opened(BuildMiniMp4({KeyFrameVideo(1, {0})}), mode);
        for (Step step : {Step::Next, Step::Prev}) {
            FirstVideo(opened.handle)->SampleCursor = 3;
            Got got = Invoke(step, opened.handle, 1, 1);
            EXPECT_EQ(got.result, 0);
            EXPECT_TRUE(got.untouched);
            EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, 3);
        }
    }
}

TEST(KeyFrameStepTest, ResultCodesOfTheArgumentsAndTheTrack) {
    MiniTrack broken = KeyFrameVideo(4, {0}, 1);
    broken.replace["stco"] = {};
    MiniTrack audio = KeyFrameVideo(4, {}, 2);
    audio.handler = "soun";
    audio.withStss = false;
    OpenedFile opened(BuildMiniMp4({broken, audio, KeyFrameVideo(4, {0}, 3)}), 1);
    struct Failure {
        const char *name;
        bool nullFile;
        uint32_t id;
        int32_t type;
        int32_t result;
    };
    const std::vector<Failure> failures = {
        {"null file", true, 3, 1, -99},    {"ID 0 before the type", false, 0, 2, -99},
        {"audio type, any ID", false, 77, 2, -95}, {"audio type, audio ID", false, 2, 2, -95},
        {"type 3", false, 3, 3, -94},      {"unknown video ID", false, 9, 1, -96},
        {"record without Track", false, 1, 1, -91},
    };
    for (const Failure &f : failures) {
        for (Step step : {Step::Next, Step::Prev}) {
            SCOPED_TRACE(f.name);
            Got got = Invoke(step, f.nullFile ? nullptr : opened.handle, f.id, f.type);
            EXPECT_EQ(got.result, f.result);
            EXPECT_TRUE(got.untouched);
        }
    }
    EXPECT_EQ(NextKeyFrame(opened.handle, 3, 1, nullptr), -99);
    EXPECT_EQ(PrevKeyFrame(opened.handle, 3, 1, nullptr), -99);
    ASSERT_EQ(Invoke(Step::Next, opened.handle, 3, 1).result, 1);
    TrackNode *node = opened.handle->read.VideoCurrent->Track;
    SampleRecord *records = node->SampleRecords;
    node->SampleRecords = nullptr;
    EXPECT_EQ(Invoke(Step::Next, opened.handle, 3, 1).result, -90);
    EXPECT_EQ(Invoke(Step::Prev, opened.handle, 3, 1).result, -90);
    node->SampleRecords = records;
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
        for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS}) {
            for (Step step : {Step::Next, Step::Prev}) {
                SCOPED_TRACE(testing::Message() << f.name << " mode " << mode);
                OpenedFile opened(BuildMiniMp4({f.track}), mode);
                ASSERT_EQ(opened.result, 1);
                // From 6 the previous step goes back to 0; from 5 it lands on 4.
                FirstVideo(opened.handle)->SampleCursor = step == Step::Next ? 2 : 4;
                Got got = Invoke(step, opened.handle, 1, 1);
                EXPECT_EQ(got.result, f.result);
                EXPECT_TRUE(got.untouched);
                EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, f.cursorAfter);
            }
        }
    }
}

// ---- FFmpeg fixtures -------------------------------------------------------

const char *const kVideoFixtures[] = {"mpeg4_aac.mp4",     "mpeg4_gop12.mp4",
                                      "mpeg4_gop12_no_stss.mp4", "mpeg4_bframes.mp4",
                                      "mpeg4_gop250.mp4",  "h263_aac.3gp"};

// The landing from the listing's key marks: a key frame under the cursor
// stays; Next goes to the key frame after, round to sample 0; Prev to the
// key frame before the nearest one behind, round to the last key frame.
// At the last sample the table path gives the last key frame instead.
size_t ExpectedStep(const ExpectedTrack &track, size_t cursor, Step step, bool table) {
    const auto &s = track.samples;
    const size_t n = s.size();
    if (cursor >= n) cursor = n - 1;
    if (s[cursor].key) return cursor;
    auto lastKeyAtOrBefore = [&](size_t from) -> long {
        for (long i = long(from); i >= 0; --i)
            if (s[size_t(i)].key) return i;
        return -1;
    };
    if (table && cursor == n - 1) return size_t(lastKeyAtOrBefore(n - 1));
    if (step == Step::Next) {
        for (size_t i = cursor + 1; i < n; ++i)
            if (s[i].key) return i;
        return 0;
    }
    long nearest = lastKeyAtOrBefore(cursor);
    long before = nearest > 0 ? lastKeyAtOrBefore(size_t(nearest) - 1) : -1;
    return size_t(before >= 0 ? before : lastKeyAtOrBefore(n - 1));
}

TEST(KeyFrameStepFixtures, EveryCursorLandsWhereTheListingSaysInAllModes) {
    for (const char *name : kVideoFixtures) {
        Listing listing = LoadListing(FixturePath(std::string(name) + ".samples"));
        ASSERT_EQ(listing.error, "") << name;
        const ExpectedTrack &track = listing.tracks.front();
        ASSERT_EQ(track.type, MP4_TRACK_VIDEO) << name;
        for (int32_t mode : {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT}) {
            OpenedFile opened(ReadWholeFile(FixturePath(name)), mode);
            ASSERT_EQ(opened.result, 1);
            VideoTrackNode *video = FirstVideo(opened.handle);
            for (size_t cursor = 0; cursor <= track.samples.size() + 2; ++cursor) {
                for (Step step : {Step::Next, Step::Prev}) {
                    SCOPED_TRACE(testing::Message() << name << " mode " << mode << " cursor "
                                                    << cursor << (step == Step::Next ? " Next" : " Prev"));
                    const size_t want = ExpectedStep(track, cursor, step, mode == 1);
                    video->SampleCursor = int32_t(cursor);
                    MP4Sample *sample = nullptr;
                    int32_t result = step == Step::Next
                                         ? NextKeyFrame(opened.handle, track.id, 1, &sample)
                                         : PrevKeyFrame(opened.handle, track.id, 1, &sample);
                    ASSERT_EQ(result, 1);
                    EXPECT_EQ(sample->Time, track.samples[want].time);
                    EXPECT_EQ(Crc32(sample->Data, sample->Size), track.samples[want].crc);
                    EXPECT_EQ(video->SampleCursor, int32_t(want + 1));
                    SampleDataFree(&sample);
                }
            }
        }
    }
}

}  // namespace
