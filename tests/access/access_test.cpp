// The sample calls on minimal files: what GetNextSample, GetSample, SeekTrack,
// SeekTrackPos, NextKeyFrame, PrevKeyFrame and Mp4VideoSeek give from each
// cursor in each table mode, their result codes, the track cache, zero-sized
// and cut samples: a script of calls per row of tests/data/read/access.rows,
// every transcript compared whole against access.txt beside it. The FFmpeg
// fixtures are swept in fixture_read_test.cpp.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "access/access.h"
#include "support/listing.h"
#include "support/mini_mp4.h"

using namespace testing_support;

namespace {

MP4Sample *const kUntouched = reinterpret_cast<MP4Sample *>(0x1);

// What the decoder saw: "number/track" of each sample it was given (from
// the sample's bytes), and anything the caller's words or context lost.
struct DecoderLog {
    std::string seen;
    int calls = 0, failAt = -1;  // failAt: the call (from 0) that fails
};
DecoderLog gLog;
constexpr uintptr_t kWord2 = 0x2222, kWord3 = 0x3333;
void *const kContextWord = reinterpret_cast<void *>(0xC0FFEE);

}  // namespace

// The test binary's decoder for Mp4VideoSeek: decodes nothing, logs the
// sample and counts its calls in word 1.
extern "C" int32_t decore(uint32_t command, DecoreFrame *frame, void *context) {
    const uint8_t *data = static_cast<const uint8_t *>(frame->Data);
    gLog.seen += Format(" %d/%d", data[0] | data[1] << 8, data[3]);
    if (command != MP4_DECORE_DECODE || frame->Word2 != kWord2 || frame->Word3 != kWord3 ||
        static_cast<void **>(context)[MP4_DECORE_CONTEXT_SLOT] != kContextWord)
        gLog.seen += "(words or context lost)";
    if (gLog.calls++ == gLog.failAt) return -1;
    frame->Result += 1;
    return 0;
}

