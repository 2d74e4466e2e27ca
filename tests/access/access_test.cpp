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

template <typename Track> Track *Find(Track *track, uint32_t id) {
    while (track != nullptr && track->TrackId != id) track = track->NextTrack;
    return track;
}

// Runs the calls of `script` on `file`, one transcript line per call.
//   v3 a3 t3.5  use track 3 as video, as audio, as type 5
//   n g15 s15 p15 k b  GetNextSample, GetSample, SeekTrack, SeekTrackPos,
//                      NextKeyFrame, PrevKeyFrame (with a time)
//   !s15 ?s15          the same call with a null file, a null out argument
//   c4                 put the video track's cursor on 4
//   x                  forget the video track last used
//   R                  take the track's sample records away (again: put back)
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
        VideoTrackNode *video = type == 1 ? Find(file->read.VideoFirst, id) : nullptr;
        AudioTrackNode *audio = type == 2 ? Find(file->read.AudioFirst, id) : nullptr;
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
        OpenedFile opened(MiniFile("video 3"));
        ASSERT_EQ(GetNextSample(opened.handle, 1, 1, &sample), 1);
    }
    EXPECT_EQ(Bytes(sample->Data, sample->Data + sample->Size), Bytes({0, 0, 0xA5, 1}));
    EXPECT_EQ(SampleDataFree(&sample), 1);
    EXPECT_EQ(sample, nullptr);
    EXPECT_EQ(SampleDataFree(&sample) + SampleDataFree(nullptr), 2);
    void *block = std::malloc(16);
    EXPECT_EQ(MP4freeData(&block), 1);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(MP4freeData(&block) + MP4freeData(nullptr), 2);
}

}  // namespace
