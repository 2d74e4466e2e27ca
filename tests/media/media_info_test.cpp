// What the library tells of a file's media, over hand-made files that each
// vary one thing and over the FFmpeg fixtures: GetFileInfo's summary,
// RetMp4MediaInfo for every track ID and kind (also without a current
// track), and the initial object descriptor made from the tracks. All of it
// is one listing, tests/data/media/media_info.txt.
#include <cstdlib>
#include <sstream>

#include "frame/frame.h"
#include "media/media_support.h"
#include "mp4core.h"
#include "support/mini_mp4.h"
#include "tracks/tracks.h"

using namespace testing_support;
using namespace media_support;

namespace {

const Bytes kVol = Hex("00 00 01 00 00 00 01 20 01 88 40 06 68 2C 20 90 A2 1F");
const Bytes kDamr = Atom("damr", {Text("FFMP"), U8(0), U16(0x81FF), U8(0), U8(1)});

Bytes Raw(const Bytes &body) { return FullAtom("esds", 0, {body}); }
Bytes Mp4v(const Bytes &body) { return Mp4vEntry(176, 144, Raw(body)); }
// Bit rates 128000/96000, a visual object sequence of `profile`, then the layer.
Bytes VideoEsds(uint8_t profile) { return Esds(Cat({Hex("00 00 01 B0"), U8(profile), kVol}), {true, true, true}, 0x20); }
Bytes AudioEntry(const char *name, const Bytes &child) {
    return Atom(name, {Zeros(6), U16(1), Zeros(8), U16(1), U16(16), U16(0), U16(0), U16(8000), U16(0), child});
}

// Video samples of 15 bytes, an intra plane then predicted ones; audio
// samples of `size` bytes that open with an MPEG-1 layer 3 frame header.
MiniTrack Track(bool video, uint32_t id, const Bytes &entry, uint32_t count = 3, uint32_t timescale = 1000,
                uint32_t delta = 10, size_t size = 20) {
    MiniTrack track;
    track.handler = video ? "vide" : "soun", track.trackId = id, track.sampleEntry = entry;
    track.timescale = timescale, track.delta = delta;
    for (uint32_t i = 0; i < count; ++i) {
        const Bytes audio = Cat({Hex("FF FB 90 64"), Zeros(size)});
        track.samples.push_back(video ? Vop(i != 0, 0, 10) : Bytes(audio.begin(), audio.begin() + size));
    }
    return track;
}

std::string HexLine(const char *label, const uint8_t *bytes, uint32_t size) {
    return bytes && size ? std::string("\n    ") + label + HexBytes(bytes, size) : "";
}

// Without a current track of the kind, a track ID not in the list, then
// the first track without its tables, as when the open gave them up: the
// first time it becomes the current one, the second time it is found there.
template <typename Record>
void WithoutCurrent(std::ostream &out, MP4_local_file *file, int32_t type, Record *&current, Record *first) {
    Mp4MediaInfo *info = nullptr;
    current = nullptr;
    out << "\n  without current, kind " << type << " ID 9: " << RetMp4MediaInfo(file, 9, type, &info);
    if (first == nullptr) return;
    TrackNode *tables = first->Track;
    first->Track = nullptr;
    out << "; ID " << first->TrackId << " without tables: " << RetMp4MediaInfo(file, first->TrackId, type, &info)
        << ", again: " << RetMp4MediaInfo(file, first->TrackId, type, &info);
    first->Track = tables;
}

void Describe(std::ostream &out, const std::string &name, const std::string &path, size_t fileSize) {
    FileInfo summary;
    CaptureStream printed(stdout);
    const int32_t result = GetFileInfo(path.c_str(), &summary);
    std::istringstream lines(printed.Text());
    out << "== " << name << "\nGetFileInfo " << result;
    const uint32_t *words = reinterpret_cast<const uint32_t *>(&summary);
    for (size_t i = 1; result == 1 && i < sizeof summary / 4; ++i) out << (i == 10 ? " |" : "") << " " << words[i];
    EXPECT_TRUE(result != 1 || summary.FileSize == fileSize) << name;
    for (std::string line; std::getline(lines, line);)  // its own lines, not the open's
        if (line.rfind("VIDEO:", 0) == 0 || line.rfind("AUDIO:", 0) == 0 || line.find("open error!") != line.npos)
            out << "\n  " << line;

    MP4_local_file *file = nullptr;
    CaptureStream quiet(stdout);
    const int32_t opened = MP4FileOpen(&file, path.c_str(), MP4_TABLE_MARKS);
    quiet.Text();
    for (int32_t type = 1; opened == 1 && type <= 2; ++type) {
        out << "\n  kind " << type << ", IDs 1 2 3 9:";
        std::string found;
        for (uint32_t id : {1u, 2u, 3u, 9u}) {
            Mp4MediaInfo *info = nullptr;
            const int32_t got = RetMp4MediaInfo(file, id, type, &info);
            out << " " << got;
            if (got != 1) continue;
            found += "\n  kind " + std::to_string(type) + " ID " + std::to_string(id) + ": timescale " +
                     std::to_string(info->Timescale) + ", duration " + std::to_string(info->TrackDuration) +
                     HexLine("esds", info->EsdsData, info->EsdsSize) + HexLine("d263", info->D263Data, info->D263Size) +
                     HexLine("damr", info->DamrData, info->DamrSize);
            free(info->EsdsData), free(info->D263Data), free(info->DamrData), free(info);
        }
        out << found;
    }
    if (opened == 1) {
        Mp4MediaInfo *info = nullptr;
        uint8_t *iod = nullptr;
        IodConfigs configs{};
        out << "\n  ID 0: " << RetMp4MediaInfo(file, 0, 1, &info) << ", kind 3: " << RetMp4MediaInfo(file, 1, 3, &info)
            << ", no out: " << RetMp4MediaInfo(file, 1, 1, nullptr) << "\n  iod " << EncryptMp4Iod(file, &iod, nullptr, 0)
            << ", read back " << DecryptMp4Iod(&configs, &iod) << HexLine("video", configs.VideoConfig, configs.VideoConfigSize)
            << HexLine("audio", configs.AudioConfig, configs.AudioConfigSize);
        free(configs.VideoConfig), free(configs.AudioConfig);
        WithoutCurrent(out, file, 1, file->read.VideoCurrent, file->read.VideoFirst);
        WithoutCurrent(out, file, 2, file->read.AudioCurrent, file->read.AudioFirst);
    }
    MP4FileClose(&file);
    out << "\n";
}

TEST(MediaInfo, ListingOfHandMadeFilesAndFixtures) {
    const Bytes lc = AudioEntry("mp4a", Esds(AudioConfig(2, 4, 2)));
    const struct Case {
        const char *name;
        std::vector<MiniTrack> tracks;
    } cases[] = {
        {"mp4v: 18 bytes from the video object start code", {Track(1, 1, Mp4v(Cat({Hex("03 22 00 01 00"), kVol, Hex("00 00 01 B2")})))}},
        {"mp4v without start code: 18 zeros", {Track(1, 1, Mp4v(Hex("03 05 00 01 00 04 00")))}},
        {"mp4v: 00 00 01 20 is no object start code", {Track(1, 1, Mp4v(Cat({Hex("00 00 01 00 AA BB 00 00 01 20"), Zeros(12)})))}},
        {"mp4v: the last start code wins, 01", {Track(1, 1, Mp4v(Cat({kVol, Hex("00 00 01 01"), Zeros(14)})))}},
        {"mp4v: start code 0B", {Track(1, 1, Mp4v(Cat({Hex("00 00 01 0B"), Zeros(14)})))}},
        {"mp4v: a window that would leave the record is not taken",
         {Track(1, 1, Mp4v(Cat({Hex("03 00"), Bytes(100, 0x42), kVol, Bytes(94, 0x42), Hex("00 00 01 0B"), Bytes(70, 0x42)})))}},
        {"mp4v without esds: bit rates from the sample sizes", {Track(1, 1, Mp4vEntry(176, 144), 10, 1000, 100)}},
        {"mp4v: esds bit rates and profile", {Track(1, 1, Mp4vEntry(176, 144, VideoEsds(1)), 25, 1000, 40)}},
        {"29.97 frames per second are cut to 29", {Track(1, 1, Mp4vEntry(176, 144, VideoEsds(3)), 30, 30000, 1001)}},
        {"s263: size of the entry, rates of the samples", {Track(1, 1, S263Entry(128, 96), 10, 1000, 100)}},
        {"s263 with timescale 0", {Track(1, 1, S263Entry(128, 96), 10, 0, 100)}},
        {"mp4a: AAC LC 44.1 kHz stereo", {Track(0, 1, lc, 2, 44100, 1024, 100)}},
        {"mp4a: frequency index 13 has no rate", {Track(0, 1, AudioEntry("mp4a", Esds(AudioConfig(2, 13, 2))), 2, 44100, 1024)}},
        {"mp4a: a 300-byte esds is cut to its record",
         {Track(0, 1, AudioEntry("mp4a", Raw(Cat({Hex("03 80 80 80 7F 00 02 00"), Bytes(280, 0x42)}))))}},
        {"MPEG-1 audio from its first frame", {Track(0, 1, AudioEntry("mp4a", Esds({}, {}, 0x6B)), 2, 44100, 1152)}},
        {"MPEG-2 audio, first frame of 3 bytes", {Track(0, 1, AudioEntry("mp4a", Esds({}, {}, 0x69)), 1, 44100, 1152, 3)}},
        {"AMR narrow band", {Track(0, 1, AudioEntry("samr", kDamr), 2, 8000, 4000, 500)}},
        {"AMR wide band: sawb gives a record of zeros", {Track(0, 1, AudioEntry("sawb", kDamr), 2, 16000, 8000, 500)}},
        {"AMR with duration 0", {Track(0, 1, AudioEntry("samr", kDamr), 1, 8000, 0, 500)}},
        {"mp4a whose first child is not esds", {Track(0, 1, AudioEntry("mp4a", Cat({Atom("free", {Zeros(4)}), Raw(Hex("03 00"))})))}},
        {"samr whose first child is not damr", {Track(0, 1, AudioEntry("samr", Raw(Hex("03 00"))))}},
        {"an entry of no known kind", {Track(0, 1, Atom("mp4s", {Zeros(8), Raw(Hex("03 00"))}))}},
        {"video track with an mp4a entry", {Track(1, 1, AudioEntry("mp4a", Raw(Hex("03 00"))))}},
        {"video track with a sawb entry", {Track(1, 1, AudioEntry("sawb", kDamr))}},
        {"audio track with an mp4v entry", {Track(0, 1, Mp4v(kVol))}},
        {"the last track of each kind is summed up", {Track(1, 1, Mp4vEntry(176, 144, VideoEsds(1)), 5, 1000, 100),
                                                       Track(1, 3, S263Entry(128, 96), 10, 1000, 100), Track(0, 2, lc, 1, 44100, 1024)}},
        {"video and AMR", {Track(1, 1, Mp4v(kVol)), Track(0, 2, AudioEntry("samr", kDamr))}},
    };
    std::ostringstream out;
    for (const Case &c : cases) {
        const Bytes bytes = BuildMiniMp4(c.tracks);
        TempFile file(bytes);
        Describe(out, c.name, file.path(), bytes.size());
    }
    TempFile empty;
    Describe(out, "empty file", empty.path(), 0);
    Describe(out, "missing file", empty.path() + ".missing", 0);
    for (const char *name : {"mpeg4_aac.mp4", "mpeg4_aac_moov_end.mp4", "mpeg4_gop12.mp4", "mpeg4_bframes.mp4",
                             "mpeg4_gop1.mp4", "mpeg4_one_frame.mp4", "aac_mono_8000.mp4", "aac_stereo_48000.mp4",
                             "mp3_stereo_44100.mp4", "h263.3gp", "h263_aac.3gp"})
        Describe(out, name, FixturePath(name), ReadWholeFile(FixturePath(name)).size());
    ExpectGolden("media/media_info.txt", out.str());
    FileInfo info;
    EXPECT_EQ(GetFileInfo(nullptr, &info), -11);
    EXPECT_EQ(GetFileInfo(empty.c_str(), nullptr), -12);
}

}  // namespace
