// The metadata writer: the refusals of MP4SetMetadata and MP4SetChapters,
// the atoms they write (golden), `mp4core tag` in place and by rewrite
// keeping every sample, and (slow) what exiftool, mutagen and ffprobe read
// back, and the tag command under a file-size limit and SIGKILL.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

#include "mp4core.h"
#include "support/listing.h"
#include "support/test_support.h"

namespace {

using namespace testing_support;

const uint8_t kJpeg[] = {0xFF, 0xD8, 0xFF, 0xE0, 0, 0x10, 'J', 'F', 'I', 'F', 0, 1, 0xFF, 0xD9};

MP4Tag Tag(const char *key, const char *text, uint32_t type = MP4_TAG_TEXT, int64_t integer = 0, int64_t total = 0) {
    MP4Tag tag{};
    tag.Key = key;
    tag.Type = type;
    tag.Value = reinterpret_cast<const uint8_t *>(text);
    tag.Size = text != nullptr ? uint32_t(std::strlen(text)) : 0;
    tag.Integer = integer;
    tag.Total = total;
    return tag;
}

// A tag of each form and place.
std::vector<MP4Tag> EveryForm() {
    MP4Tag cover = Tag("cover", nullptr, MP4_TAG_IMAGE);
    cover.Value = kJpeg;
    cover.Size = sizeof kJpeg;
    cover.Mime = "image/jpeg";
    return {Tag("title", "Zo\xC3\xAB's \xE2\x99\xAB Song"), Tag("artist", "The Artist"), Tag("date", "2024"),
            Tag("track", nullptr, MP4_TAG_INTEGER, 3, 12), Tag("disc", nullptr, MP4_TAG_INTEGER, 1, 2),
            Tag("compilation", nullptr, MP4_TAG_INTEGER, 1), cover, Tag("location", "+48.8577+002.2950+035.000/"),
            Tag("make", "Apple"), Tag("model", "iPhone 12"), Tag("creation_time", "2024-05-01T10:00:00+02:00"),
            Tag("com.apple.iTunes:MOOD", "calm"), Tag("tvsh", "Show"), Tag("com.example.rating", nullptr, MP4_TAG_INTEGER, -300)};
}

const MP4Chapter kChapters[] = {{0, 300, 1000, 0, "Intro", {}}, {300, 600, 1000, 0, "Middle", {}},
                                {6000000, 10000000, 10000000, 0, "End \xC3\xA9", {}}};

// Copies the tracks of `source` into `out` with the tags and chapters set
// before the first sample. "" or what failed.
std::string WriteTagged(const std::string &source, const std::string &out, uint32_t flags) {
    MP4_local_file *in = nullptr, *file = nullptr;
    if (MP4FileOpenEx(&in, source.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN) != 1) return "open";
    MP4FileNewEx(&file, out.c_str(), flags);
    uint32_t count = 0, id = 0;
    MP4GetTrackCount(in, &count);
    std::vector<MP4TrackInfo> tracks(count);
    std::string error;
    for (uint32_t t = 0; t < count; ++t) {
        MP4GetTrackInfo(in, t, &tracks[t]);
        if (MP4AddTrackFrom(file, in, tracks[t].TrackId, tracks[t].TrackType, &id) != 1) error = "add";
    }
    const std::vector<MP4Tag> tags = EveryForm();
    if (MP4SetMetadata(file, tags.data(), uint32_t(tags.size())) != 1) error = "tags";
    if (MP4SetChapters(file, kChapters, 3) != 1) error = "chapters";
    for (uint32_t t = 0; t < count; ++t) {
        for (uint32_t n = 0; n < tracks[t].SampleCount && error.empty(); ++n) {
            MP4SampleInfo sample{};
            MP4Sample *bytes = nullptr;
            MP4GetSampleInfo(in, tracks[t].TrackId, tracks[t].TrackType, n, &sample);
            MP4ReadSample(in, tracks[t].TrackId, tracks[t].TrackType, n, &bytes);
            MP4WriteInfo info{sample.DecodeTime, sample.CompositionOffset, sample.Duration, bytes->Size,
                              sample.IsKeyFrame ? uint32_t(MP4_SAMPLE_KEY) : 0, 0, {}};
            if (MP4WriteSample(file, t + 1, &info, bytes->Data) != 1) error = "sample";
            SampleDataFree(&bytes);
        }
    }
    MP4FileClose(&in);
    return MP4FileFlush(file) == 1 ? error : "flush";
}

// The payloads of the metadata atoms and the chapter track's samples.
std::string ListMetadataAtoms(const std::string &path) {
    MP4_local_file *file = nullptr;
    if (MP4FileOpenEx(&file, path.c_str(), MP4_TABLE_MARKS, MP4_OPEN_MODERN) != 1) return "open failed";
    std::string text;
    for (const char *atom : {"moov/mvhd", "moov/udta", "moov/meta", "moov/trak[1]/tref", "moov/trak[3]/tkhd",
                             "moov/trak[3]/mdia/minf/stbl/stsd", "moov/trak[3]/mdia/minf/stbl/stts",
                             "moov/trak[1]/mdia/minf/vmhd", "moov/trak[2]/mdia/minf/smhd"}) {
        uint8_t *data = nullptr;
        uint64_t size = 0;
        text += atom;
        if (MP4GetAtom(file, atom, &data, &size) == 1)
            for (uint64_t i = 0; i < size; ++i) text += Format("%s%02x", i % 32 == 0 ? "\n " : "", data[i]);
        text += "\n";
        MP4freeData(reinterpret_cast<void **>(&data));
    }
    // What the reader makes of them.
    MP4Tag *tags = nullptr;
    MP4Chapter *chapters = nullptr;
    uint32_t count = 0;
    MP4GetMetadata(file, &tags, &count);
    for (uint32_t i = 0; i < count; ++i)
        text += Format("tag %s %u ", tags[i].Key, tags[i].Type) + OneLine(std::string(reinterpret_cast<const char *>(tags[i].Value), tags[i].Size)) +
                Format(" %lld/%lld %s %s\n", (long long)tags[i].Integer, (long long)tags[i].Total, tags[i].Mime ? tags[i].Mime : "-", tags[i].Source);
    MP4FreeMetadata(tags);
    MP4GetChapters(file, &chapters, &count);
    for (uint32_t i = 0; i < count; ++i)
        text += Format("chapter %llu-%llu/%u %s\n", (unsigned long long)chapters[i].Start, (unsigned long long)chapters[i].End,
                       chapters[i].Timescale, chapters[i].Title);
    MP4FreeChapters(chapters);
    for (uint32_t n = 0;; ++n) {
        MP4Sample *sample = nullptr;
        if (MP4ReadSample(file, 3, 0, n, &sample) != 1) break;
        text += "chapter sample " + OneLine(std::string(reinterpret_cast<char *>(sample->Data), sample->Size)) + "\n";
        SampleDataFree(&sample);
    }
    MP4FileClose(&file);
    return text;
}

// Each sample's line of `mp4core samples` without its file offset, but
// those of chapter tracks (which `tag --chapters` removes).
std::string SamplesWithoutOffsets(const std::string &path) {
    return RunCommand(std::string(MP4CORE_TOOL) + " samples '" + path + "' | grep -v ' other ' | cut -d' ' -f1-7,9");
}

TEST(MetadataWriter, RefusalsHaveTheirOwnCodes) {
    TempPath path(".mp4");
    MP4_local_file *read = nullptr, *file = nullptr;
    const MP4Tag title = Tag("title", "T");
    EXPECT_EQ(MP4SetMetadata(nullptr, &title, 1), -99);
    ASSERT_EQ(MP4FileOpenEx(&read, FixturePath("mpeg4_aac.mp4").c_str(), 1, MP4_OPEN_MODERN), 1);
    EXPECT_EQ(MP4SetMetadata(read, &title, 1), -98);
    EXPECT_EQ(MP4SetChapters(read, kChapters, 1), -98);
    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), 0), 1);
    EXPECT_EQ(MP4SetMetadata(file, &title, 1), -98);
    MP4FileFlush(file);
    // A fragmented handle writes its "moov" at the first sample.
    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), MP4_NEW_FRAGMENTED), 1);
    uint32_t id = 0;
    ASSERT_EQ(MP4AddTrackFrom(file, read, 1, MP4_TRACK_VIDEO, &id), 1);
    EXPECT_EQ(MP4SetMetadata(file, &title, 1), 1);
    const MP4WriteInfo info{0, 0, 0, 1, MP4_SAMPLE_KEY, 0, {}};
    ASSERT_EQ(MP4WriteSample(file, id, &info, kJpeg), 1);
    EXPECT_EQ(MP4SetMetadata(file, &title, 1), -97);
    EXPECT_EQ(MP4SetChapters(file, kChapters, 1), -97);
    MP4FileFlush(file);
    MP4FileClose(&read);

    ASSERT_EQ(MP4FileNewEx(&file, path.c_str(), MP4_NEW_PROGRESSIVE), 1);
    EXPECT_EQ(MP4SetMetadata(file, nullptr, 1), -99);
    EXPECT_EQ(MP4SetChapters(file, nullptr, 1), -99);
    const std::string longKey = std::string(125, 'k') + ".com";
    struct TagCase {
        const char *what;
        MP4Tag tag;
        int32_t result;
    } tags[] = {
        {"key null", Tag(nullptr, "x"), -96},
        {"key empty", Tag("", "x"), -96},
        {"key of no form", Tag("colour", "x"), -96},
        {"key past 128 bytes", Tag(longKey.c_str(), "x"), -96},
        {"type 0", Tag("title", "x", 0), -96},
        {"type 5", Tag("tvsh", "x", 5), -96},
        {"title as integer", Tag("title", nullptr, MP4_TAG_INTEGER, 1), -96},
        {"track past 16 bits", Tag("track", nullptr, MP4_TAG_INTEGER, 65536), -96},
        {"total negative", Tag("disc", nullptr, MP4_TAG_INTEGER, 1, -1), -96},
        {"compilation 2", Tag("compilation", nullptr, MP4_TAG_INTEGER, 2), -96},
        {"cover as text", Tag("cover", "x"), -96},
        {"image without mime", Tag("----:x", "x", MP4_TAG_IMAGE), -96},
        {"time of no form", Tag("creation_time", "yesterday"), -96},
        {"time before 1904", Tag("creation_time", "1903-12-31T23:59:59Z"), -96},
        {"hour 24", Tag("creation_time", "2024-05-01T24:00:00Z"), -96},
        {"time with a bad offset", Tag("modification_time", "2024-05-01T10:00:00+25:00"), -96},
        {"value null", [] { auto t = Tag("title", nullptr); t.Size = 3; return t; }(), -96},
        {"track's own", [] { auto t = Tag("title", "x"); t.TrackId = 1; return t; }(), -96},
        {"pad", [] { auto t = Tag("title", "x"); t.Pad = 1; return t; }(), -96},
        {"reserved", [] { auto t = Tag("title", "x"); t.Reserved[3] = 1; return t; }(), -96},
        {"date only", Tag("creation_time", "2024-05-01"), 1},
        {"four bytes with the sign", Tag("\xC2\xA9" "grp", "x"), 1},
    };
    for (const TagCase &c : tags) EXPECT_EQ(MP4SetMetadata(file, &c.tag, 1), c.result) << c.what;
    struct ChapterCase {
        const char *what;
        MP4Chapter chapters[2];
        int32_t result;
    } chapters[] = {
        {"title null", {{0, 1, 1000, 0, nullptr, {}}, kChapters[1]}, -96},
        {"timescale 0", {{0, 1, 0, 0, "a", {}}, kChapters[1]}, -96},
        {"end before start", {{5, 1, 1000, 0, "a", {}}, kChapters[1]}, -96},
        {"out of order", {{400, 500, 1000, 0, "a", {}}, kChapters[1]}, -96},
        {"out of order in other ticks", {kChapters[1], {2999999, 3000000, 10000000, 0, "b", {}}}, -96},
        {"pad", {{0, 1, 1000, 1, "a", {}}, kChapters[1]}, -96},
        {"reserved", {{0, 1, 1000, 0, "a", {0, 1}}, kChapters[1]}, -96},
        {"past 2^32 ms", {kChapters[0], {300, 4294967296, 1000, 0, "b", {}}}, -96},
        {"in order across timescales", {kChapters[1], kChapters[2]}, 1},
    };
    for (const ChapterCase &c : chapters) EXPECT_EQ(MP4SetChapters(file, c.chapters, 2), c.result) << c.what;
    EXPECT_EQ(MP4FileFlush(file), 1);
}

