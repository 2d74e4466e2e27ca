// What the video readers of mux share: the parameter sets of H.264 and
// HEVC as far as a muxer needs them (picture size, timing, reorder depth,
// the fields of their configurations, the fields that picture order counts
// come from), parsed by parameter_sets.cpp, and the rows each reader gives
// formats.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mux/mux.h"

namespace mux {

// ---- Parameter sets (parameter_sets.cpp) ---------------------------------

// H.264 and HEVC number sets of each kind from 0; the ranges a decoder
// takes bound the tables the readers keep.
constexpr uint32_t kMaxSequenceSets = 32;  // H.264: 0..31; HEVC: 0..15
constexpr uint32_t kMaxPictureSets = 256;  // H.264: 0..255; HEVC: 0..63
constexpr uint32_t kMaxPocCycle = 255;     // H.264's offsets of a reference frame cycle

// A sequence parameter set of either codec, parsed.
struct SequenceSet {
    bool valid = false;
    uint32_t id = 0;
    uint32_t width = 0, height = 0;  // cropping applied
    uint32_t chromaFormat = 1;
    uint32_t bitDepthLuma = 8, bitDepthChroma = 8;
    bool separateColourPlanes = false;
    // Timing: a frame lasts frameTicks of timeScale; 0 without timing.
    uint32_t timeScale = 0, frameTicks = 0;
    bool fixedRate = false;
    uint32_t reorderFrames = 16;  // frames that may wait for output
    // H.264
    uint8_t profile = 0, compatibility = 0, level = 0;
    uint32_t log2MaxFrameNum = 4;
    uint32_t pocType = 0;
    uint32_t log2MaxPocLsb = 4;
    bool frameMbsOnly = true;
    bool deltaPocAlwaysZero = false;
    int32_t offsetForNonRefPic = 0, offsetForTopToBottomField = 0;
    uint32_t pocCycleLength = 0;
    int32_t pocCycle[kMaxPocCycle] = {};
    // HEVC: profile_tier_level's general fields as "hvcC" holds them (12
    // bytes from general_profile_space to general_level_idc), and the rest
    uint8_t general[12] = {};
    uint32_t temporalLayers = 1;
    bool temporalIdNested = false;
    uint32_t minSpatialSegmentation = 0;  // 0: not bounded
};

struct PictureSet {
    bool valid = false;
    uint32_t sequenceId = 0;
    // H.264
    bool bottomFieldPocPresent = false;
    // HEVC
    bool dependentSlices = false;
    bool outputFlagPresent = false;
    uint32_t extraSliceHeaderBits = 0;
    bool tiles = false, wavefronts = false;
};

// The fields of a picture's first slice that ordering needs.
struct SliceFacts {
    bool firstInPicture = false;  // first_mb_in_slice 0, first_slice_segment_in_pic_flag
    uint32_t pictureSet = 0;
    // H.264
    uint32_t frameNum = 0;
    bool field = false, bottomField = false;
    uint32_t pocLsb = 0;
    int32_t deltaPocBottom = 0;
    int32_t deltaPoc[2] = {};
};

// Emulation prevention taken out of a NAL unit's bytes (its header
// included), up to `limit` bytes of result: the RBSP the parsers read.
size_t UnescapeNal(const uint8_t *nal, size_t size, uint8_t *out, size_t limit);

// Each parser takes a whole NAL unit (header included, emulation prevention
// in place) and gives false when the unit is cut short or holds values out
// of range.
bool ParseAvcSequenceSet(const uint8_t *nal, size_t size, SequenceSet *sps);
bool ParseAvcPictureSet(const uint8_t *nal, size_t size, PictureSet *pps, uint32_t *id);
// `sets` are the sequence sets known so far (a picture set's fields depend
// on its sequence set in neither codec as far as parsed here).
bool ParseAvcSlice(const uint8_t *nal, size_t size, const SequenceSet *sets, const PictureSet *pictures,
                   SliceFacts *slice);
bool ParseHevcSequenceSet(const uint8_t *nal, size_t size, SequenceSet *sps);
// The timing a video parameter set states; false without.
bool ParseHevcVideoTiming(const uint8_t *nal, size_t size, uint32_t *timeScale, uint32_t *frameTicks);
bool ParseHevcPictureSet(const uint8_t *nal, size_t size, PictureSet *pps, uint32_t *id);
bool ParseHevcSlice(const uint8_t *nal, size_t size, const SequenceSet *sets, const PictureSet *pictures,
                    SliceFacts *slice);

// A parameter set unit as a configuration lists it.
struct ParameterUnit {
    uint32_t type;  // NAL unit type
    Bytes bytes;    // the unit, header included
};

// "avcC" and "hvcC" (4-byte lengths) from the units in the order given:
// the sequence set `sps` gives the fields; `complete` is the arrays'
// completeness bit of "hvcC" (every set is in the configuration).
Bytes BuildAvcConfig(const SequenceSet &sps, const ParameterUnit *units, size_t count);
Bytes BuildHevcConfig(const SequenceSet &sps, const ParameterUnit *units, size_t count, bool complete);

// ---- The readers' rows -----------------------------------------------------

bool ProbeH264(const uint8_t *head, size_t size);
bool ProbeHevc(const uint8_t *head, size_t size);
Reader *OpenH264(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure);
Reader *OpenHevc(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure);
Step NextAnnexB(Reader *reader, Sample *sample, Failure *failure);
void CloseAnnexB(Reader *reader);

bool ProbeMpeg4Video(const uint8_t *head, size_t size);
Reader *OpenMpeg4Video(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure);
Step NextMpeg4Video(Reader *reader, Sample *sample, Failure *failure);
void CloseMpeg4Video(Reader *reader);

bool ProbeAv1Ivf(const uint8_t *head, size_t size);
bool ProbeVp9Ivf(const uint8_t *head, size_t size);
Reader *OpenIvf(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure);
Step NextIvf(Reader *reader, Sample *sample, Failure *failure);
void CloseIvf(Reader *reader);

}  // namespace mux
