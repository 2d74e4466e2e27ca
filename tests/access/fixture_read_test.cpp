// Interop: every sample of every video and audio track of the FFmpeg
// fixtures, read through GetNextSample in each table mode, against the
// listing ffprobe gave when the fixture was made (tests/data/*.samples).
//
// mp4core's reading differs from ffprobe on purpose in a few places; each
// has a test of its own, named for the difference:
//  - audio samples are never key frames;
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

#include "mp4core.h"
#include "support/listing.h"
#include "support/test_support.h"

namespace {

using testing_support::CaptureStream;
using testing_support::Crc32;
using testing_support::ExpectedTrack;
using testing_support::FixturePath;
using testing_support::KeySource;
using testing_support::Listing;
using testing_support::LoadListing;

const int32_t kModes[] = {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT};

// The committed fixtures that hold MP4 or 3GP files with a listing.
const char *const kFixtures[] = {
    "mpeg4_aac.mp4",        "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4",
    "mpeg4_gop12_no_stss.mp4", "mpeg4_bframes.mp4",   "mpeg4_gop1.mp4",
    "mpeg4_gop250.mp4",     "mpeg4_one_frame.mp4",    "aac_mono_8000.mp4",
    "aac_stereo_22050.mp4", "aac_mono_44100.mp4",     "aac_stereo_48000.mp4",
    "mp3_stereo_44100.mp4", "h263.3gp",               "h263_aac.3gp",
};

// The fixtures with a video and an audio track that both read.
const char *const kMultiTrackFixtures[] = {"mpeg4_aac.mp4", "mpeg4_aac_moov_end.mp4",
                                           "h263_aac.3gp"};

// A read handle that closes itself. The open's diagnostics (the key frame
// scan prints one line per key frame) are kept off the test output.
class ReadHandle {
public:
    ReadHandle(const std::string &path, int32_t mode) {
        CaptureStream out(stdout);
        result_ = MP4FileOpen(&file_, path.c_str(), mode);
        out.Text();
    }
    ~ReadHandle() {
        if (file_ != nullptr) MP4FileClose(&file_);
    }
    ReadHandle(const ReadHandle &) = delete;
    ReadHandle &operator=(const ReadHandle &) = delete;
    int32_t result() const { return result_; }
    MP4_local_file *get() const { return file_; }

private:
    MP4_local_file *file_ = nullptr;
    int32_t result_ = 0;
};

// One sample as read, the bytes reduced to their CRC.
struct ReadSample {
    uint32_t time;
    uint32_t size;
    bool key;
    uint32_t crc;
};

// Reads a track to its end with GetNextSample. `end` gets the result that
// ended the loop (0 at the end of the track). Checks what every sample
// record promises whatever the file: Reserved 0, Size not 0.
std::vector<ReadSample> ReadTrack(MP4_local_file *file, const ExpectedTrack &track,
                                  int32_t *end) {
    std::vector<ReadSample> read;
    // Never more than the listing plus one: a reader that fails to stop
    // shows as one sample too many.
    const size_t limit = track.samples.size() + 1;
    for (;;) {
        MP4Sample *sample = nullptr;
        int32_t result = GetNextSample(file, track.id, track.type, &sample);
        if (result != 1) {
            EXPECT_EQ(sample, nullptr) << "the out argument is written only on success";
            *end = result;
            return read;
        }
        EXPECT_EQ(sample->Reserved, 0u);
        EXPECT_NE(sample->Size, 0u);
        read.push_back({sample->Time, sample->Size, sample->IsKeyFrame != 0,
                        Crc32(sample->Data, sample->Size)});
        SampleDataFree(&sample);
        if (read.size() > limit) {
            *end = 1;
            return read;
        }
    }
}

enum class Compare { WithoutKeys, WithKeys };

// Time, size and bytes of every sample, and the key marks where asked. A
// track that goes wrong goes wrong for many samples: the first few are
// shown, then the count.
void ExpectMatches(const ExpectedTrack &track, const std::vector<ReadSample> &read,
                   Compare keys) {
    ASSERT_EQ(read.size(), track.samples.size()) << "track " << track.id;
    const size_t shown = 5;
    size_t wrong = 0;
    for (size_t i = 0; i < read.size(); ++i) {
        const auto &want = track.samples[i];
        bool keyWrong = keys == Compare::WithKeys && read[i].key != want.key;
        if (read[i].time == want.time && read[i].size == want.size && read[i].crc == want.crc &&
            !keyWrong)
            continue;
        if (++wrong > shown) continue;
        ADD_FAILURE() << "track " << track.id << " sample " << i << ": time " << read[i].time
                      << " (expected " << want.time << "), size " << read[i].size << " ("
                      << want.size << "), key " << read[i].key << " (" << want.key
                      << (keys == Compare::WithKeys ? "" : ", not compared") << "), crc "
                      << std::hex << read[i].crc << " (" << want.crc << ")" << std::dec;
    }
    EXPECT_EQ(wrong, 0u) << "samples of track " << track.id << " that differ";
}

bool IsOneSampleVideo(const ExpectedTrack &track) {
    return track.type == MP4_TRACK_VIDEO && track.samples.size() == 1;
}

// A video track without "stss" whose samples are all key frames: more
// key frames than half the samples, so the open gives the track up.
bool IsAllIntraWithoutStss(const ExpectedTrack &track) {
    if (track.type != MP4_TRACK_VIDEO || track.keys != KeySource::None) return false;
    size_t keys = 0;
    for (const auto &sample : track.samples) keys += sample.key ? 1 : 0;
    return track.samples.size() > 1 && keys > track.samples.size() / 2;
}

Listing LoadFixtureListing(const std::string &name) {
    Listing listing = LoadListing(FixturePath(name + ".samples"));
    EXPECT_EQ(listing.error, "");
    EXPECT_FALSE(listing.tracks.empty()) << name;
    return listing;
}

std::string CaseName(const std::string &file, int32_t mode) {
    std::string name;
    for (char c : file) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name + "_mode" + std::to_string(mode);
}

class FixtureRead : public ::testing::TestWithParam<std::tuple<const char *, int32_t>> {
protected:
    std::string file() const { return std::get<0>(GetParam()); }
    int32_t mode() const { return std::get<1>(GetParam()); }
};

// The core check: time, size, bytes; key marks for video whose key frames
// the file lists in "stss". Tracks with a documented difference from
// ffprobe are left to the tests below.
TEST_P(FixtureRead, EverySampleMatchesFfprobe) {
    Listing listing = LoadFixtureListing(file());
    ReadHandle handle(FixturePath(file()), mode());
    ASSERT_EQ(handle.result(), 1);
    for (const auto &track : listing.tracks) {
        if (IsOneSampleVideo(track) || IsAllIntraWithoutStss(track)) continue;
        int32_t end = 0;
        std::vector<ReadSample> read = ReadTrack(handle.get(), track, &end);
        EXPECT_EQ(end, 0) << "track " << track.id << " ends with end of track";
        bool videoKeys = track.type == MP4_TRACK_VIDEO && track.keys != KeySource::None;
        ExpectMatches(track, read, videoKeys ? Compare::WithKeys : Compare::WithoutKeys);
    }
}

// Past the end the track keeps giving 0, and the out argument stays as it was.
TEST_P(FixtureRead, EndOfTrackRepeatsAndLeavesSampleUntouched) {
    Listing listing = LoadFixtureListing(file());
    ReadHandle handle(FixturePath(file()), mode());
    ASSERT_EQ(handle.result(), 1);
    for (const auto &track : listing.tracks) {
        if (IsAllIntraWithoutStss(track)) continue;
        int32_t end = 0;
        ReadTrack(handle.get(), track, &end);
        ASSERT_EQ(end, 0);
        MP4Sample marker{};
        MP4Sample *sample = &marker;
        EXPECT_EQ(GetNextSample(handle.get(), track.id, track.type, &sample), 0);
        EXPECT_EQ(sample, &marker);
    }
}

// Reading the tracks of a file in turn, one sample of each in time order,
// gives each track the same samples as reading it alone: every track keeps
// its own cursor, and the reads between them don't disturb one another.
class FixtureReadInTurn : public FixtureRead {};

TEST_P(FixtureReadInTurn, TracksReadInTurnKeepTheirPlace) {
    Listing listing = LoadFixtureListing(file());
    std::vector<const ExpectedTrack *> tracks;
    for (const auto &track : listing.tracks)
        if (!IsOneSampleVideo(track) && !IsAllIntraWithoutStss(track)) tracks.push_back(&track);
    ASSERT_GE(tracks.size(), 2u);
    ReadHandle handle(FixturePath(file()), mode());
    ASSERT_EQ(handle.result(), 1);
    std::vector<std::vector<ReadSample>> read(tracks.size());
    std::vector<bool> done(tracks.size(), false);
    for (size_t left = tracks.size(); left > 0;) {
        for (size_t t = 0; t < tracks.size(); ++t) {
            if (done[t]) continue;
            MP4Sample *sample = nullptr;
            int32_t result = GetNextSample(handle.get(), tracks[t]->id, tracks[t]->type, &sample);
            if (result != 1 || read[t].size() > tracks[t]->samples.size()) {
                EXPECT_EQ(result, 0);
                if (result == 1) SampleDataFree(&sample);
                done[t] = true;
                --left;
                continue;
            }
            read[t].push_back({sample->Time, sample->Size, sample->IsKeyFrame != 0,
                               Crc32(sample->Data, sample->Size)});
            SampleDataFree(&sample);
        }
    }
    for (size_t t = 0; t < tracks.size(); ++t)
        ExpectMatches(*tracks[t], read[t], Compare::WithoutKeys);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, FixtureRead,
                         ::testing::Combine(::testing::ValuesIn(kFixtures),
                                            ::testing::ValuesIn(kModes)),
                         [](const auto &info) {
                             return CaseName(std::get<0>(info.param), std::get<1>(info.param));
                         });
INSTANTIATE_TEST_SUITE_P(Fixtures, FixtureReadInTurn,
                         ::testing::Combine(::testing::ValuesIn(kMultiTrackFixtures),
                                            ::testing::ValuesIn(kModes)),
                         [](const auto &info) {
                             return CaseName(std::get<0>(info.param), std::get<1>(info.param));
                         });

// ---- Documented differences from ffprobe ----------------------------------

// ffprobe marks every AAC and MP3 packet as a key frame; mp4core never marks
// an audio sample.
TEST(FixtureReadDifferences, AudioSamplesAreNeverKeyFramesUnlikeFfprobe) {
    for (const char *file : kFixtures) {
        Listing listing = LoadFixtureListing(file);
        for (int32_t mode : kModes) {
            ReadHandle handle(FixturePath(file), mode);
            ASSERT_EQ(handle.result(), 1) << file;
            for (const auto &track : listing.tracks) {
                if (track.type != MP4_TRACK_AUDIO) continue;
                int32_t end = 0;
                std::vector<ReadSample> read = ReadTrack(handle.get(), track, &end);
                ASSERT_EQ(read.size(), track.samples.size()) << file << " mode " << mode;
                EXPECT_TRUE(track.samples[0].key) << "ffprobe marks audio as key frames";
                for (size_t i = 0; i < read.size(); ++i)
                    EXPECT_FALSE(read[i].key) << file << " mode " << mode << " sample " << i;
            }
        }
    }
}

// ffprobe lists the single sample of the video track; mp4core gives end of
// track at once, while the file's audio track reads as usual.
TEST(FixtureReadDifferences, VideoTrackOfOneSampleYieldsNoSampleUnlikeFfprobe) {
    Listing listing = LoadFixtureListing("mpeg4_one_frame.mp4");
    ASSERT_EQ(listing.tracks.size(), 2u);
    const ExpectedTrack &video = listing.tracks[0];
    const ExpectedTrack &audio = listing.tracks[1];
    ASSERT_TRUE(IsOneSampleVideo(video));
    for (int32_t mode : kModes) {
        ReadHandle handle(FixturePath("mpeg4_one_frame.mp4"), mode);
        ASSERT_EQ(handle.result(), 1);
        MP4Sample *sample = nullptr;
        EXPECT_EQ(GetNextSample(handle.get(), video.id, MP4_TRACK_VIDEO, &sample), 0) << mode;
        EXPECT_EQ(GetSample(handle.get(), video.id, MP4_TRACK_VIDEO, 0, &sample), 0) << mode;
        EXPECT_EQ(sample, nullptr);
        int32_t end = 0;
        ExpectMatches(audio, ReadTrack(handle.get(), audio, &end), Compare::WithoutKeys);
        EXPECT_EQ(end, 0);
    }
}

// The fixture's "stss" was renamed after encoding, so ffprobe would call
// every sample a key frame; mp4core finds the intra planes, which are the
// key frames ffprobe listed for the original file.
TEST(FixtureReadDifferences, KeyFramesWithoutStssComeFromThePlaneCodingType) {
    Listing listing = LoadFixtureListing("mpeg4_gop12_no_stss.mp4");
    ASSERT_EQ(listing.tracks.size(), 1u);
    const ExpectedTrack &video = listing.tracks[0];
    ASSERT_EQ(video.keys, KeySource::PlaneScan);
    for (int32_t mode : kModes) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        ReadHandle handle(FixturePath("mpeg4_gop12_no_stss.mp4"), mode);
        ASSERT_EQ(handle.result(), 1);
        int32_t end = 0;
        std::vector<ReadSample> read = ReadTrack(handle.get(), video, &end);
        EXPECT_EQ(end, 0);
        ExpectMatches(video, read, Compare::WithKeys);
    }
}

