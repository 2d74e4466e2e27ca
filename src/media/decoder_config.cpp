// Decoder configurations of any sample entry, for MP4GetDecoderConfig and
// the audio facts of MP4GetTrackInfo: which atom holds the configuration,
// its payload read from the file, and the rate and channels that it (or
// the entry, or an MP3 frame header) gives.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "media/media.h"
#include "tracks/tracks.h"

namespace {

constexpr int32_t kConfigBadArguments = -99;
constexpr int32_t kConfigNoTrack = -98;
constexpr int32_t kConfigNone = -97;
constexpr int32_t kConfigShortRead = -96;  // checked before the allocation, and after the read
constexpr int32_t kConfigNoMemory = -95;

// A configuration atom: its name, and whether version and flags stand in
// front of the payload that a decoder takes.
struct ConfigRow {
    char name[5];
    bool fullAtom;
};

constexpr ConfigRow kConfigRows[] = {
    {"avcC", false}, {"hvcC", false}, {"av1C", false}, {"vpcC", true},  {"vvcC", true},
    {"dOps", false}, {"dac3", false}, {"dec3", false}, {"dac4", false}, {"mhaC", false},
    {"iacb", false}, {"dmlp", false}, {"dfLa", true},  {"alac", true},  {"d263", false},
    {"damr", false}, {"esds", true},
};

constexpr uint32_t kFullAtomFields = 4;
// A configuration is a small atom: larger ones are not read into memory.
constexpr uint64_t kMaxConfigBytes = 1 << 20;

const ConfigRow *ConfigRowOf(const AtomNode *atom) {
    for (const ConfigRow &row : kConfigRows)
        if (AtomNameEquals(atom->AtomName, row.name)) return &row;
    return nullptr;
}

// The configuration atom of a sample entry.
const AtomNode *FindConfigAtom(const AtomNode *entry, const ConfigRow **row) {
    for (const AtomNode *atom = NextEntryAtom(entry, nullptr); atom != nullptr;
         atom = NextEntryAtom(entry, atom))
        if ((*row = ConfigRowOf(atom)) != nullptr) return atom;
    return nullptr;
}

}  // namespace

const AtomNode *NextEntryAtom(const AtomNode *entry, const AtomNode *atom) {
    if (atom == nullptr) return entry->FirstChild;
    if (AtomNameEquals(atom->AtomName, "wave") && atom->FirstChild != nullptr) return atom->FirstChild;
    // The last atom of a "wave": on behind the "wave". The climb ends at
    // the entry, as deep as the tree goes.
    while (atom->NextSibling == nullptr && atom->ParentAtom != nullptr && atom->ParentAtom != entry)
        atom = atom->ParentAtom;
    return atom->NextSibling;
}

int32_t ReadAtomPayload(Root_atom *root, const AtomNode *atom, uint32_t skip, uint8_t **data,
                        uint32_t *size) {
    const uint64_t head = uint64_t(kBareHeadLength) + atom->LargeHead + skip;
    if (atom->AtomSize <= head) return kConfigNone;
    const uint64_t length = atom->AtomSize - head;
    if (length > kMaxConfigBytes || atom->AtomOffset + atom->AtomSize > root->FileSize)
        return kConfigShortRead;
    uint8_t *block = static_cast<uint8_t *>(std::malloc(size_t(length)));
    if (block == nullptr) return kConfigNoMemory;
    if (ReadFileAt(root->FileStream, atom->AtomOffset + head, block, size_t(length)) != length) {
        std::free(block);
        return kConfigShortRead;
    }
    *data = block;
    *size = uint32_t(length);
    return 1;
}

namespace {

// Reads one descriptor head of an "esds" payload at `*at`: its tag and the
// length of its body (1 to 4 bytes of 7 bits each). False when the head or
// the body passes `end`.
bool ReadDescriptor(const uint8_t *bytes, size_t end, size_t *at, uint8_t *tag, size_t *length) {
    if (*at >= end) return false;
    *tag = bytes[(*at)++];
    size_t value = 0;
    for (int i = 0; i < 4; ++i) {
        if (*at >= end) return false;
        const uint8_t byte = bytes[(*at)++];
        value = (value << 7) | (byte & 0x7F);
        if ((byte & 0x80) == 0) break;
    }
    if (value > end - *at) return false;
    *length = value;
    return true;
}

}  // namespace

