// MPEG-4 visual elementary streams into samples. The configuration is
// every byte in front of the first plane (VOP start code 00 00 01 B6); each
// frame runs from its plane, or from the headers in front of it (a group of
// VOPs), to the next start code behind its plane; a plane coded as I is a
// key frame.
//
// Times: the video object layer gives the tick (its time increment
// resolution) and, when the rate is fixed, a frame's increment; each plane
// gives its own presentation time as whole seconds (modulo_time_base, from
// the last reference plane's second, or a group of VOPs' time code in front
// of it; a B plane counts from the second of the reference before that)
// plus an increment. A reference plane is decoded when the reference
// before it presents, a B plane when it presents itself, so decoding times
// rise and B planes get their offsets; a layer of low delay (no B planes)
// decodes each plane when it presents.
#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>

#include "media/bit_reader.h"
#include "media/media.h"
#include "mux/video.h"

namespace mux {
namespace {

constexpr size_t kNone = SIZE_MAX;
constexpr uint8_t kVopCode = 0xB6;
constexpr uint8_t kGroupCode = 0xB3;
// Frames read ahead for a frame's length when the rate is not fixed: a
// reference and two B planes behind it.
constexpr size_t kFramesForLength = 4;
constexpr uint32_t kBVop = 2;
// Seconds a plane may skip: a hostile run of modulo bits ends here.
constexpr uint32_t kMaxSkippedSeconds = 3600;
constexpr size_t kMaxFrameBytes = size_t(256) << 20;
constexpr size_t kMaxHeaderBytes = size_t(1) << 20;

struct Frame {
    Bytes data;
    int64_t present = 0;  // ticks of the time increment resolution
    bool reference = true;
    bool key = false;
    uint64_t offset = 0;
};

struct Mpeg4Reader {
    ByteStream *in = nullptr;
    uint32_t resolution = 0;     // ticks of a second in the planes' times
    uint32_t fixedIncrement = 0;  // 0: no fixed rate
    uint32_t incrementBits = 1;
    bool lowDelay = false;  // the layer has no B planes: each plane decodes when it presents
    // A frame's length in ticks of the resolution: the fixed increment,
    // else the shortest distance between the first planes.
    int64_t frameLength = 1;
    // --fps: each frame lasts fpsDenominator track ticks
    uint32_t fpsNumerator = 0, fpsDenominator = 0;
    // The frame search, as positions in in->bytes.
    size_t frameStart = 0, plane = kNone, scan = 0;
    bool framesEnded = false;
    // Seconds of the last reference plane and of the one before it.
    int64_t timeBase = 0, lastTimeBase = 0;
    std::deque<Frame> ahead;  // read, not yet handed out
    bool firstDone = false;
    int64_t previousReference = 0;  // presentation time of the last reference handed out
    int64_t firstDecode = 0, lastDecode = 0;
    Frame out;
};

Reader *AsReader(Mpeg4Reader *reader) { return reinterpret_cast<Reader *>(reader); }
Mpeg4Reader *FromReader(Reader *reader) { return reinterpret_cast<Mpeg4Reader *>(reader); }

// The next start code prefix 00 00 01 at or behind `from` whose code byte
// has come, or kNone.
size_t NextStartCode(const Bytes &s, size_t from) {
    for (size_t i = from; i + 3 < s.size();) {
        const void *one = std::memchr(s.data() + i + 2, 1, s.size() - 1 - (i + 2));
        if (one == nullptr) return kNone;
        const size_t at = size_t(static_cast<const uint8_t *>(one) - s.data());
        if (s[at - 1] == 0 && s[at - 2] == 0) return at - 2;
        i = at - 1;
    }
    return kNone;
}

// The timing fields of a video object layer header (start code 20..2F).
bool ReadLayerTiming(const uint8_t *layer, size_t size, Mpeg4Reader *r) {
    BitReader reader = MakeBitReader(layer + 4, size - 4);
    BitReader *b = &reader;
    ReadBits(b, 1);  // random accessible
    const uint32_t objectType = ReadBits(b, 8);
    uint32_t version = 1;
    if (ReadBits(b, 1)) {
        version = ReadBits(b, 4);
        ReadBits(b, 3);
    }
    if (ReadBits(b, 4) == 0xF) ReadBits(b, 16);  // extended pixel aspect ratio
    // Without control parameters only a simple object (type 1) is known to
    // have no B planes.
    r->lowDelay = objectType == 1;
    if (ReadBits(b, 1)) {                        // control parameters
        ReadBits(b, 2);                          // chroma format
        r->lowDelay = ReadBits(b, 1) != 0;
        if (ReadBits(b, 1)) ReadBits(b, 79);     // buffer parameters
    }
    const uint32_t shape = ReadBits(b, 2);
    if (shape == 3 && version != 1) ReadBits(b, 4);
    ReadBits(b, 1);
    r->resolution = ReadBits(b, 16);
    ReadBits(b, 1);
    while (r->incrementBits < 16 && (1u << r->incrementBits) < r->resolution) ++r->incrementBits;
    if (ReadBits(b, 1)) r->fixedIncrement = ReadBits(b, r->incrementBits);
    return !b->Exhausted && r->resolution != 0;
}

// A plane's presentation time in track ticks; false when its header is cut
// short or skips too many seconds.
bool ReadPlaneTime(Mpeg4Reader *r, const uint8_t *plane, size_t size, Frame *frame) {
    BitReader reader = MakeBitReader(plane + 4, size - 4);
    BitReader *b = &reader;
    const uint32_t type = ReadBits(b, 2);
    uint32_t seconds = 0;
    while (ReadBits(b, 1) && !b->Exhausted)
        if (++seconds > kMaxSkippedSeconds) return false;
    ReadBits(b, 1);
    const uint32_t increment = ReadBits(b, r->incrementBits);
    if (b->Exhausted) return false;
    frame->key = type == 0;
    frame->reference = type != kBVop;
    int64_t base;
    if (frame->reference) {
        r->lastTimeBase = r->timeBase;
        r->timeBase += seconds;
        base = r->timeBase;
    } else {
        base = r->lastTimeBase + seconds;
    }
    frame->present = base * r->resolution + increment;
    return true;
}

// A group of VOPs in front of a plane sets the second its plane counts
// from to its time code, as a decoder takes it.
void ReadGroupTime(Mpeg4Reader *r, const uint8_t *bytes, size_t size) {
    for (size_t i = 0; i + 7 <= size; ++i) {
        if (bytes[i] != 0 || bytes[i + 1] != 0 || bytes[i + 2] != 1 || bytes[i + 3] != kGroupCode) continue;
        BitReader reader = MakeBitReader(bytes + i + 4, size - i - 4);
        const uint32_t hours = ReadBits(&reader, 5);
        const uint32_t minutes = ReadBits(&reader, 6);
        ReadBits(&reader, 1);
        const uint32_t seconds = ReadBits(&reader, 6);
        if (!reader.Exhausted) r->timeBase = int64_t(hours) * 3600 + minutes * 60 + seconds;
        return;
    }
}

// The next frame into r->ahead. false: none is left, or `failure` says why.
bool ReadFrame(Mpeg4Reader *r, Failure *failure) {
    ByteStream &in = *r->in;
    if (r->framesEnded) return false;
    const size_t moved = LetGo(&in, r->frameStart);
    r->frameStart -= moved;
    r->scan -= moved;
    if (r->plane != kNone) r->plane -= moved;
    size_t end = kNone;
    for (;;) {
        const size_t at = NextStartCode(in.bytes, r->scan);
        if (at == kNone) {
            if (in.bytes.size() - r->frameStart > kMaxFrameBytes) {
                failure->offset = in.consumed + r->frameStart;
                failure->why = "a frame of more than 256 MiB";
                return false;
            }
            // A prefix may still begin in the last three bytes.
            if (in.bytes.size() >= 3) r->scan = std::max(r->scan, in.bytes.size() - 3);
            if (ReadMore(&in)) continue;
            r->framesEnded = true;
            if (in.failed) {
                failure->offset = in.consumed + in.bytes.size();
                failure->why = "the input can't be read";
                return false;
            }
            // The last frame runs to the end; headers without a plane make none.
            if (r->plane == kNone) return false;
            end = in.bytes.size();
            break;
        }
        r->scan = at + 3;
        if (r->plane == kNone) {
            if (in.bytes[at + 3] == kVopCode) r->plane = at;
            continue;
        }
        end = at;  // any start code behind the plane begins the next frame
        break;
    }
    Frame frame;
    frame.offset = in.consumed + r->frameStart;
    frame.data.assign(in.bytes.begin() + long(r->frameStart), in.bytes.begin() + long(end));
    ReadGroupTime(r, in.bytes.data() + r->frameStart, r->plane - r->frameStart);
    if (!ReadPlaneTime(r, in.bytes.data() + r->plane, end - r->plane, &frame)) {
        failure->offset = in.consumed + r->plane;
        failure->why = "a VOP header that can't be read";
        return false;
    }
    r->ahead.push_back(std::move(frame));
    r->frameStart = end;
    r->plane = end < in.bytes.size() && in.bytes[end + 3] == kVopCode ? end : kNone;
    return true;
}

// A plane's time in track ticks: as it is, or with --fps its frame (the
// nearest) times a frame's ticks.
int64_t TrackTicks(const Mpeg4Reader &r, int64_t ticks) {
    if (r.fpsNumerator == 0) return ticks;
    return (ticks + r.frameLength / 2) / r.frameLength * r.fpsDenominator;
}

}  // namespace

bool ProbeMpeg4Video(const uint8_t *head, size_t size) {
    if (size < 8 || head[0] != 0 || head[1] != 0 || head[2] != 1) return false;
    if (head[3] == 0xB0) return true;  // visual object sequence
    // A video object, then its layer.
    return head[3] <= 0x1F && head[4] == 0 && head[5] == 0 && head[6] == 1 && (head[7] & 0xF0) == 0x20;
}

Reader *OpenMpeg4Video(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure) {
    auto r = std::make_unique<Mpeg4Reader>();
    r->in = in;
    // Everything up to the first plane is the header.
    size_t firstPlane = kNone;
    for (size_t scan = 0; firstPlane == kNone;) {
        const size_t at = NextStartCode(in->bytes, scan);
        if (at == kNone) {
            if (in->bytes.size() >= 3) scan = std::max(scan, in->bytes.size() - 3);
            if (in->bytes.size() > kMaxHeaderBytes || !ReadMore(in)) {
                failure->offset = in->consumed + in->bytes.size();
                failure->why = "no video object layer and plane within the first MiB";
                return nullptr;
            }
        } else if (in->bytes[at + 3] == kVopCode) {
            firstPlane = at;
        } else {
            scan = at + 3;
        }
    }
    const Bytes &s = in->bytes;
    for (size_t at = NextStartCode(s, 0); at < firstPlane && r->resolution == 0; at = NextStartCode(s, at + 3))
        if (s[at + 3] >= 0x20 && s[at + 3] <= 0x2F) ReadLayerTiming(&s[at], firstPlane - at, r.get());
    if (r->resolution == 0) {
        failure->offset = in->consumed;
        failure->why = "no video object layer with a time increment resolution in front of the first plane";
        return nullptr;
    }
    // The headers end at the first group of VOPs or plane, which belong to
    // the first frame.
    size_t headerEnd = NextStartCode(s, 0);
    while (s[headerEnd + 3] != kGroupCode && s[headerEnd + 3] != kVopCode) headerEnd = NextStartCode(s, headerEnd + 3);
    track->config.assign(s.begin(), s.begin() + long(headerEnd));
    uint32_t width = 0, height = 0;
    if (MeasureM4vHeader(s.data(), s.size(), &width, &height) == 0xFFFFFFFFu) width = height = 0;
    MP4TrackSpec &entry = track->entry;
    entry.TrackType = MP4_TRACK_VIDEO;
    std::memcpy(entry.Format, "mp4v", 4);
    entry.ObjectType = 0x20;
    entry.Width = width;
    entry.Height = height;
    entry.Config = track->config.data();
    entry.ConfigSize = uint32_t(track->config.size());
    entry.Timescale = r->resolution;
    if (options.fpsNumerator != 0) {
        r->fpsNumerator = options.fpsNumerator;
        r->fpsDenominator = std::max(options.fpsDenominator, 1u);
        entry.Timescale = options.fpsNumerator;
    }
    r->frameStart = headerEnd;
    r->plane = firstPlane;
    r->scan = firstPlane + 3;
    // The first frame, and without a fixed rate the next few, whose
    // shortest distance from it stands for a frame's length in front of it.
    if (!ReadFrame(r.get(), failure)) {
        if (failure->why.empty()) failure->why = "no frame behind the header";
        return nullptr;
    }
    while (r->fixedIncrement == 0 && r->ahead.size() < kFramesForLength && ReadFrame(r.get(), failure)) {
    }
    if (!failure->why.empty()) return nullptr;
    r->frameLength = r->fixedIncrement;
    for (const Frame &later : r->ahead) {
        const int64_t distance = std::abs(later.present - r->ahead.front().present);
        if (r->frameLength == 0 || (distance > 0 && distance < r->frameLength)) r->frameLength = distance;
    }
    r->frameLength = std::max<int64_t>(r->frameLength, 1);
    return AsReader(r.release());
}

Step NextMpeg4Video(Reader *reader, Sample *sample, Failure *failure) {
    Mpeg4Reader *r = FromReader(reader);
    if (r->ahead.empty() && !ReadFrame(r, failure)) return failure->why.empty() ? Step::kEnd : Step::kFailed;
    r->out = std::move(r->ahead.front());
    r->ahead.pop_front();
    Frame &f = r->out;
    const int64_t present = TrackTicks(*r, f.present);
    int64_t decode = f.reference && !r->lowDelay ? r->previousReference : present;
    if (!r->firstDone) {  // with B planes, decoded a frame before it presents
        if (!r->lowDelay) decode = present - (r->fpsNumerator != 0 ? r->fpsDenominator : r->frameLength);
        r->firstDecode = decode;
        r->lastDecode = decode - 1;
        r->firstDone = true;
    }
    decode = std::max(decode, r->lastDecode + 1);  // decoding times only rise
    r->lastDecode = decode;
    if (f.reference) r->previousReference = present;
    const int64_t offset = present - decode;
    if (offset > INT32_MAX || offset < INT32_MIN) {
        failure->offset = f.offset;
        failure->why = "a frame presents too far from where it is decoded";
        return Step::kFailed;
    }
    sample->data = f.data.data();
    sample->size = f.data.size();
    sample->decodeTime = uint64_t(decode - r->firstDecode);
    sample->compositionOffset = int32_t(offset);
    sample->duration = 0;
    sample->key = f.key;
    return Step::kSample;
}

void CloseMpeg4Video(Reader *reader) { delete FromReader(reader); }

}  // namespace mux
