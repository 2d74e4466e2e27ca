/* The published layout of every record that crosses the library's boundary
 * and of the constants applications compile in, for 64-bit Linux (LP64).
 * A change to any number breaks programs built against an earlier
 * mp4core.h. One table, expanded by the C and the C++ view of the header. */
#ifndef MP4CORE_TESTS_ABI_LAYOUT_H
#define MP4CORE_TESTS_ABI_LAYOUT_H

#include <stddef.h>

/* RECORD(record, size) then FIELD(record, field, offset, size) per field. */
#define MP4CORE_PUBLISHED_LAYOUT(RECORD, FIELD)                                   \
    RECORD(MP4Sample, 32)                                                         \
    FIELD(MP4Sample, Reserved, 0, 4) FIELD(MP4Sample, Data, 8, 8)                 \
    FIELD(MP4Sample, IsKeyFrame, 16, 1) FIELD(MP4Sample, Pad, 17, 3)              \
    FIELD(MP4Sample, Time, 20, 4) FIELD(MP4Sample, Size, 24, 4)                   \
    RECORD(Mp4MediaInfo, 48)                                                      \
    FIELD(Mp4MediaInfo, Timescale, 0, 4) FIELD(Mp4MediaInfo, TrackDuration, 4, 4) \
    FIELD(Mp4MediaInfo, EsdsData, 8, 8) FIELD(Mp4MediaInfo, D263Data, 16, 8)      \
    FIELD(Mp4MediaInfo, DamrData, 24, 8) FIELD(Mp4MediaInfo, EsdsSize, 32, 4)     \
    FIELD(Mp4MediaInfo, D263Size, 36, 4) FIELD(Mp4MediaInfo, DamrSize, 40, 4)     \
    RECORD(FileInfo, 96)                                                          \
    FIELD(FileInfo, FileSize, 0, 4) FIELD(FileInfo, Reserved1, 4, 4)              \
    FIELD(FileInfo, VideoAvgBitRate, 8, 4) FIELD(FileInfo, VideoMaxBitRate, 12, 4) \
    FIELD(FileInfo, VideoProfile, 16, 4) FIELD(FileInfo, Reserved2, 20, 4)        \
    FIELD(FileInfo, VideoHeight, 24, 4) FIELD(FileInfo, VideoWidth, 28, 4)        \
    FIELD(FileInfo, VideoFrameRate, 32, 4) FIELD(FileInfo, VideoFrameCount, 36, 4) \
    FIELD(FileInfo, AudioSampleCount, 40, 4) FIELD(FileInfo, AudioFormat, 44, 4)  \
    FIELD(FileInfo, AudioChannelMode, 48, 4) FIELD(FileInfo, AudioSampleRate, 52, 4) \
    FIELD(FileInfo, AudioAvgBitRate, 56, 4) FIELD(FileInfo, AudioMaxBitRate, 60, 4) \
    FIELD(FileInfo, AudioProfile, 64, 4) FIELD(FileInfo, AudioChannels, 68, 4)    \
    FIELD(FileInfo, AudioHasConfig, 72, 4) FIELD(FileInfo, AudioObjectType, 76, 4) \
    FIELD(FileInfo, AudioChannels2, 80, 4) FIELD(FileInfo, Reserved3, 84, 4)      \
    FIELD(FileInfo, Reserved4, 88, 4) FIELD(FileInfo, AudioEmphasis, 92, 4)       \
    RECORD(IodConfigs, 104)                                                       \
    FIELD(IodConfigs, Head, 0, 76) FIELD(IodConfigs, VideoConfig, 80, 8)          \
    FIELD(IodConfigs, AudioConfig, 88, 8) FIELD(IodConfigs, VideoConfigSize, 96, 4) \
    FIELD(IodConfigs, AudioConfigSize, 100, 4)                                    \
    RECORD(DecoreFrame, 32)                                                       \
    FIELD(DecoreFrame, Data, 0, 8) FIELD(DecoreFrame, Result, 8, 8)               \
    FIELD(DecoreFrame, Word2, 16, 8) FIELD(DecoreFrame, Word3, 24, 8)           \
    RECORD(MP4TrackInfo, 120)                                                     \
    FIELD(MP4TrackInfo, TrackId, 0, 4) FIELD(MP4TrackInfo, TrackType, 4, 4)       \
    FIELD(MP4TrackInfo, Handler, 8, 4) FIELD(MP4TrackInfo, Format, 12, 4)         \
    FIELD(MP4TrackInfo, SampleCount, 16, 4) FIELD(MP4TrackInfo, Timescale, 20, 4) \
    FIELD(MP4TrackInfo, Duration, 24, 8) FIELD(MP4TrackInfo, Width, 32, 4)        \
    FIELD(MP4TrackInfo, Height, 36, 4) FIELD(MP4TrackInfo, Rotation, 40, 4)       \
    FIELD(MP4TrackInfo, PixelAspectH, 44, 4) FIELD(MP4TrackInfo, PixelAspectV, 48, 4) \
    FIELD(MP4TrackInfo, SampleRate, 52, 4) FIELD(MP4TrackInfo, Channels, 56, 4)   \
    FIELD(MP4TrackInfo, Language, 60, 4) FIELD(MP4TrackInfo, Encrypted, 64, 1)    \
    FIELD(MP4TrackInfo, Pad, 65, 3) FIELD(MP4TrackInfo, Scheme, 68, 4)            \
    FIELD(MP4TrackInfo, EditMediaTime, 72, 8) FIELD(MP4TrackInfo, EditDelay, 80, 8) \
    FIELD(MP4TrackInfo, FragmentCount, 88, 4) FIELD(MP4TrackInfo, EntryCount, 92, 4) \
    FIELD(MP4TrackInfo, HeaderDuration, 96, 8) FIELD(MP4TrackInfo, Flags, 104, 4) \
    FIELD(MP4TrackInfo, Reserved, 108, 12)                                        \
    RECORD(MP4SampleInfo, 32)                                                     \
    FIELD(MP4SampleInfo, FileOffset, 0, 8) FIELD(MP4SampleInfo, DecodeTime, 8, 8) \
    FIELD(MP4SampleInfo, CompositionOffset, 16, 4) FIELD(MP4SampleInfo, Size, 20, 4) \
    FIELD(MP4SampleInfo, IsKeyFrame, 24, 1) FIELD(MP4SampleInfo, Pad, 25, 1)       \
    FIELD(MP4SampleInfo, DescriptionIndex, 26, 2) FIELD(MP4SampleInfo, Duration, 28, 4) \
    RECORD(MP4TrackSpec, 96)                                                      \
    FIELD(MP4TrackSpec, TrackType, 0, 4) FIELD(MP4TrackSpec, Handler, 4, 4)       \
    FIELD(MP4TrackSpec, Format, 8, 4) FIELD(MP4TrackSpec, Timescale, 12, 4)       \
    FIELD(MP4TrackSpec, Width, 16, 4) FIELD(MP4TrackSpec, Height, 20, 4)          \
    FIELD(MP4TrackSpec, SampleRate, 24, 4) FIELD(MP4TrackSpec, Channels, 28, 4)   \
    FIELD(MP4TrackSpec, BitsPerSample, 32, 4) FIELD(MP4TrackSpec, ObjectType, 36, 4) \
    FIELD(MP4TrackSpec, Config, 40, 8) FIELD(MP4TrackSpec, ConfigSize, 48, 4)     \
    FIELD(MP4TrackSpec, Language, 52, 4) FIELD(MP4TrackSpec, Rotation, 56, 4)     \
    FIELD(MP4TrackSpec, PixelAspectH, 60, 4) FIELD(MP4TrackSpec, PixelAspectV, 64, 4) \
    FIELD(MP4TrackSpec, Reserved, 68, 28)                                         \
    RECORD(MP4WriteInfo, 40)                                                      \
    FIELD(MP4WriteInfo, DecodeTime, 0, 8) FIELD(MP4WriteInfo, CompositionOffset, 8, 4) \
    FIELD(MP4WriteInfo, Duration, 12, 4) FIELD(MP4WriteInfo, Size, 16, 4)         \
    FIELD(MP4WriteInfo, Flags, 20, 4) FIELD(MP4WriteInfo, DescriptionIndex, 24, 4) \
    FIELD(MP4WriteInfo, Reserved, 28, 12)

