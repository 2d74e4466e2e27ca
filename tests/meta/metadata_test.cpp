// Tags and chapters: the fixtures of tests/data/meta against what exiftool,
// ffprobe and mutagen read in them (NAME.tags, written by make_meta.py), and
// hostile "moov" contents (meta/hostile.rows) that spoil one item each.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "support/listing.h"
#include "support/mini_mp4.h"

namespace {

using namespace testing_support;

const std::set<std::string> kVocabulary = {
    "title", "artist", "album_artist", "album", "date", "genre", "comment", "composer", "copyright",
    "description", "encoder", "track", "disc", "compilation", "cover", "location", "make", "model",
    "software", "creation_time", "modification_time"};

// The file's tags of the vocabulary (and of `alsoKeys`) and its chapters, as
// the lines of a .tags listing, sorted.
std::vector<std::string> Lines(MP4_local_file *file, const std::set<std::string> &alsoKeys) {
    std::vector<std::string> lines;
    MP4Tag *tags = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(MP4GetMetadata(file, &tags, &count), 1);
    for (uint32_t i = 0; i < count; ++i) {
        const MP4Tag &tag = tags[i];
        if (tag.TrackId != 0 || (!kVocabulary.count(tag.Key) && !alsoKeys.count(tag.Key))) continue;
        std::string value = tag.Type == MP4_TAG_TEXT ? reinterpret_cast<const char *>(tag.Value)
                            : tag.Type == MP4_TAG_IMAGE ? Format("%s %u", tag.Mime, tag.Size)
                                                        : std::to_string(tag.Integer);
        if (tag.Type == MP4_TAG_INTEGER && tag.Total != 0) value += "/" + std::to_string(tag.Total);
        lines.push_back(std::string(tag.Key) + " " + value);
    }
    MP4FreeMetadata(tags);
    MP4Chapter *chapters = nullptr;
    EXPECT_EQ(MP4GetChapters(file, &chapters, &count), 1);
    for (uint32_t i = 0; i < count; ++i)
        lines.push_back(Format("chapter %.3f %.3f ", double(chapters[i].Start) / chapters[i].Timescale,
                               double(chapters[i].End) / chapters[i].Timescale) + chapters[i].Title);
    MP4FreeChapters(chapters);
    std::sort(lines.begin(), lines.end());
    return lines;
}

TEST(MetadataFixtures, TagsAndChaptersAreWhatExiftoolFfprobeAndMutagenRead) {
    for (const auto &entry : std::filesystem::directory_iterator(FixturePath("meta"))) {
        if (entry.path().extension() != ".tags") continue;
        std::vector<std::string> expected;
        std::set<std::string> keys;
        std::ifstream listing(entry.path());
        for (std::string line; std::getline(listing, line);) {
            if (line.empty() || line[0] == '#') continue;
            expected.push_back(line.substr(0, line.find("  # ")));
            keys.insert(line.substr(0, line.find(' ')));
        }
        std::sort(expected.begin(), expected.end());
        const std::string path = entry.path().string();
        const Bytes bytes = ReadWholeFile(path.substr(0, path.size() - 5));
        for (const int64_t flags : {int64_t(-1), int64_t(MP4_OPEN_MODERN)}) {
            OpenedFile file(bytes, MP4_TABLE_MARKS, flags);
            ASSERT_EQ(file.result, 1) << path;
            EXPECT_EQ(Lines(file.handle, keys), expected) << path << (flags < 0 ? " (classic)" : " (modern)");
            // A chapter track comes before "chpl"; a classic handle reads no text track.
            MP4Chapter *chapters = nullptr;
            uint32_t count = 0;
            if (path.find("itunes") != std::string::npos && MP4GetChapters(file.handle, &chapters, &count) == 1) {
                EXPECT_EQ(chapters[0].Timescale, flags < 0 ? 10000000u : 1000u);
            }
            MP4FreeChapters(chapters);
        }
    }
}

// The listings stay what the tools read in the committed files.
TEST(SlowMetadataInterop, ListingsAreWhatExiftoolFfprobeAndMutagenReadNow) {
    if (!HaveFfmpeg() || RunCommand("command -v exiftool").empty() || !FileExists("/usr/lib/python3/dist-packages/mutagen"))
        GTEST_SKIP() << "needs ffprobe, exiftool and python3-mutagen";
    EXPECT_EQ(RunCommand("python3 '" + FixturePath("meta/make_meta.py") + "' --check 2>&1; echo $?"), "0\n");
}

TEST(MetadataHostile, ASpoiledItemGivesNoTagAndTheRestStay) {
    for (const auto &row : ReadRows("meta/hostile.rows")) {
        const Bytes image = Image("ftyp{'isom' 0 'isom'} moov{" + row.at(1) + "}");
        for (const int64_t flags : {int64_t(-1), int64_t(MP4_OPEN_MODERN)}) {
            OpenedFile file(image, MP4_TABLE_MARKS, flags);
            ASSERT_EQ(file.result, 1) << row.at(0);
            std::string got;
            for (const std::string &line : Lines(file.handle, {"com.x:k", "auth", "com.apple.quicktime.creationdate"})) got += (got.empty() ? "" : "; ") + line;
            EXPECT_EQ(got, row.size() > 2 ? row[2] : "") << row.at(0) << (flags < 0 ? " (classic)" : " (modern)");
        }
    }
}

TEST(MetadataHostile, WriteHandlesAndNullArgumentsAreRefused) {
    TempPath path(".mp4");
    MP4_local_file *writer = nullptr;
    ASSERT_EQ(MP4FileNewEx(&writer, path.path().c_str(), MP4_NEW_PROGRESSIVE), 1);
    MP4Tag *tags = nullptr;
    MP4Chapter *chapters = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(MP4GetMetadata(writer, &tags, &count), -98);
    EXPECT_EQ(MP4GetChapters(writer, &chapters, &count), -98);
    EXPECT_EQ(MP4GetMetadata(writer, nullptr, &count), -99);
    EXPECT_EQ(MP4GetChapters(nullptr, &chapters, &count), -99);
    MP4FileFlush(writer);
}

}  // namespace
