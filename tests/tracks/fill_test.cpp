// Filling the sample and key frame tables of a track: one table varied at a
// time in a minimal file, the tables checked record by record.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>

#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

std::vector<Bytes> Samples(size_t count, size_t size = 8) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; ++i) out.push_back(Bytes(size, uint8_t(i + 1)));
    return out;
}

MiniTrack Audio(std::vector<Bytes> samples) {
    MiniTrack track;
    track.handler = "soun";
    track.samples = std::move(samples);
    return track;
}

// Video with an "stss" that marks sample 1, so no sample data is scanned.
MiniTrack VideoWithStss(std::vector<Bytes> samples) {
    MiniTrack track;
    track.samples = std::move(samples);
    track.withStss = true;
    track.syncSamples = {1};
    return track;
}

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

struct FillCase {
    const char *name;
    std::function<MiniTrack()> track;
    int32_t mode;
    int32_t fill;                    // what FillVideoTables/FillAudioTables give
    std::vector<uint32_t> times;     // checked when the track is kept
    std::vector<uint32_t> sizes;
    std::vector<uint32_t> offsets;   // absolute; empty: back to back from kMiniDataStart
    std::vector<uint8_t> keys;       // empty: not checked
};

TEST(FillTables, StagesGiveTheRecordsTheAtomsDescribe) {
    const std::vector<FillCase> cases = {
        {"stts (n-1, d): times i x d",
         [] { auto t = Audio(Samples(4)); t.replace["stts"] = Stts({{3, 10}}); return t; },
         2, 1, {0, 10, 20, 30}, {8, 8, 8, 8}, {}, {}},
        {"stts (n, d): the same times",
         [] { auto t = Audio(Samples(4)); t.replace["stts"] = Stts({{4, 10}}); return t; },
         2, 1, {0, 10, 20, 30}, {8, 8, 8, 8}, {}, {}},
        {"stts (2,10),(2,20): the delta of the entry covering the sample before",
         [] { auto t = Audio(Samples(4)); t.replace["stts"] = Stts({{2, 10}, {2, 20}}); return t; },
         2, 1, {0, 10, 20, 40}, {8, 8, 8, 8}, {}, {}},
        {"stts entry of count 0 serves no sample",
         [] {
             auto t = Audio(Samples(4));
             t.replace["stts"] = Stts({{1, 10}, {0, 99}, {2, 20}});
             return t;
         },
         2, 1, {0, 10, 30, 50}, {8, 8, 8, 8}, {}, {}},
        {"stts that runs out before the samples: given up",
         [] { auto t = Audio(Samples(4)); t.replace["stts"] = Stts({{1, 10}, {1, 10}}); return t; },
         2, -92, {}, {}, {}, {}},
        {"stsz constant 4: every size is 4",
         [] { auto t = Audio(Samples(3, 4)); t.replace["stsz"] = StszConstant(4, 3); return t; },
         2, 1, {0, 10, 20}, {4, 4, 4}, {}, {}},
        {"stsc (1,3), 7 samples: chunks of 3, 3, 1",
         [] {
             auto t = Audio(Samples(7));
             t.replace["stsc"] = Stsc({{1, 3}});
             t.replace["stco"] = Stco({100, 200, 300});
             return t;
         },
         2, 1, {0, 10, 20, 30, 40, 50, 60}, {8, 8, 8, 8, 8, 8, 8},
         {100, 108, 116, 200, 208, 216, 300}, {}},
        {"stsc (1,2),(3,1): two chunks of 2, then one sample a chunk",
         [] {
             auto t = Audio(Samples(6));
             t.replace["stsc"] = Stsc({{1, 2}, {3, 1}});
             t.replace["stco"] = Stco({100, 200, 300, 400});
             return t;
         },
         2, 1, {0, 10, 20, 30, 40, 50}, {8, 8, 8, 8, 8, 8}, {100, 108, 200, 208, 300, 400}, {}},
        {"stsc whose FirstChunk goes backwards: given up",
         [] {
             auto t = Audio(Samples(6));
             t.replace["stsc"] = Stsc({{3, 2}, {2, 1}});
             return t;
         },
         2, -92, {}, {}, {}, {}},
        {"stsc with 0 samples per chunk: given up",
         [] { auto t = Audio(Samples(3)); t.replace["stsc"] = Stsc({{1, 0}}); return t; },
         2, -92, {}, {}, {}, {}},
        {"stsc without entries: given up",
         [] { auto t = Audio(Samples(3)); t.replace["stsc"] = Stsc({}); return t; },
         2, -92, {}, {}, {}, {}},
        {"stco that runs out before the chunks do: given up",
         [] { auto t = Audio(Samples(3)); t.replace["stco"] = Stco({28, 36}); return t; },
         2, -92, {}, {}, {}, {}},
        {"co64 instead of stco: given up",
         [] {
             auto t = Audio(Samples(2));
             t.replace["stco"] = FullAtom("co64", 0, {U32(1), U32(0), U32(28)});
             return t;
         },
         2, -95, {}, {}, {}, {}},
        {"stss in mode 1 marks its samples",
         [] { auto t = VideoWithStss(Samples(5)); t.syncSamples = {1, 4}; return t; },
         1, 1, {0, 10, 20, 30, 40}, {8, 8, 8, 8, 8}, {}, {1, 0, 0, 1, 0}},
        {"stss naming every sample fits the key frame table",
         [] { auto t = VideoWithStss(Samples(4)); t.syncSamples = {1, 2, 3, 4}; return t; },
         1, 1, {0, 10, 20, 30}, {8, 8, 8, 8}, {}, {1, 1, 1, 1}},
        {"stss sample 0 in mode 1: -94",
         [] { auto t = VideoWithStss(Samples(4)); t.syncSamples = {1, 0}; return t; },
         1, -94, {}, {}, {}, {}},
        {"stss past the samples in mode 2: -93",
         [] { auto t = VideoWithStss(Samples(4)); t.syncSamples = {5}; return t; },
         2, -93, {}, {}, {}, {}},
        {"stss past the samples in mode 3: -93",
         [] { auto t = VideoWithStss(Samples(4)); t.syncSamples = {1, 9}; return t; },
         3, -93, {}, {}, {}, {}},
        {"scan: intra, predicted and bidirectional planes",
         [] { return ScannedVideo({0, 1, 2, 1}); }, 1, 1, {0, 10, 20, 30}, {}, {}, {1, 0, 0, 0}},
        {"scan: start code behind 16 bytes is found",
         [] { return ScannedVideo({0, 1, 1}, 16); }, 2, 1, {0, 10, 20}, {}, {}, {1, 0, 0}},
        {"scan: start code behind 17 bytes is not: given up",
         [] { return ScannedVideo({0, 1, 1}, 17); }, 2, 0, {}, {}, {}, {}},
        {"scan: a sprite plane gives the track up",
         [] { return ScannedVideo({0, 1, 3, 1}); }, 2, 0, {}, {}, {}, {}},
        {"scan: more than half intra gives the track up",
         [] { return ScannedVideo({0, 0, 1, 0}); }, 1, 0, {}, {}, {}, {}},
        {"scan: exactly half intra is kept",
         [] { return ScannedVideo({0, 1, 0, 1}); }, 1, 1, {0, 10, 20, 30}, {}, {}, {1, 0, 1, 0}},
        {"scan: s263 without stss has no plane start code",
         [] {
             MiniTrack t;
             t.sampleEntry = S263Entry(176, 144);
             t.samples = {Hex("00 00 80 02 0A 10"), Hex("00 00 81 02 0A 10")};
             return t;
         },
         2, 0, {}, {}, {}, {}},
        {"audio stss only counts: no sample marked",
         [] {
             auto t = Audio(Samples(6));
             t.withStss = true;
             t.syncSamples = {1, 2, 3, 4, 5};
             return t;
         },
         1, 1, {0, 10, 20, 30, 40, 50}, {}, {}, {0, 0, 0, 0, 0, 0}},
    };
    for (const FillCase &c : cases) {
        SCOPED_TRACE(c.name);
        MiniTrack track = c.track();
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
    MiniTrack all = VideoWithStss(Samples(6));
    all.syncSamples = {1, 2, 3, 4, 5, 6};
    MiniTrack some = VideoWithStss(Samples(6));
    some.syncSamples = {1, 5};
    const std::vector<Case> cases = {
        {"every sample in stss", all, {0, 1, 2, 3, 4, 5}},
        {"two of six in stss", some, {0, 4}},
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

TEST(FillTables, HugeConstantSizeCountInASmallFileIsGivenUpAtOnce) {
    MiniTrack track = Audio(Samples(2, 1));
    track.replace["stsz"] = StszConstant(1, 100000000);
    Bytes image = BuildMiniMp4({track});
    ASSERT_LT(image.size(), 1024u);
    auto start = std::chrono::steady_clock::now();
    OpenedFile opened(image);
    auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(opened.result, 1);
    ASSERT_NE(opened.handle->read.AudioFirst, nullptr);
    EXPECT_EQ(opened.handle->read.AudioFirst->Track, nullptr);
    EXPECT_LT(elapsed, std::chrono::seconds(1));
}

TEST(FillTables, CountThatTheFileCanHoldIsKept) {
    MiniTrack track = Audio(Samples(3, 4));
    track.replace["stsz"] = StszConstant(4, 3);
    OpenedFile opened(BuildMiniMp4({track}));
    ASSERT_NE(opened.handle->read.AudioFirst->Track, nullptr);
    EXPECT_EQ(opened.handle->read.AudioFirst->Track->SampleCount, 3u);
}

}  // namespace
