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
#include "support/mini_mp4.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

// Start and duration only with `timing`: ffprobe reads the edit list of a
// fragmented file as a start offset rather than a cut.
std::string Streams(const std::string &path, bool timing = true) {
    return RunCommand("ffprobe -v error -show_entries stream=codec_name,width,height,sample_rate,"
                      "channels" + std::string(timing ? ",start_time,duration" : "") + " -of csv=p=0 '" +
                      path + "'");
}

// Copies every track of `source` sample by sample through the new calls,
// the tracks interleaved by decode time. Gives "" or what failed.
std::string WriteFromFrames(const std::string &source, const std::string &out, uint32_t flags,
                            uint32_t objectType, uint32_t bits) {
    MP4_local_file *in = nullptr, *file = nullptr;
    if (MP4FileOpenEx(&in, source.c_str(), MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN) != 1) return "open";
    uint32_t count = 0;
    MP4GetTrackCount(in, &count);
    EXPECT_EQ(MP4FileNewEx(&file, out.c_str(), flags), 1);
    std::vector<MP4TrackInfo> tracks(count);
    std::vector<uint32_t> ids(count), next(count, 0);
    std::string error;
    for (uint32_t t = 0; t < count && error.empty(); ++t) {
        MP4TrackInfo &info = tracks[t];
        MP4GetTrackInfo(in, t, &info);
        MP4TrackSpec trackSpec{};
        trackSpec.TrackType = uint32_t(info.TrackType);
        std::memcpy(trackSpec.Format, info.Format, 4);
        trackSpec.Timescale = info.Timescale;
        trackSpec.Width = info.Width;
        trackSpec.Height = info.Height;
        trackSpec.SampleRate = info.SampleRate;
        trackSpec.Channels = info.Channels;
        trackSpec.BitsPerSample = bits;
        trackSpec.ObjectType = objectType;
        std::memcpy(trackSpec.Language, info.Language, 4);
        trackSpec.Rotation = info.Rotation;
        trackSpec.PixelAspectH = info.PixelAspectH;
        trackSpec.PixelAspectV = info.PixelAspectV;
        // The source's priming edit of an audio track (Opus pre-skip, AAC delay).
        if (info.TrackType == MP4_TRACK_AUDIO && info.EditMediaTime > 0)
            trackSpec.MediaStart = uint32_t(info.EditMediaTime);
        uint8_t *config = nullptr;
        MP4GetDecoderConfig(in, info.TrackId, info.TrackType, &config, &trackSpec.ConfigSize);
        trackSpec.Config = config;
        const int32_t added = MP4AddTrack(file, &trackSpec, &ids[t]);
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
        info.Duration = sample.Duration;
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
        if (line.empty() || (line[0] == '#' && text.empty() && line.rfind("# note", 0) != 0)) continue;
        if (line[0] == '#') {
            text += "#\n";
            continue;
        }
        std::istringstream fields(line);
        std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
        if (f[0] == "track") text += f[2] + " " + f[3] + " " + f[5] + "\n";
        else if (f[0] == "pcm") text += "pcm " + f[2] + " " + f[3] + "\n";
        else text += f[0] + " " + f[1] + " " + f[3] + " " + f[4] + " " + f[5] + "\n";
    }
    return text;
}

