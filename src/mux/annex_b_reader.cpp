// H.264 and HEVC Annex B streams into samples: NAL units found between
// start codes, gathered into access units (an access unit delimiter,
// parameter sets, SEI and the like, or the first slice of a new picture
// begin one), written with 4-byte lengths. Parameter sets go into the
// configuration and out of the samples when a file's scan shows they never
// change ("avc1", "hvc1"); otherwise, and always for standard input, they
// stay in the samples ("avc3", "hev1") and the configuration holds those in
// front of the first picture.
//
// Presentation order comes from picture order counts: pictures wait as in
// a decoder's buffer, and the one with the lowest count leaves when more
// than the stream's reorder depth wait (or a new coded video sequence
// begins). Each picture lasts a frame (a field picture half of one): it
// presents when those that left before it are over, and decodes when
// those in front of it in the stream are; composition offsets are shifted
// by the reorder depth so that none is negative.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "mux/video.h"

namespace mux {
namespace {

constexpr size_t kNone = SIZE_MAX;
// An access unit is one sample held in memory: a unit or an access unit
// longer than this is no stream we take.
constexpr size_t kMaxAccessUnit = size_t(256) << 20;
constexpr size_t kMaxLeadingBytes = size_t(1) << 20;  // in front of the first start code
// Pictures held back at most, whatever the reorder depth: a stream whose
// first picture in line never leaves can't hold more than this.
constexpr size_t kMaxHeldPictures = 64;
// The scan of a file: blocks read, the longest parameter set kept across
// blocks, and the most distinct sets a configuration takes.
constexpr size_t kScanBlock = size_t(1) << 20;
constexpr size_t kMaxSetBytes = size_t(64) << 10;
constexpr size_t kMaxDistinctSets = 31;
constexpr uint32_t kDefaultFps = 25;

enum class Codec { kAvc, kHevc };

// The kinds of NAL unit the reader tells apart.
struct NalKind {
    uint32_t type = 0;
    bool vcl = false;
    bool parameterSet = false;
    bool beginsUnit = false;  // begins an access unit when it follows a picture's slices
    bool key = false;         // IDR (H.264), IRAP (HEVC)
    bool endOfSequence = false;
    uint32_t temporalId = 0;  // HEVC
    bool reference = true;    // H.264: nal_ref_idc not 0
};

NalKind Classify(Codec codec, const uint8_t *nal, size_t size) {
    NalKind k;
    if (codec == Codec::kAvc) {
        k.type = nal[0] & 0x1F;
        k.reference = (nal[0] & 0x60) != 0;
        // Partitions B and C of a data-partitioned slice carry no slice
        // header: they go with the picture of their partition A.
        k.vcl = k.type == 1 || k.type == 2 || k.type == 5;
        k.parameterSet = k.type == 7 || k.type == 8 || k.type == 13;
        k.beginsUnit = (k.type >= 6 && k.type <= 9) || (k.type >= 14 && k.type <= 18);
        k.key = k.type == 5;
        k.endOfSequence = k.type == 10;
        return k;
    }
    k.type = (nal[0] >> 1) & 0x3F;
    const uint32_t layer = ((nal[0] & 1u) << 5) | (size > 1 ? nal[1] >> 3 : 0);
    k.temporalId = size > 1 && (nal[1] & 7) != 0 ? (nal[1] & 7) - 1 : 0;
    // Units of layers above 0 go with the picture of layer 0, their
    // parameter sets kept in the samples.
    k.vcl = layer == 0 && k.type < 32;
    k.parameterSet = layer == 0 && k.type >= 32 && k.type <= 34;
    k.beginsUnit = layer == 0 && ((k.type >= 32 && k.type <= 35) || k.type == 39 || (k.type >= 41 && k.type <= 44) ||
                                  (k.type >= 48 && k.type <= 55));
    k.key = k.type >= 16 && k.type <= 23;
    k.endOfSequence = k.type == 36;
    return k;
}

// A picture on its way out.
struct Picture {
    Bytes data;           // the access unit, 4-byte lengths
    uint64_t offset = 0;  // in the input
    uint64_t decodeTime = 0;  // track ticks
    uint32_t duration = 0;
    bool field = false;       // a field picture: half a frame
    int64_t order = 0;  // picture order count
    bool key = false;
    bool newSequence = false;  // begins a coded video sequence: the ones before leave first
    int64_t presentTime = -1;  // track ticks; -1 while it waits
};

// What picture order counts carry from one picture to the next.
struct PocState {
    int64_t prevMsb = 0;
    uint32_t prevLsb = 0;
    int64_t prevFrameNumOffset = 0;
    uint32_t prevFrameNum = 0;
    int64_t prevTid0 = 0;      // HEVC
    bool afterEnd = true;      // the next picture opens the stream or follows an end of sequence
};

struct AnnexBReader {
    Codec codec = Codec::kAvc;
    ByteStream *in = nullptr;
    bool outOfBand = false;  // parameter sets in the configuration only
    std::unique_ptr<SequenceSet[]> sequences{new SequenceSet[kMaxSequenceSets]};
    std::unique_ptr<PictureSet[]> pictures{new PictureSet[kMaxPictureSets]};
    // The NAL unit search: the unit being read begins at nalStart; the
    // search for its end goes on at scan.
    size_t nalStart = kNone;
    size_t scan = 0;
    bool nalsEnded = false;
    // The access unit being gathered.
    Picture building;
    bool buildingHasSlice = false;
    size_t cut = kNone;  // where the units that begin the next access unit start
    uint64_t cutOffset = 0;  // and where the first of them lies in the input
    bool unitsEnded = false;
    // Units in front of the first picture, for an in-band configuration.
    std::vector<ParameterUnit> leading;
    SequenceSet firstSequence;  // of the first picture: it describes the track
    uint32_t videoTimeScale = 0, videoFrameTicks = 0;  // HEVC: the first video set's timing
    PocState poc;
    std::deque<Picture> held;  // decoding order
    std::vector<Picture *> waiting;
    uint64_t decoded = 0, presented = 0;  // ticks of the pictures held and presented so far
    uint32_t reorder = 0;  // pictures that may wait: the most any sequence set so far allows
    uint32_t shift = 0;    // frames the composition offsets are shifted by
    uint32_t step = 1;
    Picture out;  // the sample handed out last
};

Reader *AsReader(AnnexBReader *reader) { return reinterpret_cast<Reader *>(reader); }
AnnexBReader *FromReader(Reader *reader) { return reinterpret_cast<AnnexBReader *>(reader); }

Step Fail(Failure *failure, uint64_t offset, std::string why) {
    failure->offset = offset;
    failure->why = std::move(why);
    return Step::kFailed;
}

// The first start code prefix (00 00 01) at or behind `from` in bytes[0,
// end), or kNone.
size_t FindStartCode(const uint8_t *bytes, size_t from, size_t end) {
    for (size_t at = from + 2; at < end;) {
        const void *one = std::memchr(bytes + at, 1, end - at);
        if (one == nullptr) return kNone;
        at = size_t(static_cast<const uint8_t *>(one) - bytes);
        if (bytes[at - 1] == 0 && bytes[at - 2] == 0) return at - 2;
        ++at;
    }
    return kNone;
}

// A unit without the zeros behind it (trailing zero bytes, or the first
// byte of a 4-byte start code).
size_t Trimmed(const uint8_t *nal, size_t size) {
    while (size > 0 && nal[size - 1] == 0) --size;
    return size;
}

enum class NalStep { kUnit, kEnd, kFailed };

// The next NAL unit of the input; *nal stays valid until the next call.
NalStep NextNal(AnnexBReader *r, const uint8_t **nal, size_t *size, Failure *failure) {
    ByteStream *in = r->in;
    if (r->nalsEnded) return NalStep::kEnd;
    if (r->nalStart != kNone) {
        const size_t moved = LetGo(in, r->nalStart);
        r->nalStart -= moved;
        r->scan -= moved;
    }
    for (;;) {
        const size_t end = in->bytes.size();
        const size_t at = FindStartCode(in->bytes.data(), r->scan, end);
        if (at != kNone && r->nalStart == kNone) {  // the first start code: what is in front is no unit
            r->nalStart = r->scan = at + 3;
            continue;
        }
        if (at != kNone) {
            const size_t start = r->nalStart;
            r->nalStart = r->scan = at + 3;
            *nal = in->bytes.data() + start;
            *size = Trimmed(*nal, at - start);
            if (*size == 0) continue;  // start codes back to back
            return NalStep::kUnit;
        }
        if (r->nalStart == kNone ? end > kMaxLeadingBytes : end - r->nalStart > kMaxAccessUnit) {
            Fail(failure, in->consumed + (r->nalStart == kNone ? 0 : r->nalStart),
                 r->nalStart == kNone ? "no start code in the first MiB" : "a NAL unit of more than 256 MiB");
            return NalStep::kFailed;
        }
        r->scan = std::max(r->scan, end >= 2 ? end - 2 : 0);
        if (ReadMore(in)) continue;
        if (in->failed) {
            Fail(failure, in->consumed + end, std::string("the input can't be read: ") + std::strerror(errno));
            return NalStep::kFailed;
        }
        r->nalsEnded = true;
        if (r->nalStart == kNone) return NalStep::kEnd;
        *nal = in->bytes.data() + r->nalStart;
        *size = Trimmed(*nal, end - r->nalStart);
        return *size == 0 ? NalStep::kEnd : NalStep::kUnit;
    }
}

// ---- Picture order counts ---------------------------------------------------

int64_t AvcOrder(PocState *s, const SequenceSet &sps, const SliceFacts &slice, const NalKind &kind) {
    const bool idr = kind.key;
    const int64_t maxFrameNum = int64_t(1) << sps.log2MaxFrameNum;
    int64_t top = 0, bottom = 0;
    if (sps.pocType == 0) {
        if (idr) s->prevMsb = 0, s->prevLsb = 0;
        const int64_t maxLsb = int64_t(1) << sps.log2MaxPocLsb;
        const int64_t lsb = slice.pocLsb, prevLsb = s->prevLsb;
        int64_t msb = s->prevMsb;
        if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2)
            msb += maxLsb;
        else if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2)
            msb -= maxLsb;
        top = msb + lsb;
        bottom = slice.field ? top : top + slice.deltaPocBottom;
        if (kind.reference) s->prevMsb = msb, s->prevLsb = uint32_t(lsb);
    } else {
        int64_t frameNumOffset = 0;
        if (!idr) frameNumOffset = s->prevFrameNumOffset + (s->prevFrameNum > slice.frameNum ? maxFrameNum : 0);
        s->prevFrameNumOffset = frameNumOffset;
        s->prevFrameNum = slice.frameNum;
        if (sps.pocType == 2) {
            const int64_t order = idr ? 0 : 2 * (frameNumOffset + slice.frameNum) - (kind.reference ? 0 : 1);
            return order;
        }
        int64_t absFrameNum = sps.pocCycleLength != 0 ? frameNumOffset + slice.frameNum : 0;
        if (!kind.reference && absFrameNum > 0) --absFrameNum;
        int64_t expected = 0;
        if (absFrameNum > 0) {
            int64_t perCycle = 0;
            for (uint32_t i = 0; i < sps.pocCycleLength; ++i) perCycle += sps.pocCycle[i];
            const int64_t cycles = (absFrameNum - 1) / sps.pocCycleLength;
            const int64_t inCycle = (absFrameNum - 1) % sps.pocCycleLength;
            expected = cycles * perCycle;
            for (int64_t i = 0; i <= inCycle; ++i) expected += sps.pocCycle[i];
        }
        if (!kind.reference) expected += sps.offsetForNonRefPic;
        top = expected + slice.deltaPoc[0];
        bottom = slice.field ? expected + sps.offsetForTopToBottomField + slice.deltaPoc[0]
                             : top + sps.offsetForTopToBottomField + slice.deltaPoc[1];
    }
    if (slice.field) return slice.bottomField ? bottom : top;
    return std::min(top, bottom);
}

