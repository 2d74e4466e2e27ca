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
 *  - Out arguments are written only on success, unless a call says
 *    otherwise.
 *  - Everything handed to the caller is a separate malloc'd block that does
 *    not depend on the handle: MP4Sample records go back through
 *    SampleDataFree, other blocks through MP4freeData.
 *  - A handle serves one thread at a time. Calls that may parse an MPEG-4
 *    video header (MP4FileOpen, CreateTrack, GetFileInfo, GetM4vHeaderSize)
 *    keep their parser state on the stack and may run concurrently on
 *    different handles.
 *  - Diagnostics go to standard output; the authoring calls and the top of
 *    MP4FileFlush write theirs to standard error. MP4SetDiagnostics takes
 *    them all instead.
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

/* Flags of MP4FileOpenEx. */
enum { MP4_OPEN_MODERN = 1 };

/* Flags of MP4FileNewEx. */
enum { MP4_NEW_FRAGMENTED = 1, MP4_NEW_SYNC = 2, MP4_NEW_PROGRESSIVE = 4, MP4_NEW_FASTSTART = 8 };

/* A track of any format for MP4AddTrack. Four-character fields have no
 * terminator. 96 bytes; the caller zeroes Reserved. */
typedef struct MP4TrackSpec {
    uint32_t TrackType;       /* 1 video, 2 audio, 0 other (Handler names it) */
    char Handler[4];          /* "hdlr" type of a track of type 0, e.g. "text" */
    char Format[4];           /* sample entry: "avc1", "avc3", "hvc1", "hev1",
                                 "av01", "vp09", "mp4v" (video); "mp4a",
                                 "Opus", "ac-3", "ec-3", "fLaC", "alac",
                                 "ipcm", "fpcm", "sowt", "twos", "in24",
                                 "fl32", "in32", "fl64", "samr", "sawb"
                                 (audio); any name for type 0 */
    uint32_t Timescale;       /* "mdhd" ticks per second; not 0 */
    uint32_t Width;           /* video: picture size, 1 to 65535 */
    uint32_t Height;
    uint32_t SampleRate;      /* audio: 1 and up (PCM: equal to Timescale) */
    uint32_t Channels;        /* audio: 1 to 65535 */
    uint32_t BitsPerSample;   /* PCM: 8, 16, 24, 32 (64 for "fpcm"); other
                                 audio: 0 gives 16 */
    uint32_t ObjectType;      /* "esds" object type of "mp4a"/"mp4v": 0 gives
                                 AAC (0x40) or MPEG-4 video (0x20); MP3 is
                                 0x6B */
    const uint8_t *Config;    /* the payload of the entry's configuration
                                 atom as MP4GetDecoderConfig gives it */
    uint32_t ConfigSize;
    char Language[4];         /* three lower-case letters and a 0; zeros give
                                 "und" */
    uint32_t Rotation;        /* 0, 90, 180 or 270: the "tkhd" matrix */
    uint32_t PixelAspectH;    /* "pasp" when not 1:1; 0:0 gives 1:1 */
    uint32_t PixelAspectV;
    uint32_t MediaStart;      /* ticks decoded but not presented at the start
                                 (Opus pre-skip, encoder delay): the edit
                                 list then begins there and lasts the
                                 media less them (fragmented: duration 0,
                                 to the end); 0: none */
    uint32_t Reserved[6];     /* zero */
} MP4TrackSpec;

/* One sample for MP4WriteSample. 40 bytes; the caller zeroes Reserved. */
typedef struct MP4WriteInfo {
    uint64_t DecodeTime;        /* track ticks; rises within a track */
    int32_t CompositionOffset;  /* presentation minus decoding time */
    uint32_t Duration;          /* ticks; 0: up to the next sample's decode
                                   time (the last repeats the one before) */
    uint32_t Size;              /* bytes at data */
    uint32_t Flags;             /* MP4_SAMPLE_KEY */
    uint32_t DescriptionIndex;  /* the sample entry, from 1 (0: the first);
                                   above 1 only on a track of MP4AddTrackFrom
                                   whose "stsd" holds that many */
    uint32_t Reserved[3];       /* zero */
} MP4WriteInfo;

/* Bits of MP4WriteInfo.Flags. MP4_SAMPLE_NEW_FRAGMENT (fragmented
 * handles): a fragment begins at this sample, of the track that leads the
 * fragments (the first video track, else the first track); once a handle
 * has seen it, fragments end only where the caller says so (and where a
 * track would hold 65536 samples or the samples held would pass 1 GiB).
 * A progressive handle takes the bit and passes it over. */
#define MP4_SAMPLE_KEY 1
#define MP4_SAMPLE_NEW_FRAGMENT 2

/* Flags of MP4FindSample. */
enum { MP4_FIND_KEY = 1, MP4_FIND_PRESENTATION = 2 };

/* A track as MP4GetTrackInfo describes it. Four-character fields have no
 * terminator. 120 bytes; Reserved is zero and stays for later fields. */
typedef struct MP4TrackInfo {
    uint32_t TrackId;        /* "tkhd"; 0 for a "trak" without one */
    int32_t TrackType;       /* 1 video, 2 audio, 3 hint, 4 object descriptor,
                                5 scene description, 0 any other handler */
    char Handler[4];         /* "hdlr" handler type, e.g. "vide" */
    char Format[4];          /* first sample entry, e.g. "avc1"; of a protected
                                entry ("encv", "enca") the original format;
                                Dolby Vision entries keep their own name */
    uint32_t SampleCount;    /* samples the reader knows; a track without
                                tables: what its "stsz" says, or 0 */
    uint32_t Timescale;      /* "mdhd" ticks per second */
    uint64_t Duration;       /* sum of the sample durations, in ticks */
    uint32_t Width;          /* picture size of the sample entry (every entry
                                of a "vide" track is a visual one); 0 for
                                audio */
    uint32_t Height;
    uint32_t Rotation;       /* 0, 90, 180 or 270, from the "tkhd" matrix */
    uint32_t PixelAspectH;   /* "pasp"; 1:1 without */
    uint32_t PixelAspectV;
    uint32_t SampleRate;     /* audio, from the decoder configuration where
                                it states them, else from the sound sample
                                entry; AAC with SBR or PS signalled
                                explicitly (object type 5 or 29, or the sync
                                extension) gives the output rate and
                                channels (a mono core 2, unless PS is ruled
                                out), signalled implicitly its core rate;
                                AMR 1 channel; 0 for video */
    uint32_t Channels;
    char Language[4];        /* "mdhd" language, three letters and a 0 */
    uint8_t Encrypted;       /* 1: a protected sample entry */
    uint8_t Pad[3];
    char Scheme[4];          /* "schm" scheme type; zeros without */
    int64_t EditMediaTime;   /* media time of the first non-empty edit; -1
                                without an edit list */
    uint64_t EditDelay;      /* leading empty edits, in media ticks */
    uint32_t FragmentCount;  /* track fragments ("traf") of the track in the
                                file's "moof" atoms; 0 on a classic handle */
    uint32_t EntryCount;     /* sample entries: the atoms the reader found in
                                "stsd" (a classic handle stops at the first
                                entry it does not know) */
    uint64_t HeaderDuration; /* "mdhd" duration in ticks, as the header states
                                it (fragments not added); all ones when it
                                says unknown (all ones in its 32 or 64 bits) */
    uint32_t Flags;          /* MP4_TRACK_MIRRORED: the "tkhd" matrix mirrors
                                the picture (negative determinant);
                                MP4_TRACK_DISABLED: "tkhd" flag 1 (enabled)
                                is clear; MP4_TRACK_COMPOSITION: a "ctts"
                                with entries, or a "trun" of the track with
                                composition offsets */
    uint32_t Reserved[3];    /* zero */
} MP4TrackInfo;

/* Bits of MP4TrackInfo.Flags. */
#define MP4_TRACK_MIRRORED 1
#define MP4_TRACK_DISABLED 2
#define MP4_TRACK_COMPOSITION 4

/* One sample as MP4GetSampleInfo describes it, without its bytes. 32
 * bytes. */