std::string ProbeListing(const std::string &path, bool fromZero) {
    std::istringstream streams(RunCommand(
        "ffprobe -v error -show_entries stream=codec_type,codec_name,time_base,start_time -of csv=p=0 '" +
        path + "'"));
    std::vector<std::string> heads;
    for (std::string line; std::getline(streams, line);) {
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream f(line);
        std::string name, type, base, start;
        f >> name >> type >> base >> start;
        if (base.empty()) continue;  // a line of side data
        if (type != "video" && type != "audio") type = "other";
        // Video presents from 0: B-frames get their edit list.
        if (fromZero && type == "video" && start != "0.000000") type += " starting at " + start;
        heads.push_back(type + " " + name + " " + base.substr(base.find('/') + 1) + "\n");
    }
    std::string csv = RunCommand(
        "ffprobe -v error -ignore_editlist 1 -show_data_hash CRC32 -show_entries "
        "packet=stream_index,pts,dts,size,flags,data_hash -of csv=p=0 '" + path + "'");
    // A packet with side data (a new sample entry's configuration) breaks its line.
    for (size_t at; (at = csv.find("\n,")) != std::string::npos;) csv.erase(at, 1);
    std::istringstream packets(csv);
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
    // GStreamer and MediaInfo as two more clients, where they are installed.
    const bool others = std::system("command -v gst-discoverer-1.0 >/dev/null && "
                                    "command -v gst-launch-1.0 >/dev/null && "
                                    "command -v mediainfo >/dev/null") == 0;
    for (const Case &c : cases) {
        const std::string source = FixturePath(std::string("modern/") + c.fixture);
        for (uint32_t flags : {4u, 4u | 8u, 1u}) {  // progressive, faststart, fragmented
            SCOPED_TRACE(Format("%s flags %u", c.fixture, flags));
            TempPath out(".mp4");
            ASSERT_EQ(WriteFromFrames(source, out.path(), flags, c.objectType, c.bits), "");
            EXPECT_EQ(RunCommand("ffprobe -v warning '" + out.path() + "' 2>&1"), "");
            EXPECT_EQ(ProbeListing(out.path(), true), ListingOf(source + ".samples"));
            EXPECT_EQ(Streams(out.path(), flags != MP4_NEW_FRAGMENTED), Streams(source, flags != MP4_NEW_FRAGMENTED));
            if (!others) continue;
            const std::string found = RunCommand("gst-discoverer-1.0 '" + out.path() + "' 2>&1");
            EXPECT_NE(found.find("container #0: Quicktime"), std::string::npos) << found;
            EXPECT_EQ(found.find("rror"), std::string::npos) << found;
            // A pipeline that never prerolls would wait for ever: bounded.
            EXPECT_EQ(RunCommand("timeout 60 gst-launch-1.0 -q filesrc location='" + out.path() +
                                 "' ! decodebin ! fakesink 2>&1; echo $?"), "0\n");
            EXPECT_EQ(RunCommand("mediainfo --Inform='General;%Format%' '" + out.path() + "'"),
                      flags == MP4_NEW_FRAGMENTED ? "iso6\n" : "MPEG-4\n");  // it names a fragmented file by its brand
        }
    }
}

}  // namespace

