// Track discovery: the records the open makes, the states tracks end in,
// the picture size, and the messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

MiniTrack Video(uint32_t id, size_t count) { return VideoTrack(id, NumberedSamples(count, 6)); }
MiniTrack Audio(uint32_t id, size_t count) { return AudioTrack(id, NumberedSamples(count, 6)); }

MiniTrack Without(MiniTrack track, const char *child) {
    track.replace[child] = {};
    return track;
}
MiniTrack Handler(MiniTrack track, const char *handler) {
    track.handler = handler;
    return track;
}

// The image with the first atom name `from` turned into `to`.
Bytes Rename(Bytes image, const char *from, const char *to) {
    auto at = std::search(image.begin(), image.end(), from, from + 4);
    EXPECT_NE(at, image.end());
    if (at != image.end()) std::copy(to, to + 4, at);
    return image;
}

TEST(TrackLoop, RecordsGoToTheListOfTheirKindInFileOrder) {
    OpenedFile opened(BuildMiniMp4({Video(1, 3), Audio(2, 3), Handler(Audio(3, 1), "hint"),
                                    Video(5, 2), Handler(Audio(4, 1), "odsm"), Audio(6, 2)}));
    ASSERT_EQ(opened.result, 1);
    const ReadForm &form = opened.handle->read;
    ASSERT_NE(form.VideoFirst, nullptr);
    EXPECT_EQ(form.VideoFirst->TrackId, 1u);
    EXPECT_EQ(form.VideoFirst->NextTrack->TrackId, 5u);
    EXPECT_EQ(form.VideoLast->TrackId, 5u);
    EXPECT_EQ(form.VideoCurrent, form.VideoFirst);
    EXPECT_EQ(form.AudioFirst->TrackId, 2u);
    EXPECT_EQ(form.AudioLast->TrackId, 6u);
    EXPECT_EQ(form.AudioCurrent, form.AudioFirst);
    ASSERT_NE(form.OtherFirst, nullptr);
    EXPECT_EQ(form.OtherFirst->TrackType, 3u);
    EXPECT_EQ(form.OtherLast->TrackType, 4u);
    EXPECT_EQ(form.OtherFirst->Track->TrakAtom != nullptr, true);
    EXPECT_EQ(form.OtherFirst->Track->SampleRecords, nullptr);
    EXPECT_EQ(form.VideoFirst->Track->TrackId, 1u);
    EXPECT_EQ(form.VideoFirst->Timescale, 1000u);
    EXPECT_EQ(form.VideoFirst->TrackDuration, 30u);
    EXPECT_EQ(form.AudioFirst->ConstantSampleSize, 0u);
}

// What the access calls see of a track in each state the open can leave.
TEST(TrackLoop, EachTrackStateShowsThroughGetNextSample) {
    struct Case {
        const char *name;
        std::vector<MiniTrack> tracks;
        uint32_t trackId;
        int32_t type;
        int32_t result;
    };
    const std::vector<Case> cases = {
        {"complete video", {Video(1, 3)}, 1, 1, 1},
        {"video without stsz has no tables", {Without(Video(1, 3), "stsz")}, 1, 1, -89},
        {"audio without stsz has no tables", {Without(Audio(1, 3), "stsz")}, 1, 2, -85},
        {"given up video that is VideoCurrent", {Without(Video(1, 3), "stco")}, 1, 1, -90},
        {"given up video behind another", {Video(1, 2), Without(Video(2, 3), "stco")}, 2, 1, -96},
        {"given up audio that is AudioCurrent", {Without(Audio(1, 3), "stts")}, 1, 2, -86},
        {"audio of sample count 0 is given up", {Audio(1, 0)}, 1, 2, -86},
        {"one-sample video ends at once", {Video(1, 1)}, 1, 1, 0},
        {"one-sample audio has its sample", {Audio(1, 1)}, 1, 2, 1},
        {"hint track can't be reached as video", {Handler(Audio(1, 2), "hint")}, 1, 1, -98},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(BuildMiniMp4(c.tracks));
        ASSERT_EQ(opened.result, 1);
        MP4Sample *sample = nullptr;
        EXPECT_EQ(GetNextSample(opened.handle, c.trackId, c.type, &sample), c.result);
        SampleDataFree(&sample);
    }
    // The one-sample video keeps its record, with a count of 0 behind it.
    OpenedFile opened(BuildMiniMp4({Video(1, 1)}));
    const VideoTrackNode *video = opened.handle->read.VideoFirst;
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(video->SampleCount, 1u);
    ASSERT_NE(video->Track, nullptr);
    EXPECT_EQ(video->Track->SampleCount, 0u);
}

TEST(FindTracksTest, ABadTrakLosesEveryTrackOfTheFile) {
    Bytes image = BuildMiniMp4({Video(1, 2), Audio(2, 2), Video(3, 2)});
    // The third "tkhd" renamed: its "trak" has no "tkhd".
    auto third = image.begin();
    for (int i = 0; i < 3; ++i) {
        third = std::search(third + (i ? 4 : 0), image.end(), "tkhd", "tkhd" + 4);
        ASSERT_NE(third, image.end());
    }
    std::copy("skip", "skip" + 4, third);
    OpenedFile opened(image);
    ASSERT_EQ(opened.result, 1);
    EXPECT_EQ(opened.handle->read.VideoFirst, nullptr);
    EXPECT_EQ(opened.handle->read.AudioFirst, nullptr);
}

