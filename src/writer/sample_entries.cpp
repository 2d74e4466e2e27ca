// The sample entries of MP4AddTrack: one row per format says what kind of
// entry it is, which configuration atom it carries and how a configuration
// is told to fit; each entry's layout is written in one place below.
#include <cstring>
#include <iterator>

#include "frame/frame.h"
#include "writer/progressive.h"

namespace {

enum class EntryKind { Visual, Sound };
// How the caller's configuration becomes the entry's configuration atom.
enum class ConfigForm {
    Plain,      // the atom's payload as given
    FullV0,     // behind version 0 and flags 0
    FullV1,     // behind version 1 and flags 0
    Esds,       // the DecoderSpecificInfo of an "esds" the library builds
    PcmHeader,  // none given: "pcmC" built from the bits per sample
    None,       // no configuration atom
};

using ConfigCheck = bool (*)(const uint8_t *config, uint32_t size, const MP4TrackSpec &trackSpec);

bool AnyConfig(const uint8_t *, uint32_t, const MP4TrackSpec &) { return true; }
bool NoConfig(const uint8_t *, uint32_t size, const MP4TrackSpec &) { return size == 0; }
// An AVC or HEVC decoder configuration record starts with version 1.
bool AvcRecord(const uint8_t *c, uint32_t size, const MP4TrackSpec &) { return size >= 7 && c[0] == 1; }
bool HevcRecord(const uint8_t *c, uint32_t size, const MP4TrackSpec &) { return size >= 23 && c[0] == 1; }
// "av1C": marker bit and version 1.
bool Av1Record(const uint8_t *c, uint32_t size, const MP4TrackSpec &) { return size >= 4 && c[0] == 0x81; }
// "vpcC" behind its version and flags: profile to codec initialisation size.
bool VpRecord(const uint8_t *, uint32_t size, const MP4TrackSpec &) { return size >= 8; }
// "dOps": version 0, then channels, pre-skip, rate, gain, mapping family.
bool OpusHeader(const uint8_t *c, uint32_t size, const MP4TrackSpec &) { return size >= 11 && c[0] == 0; }
bool Ac3Header(const uint8_t *, uint32_t size, const MP4TrackSpec &) { return size == 3; }
bool Eac3Header(const uint8_t *, uint32_t size, const MP4TrackSpec &) { return size >= 5; }
// "dfLa" behind version and flags: the metadata blocks, STREAMINFO (type
// 0, 34 bytes) first.
bool FlacBlocks(const uint8_t *c, uint32_t size, const MP4TrackSpec &) {
    return size >= 38 && (c[0] & 0x7F) == 0 && c[1] == 0 && c[2] == 0 && c[3] == 34;
}
// "damr": vendor, decoder version, mode set, mode change period, frames
// per sample.
bool AmrHeader(const uint8_t *, uint32_t size, const MP4TrackSpec &) { return size == 9; }
// The "alac" atom's payload behind its version and flags: the 24-byte cookie.
bool AlacCookie(const uint8_t *, uint32_t size, const MP4TrackSpec &) { return size >= 24; }
// AAC needs its AudioSpecificConfig; MP3 and the other object types may
// go without.
bool AudioEsds(const uint8_t *, uint32_t size, const MP4TrackSpec &trackSpec) {
    return size >= 2 || (trackSpec.ObjectType != 0 && trackSpec.ObjectType != 0x40);
}

struct FormatRow {
    char Format[5];
    EntryKind Kind;
    char ConfigAtom[5];
    ConfigForm Form;
    ConfigCheck Fits;
    uint32_t PcmBits[2];         // PCM: the bits per sample it takes (0: not PCM)
};

constexpr FormatRow kFormats[] = {
    {"avc1", EntryKind::Visual, "avcC", ConfigForm::Plain, AvcRecord, {0, 0}},
    {"avc3", EntryKind::Visual, "avcC", ConfigForm::Plain, AvcRecord, {0, 0}},
    {"hvc1", EntryKind::Visual, "hvcC", ConfigForm::Plain, HevcRecord, {0, 0}},
    {"hev1", EntryKind::Visual, "hvcC", ConfigForm::Plain, HevcRecord, {0, 0}},
    {"av01", EntryKind::Visual, "av1C", ConfigForm::Plain, Av1Record, {0, 0}},
    {"vp09", EntryKind::Visual, "vpcC", ConfigForm::FullV1, VpRecord, {0, 0}},
    {"mp4v", EntryKind::Visual, "esds", ConfigForm::Esds, AnyConfig, {0, 0}},
    {"mp4a", EntryKind::Sound, "esds", ConfigForm::Esds, AudioEsds, {0, 0}},
    {"Opus", EntryKind::Sound, "dOps", ConfigForm::Plain, OpusHeader, {0, 0}},
    {"ac-3", EntryKind::Sound, "dac3", ConfigForm::Plain, Ac3Header, {0, 0}},
    {"ec-3", EntryKind::Sound, "dec3", ConfigForm::Plain, Eac3Header, {0, 0}},
    {"fLaC", EntryKind::Sound, "dfLa", ConfigForm::FullV0, FlacBlocks, {0, 0}},
    {"alac", EntryKind::Sound, "alac", ConfigForm::FullV0, AlacCookie, {0, 0}},
    {"ipcm", EntryKind::Sound, "pcmC", ConfigForm::PcmHeader, NoConfig, {16, 32}},
    {"fpcm", EntryKind::Sound, "pcmC", ConfigForm::PcmHeader, NoConfig, {32, 64}},
    {"sowt", EntryKind::Sound, "", ConfigForm::None, NoConfig, {16, 16}},
    {"twos", EntryKind::Sound, "", ConfigForm::None, NoConfig, {8, 16}},
    {"in24", EntryKind::Sound, "", ConfigForm::None, NoConfig, {24, 24}},
    {"fl32", EntryKind::Sound, "", ConfigForm::None, NoConfig, {32, 32}},
    {"in32", EntryKind::Sound, "", ConfigForm::None, NoConfig, {32, 32}},
    {"fl64", EntryKind::Sound, "", ConfigForm::None, NoConfig, {64, 64}},
    {"samr", EntryKind::Sound, "damr", ConfigForm::Plain, AmrHeader, {0, 0}},
    {"sawb", EntryKind::Sound, "damr", ConfigForm::Plain, AmrHeader, {0, 0}},
};

// "esds" object types and stream types.
constexpr uint8_t kAacObjectType = 0x40;
constexpr uint8_t kMpeg4VideoObjectType = 0x20;
constexpr uint8_t kAudioStream = 0x05;
constexpr uint8_t kVisualStream = 0x04;
// Descriptor tags.
constexpr uint8_t kEsTag = 3, kDecoderConfigTag = 4, kDecoderSpecificTag = 5, kSlConfigTag = 6;
// "ipcm"/"fpcm" "pcmC" format flags: 0 big-endian samples.
constexpr uint8_t kPcmBigEndian = 0;
constexpr uint32_t kMaxSide = 65535;
constexpr uint32_t kDataReferenceIndex = 1;

const FormatRow *FindFormat(const char format[4]) {
    for (const FormatRow &row : kFormats)
        if (std::memcmp(row.Format, format, 4) == 0) return &row;
    return nullptr;
}

// A descriptor's tag and its length in the four-byte form.
void PutDescriptorHead(BoxBuffer *out, uint8_t tag, uint32_t length) {
    Put8(out, tag);
    Put8(out, uint8_t(0x80 | ((length >> 21) & 0x7F)));
    Put8(out, uint8_t(0x80 | ((length >> 14) & 0x7F)));
    Put8(out, uint8_t(0x80 | ((length >> 7) & 0x7F)));
    Put8(out, uint8_t(length & 0x7F));
}

void PutEsds(BoxBuffer *out, const MP4TrackSpec &trackSpec, bool video, uint32_t trackId) {
    constexpr uint32_t kDescriptorHead = 5, kEsFields = 3, kDecoderFields = 13, kSlFields = 1;
    const uint32_t specific = trackSpec.ConfigSize != 0 ? kDescriptorHead + trackSpec.ConfigSize : 0;
    const uint32_t decoder = kDecoderFields + specific;
    const uint32_t es = kEsFields + kDescriptorHead + decoder + kDescriptorHead + kSlFields;
    const size_t box = OpenFullBox(out, "esds", 0, 0);
    PutDescriptorHead(out, kEsTag, es);
    Put16(out, uint16_t(trackId));
    Put8(out, 0);  // no dependence, URL or OCR stream
    PutDescriptorHead(out, kDecoderConfigTag, decoder);
    const uint32_t objectType = trackSpec.ObjectType != 0
                                    ? trackSpec.ObjectType
                                    : (video ? kMpeg4VideoObjectType : kAacObjectType);
    Put8(out, uint8_t(objectType));
    Put8(out, uint8_t(((video ? kVisualStream : kAudioStream) << 2) | 1));
    PutZeros(out, 3 + 4 + 4);  // buffer size, maximum and average bit rate: not known
    if (trackSpec.ConfigSize != 0) {
        PutDescriptorHead(out, kDecoderSpecificTag, trackSpec.ConfigSize);
        PutBytes(out, trackSpec.Config, trackSpec.ConfigSize);
    }
    PutDescriptorHead(out, kSlConfigTag, kSlFields);
    Put8(out, 2);  // predefined: MP4 file
    CloseBox(out, box);
}

void PutConfigAtom(BoxBuffer *out, const FormatRow &row, const MP4TrackSpec &trackSpec,
                   uint32_t trackId, uint32_t bits) {
    switch (row.Form) {
    case ConfigForm::Plain:
    case ConfigForm::FullV0:
    case ConfigForm::FullV1: {
        const size_t box = row.Form == ConfigForm::Plain
                               ? OpenBox(out, row.ConfigAtom)
                               : OpenFullBox(out, row.ConfigAtom, row.Form == ConfigForm::FullV1, 0);
        PutBytes(out, trackSpec.Config, trackSpec.ConfigSize);
        CloseBox(out, box);
        return;
    }
    case ConfigForm::Esds: PutEsds(out, trackSpec, row.Kind == EntryKind::Visual, trackId); return;
    case ConfigForm::PcmHeader: {
        const size_t box = OpenFullBox(out, row.ConfigAtom, 0, 0);
        Put8(out, kPcmBigEndian);
        Put8(out, uint8_t(bits));
        CloseBox(out, box);
        return;
    }
    case ConfigForm::None: return;
    }
}

void PutEntryHead(BoxBuffer *out) {
    PutZeros(out, 6);
    Put16(out, kDataReferenceIndex);
}

void PutVisualEntry(BoxBuffer *out, const FormatRow &row, const MP4TrackSpec &trackSpec, uint32_t trackId) {
    const size_t box = OpenBox(out, row.Format);
    PutEntryHead(out);
    PutZeros(out, 16);  // pre-defined and reserved
    Put16(out, uint16_t(trackSpec.Width));
    Put16(out, uint16_t(trackSpec.Height));
    Put32(out, 0x00480000);  // 72 dpi across and down
    Put32(out, 0x00480000);
    Put32(out, 0);
    Put16(out, 1);           // one frame per sample
    PutZeros(out, 32);       // no compressor name
    Put16(out, 0x0018);      // depth: colour
    Put16(out, 0xFFFF);
    PutConfigAtom(out, row, trackSpec, trackId, 0);
    if (trackSpec.PixelAspectH != trackSpec.PixelAspectV) {
        const size_t pasp = OpenBox(out, "pasp");
        Put32(out, trackSpec.PixelAspectH);
        Put32(out, trackSpec.PixelAspectV);
        CloseBox(out, pasp);
    }
    CloseBox(out, box);
}

void PutSoundEntry(BoxBuffer *out, const FormatRow &row, const MP4TrackSpec &trackSpec, uint32_t trackId,
                   uint32_t bits) {
    const size_t box = OpenBox(out, row.Format);
    PutEntryHead(out);
    PutZeros(out, 8);        // version 0 and reserved
    Put16(out, uint16_t(trackSpec.Channels));
    Put16(out, uint16_t(bits));
    PutZeros(out, 4);        // pre-defined and reserved
    // 16.16 rate; a rate above the field's reach is left to the configuration.
    Put32(out, trackSpec.SampleRate <= 0xFFFF ? trackSpec.SampleRate << 16 : 0);
    PutConfigAtom(out, row, trackSpec, trackId, bits);
    CloseBox(out, box);
}

// A track of another kind: the entry's head, then the caller's
// configuration as the rest of its body.
void PutOtherEntry(BoxBuffer *out, const MP4TrackSpec &trackSpec) {
    const size_t box = OpenBox(out, trackSpec.Format);
    PutEntryHead(out);
    PutBytes(out, trackSpec.Config, trackSpec.ConfigSize);
    CloseBox(out, box);
}

bool IsLanguage(const char language[4]) {
    for (int i = 0; i < 3; ++i)
        if (language[i] < 'a' || language[i] > 'z') return false;
    return language[3] == 0;
}

bool HasName(const char name[4]) {
    return name[0] != 0 || name[1] != 0 || name[2] != 0 || name[3] != 0;
}

// The checks every track description takes, whatever its format.
bool SpecFits(const MP4TrackSpec &trackSpec) {
    if (trackSpec.Timescale == 0 || trackSpec.TrackType > MP4_TRACK_AUDIO) return false;
    if (trackSpec.Rotation % 90 != 0 || trackSpec.Rotation > 270) return false;
    if ((trackSpec.PixelAspectH == 0) != (trackSpec.PixelAspectV == 0)) return false;
    if (HasName(trackSpec.Language) && !IsLanguage(trackSpec.Language)) return false;
    if (trackSpec.TrackType == 0) return HasName(trackSpec.Handler) && HasName(trackSpec.Format);
    if (trackSpec.TrackType == MP4_TRACK_VIDEO)
        return trackSpec.Width >= 1 && trackSpec.Width <= kMaxSide && trackSpec.Height >= 1 && trackSpec.Height <= kMaxSide;
    return trackSpec.SampleRate != 0 && trackSpec.Channels >= 1 && trackSpec.Channels <= kMaxSide;
}

}  // namespace

