// GetFileInfo: a one-call summary of a file on disk, from its last video
// track and its last audio track. Also home of the sampling frequency
// table of the AudioSpecificConfig, which the writer's "esds" reads too.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atoms/atoms.h"
#include "frame/frame.h"
#include "media/media.h"
#include "mp4core.h"
#include "tracks/tracks.h"

namespace {

constexpr int32_t kInfoDone = 1;
constexpr int32_t kInfoCannotOpen = -11;
constexpr int32_t kInfoNoRecord = -12;
constexpr int32_t kInfoOpenFailed = -21;

constexpr uint32_t kNoVideoProfile = 100;
constexpr uint32_t kMpegAudioObjectTypes[] = {0x6B, 0x69};

// Sampling frequencies by their AudioSpecificConfig index.
constexpr uint32_t kFrequencies[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};
constexpr size_t kFrequencyCount = sizeof kFrequencies / sizeof kFrequencies[0];

// The caller's buffer of GetVideoEsds.
constexpr size_t kVideoEsdsBytes = 200;

struct AudioEsdsFields {
    uint32_t MaxBitRate, AvgBitRate, Channels, SampleRate, ObjectType;
};

// A value cut toward zero into a 32-bit field; a negative value keeps its
// two's complement bits, and a ratio without a meaning gives 0.
uint32_t CutToField(double value) {
    if (!std::isfinite(value)) return 0;
    if (value <= double(INT32_MIN)) return uint32_t(INT32_MIN);
    if (value >= double(UINT32_MAX)) return UINT32_MAX;
    return uint32_t(int64_t(value));
}

double Seconds(uint32_t duration, uint32_t timescale) {
    return timescale == 0 ? 0.0 : double(duration) / double(timescale);
}

// Bits of the first `count` samples of a track, added up in 32 bits.
uint32_t SampleBits(const TrackNode *track, uint32_t count) {
    if (!HasSampleTables(track)) return 0;
    uint32_t available = track->SampleCount < track->SampleCapacity ? track->SampleCount
                                                                    : track->SampleCapacity;
    if (count > available) count = available;
    return uint32_t(SumSampleSizes(track, count)) * 8;
}

// Bits over the track's time, as a signed 32-bit number of bits; 0 when the
// track has no time.
uint32_t BitRate(uint32_t bits, uint32_t duration, uint32_t timescale) {
    const double seconds = Seconds(duration, timescale);
    if (seconds == 0.0) return 0;
    return CutToField(double(int32_t(bits)) / seconds);
}

// Copies the "esds" atom of the video track in VideoCurrent, the first
// child of its "mp4v" entry, cut to the buffer and to the atom's record.
int32_t GetVideoEsds(MP4_local_file *file, uint8_t *buffer, size_t bufferBytes, uint32_t *size) {
    const VideoTrackNode *video = file->read.VideoCurrent;
    if (video == nullptr || video->Track == nullptr || video->Track->TrakAtom == nullptr) return -91;
    static const char *const kPath[] = {"mdia", "minf", "stbl", "stsd"};
    const AtomNode *stsd = WalkPath(video->Track->TrakAtom, kPath, 4, nullptr);
    if (stsd == nullptr) return -91;
    const AtomNode *entry = stsd->FirstChild;
    if (entry == nullptr || !AtomNameEquals(entry->AtomName, "mp4v")) return -1;
    const AtomNode *esds = entry->FirstChild;
    if (esds == nullptr || esds->realStructure == nullptr) return -1;
    const uint32_t headSize = GetBE32(esds->realStructure, field::kHeadSize);
    size_t bytes = headSize;
    if (bytes > bufferBytes) bytes = bufferBytes;
    if (bytes > NodeHeadLength(esds)) bytes = NodeHeadLength(esds);
    memcpy(buffer, esds->realStructure, bytes);
    *size = headSize;
    return 1;
}

// A byte of the zeroed buffer of GetVideoEsds; one at or past its end
// reads 0, as the bytes behind what was copied do.
uint8_t EsdsByte(const uint8_t *esds, size_t length, size_t at) {
    return at < length ? esds[at] : 0;
}

// Bit rates and profile of a video "esds" atom, read from the zeroed buffer
// of `length` bytes that GetVideoEsds filled, each field at its position
// whatever the atom's own size says. The profile is the byte behind a
// visual object sequence start code when the decoder specific info opens
// with one.
int32_t ReadEsdsBitRates(const uint8_t *esds, size_t length, uint32_t *maxBitRate,
                         uint32_t *avgBitRate, uint32_t *profile) {
    if (EsdsByte(esds, length, field::kEsdsDescriptors) != 3) return -1;
    size_t p = field::kEsdsDescriptors + 1;
    while (EsdsByte(esds, length, p) == 0x80) ++p;
    if (EsdsByte(esds, length, p + 4) != 4) return -1;
    size_t q = p + 5;
    while (EsdsByte(esds, length, q) == 0x80) ++q;
    const auto be32 = [&](size_t at) {
        uint32_t value = 0;
        for (size_t i = 0; i < 4; ++i) value = (value << 8) | EsdsByte(esds, length, at + i);
        return value;
    };
    *maxBitRate = be32(q + 6);
    *avgBitRate = be32(q + 10);
    *profile = EsdsByte(esds, length, q + 23);
    return 1;
}

// The audio fields of an "esds" atom. Result 1 for MPEG-4 audio, -1 for
// MPEG-1 and MPEG-2 audio, 0 when the atom ends before the bit rates.
// Configuration fields that lie beyond the atom stay 0.
int32_t ParseAudioEsds(const uint8_t *esds, size_t length, AudioEsdsFields *fields) {
    DecoderConfigPlace place;
    if (FindDecoderConfig(esds, length, &place) != 1) return 0;
    fields->MaxBitRate = GetBE32(esds, place.MaxBitRateOffset);
    fields->AvgBitRate = GetBE32(esds, place.AvgBitRateOffset);
    AacConfig config;
    if (ReadAacConfig(esds, length, &config) == 1) {
        fields->ObjectType = config.AudioObjectType;
        fields->SampleRate = SamplingFrequencyOf(config.FrequencyIndex);
        fields->Channels = config.ChannelConfiguration;
    }
    for (uint32_t mpeg : kMpegAudioObjectTypes) {
        if (esds[place.ObjectTypeOffset] == mpeg) return -1;
    }
    return 1;
}

void DescribeVideo(MP4_local_file *file, FileInfo *info) {
    const VideoTrackNode *last = nullptr;
    int32_t place = 0;
    for (const VideoTrackNode *v = file->read.VideoFirst; v != nullptr; v = v->NextTrack) {
        PrintDiagnostic("VIDEO:Track ID[%d] Track type[%d] %dth\n", int(v->TrackId), int(v->TrackType),
               int(++place));
        last = v;
    }
    if (last == nullptr) return;

    Mp4MediaInfo *media = nullptr;
    if (RetMp4MediaInfo(file, last->TrackId, MP4_TRACK_VIDEO, &media) == 1 && media->EsdsSize != 0) {
        uint32_t headerSize = 0;
        ParseVolHeader(media->EsdsData, media->EsdsSize, &info->VideoWidth, &info->VideoHeight,
                       &headerSize);
    } else {
        info->VideoWidth = last->TrackWidth;
        info->VideoHeight = last->TrackHeight;
    }
    FreeMediaInfo(media);

    info->VideoFrameCount = last->SampleCount;
    if (last->TrackDuration != 0)
        info->VideoFrameRate =
            CutToField(double(last->SampleCount) * double(last->Timescale) / double(last->TrackDuration));

    uint8_t esds[kVideoEsdsBytes] = {};
    uint32_t esdsSize = 0;
    if (GetVideoEsds(file, esds, sizeof esds, &esdsSize) > 0) {
        ReadEsdsBitRates(esds, sizeof esds, &info->VideoMaxBitRate, &info->VideoAvgBitRate,
                         &info->VideoProfile);
    } else {
        const uint32_t bits = SampleBits(last->Track, last->SampleCount);
        info->VideoAvgBitRate = info->VideoMaxBitRate =
            BitRate(bits, last->TrackDuration, last->Timescale);
        info->VideoProfile = kNoVideoProfile;
    }
}

// MPEG-1/2 audio: mode, emphasis and rate from the first frame's header.
void DescribeMpegAudioFrame(MP4_local_file *file, uint32_t trackId, FileInfo *info) {
    MP4Sample *sample = nullptr;
    if (GetNextSample(file, trackId, MP4_TRACK_AUDIO, &sample) != 1 || sample == nullptr) return;
    if (sample->Size >= 4 && sample->Data != nullptr) {
        const uint8_t *b = sample->Data;
        info->AudioSampleRate = (b[1] & 0x08) ? 44100 : 22050;
        info->AudioChannelMode = b[3] >> 6;
        info->AudioChannels = info->AudioChannels2 = info->AudioChannelMode <= 1 ? 2 : 1;
        info->AudioEmphasis = b[3] & 3;
    }
    SampleDataFree(&sample);
}

void DescribeAudio(MP4_local_file *file, FileInfo *info) {
    info->AudioSampleCount = file->read.AudioCurrent->SampleCount;
    const AudioTrackNode *last = nullptr;
    int32_t place = 0;
    for (const AudioTrackNode *a = file->read.AudioFirst; a != nullptr; a = a->NextTrack) {
        PrintDiagnostic("AUDIO:Track ID[%d] Track type[%d] %dth\n", int(a->TrackId), int(a->TrackType),
               int(++place));
        last = a;
    }
    if (last == nullptr) return;

    Mp4MediaInfo *media = nullptr;
    if (RetMp4MediaInfo(file, last->TrackId, MP4_TRACK_AUDIO, &media) != 1) return;
    if (media->EsdsSize != 0) {
        AudioEsdsFields fields{};
        const int32_t kind = ParseAudioEsds(media->EsdsData, media->EsdsSize, &fields);
        if (kind == 1) info->AudioFormat = MP4_AUDIO_AAC;
        info->AudioSampleRate = fields.SampleRate;
        info->AudioMaxBitRate = fields.MaxBitRate;
        info->AudioAvgBitRate = fields.AvgBitRate;
        info->AudioChannels = info->AudioChannels2 = fields.Channels;
        info->AudioProfile = fields.ObjectType - 1;  // object type 0 gives all ones
        info->AudioObjectType = fields.ObjectType;
        info->AudioHasConfig = 1;
        if (kind == -1) {
            info->AudioFormat = MP4_AUDIO_MPEG;
            DescribeMpegAudioFrame(file, last->TrackId, info);
        }
    } else {
        const bool narrow = media->DamrSize != 0;
        const uint32_t bits = SampleBits(last->Track, last->SampleCount);
        info->AudioAvgBitRate = info->AudioMaxBitRate =
            BitRate(bits, last->TrackDuration, last->Timescale);
        info->AudioChannels = 1;
        info->AudioSampleRate = narrow ? 8000 : 16000;
        info->AudioFormat = narrow ? MP4_AUDIO_AMR_NB : MP4_AUDIO_AMR_WB;
    }
    FreeMediaInfo(media);
}

}  // namespace

