// The video readers of mux over streams that `mp4core extract` takes out of
// FFmpeg's files, each sample against the source's listing, and over
// broken streams; one row of tests/data/mux/video.rows per case.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "mux/mux.h"
#include "support/listing.h"
#include "support/test_support.h"

using namespace testing_support;

namespace {

struct Source {
    int64_t dts, pts;  // ticks of a source frame
    Bytes data;
    bool key;
};

// The samples of track 1 as the listing beside the file gives them, with
// their bytes from the file; times in source frames.
std::vector<Source> SourceSamples(const std::string &name) {
    const Bytes file = ReadWholeFile(FixturePath(name));
    std::ifstream listing(FixturePath(name) + ".samples");
    std::vector<Source> samples;
    int64_t frame = 0;
    for (std::string line; std::getline(listing, line);) {
        std::istringstream w(line);
        int64_t dts = 0, cts = 0;
        size_t size = 0, pos = 0;
        int key = 0;
        if (line[0] == 't' && !samples.empty()) break;  // track 2
        if (line[0] == '#' || line[0] == 't' || !(w >> dts >> size >> pos >> key >> cts)) continue;
        if (frame == 0 && dts > 0) frame = dts;
        samples.push_back({dts, dts + cts, Bytes(file.begin() + long(pos), file.begin() + long(pos + size)), key != 0});
    }
    for (Source &s : samples) s.dts /= frame, s.pts /= frame;  // the fixtures' rates are constant
    return samples;
}

// A sample without its parameter sets (4-byte lengths).
Bytes WithoutSets(const Bytes &sample, const std::string &format) {
    if (format.compare(0, 2, "av") != 0 && format.compare(0, 2, "hv") != 0 && format != "hev1") return sample;
    const bool avc = format.compare(0, 3, "avc") == 0;
    Bytes out;
    for (size_t at = 0; at + 4 < sample.size();) {
        const size_t end = std::min(sample.size(), at + 4 + GetU32(sample, at));
        const uint32_t type = avc ? sample[at + 4] & 0x1F : (sample[at + 4] >> 1) & 0x3F;
        if (!(avc ? type == 7 || type == 8 || type == 13 : type >= 32 && type <= 34))
            out.insert(out.end(), sample.begin() + long(at), sample.begin() + long(end));
        at = end;
    }
    return out;
}

std::string Hexed(const Bytes &bytes) {
    std::string text;
    for (uint8_t b : bytes) text += Format("%02x", b);
    return text;
}

std::string Extracted(const std::string &name, const TempPath &out) {
    RunCommand(std::string(MP4CORE_TOOL) + " extract " + FixturePath(name) + " --track 1 -o " + out.path() + " >/dev/null");
    const Bytes bytes = ReadWholeFile(out.path());
    return std::string(bytes.begin(), bytes.end());
}

// Opens `path` with the first format whose probe takes it.
struct ReaderRun {
    mux::ByteStream in;
    const mux::Format *format = nullptr;
    mux::Reader *reader = nullptr;
    mux::TrackDescription track;
    mux::Failure failure;
    ReaderRun(const std::string &path, bool pipe, const mux::Options &options) {
        mux::OpenByteStream(path.c_str(), &in);
        in.seekable = in.seekable && !pipe;
        mux::Hold(&in, 4096);
        for (size_t i = 0; i < mux::kFormatCount && format == nullptr; ++i)
            if (mux::kFormats[i].probe(in.bytes.data(), std::min<size_t>(in.bytes.size(), 4096))) format = &mux::kFormats[i];
        if (format != nullptr) reader = format->open(&in, options, &track, &failure);
    }
    ~ReaderRun() {
        if (reader != nullptr) format->close(reader);
        mux::CloseByteStream(&in);
    }
};

void CheckSamples(const std::vector<std::string> &row) {
    std::vector<std::string> names;
    std::istringstream parts(row[1]);
    for (std::string name; std::getline(parts, name, '+');) names.push_back(name);
    std::vector<Source> expected;
    std::string stream;
    for (const std::string &name : names) {
        // A stream behind another presents from the first's end.
        const std::vector<Source> part = SourceSamples(name);
        int64_t first = INT64_MAX;
        for (const Source &s : part) first = std::min(first, s.pts);
        const int64_t shift = int64_t(expected.size());
        for (const Source &s : part) expected.push_back({s.dts + shift, s.pts - first + shift, s.data, s.key});
        TempPath out;
        stream += Extracted(name, out);
    }
    TempFile file(Bytes(stream.begin(), stream.end()), ".stream");
    mux::Options options;
    if (row[3] != "-" && std::sscanf(row[3].c_str(), "%u/%u", &options.fpsNumerator, &options.fpsDenominator) == 1)
        options.fpsDenominator = 1;
    ReaderRun run(file.path(), row[2] == "pipe", options);
    ASSERT_NE(run.reader, nullptr) << run.failure.why;
    const MP4TrackSpec &entry = run.track.entry;
    EXPECT_EQ(std::string(entry.Format, 4), row[4]);
    EXPECT_EQ(entry.Timescale, std::stoul(row[5]));
    std::ifstream facts(FixturePath(names[0]) + ".streams");
    std::string line;
    while (std::getline(facts, line) && line.rfind("stream ", 0) != 0) {
    }
    const std::string config = line.substr(line.find(" config ") + 8);
    EXPECT_EQ(Hexed(run.track.config), config.substr(0, config.find(' ')));
    const int64_t frame = std::stoll(row[6]);
    mux::Sample sample;
    size_t n = 0;
    int64_t firstPresent = 0;
    for (; run.format->next(run.reader, &sample, &run.failure) == mux::Step::kSample; ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, expected.size());
        const int64_t present = int64_t(sample.decodeTime) + sample.compositionOffset;
        if (n == 0) firstPresent = present;
        EXPECT_EQ(int64_t(sample.decodeTime), expected[n].dts * frame);
        EXPECT_EQ(present - firstPresent, (expected[n].pts - expected[0].pts) * frame);
        EXPECT_GE(sample.compositionOffset, 0);
        EXPECT_EQ(sample.key, expected[n].key);
        const Bytes got(sample.data, sample.data + sample.size);
        EXPECT_EQ(WithoutSets(got, row[4]), WithoutSets(expected[n].data, row[4]));
    }
    EXPECT_EQ(run.failure.why, "");
    EXPECT_EQ(n, expected.size());
}

