// Stream extraction: a track's samples turned into the raw stream a decoder
// or player takes (Annex B, ADTS, Ogg Opus, FLAC, WAV, IVF, AMR, MPEG-4
// video, raw frames). A form is chosen by the track's sample entry format
// from one table (stream_forms.cpp); its converters are plain functions over
// a StreamState record that append bytes to the caller's StreamBuffer and
// never do I/O, so the caller reads the samples and writes the stream.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mp4core.h"

// Results of the stream calls.
constexpr int32_t kStreamDone = 1;
// The track can't go out in this form; StreamState.Message says why.
// Nothing was appended.
constexpr int32_t kStreamRefused = -1;
// A damaged sample: what was whole of it has been appended, and Message
// says what was left out.
constexpr int32_t kStreamDamagedSample = -2;
constexpr int32_t kStreamNoMemory = -3;

// Bytes the converters append, in a block from malloc that grows.
struct StreamBuffer {
    uint8_t *Data;
    size_t Size;
    size_t Capacity;
};

// Appends `size` bytes; false (buffer as it was) when it can't grow.
bool AppendBytes(StreamBuffer *buffer, const void *bytes, size_t size);
void FreeStreamBuffer(StreamBuffer *buffer);

// What the converters need of a track's sample entry beyond its decoder
// configuration, as ReadSampleEntry takes it from the atom tree.
struct SampleEntryFacts {
    uint8_t ObjectType;       // of its "esds" (among its atoms or in "wave"); 0 none
    bool HasSampleBits;       // the entry and the file hold the sound sample size field
    uint16_t SampleBits;      // that field
    bool Lpcm;                // a version 2 sound description that holds the two below
    uint32_t LpcmBits;        // its bits per channel
    uint32_t LpcmFlags;       // its format flags
    const uint8_t *Enda;      // the payload of "enda" (among its atoms or in "wave"), or null
    size_t EndaSize;
    const uint8_t *PcmConfig; // the payload of "pcmC", version and flags included, or null
    size_t PcmConfigSize;
};

// What the converters know of a track. The blocks stay the caller's.
struct StreamTrack {
    char Format[5];           // sample entry format; of a protected entry the original
    uint32_t TrackId;
    int32_t TrackType;        // as MP4TrackInfo: 1 video, 2 audio
    uint32_t Timescale;
    uint32_t SampleCount;
    uint64_t Duration;        // ticks, the sum of the sample durations
    uint64_t SampleBytes;     // the sizes of all samples added up
    uint32_t LargestSample;
    uint32_t Width, Height;   // picture size (video)
    uint32_t SampleRate, Channels;  // as MP4GetTrackInfo gives them (audio)
    const uint8_t *Config;    // MP4GetDecoderConfig's payload, or null
    size_t ConfigSize;
    SampleEntryFacts Entry;
};

// One sample as the converters take it.
struct StreamSample {
    const uint8_t *Data;      // may be null when Size is 0
    size_t Size;
    uint64_t DecodeTime;      // ticks from the track's first sample
    uint64_t Duration;        // ticks up to the next sample (the last: to the track's end)
    bool IsSync;
};

// What the converters of one form keep between samples.
struct AnnexBState {
    uint32_t LengthSize;      // bytes of each NAL unit's length field, 1 to 4
    bool Hevc;                // NAL unit types as HEVC numbers them
    uint8_t *ParameterSets;   // the configuration's parameter sets in Annex B form
    size_t ParameterSetsSize;
    uint64_t ParameterTypes;  // bit n: the configuration holds a unit of type n
};

struct AdtsState {
    uint8_t Profile;          // audio object type less 1
    uint8_t FrequencyIndex;
    uint8_t ChannelConfiguration;
};

struct OggState {
    uint8_t *Body;            // the page being filled: its packet bytes
    size_t BodySize;
    uint8_t Lacing[255];
    uint32_t Segments;
    uint64_t Granule;         // of the last packet that ends on the page; all ones for none
    bool Continued;           // the page opens with the rest of a packet
    bool Closed;              // the page takes no more packets
    uint32_t Sequence;        // of the next page written
};

struct PcmState {
    uint32_t UnitBytes;       // bytes of one sample of one channel
    bool Swap;                // the track's samples are big-endian
    uint8_t SignFlip;         // XORed into each unit's top byte (signedness WAV wants)
    uint8_t Carry[8];         // a unit cut by the end of a sample, for the next
    uint32_t Carried;
};

struct StreamForm;

