// Every stream form's converters on arbitrary track bytes: the first byte
// picks a row of the table of forms, the next ones give the track's facts,
// then come its decoder configuration and sample entry (each behind a
// 16-bit length) and its samples (a 16-bit length and a flag byte each),
// every part in a block of exactly its size.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "streams/streams.h"

namespace {

struct Input {
    const uint8_t *data;
    size_t size;
    uint32_t Take(size_t bytes) {  // little-endian; zeros past the end
        uint32_t value = 0;
        for (size_t i = 0; i < bytes; ++i) value |= uint32_t(i < size ? data[i] : 0) << (8 * i);
        const size_t used = bytes < size ? bytes : size;
        data += used, size -= used;
        return value;
    }
    std::vector<uint8_t> Part(size_t bytes) {
        const size_t used = bytes < size ? bytes : size;
        std::vector<uint8_t> part(data, data + used);
        data += used, size -= used;
        return part;
    }
};

std::unique_ptr<uint8_t[]> Block(const std::vector<uint8_t> &bytes) {
    std::unique_ptr<uint8_t[]> block(new uint8_t[bytes.size() ? bytes.size() : 1]);
    if (!bytes.empty()) memcpy(block.get(), bytes.data(), bytes.size());
    return block;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const StreamForm &form = kStreamForms[in.Take(1) % kStreamFormCount];
    StreamTrack track{};
    memcpy(track.Format, form.Format, 4);
    track.TrackId = 1;
    track.TrackType = int32_t(in.Take(1) % 3);
    track.Timescale = in.Take(4);
    track.SampleRate = in.Take(4);
    track.Channels = in.Take(2);
    track.Width = track.Height = in.Take(2);
    const std::vector<uint8_t> config = in.Part(in.Take(2));
    const std::vector<uint8_t> entry = in.Part(in.Take(2));
    auto configBlock = Block(config), entryBlock = Block(entry);
    track.Config = configBlock.get();
    track.ConfigSize = config.size();
    track.Entry = entryBlock.get();
    track.EntrySize = entry.size();
    std::vector<std::vector<uint8_t>> samples;
    std::vector<uint8_t> flags;
    while (in.size > 0 && samples.size() < 512) {
        const size_t length = in.Take(2);
        flags.push_back(uint8_t(in.Take(1)));
        samples.push_back(in.Part(length));
        track.SampleBytes += samples.back().size();
        if (samples.back().size() > track.LargestSample) track.LargestSample = uint32_t(samples.back().size());
    }
    track.SampleCount = uint32_t(samples.size());
    track.Duration = uint64_t(track.SampleCount) * 1024;
    FindStreamForm(track);

    StreamState state{};
    StreamBuffer out{};
    if (StartStream(&state, &form, track, &out) == kStreamDone) {
        for (size_t i = 0; i < samples.size(); ++i) {
            auto block = Block(samples[i]);
            // An empty sample comes without bytes, as the tool gives it.
            const StreamSample sample{samples[i].empty() ? nullptr : block.get(), samples[i].size(), i * 1024,
                                      uint64_t(flags[i] & 0x7F), (flags[i] & 0x80) != 0};
            if (AddStreamSample(&state, sample, &out) == kStreamNoMemory) break;
            out.Size = 0;
        }
        FinishStream(&state, &out);
    }
    EndStream(&state);
    FreeStreamBuffer(&out);
    return 0;
}
