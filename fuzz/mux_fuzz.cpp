// The stream readers of `mp4core mux` on arbitrary bytes: the first byte
// picks a row of the table of formats, the second gives --fps, the rest is
// the stream, held whole as an input that has ended. Every reader must end
// in a sample, the end or a failure, never read outside what it holds.
#include <cstdint>

#include "mux/mux.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const mux::Format &format = mux::kFormats[data[0] % mux::kFormatCount];
    mux::Options options;
    options.fpsNumerator = data[1] >> 4;
    options.fpsDenominator = data[1] & 0x0F;
    mux::ByteStream in;
    in.bytes.assign(data + 2, data + size);
    in.ended = true;
    format.probe(in.bytes.data(), in.bytes.size());
    mux::TrackDescription track;
    mux::Failure failure;
    mux::Reader *reader = format.open(&in, options, &track, &failure);
    if (reader == nullptr) return 0;
    mux::Sample sample;
    volatile uint8_t sum = 0;
    while (format.next(reader, &sample, &failure) == mux::Step::kSample)
        for (size_t i = 0; i < sample.size; ++i) sum = uint8_t(sum + sample.data[i]);
    format.close(reader);
    return 0;
}
