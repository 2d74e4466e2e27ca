// Header atoms of written files: "tkhd", "mdhd", "hdlr", the sample
// entries, every "esds" form, "mpod" and "iods".
#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"
#include "writer/written_file.h"

namespace {

using namespace testing_support;
using namespace writer_test;

const Bytes kTimes = Cat({U32(0x12345678), U32(0x12345678)});

const std::string kVideoEntry = "moov/trak#1/mdia/minf/stbl/stsd/mp4v";

TEST(Headers, TrackHeadersVolumeAndHandlers) {
    WriteSession session;
    ASSERT_EQ(session.Video(176, 144), 1);
    ASSERT_EQ(session.Audio(), 1);
    ASSERT_EQ(session.Od(), 1);
    ASSERT_EQ(session.Scene(), 1);
    ASSERT_EQ(session.AddVideo(Pattern(5, 1), 0, true), 1);
    ASSERT_EQ(session.AddVideo(Pattern(5, 2), 40, false), 1);
    const Bytes file = session.Flush();
    EXPECT_EQ(FindAtom(file, "moov/trak#1/tkhd"),
              FullAtom("tkhd", 1,
                       {kTimes, U32(1), U32(0), U32(80), Zeros(12), U16(0), U16(0), kMatrix,
                        Hex("00 B0 00 00"), Hex("00 90 00 00")}));
    EXPECT_EQ(FindAtom(file, "moov/trak#1/mdia/mdhd"),
              FullAtom("mdhd", 0, {kTimes, U32(1000), U32(80), Zeros(4)}));
    // The movie takes the video track's clock.
    const Bytes mvhd = FindAtom(file, "moov/mvhd");
    EXPECT_EQ(Bytes(mvhd.begin() + 20, mvhd.begin() + 28), Cat({U32(1000), U32(80)}));
    EXPECT_EQ(Bytes(mvhd.end() - 4, mvhd.end()), U32(5)) << "next track ID";
    // Only the audio track has volume; each track has its handler.
    struct Case {
        int trak;
        const char *handler;
        uint16_t volume;
        const char *header;  // the media header atom of "minf"
    };
    const Case kCases[] = {
        {1, "vide", 0, "vmhd"}, {2, "soun", 0x0100, "smhd"},
        {3, "odsm", 0, "nmhd"}, {4, "sdsm", 0, "nmhd"},
    };
    for (const Case &c : kCases) {
        const std::string trak = "moov/trak#" + std::to_string(c.trak);
        EXPECT_EQ(FindAtom(file, trak + "/mdia/hdlr"),
                  FullAtom("hdlr", 0, {U32(0), Text(c.handler), Zeros(16)}));
        const Bytes tkhd = FindAtom(file, trak + "/tkhd");
        ASSERT_EQ(tkhd.size(), 92u);
        EXPECT_EQ(Bytes(tkhd.begin() + 44, tkhd.begin() + 46), U16(c.volume)) << c.handler;
        EXPECT_FALSE(FindAtom(file, trak + "/mdia/minf/" + c.header).empty()) << c.handler;
        EXPECT_EQ(FindAtom(file, trak + "/mdia/minf/dinf"),
                  Atom("dinf", {FullAtom("dref", 0, {U32(1), FullAtom("url ", 1)})}));
    }
    EXPECT_EQ(FindAtom(file, "moov/trak#1/mdia/minf/vmhd"), FullAtom("vmhd", 1, {Zeros(8)}));
    EXPECT_EQ(FindAtom(file, "moov/trak#2/mdia/minf/smhd"), FullAtom("smhd", 0, {Zeros(4)}));
    EXPECT_EQ(FindAtom(file, "moov/trak#3/mdia/minf/nmhd"), FullAtom("nmhd", 0));
}

TEST(Headers, VideoWithoutConfigurationGetsTheBuiltHeader) {
    WriteSession session;
    ASSERT_EQ(session.Video(176, 144, {}, 1000, 0, 3, 25), 1);
    const Bytes file = session.Flush();
    const Bytes esds = FullAtom(
        "esds", 0,
        {Hex("03 80 80 80 39 00 01 00"), Hex("04 80 80 80 2E 20 11 00 28 FE"), U32(0), U32(0),
         Hex("05 80 80 80 1C"),
         Hex("00 00 01 B0 03 00 00 01 B5 09 00 00 01 00 00 00 01 20 01 88 40 06 68 2C 20 90 A2 1F"),
         Hex("06 01 02")});
    ASSERT_EQ(esds.size(), 74u);
    EXPECT_EQ(FindAtom(file, kVideoEntry + "/esds"), esds);
    EXPECT_EQ(FindAtom(file, kVideoEntry),
              Atom("mp4v", {Zeros(6), U16(1), Zeros(16), U16(176), U16(144), U32(0x00480000),
                            U32(0x00480000), U32(0), U16(1), Zeros(32), U16(24), U16(0xFFFF),
                            esds}));
}

TEST(Headers, VideoConfigurationDecidesTheSpecificInfo) {
    const Bytes vol = Hex("00 00 01 00 00 00 01 20 00 84 5D 4C 28 58 21 20 A3 1F 12 34");
    const Bytes vos = Cat({Hex("00 00 01 B0 F5 00 00 01 B5 09"), vol});
    struct Case {
        const char *what;
        Bytes config;
        Bytes info;
    };
    const Case kCases[] = {
        {"a video object start gets a sequence header in front",
         vol, Cat({Hex("00 00 01 B0 03 00 00 01 B5 09"), vol})},
        {"a sequence header carries the track's profile",
         vos, Cat({Hex("00 00 01 B0 03 00 00 01 B5 09"), vol})},
        {"any other start is taken as it stands", Hex("00 00 01 20 11 22 33"),
         Hex("00 00 01 20 11 22 33")},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        ASSERT_EQ(session.Video(176, 144, c.config, 1000, 0, 3), 1);
        const Bytes esds = FindAtom(session.Flush(), kVideoEntry + "/esds");
        ASSERT_EQ(esds.size(), 46 + c.info.size());
        EXPECT_EQ(esds[16], 29 + c.info.size());
        EXPECT_EQ(esds[24], 18 + c.info.size());
        EXPECT_EQ(esds[42], c.info.size());
        EXPECT_EQ(Bytes(esds.begin() + 43, esds.end() - 3), c.info);
    }
}

TEST(Headers, AudioSpecificInfoComesFromNumbersAdtsHeaderOrConfiguration) {
    struct Case {
        const char *what;
        uint32_t profile, channels, rate;
        Bytes config;
        Bytes info;
    };
    const Case kCases[] = {
        {"profile 1, 2 channels, 44100 Hz", 1, 2, 44100, {}, Hex("12 10")},
        {"numbers win over a configuration", 1, 1, 8000, Hex("11 90"), Hex("15 88")},
        {"profile 0 can't use the numbers", 0, 2, 44100, Hex("11 90"), Hex("11 90")},
        {"a rate without index falls through", 1, 2, 44000, Hex("13 88"), Hex("13 88")},
        {"ADTS header: LC, 44100 Hz, stereo", 0, 0, 0, Hex("FF F1 50 80 10 1F FC"), Hex("12 10")},
        {"ADTS header: LC, 22050 Hz, 7 channels", 0, 0, 0, Hex("FF F1 5D C0 00 00"),
         Hex("13 B8")},
        {"no configuration at all", 0, 0, 0, {}, Hex("00 00")},
    };
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        WriteSession session;
        ASSERT_EQ(session.Audio(44100, c.config, c.profile, c.channels, c.rate), 1);
        const Bytes file = session.Flush();
        const std::string entry = "moov/trak#1/mdia/minf/stbl/stsd/mp4a";
        // The ES ID is 2 though the track has ID 1.
        EXPECT_EQ(FindAtom(file, entry + "/esds"),
                  FullAtom("esds", 0,
                           {Hex("03 80 80 80 1F 00 02 00"), Hex("04 80 80 80 14 40 15 00 00 F4"),
                            U32(0), U32(0), Hex("05 80 80 80 02"), c.info, Hex("06 01 02")}));
    }
}