void CheckFailure(const std::vector<std::string> &row) {
    Bytes input;
    size_t cut = 0;
    char source[64];
    if (std::sscanf(row[2].c_str(), "%63s cut %zu", source, &cut) == 2) {
        TempPath part;
        const std::string stream = Extracted(source, part).substr(0, cut);
        input.assign(stream.begin(), stream.end());
    } else {
        input = Hex(row[2]);
    }
    TempFile file(input, ".stream");
    ReaderRun run(file.path(), false, {});
    ASSERT_NE(run.format, nullptr);
    mux::Sample sample;
    while (run.reader != nullptr && run.format->next(run.reader, &sample, &run.failure) == mux::Step::kSample) {
    }
    EXPECT_EQ(Format("%llu %s", static_cast<unsigned long long>(run.failure.offset), run.failure.why.c_str()),
              row[3] + " " + row[4]);
}

// The frames each sample presents at, from the first's.
void CheckOrder(const std::vector<std::string> &row) {
    TempFile file(Hex(row[2]), ".stream");
    ReaderRun run(file.path(), false, {});
    ASSERT_NE(run.reader, nullptr) << run.failure.why;
    std::string order;
    mux::Sample s;
    int64_t first = -1;
    while (run.format->next(run.reader, &s, &run.failure) == mux::Step::kSample) {
        const int64_t present = int64_t(s.decodeTime) + s.compositionOffset;
        if (first < 0) first = present;
        order += (order.empty() ? "" : " ") + std::to_string((present - first) / s.duration);
    }
    EXPECT_EQ(order, row[3]);
}

TEST(MuxVideoReaders, EachRowGivesTheSourcesSamplesOrItsFailure) {
    for (const auto &row : ReadRows("mux/video.rows")) {
        SCOPED_TRACE(row[1]);
        if (row[0] == "samples") CheckSamples(row);
        if (row[0] == "fails") CheckFailure(row);
        if (row[0] == "order") CheckOrder(row);
    }
}

}  // namespace

// The presentation times of a file's decoded frames (ffprobe), in
// microseconds from the first.
std::vector<long> Presented(const std::string &path) {
    std::istringstream text(RunCommand("ffprobe -v error -select_streams v -show_entries frame=pts_time -of csv=p=0 " + path));
    std::vector<long> times;
    for (std::string line; std::getline(text, line);)
        if (!line.empty()) times.push_back(std::lround(std::stod(line) * 1e6) - (times.empty() ? 0 : times[0]));
    if (!times.empty()) times[0] = 0;
    return times;
}

// What FFmpeg makes of the samples written through the public calls, plain
// and fragmented: no warning in a decode, and the frames present at the
// times of the source's own, up to a constant.
TEST(SlowMuxVideoReaders, FfmpegDecodesTheWrittenTrackAsItsSource) {
    if (!HaveFfmpeg()) GTEST_SKIP() << "no ffmpeg";
    for (const auto &row : ReadRows("mux/video.rows")) {
        if (row[0] != "samples" || row[1].find('+') != std::string::npos || row[3] != "-") continue;
        for (const uint32_t mode : {MP4_NEW_PROGRESSIVE, MP4_NEW_FRAGMENTED}) {
            SCOPED_TRACE(row[1] + (mode == MP4_NEW_FRAGMENTED ? " fragmented" : ""));
            TempPath stream, out(".mp4");
            const std::string bytes = Extracted(row[1], stream);
            WriteWholeFile(stream.path(), Bytes(bytes.begin(), bytes.end()));
            ReaderRun run(stream.path(), row[2] == "pipe", {});
            MP4_local_file *file = nullptr;
            uint32_t id = 0;
            ASSERT_EQ(MP4FileNewEx(&file, out.c_str(), mode), 1);
            ASSERT_EQ(MP4AddTrack(file, &run.track.entry, &id), 1);
            mux::Sample s;
            while (run.format->next(run.reader, &s, &run.failure) == mux::Step::kSample) {
                MP4WriteInfo info{};
                info.DecodeTime = s.decodeTime, info.CompositionOffset = s.compositionOffset;
                info.Duration = s.duration, info.Size = uint32_t(s.size), info.Flags = s.key ? MP4_SAMPLE_KEY : 0;
                ASSERT_EQ(MP4WriteSample(file, id, &info, s.data), 1);
            }
            ASSERT_EQ(MP4FileFlush(file), 1);
            EXPECT_EQ(RunCommand("ffmpeg -v warning -nostdin -i " + out.path() + " -f null - 2>&1"), "");
            EXPECT_EQ(Presented(out.path()), Presented(FixturePath(row[1])));
        }
    }
}
