// Damaged files: every prefix of a small file and thousands of seeded byte
// corruptions open and read to the end, or fail with a result code. Run
// under the sanitizer build, this is also the check for overruns and leaks.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

const std::set<int32_t> kOpenResults = {1, -95, -96};
const std::set<int32_t> kSampleResults = {1, 0, -82, -83, -85, -86, -87, -89, -90, -93, -94, -96, -97};

// Opens `path` and reads every sample of every video and audio track, then
// a few samples by time; every result must be one the calls document.
void OpenAndReadEverything(const std::string &path, int32_t mode) {
    MP4_local_file *handle = nullptr;
    int32_t opened = MP4FileOpen(&handle, path.c_str(), mode);
    ASSERT_TRUE(kOpenResults.count(opened)) << opened;
    if (opened != 1) {
        ASSERT_EQ(handle, nullptr);
        return;
    }
    std::vector<std::pair<uint32_t, int32_t>> tracks;
    std::vector<uint32_t> counts;
    for (VideoTrackNode *v = handle->read.VideoFirst; v; v = v->NextTrack) {
        tracks.push_back({v->TrackId, 1});
        counts.push_back(v->SampleCount);
    }
    for (AudioTrackNode *a = handle->read.AudioFirst; a; a = a->NextTrack) {
        tracks.push_back({a->TrackId, 2});
        counts.push_back(a->SampleCount);
    }
    for (size_t t = 0; t < tracks.size(); ++t) {
        auto [id, type] = tracks[t];
        // Every turn reads a sample or moves past one, or ends the loop.
        for (uint64_t turn = 0; turn <= uint64_t(counts[t]) + 1; ++turn) {
            MP4Sample *sample = nullptr;
            int32_t result = GetNextSample(handle, id, type, &sample);
            ASSERT_TRUE(kSampleResults.count(result) || id == 0) << result;
            if (result == 1) {
                ASSERT_NE(sample, nullptr);
                ASSERT_GT(sample->Size, 0u);
                SampleDataFree(&sample);
            } else if (result != -82) {
                break;
            }
        }
        for (int32_t time : {-1, 0, 15, 1 << 20, INT32_MAX}) {
            MP4Sample *sample = nullptr;
            int32_t result = GetSample(handle, id, type, time, &sample);
            ASSERT_TRUE(kSampleResults.count(result) || id == 0) << result;
            if (result == 1) SampleDataFree(&sample);
        }
    }
    MP4FileClose(&handle);
    ASSERT_EQ(handle, nullptr);
}

Bytes SmallFile() {
    MiniTrack scanned;
    scanned.trackId = 1;
    for (uint8_t type : {0, 1, 1, 0, 2, 1}) scanned.samples.push_back(Vop(type, 3, 5));
    scanned.samplesPerChunk = 2;
    MiniTrack audio;
    audio.handler = "soun";
    audio.trackId = 2;
    for (int i = 0; i < 5; ++i) audio.samples.push_back(Bytes(7, uint8_t(0x21 + i)));
    audio.replace["stsc"] = Stsc({{1, 2}, {2, 1}});
    MiniTrack synced;
    synced.trackId = 3;
    for (int i = 0; i < 4; ++i) synced.samples.push_back(Bytes(5, uint8_t(0x40 + i)));
    synced.withStss = true;
    synced.syncSamples = {1, 3};
    return BuildMiniMp4MoovFirst({scanned, audio, synced});
}

TEST(Robustness, EveryPrefixOpensAndReadsOrFailsWithACode) {
    const Bytes image = SmallFile();
    CaptureStream quiet(stdout);
    for (size_t length = 0; length <= image.size(); ++length) {
        SCOPED_TRACE(length);
        // A new file each time: rewriting one file from 0 bytes makes some
        // file systems flush it to disk on every close.
        TempFile file(Bytes(image.begin(), image.begin() + length));
        ASSERT_NO_FATAL_FAILURE(OpenAndReadEverything(file.path(), int32_t(length % 3) + 1));
    }
}

// Corrupts 1 to 8 bytes of `image`, half of the time with values that make
// counts and sizes extreme.
Bytes Corrupt(const Bytes &image, std::mt19937 &random) {
    Bytes out = image;
    std::uniform_int_distribution<size_t> where(0, image.size() - 1);
    const uint8_t extremes[] = {0x00, 0x01, 0x7F, 0x80, 0xFF};
    int changes = int(random() % 8) + 1;
    for (int i = 0; i < changes; ++i) {
        uint8_t value = (random() & 1) ? extremes[random() % 5] : uint8_t(random());
        out[where(random)] = value;
    }
    return out;
}

void CorruptAndRead(const Bytes &image, uint32_t seeds) {
    CaptureStream quiet(stdout);
    for (uint32_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        TempFile file(Corrupt(image, random));
        ASSERT_NO_FATAL_FAILURE(OpenAndReadEverything(file.path(), int32_t(seed % 3) + 1));
    }
}

TEST(Robustness, SeededCorruptionsOfASmallFileOpenAndRead) {
    CorruptAndRead(SmallFile(), 3000);
}

TEST(Robustness, SeededCorruptionsOfAnFfmpegFileOpenAndRead) {
    const std::string path = FixturePath("h263_aac.3gp");
    if (!FileExists(path)) GTEST_SKIP() << "fixture not there";
    CorruptAndRead(ReadWholeFile(path), 500);
}

}  // namespace
