// Track discovery and the sample tables of minimal files that vary one
// thing at a time: the records the open makes, the state each track ends
// in, the picture size, key frames from "stss" or from the planes, and the
// messages; listed whole against tests/data/read/tracks.txt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "support/listing.h"
#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

MiniTrack Video(uint32_t id, uint32_t count) { return KeyedVideo(count, {0}, id); }
MiniTrack Audio(uint32_t id, uint32_t count) { return KeyedAudio(count, id); }
MiniTrack With(MiniTrack track, const char *name, const Bytes &atom) {
    track.replace[name] = atom;
    return track;
}
MiniTrack Handler(MiniTrack track, const char *handler) {
    track.handler = handler;
    return track;
}
MiniTrack Entry(MiniTrack track, const Bytes &entry) {
    track.sampleEntry = entry;
    return track;
}
MiniTrack Synced(MiniTrack track, std::vector<uint32_t> numbers) {
    track.withStss = true;
    track.syncSamples = std::move(numbers);
    return track;
}
// Video without "stss": key frames come from the planes.
MiniTrack Scanned(const std::vector<uint8_t> &codingTypes, size_t lead = 0, size_t first = 6) {
    MiniTrack track;
    for (uint8_t type : codingTypes) track.samples.push_back(Vop(type, lead, track.samples.empty() ? first : 6));
    return track;
}
// The image with the `nth` (from 1) occurrence of the name `from` renamed.
Bytes Rename(Bytes image, const char *from, const char *to, int nth = 1) {
    auto at = image.begin() - 1;
    for (int i = 0; i < nth; ++i) at = std::search(at + 1, image.end(), from, from + 4);
    std::copy(to, to + 4, at);
    return image;
}

// Runs create and fill once more on the first "trak", to show the code
// that the open turned into a track state. The fill runs on a tree of its
// own: the open's tree no longer holds the entries it expanded.
int32_t FillResult(const OpenedFile &opened, const MiniTrack &track, int32_t mode) {
    Root_atom root{};
    root.FileStream = std::fopen(opened.file.c_str(), "rb");
    root.FileSize = opened.handle->RootAtom->FileSize;
    ReadAtomTree(&root);
    AllocTreeRecords(&root);
    ExtractTreeRecords(&root);
    const bool video = track.handler == "vide";
    const int32_t count = int32_t(track.samples.size());
    TrackNode *holder = nullptr;
    int32_t result = video ? CreateVideoTables(&holder, count, mode)
                           : CreateAudioTables(&holder, count, mode);
    if (result == 1) {
        holder->TrakAtom = FindChild(root.FirstAtom->NextSibling->NextSibling, "trak");
        CaptureStream quiet(stdout);
        result = video ? FillVideoTables(&holder, &root, mode) : FillAudioTables(&holder, mode);
        quiet.Text();
    }
    ReleaseTrackNodes(&holder);
    ReleaseAtomList(root.FirstAtom);
    std::fclose(root.FileStream);
    return result;
}

// The first video object layer of the raw stream fixture, with what follows.
Bytes VolFromStream() {
    Bytes stream = ReadWholeFile(FixturePath("m4v_vos_176x144.m4v"));
    Bytes pattern = Hex("00 00 01 00 00 00 01 20");
    auto at = std::search(stream.begin(), stream.end(), pattern.begin(), pattern.end());
    return Bytes(at, std::min(at + 40, stream.end()));
}

