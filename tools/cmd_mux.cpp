// mp4core mux: writes raw MPEG-4 Part 2 video and ADTS AAC streams into an
// MP4 file through the public write API alone.
//
// Video: the configuration is every byte before the first plane (VOP start
// code 00 00 01 B6); each frame runs from a plane, or from the headers in
// front of it, to the next one; a plane coded as I is a key frame. Time
// stamps step by the stream's fixed VOP increment in ticks of its time
// increment resolution, or by --fps.
// Audio: each ADTS frame gives one raw AAC frame, its header (and CRC)
// stripped; the first header gives the configuration; time stamps step by
// 1024 samples in ticks of the sampling rate.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "mp4core.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kVopCode = 0xB6;
constexpr uint32_t kDefaultFps = 25;
constexpr uint32_t kAacFrameSamples = 1024;
constexpr uint32_t kAdtsHeader = 7;
constexpr uint32_t kAdtsCrc = 2;
constexpr uint32_t kAdtsSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                         22050, 16000, 12000, 11025, 8000,  7350};

struct Options {
    const char *output = nullptr;
    const char *video = nullptr;
    const char *audio = nullptr;
    bool od = false;
    bool scene = false;
    uint32_t fps = 0;
};

struct Frame {
    size_t offset;
    size_t size;
    bool key;
};

bool ReadFile(const char *path, Bytes *bytes) {
    FILE *in = std::fopen(path, "rb");
    if (in == nullptr) return false;
    uint8_t chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0) bytes->insert(bytes->end(), chunk, chunk + got);
    const bool ok = std::ferror(in) == 0;
    std::fclose(in);
    return ok;
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

// Position of the next start code prefix 00 00 01 at or after `from`.
size_t NextStartCode(const Bytes &s, size_t from) {
    for (size_t i = from; i + 3 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) return i;
    }
    return s.size();
}

struct VideoTiming {
    uint32_t resolution = 0;
    uint32_t fixedIncrement = 0;  // 0: the stream has no fixed rate
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

// Splits the stream into the configuration and frames.
bool SplitVideo(const Bytes &s, size_t *configSize, std::vector<Frame> *frames,
                VideoTiming *timing, uint8_t *profile) {
    size_t firstVop = s.size();
    for (size_t at = NextStartCode(s, 0); at < s.size(); at = NextStartCode(s, at + 3)) {
        const uint8_t code = s[at + 3];
        if (code == 0xB0 && at + 4 < s.size()) *profile = s[at + 4];
        if (code >= 0x20 && code <= 0x2F && timing->resolution == 0) ParseVolTiming(s, at, timing);
        if (code == kVopCode) {
            firstVop = at;
            break;
        }
    }
    if (firstVop == s.size() || timing->resolution == 0) return false;
    *configSize = firstVop;

    // A frame begins at its plane, or at the first header in front of it
    // after the previous plane.
    constexpr size_t kNone = SIZE_MAX;
    size_t frameStart = firstVop;
    size_t pendingHeader = kNone;
    bool haveVop = false;
    bool key = false;
    for (size_t at = firstVop; at < s.size(); at = NextStartCode(s, at + 3)) {
        if (s[at + 3] != kVopCode) {
            if (haveVop && pendingHeader == kNone) pendingHeader = at;
            continue;
        }
        if (haveVop) {
            const size_t end = pendingHeader != kNone ? pendingHeader : at;
            frames->push_back({frameStart, end - frameStart, key});
            frameStart = end;
        }
        pendingHeader = kNone;
        haveVop = true;
        key = at + 4 < s.size() && (s[at + 4] >> 6) == 0;
    }
    if (haveVop) frames->push_back({frameStart, s.size() - frameStart, key});
    return true;
}

struct AdtsFrame {
    size_t offset;
    size_t size;
};

bool SplitAudio(const Bytes &s, std::vector<AdtsFrame> *frames, uint8_t header[kAdtsHeader]) {
    size_t at = 0;
    while (at + kAdtsHeader <= s.size()) {
        const uint8_t *h = s.data() + at;
        if (h[0] != 0xFF || (h[1] & 0xF0) != 0xF0) return false;
        const size_t length = (size_t(h[3] & 0x03) << 11) | (size_t(h[4]) << 3) | (h[5] >> 5);
        const size_t headerSize = kAdtsHeader + ((h[1] & 1) ? 0 : kAdtsCrc);
        if (length < headerSize || at + length > s.size()) return false;
        if (frames->empty()) std::memcpy(header, h, kAdtsHeader);
        frames->push_back({at + headerSize, length - headerSize});
        at += length;
    }
    return !frames->empty();
}

bool ParseOptions(int argc, char **argv, Options *o) {
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "-o" && hasValue) {
            o->output = argv[++i];
        } else if (a == "--video" && hasValue) {
            o->video = argv[++i];
        } else if (a == "--audio" && hasValue) {
            o->audio = argv[++i];
        } else if (a == "--fps" && hasValue) {
            o->fps = uint32_t(std::strtoul(argv[++i], nullptr, 10));
            if (o->fps == 0) return false;
        } else if (a == "--od") {
            o->od = true;
        } else if (a == "--scene") {
            o->scene = true;
        } else {
            return false;
        }
    }
    return o->output != nullptr;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: mp4core mux -o OUT.mp4 [--video IN.m4v] [--audio IN.aac] [--od] "
                 "[--scene] [--fps N]\n");
    return 2;
}

