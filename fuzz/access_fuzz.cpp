// Opens the input as an MP4 file in each table mode (and once with the
// modern reader) and makes a sequence of sample access calls on it, chosen
// from the input's bytes: reading, seeking by time and position, key frame
// steps, and the decoder-assisted seek with a test decoder that touches
// every sample it gets and fails now and then.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "heap_ceiling.h"
#include "memory_file.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

// A small generator seeded from the input, so that a file replays the same
// calls.
struct Random {
    uint64_t state;
    uint32_t Next() {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        return uint32_t(state >> 16);
    }
    uint32_t Below(uint32_t bound) { return bound == 0 ? 0 : Next() % bound; }
};

Random gDecoderRandom{1};

// A time near the samples of a track, or one of the extremes.
int32_t PickTime(Random &random, uint32_t duration) {
    switch (random.Below(6)) {
    case 0: return 0;
    case 1: return -int32_t(random.Below(1000)) - 1;
    case 2: return INT32_MAX;
    case 3: return INT32_MIN;
    default: return int32_t(random.Below(duration + 2));
    }
}

struct TrackChoice {
    uint32_t id;
    int32_t type;
    uint32_t samples;
    uint32_t duration;
};

std::vector<TrackChoice> TracksOf(const MP4_local_file *file) {
    std::vector<TrackChoice> tracks;
    for (const VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        tracks.push_back({v->TrackId, MP4_TRACK_VIDEO, v->SampleCount, v->TrackDuration});
    for (const AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
        tracks.push_back({a->TrackId, MP4_TRACK_AUDIO, a->SampleCount, a->TrackDuration});
    return tracks;
}

void RunCalls(MP4_local_file *file, Random &random) {
    std::vector<TrackChoice> tracks = TracksOf(file);
    for (int call = 0; call < 48; ++call) {
        TrackChoice track{random.Below(4), int32_t(random.Below(4)), 4, 100};
        if (!tracks.empty() && random.Below(8) != 0) track = tracks[random.Below(uint32_t(tracks.size()))];
        if (random.Below(16) == 0) track.type = track.type == 1 ? 2 : 1;
        MP4Sample *sample = nullptr;
        uint32_t position = 0;
        void *context[MP4_DECORE_CONTEXT_SLOT + 1] = {};
        Mp4MediaInfo *info = nullptr;
        int32_t result = 0;
        switch (random.Below(8)) {
        case 0: result = GetNextSample(file, track.id, track.type, &sample); break;
        case 1: result = GetSample(file, track.id, track.type, PickTime(random, track.duration), &sample); break;
        case 2: result = SeekTrack(file, track.id, track.type, PickTime(random, track.duration), &sample); break;
        case 3: SeekTrackPos(file, track.id, track.type, PickTime(random, track.duration), &position); break;
        case 4: result = NextKeyFrame(file, track.id, track.type, &sample); break;
        case 5: result = PrevKeyFrame(file, track.id, track.type, &sample); break;
        case 6:
            Mp4VideoSeek(file, random.Below(16) == 0 ? 1u : 0u, int32_t(random.Below(track.samples + 3)) - 1, &position,
                         context, context, 0, 0, 0, 0);
            break;
        default:
            if (RetMp4MediaInfo(file, track.id, track.type, &info) != 1) break;
            for (uint8_t **block : {&info->EsdsData, &info->D263Data, &info->DamrData})
                MP4freeData(reinterpret_cast<void **>(block));
            MP4freeData(reinterpret_cast<void **>(&info));
        }
        if (result == 1) SampleDataFree(&sample);
    }
}

}  // namespace

// The test decoder: reads every byte it could be told about (the first), so
// that a sample released too early shows, and fails one call in sixteen.
extern "C" int32_t decore(uint32_t, DecoreFrame *frame, void *context) {
    volatile uint8_t first = *static_cast<const uint8_t *>(frame->Data);
    (void)first;
    if (static_cast<void **>(context)[MP4_DECORE_CONTEXT_SLOT] == nullptr) std::abort();
    frame->Result += 1;
    return gDecoderRandom.Below(16) == 0 ? -1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *path = InputFile(data, size);
    if (path == nullptr) return 0;

    uint64_t seed = 1469598103934665603ull;  // FNV-1a over the input
    for (size_t i = 0; i < size; ++i) seed = (seed ^ data[i]) * 1099511628211ull;
    // Each table mode on the classic reader, then the modern reader.
    const int32_t passes[] = {MP4_TABLE_KEYFRAMES, MP4_TABLE_MARKS, MP4_TABLE_MARKS_ALT, 0};
    for (int32_t pass : passes) {
        Random random{seed | 1};
        gDecoderRandom.state = (seed >> 1) | 1;
        MP4_local_file *file = nullptr;
        const size_t heap = HeapInUse();
        if (pass == 0) {
            if (MP4FileOpenEx(&file, path, MP4_TABLE_MARKS, MP4_OPEN_MODERN) != 1) continue;
            CheckHeapCeiling(heap, size);
        } else if (MP4FileOpen(&file, path, pass) != 1) {
            continue;
        }
        RunCalls(file, random);
        MP4FileClose(&file);
    }
    return 0;
}