namespace {

MP4TrackSpec AvcSpec() {
    static const uint8_t kAvcC[] = {1, 0x64, 0, 0x0B, 0xFF, 0xE0, 0};
    MP4TrackSpec trackSpec{};
    trackSpec.TrackType = MP4_TRACK_VIDEO;
    std::memcpy(trackSpec.Format, "avc1", 4);
    trackSpec.Timescale = 12800;
    trackSpec.Width = 160;
    trackSpec.Height = 120;
    trackSpec.Config = kAvcC;
    trackSpec.ConfigSize = sizeof kAvcC;
    return trackSpec;
}

MP4TrackSpec SoundSpec(const char *format, uint32_t bits, uint32_t rate) {
    MP4TrackSpec trackSpec{};
    trackSpec.TrackType = MP4_TRACK_AUDIO;
    std::memcpy(trackSpec.Format, format, 4);
    trackSpec.Timescale = 8000;
    trackSpec.SampleRate = rate;
    trackSpec.Channels = 2;
    trackSpec.BitsPerSample = bits;
    return trackSpec;
}

TEST(ModernWriter, RefusalsHaveTheirOwnCodesAndWriteNothing) {
    TempPath path(".mp4");
    MP4_local_file *file = nullptr;
    for (uint32_t flags : {5u, 8u, 9u, 2u, 16u})  // both layouts, faststart or sync alone, unknown
        EXPECT_EQ(MP4FileNewEx(&file, path.c_str(), flags), -100) << flags;

    // The new calls on the other forms of handle.
    MP4TrackSpec trackSpec = AvcSpec();
    MP4WriteInfo info{};
    uint32_t id = 0;
    MP4_local_file *read = nullptr;
    ASSERT_EQ(MP4FileOpenEx(&read, FixturePath("modern/h264_aac.mp4").c_str(), 1, MP4_OPEN_MODERN), 1);
    EXPECT_EQ(MP4AddTrack(read, &trackSpec, &id), -98);
    EXPECT_EQ(MP4WriteSample(read, 1, &info, nullptr), -98);
    MP4FileClose(&read);
    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), 0), 1);
    EXPECT_EQ(MP4AddTrack(file, &trackSpec, &id), -98);
    EXPECT_EQ(MP4WriteSample(file, 1, &info, nullptr), -98);
    MP4FileFlush(file);
    // A fragmented handle: no track yet, and a track after the first sample.
    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), MP4_NEW_FRAGMENTED), 1);
    EXPECT_EQ(MP4WriteSample(file, 1, &info, nullptr), -97);
    EXPECT_EQ(MP4AddTrack(file, &trackSpec, &id), 1);
    const MP4TrackSpec sowt = SoundSpec("sowt", 16, 8000);
    EXPECT_EQ(MP4AddTrack(file, &sowt, &id), 1);
    const MP4WriteInfo cut = {0, 0, 0, 4, MP4_SAMPLE_KEY | MP4_SAMPLE_NEW_FRAGMENT, 0, {}};
    EXPECT_EQ(MP4WriteSample(file, id, &cut, reinterpret_cast<const uint8_t *>("four")), -96);  // not the leading track
    EXPECT_EQ(MP4WriteSample(file, 1, &info, nullptr), 1);
    EXPECT_EQ(MP4AddTrack(file, &trackSpec, &id), -97);
    EXPECT_EQ(MP4FileFlush(file), 1);

    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), MP4_NEW_PROGRESSIVE), 1);
    EXPECT_EQ(MP4AddTrack(file, nullptr, &id), -99);
    struct SpecCase {
        const char *what;
        MP4TrackSpec trackSpec;
        int32_t result;
    } trackSpecs[] = {
        {"reserved", [] { auto s = AvcSpec(); s.Reserved[5] = 1; return s; }(), -96},
        {"type 3", [] { auto s = AvcSpec(); s.TrackType = 3; return s; }(), -95},
        {"sound format on video", [] { auto s = AvcSpec(); std::memcpy(s.Format, "mp4a", 4); return s; }(), -95},
        {"timescale 0", [] { auto s = AvcSpec(); s.Timescale = 0; return s; }(), -95},
        {"width 0", [] { auto s = AvcSpec(); s.Width = 0; return s; }(), -95},
        {"rotation 45", [] { auto s = AvcSpec(); s.Rotation = 45; return s; }(), -95},
        {"language", [] { auto s = AvcSpec(); std::memcpy(s.Language, "EN\0", 4); return s; }(), -95},
        {"half an aspect", [] { auto s = AvcSpec(); s.PixelAspectH = 4; return s; }(), -95},
        {"other without handler", [] { auto s = AvcSpec(); s.TrackType = 0; return s; }(), -95},
        {"avcC version 0", [] { auto s = AvcSpec(); s.Config = reinterpret_cast<const uint8_t *>("\0\0\0\0\0\0\0"); return s; }(), -94},
        {"config past 1 MiB", [] { static const std::vector<uint8_t> big((1 << 20) + 1, 1); auto s = AvcSpec(); s.Config = big.data(); s.ConfigSize = uint32_t(big.size()); return s; }(), -94},
        {"hvc1 with avcC", [] { auto s = AvcSpec(); std::memcpy(s.Format, "hvc1", 4); return s; }(), -94},
        {"Opus without dOps", SoundSpec("Opus", 0, 48000), -94},
        {"AAC without config", SoundSpec("mp4a", 0, 44100), -94},
        {"ac-3 without dac3", SoundSpec("ac-3", 0, 48000), -94},
        {"sowt of 24 bits", SoundSpec("sowt", 24, 8000), -95},
        {"twos at another rate", SoundSpec("twos", 16, 44100), -95},
        {"fpcm of 16 bits", SoundSpec("fpcm", 16, 8000), -95},
        {"no channels", [] { auto s = SoundSpec("sowt", 16, 8000); s.Channels = 0; return s; }(), -95},
        {"MP3", [] { auto s = SoundSpec("mp4a", 0, 44100); s.ObjectType = 0x6B; return s; }(), 1},
        {"video", AvcSpec(), 1},
        {"sowt", SoundSpec("sowt", 16, 8000), 1},
    };
    for (const SpecCase &c : trackSpecs) EXPECT_EQ(MP4AddTrack(file, &c.trackSpec, &id), c.result) << c.what;
    EXPECT_EQ(id, 3u);

    // MP4AddTrackFrom: its source must be a read handle with that track,
    // unprotected; a classic write handle takes no copy.
    MP4_local_file *classic = nullptr, *plain = nullptr, *locked = nullptr;
    TempPath classicPath(".mp4");
    ASSERT_EQ(MP4FileNewEx(&classic, classicPath.c_str(), 0), 1);
    ASSERT_EQ(MP4FileOpenEx(&plain, FixturePath("modern/h264_aac.mp4").c_str(), 1, MP4_OPEN_MODERN), 1);
    ASSERT_EQ(MP4FileOpenEx(&locked, FixturePath("modern/encrypted_cenc.mp4").c_str(), 1, MP4_OPEN_MODERN), 1);
    struct FromCase {
        MP4_local_file *target, *source;
        uint32_t track;
        int32_t type, result;
    } froms[] = {
        {classic, plain, 1, 1, -98}, {file, classic, 1, 1, -91}, {file, plain, 1, 2, -90},
        {file, plain, 0, 1, -99},    {file, locked, 1, 1, -89},  {file, plain, 2, 2, 1},
    };
    for (const FromCase &c : froms)
        EXPECT_EQ(MP4AddTrackFrom(c.target, c.source, c.track, c.type, &id), c.result) << c.track;
    EXPECT_EQ(id, 4u);
    MP4FileClose(&plain);
    MP4FileClose(&locked);
    MP4FileFlush(classic);

    const uint8_t bytes[8] = {};
    struct SampleCase {
        const char *what;
        uint32_t track;
        MP4WriteInfo info;
        int32_t result;
    } samples[] = {
        {"first", 2, {1000, 0, 0, 8, 1, 0, {}}, 1},
        {"reserved", 2, {2000, 0, 0, 8, 1, 0, {0, 0, 1}}, -96},
        {"unknown flag", 2, {2000, 0, 0, 8, 5, 0, {}}, -96},
        {"second entry", 2, {2000, 0, 0, 8, 1, 2, {}}, -96},
        {"no track 5", 5, {2000, 0, 0, 8, 1, 0, {}}, -97},
        {"no track 0", 0, {2000, 0, 0, 8, 1, 0, {}}, -97},
        {"same time", 2, {1000, 0, 0, 8, 1, 0, {}}, -95},
        {"falling time", 2, {999, 0, 0, 8, 1, 0, {}}, -95},
        {"gap past 32 bits", 2, {1000 + (uint64_t(1) << 32), 0, 0, 8, 1, 0, {}}, -95},
        {"half a PCM frame", 3, {0, 0, 0, 2, 1, 0, {}}, -94},
        {"no PCM bytes", 3, {0, 0, 0, 0, 1, 0, {}}, -94},
        {"second", 2, {3000, -5, 0, 8, 0, 1, {}}, 1},
    };
    for (const SampleCase &c : samples) EXPECT_EQ(MP4WriteSample(file, c.track, &c.info, bytes), c.result) << c.what;
    EXPECT_EQ(MP4AddTrackFrom(file, file, 1, 1, &id), -97);
    EXPECT_EQ(MP4WriteSample(file, 2, &samples[0].info, nullptr), -99);
    EXPECT_EQ(MP4AddTrack(file, &trackSpec, &id), -97);
    ASSERT_EQ(MP4FileFlush(file), 1);

    // What was taken: two video samples, the second presenting 5 ticks early.
    ASSERT_EQ(MP4FileOpenEx(&read, path.c_str(), 1, MP4_OPEN_MODERN), 1);
    MP4TrackInfo track{};
    ASSERT_EQ(MP4GetTrackInfo(read, 1, &track), 1);
    EXPECT_EQ(track.SampleCount, 2u);
    MP4SampleInfo second{};
    ASSERT_EQ(MP4GetSampleInfo(read, 2, 1, 1, &second), 1);
    EXPECT_EQ(second.DecodeTime, 2000u);
    EXPECT_EQ(second.CompositionOffset, -5);
    EXPECT_EQ(second.IsKeyFrame, 0);
    MP4FileClose(&read);
}

}  // namespace