// HEVC: the count's high part carries on from the last picture of
// temporal layer 0 that others may refer to, and starts again at an IRAP
// picture that opens a coded video sequence.
int64_t HevcOrder(PocState *s, const SequenceSet &sps, const SliceFacts &slice, const NalKind &kind,
                  bool opensSequence) {
    const int64_t maxLsb = int64_t(1) << sps.log2MaxPocLsb;
    const int64_t lsb = slice.pocLsb;
    int64_t msb = 0;
    if (!(kind.key && opensSequence)) {
        const int64_t prevLsb = s->prevTid0 & (maxLsb - 1);
        const int64_t prevMsb = s->prevTid0 - prevLsb;
        msb = prevMsb;
        if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2)
            msb += maxLsb;
        else if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2)
            msb -= maxLsb;
    }
    const int64_t order = msb + lsb;
    const bool leading = kind.type >= 6 && kind.type <= 9;
    const bool sublayerNonReference = kind.type <= 14 && kind.type % 2 == 0;
    if (kind.temporalId == 0 && !leading && !sublayerNonReference) s->prevTid0 = order;
    return order;
}

// ---- Access units ----------------------------------------------------------

// Parses a parameter set into the reader's tables.
bool TakeParameterSet(AnnexBReader *r, const uint8_t *nal, size_t size, const NalKind &kind) {
    const bool avc = r->codec == Codec::kAvc;
    SequenceSet sps;
    PictureSet pps;
    uint32_t id = 0;
    if (avc ? kind.type == 7 : kind.type == 33) {
        if (!(avc ? ParseAvcSequenceSet(nal, size, &sps) : ParseHevcSequenceSet(nal, size, &sps))) return false;
        r->sequences[sps.id] = sps;
    } else if (avc ? kind.type == 8 : kind.type == 34) {
        if (!(avc ? ParseAvcPictureSet(nal, size, &pps, &id) : ParseHevcPictureSet(nal, size, &pps, &id)))
            return false;
        r->pictures[id] = pps;
    } else if (!avc && kind.type == 32 && r->videoTimeScale == 0) {
        ParseHevcVideoTiming(nal, size, &r->videoTimeScale, &r->videoFrameTicks);
    }
    return true;
}