bool WalkEsds(const uint8_t *bytes, size_t size, uint8_t *objectType, size_t *infoAt,
              size_t *infoLength) {
    size_t at = 0;
    uint8_t tag = 0;
    size_t length = 0;
    if (!ReadDescriptor(bytes, size, &at, &tag, &length) || tag != 3 || length < 3) return false;
    const size_t esEnd = at + length;
    const uint8_t flags = bytes[at + 2];
    at += 3;
    if (flags & 0x80) at += 2;                            // depends on an ES ID
    if ((flags & 0x40) && at < esEnd) at += 1 + bytes[at];  // URL
    if (flags & 0x20) at += 2;                            // OCR ES ID
    if (!ReadDescriptor(bytes, esEnd, &at, &tag, &length) || tag != 4 || length < 13)
        return false;
    const size_t configEnd = at + length;
    *objectType = bytes[at];
    at += 13;
    *infoAt = 0;
    *infoLength = 0;
    if (ReadDescriptor(bytes, configEnd, &at, &tag, &length) && tag == 5) {
        *infoAt = at;
        *infoLength = length;
    }
    return true;
}

namespace {

// Channels of the loudspeaker layouts 0 to 20 that an MPEG-H configuration
// names as its reference layout (0: none stated).
constexpr uint32_t kLayoutChannels[21] = {0, 1, 2, 3, 4, 5, 6, 8, 2, 3, 4,
                                          7, 8, 24, 8, 12, 10, 12, 14, 12, 14};

// Entries whose own fields say less than the format: AMR in MP4 is mono
// (3GPP writers put the template's 2 in the entry's channel count), and
// "mlpa" keeps its rate as a whole 32-bit number (it may pass 65535).
struct EntryRule {
    char name[5];
    uint32_t channels;   // 0: the entry's
    bool wholeRate;
};
constexpr EntryRule kEntryRules[] = {{"samr", 1, false}, {"sawb", 1, false}, {"mlpa", 0, true}};

// An AudioSpecificConfig's object type (5 bits, or 6 more behind 31) and
// sampling frequency (an index of 4 bits, or 24 bits of rate behind 15),
// from bit `*bit` on. False when the config ends first.
bool ReadObjectType(const uint8_t *config, uint32_t size, uint32_t *bit, uint32_t *type) {
    if (GetBitField(config, size, type, 5, *bit) != 1) return false;
    *bit += 5;
    if (*type != 31) return true;
    if (GetBitField(config, size, type, 6, *bit) != 1) return false;
    *bit += 6;
    *type += 32;
    return true;
}

bool ReadFrequency(const uint8_t *config, uint32_t size, uint32_t *bit, uint32_t *rate) {
    uint32_t index = 0;
    if (GetBitField(config, size, &index, 4, *bit) != 1) return false;
    *bit += 4;
    if (index == 15) {
        if (GetBitField(config, size, rate, 24, *bit) != 1) return false;
        *bit += 24;
    } else if (index < 13) {
        *rate = SamplingFrequencyOf(index);
    }
    return true;
}

constexpr uint32_t kAotAacLc = 2;
constexpr uint32_t kAotSbr = 5;
constexpr uint32_t kAotPs = 29;
constexpr uint32_t kSyncSbr = 0x2B7;
constexpr uint32_t kSyncPs = 0x548;

// Rate and channels of an AudioSpecificConfig as a decoder outputs them.
// SBR signalled explicitly (object type 5 or 29, or the sync extension
// behind an AAC LC config) gives the extension's rate, and a mono core
// stereo unless the config rules parametric stereo out (its own sync
// extension with the flag clear): a decoder must be ready for PS there.
// SBR signalled only implicitly (in the stream) leaves the core rate.
void ReadAudioSpecificConfig(const uint8_t *config, uint32_t size, uint32_t *rate,
                             uint32_t *channels) {
    uint32_t bit = 0, type = 0, value = 0, extensionRate = 0;
    if (!ReadObjectType(config, size, &bit, &type) || !ReadFrequency(config, size, &bit, rate))
        return;
    if (GetBitField(config, size, &value, 4, bit) != 1) return;
    bit += 4;
    if (value != 0) *channels = value == 7 ? 8 : value;
    bool sbr = type == kAotSbr || type == kAotPs;
    bool noStereo = false;
    if (sbr) {
        if (ReadFrequency(config, size, &bit, &extensionRate)) *rate = extensionRate;
    } else if (type == kAotAacLc && value != 0) {
        // GASpecificConfig: frame length, core coder flag (and its delay),
        // extension flag; then the sync extension, if the config goes on.
        uint32_t dependsOnCore = 0, sync = 0, flag = 0;
        GetBitField(config, size, &dependsOnCore, 1, bit + 1);
        bit += 3 + (dependsOnCore != 0 ? 14 : 0);
        if (GetBitField(config, size, &sync, 11, bit) == 1 && sync == kSyncSbr) {
            bit += 11;
            sbr = ReadObjectType(config, size, &bit, &type) && type == kAotSbr &&
                  GetBitField(config, size, &flag, 1, bit++) == 1 && flag == 1 &&
                  ReadFrequency(config, size, &bit, &extensionRate);
            if (sbr) *rate = extensionRate;
            noStereo = sbr && GetBitField(config, size, &sync, 11, bit) == 1 && sync == kSyncPs &&
                       GetBitField(config, size, &flag, 1, bit + 11) == 1 && flag == 0;
        }
    }
    if (sbr && !noStereo && *channels == 1) *channels = 2;
}

// Rate and channels of an MPEG audio frame header; false when the four
// bytes are no such header.
bool MpegAudioHeader(const uint8_t h[4], uint32_t *rate, uint32_t *channels) {
    if (h[0] != 0xFF || (h[1] & 0xE0) != 0xE0) return false;
    const uint32_t version = (h[1] >> 3) & 3;  // 3: MPEG-1, 2: MPEG-2, 0: MPEG-2.5
    const uint32_t index = (h[2] >> 2) & 3;
    if (version == 1 || index == 3) return false;
    *rate = kMpegAudioRates[index] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
    *channels = (h[3] >> 6) == 3 ? 1 : 2;
    return true;
}

}  // namespace

