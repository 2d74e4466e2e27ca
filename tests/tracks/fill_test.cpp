// Filling the sample and key frame tables of a track: one table varied at a
// time in a minimal file, the tables checked record by record.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <optional>

#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

// Video without "stss": key frames come from the planes.
MiniTrack ScannedVideo(const std::vector<uint8_t> &codingTypes, size_t lead = 0) {
    MiniTrack track;
    for (uint8_t type : codingTypes) track.samples.push_back(Vop(type, lead));
    return track;
}

const AtomNode *FirstTrak(const Root_atom &root) {
    for (const AtomNode *top = root.FirstAtom; top; top = top->NextSibling) {
        if (AtomNameEquals(top->AtomName, "moov")) return FindChild(top, "trak");
    }
    return nullptr;
}

// Runs create and fill once more on the file's first track, to see the
// result that the open turned into a track state. The fill runs on a tree
// of its own, read as the open reads it: the open's tree no longer holds
// the entries that it expanded into a track's tables.
int32_t FillResult(const OpenedFile &opened, bool video, uint32_t count, int32_t mode) {
    Root_atom root{};
    root.FileStream = std::fopen(opened.file.c_str(), "rb");
    root.FileSize = opened.handle->RootAtom->FileSize;
    EXPECT_NE(root.FileStream, nullptr);
    EXPECT_EQ(ReadAtomTree(&root), 1);
    EXPECT_EQ(AllocTreeRecords(&root), 1);
    ExtractTreeRecords(&root);
    TrackNode *holder = nullptr;
    int32_t created = video ? CreateVideoTables(&holder, int32_t(count), mode)
                            : CreateAudioTables(&holder, int32_t(count), mode);
    EXPECT_EQ(created, 1);
    holder->TrakAtom = const_cast<AtomNode *>(FirstTrak(root));
    int32_t result = 0;
    {
        CaptureStream quiet(stdout);
        result = video ? FillVideoTables(&holder, &root, mode) : FillAudioTables(&holder, mode);
    }
    ReleaseTrackNodes(&holder);
    ReleaseAtomList(root.FirstAtom);
    std::fclose(root.FileStream);
    return result;
}

const TrackNode *FirstTrackNode(const MP4_local_file *handle) {
    if (handle->read.VideoFirst != nullptr) return handle->read.VideoFirst->Track;
    if (handle->read.AudioFirst != nullptr) return handle->read.AudioFirst->Track;
    return nullptr;
}

// `track` with the generated child `name` of "stbl" replaced by `atom`
// (or, for "stss", with those sync samples).
MiniTrack With(MiniTrack track, const char *name, const Bytes &atom) {
    track.replace[name] = atom;
    return track;
}
MiniTrack Synced(MiniTrack track, std::vector<uint32_t> numbers) {
    track.withStss = true;
    track.syncSamples = std::move(numbers);
    return track;
}

struct FillCase {
    const char *name;
    MiniTrack track;
    int32_t mode;
    int32_t fill;                    // what FillVideoTables/FillAudioTables give
    std::vector<uint32_t> times;     // checked when the track is kept
    std::vector<uint32_t> sizes;
    std::vector<uint32_t> offsets;   // absolute; empty: back to back from kMiniDataStart
    std::vector<uint8_t> keys;       // empty: not checked
};

