// Opus samples as an Ogg Opus stream: an identification header ("OpusHead")
// made from "dOps", a comment header ("OpusTags"), each on a page of its
// own, then the packets laced into pages whose granule positions are the
// end times of their last packets at 48 kHz, as the track's sample
// durations give them (the pre-skip included, as in the track).
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "streams/streams.h"

namespace {

// Ogg's CRC-32: polynomial 0x04C11DB7, most significant bit first, no
// reflection, initial value and final XOR 0.
struct CrcTable {
    uint32_t Entries[256];
};
constexpr CrcTable MakeCrcTable() {
    CrcTable table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i << 24;
        for (int bit = 0; bit < 8; ++bit) value = (value << 1) ^ ((value & 0x80000000u) ? 0x04C11DB7u : 0);
        table.Entries[i] = value;
    }
    return table;
}
constexpr CrcTable kCrcTable = MakeCrcTable();

}  // namespace

uint32_t OggCrc(uint32_t crc, const uint8_t *bytes, size_t size) {
    for (size_t i = 0; i < size; ++i) crc = (crc << 8) ^ kCrcTable.Entries[((crc >> 24) ^ bytes[i]) & 0xFF];
    return crc;
}

namespace {

// "dOps": version, output channels, pre-skip, input rate, output gain,
// mapping family; for a family other than 0 the stream count, the coupled
// count and one mapping byte per channel.
constexpr size_t kOpsFamily = 10;
constexpr size_t kOpsFixed = 11;

constexpr uint8_t kContinued = 0x01;
constexpr uint8_t kFirstPage = 0x02;
constexpr uint8_t kLastPage = 0x04;
constexpr size_t kPageHead = 27;
constexpr uint32_t kMostSegments = 255;
// A page is closed once it holds this many bytes at a packet's end, so that
// pages stay small, as Ogg writers keep them.
constexpr size_t kPageBytes = 4096;
constexpr size_t kLargestBody = 255 * 255;
constexpr uint64_t kNoGranule = ~uint64_t(0);
constexpr uint64_t kOpusRate = 48000;
const char kVendor[] = "mp4core";

// Writes the page being filled (with `flags` added) and starts an empty one.
bool WritePage(StreamState *state, uint8_t flags, StreamBuffer *out) {
    OggState &ogg = state->Ogg;
    uint8_t head[kPageHead + kMostSegments] = {'O', 'g', 'g', 'S', 0};
    head[5] = uint8_t(flags | (ogg.Continued ? kContinued : 0) | (ogg.Sequence == 0 ? kFirstPage : 0));
    PutLE(head + 6, ogg.Granule, 8);
    PutLE(head + 14, state->Track.TrackId, 4);
    PutLE(head + 18, ogg.Sequence, 4);
    head[26] = uint8_t(ogg.Segments);
    std::memcpy(head + kPageHead, ogg.Lacing, ogg.Segments);
    const size_t headSize = kPageHead + ogg.Segments;
    const uint32_t crc = OggCrc(OggCrc(0, head, headSize), ogg.Body, ogg.BodySize);
    PutLE(head + 22, crc, 4);
    if (!AppendBytes(out, head, headSize) || !AppendBytes(out, ogg.Body, ogg.BodySize)) return false;
    ++ogg.Sequence;
    ogg.BodySize = 0;
    ogg.Segments = 0;
    ogg.Granule = kNoGranule;
    ogg.Continued = false;
    ogg.Closed = false;
    return true;
}

// Laces one packet into pages: 255 for every whole 255 bytes, then the
// rest (0 after a packet of a multiple of 255). A page that can't take
// another lacing value goes out, and the packet goes on in the next.
bool AddPacket(StreamState *state, const uint8_t *packet, size_t size, uint64_t granule,
               StreamBuffer *out) {
    OggState &ogg = state->Ogg;
    if (ogg.Closed && !WritePage(state, 0, out)) return false;
    size_t done = 0;
    for (;;) {
        if (ogg.Segments == kMostSegments) {
            if (!WritePage(state, 0, out)) return false;
            ogg.Continued = done > 0;
        }
        const size_t piece = size - done < 255 ? size - done : 255;
        ogg.Lacing[ogg.Segments++] = uint8_t(piece);
        if (piece != 0) std::memcpy(ogg.Body + ogg.BodySize, packet + done, piece);
        ogg.BodySize += piece;
        done += piece;
        if (piece < 255) break;
    }
    ogg.Granule = granule;
    ogg.Closed = ogg.BodySize >= kPageBytes;
    return true;
}

// A packet alone on its page (the two headers).
bool WriteHeaderPage(StreamState *state, const uint8_t *packet, size_t size, StreamBuffer *out) {
    state->Ogg.Closed = false;
    return AddPacket(state, packet, size, 0, out) && WritePage(state, 0, out);
}

}  // namespace