// Time scale and step of the video frames.
void ChooseVideoClock(const VideoTiming &timing, uint32_t fps, uint32_t *timescale,
                      uint32_t *step) {
    if (fps == 0 && timing.fixedIncrement != 0) {
        *timescale = timing.resolution;
        *step = timing.fixedIncrement;
        return;
    }
    if (fps == 0) {
        fps = kDefaultFps;
        std::fprintf(stderr, "mp4core mux: the stream has no fixed rate; %u frames per second\n",
                     fps);
    }
    *timescale = timing.resolution % fps == 0 ? timing.resolution : fps;
    *step = *timescale / fps;
}

int Fail(const char *what) {
    std::fprintf(stderr, "mp4core mux: %s\n", what);
    return 1;
}

}  // namespace

int RunMux(int argc, char **argv) {
    Options o;
    if (!ParseOptions(argc, argv, &o)) return Usage();

    Bytes video, audio;
    if (o.video != nullptr && !ReadFile(o.video, &video)) return Fail("can't read the video stream");
    if (o.audio != nullptr && !ReadFile(o.audio, &audio)) return Fail("can't read the audio stream");

    size_t configSize = 0;
    std::vector<Frame> videoFrames;
    VideoTiming timing;
    uint8_t profile = 0x01;
    if (o.video != nullptr && !SplitVideo(video, &configSize, &videoFrames, &timing, &profile))
        return Fail("no MPEG-4 video object layer and plane in the video stream");
    std::vector<AdtsFrame> audioFrames;
    uint8_t adts[kAdtsHeader] = {};
    if (o.audio != nullptr && !SplitAudio(audio, &audioFrames, adts))
        return Fail("the audio stream is no ADTS stream");
    if (configSize > 52) return Fail("the video headers are longer than 52 bytes");

    const std::string videoTemp = std::string(o.output) + ".video.tmp";
    const std::string audioTemp = std::string(o.output) + ".audio.tmp";
    MP4_local_file *file = nullptr;
    if (MP4FileNew(&file, o.output) != 1) return Fail("can't create the output file");

    bool ok = true;
    if (o.video != nullptr) {
        uint32_t timescale = 0, step = 0;
        ChooseVideoClock(timing, o.fps, &timescale, &step);
        // The library finds the picture size in a configuration whose
        // visual object header has one byte; the header parser finds it
        // behind any form of that header.
        uint32_t width = 0, height = 0;
        if (GetM4vHeaderSize(o.video, &width, &height) == 0xFFFFFFFFu) width = height = 0;
        ok = CreateTrack(file, MP4_TRACK_VIDEO, width, height, uint16_t(timing.resolution),
                         timescale,
                         profile, 0, 0, 0, uint32_t(configSize), video.data(), videoTemp.c_str(),
                         0) == 1;
        for (size_t i = 0; ok && i < videoFrames.size(); ++i) {
            const Frame &f = videoFrames[i];
            ok = AddVideoFrame(file, uint32_t(f.size), video.data() + f.offset, 0,
                               uint32_t(i * step), f.key ? 1 : 0, 0) == 1;
        }
    }
    if (ok && o.audio != nullptr) {
        const uint32_t frequency = (adts[2] >> 2) & 0x0F;
        const uint32_t rate = frequency < 13 ? kAdtsSampleRates[frequency] : 0;
        if (rate == 0) {
            ok = false;
        } else if (adts[2] != 0) {
            // The header itself carries object type, rate and channels.
            ok = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, rate, 0, 0, 0, 0, kAdtsHeader, adts,
                             audioTemp.c_str(), 0) == 1;
        } else {
            const uint32_t channels = ((adts[2] & 1u) << 2) | (adts[3] >> 6);
            const uint8_t config[2] = {uint8_t((1 << 3) | (frequency >> 1)),
                                       uint8_t(((frequency & 1) << 7) | (channels << 3))};
            ok = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, rate, 0, 0, 0, 0, 2, config,
                             audioTemp.c_str(), 0) == 1;
        }
        for (size_t i = 0; ok && i < audioFrames.size(); ++i) {
            const AdtsFrame &f = audioFrames[i];
            ok = AddAudioFrame(file, uint32_t(f.size), audio.data() + f.offset,
                               uint32_t(i * kAacFrameSamples)) == 1;
        }
    }
    if (ok && o.od) ok = CreateTrack(file, MP4_TRACK_OD, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr,
                                     nullptr, 0) == 1;
    if (ok && o.scene) ok = CreateTrack(file, MP4_TRACK_SCENE, 0, 0, 0, 1000, 0, 0, 0, 0, 0,
                                        nullptr, nullptr, 0) == 1;
    MP4FileFlush(file);
    if (!ok) {
        std::remove(o.output);
        return Fail("the library refused a track or a frame");
    }
    return 0;
}
