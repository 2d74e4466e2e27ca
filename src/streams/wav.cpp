// PCM samples as a WAV file: RIFF/WAVE with a "fmt " chunk (integer PCM,
// IEEE float, A-law, mu-law; WAVE_FORMAT_EXTENSIBLE for more than two
// channels or integer samples wider than 16 bits), a "fact" chunk for the
// formats other than integer PCM, and the samples in one "data" chunk,
// turned little-endian, 8-bit samples unsigned and wider ones signed, as
// WAV stores them. The chunk sizes come from the track's sample sizes,
// before the first sample.
#include <algorithm>
#include <cstring>
#include <utility>

#include "frame/frame.h"
#include "streams/streams.h"

namespace {

constexpr uint16_t kIntegerPcm = 1;
constexpr uint16_t kFloat = 3;
constexpr uint16_t kALaw = 6;
constexpr uint16_t kMuLaw = 7;
constexpr uint16_t kExtensible = 0xFFFE;

// Offsets behind the entry's head: the sample size field of every sound
// description, and of version 2 the width and the format flags.
constexpr size_t kEntrySampleBits = 18;
constexpr size_t kLpcmBits = 48;
constexpr size_t kLpcmFlags = 52;
constexpr uint32_t kLpcmIsFloat = 1;
constexpr uint32_t kLpcmIsBigEndian = 2;
constexpr uint32_t kLpcmIsSigned = 4;
constexpr uint32_t kLpcmNonInterleaved = 32;

// The WAVE_FORMAT_EXTENSIBLE sub-format: the format code, then this GUID tail.
constexpr uint8_t kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                   0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

// How the samples of a track are stored: the row's defaults, then what its
// entry says.
struct PcmLayout {
    uint16_t wavFormat;  // kIntegerPcm, kFloat, kALaw, kMuLaw
    uint32_t bits;
    bool bigEndian;
    bool isSigned;       // integer samples
};

// Each reads what the entry says of the layout; false with a refusal's
// text in `why`.
using LayoutReader = bool (*)(const StreamTrack &track, PcmLayout *layout, const char **why);

// QuickTime's "enda" (in "wave" or the entry) makes the row's samples
// little-endian when its last byte is not 0.
bool ReadEnda(const StreamTrack &track, PcmLayout *layout, const char **) {
    size_t size = 0;
    const uint8_t *enda = FindEntryChild(track, "enda", &size);
    if (enda != nullptr && size >= 1) layout->bigEndian = enda[size - 1] == 0;
    return true;
}

// The width from the sample size field of the sound description.
bool ReadEntryBits(const StreamTrack &track, PcmLayout *layout, const char **why) {
    const size_t at = EntryHead(track) + kEntrySampleBits;
    if (track.EntrySize < at + 2) return *why = "its sample entry is cut short", false;
    layout->bits = GetBE16(track.Entry, at);
    return true;
}

// QuickTime's version 2 sound description: width and format flags.
bool ReadLpcmFlags(const StreamTrack &track, PcmLayout *layout, const char **why) {
    const size_t head = EntryHead(track);
    if (SoundEntryVersion(track) != 2 || track.EntrySize < head + kLpcmFlags + 4)
        return *why = "its \"lpcm\" entry is not a version 2 sound description", false;
    const uint32_t flags = GetBE32(track.Entry, head + kLpcmFlags);
    if (flags & kLpcmNonInterleaved) return *why = "its \"lpcm\" samples are not interleaved", false;
    layout->bits = GetBE32(track.Entry, head + kLpcmBits);
    layout->wavFormat = flags & kLpcmIsFloat ? kFloat : kIntegerPcm;
    layout->bigEndian = (flags & kLpcmIsBigEndian) != 0;
    layout->isSigned = (flags & kLpcmIsSigned) != 0;
    return true;
}

// "pcmC": format flags (bit 0: little-endian), then the width.
bool ReadPcmConfig(const StreamTrack &track, PcmLayout *layout, const char **why) {
    size_t size = 0;
    const uint8_t *config = FindEntryChild(track, "pcmC", &size);
    if (config == nullptr || size < 6) return *why = "it has no \"pcmC\" atom, or one cut short", false;
    layout->bigEndian = (config[4] & 1) == 0;
    layout->bits = config[5];
    return true;
}

struct PcmRow {
    char format[5];
    PcmLayout defaults;  // width 0: the reader gives it
    LayoutReader read;
};

constexpr PcmRow kPcmRows[] = {
    {"sowt", {kIntegerPcm, 0, false, true}, ReadEntryBits},
    {"twos", {kIntegerPcm, 0, true, true}, ReadEntryBits},
    {"raw ", {kIntegerPcm, 8, false, false}, ReadEnda},
    {"in24", {kIntegerPcm, 24, true, true}, ReadEnda},
    {"in32", {kIntegerPcm, 32, true, true}, ReadEnda},
    {"fl32", {kFloat, 32, true, true}, ReadEnda},
    {"fl64", {kFloat, 64, true, true}, ReadEnda},
    {"alaw", {kALaw, 8, false, false}, ReadEnda},
    {"ulaw", {kMuLaw, 8, false, false}, ReadEnda},
    {"lpcm", {kIntegerPcm, 0, false, false}, ReadLpcmFlags},
    {"ipcm", {kIntegerPcm, 0, false, true}, ReadPcmConfig},
    {"fpcm", {kFloat, 0, false, true}, ReadPcmConfig},
};

// The layout of the track's samples, or a refusal's text in `why`.
bool ReadLayout(const StreamTrack &track, PcmLayout *layout, const char **why) {
    const PcmRow *row = nullptr;
    for (const PcmRow &candidate : kPcmRows)
        if (std::memcmp(candidate.format, track.Format, 4) == 0) row = &candidate;
    if (row == nullptr) return *why = "it is no PCM format", false;
    *layout = row->defaults;
    if (!row->read(track, layout, why)) return false;
    const uint32_t bits = layout->bits;
    const bool integer = layout->wavFormat == kIntegerPcm &&
                         (bits == 8 || bits == 16 || bits == 24 || bits == 32);
    const bool floating = layout->wavFormat == kFloat && (bits == 32 || bits == 64);
    const bool companded = layout->wavFormat == kALaw || layout->wavFormat == kMuLaw;
    if (!integer && !floating && !companded) return *why = "its sample width has no WAV form", false;
    return true;
}

// Turns whole units in place: little-endian, then the sign bit WAV wants.
void ConvertUnits(const PcmState &pcm, uint8_t *bytes, size_t size) {
    const uint32_t unit = pcm.UnitBytes;
    for (size_t at = 0; at + unit <= size; at += unit) {
        uint8_t *u = bytes + at;
        if (pcm.Swap)
            for (uint32_t i = 0; i < unit / 2; ++i) std::swap(u[i], u[unit - 1 - i]);
        u[unit - 1] ^= pcm.SignFlip;
    }
}

}  // namespace

