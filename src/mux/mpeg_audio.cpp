// MPEG audio (layers I to III; MP3): frames found by their headers, one a
// sample, as "mp4a" with the object type of MPEG-1 audio (0x6B), or of
// MPEG-2 audio (0x69) for the half and quarter rates, as FFmpeg's muxer
// marks them. An ID3v2 tag in front and an ID3v1 tag at the end are
// skipped, and so is a first frame that holds an encoder's Xing, Info or
// VBRI header instead of sound, as decoders do.
#include <cstring>

#include "media/media.h"
#include "mux/readers.h"

namespace mux {

namespace {

constexpr size_t kHeaderBytes = 4;
constexpr size_t kId3v2Head = 10;
constexpr size_t kId3v1Bytes = 128;
constexpr uint8_t kMpeg1ObjectType = 0x6B, kMpeg2ObjectType = 0x69;
// Samples a layer III decoder gives before the first encoded one.
constexpr uint32_t kDecoderDelay = 529;

// Kilobits a second by bit rate index 1 to 14: MPEG-1 layers I, II, III,
// then the half and quarter rates' layer I, and their layers II and III.
constexpr uint16_t kBitRates[5][15] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
};

struct FrameHead {
    uint32_t version;  // 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5
    uint32_t layer;    // 1 to 3
    uint32_t rate;
    uint32_t channels;
    uint32_t samples;  // per frame
    size_t length;
    size_t sideInfo;   // layer III: bytes of side information behind the header
};

// false: no header, or one of a free-format or reserved rate.
bool ReadHead(const uint8_t *h, FrameHead *head) {
    if (h[0] != 0xFF || (h[1] & 0xE0) != 0xE0) return false;
    head->version = (h[1] >> 3) & 3;
    head->layer = 4 - ((h[1] >> 1) & 3);
    const uint32_t bitIndex = h[2] >> 4, rateIndex = (h[2] >> 2) & 3, padding = (h[2] >> 1) & 1;
    if (head->version == 1 || head->layer == 4 || bitIndex == 0 || bitIndex == 15 || rateIndex == 3) return false;
    const bool mpeg1 = head->version == 3;
    head->rate = kMpegAudioRates[rateIndex] >> (mpeg1 ? 0 : head->version == 2 ? 1 : 2);
    head->channels = (h[3] >> 6) == 3 ? 1 : 2;
    const uint32_t table = mpeg1 ? head->layer - 1 : head->layer == 1 ? 3 : 4;
    const uint64_t bits = uint64_t(kBitRates[table][bitIndex]) * 1000;
    if (head->layer == 1) {
        head->samples = 384;
        head->length = (12 * bits / head->rate + padding) * 4;
    } else {
        head->samples = head->layer == 3 && !mpeg1 ? 576 : 1152;
        head->length = head->samples / 8 * bits / head->rate + padding;
    }
    head->sideInfo = mpeg1 ? (head->channels == 1 ? 17 : 32) : (head->channels == 1 ? 9 : 17);
    return head->length >= kHeaderBytes;
}

// Whether a frame carries an encoder's header rather than sound; the
// encoder delay and padding of a LAME extension behind a Xing or Info
// header (as LAME and FFmpeg write it) come back in `delay`/`padding`.
bool IsInfoFrame(const uint8_t *frame, const FrameHead &head, uint32_t *delay, uint32_t *padding) {
    const size_t xing = kHeaderBytes + head.sideInfo, vbri = 36;
    // A tag counts with the four bytes behind it (Xing's and Info's flags)
    // inside the frame.
    auto tagAt = [&](size_t at, const char *tag) {
        return head.length >= at + 8 && std::memcmp(frame + at, tag, 4) == 0;
    };
    if (head.layer != 3) return false;
    if (tagAt(vbri, "VBRI")) return true;
    if (!tagAt(xing, "Xing") && !tagAt(xing, "Info")) return false;
    // Behind the flags: frames, bytes, a table of 100 and a quality field
    // as the flags say; then the encoder's name (9 bytes), and 12 bytes on
    // the delay and padding, 12 bits each.
    const uint8_t flags = frame[xing + 7];
    const size_t extension = xing + 8 + (flags & 1 ? 4 : 0) + (flags & 2 ? 4 : 0) + (flags & 4 ? 100 : 0) + (flags & 8 ? 4 : 0);
    const size_t delays = extension + 21;
    if (head.length >= delays + 3 && (tagAt(extension, "LAME") || tagAt(extension, "Lavc") || tagAt(extension, "Lavf"))) {
        *delay = (uint32_t(frame[delays]) << 4) | (frame[delays + 1] >> 4);
        *padding = (uint32_t(frame[delays + 1] & 0x0F) << 8) | frame[delays + 2];
    }
    return true;
}

// Bytes of an ID3v2 tag at `h` (its size is 28 bits, 7 a byte), 0 for none.
size_t Id3v2Bytes(const uint8_t *h, size_t size) {
    if (size < kId3v2Head || std::memcmp(h, "ID3", 3) != 0) return 0;
    const size_t body = (size_t(h[6] & 0x7F) << 21) | (size_t(h[7] & 0x7F) << 14) | (size_t(h[8] & 0x7F) << 7) | (h[9] & 0x7F);
    const size_t footer = (h[5] & 0x10) ? kId3v2Head : 0;
    return kId3v2Head + body + footer;
}

struct MpegAudioReader : Reader {
    Cursor cursor;
    FrameHead first{};
    uint64_t time = 0;
    uint32_t endTrim = 0;  // samples of the last frame not presented
};

}  // namespace

