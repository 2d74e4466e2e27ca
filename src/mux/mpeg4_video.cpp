// Raw MPEG-4 visual (VOP) video at a fixed rate: frames as mpeg4_split.h finds
// them, each a step of the video object layer's fixed increment in ticks
// of its time increment resolution, or of --fps, else of 25 frames a
// second. Decode order is presentation order here (no composition
// offsets), which holds for streams without B-VOPs.
#include "mux/mpeg4_split.h"
#include "mux/readers.h"

namespace mux {

namespace {

constexpr uint32_t kDefaultFps = 25;
// Start codes a stream may open with: a video object (00 to 1F) or video
// object layer (20 to 2F), a visual object sequence (B0), a visual object (B5).
constexpr uint8_t kLastLayerCode = 0x2F, kSequenceCode = 0xB0, kVisualObjectCode = 0xB5;

struct Mpeg4Reader : Reader {
    VideoStream video;
    ByteStream *in = nullptr;
    uint32_t step = 0;
    uint64_t frames = 0;
};

}  // namespace

bool Mpeg4VideoProbe(const uint8_t *head, size_t size) {
    if (size < 4 || head[0] != 0 || head[1] != 0 || head[2] != 1) return false;
    return head[3] <= kLastLayerCode || head[3] == kSequenceCode || head[3] == kVisualObjectCode;
}

Reader *Mpeg4VideoOpen(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure) {
    auto *reader = new Mpeg4Reader;
    reader->in = in;
    // The splitter reads through its own stream record; the input's bytes
    // move into it and back at the close.
    reader->video.in = std::move(*in);
    VideoStream &video = reader->video;
    if (!ReadVideoHeader(&video)) {
        Fail(failure, 0, video.in.failed ? "the input can't be read"
                                         : "no MPEG-4 video object layer and plane in the stream");
        Mpeg4VideoClose(reader);
        return nullptr;
    }
    uint32_t timescale = 0;
    if (options.fpsNumerator == 0 && video.timing.fixedIncrement != 0) {
        timescale = video.timing.resolution;
        reader->step = video.timing.fixedIncrement;
    } else {
        uint32_t numerator = options.fpsNumerator, denominator = options.fpsDenominator;
        if (numerator == 0) {
            numerator = kDefaultFps;
            denominator = 1;
            track->notice = "the stream has no fixed rate; 25 frames per second";
        }
        const uint64_t ticks = uint64_t(video.timing.resolution) * denominator;
        const bool resolutionFits = ticks % numerator == 0;
        timescale = resolutionFits ? video.timing.resolution : numerator;
        reader->step = resolutionFits ? uint32_t(ticks / numerator) : denominator;
    }
    track->config = video.config;
    MP4TrackSpec &spec = track->spec;
    spec.TrackType = MP4_TRACK_VIDEO;
    spec.Format[0] = 'm', spec.Format[1] = 'p', spec.Format[2] = '4', spec.Format[3] = 'v';
    spec.Timescale = timescale;
    spec.Width = video.width;
    spec.Height = video.height;
    spec.Config = track->config.data();
    spec.ConfigSize = uint32_t(track->config.size());
    return reader;
}

Step Mpeg4VideoNext(Reader *base, Sample *sample, Failure *failure) {
    auto *reader = static_cast<Mpeg4Reader *>(base);
    RawFrame frame{};
    if (!NextVideoFrame(&reader->video, &frame)) {
        if (reader->video.in.failed)
            return Fail(failure, reader->video.in.consumed + reader->video.in.bytes.size(), "the input can't be read");
        return Step::kEnd;
    }
    *sample = Sample{};
    sample->data = frame.data;
    sample->size = frame.size;
    sample->decodeTime = reader->frames++ * reader->step;
    sample->key = frame.key;
    return Step::kSample;
}

void Mpeg4VideoClose(Reader *base) {
    auto *reader = static_cast<Mpeg4Reader *>(base);
    *reader->in = std::move(reader->video.in);
    delete reader;
}

}  // namespace mux