// Sets the order count of the picture whose first slice this is.
void StartPicture(AnnexBReader *r, const NalKind &kind, const SliceFacts &slice, Picture *picture) {
    const SequenceSet &sps = r->sequences[r->pictures[slice.pictureSet].sequenceId];
    if (!r->firstSequence.valid) r->firstSequence = sps;
    r->reorder = std::max(r->reorder, sps.reorderFrames);
    // IDR and BLA pictures open a coded video sequence, a CRA picture when
    // it opens the stream or follows an end of sequence.
    const bool opens = kind.key && (r->codec == Codec::kAvc || kind.type <= 20 || r->poc.afterEnd);
    picture->key = kind.key;
    picture->field = slice.field;
    picture->newSequence = opens;
    picture->order = r->codec == Codec::kAvc ? AvcOrder(&r->poc, sps, slice, kind)
                                             : HevcOrder(&r->poc, sps, slice, kind, opens);
    r->poc.afterEnd = false;
}

// A parameter set in front of the first picture, for an in-band
// configuration: each distinct one once, as many as a configuration takes.
void KeepLeading(AnnexBReader *r, const NalKind &kind, const uint8_t *nal, size_t size) {
    for (const ParameterUnit &unit : r->leading)
        if (unit.type == kind.type && unit.bytes.size() == size && std::equal(nal, nal + size, unit.bytes.begin())) return;
    if (r->leading.size() < kMaxDistinctSets) r->leading.push_back({kind.type, Bytes(nal, nal + size)});
}