bool MpegAudioProbe(const uint8_t *head, size_t size) {
    if (Id3v2Bytes(head, size) != 0) return true;
    FrameHead h{}, next{};
    if (size < kHeaderBytes || !ReadHead(head, &h)) return false;
    return size < h.length + kHeaderBytes || ReadHead(head + h.length, &next);
}

Reader *MpegAudioOpen(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto *reader = new MpegAudioReader;
    Cursor &c = reader->cursor;
    c.in = in;
    if (c.Hold(kId3v2Head)) {
        const size_t tag = Id3v2Bytes(c.Here(), c.Held());
        if (tag != 0 && !c.Hold(tag)) {
            Fail(failure, 0, "the stream ends inside its ID3v2 tag of %zu bytes", tag);
            delete reader;
            return nullptr;
        }
        c.at += tag;
    }
    FrameHead &h = reader->first;
    if (!c.Hold(kHeaderBytes) || !ReadHead(c.Here(), &h)) {
        Fail(failure, c.Offset(), in->failed ? "the input can't be read" : "no MPEG audio frame header (or one of a free-format rate)");
        delete reader;
        return nullptr;
    }
    // The encoder's delay and the decoder's are not presented (the edit
    // list starts behind them), nor the encoder's padding less the
    // decoder's delay at the end.
    uint32_t delay = 0, padding = 0;
    if (c.Hold(h.length) && IsInfoFrame(c.Here(), h, &delay, &padding)) {
        c.at += h.length;
        track->entry.MediaStart = delay != 0 || padding != 0 ? delay + kDecoderDelay : 0;
        reader->endTrim = padding > kDecoderDelay ? padding - kDecoderDelay : 0;
    }
    track->entry.ObjectType = h.version == 3 ? kMpeg1ObjectType : kMpeg2ObjectType;
    DescribeSound(track, "mp4a", h.rate, h.channels);
    return reader;
}

Step MpegAudioNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<MpegAudioReader *>(base);
    Cursor &c = reader->cursor;
    c.Release();
    if (!c.Hold(kHeaderBytes)) return EndOfFrames(c, failure, "an MPEG audio frame header");
    FrameHead h{};
    if (!ReadHead(c.Here(), &h)) {
        if (!c.Hold(kId3v1Bytes + 1) && c.Held() == kId3v1Bytes && std::memcmp(c.Here(), "TAG", 3) == 0)
            return Step::kEnd;
        return Fail(failure, c.Offset(), "no MPEG audio frame header where a frame should begin");
    }
    const FrameHead &first = reader->first;
    if (h.version != first.version || h.layer != first.layer || h.rate != first.rate)
        return Fail(failure, c.Offset(), "the frame header changes the version, layer or sampling rate of the first");
    if (!c.Hold(h.length)) return EndOfFrames(c, failure, "an MPEG audio frame");
    // The last frame: no header behind it (or only an ID3v1 tag).
    const bool last = !c.Hold(h.length + kId3v1Bytes + 1) &&
                      (c.Held() == h.length || (c.Held() == h.length + kId3v1Bytes && std::memcmp(c.Here() + h.length, "TAG", 3) == 0));
    *sample = Sample{};
    sample->data = c.Here();
    sample->size = h.length;
    sample->decodeTime = reader->time;
    sample->duration = last && reader->endTrim < h.samples ? h.samples - reader->endTrim : 0;
    sample->key = true;
    reader->time += h.samples;
    c.at += h.length;
    return Step::kSample;
}

void MpegAudioClose(Reader *reader) { delete reader; }

}  // namespace mux
