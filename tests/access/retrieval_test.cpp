// Sample retrieval: result codes, cursors, the caches, and what the caller
// receives.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "seek_support.h"

using namespace testing_support;
using namespace seek_support;

namespace {

std::vector<Bytes> Samples(size_t count, size_t size = 6) { return NumberedSamples(count, size); }
MiniTrack Video(uint32_t id, std::vector<Bytes> samples) { return VideoTrack(id, std::move(samples)); }
MiniTrack Audio(uint32_t id, std::vector<Bytes> samples) { return AudioTrack(id, std::move(samples)); }

Got Next(MP4_local_file *handle, uint32_t id, int32_t type) {
    MP4Sample *sample = kUntouched;
    return Take(GetNextSample(handle, id, type, &sample), &sample);
}

Got At(MP4_local_file *handle, uint32_t id, int32_t type, int32_t time) {
    MP4Sample *sample = kUntouched;
    return Take(GetSample(handle, id, type, time, &sample), &sample);
}

// Every sample of the FFmpeg fixtures is read and compared in
// fixture_read_test.cpp; here the edges of the time search.
TEST(GetSampleTest, GivesTheLastSampleAtOrBeforeTheTimeAndNextGoesOnBehindIt) {
    OpenedFile opened(BuildMiniMp4({Video(1, Samples(10))}));
    struct Case {
        int32_t time;
        uint32_t sampleTime;
    };
    const std::vector<Case> cases = {{0, 0},   {-5, 0},   {70, 70},  {69, 60}, {71, 70},
                                     {90, 90}, {500, 90}, {1, 0},    {INT32_MAX, 90}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.time);
        Got call = At(opened.handle, 1, 1, c.time);
        ASSERT_EQ(call.result, 1);
        EXPECT_EQ(call.time, c.sampleTime);
    }
    EXPECT_EQ(At(opened.handle, 1, 1, 70).time, 70u);
    EXPECT_EQ(Next(opened.handle, 1, 1).time, 80u);
    EXPECT_EQ(At(opened.handle, 1, 1, 1000).time, 90u);
    EXPECT_EQ(Next(opened.handle, 1, 1).result, 0);
}

TEST(FindingATrack, ResultCodesOfEachStep) {
    MiniTrack hint = Audio(3, Samples(2));
    hint.handler = "hint";
    const std::vector<MiniTrack> videoAndAudio = {Video(1, Samples(3)), Audio(2, Samples(3))};
    const std::vector<MiniTrack> audioOnly = {Audio(2, Samples(3))};
    const std::vector<MiniTrack> videoOnly = {Video(1, Samples(3))};
    const std::vector<MiniTrack> withHint = {Video(1, Samples(3)), hint};
    struct Case {
        const char *name;
        const std::vector<MiniTrack> &tracks;
        bool nullFile;
        uint32_t id;
        int32_t type;
        int32_t result;
    };
    const Case cases[] = {
        {"null file", videoAndAudio, true, 1, 1, -99},
        {"ID 0", videoAndAudio, false, 0, 1, -99},
        {"ID 0 before the type", videoAndAudio, false, 0, 7, -99},
        {"no video track", audioOnly, false, 2, 1, -98},
        {"audio ID as video, beside a video track", videoAndAudio, false, 2, 1, -96},
        {"no audio track", videoOnly, false, 1, 2, -95},
        {"video ID as audio, beside an audio track", videoAndAudio, false, 1, 2, -93},
        {"type 3", videoAndAudio, false, 1, 3, -92},
        {"type 3 with the ID of a hint track", withHint, false, 3, 3, -92},
        {"type 0", videoAndAudio, false, 1, 0, -92},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(BuildMiniMp4(c.tracks));
        MP4_local_file *file = c.nullFile ? nullptr : opened.handle;
        for (const Got &call : {Next(file, c.id, c.type), At(file, c.id, c.type, 15)}) {
            EXPECT_EQ(call.result, c.result);
            EXPECT_TRUE(call.untouched);
        }
    }
}