const AtomNode *FindTrakAtom(const Root_atom *root, uint32_t trackId, int32_t trackType) {
    const AtomNode *moov = root->FirstAtom;
    while (moov != nullptr && !AtomNameEquals(moov->AtomName, "moov")) moov = moov->NextSibling;
    if (moov == nullptr || trackId == 0) return nullptr;
    for (const AtomNode *trak = moov->FirstChild; trak != nullptr; trak = trak->NextSibling) {
        if (AtomNameEquals(trak->AtomName, "trak") && ModernTrackId(trak) == trackId &&
            ModernTrackType(trak) == trackType)
            return trak;
    }
    return nullptr;
}

const AtomNode *FirstSampleEntry(const AtomNode *trak) {
    const char *const path[] = {"mdia", "minf", "stbl", "stsd"};
    const AtomNode *stsd = WalkPath(trak, path, 4, nullptr);
    return stsd != nullptr ? stsd->FirstChild : nullptr;
}

int32_t ReadDecoderConfig(Root_atom *root, const AtomNode *entry, uint8_t **data,
                          uint32_t *size) {
    const ConfigRow *row = nullptr;
    const AtomNode *atom = entry != nullptr ? FindConfigAtom(entry, &row) : nullptr;
    if (atom == nullptr) return kConfigNone;
    uint8_t *payload = nullptr;
    uint32_t length = 0;
    int32_t result = ReadAtomPayload(root, atom, row->fullAtom ? kFullAtomFields : 0, &payload, &length);
    if (result != 1 || !AtomNameEquals(atom->AtomName, "esds")) {
        if (result == 1) {
            *data = payload;
            *size = length;
        }
        return result;
    }
    // An "esds" gives its decoder specific info alone, moved to the front
    // of the same block.
    uint8_t objectType = 0;
    size_t at = 0;
    size_t info = 0;
    if (!WalkEsds(payload, length, &objectType, &at, &info) || info == 0) {
        std::free(payload);
        return kConfigNone;
    }
    std::memmove(payload, payload + at, info);
    *data = payload;
    *size = uint32_t(info);
    return 1;
}

