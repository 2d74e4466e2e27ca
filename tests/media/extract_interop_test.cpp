// The streams `mp4core extract` writes, decoded by FFmpeg against its decode
// of the tracks themselves: tests/data/media/extract_interop.txt. Slow (FFmpeg
// runs some 90 times); skipped without FFmpeg.
#include "media/media_support.h"

namespace {

TEST(SlowExtractInterop, EveryStreamFormDecodesAsItsTrack) {
    if (!testing_support::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    media_support::ExpectTranscript("media/extract_interop.txt");
}

}  // namespace