void AppendUnit(Bytes *data, const uint8_t *nal, size_t size) {
    const uint8_t length[4] = {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size)};
    data->insert(data->end(), length, length + 4);
    data->insert(data->end(), nal, nal + size);
}

// The next access unit into *unit. kEnd when none is left.
Step NextAccessUnit(AnnexBReader *r, Picture *unit, Failure *failure) {
    for (;;) {
        const uint8_t *nal = nullptr;
        size_t size = 0;
        const NalStep got = r->unitsEnded ? NalStep::kEnd : NextNal(r, &nal, &size, failure);
        if (got == NalStep::kFailed) return Step::kFailed;
        const uint64_t offset = r->in->consumed + (nal ? size_t(nal - r->in->bytes.data()) : r->in->bytes.size());
        if (got == NalStep::kEnd) {
            r->unitsEnded = true;
            if (!r->buildingHasSlice) return Step::kEnd;
            *unit = std::move(r->building);
            r->building = Picture{};
            r->buildingHasSlice = false;
            return Step::kSample;
        }
        if (nal[0] & 0x80) return Fail(failure, offset, "a NAL unit whose forbidden bit is set");
        const NalKind kind = Classify(r->codec, nal, size);
        if (kind.parameterSet && !TakeParameterSet(r, nal, size, kind))
            return Fail(failure, offset, "a parameter set that can't be read");
        if (kind.endOfSequence) r->poc.afterEnd = true;
        bool complete = false;
        SliceFacts slice;
        if (kind.vcl) {
            const bool parsed = r->codec == Codec::kAvc
                                    ? ParseAvcSlice(nal, size, r->sequences.get(), r->pictures.get(), &slice)
                                    : ParseHevcSlice(nal, size, r->sequences.get(), r->pictures.get(), &slice);
            if (!parsed)
                return Fail(failure, offset, "a slice header that can't be read, or whose parameter sets never came");
            complete = slice.firstInPicture && r->buildingHasSlice;
        } else if (kind.beginsUnit && r->buildingHasSlice && r->cut == kNone) {
            r->cut = r->building.data.size();
            r->cutOffset = offset;
        }
        Picture next;
        if (complete) {
            const size_t cut = r->cut == kNone ? r->building.data.size() : r->cut;
            next.data.assign(r->building.data.begin() + long(cut), r->building.data.end());
            r->building.data.resize(cut);
            next.offset = r->cut == kNone ? offset : r->cutOffset;
            *unit = std::move(r->building);
            r->building = std::move(next);
            r->buildingHasSlice = false;
            r->cut = kNone;
        }
        if (r->building.data.empty() && !r->buildingHasSlice) r->building.offset = offset;
        if (kind.vcl && !r->buildingHasSlice) {
            StartPicture(r, kind, slice, &r->building);
            r->buildingHasSlice = true;
        }
        if (kind.parameterSet && !r->outOfBand && r->decoded == 0 && !r->buildingHasSlice)
            KeepLeading(r, kind, nal, size);
        if (!(kind.parameterSet && r->outOfBand)) AppendUnit(&r->building.data, nal, size);
        if (r->building.data.size() > kMaxAccessUnit)
            return Fail(failure, offset, "an access unit of more than 256 MiB");
        if (complete) return Step::kSample;
    }
}

