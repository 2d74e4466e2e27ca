// Library frame: the file handle in its two forms, the Root_atom, and the
// primitives for big-endian fields, four-character names and zeroed memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "mp4core.h"

struct AtomNode;
struct TrackNode;
struct VideoTrackNode;
struct AudioTrackNode;
struct OtherTrackNode;
struct ReadAhead;
struct FragmentWriter;
struct ProgressiveWriter;

// A path holds at most this many bytes, terminator included.
constexpr size_t kFilePathBytes = 256;

struct Root_atom {
    char FilePath[kFilePathBytes];
    uint64_t FileSize;      // read: size of the file; write: bytes written so far
    FILE *FileStream;       // owned: "rb" when reading, "wb" when writing
    AtomNode *FirstAtom;    // head of the top-level list
};

// Per-track counters and temp file of a write handle.
struct IntakeState {
    uint32_t TotalSamples;
    uint32_t TotalKeyFrames;
    uint32_t TotalBytes;     // also the temp file offset of the next frame
    uint32_t BlockSample;
    uint32_t BlockKeyFrame;
    FILE *TempFile;          // owned by the handle
    const char *TempFileName;  // the caller's text; kept, not copied
    TrackNode *LastBlock;    // last block of the chain seen by the intake, or null
    char *TempBuffer;        // owned: the temp file's stream buffer, or null
};

struct ReadForm {
    VideoTrackNode *VideoCurrent;
    VideoTrackNode *VideoFirst;
    VideoTrackNode *VideoLast;
    AudioTrackNode *AudioCurrent;
    AudioTrackNode *AudioFirst;
    AudioTrackNode *AudioLast;
    OtherTrackNode *OtherCurrent;
    OtherTrackNode *OtherFirst;
    OtherTrackNode *OtherLast;
    int32_t TableMode;
    uint8_t *IodBuffer;      // output of EncryptMp4Iod
    ReadAhead *SampleWindow; // owned: read-ahead of sample bytes, made on first read
    uint8_t Modern;          // 1: opened by the modern reader (MP4_OPEN_MODERN)
    void *FileOrder;         // owned: MP4NextInFileOrder's cursor (one malloc'd block)
};

struct WriteForm {
    TrackNode *VideoTrack;
    TrackNode *AudioTrack;
    TrackNode *OdTrack;
    TrackNode *SceneTrack;
    uint32_t NextTrackId;
    IntakeState VideoIntake;
    IntakeState AudioIntake;
    FragmentWriter *Fragments;  // owned: the fragmented writer (MP4FileNewEx); null on a classic handle
    ProgressiveWriter *Progressive;  // owned: the progressive writer (MP4_NEW_PROGRESSIVE); else null
};

// Which form a handle has, so that a call of one family on a handle of
// another is refused rather than read through the wrong half of the union.
// A read handle is zero-allocated and so has Read.
enum class HandleForm : uint8_t { Read = 0, ClassicWrite, FragmentedWrite, ProgressiveWrite };

// One name, two forms that share the first fields; Form says which.
struct MP4_local_file {
    Root_atom *RootAtom;
    HandleForm Form;
    union {
        ReadForm read;
        WriteForm write;
    };
};

// ---- Primitives ----------------------------------------------------------

uint32_t ReadBE32(const uint8_t *bytes);
uint32_t SwapBytes32(uint32_t value);
uint16_t SwapBytes16(uint16_t value);
// Four name bytes against four: every caller compares a name with one of
// the library's own four-character names, which hold no terminator.
inline bool AtomNameEquals(const char *a, const char *b) { return std::memcmp(a, b, 4) == 0; }
bool CopyAtomName(char *destination, const char *source);
void *ZeroAlloc(size_t size);
void FreeIfSet(void *pointer);
// Makes room for `needed` units of `unit` bytes in a malloc'd block that
// holds `*capacity` units, at least doubling it, so that a block filled
// one unit at a time is moved a few times only. false without memory (or
// for a size past size_t): the block stays as it was.
bool GrowBlock(void **block, size_t *capacity, size_t needed, size_t unit);
template <typename T>
bool GrowRecords(T **records, size_t *capacity, size_t needed) {
    void *block = *records;
    const bool grown = GrowBlock(&block, capacity, needed, sizeof(T));
    *records = static_cast<T *>(block);
    return grown;
}
// The size of an open stream's file as it is now (fstat): it may have grown
// since it was first measured. 0 if it can't be told.
uint64_t FileSizeNow(FILE *stream);

// Big-endian fields of a record, read and written at byte offsets so that
// no access is unaligned.
inline uint32_t GetBE32(const uint8_t *record, size_t offset) {
    const uint8_t *p = record + offset;
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline uint64_t GetBE64(const uint8_t *record, size_t offset) {
    return (uint64_t(GetBE32(record, offset)) << 32) | GetBE32(record, offset + 4);
}
inline uint16_t GetBE16(const uint8_t *record, size_t offset) {
    const uint8_t *p = record + offset;
    return uint16_t((p[0] << 8) | p[1]);
}
inline void PutBE32(uint8_t *record, size_t offset, uint32_t value) {
    uint8_t *p = record + offset;
    p[0] = uint8_t(value >> 24);
    p[1] = uint8_t(value >> 16);
    p[2] = uint8_t(value >> 8);
    p[3] = uint8_t(value);
}
inline void PutBE64(uint8_t *record, size_t offset, uint64_t value) {
    PutBE32(record, offset, uint32_t(value >> 32));
    PutBE32(record, offset + 4, uint32_t(value));
}
inline void PutBE16(uint8_t *record, size_t offset, uint16_t value) {
    record[offset] = uint8_t(value >> 8);
    record[offset + 1] = uint8_t(value);
}

// ---- File reads (file_read.cpp) ------------------------------------------

// Reads up to `count` bytes at `offset` of the stream's file in one
// positioned read, without moving the stream or touching its buffer (the
// file is only read, so the two never disagree). Gives the bytes read.
size_t ReadFileAt(FILE *stream, uint64_t offset, uint8_t *bytes, size_t count);

// Reads `count` bytes at `offset` of the root's file through a read-ahead
// window (the handle's ReadForm::SampleWindow), which is made on first use:
// a request that the window holds is copied from it; any other one refills
// the window with a single positioned read starting at `offset`. Requests
// of more than half the window, or when there is no memory for it, are
// read directly. Gives the bytes copied, fewer only when the file gives
// fewer.
size_t ReadAheadAt(ReadAhead **window, Root_atom *root, uint64_t offset, uint8_t *bytes,
                   size_t count);
// Frees the window and nulls the pointer; a null window is fine.
void ReleaseReadAhead(ReadAhead **window);

// ---- Diagnostics (diagnostics.cpp) ---------------------------------------

// The two channels of MP4SetDiagnostics.
constexpr int kDiagnosticOutput = 1;  // standard output
constexpr int kDiagnosticDebug = 2;   // the debug output, standard error
// A message of the classic calls, printf-formatted, on standard output (or
// to the sink).
void PrintDiagnostic(const char *format, ...) __attribute__((format(printf, 1, 2)));
// The debug channel of the authoring calls; on this platform it is
// standard error (or the sink).
extern "C" void OutputDebugStringA(const char *text);
