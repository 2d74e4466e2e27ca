// The write path against golden transcripts. Each script in
// tests/data/written runs calls of the write API case by case; every
// result, every message on standard output or error, the state of the
// tracks when asked for, and the atoms and bytes of each written file go to
// a transcript that must match NAME.golden beside the script. With
// MP4CORE_UPDATE_GOLDEN=1 set the goldens are rewritten instead: read their
// diff before committing them.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "authoring/authoring.h"
#include "support/listing.h"
#include "support/test_support.h"
#include "tracks/tracks.h"
#include "writer/writer.h"

namespace {

using namespace testing_support;
using Args = std::map<std::string, std::string>;

uint32_t Num(const Args &a, const std::string &key, uint32_t fallback) {
    return a.count(key) ? uint32_t(std::stoul(a.at(key), nullptr, 0)) : fallback;
}

std::vector<uint32_t> List(const Args &a, const std::string &key) {
    std::vector<uint32_t> values;
    std::istringstream in(a.count(key) ? a.at(key) : "");
    for (std::string v; std::getline(in, v, ',');) values.push_back(uint32_t(std::stoul(v, nullptr, 0)));
    return values;
}

Bytes Pattern(size_t count, uint8_t seed) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = uint8_t(seed + i * 7);
    return bytes;
}

// "pat:N" is N bytes of the pattern from 0; anything else is hex.
Bytes Data(const Args &a, const std::string &key) {
    if (!a.count(key)) return {};
    const std::string &v = a.at(key);
    return v.rfind("pat:", 0) == 0 ? Pattern(std::stoul(v.substr(4)), 0) : Hex(v);
}

// Bytes as hex, 32 to a line; a run longer than 512 bytes shows its first
// line, its length and a hash.
void HexLines(const Bytes &b, size_t from, size_t to, const std::string &indent, std::string &out) {
    const size_t shown = to - from > 512 ? 32 : to - from;
    for (size_t i = 0; i < shown; ++i) {
        out += (i % 32 == 0 ? indent : i % 4 == 0 ? " " : "") + Format("%02x", b[from + i]);
        if (i % 32 == 31 || i + 1 == shown) out += "\n";
    }
    if (shown == to - from) return;
    uint32_t hash = 2166136261u;  // FNV-1a
    for (size_t i = from; i < to; ++i) hash = (hash ^ b[i]) * 16777619u;
    out += indent + Format("... %zu bytes, hash %u\n", to - from, hash);
}

// Where the children of a container begin, from its first byte.
const std::map<std::string, size_t> kContainers = {
    {"moov", 8}, {"trak", 8}, {"mdia", 8}, {"minf", 8}, {"stbl", 8}, {"dinf", 8}, {"tref", 8},
    {"stsd", 16}, {"dref", 16}, {"mp4s", 16}, {"mp4a", 36}, {"mp4v", 86},
    {"mvex", 8}, {"moof", 8}, {"traf", 8}, {"mfra", 8}};

void DumpAtoms(const Bytes &b, size_t at, size_t end, const std::string &indent, std::string &out) {
    while (at + 8 <= end) {
        const uint32_t size = GetU32(b, at);
        const std::string name(b.begin() + long(at) + 4, b.begin() + long(at) + 8);
        out += indent + name + " " + std::to_string(size) + "\n";
        if (size < 8 || at + size > end) break;
        const auto container = kContainers.find(name);
        const size_t head = container == kContainers.end() ? size : container->second;
        HexLines(b, at + 8, at + head, indent + "  ", out);
        if (head < size) DumpAtoms(b, at + head, at + size, indent + "  ", out);
        at += size;
    }
    if (at < end) out += indent + "trailing " + std::to_string(end - at) + "\n";
    HexLines(b, at, end, indent + "  ", out);
}