// ---- Presentation order ----------------------------------------------------

void Present(AnnexBReader *r, Picture *picture) {
    picture->presentTime = int64_t(r->presented);
    r->presented += picture->duration;
    r->waiting.erase(std::find(r->waiting.begin(), r->waiting.end(), picture));
}

void PresentLowest(AnnexBReader *r) {
    Picture *lowest = *std::min_element(r->waiting.begin(), r->waiting.end(),
                                        [](const Picture *a, const Picture *b) { return a->order < b->order; });
    Present(r, lowest);
}

void PresentAll(AnnexBReader *r) {
    while (!r->waiting.empty()) PresentLowest(r);
}

void Hold(AnnexBReader *r, Picture &&picture) {
    if (picture.newSequence) PresentAll(r);
    picture.duration = picture.field && r->step >= 2 ? r->step / 2 : r->step;
    picture.decodeTime = r->decoded;
    r->decoded += picture.duration;
    r->held.push_back(std::move(picture));
    r->waiting.push_back(&r->held.back());
    while (r->waiting.size() > r->reorder) PresentLowest(r);
    while (r->held.size() > kMaxHeldPictures && r->held.front().presentTime < 0) PresentLowest(r);
}

// ---- The file scan ---------------------------------------------------------

// The ID of a parameter set unit, and of a sequence set the deepest
// reordering so far; false when it can't be read.
bool SetId(Codec codec, const uint8_t *nal, size_t size, uint32_t type, uint32_t *id, uint32_t *reorder) {
    SequenceSet sps;
    PictureSet pps;
    const bool avc = codec == Codec::kAvc;
    if (avc ? type == 7 : type == 33) {
        if (!(avc ? ParseAvcSequenceSet(nal, size, &sps) : ParseHevcSequenceSet(nal, size, &sps))) return false;
        *id = sps.id;
        *reorder = std::max(*reorder, sps.reorderFrames);
        return true;
    }
    if (avc ? type == 8 : type == 34) return avc ? ParseAvcPictureSet(nal, size, &pps, id) : ParseHevcPictureSet(nal, size, &pps, id);
    if (type == 32 && size > 2) *id = nal[2] >> 4;  // the video parameter set's ID
    return type == 32 ? size > 2 : false;            // H.264's extensions: kept in the samples
}

