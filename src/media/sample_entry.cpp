// Small look-ups on a track's sample description, shared by the media
// calls and the command-line tool.
#include "atoms/atoms.h"
#include "media/media.h"
#include "tracks/tracks.h"

namespace {
constexpr uint8_t kDecoderSpecificInfoTag = 0x05;
}

const AtomNode *TrackSampleEntry(const TrackNode *track) {
    if (track == nullptr || track->TrakAtom == nullptr) return nullptr;
    static const char *const kPath[] = {"mdia", "minf", "stbl", "stsd"};
    const AtomNode *stsd = WalkPath(track->TrakAtom, kPath, 4, nullptr);
    return stsd ? stsd->FirstChild : nullptr;
}

size_t AtomRecordBytes(const AtomNode *atom) {
    if (atom == nullptr || atom->realStructure == nullptr) return 0;
    const size_t record = NodeHeadLength(atom);
    const size_t stated = GetBE32(atom->realStructure, field::kHeadSize);
    return stated < record ? stated : record;
}

int32_t FindDecoderSpecificInfo(const uint8_t *esds, size_t length, size_t *offset, size_t *size) {
    DecoderConfigPlace place;
    if (FindDecoderConfig(esds, length, &place) != 1) return -1;
    if (place.SpecificOffset > length) return -1;
    // The tag follows the average bit rate.
    if (esds[place.AvgBitRateOffset + 4] != kDecoderSpecificInfoTag) return -1;
    size_t bytes = esds[place.SpecificLengthOffset];
    if (bytes > length - place.SpecificOffset) bytes = length - place.SpecificOffset;
    *offset = place.SpecificOffset;
    *size = bytes;
    return 1;
}
