/* The records and constants of mp4core.h as a C compiler sees them. The
 * static asserts stop a C build whose view differs from the published
 * numbers of 64-bit Linux (LP64); the rows let the C++ test compare field by
 * field. */
#include <stddef.h>

#include "abi/layout.h"
#include "mp4core.h"

#define ROW(record, field) \
    { #record, #field, offsetof(record, field), sizeof(((record *)0)->field) }
#define RECORD(record) { #record, "sizeof", 0, sizeof(record) }

#if defined(__LP64__)
_Static_assert(sizeof(MP4Sample) == 32 && offsetof(MP4Sample, Time) == 20,
               "MP4Sample as applications know it");
_Static_assert(sizeof(Mp4MediaInfo) == 48 && offsetof(Mp4MediaInfo, EsdsSize) == 32,
               "Mp4MediaInfo as applications know it");
_Static_assert(sizeof(FileInfo) == 96 && offsetof(FileInfo, AudioEmphasis) == 92,
               "FileInfo is 24 words");
_Static_assert(sizeof(IodConfigs) == 104 && offsetof(IodConfigs, VideoConfig) == 80,
               "IodConfigs as applications know it");
_Static_assert(sizeof(DecoreFrame) == 4 * sizeof(void *), "DecoreFrame is four words");
_Static_assert(MP4_DECORE_CONTEXT_SLOT == 21 && MP4_DECORE_DECODE == 0x100,
               "the decoder contract");
#endif

static const LayoutRow kRows[] = {
    RECORD(MP4Sample),
    ROW(MP4Sample, Reserved),
    ROW(MP4Sample, Data),
    ROW(MP4Sample, IsKeyFrame),
    ROW(MP4Sample, Pad),
    ROW(MP4Sample, Time),
    ROW(MP4Sample, Size),

    RECORD(Mp4MediaInfo),
    ROW(Mp4MediaInfo, Timescale),
    ROW(Mp4MediaInfo, TrackDuration),
    ROW(Mp4MediaInfo, EsdsData),
    ROW(Mp4MediaInfo, D263Data),
    ROW(Mp4MediaInfo, DamrData),
    ROW(Mp4MediaInfo, EsdsSize),
    ROW(Mp4MediaInfo, D263Size),
    ROW(Mp4MediaInfo, DamrSize),

    RECORD(FileInfo),
    ROW(FileInfo, FileSize),
    ROW(FileInfo, Reserved1),
    ROW(FileInfo, VideoAvgBitRate),
    ROW(FileInfo, VideoMaxBitRate),
    ROW(FileInfo, VideoProfile),
    ROW(FileInfo, Reserved2),
    ROW(FileInfo, VideoHeight),
    ROW(FileInfo, VideoWidth),
    ROW(FileInfo, VideoFrameRate),
    ROW(FileInfo, VideoFrameCount),
    ROW(FileInfo, AudioSampleCount),
    ROW(FileInfo, AudioFormat),
    ROW(FileInfo, AudioChannelMode),
    ROW(FileInfo, AudioSampleRate),
    ROW(FileInfo, AudioAvgBitRate),
    ROW(FileInfo, AudioMaxBitRate),
    ROW(FileInfo, AudioProfile),
    ROW(FileInfo, AudioChannels),
    ROW(FileInfo, AudioHasConfig),
    ROW(FileInfo, AudioObjectType),
    ROW(FileInfo, AudioChannels2),
    ROW(FileInfo, Reserved3),
    ROW(FileInfo, Reserved4),
    ROW(FileInfo, AudioEmphasis),

    RECORD(IodConfigs),
    ROW(IodConfigs, Head),
    ROW(IodConfigs, VideoConfig),
    ROW(IodConfigs, AudioConfig),
    ROW(IodConfigs, VideoConfigSize),
    ROW(IodConfigs, AudioConfigSize),

    RECORD(DecoreFrame),
    ROW(DecoreFrame, Data),
    ROW(DecoreFrame, Result),
    ROW(DecoreFrame, Word2),
    ROW(DecoreFrame, Word3),
    RECORD(MP4TrackInfo),
    ROW(MP4TrackInfo, TrackId),
    ROW(MP4TrackInfo, TrackType),
    ROW(MP4TrackInfo, Handler),
    ROW(MP4TrackInfo, Format),
    ROW(MP4TrackInfo, SampleCount),
    ROW(MP4TrackInfo, Timescale),
    ROW(MP4TrackInfo, Duration),
    ROW(MP4TrackInfo, Width),
    ROW(MP4TrackInfo, Height),
    ROW(MP4TrackInfo, Rotation),
    ROW(MP4TrackInfo, PixelAspectH),
    ROW(MP4TrackInfo, PixelAspectV),
    ROW(MP4TrackInfo, SampleRate),
    ROW(MP4TrackInfo, Channels),
    ROW(MP4TrackInfo, Language),
    ROW(MP4TrackInfo, Encrypted),
    ROW(MP4TrackInfo, Pad),
    ROW(MP4TrackInfo, Scheme),
    ROW(MP4TrackInfo, EditMediaTime),
    ROW(MP4TrackInfo, EditDelay),
    ROW(MP4TrackInfo, Reserved),

    RECORD(MP4SampleInfo),
    ROW(MP4SampleInfo, FileOffset),
    ROW(MP4SampleInfo, DecodeTime),
    ROW(MP4SampleInfo, CompositionOffset),
    ROW(MP4SampleInfo, Size),
    ROW(MP4SampleInfo, IsKeyFrame),
    ROW(MP4SampleInfo, Pad),
};

static const ConstantRow kConstants[] = {
    {"MP4_TRACK_VIDEO", MP4_TRACK_VIDEO},
    {"MP4_TRACK_AUDIO", MP4_TRACK_AUDIO},
    {"MP4_TRACK_HINT", MP4_TRACK_HINT},
    {"MP4_TRACK_OD", MP4_TRACK_OD},
    {"MP4_TRACK_SCENE", MP4_TRACK_SCENE},
    {"MP4_TABLE_KEYFRAMES", MP4_TABLE_KEYFRAMES},
    {"MP4_TABLE_MARKS", MP4_TABLE_MARKS},
    {"MP4_TABLE_MARKS_ALT", MP4_TABLE_MARKS_ALT},
    {"MP4_AUDIO_NONE", MP4_AUDIO_NONE},
    {"MP4_AUDIO_AAC", MP4_AUDIO_AAC},
    {"MP4_AUDIO_MPEG", MP4_AUDIO_MPEG},
    {"MP4_AUDIO_AMR_NB", MP4_AUDIO_AMR_NB},
    {"MP4_AUDIO_AMR_WB", MP4_AUDIO_AMR_WB},
    {"MP4_DECORE_CONTEXT_SLOT", MP4_DECORE_CONTEXT_SLOT},
    {"MP4_DECORE_DECODE", MP4_DECORE_DECODE},
    {"MP4_OPEN_MODERN", MP4_OPEN_MODERN},
    {"MP4_FIND_KEY", MP4_FIND_KEY},
};

const LayoutRow *CLayoutRows(size_t *count) {
    *count = sizeof kRows / sizeof kRows[0];
    return kRows;
}

const ConstantRow *CConstantRows(size_t *count) {
    *count = sizeof kConstants / sizeof kConstants[0];
    return kConstants;
}