typedef struct MP4SampleInfo {
    uint64_t FileOffset;
    uint64_t DecodeTime;        /* ticks from the track's first sample */
    int32_t CompositionOffset;  /* presentation minus decoding time ("ctts") */
    uint32_t Size;
    uint8_t IsKeyFrame;         /* sync sample */
    uint8_t Pad;                /* zero */
    /* The sample entry of "stsd" it uses, from 1: the "stsc" entry of its
     * chunk, or for a fragment's sample the "tfhd" sample description index,
     * else the track's "trex" default, else 1. 0 when the file names 0 or
     * an entry past 65535. Always 1 on a classic handle. */
    uint16_t DescriptionIndex;
    /* In track ticks: its "stts" delta (the last delta goes on past the
     * table's end), or its "trun" duration, else the "tfhd" default, else
     * the "trex" default; a PCM sample of grouped frames lasts its frames
     * times the frame's delta (at most 2^32 - 1). On a classic handle the
     * next sample's time less its own (32 bits), and 0 for the last. */
    uint32_t Duration;
} MP4SampleInfo;

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
 * on failure. An application with a decore of its own (of another
 * signature) defines MP4CORE_NO_DECORE before it includes this header, and
 * the declaration is left out. */
#ifndef MP4CORE_NO_DECORE
int32_t decore(uint32_t command, DecoreFrame *frame, void *context);
#endif

/* ---- Handles ---------------------------------------------------------- */

/* MP4FileOpen reads the index of a file into memory: its atoms, its tracks
 * and one record per sample. After it, the sample calls go to the file
 * only for sample bytes.
 *   file       receives the read handle, which the caller ends with
 *              MP4FileClose; holds null after any result but 1. A null
 *              file gives -99 and nothing is written.
 *   path       the file; at most 255 characters.
 *   tableMode  MP4_TABLE_KEYFRAMES (needed by Mp4VideoSeek),
 *              MP4_TABLE_MARKS or MP4_TABLE_MARKS_ALT.
 * Results: 1 open; a track that can't be read is left out or stays
 * unusable (the sample calls report it), and a file without tracks opens
 * too. -99 file or path null, or path longer than 255; -98 no memory for
 * the handle; -97 no memory for the file record; -96 the file can't be
 * opened or its top-level atoms can't be read; -95 the file is empty or
 * 2 GiB or more, or no memory for the atom records; -94 tableMode is not
 * 1, 2 or 3 (checked after the file is opened and measured), or no memory
 * for a track record or a video track; -93 no memory for an audio track;
 * -92, -91, -90 no memory for a hint, object descriptor or scene
 * description track.
 * Threads: any; opens of different files may run at the same time. */
MP4CORE_API int32_t MP4FileOpen(MP4_local_file **file, const char *path, int32_t tableMode);

/* MP4FileOpenEx opens a file for reading as MP4FileOpen does, with a
 * choice of reader.
 *   flags  0: exactly MP4FileOpen (same results, messages and tables).
 *          MP4_OPEN_MODERN: the modern reader. It reads what today's
 *          encoders write: atoms it doesn't know are passed over by their
 *          size and never end their container's scan; 64-bit and
 *          to-the-end atom sizes; version 1 headers; "co64", "stz2",
 *          "ctts"; any sample entry (a "vide" track is video and a "soun"
 *          track audio whatever their format; tracks of other handlers
 *          are listed with type 0 and read by number); files of any
 *          size. Without "stss" every sample is a sync sample. Fragmented
 *          files: the samples of every whole "moof" ("traf", "tfhd",
 *          "tfdt", "trun", with the defaults of "trex") follow a track's
 *          "stbl" samples in file order, read once, at the open; a sample
 *          is a sync sample when its flags say it is not a non-sync one;
 *          a "moof" cut by the end of the file is left out. Edit lists
 *          are not applied to the samples (MP4GetTrackInfo reports them).
 *          Uncompressed audio whose samples are single frames is read in
 *          samples of up to 1024 frames, never across a chunk. The heap
 *          the handle holds stays within 16 bytes per byte of the atoms
 *          it parses and 1 MiB: a track whose tables would take more is
 *          kept without them. Of two table atoms of one kind in an "stbl"
 *          the first counts. It prints nothing.
 * The handle is a read handle for MP4FileClose and every reading call.
 * On a modern handle their 32-bit times are compared with the track's
 * 64-bit times (so they reach the first 2^31 ticks; MP4FindSample reaches
 * the rest), MP4Sample.Time carries the low 32 bits of the decoding time,
 * a video track of one sample reads its sample, and a sample of size 0
 * gives its size code (-87 video, -83 audio) and the cursor moves on.
 * Results: -100 flags holds a bit other than MP4_OPEN_MODERN (checked
 * first; *file is not written); otherwise those of MP4FileOpen, where the
 * modern reader opens files of 2 GiB and more too.
 * Threads: as MP4FileOpen. */
MP4CORE_API int32_t MP4FileOpenEx(MP4_local_file **file, const char *path, int32_t tableMode,
                                  uint32_t flags);

/* MP4FileClose ends a read handle: releases its tracks, its atom tree, the
 * block of EncryptMp4Iod, and closes the file; then nulls *file. Samples
 * and media information handed out before stay valid. A null file or
 * *file does nothing, so a second close is harmless. Never give it a write
 * handle.
 * Result: always 1.
 * Threads: the handle's thread. */
MP4CORE_API uint32_t MP4FileClose(MP4_local_file **file);