// Whether every parameter set of a file keeps the bytes it first had, read
// with pread in blocks (the descriptor's offset stays at the start). The
// distinct sets go to `units` in the order met; `reorder` gets the deepest
// reordering any sequence set allows.
bool SetsNeverChange(Codec codec, int fd, std::vector<ParameterUnit> *units, uint32_t *reorder) {
    std::vector<uint32_t> ids;  // of each unit
    bool same = true;
    Bytes block;
    uint64_t offset = 0;
    bool ended = false;
    while (!ended) {
        const size_t kept = block.size();
        block.resize(kept + kScanBlock);
        ssize_t got;
        do {
            got = pread(fd, block.data() + kept, kScanBlock, off_t(offset));
        } while (got < 0 && errno == EINTR);
        if (got < 0) return false;
        block.resize(kept + size_t(got));
        offset += uint64_t(got);
        ended = got == 0;
        // Every unit whose end is known; the one that runs on is kept for
        // the next block when it may be a parameter set.
        size_t at = FindStartCode(block.data(), 0, block.size());
        size_t keepFrom = block.size() >= 2 ? block.size() - 2 : 0;
        while (at != kNone) {
            const size_t start = at + 3;
            const size_t next = FindStartCode(block.data(), start, block.size());
            if (next == kNone && !ended) {
                const bool unknown = start >= block.size();
                if (unknown || (Classify(codec, &block[start], block.size() - start).parameterSet &&
                                block.size() - at <= kMaxSetBytes))
                    keepFrom = at;
                break;
            }
            const size_t size = Trimmed(&block[start], (next == kNone ? block.size() : next) - start);
            const uint8_t *nal = &block[start];
            const NalKind kind = Classify(codec, nal, std::max<size_t>(size, 1));
            if (size > 0 && kind.parameterSet) {
                uint32_t id = 0;
                if (!SetId(codec, nal, size, kind.type, &id, reorder)) return false;
                size_t known = 0;
                while (known < units->size() && ((*units)[known].type != kind.type || ids[known] != id)) ++known;
                if (known < units->size()) {
                    const Bytes &first = (*units)[known].bytes;
                    same = same && first.size() == size && std::equal(nal, nal + size, first.begin());
                } else if (units->size() >= kMaxDistinctSets) {
                    same = false;
                } else {
                    units->push_back({kind.type, Bytes(nal, nal + size)});
                    ids.push_back(id);
                }
            }
            at = next;
        }
        block.erase(block.begin(), block.begin() + long(ended ? block.size() : keepFrom));
    }
    return same;
}

// ---- Opening -----------------------------------------------------------------