int32_t StartOggOpus(StreamState *state, StreamBuffer *out) {
    const StreamTrack &track = state->Track;
    const uint8_t *ops = track.Config;
    if (track.ConfigSize < kOpsFixed)
        return StreamMessage(state, kStreamRefused, "it has no \"dOps\" configuration, or one cut short");
    if (ops[0] != 0)
        return StreamMessage(state, kStreamRefused, "its \"dOps\" has version %u, not 0", ops[0]);
    const size_t mapping = ops[kOpsFamily] != 0 ? 2 + size_t(ops[1]) : 0;
    if (track.ConfigSize < kOpsFixed + mapping)
        return StreamMessage(state, kStreamRefused, "its \"dOps\" ends inside its channel mapping table");
    state->Ogg.Body = static_cast<uint8_t *>(std::malloc(kLargestBody));
    if (state->Ogg.Body == nullptr) return kStreamNoMemory;
    state->Ogg.Granule = 0;
    // "OpusHead", version 1, then the fields of "dOps" little-endian.
    uint8_t head[19 + 2 + 255] = {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, ops[1]};
    PutLE(head + 10, GetBE16(ops, 2), 2);
    PutLE(head + 12, GetBE32(ops, 4), 4);
    PutLE(head + 16, GetBE16(ops, 8), 2);
    head[18] = ops[kOpsFamily];
    std::memcpy(head + 19, ops + kOpsFixed, mapping);
    // "OpusTags": the vendor string and no comments.
    uint8_t tags[8 + 4 + sizeof kVendor - 1 + 4] = {'O', 'p', 'u', 's', 'T', 'a', 'g', 's'};
    PutLE(tags + 8, sizeof kVendor - 1, 4);
    std::memcpy(tags + 12, kVendor, sizeof kVendor - 1);
    if (!WriteHeaderPage(state, head, 19 + mapping, out) || !WriteHeaderPage(state, tags, sizeof tags, out))
        return kStreamNoMemory;
    return kStreamDone;
}

int32_t OggOpusSample(StreamState *state, const StreamSample &sample, StreamBuffer *out) {
    // The end of the sample in 48 kHz ticks, without overflow for any
    // 64-bit time.
    const uint64_t end = sample.DecodeTime + sample.Duration;
    const uint64_t timescale = state->Track.Timescale != 0 ? state->Track.Timescale : kOpusRate;
    const uint64_t granule = end / timescale * kOpusRate + end % timescale * kOpusRate / timescale;
    return AddPacket(state, sample.Data, sample.Size, granule, out) ? kStreamDone : kStreamNoMemory;
}

int32_t FinishOggOpus(StreamState *state, StreamBuffer *out) {
    // The last page, with whatever it holds (nothing for a track without
    // samples), marks the end of the stream.
    if (state->Ogg.Granule == kNoGranule && state->Ogg.Segments == 0) state->Ogg.Granule = 0;
    return WritePage(state, kLastPage, out) ? kStreamDone : kStreamNoMemory;
}