// The atoms of every form, the "mvhd" time in UTC, the chapter track and
// its reference, as written (golden) and read back; faststart and
// fragmented layouts write the same, and remux keeps them.
TEST(MetadataWriter, AtomsAsWritten) {
    TempPath plain(".mp4"), faststart(".mp4"), fragmented(".mp4");
    ASSERT_EQ(WriteTagged(FixturePath("mpeg4_aac.mp4"), plain.path(), MP4_NEW_PROGRESSIVE), "");
    ASSERT_EQ(WriteTagged(FixturePath("mpeg4_aac.mp4"), faststart.path(), MP4_NEW_PROGRESSIVE | MP4_NEW_FASTSTART), "");
    ASSERT_EQ(WriteTagged(FixturePath("mpeg4_aac.mp4"), fragmented.path(), MP4_NEW_FRAGMENTED), "");
    const std::string listing = ListMetadataAtoms(plain.path());
    ExpectGolden("metadata/written.atoms", listing);
    EXPECT_EQ(ListMetadataAtoms(faststart.path()), listing);
    // remux reads them and writes them again: the same tags and chapters
    // (the keyed creation date's text now in UTC).
    TempPath remuxed(".mp4");
    RunCommand(std::string(MP4CORE_TOOL) + " remux '" + plain.path() + "' -o '" + remuxed.path() + "' 2>/dev/null");
    const std::string again = ListMetadataAtoms(remuxed.path());
    EXPECT_EQ(again.substr(again.find("\ntag ")), listing.substr(listing.find("\ntag ")));
    // The fragmented layout: the same atoms and chapter track (its samples
    // in an "mdat" behind "moov"), but for the "mvhd" duration.
    const std::string frag = ListMetadataAtoms(fragmented.path());
    EXPECT_EQ(frag.substr(frag.find("moov/udta")), listing.substr(listing.find("moov/udta")));
}