int32_t BuildSampleEntry(const MP4TrackSpec &trackSpec, ModernTrack *track) {
    if (!SpecFits(trackSpec)) return kAddTrackBadSpec;
    if (trackSpec.ConfigSize > kMaxSpecConfigBytes || (trackSpec.Config == nullptr && trackSpec.ConfigSize != 0))
        return kAddTrackBadConfig;
    track->TrackType = trackSpec.TrackType;
    track->Timescale = trackSpec.Timescale;
    std::memcpy(track->Language, HasName(trackSpec.Language) ? trackSpec.Language : "und", 4);
    track->Rotation = trackSpec.Rotation;
    track->MediaStart = trackSpec.MediaStart;
    if (trackSpec.TrackType == 0) {
        std::memcpy(track->Handler, trackSpec.Handler, 4);
        PutOtherEntry(&track->Entry, trackSpec);
        return track->Entry.Failed ? kAddTrackNoMemory : 1;
    }
    const FormatRow *row = FindFormat(trackSpec.Format);
    const EntryKind kind = trackSpec.TrackType == MP4_TRACK_VIDEO ? EntryKind::Visual : EntryKind::Sound;
    if (row == nullptr || row->Kind != kind) return kAddTrackBadSpec;
    uint32_t bits = trackSpec.BitsPerSample != 0 ? trackSpec.BitsPerSample : 16;
    if (row->PcmBits[0] != 0) {
        // Each PCM frame is a sample of one tick.
        if ((bits != row->PcmBits[0] && bits != row->PcmBits[1]) || trackSpec.SampleRate != trackSpec.Timescale)
            return kAddTrackBadSpec;
        track->PcmFrameBytes = trackSpec.Channels * (bits / 8);
    }
    if (!row->Fits(trackSpec.Config, trackSpec.ConfigSize, trackSpec)) return kAddTrackBadConfig;
    if (kind == EntryKind::Visual) {
        std::memcpy(track->Handler, "vide", 4);
        track->Width = trackSpec.Width;
        track->Height = trackSpec.Height;
        PutVisualEntry(&track->Entry, *row, trackSpec, track->TrackId);
    } else {
        std::memcpy(track->Handler, "soun", 4);
        PutSoundEntry(&track->Entry, *row, trackSpec, track->TrackId, bits);
    }
    return track->Entry.Failed ? kAddTrackNoMemory : 1;
}