void ReadAudioParameters(Root_atom *root, const AtomNode *entry, uint64_t firstSample,
                         uint32_t *rate, uint32_t *channels) {
    *rate = 0;
    *channels = 0;
    if (entry == nullptr || entry->realStructure == nullptr) return;
    // Only an entry of a sound layout has the sound fields in its record.
    const bool laidOut = RecordHolds(entry, field::kAudioSampleRate + 4);
    const EntryRule *rule = nullptr;
    for (const EntryRule &candidate : kEntryRules)
        if (AtomNameEquals(entry->AtomName, candidate.name)) rule = &candidate;
    if (laidOut) {
        *channels = GetBE16(entry->realStructure, field::kAudioChannelCount);
        *rate = GetBE32(entry->realStructure, field::kAudioSampleRate) >>
                (rule != nullptr && rule->wholeRate ? 0 : 16);
    }
    // QuickTime's sound description version 2 keeps rate (a double) and
    // channels behind the version 0 fields (not so an ISO entry of version 1).
    uint8_t v2[field::kAudioV2ChannelCount + 4 - field::kAudioV2SampleRate];
    if (laidOut && entry->EntryForm != kSoundEntryIso &&
        GetBE16(entry->realStructure, field::kAudioVersion) == 2 &&
        ReadFileAt(root->FileStream, entry->AtomOffset + entry->LargeHead + field::kAudioV2SampleRate,
                   v2, sizeof v2) == sizeof v2) {
        uint64_t bits = GetBE64(v2, 0);
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        *rate = value > 0 && value < 1e9 ? uint32_t(value) : 0;
        *channels = GetBE32(v2, field::kAudioV2ChannelCount - field::kAudioV2SampleRate);
    }
    if (rule != nullptr && rule->channels != 0) *channels = rule->channels;
    uint8_t *config = nullptr;
    uint32_t size = 0;
    const ConfigRow *row = nullptr;
    const AtomNode *atom = FindConfigAtom(entry, &row);
    if (atom == nullptr || ReadDecoderConfig(root, entry, &config, &size) != 1) {
        uint8_t header[4];
        const bool mpeg = atom != nullptr && AtomNameEquals(atom->AtomName, "esds");
        if (mpeg && firstSample != UINT64_MAX &&
            ReadFileAt(root->FileStream, firstSample, header, 4) == 4)
            MpegAudioHeader(header, rate, channels);
        return;
    }
    uint32_t value = 0;
    if (AtomNameEquals(atom->AtomName, "esds")) {
        ReadAudioSpecificConfig(config, size, rate, channels);
    } else if (AtomNameEquals(atom->AtomName, "dac4") && size >= 2) {
        // Behind 3 bits of version and 7 of bitstream version, the rate
        // flag: 48000 or 44100 Hz. Channels stay the entry's.
        *rate = (config[1] & 0x20) != 0 ? 48000 : 44100;
    } else if (AtomNameEquals(atom->AtomName, "mhaC") && size >= 3) {
        if (config[2] != 0 && config[2] < 21) *channels = kLayoutChannels[config[2]];
    } else if (AtomNameEquals(atom->AtomName, "dOps") && size >= 2) {
        *rate = 48000;
        *channels = config[1];
    } else if (AtomNameEquals(atom->AtomName, "dac3") && size >= 2) {
        const uint32_t fscod = config[0] >> 6;
        if (fscod < 3) *rate = kAc3SampleRates[fscod];
        *channels = kAc3ModeChannels[(config[1] >> 3) & 7] + ((config[1] >> 2) & 1);
    } else if (AtomNameEquals(atom->AtomName, "dec3") && size >= 5) {
        const uint32_t fscod = config[2] >> 6;
        if (fscod < 3) *rate = kAc3SampleRates[fscod];
        *channels = kAc3ModeChannels[(config[3] >> 1) & 7] + (config[3] & 1);
    } else if (AtomNameEquals(atom->AtomName, "dfLa") && size >= 4 + 18) {
        // Behind the 4-byte block head, STREAMINFO: rate in 20 bits at byte
        // 10, channels less one in the next 3.
        GetBitField(config + 4, 18, rate, 20, 80);
        GetBitField(config + 4, 18, &value, 3, 100);
        *channels = value + 1;
    } else if (AtomNameEquals(atom->AtomName, "alac") && size >= 24) {
        *channels = config[9];
        *rate = GetBE32(config, 20);
    }
    std::free(config);
}

