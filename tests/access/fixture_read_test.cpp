// Interop: the FFmpeg fixtures against the listing ffprobe gave when each
// was made (tests/data/*.samples), in each table mode: every sample through
// GetNextSample with the tracks read in turn, SeekTrack and SeekTrackPos to
// times around every sample. mp4core differs from ffprobe on purpose, each checked here:
// audio samples are never key frames; a video track of exactly one sample
// yields no sample; a video track without "stss" takes its key frames from
// the I-VOPs, and one with more intra planes than half its samples is
// given up.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/listing.h"
#include "support/mini_mp4.h"

using namespace testing_support;

namespace {

const int32_t kModes[] = {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT};

// A sample as "time size key crc", the form both sides are compared in.
std::string Line(uint32_t time, uint32_t size, bool key, uint32_t crc) {
    return Format("%u %u %d %x\n", time, size, int(key), crc);
}
std::string Line(const MP4Sample *s) {
    return Line(s->Time, s->Size, s->IsKeyFrame != 0, Crc32(s->Data, s->Size));
}

// Reads the tracks in turn, one sample of each, so that every track keeps
// its own cursor; each track's samples, its end (0, twice, the out argument
// left alone) against the listing.
void ReadInTurnAndCompare(MP4_local_file *file, const std::vector<const ExpectedTrack *> &tracks) {
    std::vector<std::string> read(tracks.size()), want(tracks.size());
    for (size_t t = 0; t < tracks.size(); ++t) {
        for (const ExpectedSample &s : tracks[t]->samples)
            want[t] += Line(s.time, s.size, tracks[t]->type == MP4_TRACK_VIDEO && s.key, s.crc);
        want[t] += "end 0 0\n";
    }
    std::vector<size_t> count(tracks.size(), 0);  // SIZE_MAX: the track has ended
    for (size_t left = tracks.size(); left > 0;) {
        for (size_t t = 0; t < tracks.size(); ++t) {
            if (count[t] == SIZE_MAX) continue;
            MP4Sample *sample = nullptr;
            const int32_t result = GetNextSample(file, tracks[t]->id, tracks[t]->type, &sample);
            if (result == 1 && sample->Reserved == 0) read[t] += Line(sample);
            SampleDataFree(&sample);
            if (result == 1 && ++count[t] <= tracks[t]->samples.size()) continue;
            MP4Sample marker{}, *out = &marker;
            const int32_t again = GetNextSample(file, tracks[t]->id, tracks[t]->type, &out);
            read[t] += Format("end %d %d%s\n", result, again, out == &marker ? "" : " (out written)");
            count[t] = SIZE_MAX, --left;
        }
    }
    for (size_t t = 0; t < tracks.size(); ++t) EXPECT_EQ(read[t], want[t]) << "track " << tracks[t]->id;
}

// Where a seek to `time` lands: the last sample at or before it, and for
// video the last key frame at or before that one.
size_t Landing(const ExpectedTrack &track, int64_t time) {
    size_t index = 0;
    for (size_t i = 0; i < track.samples.size(); ++i)
        if (track.samples[i].time <= time) index = i;
    while (track.type == MP4_TRACK_VIDEO && index > 0 && !track.samples[index].key) --index;
    return index;
}

// Seeks around every sample and far outside the track, one transcript line
// per call on both sides. Key frame steps are swept in access_test.cpp.
void SeekEverywhere(MP4_local_file *file, const ExpectedTrack &track) {
    std::vector<int64_t> times = {INT32_MIN, -1, 0, INT32_MAX, track.samples.back().time + 100000};
    for (const ExpectedSample &s : track.samples) times.insert(times.end(), {int64_t(s.time) - 1, s.time, s.time + 1});
    std::string got, want;
    for (int64_t time : times) {
        const ExpectedSample &s = track.samples[Landing(track, time)];
        const bool video = track.type == MP4_TRACK_VIDEO;
        want += Format("seek %lld ", (long long)time) + Line(s.time, s.size, video, s.crc) +
                Format("pos %u\n", s.time) + Line(s.time, s.size, video && s.key, s.crc);
        MP4Sample *sample = nullptr;
        uint32_t position = 0;
        got += Format("seek %lld ", (long long)time);
        if (SeekTrack(file, track.id, track.type, int32_t(time), &sample) == 1) got += Line(sample);
        SampleDataFree(&sample);
        if (SeekTrackPos(file, track.id, track.type, int32_t(time), &position) == 1) got += Format("pos %u\n", position);
        if (GetNextSample(file, track.id, track.type, &sample) == 1) got += Line(sample);
        SampleDataFree(&sample);
    }
    EXPECT_EQ(got, want) << "track " << track.id;
}

// Every fixture in every mode: the samples read in turn and, unless
// `seeks` is false, the seeks around every sample.
void ReadAndSeekAsListed(const std::string &path, bool seeks) {
    const Listing listing = LoadListing(path + ".samples");
    ASSERT_EQ(listing.error, "");
    for (int32_t mode : kModes) {
        SCOPED_TRACE(path + " in mode " + std::to_string(mode));
        OpenedFile opened(ReadWholeFile(path), mode);
        ASSERT_EQ(opened.result, 1) << "a given-up track does not fail the open";
        std::vector<const ExpectedTrack *> readable;
        for (const ExpectedTrack &track : listing.tracks) {
            MP4Sample *sample = nullptr;
            const bool video = track.type == MP4_TRACK_VIDEO;
            if (video && track.samples.size() == 1) {
                EXPECT_EQ(GetNextSample(opened.handle, track.id, 1, &sample), 0);
                EXPECT_EQ(GetSample(opened.handle, track.id, 1, 0, &sample), 0);
            } else if (video && track.keys == "none") {
                // All intra without "stss": the record stays, its tables don't.
                EXPECT_EQ(GetNextSample(opened.handle, track.id, 1, &sample), -90);
            } else {
                readable.push_back(&track);
            }
            EXPECT_EQ(sample, nullptr);
        }
        ReadInTurnAndCompare(opened.handle, readable);
        for (const ExpectedTrack *track : readable)
            if (seeks) SeekEverywhere(opened.handle, *track);
    }
}

TEST(Fixture, SamplesAndSeeksMatchTheListing) {
    for (const char *name : {"mpeg4_aac.mp4", "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4", "mpeg4_gop12_no_stss.mp4",
                             "mpeg4_bframes.mp4", "mpeg4_gop1.mp4", "mpeg4_gop250.mp4", "mpeg4_one_frame.mp4",
                             "aac_mono_8000.mp4", "aac_stereo_22050.mp4", "aac_mono_44100.mp4", "aac_stereo_48000.mp4",
                             "mp3_stereo_44100.mp4", "h263.3gp", "h263_aac.3gp"})
        ReadAndSeekAsListed(FixturePath(name), true);
}

// Slow: made at run time by make_fixtures.sh --long (too large to commit)
// into a folder removed at exit; skipped when the tools are missing.
TEST(FixtureReadLong, MoreThan20000SamplesMatchFfprobeInEveryMode) {
    if (!HaveFfmpeg() || std::system("command -v python3 >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg, ffprobe or python3 missing";
    struct Folder {
        TempPath path{".long"};
        ~Folder() { std::system(("rm -rf '" + path.path() + "'").c_str()); }
    } dir;
    ASSERT_EQ(std::system(("mkdir '" + dir.path.path() + "' && bash '" + FixturePath("make_fixtures.sh") +
                           "' --long '" + dir.path.path() + "' >/dev/null 2>&1").c_str()), 0);
    const std::string path = dir.path.path() + "/long_mpeg4.mp4";
    const Listing listing = LoadListing(path + ".samples");
    ASSERT_GT(listing.tracks.at(0).samples.size(), 20000u);
    ASSERT_EQ(listing.tracks[0].keys, "stss");
    ReadAndSeekAsListed(path, false);
}

}  // namespace
