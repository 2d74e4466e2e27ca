// mp4core mux --od / --scene: the classic writer's path, for the object
// descriptor and scene description tracks that only it makes. Writes raw
// MPEG-4 visual (VOP) video and ADTS AAC streams into an MP4 file through the
// classic write calls alone. The streams are read as their bytes arrive
// (raw_streams.h), and the frames of the two go to the library in
// decoding-time order, each as soon as it is whole: with --fragmented the
// file is written while they come.
//
// Time stamps step by the video stream's fixed VOP increment in ticks of
// its time increment resolution, or by --fps; audio by 1024 samples in
// ticks of the sampling rate.
#include <signal.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "commands.h"
#include "mux_classic.h"
#include "mp4core.h"
#include "progress.h"
#include "raw_streams.h"
#include "result_text.h"

namespace {

constexpr size_t kMaxConfigBytes = 52;  // what CreateTrack takes
constexpr uint32_t kDefaultFps = 25;
constexpr uint32_t kAacFrameSamples = 1024;
constexpr uint32_t kAdtsHeader = 7;
constexpr uint32_t kAdtsSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                         22050, 16000, 12000, 11025, 8000,  7350};

struct Options {
    const char *output = nullptr;
    const char *video = nullptr;
    const char *audio = nullptr;
    bool od = false;
    bool scene = false;
    bool fragmented = false;
    bool verbose = false;
    uint32_t fps = 0;
};

