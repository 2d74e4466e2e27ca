// mp4core samples FILE [--track ID] [--mode 1|2|3]: every sample of every
// video and audio track as GetNextSample gives it, one line each, to set
// beside `ffprobe -show_packets`.
//
// With --seek TIME, --next-key and --prev-key (repeatable, run in the order
// given on each track) it makes those calls instead (SeekTrack, NextKeyFrame,
// PrevKeyFrame) and prints one line per call: the call, then the sample it
// gave in the same form, its number being the one before the cursor.
//
// Line: TRACK TYPE NUMBER TIME SIZE KEY OFFSET CRC32, or for a sample that
// could not be read: TRACK TYPE NUMBER error RESULT. A track that gives no
// sample at all says why in a line of its own.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "commands.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

// A call that moves the cursor, tried from the command line.
struct CursorCall {
    enum Kind { Seek, NextKey, PrevKey } kind;
    int32_t time;  // for Seek
};

struct Options {
    const char *path = nullptr;
    uint32_t track = 0;  // 0: all tracks
    int32_t mode = MP4_TABLE_MARKS;
    std::vector<CursorCall> calls;
};

bool ParseOptions(int argc, char **argv, Options *options) {
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--track") == 0 && i + 1 < argc) {
            options->track = uint32_t(std::strtoul(argv[++i], nullptr, 10));
        } else if (std::strcmp(argv[i], "--mode") == 0 && i + 1 < argc) {
            options->mode = int32_t(std::strtol(argv[++i], nullptr, 10));
        } else if (std::strcmp(argv[i], "--seek") == 0 && i + 1 < argc) {
            int32_t time = int32_t(std::strtol(argv[++i], nullptr, 10));
            options->calls.push_back({CursorCall::Seek, time});
        } else if (std::strcmp(argv[i], "--next-key") == 0) {
            options->calls.push_back({CursorCall::NextKey, 0});
        } else if (std::strcmp(argv[i], "--prev-key") == 0) {
            options->calls.push_back({CursorCall::PrevKey, 0});
        } else if (argv[i][0] != '-' && options->path == nullptr) {
            options->path = argv[i];
        } else {
            return false;
        }
    }
    return options->path != nullptr;
}

// CRC-32 as zlib and ffprobe's "CRC32" data hash compute it.
uint32_t Crc32(const uint8_t *data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// The file offset of a sample is not part of MP4Sample; the track's own
// table has it.
uint32_t OffsetOf(const TrackNode *node, uint32_t number) {
    if (node == nullptr || node->SampleRecords == nullptr || number >= node->SampleCount) return 0;
    return node->SampleRecords[number].FileOffset;
}

void ListTrack(MP4_local_file *file, uint32_t trackId, int32_t type, const TrackNode *node,
               uint32_t sampleCount) {
    const char *name = type == MP4_TRACK_VIDEO ? "video" : "audio";
    uint32_t number = 0;
    // -82 moves the cursor on, so every turn either moves on or ends; the
    // bound keeps a listing finite whatever a track holds.
    for (uint64_t turn = 0; turn <= uint64_t(sampleCount) + 1; ++turn) {
        MP4Sample *sample = nullptr;
        int32_t result = GetNextSample(file, trackId, type, &sample);
        if (result == 1) {
            std::printf("%u %s %u %u %u %u %u %08x\n", trackId, name, number, sample->Time,
                        sample->Size, unsigned(sample->IsKeyFrame), OffsetOf(node, number),
                        Crc32(sample->Data, sample->Size));
            SampleDataFree(&sample);
        } else if (result == 0) {
            if (number == 0) std::printf("%u %s no samples\n", trackId, name);
            return;
        } else {
            std::printf("%u %s %u error %d\n", trackId, name, number, int(result));
            if (result != -82) return;
        }
        ++number;
    }
}

// Makes the calls in order on one track. The track's cursor (the video or
// the audio one) stands behind the sample a call returned.
void RunCursorCalls(MP4_local_file *file, uint32_t trackId, int32_t type, const TrackNode *node,
                    const int32_t *videoCursor, const uint32_t *audioCursor,
                    const std::vector<CursorCall> &calls) {
    const char *name = type == MP4_TRACK_VIDEO ? "video" : "audio";
    for (const CursorCall &call : calls) {
        MP4Sample *sample = nullptr;
        int32_t result = 0;
        if (call.kind == CursorCall::Seek) {
            result = SeekTrack(file, trackId, type, call.time, &sample);
            std::printf("seek %d: ", int(call.time));
        } else if (call.kind == CursorCall::NextKey) {
            result = NextKeyFrame(file, trackId, type, &sample);
            std::printf("next-key: ");
        } else {
            result = PrevKeyFrame(file, trackId, type, &sample);
            std::printf("prev-key: ");
        }
        if (result != 1) {
            std::printf("%u %s error %d\n", trackId, name, int(result));
            continue;
        }
        uint32_t cursor = videoCursor != nullptr ? uint32_t(*videoCursor) : *audioCursor;
        uint32_t number = cursor - 1;
        std::printf("%u %s %u %u %u %u %u %08x\n", trackId, name, number, sample->Time,
                    sample->Size, unsigned(sample->IsKeyFrame), OffsetOf(node, number),
                    Crc32(sample->Data, sample->Size));
        SampleDataFree(&sample);
    }
}

}  // namespace

int RunSamples(int argc, char **argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "usage: mp4core samples FILE [--track ID] [--mode 1|2|3] "
                             "[--seek TIME] [--next-key] [--prev-key]...\n");
        return 2;
    }
    MP4_local_file *file = nullptr;
    int32_t result = MP4FileOpen(&file, options.path, options.mode);
    if (result != 1) {
        std::fprintf(stderr, "mp4core samples: MP4FileOpen gave %d\n", int(result));
        return 1;
    }
    std::printf("# track type number time size key offset crc32\n");
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack) {
        if (options.track != 0 && options.track != v->TrackId) continue;
        if (!options.calls.empty())
            RunCursorCalls(file, v->TrackId, MP4_TRACK_VIDEO, v->Track, &v->SampleCursor,
                           nullptr, options.calls);
        else
            ListTrack(file, v->TrackId, MP4_TRACK_VIDEO, v->Track, v->SampleCount);
    }
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack) {
        if (options.track != 0 && options.track != a->TrackId) continue;
        if (!options.calls.empty())
            RunCursorCalls(file, a->TrackId, MP4_TRACK_AUDIO, a->Track, nullptr,
                           &a->SampleCursor, options.calls);
        else
            ListTrack(file, a->TrackId, MP4_TRACK_AUDIO, a->Track, a->SampleCount);
    }
    MP4FileClose(&file);
    return 0;
}
