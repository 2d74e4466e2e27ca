// Decoder-assisted video seek: which samples reach the decoder, in which
// order, where the cursor ends, how each failure and refusal is reported;
// listed whole against tests/data/read/video_seek.txt. The test binary
// links a logging decore of its own.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

#include "support/listing.h"
#include "support/mini_mp4.h"

using namespace testing_support;

namespace {

// What the decoder saw: "number/track" of each sample it was given (from
// the sample's bytes), and anything the caller's words or context lost.
struct DecoderLog {
    std::string seen;
    int calls = 0;
    int failAt = -1;  // the call (from 0) that fails
};
DecoderLog gLog;
constexpr uintptr_t kWord2 = 0x2222, kWord3 = 0x3333;
void *const kContextWord = reinterpret_cast<void *>(0xC0FFEE);

}  // namespace

// Decodes nothing: logs the sample and counts its calls in word 1.
extern "C" int32_t decore(uint32_t command, DecoreFrame *frame, void *context) {
    const uint8_t *data = static_cast<const uint8_t *>(frame->Data);
    gLog.seen += " " + std::to_string(data[0] | data[1] << 8) + "/" + std::to_string(data[3]);
    if (command != MP4_DECORE_DECODE || frame->Word2 != kWord2 || frame->Word3 != kWord3 ||
        static_cast<void **>(context)[MP4_DECORE_CONTEXT_SLOT] != kContextWord)
        gLog.seen += "(words or context lost)";
    if (gLog.calls++ == gLog.failAt) return -1;
    frame->Result += 1;
    return 0;
}

