// Decoder-assisted video seek: which samples reach the decoder, in which
// order, where the cursor ends, and how each failure is reported. The test
// binary links a logging decore of its own.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

#include "seek_support.h"

using namespace testing_support;
using namespace seek_support;

namespace {

// What the decoder saw: the number and track of each sample it was given
// (from the sample's bytes), and whether the frame and the context came
// through as they should.
struct DecoderLog {
    std::vector<uint32_t> numbers;
    std::vector<uint32_t> tracks;
    int failAt = -1;         // the call (from 0) that fails
    bool wordsKept = true;   // words 2 and 3 as the caller gave them
    bool contextSet = true;  // slot 21 holds the caller's word at every call
    bool otherCommand = false;
};

DecoderLog gLog;
constexpr uintptr_t kWord2 = 0x2222;
constexpr uintptr_t kWord3 = 0x3333;
void *const kContextWord = reinterpret_cast<void *>(0xC0FFEE);

}  // namespace

// Decodes nothing: logs the sample and counts its calls in word 1.
extern "C" int32_t decore(uint32_t command, DecoreFrame *frame, void *context) {
    const uint8_t *data = static_cast<const uint8_t *>(frame->Data);
    gLog.numbers.push_back(data[0] | (uint32_t(data[1]) << 8));
    gLog.tracks.push_back(data[3]);
    gLog.otherCommand |= command != MP4_DECORE_DECODE;
    gLog.wordsKept &= frame->Word2 == kWord2 && frame->Word3 == kWord3;
    gLog.contextSet &= static_cast<void **>(context)[MP4_DECORE_CONTEXT_SLOT] == kContextWord;
    if (int(gLog.numbers.size()) - 1 == gLog.failAt) return -1;
    frame->Result += 1;
    return 0;
}

namespace {

struct Seek {
    int32_t result = 0;
    uint32_t word1 = 0xDEADBEEF;  // what `result` received
    std::string printed;
};

// Mp4VideoSeek with word 1 starting at 100 and a fresh log.
Seek VideoSeek(MP4_local_file *file, int32_t sampleNumber, int failAt = -1,
               uint32_t reserved = 0) {
    gLog = DecoderLog{};
    gLog.failAt = failAt;
    void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
    Seek seek;
    CaptureStream out(stdout);
    seek.result = Mp4VideoSeek(file, reserved, sampleNumber, &seek.word1, kContextWord, context,
                               0, 100, kWord2, kWord3);
    seek.printed = out.Text();
    return seek;
}

// Ten samples, key frames at 0, 4 and 7.
TEST(Mp4VideoSeekTest, FeedsFromTheKeyFrameBeforeTheTargetUpToIt) {
    struct Case {
        int32_t cursorBefore, target;
        std::vector<uint32_t> decoded;
        int32_t cursorAfter;
    };
    const std::vector<Case> cases = {
        {0, 0, {0}, 1},       {0, 2, {0, 0, 1}, 2},    {0, 6, {4, 4, 5}, 6},
        {0, 9, {7, 7, 8}, 9}, {0, 10, {7, 7, 8, 9}, 10},
        // Key frame k > 0 takes k steps, which from cursor 0 end one short.
        {0, 4, {0}, 1},       {0, 7, {4}, 5},
        // The steps run on from where the cursor stands: from 5 they give 7
        // and then 0; the feed still starts at 4. A key frame target has
        // nothing that makes up for it.
        {5, 6, {0, 4, 5}, 6}, {5, 4, {7}, 8},
    };
    OpenedFile opened(BuildMiniMp4({TenSamplesKeysAt0And4And7()}), MP4_TABLE_KEYFRAMES);
    ASSERT_EQ(opened.result, 1);
    VideoTrackNode *video = FirstVideo(opened.handle);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "from " << c.cursorBefore << " to " << c.target);
        video->SampleCursor = c.cursorBefore;
        video->KeyFrameCursor = 5;
        Seek seek = VideoSeek(opened.handle, c.target);
        ASSERT_EQ(seek.result, 1);
        EXPECT_EQ(gLog.numbers, c.decoded);
        EXPECT_EQ(video->SampleCursor, c.cursorAfter);
        EXPECT_EQ(seek.word1, 100 + c.decoded.size()) << "word 1 as the decoder left it";
        EXPECT_TRUE(gLog.wordsKept);
        EXPECT_TRUE(gLog.contextSet);
        EXPECT_FALSE(gLog.otherCommand);
        EXPECT_EQ(seek.printed, "VIDEO:Track ID[1] Track type[1] 1th\n");
    }
}

