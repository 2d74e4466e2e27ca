// Native FLAC: "fLaC" with a "dfLa" of its STREAMINFO block alone (marked
// the last), as FFmpeg's muxer writes it; the other metadata blocks are
// passed over. Frames, one a sample, run from a frame header to the next:
// a header counts when its sync code, reserved bits and CRC-8 hold and its
// frame or sample number follows the one before, so a sync pattern inside
// a frame's data does not cut it. A sample lasts its header's block size.
#include <algorithm>
#include <cstring>

#include "mux/readers.h"

namespace mux {

namespace {

constexpr size_t kBlockHead = 4;
constexpr size_t kStreamInfoBytes = 34;
constexpr uint8_t kLastBlock = 0x80;
constexpr size_t kLongestHeader = 16;  // sync to CRC-8 with every optional field
constexpr size_t kShortestHeader = 6;
// A frame holds at most 65535 samples of 8 channels of 32 bits (2 MiB):
// bytes this far without a next header are no FLAC frame.
constexpr size_t kLongestFrame = size_t(16) << 20;

struct FrameHead {
    bool variable;      // blocking strategy: numbers count samples, not frames
    uint64_t number;
    uint32_t blockSize;
    size_t length;      // bytes of the header
};

size_t Be24(const uint8_t *b) { return (size_t(b[0]) << 16) | (size_t(b[1]) << 8) | b[2]; }

uint8_t Crc8(const uint8_t *bytes, size_t size) {
    uint8_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) crc = uint8_t((crc & 0x80) ? (crc << 1) ^ 0x07 : crc << 1);
    }
    return crc;
}

// A frame header within the `size` bytes at `h`; false when there is none.
bool ReadHead(const uint8_t *h, size_t size, FrameHead *head) {
    if (size < kShortestHeader || h[0] != 0xFF || (h[1] & 0xFE) != 0xF8) return false;
    const uint32_t sizeCode = h[2] >> 4, rateCode = h[2] & 0x0F, channels = h[3] >> 4, bits = (h[3] >> 1) & 7;
    if (sizeCode == 0 || rateCode == 15 || channels > 10 || bits == 3 || (h[3] & 1) != 0) return false;
    head->variable = (h[1] & 1) != 0;
    // The number, coded as UTF-8 is (up to 36 bits in 7 bytes).
    size_t at = 4;
    const uint8_t lead = h[at++];
    int more = 0;
    while (more < 7 && (lead << more) & 0x80) ++more;
    if (more == 1 || more == 7) return false;
    uint64_t number = more == 0 ? lead : lead & (0x7F >> more);
    for (int i = 1; i < more; ++i, ++at) {
        if (at >= size || (h[at] & 0xC0) != 0x80) return false;
        number = (number << 6) | (h[at] & 0x3F);
    }
    head->number = number;
    const size_t sizeBytes = sizeCode == 6 ? 1 : sizeCode == 7 ? 2 : 0;
    const size_t rateBytes = rateCode == 12 ? 1 : rateCode >= 13 ? 2 : 0;
    if (at + sizeBytes + rateBytes + 1 > size) return false;
    if (sizeCode == 1)
        head->blockSize = 192;
    else if (sizeCode <= 5)
        head->blockSize = 576u << (sizeCode - 2);
    else if (sizeCode >= 8)
        head->blockSize = 256u << (sizeCode - 8);
    else
        head->blockSize = (sizeCode == 6 ? h[at] : (uint32_t(h[at]) << 8 | h[at + 1])) + 1u;
    at += sizeBytes + rateBytes;
    head->length = at + 1;
    return Crc8(h, at) == h[at];
}

struct FlacReader : Reader {
    Cursor cursor;
    FrameHead head{};      // of the frame at the cursor
    bool haveHead = false;
    size_t shortestFrame = 0;
    uint64_t time = 0;
};

// Whether a header follows the frame of `before` (the next frame or sample
// number).
bool Follows(const FrameHead &before, const FrameHead &next) {
    return next.variable == before.variable &&
           next.number == before.number + (before.variable ? before.blockSize : 1);
}

}  // namespace