TEST(Tracks, RecordsTablesAndMessagesMatchTheGolden) {
    const Bytes vol = VolFromStream();
    const Bytes esdsWithVol = FullAtom("esds", 0, {Hex("03 30 00 01 00 04 28 20 11 00 00 00 00 00 00 00 00 00 00 00 05 1a"), vol});
    const Bytes esdsWithout = FullAtom("esds", 0, {Hex("03 10 00 01 00 04 08 20 11 00 00 00 00 00 00")});
    MiniTrack s263 = Entry(MiniTrack{}, S263Entry(176, 144));
    s263.samples = {Hex("00 00 80 02 0A 10"), Hex("00 00 81 02 0A 10")};
    const MiniTrack four = Audio(1, 4), three = Audio(1, 3);
    const Bytes three3 = BuildMiniMp4({Video(1, 2), Audio(2, 2), Video(3, 2)});
    struct Case {
        const char *what;
        std::vector<MiniTrack> tracks;
        int32_t mode;
        Bytes image;  // instead of the tracks when not empty
    };
    const std::vector<Case> cases = {
        {"lists by kind in file order", {Video(1, 3), Audio(2, 3), Handler(Audio(3, 1), "hint"), Video(5, 2), Handler(Audio(4, 1), "odsm"), Audio(6, 2)}, 2, {}},
        {"video without stsz", {With(Video(1, 3), "stsz", {})}, 2, {}},
        {"audio without stsz", {With(Audio(1, 3), "stsz", {})}, 2, {}},
        {"video without stco behind another", {Video(1, 2), With(Video(2, 3), "stco", {})}, 2, {}},
        {"audio without stts", {With(Audio(1, 3), "stts", {})}, 2, {}},
        {"audio of no samples", {Audio(1, 0)}, 2, {}},
        {"one-sample video and audio", {Video(1, 1), Audio(2, 1)}, 1, {}},
        {"third trak without tkhd loses every track", {}, 2, Rename(three3, "tkhd", "skip", 3)},
        {"no moov", {}, 2, Rename(three3, "moov", "skip")},
        {"unknown handler", {Video(1, 2), Handler(Audio(2, 2), "text"), Audio(3, 2)}, 2, {}},
        {"no hdlr", {}, 2, Rename(three3, "hdlr", "skip")},
        {"no stsd", {}, 2, Rename(three3, "stsd", "skip")},
        {"mp4v without esds", {Entry(Video(1, 3), Mp4vEntry(100, 80))}, 2, {}},
        {"esds without a layer", {Entry(Video(1, 3), Mp4vEntry(100, 80, esdsWithout))}, 2, {}},
        {"esds with the layer", {Entry(Video(1, 3), Mp4vEntry(100, 80, esdsWithVol))}, 2, {}},
        {"esds of 20 bytes, the layer behind", {Entry(Video(1, 3), Mp4vEntry(100, 80, Cat({AtomWithSize(20, "esds", {Zeros(12)}), vol})))}, 2, {}},
        {"esds cut inside the layer", {Entry(Video(1, 3), Mp4vEntry(100, 80, Cat({AtomWithSize(22, "esds", {Zeros(4)}), vol})))}, 2, {}},
        {"s263 entry", {Entry(Video(1, 3), S263Entry(128, 96))}, 2, {}},
        {"mp4a and unknown entries in video", {Entry(Video(1, 3), Mp4aEntry()), Entry(Video(2, 3), Atom("avc1", {Zeros(78)}))}, 2, {}},
        {"stts (n-1, d)", {With(four, "stts", Words("stts", {1, 3, 10}))}, 2, {}},
        {"stts (2,10),(2,20)", {With(four, "stts", Words("stts", {2, 2, 10, 2, 20}))}, 2, {}},
        {"stts entry of count 0", {With(four, "stts", Words("stts", {3, 1, 10, 0, 99, 2, 20}))}, 2, {}},
        {"stts that runs out", {With(four, "stts", Words("stts", {2, 1, 10, 1, 10}))}, 2, {}},
        {"stsz constant 4", {With(three, "stsz", Words("stsz", {4, 3}))}, 2, {}},
        {"stsc (1,3) over 7 samples", {With(With(Audio(1, 7), "stsc", Words("stsc", {1, 1, 3, 1})), "stco", Words("stco", {3, 100, 200, 300}))}, 2, {}},
        {"stsc (1,2),(3,1)", {With(With(Audio(1, 6), "stsc", Words("stsc", {2, 1, 2, 1, 3, 1, 1})), "stco", Words("stco", {4, 100, 200, 300, 400}))}, 2, {}},
        {"stsc going backwards", {With(Audio(1, 6), "stsc", Words("stsc", {2, 3, 2, 1, 2, 1, 1}))}, 2, {}},
        {"StscEntryGoingBackIsNotReached: (1,10),(0,5)", {With(Audio(1, 10), "stsc", Words("stsc", {2, 1, 10, 1, 0, 5, 1}))}, 2, {}},
        {"StscRunOfLength0IsNeverLeft: (1,2),(1,3),(2,1)", {With(With(Audio(1, 6), "stsc", Words("stsc", {3, 1, 2, 1, 1, 3, 1, 2, 1, 1})), "stco", Words("stco", {3, 100, 200, 300}))}, 2, {}},
        {"stsc of 0 per chunk", {With(three, "stsc", Words("stsc", {1, 1, 0, 1}))}, 2, {}},
        {"stsc without entries", {With(three, "stsc", Words("stsc", {0}))}, 2, {}},
        {"stco that runs out", {With(three, "stco", Words("stco", {2, 28, 32}))}, 2, {}},
        {"co64 instead of stco", {With(Audio(1, 2), "stco", Words("co64", {1, 0, 28}))}, 2, {}},
        {"huge constant size count in a small file", {With(Audio(1, 2), "stsz", Words("stsz", {1, 100000000}))}, 2, {}},
        {"stss 1, 4 of 5", {Synced(Video(1, 5), {1, 4})}, 1, {}},
        {"stss of every sample", {Synced(Video(1, 4), {1, 2, 3, 4})}, 1, {}},
        {"stss naming sample 0", {Synced(Video(1, 4), {1, 0})}, 1, {}},
        {"stss past the samples, mode 2", {Synced(Video(1, 4), {5})}, 2, {}},
        {"stss past the samples, mode 3", {Synced(Video(1, 4), {1, 9})}, 3, {}},
        {"scan: I, P, B, P", {Scanned({0, 1, 2, 1})}, 1, {}},
        {"scan: start code behind 16 bytes", {Scanned({0, 1, 1}, 16)}, 2, {}},
        {"scan: start code behind 17 bytes", {Scanned({0, 1, 1}, 17)}, 2, {}},
        {"scan: a sprite plane", {Scanned({0, 1, 3, 1})}, 2, {}},
        {"scan: more than half intra", {Scanned({0, 0, 0, 1})}, 1, {}},
        {"scan: two of six intra", {Scanned({0, 1, 0, 1, 1, 1})}, 1, {}},
        {"scan: half intra, mode 3", {Scanned({0, 1, 0, 1})}, 3, {}},
        {"scan: s263 has no plane start code", {s263}, 2, {}},
        {"scan: four of twelve intra grow the table past its need", {Scanned({0, 1, 0, 1, 0, 1, 0, 1, 1, 1, 1, 1})}, 1, {}},
        {"scan: a plane start code across the end of the read window", {Scanned({0, 1, 0, 1}, 0, 65523)}, 1, {}},
        {"scan: a plane start code behind the read window", {Scanned({0, 1, 0, 1}, 0, 70000)}, 1, {}},
        {"audio stss only counts", {Synced(Audio(1, 6), {1, 2, 3, 4, 5})}, 1, {}},
    };
    std::string text;
    for (const Case &c : cases) {
        OpenedFile opened(c.image.empty() ? BuildMiniMp4(c.tracks) : c.image, c.mode);
        text += std::string("== ") + c.what + " (mode " + std::to_string(c.mode) + ")\nopen " +
                std::to_string(opened.result) + " " + OneLine(opened.output) + "\n" +
                ListTracks(opened.handle);
        if (c.tracks.size() == 1)
            text += "fill " + std::to_string(FillResult(opened, c.tracks[0], c.mode)) + "\n";
    }
    ExpectGolden("tracks.txt", text);
}