TEST(FindingATrack, CacheMovesToTheRecordFoundEvenWhenItFails) {
    MiniTrack broken = Video(2, Samples(3));
    broken.replace["stco"] = {};
    OpenedFile opened(BuildMiniMp4({Video(1, Samples(3)), broken, Video(3, Samples(3))}));
    ReadForm &form = opened.handle->read;
    EXPECT_EQ(Next(opened.handle, 2, 1).result, -96);
    ASSERT_NE(form.VideoCurrent, nullptr);
    EXPECT_EQ(form.VideoCurrent->TrackId, 2u);
    // Now the cache holds the ID, and the missing Track is found out later.
    EXPECT_EQ(Next(opened.handle, 2, 1).result, -90);
    EXPECT_EQ(Next(opened.handle, 3, 1).result, 1);
    EXPECT_EQ(form.VideoCurrent->TrackId, 3u);
    // Not found at all: the cache stays.
    EXPECT_EQ(Next(opened.handle, 9, 1).result, -96);
    EXPECT_EQ(form.VideoCurrent->TrackId, 3u);
    form.VideoCurrent = nullptr;
    EXPECT_EQ(Next(opened.handle, 9, 1).result, -97);
    EXPECT_EQ(Next(opened.handle, 2, 1).result, -97);
}

TEST(Cursors, TwoTracksReadInTurnKeepTheirPlaces) {
    OpenedFile opened(BuildMiniMp4(
        {Video(1, Samples(4)), Video(5, Samples(4)), Audio(2, Samples(4)), Audio(6, Samples(4))}));
    std::vector<std::pair<uint32_t, int32_t>> order = {{1, 1}, {5, 1}, {1, 1}, {2, 2},
                                                        {6, 2}, {6, 2}, {5, 1}, {2, 2}};
    std::map<uint32_t, uint32_t> expected;
    for (auto [id, type] : order) {
        Got call = Next(opened.handle, id, type);
        ASSERT_EQ(call.result, 1);
        EXPECT_EQ(call.time, expected[id] * 10) << "track " << id;
        ++expected[id];
    }
    EXPECT_EQ(opened.handle->read.VideoCurrent->TrackId, 5u);
    EXPECT_EQ(opened.handle->read.AudioCurrent->TrackId, 2u);
}

TEST(Cursors, ZeroSizedSampleStopsTheCursorUntilMovedPast) {
    struct Case {
        const char *name;
        MiniTrack track;
        int32_t type;
        int32_t code;
    };
    std::vector<Bytes> samples = Samples(4);
    samples[1].clear();
    const std::vector<Case> cases = {{"video", Video(1, samples), 1, -87},
                                     {"audio", Audio(1, samples), 2, -83}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(BuildMiniMp4({c.track}));
        EXPECT_EQ(Next(opened.handle, 1, c.type).result, 1);
        for (int i = 0; i < 3; ++i) {
            Got stuck = Next(opened.handle, 1, c.type);
            EXPECT_EQ(stuck.result, c.code);
            EXPECT_TRUE(stuck.untouched);
        }
        EXPECT_EQ(At(opened.handle, 1, c.type, 10).result, c.code) << "GetSample lands on it";
        EXPECT_EQ(At(opened.handle, 1, c.type, 20).time, 20u);
        EXPECT_EQ(Next(opened.handle, 1, c.type).time, 30u);
    }
}

