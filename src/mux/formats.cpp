// Every stream format mux takes, one row each, in the order the probes are
// tried: a format whose first bytes say more comes before one that says
// less.
#include "mux/mux.h"
#include "mux/video.h"

namespace mux {

const Format kFormats[] = {
    {"IVF AV1", MP4_TRACK_VIDEO, ProbeAv1Ivf, OpenIvf, NextIvf, CloseIvf},
    {"IVF VP9", MP4_TRACK_VIDEO, ProbeVp9Ivf, OpenIvf, NextIvf, CloseIvf},
    {"MPEG-4 video", MP4_TRACK_VIDEO, ProbeMpeg4Video, OpenMpeg4Video, NextMpeg4Video, CloseMpeg4Video},
    {"HEVC Annex B", MP4_TRACK_VIDEO, ProbeHevc, OpenHevc, NextAnnexB, CloseAnnexB},
    {"H.264 Annex B", MP4_TRACK_VIDEO, ProbeH264, OpenH264, NextAnnexB, CloseAnnexB},
};
const size_t kFormatCount = sizeof kFormats / sizeof kFormats[0];

}  // namespace mux
