/*
 * mp4core: read, write and describe MP4 files (ISO/IEC 14496-12/-14, with
 * the MPEG-4 Systems descriptors of 14496-1).
 *
 * Conventions shared by every call:
 *  - A result of 1 is success, negative numbers are failures, and the sample
 *    calls also give 0 for the end of a track. The same negative number can
 *    mean different things in different calls: see each call.
 *  - Times are ticks of the track's own timescale ("mdhd"); the first sample
 *    of a track read from a file has time 0. Sample numbers are 0-based.
 *  - Out arguments are written only on success.
 *  - Everything handed to the caller is a separate malloc'd block that does
 *    not depend on the handle: MP4Sample records go back through
 *    SampleDataFree, other blocks through MP4freeData.
 *  - A handle serves one thread at a time. Calls that may parse an MPEG-4
 *    video header (MP4FileOpen, CreateTrack, GetFileInfo, GetM4vHeaderSize)
 *    keep their parser state on the stack and may run concurrently on
 *    different handles.
 *  - Diagnostics go to standard output; the authoring calls and the top of
 *    MP4FileFlush write theirs to standard error.
 */
#ifndef MP4CORE_H
#define MP4CORE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(MP4CORE_BUILDING_LIBRARY)
#define MP4CORE_API __attribute__((visibility("default")))
#else
#define MP4CORE_API
#endif

/* The file handle. One name, two forms: a read handle from MP4FileOpen
 * (ended by MP4FileClose) and a write handle from MP4FileNew (ended by
 * MP4FileFlush). The forms are not interchangeable. */
typedef struct MP4_local_file MP4_local_file;

/* Track types. */
enum {
    MP4_TRACK_VIDEO = 1,
    MP4_TRACK_AUDIO = 2,
    MP4_TRACK_HINT = 3,
    MP4_TRACK_OD = 4,    /* object descriptor stream */
    MP4_TRACK_SCENE = 5  /* scene description stream */
};

/* Table modes of MP4FileOpen: 1 keeps a key frame table for video tracks,
 * 2 and 3 only mark key frames in the sample records. */
enum { MP4_TABLE_KEYFRAMES = 1, MP4_TABLE_MARKS = 2, MP4_TABLE_MARKS_ALT = 3 };

/* A sample as the caller gets it. The record and Data are two separate
 * allocations; release both with SampleDataFree. */
typedef struct MP4Sample {
    uint32_t Reserved;   /* always 0 */
    uint8_t *Data;       /* Size bytes, no terminator */
    uint8_t IsKeyFrame;  /* 1 or 0; always 0 for audio */
    uint8_t Pad[3];
    uint32_t Time;       /* decoding time in track ticks */
    uint32_t Size;       /* never 0 */
} MP4Sample;

/* Result of RetMp4MediaInfo. The record and each data block are released
 * one by one with MP4freeData, the data blocks first. */
typedef struct Mp4MediaInfo {
    uint32_t Timescale;
    uint32_t TrackDuration;
    uint8_t *EsdsData;  /* "mp4v": 18 bytes from the video object start code;
                           "mp4a": the whole "esds" atom */
    uint8_t *D263Data;  /* the whole "d263" atom of an "s263" entry */
    uint8_t *DamrData;  /* the whole "damr" atom of a "samr" entry */
    uint32_t EsdsSize;
    uint32_t D263Size;
    uint32_t DamrSize;
} Mp4MediaInfo;

/* Audio format codes of FileInfo.AudioFormat. */
enum {
    MP4_AUDIO_NONE = 0,
    MP4_AUDIO_AAC = 100,
    MP4_AUDIO_MPEG = 200,
    MP4_AUDIO_AMR_NB = 300,
    MP4_AUDIO_AMR_WB = 400
};

/* The caller's record of GetFileInfo: 24 words, zeroed by the call. */
typedef struct FileInfo {
    uint32_t FileSize;
    uint32_t Reserved1;
    uint32_t VideoAvgBitRate;
    uint32_t VideoMaxBitRate;
    uint32_t VideoProfile;     /* profile and level indication, 100 if none */
    uint32_t Reserved2;
    uint32_t VideoHeight;      /* height stands before width */
    uint32_t VideoWidth;
    uint32_t VideoFrameRate;   /* whole frames per second, cut */
    uint32_t VideoFrameCount;
    uint32_t AudioSampleCount;
    uint32_t AudioFormat;      /* MP4_AUDIO_* */
    uint32_t AudioChannelMode;
    uint32_t AudioSampleRate;
    uint32_t AudioAvgBitRate;
    uint32_t AudioMaxBitRate;
    uint32_t AudioProfile;     /* audio object type less 1 */
    uint32_t AudioChannels;
    uint32_t AudioHasConfig;
    uint32_t AudioObjectType;
    uint32_t AudioChannels2;
    uint32_t Reserved3;
    uint32_t Reserved4;
    uint32_t AudioEmphasis;
} FileInfo;

/* The caller's record of DecryptMp4Iod. The two blocks are new allocations,
 * released with MP4freeData. */
