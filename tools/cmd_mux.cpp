// mp4core mux: writes raw MPEG-4 Part 2 video and ADTS AAC streams into an
// MP4 file through the public write API alone.
//
// Video: the configuration is every byte before the first plane (VOP start
// code 00 00 01 B6) but user data; each frame runs from a plane, or from
// the headers in front of it, to the next one; a plane coded as I is a key
// frame. Time stamps step by the stream's fixed VOP increment in ticks of
// its time increment resolution, or by --fps.
// Audio: each ADTS frame gives one raw AAC frame, its header (and CRC)
// stripped; the first header gives the configuration; time stamps step by
// 1024 samples in ticks of the sampling rate.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "mp4core.h"
#include "progress.h"
#include "result_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kVopCode = 0xB6;
constexpr uint8_t kUserDataCode = 0xB2;
constexpr size_t kMaxConfigBytes = 52;  // what CreateTrack takes
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

// Finds the first plane, in front of which the configuration lies, and
// splits the stream into frames.
bool SplitVideo(const Bytes &s, size_t *firstVopAt, std::vector<Frame> *frames,
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
    *firstVopAt = firstVop;

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

// The configuration handed to CreateTrack: the bytes in front of the first
// plane without their user data (00 00 01 B2 up to the next start code).
// Encoders name themselves there (FFmpeg writes "Lavc..."), which takes a
// header past the 52 bytes that CreateTrack keeps; no decoder needs it.
Bytes VideoConfig(const Bytes &s, size_t firstVop) {
    size_t at = std::min(NextStartCode(s, 0), firstVop);
    Bytes config(s.begin(), s.begin() + at);
    while (at < firstVop) {
        const size_t next = std::min(NextStartCode(s, at + 3), firstVop);
        if (s[at + 3] != kUserDataCode)
            config.insert(config.end(), s.begin() + at, s.begin() + next);
        at = next;
    }
    return config;
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

// Fills `o`; a bad --fps is a usage error, whose exit status comes back in
// `status`.
bool ReadOptions(const Arguments &arguments, Options *o, int *status) {
    o->output = OptionValue(arguments, "-o");
    o->video = OptionValue(arguments, "--video");
    o->audio = OptionValue(arguments, "--audio");
    o->od = HasOption(arguments, "--od");
    o->scene = HasOption(arguments, "--scene");
    const char *fps = OptionValue(arguments, "--fps");
    if (fps != nullptr && (!ParseU32(fps, &o->fps) || o->fps == 0)) {
        *status = UsageError(kMuxCommand, "--fps takes a whole number above 0, not '%s'", fps);
        return false;
    }
    return true;
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
    std::fprintf(stderr, "mp4core %s: %s\n", kMuxCommand.name, what);
    return 1;
}

// A failed call of the write run, reported with what it was about.
bool Refused(Progress *progress, const char *call, int32_t result, const char *what,
             size_t index = SIZE_MAX) {
    EndProgress(progress);
    char context[64];
    if (index == SIZE_MAX)
        std::snprintf(context, sizeof context, "%s", what);
    else
        std::snprintf(context, sizeof context, "%s %zu", what, index);
    ReportFailure(kMuxCommand.name, call, result, context);
    return false;
}

// Names of the temp files beside the output. The library keeps the
// pointers until the flush has ended, so these live as long as the run.
struct TempNames {
    std::string video;
    std::string audio;
};

// The write run on a new handle; false once a call was refused. The
// handle stays open either way, for the flush to release.
bool WriteTracks(MP4_local_file *file, const Options &o, const TempNames &temp, const Bytes &video,
                 const Bytes &config, const std::vector<Frame> &videoFrames,
                 const VideoTiming &timing, uint8_t profile,
                 const Bytes &audio, const std::vector<AdtsFrame> &audioFrames,
                 const uint8_t adts[kAdtsHeader], Progress *progress) {
    int32_t result = 1;
    if (o.video != nullptr) {
        uint32_t timescale = 0, step = 0;
        ChooseVideoClock(timing, o.fps, &timescale, &step);
        // The library finds the picture size in a configuration whose
        // visual object header has one byte; the header parser finds it
        // behind any form of that header.
        uint32_t width = 0, height = 0;
        if (GetM4vHeaderSize(o.video, &width, &height) == 0xFFFFFFFFu) width = height = 0;
        result = CreateTrack(file, MP4_TRACK_VIDEO, width, height, uint16_t(timing.resolution),
                             timescale, profile, 0, 0, 0, uint32_t(config.size()),
                             config.empty() ? nullptr : config.data(), temp.video.c_str(), 0);
        if (result != 1) return Refused(progress, "CreateTrack", result, "video track");
        for (size_t i = 0; i < videoFrames.size(); ++i) {
            UpdateProgress(progress, i);
            const Frame &f = videoFrames[i];
            result = AddVideoFrame(file, uint32_t(f.size), video.data() + f.offset, 0,
                                   uint32_t(i * step), f.key ? 1 : 0, 0);
            if (result != 1) return Refused(progress, "AddVideoFrame", result, "video frame", i);
        }
    }
    if (o.audio != nullptr) {
        const uint32_t frequency = (adts[2] >> 2) & 0x0F;
        const uint32_t rate = frequency < 13 ? kAdtsSampleRates[frequency] : 0;
        if (rate == 0) {
            EndProgress(progress);
            Fail("the ADTS header names no sampling rate (frequency index above 12)");
            return false;
        }
        if (adts[2] != 0) {
            // The header itself carries object type, rate and channels.
            result = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, rate, 0, 0, 0, 0, kAdtsHeader, adts,
                                 temp.audio.c_str(), 0);
        } else {
            const uint32_t channels = ((adts[2] & 1u) << 2) | (adts[3] >> 6);
            const uint8_t config[2] = {uint8_t((1 << 3) | (frequency >> 1)),
                                       uint8_t(((frequency & 1) << 7) | (channels << 3))};
            result = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, rate, 0, 0, 0, 0, 2, config,
                                 temp.audio.c_str(), 0);
        }
        if (result != 1) return Refused(progress, "CreateTrack", result, "audio track");
        for (size_t i = 0; i < audioFrames.size(); ++i) {
            UpdateProgress(progress, videoFrames.size() + i);
            const AdtsFrame &f = audioFrames[i];
            result = AddAudioFrame(file, uint32_t(f.size), audio.data() + f.offset,
                                   uint32_t(i * kAacFrameSamples));
            if (result != 1) return Refused(progress, "AddAudioFrame", result, "audio frame", i);
        }
    }
    if (o.od) {
        result = CreateTrack(file, MP4_TRACK_OD, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
        if (result != 1) return Refused(progress, "CreateTrack", result, "object descriptor track");
    }
    if (o.scene) {
        result = CreateTrack(file, MP4_TRACK_SCENE, 0, 0, 0, 1000, 0, 0, 0, 0, 0, nullptr, nullptr, 0);
        if (result != 1) return Refused(progress, "CreateTrack", result, "scene description track");
    }
    return true;
}

// Size of a file, or -1 if it can't be opened.
long FileSize(const char *path) {
    FILE *in = std::fopen(path, "rb");
    if (in == nullptr) return -1;
    long size = -1;
    if (std::fseek(in, 0, SEEK_END) == 0) size = std::ftell(in);
    std::fclose(in);
    return size;
}

int RunMux(const Arguments &arguments) {
    Options o;
    int status = 0;
    if (!ReadOptions(arguments, &o, &status)) return status;

    Bytes video, audio;
    if (o.video != nullptr && !ReadFile(o.video, &video)) return Fail("can't read the video stream");
    if (o.audio != nullptr && !ReadFile(o.audio, &audio)) return Fail("can't read the audio stream");

    size_t firstVop = 0;
    std::vector<Frame> videoFrames;
    VideoTiming timing;
    uint8_t profile = 0x01;
    if (o.video != nullptr && !SplitVideo(video, &firstVop, &videoFrames, &timing, &profile))
        return Fail("no MPEG-4 video object layer and plane in the video stream");
    std::vector<AdtsFrame> audioFrames;
    uint8_t adts[kAdtsHeader] = {};
    if (o.audio != nullptr && !SplitAudio(audio, &audioFrames, adts))
        return Fail("the audio stream is no ADTS stream");
    const Bytes config = o.video != nullptr ? VideoConfig(video, firstVop) : Bytes();
    if (config.size() > kMaxConfigBytes) {
        char why[160];
        std::snprintf(why, sizeof why,
                      "the video headers in front of the first plane take %zu bytes without user "
                      "data, and CreateTrack takes at most %zu",
                      config.size(), kMaxConfigBytes);
        return Fail(why);
    }

    MP4_local_file *file = nullptr;
    const int32_t created = MP4FileNew(&file, o.output);
    if (created != 1) return ReportFailure(kMuxCommand.name, "MP4FileNew", created);

    const size_t frames = videoFrames.size() + audioFrames.size();
    Progress progress = StartProgress(kMuxCommand.name, "frames", frames);
    const TempNames temp{std::string(o.output) + ".video.tmp", std::string(o.output) + ".audio.tmp"};
    const bool ok = WriteTracks(file, o, temp, video, config, videoFrames, timing, profile, audio,
                                audioFrames, adts, &progress);
    if (ok) NoteProgress(&progress, frames, "writing the file");
    // The flush is also what releases the handle, so it runs after a
    // refusal too; its output is then thrown away.
    const int32_t flushed = MP4FileFlush(file);
    EndProgress(&progress);
    if (!ok) {
        std::remove(o.output);
        return 1;
    }
    if (flushed != 1) return ReportFailure(kMuxCommand.name, "MP4FileFlush", flushed);
    // The flush gives 1 even when it wrote nothing; its reason is then on
    // standard output.
    if (FileSize(o.output) <= 0) {
        std::remove(o.output);
        return Fail("MP4FileFlush wrote no file");
    }
    return 0;
}

constexpr OptionRow kOptions[] = {
    {"-o", "OUT.mp4", true, false, "the MP4 file to write"},
    {"--video", "IN.m4v", false, false, "a raw MPEG-4 Part 2 video stream"},
    {"--audio", "IN.aac", false, false, "an ADTS AAC stream"},
    {"--od", nullptr, false, false, "add an object descriptor track"},
    {"--scene", nullptr, false, false, "add a scene description track"},
    {"--fps", "N", false, false, "frames per second of the video (default: the stream's own rate, else 25)"},
};

}  // namespace

extern const CommandRow kMuxCommand = {
    "mux",
    "raw MPEG-4 video and ADTS AAC streams into an MP4 file",
    nullptr, 0, kOptions, CountOf(kOptions),
    "\nWrites the streams through the library's write calls alone (MP4FileNew,\n"
    "CreateTrack, AddVideoFrame, AddAudioFrame, MP4FileFlush). Temp files\n"
    "OUT.mp4.video.tmp and OUT.mp4.audio.tmp are made beside the output and\n"
    "removed by the flush. On a terminal, standard error shows the progress.\n",
    RunMux,
};
