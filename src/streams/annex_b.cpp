// H.264 and HEVC samples as Annex B byte streams: each NAL unit's length
// field (of the size the decoder configuration gives) becomes a 4-byte start
// code, and the configuration's parameter sets go in front of the first
// sample and of every sync sample that does not carry them itself.
#include <cstdlib>

#include "frame/frame.h"
#include "streams/streams.h"

namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};

// "avcC": the length size less one in the low 2 bits of byte 4, the count
// of sequence parameter sets in the low 5 bits of byte 5; the high
// profiles may add sequence parameter set extensions behind the picture
// parameter sets, after 3 bytes of chroma format and bit depths.
constexpr size_t kAvcLengthSize = 4;
constexpr size_t kAvcSequenceSets = 5;
constexpr size_t kAvcExtensionFields = 3;
constexpr uint8_t kAvcHighProfiles[] = {100, 110, 122, 144};
// "hvcC": the length size less one in the low 2 bits of byte 21, the count
// of arrays (each a type byte, a 16-bit count, then the units) in byte 22.
constexpr size_t kHevcLengthSize = 21;
constexpr size_t kHevcArrays = 22;
constexpr size_t kHevcArrayHead = 3;

constexpr uint32_t kAvcAccessUnitDelimiter = 9;
constexpr uint32_t kHevcAccessUnitDelimiter = 35;

uint32_t NalType(const AnnexBState &annexB, uint8_t first) {
    return annexB.Hevc ? (first >> 1) & 0x3F : first & 0x1F;
}

// A sample's length field of `size` bytes, big-endian.
uint64_t ReadLength(const uint8_t *field, uint32_t size) {
    uint64_t length = 0;
    for (uint32_t i = 0; i < size; ++i) length = (length << 8) | field[i];
    return length;
}

bool AppendUnit(StreamBuffer *out, const uint8_t *unit, size_t size) {
    return AppendBytes(out, kStartCode, sizeof kStartCode) && AppendBytes(out, unit, size);
}

// The bytes of a configuration read front to back.
struct ConfigCursor {
    const uint8_t *Bytes;
    size_t Size;
    size_t At;
};

// Takes `count` units (a 16-bit length, then the unit) into `sets` in Annex
// B form and marks their types. False when the configuration ends inside
// them; `*grown` false when the buffer can't grow.
bool TakeUnits(ConfigCursor *cursor, uint32_t count, AnnexBState *annexB, StreamBuffer *sets,
               bool *grown) {
    for (uint32_t i = 0; i < count; ++i) {
        if (cursor->Size - cursor->At < 2) return false;
        const size_t length = GetBE16(cursor->Bytes, cursor->At);
        cursor->At += 2;
        if (length > cursor->Size - cursor->At) return false;
        const uint8_t *unit = cursor->Bytes + cursor->At;
        cursor->At += length;
        if (length == 0) continue;
        annexB->ParameterTypes |= uint64_t(1) << NalType(*annexB, unit[0]);
        if (!AppendUnit(sets, unit, length)) *grown = false;
    }
    return true;
}

const char *ConfigName(const AnnexBState &annexB) { return annexB.Hevc ? "hvcC" : "avcC"; }

// The fields both configurations open with: more than `fixed` bytes, and
// the length size less one in the low 2 bits of the byte at `lengthAt`.
bool ReadLengthSize(StreamState *state, bool hevc, size_t fixed, size_t lengthAt) {
    const StreamTrack &track = state->Track;
    state->AnnexB.Hevc = hevc;
    if (track.ConfigSize <= fixed) return false;
    state->AnnexB.LengthSize = (track.Config[lengthAt] & 3) + 1;
    return true;
}

int32_t RefuseShort(StreamState *state) {
    return StreamMessage(state, kStreamRefused, "it has no \"%s\" configuration, or one cut short",
                         ConfigName(state->AnnexB));
}

// Keeps the parameter sets gathered, or gives the result of a failure.
int32_t KeepSets(StreamState *state, bool whole, bool grown, StreamBuffer *sets) {
    if (!whole || !grown) {
        FreeStreamBuffer(sets);
        if (!grown) return kStreamNoMemory;
        return StreamMessage(state, kStreamRefused, "its \"%s\" configuration ends inside its parameter sets",
                             ConfigName(state->AnnexB));
    }
    state->AnnexB.ParameterSets = sets->Data;
    state->AnnexB.ParameterSetsSize = sets->Size;
    return kStreamDone;
}

bool IsHighProfile(uint8_t profile) {
    for (uint8_t high : kAvcHighProfiles)
        if (profile == high) return true;
    return false;
}

}  // namespace