/* MP4FileNew creates (or empties) the file at path and gives a write
 * handle for CreateTrack, AddVideoFrame and AddAudioFrame. Nothing but the
 * empty file exists on disk until MP4FileFlush, the only call that ends
 * the handle (MP4FileClose must not be used on it); MP4FileNewEx can give a
 * handle that writes while the frames arrive.
 *   file  receives the write handle; null after a failure. A null file
 *         gives -99 and nothing is written.
 *   path  the output file; at most 255 characters.
 * Results: 1 done; -99 file or path null, path longer than 255, the file
 * can't be created, or no memory (a diagnostic goes to standard error).
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4FileNew(MP4_local_file **file, const char *path);

/* MP4FileNewEx creates (or empties) the file at path and gives a write
 * handle, as MP4FileNew does, with a choice of how the file is written.
 *   flags  0: exactly MP4FileNew (same results and messages).
 *          MP4_NEW_FRAGMENTED: the file is written while the frames
 *          arrive, so that a process that dies leaves a file that plays
 *          up to its last whole fragment. The first AddVideoFrame or
 *          AddAudioFrame writes "ftyp" and "moov" (with "mvex") for the
 *          tracks created so far; then each fragment ("moof" and its
 *          "mdat") goes to the file with one write as soon as it is
 *          complete, before the call that completed it returns. Fragments
 *          follow the video track (the audio track's when there is no
 *          video): a fragment ends at the first video key frame at least
 *          one second after its start, or two seconds after its start, and
 *          at MP4FileFlush; each holds the frames of every track whose
 *          decoding time lies before that cut. A frame's duration is the
 *          distance to its track's next frame, so each track holds back
 *          its last frame until the next one comes. Memory holds the
 *          frames not yet written (a few seconds) and a few bytes per
 *          fragment for the index; no temp files are used, and media
 *          bytes are written once. The file may pass 4 GiB.
 *          MP4_NEW_SYNC, with MP4_NEW_FRAGMENTED: each fragment (and the
 *          header and the index) is also made durable with fdatasync
 *          before the call returns, and the new file's folder entry with
 *          fsync, so that a power cut keeps every fragment written; slower.
 *          MP4_NEW_PROGRESSIVE: a handle for MP4AddTrack and
 *          MP4WriteSample (tracks of any format). Samples go to the file
 *          as they arrive, into one "mdat" (given a 64-bit size when it
 *          passes 4 GiB) in chunks of each track of at most one second of
 *          media and 4 MiB, interleaved in the order they fill; a track
 *          whose chunk began more than a second before the sample being
 *          written has stalled and its chunk is written as it stands.
 *          Memory holds one chunk per track and 16 bytes per sample. No
 *          temp files; media bytes are written once. MP4FileFlush writes
 *          the index ("moov") behind the media.
 *          MP4_NEW_FASTSTART, with MP4_NEW_PROGRESSIVE: the flush then
 *          writes the finished file with "moov" in front of "mdat" beside
 *          the output (a temporary name in its folder) and renames it over
 *          the output; if that fails the plain progressive file stays.
 *          MP4_NEW_SYNC, with MP4_NEW_PROGRESSIVE: the flush makes the file
 *          durable (fdatasync) before it returns.
 *          A fragmented handle also takes MP4AddTrack, MP4AddTrackFrom
 *          and MP4WriteSample (instead of CreateTrack and the frame calls,
 *          not beside them): the same fragment rule over every track, led
 *          by the first video track (else the first track), fragments of
 *          one to two seconds, each sample with its
 *          own duration, flags and composition offset; "ftyp" and "moov"
 *          go out with the first fragment, a B-frame track's edit list
 *          taken from its samples then held.
 * The classic calls (CreateTrack, AddVideoFrame, AddAudioFrame) on a
 * progressive handle find no track and give -99.
 * Results: -100 flags hold an unknown bit, MP4_NEW_SYNC without
 * MP4_NEW_FRAGMENTED or MP4_NEW_PROGRESSIVE, MP4_NEW_PROGRESSIVE with
 * MP4_NEW_FRAGMENTED, or MP4_NEW_FASTSTART without MP4_NEW_PROGRESSIVE
 * (checked first; *file is not written); otherwise
 * those of MP4FileNew, with -99 also when there is no memory for the
 * fragmented writer.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4FileNewEx(MP4_local_file **file, const char *path, uint32_t flags);

/* MP4FileFlush writes the finished file of a write handle ("ftyp", "moov",
 * then "mdat" with all video, all audio and the two generated samples),
 * closes it, removes the temp files and releases the handle, which is gone
 * afterwards whatever happened: the caller's pointer dangles. A step that
 * fails is reported on standard output, and if the tables could not be
 * completed the output file is left empty rather than written wrong.
 *   file  the write handle from MP4FileNew (the pointer, not its address).
 * Results: 1 the flush ran to its end (also when a step reported an error
 * on the way); -99 file is null, nothing happened.
 * On a fragmented handle (MP4FileNewEx) the flush writes the frames still
 * held as the last fragment (each track's last frame repeats the duration
 * before it), then the "mfra" index (one "tfra" per track, an entry for
 * the first sync sample of each track fragment) and its "mfro", and closes
 * the file; a handle without frames gets its "ftyp" and "moov" first.
 * Results there: 1 done, also on a handle that an earlier failed write
 * gave up (it is released without writing more); -99 file is null
 * (nothing happened), or a write failed now: the file is cut back to the
 * end of its last whole fragment and the handle is released all the same.
 * On a progressive handle the flush writes the chunks still held, the
 * "mdat" size and "moov" (one "trak" per track: "stts", "ctts" version 0,
 * or 1 when an offset is negative, "stss" unless every sample is a key
 * frame, "stsz", "stsc", "stco", or "co64" when an offset passes 32
 * bits; "mvhd", "tkhd", "mdhd" and "elst" in version 1 where a value
 * passes 32 bits; an edit list that starts the presentation at 0 when a
 * track's earliest presentation time lies after its first decode time),
 * moves it in front with MP4_NEW_FASTSTART, and releases the handle.
 * On a fragmented handle with tracks of MP4AddTrack the flush writes the
 * samples still held as fragments and "mfra" as above; results: 1 done;
 * -99 a write failed now or earlier, or no memory (the file ends at its
 * last whole atom).
 * Results there: 1 done; -99 file is null, or a write failed (now or in
 * an earlier MP4WriteSample): the file is left as far as it was written;
 * -98 the file is complete with "moov" at its end, but moving "moov" in
 * front failed (no temporary file could be written or renamed).
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4FileFlush(MP4_local_file *file);

/* MP4AddTrack adds a track of any format to a progressive or fragmented
 * handle (MP4FileNewEx with MP4_NEW_PROGRESSIVE or MP4_NEW_FRAGMENTED)
 * before its first sample, and
 * gives it the next track ID (from 1). The library builds the sample
 * entry: a visual or sound entry with the format's configuration atom
 * around trackSpec->Config ("avcC", "hvcC", "av1C", "vpcC", "dOps", "dac3",
 * "dec3", "dfLa", "alac", "damr"; for "mp4a"/"mp4v" an "esds" around the
 * DecoderSpecificInfo; for "ipcm"/"fpcm" a big-endian "pcmC" from
 * BitsPerSample; none for "sowt", "twos", "in24", "in32", "fl32",
 * "fl64"), and "pasp"
 * when the pixel aspect is not 1:1. A track of type 0 gets an entry of
 * its Format whose body behind the data reference index is trackSpec->Config
 * as given, under a "hdlr" of trackSpec->Handler. PCM tracks hold one frame
 * per table sample: their Timescale equals SampleRate, each written
 * sample is a whole number of frames, and their decode times follow from
 * the frames written.
 *   trackId  receives the new track's ID on result 1.
 * Results: 1 done; -99 file, trackSpec or trackId null; -98 the handle is not
 * a progressive or fragmented write handle (a classic write handle or a
 * read handle), or is a fragmented one whose tracks came from CreateTrack;
 * -97 a sample was written already (or a write failed);
 * -96 a Reserved word is not zero; -95 the track description does not fit: TrackType
 * not 0, 1 or 2, a Format that is not one of its type's (type 0: Handler
 * or Format zero), Timescale 0, video Width or Height outside 1 to 65535,
 * audio SampleRate 0 or Channels outside 1 to 65535, a PCM format's
 * BitsPerSample it does not take or a SampleRate other than its
 * Timescale, Rotation not 0, 90, 180 or 270, one of PixelAspectH/V 0,
 * Language not three lower-case letters and a 0; -94 Config does not fit
 * the format: an "avcC"/"hvcC" record without version 1 (or shorter than
 * 7/23 bytes), an "av1C" without its marker, a "vpcC" under 8 bytes, a
 * "dOps" missing or not version 0, a "dac3" other than 3 bytes, a "dec3"
 * under 5, a "dfLa" that does not start with STREAMINFO, a "damr" other
 * than 9 bytes, an "alac" under
 * 24 bytes, AAC without its AudioSpecificConfig, any Config for PCM, a
 * Config above 1 MiB or null with a size; -93 no memory; -92 the handle
 * holds 4096 tracks. Nothing is added on a failure.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4AddTrack(MP4_local_file *file, const MP4TrackSpec *trackSpec, uint32_t *trackId);

/* MP4AddTrackFrom adds a track to a progressive or fragmented handle, as MP4AddTrack
 * does, that copies the description of track sourceTrackId (of type
 * sourceType, as in MP4TrackInfo) of a read handle (MP4FileOpen or
 * MP4FileOpenEx) as the file holds it: "stsd" with every sample entry and
 * all their child atoms (formats the library does not know included), the
 * handler, timescale and language, the "tkhd" flags, layer, volume,
 * matrix and size, and the edit list with its durations rescaled to the
 * new movie timescale (1000), which then stands instead of the edit the
 * writer would make; a track without one gets none. Samples follow with
 * MP4WriteSample; uncompressed audio keeps one frame per table sample, as
 * MP4AddTrack's PCM tracks do. Metadata ("udta", "meta") is not copied.
 *   trackId  receives the new track's ID on result 1.
 * Results: 1 done; -99 file, source or trackId null, or sourceTrackId 0;
 * -98 file is not a progressive or fragmented write handle (or a
 * fragmented one with tracks of CreateTrack); -97 a sample was written
 * already (or a write failed); -93 no memory; -92 the handle holds 4096
 * tracks; -91 source is not a read handle; -90 source has no track of
 * that ID and type; -89 the track is protected ("encv", "enca": its
 * sample auxiliary information is not carried over); -88 the track's
 * "stsd" can't be read or holds no entry. Nothing is added on a failure.
 * Threads: the handle's thread; source is only read. */
