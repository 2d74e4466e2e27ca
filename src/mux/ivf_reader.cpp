// AV1 and VP9 in IVF into samples. The 32-byte file header names the
// codec, the picture size and the time base (rate / scale seconds a tick);
// each frame has a 12-byte header of its size and presentation time. The
// track counts in ticks of the rate, a frame's time times the scale.
//
// AV1: a frame is a temporal unit, one sample, whose temporal delimiters
// are left out (the sample format has none); "av1C" comes from the first
// sequence header, which stays in the samples too. A temporal unit is a
// key frame when it shows a key frame.
// VP9: a frame (or superframe) is a sample; "vpcC" comes from the first
// frame's uncompressed header, its level from the picture size and rate.
#include <algorithm>
#include <cstring>
#include <memory>

#include "media/bit_reader.h"
#include "mux/readers.h"
#include "mux/video.h"

namespace mux {
namespace {

constexpr size_t kFileHead = 32;
constexpr size_t kFrameHead = 12;
constexpr size_t kMaxFrameBytes = size_t(256) << 20;
constexpr uint32_t kObuSequenceHeader = 1, kObuTemporalDelimiter = 2, kObuFrameHeader = 3, kObuFrame = 6;
constexpr uint32_t kVp9SyncCode = 0x498342;
constexpr uint32_t kVp9ColourSpaceRgb = 7;
// VP9's colour spaces as matrix coefficients (unknown, BT.601, BT.709,
// SMPTE 170, SMPTE 240, BT.2020, reserved, RGB).
constexpr uint8_t kVp9Matrix[8] = {2, 5, 1, 6, 7, 9, 3, 0};
constexpr uint8_t kUnspecified = 2;

// VP9 levels: the most luma samples a second and in a picture of each.
struct Vp9Level {
    uint8_t level;
    uint64_t sampleRate;
    uint32_t pictureSize;
};
constexpr Vp9Level kVp9Levels[] = {
    {10, 829440, 36864},         {11, 2764800, 73728},        {20, 4608000, 122880},
    {21, 9216000, 245760},       {30, 20736000, 552960},      {31, 36864000, 983040},
    {40, 83558400, 2228224},     {41, 160432128, 2228224},    {50, 311951360, 8912896},
    {51, 588251136, 8912896},    {52, 1176502272, 8912896},   {60, 1176502272, 35651584},
    {61, 2353004544, 35651584},  {62, 4706009088, 35651584},
};

struct IvfReader {
    ByteStream *in = nullptr;
    bool av1 = false;
    uint32_t scale = 1;
    size_t next = kFileHead;  // where the next frame header begins
    bool reducedStillPicture = false;
    bool anyTime = false;
    uint64_t firstTime = 0, lastTime = 0;
    Bytes out;
};

Reader *AsReader(IvfReader *reader) { return reinterpret_cast<Reader *>(reader); }
IvfReader *FromReader(Reader *reader) { return reinterpret_cast<IvfReader *>(reader); }

// An OBU of a temporal unit: its type, where its payload lies, and where
// the next begins. false when the unit ends inside it.
struct Obu {
    uint32_t type = 0;
    size_t payload = 0, payloadSize = 0, end = 0;
};

bool ReadObu(const uint8_t *data, size_t size, size_t at, Obu *obu) {
    if (at >= size) return false;
    const uint8_t header = data[at];
    obu->type = (header >> 3) & 0xF;
    size_t p = at + 1 + ((header & 4) ? 1 : 0);
    if (p > size) return false;
    uint64_t length = size - p;
    if (header & 2) {  // a size field: leb128
        length = 0;
        for (int i = 0;; ++i) {
            if (p >= size || i == 8) return false;
            length |= uint64_t(data[p] & 0x7F) << (7 * i);
            if (!(data[p++] & 0x80)) break;
        }
    }
    if (length > size - p) return false;
    obu->payload = p;
    obu->payloadSize = size_t(length);
    obu->end = p + size_t(length);
    return true;
}

// The fields of an AV1 sequence header that "av1C" repeats, and its picture size.
struct Av1Sequence {
    uint32_t profile = 0, level = 0, tier = 0;
    bool highDepth = false, twelveBit = false, monochrome = false;
    uint32_t subX = 1, subY = 1, chromaPosition = 0;
    bool reducedStillPicture = false;
    uint32_t width = 0, height = 0;
};

bool ParseAv1Sequence(const uint8_t *payload, size_t size, Av1Sequence *s) {
    BitReader reader = MakeBitReader(payload, size);
    BitReader *b = &reader;
    s->profile = ReadBits(b, 3);
    ReadBits(b, 1);  // still picture
    s->reducedStillPicture = ReadBits(b, 1);
    if (s->reducedStillPicture) {
        s->level = ReadBits(b, 5);
    } else {
        bool decoderModel = false;
        uint32_t delayBits = 0;
        if (ReadBits(b, 1)) {  // timing info
            ReadBits(b, 32);
            ReadBits(b, 32);
            if (ReadBits(b, 1)) {  // equal picture interval: uvlc
                uint32_t zeros = 0;
                while (!b->Exhausted && !ReadBits(b, 1)) ++zeros;
                if (zeros >= 32) return false;
                ReadBits(b, zeros);
            }
            decoderModel = ReadBits(b, 1);
            if (decoderModel) {
                delayBits = ReadBits(b, 5) + 1;
                ReadBits(b, 32);
                ReadBits(b, 10);
            }
        }
        const bool displayDelay = ReadBits(b, 1);
        const uint32_t points = ReadBits(b, 5) + 1;
        for (uint32_t i = 0; i < points; ++i) {
            ReadBits(b, 12);
            const uint32_t level = ReadBits(b, 5);
            const uint32_t tier = level > 7 ? ReadBits(b, 1) : 0;
            if (i == 0) s->level = level, s->tier = tier;
            if (decoderModel && ReadBits(b, 1)) ReadBits(b, 2 * delayBits + 1);
            if (displayDelay && ReadBits(b, 1)) ReadBits(b, 4);
        }
    }
    const uint32_t widthBits = ReadBits(b, 4) + 1, heightBits = ReadBits(b, 4) + 1;
    s->width = ReadBits(b, widthBits) + 1;
    s->height = ReadBits(b, heightBits) + 1;
    if (!s->reducedStillPicture && ReadBits(b, 1)) ReadBits(b, 7);  // frame IDs
    ReadBits(b, 3);  // 128x128 blocks, filter intra, intra edge
    if (!s->reducedStillPicture) {
        ReadBits(b, 4);  // inter-intra, masked compound, warped motion, dual filter
        const bool orderHint = ReadBits(b, 1);
        if (orderHint) ReadBits(b, 2);
        const bool chooseScreenContent = ReadBits(b, 1);
        const uint32_t screenContent = chooseScreenContent ? 2 : ReadBits(b, 1);
        if (screenContent > 0 && !ReadBits(b, 1)) ReadBits(b, 1);  // integer motion vectors
        if (orderHint) ReadBits(b, 3);
    }
    ReadBits(b, 3);  // superres, CDEF, loop restoration
    s->highDepth = ReadBits(b, 1);
    if (s->profile == 2 && s->highDepth) s->twelveBit = ReadBits(b, 1);
    s->monochrome = s->profile == 1 ? false : ReadBits(b, 1);
    uint32_t primaries = kUnspecified, transfer = kUnspecified, matrix = kUnspecified;
    if (ReadBits(b, 1)) {
        primaries = ReadBits(b, 8);
        transfer = ReadBits(b, 8);
        matrix = ReadBits(b, 8);
    }
    constexpr uint32_t kBt709 = 1, kSrgb = 13, kIdentity = 0;
    if (s->monochrome) {
        ReadBits(b, 1);
    } else if (primaries == kBt709 && transfer == kSrgb && matrix == kIdentity) {
        s->subX = s->subY = 0;
    } else {
        ReadBits(b, 1);  // colour range
        if (s->profile == 1) {
            s->subX = s->subY = 0;
        } else if (s->profile == 2) {
            s->subX = s->twelveBit ? ReadBits(b, 1) : 1;
            s->subY = s->twelveBit && s->subX ? ReadBits(b, 1) : 0;
        }
        if (s->subX && s->subY) s->chromaPosition = ReadBits(b, 2);
    }
    return !b->Exhausted;
}

// Whether a temporal unit shows a key frame: a frame header whose frame
// is a key frame that is shown.
bool ShowsKeyFrame(const IvfReader &r, const uint8_t *data, size_t size) {
    Obu obu;
    for (size_t at = 0; ReadObu(data, size, at, &obu); at = obu.end) {
        if (obu.type != kObuFrameHeader && obu.type != kObuFrame) continue;
        if (r.reducedStillPicture) return true;
        BitReader reader = MakeBitReader(data + obu.payload, obu.payloadSize);
        if (ReadBits(&reader, 1)) return false;  // shows an earlier frame
        const uint32_t frameType = ReadBits(&reader, 2);
        return !reader.Exhausted && frameType == 0 && ReadBits(&reader, 1) == 1;
    }
    return false;
}

// "vpcC" behind its version and flags from a VP9 frame's uncompressed header.
bool Vp9Config(const uint8_t *data, size_t size, uint32_t width, uint32_t height, double rate, Bytes *config) {
    BitReader reader = MakeBitReader(data, size);
    BitReader *b = &reader;
    if (ReadBits(b, 2) != 2) return false;  // frame marker
    const uint32_t low = ReadBits(b, 1);
    const uint32_t profile = (ReadBits(b, 1) << 1) | low;
    if (profile == 3) ReadBits(b, 1);
    if (ReadBits(b, 1)) return false;  // shows an earlier frame
    if (ReadBits(b, 1) != 0) return false;  // not a key frame
    ReadBits(b, 2);
    if (ReadBits(b, 24) != kVp9SyncCode) return false;
    uint32_t depth = 8;
    if (profile >= 2) depth = ReadBits(b, 1) ? 12 : 10;
    const uint32_t space = ReadBits(b, 3);
    uint32_t fullRange = 1, subX = 1, subY = 1;
    if (space != kVp9ColourSpaceRgb) {
        fullRange = ReadBits(b, 1);
        if (profile == 1 || profile == 3) {
            subX = ReadBits(b, 1);
            subY = ReadBits(b, 1);
            ReadBits(b, 1);
        }
    } else {
        subX = subY = 0;
        if (profile == 1 || profile == 3) ReadBits(b, 1);
    }
    if (width == 0 || height == 0) {
        width = ReadBits(b, 16) + 1;
        height = ReadBits(b, 16) + 1;
    }
    if (b->Exhausted) return false;
    // 4:2:0 with chroma sited with luma (VP9 states no siting), 4:2:2, 4:4:4.
    const uint8_t chroma = subX && subY ? 1 : subX ? 2 : 3;
    const uint64_t picture = uint64_t(width) * height;
    const uint64_t sampleRate = uint64_t(double(picture) * rate);
    uint8_t level = 0;
    for (const Vp9Level &row : kVp9Levels)
        if (level == 0 && sampleRate <= row.sampleRate && picture <= row.pictureSize) level = row.level;
    *config = {uint8_t(profile), level, uint8_t((depth << 4) | (chroma << 1) | fullRange), kUnspecified,
               kUnspecified, kVp9Matrix[space], 0, 0};
    return true;
}

// A frame header's presentation time, in ticks of the time base.
uint64_t FrameTime(const uint8_t *head) { return LittleEndian(head + 4, 4) | uint64_t(LittleEndian(head + 8, 4)) << 32; }

// Whether a VP9 frame (the first of a superframe) is a key frame.
bool Vp9KeyFrame(const uint8_t *frame, size_t size) {
    BitReader reader = MakeBitReader(frame, size);
    BitReader *b = &reader;
    ReadBits(b, 2);  // frame marker
    if (ReadBits(b, 1) & ReadBits(b, 1)) ReadBits(b, 1);  // profile 3
    if (ReadBits(b, 1)) return false;                     // shows an earlier frame
    return ReadBits(b, 1) == 0 && !b->Exhausted;
}

// The frame at r->next is held whole: its header at `at`. false at the
// end; `failure` says why when the input breaks off.
bool HoldFrame(IvfReader *r, size_t *at, size_t *size, Failure *failure) {
    ByteStream *in = r->in;
    const size_t moved = LetGo(in, r->next);
    r->next -= moved;
    if (!Hold(in, r->next + kFrameHead)) {
        if (in->bytes.size() > r->next || in->failed) {
            failure->offset = in->consumed + r->next;
            failure->why = in->failed ? "the input can't be read" : "the stream ends inside a frame header";
        }
        return false;
    }
    *size = LittleEndian(&in->bytes[r->next], 4);
    if (*size > kMaxFrameBytes || !Hold(in, r->next + kFrameHead + *size)) {
        failure->offset = in->consumed + r->next;
        failure->why = *size > kMaxFrameBytes ? "a frame of more than 256 MiB" : "the stream ends inside a frame";
        return false;
    }
    *at = r->next;
    return true;
}

}  // namespace

bool ProbeAv1Ivf(const uint8_t *head, size_t size) {
    return size >= kFileHead && std::memcmp(head, "DKIF", 4) == 0 && std::memcmp(head + 8, "AV01", 4) == 0;
}

bool ProbeVp9Ivf(const uint8_t *head, size_t size) {
    return size >= kFileHead && std::memcmp(head, "DKIF", 4) == 0 && std::memcmp(head + 8, "VP90", 4) == 0;
}

Reader *OpenIvf(ByteStream *in, const Options &, TrackDescription *track, Failure *failure) {
    auto r = std::make_unique<IvfReader>();
    r->in = in;
    failure->offset = 0;
    if (!Hold(in, kFileHead) || (!ProbeAv1Ivf(in->bytes.data(), kFileHead) && !ProbeVp9Ivf(in->bytes.data(), kFileHead))) {
        failure->why = "no IVF header of AV1 or VP9";
        return nullptr;
    }
    const uint8_t *head = in->bytes.data();
    r->av1 = head[8] == 'A';
    const uint32_t headSize = LittleEndian(head + 6, 2);
    const uint32_t rate = LittleEndian(head + 16, 4);
    r->scale = LittleEndian(head + 20, 4);
    uint32_t width = LittleEndian(head + 12, 2), height = LittleEndian(head + 14, 2);
    if (rate == 0 || r->scale == 0 || headSize < kFileHead) {
        failure->why = "the IVF header states no time base";
        return nullptr;
    }
    r->next = headSize;
    // The first frame describes the track; the second's time gives the
    // frame rate a VP9 level needs.
    size_t at = 0, size = 0;
    if (!HoldFrame(r.get(), &at, &size, failure)) {
        if (failure->why.empty()) failure->why = "no frame behind the IVF header";
        return nullptr;
    }
    const uint8_t *frame = &in->bytes[at + kFrameHead];
    MP4TrackSpec &entry = track->entry;
    entry.TrackType = MP4_TRACK_VIDEO;
    entry.Timescale = rate;
    if (r->av1) {
        Obu obu;
        Av1Sequence sequence;
        bool found = false;
        for (size_t p = 0; !found && ReadObu(frame, size, p, &obu); p = obu.end) {
            if (obu.type != kObuSequenceHeader) continue;
            if (!ParseAv1Sequence(frame + obu.payload, obu.payloadSize, &sequence)) break;
            found = true;
            track->config = {0x81, uint8_t((sequence.profile << 5) | sequence.level),
                             uint8_t((sequence.tier << 7) | (sequence.highDepth << 6) | (sequence.twelveBit << 5) |
                                     (sequence.monochrome << 4) | (sequence.subX << 3) | (sequence.subY << 2) |
                                     sequence.chromaPosition),
                             0};
            track->config.insert(track->config.end(), frame + p, frame + obu.end);
        }
        if (!found) {
            failure->offset = in->consumed + at;
            failure->why = "the first temporal unit holds no sequence header that can be read";
            return nullptr;
        }
        r->reducedStillPicture = sequence.reducedStillPicture;
        if (width == 0 || height == 0) width = sequence.width, height = sequence.height;
        std::memcpy(entry.Format, "av01", 4);
    } else {
        // The second frame's time, when it comes, gives the frame rate.
        double frameRate = 0;
        const size_t second = at + kFrameHead + size;
        if (Hold(in, second + kFrameHead)) {
            const uint64_t gap = FrameTime(&in->bytes[second]) - FrameTime(&in->bytes[at]);
            if (gap > 0 && gap < (uint64_t(1) << 53)) frameRate = double(rate) / (double(gap) * r->scale);
        }
        frame = &in->bytes[at + kFrameHead];
        if (!Vp9Config(frame, size, width, height, frameRate, &track->config)) {
            failure->offset = in->consumed + at;
            failure->why = "the first frame is no VP9 key frame whose header can be read";
            return nullptr;
        }
        std::memcpy(entry.Format, "vp09", 4);
    }
    entry.Width = width;
    entry.Height = height;
    entry.Config = track->config.data();
    entry.ConfigSize = uint32_t(track->config.size());
    return AsReader(r.release());
}

Step NextIvf(Reader *reader, Sample *sample, Failure *failure) {
    IvfReader *r = FromReader(reader);
    size_t at = 0, size = 0;
    failure->why.clear();
    if (!HoldFrame(r, &at, &size, failure)) return failure->why.empty() ? Step::kEnd : Step::kFailed;
    const uint8_t *head = &r->in->bytes[at];
    const uint8_t *frame = head + kFrameHead;
    r->next = at + kFrameHead + size;
    uint64_t time = FrameTime(head) * r->scale;
    if (!r->anyTime) r->firstTime = time, r->lastTime = time - 1, r->anyTime = true;
    time = std::max(time, r->lastTime + 1);  // decoding times only rise
    r->lastTime = time;
    sample->decodeTime = time - r->firstTime;
    sample->compositionOffset = 0;
    sample->duration = 0;
    if (!r->av1) {
        sample->data = frame;
        sample->size = size;
        sample->key = Vp9KeyFrame(frame, size);
        return Step::kSample;
    }
    // The temporal unit without its temporal delimiters.
    r->out.clear();
    Obu obu;
    size_t p = 0;
    for (; ReadObu(frame, size, p, &obu); p = obu.end)
        if (obu.type != kObuTemporalDelimiter) r->out.insert(r->out.end(), frame + p, frame + obu.end);
    if (p != size) {
        failure->offset = r->in->consumed + at + kFrameHead + p;
        failure->why = "an OBU runs past the end of its frame";
        return Step::kFailed;
    }
    sample->data = r->out.data();
    sample->size = r->out.size();
    sample->key = ShowsKeyFrame(*r, r->out.data(), r->out.size());
    return Step::kSample;
}

void CloseIvf(Reader *reader) { delete FromReader(reader); }

}  // namespace mux
