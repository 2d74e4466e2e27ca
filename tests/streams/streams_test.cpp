// The stream converters on memory, one row of tests/data/streams/converters.rows
// per case (the form a sample entry gets, its configuration and samples,
// each edge a row), and what each call gave and appended, compared with
// tests/data/streams/converters.txt in one assertion.
#include <sstream>

#include "media/media_support.h"
#include "streams/streams.h"

using namespace testing_support;

namespace {

// "N*HH" is N bytes of HH; anything else is hex.
Bytes Part(const std::string &text) {
    const size_t star = text.find('*');
    if (star == std::string::npos) return Hex(text);
    return Bytes(std::stoul(text.substr(0, star)), Hex(text.substr(star + 1))[0]);
}

// The bytes in hex, or for long outputs their start, size and CRC-32.
std::string Shown(const StreamBuffer &out) {
    const size_t shown = out.Size > 64 ? 32 : out.Size;
    std::string text = media_support::HexBytes(out.Data, shown);
    if (shown < out.Size) text += Format(" ... %zu bytes, crc32 %08x", out.Size, Crc32(out.Data, out.Size));
    return text;
}

std::string Result(int32_t result, const StreamState &state, StreamBuffer *out) {
    std::string text = std::to_string(result);
    if (state.Message[0] != '\0') text += std::string(" \"") + state.Message + "\"";
    text += ":" + Shown(*out);
    out->Size = 0;
    return text;
}

// Row: what | format | facts (key=value) | configuration | sample entry | samples, where a
// sample is parts joined by '+' ('-' none), '~' in front for one that is no sync sample,
// and "Nx" in front of that for N such samples.
std::string RunRow(const std::vector<std::string> &row) {
    std::string out = "== " + row[0] + "\n";
    StreamTrack track{};
    std::snprintf(track.Format, sizeof track.Format, "%-4s", row[1].c_str());  // "raw " loses its blank in the row
    track.TrackId = 1;
    track.TrackType = MP4_TRACK_AUDIO;
    track.Timescale = 48000;
    track.SampleRate = 48000;
    track.Channels = 1;
    uint64_t tick = 960, bytes = UINT64_MAX, largest = UINT64_MAX;
    std::istringstream facts(row[2]);
    for (std::string fact; facts >> fact && fact != "-";) {
        const std::string key = fact.substr(0, fact.find('='));
        const uint64_t value = std::stoull(fact.substr(key.size() + 1));
        if (key == "type") track.TrackType = int32_t(value);
        if (key == "timescale") track.Timescale = uint32_t(value);
        if (key == "rate") track.SampleRate = uint32_t(value);
        if (key == "channels") track.Channels = uint32_t(value);
        if (key == "size") track.Width = track.Height = uint32_t(value);
        if (key == "tick") tick = value;
        if (key == "bytes") bytes = value;
        if (key == "largest") largest = value;
    }
    const Bytes config = row[3] == "-" ? Bytes{} : Hex(row[3]);
    const Bytes entry = row[4] == "-" ? Bytes{} : Hex(row[4]);
    auto configBlock = media_support::Block(config, config.size());
    auto entryBlock = media_support::Block(entry, entry.size());
    track.Config = row[3] == "-" ? nullptr : configBlock.get();
    track.ConfigSize = config.size();
    track.Entry = row[4] == "-" ? nullptr : entryBlock.get();
    track.EntrySize = entry.size();
    std::vector<Bytes> samples;
    std::vector<bool> sync;
    std::istringstream words(row.size() > 5 ? row[5] : "");
    for (std::string word; words >> word;) {
        const size_t times = word.find('x') == std::string::npos ? 1 : std::stoul(word);
        word.erase(0, word.find('x') + 1);
        Bytes sample;
        std::istringstream parts(word.substr(word[0] == '~'));
        for (std::string part; std::getline(parts, part, '+');)
            if (part != "-") sample = Cat({sample, Part(part)});
        for (size_t i = 0; i < times; ++i) samples.push_back(sample), sync.push_back(word[0] != '~');
        track.SampleBytes += times * sample.size();
        track.LargestSample = std::max<uint32_t>(track.LargestSample, uint32_t(sample.size()));
    }
    track.SampleCount = uint32_t(samples.size());
    track.Duration = track.SampleCount * tick;
    if (bytes != UINT64_MAX) track.SampleBytes = bytes;
    if (largest != UINT64_MAX) track.LargestSample = uint32_t(largest);

    const StreamForm *form = FindStreamForm(track);
    if (form == nullptr) return out + "no form\n";
    StreamState state{};
    StreamBuffer buffer{};
    const int32_t started = StartStream(&state, form, track, &buffer);
    out += std::string("form ") + form->Name + "\nstart " + Result(started, state, &buffer) + "\n";
    for (size_t i = 0; started == kStreamDone && i < samples.size(); ++i) {
        auto block = media_support::Block(samples[i], samples[i].size());
        const StreamSample sample{samples[i].empty() ? nullptr : block.get(), samples[i].size(), i * tick, tick, sync[i]};
        const int32_t result = AddStreamSample(&state, sample, &buffer);
        if (result != kStreamDone || buffer.Size != 0)  // samples held back (Ogg pages) are not listed
            out += Format("sample %zu ", i) + Result(result, state, &buffer) + "\n";
    }
    if (started == kStreamDone) out += "finish " + Result(FinishStream(&state, &buffer), state, &buffer) + "\n";
    EndStream(&state);
    FreeStreamBuffer(&buffer);
    return out;
}

TEST(StreamConverters, EveryRowGivesItsListing) {
    std::string listing;
    for (const auto &row : ReadRows("streams/converters.rows")) {
        ASSERT_GE(row.size(), 5u) << row[0];  // no samples: the last field is empty
        listing += RunRow(row);
    }
    ExpectGolden("streams/converters.txt", listing);
}

}  // namespace
