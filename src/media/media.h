// Media description: the MPEG-4 video header parser, the walk through an
// "esds" atom's descriptors, and the bit field reader they share with the
// file summary.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mp4core.h"

// Parses a video object start code directly followed by a video object
// layer header, from `data`, reading at most `length` bytes. `width` and
// `height` are written once the parse reaches them, `headerSize` only on
// result 1. Results: 1; -1 not rectangular or ran out of input; -2 sprite
// warping points or static sprites; -3 not 8 bits; -5 complexity
// estimation; -6 newpred; -7 reduced resolution.
int32_t ParseVolHeader(const uint8_t *data, size_t length, uint32_t *width, uint32_t *height,
                       uint32_t *headerSize);

// GetM4vHeaderSize on the first bytes of a stream held in memory: the
// header size, or 0xFFFFFFFF, from at most its first 500 bytes, and the
// picture size once the parse reaches it.
uint32_t MeasureM4vHeader(const uint8_t *bytes, size_t count, uint32_t *width, uint32_t *height);

// Reads `count` bits (0 to 32), most significant first, from bit
// `position` of `buffer` (position 0 is the top bit of byte 0), and stores
// them right-aligned in `value`. Result 1, or -1 with `value` 0 when the
// field does not lie inside the `length` bytes of the buffer.
int32_t GetBitField(const uint8_t *buffer, size_t length, uint32_t *value, uint32_t count,
                    uint32_t position);

// Byte offsets inside an "esds" atom (counted from its size field) that the
// descriptor walk finds.
struct DecoderConfigPlace {
    size_t ObjectTypeOffset;      // object type indication
    size_t MaxBitRateOffset;      // u32 big-endian
    size_t AvgBitRateOffset;      // u32 big-endian
    size_t SpecificLengthOffset;  // last byte of the decoder specific info's length
    size_t SpecificOffset;        // first byte of the decoder specific info
};

// The walk through an "esds" atom's ES and decoder configuration
// descriptors, in the two length forms (one byte, or 80 80 80 and one
// byte). Reads only the `length` bytes given. Result 1 when the fields up
// to the average bit rate lie inside them, else -1. The decoder specific
// info may still end early: read it with GetBitField.
int32_t FindDecoderConfig(const uint8_t *esds, size_t length, DecoderConfigPlace *place);

// The AudioSpecificConfig fields that an ADTS header and the file summary
// need, read through the walk above.
struct AacConfig {
    uint32_t ObjectTypeIndication;
    uint32_t MaxBitRate;
    uint32_t AvgBitRate;
    uint32_t AudioObjectType;
    uint32_t FrequencyIndex;
    uint32_t ChannelConfiguration;
};
// Result 1, or -1 when the atom ends before those fields.
int32_t ReadAacConfig(const uint8_t *esds, size_t length, AacConfig *config);

// The sampling frequency table of the AudioSpecificConfig, indexes 0 to 12
// (96000 down to 7350 Hz), read both ways. The rate of an index, or 0 for
// an index beyond the table.
uint32_t SamplingFrequencyOf(uint32_t index);
// The index of a rate, or -1 when the table does not hold it.
int32_t SamplingFrequencyIndex(uint32_t sampleRate);

// Channels of the program configuration element that starts at byte 2 of
// the decoder specific info. Result 1, or -1 when its element flags pass
// the end of the `length` bytes.
int32_t ReadPceChannelCount(const uint8_t *pce, size_t length, uint32_t *channels);

// Results of the ADTS header calls.
constexpr int32_t kAdtsDone = 1;
constexpr int32_t kAdtsNoEsds = -21;
constexpr int32_t kAdtsNoOutput = -20;
constexpr int32_t kAdtsEsdsTooShort = -19;

// The ADTS header of one frame from an "esds" atom of `length` bytes.
// AAC_EsdsToAdtsHead calls it with the length the atom states, bounded by
// the "esds" record; every internal caller passes the length it knows.
int32_t MakeAdtsHeader(const uint8_t *esds, size_t length, uint32_t frameSize, uint8_t *header,
                       uint32_t *headerSize);

