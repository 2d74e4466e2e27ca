// The modern reader on hostile and edge files, the classic calls on a
// modern handle, and the result codes of the calls by number.
#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <functional>

#include "atoms/atoms.h"
#include "mp4core.h"
#include "support/listing.h"
#include "support/mini_mp4.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

Bytes Fixture(const std::string &name) { return ReadWholeFile(FixturePath(name)); }

// What the first sample of the first track gives, through MP4ReadSample,
// and the track's sample count.
int32_t ReadFirst(MP4_local_file *file, uint32_t *samples) {
    MP4TrackInfo info{};
    if (file == nullptr || MP4GetTrackInfo(file, 0, &info) != 1) return 0;
    *samples = info.SampleCount;
    MP4Sample *sample = nullptr;
    const int32_t result = MP4ReadSample(file, info.TrackId, info.TrackType, 0, &sample);
    SampleDataFree(&sample);
    return result;
}

// Each file opens, or fails, in milliseconds and with kilobytes of heap,
// whatever its tables claim, and prints nothing.
TEST(ModernEdges, HostileAndEdgeFilesGiveTheirCodes) {
    for (const auto &row : ReadRows("read/modern_edges.rows")) {
        SCOPED_TRACE(row.at(0));
        const std::string &source = row.at(1), rest = source.substr(source.find(' ') + 1);
        const Bytes file = source.rfind("file ", 0) == 0 ? Fixture(rest) : source.rfind("mini ", 0) == 0 ? MiniFile(rest) : Image(source);
        testing::internal::CaptureStdout();
        const size_t heapBefore = mallinfo2().uordblks;
        const auto start = std::chrono::steady_clock::now();
        OpenedModern f(file);
        const size_t heap = mallinfo2().uordblks - heapBefore;
        const auto took = std::chrono::steady_clock::now() - start;
        uint32_t tracks = 0;
        MP4GetTrackCount(f.handle, &tracks);
        uint32_t samples = 0;
        const int32_t first = ReadFirst(f.handle, &samples);
        EXPECT_EQ(Format("%d %u %d %u", f.result, tracks, first, samples), row.at(2) + " " + row.at(3) + " " + row.at(4) + " " + row.at(5));
        EXPECT_LT(heap, 64u * 1024 + 2 * file.size());
        EXPECT_LT(took, std::chrono::seconds(1));  // natively about 1 ms; valgrind is slower
        EXPECT_EQ(f.output + testing::internal::GetCapturedStdout(), "");
    }
}

// Ten thousand fragments of one sample of one byte, their defaults in
// "tfhd": the open takes time and memory in proportion to the file, and
// the last fragment's sample is where its run says.
TEST(ModernEdges, TinyFragmentsOpenInProportionToTheFile) {
    constexpr uint32_t kFragments = 10000;
    const Bytes fragment = Cat(
        {Atom("moof", {FullAtom("mfhd", 0, {U32(1)}),
                       Atom("traf", {FullAtom("tfhd", 0x020038, {U32(1), U32(10), U32(1), U32(0)}),
                                     FullAtom("trun", 0x000001, {U32(1), U32(88)})})}),
         Atom("mdat", {U8(7)})});
    Bytes bytes = MiniFile("video 1 moov first");
    for (uint32_t i = 0; i < kFragments; ++i) bytes.insert(bytes.end(), fragment.begin(), fragment.end());
    // The last "moof" has a 64-bit size: its children and its run's data
    // offset count from its first byte all the same.
    const size_t last = bytes.size() - fragment.size();
    const Bytes wide = Cat({U32(1), Text("moof"), U32(0), U32(80 + 8),
                            Bytes(bytes.begin() + long(last) + 8, bytes.begin() + long(last) + 80)});
    bytes.resize(last);
    bytes.insert(bytes.end(), wide.begin(), wide.end());
    bytes.insert(bytes.end(), {0, 0, 0, 9, 'm', 'd', 'a', 't', 7});
    bytes[last + 16 + 16 + 8 + 28 + 16 + 3] += 8;  // the run's data offset
    const size_t heapBefore = mallinfo2().uordblks;
    const auto start = std::chrono::steady_clock::now();
    OpenedModern f(bytes);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_LT(mallinfo2().uordblks - heapBefore, 12 * bytes.size());
    MP4TrackInfo info{};
    ASSERT_EQ(MP4GetTrackInfo(f.handle, 0, &info), 1);
    EXPECT_EQ(info.SampleCount, kFragments + 1);
    EXPECT_EQ(info.FragmentCount, kFragments);
    EXPECT_EQ(info.Duration, 10u * (kFragments + 1));
    MP4Sample *sample = nullptr;
    ASSERT_EQ(MP4ReadSample(f.handle, 1, MP4_TRACK_VIDEO, kFragments, &sample), 1);
    EXPECT_EQ(Bytes(sample->Data, sample->Data + sample->Size), Bytes{7});
    SampleDataFree(&sample);
}