// The handle's tracks, their intake counters and every block of a chain.
std::string State(const MP4_local_file *file) {
    const WriteForm &w = file->write;
    std::string text = Format("  next track id %u, top level:", w.NextTrackId);
    for (const AtomNode *atom = file->RootAtom->FirstAtom; atom != nullptr; atom = atom->NextSibling)
        text += std::string(" ") + atom->AtomName + (atom->realStructure != nullptr ? "" : "(no record)");
    const struct { const char *name; const TrackNode *track; const IntakeState *intake; } kTracks[] = {
        {"video", w.VideoTrack, &w.VideoIntake}, {"audio", w.AudioTrack, &w.AudioIntake},
        {"od", w.OdTrack, nullptr}, {"scene", w.SceneTrack, nullptr}};
    for (const auto &t : kTracks) {
        if (t.track == nullptr) continue;
        const TrackNode &k = *t.track;
        text += Format("\n  %s: id %u (%u %u) %ux%u config %u, rates avg %u max %u", t.name, k.TrackId,
                       k.VideoTrackId, k.AudioTrackId, k.TrackWidth, k.TrackHeight, k.ConfigSize,
                       k.AvgBitRate, k.MaxBitRate);
        if (const IntakeState *i = t.intake)
            text += Format("\n    intake: samples %u keys %u bytes %u, in block %u keys %u", i->TotalSamples,
                           i->TotalKeyFrames, i->TotalBytes, i->BlockSample, i->BlockKeyFrame);
        for (const TrackNode *b = t.track; b != nullptr; b = b->NextBlock) {
            text += Format("\n    block: samples %u+%u/%u keys %u+%u/%u window %d:%d peak %d type %d ts %u",
                           b->SampleBase, b->SampleCount, b->SampleCapacity, b->KeyFrameBase,
                           b->KeyFrameCount, b->KeyFrameCapacity, b->WindowSecond, b->WindowBytes,
                           b->PeakBytes, b->TrackType, b->Timescale);
            for (uint32_t n = 0; n < b->KeyFrameCount && n < 4; ++n)
                text += Format("\n      key %u at %u", b->KeyFrameRecords[n].SampleIndex, b->KeyFrameRecords[n].Time);
            if (const uint32_t n = b->SampleCount)
                text += Format("\n      last sample %u bytes at %u", b->SampleRecords[n - 1].Size,
                               b->SampleRecords[n - 1].TempOffset);
        }
    }
    if (const FragmentWriter *f = w.Fragments) {
        text += Format("\n  fragments: %u written, file end %llu%s%s, leading %zu from %llu", f->Sequence,
                       (unsigned long long)f->FileEnd, f->HeaderWritten ? "" : ", no header",
                       f->Failed ? ", failed" : "", f->Leading, (unsigned long long)f->FragmentStart);
        if (f->CutPending) text += Format(", cut at %llu", (unsigned long long)f->CutTime);
        for (const RecordingTrack &t : f->Tracks)
            if (t.Track != nullptr)
                text += Format("\n    track %u: %zu frames held (%zu bytes), last duration %u, %zu index entries",
                               t.Track->TrackId, t.FrameCount, t.ByteCount, t.LastDuration, t.IndexCount);
    }
    return text + "\n";
}

// One case of a script: a handle made by MP4FileNew and its temp file names.
struct Case {
    TempPath output{".mp4"}, videoTemp{".video"}, audioTemp{".audio"}, fullLink{".full"};
    MP4_local_file *file = nullptr;
    // The frames a fragmented handle took, per track type, as the modern
    // reader must give them back: time from the track's first, size, CRC,
    // sync flag, composition offset.
    std::map<int32_t, std::vector<std::vector<uint32_t>>> taken;

    Case() {
        CaptureStream quiet(stdout);
        EXPECT_EQ(MP4FileNew(&file, output.c_str()), 1);
    }
    ~Case() { Close(); Limit({}); }
    void Close() {
        CaptureStream quiet(stdout), quieter(stderr);
        if (file != nullptr) MP4FileFlush(file);
    }
    // A file-size limit of so many bytes (none without), which makes writes
    // past it fail instead of ending the process.
    static std::string Limit(const Args &a) {
        static const rlimit kWas = [] { rlimit was{}; getrlimit(RLIMIT_FSIZE, &was); return was; }();
        rlimit limit = kWas;
        if (a.count("bytes")) limit.rlim_cur = Num(a, "bytes", 0);
        std::signal(SIGXFSZ, a.count("bytes") ? SIG_IGN : SIG_DFL);
        return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? "" : "  setrlimit failed\n";
    }
    MP4_local_file *Handle(const Args &a) const { return a.count("handle") ? nullptr : file; }