TEST(Tracks, WalksOverWhatIsNoTrackAreRefused) {
    TrackListEntry *list = reinterpret_cast<TrackListEntry *>(1);
    EXPECT_EQ(FindTracks(nullptr, &list), -99);
    EXPECT_EQ(list, nullptr);
    Root_atom empty{};
    EXPECT_EQ(FindTracks(&empty, &list), -99);
    OpenedFile opened(BuildMiniMp4({Video(7, 2), Audio(9, 2)}));
    ASSERT_EQ(FindTracks(opened.handle->RootAtom, &list), 2);
    EXPECT_EQ(list->TrackId + 10 * list->Next->TrackId, 97u);
    EXPECT_EQ(list->Next->Next, nullptr);
    free(list->Next);
    free(list);
    AtomNode *moov = opened.handle->RootAtom->FirstAtom->NextSibling->NextSibling;
    CaptureStream capture(stdout);
    int32_t type = 0;
    VideoTrackNode video{};
    AudioTrackNode audio{};
    EXPECT_EQ(GetTrackType(moov, &type), -99);
    EXPECT_EQ(ReadVideoTrackInfo(moov, &video), -99);
    EXPECT_EQ(ReadAudioTrackInfo(moov, &audio), -99);
    EXPECT_EQ(capture.Text(), "This atom not a track atom\nThis atom not a track atom\n"
                              "This atom not a track atom\n");
}

}  // namespace