TEST(FillTables, StagesGiveTheRecordsTheAtomsDescribe) {
    MiniTrack s263;
    s263.sampleEntry = S263Entry(176, 144);
    s263.samples = {Hex("00 00 80 02 0A 10"), Hex("00 00 81 02 0A 10")};
    const std::vector<uint32_t> fourTimes = {0, 10, 20, 30}, fourSizes = {8, 8, 8, 8};
    const std::vector<FillCase> cases = {
        {"stts (n-1, d): times i x d", With(AudioTrack(1, NumberedSamples(4)), "stts", Stts({{3, 10}})), 2, 1,
         fourTimes, fourSizes, {}, {}},
        {"stts (n, d): the same times", With(AudioTrack(1, NumberedSamples(4)), "stts", Stts({{4, 10}})), 2, 1,
         fourTimes, fourSizes, {}, {}},
        {"stts (2,10),(2,20): the delta of the entry covering the sample before",
         With(AudioTrack(1, NumberedSamples(4)), "stts", Stts({{2, 10}, {2, 20}})), 2, 1, {0, 10, 20, 40},
         fourSizes, {}, {}},
        {"stts entry of count 0 serves no sample",
         With(AudioTrack(1, NumberedSamples(4)), "stts", Stts({{1, 10}, {0, 99}, {2, 20}})), 2, 1,
         {0, 10, 30, 50}, fourSizes, {}, {}},
        {"stts that runs out before the samples: given up",
         With(AudioTrack(1, NumberedSamples(4)), "stts", Stts({{1, 10}, {1, 10}})), 2, -92, {}, {}, {}, {}},
        {"stsz constant 4: every size is 4", With(AudioTrack(1, NumberedSamples(3, 4)), "stsz", StszConstant(4, 3)),
         2, 1, {0, 10, 20}, {4, 4, 4}, {}, {}},
        {"stsc (1,3), 7 samples: chunks of 3, 3, 1",
         With(With(AudioTrack(1, NumberedSamples(7)), "stsc", Stsc({{1, 3}})), "stco", Stco({100, 200, 300})), 2,
         1, {0, 10, 20, 30, 40, 50, 60}, {8, 8, 8, 8, 8, 8, 8},
         {100, 108, 116, 200, 208, 216, 300}, {}},
        {"stsc (1,2),(3,1): two chunks of 2, then one sample a chunk",
         With(With(AudioTrack(1, NumberedSamples(6)), "stsc", Stsc({{1, 2}, {3, 1}})), "stco",
              Stco({100, 200, 300, 400})),
         2, 1, {0, 10, 20, 30, 40, 50}, {8, 8, 8, 8, 8, 8}, {100, 108, 200, 208, 300, 400}, {}},
        {"stsc whose FirstChunk goes back: its run ends past the track, one chunk of 10",
         With(AudioTrack(1, NumberedSamples(10)), "stsc", Stsc({{1, 10}, {0, 5}})), 2, 1, {}, {}, {}, {}},
        {"stsc with 0 samples per chunk: given up", With(AudioTrack(1, NumberedSamples(3)), "stsc", Stsc({{1, 0}})),
         2, -92, {}, {}, {}, {}},
        {"stsc without entries: given up", With(AudioTrack(1, NumberedSamples(3)), "stsc", Stsc({})), 2, -92, {},
         {}, {}, {}},
        {"stco that runs out before the chunks do: given up",
         With(AudioTrack(1, NumberedSamples(3)), "stco", Stco({28, 36})), 2, -92, {}, {}, {}, {}},
        {"co64 instead of stco: given up",
         With(AudioTrack(1, NumberedSamples(2)), "stco", FullAtom("co64", 0, {U32(1), U32(0), U32(28)})), 2, -95,
         {}, {}, {}, {}},
        {"stss in mode 1 marks its samples", Synced(VideoTrack(1, NumberedSamples(5)), {1, 4}), 1, 1,
         {0, 10, 20, 30, 40}, {8, 8, 8, 8, 8}, {}, {1, 0, 0, 1, 0}},
        {"stss naming every sample fits the key frame table",
         Synced(VideoTrack(1, NumberedSamples(4)), {1, 2, 3, 4}), 1, 1, fourTimes, fourSizes, {},
         {1, 1, 1, 1}},
        {"stss sample 0 in mode 1: -94", Synced(VideoTrack(1, NumberedSamples(4)), {1, 0}), 1, -94, {}, {},
         {}, {}},
        {"stss past the samples in mode 2: -93", Synced(VideoTrack(1, NumberedSamples(4)), {5}), 2, -93, {},
         {}, {}, {}},
        {"stss past the samples in mode 3: -93", Synced(VideoTrack(1, NumberedSamples(4)), {1, 9}), 3, -93,
         {}, {}, {}, {}},
        {"scan: intra, predicted and bidirectional planes", ScannedVideo({0, 1, 2, 1}), 1, 1,
         fourTimes, {}, {}, {1, 0, 0, 0}},
        {"scan: start code behind 16 bytes is found", ScannedVideo({0, 1, 1}, 16), 2, 1,
         {0, 10, 20}, {}, {}, {1, 0, 0}},
        {"scan: start code behind 17 bytes is not: given up", ScannedVideo({0, 1, 1}, 17), 2, 0,
         {}, {}, {}, {}},
        {"scan: a sprite plane gives the track up", ScannedVideo({0, 1, 3, 1}), 2, 0, {}, {}, {},
         {}},
        {"scan: more than half intra gives the track up", ScannedVideo({0, 0, 1, 0}), 1, 0, {}, {},
         {}, {}},
        {"scan: exactly half intra is kept", ScannedVideo({0, 1, 0, 1}), 1, 1, fourTimes, {}, {},
         {1, 0, 1, 0}},
        {"scan: s263 without stss has no plane start code", s263, 2, 0, {}, {}, {}, {}},
        {"audio stss only counts: no sample marked", Synced(AudioTrack(1, NumberedSamples(6)), {1, 2, 3, 4, 5}), 1,
         1, {0, 10, 20, 30, 40, 50}, {}, {}, {0, 0, 0, 0, 0, 0}},
    };
    for (const FillCase &c : cases) {
        SCOPED_TRACE(c.name);
        const MiniTrack &track = c.track;
        const bool video = track.handler == "vide";
        const std::vector<MiniTrack> tracks = {track};
        OpenedFile opened(BuildMiniMp4(tracks), c.mode);
        ASSERT_EQ(opened.result, 1);
        EXPECT_EQ(FillResult(opened, video, uint32_t(track.samples.size()), c.mode), c.fill);
        const TrackNode *node = FirstTrackNode(opened.handle);
        if (c.fill < 1) {
            EXPECT_EQ(node, nullptr) << "a failed fill gives the track up";
            continue;
        }
        ASSERT_NE(node, nullptr);
        ASSERT_EQ(node->SampleCount, track.samples.size());
        for (size_t i = 0; i < node->SampleCount; ++i) {
            const SampleRecord &record = node->SampleRecords[i];
            SCOPED_TRACE(i);
            if (!c.times.empty()) {
                EXPECT_EQ(record.Time, c.times[i]);
            }
            if (!c.sizes.empty()) {
                EXPECT_EQ(record.Size, c.sizes[i]);
            }
            uint32_t offset = c.offsets.empty() ? MiniSampleOffset(tracks, 0, i) : c.offsets[i];
            EXPECT_EQ(record.FileOffset, offset);
            if (!c.keys.empty()) {
                EXPECT_EQ(record.IsKeyFrame, c.keys[i]);
            }
        }
    }
}