void ReadOptions(const Arguments &arguments, uint32_t fps, Options *o) {
    o->output = OptionValue(arguments, "-o");
    o->video = OptionValue(arguments, "--video");
    o->audio = OptionValue(arguments, "--audio");
    o->od = HasOption(arguments, "--od");
    o->scene = HasOption(arguments, "--scene");
    o->fragmented = HasOption(arguments, "--fragmented");
    o->verbose = HasOption(arguments, "--verbose");
    o->fps = fps;
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
// A fragmented file needs none.
struct TempNames {
    std::string video;
    std::string audio;
    const char *Video(bool fragmented) const { return fragmented ? nullptr : video.c_str(); }
    const char *Audio(bool fragmented) const { return fragmented ? nullptr : audio.c_str(); }
};

// Frame n of an input lies at n * step ticks of timescale.
struct Clock {
    uint32_t timescale;
    uint32_t step;
};

uint32_t AdtsSampleRate(const uint8_t adts[kAdtsHeader]) {
    const uint32_t frequency = (adts[2] >> 2) & 0x0F;
    return frequency < 13 ? kAdtsSampleRates[frequency] : 0;
}

// Every track before the first frame, as a fragmented file needs.
bool CreateTracks(MP4_local_file *file, const Options &o, const TempNames &temp,
                  const VideoStream &video, const AudioStream &audio, Clock *videoClock,
                  Clock *audioClock, Progress *progress) {
    int32_t result = 1;
    if (o.video != nullptr) {
        ChooseVideoClock(video.timing, o.fps, &videoClock->timescale, &videoClock->step);
        result = CreateTrack(file, MP4_TRACK_VIDEO, video.width, video.height,
                             uint16_t(video.timing.resolution), videoClock->timescale, video.profile,
                             0, 0, 0, uint32_t(video.config.size()),
                             video.config.empty() ? nullptr : video.config.data(),
                             temp.Video(o.fragmented), 0);
        if (result != 1) return Refused(progress, "CreateTrack", result, "video track");
    }
    if (o.audio != nullptr) {
        const uint8_t *adts = audio.header;
        *audioClock = {AdtsSampleRate(adts), kAacFrameSamples};
        if (adts[2] != 0) {
            // The header itself carries object type, rate and channels.
            result = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, audioClock->timescale, 0, 0, 0, 0,
                                 kAdtsHeader, adts, temp.Audio(o.fragmented), 0);
        } else {
            const uint32_t frequency = (adts[2] >> 2) & 0x0F;
            const uint32_t channels = ((adts[2] & 1u) << 2) | (adts[3] >> 6);
            const uint8_t config[2] = {uint8_t((1 << 3) | (frequency >> 1)),
                                       uint8_t(((frequency & 1) << 7) | (channels << 3))};
            result = CreateTrack(file, MP4_TRACK_AUDIO, 0, 0, 0, audioClock->timescale, 0, 0, 0, 0,
                                 2, config, temp.Audio(o.fragmented), 0);
        }
        if (result != 1) return Refused(progress, "CreateTrack", result, "audio track");
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

// The frames of both inputs, in decoding-time order (video first at equal
// times), each handed on when it is whole. Counts the frames handed on;
// false once a call was refused or an input broke off.
struct Feed {
    uint64_t video = 0;
    uint64_t audio = 0;
};

bool FeedFrames(MP4_local_file *file, const Options &o, VideoStream *video, AudioStream *audio,
                const Clock &videoClock, const Clock &audioClock, Progress *progress, Feed *fed) {
    bool videoLeft = o.video != nullptr, audioLeft = o.audio != nullptr;
    while (videoLeft || audioLeft) {
        // The share done: the bytes of the inputs up to the frames handed on.
        UpdateProgressShare(progress, fed->video + fed->audio,
                            video->in.consumed + video->frameStart + audio->in.consumed + audio->next);
        using Wide = unsigned __int128;
        const bool takeVideo =
            videoLeft && (!audioLeft || Wide(fed->video) * videoClock.step * audioClock.timescale <=
                                            Wide(fed->audio) * audioClock.step * videoClock.timescale);
        RawFrame frame{};
        const uint64_t n = takeVideo ? fed->video : fed->audio;
        const uint32_t time = uint32_t(n * (takeVideo ? videoClock.step : audioClock.step));
        int32_t result = 1;
        if (takeVideo) {
            videoLeft = NextVideoFrame(video, &frame);
            if (!videoLeft) continue;
            result = AddVideoFrame(file, uint32_t(frame.size), frame.data, 0, time, frame.key ? 1 : 0, 0);
        } else {
            audioLeft = NextAudioFrame(audio, &frame);
            if (!audioLeft) continue;
            result = AddAudioFrame(file, uint32_t(frame.size), frame.data, time);
        }
        const char *kind = takeVideo ? "video" : "audio";
        if (result != 1)
            return Refused(progress, takeVideo ? "AddVideoFrame" : "AddAudioFrame", result,
                           takeVideo ? "video frame" : "audio frame", size_t(n));
        ++(takeVideo ? fed->video : fed->audio);
        if (o.verbose)
            std::fprintf(stderr, "mp4core mux: %s frame %llu at %u, %zu bytes%s\n", kind,
                         static_cast<unsigned long long>(n), time, frame.size,
                         frame.key ? ", key" : "");
    }
    const char *broken = video->in.failed   ? "can't read the video stream to its end"
                         : audio->in.failed ? "can't read the audio stream to its end"
                         : audio->broken    ? "the audio stream breaks off in bytes that are no whole ADTS frame"
                                            : nullptr;
    if (broken == nullptr) return true;
    EndProgress(progress);
    char why[160];
    std::snprintf(why, sizeof why, "%s; the file holds the %llu video and %llu audio frames before",
                  broken, static_cast<unsigned long long>(fed->video),
                  static_cast<unsigned long long>(fed->audio));
    Fail(why);
    return false;
}

// Bytes of the inputs, for the progress line; 0 (unknown) when one is
// standard input or not a file.
uint64_t InputBytes(const ByteStream &video, const ByteStream &audio) {
    uint64_t total = 0;
    for (const ByteStream *in : {&video, &audio}) {
        struct stat status;
        if (in->fd < 0) continue;
        if (!in->owned || fstat(in->fd, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
        total += uint64_t(status.st_size);
    }
    return total;
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

}  // namespace

int RunClassicMux(const Arguments &arguments, uint32_t fps) {
    Options o;
    ReadOptions(arguments, fps, &o);
    // A file-size limit then makes a write fail, which the library reports,
    // instead of ending the process.
    signal(SIGXFSZ, SIG_IGN);

    VideoStream video;
    AudioStream audio;
    if (o.video != nullptr && !OpenByteStream(o.video, &video.in)) return Fail("can't read the video stream");
    if (o.audio != nullptr && !OpenByteStream(o.audio, &audio.in)) return Fail("can't read the audio stream");
    struct Closer {
        VideoStream &video;
        AudioStream &audio;
        ~Closer() {
            CloseByteStream(&video.in);
            CloseByteStream(&audio.in);
        }
    } closer{video, audio};
    if (o.video != nullptr && !ReadVideoHeader(&video))
        return Fail(video.in.failed ? "can't read the video stream"
                                    : "no MPEG-4 video object layer and plane in the video stream");
    if (o.audio != nullptr && !ReadAudioHeader(&audio))
        return Fail(audio.in.failed ? "can't read the audio stream" : "the audio stream is no ADTS stream");
    if (video.config.size() > kMaxConfigBytes) {
        char why[160];
        std::snprintf(why, sizeof why,
                      "the video headers in front of the first plane take %zu bytes without user "
                      "data, and CreateTrack takes at most %zu",
                      video.config.size(), kMaxConfigBytes);
        return Fail(why);
    }
    if (o.audio != nullptr && AdtsSampleRate(audio.header) == 0)
        return Fail("the ADTS header names no sampling rate (frequency index above 12)");

    MP4_local_file *file = nullptr;
    const char *newCall = o.fragmented ? "MP4FileNewEx" : "MP4FileNew";
    const int32_t created = o.fragmented ? MP4FileNewEx(&file, o.output, MP4_NEW_FRAGMENTED)
                                         : MP4FileNew(&file, o.output);
    if (created != 1) return ReportFailure(kMuxCommand.name, newCall, created);

    Progress progress = StartProgress(kMuxCommand.name, "frames", InputBytes(video.in, audio.in));
    const TempNames temp{std::string(o.output) + ".video.tmp", std::string(o.output) + ".audio.tmp"};
    Clock videoClock{}, audioClock{};
    Feed fed;
    const bool ok = CreateTracks(file, o, temp, video, audio, &videoClock, &audioClock, &progress) &&
                    FeedFrames(file, o, &video, &audio, videoClock, audioClock, &progress, &fed);
    if (ok)
        NoteProgress(&progress, fed.video + fed.audio, BytesRead(video.in) + BytesRead(audio.in),
                     "writing the file");
    // The flush is also what releases the handle, so it runs after a
    // refusal too. A classic file is then thrown away; a fragmented one
    // keeps the fragments written before.
    const int32_t flushed = MP4FileFlush(file);
    EndProgress(&progress);
    const bool keep = o.fragmented && fed.video + fed.audio > 0;
    if (!ok) {
        if (!keep) std::remove(o.output);
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