// In place where "moov" ends the file (twice: the second edit behind the
// first's free space), by rewrite where media or fragments follow it
// (their offsets moved): every sample as it was.
TEST(TagCommand, EditsInPlaceOrByRewriteKeepingEverySample) {
    TempFile chapters(Text("00:00:00.000 Start\n00:00:00.500 Half way\n"), ".txt"), cover(Bytes(kJpeg, kJpeg + sizeof kJpeg), ".jpg");
    struct Case {
        const char *fixture;
        const char *way;
    } cases[] = {
        {"mpeg4_aac_moov_end.mp4", "in place"},
        {"mpeg4_aac.mp4", "rewriting"},
        {"modern/frag_explicit_base.mp4", "rewriting"},
        {"modern/frag_keyframe.mp4", "rewriting"},
        {"modern/uuid.mp4", "rewriting"},
        {"meta/itunes.m4a", "in place"},  // its chapter track removed
        {"meta/strings.3gp", "in place"},  // two "udta", 3GPP strings
    };
    for (const Case &c : cases) {
        TempFile file(ReadWholeFile(FixturePath(c.fixture)));
        const std::string tag = std::string(MP4CORE_TOOL) + " tag '" + file.path() + "' ";
        for (const std::string &edit : {"--set title=Hello --set track=2/9 --cover " + cover.path() + " --chapters " + chapters.path(),
                                        std::string("--remove title --set artist=Someone")}) {
            EXPECT_NE(RunCommand(tag + edit).find(c.way), std::string::npos) << c.fixture << edit;
            EXPECT_EQ(SamplesWithoutOffsets(file.path()), SamplesWithoutOffsets(FixturePath(c.fixture))) << c.fixture;
        }
        // A fragment index's first entry still names a "moof".
        const Bytes edited = ReadWholeFile(file.path());
        const size_t tfra = FindAtom(edited, "tfra");
        if (tfra + 4 < edited.size()) {
            const size_t moof = edited[tfra + 8] == 1 ? size_t(GetU32(edited, tfra + 36)) : GetU32(edited, tfra + 28);
            EXPECT_EQ(std::string(edited.begin() + long(moof) + 4, edited.begin() + long(moof) + 8), "moof") << c.fixture;
        }
        MP4_local_file *read = nullptr;
        ASSERT_EQ(MP4FileOpenEx(&read, file.c_str(), 1, MP4_OPEN_MODERN), 1);
        uint8_t *data = nullptr;
        uint64_t size = 0;
        EXPECT_EQ(MP4GetAtom(read, "moov/udta/meta/ilst/\xC2\xA9nam", &data, &size), -97) << c.fixture;
        EXPECT_EQ(MP4GetAtom(read, "moov/udta/meta/ilst/\xC2\xA9" "ART", &data, &size), 1) << c.fixture;
        MP4freeData(reinterpret_cast<void **>(&data));
        EXPECT_EQ(MP4GetAtom(read, "moov/udta/chpl", &data, &size), 1) << c.fixture;
        MP4freeData(reinterpret_cast<void **>(&data));
        MP4FileClose(&read);
    }
    // The offsets of a track's "saio" (encryption) move with its chunks.
    Bytes image = ReadWholeFile(FixturePath("mpeg4_aac.mp4"));
    image = ReplaceAtom(image, "stco", FullAtom("saio", 0, {U32(1), U32(GetU32(image, FindAtom(image, "stco") + 16))}), true);
    TempFile file(image);
    EXPECT_NE(RunCommand(std::string(MP4CORE_TOOL) + " tag '" + file.path() + "' --set title=Moved").find("rewriting"), std::string::npos);
    const Bytes edited = ReadWholeFile(file.path());
    EXPECT_EQ(GetU32(edited, FindAtom(edited, "saio") + 16), GetU32(edited, FindAtom(edited, "stco") + 16));
    EXPECT_NE(GetU32(edited, FindAtom(edited, "saio") + 16), GetU32(image, FindAtom(image, "saio") + 16));
}

