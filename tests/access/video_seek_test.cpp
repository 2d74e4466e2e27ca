// Decoder-assisted video seek: which samples reach the decoder, in which
// order, where the cursor ends, how each failure and refusal is reported;
// listed whole against tests/data/read/video_seek.txt. The test binary
// links a logging decore of its own.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <set>
#include <sstream>
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
    std::string text;
    for (const auto &row : ReadRows("read/video_seek.rows")) {
        std::istringstream in(row.at(1));
        int32_t mode = 0, cursor = 0, target = 0;
        uint32_t reserved = 0;
        in >> mode >> cursor >> target;
        std::set<std::string> flags;
        gLog = DecoderLog{};
        for (std::string word; in >> word;) {
            if (word == "fail") in >> gLog.failAt;
            if (word == "reserved") in >> reserved;
            flags.insert(word);
        }
        OpenedFile opened(MiniFile(row.at(2)), mode);
        VideoTrackNode *video = opened.handle->read.VideoFirst;
        if (video != nullptr) {
            video->SampleCursor = cursor;
            video->KeyFrameCursor = 2;
        }
        if (flags.count("track2")) {
            MP4Sample *sample = nullptr;
            GetNextSample(opened.handle, 2, MP4_TRACK_VIDEO, &sample);
            SampleDataFree(&sample);
        }
        void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
        uint32_t word1 = 0xDEADBEEF;
        CaptureStream out(stdout);
        const int32_t result = Mp4VideoSeek(
            flags.count("nullfile") ? nullptr : opened.handle, reserved, target,
            flags.count("nullresult") ? nullptr : &word1, flags.count("nullword") ? nullptr : kContextWord,
            flags.count("nullcontext") ? nullptr : context, 0,
            flags.count("wideword") && sizeof(uintptr_t) > 4 ? uintptr_t(0x700000064ull) : 100, kWord2, kWord3);
        text += "== " + row[0] + ": " + std::to_string(result) + ", word 1 " +
                (word1 == 0xDEADBEEF ? "untouched" : std::to_string(word1)) + ", decoded" +
                gLog.seen + (context[MP4_DECORE_CONTEXT_SLOT] ? ", context set" : "") + "\n" +
                OneLine(out.Text()) + "\n";
        for (VideoTrackNode *v = opened.handle->read.VideoFirst; v != nullptr; v = v->NextTrack)
            text += "track " + std::to_string(v->TrackId) + " cursor " +
                    std::to_string(v->SampleCursor) + "/" + std::to_string(v->KeyFrameCursor) + "\n";
    }
    ExpectGolden("read/video_seek.txt", text);
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