    const char *Temp(const std::string &kind) {
        if (kind == "full" && symlink("/dev/full", fullLink.c_str()) != 0) return nullptr;  // always full
        const std::map<std::string, const char *> kTemps = {
            {"video", videoTemp.c_str()}, {"audio", audioTemp.c_str()}, {"output", output.c_str()},
            {"missing", "/nonexistent-folder/video.tmp"}, {"full", fullLink.c_str()}};
        return kTemps.count(kind) ? kTemps.at(kind) : nullptr;
    }

    // Frame i of an "addv" or "adda": size+i%mod bytes of the pattern from
    // seed+i, at times[i] or time+i*step; counts of the results.
    std::string AddFrames(bool video, const Args &a) {
        const std::vector<uint32_t> times = List(a, "times"), keys = List(a, "keys"),
                                    flags = List(a, "flags"), cts = List(a, "cts");
        const uint32_t every = Num(a, "keyevery", 0);
        std::map<int32_t, uint32_t> counts;
        for (uint32_t i = 0; i < Num(a, "n", times.empty() ? 1 : uint32_t(times.size())); ++i) {
            const uint32_t size = Num(a, "size", 4) + i % Num(a, "mod", 1);
            const Bytes frame = a.count("null") ? Bytes() : Pattern(size, uint8_t(Num(a, "seed", 0) + i));
            const uint32_t time = i < times.size() ? times[i] : Num(a, "time", 0) + i * Num(a, "step", 40);
            const uint8_t *data = a.count("null") ? nullptr : frame.data();
            uint32_t flag = i < flags.size() ? flags[i] : Num(a, "key", 0);
            if ((every != 0 && i % every == 0) || std::count(keys.begin(), keys.end(), i)) flag = 1;
            const int32_t result = video ? AddVideoFrame(Handle(a), size, data, i < cts.size() ? cts[i] : 0, time,
                                                         flag, uint8_t(Num(a, "ctflag", 0)))
                                         : AddAudioFrame(Handle(a), size, data, time);
            ++counts[result];
            if (result == 1 && file->write.Fragments != nullptr)
                taken[video ? 1 : 2].push_back({time, size,
                                 Crc32(frame.data(), frame.size()), !video || flag == 1,
                                 Num(a, "ctflag", 0) != 0 && i < cts.size() ? cts[i] : 0});
        }
        std::string text = "  =";
        for (const auto &[result, count] : counts)
            text += " " + std::to_string(result) + (count > 1 ? " x" + std::to_string(count) : "");
        return text + "\n";
    }

