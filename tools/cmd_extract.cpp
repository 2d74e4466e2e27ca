// mp4core extract FILE --track ID -o OUT: one track as a raw stream.
//   AAC            -> ADTS, a header from AAC_EsdsToAdtsHead before each frame
//   MPEG-1/2 audio -> the frames as they are
//   MPEG-4 video   -> the decoder configuration, then the samples (.m4v)
//   H.263          -> the samples (.263)
//   AMR            -> "#!AMR\n" or "#!AMR-WB\n", then the samples (.amr)
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "commands.h"
#include "media/media.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

struct Options {
    const char *path = nullptr;
    const char *output = nullptr;
    uint32_t track = 0;
};

bool ParseOptions(int argc, char **argv, Options *options) {
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--track") == 0 && i + 1 < argc) {
            options->track = uint32_t(std::strtoul(argv[++i], nullptr, 10));
        } else if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc) {
            options->output = argv[++i];
        } else if (argv[i][0] != '-' && options->path == nullptr) {
            options->path = argv[i];
        } else {
            return false;
        }
    }
    return options->path != nullptr && options->output != nullptr && options->track != 0;
}

enum class StreamKind { kUnknown, kAdts, kMpegAudio, kMpeg4Video, kH263, kAmrNarrow, kAmrWide };

struct Track {
    int32_t Type = 0;
    const TrackNode *Node = nullptr;
    uint32_t SampleCount = 0;
};

Track FindTrack(MP4_local_file *file, uint32_t trackId) {
    for (VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack)
        if (v->TrackId == trackId) return {MP4_TRACK_VIDEO, v->Track, v->SampleCount};
    for (AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack)
        if (a->TrackId == trackId) return {MP4_TRACK_AUDIO, a->Track, a->SampleCount};
    return {};
}

StreamKind KindOf(const AtomNode *entry, const Mp4MediaInfo *info) {
    if (entry == nullptr) return StreamKind::kUnknown;
    if (AtomNameEquals(entry->AtomName, "mp4v")) return StreamKind::kMpeg4Video;
    if (AtomNameEquals(entry->AtomName, "s263")) return StreamKind::kH263;
    if (AtomNameEquals(entry->AtomName, "samr")) return StreamKind::kAmrNarrow;
    if (AtomNameEquals(entry->AtomName, "sawb")) return StreamKind::kAmrWide;
    if (AtomNameEquals(entry->AtomName, "mp4a") && info != nullptr && info->EsdsSize != 0) {
        DecoderConfigPlace place;
        if (FindDecoderConfig(info->EsdsData, info->EsdsSize, &place) != 1) return StreamKind::kUnknown;
        const uint8_t objectType = info->EsdsData[place.ObjectTypeOffset];
        return objectType == 0x6B || objectType == 0x69 ? StreamKind::kMpegAudio : StreamKind::kAdts;
    }
    return StreamKind::kUnknown;
}

// The whole decoder specific info of an "mp4v" entry: the stream header
// that goes in front of the first picture. The media information holds
// only its first 18 bytes, so this reads the track's "esds" record.
bool WriteVideoConfig(const AtomNode *entry, FILE *out) {
    const AtomNode *esds = entry->FirstChild;
    if (esds == nullptr || !AtomNameEquals(esds->AtomName, "esds")) return false;
    size_t offset = 0, size = 0;
    if (FindDecoderSpecificInfo(esds->realStructure, AtomRecordBytes(esds), &offset, &size) != 1)
        return false;
    return std::fwrite(esds->realStructure + offset, 1, size, out) == size;
}

bool WriteSamples(MP4_local_file *file, uint32_t trackId, const Track &track, StreamKind kind,
                  const Mp4MediaInfo *info, FILE *out, uint32_t *written) {
    // Every turn reads one sample or ends; -82 (a sample that can't be read)
    // moves the cursor on and is reported.
    for (uint64_t turn = 0; turn <= uint64_t(track.SampleCount) + 1; ++turn) {
        MP4Sample *sample = nullptr;
        const int32_t result = GetNextSample(file, trackId, track.Type, &sample);
        if (result == 0) return true;
        if (result != 1) {
            std::fprintf(stderr, "mp4core extract: sample %u gave %d\n", *written, int(result));
            if (result == -82) continue;
            return false;
        }
        bool ok = true;
        if (kind == StreamKind::kAdts) {
            uint8_t header[7];
            uint32_t headerSize = 0;
            const int32_t made = AAC_EsdsToAdtsHead(info->EsdsData, sample->Size, header, &headerSize);
            ok = made == 1 && std::fwrite(header, 1, headerSize, out) == headerSize;
            if (made != 1) std::fprintf(stderr, "mp4core extract: AAC_EsdsToAdtsHead gave %d\n", int(made));
        }
        ok = ok && std::fwrite(sample->Data, 1, sample->Size, out) == sample->Size;
        SampleDataFree(&sample);
        if (!ok) return false;
        ++*written;
    }
    return true;
}

int Extract(MP4_local_file *file, const Options &options) {
    const Track track = FindTrack(file, options.track);
    if (track.Type == 0) {
        std::fprintf(stderr, "mp4core extract: no video or audio track %u\n", options.track);
        return 1;
    }
    Mp4MediaInfo *info = nullptr;
    RetMp4MediaInfo(file, options.track, track.Type, &info);
    const AtomNode *entry = TrackSampleEntry(track.Node);
    const StreamKind kind = KindOf(entry, info);
    int status = 1;
    FILE *out = nullptr;
    if (kind == StreamKind::kUnknown) {
        std::fprintf(stderr, "mp4core extract: track %u has no stream form this tool writes\n",
                     options.track);
    } else if ((out = std::fopen(options.output, "wb")) == nullptr) {
        std::fprintf(stderr, "mp4core extract: can't create %s\n", options.output);
    } else {
        bool ok = true;
        if (kind == StreamKind::kAmrNarrow) ok = std::fputs("#!AMR\n", out) >= 0;
        if (kind == StreamKind::kAmrWide) ok = std::fputs("#!AMR-WB\n", out) >= 0;
        if (kind == StreamKind::kMpeg4Video && !WriteVideoConfig(entry, out)) {
            std::fprintf(stderr, "mp4core extract: track %u has no decoder configuration\n",
                         options.track);
            ok = false;
        }
        uint32_t written = 0;
        ok = ok && WriteSamples(file, options.track, track, kind, info, out, &written);
        ok = std::fclose(out) == 0 && ok;
        if (ok) {
            std::printf("track %u: %u samples written to %s\n", options.track, written, options.output);
            status = 0;
        }
    }
    if (info != nullptr) {
        void *blocks[] = {info->EsdsData, info->D263Data, info->DamrData, info};
        for (void *&block : blocks) MP4freeData(&block);
    }
    return status;
}

}  // namespace

int RunExtract(int argc, char **argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "usage: mp4core extract FILE --track ID -o OUT\n");
        return 2;
    }
    MP4_local_file *file = nullptr;
    const int32_t opened = MP4FileOpen(&file, options.path, MP4_TABLE_MARKS);
    if (opened != 1) {
        std::fprintf(stderr, "mp4core extract: MP4FileOpen gave %d\n", int(opened));
        return 1;
    }
    const int status = Extract(file, options);
    MP4FileClose(&file);
    return status;
}
