// Serialisation of the headers and containers: each case fills an atom's
// record in its file form, big-endian, and works out its size. Which atoms
// exist comes from the templates alone; nothing here adds to the tree.
#include <cstdio>
#include <cstring>

#include "atoms/atoms.h"
#include "writer/writer.h"

namespace {

constexpr int32_t kFailed = -99;
constexpr int32_t kNotHandled = -1;

// Constants of every file the library writes. There is no clock: the
// creation and modification times are fixed.
constexpr uint32_t kFixedTime = 0x12345678;
constexpr uint32_t kUnitRate = 0x00010000;
constexpr uint16_t kFullVolume = 0x0100;
constexpr uint32_t kUnitMatrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
constexpr uint32_t kFlagsOne = 1;  // "tkhd" enabled, "vmhd" and "url " as required
constexpr uint32_t kResolution72Dpi = 0x00480000;
constexpr uint16_t kVisualDepth = 24;
constexpr uint16_t kNoColorTable = 0xFFFF;
constexpr uint16_t kAudioChannelCount = 2;
constexpr uint16_t kAudioSampleBits = 16;

// Fixed parts of the sized atoms.
constexpr uint32_t kFtypSize = 20;
constexpr uint32_t kMvhdSize = 108;
constexpr uint32_t kIodsSize = 42;
constexpr uint32_t kContainerHead = 8;
constexpr uint32_t kTkhdSize = 92;
constexpr uint32_t kMdhdSize = 32;
constexpr uint32_t kHdlrSize = 36;
constexpr uint32_t kVmhdSize = 20;
constexpr uint32_t kSmhdSize = 16;
constexpr uint32_t kHmhdSize = 28;
constexpr uint32_t kNmhdSize = 12;
constexpr uint32_t kUrlSize = 12;
constexpr uint32_t kStsdHead = 16;
constexpr uint32_t kDrefHead = 16;
constexpr uint32_t kMp4vFixed = 86;
constexpr uint32_t kMp4aFixed = 36;
constexpr uint32_t kMp4sFixed = 16;
constexpr uint32_t kElstSize = 28;
constexpr uint32_t kMpodHead = 8;

// The initial object descriptor: object descriptor ID 1, the profile and
// level bytes, and two elementary stream references whose track IDs are
// filled in (offsets 32 and 41).
constexpr uint8_t kIodsBody[] = {
    0x00, 0x00, 0x00, 0x00,                               // version and flags
    0x10, 0x80, 0x80, 0x80, 0x19,                         // tag, length 25
    0x00, 0x4F,                                           // ID 1, no URL, no inline
    0xFF, 0xFF, 0x0F, 0x01, 0xFF,                         // OD, scene, audio, visual, graphics
    0x0E, 0x80, 0x80, 0x80, 0x04, 0x00, 0x00, 0x00, 0x00, // ES reference a
    0x0E, 0x80, 0x80, 0x80, 0x04, 0x00, 0x00, 0x00, 0x00, // ES reference b
};
static_assert(8 + sizeof kIodsBody == kIodsSize, "the iods atom is 42 bytes");
constexpr size_t kIodsFirstReference = 32;
constexpr size_t kIodsSecondReference = 41;

struct PrintableName {
    char text[5];
    explicit PrintableName(const char *name) { CopyAtomName(text, name); }
};

int32_t SetSize(AtomNode *node, uint32_t size) {
    PutBE32(node->realStructure, field::kHeadSize, size);
    node->AtomSize = size;
    return int32_t(size);
}

void PutMatrix(uint8_t *record, size_t offset) {
    for (size_t i = 0; i < 9; ++i) PutBE32(record, offset + 4 * i, kUnitMatrix[i]);
}

// The chain of blocks must add up: each block starts where the ones before
// it ended.
bool ChainAddsUp(const TrackNode *track) {
    uint32_t samples = 0, keys = 0;
    for (const TrackNode *block = track; block != nullptr; block = block->NextBlock) {
        if (block->SampleBase != samples) {
            PrintDiagnostic("Error value in the TrackNode's SampleCount;\n");
            return false;
        }
        if (block->KeyFrameBase != keys) {
            PrintDiagnostic("Error value in the TrackNode's KeyFrameCount;\n");
            return false;
        }
        samples += block->SampleCount;
        keys += block->KeyFrameCount;
    }
    return true;
}

// A container's size is its head and the sizes of its children, which are
// known only after they are filled.
int32_t SerializeChildren(AtomNode *node, TrackNode *track, uint32_t head) {
    int64_t size = head;
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        const int32_t childSize = SerializeTrackAtom(child, track);
        size += childSize;
        if (childSize < 1 || size > INT32_MAX) {
            PrintDiagnostic("there is error in [%s]'s child=>[%s]\n",
                        PrintableName(node->AtomName).text, PrintableName(child->AtomName).text);
            return kFailed;
        }
    }
    return SetSize(node, uint32_t(size));
}