TEST(FillTables, KeyFrameTableHoldsTheKeyFramesAndAZeroedRecordBehind) {
    struct Case {
        const char *name;
        MiniTrack track;
        std::vector<uint32_t> keyIndexes;
    };
    const std::vector<Case> cases = {
        {"every sample in stss", Synced(VideoTrack(1, NumberedSamples(6)), {1, 2, 3, 4, 5, 6}),
         {0, 1, 2, 3, 4, 5}},
        {"two of six in stss", Synced(VideoTrack(1, NumberedSamples(6)), {1, 5}), {0, 4}},
        {"scanned", ScannedVideo({0, 1, 1, 0, 1, 1}), {0, 3}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(BuildMiniMp4({c.track}), MP4_TABLE_KEYFRAMES);
        const TrackNode *node = FirstTrackNode(opened.handle);
        ASSERT_NE(node, nullptr);
        ASSERT_EQ(node->KeyFrameCount, c.keyIndexes.size());
        ASSERT_EQ(node->KeyFrameCapacity, node->KeyFrameCount + 1);
        for (size_t k = 0; k < c.keyIndexes.size(); ++k) {
            EXPECT_EQ(node->KeyFrameRecords[k].SampleIndex, c.keyIndexes[k]);
            EXPECT_EQ(node->KeyFrameRecords[k].Time, c.keyIndexes[k] * 10);
        }
        const KeyFrameRecord &behind = node->KeyFrameRecords[node->KeyFrameCount];
        EXPECT_EQ(behind.SampleIndex, 0u);
        EXPECT_EQ(behind.Time, 0u);
    }
}

TEST(FillTables, ModesTwoAndThreeMakeNoKeyFrameTable) {
    for (int32_t mode : {MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT}) {
        OpenedFile opened(BuildMiniMp4({ScannedVideo({0, 1, 0, 1})}), mode);
        const TrackNode *node = FirstTrackNode(opened.handle);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->KeyFrameRecords, nullptr);
        EXPECT_EQ(node->KeyFrameCount, 2u);
    }
}

TEST(FillTables, ScanPrintsEachKeyFrameUpToTheOneThatStopsIt) {
    OpenedFile kept(BuildMiniMp4({ScannedVideo({0, 1, 0, 1})}));
    EXPECT_EQ(kept.output, ">>>frame [0] is Key Frame\n>>>frame [2] is Key Frame\n");
    OpenedFile stopped(BuildMiniMp4({ScannedVideo({0, 0, 0, 1})}));
    EXPECT_EQ(stopped.output,
              ">>>frame [0] is Key Frame\n>>>frame [1] is Key Frame\n>>>frame [2] is Key Frame\n");
    EXPECT_EQ(FirstTrackNode(stopped.handle), nullptr);
}

// A count is bounded by the bytes that could hold it; one the file can
// hold is kept (the "stsz constant" row above).
TEST(FillTables, HugeConstantSizeCountInASmallFileIsGivenUpAtOnce) {
    Bytes image = BuildMiniMp4({With(AudioTrack(1, NumberedSamples(2, 1)), "stsz", StszConstant(1, 100000000))});
    ASSERT_LT(image.size(), 1024u);
    auto start = std::chrono::steady_clock::now();
    OpenedFile opened(image);
    auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(opened.result, 1);
    ASSERT_NE(opened.handle->read.AudioFirst, nullptr);
    EXPECT_EQ(opened.handle->read.AudioFirst->Track, nullptr);
    EXPECT_LT(elapsed, std::chrono::seconds(1));
}

}  // namespace
