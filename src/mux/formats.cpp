// Every stream format mux takes, one row each, in the order the probes are
// tried (a format whose first bytes say more before one that says less),
// and what the readers share.
#include <cstdio>
#include <iterator>

#include "mux/readers.h"
#include "mux/video.h"

namespace mux {

#define MUX_ROW(name, label, type) {label, type, name##Probe, name##Open, name##Next, name##Close}

const Format kFormats[] = {
    {"IVF AV1", MP4_TRACK_VIDEO, ProbeAv1Ivf, OpenIvf, NextIvf, CloseIvf},
    {"IVF VP9", MP4_TRACK_VIDEO, ProbeVp9Ivf, OpenIvf, NextIvf, CloseIvf},
    {"MPEG-4 video", MP4_TRACK_VIDEO, ProbeMpeg4Video, OpenMpeg4Video, NextMpeg4Video,
     CloseMpeg4Video},
    {"HEVC Annex B", MP4_TRACK_VIDEO, ProbeHevc, OpenHevc, NextAnnexB, CloseAnnexB},
    {"H.264 Annex B", MP4_TRACK_VIDEO, ProbeH264, OpenH264, NextAnnexB, CloseAnnexB},
    MUX_ROW(Adts, "AAC ADTS", 2),
    MUX_ROW(MpegAudio, "MPEG audio", 2),
    MUX_ROW(Ac3, "AC-3", 2),
    MUX_ROW(OggOpus, "Ogg Opus", 2),
    MUX_ROW(Flac, "FLAC", 2),
    MUX_ROW(Wav, "WAV", 2),
    MUX_ROW(Amr, "AMR", 2),
};
const size_t kFormatCount = std::size(kFormats);

#undef MUX_ROW

Step Fail(Failure *failure, uint64_t offset, const char *format, ...) {
    char why[256];
    va_list list;
    va_start(list, format);
    std::vsnprintf(why, sizeof why, format, list);
    va_end(list);
    failure->offset = offset;
    failure->why = why;
    return Step::kFailed;
}

Step EndOfFrames(const Cursor &cursor, Failure *failure, const char *what) {
    if (cursor.in->failed) return Fail(failure, cursor.in->consumed + cursor.in->bytes.size(), "the input can't be read");
    if (cursor.Held() == 0) return Step::kEnd;
    return Fail(failure, cursor.Offset(), "the stream ends inside %s (%zu bytes left)", what, cursor.Held());
}

void DescribeSound(TrackDescription *track, const char *format, uint32_t rate, uint32_t channels) {
    MP4TrackSpec &entry = track->entry;
    entry.TrackType = MP4_TRACK_AUDIO;
    for (int i = 0; i < 4; ++i) entry.Format[i] = format[i];
    entry.Timescale = rate;
    entry.SampleRate = rate;
    entry.Channels = channels;
    entry.Config = track->config.empty() ? nullptr : track->config.data();
    entry.ConfigSize = uint32_t(track->config.size());
}

}  // namespace mux