int32_t SerializeContainer(AtomNode *node, TrackNode *track) {
    return SerializeChildren(node, track, kContainerHead);
}

int32_t SerializeDref(AtomNode *node, TrackNode *track) {
    uint32_t entries = 0;
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) ++entries;
    PutBE32(node->realStructure, field::kEntryCount, entries);
    return SerializeChildren(node, track, kDrefHead);
}

int32_t SerializeTkhd(AtomNode *node, TrackNode *track) {
    uint8_t *r = node->realStructure;
    PutBE32(r, field::kVersionFlags, kFlagsOne);
    PutBE32(r, field::kTkhdCreationTime, kFixedTime);
    PutBE32(r, field::kTkhdModificationTime, kFixedTime);
    PutBE32(r, field::kTkhdTrackId, track->TrackId);
    PutBE32(r, field::kTkhdDuration, track->TrackDuration);
    PutBE16(r, field::kTkhdVolume, track->AudioTrackId == track->TrackId ? kFullVolume : 0);
    PutMatrix(r, field::kTkhdMatrix);
    PutBE32(r, field::kTkhdWidth, uint32_t(track->TrackWidth) << 16);
    PutBE32(r, field::kTkhdHeight, uint32_t(track->TrackHeight) << 16);
    return SetSize(node, kTkhdSize);
}

int32_t SerializeMdhd(AtomNode *node, TrackNode *track) {
    uint8_t *r = node->realStructure;
    PutBE32(r, field::kMdhdCreationTime, kFixedTime);
    PutBE32(r, field::kMdhdModificationTime, kFixedTime);
    PutBE32(r, field::kMdhdTimescale, track->Timescale);
    PutBE32(r, field::kMdhdDuration, track->TrackDuration);
    return SetSize(node, kMdhdSize);
}

int32_t SerializeHdlr(AtomNode *node, TrackNode *track) {
    constexpr const char *kHandlers[] = {"vide", "soun", "hint", "odsm", "sdsm"};
    if (track->TrackType >= MP4_TRACK_VIDEO && track->TrackType <= MP4_TRACK_SCENE)
        std::memcpy(node->realStructure + field::kHdlrHandlerType,
                    kHandlers[track->TrackType - MP4_TRACK_VIDEO], 4);
    return SetSize(node, kHdlrSize);
}

int32_t SerializeVmhd(AtomNode *node, TrackNode *) {
    PutBE32(node->realStructure, field::kVersionFlags, kFlagsOne);
    return SetSize(node, kVmhdSize);
}

int32_t SerializeSmhd(AtomNode *node, TrackNode *) { return SetSize(node, kSmhdSize); }
int32_t SerializeHmhd(AtomNode *node, TrackNode *) { return SetSize(node, kHmhdSize); }
int32_t SerializeNmhd(AtomNode *node, TrackNode *) { return SetSize(node, kNmhdSize); }

// The data lies in the same file, so the entry has no string.
int32_t SerializeUrl(AtomNode *node, TrackNode *) {
    PutBE32(node->realStructure, field::kVersionFlags, kFlagsOne);
    return SetSize(node, kUrlSize);
}

// "stsd" and the sample entries serialise their first child only, which
// must be of the expected kind.
int32_t SerializeFirstChild(AtomNode *node, TrackNode *track, uint32_t fixedPart,
                            bool (*expected)(const AtomNode *), const char *message) {
    AtomNode *child = node->FirstChild;
    if (child == nullptr || !expected(child)) {
        PrintDiagnostic("%s", message);
        return kFailed;
    }
    const int32_t childSize = SerializeTrackAtom(child, track);
    if (childSize < 1) return kFailed;
    return SetSize(node, fixedPart + uint32_t(childSize));
}

bool IsSampleEntry(const AtomNode *node) {
    return AtomNameEquals(node->AtomName, "mp4v") || AtomNameEquals(node->AtomName, "mp4a") ||
           AtomNameEquals(node->AtomName, "mp4s");
}
bool IsEsds(const AtomNode *node) { return AtomNameEquals(node->AtomName, "esds"); }

int32_t SerializeStsd(AtomNode *node, TrackNode *track) {
    PutBE32(node->realStructure, field::kEntryCount, 1);
    return SerializeFirstChild(node, track, kStsdHead, IsSampleEntry,
                               "the Stsd atom does not contain mp4v or mp4a or mp4s child atom\n");
}