struct AtomNode;
struct TrackNode;

// The sample entry of a read-side track: the first child of its "stsd", or
// null when the path is broken.
const AtomNode *TrackSampleEntry(const TrackNode *track);

// The bytes of an atom's record that hold the atom: as many as its size
// field says, but no more than the record has.
size_t AtomRecordBytes(const AtomNode *atom);

// Where the decoder specific info of an "esds" atom of `length` bytes lies:
// its offset and size as its length byte states, cut to the atom. Result
// 1, or -1 when the atom has none inside it.
int32_t FindDecoderSpecificInfo(const uint8_t *esds, size_t length, size_t *offset, size_t *size);

// Sampling rates by AC-3's fscod (0 to 2), channels by its acmod (without
// the LFE), and MPEG-1 audio's rates by its sampling frequency index
// (halved for MPEG-2, quartered for MPEG-2.5): what "dac3", "dec3" and the
// frame headers say, for the readers and for mux.
constexpr uint32_t kAc3SampleRates[3] = {48000, 44100, 32000};
constexpr uint32_t kAc3ModeChannels[8] = {2, 1, 2, 3, 3, 4, 4, 5};
constexpr uint32_t kMpegAudioRates[3] = {44100, 48000, 32000};

// Releases what RetMp4MediaInfo gave: the data blocks, then the record.
// Null is allowed.
void FreeMediaInfo(Mp4MediaInfo *info);

// ---- Decoder configurations of any sample entry (decoder_config.cpp) -----

struct Root_atom;

// The "trak" of the file's "moov" with this "tkhd" ID and type (as
// ModernTrackType gives it), or null.
const AtomNode *FindTrakAtom(const Root_atom *root, uint32_t trackId, int32_t trackType);
// The first sample entry of a "trak", or null.
const AtomNode *FirstSampleEntry(const AtomNode *trak);
// The atoms of a sample entry in file order, those of a QuickTime "wave"
// among them in its place: the one behind `atom`, the first for null; null
// at the end. The walk of every look-up of a sample entry's own atoms.
const AtomNode *NextEntryAtom(const AtomNode *entry, const AtomNode *atom);
// The payload of `atom` from `skip` bytes behind its head to its end, read
// from the file into a new block: 1, -97 none, -96 the file falls short or
// the payload is above 1 MiB, -95 no memory.
int32_t ReadAtomPayload(Root_atom *root, const AtomNode *atom, uint32_t skip, uint8_t **data,
                        uint32_t *size);
// The decoder configuration of a sample entry (see MP4GetDecoderConfig):
// 1 with a new block, -97 none, -96 the file falls short, -95 no memory.
int32_t ReadDecoderConfig(Root_atom *root, const AtomNode *entry, uint8_t **data,
                          uint32_t *size);
// The ES descriptor of an "esds" payload (behind version and flags): the
// object type of its decoder configuration and where its decoder specific
// info lies (length 0: none). False when a descriptor is missing or passes
// the `size` bytes.
bool WalkEsds(const uint8_t *bytes, size_t size, uint8_t *objectType, size_t *infoAt,
              size_t *infoLength);
// Sample rate and channels of an audio sample entry: from its decoder
// configuration where it has one, else from its own fields; an "esds"
// without one (MP3) from the frame header at `firstSample` (UINT64_MAX:
// unknown).
void ReadAudioParameters(Root_atom *root, const AtomNode *entry, uint64_t firstSample,
                         uint32_t *rate, uint32_t *channels);
// The modern reader gives uncompressed audio whose samples are single
// frames as samples of up to this many frames.
constexpr uint16_t kPcmFramesPerSample = 1024;
// The bytes of one frame (all channels) of an uncompressed audio entry
// ("ipcm", "sowt", "lpcm", ...), read from the entry in the file; 0 for
// any other entry or one cut short. `byteFrames` tells a QuickTime sound
// description of version 0 or 1 (not compressed) whose tables count each
// frame as one byte.
uint32_t PcmFrameBytes(Root_atom *root, const AtomNode *entry, bool *byteFrames);
