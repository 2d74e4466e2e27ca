// Seeking by time: where SeekTrack and SeekTrackPos land, on the key frame
// table and on the key frame marks, what they return and where the cursor
// ends; and on the FFmpeg fixtures against their listings.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "seek_support.h"
#include "support/listing.h"

using namespace testing_support;
using namespace seek_support;

namespace {

const int32_t kModes[] = {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT};

enum class Call { Seek, Pos };

// SeekTrack gives the sample; SeekTrackPos only its time, as `time`.
Got Invoke(Call call, MP4_local_file *handle, uint32_t id, int32_t type, int32_t time) {
    if (call == Call::Seek) {
        MP4Sample *sample = kUntouched;
        return Take(SeekTrack(handle, id, type, time, &sample), &sample);
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
    int32_t time;
    uint32_t sample;  // the sample returned, or whose time is given
    int32_t cursorAfter;
};

// Every case from its own cursor: the choice depends on the time alone.
void RunCases(const MiniTrack &track, int32_t mode, const std::vector<Case> &cases) {
    OpenedFile opened(BuildMiniMp4({track}), mode);
    ASSERT_EQ(opened.result, 1);
    VideoTrackNode *video = FirstVideo(opened.handle);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << mode << ", cursor " << c.cursorBefore
                                        << (c.call == Call::Seek ? ", SeekTrack " : ", SeekTrackPos ")
                                        << c.time);
        video->SampleCursor = c.cursorBefore;
        Got got = Invoke(c.call, opened.handle, 1, MP4_TRACK_VIDEO, c.time);
        ASSERT_EQ(got.result, 1);
        EXPECT_EQ(got.number, c.sample);
        EXPECT_EQ(got.time, c.sample * 10);
        EXPECT_EQ(video->SampleCursor, c.cursorAfter);
    }
}

TEST(SeekTrackTest, LandsOnTheLastKeyFrameAtOrBeforeTheTimeInEveryMode) {
    // Key frames at times 0, 100, 200; the last sample at 290.
    const std::vector<Case> cases = {
        {0, Call::Seek, 150, 10, 11},       {0, Call::Pos, 150, 10, 10},
        {25, Call::Seek, 100, 10, 11},      {25, Call::Seek, 99, 0, 1},
        {5, Call::Pos, 99, 0, 0},           {7, Call::Seek, 0, 0, 1},
        {7, Call::Seek, -5, 0, 1},          {0, Call::Seek, INT32_MIN, 0, 1},
        {0, Call::Seek, 1, 0, 1},           {0, Call::Seek, 199, 10, 11},
        {0, Call::Seek, 201, 20, 21},       {0, Call::Seek, 289, 20, 21},
        {0, Call::Seek, 290, 20, 21},       {0, Call::Pos, 290, 20, 20},
        {3, Call::Seek, 1000, 20, 21},      {30, Call::Pos, INT32_MAX, 20, 20},
        {-4, Call::Pos, 205, 20, 20},
    };
    for (int32_t mode : kModes) RunCases(ThirtySamplesKeysAt0And100And200(), mode, cases);
}

TEST(SeekTrackTest, NextSampleFollowsTheKeyFrameOrIsTheKeyFrame) {
    for (int32_t mode : kModes) {
        SCOPED_TRACE(mode);
        OpenedFile opened(BuildMiniMp4({ThirtySamplesKeysAt0And100And200()}), mode);
        MP4Sample *sample = kUntouched;
        EXPECT_EQ(Take(SeekTrack(opened.handle, 1, 1, 150, &sample), &sample).time, 100u);
        sample = kUntouched;
        EXPECT_EQ(Take(GetNextSample(opened.handle, 1, 1, &sample), &sample).time, 110u);
        uint32_t position = 0;
        EXPECT_EQ(SeekTrackPos(opened.handle, 1, 1, 150, &position), 1);
        EXPECT_EQ(position, 100u);
        sample = kUntouched;
        Got next = Take(GetNextSample(opened.handle, 1, 1, &sample), &sample);
        EXPECT_EQ(next.time, 100u);
        EXPECT_EQ(next.key, 1);
    }
}

TEST(SeekTrackTest, BeforeTheFirstKeyFrameLandsOnSampleZero) {
    // Key frames at samples 2 and 5 (times 20 and 50) of 8. Only a time at
    // or below 0 on the table path goes to the table's first key frame.
    const MiniTrack track = KeyFrameVideo(8, {2, 5});
    const std::vector<Case> common = {
        {6, Call::Seek, 10, 0, 1},  {6, Call::Pos, 19, 0, 0},  {0, Call::Seek, 20, 2, 3},
        {0, Call::Seek, 49, 2, 3},  {0, Call::Seek, 55, 5, 6}, {0, Call::Pos, 1000, 5, 5},
    };
    for (int32_t mode : kModes) RunCases(track, mode, common);
    RunCases(track, MP4_TABLE_KEYFRAMES, {{6, Call::Seek, 0, 2, 3}, {6, Call::Pos, -1, 2, 2}});
    RunCases(track, MP4_TABLE_MARKS, {{6, Call::Seek, 0, 0, 1}, {6, Call::Pos, -1, 0, 0}});
}