Reader *Open(Codec codec, ByteStream *in, const Options &options, TrackDescription *track, Failure *failure) {
    auto r = std::make_unique<AnnexBReader>();
    r->codec = codec;
    r->in = in;
    std::vector<ParameterUnit> scanned;
    uint32_t deepest = 0;
    r->outOfBand = in->seekable && SetsNeverChange(codec, in->fd, &scanned, &deepest) && !scanned.empty();
    Picture first;
    const Step step = NextAccessUnit(r.get(), &first, failure);
    if (step == Step::kFailed) return nullptr;
    if (step == Step::kEnd) {
        Fail(failure, in->consumed + in->bytes.size(), "no picture in the stream");
        return nullptr;
    }
    const SequenceSet &sps = r->firstSequence;
    const std::vector<ParameterUnit> &units = r->outOfBand ? scanned : r->leading;
    track->config = codec == Codec::kAvc ? BuildAvcConfig(sps, units.data(), units.size())
                                         : BuildHevcConfig(sps, units.data(), units.size(), r->outOfBand);
    const char *format = codec == Codec::kAvc ? (r->outOfBand ? "avc1" : "avc3") : (r->outOfBand ? "hvc1" : "hev1");
    MP4TrackSpec &entry = track->entry;
    entry.TrackType = MP4_TRACK_VIDEO;
    std::memcpy(entry.Format, format, 4);
    entry.Width = sps.width;
    entry.Height = sps.height;
    entry.Config = track->config.data();
    entry.ConfigSize = uint32_t(track->config.size());
    if (options.fpsNumerator != 0) {
        entry.Timescale = options.fpsNumerator;
        r->step = std::max(options.fpsDenominator, 1u);
    } else if (sps.timeScale != 0) {
        entry.Timescale = sps.timeScale;
        r->step = sps.frameTicks;
    } else if (r->videoTimeScale != 0) {
        entry.Timescale = r->videoTimeScale;
        r->step = r->videoFrameTicks;
    } else {
        entry.Timescale = kDefaultFps;
        r->step = 1;
        track->notice = "the stream states no frame rate; 25 frames per second";
    }
    // Offsets are shifted by the deepest reordering the stream allows: of
    // the first sequence set, or of any a file's scan met.
    r->shift = std::max(sps.reorderFrames, deepest);
    // A stream that may hold field pictures (H.264 PAFF) needs half a frame.
    if (!sps.frameMbsOnly && r->step % 2 == 1 && entry.Timescale <= UINT32_MAX / 2 && r->step <= UINT32_MAX / 2) {
        entry.Timescale *= 2;
        r->step *= 2;
    }
    r->reorder = std::max(r->reorder, r->shift);
    Hold(r.get(), std::move(first));
    return AsReader(r.release());
}

}  // namespace

bool ProbeH264(const uint8_t *head, size_t size) {
    const size_t at = FindStartCode(head, 0, size);
    if (at == kNone || at + 4 >= size || ProbeHevc(head, size)) return false;
    for (size_t i = 0; i < at; ++i)
        if (head[i] != 0) return false;
    const uint8_t header = head[at + 3];
    const uint32_t type = header & 0x1F, reference = header & 0x60;
    if (header & 0x80) return false;
    return type == 1 || type == 5 || type == 7 || type == 8 || ((type == 6 || type == 9) && reference == 0);
}

bool ProbeHevc(const uint8_t *head, size_t size) {
    const size_t at = FindStartCode(head, 0, size);
    if (at == kNone || at + 5 >= size) return false;
    for (size_t i = 0; i < at; ++i)
        if (head[i] != 0) return false;
    // Layer 0, temporal layer 0 (a second byte of 1), and a type that can
    // open a stream: a slice, a parameter set, a delimiter or SEI.
    const uint8_t header = head[at + 3];
    const uint32_t type = (header >> 1) & 0x3F;
    if ((header & 0x81) != 0 || head[at + 4] != 1) return false;
    return type <= 21 || (type >= 32 && type <= 35) || type == 39;
}

Reader *OpenH264(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure) {
    return Open(Codec::kAvc, in, options, track, failure);
}

Reader *OpenHevc(ByteStream *in, const Options &options, TrackDescription *track, Failure *failure) {
    return Open(Codec::kHevc, in, options, track, failure);
}

Step NextAnnexB(Reader *reader, Sample *sample, Failure *failure) {
    AnnexBReader *r = FromReader(reader);
    while (r->held.empty() || r->held.front().presentTime < 0) {
        Picture picture;
        const Step step = NextAccessUnit(r, &picture, failure);
        if (step == Step::kFailed) return step;
        if (step == Step::kEnd) {
            PresentAll(r);
            if (r->held.empty()) return Step::kEnd;
            break;
        }
        Hold(r, std::move(picture));
    }
    r->out = std::move(r->held.front());
    r->held.pop_front();
    const Picture &p = r->out;
    const int64_t offset = p.presentTime - int64_t(p.decodeTime) + int64_t(r->shift) * r->step;
    if (offset > INT32_MAX || offset < INT32_MIN)
        return Fail(failure, p.offset, "a picture presents too far from where it is decoded");
    sample->data = p.data.data();
    sample->size = p.data.size();
    sample->decodeTime = p.decodeTime;
    sample->compositionOffset = int32_t(offset);
    sample->duration = p.duration;
    sample->key = p.key;
    return Step::kSample;
}

void CloseAnnexB(Reader *reader) { delete FromReader(reader); }

}  // namespace mux