MP4CORE_API int32_t MP4AddTrackFrom(MP4_local_file *file, MP4_local_file *source,
                                    uint32_t sourceTrackId, int32_t sourceType, uint32_t *trackId);

/* MP4WriteSample adds one sample to a track of a progressive handle: its
 * bytes join the track's chunk (see MP4FileNewEx), its size, time, offset
 * and flags the index. On a fragmented handle the sample is held until
 * its fragment is complete; the fragment goes to the file with one write
 * before the call that completed it returns ("trun" with each sample's
 * size, duration, flags and offset, version 1 for a negative offset). Decode times rise within a track (no two
 * samples share one); the first is the track's time 0. The index keeps the distances between
 * decode times as durations, so info->Duration counts for the track's
 * last sample only (0: it repeats the duration before it).
 *   data  info->Size bytes; may be null when Size is 0.
 * Results: 1 done; -99 file or info null, data null with a Size, or a
 * write to the file failed (the handle is given up: later calls give
 * -92, the flush -99; a fragmented file is cut back to its last whole
 * fragment); -98 the handle is not a progressive or fragmented write
 * handle; -97 no track of that ID (a fragmented handle without tracks of
 * MP4AddTrack has none); -96 a Reserved word is not zero, Flags holds a
 * bit other than MP4_SAMPLE_KEY and MP4_SAMPLE_NEW_FRAGMENT (the latter on
 * a fragmented handle's track that does not lead), or DescriptionIndex is above the track's
 * sample entries (or 65535); -95 the
 * decode time is not above the track's previous one, or lies more than
 * 2^32-1 ticks after it; -94 a PCM sample of no bytes, not a whole
 * number of frames, or one that takes the track past 2^32-1 frames, or
 * on a fragmented handle a sample of 256 MiB or more; -93 no memory (nothing written; the call may be made
 * again); -92 the handle was given up after a failed write. Nothing is
 * taken on a failure.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4WriteSample(MP4_local_file *file, uint32_t trackId, const MP4WriteInfo *info,
                                   const uint8_t *data);


/* ---- Sample access ---------------------------------------------------- */

/* The sample calls share their arguments:
 *   file       a read handle from MP4FileOpen.
 *   trackId    the track's ID ("tkhd"); 0 is refused.
 *   trackType  MP4_TRACK_VIDEO or MP4_TRACK_AUDIO: the list in which the ID
 *              is looked up. Other tracks can't be read.
 *   sample     receives a new MP4Sample on result 1, untouched otherwise.
 *              The record is the caller's, released with SampleDataFree,
 *              before or after MP4FileClose.
 * Each track has its own cursor, the number of the sample that the next
 * GetNextSample gives; it starts at 0. The handle remembers the last video
 * and the last audio track asked for, and moves to a track as soon as its
 * ID is found, even when the call then fails.
 * Threads: all sample calls on one handle share its file position and
 * cursors: one thread at a time per handle. */

/* GetNextSample gives the sample under the cursor and moves the cursor
 * behind it.
 * GetSample gives the last sample at or before time (ticks; 0 or below:
 * the first sample, past the end: the last), without regard to key frames,
 * and leaves the cursor behind it.
 * Results of both:
 *    1  *sample holds a new record.
 *    0  end of track: the cursor stands behind the last sample, or the
 *       track has no samples (a video track of a single sample reads
 *       as empty).
 *  -99  file or sample null, or trackId 0.
 *  -98  video: the file has no video track.
 *  -97  video: no track was in use and the ID is not found or unusable.
 *  -96  video: another track was in use and the ID is not found or
 *       unusable.
 *  -95, -94, -93  audio: as -98, -97, -96.
 *  -92  trackType is neither 1 nor 2.
 *  -91  no memory for the record.
 *  -90  video: the track in use is unusable (its tables could not be
 *       built).
 *  -89  video: the track has no sample table.
 *  -88  video: no memory for the sample's bytes (the cursor stays on
 *       the sample).
 *  -87  video: the sample's size is 0 (the cursor stays on the sample).
 *  -86, -85, -84, -83  audio: as -90, -89, -88, -87.
 *  -82  the file holds fewer bytes than the sample needs (a file that
 *       has grown since the open is measured again, so bytes appended
 *       by another process are read); the cursor moves on past it. */
MP4CORE_API int32_t GetNextSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                  MP4Sample **sample);
MP4CORE_API int32_t GetSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                              int32_t time, MP4Sample **sample);

/* SampleDataFree releases an MP4Sample and its Data, and nulls *sample.
 * A null sample or *sample frees nothing. Result: always 1.
 * Threads: any; it touches only the record. */
MP4CORE_API int32_t SampleDataFree(MP4Sample **sample);

/* MP4freeData releases one block that the library handed out whole (an
 * Mp4MediaInfo record and each of its data blocks, the blocks of
 * IodConfigs) and nulls *block. It does not look inside the block: free an
 * Mp4MediaInfo's data blocks first, and never an MP4Sample with it. A null
 * block or *block frees nothing. Result: always 1.
 * Threads: any; it touches only the block. */
MP4CORE_API int32_t MP4freeData(void **block);

/* SeekTrack moves the cursor to time (ticks) and reads the sample there,
 * as GetSample does, but a video track lands on the last key frame at or
 * before time (before the first one: sample 0; for a time of 0 or below
 * with MP4_TABLE_KEYFRAMES: the first key frame); an audio track on the
 * last sample at or before time. The cursor ends behind that sample.
 * Results: those of GetSample, 1 down to -82, with the same meanings. */
MP4CORE_API int32_t SeekTrack(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                              int32_t time, MP4Sample **sample);

/* SeekTrackPos chooses the sample as SeekTrack does but reads nothing: it
 * leaves the cursor on that sample, so that GetNextSample gives it next,
 * and stores the sample's time (ticks) in *position.
 *   position  receives the time on result 1, untouched otherwise.
 * Results: 1 done; 0 the track has no samples; -99 file or position null,
 * or trackId 0; -98 to -92 as for GetNextSample; -91 video: the track in
 * use is unusable; -90 video: no sample table; -89, -88 audio:
 * as -91, -90. Allocates nothing and does not read the file. */
MP4CORE_API int32_t SeekTrackPos(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                 int32_t time, uint32_t *position);

/* NextKeyFrame and PrevKeyFrame step a video track from its cursor to a
 * key frame and give that key frame as GetNextSample would, leaving the
 * cursor behind it. A cursor on a key frame gives that key frame in both
 * directions. Otherwise NextKeyFrame goes forward to the next key frame
 * (none left: sample 0), and PrevKeyFrame back to the key frame before the
 * nearest one behind the cursor (none: round to the last key frame). The
 * ends of a track that has samples are never reported.
 * Results of both:
 *    1  *sample holds a new record.
 *    0  the track has no samples.
 *  -99  file or sample null, or trackId 0.
 *  -98, -97, -96  video track not found, as for GetNextSample.
 *  -95  trackType is MP4_TRACK_AUDIO: audio has no key frames.
 *  -94  trackType is neither 1 nor 2.
 *  -93  no memory for the record.
 *  -91  the track in use is unusable.
 *  -90  the track has no sample table.
 *  -89  no memory for the sample's bytes.
 *  -88  the key frame's size is 0.
 *  -87  the file holds fewer bytes than the key frame needs.
 * On -89 and -88 the cursor stays on the chosen key frame, on -87 it
 * stands behind it. */
MP4CORE_API int32_t NextKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                 MP4Sample **sample);
MP4CORE_API int32_t PrevKeyFrame(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                 MP4Sample **sample);

