// Describing every track: sample entries read by their handler, the track
// facts beside them (entries, header duration, flags), and MP4GetAtom.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "mp4core.h"
#include "support/listing.h"
#include "support/mini_mp4.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

// A sound entry of this version; `extra` stands behind the version 0 fields.
Bytes Sound(const char *name, uint16_t version, uint16_t channels, uint32_t rate, const Bytes &extra, const Bytes &children) {
    return Atom(name, {Zeros(6), U16(1), U16(version), Zeros(6), U16(channels), U16(16), Zeros(4), U32(rate << 16), extra, children});
}

// A file of one track (`line`) whose "stsd" of this version holds `entries`.
Bytes WithEntries(const std::string &line, uint8_t version, uint32_t count, const Bytes &entries) {
    return ReplaceAtom(MiniFile(line), "stsd", Atom("stsd", {U8(version), Zeros(3), U32(count), entries}));
}

// MP4GetAtom's code and payload as hex ("" unless 1; the size for -94).
std::string AtomAt(MP4_local_file *file, const char *path, int32_t *code) {
    uint8_t *data = nullptr;
    uint64_t size = 0;
    *code = MP4GetAtom(file, path, &data, &size);
    std::string hex = *code == -94 ? std::to_string(size) : "";
    for (uint64_t i = 0; *code == 1 && i < size; ++i) hex += "0123456789abcdef"[data[i] >> 4], hex += "0123456789abcdef"[data[i] & 15];
    void *block = data;
    MP4freeData(&block);
    return hex;
}

const Bytes kMdcv = Atom("mdcv", {Hex("8a48 3908 2134 9d08 1d4c 0bb8 3d13 4042 00989680 00000032")});
const Bytes kClli = Atom("clli", {Hex("03e8 0190")});
const Bytes kAvcC = Atom("avcC", {Hex("01 64 00 0a ff e0 00")});
const Bytes kAvcC2 = Atom("avcC", {Hex("01 4d 00 1e ff e0 00")});

TEST(Describe, EntriesAreReadByTheirHandlerAndConfiguration) {
    for (const auto &row : ReadRows("read/sample_entries.rows")) {
        SCOPED_TRACE(row.at(0));
        OpenedModern file(WithEntries(row.at(1), uint8_t(std::stoi(row.at(2))), 1, Image(row.at(3))));
        MP4TrackInfo info{};
        ASSERT_EQ(MP4GetTrackInfo(file.handle, 0, &info), 1);
        EXPECT_EQ(info.EntryCount, 1u);
        uint8_t *data = nullptr;
        uint32_t size = 0;
        const int32_t result = MP4GetDecoderConfig(file.handle, info.TrackId, info.TrackType, &data, &size);
        EXPECT_EQ(Format("%.4s %u %u %u %u %u %u %d %u", info.Format, info.Width, info.Height, info.PixelAspectH, info.PixelAspectV,
                         info.SampleRate, info.Channels, result == 1 ? int32_t(size) : result, info.SampleCount), row.at(4));
        void *block = data;
        MP4freeData(&block);
    }
}

// Two "avc1" entries (the second with the HDR atoms), the "stsc" switching
// from the first to the second with the second chunk. (A function: MiniFile
// uses constants of another file.)
Bytes TwoEntries() {
    return WithEntries("video 2 stsc 2,1,1,1,2,1,2", 0, 2,
                                      Cat({VisualEntry("avc1", 64, 48, kAvcC), VisualEntry("avc1", 64, 48, Cat({kAvcC2, kMdcv, kClli}))}));
}

TEST(Describe, TrackFactsBesideTheSampleTables) {
    for (const auto &row : ReadRows("read/track_facts.rows")) {
        SCOPED_TRACE(row.at(0));
        const Bytes bytes = row.at(1).empty() ? TwoEntries() : ReplaceAtom(MiniFile(row[1]), row.at(2).c_str(), Image(row.at(3)));
        uint64_t entries = 0, headerDuration = 0, duration = 0, trackFlags = 0;
        std::istringstream(row.at(4)) >> entries >> headerDuration >> duration >> trackFlags;
        for (uint32_t flags : {0u, uint32_t(MP4_OPEN_MODERN)}) {
            OpenedModern file(bytes, flags);
            MP4TrackInfo info{};
            ASSERT_EQ(MP4GetTrackInfo(file.handle, 0, &info), 1);
            // The classic reader stops at the first "avc1", which it does not know.
            EXPECT_EQ(info.EntryCount, flags == 0 && entries == 2 ? 0u : entries);
            EXPECT_EQ(info.HeaderDuration, headerDuration);
            EXPECT_EQ(info.Duration, flags != 0 ? duration : info.Duration);
            EXPECT_EQ(info.Flags, trackFlags);
            EXPECT_EQ(std::vector<uint32_t>(info.Reserved, info.Reserved + 3), std::vector<uint32_t>(3, 0));
        }
    }
}