namespace {

// Each track's sample entries, a digit a sample.
std::string Entries(const std::string &path) {
    MP4_local_file *file = nullptr;
    MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN);
    std::string text;
    MP4TrackInfo info{};
    for (uint32_t t = 0; MP4GetTrackInfo(file, t, &info) == 1; ++t, text += "\n") {
        MP4SampleInfo s{};
        for (uint32_t n = 0; MP4GetSampleInfo(file, info.TrackId, info.TrackType, n, &s) == 1; ++n)
            text += char('0' + s.DescriptionIndex);
    }
    MP4FileClose(&file);
    return text;
}

// Every FFmpeg and hand-built fixture, remuxed plain, --faststart and --fragmented:
// the same packets (decode times relative, sizes, key flags, offsets,
// hashes) and the same streams (edit lists kept). Left out: files whose
// tracks have no readable tables or whose times fall, and the protected
// one, which remux leaves out.
TEST(SlowRemux, EveryFixtureKeepsItsPacketsAndStreams) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    const std::string folder = FixturePath("modern/");
    std::istringstream names(RunCommand("cd '" + folder + "' && ls *.samples"));
    for (std::string name; std::getline(names, name);) {
        const std::string source = folder + name.substr(0, name.size() - 8);
        if (name.rfind("claims_", 0) == 0 || name.rfind("frag_time_jumps", 0) == 0 ||
            name.rfind("encrypted", 0) == 0 || name.rfind("frag_cut_in_data", 0) == 0)
            continue;
        for (const char *option : {"", "--faststart", "--fragmented", "--fragmented --fragment-seconds 0.5"}) {
            SCOPED_TRACE(name + " " + option);
            TempPath out(".mp4");
            ASSERT_EQ(RunCommand(std::string(MP4CORE_TOOL) + " remux '" + source + "' -o '" + out.path() +
                                 "' " + option + " >/dev/null 2>&1; echo $?"), "0\n");
            EXPECT_EQ(Entries(out.path()), Entries(source));
            // A listing with notes says where ffprobe's packets differ from the atoms.
            const std::string listing = ListingOf(source + ".samples");
            if (listing.find('#') == std::string::npos) {
                EXPECT_EQ(ProbeListing(out.path(), false), listing);
            }
            // Durations that ffprobe takes from elsewhere than the samples: a
            // fragment cut short, and rounded "tfdt" times that the copied
            // decode times keep but the "trun" durations did not.
            const bool fragmented = std::strstr(option, "--fragmented") != nullptr;
            if (name.rfind("frag_cut_in_moof", 0) != 0 && name.rfind("frag_cmaf_every_frame", 0) != 0) {
                EXPECT_EQ(Streams(out.path(), !fragmented), Streams(source, !fragmented));
            }
        }
    }
}

