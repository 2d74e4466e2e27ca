#include "support/mini_mp4.h"

namespace testing_support {

namespace {

Bytes Join(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes Matrix() {
    return Cat({U32(0x10000), U32(0), U32(0), U32(0), U32(0x10000), U32(0), U32(0), U32(0),
                U32(0x40000000)});
}

Bytes Mvhd(uint32_t nextTrackId) {
    return FullAtom("mvhd", 0,
                    {U32(0), U32(0), U32(1000), U32(0), U32(0x10000), U16(0x100), Zeros(10),
                     Matrix(), Zeros(24), U32(nextTrackId)});
}

Bytes Tkhd(uint32_t trackId) {
    return FullAtom("tkhd", 7,
                    {U32(0), U32(0), U32(trackId), U32(0), U32(0), Zeros(8), U16(0), U16(0),
                     U16(0), U16(0), Matrix(), U32(176 << 16), U32(144 << 16)});
}

Bytes Mdhd(uint32_t timescale, uint32_t duration) {
    return FullAtom("mdhd", 0, {U32(0), U32(0), U32(timescale), U32(duration), U16(0x55C4),
                                U16(0)});
}

Bytes Hdlr(const std::string &handler) {
    return FullAtom("hdlr", 0, {U32(0), Text(handler.substr(0, 4)), Zeros(12), Text("mini"),
                                U8(0)});
}

Bytes Dinf() {
    return Atom("dinf", {FullAtom("dref", 0, {U32(1), FullAtom("url ", 1)})});
}

Bytes Stbl(const MiniTrack &track, uint32_t firstOffset) {
    const bool video = track.handler == "vide";
    Bytes entry = track.sampleEntry;
    if (entry.empty()) entry = video ? Mp4vEntry(176, 144) : Mp4aEntry();

    std::vector<uint32_t> sizes;
    for (const Bytes &sample : track.samples) sizes.push_back(uint32_t(sample.size()));
    std::vector<uint32_t> chunks;
    uint32_t offset = firstOffset;
    for (size_t i = 0; i < track.samples.size(); ++i) {
        if (i % track.samplesPerChunk == 0) chunks.push_back(offset);
        offset += sizes[i];
    }

    std::vector<std::pair<std::string, Bytes>> children = {
        {"stsd", FullAtom("stsd", 0, {U32(1), entry})},
        {"stts", Stts({{uint32_t(track.samples.size()), track.delta}})},
        {"stss", track.withStss ? Stss(track.syncSamples) : Bytes{}},
        {"stsc", Stsc({{1, track.samplesPerChunk}})},
        {"stsz", StszTable(sizes)},
        {"stco", Stco(chunks)},
    };
    Bytes body;
    for (auto &[name, atom] : children) {
        auto replaced = track.replace.find(name);
        const Bytes &chosen = replaced != track.replace.end() ? replaced->second : atom;
        body.insert(body.end(), chosen.begin(), chosen.end());
    }
    Bytes extra = Join(track.extraStbl);
    body.insert(body.end(), extra.begin(), extra.end());
    return Atom("stbl", {body});
}

Bytes Trak(const MiniTrack &track, uint32_t firstOffset) {
    const bool video = track.handler == "vide";
    Bytes header = video ? FullAtom("vmhd", 1, {Zeros(8)}) : FullAtom("smhd", 0, {Zeros(4)});
    uint32_t duration = uint32_t(track.samples.size()) * track.delta;
    Bytes minf = Atom("minf", {header, Dinf(), Stbl(track, firstOffset)});
    Bytes mdia = Atom("mdia", {Mdhd(track.timescale, duration), Hdlr(track.handler), minf});
    return Atom("trak", {Tkhd(track.trackId), mdia});
}

}  // namespace

uint32_t MiniSampleOffset(const std::vector<MiniTrack> &tracks, size_t track, size_t index) {
    uint32_t offset = kMiniDataStart;
    for (size_t t = 0; t < tracks.size(); ++t) {
        for (size_t i = 0; i < tracks[t].samples.size(); ++i) {
            if (t == track && i == index) return offset;
            offset += uint32_t(tracks[t].samples[i].size());
        }
    }
    return offset;
}

namespace {

Bytes Ftyp() { return Atom("ftyp", {Text("isom"), U32(0x200), Text("isom")}); }

// "moov" for samples that begin at `dataStart` in the file.
Bytes Moov(const std::vector<MiniTrack> &tracks, uint32_t dataStart) {
    std::vector<Bytes> traks;
    uint32_t nextId = 1;
    for (size_t t = 0; t < tracks.size(); ++t) {
        uint32_t first = MiniSampleOffset(tracks, t, 0) - kMiniDataStart + dataStart;
        traks.push_back(Trak(tracks[t], first));
        if (tracks[t].trackId >= nextId) nextId = tracks[t].trackId + 1;
    }
    return Atom("moov", {Mvhd(nextId), Join(traks)});
}

Bytes Mdat(const std::vector<MiniTrack> &tracks) {
    Bytes data;
    for (const MiniTrack &track : tracks) data = Cat({data, Join(track.samples)});
    return Atom("mdat", {data});
}

}  // namespace

Bytes BuildMiniMp4(const std::vector<MiniTrack> &tracks) {
    return Cat({Ftyp(), Mdat(tracks), Moov(tracks, kMiniDataStart)});
}

Bytes BuildMiniMp4MoovFirst(const std::vector<MiniTrack> &tracks) {
    // The size of "moov" doesn't depend on the offsets it holds.
    uint32_t moovSize = uint32_t(Moov(tracks, 0).size());
    return Cat({Ftyp(), Moov(tracks, kMiniDataStart + moovSize), Mdat(tracks)});
}

std::vector<Bytes> NumberedSamples(size_t count, size_t size) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; ++i) out.push_back(Bytes(size, uint8_t(i + 1)));
    return out;
}