TEST(Describe, GetAtomFollowsPathsAndGivesItsCodes) {
    Bytes big = MiniFile("video 2 moov first"), short_ = big;
    std::copy_n(U32(17u << 20).begin(), 4, big.end() - 16);  // "mdat", last, claims 17 MiB
    std::copy_n(U32(1u << 20).begin(), 4, short_.end() - 16);
    const Bytes entry = Sound("mp4a", 1, 2, 24000, {}, Esds("2b 11 88"));
    const std::vector<Bytes> files = {
        TwoEntries(),
        WithEntries("video 2 handler text", 0, 3,
                    Cat({Atom("tx3g", {Zeros(6), U16(1), Zeros(30), Atom("ftab", {U16(1), U16(1), U8(5), Text("Serif")})}),
                         Atom("stpp", {Zeros(6), U16(1), Text("http://www.w3.org/ns/ttml"), Zeros(3), Atom("btrt", {Zeros(12)})}),
                         Atom("abcd", {Zeros(8), Atom("btrt", {Zeros(12)})})})),
        MiniFile("video 8 rename mdat uuid 1"), big, short_, WithEntries("audio 2", 1, 1, entry),
    };
    auto rows = ReadRows("read/get_atom.rows");
    rows.push_back({"0", "moov" + std::string(296, 'x'), "-98", "-98", ""});
    for (auto &row : rows) {
        SCOPED_TRACE(row.at(1));
        row.resize(5);  // a row without a payload
        for (uint32_t flags : {uint32_t(MP4_OPEN_MODERN), 0u}) {
            OpenedModern file(files.at(std::stoul(row.at(0))), flags);
            int32_t code = 0;
            const std::string payload = AtomAt(file.handle, row.at(1).c_str(), &code);
            const int32_t expected = std::stoi(row.at(flags != 0 ? 2 : 3));
            EXPECT_EQ(code, expected) << flags;
            EXPECT_EQ(payload, expected == 1 || expected == -94 ? row.at(4) : "");
        }
    }
    OpenedModern file(TwoEntries());
    uint8_t *data = nullptr;
    uint64_t size = 0;
    EXPECT_EQ(MP4GetAtom(nullptr, "moov", &data, &size), -99);
    EXPECT_EQ(MP4GetAtom(file.handle, nullptr, &data, &size), -99);
    EXPECT_EQ(MP4GetAtom(file.handle, "moov", nullptr, &size), -99);
    EXPECT_EQ(MP4GetAtom(file.handle, "moov", &data, nullptr), -99);
}

// FFmpeg files (and the HE-AAC one) against ffprobe's streams, and the atoms
// the script cut out of the HDR file's bytes.
TEST(Describe, FfmpegFilesAgreeWithTheirListings) {
    for (const char *name : {"streams/he_aac.mp4", "describe/hdr_hevc_aac_truehd.mp4"}) {
        SCOPED_TRACE(name);
        OpenedModern file(ReadWholeFile(FixturePath(name)));
        std::ifstream streams(FixturePath("describe/" + std::string(std::strrchr(name, '/') + 1) + ".streams"));
        std::map<std::string, std::string> stream;
        uint32_t index = 0;
        for (std::string line; std::getline(streams, line);) {
            const size_t equals = line.find('=');
            if (equals != std::string::npos) stream[line.substr(0, equals)] = line.substr(equals + 1);
            if (line != "[/STREAM]") continue;
            MP4TrackInfo info{};
            ASSERT_EQ(MP4GetTrackInfo(file.handle, index++, &info), 1);
            const bool video = stream["codec_type"] == "video";
            EXPECT_EQ(std::vector<std::string>({std::to_string(info.Width), std::to_string(info.Height), std::to_string(info.SampleRate),
                                                std::to_string(info.Channels)}),
                      std::vector<std::string>({video ? stream["width"] : "0", video ? stream["height"] : "0", video ? "0" : stream["sample_rate"],
                                                video ? "0" : stream["channels"]}))
                << index;
            stream.clear();
        }
        uint32_t count = 0;
        MP4GetTrackCount(file.handle, &count);
        EXPECT_EQ(index, count);
    }
    OpenedModern file(ReadWholeFile(FixturePath("describe/hdr_hevc_aac_truehd.mp4")));
    std::ifstream atoms(FixturePath("describe/hdr_hevc_aac_truehd.mp4.atoms"));
    size_t lines = 0;
    for (std::string path, hex; atoms >> path >> hex; ++lines) {
        SCOPED_TRACE(path);
        int32_t code = 0;
        EXPECT_EQ(AtomAt(file.handle, path.c_str(), &code), hex);
        if (path.find("mdhd") == std::string::npos) continue;
        MP4TrackInfo info{};
        MP4GetTrackInfo(file.handle, uint32_t(path[10] - '1'), &info);
        EXPECT_EQ(info.HeaderDuration, std::stoull(hex.substr(32, 8), nullptr, 16));
    }
    EXPECT_EQ(lines, 7u);
}

}  // namespace