TEST(Mp4VideoSeekTest, LowThirtyTwoBitsOfWordOneComeBack) {
    OpenedFile opened(BuildMiniMp4({TenSamplesKeysAt0And4And7()}), MP4_TABLE_KEYFRAMES);
    gLog = DecoderLog{};
    void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
    uint32_t word1 = 0;
    const uintptr_t start = sizeof(uintptr_t) > 4 ? uintptr_t(0x700000000ull) + 5 : 5;
    CaptureStream out(stdout);
    int32_t result = Mp4VideoSeek(opened.handle, 0, 0, &word1, kContextWord, context, 0, start,
                                  kWord2, kWord3);
    out.Text();
    ASSERT_EQ(result, 1);
    EXPECT_EQ(word1, 6u);
    EXPECT_EQ(context[MP4_DECORE_CONTEXT_SLOT], kContextWord);
}

TEST(Mp4VideoSeekTest, FailuresOfTheStepsTheDecoderAndTheFeed) {
    MiniTrack emptyKey = TenSamplesKeysAt0And4And7();
    emptyKey.samples[0].clear();
    MiniTrack emptyFed = TenSamplesKeysAt0And4And7();
    emptyFed.samples[5].clear();
    struct Case {
        const char *name;
        MiniTrack track;
        int failAt;
        int32_t result;
        std::vector<uint32_t> decoded;
        int32_t cursorAfter;
    };
    const std::vector<Case> cases = {
        {"a step can't read key frame 0", emptyKey, -1, -31, {}, 0},
        {"decoder fails on the key frame", TenSamplesKeysAt0And4And7(), 0, -32, {4}, 5},
        {"decoder fails on the second fed sample", TenSamplesKeysAt0And4And7(), 2, -33,
         {4, 4, 5}, 6},
        // The sample that can't be read is not replaced by the one before.
        {"a fed sample can't be read", emptyFed, -1, -33, {4, 4}, 5},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(BuildMiniMp4({c.track}), MP4_TABLE_KEYFRAMES);
        ASSERT_EQ(opened.result, 1);
        Seek seek = VideoSeek(opened.handle, 6, c.failAt);
        EXPECT_EQ(seek.result, c.result);
        EXPECT_EQ(seek.word1, 0xDEADBEEF) << "result is written only on success";
        EXPECT_EQ(gLog.numbers, c.decoded);
        EXPECT_EQ(FirstVideo(opened.handle)->SampleCursor, c.cursorAfter);
    }
}