#define MP4CORE_PUBLISHED_CONSTANTS(CONSTANT)                                     \
    CONSTANT(MP4_TRACK_VIDEO, 1) CONSTANT(MP4_TRACK_AUDIO, 2)                     \
    CONSTANT(MP4_TRACK_HINT, 3) CONSTANT(MP4_TRACK_OD, 4) CONSTANT(MP4_TRACK_SCENE, 5) \
    CONSTANT(MP4_TABLE_KEYFRAMES, 1) CONSTANT(MP4_TABLE_MARKS, 2)                 \
    CONSTANT(MP4_TABLE_MARKS_ALT, 3) CONSTANT(MP4_AUDIO_NONE, 0)                  \
    CONSTANT(MP4_AUDIO_AAC, 100) CONSTANT(MP4_AUDIO_MPEG, 200)                    \
    CONSTANT(MP4_AUDIO_AMR_NB, 300) CONSTANT(MP4_AUDIO_AMR_WB, 400)               \
    CONSTANT(MP4_DECORE_CONTEXT_SLOT, 21) CONSTANT(MP4_DECORE_DECODE, 0x100)      \
    CONSTANT(MP4_OPEN_MODERN, 1) CONSTANT(MP4_FIND_KEY, 1)                        \
    CONSTANT(MP4_NEW_FRAGMENTED, 1) CONSTANT(MP4_NEW_SYNC, 2)                     \
    CONSTANT(MP4_TRACK_MIRRORED, 1) CONSTANT(MP4_TRACK_DISABLED, 2)               \
    CONSTANT(MP4_TRACK_COMPOSITION, 4) CONSTANT(MP4_NEW_PROGRESSIVE, 4)           \
    CONSTANT(MP4_NEW_FASTSTART, 8) CONSTANT(MP4_SAMPLE_KEY, 1)

#ifdef __cplusplus
extern "C" {
#endif

/* One field (or, with Field "sizeof", one record) or constant as a
 * compiler lays it out, beside the published numbers. */
typedef struct LayoutRow {
    const char *Name;
    size_t Offset, Size;                   /* as compiled */
    size_t PublishedOffset, PublishedSize;
} LayoutRow;

/* The rows as the C compiler sees mp4core.h; constants have Size 0 and
 * their value in Offset. */
const LayoutRow *CLayoutRows(size_t *count);

#ifdef __cplusplus
}
#endif

#endif