// Fragments of MP4WriteSample: after every call the file holds whole atoms
// only, the newest at most two seconds and a sample behind what was
// written, and the flush gives back every sample with its offset (a
// negative one in a version 1 "trun") and key flag, in two tracks.
TEST(ModernFragments, EachCallLeavesWholeFragmentsOnly) {
    struct Case {
        std::vector<uint32_t> cuts;  // video samples with MP4_SAMPLE_NEW_FRAGMENT
        uint32_t fragments;
    } cases[] = {{{}, 5}, {{0, 100}, 2}, {{50}, 3}};  // {50}: cut at 36 by the rule, then at 50 alone
    for (const Case &c : cases) {
        TempPath path(".mp4");
        MP4_local_file *file = nullptr;
        ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), MP4_NEW_FRAGMENTED), 1);
        const MP4TrackSpec trackSpecs[] = {AvcSpec(), SoundSpec("sowt", 16, 8000)};
        uint32_t ids[2] = {};
        for (int t = 0; t < 2; ++t) ASSERT_EQ(MP4AddTrack(file, &trackSpecs[t], &ids[t]), 1);
        const uint8_t bytes[1280] = {};
        constexpr uint32_t kFrames = 150;  // 25 a second; PCM: 320 frames with each
        for (uint32_t n = 0; n < kFrames; ++n) {
            const uint32_t cut = std::count(c.cuts.begin(), c.cuts.end(), n) != 0 ? MP4_SAMPLE_NEW_FRAGMENT : 0;
            const MP4WriteInfo video = {n * 512ull, n % 3 == 1 ? -512 : 0, 0, 40 + n, (n % 12 == 0 ? 1u : 0u) | cut, 0, {}};
            const MP4WriteInfo sound = {n * 320ull, 0, 0, 320 * 4, 1, 0, {}};
            ASSERT_EQ(MP4WriteSample(file, ids[0], &video, bytes), 1);
            ASSERT_EQ(MP4WriteSample(file, ids[1], &sound, bytes), 1);
            const Bytes now = ReadWholeFile(path.path());
            if (now.empty() && n < (c.cuts.empty() ? 36 : 100)) continue;  // the header comes with the first fragment
            size_t at = 0;
            while (at + 8 <= now.size()) at += (size_t(now[at]) << 24) | (now[at + 1] << 16) | (now[at + 2] << 8) | now[at + 3];
            ASSERT_EQ(at, now.size()) << n;
            OpenedFile read(now, MP4_TABLE_KEYFRAMES, MP4_OPEN_MODERN);
            ASSERT_EQ(read.result, 1) << n;
            MP4TrackInfo info{};
            ASSERT_EQ(MP4GetTrackInfo(read.handle, 0, &info), 1);
            EXPECT_TRUE(!c.cuts.empty() || info.SampleCount + 2 * 25 + 1 >= n + 1) << n;
        }
        ASSERT_EQ(MP4FileFlush(file), 1);
        MP4_local_file *read = nullptr;
        ASSERT_EQ(MP4FileOpenEx(&read, path.c_str(), 1, MP4_OPEN_MODERN), 1);
        for (uint32_t n = 0; n < kFrames; ++n) {
            MP4SampleInfo got{};
            ASSERT_EQ(MP4GetSampleInfo(read, ids[0], MP4_TRACK_VIDEO, n, &got), 1);
            EXPECT_EQ(got.DecodeTime, n * 512ull);
            EXPECT_EQ(got.CompositionOffset, n % 3 == 1 ? -512 : 0);
            EXPECT_EQ(got.IsKeyFrame, n % 12 == 0 ? 1 : 0) << n;
            EXPECT_EQ(got.Size, 40 + n);
        }
        MP4TrackInfo info[2] = {};
        for (uint32_t t = 0; t < 2; ++t) ASSERT_EQ(MP4GetTrackInfo(read, t, &info[t]), 1);
        EXPECT_EQ(info[0].FragmentCount, c.fragments) << c.cuts.size();
        EXPECT_EQ(info[1].SampleCount, kFrames);
        MP4FileClose(&read);
    }
}