TEST(Headers, AudioEntryTakesTheLow16BitsOfTheTimescale) {
    struct Case {
        uint32_t timescale;
        Bytes rate;
    };
    const Case kCases[] = {{44100, Hex("AC 44")}, {96000, Hex("77 00")}};
    for (const Case &c : kCases) {
        WriteSession session;
        ASSERT_EQ(session.Audio(c.timescale), 1);
        const Bytes mp4a = FindAtom(session.Flush(), "moov/trak#1/mdia/minf/stbl/stsd/mp4a");
        ASSERT_EQ(mp4a.size(), 36u + 48);
        EXPECT_EQ(Bytes(mp4a.begin(), mp4a.begin() + 36),
                  Cat({U32(84), Text("mp4a"), Zeros(6), U16(1), Zeros(8), U16(2), U16(16),
                       Zeros(4), c.rate, Zeros(2)}));
    }
}

TEST(Headers, SystemTracksHaveConstantEsdsAndMpodNamesMediaTracks) {
    WriteSession session;
    ASSERT_EQ(session.Audio(), 1);
    ASSERT_EQ(session.Video(), 1);
    ASSERT_EQ(session.Od(), 1);
    ASSERT_EQ(session.Scene(), 1);
    const Bytes file = session.Flush();
    EXPECT_EQ(FindAtom(file, "moov/trak#3/mdia/minf/stbl/stsd/mp4s/esds"),
              FullAtom("esds", 0,
                       {Hex("03 15 00 03 00 04 0D 01 05 00 0C 2F 00 00 61 78 00 00 00 00 06 01 "
                            "02")}));
    EXPECT_EQ(FindAtom(file, "moov/trak#4/mdia/minf/stbl/stsd/mp4s/esds"),
              FullAtom("esds", 0,
                       {Hex("03 1A 00 04 00 04 12 02 0D 00 04 00 00 00 01 40 00 00 01 40 05 03 "
                            "00 00 40 06 01 02")}));
    // Video first, then audio, whatever their IDs.
    EXPECT_EQ(FindAtom(file, "moov/trak#3/tref"), Atom("tref", {Atom("mpod", {U32(2), U32(1)})}));
    EXPECT_EQ(FindAtom(file, "moov/trak#3/mdia/minf/stbl/stsd"),
              FullAtom("stsd", 0, {U32(1), Atom("mp4s", {Zeros(6), U16(1),
                                                         FindAtom(file, "moov/trak#3/mdia/minf/"
                                                                        "stbl/stsd/mp4s/esds")})}));
}