int32_t StartWav(StreamState *state, StreamBuffer *out) {
    const StreamTrack &track = state->Track;
    PcmLayout layout{};
    const char *why = nullptr;
    if (!ReadLayout(track, &layout, &why)) return StreamMessage(state, kStreamRefused, "%s", why);
    const uint32_t unit = layout.bits / 8;
    if (track.Channels == 0 || track.SampleRate == 0)
        return StreamMessage(state, kStreamRefused, "its channel count or sample rate is 0");
    const uint64_t blockAlign = uint64_t(track.Channels) * unit;
    const uint64_t byteRate = blockAlign * track.SampleRate;
    if (blockAlign > 0xFFFF || byteRate > 0xFFFFFFFF)
        return StreamMessage(state, kStreamRefused, "its %u channels at %u Hz pass WAV's fields",
                             track.Channels, track.SampleRate);
    const bool extensible = (layout.wavFormat == kIntegerPcm || layout.wavFormat == kFloat) &&
                            (track.Channels > 2 || (layout.wavFormat == kIntegerPcm && layout.bits > 16));
    const uint32_t fmtSize = extensible ? 40 : layout.wavFormat == kIntegerPcm ? 16 : 18;
    const bool fact = extensible || layout.wavFormat != kIntegerPcm;
    const uint64_t riffSize = 4 + (8 + fmtSize) + (fact ? 12 : 0) + 8 + track.SampleBytes + (track.SampleBytes & 1);
    if (riffSize > 0xFFFFFFFF)
        return StreamMessage(state, kStreamRefused,
                             "its %llu bytes of samples pass the 4 GiB that a WAV file's 32-bit sizes can hold",
                             static_cast<unsigned long long>(track.SampleBytes));

    uint8_t head[12 + 8 + 40 + 12 + 8] = {'R', 'I', 'F', 'F'};
    uint8_t *at = head;
    PutLE(at + 4, riffSize, 4);
    std::memcpy(at + 8, "WAVEfmt ", 8);
    PutLE(at + 16, fmtSize, 4);
    at += 20;
    PutLE(at, extensible ? kExtensible : layout.wavFormat, 2);
    PutLE(at + 2, track.Channels, 2);
    PutLE(at + 4, track.SampleRate, 4);
    PutLE(at + 8, byteRate, 4);
    PutLE(at + 12, blockAlign, 2);
    PutLE(at + 14, layout.bits, 2);
    if (fmtSize >= 18) PutLE(at + 16, fmtSize - 18, 2);
    if (extensible) {
        // Valid bits, no speaker positions, then the sub-format.
        PutLE(at + 18, layout.bits, 2);
        PutLE(at + 24, layout.wavFormat, 2);
        std::memcpy(at + 26, kGuidTail, sizeof kGuidTail);
    }
    at += fmtSize;
    if (fact) {
        std::memcpy(at, "fact", 4);
        PutLE(at + 4, 4, 4);
        PutLE(at + 8, track.SampleBytes / blockAlign, 4);
        at += 12;
    }
    std::memcpy(at, "data", 4);
    PutLE(at + 4, track.SampleBytes, 4);
    at += 8;
    if (!AppendBytes(out, head, size_t(at - head))) return kStreamNoMemory;

    PcmState &pcm = state->Pcm;
    pcm.UnitBytes = unit;
    pcm.Swap = layout.bigEndian && unit > 1;
    // WAV's 8-bit samples are unsigned and its wider ones signed.
    const bool wavSigned = unit > 1;
    pcm.SignFlip = layout.wavFormat == kIntegerPcm && layout.isSigned != wavSigned ? 0x80 : 0;
    return kStreamDone;
}

