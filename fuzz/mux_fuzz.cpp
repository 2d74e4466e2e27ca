// The stream readers of mux on arbitrary bytes: the first byte picks a
// format of the table (its low six bits) and whether the stream is a file the
// reader may scan ahead (bit 7: a memory file) or standard input (the bytes
// held, no more to come), and bit 6 sets --fps 30000/1001; the rest is the
// stream. Every sample is read up to the end or a failure.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "mux/mux.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const mux::Format &format = mux::kFormats[(data[0] & 0x3F) % mux::kFormatCount];
    mux::ByteStream in;
    mux::Options options;
    if (data[0] & 0x40) options.fpsNumerator = 30000, options.fpsDenominator = 1001;
    if (data[0] & 0x80) {
        in.fd = memfd_create("stream", 0);
        in.owned = in.seekable = in.fd >= 0;
        if (in.fd < 0 || write(in.fd, data + 1, size - 1) != ssize_t(size - 1) || lseek(in.fd, 0, SEEK_SET) != 0) {
            mux::CloseByteStream(&in);
            return 0;
        }
    } else {
        in.bytes.assign(data + 1, data + size);
        in.ended = true;
    }
    mux::TrackDescription track;
    mux::Failure failure;
    mux::Reader *reader = format.open(&in, options, &track, &failure);
    if (reader != nullptr) {
        mux::Sample sample;
        while (format.next(reader, &sample, &failure) == mux::Step::kSample) {
        }
        format.close(reader);
    }
    mux::CloseByteStream(&in);
    return 0;
}
