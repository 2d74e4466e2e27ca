// Sample tables of written files: durations from time stamps, sizes, the
// chunk policies of video and of the other tracks, key frames.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "writer/written_file.h"

namespace {

using namespace testing_support;
using namespace writer_test;
using Words = std::vector<uint32_t>;

const std::string kStbl = "moov/trak#1/mdia/minf/stbl/";

// Sample i has i + 1 bytes, so that its temp file offset is i (i + 1) / 2.
uint32_t OffsetOf(uint32_t i) { return i * (i + 1) / 2; }

struct Written {
    Bytes file;
    uint32_t base;  // offset of the first media byte
    Words Table(const char *atom) const { return TableWords(FindAtom(file, kStbl + atom)); }
    uint32_t Duration() const { return Be32At(FindAtom(file, "moov/trak#1/mdia/mdhd"), 24); }
};

Written WriteVideo(const Words &times, const std::set<uint32_t> &keys, bool sameSize = false) {
    WriteSession session;
    EXPECT_EQ(session.Video(), 1);
    for (uint32_t i = 0; i < times.size(); ++i) {
        const Bytes frame = Pattern(sameSize ? 7 : i + 1, uint8_t(i));
        EXPECT_EQ(session.AddVideo(frame, times[i], keys.count(i) != 0), 1);
    }
    Written w{session.Flush(), 0};
    w.base = uint32_t(AtomOffset(w.file, "mdat") + 8);
    return w;
}

Written WriteAudio(uint32_t n) {
    WriteSession session;
    EXPECT_EQ(session.Audio(), 1);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(session.AddAudio(Pattern(i + 1, 1), i * 1024), 1);
    Written w{session.Flush(), 0};
    w.base = uint32_t(AtomOffset(w.file, "mdat") + 8);
    return w;
}

Words Every(uint32_t n, uint32_t step) {
    Words times;
    for (uint32_t i = 0; i < n; ++i) times.push_back(i * step);
    return times;
}

TEST(Tables, SttsRunsOfNeighbourDeltasAndTheDurationTheyAddUpTo) {
    struct Case {
        const char *what;
        Words times;
        Words stts;  // EntryCount, then (count, delta) pairs
        uint32_t duration;
    };
    const Case kCases[] = {
        {"even steps: the last sample counts with the last delta", {0, 40, 80, 120},
         {1, 4, 40}, 160},
        {"a shorter last step", {0, 40, 80, 100}, {2, 2, 40, 2, 20}, 120},
        {"the start above 0 is lost", {100, 140, 180}, {1, 3, 40}, 120},
        {"one frame", {0}, {1, 1, 0}, 0},
        {"equal time stamps give a delta of 0", {0, 0, 40}, {2, 1, 0, 2, 40}, 80},
        {"alternating steps are not merged", {0, 10, 30, 40, 60}, {4, 1, 10, 1, 20, 1, 10, 2, 20},
         80},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        const Written w = WriteVideo(c.times, {0});
        EXPECT_EQ(w.Table("stts"), c.stts);
        EXPECT_EQ(w.Duration(), c.duration);
        EXPECT_EQ(Be32At(FindAtom(w.file, "moov/trak#1/tkhd"), 28), c.duration);
    }
}

TEST(Tables, VideoChunksRunFromKeyFrameToKeyFrame) {
    struct Case {
        const char *what;
        uint32_t n;
        std::set<uint32_t> keys;
        Words stsc;       // EntryCount, then triples
        Words chunks;     // first sample of each chunk
        Words stss;
    };
    const Case kCases[] = {
        {"key frames at 0, 12, 24 of 30", 30, {0, 12, 24},
         {3, 1, 12, 1, 2, 12, 1, 3, 6, 1}, {0, 12, 24}, {3, 1, 13, 25}},
        {"every frame a key frame", 4, {0, 1, 2, 3},
         {4, 1, 1, 1, 2, 1, 1, 3, 1, 1, 4, 1, 1}, {0, 1, 2, 3}, {4, 1, 2, 3, 4}},
        {"samples before the first key frame lie in no chunk", 5, {2},
         {1, 1, 3, 1}, {2}, {1, 3}},
        {"no key frame: no chunk", 3, {}, {0}, {}, {0}},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        const Written w = WriteVideo(Every(c.n, 40), c.keys);
        EXPECT_EQ(w.Table("stsc"), c.stsc);
        Words stco{uint32_t(c.chunks.size())};
        for (uint32_t first : c.chunks) stco.push_back(w.base + OffsetOf(first));
        EXPECT_EQ(w.Table("stco"), stco);
        EXPECT_EQ(w.Table("stss"), c.stss);
    }
}

TEST(Tables, OtherTracksPutThirtySamplesInAChunk) {
    struct Case {
        uint32_t n;
        Words stsc;
        Words chunks;
    };
    const Case kCases[] = {
        {29, {1, 1, 29, 1}, {0}},
        {30, {1, 1, 30, 1}, {0}},
        {60, {1, 1, 30, 1}, {0, 30}},
        {75, {2, 1, 30, 1, 3, 15, 1}, {0, 30, 60}},
        {1, {1, 1, 1, 1}, {0}},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.n);
        const Written w = WriteAudio(c.n);
        EXPECT_EQ(w.Table("stsc"), c.stsc);
        Words stco{uint32_t(c.chunks.size())};
        for (uint32_t first : c.chunks) stco.push_back(w.base + OffsetOf(first));
        EXPECT_EQ(w.Table("stco"), stco);
        // Audio files carry no "stss".
        EXPECT_TRUE(FindAtom(w.file, kStbl + "stss").empty());
    }
}

TEST(Tables, StszHasNoTableWhenAllFramesHaveOneSize) {
    const Written same = WriteVideo(Every(5, 40), {0}, true);
    EXPECT_EQ(FindAtom(same.file, kStbl + "stsz"), FullAtom("stsz", 0, {U32(7), U32(5)}));
    const Written varied = WriteVideo(Every(3, 40), {0});
    EXPECT_EQ(FindAtom(varied.file, kStbl + "stsz"),
              FullAtom("stsz", 0, {U32(0), U32(3), U32(1), U32(2), U32(3)}));
}

TEST(Tables, CompositionOffsetsGoToCttsOnePerSample) {
    WriteSession session;
    ASSERT_EQ(session.Video(176, 144, {}, 1000, 1), 1);
    const Words offsets = {80, 0, 40};
    for (uint32_t i = 0; i < 3; ++i) {
        const Bytes frame = Pattern(3, uint8_t(i));
        ASSERT_EQ(AddVideoFrame(session.file(), 3, frame.data(), offsets[i], i * 40, i == 0, 1), 1);
    }
    // Without the flag the offset is not stored.
    const Bytes frame = Pattern(3, 9);
    ASSERT_EQ(AddVideoFrame(session.file(), 3, frame.data(), 999, 120, 0, 0), 1);
    const Bytes file = session.Flush();
    EXPECT_EQ(FindAtom(file, kStbl + "ctts"),
              FullAtom("ctts", 0, {U32(4), U32(1), U32(80), U32(1), U32(0), U32(1), U32(40),
                                   U32(1), U32(0)}));
    EXPECT_EQ(AtomOffset(file, kStbl + "ctts") - AtomOffset(file, kStbl + "stss"),
              long(FindAtom(file, kStbl + "stss").size()))
        << "ctts is the last child of stbl";
}

}  // namespace