typedef struct IodConfigs {
    uint32_t Head[19];         /* the caller's own; never touched */
    uint8_t *VideoConfig;
    uint8_t *AudioConfig;
    uint32_t VideoConfigSize;
    uint32_t AudioConfigSize;
} IodConfigs;

/* The frame record that Mp4VideoSeek hands to decore: four machine words.
 * Word 0 holds the address of the sample's bytes; word 1 comes back to the
 * caller; words 2 and 3 pass through unchanged. */
typedef struct DecoreFrame {
    void *Data;
    uintptr_t Result;
    uintptr_t Word2;
    uintptr_t Word3;
} DecoreFrame;

/* The decoder's context is the application's own block. Mp4VideoSeek
 * writes its contextWord argument into pointer-sized slot 21 of it (byte
 * offset 21 * sizeof(void *)), so the block must hold at least 22 such
 * slots. */
#define MP4_DECORE_CONTEXT_SLOT 21
#define MP4_DECORE_DECODE 0x100

/* The video decoder entry that Mp4VideoSeek calls. The application (or a
 * decoder library it links) provides it; the library only holds a weak
 * reference, so it loads and links without one. Returns a negative value
 * on failure. */
int32_t decore(uint32_t command, DecoreFrame *frame, void *context);

/* ---- Handles ---------------------------------------------------------- */

MP4CORE_API int32_t MP4FileOpen(MP4_local_file **file, const char *path, int32_t tableMode);
MP4CORE_API uint32_t MP4FileClose(MP4_local_file **file);
MP4CORE_API int32_t MP4FileNew(MP4_local_file **file, const char *path);
MP4CORE_API int32_t MP4FileFlush(MP4_local_file *file);

/* ---- Sample access ---------------------------------------------------- */

MP4CORE_API int32_t GetNextSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                  MP4Sample **sample);
MP4CORE_API int32_t GetSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                              int32_t time, MP4Sample **sample);
MP4CORE_API int32_t SampleDataFree(MP4Sample **sample);
MP4CORE_API int32_t MP4freeData(void **block);
MP4CORE_API int32_t SeekTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                              int32_t time, MP4Sample **sample);
MP4CORE_API int32_t SeekTrackPos(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                 int32_t time, uint32_t *position);
MP4CORE_API int32_t NextKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                 MP4Sample **sample);
MP4CORE_API int32_t PrevKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                 MP4Sample **sample);
/* Mp4VideoSeek brings the video track last used (after MP4FileOpen the
 * first one) and the caller's decoder to sample sampleNumber; the file must
 * be opened with MP4_TABLE_KEYFRAMES. Results: 1 done; -1 bad arguments,
 * no such track or table, or no key frame at or before the target; -2 no
 * decore is linked into the application (checked first, nothing moved);
 * -31 a key frame step failed; -32 decore failed on the key frame; -33
 * a sample could not be read or decore failed while samples were fed. */
MP4CORE_API int32_t Mp4VideoSeek(MP4_local_file *file, uint32_t reserved, int32_t sampleNumber,
                                 uint32_t *result, void *contextWord, void *context,
                                 uintptr_t frameWord0, uintptr_t frameWord1,
                                 uintptr_t frameWord2, uintptr_t frameWord3);

/* ---- Authoring -------------------------------------------------------- */

MP4CORE_API int32_t CreateTrack(MP4_local_file *file, uint32_t trackType, uint32_t width,
                                uint32_t height, uint16_t timeResolution, uint32_t timescale,
                                uint32_t profileLevel, uint32_t audioProfile,
                                uint32_t audioChannels, uint32_t audioSampleRate,
                                uint32_t configSize, const uint8_t *config,
                                const char *tempFileName, uint8_t compositionTimes);
MP4CORE_API int32_t AddVideoFrame(MP4_local_file *file, uint32_t frameSize,
                                  const uint8_t *frameData, uint32_t compositionOffset,
                                  uint32_t timeStamp, uint32_t keyFrame,
                                  uint8_t hasCompositionOffset);
MP4CORE_API int32_t AddAudioFrame(MP4_local_file *file, uint32_t frameSize,
                                  const uint8_t *frameData, uint32_t timeStamp);

/* ---- Description ------------------------------------------------------ */

MP4CORE_API int32_t RetMp4MediaInfo(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                    Mp4MediaInfo **info);
MP4CORE_API int32_t GetFileInfo(const char *fileName, FileInfo *info);
MP4CORE_API int32_t AAC_EsdsToAdtsHead(const uint8_t *esds, uint32_t frameSize,
                                       uint8_t *header, uint32_t *headerSize);
/* Returns the header size in bytes, 0xFFFFFFFF (-1) on failure, 0 when no
 * buffer could be allocated. */
MP4CORE_API uint32_t GetM4vHeaderSize(const char *fileName, uint32_t *width, uint32_t *height);
MP4CORE_API int32_t EncryptMp4Iod(MP4_local_file *file, uint8_t **iod,
                                  const uint8_t *videoConfig, uint8_t videoConfigSize);
MP4CORE_API int32_t DecryptMp4Iod(IodConfigs *configs, uint8_t **iod);

#ifdef __cplusplus
}
#endif

#endif /* MP4CORE_H */
