// H.264 and HEVC parameter sets and slice headers, read as far as a muxer
// needs them, and the "avcC" and "hvcC" configurations built from them.
// Every read goes through BitReader, which stops at the end of the bytes:
// a unit cut short gives false, never a read past its end.
#include <algorithm>

#include "media/bit_reader.h"
#include "mux/video.h"

namespace mux {
namespace {

// Bytes of a unit the parsers look at, emulation prevention taken out: far
// more than any sequence set without huge scaling lists holds, and far more
// than the slice header fields read.
constexpr size_t kSetBytes = 4096;
constexpr size_t kSliceBytes = 64;

constexpr uint32_t kAvcIdr = 5;
constexpr uint32_t kHevcIrapFirst = 16, kHevcIrapLast = 23;
constexpr uint32_t kHevcIdrWithLeading = 19, kHevcIdrNoLeading = 20;
constexpr uint32_t kMaxHevcSubLayers = 7;
constexpr uint32_t kMaxShortTermSets = 64;
constexpr uint32_t kMaxDpbFrames = 16;

// H.264 profiles whose sequence sets carry chroma format and bit depths.
constexpr uint8_t kAvcChromaProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
// ... of which those whose configuration carries them too.
constexpr uint8_t kAvcConfigChromaProfiles[] = {100, 110, 122, 144};
// Profiles that are intra-only when constraint_set3 is set: no reordering.
constexpr uint8_t kAvcIntraProfiles[] = {44, 86, 100, 110, 122, 244};

// MaxDpbMbs of each H.264 level (level_idc 9 is level 1b).
struct LevelRow {
    uint8_t level;
    uint32_t maxDpbMbs;
};
constexpr LevelRow kAvcLevels[] = {{9, 396},     {10, 396},    {11, 900},    {12, 2376},   {13, 2376},
                                   {20, 2376},   {21, 4752},   {22, 8100},   {30, 8100},   {31, 18000},
                                   {32, 20480},  {40, 32768},  {41, 32768},  {42, 34816},  {50, 110400},
                                   {51, 184320}, {52, 184320}, {60, 696320}, {61, 696320}, {62, 696320}};

template <size_t N>
bool Among(uint8_t value, const uint8_t (&list)[N]) {
    return std::find(list, list + N, value) != list + N;
}

// A unit's RBSP in a buffer of the parser's own.
struct Rbsp {
    uint8_t bytes[kSetBytes];
    BitReader reader;
    Rbsp(const uint8_t *nal, size_t size, size_t limit, size_t header) {
        const size_t length = UnescapeNal(nal, size, bytes, limit);
        reader = MakeBitReader(bytes, length);
        ReadBits(&reader, uint32_t(header * 8));
    }
};

void SkipAvcScalingList(BitReader *r, uint32_t size) {
    int32_t last = 8, next = 8;
    for (uint32_t j = 0; j < size && !r->Exhausted; ++j) {
        if (next != 0) next = (last + ReadSe(r) + 256) % 256;
        last = next == 0 ? last : next;
    }
}

void SkipAvcHrd(BitReader *r) {
    const uint32_t count = ReadUe(r) + 1;
    if (count > 32) {
        ReadBits(r, UINT32_MAX);  // out of range: exhaust the reader
        return;
    }
    ReadBits(r, 8);
    for (uint32_t i = 0; i < count; ++i) {
        ReadUe(r);
        ReadUe(r);
        ReadBits(r, 1);
    }
    ReadBits(r, 20);
}

// The decoded picture buffer of a level, in frames of this size (up to 16).
uint32_t AvcDpbFrames(uint8_t level, uint32_t frameMbs) {
    for (const LevelRow &row : kAvcLevels)
        if (row.level == level && frameMbs > 0) return std::min(kMaxDpbFrames, row.maxDpbMbs / frameMbs);
    return kMaxDpbFrames;
}

// The VUI fields of either codec up to its timing: aspect ratio, overscan,
// video signal, chroma location. HEVC puts more between (`hevc`).
void SkipVuiHead(BitReader *r, bool hevc) {
    if (ReadBits(r, 1) && ReadBits(r, 8) == 255) ReadBits(r, 32);  // aspect ratio, extended
    if (ReadBits(r, 1)) ReadBits(r, 1);                               // overscan
    if (ReadBits(r, 1)) {                                             // video signal type
        ReadBits(r, 4);
        if (ReadBits(r, 1)) ReadBits(r, 24);
    }
    if (ReadBits(r, 1)) {  // chroma location
        ReadUe(r);
        ReadUe(r);
    }
    if (!hevc) return;
    ReadBits(r, 3);      // neutral chroma, field sequence, frame field info
    if (ReadBits(r, 1))  // default display window
        for (int i = 0; i < 4; ++i) ReadUe(r);
}

}  // namespace

size_t UnescapeNal(const uint8_t *nal, size_t size, uint8_t *out, size_t limit) {
    size_t length = 0, zeros = 0;
    for (size_t i = 0; i < size && length < limit; ++i) {
        if (zeros >= 2 && nal[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = nal[i] == 0 ? zeros + 1 : 0;
        out[length++] = nal[i];
    }
    return length;
}

bool ParseAvcSequenceSet(const uint8_t *nal, size_t size, SequenceSet *sps) {
    Rbsp rbsp(nal, size, kSetBytes, 1);
    BitReader *r = &rbsp.reader;
    SequenceSet s;
    s.profile = uint8_t(ReadBits(r, 8));
    s.compatibility = uint8_t(ReadBits(r, 8));
    s.level = uint8_t(ReadBits(r, 8));
    s.id = ReadUe(r);
    if (s.id >= kMaxSequenceSets) return false;
    if (Among(s.profile, kAvcChromaProfiles)) {
        s.chromaFormat = ReadUe(r);
        if (s.chromaFormat > 3) return false;
        if (s.chromaFormat == 3) s.separateColourPlanes = ReadBits(r, 1);
        s.bitDepthLuma = ReadUe(r) + 8;
        s.bitDepthChroma = ReadUe(r) + 8;
        if (s.bitDepthLuma > 14 || s.bitDepthChroma > 14) return false;
        ReadBits(r, 1);
        if (ReadBits(r, 1))
            for (uint32_t i = 0; i < (s.chromaFormat != 3 ? 8u : 12u); ++i)
                if (ReadBits(r, 1)) SkipAvcScalingList(r, i < 6 ? 16 : 64);
    }
    s.log2MaxFrameNum = ReadUe(r) + 4;
    s.pocType = ReadUe(r);
    if (s.log2MaxFrameNum > 16 || s.pocType > 2) return false;
    if (s.pocType == 0) {
        s.log2MaxPocLsb = ReadUe(r) + 4;
        if (s.log2MaxPocLsb > 16) return false;
    } else if (s.pocType == 1) {
        s.deltaPocAlwaysZero = ReadBits(r, 1);
        s.offsetForNonRefPic = ReadSe(r);
        s.offsetForTopToBottomField = ReadSe(r);
        s.pocCycleLength = ReadUe(r);
        if (s.pocCycleLength > kMaxPocCycle) return false;
        for (uint32_t i = 0; i < s.pocCycleLength; ++i) s.pocCycle[i] = ReadSe(r);
    }
    ReadUe(r);       // max_num_ref_frames
    ReadBits(r, 1);  // gaps in frame_num allowed
    const uint32_t widthMbs = ReadUe(r) + 1;
    const uint32_t heightUnits = ReadUe(r) + 1;
    s.frameMbsOnly = ReadBits(r, 1);
    if (!s.frameMbsOnly) ReadBits(r, 1);
    ReadBits(r, 1);  // direct 8x8 inference
    if (widthMbs > 1024 || heightUnits > 1024) return false;
    const uint32_t frameHeightMbs = heightUnits * (s.frameMbsOnly ? 1 : 2);
    uint32_t crop[4] = {};
    if (ReadBits(r, 1))
        for (uint32_t &edge : crop) edge = ReadUe(r);
    // Cropping counts chroma samples: two luma samples across where chroma
    // is halved across, two down for halved chroma or field pairs.
    const bool chroma = s.chromaFormat != 0 && !s.separateColourPlanes;
    const uint32_t unitX = chroma && s.chromaFormat < 3 ? 2 : 1;
    const uint32_t unitY = (chroma && s.chromaFormat == 1 ? 2 : 1) * (s.frameMbsOnly ? 1 : 2);
    const uint64_t cropX = uint64_t(unitX) * (uint64_t(crop[0]) + crop[1]);
    const uint64_t cropY = uint64_t(unitY) * (uint64_t(crop[2]) + crop[3]);
    if (r->Exhausted || cropX >= widthMbs * 16 || cropY >= frameHeightMbs * 16) return false;
    s.width = uint32_t(widthMbs * 16 - cropX);
    s.height = uint32_t(frameHeightMbs * 16 - cropY);
    s.reorderFrames = (s.compatibility & 0x10) && Among(s.profile, kAvcIntraProfiles)
                          ? 0
                          : AvcDpbFrames(s.level, widthMbs * frameHeightMbs);
    if (ReadBits(r, 1)) {  // VUI
        SkipVuiHead(r, false);
        if (ReadBits(r, 1)) {
            const uint32_t unitsInTick = ReadBits(r, 32);
            const uint32_t timeScale = ReadBits(r, 32);
            s.fixedRate = ReadBits(r, 1);
            // A tick is a field: a frame lasts two.
            if (unitsInTick != 0 && timeScale != 0 && unitsInTick <= UINT32_MAX / 2) {
                s.timeScale = timeScale;
                s.frameTicks = 2 * unitsInTick;
            }
        }
        const bool nalHrd = ReadBits(r, 1);
        if (nalHrd) SkipAvcHrd(r);
        const bool vclHrd = ReadBits(r, 1);
        if (vclHrd) SkipAvcHrd(r);
        if (nalHrd || vclHrd) ReadBits(r, 1);
        ReadBits(r, 1);  // pic_struct present
        if (ReadBits(r, 1)) {
            ReadBits(r, 1);
            for (int i = 0; i < 4; ++i) ReadUe(r);
            const uint32_t reorder = ReadUe(r);
            ReadUe(r);
            if (!r->Exhausted) s.reorderFrames = std::min(reorder, kMaxDpbFrames);
        }
    }
    s.valid = true;
    *sps = s;
    return true;
}

bool ParseAvcPictureSet(const uint8_t *nal, size_t size, PictureSet *pps, uint32_t *id) {
    Rbsp rbsp(nal, size, kSliceBytes, 1);
    BitReader *r = &rbsp.reader;
    PictureSet p;
    *id = ReadUe(r);
    p.sequenceId = ReadUe(r);
    ReadBits(r, 1);  // entropy coding mode
    p.bottomFieldPocPresent = ReadBits(r, 1);
    if (r->Exhausted || *id >= kMaxPictureSets || p.sequenceId >= kMaxSequenceSets) return false;
    p.valid = true;
    *pps = p;
    return true;
}

bool ParseAvcSlice(const uint8_t *nal, size_t size, const SequenceSet *sets, const PictureSet *pictures,
                   SliceFacts *slice) {
    Rbsp rbsp(nal, size, kSliceBytes, 1);
    BitReader *r = &rbsp.reader;
    SliceFacts f;
    f.firstInPicture = ReadUe(r) == 0;
    ReadUe(r);  // slice type
    f.pictureSet = ReadUe(r);
    if (r->Exhausted || f.pictureSet >= kMaxPictureSets || !pictures[f.pictureSet].valid) return false;
    const PictureSet &pps = pictures[f.pictureSet];
    const SequenceSet &sps = sets[pps.sequenceId];
    if (!sps.valid) return false;
    if (sps.separateColourPlanes) ReadBits(r, 2);
    f.frameNum = ReadBits(r, sps.log2MaxFrameNum);
    if (!sps.frameMbsOnly) {
        f.field = ReadBits(r, 1);
        if (f.field) f.bottomField = ReadBits(r, 1);
    }
    if ((nal[0] & 0x1F) == kAvcIdr) ReadUe(r);
    if (sps.pocType == 0) {
        f.pocLsb = ReadBits(r, sps.log2MaxPocLsb);
        if (pps.bottomFieldPocPresent && !f.field) f.deltaPocBottom = ReadSe(r);
    }
    if (sps.pocType == 1 && !sps.deltaPocAlwaysZero) {
        f.deltaPoc[0] = ReadSe(r);
        if (pps.bottomFieldPocPresent && !f.field) f.deltaPoc[1] = ReadSe(r);
    }
    if (r->Exhausted) return false;
    *slice = f;
    return true;
}

namespace {

// profile_tier_level with its general fields: the 12 bytes "hvcC" copies.
void ReadHevcProfile(BitReader *r, uint32_t subLayers, uint8_t general[12]) {
    for (int i = 0; i < 12; ++i) general[i] = uint8_t(ReadBits(r, 8));
    bool profile[kMaxHevcSubLayers] = {}, level[kMaxHevcSubLayers] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        profile[i] = ReadBits(r, 1);
        level[i] = ReadBits(r, 1);
    }
    if (subLayers > 0) ReadBits(r, 2 * (8 - subLayers));
    for (uint32_t i = 0; i < subLayers; ++i) {
        if (profile[i]) ReadBits(r, 88);
        if (level[i]) ReadBits(r, 8);
    }
}

void SkipHevcScalingLists(BitReader *r) {
    for (uint32_t sizeId = 0; sizeId < 4; ++sizeId)
        for (uint32_t matrix = 0; matrix < 6; matrix += sizeId == 3 ? 3 : 1) {
            if (!ReadBits(r, 1)) {
                ReadUe(r);
                continue;
            }
            const uint32_t count = std::min(64u, 1u << (4 + (sizeId << 1)));
            if (sizeId > 1) ReadSe(r);
            for (uint32_t i = 0; i < count && !r->Exhausted; ++i) ReadSe(r);
        }
}

// The short-term reference picture sets: only their sizes matter here, as
// a set predicted from another has one flag or two per picture of it.
bool SkipShortTermSets(BitReader *r, uint32_t count) {
    uint32_t pictures[kMaxShortTermSets] = {};
    for (uint32_t i = 0; i < count; ++i) {
        if (i != 0 && ReadBits(r, 1)) {
            ReadBits(r, 1);
            ReadUe(r);
            uint32_t used = 0;
            for (uint32_t j = 0; j <= pictures[i - 1]; ++j)
                if (ReadBits(r, 1) || ReadBits(r, 1)) ++used;
            pictures[i] = std::min(used, 32u);
            continue;
        }
        const uint32_t negative = ReadUe(r), positive = ReadUe(r);
        if (negative > 16 || positive > 16) return false;
        for (uint32_t j = 0; j < negative + positive && !r->Exhausted; ++j) {
            ReadUe(r);
            ReadBits(r, 1);
        }
        pictures[i] = negative + positive;
    }
    return !r->Exhausted;
}

// hrd_parameters with its common information: only its length matters.
void SkipHevcHrd(BitReader *r, uint32_t subLayers) {
    const bool nal = ReadBits(r, 1), vcl = ReadBits(r, 1);
    bool subPictures = false;
    if (nal || vcl) {
        subPictures = ReadBits(r, 1);
        if (subPictures) ReadBits(r, 19);
        ReadBits(r, subPictures ? 12 : 8);  // bit rate and buffer size scales
        ReadBits(r, 15);                    // delay lengths
    }
    for (uint32_t i = 0; i <= subLayers && !r->Exhausted; ++i) {
        const bool fixedGeneral = ReadBits(r, 1);
        const bool fixedInSequence = fixedGeneral || ReadBits(r, 1);
        bool lowDelay = false;
        if (fixedInSequence)
            ReadUe(r);
        else
            lowDelay = ReadBits(r, 1);
        const uint32_t buffers = lowDelay ? 1 : ReadUe(r) + 1;
        if (buffers > 32) {
            ReadBits(r, UINT32_MAX);  // out of range: exhaust the reader
            return;
        }
        for (int kind = 0; kind < int(nal) + int(vcl); ++kind)
            for (uint32_t b = 0; b < buffers; ++b) {
                for (int v = 0; v < (subPictures ? 4 : 2); ++v) ReadUe(r);
                ReadBits(r, 1);
            }
    }
}

}  // namespace

bool ParseHevcSequenceSet(const uint8_t *nal, size_t size, SequenceSet *sps) {
    Rbsp rbsp(nal, size, kSetBytes, 2);
    BitReader *r = &rbsp.reader;
    SequenceSet s;
    ReadBits(r, 4);  // video parameter set
    const uint32_t subLayers = ReadBits(r, 3);
    s.temporalLayers = subLayers + 1;
    s.temporalIdNested = ReadBits(r, 1);
    if (subLayers >= kMaxHevcSubLayers) return false;
    ReadHevcProfile(r, subLayers, s.general);
    s.level = s.general[11];
    s.id = ReadUe(r);
    s.chromaFormat = ReadUe(r);
    if (s.id >= 16 || s.chromaFormat > 3) return false;
    if (s.chromaFormat == 3) s.separateColourPlanes = ReadBits(r, 1);
    const uint32_t width = ReadUe(r), height = ReadUe(r);
    uint32_t window[4] = {};
    if (ReadBits(r, 1))
        for (uint32_t &edge : window) edge = ReadUe(r);
    const bool chroma = s.chromaFormat != 0 && !s.separateColourPlanes;
    const uint64_t cropX = uint64_t(chroma && s.chromaFormat < 3 ? 2 : 1) * (uint64_t(window[0]) + window[1]);
    const uint64_t cropY = uint64_t(chroma && s.chromaFormat == 1 ? 2 : 1) * (uint64_t(window[2]) + window[3]);
    if (width > 16888 || height > 16888 || cropX >= width || cropY >= height) return false;
    s.width = uint32_t(width - cropX);
    s.height = uint32_t(height - cropY);
    s.bitDepthLuma = ReadUe(r) + 8;
    s.bitDepthChroma = ReadUe(r) + 8;
    s.log2MaxPocLsb = ReadUe(r) + 4;
    // "hvcC" holds a bit depth less 8 in three bits: 16-bit pictures can't be described.
    if (r->Exhausted || s.bitDepthLuma > 15 || s.bitDepthChroma > 15 || s.log2MaxPocLsb > 16) return false;
    const bool orderingForEach = ReadBits(r, 1);
    for (uint32_t i = orderingForEach ? 0 : subLayers; i <= subLayers; ++i) {
        ReadUe(r);
        s.reorderFrames = std::min(ReadUe(r), kMaxDpbFrames);  // the highest sub-layer's counts
        ReadUe(r);
    }
    for (int i = 0; i < 6; ++i) ReadUe(r);  // block sizes, transform depths
    if (ReadBits(r, 1) && ReadBits(r, 1)) SkipHevcScalingLists(r);
    ReadBits(r, 2);      // AMP, sample adaptive offset
    if (ReadBits(r, 1)) {  // PCM
        ReadBits(r, 8);
        ReadUe(r);
        ReadUe(r);
        ReadBits(r, 1);
    }
    const uint32_t shortTermSets = ReadUe(r);
    if (shortTermSets > kMaxShortTermSets || !SkipShortTermSets(r, shortTermSets)) return false;
    if (ReadBits(r, 1)) {  // long-term reference pictures
        const uint32_t count = ReadUe(r);
        if (count > 32) return false;
        for (uint32_t i = 0; i < count; ++i) ReadBits(r, s.log2MaxPocLsb + 1);
    }
    ReadBits(r, 2);  // temporal MVP, strong intra smoothing
    if (ReadBits(r, 1)) {
        SkipVuiHead(r, true);
        if (ReadBits(r, 1)) {
            const uint32_t unitsInTick = ReadBits(r, 32);
            const uint32_t timeScale = ReadBits(r, 32);
            if (unitsInTick != 0 && timeScale != 0 && !r->Exhausted) {
                s.timeScale = timeScale;
                s.frameTicks = unitsInTick;
                s.fixedRate = true;
            }
            if (ReadBits(r, 1)) ReadUe(r);  // order count proportional to timing
            if (ReadBits(r, 1)) SkipHevcHrd(r, subLayers);
        }
        if (ReadBits(r, 1)) {  // bitstream restriction
            ReadBits(r, 3);
            const uint32_t segmentation = ReadUe(r);
            if (!r->Exhausted && segmentation < 4096) s.minSpatialSegmentation = segmentation;
        }
    }
    s.valid = true;
    *sps = s;
    return true;
}

bool ParseHevcVideoTiming(const uint8_t *nal, size_t size, uint32_t *timeScale, uint32_t *frameTicks) {
    Rbsp rbsp(nal, size, kSetBytes, 2);
    BitReader *r = &rbsp.reader;
    ReadBits(r, 12);  // ID, base layer flags, layers
    const uint32_t subLayers = ReadBits(r, 3);
    ReadBits(r, 17);  // nesting, reserved
    if (subLayers >= kMaxHevcSubLayers) return false;
    uint8_t general[12];
    ReadHevcProfile(r, subLayers, general);
    for (uint32_t i = ReadBits(r, 1) ? 0 : subLayers; i <= subLayers; ++i)
        for (int j = 0; j < 3; ++j) ReadUe(r);
    const uint32_t maxLayerId = ReadBits(r, 6);
    const uint32_t layerSets = ReadUe(r);
    if (layerSets > 1023) return false;
    ReadBits(r, layerSets * (maxLayerId + 1));
    if (!ReadBits(r, 1)) return false;
    const uint32_t unitsInTick = ReadBits(r, 32), scale = ReadBits(r, 32);
    if (r->Exhausted || unitsInTick == 0 || scale == 0) return false;
    *timeScale = scale;
    *frameTicks = unitsInTick;
    return true;
}

bool ParseHevcPictureSet(const uint8_t *nal, size_t size, PictureSet *pps, uint32_t *id) {
    Rbsp rbsp(nal, size, kSliceBytes, 2);
    BitReader *r = &rbsp.reader;
    PictureSet p;
    *id = ReadUe(r);
    p.sequenceId = ReadUe(r);
    p.dependentSlices = ReadBits(r, 1);
    p.outputFlagPresent = ReadBits(r, 1);
    p.extraSliceHeaderBits = ReadBits(r, 3);
    if (r->Exhausted || *id >= 64 || p.sequenceId >= 16) return false;
    ReadBits(r, 2);  // sign data hiding, CABAC init
    ReadUe(r);
    ReadUe(r);
    ReadSe(r);       // initial QP
    ReadBits(r, 2);  // constrained intra prediction, transform skip
    if (ReadBits(r, 1)) ReadUe(r);
    ReadSe(r);
    ReadSe(r);
    ReadBits(r, 4);  // chroma QP offsets, weighted prediction, transquant bypass
    p.tiles = ReadBits(r, 1);
    p.wavefronts = ReadBits(r, 1);
    p.valid = true;
    *pps = p;
    return true;
}

bool ParseHevcSlice(const uint8_t *nal, size_t size, const SequenceSet *sets, const PictureSet *pictures,
                    SliceFacts *slice) {
    Rbsp rbsp(nal, size, kSliceBytes, 2);
    BitReader *r = &rbsp.reader;
    const uint32_t type = (nal[0] >> 1) & 0x3F;
    SliceFacts f;
    f.firstInPicture = ReadBits(r, 1);
    if (type >= kHevcIrapFirst && type <= kHevcIrapLast) ReadBits(r, 1);
    f.pictureSet = ReadUe(r);
    if (r->Exhausted || f.pictureSet >= 64 || !pictures[f.pictureSet].valid) return false;
    if (!f.firstInPicture) {
        *slice = f;
        return true;
    }
    const PictureSet &pps = pictures[f.pictureSet];
    const SequenceSet &sps = sets[pps.sequenceId];
    if (!sps.valid) return false;
    ReadBits(r, pps.extraSliceHeaderBits);
    ReadUe(r);  // slice type
    if (pps.outputFlagPresent) ReadBits(r, 1);
    if (sps.separateColourPlanes) ReadBits(r, 2);
    if (type != kHevcIdrWithLeading && type != kHevcIdrNoLeading) f.pocLsb = ReadBits(r, sps.log2MaxPocLsb);
    if (r->Exhausted) return false;
    *slice = f;
    return true;
}

namespace {

void PutUnits(Bytes *out, const ParameterUnit *units, size_t count, uint32_t type, bool withCount16) {
    size_t n = 0;
    for (size_t i = 0; i < count; ++i) n += units[i].type == type;
    if (withCount16) out->push_back(uint8_t(n >> 8));
    out->push_back(uint8_t(n));
    for (size_t i = 0; i < count; ++i) {
        if (units[i].type != type) continue;
        const size_t size = units[i].bytes.size();
        out->push_back(uint8_t(size >> 8));
        out->push_back(uint8_t(size));
        out->insert(out->end(), units[i].bytes.begin(), units[i].bytes.end());
    }
}

}  // namespace

Bytes BuildAvcConfig(const SequenceSet &sps, const ParameterUnit *units, size_t count) {
    constexpr uint32_t kSps = 7, kPps = 8, kSpsExtension = 13;
    // Version 1, profile, compatibility, level, 4-byte lengths, then the
    // sets (their count in the low 5 bits behind 3 reserved ones).
    Bytes out = {1, sps.profile, sps.compatibility, sps.level, 0xFF};
    PutUnits(&out, units, count, kSps, false);
    out[5] |= 0xE0;
    PutUnits(&out, units, count, kPps, false);
    if (Among(sps.profile, kAvcConfigChromaProfiles)) {
        out.push_back(uint8_t(0xFC | sps.chromaFormat));
        out.push_back(uint8_t(0xF8 | (sps.bitDepthLuma - 8)));
        out.push_back(uint8_t(0xF8 | (sps.bitDepthChroma - 8)));
        PutUnits(&out, units, count, kSpsExtension, false);
    }
    return out;
}

Bytes BuildHevcConfig(const SequenceSet &sps, const ParameterUnit *units, size_t count, bool complete) {
    Bytes out = {1};
    out.insert(out.end(), sps.general, sps.general + 12);
    // The parallelism the picture sets allow (1 slices, 2 tiles, 3
    // wavefronts; 0 both or unknown), stated only where the sequence set
    // bounds its segments; chroma format, bit depths, no average frame rate.
    uint32_t parallelism = 0;
    if (sps.minSpatialSegmentation != 0) {
        bool tiles = false, wavefronts = false;
        for (size_t i = 0; i < count; ++i) {
            PictureSet pps;
            uint32_t id = 0;
            if (units[i].type != 34 || !ParseHevcPictureSet(units[i].bytes.data(), units[i].bytes.size(), &pps, &id))
                continue;
            tiles = tiles || pps.tiles;
            wavefronts = wavefronts || pps.wavefronts;
        }
        parallelism = tiles && wavefronts ? 0 : tiles ? 2 : wavefronts ? 3 : 1;
    }
    const uint8_t fields[] = {uint8_t(0xF0 | (sps.minSpatialSegmentation >> 8)), uint8_t(sps.minSpatialSegmentation),
                              uint8_t(0xFC | parallelism), uint8_t(0xFC | sps.chromaFormat),
                              uint8_t(0xF8 | (sps.bitDepthLuma - 8)), uint8_t(0xF8 | (sps.bitDepthChroma - 8)),
                              0, 0,
                              uint8_t((sps.temporalLayers << 3) | (sps.temporalIdNested ? 4 : 0) | 3)};
    out.insert(out.end(), fields, fields + sizeof fields);
    constexpr uint32_t kTypes[] = {32, 33, 34};  // video, sequence, picture parameter sets
    const size_t arraysAt = out.size();
    out.push_back(0);
    for (uint32_t type : kTypes) {
        if (std::none_of(units, units + count, [type](const ParameterUnit &u) { return u.type == type; }))
            continue;
        ++out[arraysAt];
        out.push_back(uint8_t((complete ? 0x80 : 0) | type));
        PutUnits(&out, units, count, type, true);
    }
    return out;
}

}  // namespace mux