    std::string Flush(const Args &a) {
        const std::string result = "  = " + std::to_string(MP4FileFlush(Handle(a))) + "\n";
        if (a.count("handle")) return result;
        file = nullptr;
        // from=N: the bytes from N on, of a file mostly sparse.
        std::ifstream in(output.path(), std::ios::binary);
        in.seekg(std::stoll(a.count("from") ? a.at("from") : "0"));
        const Bytes written{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        std::string text = result + Format("  file of %zu bytes\n", written.size());
        if (FileExists(videoTemp.path()) || FileExists(audioTemp.path())) text += "  a temp file is left\n";
        DumpAtoms(written, 0, written.size(), "  ", text);
        return text + (taken.empty() ? "" : ReadBack());
    }

    // Each track of the fragmented file through the modern reader, sample
    // for sample against the frames taken.
    std::string ReadBack() {
        MP4_local_file *read = nullptr;
        std::string text;
        if (MP4FileOpenEx(&read, output.c_str(), 1, MP4_OPEN_MODERN) != 1) return "  read back: no file\n";
        uint32_t tracks = 0;
        MP4GetTrackCount(read, &tracks);
        for (uint32_t t = 0; t < tracks; ++t) {
            MP4TrackInfo info{};
            MP4GetTrackInfo(read, t, &info);
            const std::vector<std::vector<uint32_t>> &frames = taken[info.TrackType];
            size_t same = 0;
            for (; same < info.SampleCount && same < frames.size(); ++same) {
                MP4SampleInfo sample{};
                MP4Sample *bytes = nullptr;
                MP4GetSampleInfo(read, info.TrackId, info.TrackType, uint32_t(same), &sample);
                MP4ReadSample(read, info.TrackId, info.TrackType, uint32_t(same), &bytes);
                const std::vector<uint32_t> got = {uint32_t(sample.DecodeTime), sample.Size,
                                                   bytes != nullptr ? Crc32(bytes->Data, bytes->Size) : Crc32(nullptr, 0),
                                                   sample.IsKeyFrame, uint32_t(sample.CompositionOffset)};
                SampleDataFree(&bytes);
                if (got != std::vector<uint32_t>{frames[same][0] - frames[0][0], frames[same][1], frames[same][2],
                                                 frames[same][3], frames[same][4]})
                    break;
            }
            text += Format("  read back: track %u, %u samples in %u fragments; the first %zu of the %zu frames taken as written\n",
                           info.TrackId, info.SampleCount, info.FragmentCount, same, frames.size());
        }
        MP4FileClose(&read);
        return text;
    }

    std::string Call(const std::string &command, const Args &a) {
        const std::map<std::string, uint32_t> kTypes = {{"video", 1}, {"audio", 2}, {"od", 4}, {"scene", 5}};
        if (kTypes.count(command) || command == "track") {
            const uint32_t type = kTypes.count(command) ? kTypes.at(command) : Num(a, "type", 0);
            const Bytes config = Data(a, "cfg");
            const char *temp = Temp(a.count("temp") ? a.at("temp") : type == 1 ? "video" : type == 2 ? "audio" : "");
            return "  = " + std::to_string(CreateTrack(
                Handle(a), type, Num(a, "w", type == 1 ? 176 : 0), Num(a, "h", type == 1 ? 144 : 0),
                uint16_t(Num(a, "tr", 25)), Num(a, "ts", type == 2 ? 44100 : 1000), Num(a, "pl", 3),
                Num(a, "prof", 0), Num(a, "ch", 0), Num(a, "rate", 0), Num(a, "cfgsize", uint32_t(config.size())),
                config.empty() ? nullptr : config.data(), temp, uint8_t(Num(a, "ct", 0)))) + "\n";
        }
        if (command == "addv" || command == "adda") return AddFrames(command == "addv", a);
        if (command == "set") {  // as if so many bytes had gone to a temp file or a window
            WriteForm &w = file->write;
            if (a.count("vbytes")) w.VideoIntake.TotalBytes = Num(a, "vbytes", 0);
            if (a.count("abytes")) w.AudioIntake.TotalBytes = Num(a, "abytes", 0);
            if (a.count("vpeak")) w.VideoTrack->PeakBytes = int32_t(Num(a, "vpeak", 0));
            // A chain that doesn't add up: the track can't be serialised.
            const std::map<std::string, TrackNode *> kTracks = {
                {"video", w.VideoTrack}, {"audio", w.AudioTrack}, {"od", w.OdTrack}, {"scene", w.SceneTrack}};
            if (a.count("broken")) kTracks.at(a.at("broken"))->SampleBase = 1;
            // As if the fragmented file ended at so many bytes, and its
            // frames held so many ticks.
            if (FragmentWriter *f = w.Fragments) {
                if (a.count("fileend")) f->FileEnd = std::stoull(a.at("fileend"));
                for (RecordingTrack &t : f->Tracks)
                    for (size_t i = 0; i < t.FrameCount; ++i) t.Frames[i].Time += std::stoull(a.count("ticks") ? a.at("ticks") : "0");
            }
            return "";
        }
        if (command == "state") return State(file);
        if (command == "temp") {  // a track's temp file removed, or grown behind the library
            const std::string path = a.count("video") ? videoTemp.path() : audioTemp.path();
            if (a.count("remove")) return std::remove(path.c_str()) == 0 ? "" : "  remove failed\n";
            FILE *append = std::fopen(path.c_str(), "ab");
            std::fputs(a.at("append").c_str(), append);
            std::fclose(append);
            return "";
        }
        if (command == "new") {
            const std::string path = a.count("long") ? "/tmp/" + std::string(251, 'x')
                                     : a.count("missing") ? "/nonexistent-folder/out.mp4"
                                     : a.count("here")    ? videoTemp.path() : "";
            MP4_local_file *made = reinterpret_cast<MP4_local_file *>(1);
            const int32_t result =
                MP4FileNew(a.count("nohandle") ? nullptr : &made, path.empty() ? nullptr : path.c_str());
            return Format("  = %d%s%s\n", result, made == nullptr ? " handle null" : "",
                          !path.empty() && FileExists(path) ? " created" : "");
        }
        if (command == "newex") {  // this case's handle made again by MP4FileNewEx, or a refusal
            Close();
            std::remove(output.c_str());
            taken.clear();
            const char *path = a.count("full") ? "/dev/full" : a.count("missing") ? "/nonexistent-folder/out.mp4"
                                                                                  : output.c_str();
            file = reinterpret_cast<MP4_local_file *>(1);
            const int32_t result = MP4FileNewEx(a.count("nohandle") ? nullptr : &file, path, Num(a, "flags", 0));
            const std::string text = Format("  = %d%s\n", result, file == nullptr ? " handle null" : "");
            if (result != 1) file = nullptr;
            return text;
        }
        if (command == "limit") return Limit(a);
        return command == "flush" ? Flush(a) : "  unknown command\n";
    }
};

std::string Transcript(const std::string &script) {
    std::istringstream lines(script);
    std::string out;
    std::unique_ptr<Case> current;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        std::string command, word;
        words >> command;
        if (command == "case") {
            current = std::make_unique<Case>();
            out += "\n== " + line.substr(5) + "\n";
            continue;
        }
        Args args;
        out += "> " + command;
        while (words >> word) {
            const size_t eq = word.find('=');
            args[word.substr(0, eq)] = eq == std::string::npos ? "" : word.substr(eq + 1);
            out += " " + word;
        }
        CaptureStream printedOut(stdout), printedErr(stderr);
        const std::string results = current->Call(command, args);
        std::string printed[] = {printedOut.Text(), printedErr.Text()};
        for (int e = 0; e < 2; ++e) {
            for (size_t at; (at = printed[e].find('\n')) != std::string::npos;) printed[e].replace(at, 1, "\\n");
            if (!printed[e].empty()) out += (e ? "\n  stderr: " : "\n  stdout: ") + printed[e];
        }
        out += "\n" + results;
    }
    return out;
}

