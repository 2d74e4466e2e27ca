// The modern reader against FFmpeg's view of every file in tests/data/modern
// (and of the sparse file above 4 GiB made at test time): each video, audio
// and other track read sample for sample as its .samples listing says, the
// track facts and decoder configurations as its .streams says. And
// MP4FileOpenEx(..., 0) is MP4FileOpen on every fixture.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "atoms/atoms.h"
#include "mp4core.h"
#include "support/listing.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

// A read handle from MP4FileOpenEx with `flags`, or from MP4FileOpen.
constexpr int64_t kPlainOpen = -1;
struct Handle {
    MP4_local_file *file = nullptr;
    int32_t result = 0;
    Handle(const std::string &path, int64_t flags)
        : result(flags == kPlainOpen
                     ? MP4FileOpen(&file, path.c_str(), MP4_TABLE_KEYFRAMES)
                     : MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_KEYFRAMES, uint32_t(flags))) {}
    ~Handle() { MP4FileClose(&file); }
};

std::vector<std::string> Listed(const std::string &dir, const std::string &extension) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(dir))
        if (entry.path().extension() == extension) names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::vector<std::string>> Rows(const std::string &path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream text(path);
    for (std::string line; std::getline(text, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        rows.emplace_back();
        for (std::string w; words >> w;) rows.back().push_back(w);
    }
    return rows;
}

std::string Join(const std::vector<std::vector<std::string>> &rows) {
    std::string out;
    for (const auto &row : rows) {
        for (size_t i = 0; i < row.size(); ++i) out += (i ? " " : "") + row[i];
        out += "\n";
    }
    return out;
}

bool InfoOf(MP4_local_file *file, uint32_t id, MP4TrackInfo *info) {
    uint32_t count = 0;
    MP4GetTrackCount(file, &count);
    for (uint32_t i = 0; i < count; ++i)
        if (MP4GetTrackInfo(file, i, info) == 1 && info->TrackId == id) return true;
    return false;
}

const char *Kind(int32_t type) { return type == 1 ? "video" : type == 2 ? "audio" : "other"; }

// The calls in bulk against the calls by number on every sample of a
// track: the descriptions in one call, the bytes in batches of a few
// kilobytes (a sample that does not fit grows the buffer), and one by one
// into the caller's buffer; on a cut file the same samples fail.
void CheckBulk(MP4_local_file *file, const MP4TrackInfo &t) {
    SCOPED_TRACE(t.TrackId);
    const uint32_t count = t.SampleCount;
    std::vector<MP4SampleInfo> all(count + 1), batch(count + 1);
    const int32_t described = MP4GetSampleInfos(file, t.TrackId, t.TrackType, 0, count, all.data());
    if (described == -97 || t.TrackId == 0) return;  // no tables, or no ID to ask by
    ASSERT_EQ(described, 1);
    EXPECT_EQ(MP4GetSampleInfos(file, t.TrackId, t.TrackType, 1, count, all.data()), -96);
    Bytes bytes(3000), one;
    for (uint32_t n = 0, done = 0, step = 0; n < count; n += step) {
        const int32_t r = MP4ReadSamples(file, t.TrackId, t.TrackType, n, count - n, bytes.data(),
                                         bytes.size(), batch.data(), &done);
        if (r == -91) bytes.resize(batch[0].Size);
        ASSERT_TRUE(r == 1 || r == -91 || r == -92) << r;
        step = r == -92 ? 1 : done;
        for (uint32_t i = 0, at = 0; i < step; at += batch[i++].Size) {
            MP4SampleInfo single{};
            MP4Sample *sample = nullptr;
            const int32_t classic = MP4ReadSample(file, t.TrackId, t.TrackType, n + i, &sample);
            one.resize(batch[i].Size);
            EXPECT_EQ(MP4ReadSampleInto(file, t.TrackId, t.TrackType, n + i, one.data(),
                                        uint32_t(one.size()), &single), r == 1 ? 1 : -92);
            EXPECT_EQ(classic, r == -92 ? -92 : batch[i].Size == 0 ? -94 : 1) << n + i;
            EXPECT_EQ(std::memcmp(&all[n + i], &batch[i], sizeof single), 0) << n + i;
            EXPECT_EQ(std::memcmp(&single, &batch[i], sizeof single), 0) << n + i;
            EXPECT_TRUE(classic != 1 || (std::equal(one.begin(), one.end(), sample->Data) &&
                                         std::equal(one.begin(), one.end(), bytes.begin() + at)))
                << n + i;
            SampleDataFree(&sample);
        }
    }
}

// MP4NextInFileOrder gives every sample of every track once, in the order
// of a sort by offset and track; after the end 0, and UINT32_MAX starts
// over.
void CheckFileOrder(MP4_local_file *file) {
    std::vector<std::tuple<uint64_t, uint32_t, uint32_t>> sorted, stepped;
    uint32_t tracks = 0, track = UINT32_MAX, sample = 0;
    MP4GetTrackCount(file, &tracks);
    for (uint32_t i = 0; i < tracks; ++i) {
        MP4TrackInfo t{};
        MP4SampleInfo s{};
        MP4GetTrackInfo(file, i, &t);
        for (uint32_t n = 0; MP4GetSampleInfo(file, t.TrackId, t.TrackType, n, &s) == 1; ++n)
            sorted.emplace_back(s.FileOffset, i, n);
    }
    std::sort(sorted.begin(), sorted.end());
    for (int32_t r; (r = MP4NextInFileOrder(file, &track, &sample)) == 1;) {
        MP4TrackInfo t{};
        MP4SampleInfo s{};
        MP4GetTrackInfo(file, track, &t);
        MP4GetSampleInfo(file, t.TrackId, t.TrackType, sample, &s);
        stepped.emplace_back(s.FileOffset, track, sample);
    }
    EXPECT_EQ(stepped, sorted);
    EXPECT_EQ(MP4NextInFileOrder(file, &track, &sample), 0);
    stepped.clear();
    track = UINT32_MAX;
    if (MP4NextInFileOrder(file, &track, &sample) == 1)
        stepped.emplace_back(std::get<0>(sorted.at(0)), track, sample);
    sorted.resize(std::min<size_t>(sorted.size(), 1));
    EXPECT_EQ(stepped, sorted);
}

// MP4_FIND_PRESENTATION against a search of every sample, at the
// presentation times of every sample, a tick either side, and inside the
// leading empty edit.
void CheckPresentation(MP4_local_file *file, const MP4TrackInfo &t) {
    SCOPED_TRACE(t.TrackId);
    std::vector<MP4SampleInfo> all(t.SampleCount);
    if (t.SampleCount == 0 ||
        MP4GetSampleInfos(file, t.TrackId, t.TrackType, 0, t.SampleCount, all.data()) != 1)
        return;
    const int64_t shift = int64_t(t.EditDelay) - std::max<int64_t>(t.EditMediaTime, 0);
    auto shown = [&](uint32_t n) { return int64_t(all[n].DecodeTime) + all[n].CompositionOffset + shift; };
    std::vector<int64_t> times{0, int64_t(t.EditDelay) - 1};
    for (uint32_t n = 0; n < t.SampleCount; n += 1 + t.SampleCount / 300)
        times.insert(times.end(), {shown(n) - 1, shown(n), shown(n) + 1});
    for (int64_t time : times) {
        if (time < 0) continue;
        int64_t best = -1, first = 0;
        for (uint32_t n = 0; n < t.SampleCount; ++n) {
            if (shown(n) < shown(uint32_t(first))) first = n;
            if (shown(n) <= time && int64_t(t.EditDelay) <= time && (best < 0 || shown(n) >= shown(uint32_t(best)))) best = n;
        }
        if (best < 0) best = first;
        uint32_t found = 0, key = 0;
        EXPECT_EQ(MP4FindSample(file, t.TrackId, t.TrackType, uint64_t(time), MP4_FIND_PRESENTATION, &found), 1);
        EXPECT_EQ(found, uint32_t(best)) << time;
        while (best >= 0 && !all[size_t(best)].IsKeyFrame) --best;
        EXPECT_EQ(MP4FindSample(file, t.TrackId, t.TrackType, uint64_t(time), MP4_FIND_PRESENTATION | MP4_FIND_KEY, &key), best < 0 ? -95 : 1);
        EXPECT_TRUE(best < 0 || key == uint32_t(best)) << time;
    }
}

// The reader's listing in the format of `expected`, from which it takes
// only the order of the tracks, their codec names and which are PCM.
// `jumps` counts the samples that begin elsewhere than where the one before
// them ends.
std::string ReadListing(MP4_local_file *file, const std::vector<std::vector<std::string>> &expected,
                        uint32_t *jumps = nullptr) {
    std::vector<std::vector<std::string>> rows;
    for (size_t r = 0; r < expected.size(); ++r) {
        if (expected[r][0] != "track") continue;
        MP4TrackInfo info{};
        if (!InfoOf(file, uint32_t(std::stoul(expected[r][1])), &info)) continue;
        rows.push_back({"track", std::to_string(info.TrackId), Kind(info.TrackType), expected[r][3],
                        "timescale", std::to_string(info.Timescale), "samples",
                        std::to_string(info.SampleCount)});
        CheckBulk(file, info);
        CheckPresentation(file, info);
        const bool pcm = r + 1 < expected.size() && expected[r + 1][0] == "pcm";
        Bytes all;
        uint32_t frame = 0;
        MP4SampleInfo previous{};
        for (uint32_t n = 0; n < info.SampleCount; ++n) {
            MP4SampleInfo s{};
            MP4Sample *sample = nullptr;
            if (MP4GetSampleInfo(file, info.TrackId, info.TrackType, n, &s) != 1) {
                rows.push_back({"undescribed", std::to_string(n)});
                break;
            }
            // Every file has one entry but two_entries.mp4's video, whose
            // third chunk (sample 10) on names the second; each sample lasts
            // until the next begins but where a "tfdt" says otherwise.
            EXPECT_EQ(s.DescriptionIndex, info.EntryCount == 2 && n >= 10 ? 2u : 1u) << n;
            if (jumps != nullptr && n > 0 && !pcm && previous.DecodeTime + previous.Duration != s.DecodeTime) ++*jumps;
            previous = s;
            const int32_t read = MP4ReadSample(file, info.TrackId, info.TrackType, n, &sample);
            if (read != 1) {
                rows.push_back({"error", std::to_string(read)});
                continue;
            }
            if (pcm) {
                all.insert(all.end(), sample->Data, sample->Data + sample->Size);
                frame = n == 0 ? s.Size : frame;
            } else {
                rows.push_back({std::to_string(s.DecodeTime), std::to_string(s.Size),
                                std::to_string(s.FileOffset), std::to_string(s.IsKeyFrame),
                                std::to_string(s.CompositionOffset),
                                Format("%08x", Crc32(sample->Data, sample->Size))});
            }
            SampleDataFree(&sample);
        }
        if (pcm)
            rows.push_back({"pcm", std::to_string(frame), std::to_string(all.size()),
                            Format("%08x", Crc32(all.data(), all.size()))});
    }
    return Join(rows);
}

// The track facts in the format of the .streams files; ffprobe's extradata
// is compared with the decoder configuration where the file gives it.
std::string ReadStreams(MP4_local_file *file, const std::vector<std::vector<std::string>> &expected) {
    std::vector<std::vector<std::string>> rows;
    for (const auto &row : expected) {
        MP4TrackInfo i{};
        if (!InfoOf(file, uint32_t(std::stoul(row[1], nullptr, 16)), &i)) continue;
        uint8_t *config = nullptr;
        uint32_t size = 0;
        std::string hex = MP4GetDecoderConfig(file, i.TrackId, i.TrackType, &config, &size) == 1 ? "" : "-";
        for (uint32_t b = 0; b < size; ++b) hex += Format("%02x", config[b]);
        MP4freeData(reinterpret_cast<void **>(&config));
        rows.push_back({"stream", Format("0x%x", i.TrackId), Kind(i.TrackType),
                        std::string(i.Format, 4), "width", std::to_string(i.Width), "height",
                        std::to_string(i.Height), "rate", std::to_string(i.SampleRate),
                        "channels", std::to_string(i.Channels), "duration",
                        std::to_string(i.Duration), "frames", std::to_string(i.SampleCount),
                        "extradata", row[17] == "-" ? "-" : hex, "config", hex, "edit",
                        std::to_string(i.EditMediaTime), std::to_string(i.EditDelay),
                        "rotation", std::to_string(i.Rotation), "sar",
                        Format("%u:%u", i.PixelAspectH, i.PixelAspectV), "language",
                        i.Language, "scheme", i.Encrypted ? std::string(i.Scheme, 4) : "-"});
        if (i.FragmentCount > 0)
            rows.back().insert(rows.back().end(), {"fragments", std::to_string(i.FragmentCount)});
    }
    return Join(rows);
}

void CheckAgainstListings(const std::string &path) {
    SCOPED_TRACE(path);
    const auto samples = Rows(path + ".samples");
    const auto streams = Rows(path + ".streams");
    testing::internal::CaptureStdout();  // the modern reader prints nothing
    Handle modern(path, MP4_OPEN_MODERN);
    uint32_t jumps = 0;
    const std::string listing = ReadListing(modern.file, samples, &jumps);
    // FFmpeg's "tfhd" gives some samples of every_frame 0 ticks, and its "tfdt" the time.
    const std::string name = std::filesystem::path(path).filename();
    EXPECT_EQ(jumps, name == "frag_time_jumps.mp4" ? 2u : name == "frag_cmaf_every_frame.mp4" ? 14u : 0u);
    const std::string facts = ReadStreams(modern.file, streams);
    CheckFileOrder(modern.file);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    ASSERT_EQ(modern.result, 1);
    EXPECT_EQ(listing, Join(samples));
    EXPECT_EQ(facts, Join(streams));
}

std::string ModernDir() { return FixturePath("modern"); }

TEST(ModernFixtures, EveryTrackReadsAsFfprobeListsIt) {
    const auto files = Listed(ModernDir(), ".samples");
    ASSERT_GE(files.size(), 20u);
    for (const std::string &listing : files) CheckAgainstListings(listing.substr(0, listing.size() - 8));
}

// Cuts of a fixture, each made in place on a copy: every one opens and
// reads every sample and configuration, or fails, with a code.
void ReadCuts(const std::string &path, const std::vector<uint64_t> &lengths) {
    SCOPED_TRACE(path);
    const auto samples = Rows(path + ".samples");
    const auto streams = Rows(path + ".streams");
    TempFile cut(ReadWholeFile(path));
    for (uint64_t length : lengths) {
        std::filesystem::resize_file(cut.path(), length);
        Handle h(cut.path(), MP4_OPEN_MODERN);
        if (h.result != 1) continue;
        ReadListing(h.file, samples);
        ReadStreams(h.file, streams);
    }
}

void AtomEnds(const AtomNode *node, int64_t size, std::vector<uint64_t> *lengths) {
    for (; node != nullptr; node = node->NextSibling) {
        for (int64_t end : {int64_t(node->AtomOffset), int64_t(node->AtomOffset + node->AtomSize)})
            for (int64_t at : {end - 16, end - 1, end, end + 1, end + 16})
                if (at >= 0 && at < size) lengths->push_back(uint64_t(at));
        AtomEnds(node->FirstChild, size, lengths);
    }
}

// Every prefix of two fixtures (one plain, one fragmented), and cuts around
// every atom boundary of the others. Not under valgrind, where the
// thousands of opens take minutes.
TEST(SlowModernCuts, EveryCutOpensAndReadsOrFails) {
    const char *preload = std::getenv("LD_PRELOAD");
    if (preload != nullptr && std::strstr(preload, "vgpreload") != nullptr) GTEST_SKIP();
    for (const char *name : {"/h264_aac_faststart.mp4", "/frag_keyframe.mp4"}) {
        const std::string prefixed = ModernDir() + name;
        std::vector<uint64_t> all(std::filesystem::file_size(prefixed));
        for (size_t i = 0; i < all.size(); ++i) all[i] = all.size() - i;
        ReadCuts(prefixed, all);
    }
    for (const std::string &listing : Listed(ModernDir(), ".samples")) {
        const std::string path = listing.substr(0, listing.size() - 8);
        Handle whole(path, MP4_OPEN_MODERN);
        std::vector<uint64_t> lengths;
        AtomEnds(whole.file->RootAtom->FirstAtom, int64_t(std::filesystem::file_size(path)),
                 &lengths);
        std::sort(lengths.rbegin(), lengths.rend());
        ReadCuts(path, lengths);
    }
}

// Offsets past 4 GiB through "co64", and through the 64-bit base data
// offsets of fragments.
TEST(ModernFixtures, SparseFilesAbove4GiBRead) {
    TempFile marker;
    const std::string dir = marker.path() + ".d";
    RunCommand("python3 '" + ModernDir() + "/make_large.py' '" + dir + "' 2>&1");
    if (!FileExists(dir + "/large_frag.mp4")) GTEST_SKIP() << "make_large.py made no file (no python3?)";
    for (const char *name : {"/large_co64.mp4", "/large_frag.mp4"}) CheckAgainstListings(dir + name);
    RunCommand("rm -rf '" + dir + "'");
}

// What the classic calls give on a handle: every video and audio sample
// through GetNextSample, with its result, time, size, mark and bytes.
std::string ClassicView(const std::string &path, int64_t flags) {
    Handle h(path, flags);
    std::string out = Format("open %d\n", h.result);
    uint32_t count = 0;
    MP4GetTrackCount(h.file, &count);
    for (uint32_t i = 0; i < count; ++i) {
        MP4TrackInfo info{};
        MP4GetTrackInfo(h.file, i, &info);
        out += Format("track %u type %d samples %u\n", info.TrackId, info.TrackType, info.SampleCount);
        if (info.TrackType != 1 && info.TrackType != 2) continue;
        for (int32_t r = 1; r == 1;) {
            MP4Sample *s = nullptr;
            r = GetNextSample(h.file, info.TrackId, info.TrackType, &s);
            out += r != 1 ? Format("%d\n", r)
                          : Format("%u %u %u %08x\n", s->Time, s->Size, s->IsKeyFrame,
                                   Crc32(s->Data, s->Size));
            SampleDataFree(&s);
        }
        if (flags == kPlainOpen) CheckBulk(h.file, info);
    }
    return out;
}

TEST(ModernFixtures, OpenExWithoutFlagsIsTheClassicOpen) {
    std::vector<std::string> files;
    for (const std::string &dir : {ModernDir(), FixturePath("")})
        for (const char *extension : {".mp4", ".3gp", ".mov"})
            for (const std::string &f : Listed(dir, extension)) files.push_back(f);
    ASSERT_GE(files.size(), 40u);
    for (const std::string &path : files) {
        SCOPED_TRACE(path);
        testing::internal::CaptureStdout();
        const std::string plain = ClassicView(path, kPlainOpen);
        const std::string plainMessages = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        const std::string ex = ClassicView(path, 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), plainMessages);
        EXPECT_EQ(ex, plain);
        // The same messages go to a sink instead, on channel 1.
        std::string sunk;
        MP4SetDiagnostics([](int channel, const char *text, void *to) {
            *static_cast<std::string *>(to) += channel == 1 ? text : "(not channel 1)";
        }, &sunk);
        testing::internal::CaptureStdout();
        ClassicView(path, 0);
        MP4SetDiagnostics(nullptr, nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(sunk, plainMessages);
    }
}

}  // namespace
