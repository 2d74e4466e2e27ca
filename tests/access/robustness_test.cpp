// Damaged files: every prefix of a small file and thousands of seeded byte
// corruptions open and read to the end, or fail with a documented code.
// Run under the sanitizer build, this is also the check for overruns and
// leaks.
#include <gtest/gtest.h>

#include <random>
#include <tuple>
#include <set>

#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

// Opens `image` and reads every sample of every video and audio track, then
// a few by time; every result must be one the calls document.
void OpenAndReadEverything(const Bytes &image, int32_t mode) {
    static const std::set<int32_t> kSampleResults = {1, 0, -82, -83, -85, -86, -87, -89, -90, -93, -94, -96, -97};
    TempFile file(image);  // a new file each time: rewriting one flushes it on some systems
    MP4_local_file *handle = nullptr;
    const int32_t opened = MP4FileOpen(&handle, file.c_str(), mode);
    ASSERT_TRUE(opened == 1 || opened == -95 || opened == -96) << opened;
    ASSERT_EQ(handle == nullptr, opened != 1);
    if (opened != 1) return;
    std::vector<std::tuple<uint32_t, int32_t, uint32_t>> tracks;  // ID, type, count
    for (VideoTrackNode *v = handle->read.VideoFirst; v; v = v->NextTrack) tracks.emplace_back(v->TrackId, 1, v->SampleCount);
    for (AudioTrackNode *a = handle->read.AudioFirst; a; a = a->NextTrack) tracks.emplace_back(a->TrackId, 2, a->SampleCount);
    for (auto [id, type, count] : tracks) {
        // Every turn reads a sample or moves past one, or ends the loop.
        for (uint64_t turn = 0; turn <= uint64_t(count) + 1; ++turn) {
            MP4Sample *sample = nullptr;
            const int32_t result = GetNextSample(handle, id, type, &sample);
            ASSERT_TRUE(kSampleResults.count(result) || id == 0) << result;
            ASSERT_EQ(sample != nullptr && sample->Size > 0, result == 1);
            SampleDataFree(&sample);
            if (result != 1 && result != -82) break;
        }
        for (int32_t time : {-1, 0, 15, 1 << 20, INT32_MAX}) {
            MP4Sample *sample = nullptr;
            const int32_t result = GetSample(handle, id, type, time, &sample);
            ASSERT_TRUE(kSampleResults.count(result) || id == 0) << result;
            SampleDataFree(&sample);
        }
    }
    MP4FileClose(&handle);
    ASSERT_EQ(handle, nullptr);
}

// A scanned video track in chunks of two, audio with two "stsc" entries,
// and video with "stss", index in front so that cuts reach it.
Bytes SmallFile() { return MiniFile("scan 0,1,1,0,2,1 lead 3 first 5 chunk 2 ; audio 5 id 2 stsc 2,1,2,1,2,1,1 ; video 4 id 3 keys 0,2 moov first"); }

TEST(Robustness, EveryPrefixOpensAndReadsOrFailsWithACode) {
    const Bytes image = SmallFile();
    CaptureStream quiet(stdout);
    for (size_t length = 0; length <= image.size(); ++length) {
        SCOPED_TRACE(length);
        ASSERT_NO_FATAL_FAILURE(OpenAndReadEverything(Bytes(image.begin(), image.begin() + length), int32_t(length % 3) + 1));
    }
}

// 1 to 8 bytes changed per seed, half of them to values that make counts
// and sizes extreme.
void CorruptAndRead(const Bytes &image, uint32_t seeds) {
    CaptureStream quiet(stdout);
    for (uint32_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Bytes out = image;
        const uint8_t extremes[] = {0x00, 0x01, 0x7F, 0x80, 0xFF};
        for (int i = int(random() % 8); i >= 0; --i) {
            const uint8_t value = (random() & 1) ? extremes[random() % 5] : uint8_t(random());
            out[random() % image.size()] = value;
        }
        ASSERT_NO_FATAL_FAILURE(OpenAndReadEverything(out, int32_t(seed % 3) + 1));
    }
}

TEST(Robustness, SeededCorruptionsOfASmallFileOpenAndRead) { CorruptAndRead(SmallFile(), 3000); }

TEST(Robustness, SeededCorruptionsOfAnFfmpegFileOpenAndRead) {
    CorruptAndRead(ReadWholeFile(FixturePath("h263_aac.3gp")), 500);
}

}  // namespace
