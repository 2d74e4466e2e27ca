// The sample calls on minimal files: what GetNextSample, GetSample,
// SeekTrack, SeekTrackPos, NextKeyFrame and PrevKeyFrame give from each
// cursor, on the key frame table and on the key frame marks, their result
// codes, the track cache, zero-sized and cut samples. Each row runs a
// script of calls; the transcript of every row is compared whole against
// tests/data/read/access.txt. The FFmpeg fixtures are swept in
// fixture_read_test.cpp.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "access/access.h"
#include "support/listing.h"
#include "support/mini_mp4.h"

using namespace testing_support;

namespace {

MP4Sample *const kUntouched = reinterpret_cast<MP4Sample *>(0x1);

VideoTrackNode *FindVideo(MP4_local_file *file, uint32_t id) {
    VideoTrackNode *v = file->read.VideoFirst;
    while (v != nullptr && v->TrackId != id) v = v->NextTrack;
    return v;
}
AudioTrackNode *FindAudio(MP4_local_file *file, uint32_t id) {
    AudioTrackNode *a = file->read.AudioFirst;
    while (a != nullptr && a->TrackId != id) a = a->NextTrack;
    return a;
}

// Runs the calls of `script` on `file`, one transcript line per call.
//   v3 a3 t3.5  use track 3 as video, as audio, as type 5
//   n g15 s15 p15 k b  GetNextSample, GetSample, SeekTrack, SeekTrackPos,
//                      NextKeyFrame, PrevKeyFrame (with a time)
//   !s15 ?s15          the same call with a null file, a null out argument
//   c4                 put the video track's cursor on 4
//   x                  forget the video track last used
//   R                  take the track's sample records away (again: put back)
//   A2                 append 2 bytes to the file, as a writer still at work does
// A sample is shown by the number its bytes hold, its time, size and key
// mark, then where the track's cursor stands.
std::string RunScript(MP4_local_file *file, const std::string &script) {
    std::istringstream in(script);
    std::string token, text, prefix;  // prefix: the settings before the call
    uint32_t id = 1;
    int32_t type = 1;
    SampleRecord *taken = nullptr;
    while (in >> token) {
        const bool nullFile = token[0] == '!', nullOut = token[0] == '?';
        const char op = token[nullFile || nullOut ? 1 : 0];
        char *rest = nullptr;
        const long arg = std::strtol(token.c_str() + (nullFile || nullOut ? 2 : 1), &rest, 10);
        VideoTrackNode *video = type == 1 ? FindVideo(file, id) : nullptr;
        AudioTrackNode *audio = type == 2 ? FindAudio(file, id) : nullptr;
        if (op == 'v' || op == 'a' || op == 't') {
            id = uint32_t(arg);
            type = op == 'v' ? 1 : op == 'a' ? 2 : std::atoi(rest + 1);
            continue;
        }
        if (op == 'c' || op == 'x' || op == 'R') {
            if (op == 'c') video->SampleCursor = int32_t(arg);
            if (op == 'x') file->read.VideoCurrent = nullptr;
            if (op == 'R') std::swap((video ? video->Track : audio->Track)->SampleRecords, taken);
            prefix += token + " ";
            continue;
        }
        if (op == 'A') {
            std::FILE *grow = std::fopen(("/proc/self/fd/" + std::to_string(fileno(file->RootAtom->FileStream))).c_str(), "ab");
            std::fputs(std::string(size_t(arg), '\xEE').c_str(), grow);
            std::fclose(grow);
            prefix += token + " ";
            continue;
        }
        MP4_local_file *handle = nullFile ? nullptr : file;
        MP4Sample *sample = kUntouched;
        MP4Sample **out = nullOut ? nullptr : &sample;
        uint32_t position = 0xDEADBEEF;
        const int32_t time = int32_t(arg);
        int32_t result = 0;
        switch (op) {
        case 'n': result = GetNextSample(handle, id, type, out); break;
        case 'g': result = GetSample(handle, id, type, time, out); break;
        case 's': result = SeekTrack(handle, id, type, time, out); break;
        case 'p': result = SeekTrackPos(handle, id, type, time, nullOut ? nullptr : &position); break;
        case 'k': result = NextKeyFrame(handle, id, type, out); break;
        case 'b': result = PrevKeyFrame(handle, id, type, out); break;
        default: ADD_FAILURE() << "unknown call " << token; return text;
        }
        text += prefix + token + " " + std::to_string(result);
        prefix.clear();
        if (position != 0xDEADBEEF) text += " at " + std::to_string(position);
        if (sample != kUntouched && sample != nullptr) {
            const uint8_t *data = sample->Data;
            text += " #" + std::to_string(sample->Size >= 2 ? data[0] | data[1] << 8 : -1) +
                    " time " + std::to_string(sample->Time) + " size " +
                    std::to_string(sample->Size) + (sample->IsKeyFrame ? " key" : "") +
                    (sample->Reserved != 0 ? " reserved!" : "");
            SampleDataFree(&sample);
        } else if (sample != kUntouched) {
            text += " null";
        }
        if (video != nullptr) text += " cursor " + std::to_string(video->SampleCursor);
        if (audio != nullptr) text += " cursor " + std::to_string(audio->SampleCursor);
        text += "\n";
    }
    const ReadForm &form = file->read;
    text += "last used: video " +
            (form.VideoCurrent ? std::to_string(form.VideoCurrent->TrackId) : "none") +
            ", audio " + (form.AudioCurrent ? std::to_string(form.AudioCurrent->TrackId) : "none") +
            "\n";
    return text;
}

MiniTrack Without(MiniTrack track, const char *child) {
    track.replace[child] = {};
    return track;
}
MiniTrack Ticks(MiniTrack track, uint32_t delta) {
    track.delta = delta;
    return track;
}
MiniTrack Emptied(MiniTrack track, size_t sample) {
    track.samples[sample].clear();
    return track;
}
// Sample `index` (of 4 bytes) moved to the last 2 bytes of the file.
MiniTrack CutAt(MiniTrack track, size_t index) {
    std::vector<uint32_t> offsets;
    for (size_t i = 0; i < track.samples.size(); ++i) offsets.push_back(MiniSampleOffset(track, i));
    offsets[index] = uint32_t(BuildMiniMp4({track}).size()) - 2;
    track.samplesPerChunk = 1;
    offsets.insert(offsets.begin(), uint32_t(offsets.size()));
    track.replace["stco"] = Words("stco", offsets);
    return track;
}

TEST(Access, TranscriptsOfEveryRowMatchTheGolden) {
    const MiniTrack keys0_4_7 = KeyedVideo(10, {0, 4, 7});
    const MiniTrack keys2_5 = KeyedVideo(8, {2, 5});
    MiniTrack farSample = KeyedAudio(2);
    farSample.replace["stsz"] = Words("stsz", {0, 2, 4, 0x7FFFFFF0});
    MiniTrack constantSize = KeyedAudio(10);  // 10 x 100 bytes claimed, more than the file holds
    constantSize.replace["stsz"] = Words("stsz", {100, 10});
    MiniTrack hint = KeyedAudio(2, 3);
    hint.handler = "hint";
    struct Case {
        const char *what;
        std::vector<MiniTrack> tracks;
        std::vector<int32_t> modes;
        std::string script;
    };
    const std::vector<Case> cases = {
        {"seeks: 30 samples, key frames at times 0, 100, 200", {KeyedVideo(30, {0, 10, 20})}, {1, 2, 3},
         "s150 n p150 n c25 s100 c25 s99 c5 p99 c7 s0 c7 s-5 s-2147483648 s1 s199 s201 s289 s290 p290 c3 s1000 c30 p2147483647 c-4 p205"},
        {"steps: key frames 0, 4, 7 of 10", {keys0_4_7}, {1, 2, 3},
         "c0 k c1 k c2 k c4 k c5 k c7 k c8 k c5 b c6 b c4 b c7 b c8 b c2 b c1 b c-3 k c-3 b c9 k c9 b c10 k c10 b c500 k c500 b c0 k k k k"},
        {"steps: every sample a key frame", {KeyedVideo(5, {0, 1, 2, 3, 4})}, {1, 2}, "b b b b b b b"},
        {"sample 0 no key frame: key frames 2, 5 of 8", {keys2_5}, {1, 2, 3},
         "c6 s10 c6 p19 s20 s49 s55 p1000 c0 k c1 b c3 b c6 b c6 s0 c6 p-1 c0 b c7 k c6 k"},
        {"back from time 1: ticks of 1, key frames 0, 3 of 6", {Ticks(KeyedVideo(6, {0, 3}), 1)}, {1, 2}, "c1 b c2 b c4 b"},
        {"no key frames", {KeyedVideo(6, {})}, {1, 2, 3}, "c4 s0 c4 s35 c4 p1000 c4 p-3 c0 k c3 k c5 k c9 b c2 b c0 b"},
        {"one-sample video", {KeyedVideo(1, {0})}, {1, 2, 3}, "s0 s5 p1000 c3 k c3 b n g0"},
        {"audio seeks as GetSample", {KeyedAudio(12)}, {2},
         "a1 g-2147483648 s-2147483648 p-2147483648 n g-1 s-1 p-1 g1 s1 p1 g35 s35 p35 n g40 s40 g109 s109 p109 g110 s110 p110 g111 s111 p2147483647 s2147483647 n n k b"},
        {"video GetSample and GetNextSample", {KeyedVideo(10, {0})}, {2}, "g0 g-5 g70 g69 g71 g90 g500 g1 g2147483647 g70 n g1000 n n"},
        {"result codes of the arguments and the track",
         {Without(KeyedVideo(4, {0}, 1), "stco"), Without(KeyedAudio(4, 2), "stco"), KeyedVideo(4, {0}, 3), KeyedAudio(4, 4)}, {1},
         "v3 !n !g50 !s50 !p50 !k !b t0.2 n g50 s50 p50 k b t3.3 n g50 s50 p50 k b a77 n s50 p50 k v9 n s50 p50 k b "
         "v1 n g50 s50 p50 k b a2 n g50 s50 p50 k b v3 c2 ?n ?g30 ?s0 ?p0 ?k ?b "
         "p0 R n g50 s50 p50 k b R a4 p0 R n g50 s50 p50 k b R n"},
        {"no video track", {KeyedAudio(3, 2)}, {2}, "v2 n g15 s15 p15 k b"},
        {"no audio track", {KeyedVideo(3, {0}, 1)}, {2}, "a1 n g15 s15 p15"},
        {"type 3 with a hint track's ID", {KeyedVideo(3, {0}, 1), hint}, {2}, "t3.3 n g15 s15 p15 k"},
        {"the cache moves to the track found, even when it fails",
         {KeyedVideo(3, {0}, 1), Without(KeyedVideo(3, {0}, 2), "stco"), KeyedVideo(3, {0}, 3)}, {2},
         "v2 n n v3 n v9 n x v9 n v2 n v3 n"},
        {"tracks read in turn keep their cursors", {KeyedVideo(4, {0}, 1), KeyedVideo(4, {0}, 5), KeyedAudio(4, 2), KeyedAudio(4, 6)},
         {2}, "v1 n v5 n v1 n a2 n a6 n a6 n v5 n a2 n"},
        {"a null sample address moves nothing", {KeyedVideo(4, {0}, 1), KeyedVideo(4, {0}, 2)}, {2}, "v2 ?n ?g30 n"},
        {"zero-sized video sample", {Emptied(KeyedVideo(4, {0, 1, 2, 3}), 1)}, {1, 2}, "n n n g10 g20 n c1 k b g0 n"},
        {"zero-sized audio sample", {Emptied(KeyedAudio(4), 1)}, {2}, "a1 n n n g10 g20 n"},
        {"video sample cut by the end of the file", {CutAt(KeyedVideo(4, {0}), 2)}, {2}, "n n n n g25 n"},
        {"audio sample cut by the end of the file", {CutAt(KeyedAudio(4), 2)}, {2}, "a1 n n n n g25 n"},
        {"audio sample far past the end is not allocated", {farSample}, {2}, "a1 n n n"},
        {"ReadSeesBytesAppendedAfterOpen", {CutAt(KeyedAudio(4), 2)}, {2}, "a1 n n n n A2 g20 n"},
        {"TruncatedConstantSizeTrackKeepsItsSamples", {CutAt(constantSize, 3)}, {2}, "a1 n n n n n n n n n n n"},
        {"key frame 4 empty", {Emptied(keys0_4_7, 4)}, {1, 2}, "c2 k c4 b"},
        {"key frame 4 cut", {CutAt(keys0_4_7, 4)}, {1, 2}, "c2 k c4 b"},
    };
    std::string text;
    for (const Case &c : cases) {
        for (int32_t mode : c.modes) {
            OpenedFile opened(BuildMiniMp4(c.tracks), mode);
            text += std::string("== ") + c.what + " (mode " + std::to_string(mode) + ")\n" +
                    RunScript(opened.handle, c.script);
        }
    }
    ExpectGolden("access.txt", text);
}

TEST(Access, TimeSearchGivesTheLastEntryAtOrBeforeTheTime) {
    SampleRecord records[5] = {};
    const uint32_t times[] = {0, 10, 10, 30, 40};
    for (size_t i = 0; i < 5; ++i) records[i].Time = times[i];
    std::string text;
    for (int32_t time : {0, 5, 10, 29, 30, 99, -1}) text += std::to_string(SearchSampleTime(records, 5, time)) + " ";
    text += std::to_string(SearchSampleTime(records, 0, 10)) + " " + std::to_string(SearchSampleTime(records, 1, 10));
    EXPECT_EQ(text, "0 0 2 2 3 4 -1 -1 0");
}

TEST(Access, SamplesOutliveTheHandleAndTheFreeCallsNullThePointer) {
    MP4Sample *sample = nullptr;
    {
        OpenedFile opened(BuildMiniMp4({KeyedVideo(3, {0})}));
        ASSERT_EQ(GetNextSample(opened.handle, 1, 1, &sample), 1);
    }
    EXPECT_EQ(Bytes(sample->Data, sample->Data + sample->Size), KeyedVideo(3, {0}).samples[0]);
    EXPECT_EQ(SampleDataFree(&sample), 1);
    EXPECT_EQ(sample, nullptr);
    EXPECT_EQ(SampleDataFree(&sample) + SampleDataFree(nullptr), 2);
    void *block = std::malloc(16);
    EXPECT_EQ(MP4freeData(&block), 1);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(MP4freeData(&block) + MP4freeData(nullptr), 2);
}

}  // namespace