TEST(FindTracksTest, FileWithoutMoovOpensWithoutTracks) {
    Bytes image = Rename(BuildMiniMp4({Video(1, 2)}), "moov", "skip");
    OpenedFile opened(image);
    ASSERT_EQ(opened.result, 1);
    MP4Sample *sample = nullptr;
    EXPECT_EQ(GetNextSample(opened.handle, 1, 1, &sample), -98);
    EXPECT_EQ(GetNextSample(opened.handle, 1, 2, &sample), -95);
}

TEST(FindTracksTest, ResultsOfTheWalk) {
    TrackListEntry *list = reinterpret_cast<TrackListEntry *>(1);
    EXPECT_EQ(FindTracks(nullptr, &list), -99);
    EXPECT_EQ(list, nullptr);
    Root_atom empty{};
    EXPECT_EQ(FindTracks(&empty, &list), -99);

    OpenedFile opened(BuildMiniMp4({Video(7, 2), Audio(9, 2)}));
    ASSERT_EQ(FindTracks(opened.handle->RootAtom, &list), 2);
    EXPECT_EQ(list->TrackId, 7u);
    EXPECT_EQ(list->Next->TrackId, 9u);
    EXPECT_EQ(list->Next->Next, nullptr);
    free(list->Next);
    free(list);
}

TEST(TrackMessages, PrintedAsTheLibraryWordsThem) {
    struct Case {
        const char *name;
        Bytes image;
        const char *message;
    };
    const std::vector<Case> cases = {
        {"unknown handler", BuildMiniMp4({Video(1, 2), Handler(Audio(2, 2), "text"), Audio(3, 2)}),
         "Unknown media type [text]\n"},
        {"no hdlr", Rename(BuildMiniMp4({Video(1, 2)}), "hdlr", "skip"),
         "Can't find [hdlr] atom\n"},
        {"no stsd", Rename(BuildMiniMp4({Video(1, 2)}), "stsd", "skip"),
         "Can't find [stsd] atom\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(c.image);
        ASSERT_EQ(opened.result, 1);
        EXPECT_NE(opened.output.find(c.message), std::string::npos) << opened.output;
    }
    // The unknown handler skips only its own track.
    OpenedFile opened(cases[0].image);
    ASSERT_NE(opened.handle->read.AudioFirst, nullptr);
    EXPECT_EQ(opened.handle->read.AudioFirst->TrackId, 3u);
    EXPECT_EQ(opened.handle->read.AudioFirst->NextTrack, nullptr);
    EXPECT_EQ(opened.handle->read.OtherFirst, nullptr);
}

TEST(TrackMessages, OperationsOnAnAtomThatIsNoTrak) {
    OpenedFile opened(BuildMiniMp4({Video(1, 2)}));
    AtomNode *moov = opened.handle->RootAtom->FirstAtom;
    while (!AtomNameEquals(moov->AtomName, "moov")) moov = moov->NextSibling;
    CaptureStream capture(stdout);
    int32_t type = 0;
    VideoTrackNode video{};
    AudioTrackNode audio{};
    EXPECT_EQ(GetTrackType(moov, &type), -99);
    EXPECT_EQ(ReadVideoTrackInfo(moov, &video), -99);
    EXPECT_EQ(ReadAudioTrackInfo(moov, &audio), -99);
    EXPECT_EQ(capture.Text(),
              "This atom not a track atom\n"
              "This atom not a track atom\n"
              "This atom not a track atom\n");
}

// The first video object layer start code pattern in the raw stream, with
// what follows it.
Bytes VolFromStream() {
    Bytes stream = ReadWholeFile(FixturePath("m4v_vos_176x144.m4v"));
    Bytes pattern = Hex("00 00 01 00 00 00 01 20");
    auto at = std::search(stream.begin(), stream.end(), pattern.begin(), pattern.end());
    EXPECT_NE(at, stream.end());
    return Bytes(at, std::min(at + 40, stream.end()));
}

TEST(PictureSize, ComesFromTheSampleEntryOrTheVideoObjectLayer) {
    struct Case {
        const char *name;
        Bytes entry;
        uint32_t width;
        uint32_t height;
    };
    Bytes vol = VolFromStream();
    Bytes esdsWithVol = FullAtom("esds", 0, {Hex("03 30 00 01 00 04 28 20 11 00 00 00 00 00 00 00 00 00 00 00 05 1a"), vol});
    Bytes esdsWithout = FullAtom("esds", 0, {Hex("03 10 00 01 00 04 08 20 11 00 00 00 00 00 00")});
    // An "esds" that declares only 20 bytes: the pattern behind them is not
    // its own.
    Bytes shortEsds = Cat({AtomWithSize(20, "esds", {Zeros(12)}), vol});
    const std::vector<Case> cases = {
        {"mp4v without esds", Mp4vEntry(100, 80), 100, 80},
        {"mp4v whose esds has no layer", Mp4vEntry(100, 80, esdsWithout), 100, 80},
        {"mp4v whose esds has the layer", Mp4vEntry(100, 80, esdsWithVol), 176, 144},
        {"mp4v whose esds declares 20 bytes, the layer behind them",
         Mp4vEntry(100, 80, shortEsds), 100, 80},
        {"s263", S263Entry(128, 96), 128, 96},
        {"other entry", Mp4aEntry(), 0, 0},
        {"unknown entry still gives samples", Atom("avc1", {Zeros(78)}), 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        MiniTrack track = Video(1, 3);
        track.sampleEntry = c.entry;
        OpenedFile opened(BuildMiniMp4({track}));
        const VideoTrackNode *video = opened.handle->read.VideoFirst;
        ASSERT_NE(video, nullptr);
        EXPECT_EQ(video->TrackWidth, c.width);
        EXPECT_EQ(video->TrackHeight, c.height);
        EXPECT_EQ(ReadAllSamples(opened.handle, 1, 1).size(), 3u);
    }
}

}  // namespace