TEST(Cursors, SampleCutByTheEndOfTheFileGives82AndMovesOn) {
    for (int32_t type : {1, 2}) {
        SCOPED_TRACE(type);
        std::vector<MiniTrack> tracks = {type == 1 ? Video(1, Samples(4, 8))
                                                   : Audio(1, Samples(4, 8))};
        // Sample 2 moved to the last 4 bytes of the file, half of it outside.
        uint32_t size = uint32_t(BuildMiniMp4(tracks).size());
        tracks[0].samplesPerChunk = 1;
        tracks[0].replace["stco"] = Stco({kMiniDataStart, kMiniDataStart + 8, size - 4,
                                          kMiniDataStart + 24});
        OpenedFile opened(BuildMiniMp4(tracks));
        EXPECT_EQ(Next(opened.handle, 1, type).result, 1);
        EXPECT_EQ(Next(opened.handle, 1, type).result, 1);
        Got cut = Next(opened.handle, 1, type);
        EXPECT_EQ(cut.result, -82);
        EXPECT_TRUE(cut.untouched);
        Got after = Next(opened.handle, 1, type);
        EXPECT_EQ(after.result, 1);
        EXPECT_EQ(after.time, 30u);
        EXPECT_EQ(At(opened.handle, 1, type, 25).result, -82) << "GetSample moves past it too";
        EXPECT_EQ(Next(opened.handle, 1, type).time, 30u);
    }
}

TEST(Cursors, SampleFarPastTheEndOfTheFileIsNotAllocated) {
    MiniTrack track = Audio(1, Samples(2, 8));
    track.replace["stsz"] = StszTable({8, 0x7FFFFFF0});
    track.replace["stco"] = Stco({kMiniDataStart, kMiniDataStart + 8});
    OpenedFile opened(BuildMiniMp4({track}));
    EXPECT_EQ(Next(opened.handle, 1, 2).result, 1);
    EXPECT_EQ(Next(opened.handle, 1, 2).result, -82);
    EXPECT_EQ(Next(opened.handle, 1, 2).result, 0);
}

TEST(Arguments, NullSampleAddressIsRefusedAndMovesNothing) {
    OpenedFile opened(BuildMiniMp4({Video(1, Samples(4)), Video(2, Samples(4))}));
    EXPECT_EQ(GetNextSample(opened.handle, 2, 1, nullptr), -99);
    EXPECT_EQ(GetSample(opened.handle, 2, 1, 30, nullptr), -99);
    EXPECT_EQ(opened.handle->read.VideoCurrent->TrackId, 1u);
    EXPECT_EQ(Next(opened.handle, 2, 1).time, 0u);
}

TEST(Release, FreeCallsNullTheCallersPointerAndSamplesOutliveTheHandle) {
    std::vector<MiniTrack> tracks = {Video(1, Samples(3))};
    MP4Sample *sample = nullptr;
    {
        OpenedFile opened(BuildMiniMp4(tracks));
        ASSERT_EQ(GetNextSample(opened.handle, 1, 1, &sample), 1);
    }
    EXPECT_EQ(Bytes(sample->Data, sample->Data + sample->Size), tracks[0].samples[0]);
    EXPECT_EQ(SampleDataFree(&sample), 1);
    EXPECT_EQ(sample, nullptr);
    EXPECT_EQ(SampleDataFree(&sample), 1);
    EXPECT_EQ(SampleDataFree(nullptr), 1);

    void *block = std::malloc(16);
    EXPECT_EQ(MP4freeData(&block), 1);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(MP4freeData(&block), 1);
    EXPECT_EQ(MP4freeData(nullptr), 1);
}

TEST(TimeSearch, LastEntryAtOrBeforeTheTime) {
    std::vector<SampleRecord> records(5);
    const uint32_t times[] = {0, 10, 10, 30, 40};
    for (size_t i = 0; i < 5; ++i) records[i].Time = times[i];
    struct Case {
        uint32_t count;
        int32_t time;
        int32_t index;
    };
    const std::vector<Case> cases = {{5, 0, 0},  {5, 5, 0},  {5, 10, 2}, {5, 29, 2},
                                     {5, 30, 3}, {5, 99, 4}, {5, -1, -1}, {0, 10, -1},
                                     {1, 10, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.time);
        EXPECT_EQ(SearchSampleTime(records.data(), c.count, c.time), c.index);
    }
}

}  // namespace
