// The converters' view of a track of a read handle: its facts from
// MP4GetTrackInfo, its decoder configuration, its sample entry's bytes and
// the sizes of its samples. This is the one place of the subsystem that
// reads the file.
#include <cstdlib>
#include <cstring>

#include "media/media.h"
#include "streams/streams.h"
#include "tracks/tracks.h"

namespace {

// A sample entry is a few hundred bytes; a larger claim is not read.
constexpr uint64_t kLargestEntry = 1 << 20;

// The whole sample entry of the track, head included; none when it can't
// be read.
void ReadEntry(MP4_local_file *file, const MP4TrackInfo &info, StreamTrack *track) {
    const Root_atom *root = file->RootAtom;
    const AtomNode *trak = FindTrakAtom(root, info.TrackId, info.TrackType);
    const AtomNode *entry = trak != nullptr ? FirstSampleEntry(trak) : nullptr;
    if (entry == nullptr || entry->AtomSize > kLargestEntry || entry->AtomOffset > root->FileSize ||
        entry->AtomSize > root->FileSize - entry->AtomOffset)
        return;
    uint8_t *bytes = static_cast<uint8_t *>(std::malloc(size_t(entry->AtomSize) + 1));
    if (bytes == nullptr) return;
    const size_t size = size_t(entry->AtomSize);
    if (ReadFileAt(root->FileStream, entry->AtomOffset, bytes, size) != size) {
        std::free(bytes);
        return;
    }
    track->Entry = bytes;
    track->EntrySize = size;
}

}  // namespace

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
    ReadEntry(file, info, track);
    return 1;
}

void FreeStreamTrack(StreamTrack *track) {
    std::free(const_cast<uint8_t *>(track->Config));
    std::free(const_cast<uint8_t *>(track->Entry));
    track->Config = track->Entry = nullptr;
}
