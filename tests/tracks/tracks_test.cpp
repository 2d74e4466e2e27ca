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

TEST(Tracks, WalksOverWhatIsNoTrackAreRefused) {
    TrackListEntry *list = reinterpret_cast<TrackListEntry *>(1);
    EXPECT_EQ(FindTracks(nullptr, &list), -99);
    EXPECT_EQ(list, nullptr);
    Root_atom empty{};
    EXPECT_EQ(FindTracks(&empty, &list), -99);
    OpenedFile opened(MiniFile("video 2 id 7 ; audio 2 id 9"));
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