/* Mp4VideoSeek brings the video track last used (after MP4FileOpen the
 * first one) and the caller's decoder to sample sampleNumber: it steps to
 * the key frame at or before the target and hands it to decore; for a
 * target that is no key frame it then feeds decore the samples from that
 * key frame up to the one before the target, so that the next
 * GetNextSample gives the target. Every sample it fetches is
 * released before it returns. It prints the list of video tracks
 * ("VIDEO:Track ID[..] ...") on standard output.
 *   file          read handle opened with MP4_TABLE_KEYFRAMES.
 *   reserved      must be 0.
 *   sampleNumber  0-based target, at most the track's sample count.
 *   result        receives the low 32 bits of DecoreFrame word 1 on
 *                 result 1, untouched otherwise.
 *   contextWord   stored in slot MP4_DECORE_CONTEXT_SLOT of context before
 *                 the first decore call; must not be null.
 *   context       the decoder's context, passed to decore.
 *   frameWord0-3  the first contents of the DecoreFrame (word 0 is
 *                 replaced by each sample's address).
 * Results: 1 done; -1 bad arguments (null file, result, contextWord or
 * context, reserved not 0, target out of range), no video track, an
 * unusable track or one without key frame table, or no key frame at or
 * before the target (nothing written or moved); -2 no decore is linked
 * into the application (checked first, nothing moved); -31 a key frame
 * step failed; -32 decore failed on the key frame; -33 a sample could not
 * be read, or decore failed, while samples were fed. After -31 to -33 the
 * cursor stays where the failure left it and the decoder keeps what it
 * has seen.
 * Threads: the handle's thread; decore runs on it, inside the call. */
MP4CORE_API int32_t Mp4VideoSeek(MP4_local_file *file, uint32_t reserved, int32_t sampleNumber,
                                 uint32_t *result, void *contextWord, void *context,
                                 uintptr_t frameWord0, uintptr_t frameWord1,
                                 uintptr_t frameWord2, uintptr_t frameWord3);

/* ---- Authoring -------------------------------------------------------- */

/* CreateTrack adds a track to a write handle and gives it the next track
 * ID (1, 2, ... in the order of successful calls). At most one track of
 * each type; create the video and audio tracks first, then the object
 * descriptor track, then the scene description track, whose generated
 * samples describe the media tracks that exist at that moment.
 *   file              write handle from MP4FileNew.
 *   trackType         MP4_TRACK_VIDEO, _AUDIO, _OD or _SCENE.
 *   width, height     picture size (16 bits kept). Video with both 0 and a
 *                     config: read from the config's video object layer.
 *   timeResolution    video: time increment resolution, written into the
 *                     header the library builds when there is no config.
 *   timescale         ticks per second of the track's times; not 0 for
 *                     video and audio (an object descriptor or scene track
 *                     takes 0 and writes it as it is).
 *   profileLevel      video: profile and level indication.
 *   audioProfile      audio: audio object type less 1; with audioChannels
 *   audioChannels     and audioSampleRate it makes the decoder
 *   audioSampleRate   configuration when config is absent.
 *   configSize        video, audio: bytes of config, at most 52.
 *   config            video, audio: decoder configuration, copied; null
 *                     only with configSize 0.
 *   tempFileName      video, audio: temp file for the frames, created now
 *                     and removed by the flush. The library keeps the
 *                     pointer: the text must stay valid until MP4FileFlush
 *                     has returned. Not the other media track's name nor
 *                     the output's.
 *   compositionTimes  video: non-zero writes composition offsets ("ctts").
 * Results: 1 done; -99 for every failure, with a diagnostic on standard
 * error ("unsupport track type" on standard output): a bad trackType
 * (checked first, so also with a null file), file null, a second track of a
 * type, a media track after an object descriptor or scene track, timescale
 * 0 for video or audio, config too long or missing, no temp file name or
 * one already in use, video above 8191 wide or high without config, the
 * temp file can't be created, no memory. Refusals use
 * no ID; a failure after the ID was given (no memory, temp file) uses it
 * up and leaves the slot empty.
 * On a fragmented handle (MP4FileNewEx) video and audio tracks are taken
 * with the same arguments and checks, but tempFileName may be null and is
 * not used; object descriptor and scene description tracks, and any track
 * once the first frame has been taken, are refused with -99 and a
 * diagnostic that says why.
 * Threads: the handle's thread. */
MP4CORE_API int32_t CreateTrack(MP4_local_file *file, uint32_t trackType, uint32_t width,
                                uint32_t height, uint16_t timeResolution, uint32_t timescale,
                                uint32_t profileLevel, uint32_t audioProfile,
                                uint32_t audioChannels, uint32_t audioSampleRate,
                                uint32_t configSize, const uint8_t *config,
                                const char *tempFileName, uint8_t compositionTimes);

/* AddVideoFrame appends one frame to the video track: its bytes to the
 * temp file, its size, time and key frame mark to the track's tables. The
 * first frame should be a key frame: the writer starts a chunk at each.
 *   frameSize, frameData  the frame; frameData is not kept.
 *   compositionOffset     composition less decoding time, in ticks; kept
 *                         only when hasCompositionOffset is non-zero, and
 *                         written when the track has compositionTimes.
 *   timeStamp             decoding time in ticks of the track's timescale;
 *                         never below the previous frame's (equal is fine).
 *   keyFrame              exactly 1 marks a key frame.
 * Results: 1 done; -99 for every failure, with a diagnostic on standard
 * error: file null, no video track, frameData null with frameSize above 0,
 * the frame would take the temp file past 4 GiB - 1 bytes, a time stamp
 * below the previous one, no memory for the tables, or a short write to
 * the temp file. A short write leaves the frame in the tables but not
 * whole in the temp file: give the file up. When only the table block for
 * the next frame can't be made, this frame is taken whole and the next
 * call tries again. Every other failure changes nothing.
 * On a fragmented handle (MP4FileNewEx) the frame is copied and held
 * until its fragment is written; the first frame of the handle writes the
 * file's header. Time stamps follow the rules above; there is no temp
 * file and no 4 GiB limit, but a frame of 256 MiB or more is refused.
 * Results there: 1 the frame is taken (and any fragment it completed is
 * in the file); -99 for every failure, with a diagnostic on standard
 * error: file null, no video track, frameData null with frameSize above
 * 0, a frame too large, a time stamp below the previous one, no memory
 * (nothing taken; or the frame taken and its fragment left to a later
 * call), a failed write of the header or of a fragment (the frame is
 * taken, the file is cut back to the end of its last whole fragment, and
 * every later call but MP4FileFlush is refused with -99), or a handle
 * given up so before.
 * Threads: the handle's thread. */
MP4CORE_API int32_t AddVideoFrame(MP4_local_file *file, uint32_t frameSize,
                                  const uint8_t *frameData, uint32_t compositionOffset,
                                  uint32_t timeStamp, uint32_t keyFrame,
                                  uint8_t hasCompositionOffset);

/* AddAudioFrame appends one frame to the audio track, as AddVideoFrame
 * does, without key frames and composition offsets; on a fragmented
 * handle as AddVideoFrame does there, every audio frame a sync sample.
 * Results: 1 done; -99 as for AddVideoFrame, with "no audio track".
 * Threads: the handle's thread. */
MP4CORE_API int32_t AddAudioFrame(MP4_local_file *file, uint32_t frameSize,
                                  const uint8_t *frameData, uint32_t timeStamp);

/* ---- Tracks and samples by number ------------------------------------- */

/* The calls below work on classic and modern read handles. None of them
 * moves the track in use; only MP4ReadSample moves a cursor. Their
 * trackType is that of MP4TrackInfo: 1 video, 2 audio, and 0, 3, 4, 5 for
 * the tracks of other handlers (a classic handle has tables for video and
 * audio only). */

