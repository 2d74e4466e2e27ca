// Positioned reads of a track's file, shared by the key frame scan and the
// sample access calls, and the read-ahead window that serves the samples.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tracks/tracks.h"

namespace {

// One refill reads this many bytes, or what is left of the file. Samples of
// more than half of it are read straight into their Data: copying them
// through the window would cost more than the read it saves.
constexpr size_t kReadAheadBytes = 128 * 1024;
constexpr size_t kReadAheadLargest = kReadAheadBytes / 2;

}  // namespace

struct ReadAhead {
    uint8_t Bytes[kReadAheadBytes];
    uint64_t Start;   // file offset of Bytes[0]
    size_t Length;    // bytes of the file that Bytes holds
};

size_t ReadFileAt(FILE *stream, uint64_t offset, uint8_t *bytes, size_t count) {
    const int descriptor = fileno(stream);
    size_t done = 0;
    while (done < count) {
        ssize_t got = pread(descriptor, bytes + done, count - done, off_t(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += size_t(got);
    }
    return done;
}

size_t ReadAheadAt(ReadAhead **window, Root_atom *root, uint64_t offset, uint8_t *bytes,
                   size_t count) {
    if (count > kReadAheadLargest) return ReadFileAt(root->FileStream, offset, bytes, count);
    ReadAhead *held = *window;
    if (held != nullptr && offset >= held->Start && offset + count <= held->Start + held->Length) {
        std::memcpy(bytes, held->Bytes + (offset - held->Start), count);
        return count;
    }
    if (held == nullptr) {
        // Without memory for the window every sample is read on its own.
        held = static_cast<ReadAhead *>(std::malloc(sizeof(ReadAhead)));
        if (held == nullptr) return ReadFileAt(root->FileStream, offset, bytes, count);
        *window = held;
    }
    // The refill starts at the sample and stops at the end of the file as
    // the open measured it; the sample itself is always asked for whole.
    const uint64_t left = offset < root->FileSize ? root->FileSize - offset : 0;
    const size_t span = std::max(count, size_t(std::min<uint64_t>(kReadAheadBytes, left)));
    held->Start = offset;
    held->Length = ReadFileAt(root->FileStream, offset, held->Bytes, span);
    const size_t got = std::min(count, held->Length);
    std::memcpy(bytes, held->Bytes, got);
    return got;
}

void ReleaseReadAhead(ReadAhead **window) {
    if (window == nullptr) return;
    std::free(*window);
    *window = nullptr;
}