int32_t MP4GetDecoderConfig(MP4_local_file *file, uint32_t trackId, int32_t trackType,
                            uint8_t **data, uint32_t *size) {
    if (file == nullptr || data == nullptr || size == nullptr || trackId == 0)
        return kConfigBadArguments;
    const AtomNode *trak = FindTrakAtom(file->RootAtom, trackId, trackType);
    if (trak == nullptr) return kConfigNoTrack;
    return ReadDecoderConfig(file->RootAtom, FirstSampleEntry(trak), data, size);
}

namespace {

// The uncompressed audio formats, with the width of a channel's sample
// where the format fixes it (0: the entry's sample size field says).
struct PcmFormat {
    char Name[5];
    uint32_t Bits;
};
constexpr PcmFormat kPcmFormats[] = {
    {"ipcm", 0}, {"fpcm", 0}, {"lpcm", 0},  {"sowt", 0},  {"twos", 0},  {"NONE", 0}, {"raw ", 8},
    {"in24", 24}, {"in32", 32}, {"fl32", 32}, {"fl64", 64}, {"alaw", 8}, {"ulaw", 8},
};

constexpr int16_t kCompressedSound = -2;

}  // namespace

uint32_t PcmFrameBytes(Root_atom *root, const AtomNode *entry, bool *byteFrames) {
    *byteFrames = false;
    if (entry == nullptr) return 0;
    const PcmFormat *format = nullptr;
    for (const PcmFormat &row : kPcmFormats)
        if (AtomNameEquals(entry->AtomName, row.Name)) format = &row;
    if (format == nullptr) return 0;
    // The sound fields, counted from a head of 8 bytes as fields.h counts;
    // only what both the atom and the file hold.
    uint8_t fields[field::kAudioV2BitsPerChannel + 4] = {};
    const uint64_t start = entry->AtomOffset + entry->LargeHead;
    const uint64_t room = std::min<uint64_t>(entry->AtomSize - entry->LargeHead, sizeof fields);
    if (entry->AtomSize < entry->LargeHead + field::kAudioSampleRate ||
        ReadFileAt(root->FileStream, start, fields, size_t(room)) != room)
        return 0;
    const uint16_t version = GetBE16(fields, field::kAudioVersion);
    uint64_t channels = GetBE16(fields, field::kAudioChannelCount);
    uint64_t bits = format->Bits != 0 ? format->Bits : GetBE16(fields, field::kAudioSampleBits);
    if (version == 2) {
        if (room < sizeof fields) return 0;
        channels = GetBE32(fields, field::kAudioV2ChannelCount);
        if (format->Bits == 0) bits = GetBE32(fields, field::kAudioV2BitsPerChannel);
    }
    const bool compressed = int16_t(GetBE16(fields, field::kAudioCompressionId)) == kCompressedSound;
    uint64_t bytes = channels * (bits / 8);
    if (version == 1 && !compressed) {
        if (room < field::kAudioV1BytesPerFrame + 4) return 0;
        bytes = GetBE32(fields, field::kAudioV1BytesPerFrame);
    }
    *byteFrames = version <= 1 && !compressed && !AtomNameEquals(entry->AtomName, "ipcm") &&
                  !AtomNameEquals(entry->AtomName, "fpcm");
    return bytes > 0 && bytes <= UINT16_MAX ? uint32_t(bytes) : 0;
}