/* MP4GetTrackCount gives the number of "trak" atoms of the file's "moov".
 * Results: 1 done; -99 file or count null.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetTrackCount(MP4_local_file *file, uint32_t *count);

/* MP4GetTrackInfo describes the track at index (from 0, in the order of the
 * "trak" atoms; every "trak" is listed, also one without tables).
 *   info  the caller's record; zeroed and filled on result 1.
 * Results: 1 done; -99 file or info null; -98 index is not below the
 * track count.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetTrackInfo(MP4_local_file *file, uint32_t index, MP4TrackInfo *info);

/* MP4GetSampleInfo describes sample sampleNumber of a track without
 * reading its bytes. On a classic handle IsKeyFrame is the classic mark,
 * CompositionOffset 0, DescriptionIndex 1 and Duration what the next
 * sample's time tells (0 for the last).
 * Results: 1 done; -99 file or info null, or trackId 0; -98 no track of
 * that ID and type; -97 the track has no sample table; -96 sampleNumber is
 * not below the track's sample count.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetSampleInfo(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                     uint32_t sampleNumber, MP4SampleInfo *info);

/* MP4ReadSample reads sample sampleNumber of a track into a new MP4Sample
 * (released with SampleDataFree). Afterwards the cursor of a video or
 * audio track stands behind it, as after GetSample.
 * Results: 1 done; -99 file or sample null, or trackId 0; -98 no track of
 * that ID and type; -97 the track has no sample table; -96 sampleNumber is
 * not below the sample count; -95 no memory for the record; -94 the
 * sample's size is 0; -93 no memory for its bytes; -92 the file holds
 * fewer bytes than the sample needs. The cursor moves on -94 to -92 too.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4ReadSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                  uint32_t sampleNumber, MP4Sample **sample);

/* MP4FindSample gives the number of the last sample whose decoding time is
 * at or before time (ticks, 64 bits); with MP4_FIND_KEY in flags the last
 * sync sample at or before it.
 * With MP4_FIND_PRESENTATION time is on the presentation timeline instead,
 * in track ticks, with the track's edit list applied (its leading empty
 * edits and the media time of its first non-empty edit, at rate 1): the
 * sample is the one presented last at or before time (decoding time plus
 * composition offset; of equal ones the last in decoding order), which
 * B-frames make other than the decoding-order answer. A time inside the
 * leading empty edits or before the first sample presented gives that
 * first sample. With MP4_FIND_KEY too: the last sync sample in decoding
 * order at or before the sample so found. The search looks at the
 * samples whose decoding times lie within the track's spread of
 * composition offsets below time; the first such search on a track walks
 * its samples once to learn that spread (nothing is kept per sample).
 * Results: 1 done; -99 file or sampleNumber null, or trackId 0; -98 flags
 * holds an unknown bit; -97 no track of that ID and type; -96 the track
 * has no sample table; -95 no such sample (no samples, or no sync sample
 * at or before time).
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4FindSample(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                  uint64_t time, uint32_t flags, uint32_t *sampleNumber);

/* MP4ReadSampleInto gives the description of sample sampleNumber (as
 * MP4GetSampleInfo) and its bytes, read into the caller's buffer: one
 * call, no allocation, through the handle's read-ahead (a run of samples
 * read in file order costs one read of the file per window). Afterwards
 * the cursor of a video or audio track stands behind the sample, as after
 * MP4ReadSample. On a classic handle the description is MP4GetSampleInfo's
 * there.
 *   buffer    capacity bytes of the caller's; may be null when capacity
 *             is 0 (a way to learn the size: the call gives -91).
 *   info      receives the description on results 1, -91 and -92.
 * Results: 1 done (a sample of size 0 too: nothing is read); -99 file or
 * info null, buffer null with a capacity, or trackId 0; -98 no track of
 * that ID and type; -97 the track has no sample table; -96 sampleNumber
 * is not below the track's sample count; -92 the file holds fewer bytes
 * than the sample needs (the cursor moves on); -91 capacity is below the
 * sample's size: nothing is read and no cursor moves.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4ReadSampleInto(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                      uint32_t sampleNumber, uint8_t *buffer, uint32_t capacity,
                                      MP4SampleInfo *info);

/* MP4GetSampleInfos describes samples first to first + count - 1 of a
 * track into infos[0] to infos[count - 1], each as MP4GetSampleInfo would,
 * in one pass over the track's tables.
 *   infos  count records of the caller's; may be null when count is 0.
 * Results: 1 done (count 0 with first at most the sample count: nothing
 * written); -99 file null, infos null with a count, or trackId 0; -98 no
 * track of that ID and type; -97 the track has no sample table; -96 first
 * + count is above the track's sample count (nothing written).
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetSampleInfos(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                      uint32_t first, uint32_t count, MP4SampleInfo *infos);

/* MP4ReadSamples reads a batch: samples from first on, at most count of
 * them, back to back into buffer as many as fit in capacity, each
 * described in infos (sample first + i in infos[i]; its bytes start at the
 * sum of the sizes of infos[0] to infos[i - 1]). Samples that lie next to
 * each other in the file are read with one read; the batch takes one pass
 * over the tables and allocates nothing. A sample the file can't give
 * whole ends the batch before it. Afterwards the cursor of a video or
 * audio track stands behind the last sample read.
 *   buffer    capacity bytes of the caller's; may be null when capacity
 *             is 0.
 *   infos     count records of the caller's; those from *done on may
 *             have been written too.
 *   done      receives the number of samples read on results 1, -91 and
 *             -92 (0 on the last two).
 * Results: 1 done, *done from 1 to count (count 0: 0); -99 file, infos
 * or done null, buffer null with a capacity, or trackId 0; -98 no track
 * of that ID and type; -97 the track has no sample table; -96 first +
 * count is above the track's sample count; -92 the file holds fewer bytes
 * than the first sample needs (infos[0] describes it; the cursor moves
 * on); -91 the first sample does not fit in capacity: infos[0] describes
 * it (its Size is the capacity needed), nothing is read and no cursor
 * moves.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4ReadSamples(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                   uint32_t first, uint32_t count, uint8_t *buffer,
                                   uint64_t capacity, MP4SampleInfo *infos, uint32_t *done);

/* MP4NextInFileOrder steps a cursor of the handle through the samples of
 * every track with a sample table in the order of their file offsets, as
 * a player or a remuxer reads the file: each call gives the next one. It
 * merges the tracks' samples, each track taken in its own order (sample
 * numbers rising), by the offset of each track's next sample; equal
 * offsets go in track order. A track whose samples do not rise in the
 * file is merged as it stands. The cursor holds a few bytes per track and
 * none per sample; it is made on the first call and released with the
 * handle. It moves no track's sample cursor.
 *   trackIndex    in: UINT32_MAX (re)starts the cursor at the beginning
 *                 (the call then gives the first sample of the file);
 *                 any other value continues where the last call ended.
 *                 out: the track's index as MP4GetTrackInfo takes it
 *                 (from 0, in the order of the "trak" atoms).
 *   sampleNumber  receives the sample's number in that track, for the
 *                 calls by number (MP4ReadSampleInto).
 * Results: 1 done; 0 no sample is left (both outputs untouched; the
 * cursor stays at the end until restarted); -99 file, trackIndex or
 * sampleNumber null; -98 not a read handle; -97 no memory for the
 * cursor.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4NextInFileOrder(MP4_local_file *file, uint32_t *trackIndex,
                                       uint32_t *sampleNumber);

/* MP4GetDecoderConfig gives the decoder configuration of a track's first
 * sample entry: the payload of its configuration atom behind the 8-byte
 * head (and behind version and flags for "vpcC", "vvcC" and "dfLa"):
 * "avcC", "hvcC", "av1C", "vpcC", "vvcC", "dOps", "dac3", "dec3", "dac4",
 * "mhaC", "iacb", "dmlp", "dfLa", "alac", "d263", "damr"; for "esds" the
 * DecoderSpecificInfo (the AudioSpecificConfig, the MPEG-4 video
 * headers). A Dolby Vision entry gives its base codec's ("avcC", "hvcC",
 * "av1C"); its "dvcC" or "dvvC" is reached with MP4GetAtom, as are the
 * configurations of the other entries.
 *   data  receives one new block (release with MP4freeData) on result 1.
 *   size  receives its length on result 1.
 * Results: 1 done; -99 file, data or size null, or trackId 0; -98 no
 * track of that ID and type; -97 the entry has no configuration (MP3,
 * PCM, an "esds" without DecoderSpecificInfo): nothing is allocated; -96
 * the file holds fewer bytes than the atom claims, or the atom claims more
 * than 1 MiB; -95 no memory.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetDecoderConfig(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                        uint8_t **data, uint32_t *size);

/* MP4GetAtom gives the payload of the atom that path names: everything
 * behind its 8-byte head (16 with a 64-bit size; a full atom's version and
 * flags included; a "uuid" behind its 16-byte type too), read from the
 * file. The path is four-character names joined by "/", from the top
 * level, each optionally followed by a 1-based index among its siblings of
 * that name: "moov/trak[2]/mdia/minf/stbl/stsd/hvc1/colr",
 * "moov/udta/meta/ilst". "*" matches any name ("*[2]" as the step behind
 * "stsd" is the second sample entry); "\xC2\xA9" (the UTF-8 copyright sign)
 * stands for the byte 0xA9 that starts the names of "ilst" items. The walk
 * follows the tree the open read: on a classic handle it ends where the
 * classic reader stopped; on a modern handle the children of "meta", of
 * every sample entry of a "vide" or "soun" track and of the entries
 * "tx3g", "wvtt", "stpp" and "mett" are reached, those of unknown entries
 * of other handlers are not.
 *   data  receives one new block (release with MP4freeData) on result 1;
 *         an empty payload gives a block of no bytes.
 *   size  receives the payload's length on result 1 and -94.
 * Results: 1 done; -99 file, path, data or size null; -98 the path is
 * malformed: empty, longer than 255 characters or 32 names, a name of
 * other than four characters, an empty "/" step, or an index that is 0,
 * not a number or above 99999999; -97 no atom at that path; -96 the file
 * holds fewer bytes than the atom claims; -95 no memory; -94 the payload
 * is above 16 MiB (nothing is read; *size holds its length).
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetAtom(MP4_local_file *file, const char *path, uint8_t **data,
                               uint64_t *size);

/* ---- Metadata and chapters -------------------------------------------- */

