// AMR and AMR-WB in their storage format: the magic line ("#!AMR\n",
// "#!AMR-WB\n"), then frames of 20 ms, each a header byte whose frame type
// gives its size. One frame a sample (160 ticks at 8000 Hz, 320 at
// 16000 Hz), under "samr"/"sawb" with a "damr" as FFmpeg's muxer writes
// it: vendor "FFMP", decoder version 0, every mode, mode change period 0,
// one frame a sample.
#include <cstring>

#include "mux/readers.h"

namespace mux {

namespace {

// Bytes of a frame by frame type, its header byte included.
constexpr uint8_t kNarrowSizes[16] = {13, 14, 16, 18, 20, 21, 27, 32, 6, 1, 1, 1, 1, 1, 1, 1};
constexpr uint8_t kWideSizes[16] = {18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 1, 1, 1, 1, 1, 1};

struct AmrKind {
    const char *magic;
    const char *entry;
    uint32_t rate;
    const uint8_t *sizes;
};
constexpr AmrKind kKinds[] = {
    {"#!AMR\n", "samr", 8000, kNarrowSizes},
    {"#!AMR-WB\n", "sawb", 16000, kWideSizes},
};
constexpr uint32_t kFrameMilliseconds = 20;

const AmrKind *KindOf(const uint8_t *head, size_t size) {
    for (const AmrKind &kind : kKinds) {
        const size_t length = std::strlen(kind.magic);
        if (size >= length && std::memcmp(head, kind.magic, length) == 0) return &kind;
    }
    return nullptr;
}

struct AmrReader : Reader {
    Cursor cursor;
    const AmrKind *kind = nullptr;
    uint64_t frames = 0;
};

}  // namespace

bool AmrProbe(const uint8_t *head, size_t size) { return KindOf(head, size) != nullptr; }

Reader *AmrOpen(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    const AmrKind *kind = Hold(in, 9) || !in->bytes.empty() ? KindOf(in->bytes.data(), in->bytes.size()) : nullptr;
    if (kind == nullptr) {
        Fail(failure, 0, in->failed ? "the input can't be read" : "no \"#!AMR\\n\" or \"#!AMR-WB\\n\" line at the start");
        return nullptr;
    }
    auto *reader = new AmrReader;
    reader->cursor.in = in;
    reader->cursor.at = std::strlen(kind->magic);
    reader->kind = kind;
    track->config = {'F', 'F', 'M', 'P', 0, 0x81, 0xFF, 0, 1};
    DescribeSound(track, kind->entry, kind->rate, 1);
    return reader;
}

Step AmrNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<AmrReader *>(base);
    Cursor &c = reader->cursor;
    c.Release();
    if (!c.Hold(1)) return EndOfFrames(c, failure, "a frame");
    const size_t size = reader->kind->sizes[(c.Here()[0] >> 3) & 0x0F];
    if (!c.Hold(size)) return EndOfFrames(c, failure, "a frame");
    *sample = Sample{};
    sample->data = c.Here();
    sample->size = size;
    sample->decodeTime = reader->frames++ * (reader->kind->rate / 1000 * kFrameMilliseconds);
    sample->key = true;
    c.at += size;
    return Step::kSample;
}

void AmrClose(Reader *reader) { delete reader; }

}  // namespace mux