// Refused before anything moves: nothing printed or decoded, the context
// and the cursors as they were.
TEST(Mp4VideoSeekTest, RefusalsGiveMinusOneAndTouchNothing) {
    MiniTrack broken = TenSamplesKeysAt0And4And7();
    broken.replace["stco"] = {};
    MiniTrack audio = NumberedAudio(4, 2);
    enum Null { kNone = 0, kNullFile = 1, kNullWord = 2, kNullContext = 4, kNullResult = 8 };
    struct Case {
        const char *name;
        std::vector<MiniTrack> tracks;
        int32_t mode, target;
        uint32_t reserved;
        int nulls;
    };
    const std::vector<MiniTrack> good = {TenSamplesKeysAt0And4And7()};
    const std::vector<Case> cases = {
        {"target past the end", good, 1, 11, 0, kNone},
        {"negative target", good, 1, -1, 0, kNone},
        {"reserved not 0", good, 1, 2, 1, kNone},
        {"null file", good, 1, 2, 0, kNullFile},
        {"null context word", good, 1, 2, 0, kNullWord},
        {"null context", good, 1, 2, 0, kNullContext},
        {"null result", good, 1, 2, 0, kNullResult},
        {"mode 2", good, 2, 2, 0, kNone},
        {"mode 3", good, 3, 2, 0, kNone},
        {"no video track", {audio}, 1, 2, 0, kNone},
        {"video record without Track", {broken}, 1, 2, 0, kNone},
        {"before the first key frame", {KeyFrameVideo(8, {2, 5})}, 1, 1, 0, kNone},
        {"no key frames", {KeyFrameVideo(8, {})}, 1, 3, 0, kNone},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile opened(BuildMiniMp4(c.tracks), c.mode);
        ASSERT_EQ(opened.result, 1);
        VideoTrackNode *video = FirstVideo(opened.handle);
        if (video != nullptr) {
            video->SampleCursor = 3;
            video->KeyFrameCursor = 2;
        }
        gLog = DecoderLog{};
        void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
        uint32_t word1 = 0xDEADBEEF;
        CaptureStream out(stdout);
        int32_t result = Mp4VideoSeek((c.nulls & kNullFile) ? nullptr : opened.handle, c.reserved,
                                      c.target, (c.nulls & kNullResult) ? nullptr : &word1,
                                      (c.nulls & kNullWord) ? nullptr : kContextWord,
                                      (c.nulls & kNullContext) ? nullptr : context, 0, 100, kWord2,
                                      kWord3);
        EXPECT_EQ(out.Text(), "");
        EXPECT_EQ(result, -1);
        EXPECT_EQ(word1, 0xDEADBEEF);
        EXPECT_TRUE(gLog.numbers.empty());
        EXPECT_EQ(context[MP4_DECORE_CONTEXT_SLOT], nullptr);
        if (video != nullptr) {
            EXPECT_EQ(video->SampleCursor, 3);
            EXPECT_EQ(video->KeyFrameCursor, 2);
        }
    }
}

TEST(Mp4VideoSeekTest, SeveralVideoTracksFollowTheOneLastUsed) {
    // Track 1: key frames 0, 4, 7; track 2: key frames 0, 2.
    OpenedFile opened(BuildMiniMp4({TenSamplesKeysAt0And4And7(), KeyFrameVideo(6, {0, 2}, 2)}),
                      MP4_TABLE_KEYFRAMES);
    ASSERT_EQ(opened.result, 1);
    const std::string list =
        "VIDEO:Track ID[1] Track type[1] 1th\nVIDEO:Track ID[2] Track type[1] 2th\n";
    // After the open the first track is the one last used.
    Seek first = VideoSeek(opened.handle, 6);
    ASSERT_EQ(first.result, 1);
    EXPECT_EQ(gLog.numbers, (std::vector<uint32_t>{4, 4, 5}));
    EXPECT_EQ(gLog.tracks, (std::vector<uint32_t>{1, 1, 1}));
    EXPECT_EQ(first.printed, list);

    MP4Sample *sample = nullptr;
    ASSERT_EQ(GetNextSample(opened.handle, 2, 1, &sample), 1);
    SampleDataFree(&sample);
    Seek second = VideoSeek(opened.handle, 4);
    ASSERT_EQ(second.result, 1);
    // Its cursor stood at 1: the steps give 2, then 0, and the feed starts at 2.
    EXPECT_EQ(gLog.numbers, (std::vector<uint32_t>{0, 2, 3}));
    EXPECT_EQ(gLog.tracks, (std::vector<uint32_t>{2, 2, 2}));
    EXPECT_EQ(second.printed, list);
    EXPECT_EQ(opened.handle->read.VideoFirst->SampleCursor, 6) << "track 1 stays";
    EXPECT_EQ(opened.handle->read.VideoFirst->NextTrack->SampleCursor, 4);
}

// The shared library holds only a weak reference to decore: loaded into a
// program without one, the call says so before it looks at anything.
TEST(Mp4VideoSeekTest, WithoutADecoderLinkedGivesMinusTwo) {
    if (dlsym(RTLD_DEFAULT, "decore") != nullptr)
        GTEST_SKIP() << "this test binary exports its decore to shared objects";
    void *library = dlopen(MP4CORE_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto seek = reinterpret_cast<decltype(&Mp4VideoSeek)>(dlsym(library, "Mp4VideoSeek"));
    ASSERT_NE(seek, nullptr);
    uint32_t word1 = 0xDEADBEEF;
    EXPECT_EQ(seek(nullptr, 0, 0, &word1, nullptr, nullptr, 0, 0, 0, 0), -2);
    EXPECT_EQ(word1, 0xDEADBEEF);
    dlclose(library);
}

}  // namespace