// A "moof" of one track fragment, its run's data in the "mdat" behind it
// (the "tfhd" says the data is counted from the "moof").
Bytes Fragment(uint32_t tfhdFlags, const Bytes &defaults, uint32_t decodeTime, uint32_t trunFlags,
               uint32_t count, const Bytes &entries) {
    auto moof = [&](uint32_t dataOffset) {
        return Atom("moof", {Atom("traf", {FullAtom("tfhd", 0x020000 | tfhdFlags, {U32(1), defaults}),
                                           FullAtom("tfdt", 0, {U32(decodeTime)}),
                                           FullAtom("trun", 0x000001 | trunFlags, {U32(count), U32(dataOffset), entries})})});
    };
    return Cat({moof(uint32_t(moof(0).size() + 8)), Atom("mdat", {Zeros(count)})});
}

// Each sample's entry and duration ("entry:duration"): from "stsc" and
// "stts" (records and runs alike), from "tfhd", "trex" and "trun" where a
// "tfdt" jumps and a run of defaults follows records; on a classic handle
// from the next sample's time.
TEST(ModernEdges, EachSampleGivesItsEntryAndDuration) {
    const std::string twoEntries = " stts 2,2,10,2,30 chunk 2 stsc 2,1,2,1,2,2,2 stsd 2,16,1836069747,0,0,16,1836069747,0,0";
    // No samples in "stbl"; a "trex" (entry 3, 9 ticks, 1 byte) at the end of "moov".
    const Bytes mvex = Atom("mvex", {FullAtom("trex", 0, {U32(1), U32(3), U32(9), U32(1), U32(0)})});
    const Bytes fragmented = Cat({ReplaceAtom(MiniFile("video 0 moov first"), "trak", mvex, true), Fragment(0x0A, Cat({U32(2), U32(7)}), 1000, 0x300, 2, Cat({U32(5), U32(1), U32(6), U32(1)})),
                      Fragment(0, {}, 3000, 0x100, 1, U32(8)), Fragment(0, {}, 5000, 0, 2, {})});
    struct Case { const char *name; Bytes file; uint32_t flags; const char *expected; } cases[] = {
        {"records", MiniFile("video 4" + twoEntries), MP4_OPEN_MODERN, "1:10 1:10 2:30 2:30"},
        {"runs", MiniFile("video 4 no stss stsz 4,4" + twoEntries), MP4_OPEN_MODERN, "1:10 1:10 2:30 2:30"},
        {"fragments", fragmented, MP4_OPEN_MODERN, "2:5 2:6 3:8 3:9 3:9"},
        {"classic", MiniFile("video 4 stts 2,2,10,2,30"), 0, "1:10 1:10 1:30 1:0"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenedModern f(c.file, c.flags);
        MP4TrackInfo info{};
        ASSERT_EQ(MP4GetTrackInfo(f.handle, 0, &info), 1);
        std::string got;
        for (uint32_t n = 0; n < info.SampleCount; ++n) {
            MP4SampleInfo s{};
            EXPECT_EQ(MP4GetSampleInfo(f.handle, 1, MP4_TRACK_VIDEO, n, &s), 1);
            got += (n > 0 ? " " : "") + std::to_string(s.DescriptionIndex) + ":" + std::to_string(s.Duration);
        }
        EXPECT_EQ(got, c.expected);
    }
}

TEST(ModernEdges, UnknownFlagGives100AndWritesNothing) {
    MP4_local_file *file = reinterpret_cast<MP4_local_file *>(&file);
    EXPECT_EQ(MP4FileOpenEx(&file, FixturePath("mpeg4_aac.mp4").c_str(), 1, 2), -100);
    EXPECT_EQ(file, reinterpret_cast<MP4_local_file *>(&file));
}

TEST(ModernEdges, EmptySampleGives87AndTheCursorMovesOn) {
    OpenedModern f(MiniFile("video 3 empty 1"));
    std::string results;
    for (int i = 0; i < 4; ++i) {
        MP4Sample *sample = nullptr;
        results += std::to_string(GetNextSample(f.handle, 1, MP4_TRACK_VIDEO, &sample)) + " ";
        SampleDataFree(&sample);
    }
    EXPECT_EQ(results, "1 -87 1 0 ");
}

// 1 GHz over 6 s: decoding times pass 2^31 at sample 5 and 2^32 at 9; key
// frames are samples 0, 4 and 8.
TEST(ModernEdges, TimesPast32BitsOnTheClassicAndNewCalls) {
    OpenedModern f(Fixture("modern/timescale_1ghz.mp4"));
    MP4Sample *sample = nullptr;
    ASSERT_EQ(GetSample(f.handle, 1, MP4_TRACK_VIDEO, INT32_MAX, &sample), 1);
    EXPECT_EQ(sample->Size, 194u);
    SampleDataFree(&sample);
    ASSERT_EQ(SeekTrack(f.handle, 1, MP4_TRACK_VIDEO, INT32_MAX - 1, &sample), 1);
    EXPECT_EQ(sample->Time, 2000000000u);
    SampleDataFree(&sample);
    ASSERT_EQ(MP4ReadSample(f.handle, 1, MP4_TRACK_VIDEO, 8, &sample), 1);
    SampleDataFree(&sample);
    ASSERT_EQ(GetNextSample(f.handle, 1, MP4_TRACK_VIDEO, &sample), 1);  // behind sample 8
    EXPECT_EQ(sample->Time, uint32_t(4500000000u - (1ull << 32)));
    SampleDataFree(&sample);
    struct Find {
        uint64_t time;
        uint32_t flags;
        uint32_t sample;
    } finds[] = {{3000000000u, 0, 6}, {3000000000u, MP4_FIND_KEY, 4}, {5000000000u, MP4_FIND_KEY, 8},
                 {4000000000u, 0, 8}, {1ull << 40, 0, 11}, {0, MP4_FIND_KEY, 0}};
    for (const Find &c : finds) {
        uint32_t found = 99;
        EXPECT_EQ(MP4FindSample(f.handle, 1, MP4_TRACK_VIDEO, c.time, c.flags, &found), 1);
        EXPECT_EQ(found, c.sample) << c.time;
    }
    MP4SampleInfo info{};
    ASSERT_EQ(MP4GetSampleInfo(f.handle, 1, MP4_TRACK_VIDEO, 9, &info), 1);
    EXPECT_EQ(info.DecodeTime, 4500000000u);
}

TEST(ModernEdges, CallsByNumberGiveTheirCodes) {
    OpenedModern modern(Fixture("modern/mp3.mp4"));
    OpenedModern classic(Fixture("mpeg4_aac.mp4"), 0);
    OpenedModern untabled(Fixture("modern/claims_co64_count.mp4"));
    OpenedModern tied(ReplaceAtom(MiniFile("video 3"), "stss", Image("ctts{0 2 1 10 2 0}")));  // samples 0 and 1 shown at 10
    MP4_local_file *m = modern.handle;
    MP4_local_file *c = classic.handle;
    MP4SampleInfo s{};
    MP4TrackInfo t{};
    MP4Sample *sample = nullptr;
    uint32_t n = 0;
    uint8_t *data = nullptr, bytes[9];
    struct Case {
        const char *what;
        std::function<int32_t()> call;
        int32_t expected;
    } cases[] = {
        {"count, null", [&] { return MP4GetTrackCount(m, nullptr); }, -99},
        {"info, index past the end", [&] { return MP4GetTrackInfo(m, 1, &t); }, -98},
        {"sample info, track 0", [&] { return MP4GetSampleInfo(m, 0, 2, 0, &s); }, -99},
        {"sample info, wrong type", [&] { return MP4GetSampleInfo(m, 1, 1, 0, &s); }, -98},
        {"sample info, past the end", [&] { return MP4GetSampleInfo(m, 1, 2, 40, &s); }, -96},
        {"read, past the end", [&] { return MP4ReadSample(m, 1, 2, 40, &sample); }, -96},
        {"find, unknown flag", [&] { return MP4FindSample(m, 1, 2, 0, 4, &n); }, -98},
        {"find, no track", [&] { return MP4FindSample(m, 7, 2, 0, 0, &n); }, -97},
        {"config of MP3: none", [&] { return MP4GetDecoderConfig(m, 1, 2, &data, &n); }, -97},
        {"config, no track", [&] { return MP4GetDecoderConfig(m, 1, 1, &data, &n); }, -98},
        {"track without tables", [&] { return MP4GetSampleInfo(untabled.handle, 1, 1, 0, &s); }, -97},
        {"into, no buffer with a capacity", [&] { return MP4ReadSampleInto(m, 1, 2, 0, nullptr, 9, &s); }, -99},
        {"into, past the end", [&] { return MP4ReadSampleInto(m, 1, 2, 40, bytes, 9, &s); }, -96},
        {"infos, none asked", [&] { return MP4GetSampleInfos(m, 1, 2, 0, 0, nullptr); }, 1},
        {"batch, no count back", [&] { return MP4ReadSamples(m, 1, 2, 0, 1, bytes, 9, &s, nullptr); }, -99},
        {"batch, first too large", [&] { return MP4ReadSamples(m, 1, 2, 0, 1, bytes, 9, &s, &n); }, -91},
        {"file order, no place", [&] { return MP4NextInFileOrder(m, nullptr, &n); }, -99},
        {"find, before the first shown: the first of a tie", [&] { return MP4FindSample(tied.handle, 1, 1, 5, MP4_FIND_PRESENTATION, &n) * 10 + int32_t(n); }, 10},
        {"classic: presentation", [&] { return MP4FindSample(c, 1, 1, 0, MP4_FIND_PRESENTATION, &n); }, 1},
        {"into, too small: its size", [&] { return MP4ReadSampleInto(m, 1, 2, 0, bytes, 9, &s) - int32_t(s.Size != 104); }, -91},
        {"classic: video sample info", [&] { return MP4GetSampleInfo(c, 1, 1, 0, &s); }, 1},
    };
    for (const Case &k : cases) EXPECT_EQ(k.call(), k.expected) << k.what;
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(s.IsKeyFrame, 1);
    EXPECT_EQ(s.CompositionOffset, 0);
    EXPECT_STREQ(MP4ResultText("MP4ReadSamples", -97), "the track has no sample table");
    EXPECT_STREQ(MP4ResultText(nullptr, 1), "success");
    EXPECT_STREQ(MP4ResultText("Mp4VideoSeek", -31), "a key frame step failed");
    EXPECT_STREQ(MP4ResultText("MP4Nothing", -97), "a result this call is not known to give");
    Mp4MediaInfo *media = nullptr;  // the modern track record has its "mdhd" too
    ASSERT_EQ(RetMp4MediaInfo(m, 1, MP4_TRACK_AUDIO, &media), 1);
    EXPECT_EQ(media->Timescale, 44100u);
    for (uint8_t **block : {&media->EsdsData, &media->D263Data, &media->DamrData})
        MP4freeData(reinterpret_cast<void **>(block));
    MP4freeData(reinterpret_cast<void **>(&media));
}

// Unknown atoms and leaves have no children; every "uuid" keeps its
// 16-byte type; an "esds" with one-byte descriptor lengths gives its
// AudioSpecificConfig.
void CountUuids(const AtomNode *node, int *uuids) {
    for (; node != nullptr; node = node->NextSibling) {
        AtomSchema schema{};
        const bool container = GetAtomSchema(node, &schema) > 0 && schema.ChildOffset > 0;
        EXPECT_TRUE(container || node->FirstChild == nullptr) << node->AtomName;
        if (AtomNameEquals(node->AtomName, "uuid") &&
            Bytes(node->realStructure + 8, node->realStructure + 24) ==
                Hex("be7acfcb 97a942e8 9c719994 91e3afac"))
            ++*uuids;
        CountUuids(node->FirstChild, uuids);
    }
}

TEST(ModernEdges, OnlyContainersHaveChildrenAndUuidKeepsItsType) {
    OpenedModern f(Fixture("modern/uuid.mp4"));
    int uuids = 0;
    CountUuids(f.handle->RootAtom->FirstAtom, &uuids);
    EXPECT_EQ(uuids, 7);
    // The second "esds" has a URL in its ES descriptor, which is stepped over.
    for (const char *line : {"audio 3", "video 1 entry mp4v 176 144 0000002A657364730000000003"
                                        "1C00014002616204112011000000000000000000000005021210060102"}) {
        OpenedModern f(MiniFile(line));
        uint8_t *config = nullptr;
        uint32_t size = 0;
        ASSERT_EQ(MP4GetDecoderConfig(f.handle, 1, line[0] == 'a' ? 2 : 1, &config, &size), 1) << line;
        EXPECT_EQ(Bytes(config, config + size), Hex("12 10"));
        MP4freeData(reinterpret_cast<void **>(&config));
    }
}

// AC-3's "dac3": the channels of each coding mode, and one more for the LFE
// (here on the odd modes).
TEST(ModernEdges, Ac3ChannelsOfEveryCodingMode) {
    const uint32_t channels[8] = {2, 1, 2, 3, 3, 4, 4, 5};
    for (uint32_t mode = 0; mode < 8; ++mode) {
        const uint32_t dac3 = 0x10000000u | (mode << 19) | (mode & 1) << 18;
        OpenedModern f(MiniFile(Format("audio 1 stsd 1,48,1633889587,0,1,0,0,131088,0,3145728000,12,1684103987,%u", dac3)));
        MP4TrackInfo info{};
        ASSERT_EQ(MP4GetTrackInfo(f.handle, 0, &info), 1);
        EXPECT_EQ(info.Channels, channels[mode] + (mode & 1)) << mode;
        EXPECT_EQ(info.SampleRate, 48000u);
    }
}

}  // namespace
