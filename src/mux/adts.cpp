// ADTS AAC: each frame's header (and CRC) stripped, one raw AAC frame of
// 1024 samples a sample. The AudioSpecificConfig comes from the first
// header: its profile as the object type (1 to 4), its frequency index and
// channel configuration. HE-AAC is carried as ADTS states it, its core
// (implicit signalling): the decoder finds the SBR and PS data in the
// frames. Every later header must state the same.
#include "media/media.h"
#include "mux/readers.h"

namespace mux {

namespace {

constexpr size_t kHeaderBytes = 7;
constexpr size_t kCrcBytes = 2;
constexpr uint32_t kFrameSamples = 1024;

struct AdtsHead {
    uint32_t objectType;  // profile + 1
    uint32_t frequency;   // index
    uint32_t channels;    // configuration
    uint32_t rawBlocks;   // raw data blocks less one
    size_t length;        // header included
    size_t headerBytes;   // 7, or 9 with a CRC
};

// false: no ADTS header (sync word and layer 0).
bool ReadHead(const uint8_t *h, AdtsHead *head) {
    if (h[0] != 0xFF || (h[1] & 0xF6) != 0xF0) return false;
    head->objectType = (h[2] >> 6) + 1u;
    head->frequency = (h[2] >> 2) & 0x0F;
    head->channels = ((h[2] & 1u) << 2) | (h[3] >> 6);
    head->length = (size_t(h[3] & 0x03) << 11) | (size_t(h[4]) << 3) | (h[5] >> 5);
    head->headerBytes = kHeaderBytes + ((h[1] & 1) ? 0 : kCrcBytes);
    head->rawBlocks = h[6] & 3;
    return head->length >= head->headerBytes;
}

struct AdtsReader : Reader {
    Cursor cursor;
    AdtsHead first{};
    uint64_t frames = 0;
};

}  // namespace

// A header whose frame is followed by another header, when the head holds it.
bool AdtsProbe(const uint8_t *head, size_t size) {
    AdtsHead h{}, next{};
    if (size < kHeaderBytes || !ReadHead(head, &h) || SamplingFrequencyOf(h.frequency) == 0) return false;
    return size < h.length + kHeaderBytes || ReadHead(head + h.length, &next);
}

Reader *AdtsOpen(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto *reader = new AdtsReader;
    reader->cursor.in = in;
    AdtsHead &h = reader->first;
    const char *why = nullptr;
    if (!Hold(in, kHeaderBytes) || !ReadHead(in->bytes.data(), &h))
        why = in->failed ? "the input can't be read" : "no ADTS header at the start";
    else if (SamplingFrequencyOf(h.frequency) == 0)
        why = "the ADTS header names no sampling rate (frequency index above 12)";
    else if (h.channels == 0)
        why = "the ADTS header gives channel configuration 0 (channels in a program configuration element), which is not taken";
    if (why != nullptr) {
        Fail(failure, 0, "%s", why);
        delete reader;
        return nullptr;
    }
    const uint32_t config = (h.objectType << 11) | (h.frequency << 7) | (h.channels << 3);
    track->config = {uint8_t(config >> 8), uint8_t(config)};
    DescribeSound(track, "mp4a", SamplingFrequencyOf(h.frequency), h.channels);
    return reader;
}

Step AdtsNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<AdtsReader *>(base);
    Cursor &c = reader->cursor;
    c.Release();
    if (!c.Hold(kHeaderBytes)) return EndOfFrames(c, failure, "an ADTS header");
    AdtsHead h{};
    if (!ReadHead(c.Here(), &h)) return Fail(failure, c.Offset(), "no ADTS header where a frame should begin");
    const AdtsHead &first = reader->first;
    if (h.objectType != first.objectType || h.frequency != first.frequency || h.channels != first.channels)
        return Fail(failure, c.Offset(), "the ADTS header changes the profile, sampling rate or channels of the first");
    if (h.rawBlocks != 0)
        return Fail(failure, c.Offset(), "the ADTS frame holds %u raw data blocks; one a frame is taken", h.rawBlocks + 1);
    if (!c.Hold(h.length)) return EndOfFrames(c, failure, "an ADTS frame");
    *sample = Sample{};
    sample->data = c.Here() + h.headerBytes;
    sample->size = h.length - h.headerBytes;
    sample->decodeTime = reader->frames++ * kFrameSamples;
    sample->key = true;
    c.at += h.length;
    return Step::kSample;
}

void AdtsClose(Reader *reader) { delete reader; }

}  // namespace mux