namespace {

TEST(VideoSeek, DecodedSamplesCursorsAndResultsMatchTheGolden) {
    const MiniTrack keys0_4_7 = KeyedVideo(10, {0, 4, 7});
    MiniTrack emptyKey = keys0_4_7, emptyFed = keys0_4_7, broken = keys0_4_7;
    emptyKey.samples[0].clear();
    emptyFed.samples[5].clear();
    broken.replace["stco"] = {};
    enum { kNullFile = 1, kNullWord = 2, kNullContext = 4, kNullResult = 8, kUseTrack2 = 16, kWideWord1 = 32 };
    struct Case {
        const char *what;
        std::vector<MiniTrack> tracks;
        int32_t mode, cursor, target;
        int failAt = -1;
        uint32_t reserved = 0;
        int flags = 0;
    };
    const std::vector<Case> cases = {
        {"key frame 0", {keys0_4_7}, 1, 0, 0}, {"to 2", {keys0_4_7}, 1, 0, 2},
        {"word 1 above 32 bits: the low 32 come back", {keys0_4_7}, 1, 0, 0, -1, 0, kWideWord1},
        {"to 6", {keys0_4_7}, 1, 0, 6},        {"to 9", {keys0_4_7}, 1, 0, 9},
        {"to 10, the count", {keys0_4_7}, 1, 0, 10},
        {"key frame 4 from 0", {keys0_4_7}, 1, 0, 4}, {"key frame 7 from 0", {keys0_4_7}, 1, 0, 7},
        {"to 6 from 5", {keys0_4_7}, 1, 5, 6},  {"key frame 4 from 5", {keys0_4_7}, 1, 5, 4},
        {"a step can't read key frame 0", {emptyKey}, 1, 0, 6},
        {"decoder fails on the key frame", {keys0_4_7}, 1, 0, 6, 0},
        {"decoder fails on the second fed sample", {keys0_4_7}, 1, 0, 6, 2},
        {"a fed sample can't be read", {emptyFed}, 1, 0, 6},
        {"target past the end", {keys0_4_7}, 1, 3, 11}, {"negative target", {keys0_4_7}, 1, 3, -1},
        {"reserved not 0", {keys0_4_7}, 1, 3, 2, -1, 1},
        {"null file", {keys0_4_7}, 1, 3, 2, -1, 0, kNullFile},
        {"null context word", {keys0_4_7}, 1, 3, 2, -1, 0, kNullWord},
        {"null context", {keys0_4_7}, 1, 3, 2, -1, 0, kNullContext},
        {"null result", {keys0_4_7}, 1, 3, 2, -1, 0, kNullResult},
        {"mode 2", {keys0_4_7}, 2, 3, 2}, {"mode 3", {keys0_4_7}, 3, 3, 2},
        {"no video track", {KeyedAudio(4, 2)}, 1, 3, 2},
        {"video record without tables", {broken}, 1, 3, 2},
        {"before the first key frame", {KeyedVideo(8, {2, 5})}, 1, 3, 1},
        {"no key frames", {KeyedVideo(8, {})}, 1, 3, 3},
        {"two tracks: the first after the open", {keys0_4_7, KeyedVideo(6, {0, 2}, 2)}, 1, 0, 6},
        {"two tracks: the one last read", {keys0_4_7, KeyedVideo(6, {0, 2}, 2)}, 1, 0, 4, -1, 0, kUseTrack2},
    };
    std::string text;
    for (const Case &c : cases) {
        OpenedFile opened(BuildMiniMp4(c.tracks), c.mode);
        VideoTrackNode *video = opened.handle->read.VideoFirst;
        if (video != nullptr) {
            video->SampleCursor = c.cursor;
            video->KeyFrameCursor = 2;
        }
        if (c.flags & kUseTrack2) {
            MP4Sample *sample = nullptr;
            GetNextSample(opened.handle, 2, MP4_TRACK_VIDEO, &sample);
            SampleDataFree(&sample);
        }
        gLog = DecoderLog{};
        gLog.failAt = c.failAt;
        void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
        uint32_t word1 = 0xDEADBEEF;
        CaptureStream out(stdout);
        const int32_t result = Mp4VideoSeek(
            (c.flags & kNullFile) ? nullptr : opened.handle, c.reserved, c.target,
            (c.flags & kNullResult) ? nullptr : &word1, (c.flags & kNullWord) ? nullptr : kContextWord,
            (c.flags & kNullContext) ? nullptr : context, 0,
            (c.flags & kWideWord1) && sizeof(uintptr_t) > 4 ? uintptr_t(0x700000064ull) : 100, kWord2, kWord3);
        text += std::string("== ") + c.what + ": " + std::to_string(result) + ", word 1 " +
                (word1 == 0xDEADBEEF ? "untouched" : std::to_string(word1)) + ", decoded" +
                gLog.seen + (context[MP4_DECORE_CONTEXT_SLOT] ? ", context set" : "") + "\n" +
                OneLine(out.Text()) + "\n";
        for (VideoTrackNode *v = opened.handle->read.VideoFirst; v != nullptr; v = v->NextTrack)
            text += "track " + std::to_string(v->TrackId) + " cursor " +
                    std::to_string(v->SampleCursor) + "/" + std::to_string(v->KeyFrameCursor) + "\n";
    }
    ExpectGolden("video_seek.txt", text);
}

// The shared library holds only a weak reference to decore: loaded into a
// program without one, the call says so before it looks at anything.
TEST(VideoSeek, WithoutADecoderLinkedGivesMinusTwo) {
    if (dlsym(RTLD_DEFAULT, "decore") != nullptr)
        GTEST_SKIP() << "this test binary exports its decore to shared objects";
    void *library = dlopen(MP4CORE_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto seek = reinterpret_cast<decltype(&Mp4VideoSeek)>(dlsym(library, "Mp4VideoSeek"));
    uint32_t word1 = 0xDEADBEEF;
    EXPECT_EQ(seek(nullptr, 0, 0, &word1, nullptr, nullptr, 0, 0, 0, 0), -2);
    EXPECT_EQ(word1, 0xDEADBEEF);
    dlclose(library);
}

}  // namespace