class Golden : public ::testing::TestWithParam<const char *> {};

TEST_P(Golden, TranscriptMatches) {
    const std::string base = FixturePath(std::string("written/") + GetParam());
    const Bytes script = ReadWholeFile(base + ".script");
    ASSERT_FALSE(script.empty()) << base;
    ExpectGolden(std::string("written/") + GetParam() + ".golden",
                 Transcript(std::string(script.begin(), script.end())));
}

// Unreachable through the API, whose blocks have fixed sizes and whose
// tracks always carry their "trak" atom.
TEST(TrackBlocks, RefuseNoSlotsNoBlockAndNoTrakAtom) {
    TrackNode head{}, *holder = &head, *none = nullptr;
    EXPECT_EQ(AddTrackBlock(&holder, 0), -97);
    EXPECT_EQ(AddTrackBlock(&none, 1), -98);
    EXPECT_EQ(AddTrackBlock(nullptr, 1), -98);
    EXPECT_EQ(head.SampleCapacity, 0u);
    EXPECT_EQ(SerializeTrack(&head), -99);
    AtomNode stsd{}, entry{};  // whose first child is no sample entry
    uint8_t record[64] = {};
    CopyAtomName(stsd.AtomName, "stsd"), CopyAtomName(entry.AtomName, "free");
    stsd.realStructure = record, stsd.FirstChild = &entry;
    CaptureStream out(stdout);
    EXPECT_EQ(SerializeTrackAtom(&stsd, &head), -99);
    EXPECT_EQ(out.Text(), "the Stsd atom does not contain mp4v or mp4a or mp4s child atom\n");
}

INSTANTIATE_TEST_SUITE_P(Written, Golden,
                         ::testing::Values("new_file", "headers", "layout", "tables", "intake", "fragmented"),
                         [](const ::testing::TestParamInfo<const char *> &info) { return std::string(info.param); });

}  // namespace