int32_t StartAvc(StreamState *state, StreamBuffer *) {
    if (!ReadLengthSize(state, false, kAvcSequenceSets, kAvcLengthSize)) return RefuseShort(state);
    const StreamTrack &track = state->Track;
    AnnexBState &annexB = state->AnnexB;
    // Sequence parameter sets and their extensions first, then the picture
    // parameter sets, as a decoder meets them in a stream.
    StreamBuffer sets{}, pictures{};
    ConfigCursor cursor{track.Config, track.ConfigSize, kAvcSequenceSets + 1};
    bool grown = true;
    bool whole = TakeUnits(&cursor, track.Config[kAvcSequenceSets] & 0x1F, &annexB, &sets, &grown) &&
                 cursor.At < cursor.Size;
    if (whole) {
        const uint8_t count = cursor.Bytes[cursor.At++];
        whole = TakeUnits(&cursor, count, &annexB, &pictures, &grown);
    }
    if (whole && IsHighProfile(track.Config[1]) && cursor.Size - cursor.At > kAvcExtensionFields) {
        cursor.At += kAvcExtensionFields;
        const uint8_t count = cursor.Bytes[cursor.At++];
        whole = TakeUnits(&cursor, count, &annexB, &sets, &grown);
    }
    grown = grown && AppendBytes(&sets, pictures.Data, pictures.Size);
    FreeStreamBuffer(&pictures);
    return KeepSets(state, whole, grown, &sets);
}

int32_t StartHevc(StreamState *state, StreamBuffer *) {
    if (!ReadLengthSize(state, true, kHevcArrays, kHevcLengthSize)) return RefuseShort(state);
    const StreamTrack &track = state->Track;
    AnnexBState &annexB = state->AnnexB;
    StreamBuffer sets{};
    ConfigCursor cursor{track.Config, track.ConfigSize, kHevcArrays + 1};
    bool grown = true, whole = true;
    for (uint32_t array = 0; whole && array < track.Config[kHevcArrays]; ++array) {
        whole = cursor.Size - cursor.At >= kHevcArrayHead;
        if (!whole) break;
        const uint32_t count = GetBE16(cursor.Bytes, cursor.At + 1);
        cursor.At += kHevcArrayHead;
        whole = TakeUnits(&cursor, count, &annexB, &sets, &grown);
    }
    return KeepSets(state, whole, grown, &sets);
}

int32_t AnnexBSample(StreamState *state, const StreamSample &sample, StreamBuffer *out) {
    const AnnexBState &annexB = state->AnnexB;
    const uint32_t lengthSize = annexB.LengthSize;
    // First the units that lie whole in the sample, and their types.
    size_t end = 0;
    uint64_t types = 0;
    uint64_t damage = 0;  // the length that runs past the end, or 0 for a cut length field
    bool damaged = false;
    while (end < sample.Size) {
        if (sample.Size - end < lengthSize) {
            damaged = true;
            break;
        }
        const uint64_t length = ReadLength(sample.Data + end, lengthSize);
        if (length > sample.Size - end - lengthSize) {
            damaged = true;
            damage = length;
            break;
        }
        if (length != 0) types |= uint64_t(1) << NalType(annexB, sample.Data[end + lengthSize]);
        end += lengthSize + size_t(length);
    }
    // The parameter sets go in behind an access unit delimiter, in front of
    // every other unit.
    bool setsDue = (state->Samples == 0 || sample.IsSync) && (annexB.ParameterTypes & ~types) != 0;
    const uint32_t delimiter = annexB.Hevc ? kHevcAccessUnitDelimiter : kAvcAccessUnitDelimiter;
    for (size_t at = 0; at < end;) {
        const size_t length = size_t(ReadLength(sample.Data + at, lengthSize));
        const uint8_t *unit = sample.Data + at + lengthSize;
        at += lengthSize + length;
        if (length == 0) continue;
        if (setsDue && NalType(annexB, unit[0]) != delimiter) {
            if (!AppendBytes(out, annexB.ParameterSets, annexB.ParameterSetsSize)) return kStreamNoMemory;
            setsDue = false;
        }
        if (!AppendUnit(out, unit, length)) return kStreamNoMemory;
    }
    if (setsDue && !AppendBytes(out, annexB.ParameterSets, annexB.ParameterSetsSize)) return kStreamNoMemory;
    if (!damaged) return kStreamDone;
    if (damage == 0)
        return StreamMessage(state, kStreamDamagedSample,
                             "the sample ends inside a NAL unit's length field; the units in its first %zu bytes are written",
                             end);
    return StreamMessage(state, kStreamDamagedSample,
                         "a NAL unit of %llu bytes runs past the sample's end (%zu bytes left); the units in its first %zu bytes are written",
                         static_cast<unsigned long long>(damage), sample.Size - end - lengthSize, end);
}