std::string Readback(const std::string &path) {
    return RunCommand("/usr/bin/python3 " + FixturePath("metadata/readback.py") + " '" + path + "'");
}

bool HaveReaders() {
    return HaveFfmpeg() && RunCommand("command -v exiftool >/dev/null && /usr/bin/python3 -c 'import mutagen' && echo y") == "y\n";
}

// What exiftool, mutagen and ffprobe read of a written file in its three
// layouts, and of a file `mp4core tag` edited (listings under tests/data/metadata).
TEST(SlowMetadataInterop, WrittenAndTaggedFilesReadBackInEveryTool) {
    if (!HaveReaders()) GTEST_SKIP() << "exiftool, mutagen or ffprobe missing (scripts/deps.sh)";
    TempPath plain(".mp4"), fragmented(".mp4");
    ASSERT_EQ(WriteTagged(FixturePath("mpeg4_aac.mp4"), plain.path(), MP4_NEW_PROGRESSIVE | MP4_NEW_FASTSTART), "");
    ASSERT_EQ(WriteTagged(FixturePath("mpeg4_aac.mp4"), fragmented.path(), MP4_NEW_FRAGMENTED), "");
    ExpectGolden("metadata/written.readback", Readback(plain.path()));
    ExpectGolden("metadata/fragmented.readback", Readback(fragmented.path()));
    TempFile chapters(Text("00:00:00.000 One\n00:00:01.250 Two \xC3\xA9\n"), ".txt"), cover(Bytes(kJpeg, kJpeg + sizeof kJpeg), ".jpg");
    // FFmpeg's iTunes file and a phone's keyed one keep what no edit touches.
    struct Case {
        const char *fixture, *listing;
    } cases[] = {{"mpeg4_aac.mp4", "tagged"}, {"mpeg4_aac_moov_end.mp4", "tagged"}, {"meta/itunes.m4a", "itunes_tagged"},
                 {"meta/phone_mdta.mov", "phone_tagged"}};
    for (const Case &c : cases) {
        TempFile file(ReadWholeFile(FixturePath(c.fixture)));
        RunCommand(std::string(MP4CORE_TOOL) + " tag '" + file.path() + "' --set 'title=Zo\xC3\xAB' --set disc=1/2 " +
                   "--set location=+35.6586+139.7454/ --set creation_time=2024-05-01T10:00:00Z --cover " +
                   cover.path() + " --chapters " + chapters.path());
        ExpectGolden(std::string("metadata/") + c.listing + ".readback", Readback(file.path()));
    }
}