// A file-size limit: the write that hits it gives -99, remux exits 1 and
// removes the output it could not finish.
TEST(Remux, FailedWriteExitsOneAndRemovesTheOutput) {
    TempPath out(".mp4");
    const std::string run = "bash -c \"trap '' XFSZ; ulimit -f 8; " + std::string(MP4CORE_TOOL) +
                            " remux '" + FixturePath("modern/h264_aac.mp4") + "' -o '" + out.path() +
                            "' 2>&1; echo exit \\$?\"";
    const std::string said = RunCommand(run);
    EXPECT_NE(said.find("failed (-99)"), std::string::npos) << said;
    EXPECT_NE(said.find("exit 1"), std::string::npos) << said;
    EXPECT_FALSE(FileExists(out.path()));
}

}  // namespace

namespace {

// Past 4 GiB: a 64-bit "mdat" and "co64", read back by ffprobe and the
// modern reader sample for sample.
TEST(SlowModernWriterLong, ProgressiveFilePast4GiB) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "ffmpeg or ffprobe missing";
    constexpr uint32_t kSamples = 4200, kBytes = 1 << 20;
    std::vector<uint8_t> frame(kBytes, 0x5A);
    TempPath path(".mp4");
    MP4_local_file *file = nullptr;
    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), MP4_NEW_PROGRESSIVE), 1);
    MP4TrackSpec trackSpec = AvcSpec();
    uint32_t id = 0;
    ASSERT_EQ(MP4AddTrack(file, &trackSpec, &id), 1);
    for (uint32_t n = 0; n < kSamples; ++n) {
        const MP4WriteInfo info = {uint64_t(n) * 512, 0, 512, kBytes, MP4_SAMPLE_KEY, 0, {}};
        ASSERT_EQ(MP4WriteSample(file, id, &info, frame.data()), 1) << n;
    }
    ASSERT_EQ(MP4FileFlush(file), 1);
    const std::string mdat = RunCommand("head -c 56 '" + path.path() + "' | od -An -tx1 -j28 | tr -d ' \\n'");
    EXPECT_EQ(mdat.substr(0, 16), "000000016d646174") << mdat;  // size 1, "mdat"
    // The bytes are no pictures: ffprobe counts the packets without decoding.
    EXPECT_EQ(RunCommand("ffprobe -v quiet -count_packets -show_entries stream=nb_read_packets -of csv=p=0 '" +
                         path.path() + "'"), "4200\n");
    MP4_local_file *read = nullptr;
    ASSERT_EQ(MP4FileOpenEx(&read, path.c_str(), 1, MP4_OPEN_MODERN), 1);
    uint8_t *co64 = nullptr;
    uint64_t size = 0;
    EXPECT_EQ(MP4GetAtom(read, "moov/trak/mdia/minf/stbl/co64", &co64, &size), 1);
    MP4freeData(reinterpret_cast<void **>(&co64));
    for (uint32_t n = 0; n < kSamples; ++n) {
        MP4SampleInfo info{};
        ASSERT_EQ(MP4GetSampleInfo(read, id, 1, n, &info), 1);
        ASSERT_EQ(info.FileOffset, 44 + uint64_t(n) * kBytes) << n;
        ASSERT_EQ(info.DecodeTime, uint64_t(n) * 512);
    }
    MP4FileClose(&read);
}

}  // namespace
