#include "support/mini_mp4.h"

#include <algorithm>
#include <sstream>

namespace testing_support {
namespace {

const Bytes kMatrix = Hex("00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000");

Bytes Mp4aEntry() {
    return Atom("mp4a", {Zeros(6), U16(1), Zeros(8), U16(2), U16(16), U16(0), U16(0), U16(44100), U16(0), Esds("12 10")});
}

// A full atom whose body is big-endian words.
Bytes Words(const char *name, const std::vector<uint32_t> &words) {
    Bytes body;
    for (uint32_t word : words) body = Cat({body, U32(word)});
    return FullAtom(name, 0, {body});
}

// "trak" for samples that begin at `offset` in the file.
Bytes Trak(const MiniTrack &track, uint32_t offset) {
    const bool video = track.handler == "vide";
    const uint32_t count = uint32_t(track.samples.size());
    std::vector<uint32_t> sizes = {0, count}, chunks = {0}, sync = {uint32_t(track.syncSamples.size())};
    for (uint32_t i = 0; i < count; ++i) {
        if (i % track.samplesPerChunk == 0) chunks.push_back(offset);
        sizes.push_back(uint32_t(track.samples[i].size()));
        offset += sizes.back();
    }
    chunks[0] = uint32_t(chunks.size() - 1);
    sync.insert(sync.end(), track.syncSamples.begin(), track.syncSamples.end());
    const std::vector<std::pair<std::string, Bytes>> children = {
        {"stsd", FullAtom("stsd", 0, {U32(1), track.sampleEntry.empty() ? (video ? VisualEntry("mp4v", 176, 144, {}) : Mp4aEntry()) : track.sampleEntry})},
        {"stts", Words("stts", {1, count, track.delta})},
        {"stss", track.withStss ? Words("stss", sync) : Bytes{}},
        {"stsc", Words("stsc", {1, 1, track.samplesPerChunk, 1})},
        {"stsz", Words("stsz", sizes)},
        {"stco", Words("stco", chunks)},
    };
    Bytes stbl;
    for (const auto &[name, atom] : children) {
        auto replaced = track.replace.find(name);
        stbl = Cat({stbl, replaced != track.replace.end() ? replaced->second : atom});
    }
    const Bytes minf = Atom("minf", {video ? FullAtom("vmhd", 1, {Zeros(8)}) : FullAtom("smhd", 0, {Zeros(4)}),
                                     Atom("dinf", {FullAtom("dref", 0, {U32(1), FullAtom("url ", 1)})}), Atom("stbl", {stbl})});
    const Bytes mdhd = FullAtom("mdhd", 0, {U32(0), U32(0), U32(1000), U32(count * track.delta), U16(0x55C4), U16(0)});
    const Bytes hdlr = FullAtom("hdlr", 0, {U32(0), Text(track.handler.substr(0, 4)), Zeros(12), Text("mini"), U8(0)});
    const Bytes tkhd =
        FullAtom("tkhd", 7, {U32(0), U32(0), U32(track.trackId), Zeros(20), U16(0), U16(0), kMatrix, U32(176 << 16), U32(144 << 16)});
    return Atom("trak", {tkhd, Atom("mdia", {mdhd, hdlr, minf})});
}

// "moov" for samples that begin at `dataStart` in the file.
Bytes Moov(const std::vector<MiniTrack> &tracks, uint32_t dataStart) {
    Bytes traks;
    uint32_t nextId = 1, offset = dataStart;
    for (const MiniTrack &track : tracks) {
        traks = Cat({traks, Trak(track, offset)});
        offset += uint32_t(Cat(track.samples).size());
        nextId = std::max(nextId, track.trackId + 1);
    }
    return Atom("moov", {FullAtom("mvhd", 0, {U32(0), U32(0), U32(1000), U32(0), U32(0x10000), U16(0x100), Zeros(10), kMatrix,
                                              Zeros(24), U32(nextId)}), traks});
}

const Bytes kFtyp = Atom("ftyp", {Text("isom"), U32(0x200), Text("isom")});

Bytes Mdat(const std::vector<MiniTrack> &tracks) {
    Bytes data;
    for (const MiniTrack &track : tracks) data = Cat({data, Cat(track.samples)});
    return Atom("mdat", {data});
}

// Samples begin behind "ftyp" (20 bytes) and the "mdat" head (8 bytes);
// the size of "moov" doesn't depend on the offsets it holds.
Bytes Build(const std::vector<MiniTrack> &tracks, bool moovFirst) {
    if (moovFirst) return Cat({kFtyp, Moov(tracks, 28 + uint32_t(Moov(tracks, 0).size())), Mdat(tracks)});
    return Cat({kFtyp, Mdat(tracks), Moov(tracks, 28)});
}

// A plane's start code behind `lead` bytes of 0x55, with `codingType` in
// the top two bits of the byte behind it, then `payload` bytes.
Bytes Vop(uint8_t codingType, size_t lead, size_t payload) {
    Bytes out = Cat({Bytes(lead, 0x55), Hex("00 00 01 B6"), U8(uint8_t(codingType << 6))});
    for (size_t i = 0; i < payload; ++i) out.push_back(uint8_t(0x10 + i));
    return out;
}

std::vector<uint32_t> Numbers(const std::string &list) {
    std::vector<uint32_t> out;
    std::istringstream in(list);
    for (std::string n; list != "-" && std::getline(in, n, ',');) out.push_back(uint32_t(std::stoul(n)));
    return out;
}

// The sample moved to the last two bytes of the file.
void Cut(MiniTrack &track, size_t index) {
    std::vector<uint32_t> offsets = {uint32_t(track.samples.size()), 28};
    for (size_t i = 1; i < track.samples.size(); ++i) offsets.push_back(offsets.back() + uint32_t(track.samples[i - 1].size()));
    offsets[index + 1] = uint32_t(Build({track}, false).size()) - 2;
    track.samplesPerChunk = 1;
    track.replace["stco"] = Words("stco", offsets);
}

}  // namespace

Bytes VisualEntry(const char *name, uint16_t width, uint16_t height, const Bytes &children) {
    return Atom(name, {Zeros(6), U16(1), Zeros(16), U16(width), U16(height), U32(0x480000),
                       U32(0x480000), U32(0), U16(1), Zeros(32), U16(0x18), U16(0xFFFF), children});
}

Bytes Esds(const std::string &config) {
    const Bytes asc = Hex(config);
    return FullAtom("esds", 0, {U8(0x03), U8(uint8_t(23 + asc.size())), Hex("00 01 00 04"), U8(uint8_t(15 + asc.size())),
                                Hex("40 15"), Zeros(11), U8(0x05), U8(uint8_t(asc.size())), asc, Hex("06 01 02")});
}

Bytes MiniFile(const std::string &line, std::vector<MiniTrack> *tracks) {
    std::vector<MiniTrack> built;
    std::vector<std::string> renames;
    std::vector<uint32_t> planes;  // of the last "scan"
    size_t lead = 0, first = 6;
    bool moovFirst = false;
    std::istringstream in(line);
    for (std::string word, arg; in >> word;) {
        if (word == ";") continue;
        in >> arg;
        MiniTrack *track = built.empty() ? nullptr : &built.back();
        if (word == "video" || word == "audio") {
            built.emplace_back();
            built.back().handler = word == "video" ? "vide" : "soun";
            built.back().withStss = word == "video";
            built.back().syncSamples = {1};
            for (uint32_t i = 0; i < std::stoul(arg); ++i) built.back().samples.push_back({uint8_t(i), uint8_t(i >> 8), 0xA5, 1});
        } else if (word == "scan" || word == "lead" || word == "first") {
            if (word == "scan") {
                built.emplace_back();
                planes = Numbers(arg);
                lead = 0, first = 6;
            } else {
                (word == "lead" ? lead : first) = std::stoul(arg);
            }
            built.back().samples.clear();
            for (uint32_t type : planes) built.back().samples.push_back(Vop(uint8_t(type), lead, built.back().samples.empty() ? first : 6));
        } else if (word == "keys") {
            track->syncSamples.clear();
            for (uint32_t key : Numbers(arg)) track->syncSamples.push_back(key + 1);
        } else if (word == "id" || word == "ticks" || word == "chunk") {
            (word == "id" ? track->trackId : word == "ticks" ? track->delta : track->samplesPerChunk) = uint32_t(std::stoul(arg));
            if (word == "id")
                for (Bytes &sample : track->samples) sample.at(3) = uint8_t(track->trackId);
        } else if (word == "handler") {
            track->handler = arg;
        } else if (word == "moov") {
            moovFirst = true;
        } else if (word == "entry") {
            uint32_t width = 0, height = 0;
            std::string child;
            if (arg == "mp4v" || arg == "s263") in >> width >> height;
            if (arg == "mp4v") in >> child;
            track->sampleEntry = arg == "mp4v" ? VisualEntry("mp4v", uint16_t(width), uint16_t(height), Hex(child == "-" ? "" : child))
                                 : arg == "s263" ? VisualEntry("s263", uint16_t(width), uint16_t(height), Atom("d263", {Text("FFMP"), U8(0), U8(10), U8(0)}))
                                 : arg == "mp4a" ? Mp4aEntry() : Atom(arg.c_str(), {Zeros(78)});
        } else if (word == "sample" || word == "empty") {
            if (word == "sample") track->samples.push_back(Hex(arg));
            else track->samples[std::stoul(arg)].clear();
        } else if (word == "cut") {
            Cut(*track, std::stoul(arg));
        } else if (word == "rename") {
            std::string to, nth;
            in >> to >> nth;
            renames.insert(renames.end(), {arg, to, nth});
        } else {
            track->replace[word == "co64" ? "stco" : word == "no" ? arg : word] =
                word == "no" ? Bytes{} : Words(word.c_str(), Numbers(arg));
        }
    }
    Bytes image = Build(built, moovFirst);
    for (size_t r = 0; r < renames.size(); r += 3) {
        auto at = image.begin() - 1;
        for (int i = 0; i < std::stoi(renames[r + 2]); ++i) at = std::search(at + 1, image.end(), renames[r].begin(), renames[r].end());
        std::copy(renames[r + 1].begin(), renames[r + 1].end(), at);
    }
    if (tracks != nullptr) *tracks = built;
    return image;
}

OpenedFile::OpenedFile(const Bytes &bytes, int32_t mode, int64_t flags) : file(bytes) {
    CaptureStream capture(stdout);
    result = flags < 0 ? MP4FileOpen(&handle, file.c_str(), mode) : MP4FileOpenEx(&handle, file.c_str(), mode, uint32_t(flags));
    output = capture.Text();
}

OpenedFile::~OpenedFile() { MP4FileClose(&handle); }

}  // namespace testing_support
