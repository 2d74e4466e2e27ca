// The media description against FFmpeg, as the transcript
// tests/data/media/ffmpeg_interop.txt: ffprobe's streams beside
// GetFileInfo's summary, and raw streams that `mp4core extract` writes
// decoded alike. Slow (FFmpeg runs some 40 times); skipped without FFmpeg.
#include "media/media_support.h"

namespace {

TEST(SlowFfmpegInterop, ProbedStreamsAndDecodesOfExtractedTracks) {
    if (!testing_support::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    media_support::ExpectTranscript("media/ffmpeg_interop.txt");
}

}  // namespace