struct StreamState {
    const StreamForm *Form;
    StreamTrack Track;
    uint64_t Samples;         // samples taken so far
    char Message[192];        // why, after kStreamRefused or kStreamDamagedSample
    AnnexBState AnnexB;
    AdtsState Adts;
    OggState Ogg;
    PcmState Pcm;
};

// One row of the table of forms.
struct StreamForm {
    char Format[5];           // sample entry format
    uint8_t ObjectType;       // "mp4a", "mp4v": the object type indication of the row; 0 any
    const char *Name;         // "H.264 Annex B"
    const char *Tag;          // AMR: the magic line in front; IVF: the codec's four characters
    int32_t (*Start)(StreamState *state, StreamBuffer *out);
    int32_t (*Sample)(StreamState *state, const StreamSample &sample, StreamBuffer *out);
    int32_t (*Finish)(StreamState *state, StreamBuffer *out);  // null: nothing to add
};

extern const StreamForm kStreamForms[];
extern const size_t kStreamFormCount;

// The form of a track, or null when no row takes it.
const StreamForm *FindStreamForm(const StreamTrack &track);

// A stream in a form: StartStream (a zeroed state; it keeps a copy of
// `track`), AddStreamSample for each sample in decoding order,
// FinishStream, and EndStream whatever the results were.
int32_t StartStream(StreamState *state, const StreamForm *form, const StreamTrack &track,
                    StreamBuffer *out);
int32_t AddStreamSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);
int32_t FinishStream(StreamState *state, StreamBuffer *out);
void EndStream(StreamState *state);

// Writes the low `bytes` bytes of `value` at `at`, least significant first,
// as Ogg, WAV and IVF store their fields.
inline void PutLE(uint8_t *at, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) at[i] = uint8_t(value >> (8 * i));
}

// Sets state->Message and gives `result`.
int32_t StreamMessage(StreamState *state, int32_t result, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// ---- The converters of the table, one file per form --------------------

// raw_forms.cpp: samples as they are; the magic line of AMR in front;
// the decoder configuration in front (MPEG-4 video).
int32_t StartRaw(StreamState *state, StreamBuffer *out);
int32_t StartWithConfig(StreamState *state, StreamBuffer *out);
int32_t CopySample(StreamState *state, const StreamSample &sample, StreamBuffer *out);

// annex_b.cpp: H.264 ("avcC") and HEVC ("hvcC").
int32_t StartAvc(StreamState *state, StreamBuffer *out);
int32_t StartHevc(StreamState *state, StreamBuffer *out);
int32_t AnnexBSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);

// adts_stream.cpp: AAC from the AudioSpecificConfig.
int32_t StartAdts(StreamState *state, StreamBuffer *out);
int32_t AdtsSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);

// ogg_opus.cpp; OggCrc is Ogg's page CRC-32 (polynomial 0x04C11DB7, no
// reflection, initial value and final XOR 0) of `size` bytes after `crc`.
uint32_t OggCrc(uint32_t crc, const uint8_t *bytes, size_t size);
int32_t StartOggOpus(StreamState *state, StreamBuffer *out);
int32_t OggOpusSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);
int32_t FinishOggOpus(StreamState *state, StreamBuffer *out);

// flac_stream.cpp
int32_t StartFlac(StreamState *state, StreamBuffer *out);

// wav.cpp: the PCM formats.
int32_t StartWav(StreamState *state, StreamBuffer *out);
int32_t WavSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);
int32_t FinishWav(StreamState *state, StreamBuffer *out);

// ivf.cpp: AV1 and VP9.
int32_t StartIvf(StreamState *state, StreamBuffer *out);
int32_t IvfSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);
int32_t Av1IvfSample(StreamState *state, const StreamSample &sample, StreamBuffer *out);

// ---- Tracks of a read handle (track_source.cpp) -------------------------

// The converters' view of a track of a read handle: its facts, decoder
// configuration, sample entry facts and sample sizes. Reads the file. The
// blocks in `track` are new (release with FreeStreamTrack); a
// configuration or payload that can't be read is left null. Results: 1, or
// MP4GetSampleInfo's code when the samples can't be listed.
int32_t ReadStreamTrack(MP4_local_file *file, const MP4TrackInfo &info, StreamTrack *track);
void FreeStreamTrack(StreamTrack *track);

struct AtomNode;
struct Root_atom;

// The facts of a sample entry of the file's tree (null: none): the sound
// fields from its record, QuickTime's version 2 fields and the payloads of
// its atoms from the file, each payload up to 1 MiB. The payloads are new
// blocks (release with FreeSampleEntry).
void ReadSampleEntry(Root_atom *root, const AtomNode *entry, SampleEntryFacts *facts);
void FreeSampleEntry(SampleEntryFacts *facts);
