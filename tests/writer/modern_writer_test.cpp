// The progressive writer (MP4_NEW_PROGRESSIVE): files written from the
// frames of the FFmpeg fixtures through MP4AddTrack and MP4WriteSample,
// plain and faststart, list the same packets in ffprobe as the sources
// (PCM: the same bytes through the modern reader), and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "mp4core.h"
#include "support/listing.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

// A sample's duration until MP4SampleInfo tells it: up to the next
// sample's decode time; the last, up to the track's end.
uint32_t DurationOf(MP4_local_file *in, const MP4TrackInfo &track, uint32_t n, uint64_t time) {
    MP4SampleInfo next{};
    if (n + 1 < track.SampleCount &&
        MP4GetSampleInfo(in, track.TrackId, track.TrackType, n + 1, &next) == 1)
        return uint32_t(next.DecodeTime - time);
    return uint32_t(track.Duration - time);
}

// Copies every track of `source` sample by sample through the new calls,
// the tracks interleaved by decode time. Gives "" or what failed.
std::string WriteFromFrames(const std::string &source, const std::string &out, uint32_t flags,
                            uint32_t objectType, uint32_t bits) {
    MP4_local_file *in = nullptr, *file = nullptr;
    if (MP4FileOpenEx(&in, source.c_str(), MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN) != 1) return "open";
    uint32_t count = 0;
    MP4GetTrackCount(in, &count);
    EXPECT_EQ(MP4FileNewEx(&file, out.c_str(), MP4_NEW_PROGRESSIVE | flags), 1);
    std::vector<MP4TrackInfo> tracks(count);
    std::vector<uint32_t> ids(count), next(count, 0);
    std::string error;
    for (uint32_t t = 0; t < count && error.empty(); ++t) {
        MP4TrackInfo &info = tracks[t];
        MP4GetTrackInfo(in, t, &info);
        MP4TrackSpec spec{};
        spec.TrackType = uint32_t(info.TrackType);
        std::memcpy(spec.Format, info.Format, 4);
        spec.Timescale = info.Timescale;
        spec.Width = info.Width;
        spec.Height = info.Height;
        spec.SampleRate = info.SampleRate;
        spec.Channels = info.Channels;
        spec.BitsPerSample = bits;
        spec.ObjectType = objectType;
        std::memcpy(spec.Language, info.Language, 4);
        spec.Rotation = info.Rotation;
        spec.PixelAspectH = info.PixelAspectH;
        spec.PixelAspectV = info.PixelAspectV;
        uint8_t *config = nullptr;
        MP4GetDecoderConfig(in, info.TrackId, info.TrackType, &config, &spec.ConfigSize);
        spec.Config = config;
        const int32_t added = MP4AddTrack(file, &spec, &ids[t]);
        if (added != 1) error = Format("MP4AddTrack %d", added);
        MP4freeData(reinterpret_cast<void **>(&config));
    }
    while (error.empty()) {
        int best = -1;
        double bestTime = 0;
        MP4SampleInfo sample{};
        for (uint32_t t = 0; t < count; ++t) {
            if (next[t] >= tracks[t].SampleCount) continue;
            MP4GetSampleInfo(in, tracks[t].TrackId, tracks[t].TrackType, next[t], &sample);
            const double time = double(sample.DecodeTime) / tracks[t].Timescale;
            if (best < 0 || time < bestTime) best = int(t), bestTime = time;
        }
        if (best < 0) break;
        const MP4TrackInfo &track = tracks[size_t(best)];
        const uint32_t n = next[size_t(best)]++;
        MP4GetSampleInfo(in, track.TrackId, track.TrackType, n, &sample);
        MP4Sample *bytes = nullptr;
        if (MP4ReadSample(in, track.TrackId, track.TrackType, n, &bytes) != 1) return "read";
        MP4WriteInfo info{};
        info.DecodeTime = sample.DecodeTime;
        info.CompositionOffset = sample.CompositionOffset;
        info.Duration = DurationOf(in, track, n, sample.DecodeTime);
        info.Size = bytes->Size;
        info.Flags = sample.IsKeyFrame ? MP4_SAMPLE_KEY : 0;
        const int32_t written = MP4WriteSample(file, ids[size_t(best)], &info, bytes->Data);
        if (written != 1) error = Format("MP4WriteSample %d at %u", written, n);
        SampleDataFree(&bytes);
    }
    MP4FileClose(&in);
    const int32_t flushed = MP4FileFlush(file);
    return !error.empty() ? error : flushed == 1 ? "" : Format("MP4FileFlush %d", flushed);
}