int32_t SerializeMp4v(AtomNode *node, TrackNode *track) {
    uint8_t *r = node->realStructure;
    PutBE16(r, field::kVisualDataReferenceIndex, 1);
    PutBE16(r, field::kVisualWidth, track->TrackWidth);
    PutBE16(r, field::kVisualHeight, track->TrackHeight);
    PutBE32(r, field::kVisualHorizontalResolution, kResolution72Dpi);
    PutBE32(r, field::kVisualVerticalResolution, kResolution72Dpi);
    PutBE16(r, field::kVisualFrameCount, 1);
    PutBE16(r, field::kVisualDepth, kVisualDepth);
    PutBE16(r, field::kVisualColorTable, kNoColorTable);
    return SerializeFirstChild(node, track, kMp4vFixed, IsEsds,
                               "the mp4v atom does not contain esds child atom\n");
}

// Channel count and sample bits are constants: the true values reach the
// file through the "esds" only.
int32_t SerializeMp4a(AtomNode *node, TrackNode *track) {
    uint8_t *r = node->realStructure;
    PutBE16(r, field::kAudioDataReferenceIndex, 1);
    PutBE16(r, field::kAudioChannelCount, kAudioChannelCount);
    PutBE16(r, field::kAudioSampleBits, kAudioSampleBits);
    PutBE16(r, field::kAudioSampleRate, uint16_t(track->Timescale));
    return SerializeFirstChild(node, track, kMp4aFixed, IsEsds,
                               "the mp4a atom does not contain esds child atom\n");
}

int32_t SerializeMp4s(AtomNode *node, TrackNode *track) {
    PutBE16(node->realStructure, field::kMp4sDataReferenceIndex, 1);
    return SerializeFirstChild(node, track, kMp4sFixed, IsEsds,
                               "the mp4s atom does not contain esds child atom\n");
}

// The track IDs that the object descriptor track refers to: video, then
// audio, or the one that is set, or a single 0.
int32_t SerializeMpod(AtomNode *node, TrackNode *track) {
    uint32_t ids[2];
    uint32_t count = 0;
    if (track->VideoTrackId != 0) ids[count++] = track->VideoTrackId;
    if (track->AudioTrackId != 0) ids[count++] = track->AudioTrackId;
    if (count == 0) ids[count++] = 0;
    uint8_t *table = static_cast<uint8_t *>(ZeroAlloc(4 * count));
    if (table == nullptr) return kFailed;
    for (uint32_t i = 0; i < count; ++i) PutBE32(table, 4 * i, ids[i]);
    FreeIfSet(GetRecordPointer(node));
    SetRecordPointer(node, table);
    return SetSize(node, kMpodHead + 4 * count);
}

int32_t SerializeElst(AtomNode *node, TrackNode *) {
    uint8_t *entry = static_cast<uint8_t *>(ZeroAlloc(12));
    if (entry == nullptr) return kFailed;
    PutBE32(node->realStructure, field::kTableEntryCount, 1);
    FreeIfSet(GetRecordPointer(node));
    SetRecordPointer(node, entry);
    return SetSize(node, kElstSize);
}

using Serializer = int32_t (*)(AtomNode *, TrackNode *);

struct SerializerRow {
    char name[5];
    Serializer serialize;
};

// One writer per atom type below "trak".
constexpr SerializerRow kSerializers[] = {
    {"trak", SerializeContainer}, {"mdia", SerializeContainer}, {"minf", SerializeContainer},
    {"dinf", SerializeContainer}, {"stbl", SerializeContainer}, {"tref", SerializeContainer},
    {"edts", SerializeContainer}, {"dref", SerializeDref},      {"tkhd", SerializeTkhd},
    {"mdhd", SerializeMdhd},      {"hdlr", SerializeHdlr},      {"vmhd", SerializeVmhd},
    {"smhd", SerializeSmhd},      {"hmhd", SerializeHmhd},      {"nmhd", SerializeNmhd},
    {"url ", SerializeUrl},       {"stsd", SerializeStsd},      {"mp4v", SerializeMp4v},
    {"mp4a", SerializeMp4a},      {"mp4s", SerializeMp4s},      {"esds", SerializeEsds},
    {"mpod", SerializeMpod},      {"elst", SerializeElst},      {"stts", SerializeStts},
    {"ctts", SerializeCtts},      {"stsz", SerializeStsz},      {"stsc", SerializeStsc},
    {"stco", SerializeStco},      {"stss", SerializeStss},
};

// ---- The top of the file ---------------------------------------------------

