// The converters' view of a track of a read handle: its facts from
// MP4GetTrackInfo, its decoder configuration, what its sample entry says
// (from the modern reader's tree) and the sizes of its samples. This is
// the one place of the subsystem that reads the file.
#include <cstdlib>
#include <cstring>

#include "media/media.h"
#include "streams/streams.h"
#include "tracks/tracks.h"

namespace {

constexpr uint32_t kFullAtomFields = 4;

// The payload of the entry's first atom named `name` (NextEntryAtom's
// walk), from `skip` bytes behind its head, in a new block; null when
// there is none or it can't be read.
uint8_t *LoadEntryAtom(Root_atom *root, const AtomNode *entry, const char *name, uint32_t skip,
                       size_t *size) {
    const AtomNode *atom = NextEntryAtom(entry, nullptr);
    while (atom != nullptr && !AtomNameEquals(atom->AtomName, name)) atom = NextEntryAtom(entry, atom);
    uint8_t *payload = nullptr;
    uint32_t length = 0;
    if (atom == nullptr || ReadAtomPayload(root, atom, skip, &payload, &length) != 1) return nullptr;
    *size = length;
    return payload;
}

// Whether the entry's atom and the file both hold its bytes up to `end`,
// counted from a head of 8 bytes as fields.h counts.
bool EntryHolds(const Root_atom *root, const AtomNode *entry, size_t end) {
    const uint64_t bytes = uint64_t(entry->LargeHead) + end;
    return entry->AtomSize >= bytes && entry->AtomOffset <= root->FileSize &&
           bytes <= root->FileSize - entry->AtomOffset;
}

}  // namespace

void ReadSampleEntry(Root_atom *root, const AtomNode *entry, SampleEntryFacts *facts) {
    *facts = SampleEntryFacts{};
    if (entry == nullptr) return;
    size_t size = 0;
    if (uint8_t *esds = LoadEntryAtom(root, entry, "esds", kFullAtomFields, &size)) {
        uint8_t objectType = 0;
        size_t infoAt = 0, infoLength = 0;
        if (WalkEsds(esds, size, &objectType, &infoAt, &infoLength)) facts->ObjectType = objectType;
        std::free(esds);
    }
    facts->Enda = LoadEntryAtom(root, entry, "enda", 0, &facts->EndaSize);
    facts->PcmConfig = LoadEntryAtom(root, entry, "pcmC", 0, &facts->PcmConfigSize);
    // The sound fields: only an entry of a sound layout has them in its
    // record, and only what both the entry and the file hold counts.
    const uint8_t *record = entry->realStructure;
    if (!RecordHolds(entry, field::kAudioSampleBits + 2)) return;
    if (EntryHolds(root, entry, field::kAudioSampleBits + 2)) {
        facts->HasSampleBits = true;
        facts->SampleBits = GetBE16(record, field::kAudioSampleBits);
    }
    uint8_t lpcm[field::kAudioV2FormatFlags + 4 - field::kAudioV2BitsPerChannel];
    if (GetBE16(record, field::kAudioVersion) == 2 && EntryHolds(root, entry, field::kAudioV2FormatFlags + 4) &&
        ReadFileAt(root->FileStream, entry->AtomOffset + entry->LargeHead + field::kAudioV2BitsPerChannel,
                   lpcm, sizeof lpcm) == sizeof lpcm) {
        facts->Lpcm = true;
        facts->LpcmBits = GetBE32(lpcm, 0);
        facts->LpcmFlags = GetBE32(lpcm, field::kAudioV2FormatFlags - field::kAudioV2BitsPerChannel);
    }
}

void FreeSampleEntry(SampleEntryFacts *facts) {
    std::free(const_cast<uint8_t *>(facts->Enda));
    std::free(const_cast<uint8_t *>(facts->PcmConfig));
    facts->Enda = facts->PcmConfig = nullptr;
}

int32_t ReadStreamTrack(MP4_local_file *file, const MP4TrackInfo &info, StreamTrack *track) {
    *track = StreamTrack{};
    std::memcpy(track->Format, info.Format, 4);
    track->TrackId = info.TrackId;
    track->TrackType = info.TrackType;
    track->Timescale = info.Timescale;
    track->SampleCount = info.SampleCount;
    track->Duration = info.Duration;
    track->Width = info.Width;
    track->Height = info.Height;
    track->SampleRate = info.SampleRate;
    track->Channels = info.Channels;
    for (uint32_t number = 0; number < info.SampleCount; ++number) {
        MP4SampleInfo sample{};
        const int32_t result = MP4GetSampleInfo(file, info.TrackId, info.TrackType, number, &sample);
        if (result != 1) return result;
        track->SampleBytes += sample.Size;
        if (sample.Size > track->LargestSample) track->LargestSample = sample.Size;
    }
    // A configuration that can't be read counts as none: the forms that
    // need one refuse the track.
    uint8_t *config = nullptr;
    uint32_t size = 0;
    if (MP4GetDecoderConfig(file, info.TrackId, info.TrackType, &config, &size) == 1) {
        track->Config = config;
        track->ConfigSize = size;
    }
    const AtomNode *trak = FindTrakAtom(file->RootAtom, info.TrackId, info.TrackType);
    ReadSampleEntry(file->RootAtom, trak != nullptr ? FirstSampleEntry(trak) : nullptr, &track->Entry);
    return 1;
}

void FreeStreamTrack(StreamTrack *track) {
    std::free(const_cast<uint8_t *>(track->Config));
    track->Config = nullptr;
    FreeSampleEntry(&track->Entry);
}