TEST(SeekTrackTest, TrackWithoutKeyFramesLandsOnSampleZero) {
    const MiniTrack track = KeyFrameVideo(6, {});
    const std::vector<Case> cases = {{4, Call::Seek, 0, 0, 1},
                                     {4, Call::Seek, 35, 0, 1},
                                     {4, Call::Pos, 1000, 0, 0},
                                     {4, Call::Pos, -3, 0, 0}};
    for (int32_t mode : kModes) RunCases(track, mode, cases);
}

TEST(SeekTrackTest, AudioGivesTheSampleGetSampleGives) {
    MiniTrack audio = KeyFrameVideo(12, {});
    audio.handler = "soun";
    audio.withStss = false;
    OpenedFile opened(BuildMiniMp4({audio}));
    AudioTrackNode *record = opened.handle->read.AudioFirst;
    for (int32_t time : {INT32_MIN, -1, 0, 1, 35, 40, 109, 110, 111, INT32_MAX}) {
        SCOPED_TRACE(time);
        MP4Sample *sample = kUntouched;
        Got wanted = Take(GetSample(opened.handle, 1, 2, time, &sample), &sample);
        const uint32_t cursorWanted = record->SampleCursor;
        sample = kUntouched;
        Got got = Take(SeekTrack(opened.handle, 1, 2, time, &sample), &sample);
        ASSERT_EQ(got.result, 1);
        EXPECT_EQ(got.number, wanted.number);
        EXPECT_EQ(got.key, 0);
        EXPECT_EQ(record->SampleCursor, cursorWanted);
        uint32_t position = 0;
        EXPECT_EQ(SeekTrackPos(opened.handle, 1, 2, time, &position), 1);
        EXPECT_EQ(position, wanted.time);
        EXPECT_EQ(record->SampleCursor, cursorWanted - 1);
    }
}

TEST(SeekTrackTest, OneSampleVideoTrackGivesZeroAndKeepsTheCursor) {
    for (int32_t mode : kModes) {
        SCOPED_TRACE(mode);
        OpenedFile opened(BuildMiniMp4({KeyFrameVideo(1, {0})}), mode);
        ASSERT_EQ(opened.result, 1);
        for (Call call : {Call::Seek, Call::Pos}) {
            for (int32_t time : {0, 5, 1000}) {
                Got got = Invoke(call, opened.handle, 1, 1, time);
                EXPECT_EQ(got.result, 0);
                EXPECT_TRUE(got.untouched);
                EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, 0);
            }
        }
    }
}

// Failures before the choice leave the cursor and the out argument alone.
TEST(SeekTrackTest, ResultCodesOfEachFailureLeaveTheCursor) {
    MiniTrack brokenVideo = KeyFrameVideo(4, {0}, 1);
    brokenVideo.replace["stco"] = {};
    MiniTrack brokenAudio = KeyFrameVideo(4, {}, 2);
    brokenAudio.handler = "soun";
    brokenAudio.withStss = false;
    brokenAudio.replace["stco"] = {};
    MiniTrack video = KeyFrameVideo(4, {0}, 3);
    MiniTrack audio = KeyFrameVideo(4, {}, 4);
    audio.handler = "soun";
    audio.withStss = false;
    OpenedFile opened(BuildMiniMp4({brokenVideo, brokenAudio, video, audio}), 1);
    ASSERT_EQ(opened.result, 1);
    struct Failure {
        const char *name;
        uint32_t id;
        int32_t type;
        int32_t seek;
        int32_t pos;
    };
    const std::vector<Failure> failures = {
        {"bad type", 3, 3, -92, -92},
        {"ID 0", 0, 1, -99, -99},
        {"video record without Track", 1, 1, -90, -91},
        {"audio record without Track", 2, 2, -86, -89},
    };
    for (const Failure &f : failures) {
        SCOPED_TRACE(f.name);
        EXPECT_EQ(Invoke(Call::Seek, opened.handle, f.id, f.type, 50).result, f.seek);
        Got pos = Invoke(Call::Pos, opened.handle, f.id, f.type, 50);
        EXPECT_EQ(pos.result, f.pos);
        EXPECT_TRUE(pos.untouched);
    }
    // Tables without sample records, on otherwise sound tracks.
    const std::vector<Failure> noRecords = {{"video", 3, 1, -89, -90}, {"audio", 4, 2, -85, -88}};
    for (const Failure &f : noRecords) {
        SCOPED_TRACE(f.name);
        ASSERT_EQ(Invoke(Call::Pos, opened.handle, f.id, f.type, 0).result, 1);
        TrackNode *node = f.type == 1 ? opened.handle->read.VideoCurrent->Track
                                      : opened.handle->read.AudioCurrent->Track;
        SampleRecord *records = node->SampleRecords;
        node->SampleRecords = nullptr;
        EXPECT_EQ(Invoke(Call::Seek, opened.handle, f.id, f.type, 50).result, f.seek);
        EXPECT_EQ(Invoke(Call::Pos, opened.handle, f.id, f.type, 50).result, f.pos);
        node->SampleRecords = records;
    }
    VideoTrackNode *record = opened.handle->read.VideoCurrent;
    record->SampleCursor = 2;
    EXPECT_EQ(SeekTrack(opened.handle, 3, 1, 0, nullptr), -99);
    EXPECT_EQ(SeekTrackPos(opened.handle, 3, 1, 0, nullptr), -99);
    EXPECT_EQ(record->SampleCursor, 2);
}