uint32_t SamplingFrequencyOf(uint32_t index) {
    return index < kFrequencyCount ? kFrequencies[index] : 0;
}

int32_t SamplingFrequencyIndex(uint32_t sampleRate) {
    for (size_t i = 0; i < kFrequencyCount; ++i) {
        if (kFrequencies[i] == sampleRate) return int32_t(i);
    }
    return -1;
}

int32_t GetFileInfo(const char *fileName, FileInfo *info) {
    if (fileName == nullptr) return kInfoCannotOpen;
    FILE *probe = fopen(fileName, "rb");
    if (probe == nullptr) return kInfoCannotOpen;
    fclose(probe);
    if (info == nullptr) return kInfoNoRecord;
    memset(info, 0, sizeof *info);

    MP4_local_file *file = nullptr;
    if (MP4FileOpen(&file, fileName, MP4_TABLE_MARKS) != 1) {
        PrintDiagnostic("mp4 file open error!");
        if (file != nullptr) MP4FileClose(&file);
        return kInfoOpenFailed;
    }
    info->FileSize = file->RootAtom ? file->RootAtom->FileSize : 0;
    if (file->read.VideoCurrent != nullptr) DescribeVideo(file, info);
    if (file->read.AudioCurrent != nullptr) DescribeAudio(file, info);
    MP4FileClose(&file);
    return kInfoDone;
}
