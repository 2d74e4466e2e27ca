// Interop: the FFmpeg fixtures against the listing ffprobe gave when each
// was made (tests/data/*.samples), in each table mode: every sample through
// GetNextSample with the tracks read in turn, SeekTrack and SeekTrackPos to
// times around every sample, and NextKeyFrame and PrevKeyFrame from every
// cursor.
//
// mp4core's reading differs from ffprobe on purpose in a few places, each
// checked here:
//  - audio samples are never key frames (ffprobe marks every one);
//  - a video track of exactly one sample yields no sample;
//  - a video track without "stss" takes its key frames from the coding type
//    of the plane that starts each sample (I-VOP), and a track with more
//    intra planes than half its samples is given up.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "seek_support.h"
#include "support/listing.h"

using namespace testing_support;

namespace {

const int32_t kModes[] = {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT};

const char *const kFixtures[] = {
    "mpeg4_aac.mp4",        "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4",
    "mpeg4_gop12_no_stss.mp4", "mpeg4_bframes.mp4",   "mpeg4_gop1.mp4",
    "mpeg4_gop250.mp4",     "mpeg4_one_frame.mp4",    "aac_mono_8000.mp4",
    "aac_stereo_22050.mp4", "aac_mono_44100.mp4",     "aac_stereo_48000.mp4",
    "mp3_stereo_44100.mp4", "h263.3gp",               "h263_aac.3gp",
};

bool IsOneSampleVideo(const ExpectedTrack &track) {
    return track.type == MP4_TRACK_VIDEO && track.samples.size() == 1;
}

// A video track without "stss" whose samples are all key frames (FFmpeg
// leaves "stss" out then): more key frames than half the samples.
bool IsAllIntraWithoutStss(const ExpectedTrack &track) {
    return track.type == MP4_TRACK_VIDEO && track.samples.size() > 1 &&
           track.keys == KeySource::None;
}

// What mp4core marks: the listing's key frames for video, none for audio.
bool KeyOf(const ExpectedTrack &track, size_t i) {
    return track.type == MP4_TRACK_VIDEO && track.samples[i].key;
}

// Reads the tracks in turn, one sample of each, so that every track has to
// keep its own cursor. Checks what every sample record promises whatever
// the file (Reserved 0, Size not 0), that the end of a track repeats and
// leaves the out argument alone, and then every sample against the listing;
// a track that goes wrong goes wrong for many samples, so the first few are
// shown, then the count.
void ReadInTurnAndCompare(MP4_local_file *file, const std::vector<const ExpectedTrack *> &tracks) {
    struct Read {
        uint32_t time, size;
        bool key;
        uint32_t crc;
    };
    std::vector<std::vector<Read>> read(tracks.size());
    std::vector<bool> done(tracks.size(), false);
    for (size_t left = tracks.size(); left > 0;) {
        for (size_t t = 0; t < tracks.size(); ++t) {
            if (done[t]) continue;
            MP4Sample *sample = nullptr;
            const int32_t result = GetNextSample(file, tracks[t]->id, tracks[t]->type, &sample);
            if (result != 1 || read[t].size() > tracks[t]->samples.size()) {
                EXPECT_EQ(result, 0) << "track " << tracks[t]->id << " ends with end of track";
                if (result == 1) SampleDataFree(&sample);
                EXPECT_EQ(sample, nullptr) << "the out argument is written only on success";
                MP4Sample marker{};
                sample = &marker;
                EXPECT_EQ(GetNextSample(file, tracks[t]->id, tracks[t]->type, &sample), 0);
                EXPECT_EQ(sample, &marker);
                done[t] = true;
                --left;
                continue;
            }
            EXPECT_EQ(sample->Reserved, 0u);
            EXPECT_NE(sample->Size, 0u);
            read[t].push_back({sample->Time, sample->Size, sample->IsKeyFrame != 0,
                               Crc32(sample->Data, sample->Size)});
            SampleDataFree(&sample);
        }
    }
    for (size_t t = 0; t < tracks.size(); ++t) {
        const ExpectedTrack &track = *tracks[t];
        ASSERT_EQ(read[t].size(), track.samples.size()) << "track " << track.id;
        size_t wrong = 0;
        for (size_t i = 0; i < read[t].size(); ++i) {
            const Read &got = read[t][i];
            const ExpectedSample &want = track.samples[i];
            if (got.time == want.time && got.size == want.size && got.crc == want.crc &&
                got.key == KeyOf(track, i))
                continue;
            if (++wrong > 5) continue;
            ADD_FAILURE() << "track " << track.id << " sample " << i << ": time " << got.time
                          << " (expected " << want.time << "), size " << got.size << " ("
                          << want.size << "), key " << got.key << " (" << KeyOf(track, i)
                          << "), crc " << std::hex << got.crc << " (" << want.crc << ")"
                          << std::dec;
        }
        EXPECT_EQ(wrong, 0u) << "samples of track " << track.id << " that differ";
    }
}

// Where a seek to `time` lands: the last sample at or before it, and for
// video the last key frame at or before that one.
size_t ExpectedLanding(const ExpectedTrack &track, int32_t time) {
    size_t index = 0;
    for (size_t i = 0; i < track.samples.size(); ++i)
        if (int32_t(track.samples[i].time) <= time) index = i;
    if (track.type == MP4_TRACK_VIDEO)
        while (index > 0 && !track.samples[index].key) --index;
    return index;
}

// Seeks to times at, around and between every sample, and far outside the
// track; the next sample read is the one the seek landed on.
void SeekEverywhere(MP4_local_file *file, const ExpectedTrack &track) {
    std::vector<int32_t> times = {INT32_MIN, -1, 0, INT32_MAX,
                                  int32_t(track.samples.back().time) + 100000};
    for (const auto &sample : track.samples)
        times.insert(times.end(), {int32_t(sample.time) - 1, int32_t(sample.time),
                                   int32_t(sample.time) + 1});
    for (int32_t time : times) {
        SCOPED_TRACE(testing::Message() << "track " << track.id << " seek " << time);
        const ExpectedSample &want = track.samples[ExpectedLanding(track, time)];
        MP4Sample *sample = nullptr;
        ASSERT_EQ(SeekTrack(file, track.id, track.type, time, &sample), 1);
        EXPECT_EQ(sample->Time, want.time);
        EXPECT_EQ(Crc32(sample->Data, sample->Size), want.crc);
        EXPECT_EQ(sample->IsKeyFrame, track.type == MP4_TRACK_VIDEO ? 1 : 0);
        SampleDataFree(&sample);
        uint32_t position = 0;
        ASSERT_EQ(SeekTrackPos(file, track.id, track.type, time, &position), 1);
        EXPECT_EQ(position, want.time);
        ASSERT_EQ(GetNextSample(file, track.id, track.type, &sample), 1);
        EXPECT_EQ(Crc32(sample->Data, sample->Size), want.crc);
        SampleDataFree(&sample);
    }
}

enum class Step { Next, Prev };

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

void StepFromEveryCursor(MP4_local_file *file, const ExpectedTrack &track, int32_t mode) {
    VideoTrackNode *video = file->read.VideoFirst;
    while (video != nullptr && video->TrackId != track.id) video = video->NextTrack;
    ASSERT_NE(video, nullptr);
    for (size_t cursor = 0; cursor <= track.samples.size() + 2; ++cursor) {
        for (Step step : {Step::Next, Step::Prev}) {
            SCOPED_TRACE(testing::Message() << "track " << track.id << " cursor " << cursor
                                            << (step == Step::Next ? " Next" : " Prev"));
            const size_t want = ExpectedStep(track, cursor, step, mode == MP4_TABLE_KEYFRAMES);
            video->SampleCursor = int32_t(cursor);
            MP4Sample *sample = nullptr;
            const int32_t result = step == Step::Next
                                       ? NextKeyFrame(file, track.id, MP4_TRACK_VIDEO, &sample)
                                       : PrevKeyFrame(file, track.id, MP4_TRACK_VIDEO, &sample);
            ASSERT_EQ(result, 1);
            EXPECT_EQ(sample->Time, track.samples[want].time);
            EXPECT_EQ(Crc32(sample->Data, sample->Size), track.samples[want].crc);
            EXPECT_EQ(video->SampleCursor, int32_t(want + 1));
            SampleDataFree(&sample);
        }
    }
}

class Fixture : public ::testing::TestWithParam<std::tuple<const char *, int32_t>> {};

TEST_P(Fixture, SamplesSeeksAndKeyFrameStepsMatchTheListing) {
    const std::string name = std::get<0>(GetParam());
    const int32_t mode = std::get<1>(GetParam());
    const Listing listing = LoadListing(FixturePath(name + ".samples"));
    ASSERT_EQ(listing.error, "");
    ASSERT_FALSE(listing.tracks.empty());
    OpenedFile opened(ReadWholeFile(FixturePath(name)), mode);
    ASSERT_EQ(opened.result, 1) << "a given-up track does not fail the open";
    std::vector<const ExpectedTrack *> readable;
    for (const ExpectedTrack &track : listing.tracks) {
        MP4Sample *sample = nullptr;
        if (IsOneSampleVideo(track)) {
            EXPECT_EQ(GetNextSample(opened.handle, track.id, MP4_TRACK_VIDEO, &sample), 0);
            EXPECT_EQ(GetSample(opened.handle, track.id, MP4_TRACK_VIDEO, 0, &sample), 0);
            EXPECT_EQ(sample, nullptr);
        } else if (IsAllIntraWithoutStss(track)) {
            // The only video record, with no track behind it.
            EXPECT_EQ(GetNextSample(opened.handle, track.id, MP4_TRACK_VIDEO, &sample), -90);
            EXPECT_EQ(sample, nullptr);
        } else {
            readable.push_back(&track);
        }
    }
    ReadInTurnAndCompare(opened.handle, readable);
    for (const ExpectedTrack *track : readable) {
        SeekEverywhere(opened.handle, *track);
        if (track->type == MP4_TRACK_VIDEO) StepFromEveryCursor(opened.handle, *track, mode);
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Fixture,
                         ::testing::Combine(::testing::ValuesIn(kFixtures),
                                            ::testing::ValuesIn(kModes)),
                         [](const auto &info) {
                             std::string name;
                             for (const char *c = std::get<0>(info.param); *c; ++c)
                                 name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                             return name + "_mode" + std::to_string(std::get<1>(info.param));
                         });

// Made at run time by make_fixtures.sh --long (too large to commit) into a
// folder removed at exit; skipped when the tools are missing.
TEST(FixtureReadLong, MoreThan20000SamplesMatchFfprobeInEveryMode) {
    if (!HaveFfmpeg() || std::system("command -v python3 >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg, ffprobe or python3 missing";
    struct Folder {
        TempPath path{".long"};
        ~Folder() { std::system(("rm -rf '" + path.path() + "'").c_str()); }
    } dir;
    const std::string command = "mkdir '" + dir.path.path() + "' && bash '" +
                                FixturePath("make_fixtures.sh") + "' --long '" + dir.path.path() +
                                "' >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string path = dir.path.path() + "/long_mpeg4.mp4";
    const Listing listing = LoadListing(path + ".samples");
    ASSERT_EQ(listing.error, "");
    ASSERT_EQ(listing.tracks.size(), 1u);
    ASSERT_GT(listing.tracks[0].samples.size(), 20000u);
    ASSERT_EQ(listing.tracks[0].keys, KeySource::Stss);
    const Bytes bytes = ReadWholeFile(path);
    for (int32_t mode : kModes) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        OpenedFile opened(bytes, mode);
        ASSERT_EQ(opened.result, 1);
        ReadInTurnAndCompare(opened.handle, {&listing.tracks[0]});
    }
}

}  // namespace