int32_t WavSample(StreamState *state, const StreamSample &sample, StreamBuffer *out) {
    PcmState &pcm = state->Pcm;
    size_t at = 0;
    // A unit begun at the end of the sample before is completed first.
    if (pcm.Carried != 0) {
        const size_t take = std::min<size_t>(pcm.UnitBytes - pcm.Carried, sample.Size);
        if (take != 0) std::memcpy(pcm.Carry + pcm.Carried, sample.Data, take);
        pcm.Carried += uint32_t(take);
        at = take;
        if (pcm.Carried < pcm.UnitBytes) return kStreamDone;
        ConvertUnits(pcm, pcm.Carry, pcm.UnitBytes);
        if (!AppendBytes(out, pcm.Carry, pcm.UnitBytes)) return kStreamNoMemory;
        pcm.Carried = 0;
    }
    const size_t whole = (sample.Size - at) / pcm.UnitBytes * pcm.UnitBytes;
    const size_t start = out->Size;
    if (!AppendBytes(out, sample.Data + at, whole)) return kStreamNoMemory;
    ConvertUnits(pcm, out->Data + start, whole);
    pcm.Carried = uint32_t(sample.Size - at - whole);
    if (pcm.Carried != 0) std::memcpy(pcm.Carry, sample.Data + at + whole, pcm.Carried);
    return kStreamDone;
}

int32_t FinishWav(StreamState *state, StreamBuffer *out) {
    // A unit the samples left unfinished goes out as it is, and an odd
    // "data" chunk gets its pad byte.
    const uint8_t pad = 0;
    if (!AppendBytes(out, state->Pcm.Carry, state->Pcm.Carried) ||
        !AppendBytes(out, &pad, state->Track.SampleBytes & 1))
        return kStreamNoMemory;
    return kStreamDone;
}