/* Types of MP4Tag.Type. */
enum { MP4_TAG_TEXT = 1, MP4_TAG_INTEGER = 2, MP4_TAG_BINARY = 3, MP4_TAG_IMAGE = 4 };

/* One tag of a file or of a track. 80 bytes. The keys of the common
 * vocabulary are lower-case: "title", "artist", "album_artist", "album",
 * "date", "genre", "comment", "composer", "copyright", "description",
 * "encoder", "track", "disc", "compilation", "cover", "location" (ISO 6709
 * text, e.g. "+48.8577+002.2950+035.000/"), "make", "model", "software",
 * "creation_time" and "modification_time" (ISO 8601 UTC,
 * "2024-05-01T08:00:00Z"); anything else keeps the file's own key, e.g.
 * "com.apple.iTunes:iTunNORM" or "com.apple.quicktime.make". Where two
 * places give one key, docs/behaviour.md states which one wins; the other
 * stays listed under its own key. */
typedef struct MP4Tag {
    const char *Key;       /* UTF-8, NUL-terminated */
    uint32_t Type;         /* MP4_TAG_* */
    uint32_t TrackId;      /* 0: the file's; else the track it belongs to */
    const uint8_t *Value;  /* text: UTF-8 followed by a NUL not counted in
                              Size; binary and image: the bytes; integer:
                              null (the number is in Integer) */
    uint32_t Size;         /* bytes of Value */
    uint32_t Pad;          /* zero */
    int64_t Integer;       /* integer tags; track and disc: the number */
    int64_t Total;         /* track and disc: the count, 0 when none */
    const char *Mime;      /* images: "image/jpeg" or "image/png"; else
                              null */
    const char *Source;    /* where it came from, as an MP4GetAtom path, e.g.
                              "moov/udta/meta/ilst/\xC2\xA9nam" (UTF-8) */
    uint32_t Reserved[4];  /* zero */
} MP4Tag;

/* One chapter. 40 bytes. */
typedef struct MP4Chapter {
    uint64_t Start;        /* in ticks of Timescale */
    uint64_t End;          /* a chapter track: the end of the sample;
                              "chpl": the next chapter's start, the last
                              chapter's the end of the movie */
    uint32_t Timescale;    /* "chpl": 10,000,000; a chapter track: its
                              "mdhd" timescale */
    uint32_t Pad;          /* zero */
    const char *Title;     /* UTF-8, NUL-terminated */
    uint32_t Reserved[2];  /* zero */
} MP4Chapter;

/* MP4GetMetadata lists the tags of a read handle (classic or modern):
 * iTunes items ("moov/udta/meta/ilst", "moov/meta/ilst"), QuickTime
 * metadata by key ("meta" with "keys"), the "udta" strings (3GPP and
 * "\xC2\xA9xyz"), the "mvhd" times, and per track its "tkhd"/"mdhd" times
 * and "udta" "name". An item the library can't read whole (a size, count,
 * index or length beyond its atom, nesting too deep) is left out. Each
 * container is read whole, up to 16 MiB (a classic handle reads "moov"
 * and each "trak" so, as its tree ends at names it does not know).
 *   tags   receives one block from malloc that holds the array and every
 *          key, value and source string, released with MP4FreeMetadata; null
 *          when the file has no tags.
 *   count  receives the number of tags.
 * Results: 1 done; -99 file, tags or count null; -98 file is not a read
 * handle; -95 no memory.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetMetadata(MP4_local_file *file, MP4Tag **tags, uint32_t *count);

/* MP4FreeMetadata releases the block of MP4GetMetadata. Null does nothing.
 * Threads: any; it touches only the block. */
MP4CORE_API void MP4FreeMetadata(MP4Tag *tags);

/* MP4GetChapters lists the chapters of a read handle in time order: those
 * of a QuickTime chapter track (a "text" track that a "tref" "chap" of
 * another track names: each sample a 16-bit length and the title) when
 * there is one, else those of "moov/udta/chpl" (always on a classic
 * handle, which has no tables for text tracks). A chapter whose title
 * can't be read whole is left out.
 *   chapters  receives one block from malloc that holds the array and the
 *             titles, released with MP4FreeChapters; null when the file
 *             has no chapters.
 *   count     receives the number of chapters.
 * Results: 1 done; -99 file, chapters or count null; -98 file is not a
 * read handle; -95 no memory.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4GetChapters(MP4_local_file *file, MP4Chapter **chapters, uint32_t *count);

/* MP4FreeChapters releases the block of MP4GetChapters. Null does nothing.
 * Threads: any; it touches only the block. */
MP4CORE_API void MP4FreeChapters(MP4Chapter *chapters);

/* MP4SetMetadata gives a progressive or fragmented write handle (MP4FileNewEx)
 * the tags it writes: before its flush, on a fragmented handle before its
 * first sample ("moov" is written then). Each call replaces what the one
 * before set; the library copies what it needs. Tags of the common
 * vocabulary go to iTunes items in "moov/udta/meta" ("hdlr" "mdir"),
 * "location" to "\xC2\xA9xyz" and, with "make", "model", "software" and
 * "creation_time", to QuickTime metadata by key in "moov/meta"; the two
 * times also to "mvhd". Other keys by their form: "mean:name" a freeform
 * iTunes item, a name with a "." (and no ":") a QuickTime key, four
 * characters (the first may be "\xC2\xA9") an iTunes item of that name.
 * Text is UTF-8; "track" and "disc" are integers (number and Total, each up
 * to 65535), "compilation" 0 or 1, "cover" an image, the times ISO 8601
 * text ("2024-05-01T10:00:00+02:00"). Set on a fragmented handle before
 * any track, the handle takes its tracks from MP4AddTrack.
 *   tags   count records; null only with count 0 (which clears them).
 * Results: 1 done; -99 file null, or tags null with a count; -98 the handle
 * is not a progressive or fragmented write handle, or its tracks came
 * from CreateTrack; -97 too late: a fragmented handle has written its
 * "moov", or a write failed; -96 a tag does not fit: Key null, empty,
 * above 128 bytes or of no form above, a Type not MP4_TAG_* or not the
 * key's, TrackId not 0, Value null with a Size or above 16 MiB, Pad or a
 * Reserved word not zero, an image without "image/jpeg" or "image/png", a
 * time that is no ISO 8601 time from 1904 on, more than 4096 tags; -93 no
 * memory. Nothing changes on a failure.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4SetMetadata(MP4_local_file *file, const MP4Tag *tags, uint32_t count);

/* MP4SetChapters gives a progressive or fragmented write handle its
 * chapters, as MP4SetMetadata does its tags: written as "chpl" (the
 * first 255, titles cut to 255 bytes) and, on a progressive handle with a
 * video or audio track, as a disabled chapter text track of timescale 1000
 * that a "tref" "chap" of the first such track names (a first chapter
 * that starts later begins at 0 there).
 *   chapters  count records; null only with count 0 (which clears them).
 * Results: 1 done; -99 file null, or chapters null with a count; -98 and
 * -97 as for MP4SetMetadata; -96 a chapter does not fit: Title null,
 * Timescale 0, End before Start, a start before the chapter before, Pad or
 * Reserved not zero, a title above 1024 bytes, more than 65535 chapters; -93 no memory. Nothing changes on a failure.
 * Threads: the handle's thread. */
