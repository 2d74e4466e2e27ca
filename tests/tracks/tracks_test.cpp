// Track discovery and the sample tables of minimal files that vary one
// thing at a time: the records the open makes, the state each track ends
// in, the picture size, key frames from "stss" or from the planes, and the
// messages; listed whole against tests/data/read/tracks.txt.
#include <gtest/gtest.h>

#include <cstdio>

#include "support/listing.h"
#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;

namespace {

// Runs create and fill once more on the first "trak", to show the code
// that the open turned into a track state. The fill runs on a tree of its
// own: the open's tree no longer holds the entries it expanded.
int32_t FillResult(const OpenedFile &opened, const MiniTrack &track, int32_t mode) {
    Root_atom root{};
    root.FileStream = std::fopen(opened.file.c_str(), "rb");
    root.FileSize = opened.handle->RootAtom->FileSize;
    if (ReadAtomTree(&root) == 1 && AllocTreeRecords(&root) == 1) ExtractTreeRecords(&root);
    const bool video = track.handler == "vide";
    const int32_t count = int32_t(track.samples.size());
    TrackNode *holder = nullptr;
    int32_t result = video ? CreateVideoTables(&holder, count, mode) : CreateAudioTables(&holder, count, mode);
    if (result == 1) {
        AtomNode top{};  // the file's atoms, in whichever order "moov" comes
        top.FirstChild = root.FirstAtom;
        holder->TrakAtom = FindChild(FindChild(&top, "moov"), "trak");
        CaptureStream quiet(stdout);
        result = video ? FillVideoTables(&holder, &root, mode) : FillAudioTables(&holder, mode);
        quiet.Text();
    }
    TrackNode *none = nullptr;  // no record to fill, whatever the tree
    EXPECT_EQ(FillVideoTables(&none, &root, mode), -99);
    EXPECT_EQ(CreateAudioTables(&none, 1, mode), 1);  // records but no "trak" atom
    EXPECT_EQ(FillAudioTables(&none, mode), -99);
    ReleaseTrackNodes(&none);
    ReleaseTrackNodes(&holder);
    ReleaseAtomList(root.FirstAtom);
    std::fclose(root.FileStream);
    return result;
}

TEST(Tracks, RecordsTablesAndMessagesMatchTheGolden) {
    std::string text;
    for (const auto &row : ReadRows("read/tracks.rows")) {
        const int32_t mode = std::stoi(row.at(1));
        std::vector<MiniTrack> tracks;
        OpenedFile opened(MiniFile(row.at(2), &tracks), mode);
        text += "== " + row[0] + " (mode " + std::to_string(mode) + ")\nopen " + std::to_string(opened.result) +
                " " + OneLine(opened.output) + "\n" + ListTracks(opened.handle);
        if (tracks.size() == 1) text += "fill " + std::to_string(FillResult(opened, tracks[0], mode)) + "\n";
    }
    ExpectGolden("read/tracks.txt", text);
}

// The open walks only "trak" atoms; the walks refuse anything else, with
// a message each.
TEST(Tracks, WalksOverWhatIsNoTrackAreRefused) {
    TrackListEntry *list = reinterpret_cast<TrackListEntry *>(1);
    Root_atom empty{};
    EXPECT_EQ(FindTracks(nullptr, &list) + FindTracks(&empty, &list), -198);
    EXPECT_EQ(list, nullptr);
    OpenedFile opened(MiniFile("video 2"));
    AtomNode *moov = opened.handle->RootAtom->FirstAtom->NextSibling->NextSibling;
    int32_t type = 0;
    VideoTrackNode video{};
    AudioTrackNode audio{};
    CaptureStream capture(stdout);
    EXPECT_EQ(GetTrackType(moov, &type) + ReadVideoTrackInfo(moov, &video) + ReadAudioTrackInfo(moov, &audio), -297);
    EXPECT_EQ(capture.Text(), "This atom not a track atom\nThis atom not a track atom\nThis atom not a track atom\n");
}

}  // namespace