// `mp4core tag` stopped by a file-size limit at every write, and killed at
// random moments, leaves the file as it was or as edited: byte for byte
// where it rewrites, and reading the same where it edits in place.
TEST(SlowTagCrash, LimitedOrKilledEditsLeaveTheFileWhole) {
    TempFile chapters(Text("00:00:00.000 One\n"), ".txt");
    std::mt19937 random(25);
    for (const char *fixture : {"mpeg4_aac.mp4", "mpeg4_aac_moov_end.mp4"}) {
        const Bytes original = ReadWholeFile(FixturePath(fixture));
        TempFile edited(original);
        const std::string edit = " --set title=Edited --chapters " + chapters.path();
        RunCommand(std::string(MP4CORE_TOOL) + " tag '" + edited.path() + "'" + edit);
        const Bytes done = ReadWholeFile(edited.path());
        const std::string before = SamplesWithoutOffsets(FixturePath(fixture)), tags = Readback(FixturePath(fixture));
        const bool inPlace = std::strcmp(fixture, "mpeg4_aac_moov_end.mp4") == 0;
        for (int run = 0; run < 24; ++run) {
            TempFile file(original);
            const std::string command = std::string(MP4CORE_TOOL) + " tag '" + file.path() + "'" + edit + " >/dev/null 2>&1";
            if (run < 12) {
                // Limits in 512-byte blocks from below the file's size up.
                RunCommand(Format("ulimit -f %zu; ", original.size() / 512 - 6 + size_t(run)) + command);
            } else {
                const pid_t child = fork();
                if (child == 0) execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr), _exit(127);
                usleep(useconds_t(random() % 40000));  // a run takes about 30 ms
                kill(child, SIGKILL);
                waitpid(child, nullptr, 0);
            }
            RunCommand("rm -f '" + file.path() + "'.tag-* '" + file.path() + "'.scratch-*");
            const Bytes now = ReadWholeFile(file.path());
            EXPECT_EQ(SamplesWithoutOffsets(file.path()), before) << fixture << " run " << run;
            // An in-place edit stopped before its last write leaves the
            // original with dead bytes behind it.
            const bool unfinished = inPlace && now.size() > original.size() &&
                                    Bytes(now.begin(), now.begin() + long(original.size())) == original &&
                                    Readback(file.path()) == tags;
            EXPECT_TRUE(now == original || now == done || unfinished) << fixture << " run " << run;
        }
    }
}

}  // namespace
