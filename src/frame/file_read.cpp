// Positioned reads of a handle's file, shared by the modern reader's atom
// walks, the key frame scan and the sample access calls, and the
// read-ahead window that serves runs of small reads with one read.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

namespace {

// One refill reads this many bytes, or what is left of the file. Samples of
// more than half of it are read straight into their Data: copying them
// through the window would cost more than the read it saves.
constexpr size_t kReadAheadBytes = 128 * 1024;
constexpr size_t kReadAheadLargest = kReadAheadBytes / 2;

}  // namespace

// The window's bytes follow the record in the same block: as many as the
// file has, up to kReadAheadBytes, so that a small file costs no more
// memory than its own size.
struct ReadAhead {
    uint64_t Start;   // file offset of Bytes()[0]
    size_t Length;    // bytes of the file that the window holds
    size_t Capacity;  // bytes the window can hold
    uint8_t *Bytes() { return reinterpret_cast<uint8_t *>(this + 1); }
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
    // Compared without sums: an offset near 2^64 plus a count would wrap.
    if (held != nullptr && offset >= held->Start && count <= held->Length &&
        offset - held->Start <= held->Length - count) {
        std::memcpy(bytes, held->Bytes() + (offset - held->Start), count);
        return count;
    }
    if (held == nullptr) {
        const size_t capacity = size_t(std::min<uint64_t>(kReadAheadBytes, root->FileSize));
        // Without memory for the window every read goes to the file.
        held = static_cast<ReadAhead *>(std::malloc(sizeof(ReadAhead) + capacity));
        if (held == nullptr) return ReadFileAt(root->FileStream, offset, bytes, count);
        held->Capacity = capacity;
        *window = held;
    }
    // The refill starts at the request and stops at the end of the file as
    // the open measured it (or the window's end); a request the window
    // can't hold whole is read directly.
    if (count > held->Capacity) return ReadFileAt(root->FileStream, offset, bytes, count);
    const uint64_t left = offset < root->FileSize ? root->FileSize - offset : 0;
    const size_t span = std::max(count, size_t(std::min<uint64_t>(held->Capacity, left)));
    held->Start = offset;
    held->Length = ReadFileAt(root->FileStream, offset, held->Bytes(), span);
    const size_t got = std::min(count, held->Length);
    std::memcpy(bytes, held->Bytes(), got);
    return got;
}

void ReleaseReadAhead(ReadAhead **window) {
    if (window == nullptr) return;
    std::free(*window);
    *window = nullptr;
}
