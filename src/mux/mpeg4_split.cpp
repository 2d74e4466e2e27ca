// MPEG-4 visual (VOP) video split into frames at its planes (mpeg4_split.h).
#include <algorithm>

#include "media/media.h"
#include "mux/mpeg4_split.h"

namespace mux {

namespace {

constexpr size_t kNone = SIZE_MAX;
constexpr uint8_t kVopCode = 0xB6;
constexpr uint8_t kUserDataCode = 0xB2;

// Position of the next start code prefix 00 00 01 at or after `from` whose
// code byte has come, or kNone.
size_t NextStartCode(const Bytes &s, size_t from) {
    for (size_t i = from; i + 3 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) return i;
    }
    return kNone;
}

// Reads bits MSB first; reads past the end give zeros and set `overrun`.
struct BitReader {
    const uint8_t *data;
    size_t size;
    size_t bit = 0;
    bool overrun = false;
    uint32_t Read(uint32_t count) {
        uint32_t value = 0;
        for (uint32_t i = 0; i < count; ++i, ++bit) {
            uint32_t b = 0;
            if (bit / 8 < size) {
                b = (data[bit / 8] >> (7 - bit % 8)) & 1;
            } else {
                overrun = true;
            }
            value = (value << 1) | b;
        }
        return value;
    }
};

// The timing fields of the video object layer header (start code 20..2F).
bool ParseVolTiming(const Bytes &s, size_t start, VideoTiming *timing) {
    BitReader r{s.data() + start + 4, s.size() - start - 4};
    r.Read(1);  // random accessible
    r.Read(8);  // object type
    uint32_t verid = 1;
    if (r.Read(1)) {
        verid = r.Read(4);
        r.Read(3);
    }
    if (r.Read(4) == 0xF) r.Read(16);  // extended pixel aspect ratio
    if (r.Read(1)) {                   // control parameters
        r.Read(3);
        if (r.Read(1)) r.Read(79);     // VBV parameters
    }
    const uint32_t shape = r.Read(2);
    if (shape == 3 && verid != 1) r.Read(4);
    r.Read(1);
    timing->resolution = r.Read(16);
    r.Read(1);
    if (r.Read(1)) {
        uint32_t bits = 1;
        while (bits < 16 && (1u << bits) < timing->resolution) ++bits;
        timing->fixedIncrement = r.Read(bits);
    }
    return !r.overrun && timing->resolution != 0;
}

// The configuration handed to CreateTrack: the bytes in front of the first
// plane without their user data (00 00 01 B2 up to the next start code).
// Encoders name themselves there (FFmpeg writes "Lavc..."), which takes a
// header past the 52 bytes that CreateTrack keeps; no decoder needs it.
Bytes VideoConfig(const Bytes &s, size_t firstPlane) {
    size_t at = std::min(NextStartCode(s, 0), firstPlane);
    Bytes config(s.begin(), s.begin() + long(at));
    while (at < firstPlane) {
        const size_t next = std::min(NextStartCode(s, at + 3), firstPlane);
        if (s[at + 3] != kUserDataCode)
            config.insert(config.end(), s.begin() + long(at), s.begin() + long(next));
        at = next;
    }
    return config;
}

RawFrame VideoFrameTo(const VideoStream &video, size_t end) {
    const Bytes &b = video.in.bytes;
    const bool key = video.plane + 4 < b.size() && (b[video.plane + 4] >> 6) == 0;
    return {b.data() + video.frameStart, end - video.frameStart, key};
}

}  // namespace

bool ReadVideoHeader(VideoStream *video) {
    ByteStream &in = video->in;
    size_t firstPlane = kNone;
    for (size_t scan = 0; firstPlane == kNone;) {
        const size_t at = NextStartCode(in.bytes, scan);
        if (at == kNone) {
            if (in.bytes.size() >= 3) scan = std::max(scan, in.bytes.size() - 3);
            if (!ReadMore(&in)) return false;
        } else if (in.bytes[at + 3] == kVopCode) {
            firstPlane = at;
        } else {
            scan = at + 3;
        }
    }
    // The header is all here: its profile, its timing and the configuration.
    const Bytes &s = in.bytes;
    for (size_t at = NextStartCode(s, 0); at < firstPlane; at = NextStartCode(s, at + 3)) {
        const uint8_t code = s[at + 3];
        if (code == 0xB0 && at + 4 < s.size()) video->profile = s[at + 4];
        if (code >= 0x20 && code <= 0x2F && video->timing.resolution == 0)
            ParseVolTiming(s, at, &video->timing);
    }
    if (video->timing.resolution == 0) return false;
    video->config = VideoConfig(s, firstPlane);
    if (MeasureM4vHeader(s.data(), s.size(), &video->width, &video->height) == 0xFFFFFFFFu)
        video->width = video->height = 0;
    video->frameStart = firstPlane;
    video->plane = firstPlane;
    video->scan = firstPlane + 3;
    return true;
}

bool NextVideoFrame(VideoStream *video, RawFrame *frame) {
    ByteStream &in = video->in;
    const size_t moved = LetGo(&in, video->frameStart);
    video->frameStart -= moved;
    video->scan -= moved;
    if (video->plane != kNone) video->plane -= moved;
    for (;;) {
        const size_t at = NextStartCode(in.bytes, video->scan);
        if (at == kNone) {
            // A prefix may still begin in the last three bytes.
            if (in.bytes.size() >= 3) video->scan = std::max(video->scan, in.bytes.size() - 3);
            if (ReadMore(&in)) continue;
            break;
        }
        video->scan = at + 3;
        const bool plane = in.bytes[at + 3] == kVopCode;
        if (video->plane == kNone) {
            if (plane) video->plane = at;
            continue;
        }
        // Any start code behind the plane begins the next frame.
        *frame = VideoFrameTo(*video, at);
        video->frameStart = at;
        video->plane = plane ? at : kNone;
        return true;
    }
    // The last frame runs to the end; headers without a plane make none.
    if (video->plane == kNone) return false;
    *frame = VideoFrameTo(*video, in.bytes.size());
    video->frameStart = in.bytes.size();
    video->plane = kNone;
    return true;
}

}  // namespace mux