MiniTrack VideoTrack(uint32_t id, std::vector<Bytes> samples, std::vector<uint32_t> sync) {
    MiniTrack track;
    track.trackId = id;
    track.samples = std::move(samples);
    track.withStss = true;
    track.syncSamples = std::move(sync);
    return track;
}

MiniTrack AudioTrack(uint32_t id, std::vector<Bytes> samples) {
    MiniTrack track;
    track.handler = "soun";
    track.trackId = id;
    track.samples = std::move(samples);
    return track;
}

MiniTrack KeyedVideo(uint32_t count, const std::vector<uint32_t> &keys, uint32_t id) {
    MiniTrack track = KeyedAudio(count, id);
    track.handler = "vide";
    track.withStss = true;
    for (uint32_t key : keys) track.syncSamples.push_back(key + 1);
    return track;
}

MiniTrack KeyedAudio(uint32_t count, uint32_t id) {
    MiniTrack track;
    track.handler = "soun";
    track.trackId = id;
    for (uint32_t i = 0; i < count; ++i)
        track.samples.push_back({uint8_t(i), uint8_t(i >> 8), 0xA5, uint8_t(id)});
    return track;
}

Bytes Mp4vEntry(uint16_t width, uint16_t height, const Bytes &child) {
    return Atom("mp4v", {Zeros(6), U16(1), Zeros(16), U16(width), U16(height), U32(0x480000),
                         U32(0x480000), U32(0), U16(1), Zeros(32), U16(0x18), U16(0xFFFF),
                         child});
}

Bytes S263Entry(uint16_t width, uint16_t height) {
    Bytes d263 = Atom("d263", {Text("FFMP"), U8(0), U8(10), U8(0)});
    return Atom("s263", {Zeros(6), U16(1), Zeros(16), U16(width), U16(height), U32(0x480000),
                         U32(0x480000), U32(0), U16(1), Zeros(32), U16(0x18), U16(0xFFFF),
                         d263});
}

Bytes Mp4aEntry() {
    Bytes esds = FullAtom("esds", 0, {Hex("03 19 00 01 00 04 11 40 15 00 00 00 00 00 00 00 00 "
                                          "00 00 00 05 02 12 10 06 01 02")});
    return Atom("mp4a", {Zeros(6), U16(1), Zeros(8), U16(2), U16(16), U16(0), U16(0),
                         U16(44100), U16(0), esds});
}

Bytes Vop(uint8_t codingType, size_t lead, size_t payload) {
    Bytes out(lead, 0x55);
    Bytes code = Hex("00 00 01 B6");
    out.insert(out.end(), code.begin(), code.end());
    out.push_back(uint8_t(codingType << 6));
    for (size_t i = 0; i < payload; ++i) out.push_back(uint8_t(0x10 + i));
    return out;
}

Bytes Stts(const std::vector<std::pair<uint32_t, uint32_t>> &entries) {
    Bytes body = U32(uint32_t(entries.size()));
    for (auto [count, delta] : entries) body = Cat({body, U32(count), U32(delta)});
    return FullAtom("stts", 0, {body});
}

Bytes Stsc(const std::vector<std::pair<uint32_t, uint32_t>> &entries) {
    Bytes body = U32(uint32_t(entries.size()));
    for (auto [first, perChunk] : entries) body = Cat({body, U32(first), U32(perChunk), U32(1)});
    return FullAtom("stsc", 0, {body});
}

Bytes Stco(const std::vector<uint32_t> &offsets) {
    Bytes body = U32(uint32_t(offsets.size()));
    for (uint32_t offset : offsets) body = Cat({body, U32(offset)});
    return FullAtom("stco", 0, {body});
}

Bytes Stss(const std::vector<uint32_t> &numbers) {
    Bytes body = U32(uint32_t(numbers.size()));
    for (uint32_t number : numbers) body = Cat({body, U32(number)});
    return FullAtom("stss", 0, {body});
}

Bytes StszTable(const std::vector<uint32_t> &sizes) {
    Bytes body = Cat({U32(0), U32(uint32_t(sizes.size()))});
    for (uint32_t size : sizes) body = Cat({body, U32(size)});
    return FullAtom("stsz", 0, {body});
}

Bytes StszConstant(uint32_t size, uint32_t count) {
    return FullAtom("stsz", 0, {U32(size), U32(count)});
}

OpenedFile::OpenedFile(const Bytes &bytes, int32_t mode) : file(bytes) {
    CaptureStream capture(stdout);
    result = MP4FileOpen(&handle, file.c_str(), mode);
    output = capture.Text();
}

OpenedFile::~OpenedFile() { MP4FileClose(&handle); }

std::vector<ReadSample> ReadAllSamples(MP4_local_file *handle, uint32_t trackId, int32_t type,
                                       int32_t *last, size_t limit) {
    std::vector<ReadSample> samples;
    int32_t result = 0;
    while (samples.size() < limit) {
        MP4Sample *sample = nullptr;
        result = GetNextSample(handle, trackId, type, &sample);
        if (result != 1) break;
        samples.push_back({sample->Time, sample->Size, sample->IsKeyFrame,
                           Bytes(sample->Data, sample->Data + sample->Size)});
        SampleDataFree(&sample);
    }
    if (last != nullptr) *last = result;
    return samples;
}

}  // namespace testing_support