bool FlacProbe(const uint8_t *head, size_t size) {
    return size >= 4 + kBlockHead && std::memcmp(head, "fLaC", 4) == 0 && (head[4] & ~kLastBlock) == 0;
}

Reader *FlacOpen(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto *reader = new FlacReader;
    Cursor &c = reader->cursor;
    c.in = in;
    const char *why = nullptr;
    if (!c.Hold(4 + kBlockHead + kStreamInfoBytes) || std::memcmp(c.Here(), "fLaC", 4) != 0 ||
        (c.Here()[4] & ~kLastBlock) != 0 || Be24(c.Here() + 5) != kStreamInfoBytes)
        why = in->failed ? "the input can't be read" : "no \"fLaC\" with a STREAMINFO block of 34 bytes first";
    if (why == nullptr) {
        const uint8_t *info = c.Here() + 4 + kBlockHead;
        track->config = {kLastBlock, 0, 0, uint8_t(kStreamInfoBytes)};
        track->config.insert(track->config.end(), info, info + kStreamInfoBytes);
        reader->shortestFrame = Be24(info + 4);
        const uint32_t rate = (uint32_t(info[10]) << 12) | (uint32_t(info[11]) << 4) | (info[12] >> 4);
        const uint32_t channels = ((info[12] >> 1) & 7) + 1u;
        if (rate == 0) why = "the STREAMINFO block gives a sample rate of 0";
        DescribeSound(track, "fLaC", rate, channels);
        track->entry.BitsPerSample = (((info[12] & 1u) << 4) | (info[13] >> 4)) + 1u;
    }
    // The metadata blocks up to the last one.
    for (size_t at = 4; why == nullptr;) {
        if (!c.Hold(at + kBlockHead)) {
            why = "the stream ends inside its metadata blocks";
            break;
        }
        const bool last = (c.Here()[at] & kLastBlock) != 0;
        at += kBlockHead + Be24(c.Here() + at + 1);
        if (last && !c.Hold(at)) why = "the stream ends inside its metadata blocks";
        if (last) c.at = why == nullptr ? at : 0;
        if (last) break;
    }
    if (why != nullptr) {
        Fail(failure, c.Offset(), "%s", why);
        delete reader;
        return nullptr;
    }
    return reader;
}

Step FlacNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<FlacReader *>(base);
    Cursor &c = reader->cursor;
    c.Release();
    if (!reader->haveHead) {
        c.Hold(kLongestHeader);
        if (c.Held() == 0) return EndOfFrames(c, failure, "a frame");
        if (!ReadHead(c.Here(), c.Held(), &reader->head))
            return Fail(failure, c.Offset(), "no FLAC frame header (or one whose CRC-8 does not match) where a frame should begin");
        reader->haveHead = true;
    }
    // The frame ends where the next header that follows it begins.
    size_t end = std::max(reader->head.length, reader->shortestFrame);
    FrameHead next{};
    bool found = false;
    while (!found) {
        if (!c.Hold(end + kLongestHeader) && c.Held() <= end) break;  // the last frame runs to the end
        const uint8_t *bytes = c.Here();
        const size_t held = c.Held();
        const void *sync = std::memchr(bytes + end, 0xFF, held - end);
        end = sync == nullptr ? held : size_t(static_cast<const uint8_t *>(sync) - bytes);
        if (end > kLongestFrame)
            return Fail(failure, c.Offset(), "no next FLAC frame header within %zu MiB of this frame's", kLongestFrame >> 20);
        if (sync == nullptr) continue;
        if (held - end < kLongestHeader && c.Hold(end + kLongestHeader)) continue;
        found = ReadHead(c.Here() + end, c.Held() - end, &next) && Follows(reader->head, next);
        if (!found) ++end;
    }
    if (c.in->failed) return EndOfFrames(c, failure, "a frame");
    *sample = Sample{};
    sample->data = c.Here();
    sample->size = found ? end : c.Held();
    sample->decodeTime = reader->time;
    sample->duration = reader->head.blockSize;
    sample->key = true;
    reader->time += reader->head.blockSize;
    c.at += sample->size;
    reader->head = next;
    reader->haveHead = found;
    return Step::kSample;
}

void FlacClose(Reader *reader) { delete reader; }

}  // namespace mux
