// Ogg Opus: the packets of the first logical stream, one a sample at 48 kHz,
// under an "Opus" entry whose "dOps" comes from OpusHead (its fields
// big-endian). Each packet lasts what its TOC byte says (frame size times
// frame count); the last packet of the stream's last page ends where that
// page's granule position says (end trimming), and the pre-skip becomes
// MP4TrackSpec.MediaStart, where the edit list starts. Pages are checked
// by their CRC; pages of other streams are skipped, and the stream ends
// at its last page.
#include <cstring>
#include <deque>

#include "mux/readers.h"
#include "streams/streams.h"

namespace mux {

namespace {

constexpr size_t kPageHead = 27;
constexpr size_t kCrcAt = 22;
constexpr uint8_t kContinued = 0x01, kFirstPage = 0x02, kLastPage = 0x04;
constexpr size_t kHeadFixed = 19;  // "OpusHead" up to the mapping family
constexpr uint32_t kOpusRate = 48000;
// 48 frames of at most 1275 bytes make the longest packet; a packet laced
// on beyond this is no Opus packet.
constexpr size_t kLongestPacket = size_t(1) << 20;

struct Page {
    uint8_t flags;
    uint64_t granule;
    uint32_t serial;
};

struct Packet {
    Bytes data;
    uint32_t duration;
};

struct OpusReader : Reader {
    Cursor cursor;
    uint32_t serial = 0;
    bool ended = false;          // the stream's last page was read
    Bytes partial;               // a packet that goes on in the next page
    std::deque<Packet> packets;  // whole packets not yet handed on
    Packet current;
    uint64_t time = 0;           // decode time of the next packet handed on
    uint64_t queuedEnd = 0;      // and the end of the last one queued
};

// Samples (at 48 kHz) of a packet from its TOC byte: frame size by
// configuration (SILK 10 to 60 ms, hybrid 10 or 20 ms, CELT 2.5 to 20 ms)
// times the frame count (code 0: one; 1 and 2: two; 3: in the next byte).
uint32_t PacketSamples(const uint8_t *p, size_t size) {
    constexpr uint32_t kSilk[4] = {480, 960, 1920, 2880}, kHybrid[2] = {480, 960}, kCelt[4] = {120, 240, 480, 960};
    const uint32_t config = p[0] >> 3, code = p[0] & 3;
    const uint32_t frame = config < 12 ? kSilk[config & 3] : config < 16 ? kHybrid[config & 1] : kCelt[config & 3];
    const uint32_t frames = code == 0 ? 1 : code < 3 ? 2 : size < 2 ? 0 : p[1] & 0x3F;
    return frame * frames;
}

// Reads the page at the cursor into `page` and its packets' pieces into
// `pieces` (offsets into the held bytes, a flag for a piece that ends its
// packet). kEnd: no byte is left.
struct Piece {
    size_t at, size;
    bool ends;
};
Step ReadPage(Cursor &c, Page *page, std::vector<Piece> *pieces, Failure *failure) {
    if (!c.Hold(kPageHead)) return EndOfFrames(c, failure, "an Ogg page header");
    const uint8_t *h = c.Here();
    if (h[0] != 'O' || h[1] != 'g' || h[2] != 'g' || h[3] != 'S' || h[4] != 0)
        return Fail(failure, c.Offset(), "no Ogg page where one should begin");
    const size_t segments = h[26];
    if (!c.Hold(kPageHead + segments)) return EndOfFrames(c, failure, "an Ogg page header");
    size_t body = 0;
    for (size_t i = 0; i < segments; ++i) body += c.Here()[kPageHead + i];
    const size_t size = kPageHead + segments + body;
    if (!c.Hold(size)) return EndOfFrames(c, failure, "an Ogg page");
    h = c.Here();
    const uint8_t zeros[4] = {};
    const uint32_t crc = OggCrc(OggCrc(OggCrc(0, h, kCrcAt), zeros, 4), h + kCrcAt + 4, size - kCrcAt - 4);
    if (crc != LittleEndian(h + kCrcAt, 4)) return Fail(failure, c.Offset(), "the Ogg page's CRC does not match its bytes");
    page->flags = h[5];
    page->granule = LittleEndian(h + 6, 8);
    page->serial = uint32_t(LittleEndian(h + 14, 4));
    pieces->clear();
    size_t at = c.at + kPageHead + segments, run = 0;
    for (size_t i = 0; i < segments; ++i) {
        const uint8_t lace = h[kPageHead + i];
        run += lace;
        if (lace == 255 && i + 1 < segments) continue;
        pieces->push_back({at, run, lace < 255});
        at += run;
        run = 0;
    }
    c.at += size;
    return Step::kSample;
}

// Reads pages until a whole packet of the stream is queued, or its end.
Step QueuePackets(OpusReader *reader, Failure *failure) {
    Cursor &c = reader->cursor;
    std::vector<Piece> pieces;
    while (reader->packets.empty() && !reader->ended) {
        c.Release();
        const uint64_t offset = c.Offset();
        Page page{};
        const Step step = ReadPage(c, &page, &pieces, failure);
        if (step != Step::kSample) return step;
        if (page.serial != reader->serial) continue;
        if ((page.flags & kContinued) == 0 && !reader->partial.empty())
            return Fail(failure, offset, "a packet broken off by the page before is not continued");
        for (const Piece &piece : pieces) {
            const uint8_t *bytes = c.in->bytes.data() + piece.at;
            if (reader->partial.size() + piece.size > kLongestPacket)
                return Fail(failure, offset, "a packet laced on past %zu KiB", kLongestPacket >> 10);
            reader->partial.insert(reader->partial.end(), bytes, bytes + piece.size);
            if (!piece.ends) continue;
            const uint32_t samples = reader->partial.empty() ? 0 : PacketSamples(reader->partial.data(), reader->partial.size());
            if (samples == 0) return Fail(failure, offset, "an Opus packet of no bytes or no frames");
            Packet packet{std::move(reader->partial), samples};
            reader->partial.clear();
            reader->queuedEnd += packet.duration;
            reader->packets.push_back(std::move(packet));
        }
        reader->ended = (page.flags & kLastPage) != 0;
        // End trimming: the stream's last packet ends at the last granule.
        if (reader->ended && !reader->packets.empty() && page.granule < reader->queuedEnd) {
            Packet &last = reader->packets.back();
            const uint64_t cut = reader->queuedEnd - page.granule;
            if (cut < last.duration) last.duration -= uint32_t(cut);
        }
    }
    return reader->packets.empty() ? Step::kEnd : Step::kSample;
}

}  // namespace

bool OggOpusProbe(const uint8_t *head, size_t size) {
    if (size < kPageHead || std::memcmp(head, "OggS", 4) != 0) return false;
    const size_t first = kPageHead + head[26];
    return size >= first + 8 && std::memcmp(head + first, "OpusHead", 8) == 0;
}

Reader *OggOpusOpen(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto *reader = new OpusReader;
    Cursor &c = reader->cursor;
    c.in = in;
    Page page{};
    std::vector<Piece> pieces;
    const uint8_t *head = nullptr;
    size_t headSize = 0;
    if (ReadPage(c, &page, &pieces, failure) == Step::kSample) {
        if ((page.flags & kFirstPage) == 0 || pieces.size() != 1 || !pieces[0].ends) {
            Fail(failure, 0, "the first Ogg page does not hold the OpusHead packet alone");
        } else {
            head = c.in->bytes.data() + pieces[0].at;
            headSize = pieces[0].size;
        }
    } else if (failure->why.empty()) {
        Fail(failure, 0, "the stream is empty");
    }
    if (head != nullptr && (headSize < kHeadFixed || std::memcmp(head, "OpusHead", 8) != 0 || head[8] >= 16)) {
        Fail(failure, 0, "the first packet is no OpusHead of version 0.x");
        head = nullptr;
    }
    const size_t mapping = head != nullptr && head[18] != 0 ? 2 + size_t(head[9]) : 0;
    if (head != nullptr && headSize < kHeadFixed + mapping) {
        Fail(failure, 0, "the OpusHead ends inside its channel mapping table");
        head = nullptr;
    }
    if (head == nullptr) {
        delete reader;
        return nullptr;
    }
    reader->serial = page.serial;
    // "dOps": version 0, channels, pre-skip, input rate, gain, mapping
    // family and table, big-endian.
    track->config = {0, head[9], head[11], head[10], head[15], head[14], head[13], head[12], head[17], head[16], head[18]};
    track->config.insert(track->config.end(), head + kHeadFixed, head + kHeadFixed + mapping);
    track->entry.MediaStart = uint32_t(LittleEndian(head + 10, 2));
    DescribeSound(track, "Opus", kOpusRate, head[9]);
    // The comment header (OpusTags) follows; it may fill pages of its own.
    if (QueuePackets(reader, failure) == Step::kFailed) {
        delete reader;
        return nullptr;
    }
    if (!reader->packets.empty()) {
        reader->queuedEnd -= reader->packets.front().duration;
        reader->packets.pop_front();
    }
    return reader;
}

Step OggOpusNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<OpusReader *>(base);
    const Step step = QueuePackets(reader, failure);
    if (step != Step::kSample) return step;
    reader->current = std::move(reader->packets.front());
    reader->packets.pop_front();
    *sample = Sample{};
    sample->data = reader->current.data.data();
    sample->size = reader->current.data.size();
    sample->decodeTime = reader->time;
    sample->duration = reader->current.duration;
    sample->key = true;
    reader->time += reader->current.duration;
    return Step::kSample;
}

void OggOpusClose(Reader *reader) { delete reader; }

}  // namespace mux
