// mp4core extract over a fixture of every stream form, the refusals and a
// file cut short: tests/data/tools/extract.txt, with the CRC of each stream.
#include "media/media_support.h"

namespace {

TEST(ToolExtract, TranscriptOfEveryStreamForm) { media_support::ExpectTranscript("tools/extract.txt"); }

}  // namespace