// Every sample of this track is intra and the file has no "stss" (FFmpeg
// leaves it out when all samples are key frames). ffprobe lists 25 key
// frames; mp4core's scan stops at more key frames than half the samples and
// the track is given up: the only video record, with no track behind it.
TEST(FixtureReadDifferences, AllIntraVideoWithoutStssIsGivenUpUnlikeFfprobe) {
    Listing listing = LoadFixtureListing("mpeg4_gop1.mp4");
    ASSERT_EQ(listing.tracks.size(), 1u);
    ASSERT_TRUE(IsAllIntraWithoutStss(listing.tracks[0]));
    for (int32_t mode : kModes) {
        ReadHandle handle(FixturePath("mpeg4_gop1.mp4"), mode);
        ASSERT_EQ(handle.result(), 1) << "a given-up track does not fail the open";
        MP4Sample *sample = nullptr;
        EXPECT_EQ(GetNextSample(handle.get(), listing.tracks[0].id, MP4_TRACK_VIDEO, &sample),
                  -90)
            << "mode " << mode;
        EXPECT_EQ(sample, nullptr);
    }
}

// ---- The long file ----------------------------------------------------------

// Made at run time by make_fixtures.sh --long (too large to commit), once
// per test run, into a folder removed at exit. Empty when the tools are
// missing.
class LongFixture {
public:
    static const LongFixture &Get() {
        static LongFixture fixture;
        return fixture;
    }
    ~LongFixture() {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
    }
    const std::string &path() const { return path_; }

private:
    LongFixture() {
        if (std::system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null && "
                        "command -v python3 >/dev/null") != 0)
            return;
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/mp4core_long_XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) == nullptr) return;
        dir_ = buffer.data();
        std::string command = "bash '" + FixturePath("make_fixtures.sh") + "' --long '" + dir_ +
                              "' >/dev/null 2>&1";
        if (std::system(command.c_str()) == 0) path_ = dir_ + "/long_mpeg4.mp4";
    }
    std::string dir_;
    std::string path_;
};

TEST(FixtureReadLong, MoreThan20000SamplesMatchFfprobeInEveryMode) {
    const std::string &path = LongFixture::Get().path();
    if (path.empty()) GTEST_SKIP() << "ffmpeg, ffprobe or python3 missing";
    Listing listing = LoadListing(path + ".samples");
    ASSERT_EQ(listing.error, "");
    ASSERT_EQ(listing.tracks.size(), 1u);
    const ExpectedTrack &video = listing.tracks[0];
    ASSERT_GT(video.samples.size(), 20000u);
    ASSERT_EQ(video.keys, KeySource::Stss);
    for (int32_t mode : kModes) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        ReadHandle handle(path, mode);
        ASSERT_EQ(handle.result(), 1);
        int32_t end = 0;
        std::vector<ReadSample> read = ReadTrack(handle.get(), video, &end);
        EXPECT_EQ(end, 0);
        ExpectMatches(video, read, Compare::WithKeys);
    }
}

}  // namespace