MP4CORE_API int32_t MP4SetChapters(MP4_local_file *file, const MP4Chapter *chapters,
                                   uint32_t count);

/* ---- Description ------------------------------------------------------ */

/* RetMp4MediaInfo describes one video or audio track of a read handle for
 * its decoder: time scale, duration ("mdhd") and the decoder configuration
 * of its sample entry (see Mp4MediaInfo). "sawb" (AMR wide band) gives an
 * all-zero record. Reads memory only, never the file.
 *   file, trackId, trackType  as for the sample calls; moves the track in
 *                             use as they do.
 *   info  receives a new record on result 1, untouched otherwise. The
 *         caller releases each data block, then the record, with
 *         MP4freeData; all of it outlives the handle.
 * Results: 1 done; -99 file or info null, or trackId 0; -98 to -92 as for
 * GetNextSample (an unusable track counts as not found); -91 the track has
 * no sample description ("mdia", "minf", "stbl", "stsd"); -90 unknown
 * sample entry, one of the other kind of track, or one whose first child
 * is not the expected configuration atom; -88 no memory for the record;
 * -87 no memory for a data block.
 * Threads: the handle's thread. */
MP4CORE_API int32_t RetMp4MediaInfo(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                                    Mp4MediaInfo **info);

/* GetFileInfo opens fileName on a handle of its own (MP4_TABLE_MARKS),
 * fills *info with a summary of its last video and last audio track (see
 * FileInfo) and closes it again. It prints the lists of tracks
 * ("VIDEO:..." and "AUDIO:...") on standard output. A track that can't be
 * described leaves its fields 0; that is no failure.
 *   fileName  the MP4 file.
 *   info      the caller's record; zeroed and then filled.
 * Results: 1 done; -11 fileName null or the file can't be opened for
 * reading; -12 info null; -21 MP4FileOpen failed on it ("mp4 file open
 * error!" on standard output; *info stays zeroed).
 * Threads: any; it shares nothing with other calls. */
MP4CORE_API int32_t GetFileInfo(const char *fileName, FileInfo *info);

/* AAC_EsdsToAdtsHead makes the 7-byte ADTS header (no CRC, MPEG-2 ID) for
 * one raw AAC frame out of an audio track's "esds" atom, the EsdsData of
 * RetMp4MediaInfo. The atom's length comes from its own size field, read
 * at most as far as 228 bytes.
 *   esds        the whole "esds" atom, from its size field.
 *   frameSize   bytes of the raw frame, without header; up to 8184 fits
 *               the header's 13-bit length.
 *   header      receives the 7 bytes; the caller's buffer.
 *   headerSize  receives 7.
 * Results: 1 done; -21 esds null ("No EsdsData given!" on standard
 * output); -20 header or headerSize null; -19 the atom ends before the
 * decoder configuration or program configuration it needs. header and
 * headerSize are written only on 1. Fields are not masked to their width:
 * an object type of 0 or above 4, more than 7 channels or a frame above
 * 8184 bytes spill into the bits in front of their field.
 * Threads: any; it touches only its arguments. */
MP4CORE_API int32_t AAC_EsdsToAdtsHead(const uint8_t *esds, uint32_t frameSize,
                                       uint8_t *header, uint32_t *headerSize);

/* GetM4vHeaderSize measures the header of a raw MPEG-4 video stream file
 * (a video object layer, optionally behind a visual object sequence) from
 * its first 500 bytes, and reads the picture size.
 *   fileName       the stream file.
 *   width, height  receive the picture size once the parse reaches it,
 *                  also when it then fails; either may be null.
 * Result: the header size in bytes from the start of the file up to the
 * next start code; 0xFFFFFFFF ((uint32_t)-1) fileName null, the file can't
 * be opened, it starts with no video object or visual object sequence
 * start code, or the header can't be parsed (no video object layer start
 * code, not rectangular, static sprites, not 8 bits, complexity
 * estimation, newpred, reduced resolution, cut short); 0 no memory for
 * the buffer ("Unable to new memory [bitstream]" on standard output).
 * Threads: any; it shares nothing with other calls. */
MP4CORE_API uint32_t GetM4vHeaderSize(const char *fileName, uint32_t *width, uint32_t *height);

/* EncryptMp4Iod writes an Initial Object Descriptor for a read handle from
 * a fixed template, with the video track's decoder configuration (or
 * videoConfig) and the audio track's ("damr" or "esds") filled in as two
 * blocks; a missing one is an empty block. No cipher is involved.
 *   file             read handle.
 *   iod              receives the output. It belongs to the handle: valid
 *                    until the next EncryptMp4Iod on it or MP4FileClose;
 *                    never freed by the caller.
 *   videoConfig      replaces the track's video configuration; may be
 *                    null.
 *   videoConfigSize  its size; 0 asks the track.
 * Results: the output's size in bytes, 116 + both block sizes; -99 file or
 * iod null; -98 no memory for the output (the previous one stays); -97 a
 * block above 100 bytes or both together 200 or more (nothing written).
 * Threads: the handle's thread. */
MP4CORE_API int32_t EncryptMp4Iod(MP4_local_file *file, uint8_t **iod,
                                  const uint8_t *videoConfig, uint8_t videoConfigSize);

/* DecryptMp4Iod reads the two configuration blocks back out of an output
 * of EncryptMp4Iod, which it assumes: there is no length to check against.
 *   configs  the caller's record: VideoConfig, AudioConfig and their sizes
 *            are set; Head is not touched. The blocks are new, each with a
 *            zero byte behind its size, released with MP4freeData. An
 *            empty audio block leaves AudioConfig and AudioConfigSize as
 *            they were.
 *   iod      address of the descriptor's pointer.
 * Results: 1 done; 0 the video block is empty (nothing set); -99 configs,
 * iod or *iod null; -98 a block above 100 bytes or both together 200 or
 * more; -97 no memory. configs is untouched on any result but 1.
 * Threads: any; it touches only its arguments. */
MP4CORE_API int32_t DecryptMp4Iod(IodConfigs *configs, uint8_t **iod);

/* ---- Results and diagnostics ------------------------------------------ */

/* MP4ResultText gives the meaning of result of the call named call, the
 * text the mp4core tool prints with a failure: "success" for 1, and for
 * a pair it does not know a general text. Never null; the text is the
 * library's own, valid for the life of the process.
 *   call  the call's name as this header spells it ("MP4FileOpen"); may
 *         be null.
 * Threads: any. */
MP4CORE_API const char *MP4ResultText(const char *call, int32_t result);

/* MP4SetDiagnostics sends every diagnostic the library would print to sink
 * instead: one call per message, with the message's text as it would have
 * been printed (line ends included) and its channel: 1 for standard
 * output (the classic calls' messages), 2 for the debug output that goes
 * to standard error (the authoring calls, MP4FileFlush). context is
 * passed along as it is. A null sink brings back printing.
 * Threads: process-wide; not to be called while another call of the
 * library runs, on any thread. The sink runs on the thread of the call
 * that reports. */
MP4CORE_API void MP4SetDiagnostics(void (*sink)(int channel, const char *text, void *context),
                                   void *context);

#ifdef __cplusplus
}
#endif

#endif /* MP4CORE_H */