// ---- FFmpeg fixtures -------------------------------------------------------

const char *const kFixtures[] = {
    "mpeg4_aac.mp4",       "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4",
    "mpeg4_gop12_no_stss.mp4", "mpeg4_bframes.mp4",  "mpeg4_gop250.mp4",
    "mpeg4_one_frame.mp4", "aac_mono_8000.mp4",      "aac_stereo_48000.mp4",
    "mp3_stereo_44100.mp4", "h263.3gp",              "h263_aac.3gp",
};

// What the listing says a seek to `time` lands on: the last sample at or
// before it, and for video the last key frame at or before that one.
size_t ExpectedLanding(const ExpectedTrack &track, int32_t time) {
    size_t index = 0;
    for (size_t i = 0; i < track.samples.size(); ++i)
        if (int32_t(track.samples[i].time) <= time) index = i;
    if (track.type == MP4_TRACK_VIDEO)
        while (index > 0 && !track.samples[index].key) --index;
    return index;
}

// Times at, around and between every sample, and far outside the track.
std::vector<int32_t> SpreadOfTimes(const ExpectedTrack &track) {
    std::vector<int32_t> times = {INT32_MIN, -1, 0, INT32_MAX};
    for (const auto &sample : track.samples) {
        int32_t t = int32_t(sample.time);
        times.insert(times.end(), {t - 1, t, t + 1});
    }
    times.push_back(int32_t(track.samples.back().time) + 100000);
    return times;
}

// Tracks the library gives up or keeps empty, each tested elsewhere.
bool Readable(const ExpectedTrack &track) {
    if (track.type != MP4_TRACK_VIDEO) return true;
    return track.samples.size() > 1 && track.keys != KeySource::None;
}

TEST(SeekTrackFixtures, LandOnTheListedKeyFrameInAllModes) {
    for (const char *name : kFixtures) {
        Listing listing = LoadListing(FixturePath(std::string(name) + ".samples"));
        ASSERT_EQ(listing.error, "") << name;
        for (int32_t mode : kModes) {
            OpenedFile opened(ReadWholeFile(FixturePath(name)), mode);
            ASSERT_EQ(opened.result, 1) << name;
            for (const ExpectedTrack &track : listing.tracks) {
                if (!Readable(track)) continue;
                for (int32_t time : SpreadOfTimes(track)) {
                    SCOPED_TRACE(testing::Message() << name << " mode " << mode << " track "
                                                    << track.id << " time " << time);
                    const ExpectedSample &want = track.samples[ExpectedLanding(track, time)];
                    MP4Sample *sample = nullptr;
                    ASSERT_EQ(SeekTrack(opened.handle, track.id, track.type, time, &sample), 1);
                    EXPECT_EQ(sample->Time, want.time);
                    EXPECT_EQ(Crc32(sample->Data, sample->Size), want.crc);
                    if (track.type == MP4_TRACK_VIDEO) {
                        EXPECT_EQ(sample->IsKeyFrame, 1);
                    }
                    SampleDataFree(&sample);
                    uint32_t position = 0;
                    ASSERT_EQ(SeekTrackPos(opened.handle, track.id, track.type, time, &position),
                              1);
                    EXPECT_EQ(position, want.time);
                    ASSERT_EQ(GetNextSample(opened.handle, track.id, track.type, &sample), 1);
                    EXPECT_EQ(Crc32(sample->Data, sample->Size), want.crc);
                    SampleDataFree(&sample);
                }
            }
        }
    }
}

}  // namespace