// The packets of a listing (.samples) less their positions, one line per
// track and sample; ffprobe's of a written file in the same form. PCM
// tracks list their total bytes and CRC, read by the modern reader.
std::string ListingOf(const std::string &samples) {
    const Bytes bytes = ReadWholeFile(samples);
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    std::string text;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
        if (f[0] == "track") text += f[2] + " " + f[3] + " " + f[5] + "\n";
        else if (f[0] == "pcm") text += "pcm " + f[2] + " " + f[3] + "\n";
        else text += f[0] + " " + f[1] + " " + f[3] + " " + f[4] + " " + f[5] + "\n";
    }
    return text;
}

std::string ProbeListing(const std::string &path) {
    std::istringstream streams(RunCommand(
        "ffprobe -v error -show_entries stream=codec_type,codec_name,time_base -of csv=p=0 '" +
        path + "'"));
    std::vector<std::string> heads;
    for (std::string line; std::getline(streams, line);) {
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream f(line);
        std::string name, type, base;
        f >> name >> type >> base;
        if (base.empty()) continue;  // a line of side data
        heads.push_back(type + " " + name + " " + base.substr(base.find('/') + 1) + "\n");
    }
    std::istringstream packets(RunCommand(
        "ffprobe -v error -ignore_editlist 1 -show_data_hash CRC32 -show_entries "
        "packet=stream_index,pts,dts,size,flags,data_hash -of csv=p=0 '" + path + "'"));
    std::vector<std::string> bodies(heads.size());
    std::vector<long long> first(heads.size(), -1);
    MP4_local_file *file = nullptr;
    MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN);
    for (std::string line; std::getline(packets, line);) {
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream f(line);
        size_t s;
        long long pts, dts;
        std::string size, flags, hash;
        f >> s >> pts >> dts >> size >> flags >> hash;
        if (s >= heads.size() || heads[s].find(" pcm_") != std::string::npos) continue;
        if (first[s] < 0) first[s] = dts;
        bodies[s] += Format("%lld %s %d %lld %s\n", dts - first[s], size.c_str(),
                            flags[0] == 'K', pts - dts, hash.substr(6).c_str());
    }
    std::string text;
    for (size_t s = 0; s < heads.size(); ++s) {
        text += heads[s] + bodies[s];
        if (heads[s].find(" pcm_") == std::string::npos) continue;
        MP4TrackInfo info{};
        MP4GetTrackInfo(file, uint32_t(s), &info);
        Bytes all;
        for (uint32_t n = 0; n < info.SampleCount; ++n) {
            MP4Sample *sample = nullptr;
            if (MP4ReadSample(file, info.TrackId, info.TrackType, n, &sample) != 1) break;
            all.insert(all.end(), sample->Data, sample->Data + sample->Size);
            SampleDataFree(&sample);
        }
        text += Format("pcm %zu %08x\n", all.size(), Crc32(all.data(), all.size()));
    }
    MP4FileClose(&file);
    return text;
}

TEST(SlowModernWriter, FramesOfEveryCodecListTheSourcesPacketsInBothLayouts) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    struct Case {
        const char *fixture;
        uint32_t objectType, bits;
    } cases[] = {
        {"h264_aac.mp4", 0, 0},       {"h264_rot90_sar_lang.mp4", 0, 0}, {"hevc_hvc1.mp4", 0, 0},
        {"hevc_hev1.mp4", 0, 0},      {"av1.mp4", 0, 0},     {"vp9.mp4", 0, 0},
        {"mp3.mp4", 0x6B, 0},         {"opus.mp4", 0, 0},    {"flac.mp4", 0, 0},
        {"ac3.mp4", 0, 0},            {"eac3.mp4", 0, 0},    {"alac.mp4", 0, 0},
        {"pcm_h264.mov", 0, 16},      {"pcm_twos_stereo.mov", 0, 16},
    };
    for (const Case &c : cases) {
        const std::string source = FixturePath(std::string("modern/") + c.fixture);
        for (uint32_t flags : {0u, uint32_t(MP4_NEW_FASTSTART)}) {
            SCOPED_TRACE(Format("%s flags %u", c.fixture, flags));
            TempPath out(".mp4");
            ASSERT_EQ(WriteFromFrames(source, out.path(), flags, c.objectType, c.bits), "");
            EXPECT_EQ(RunCommand("ffprobe -v warning '" + out.path() + "' 2>&1"), "");
            EXPECT_EQ(ProbeListing(out.path()), ListingOf(source + ".samples"));
        }
    }
}

}  // namespace