// "iods" names tracks 2 and 3 unless both media tracks exist; "mpod"
// names the media tracks, video first, or holds a zero without them.
TEST(Headers, IodsAndMpodFollowTheMediaTracksThatExist) {
    struct Case {
        bool video, audio;
        uint8_t a, b;
        Bytes ids;
    };
    const Case kCases[] = {{true, true, 3, 4, Cat({U32(1), U32(2)})},
                           {false, true, 2, 3, U32(1)},
                           {true, false, 2, 3, U32(1)},
                           {false, false, 2, 3, U32(0)}};
    for (const Case &c : kCases) {
        SCOPED_TRACE(std::to_string(c.video) + std::to_string(c.audio));
        WriteSession session;
        if (c.video) {
            ASSERT_EQ(session.Video(), 1);
        }
        if (c.audio) {
            ASSERT_EQ(session.Audio(), 1);
        }
        ASSERT_EQ(session.Od(), 1);
        const Bytes file = session.Flush();
        EXPECT_EQ(FindAtom(file, "moov/iods"),
                  FullAtom("iods", 0,
                           {Hex("10 80 80 80 19 00 4F FF FF 0F 01 FF 0E 80 80 80 04 00 00 00"),
                            U8(c.a), Hex("0E 80 80 80 04 00 00 00"), U8(c.b)}));
        const int trak = int(c.video) + int(c.audio) + 1;
        EXPECT_EQ(FindAtom(file, "moov/trak#" + std::to_string(trak) + "/tref/mpod"),
                  Atom("mpod", {c.ids}));
    }
}

}  // namespace
