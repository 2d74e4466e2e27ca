// What the library tells of a file's media. GetFileInfo's summary,
// RetMp4MediaInfo's records and the initial object descriptor of each
// hand-made file in tests/data/media and of FFmpeg's fixtures are in the
// transcript tests/data/media/media_info.txt, by way of the tool; the
// lookups by track ID and kind are here.
#include "frame/frame.h"
#include "media/media.h"
#include "media/media_support.h"
#include "mp4core.h"
#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;
using namespace media_support;

namespace {

TEST(MediaInfo, TranscriptOfSummariesRecordsAndDescriptors) { ExpectTranscript("media/media_info.txt"); }

// In a file of video tracks 1 (mp4v) and 3 (s263) and audio track 2, with
// the first track of each kind current or none (as before any was found).
TEST(MediaInfo, LookupsByTrackIdAndKind) {
    OpenedFile opened(ReadWholeFile(FixturePath("media/two_video_one_audio.mp4")));
    ASSERT_EQ(opened.result, 1) << opened.output;
    ReadForm &form = opened.handle->read;
    const struct Case {
        uint32_t id;
        int32_t type;
        bool current;
        int32_t result;
    } cases[] = {{1, 1, true, 1},     {3, 1, true, 1},     {3, 1, false, 1},    {9, 1, true, -96}, {9, 1, false, -97},
                 {2, 1, true, -96},   {2, 2, true, 1},     {9, 2, true, -93},   {9, 2, false, -94}, {1, 2, true, -93},
                 {1, 3, true, -92},   {0, 1, true, -99}};
    for (const Case &c : cases) {
        form.VideoCurrent = c.current ? form.VideoFirst : nullptr, form.AudioCurrent = c.current ? form.AudioFirst : nullptr;
        Mp4MediaInfo *info = nullptr;
        EXPECT_EQ(RetMp4MediaInfo(opened.handle, c.id, c.type, &info), c.result) << c.id << " " << c.type << " " << c.current;
        EXPECT_TRUE(c.result != 1 || c.type != 1 || form.VideoCurrent->TrackId == c.id) << "the track found becomes current";
        FreeMediaInfo(info);
    }
    // A track whose tables are gone, as when the open gave them up: found
    // while none is current it becomes the current one, and is refused there too.
    VideoTrackNode *third = form.VideoFirst->NextTrack;
    TrackNode *tables = third->Track;
    third->Track = nullptr, form.VideoCurrent = nullptr;
    Mp4MediaInfo *info = nullptr;
    EXPECT_EQ(RetMp4MediaInfo(opened.handle, 3, 1, &info), -97);
    EXPECT_EQ(form.VideoCurrent, third);
    EXPECT_EQ(RetMp4MediaInfo(opened.handle, 3, 1, &info), -96);
    third->Track = tables;
    EXPECT_EQ(RetMp4MediaInfo(opened.handle, 1, 1, nullptr), -99);
    EXPECT_EQ(RetMp4MediaInfo(nullptr, 1, 1, &info), -99);
    OpenedFile video(ReadWholeFile(FixturePath("media/s263.mp4"))), audio(ReadWholeFile(FixturePath("media/samr.mp4")));
    EXPECT_EQ(RetMp4MediaInfo(video.handle, 1, 2, &info), -95);
    EXPECT_EQ(RetMp4MediaInfo(audio.handle, 1, 1, &info), -98);
    FileInfo summary;
    EXPECT_EQ(GetFileInfo(nullptr, &summary), -11);
    EXPECT_EQ(GetFileInfo(FixturePath("media/s263.mp4").c_str(), nullptr), -12);
}

}  // namespace