int32_t SizeFtyp(AtomNode *node, MP4_local_file *) {
    uint8_t *r = node->realStructure;
    std::memcpy(r + field::kFtypMajorBrand, "isom", 4);
    PutBE32(r, field::kFtypMinorVersion, 0);
    std::memcpy(r + field::kFtypCompatibleBrand, "mp41", 4);
    return SetSize(node, kFtypSize);
}

// Timescale and duration are set by AssembleMovie once the tracks are done.
int32_t SizeMvhd(AtomNode *node, MP4_local_file *file) {
    uint8_t *r = node->realStructure;
    PutBE32(r, field::kMvhdCreationTime, kFixedTime);
    PutBE32(r, field::kMvhdModificationTime, kFixedTime);
    PutBE32(r, field::kMvhdRate, kUnitRate);
    PutBE16(r, field::kMvhdVolume, kFullVolume);
    PutMatrix(r, field::kMvhdMatrix);
    PutBE32(r, field::kMvhdNextTrackId, file->write.NextTrackId);
    return SetSize(node, kMvhdSize);
}

// The references name the IDs that the object descriptor and scene
// description tracks get when they are created behind the media tracks,
// whether they exist or not.
int32_t SizeIods(AtomNode *node, MP4_local_file *file) {
    uint8_t *r = node->realStructure;
    std::memcpy(r + 8, kIodsBody, sizeof kIodsBody);
    const bool both = file->write.VideoTrack != nullptr && file->write.AudioTrack != nullptr;
    r[kIodsFirstReference] = both ? 3 : 2;
    r[kIodsSecondReference] = both ? 4 : 3;
    return SetSize(node, kIodsSize);
}

// "moov", and the "mvex" of a fragmented file.
int32_t SizeFileContainer(AtomNode *node, MP4_local_file *file) {
    int64_t size = kContainerHead;
    for (AtomNode *child = node->FirstChild; child != nullptr; child = child->NextSibling) {
        const int32_t childSize = SizeFileAtom(child, file);
        size += childSize;
        if (childSize < 1 || size > INT32_MAX) {
            PrintDiagnostic("there is error in [%s]'s child=>[%s]\n", PrintableName(node->AtomName).text,
                        PrintableName(child->AtomName).text);
            return kFailed;
        }
    }
    return SetSize(node, uint32_t(size));
}

// The fragmented writer fills a "trex" when it makes it.
int32_t SizeTrex(AtomNode *node, MP4_local_file *) { return SetSize(node, NodeHeadLength(node)); }

// "mdat" holds all media data, but only its header stands in front of it.
int32_t SizeMdat(AtomNode *node, MP4_local_file *file) {
    const WriteForm &form = file->write;
    uint64_t size = kContainerHead + uint64_t(form.VideoIntake.TotalBytes) +
                    form.AudioIntake.TotalBytes;
    if (form.OdTrack != nullptr) size += form.OdTrack->SampleRecords[0].Size;
    if (form.SceneTrack != nullptr) size += form.SceneTrack->SampleRecords[0].Size;
    if (size > UINT32_MAX) {
        PrintDiagnostic("the media data passes 4 GiB and can't be described\n");
        return kFailed;
    }
    SetSize(node, uint32_t(size));
    return int32_t(kContainerHead);
}

int32_t SizeTrak(AtomNode *node, MP4_local_file *) {
    return int32_t(GetBE32(node->realStructure, field::kHeadSize));
}

using FileSizer = int32_t (*)(AtomNode *, MP4_local_file *);

struct FileSizerRow {
    char name[5];
    FileSizer size;
};

constexpr FileSizerRow kFileSizers[] = {
    {"ftyp", SizeFtyp}, {"mvhd", SizeMvhd}, {"iods", SizeIods},
    {"moov", SizeFileContainer}, {"mdat", SizeMdat}, {"trak", SizeTrak},
    {"mvex", SizeFileContainer}, {"trex", SizeTrex},
};

}  // namespace

int32_t SerializeTrackAtom(AtomNode *node, TrackNode *track) {
    if (node == nullptr || track == nullptr || node->realStructure == nullptr) return kFailed;
    if (!ChainAddsUp(track)) return kFailed;
    for (const SerializerRow &row : kSerializers) {
        if (AtomNameEquals(node->AtomName, row.name)) return row.serialize(node, track);
    }
    return kNotHandled;
}

int32_t SizeFileAtom(AtomNode *node, MP4_local_file *file) {
    if (node->realStructure == nullptr) {
        PrintDiagnostic("the [%s] atom doesn't have a realStructure\n",
                    PrintableName(node->AtomName).text);
        return kFailed;
    }
    for (const FileSizerRow &row : kFileSizers) {
        if (AtomNameEquals(node->AtomName, row.name)) return row.size(node, file);
    }
    return kNotHandled;
}