namespace {

template <typename Track> Track *Find(Track *track, uint32_t id) {
    while (track != nullptr && track->TrackId != id) track = track->NextTrack;
    return track;
}

// Runs the calls of `script` on `file`, one transcript line per call (the
// notation is in tests/data/read/README.md).
std::string RunScript(MP4_local_file *file, const std::string &script) {
    std::istringstream in(script);
    std::string token, text, prefix;  // prefix: the settings before the call
    uint32_t id = 1;
    int32_t type = 1;
    SampleRecord *taken = nullptr;
    uint32_t reserved = 0;
    std::string seekSettings;
    while (in >> token) {
        const bool nullFile = token[0] == '!', nullOut = token[0] == '?';
        const char op = token[nullFile || nullOut ? 1 : 0];
        char *rest = nullptr;
        const long arg = std::strtol(token.c_str() + (nullFile || nullOut ? 2 : 1), &rest, 10);
        VideoTrackNode *video = type == 1 ? Find(file->read.VideoFirst, id) : nullptr;
        AudioTrackNode *audio = type == 2 ? Find(file->read.AudioFirst, id) : nullptr;
        if (op == 'v' || op == 'a' || op == 't') {
            id = uint32_t(arg);
            type = op == 'v' ? 1 : op == 'a' ? 2 : std::atoi(rest + 1);
            continue;
        }
        if (op == 'A') {
            const std::string self = "/proc/self/fd/" + std::to_string(fileno(file->RootAtom->FileStream));
            if (std::FILE *grow = std::fopen(self.c_str(), "ab")) {
                std::fputs(std::string(size_t(arg), '\xEE').c_str(), grow);
                std::fclose(grow);
            }
            prefix += token + " ";
            continue;
        }
        if (op == 'K' && video != nullptr) {
            TrackNode *node = video->Track;
            auto *grown = static_cast<SampleRecord *>(std::calloc(node->SampleCount + 1, sizeof(SampleRecord)));
            std::memcpy(grown, node->SampleRecords, node->SampleCount * sizeof(SampleRecord));
            grown[node->SampleCount] = grown[0];
            grown[node->SampleCount].IsKeyFrame = 1;
            std::free(node->SampleRecords);
            node->SampleRecords = grown;
            prefix += token + " ";
            continue;
        }
        if (std::string("cmxRfrWXw").find(op) != std::string::npos) {
            if (op == 'c' && video != nullptr) video->SampleCursor = int32_t(arg);
            if (op == 'm' && video != nullptr) video->KeyFrameCursor = int32_t(arg);
            if (op == 'f') gLog.failAt = int(arg);
            if (op == 'r') reserved = uint32_t(arg);
            seekSettings += op;
            if (op == 'x') file->read.VideoCurrent = nullptr;
            if (op == 'R') std::swap((video ? video->Track : audio->Track)->SampleRecords, taken);
            prefix += token + " ";
            continue;
        }
        MP4_local_file *handle = nullFile ? nullptr : file;
        MP4Sample *sample = kUntouched;
        MP4Sample **out = nullOut ? nullptr : &sample;
        uint32_t position = 0xDEADBEEF;
        const int32_t time = int32_t(arg);
        int32_t result = 0;
        std::string seen;
        switch (op) {
        case 'n': result = GetNextSample(handle, id, type, out); break;
        case 'g': result = GetSample(handle, id, type, time, out); break;
        case 's': result = SeekTrack(handle, id, type, time, out); break;
        case 'p': result = SeekTrackPos(handle, id, type, time, nullOut ? nullptr : &position); break;
        case 'k': result = NextKeyFrame(handle, id, type, out); break;
        case 'b': result = PrevKeyFrame(handle, id, type, out); break;
        case 'd': {
            void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
            const auto has = [&](char setting) { return seekSettings.find(setting) != std::string::npos; };
            CaptureStream printed(stdout);
            const uintptr_t word1 = has('w') && sizeof(uintptr_t) > 4 ? uintptr_t(0x700000064ull) : 100;
            result = Mp4VideoSeek(handle, reserved, time, nullOut ? nullptr : &position, has('W') ? nullptr : kContextWord,
                                  has('X') ? nullptr : context, 0, word1, kWord2, kWord3);
            seen = ", decoded" + gLog.seen + (context[MP4_DECORE_CONTEXT_SLOT] ? ", context set" : "") + " " + OneLine(printed.Text()) + "/";
            for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
                seen += Format(" track %u %d/%d", v->TrackId, v->SampleCursor, v->KeyFrameCursor);
            gLog = DecoderLog{}, reserved = 0, seekSettings.clear();
            break;
        }
        default: ADD_FAILURE() << "unknown call " << token; return text;
        }
        text += prefix + token + " " + std::to_string(result) +
                (position == 0xDEADBEEF ? "" : (op == 'd' ? " word 1 " : " at ") + std::to_string(position)) + seen;
        prefix.clear();
        if (sample != kUntouched && sample != nullptr) {
            text += Format(" #%d time %u size %u%s%s", sample->Size >= 2 ? sample->Data[0] | sample->Data[1] << 8 : -1,
                           sample->Time, sample->Size, sample->IsKeyFrame ? " key" : "", sample->Reserved != 0 ? " reserved!" : "");
            SampleDataFree(&sample);
        } else if (sample != kUntouched) {
            text += " null";
        }
        if (video != nullptr || audio != nullptr) text += Format(" cursor %d", video ? video->SampleCursor : audio->SampleCursor);
        text += "\n";
    }
    const ReadForm &form = file->read;
    return text + "last used: video " + (form.VideoCurrent ? std::to_string(form.VideoCurrent->TrackId) : "none") +
           ", audio " + (form.AudioCurrent ? std::to_string(form.AudioCurrent->TrackId) : "none") + "\n";
}

TEST(Access, TranscriptsOfEveryRowMatchTheGolden) {
    std::string text;
    for (const auto &row : ReadRows("read/access.rows")) {
        std::istringstream modes(row.at(1));
        for (int32_t mode; modes >> mode;) {
            OpenedFile opened(MiniFile(row.at(2)), mode);
            text += "== " + row[0] + " (mode " + std::to_string(mode) + ")\n" + RunScript(opened.handle, row.at(3));
        }
    }
    ExpectGolden("read/access.txt", text);
}

TEST(Access, SamplesOutliveTheHandleAndTheFreeCallsNullThePointer) {
    MP4Sample *sample = nullptr;
    {
        OpenedFile opened(MiniFile("video 3"));
        ASSERT_EQ(GetNextSample(opened.handle, 1, 1, &sample), 1);
        EXPECT_NE(opened.handle->read.SampleWindow, nullptr);  // the read-ahead is kept for the next
    }
    EXPECT_EQ(Bytes(sample->Data, sample->Data + sample->Size), Bytes({0, 0, 0xA5, 1}));
    EXPECT_EQ(SampleDataFree(&sample), 1);
    EXPECT_EQ(sample, nullptr);
    EXPECT_EQ(SampleDataFree(&sample) + SampleDataFree(nullptr), 2);
    void *block = std::malloc(16);
    EXPECT_EQ(MP4freeData(&block), 1);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(MP4freeData(&block) + MP4freeData(nullptr), 2);
    EXPECT_EQ(FindVideoTrack(nullptr, 1, nullptr) + FindAudioTrack(nullptr, 1, nullptr), -198);  // as every call does before
}

// A file emptied after the open: the read meets its end at once, and an
// interrupt an earlier call left in errno must not make it ask again.
TEST(Access, StaleInterruptInErrnoDoesNotHoldAReadAtTheEnd) {
    OpenedFile opened(MiniFile("video 4"));
    MP4Sample *sample = nullptr;
    ASSERT_EQ(truncate(opened.file.c_str(), 0), 0);
    errno = EINTR;
    EXPECT_EQ(GetSample(opened.handle, 1, 1, 25, &sample), -82);
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
